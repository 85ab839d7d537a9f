#include "Payload/UninstallEntry.h"
#include "KesTrace.h"
#include "KesRegKey.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"

const wchar_t* const kProductComponentCode = L"{3B9D2E71-8C44-4F0A-9E62-7A15C0D4B8E3}";

namespace
{
const wchar_t* const kUninstallKey = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\";
const wchar_t* const kDisplayName = L"Corvane(R) Swiftlane Technology";
} // namespace

SWL_CUSTOM_ACTION(WriteARPEntries)
{
    return GuardedAction(L"WriteARPEntries", [&]() -> UINT {
        LogToMSI(hInstall, L"WriteARPEntries()");
        UINT result = ERROR_SUCCESS;

        wchar_t productCode[260] = {};
        MsiGetProductCodeW(kProductComponentCode, productCode);
        productCode[259] = L'\0';
        CKesString keyPath(kUninstallKey);
        keyPath += productCode;

        // The lookup's result code is not examined, but an empty product code
        // would leave the path naming the Uninstall key itself (the registry
        // ignores the trailing separator), and the entry's values would land on
        // every product's parent key. Without a product code there is no entry.
        CKesRegKey key;
        if (productCode[0] == L'\0' || !key.Open(HKEY_LOCAL_MACHINE, keyPath, true))
        {
            LogToMSI(hInstall, L"Cannot locate required registry key for ARP entry");
            result = ERROR_GEN_FAILURE;
        }
        else
        {
            CKesString version;
            key.GetValue(L"DisplayVersion", version); // empty when missing
            CKesString displayName(kDisplayName);
            displayName += L" ";
            displayName += version;
            CKesString uninstall(L"MsiExec.exe /i ");
            uninstall += productCode;
            uninstall += L" ARPREMOVE=1";
            // The writes' results are not examined; the entry is cosmetic.
            key.SetValue(L"DisplayName", displayName, false);
            key.SetValue(L"UninstallString", uninstall, false);
            key.SetValue(L"WindowsInstaller", static_cast<DWORD>(0));
        }

        LogToMSI(hInstall, L"WriteARPEntries() - Exit");
        return result;
    });
}

UINT WriteMSIPropertyToRegistry(MSIHANDLE hInstall, const CKesString& name)
{
    int result = ERROR_GEN_FAILURE;
    CKesDebugScope scope(L"WriteMSIPropertyToRegistry", &result);
    LogToMSI(hInstall, L"WriteMSIPropertyToRegistry()");

    CKesRegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, kProductKey, true))
    {
        LogToMSI(hInstall, L"Failed to open Registry key for MSI properties entry ", kProductKey);
        return result;
    }

    wchar_t buffer[260] = {};
    DWORD size = 260;
    if (MsiGetPropertyW(hInstall, name, buffer, &size) != ERROR_SUCCESS)
    {
        // Deliberately the same words as a failed open: this is how the case is reported.
        LogToMSI(hInstall, L"Failed to open Registry key for MSI properties entry ", name);
        return result;
    }

    CKesString value(buffer);
    if (!key.SetValue(name, value, false))
    {
        LogToMSI(hInstall, L"Failed to write registry entry for  ", name);
        return result;
    }

    LogToMSI(hInstall, L"WriteMSIPropertyToRegistry() - Exit");
    result = ERROR_SUCCESS;
    return result;
}

SWL_CUSTOM_ACTION(WriteMSIPropertiesToRegistry)
{
    return GuardedAction(L"WriteMSIPropertiesToRegistry", [&]() -> UINT {
        LogToMSI(hInstall, L"WriteMSIPropertiesToRegistry()");
        UINT result = WriteMSIPropertyToRegistry(hInstall, L"UILevel") == ERROR_SUCCESS ? ERROR_SUCCESS
                                                                                         : ERROR_GEN_FAILURE;
        LogToMSI(hInstall, L"WriteMSIPropertiesToRegistry() - Exit");
        return result;
    });
}
