#include "Services/CryptoProvider.h"
#include "KesRegKey.h"
#include "KesTrace.h"
#include "Services/ProcessRunner.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"

const wchar_t* const kPlugInProviderKeysMissing = L"Cannot locate required registry keys for plugin provider";

namespace
{
const int kTicksPerWait = 250;
const DWORD kWaitMs = 50;

// "InstallDir" from the product key, opened for reading; false when the key or the value cannot be read.
bool ReadInstallDir(CKesString& installDir)
{
    CKesRegKey key;
    return key.Open(HKEY_LOCAL_MACHINE, kProductKey, false) && key.GetValue(L"InstallDir", installDir);
}

// The quoted tool path: the first token of the command line names the program.
CKesString QuotedToolPath(const CKesString& installDir)
{
    CKesString command(L"\"");
    command += installDir;
    command += L"\\Crypto\\TpxCNGInstaller.exe\"";
    return command;
}

// True only when "TopProvider" reads exactly "1" (no trimming, no case folding).
bool IsTopProvider()
{
    CKesRegKey key;
    CKesString value;
    // Opened with write access, as the registration always has been; a key that
    // does not open simply means no " -top".
    return key.Open(HKEY_LOCAL_MACHINE, kProductKey, true) && key.GetValue(L"TopProvider", value) && value == L"1";
}

bool RunTool(MSIHANDLE hInstall, CKesString command)
{
    // CreateProcessW may write into the command line, so it gets this copy's buffer.
    return MSIExec_ExecWithPBUpdate(hInstall, &command[0], kTicksPerWait, 0, kWaitMs);
}
} // namespace

SWL_CUSTOM_ACTION(RegisterPlugInProvider)
{
    return GuardedAction(L"RegisterPlugInProvider", [&]() -> UINT {
        LogToMSI(hInstall, L"RegisterPlugInProvider()");
        CKesString installDir;
        if (!ReadInstallDir(installDir))
        {
            LogToMSI(hInstall, kPlugInProviderKeysMissing);
            return ERROR_GEN_FAILURE;
        }
        CKesString command = QuotedToolPath(installDir);
        command += L" -register -all";
        if (IsTopProvider())
            command += L" -top";
        g_Debug.Print(L"RegisterPlugInProvider command is '%s'", command.c_str());

        if (!RunTool(hInstall, command))
        {
            // Deliberately no exit line on this path.
            LogToMSI(hInstall, L"TpxCNGInstaller.exe registration failed");
            return ERROR_GEN_FAILURE;
        }
        LogToMSI(hInstall, L"RegisterPlugInProvider() - Exit");
        return ERROR_SUCCESS;
    });
}

SWL_CUSTOM_ACTION(UnRegisterPlugInProvider)
{
    return GuardedAction(L"UnRegisterPlugInProvider", [&]() -> UINT {
        LogToMSI(hInstall, L"UnRegisterPlugInProvider()");
        CKesString installDir;
        if (!ReadInstallDir(installDir))
        {
            LogToMSI(hInstall, kPlugInProviderKeysMissing);
            return ERROR_GEN_FAILURE;
        }
        CKesString command = QuotedToolPath(installDir);
        command += L" -unregister -all";

        // Deliberate: the tool is always run twice, the same command both times.
        for (int run = 0; run < 2; ++run)
        {
            if (!RunTool(hInstall, command))
            {
                LogToMSI(hInstall, L"Cmd execution failed for - ", command);
                return ERROR_GEN_FAILURE;
            }
        }
        LogToMSI(hInstall, L"UnRegisterPlugInProvider() - Exit");
        return ERROR_SUCCESS;
    });
}
