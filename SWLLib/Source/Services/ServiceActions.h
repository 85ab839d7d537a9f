#pragma once
// The custom actions that add, remove and restart the product's kernel
// services, and the test of whether removing them needs a reboot:
//   cfSwl        compression service, always added        (<system>\Drivers\cfswl.sys)
//   TPXPROV      crypto kernel-mode service, crypto only  (<system>\Drivers\tpxprov.sys)
//   TPXPROVUSER  crypto user-mode service, crypto only    (<system>\Drivers\tpxprovuser.sys)
//   HWA_SWL4     base driver, installed with the device driver; only stopped and removed here
// Each action goes on after a failed step and reports it in its result.
#include <windows.h>
#include <msi.h>

// Fixed path of the cfSwl service's parameters under HKEY_LOCAL_MACHINE.
extern const wchar_t* const kCfSwlParametersKey; // SYSTEM\CurrentControlSet\Services\cfSwl\Parameters

// True when one of TPXPROV, TPXPROVUSER, cfSwl, HWA_SWL4 is stop-pending, or
// else when CheckFilesForRemoval fails; it then deletes the remnant files as a
// side effect.
bool IsRebootRequired(MSIHANDLE hInstall);

// Custom action (deferred; CustomActionData is the value of INSTALLCRYPTO):
// adds and starts cfSwl with its parameters, and the two crypto services when
// the data is exactly "1"; then writes the install summary. 31 before any
// service is touched when the product key or its "InstallDir" is missing;
// otherwise 31 when any step failed.
extern "C" UINT __stdcall AddServices(MSIHANDLE hInstall);

// Custom action: stops and deletes TPXPROV, TPXPROVUSER and cfSwl, then
// HWA_SWL4, whichever exist; deletes the install summary. 31 when one of the
// first three could not be deleted; HWA_SWL4 never changes the result.
extern "C" UINT __stdcall RemoveServices(MSIHANDLE hInstall);

// Custom action: stops cfSwl, TPXPROVUSER, TPXPROV and starts cfSwl, TPXPROV,
// TPXPROVUSER. Deliberately reads each helper's result with the opposite sense,
// so a clean restart logs every step as failed and returns 31.
extern "C" UINT __stdcall RestartServices(MSIHANDLE hInstall);
