#include "Services/ProcessRunner.h"
#include "KesTrace.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include <cstdio>

namespace
{
// Room for "CreateProcess() result was: " and any system error text; a longer
// text is cut, never overrun.
const size_t kStartFailureChars = 1024;

static_assert(sizeof(STARTUPINFOW) == 104, "the start-up record is the 104-byte 64-bit layout");
static_assert(sizeof(SECURITY_ATTRIBUTES) == 24, "the security record is the 24-byte 64-bit layout");
} // namespace

bool MSIExec_ExecWithPBUpdate(MSIHANDLE hInstall, wchar_t* commandLine, int ticksPerWait, DWORD reserved,
                              DWORD waitMs)
{
    bool started = false;
    CKesDebugScope scope(L"MSIExec_ExecWithPBUpdate", &started);
    g_Debug.Print(L"Command : %s", commandLine);

    // Deliberate: an inheritable security record is prepared but never passed
    // on, and SW_SHOW is set without STARTF_USESHOWWINDOW, so it has no effect.
    SECURITY_ATTRIBUTES security = {};
    security.nLength = sizeof(security);
    security.lpSecurityDescriptor = nullptr;
    security.bInheritHandle = TRUE;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.wShowWindow = SW_SHOW;
    PROCESS_INFORMATION processInfo = {};

    if (!CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                        &processInfo))
    {
        const CKesString reason = GetLastErrorText();
        wchar_t message[kStartFailureChars];
        _snwprintf(message, kStartFailureChars - 1, L"CreateProcess() result was: %s\n", reason.c_str());
        message[kStartFailureChars - 1] = L'\0';
        LogToMSI(hInstall, message);
        return started;
    }
    UniqueKernelHandle process(processInfo.hProcess);
    UniqueKernelHandle thread(processInfo.hThread);
    started = true;

    g_Debug.Print(L"Process request successful, waiting for exit");
    DWORD waitResult = WAIT_TIMEOUT;
    do
    {
        waitResult = WaitForSingleObject(process.get(), waitMs);
        // The bar moves after every wait, the one that saw the process end included.
        ReportProgressTicks(hInstall, ticksPerWait);
    } while (waitResult == WAIT_TIMEOUT);

    // The exit code is deliberately not read: only the start counts.
    g_Debug.Print(L"Process finished");
    return started;
}

bool MSIExec_Execute(wchar_t* commandLine, bool wait, const wchar_t* workingFolder)
{
    bool started = false;
    CKesDebugScope scope(L"MSIExec_Execute", &started);

    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION processInfo = {};
    if (!CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, workingFolder,
                        &startup, &processInfo))
    {
        g_Debug.Print(L"MSIExec_Execute: CreateProcess failed. %s", GetLastErrorText().c_str());
        return started;
    }
    UniqueKernelHandle process(processInfo.hProcess);
    UniqueKernelHandle thread(processInfo.hThread);
    started = true;

    if (wait)
    {
        WaitForSingleObject(process.get(), INFINITE);
        // For support only: the answer stays "started", whatever the program reports.
        DWORD exitCode = 0;
        if (GetExitCodeProcess(process.get(), &exitCode))
            g_Debug.Print(L"MSIExec_Execute: process exit code %lu", exitCode);
    }
    return started;
}
