#pragma once
// The Visual C++ runtime that the product's user-mode parts need: whether it
// must be installed, running its installer from the support folder, and
// hiding its own entry in the control panel's list of programs.
#include <windows.h>
#include <msi.h>

// The runtime's uninstall entry under HKEY_LOCAL_MACHINE, in the 32-bit registry view.
extern const wchar_t* const kRuntimeUninstallKey;

// Custom actions; each returns 0 in every case and reports problems only in
// the Installer log, so the runtime never fails the product's installation.

// On an AMD64 processor, sets "ADDCRT" to "1" when neither runtime product is
// installed (state below INSTALLSTATE_LOCAL). Never clears "ADDCRT".
extern "C" UINT __stdcall PeekCRT(MSIHANDLE hInstall);
// Runs "<SUPPORTDIR>\vcredist.exe" quietly and waits for it to end. A command
// line longer than its 261-character limit is not run.
extern "C" UINT __stdcall InstallCRT(MSIHANDLE hInstall);
// Sets "SystemComponent" = 1 on the runtime's uninstall entry in the 32-bit view.
extern "C" UINT __stdcall HideCRTARP(MSIHANDLE hInstall);
