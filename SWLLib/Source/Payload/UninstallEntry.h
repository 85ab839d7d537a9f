#pragma once
// The product's uninstall entry and the Installer properties saved for later
// (deferred or uninstall) runs.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// Component whose owning product is this one; its product code names the
// uninstall entry.
extern const wchar_t* const kProductComponentCode;

// Saves one property as a string value of the same name under the product key.
// Returns 0 or ERROR_GEN_FAILURE.
UINT WriteMSIPropertyToRegistry(MSIHANDLE hInstall, const CKesString& name);
