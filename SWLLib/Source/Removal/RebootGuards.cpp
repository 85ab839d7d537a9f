// Reboot and upgrade guards.
#include "Removal/RebootGuards.h"
#include "KesRegKey.h"
#include "KesTrace.h"
#include "Services/CryptoProvider.h"
#include "Services/ServiceActions.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "resource.h"

namespace
{
// Result of the upgrade guard: it stops the installation.
const UINT kPreviousVersionInstalled = 15609;
const wchar_t* const kInstallerDialogClass = L"MsiDialogCloseClass";

bool IsSilentRun(MSIHANDLE hInstall)
{
    return EvaluateCondition(hInstall, L"UILevel=2") || DoesRegistryKeyMatchValue(L"UILevel", CKesString(2));
}

void ForceReboot(MSIHANDLE hInstall, const wchar_t* line)
{
    LogToMSI(hInstall, line);
    MsiSetPropertyW(hInstall, L"REBOOT", L"Force");
}

// The box only informs: its answer is not examined.
void ShowStopMessage(MSIHANDLE hInstall, DWORD textId, const wchar_t* line)
{
    HWND owner = FindWindowW(kInstallerDialogClass, nullptr);
    CKesString caption = LoadResString(IDS_PRODUCT_CAPTION);
    CKesString text = LoadResString(textId);
    LogToMSI(hInstall, line);
    ShowMessageBox(hInstall, owner, text, caption, MB_OK);
}
} // namespace

SWL_CUSTOM_ACTION(RequestReboot)
{
    return GuardedAction(L"RequestReboot", [&]() -> UINT {
        LogToMSI(hInstall, L"RequestReboot()");
        UINT result = ERROR_SUCCESS;
        CKesRegKey product;
        if (!product.Open(HKEY_LOCAL_MACHINE, kProductKey, false))
        {
            // Deliberately the crypto-provider actions' text.
            LogToMSI(hInstall, kPlugInProviderKeysMissing);
        }
        else
        {
            CKesRegKey writable;
            CKesString topProvider;
            // Any readable value counts, even "0": only a first install with the provider on top writes it.
            if (writable.Open(HKEY_LOCAL_MACHINE, kProductKey, true) && writable.GetValue(L"TopProvider", topProvider))
            {
                g_Debug.Print(L"RequestReboot : first install with Default Cryptography Provider selected, reboot "
                              L"required");
                result = ERROR_SUCCESS_REBOOT_REQUIRED;
                if (IsSilentRun(hInstall))
                    LogToMSI(hInstall, L"RequestReboot : You must restart your system for the configuration changes "
                                       L"made to Corvane(R) Swiftlane Technology to take effect.");
                else
                    ForceReboot(hInstall, L"RequestReboot : Setting REBOOT to 'FORCE'");
            }
        }
        LogToMSI(hInstall, L"RequestReboot() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(WarnRebootRequired_AfterUninstall)
{
    return GuardedAction(L"WarnRebootRequired_AfterUninstall", [&]() -> UINT {
        LogToMSI(hInstall, L"WarnRebootRequired_AfterUninstall()");
        if (IsRebootRequired(hInstall))
        {
            LogToMSI(hInstall, L"Found services pending removal, a reboot is required to complete uninstall.");
            if (!IsSilentRun(hInstall))
                ForceReboot(hInstall, L"WarnRebootRequired_AfterUninstall : Setting REBOOT to 'FORCE'");
        }
        LogToMSI(hInstall, L"WarnRebootRequired_AfterUninstall : Exit");
        // The removal is done either way: the reboot request is all there is to ask for.
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}

SWL_CUSTOM_ACTION(WarnRebootRequired_BeforeInstall)
{
    return GuardedAction(L"WarnRebootRequired_BeforeInstall", [&]() -> UINT {
        LogToMSI(hInstall, L"WarnRebootRequired_BeforeInstall()");
        if (!IsRebootRequired(hInstall))
        {
            LogToMSI(hInstall, L"WarnRebootRequired_BeforeInstall : Exit");
            return static_cast<UINT>(ERROR_SUCCESS);
        }
        // Deliberately one blank before "Please" here and two in the line shown with the box.
        if (IsSilentRun(hInstall))
            LogToMSI(hInstall, L"A reboot is pending. The Corvane(R) Swiftlane installer cannot continue. Please "
                               L"reboot the system and run the installer again.");
        else
            ShowStopMessage(hInstall, IDS_PENDING_RESTART,
                            L"A reboot is pending. The Corvane(R) Swiftlane installer cannot continue.  Please "
                            L"reboot the system and run the installer again.");
        LogToMSI(hInstall, L"WarnRebootRequired_BeforeInstall : Exit");
        // Installer takes 3010 from this action as a failure, which stops the installation.
        return static_cast<UINT>(ERROR_SUCCESS_REBOOT_REQUIRED);
    });
}

SWL_CUSTOM_ACTION(WarnUninstallRequired_Upgrade)
{
    return GuardedAction(L"WarnUninstallRequired_Upgrade", [&]() -> UINT {
        LogToMSI(hInstall, L"WarnUninstallRequired_Upgrade()");
        UINT result = ERROR_SUCCESS;
        CKesString upgrading;
        GetMSIProperty(hInstall, L"UPGRADING", upgrading);
        if (upgrading == L"1")
        {
            const wchar_t* const line = L"A previous version was detected and must be uninstalled. The Corvane(R) "
                                        L"Swiftlane installer cannot continue.";
            LogToMSI(hInstall, line);
            result = kPreviousVersionInstalled;
            // Deliberately logged a second time with the box.
            if (!IsSilentRun(hInstall))
                ShowStopMessage(hInstall, IDS_PREVIOUS_VERSION, line);
        }
        LogToMSI(hInstall, L"WarnUninstallRequired_Upgrade : Exit");
        return result;
    });
}
