#pragma once
// Disabling, enabling and removing the product's devices through the SetupAPI
// class installer. Each action walks, for every supported device-instance ID
// found through WMI, all present devices and acts on those whose instance ID
// contains it. With no supported device each fails with 31.
#include <windows.h>
#include <msi.h>
#include <setupapi.h>

// Test seam for the two class-installer calls. Wine's
// SetupDiSetClassInstallParamsW always fails, so enable and disable could not
// succeed there; tests replace these to drive every outcome. The defaults are
// the SetupAPI functions themselves.
struct DeviceStateCalls
{
    static BOOL(WINAPI* SetClassInstallParams)(HDEVINFO devices, SP_DEVINFO_DATA* device,
                                               SP_CLASSINSTALL_HEADER* params, DWORD size);
    static BOOL(WINAPI* CallClassInstaller)(DI_FUNCTION function, HDEVINFO devices, SP_DEVINFO_DATA* device);
};

// Custom actions; 0, or 31 when a device could not be handled or none was found.
// Each disabled device is followed by a one-second pause, and the tree is
// re-enumerated afterwards when all went well.
extern "C" UINT __stdcall DisableDevices(MSIHANDLE hInstall);
// Waits one second before it looks for devices.
extern "C" UINT __stdcall EnableDevices(MSIHANDLE hInstall);
// A failure on one device does not stop the walk.
extern "C" UINT __stdcall RemoveDevices(MSIHANDLE hInstall);
