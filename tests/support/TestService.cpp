#include "TestService.h"

SC_HANDLE TestServiceManager()
{
    static const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    return manager.get();
}

TestService::TestService(const std::wstring& name, const std::wstring& arguments)
    : release(CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str()))
{
    // The event is manual-reset and named after the service: while the process of an earlier service of
    // this name has not yet exited, this opens that instance's event, which its end left signalled.
    ResetEvent(release.get());
    wchar_t command[MAX_PATH] = L"\"";
    GetModuleFileNameW(nullptr, command + 1, MAX_PATH - 32);
    wcscpy(wcsrchr(command, L'\\'), L"\\swl_test_service.exe\" ");
    service.reset(CreateServiceW(TestServiceManager(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                 (command + arguments).c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
}

TestService::~TestService()
{
    SERVICE_STATUS status = {};
    SetEvent(release.get());
    while (QueryServiceStatus(service.get(), &status) && status.dwCurrentState != SERVICE_STOPPED)
        Sleep(50);
    DeleteService(service.get());
}

bool TestService::Start()
{
    SERVICE_STATUS status = {};
    if (!StartServiceW(service.get(), 0, nullptr))
        return false;
    for (int i = 0; i < 200 && QueryServiceStatus(service.get(), &status); ++i)
    {
        if (status.dwCurrentState == SERVICE_RUNNING)
            return true;
        Sleep(50);
    }
    return false;
}

bool TestService::StartAndLeaveStopPending()
{
    SERVICE_STATUS status = {};
    return Start() && ControlService(service.get(), SERVICE_CONTROL_STOP, &status) &&
           status.dwCurrentState == SERVICE_STOP_PENDING;
}

bool ServiceExists(const std::wstring& name)
{
    return UniqueServiceHandle(OpenServiceW(TestServiceManager(), name.c_str(), SERVICE_QUERY_STATUS)) ||
           GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
}

DWORD ServiceState(const std::wstring& name)
{
    SERVICE_STATUS status = {};
    UniqueServiceHandle service(OpenServiceW(TestServiceManager(), name.c_str(), SERVICE_QUERY_STATUS));
    return service && QueryServiceStatus(service.get(), &status) ? status.dwCurrentState : 0;
}
