#pragma once
// Driver installation through Plug and Play, and the record of what was
// installed under HKLM\SOFTWARE\CORVANE\SWL\DRIVERS, which the removal walks:
//   value <device-instance ID without instance part> = the INF's name in the driver store ("InfPath")
//   value <driver file name, e.g. hwa_swl4.sys>       = <system folder>\drivers\<name>
// A device's value is rewritten on every install; a driver file's value is
// written only when it is not there yet.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// The session of the running InstallDrivers, for the Installer-log lines of
// the operations it calls (0 before the first call).
extern MSIHANDLE g_hInstallDriversSession;

extern const wchar_t* const kDriversKey; // SOFTWARE\CORVANE\SWL\DRIVERS

// Asks Plug and Play (cfgmgr32.dll, loaded at run time) to re-enumerate the
// device tree from its root. False when a step failed; a missing cfgmgr32.dll
// counts as success.
bool ReEnumeratePCIDevices();

// Installs infName from the support folder ("SupportDir" under the product
// key) on the device through newdev.dll's UpdateDriverForPlugAndPlayDevicesW,
// loaded at run time, and on success records the device and its driver file.
// False when the driver could not be installed.
bool UpdateDriverForDevices(CKesString deviceID, CKesString infName);

// Finds the first present device whose instance ID contains deviceID and
// records its driver-store INF and its driver file. Read failures record an
// empty INF name.
void GetDriverStoreInfPath(CKesString deviceID);

bool EnterRegistryKeyForINFInstall(CKesString deviceID, CKesString infPath);
bool EnterRegistryKeyForSysInstall(CKesString deviceID);

// Custom action: the driver on every supported device present; 31 when any
// device could not be handled (all are tried). Sets "INSTALLCRYPTO" to "0"
// when a TLM-D device is present or a device's service set has no crypto.
extern "C" UINT __stdcall InstallDrivers(MSIHANDLE hInstall);
