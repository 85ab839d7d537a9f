#include "Payload/RuntimePrerequisite.h"
#include "KesTrace.h"
#include "Payload/PreInstallChecks.h"
#include "Services/ProcessRunner.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include <msiquery.h>

const wchar_t* const kRuntimeUninstallKey =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{b49c10dd-4d54-45f8-ad13-fa25704456a4}";

namespace
{
const wchar_t* const kRuntimeProductCodes[] = {L"{2E15F519-4FDA-4834-B4EE-7EFCE7D8D4EE}",
                                               L"{E528AD94-12D7-42C4-91A3-908BE28E9BD2}"};
// The override is off, so this key is never read.
const wchar_t* const kUnreadOverrideKey = L"SOFTWARE\\CORVANE\\NETWORK_SERVICES\\TORQ";

const DWORD kPropertyChars = 260;
const size_t kCommandLineChars = 262;
const DWORD kAfterInstallPauseMs = 200;
const REGSAM kRuntimeEntryAccess = KEY_ALL_ACCESS | KEY_WOW64_32KEY;
static_assert(kRuntimeEntryAccess == 0xF023F, "all access to the 32-bit view");

// Unknown, invalid, advertised and absent all count as not installed: a signed
// comparison with INSTALLSTATE_LOCAL (3).
bool IsRuntimeProductInstalled(const wchar_t* productCode)
{
    return static_cast<int>(MsiQueryProductStateW(productCode)) >= 3;
}
} // namespace

SWL_CUSTOM_ACTION(PeekCRT)
{
    return GuardedAction(L"PeekCRT", [&]() -> UINT {
        // These three actions have log texts of their own, not the usual "()" and "() - Exit" pair.
        LogToMSI(hInstall, L"PeekCRT");
        COSType os(false, kUnreadOverrideKey);
        // On any other processor nothing is examined and "ADDCRT" stays as it was.
        if (os.IsAMD64() && !IsRuntimeProductInstalled(kRuntimeProductCodes[0]) &&
            !IsRuntimeProductInstalled(kRuntimeProductCodes[1]))
        {
            LogToMSI(hInstall, L"Installation of Visual C++ runtime is required");
            MsiSetPropertyW(hInstall, L"ADDCRT", L"1");
        }
        return ERROR_SUCCESS;
    });
}

SWL_CUSTOM_ACTION(InstallCRT)
{
    return GuardedAction(L"InstallCRT", [&]() -> UINT {
        LogToMSI(hInstall, L"Entering InstallCRT");
        wchar_t supportDir[kPropertyChars] = {};
        DWORD size = kPropertyChars;
        MsiGetPropertyW(hInstall, L"SUPPORTDIR", supportDir, &size);
        supportDir[kPropertyChars - 1] = L'\0';
        LogToMSI(hInstall, supportDir);
        OutputDebugStringW(supportDir);

        CKesString command(L"\"");
        command += supportDir;
        command += L"\\vcredist.exe\" /install /passive /norestart /silent";
        // The bounded copy refuses a command line that does not fit (through the
        // library's invalid-parameter handler); nothing is run then. Nor is a
        // program in the root of the current drive, as an empty support folder would give.
        wchar_t commandLine[kCommandLineChars] = {};
        const bool runnable =
            supportDir[0] != L'\0' && KES_SAFE_COPY(commandLine, kCommandLineChars, command.c_str()) == 0;
        if (!runnable)
            commandLine[0] = L'\0';
        LogToMSI(hInstall, L"InstallCRT - command line is:", commandLine);

        if (!runnable || !MSIExec_Execute(commandLine, true, nullptr))
            LogToMSI(hInstall, L"InstallCRT - MSIExec_Execute - failed");
        // The runtime installer's own result is deliberately not examined.
        Sleep(kAfterInstallPauseMs);
        return ERROR_SUCCESS;
    });
}

SWL_CUSTOM_ACTION(HideCRTARP)
{
    return GuardedAction(L"HideCRTARP", [&]() -> UINT {
        LogToMSI(hInstall, L"Entering HideCRTARP()");
        LogToMSI(hInstall, L"Opening Key: ", kRuntimeUninstallKey);
        {
            UniqueHKey key;
            if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kRuntimeUninstallKey, 0, kRuntimeEntryAccess, key.put()) !=
                ERROR_SUCCESS)
            {
                LogToMSI(hInstall, L"Failed opening ARP GUID registry key");
            }
            else
            {
                const DWORD hidden = 1;
                if (RegSetValueExW(key.get(), L"SystemComponent", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&hidden),
                                   sizeof(hidden)) != ERROR_SUCCESS)
                    LogToMSI(hInstall, L"Failed to add SystemComponent value to registry key");
            }
        }
        LogToMSI(hInstall, L"Exiting HideCRTARP()");
        return ERROR_SUCCESS;
    });
}
