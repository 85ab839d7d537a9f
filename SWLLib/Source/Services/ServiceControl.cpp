// Service control helpers over the service control manager.
#include "Services/ServiceControl.h"
#include "KesTrace.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include <shlwapi.h>

namespace
{
// Bounds of the caller's wait in StartServiceAndWait and StopServiceAndWait.
constexpr DWORD kMinWaitMs = 1000;
constexpr DWORD kMaxWaitMs = 10000;
// The wait STARTService and STOPService give the wait functions.
constexpr DWORD kDefaultWaitMs = 2000;

// Texts written from more than one place.
constexpr const wchar_t* kNoManagerTrace = L"ERROR:  Unable to open the service control manager! - error=%s";
constexpr const wchar_t* kNoServiceTrace = L"Service '%s' does not exist";
constexpr const wchar_t* kQueryFailedTrace = L"Unable to query service '%s'";
constexpr const wchar_t* kQueryFailedLog = L"Unable to query service";
constexpr const wchar_t* kServiceStarted = L"Service started";
constexpr const wchar_t* kServiceStopped = L"Service stopped";
constexpr const wchar_t* kAlreadyStopped = L"Service already stopped";
constexpr const wchar_t* kStopTimedOut = L"Service stop request timed out!";
constexpr const wchar_t* kServiceHandleNull = L"Handle to the service is NULL!";
constexpr const wchar_t* kStatusException = L"GetServiceStatus : caught Exception!";
constexpr const wchar_t* kStopNotConfirmedLog = L"STOP service request indicated the service was not stopped; requesting new status. A reboot may be needed.!!!!!!";
constexpr const wchar_t* kStopNotConfirmedTrace = L"STOP service request for '%s' indicated the service was not stopped; requesting new status. A reboot may be needed.";

DWORD ClampWait(DWORD waitMs)
{
    if (waitMs < kMinWaitMs)
        return kMinWaitMs;
    if (waitMs > kMaxWaitMs)
        return kMaxWaitMs;
    return waitMs;
}

// The manager with full rights on the active database, as every helper but
// AddService opens it.
SC_HANDLE OpenActiveManager()
{
    return OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_ALL_ACCESS);
}
} // namespace

DWORD AddService(CKesString name, CKesString displayName, CKesString binaryPath, DWORD /*reserved*/)
{
    CKesDebugScope scope(L"AddService");
    g_Debug.Print(L"AddService requested for %s | %s | %s", name.c_str(), displayName.c_str(), binaryPath.c_str());

    if (!PathFileExistsW(binaryPath.c_str()))
    {
        g_Debug.Print(L"Invalid binary for service, doesnt exist : %s", GetLastErrorText().c_str());
        return ERROR_GEN_FAILURE;
    }
    // Any non-zero status, 716 included, means the name is taken.
    if (GetServiceStatus(name) != 0)
    {
        // Deliberate: the apostrophe after the percent sign belongs to the traced
        // text; the runtime prints it as "'s" and the name is not substituted.
        g_Debug.Print(L"A service with name '%'s already exists! you can't add it again", name.c_str());
        return ERROR_GEN_FAILURE;
    }

    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    try
    {
        // Not tested for null: CreateServiceW then fails and that failure is traced.
        manager.reset(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
        service.reset(CreateServiceW(manager.get(), name.c_str(), displayName.c_str(), SERVICE_QUERY_STATUS,
                                     SERVICE_KERNEL_DRIVER, SERVICE_SYSTEM_START, SERVICE_ERROR_NORMAL,
                                     binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
        if (service)
            g_Debug.Print(L"AddService request successful.");
        else
            g_Debug.Print(L"AddService failed for '%s': %s", name.c_str(), GetLastErrorText().c_str());
    }
    catch (...)
    {
        g_Debug.Print(L"AddService caught exception!");
    }
    // Deliberately 0 even when the service was not created: the caller's start
    // of the service reports the problem.
    return ERROR_SUCCESS;
}

DWORD RemoveService(CKesString name, MSIHANDLE hInstall)
{
    CKesDebugScope scope(L"RemoveService");
    g_Debug.Print(L"RemoveService requested for %s", name.c_str());

    DWORD result = ERROR_SUCCESS;
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    try
    {
        manager.reset(OpenActiveManager());
        if (!manager)
        {
            g_Debug.Print(L"Unable to open the service control manager! - error=%s", GetLastErrorText().c_str());
            LogToMSI(hInstall, L"Unable to open the service control manager!");
            result = ERROR_GEN_FAILURE;
        }
        else
        {
            service.reset(OpenServiceW(manager.get(), name.c_str(), DELETE));
            if (!service)
            {
                g_Debug.Print(L"Unable to open the service! - error=%s", GetLastErrorText().c_str());
                LogToMSI(hInstall, L"Unable to open the service!");
                result = ERROR_GEN_FAILURE;
            }
            else if (!DeleteService(service.get()))
            {
                g_Debug.Print(L"Cannot delete service! - error=%s", GetLastErrorText().c_str());
                LogToMSI(hInstall, L"Cannot delete service!");
                result = ERROR_GEN_FAILURE;
            }
        }
    }
    catch (...)
    {
        KES_TRACE_ERROR(L"RemoveService : Exception caught - error=%s", GetLastErrorText().c_str());
        LogToMSI(hInstall, L"RemoveService : Exception caught");
        result = ERROR_GEN_FAILURE;
    }
    return result;
}

DWORD GetServiceStatus(CKesString name)
{
    CKesDebugScope scope(L"GetServiceStatus");
    g_Debug.Print(L"GetServiceStatus requested for %s", name.c_str());

    DWORD result = 0;
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    try
    {
        manager.reset(OpenActiveManager());
        if (!manager)
        {
            g_Debug.Print(kNoManagerTrace, GetLastErrorText().c_str());
            result = kServiceStatusUnavailable;
        }
        else
        {
            service.reset(OpenServiceW(manager.get(), name.c_str(), SERVICE_ALL_ACCESS));
            SERVICE_STATUS status = {};
            if (!service)
            {
                // Access denied and every other error read as "does not exist" too.
                g_Debug.Print(kNoServiceTrace, name.c_str());
                result = 0;
            }
            else if (!QueryServiceStatus(service.get(), &status))
            {
                g_Debug.Print(kQueryFailedTrace, name.c_str());
                result = kServiceStatusUnavailable;
            }
            else
            {
                result = status.dwCurrentState;
                g_Debug.Print(L"'%s' state is %s", name.c_str(), ServiceStateName(result).c_str());
            }
        }
    }
    catch (...)
    {
        KES_TRACE_ERROR(kStatusException);
        result = kServiceExceptionCaught;
    }
    return result;
}

CKesString ServiceStateName(DWORD state)
{
    switch (state)
    {
    case SERVICE_STOPPED:
        return L"SERVICE_STOPPED";
    case SERVICE_START_PENDING:
        return L"SERVICE_START_PENDING";
    case SERVICE_STOP_PENDING:
        return L"SERVICE_STOP_PENDING";
    case SERVICE_RUNNING:
        return L"SERVICE_RUNNING";
    case SERVICE_CONTINUE_PENDING:
        return L"SERVICE_CONTINUE_PENDING";
    case SERVICE_PAUSE_PENDING:
        return L"SERVICE_PAUSE_PENDING";
    case SERVICE_PAUSED:
        return L"SERVICE_PAUSED";
    default:
        return L"UNKNOWN";
    }
}

DWORD STARTService(CKesString name)
{
    CKesDebugScope scope(L"STARTService");
    g_Debug.Print(L"STARTService requested for %s", name.c_str());

    DWORD result = ERROR_SUCCESS;
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    try
    {
        manager.reset(OpenActiveManager());
        if (!manager)
        {
            g_Debug.Print(kNoManagerTrace, GetLastErrorText().c_str());
            result = ERROR_GEN_FAILURE;
        }
        else
        {
            service.reset(OpenServiceW(manager.get(), name.c_str(), SERVICE_ALL_ACCESS));
            if (!service)
            {
                g_Debug.Print(kNoServiceTrace, name.c_str());
                result = ERROR_GEN_FAILURE;
            }
            else if (StartServiceAndWait(name, service.get(), kDefaultWaitMs) != ERROR_SUCCESS)
            {
                g_Debug.Print(L"Failed to start service '%s'", name.c_str());
                result = ERROR_GEN_FAILURE;
            }
        }
    }
    catch (...)
    {
        // Names the status function; support searches for this exact text.
        KES_TRACE_ERROR(kStatusException);
        result = kServiceExceptionCaught;
    }
    return result;
}

DWORD StartServiceAndWait(CKesString name, SC_HANDLE service, DWORD waitMs)
{
    CKesDebugScope scope(L"STARTService");
    g_Debug.Print(L"Service start requested for %s", name.c_str());
    const DWORD start = GetTickCount();

    // Deliberately unused after the clamp: the start wait is bounded by the
    // service's own wait hint, unlike the stop wait.
    waitMs = ClampWait(waitMs);
    (void)waitMs;

    if (service == nullptr)
    {
        KES_TRACE_ERROR(kServiceHandleNull);
        return ERROR_GEN_FAILURE;
    }
    SERVICE_STATUS status = {};
    auto queryFailed = [&] {
        g_Debug.Print(kQueryFailedTrace, name.c_str());
        return static_cast<DWORD>(ERROR_GEN_FAILURE);
    };
    if (!QueryServiceStatus(service, &status))
        return queryFailed();
    if (status.dwCurrentState == SERVICE_RUNNING)
    {
        KES_TRACE_ERROR(L"Service already started");
        return ERROR_SUCCESS;
    }

    g_Debug.Print(L"Service elgible for a start request");
    if (!StartServiceW(service, 0, nullptr))
    {
        KES_TRACE_ERROR(L"Unable to send SERVICE_CONTROL_Start command! - error=%s", GetLastErrorText().c_str());
        return ERROR_GEN_FAILURE;
    }
    if (!QueryServiceStatus(service, &status))
        return queryFailed();

    while (status.dwCurrentState == SERVICE_START_PENDING)
    {
        const DWORD step = status.dwWaitHint / 10;
        Sleep(step);
        if (!QueryServiceStatus(service, &status))
            return queryFailed();
        if (status.dwCurrentState == SERVICE_RUNNING)
        {
            g_Debug.Print(kServiceStarted);
            return ERROR_SUCCESS;
        }
        // Deliberately the time since entry against one poll step, not a total
        // budget: a service not running after the first sleep times out.
        if (GetTickCount() - start > step)
        {
            g_Debug.Print(L"Service start request timed out!");
            return ERROR_GEN_FAILURE;
        }
    }

    if (status.dwCurrentState == SERVICE_RUNNING)
    {
        g_Debug.Print(kServiceStarted);
        return ERROR_SUCCESS;
    }
    g_Debug.Print(L"Service is in an indeterminate state");
    return ERROR_GEN_FAILURE;
}

DWORD STOPService(CKesString name, MSIHANDLE hInstall)
{
    CKesDebugScope scope(L"STOPService");
    g_Debug.Print(L"STOPService requested for %s", name.c_str());

    DWORD result = ERROR_SUCCESS;
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    try
    {
        manager.reset(OpenActiveManager());
        if (!manager)
        {
            LogToMSI(hInstall, L"Unable to open the service control manager!!!!!!");
            g_Debug.Print(kNoManagerTrace, GetLastErrorText().c_str());
            result = ERROR_GEN_FAILURE;
        }
        else
        {
            service.reset(OpenServiceW(manager.get(), name.c_str(), SERVICE_ALL_ACCESS));
            if (!service)
            {
                LogToMSI(hInstall, L"Service does not exist!!!!!!");
                g_Debug.Print(kNoServiceTrace, name.c_str());
                result = ERROR_GEN_FAILURE;
            }
            else if (StopServiceAndWait(name, service.get(), kDefaultWaitMs, hInstall) != ERROR_SUCCESS)
            {
                LogToMSI(hInstall, kStopNotConfirmedLog);
                g_Debug.Print(kStopNotConfirmedTrace, name.c_str());
                // Only for the trace: GetServiceStatus writes the state it finds.
                GetServiceStatus(name);
                result = ERROR_GEN_FAILURE;
            }
        }
    }
    catch (...)
    {
        LogToMSI(hInstall, L"GetServiceStatus : caught Exception!!!!!!!");
        KES_TRACE_ERROR(kStatusException);
        result = kServiceExceptionCaught;
    }
    return result;
}

DWORD StopServiceAndWait(CKesString name, SC_HANDLE service, DWORD waitMs, MSIHANDLE hInstall)
{
    CKesDebugScope scope(L"STOPService");
    g_Debug.Print(L"Service stop requested for %s with wait time of %d ms", name.c_str(), waitMs);
    const DWORD start = GetTickCount();
    waitMs = ClampWait(waitMs);

    if (service == nullptr)
    {
        KES_TRACE_ERROR(kServiceHandleNull);
        return ERROR_GEN_FAILURE;
    }
    SERVICE_STATUS status = {};
    // The first failed query has its own log line; later ones share this one.
    auto queryFailed = [&] {
        g_Debug.Print(kQueryFailedTrace, name.c_str());
        LogToMSI(hInstall, kQueryFailedLog);
        return static_cast<DWORD>(ERROR_GEN_FAILURE);
    };
    if (!QueryServiceStatus(service, &status))
    {
        LogToMSI(hInstall, L"QueryServiceStatus failed!!!!!!!");
        return ERROR_GEN_FAILURE;
    }
    if (status.dwCurrentState == SERVICE_STOPPED)
    {
        KES_TRACE_ERROR(kAlreadyStopped);
        LogToMSI(hInstall, kAlreadyStopped);
        return ERROR_SUCCESS;
    }

    // A stop is already under way: wait for it in tenths of the service's hint.
    while (status.dwCurrentState == SERVICE_STOP_PENDING)
    {
        const DWORD step = status.dwWaitHint / 10;
        Sleep(step);
        if (!QueryServiceStatus(service, &status))
            return queryFailed();
        if (status.dwCurrentState == SERVICE_STOPPED)
        {
            g_Debug.Print(kServiceStopped);
            LogToMSI(hInstall, kAlreadyStopped);
            return ERROR_SUCCESS;
        }
        // Deliberately the time since entry against one poll step, as in the start wait.
        if (GetTickCount() - start > step)
        {
            g_Debug.Print(kStopTimedOut);
            LogToMSI(hInstall, kStopTimedOut);
            return ERROR_GEN_FAILURE;
        }
    }

    if (!ControlService(service, SERVICE_CONTROL_STOP, &status))
    {
        KES_TRACE_ERROR(L"Unable to send SERVICE_CONTROL_STOP command! - error=%s", GetLastErrorText().c_str());
        // The error text is read again here, after the trace line was written.
        LogToMSI(hInstall, L"Unable to send SERVICE_CONTROL_STOP command! and error=", GetLastErrorText().c_str());
        return ERROR_GEN_FAILURE;
    }
    if (status.dwCurrentState == SERVICE_STOPPED)
    {
        g_Debug.Print(kServiceStopped);
        return ERROR_SUCCESS;
    }

    for (;;)
    {
        Sleep(status.dwWaitHint);
        if (!QueryServiceStatus(service, &status))
            return queryFailed();
        if (status.dwCurrentState == SERVICE_STOPPED)
            return ERROR_SUCCESS;
        if (GetTickCount() - start > waitMs)
        {
            g_Debug.Print(kStopTimedOut);
            LogToMSI(hInstall, kStopTimedOut);
            return ERROR_GEN_FAILURE;
        }
    }
}
