#pragma once
// Reboot and upgrade guards: whether the machine must restart after an install
// or a removal, and whether an installation may start at all. A run is silent
// when the condition "UILevel=2" holds or the product key's "UILevel" is "2";
// a silent run shows no message box and never sets "REBOOT".
#include <windows.h>
#include <msi.h>

// Custom action: 3010 when the product key has a readable "TopProvider" (any
// content: the first install made the provider the top one); then, unless the
// run is silent, "REBOOT" is set to "Force". Otherwise 0.
extern "C" UINT __stdcall RequestReboot(MSIHANDLE hInstall);

// Custom action: sets "REBOOT" to "Force" (unless silent) when IsRebootRequired
// says so. Always 0.
extern "C" UINT __stdcall WarnRebootRequired_AfterUninstall(MSIHANDLE hInstall);

// Custom action: 3010, which stops the installation, when IsRebootRequired
// says a reboot is pending, with a message box unless silent; otherwise 0.
// IsRebootRequired deletes the remnant files as a side effect.
extern "C" UINT __stdcall WarnRebootRequired_BeforeInstall(MSIHANDLE hInstall);

// Custom action: 15609, which stops the installation, when "UPGRADING" is
// exactly "1", with a message box unless silent; otherwise 0.
extern "C" UINT __stdcall WarnUninstallRequired_Upgrade(MSIHANDLE hInstall);
