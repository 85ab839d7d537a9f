// swl_test_service: a real own-process service for the service-control tests.
// Its behaviour comes from the arguments in its binary path:
//   --start-hint=N   report SERVICE_START_PENDING with wait hint N first
//   --start-delay=N  then report SERVICE_RUNNING N ms later
//   --stop=MODE      what a stop request does:
//                      immediate (default) report SERVICE_STOPPED from the handler
//                      pending   report SERVICE_STOP_PENDING, stop --stop-delay ms later
//                      hang      report SERVICE_STOP_PENDING and stay there
//                      refuse    stay SERVICE_RUNNING
//   --stop-hint=N    wait hint reported with SERVICE_STOP_PENDING (and with the
//                    running state in refuse mode)
//   --stop-delay=N   delay of the pending mode
// Whatever the mode, the service stops once the manual-reset event
// "Global\SWLTestServiceRelease_<service name>" is set, so that a test can
// always clean up.
#include <windows.h>
#include <shellapi.h>
#include <cwchar>
#include <string>

namespace
{
enum class StopMode
{
    Immediate,
    Pending,
    Hang,
    Refuse
};

struct Options
{
    DWORD startHint = 0;
    DWORD startDelay = 0;
    StopMode stop = StopMode::Immediate;
    DWORD stopHint = 0;
    DWORD stopDelay = 0;
};

Options g_options;
SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
SERVICE_STATUS g_status = {};
CRITICAL_SECTION g_lock;
HANDLE g_stopRequested = nullptr;
HANDLE g_release = nullptr;

bool ReadNumber(const wchar_t* arg, const wchar_t* name, DWORD& value)
{
    const size_t length = wcslen(name);
    if (wcsncmp(arg, name, length) != 0)
        return false;
    value = wcstoul(arg + length, nullptr, 10);
    return true;
}

void ParseOptions()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv)
        return;
    for (int i = 1; i < argc; ++i)
    {
        const wchar_t* arg = argv[i];
        if (ReadNumber(arg, L"--start-hint=", g_options.startHint) ||
            ReadNumber(arg, L"--start-delay=", g_options.startDelay) ||
            ReadNumber(arg, L"--stop-hint=", g_options.stopHint) ||
            ReadNumber(arg, L"--stop-delay=", g_options.stopDelay))
            continue;
        if (wcscmp(arg, L"--stop=pending") == 0)
            g_options.stop = StopMode::Pending;
        else if (wcscmp(arg, L"--stop=hang") == 0)
            g_options.stop = StopMode::Hang;
        else if (wcscmp(arg, L"--stop=refuse") == 0)
            g_options.stop = StopMode::Refuse;
    }
    LocalFree(argv);
}

void Report(DWORD state, DWORD waitHint)
{
    EnterCriticalSection(&g_lock);
    g_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    g_status.dwCurrentState = state;
    g_status.dwWin32ExitCode = NO_ERROR;
    g_status.dwWaitHint = waitHint;
    g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    if (state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING)
        ++g_status.dwCheckPoint;
    else
        g_status.dwCheckPoint = 0;
    SetServiceStatus(g_statusHandle, &g_status);
    LeaveCriticalSection(&g_lock);
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*)
{
    switch (control)
    {
    case SERVICE_CONTROL_STOP:
        switch (g_options.stop)
        {
        case StopMode::Immediate:
            Report(SERVICE_STOPPED, 0);
            SetEvent(g_release);
            break;
        case StopMode::Pending:
        case StopMode::Hang:
            Report(SERVICE_STOP_PENDING, g_options.stopHint);
            SetEvent(g_stopRequested);
            break;
        case StopMode::Refuse:
            Report(SERVICE_RUNNING, g_options.stopHint);
            break;
        }
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD argc, wchar_t** argv)
{
    const std::wstring name = argc > 0 && argv[0] ? argv[0] : L"";
    g_stopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_release = CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str());
    g_statusHandle = RegisterServiceCtrlHandlerExW(name.c_str(), Handler, nullptr);
    if (!g_statusHandle)
        return;

    if (g_options.startHint != 0 || g_options.startDelay != 0)
    {
        Report(SERVICE_START_PENDING, g_options.startHint);
        Sleep(g_options.startDelay);
    }
    Report(SERVICE_RUNNING, 0);

    HANDLE events[] = {g_release, g_stopRequested};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
    {
        if (g_options.stop == StopMode::Pending)
            Sleep(g_options.stopDelay);
        else
            WaitForSingleObject(g_release, INFINITE);
    }
    EnterCriticalSection(&g_lock);
    const bool stopped = g_status.dwCurrentState == SERVICE_STOPPED;
    LeaveCriticalSection(&g_lock);
    if (!stopped)
        Report(SERVICE_STOPPED, 0);
}
} // namespace

int main()
{
    InitializeCriticalSection(&g_lock);
    ParseOptions();
    wchar_t empty[] = L"";
    SERVICE_TABLE_ENTRYW table[] = {{empty, ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
