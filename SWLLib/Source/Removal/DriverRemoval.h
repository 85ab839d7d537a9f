#pragma once
// Driver and firmware removal on uninstall. RemoveDrivers walks the record
// that InstallDrivers keeps under HKLM\SOFTWARE\CORVANE\SWL\DRIVERS (see
// Devices/DriverInstall.h): each value's data, lower-cased, that contains
// ".inf" is uninstalled from the driver store, and each that contains ".sys"
// and names an existing file is deleted. A value holding both is treated both
// ways. The record itself is left as it is.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// The session of the running RemoveDrivers, for RemoveDriver's Installer-log
// lines. Set on each call, never cleared.
extern MSIHANDLE g_hCurrentInstall;

// Uninstalls the package from the driver store even if devices still use it
// (SUOI_FORCEDELETE). True when it was removed.
bool RemoveDriver(CKesString inf);

// Custom action: removes what the DRIVERS record names, then deletes
// C:\Windows\System32\swl_msg4.dll with ownership takeover. 31 when the record
// cannot be opened or one of its values cannot be read (the walk stops there);
// a package or file that stays is only logged.
extern "C" UINT __stdcall RemoveDrivers(MSIHANDLE hInstall);

// Custom action: deletes the firmware folder of every catalogue row
// (<system folder>\Drivers\hwaSWLFW): the files directly in it, then the
// folder. Always 0.
extern "C" UINT __stdcall RemoveFirmware(MSIHANDLE hInstall);
