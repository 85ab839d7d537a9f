// swl_test_service: an own-process service whose behaviour the arguments in its binary path choose:
//   --start-hint=N --start-delay=N  SERVICE_START_PENDING with hint N, then SERVICE_RUNNING after the delay
//   --stop=pending|hang|refuse      answer a stop request with SERVICE_STOP_PENDING and stop after
//                                   --stop-delay=N ms (pending) or never (hang), or stay running (refuse),
//   --stop-hint=N                   with that wait hint; without --stop, a stop request stops it at once.
// It always stops once "Global\SWLTestServiceRelease_<name>" is set, so a test can clean up; until
// then it can be stopped and started again.
#include <windows.h>
#include <cwchar>
#include <string>

namespace
{
const wchar_t* Option(const wchar_t* option)
{
    return wcsstr(GetCommandLineW(), option);
}

DWORD Number(const wchar_t* option)
{
    return Option(option) ? wcstoul(Option(option) + wcslen(option), nullptr, 10) : 0;
}

SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
SERVICE_STATUS g_status = {SERVICE_WIN32_OWN_PROCESS, 0, 0, 0, 0, 0, 0};
HANDLE g_stopRequested = nullptr, g_release = nullptr;

// Sets then, if given, after the report: ServiceMain reads g_status only once one of its events is set.
void Report(DWORD state, DWORD waitHint, HANDLE then = nullptr)
{
    g_status.dwCurrentState = state;
    g_status.dwWaitHint = waitHint;
    g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    g_status.dwCheckPoint = state == SERVICE_RUNNING || state == SERVICE_STOPPED ? 0 : g_status.dwCheckPoint + 1;
    SetServiceStatus(g_statusHandle, &g_status);
    if (then)
        SetEvent(then);
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*)
{
    if (control != SERVICE_CONTROL_STOP)
        return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
    if (Option(L"--stop=refuse"))
        Report(SERVICE_RUNNING, Number(L"--stop-hint="));
    else if (Option(L"--stop="))
        Report(SERVICE_STOP_PENDING, Number(L"--stop-hint="), g_stopRequested);
    else // only this instance's event: the named release would also end the next start at once
        Report(SERVICE_STOPPED, 0, g_stopRequested);
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD argc, wchar_t** argv)
{
    const std::wstring name = argc > 0 && argv[0] ? argv[0] : L"";
    g_stopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_release = CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str());
    if (!(g_statusHandle = RegisterServiceCtrlHandlerExW(name.c_str(), Handler, nullptr)))
        return;
    if (Option(L"--start-hint="))
    {
        Report(SERVICE_START_PENDING, Number(L"--start-hint="));
        Sleep(Number(L"--start-delay="));
    }
    Report(SERVICE_RUNNING, 0);
    HANDLE events[] = {g_release, g_stopRequested};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
        WaitForSingleObject(g_release, Option(L"--stop=hang") ? INFINITE : Number(L"--stop-delay="));
    if (g_status.dwCurrentState != SERVICE_STOPPED)
        Report(SERVICE_STOPPED, 0);
}
} // namespace

int main()
{
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<wchar_t*>(L""), ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
