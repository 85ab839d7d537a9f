#pragma once
// CHelper: finds and loads the shared resource libraries of the maker's
// installers. Only the library loader is needed by this product.
//
// Registry (HKEY_LOCAL_MACHINE, REG_SZ values, at most 259 characters):
//   SOFTWARE\CORVANE\Network_Services\TORQ  "LocalLanguage"  language code appended to "CommonRes"
//   SOFTWARE\CORVANE\Network_Services\TORQ  "ResourceDir", "InstallDir"  folders searched, in this order
//   SOFTWARE\CORVANE\Network_Services\KES2  "ResourceDir", "InstallDir"  searched next
#include "SwlApi.h"
#include "KesString.h"
#include <windows.h>

class CHelper
{
public:
    // "CommonRes" followed by the installed language code when one is recorded.
    static CKesString CommonResourceLibraryName();
    // Loads name (".dll" is added) from the first recorded folder that holds it,
    // falling back to the bare name and the system's search order. Returns the
    // module, which the caller frees, or null.
    static HMODULE LoadResourceLibrary(const CKesString& name);
};
