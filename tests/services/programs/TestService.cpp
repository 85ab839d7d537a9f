// swl_test_service: an own-process service for the service-control tests,
// its behaviour chosen by the arguments in its binary path:
//   --start-hint=N --start-delay=N  report SERVICE_START_PENDING with hint N,
//                                   then SERVICE_RUNNING after the delay
//   --stop=pending|hang|refuse      answer a stop request with SERVICE_STOP_PENDING
//                                   and stop after --stop-delay=N ms or never, or
//                                   stay running; without it, stop at once
//   --stop-hint=N                   wait hint of that answer
// It always stops once "Global\SWLTestServiceRelease_<name>" is set, so a test can clean up.
#include <windows.h>
#include <cwchar>
#include <string>

namespace
{
bool HasOption(const wchar_t* option)
{
    return wcsstr(GetCommandLineW(), option) != nullptr;
}

DWORD Number(const wchar_t* option)
{
    const wchar_t* found = wcsstr(GetCommandLineW(), option);
    return found ? wcstoul(found + wcslen(option), nullptr, 10) : 0;
}

SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
SERVICE_STATUS g_status = {SERVICE_WIN32_OWN_PROCESS, 0, 0, 0, 0, 0, 0};
CRITICAL_SECTION g_lock;
HANDLE g_stopRequested = nullptr;
HANDLE g_release = nullptr;

void Report(DWORD state, DWORD waitHint)
{
    EnterCriticalSection(&g_lock);
    g_status.dwCurrentState = state;
    g_status.dwWaitHint = waitHint;
    g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    g_status.dwCheckPoint = pending ? g_status.dwCheckPoint + 1 : 0;
    SetServiceStatus(g_statusHandle, &g_status);
    LeaveCriticalSection(&g_lock);
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*)
{
    if (control == SERVICE_CONTROL_INTERROGATE)
        return NO_ERROR;
    if (control != SERVICE_CONTROL_STOP)
        return ERROR_CALL_NOT_IMPLEMENTED;
    if (HasOption(L"--stop=refuse"))
        Report(SERVICE_RUNNING, Number(L"--stop-hint="));
    else if (HasOption(L"--stop=pending") || HasOption(L"--stop=hang"))
    {
        Report(SERVICE_STOP_PENDING, Number(L"--stop-hint="));
        SetEvent(g_stopRequested);
    }
    else
    {
        Report(SERVICE_STOPPED, 0);
        SetEvent(g_release);
    }
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD argc, wchar_t** argv)
{
    const std::wstring name = argc > 0 && argv[0] ? argv[0] : L"";
    g_stopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_release = CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str());
    g_statusHandle = RegisterServiceCtrlHandlerExW(name.c_str(), Handler, nullptr);
    if (!g_statusHandle)
        return;
    if (HasOption(L"--start-hint="))
    {
        Report(SERVICE_START_PENDING, Number(L"--start-hint="));
        Sleep(Number(L"--start-delay="));
    }
    Report(SERVICE_RUNNING, 0);

    HANDLE events[] = {g_release, g_stopRequested};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
        WaitForSingleObject(g_release, HasOption(L"--stop=hang") ? INFINITE : Number(L"--stop-delay="));
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
    wchar_t empty[] = L"";
    SERVICE_TABLE_ENTRYW table[] = {{empty, ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
