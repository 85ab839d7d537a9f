#pragma once
// Registration of the product's cryptography provider with Windows CNG through
// the registration tool in the product folder, "<InstallDir>\Crypto\TpxCNGInstaller.exe".
#include <windows.h>
#include <msi.h>

// "Cannot locate required registry keys for plugin provider": logged when the
// product key cannot be read; RequestReboot logs it too.
extern const wchar_t* const kPlugInProviderKeysMissing;

// Custom actions. Both need the string "InstallDir" under the product key and
// fail with 31 before running anything without it. Only a tool that cannot be
// started is a failure: the tool's exit code is not read.

// Runs the tool once with " -register -all", plus " -top" when the product
// key's "TopProvider" is exactly "1". 0 or 31.
extern "C" UINT __stdcall RegisterPlugInProvider(MSIHANDLE hInstall);
// Runs the tool twice with " -unregister -all". 0, or 31 when either run cannot start.
extern "C" UINT __stdcall UnRegisterPlugInProvider(MSIHANDLE hInstall);
