// The service helpers against Wine's real service control manager: kernel
// drivers pointing at a file that is not a driver (created and deleted, never
// started), and swl_test_service, a real own-process service whose start and
// stop behaviour is chosen by the arguments in its binary path.
#include "Services/ServiceControl.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <cstdio>

namespace
{
std::wstring BinFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    return folder.substr(0, folder.rfind(L'\\'));
}

UniqueServiceHandle OpenManager()
{
    return UniqueServiceHandle(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

UniqueServiceHandle OpenTestService(const std::wstring& name, DWORD access)
{
    UniqueServiceHandle manager = OpenManager();
    return UniqueServiceHandle(OpenServiceW(manager.get(), name.c_str(), access));
}

bool ServiceExists(const std::wstring& name)
{
    return static_cast<bool>(OpenTestService(name, SERVICE_QUERY_STATUS));
}

DWORD StateOf(SC_HANDLE service)
{
    SERVICE_STATUS status = {};
    return QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

void DeleteIfPresent(const std::wstring& name)
{
    UniqueServiceHandle service = OpenTestService(name, DELETE);
    if (service)
        DeleteService(service.get());
}

// Elapsed time is printed only, never asserted: the result codes and log
// lines tell a timed-out wait from a finished one.
class Stopwatch
{
public:
    explicit Stopwatch(const char* what) : m_what(what), m_start(GetTickCount()) {}
    ~Stopwatch() { std::printf("  [%s took %lu ms]\n", m_what, GetTickCount() - m_start); }

private:
    const char* m_what;
    DWORD m_start;
};

// One installation of swl_test_service under its own name. The destructor sets
// the service's release event, waits for it to stop and deletes it.
class OwnProcessService
{
public:
    OwnProcessService(const std::wstring& name, const std::wstring& arguments)
        : m_name(name),
          m_release(CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str()))
    {
        DeleteIfPresent(name);
        const std::wstring binary = L"\"" + BinFolder() + L"\\swl_test_service.exe\" " + arguments;
        UniqueServiceHandle manager = OpenManager();
        UniqueServiceHandle service(CreateServiceW(manager.get(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                                   SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                   SERVICE_ERROR_NORMAL, binary.c_str(), nullptr, nullptr, nullptr,
                                                   nullptr, nullptr));
        m_created = static_cast<bool>(service);
    }
    ~OwnProcessService()
    {
        SetEvent(m_release.get());
        UniqueServiceHandle service = Open(SERVICE_ALL_ACCESS);
        for (int i = 0; i < 300 && service && StateOf(service.get()) != SERVICE_STOPPED; ++i)
            Sleep(50);
        if (service)
            DeleteService(service.get());
    }
    OwnProcessService(const OwnProcessService&) = delete;
    OwnProcessService& operator=(const OwnProcessService&) = delete;

    bool created() const { return m_created; }
    const wchar_t* name() const { return m_name.c_str(); }
    UniqueServiceHandle Open(DWORD access) const { return OpenTestService(m_name, access); }

    // Starts the service with the plain SCM call and waits until it runs.
    bool StartAndWaitRunning() const
    {
        UniqueServiceHandle service = Open(SERVICE_ALL_ACCESS);
        if (!service || !StartServiceW(service.get(), 0, nullptr))
            return false;
        for (int i = 0; i < 200; ++i)
        {
            if (StateOf(service.get()) == SERVICE_RUNNING)
                return true;
            Sleep(50);
        }
        return false;
    }

private:
    std::wstring m_name;
    UniqueKernelHandle m_release;
    bool m_created = false;
};

class ServiceControlTest : public ::testing::Test
{
protected:
    TestSession m_session;
    TraceCapture m_trace;
};

// A file that exists but is no driver image: enough for a kernel-driver
// service to be created, never enough for it to start.
class KernelDriverTest : public ServiceControlTest
{
protected:
    void SetUp() override
    {
        m_binary = m_dir.File(L"swltest.sys");
        ASSERT_TRUE(WriteFileBytes(m_binary, "not a driver image"));
    }
    void TearDown() override
    {
        for (const wchar_t* name : {L"SWLTestDriver", L"SWLTestDriver2", L"SWLTest\\Driver"})
            DeleteIfPresent(name);
    }

    TempDir m_dir;
    std::wstring m_binary;
};
} // namespace

// ---------------------------------------------------------------- kernel drivers

TEST_F(KernelDriverTest, AddServiceCreatesSystemStartDriverThatRemoveServiceDeletes)
{
    EXPECT_EQ(0u, AddService(L"SWLTestDriver", L"SWL test driver", m_binary.c_str(), 1));

    {
        UniqueServiceHandle service = OpenTestService(L"SWLTestDriver", SERVICE_QUERY_CONFIG);
        ASSERT_TRUE(service);
        std::vector<BYTE> buffer(8192);
        DWORD needed = 0;
        ASSERT_TRUE(QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                                        static_cast<DWORD>(buffer.size()), &needed));
        const auto* config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data());
        EXPECT_EQ(static_cast<DWORD>(SERVICE_KERNEL_DRIVER), config->dwServiceType);
        EXPECT_EQ(static_cast<DWORD>(SERVICE_SYSTEM_START), config->dwStartType);
        EXPECT_EQ(static_cast<DWORD>(SERVICE_ERROR_NORMAL), config->dwErrorControl);
        EXPECT_EQ(Narrow(m_binary), Narrow(config->lpBinaryPathName));
        EXPECT_EQ("SWL test driver", Narrow(config->lpDisplayName));
    }
    EXPECT_TRUE(m_trace.Printed(L"AddService requested for SWLTestDriver | SWL test driver | " + m_binary));
    EXPECT_TRUE(m_trace.Printed(L"AddService request successful.")) << m_trace.Dump();
    EXPECT_TRUE(m_trace.Printed(L"ENTRY:  AddService"));
    EXPECT_TRUE(m_trace.Printed(L"EXIT:  AddService"));

    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), GetServiceStatus(L"SWLTestDriver"));
    EXPECT_TRUE(m_trace.Printed(L"'SWLTestDriver' state is SERVICE_STOPPED"));

    EXPECT_EQ(0u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_FALSE(ServiceExists(L"SWLTestDriver"));
    EXPECT_TRUE(m_session.LogLines().empty());
}

// Wine's driver host cannot load a file that is not a driver, so the start
// fails the way a broken driver does on Windows.
TEST_F(KernelDriverTest, DriverThatCannotLoadFailsToStart)
{
    ASSERT_EQ(0u, AddService(L"SWLTestDriver", L"SWLTestDriver", m_binary.c_str(), 1));
    TraceCapture trace;

    EXPECT_EQ(31u, STARTService(L"SWLTestDriver"));

    const std::vector<std::wstring> messages = trace.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ("ENTRY:  STARTService", Narrow(messages.front()));
    EXPECT_TRUE(trace.Printed(L"STARTService requested for SWLTestDriver"));
    EXPECT_TRUE(trace.Printed(L"Service start requested for SWLTestDriver"));
    EXPECT_TRUE(trace.Printed(L"Service elgible for a start request"));
    bool sendFailed = false;
    for (const std::wstring& m : messages)
        sendFailed = sendFailed || m.find(L"): Unable to send SERVICE_CONTROL_Start command! - error=") != std::wstring::npos;
    EXPECT_TRUE(sendFailed) << trace.Dump();
    EXPECT_TRUE(trace.Printed(L"Failed to start service 'SWLTestDriver'"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), GetServiceStatus(L"SWLTestDriver"));
}

TEST_F(KernelDriverTest, AddServiceRefusesMissingBinaryWithoutCreatingTheService)
{
    const std::wstring missing = m_dir.File(L"missing.sys");

    EXPECT_EQ(31u, AddService(L"SWLTestDriver", L"SWLTestDriver", missing.c_str(), 1));

    EXPECT_FALSE(ServiceExists(L"SWLTestDriver"));
    // The error text, not the path, is what the line names.
    EXPECT_TRUE(m_trace.Printed(L"Invalid binary for service, doesnt exist : " + SystemErrorText(ERROR_FILE_NOT_FOUND)))
        << m_trace.Dump();
    EXPECT_FALSE(m_trace.Printed(L"GetServiceStatus requested for SWLTestDriver"));
}

TEST_F(KernelDriverTest, AddServiceRefusesAnExistingNameAndKeepsTheFirstService)
{
    ASSERT_EQ(0u, AddService(L"SWLTestDriver", L"First", m_binary.c_str(), 1));
    const std::wstring other = m_dir.File(L"other.sys");
    ASSERT_TRUE(WriteFileBytes(other, "x"));
    TraceCapture trace;

    EXPECT_EQ(31u, AddService(L"SWLTestDriver", L"Second", other.c_str(), 1));

    // The apostrophe after the percent sign is the C runtime's to render: it
    // prints "'s" and the name is never substituted.
    EXPECT_TRUE(trace.Printed(L"A service with name ''s already exists! you can't add it again")) << trace.Dump();
    EXPECT_FALSE(trace.Printed(L"AddService request successful."));
    UniqueServiceHandle service = OpenTestService(L"SWLTestDriver", SERVICE_QUERY_CONFIG);
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    ASSERT_TRUE(QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                                    static_cast<DWORD>(buffer.size()), &needed));
    EXPECT_EQ(Narrow(m_binary), Narrow(reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data())->lpBinaryPathName));
}

TEST_F(KernelDriverTest, AddServiceStillReportsSuccessWhenTheManagerRejectsTheService)
{
    ASSERT_EQ(0u, AddService(L"SWLTestDriver", L"Shared display name", m_binary.c_str(), 1));
    TraceCapture trace;

    // A second service may not reuse a display name; the creation fails but is only traced.
    EXPECT_EQ(0u, AddService(L"SWLTestDriver2", L"Shared display name", m_binary.c_str(), 1));
    EXPECT_FALSE(ServiceExists(L"SWLTestDriver2"));
    EXPECT_TRUE(trace.Printed(L"AddService failed for 'SWLTestDriver2': " +
                              SystemErrorText(ERROR_DUPLICATE_SERVICE_NAME)))
        << trace.Dump();

    // A name the manager cannot even look up reads as "does not exist" and then fails to create.
    EXPECT_EQ(0u, AddService(L"SWLTest\\Driver", L"Backslash", m_binary.c_str(), 1));
    EXPECT_TRUE(trace.Printed(L"Service 'SWLTest\\Driver' does not exist"));
    EXPECT_TRUE(trace.Printed(L"AddService failed for 'SWLTest\\Driver': " + SystemErrorText(ERROR_INVALID_NAME)))
        << trace.Dump();
}

TEST_F(KernelDriverTest, RemoveServiceFailuresAreLoggedForSupport)
{
    EXPECT_EQ(31u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Unable to open the service!"}, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"RemoveService requested for SWLTestDriver"));
    EXPECT_TRUE(m_trace.Printed(L"Unable to open the service! - error=" +
                                SystemErrorText(ERROR_SERVICE_DOES_NOT_EXIST)))
        << m_trace.Dump();

    // An open handle keeps a deleted service alive, marked for deletion; it
    // cannot be deleted a second time.
    ASSERT_EQ(0u, AddService(L"SWLTestDriver", L"SWLTestDriver", m_binary.c_str(), 1));
    UniqueServiceHandle keepAlive = OpenTestService(L"SWLTestDriver", SERVICE_QUERY_STATUS);
    ASSERT_TRUE(keepAlive);
    m_session.ClearRecords();
    EXPECT_EQ(0u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(31u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Cannot delete service!"}, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"Cannot delete service! - error=" +
                                SystemErrorText(ERROR_SERVICE_MARKED_FOR_DELETE)))
        << m_trace.Dump();
}

TEST_F(ServiceControlTest, MissingServiceReadsAsAbsentAndCannotBeStopped)
{
    EXPECT_EQ(0u, GetServiceStatus(L"SWLTestNoSuchService"));
    EXPECT_TRUE(m_trace.Printed(L"GetServiceStatus requested for SWLTestNoSuchService"));
    EXPECT_TRUE(m_trace.Printed(L"Service 'SWLTestNoSuchService' does not exist")) << m_trace.Dump();

    EXPECT_EQ(31u, STOPService(L"SWLTestNoSuchService", m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Service does not exist!!!!!!"}, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"STOPService requested for SWLTestNoSuchService"));
}

// ---------------------------------------------------------------- starting

TEST_F(ServiceControlTest, ServiceThatRunsAtOnceIsStartedOnceOnly)
{
    OwnProcessService service(L"SWLTestSvcQuick", L"");
    ASSERT_TRUE(service.created());

    EXPECT_EQ(0u, STARTService(service.name()));
    EXPECT_TRUE(m_trace.Printed(L"Service started")) << m_trace.Dump();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), GetServiceStatus(service.name()));
    EXPECT_TRUE(m_trace.Printed(L"'SWLTestSvcQuick' state is SERVICE_RUNNING"));

    // A running service gets no second start request.
    UniqueServiceHandle handle = service.Open(SERVICE_ALL_ACCESS);
    TraceCapture trace;
    EXPECT_EQ(0u, StartServiceAndWait(service.name(), handle.get(), 2000));
    EXPECT_TRUE(trace.Errored(L"Service already started")) << trace.Dump();
    EXPECT_FALSE(trace.Printed(L"Service elgible for a start request"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), StateOf(handle.get())) << "the handle stays open";
}

TEST_F(ServiceControlTest, PendingServiceRunningWithinATenthOfItsHintIsStarted)
{
    // Hint 15 s: one poll step of 1.5 s, the service runs after 0.3 s.
    OwnProcessService service(L"SWLTestSvcSlowStart", L"--start-hint=15000 --start-delay=300");
    ASSERT_TRUE(service.created());

    {
        Stopwatch watch("STARTService");
        EXPECT_EQ(0u, STARTService(service.name()));
    }

    EXPECT_TRUE(m_trace.Printed(L"Service started")) << m_trace.Dump();
    EXPECT_FALSE(m_trace.Printed(L"Service start request timed out!"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), GetServiceStatus(service.name()));
}

TEST_F(ServiceControlTest, PendingServiceStillPendingAfterOneStepTimesOut)
{
    // Hint 1 s: one poll step of 0.1 s, the service runs only after 2.5 s.
    OwnProcessService service(L"SWLTestSvcStuckStart", L"--start-hint=1000 --start-delay=2500");
    ASSERT_TRUE(service.created());

    {
        Stopwatch watch("STARTService");
        EXPECT_EQ(31u, STARTService(service.name()));
    }

    EXPECT_TRUE(m_trace.Printed(L"Service start request timed out!")) << m_trace.Dump();
    EXPECT_TRUE(m_trace.Printed(L"Failed to start service 'SWLTestSvcStuckStart'"));
    EXPECT_FALSE(m_trace.Printed(L"Service started"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_START_PENDING), GetServiceStatus(service.name()));
}

TEST_F(ServiceControlTest, StartWaitRejectsUnusableHandlesAndLeavesThemOpen)
{
    OwnProcessService service(L"SWLTestSvcHandles", L"");
    ASSERT_TRUE(service.created());

    EXPECT_EQ(31u, StartServiceAndWait(service.name(), nullptr, 2000));
    EXPECT_TRUE(m_trace.Errored(L"Handle to the service is NULL!")) << m_trace.Dump();

    UniqueServiceHandle startOnly = service.Open(SERVICE_START);
    ASSERT_TRUE(startOnly);
    EXPECT_EQ(31u, StartServiceAndWait(service.name(), startOnly.get(), 2000));
    EXPECT_TRUE(m_trace.Printed(L"Unable to query service 'SWLTestSvcHandles'")) << m_trace.Dump();
    EXPECT_FALSE(m_trace.Printed(L"Service elgible for a start request"));
    EXPECT_TRUE(StartServiceW(startOnly.get(), 0, nullptr)) << "the handle stays open";
}

// ---------------------------------------------------------------- stopping

TEST_F(ServiceControlTest, ServiceThatStopsAtOnceIsStoppedOnceOnly)
{
    OwnProcessService service(L"SWLTestSvcQuickStop", L"");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());

    EXPECT_EQ(0u, STOPService(service.name(), m_session.handle()));
    EXPECT_TRUE(m_session.LogLines().empty());
    EXPECT_TRUE(m_trace.Printed(L"STOPService requested for SWLTestSvcQuickStop"));
    EXPECT_TRUE(m_trace.Printed(L"Service stop requested for SWLTestSvcQuickStop with wait time of 2000 ms"));
    EXPECT_TRUE(m_trace.Printed(L"Service stopped")) << m_trace.Dump();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), GetServiceStatus(service.name()));

    // A stopped service gets no stop request.
    TraceCapture trace;
    EXPECT_EQ(0u, STOPService(service.name(), m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Service already stopped"}, m_session.LogLines());
    EXPECT_TRUE(trace.Errored(L"Service already stopped")) << trace.Dump();
}

TEST_F(ServiceControlTest, PendingStopThatFinishesWithinTheBudgetSucceedsSilently)
{
    OwnProcessService service(L"SWLTestSvcPendingStop", L"--stop=pending --stop-hint=700 --stop-delay=300");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());

    EXPECT_EQ(0u, STOPService(service.name(), m_session.handle()));

    EXPECT_TRUE(m_session.LogLines().empty());
    // Only the stop that ControlService reports at once is traced as stopped.
    EXPECT_FALSE(m_trace.Printed(L"Service stopped")) << m_trace.Dump();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), GetServiceStatus(service.name()));
}

TEST_F(ServiceControlTest, StopWaitAllowsOneSecondWhenTheCallerAsksForLess)
{
    // Polls every 300 ms; the service stops after 750 ms, so a budget of
    // 500 ms gives up at the second poll while 1000 ms reaches the third.
    OwnProcessService service(L"SWLTestSvcShortBudget", L"--stop=pending --stop-hint=300 --stop-delay=750");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());
    UniqueServiceHandle handle = service.Open(SERVICE_ALL_ACCESS);

    {
        Stopwatch watch("StopServiceAndWait(500)");
        EXPECT_EQ(0u, StopServiceAndWait(service.name(), handle.get(), 500, m_session.handle()));
    }

    EXPECT_TRUE(m_trace.Printed(L"Service stop requested for SWLTestSvcShortBudget with wait time of 500 ms"))
        << m_trace.Dump();
    EXPECT_TRUE(m_session.LogLines().empty());
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), StateOf(handle.get())) << "the handle stays open";
}

TEST_F(ServiceControlTest, ServiceHangingInStopPendingTimesOutAndAsksForReboot)
{
    OwnProcessService service(L"SWLTestSvcHang", L"--stop=hang --stop-hint=700");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());
    const std::vector<std::wstring> expected = {
        L"Service stop request timed out!",
        L"STOP service request indicated the service was not stopped; requesting new status. A reboot may be "
        L"needed.!!!!!!"};

    {
        Stopwatch watch("STOPService, stop requested");
        EXPECT_EQ(31u, STOPService(service.name(), m_session.handle()));
    }
    EXPECT_EQ(expected, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"Service stop request timed out!"));
    EXPECT_TRUE(m_trace.Printed(L"STOP service request for 'SWLTestSvcHang' indicated the service was not stopped; "
                                L"requesting new status. A reboot may be needed."))
        << m_trace.Dump();
    EXPECT_TRUE(m_trace.Printed(L"'SWLTestSvcHang' state is SERVICE_STOP_PENDING"));

    // Asked again, the wait for the stop already under way gives up after one step.
    m_session.ClearRecords();
    {
        Stopwatch watch("STOPService, stop already pending");
        EXPECT_EQ(31u, STOPService(service.name(), m_session.handle()));
    }
    EXPECT_EQ(expected, m_session.LogLines());
}

TEST_F(ServiceControlTest, ServiceRefusingToStopTimesOut)
{
    OwnProcessService service(L"SWLTestSvcRefuse", L"--stop=refuse --stop-hint=300");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());

    {
        Stopwatch watch("STOPService");
        EXPECT_EQ(31u, STOPService(service.name(), m_session.handle()));
    }

    const std::vector<std::wstring> expected = {
        L"Service stop request timed out!",
        L"STOP service request indicated the service was not stopped; requesting new status. A reboot may be "
        L"needed.!!!!!!"};
    EXPECT_EQ(expected, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"'SWLTestSvcRefuse' state is SERVICE_RUNNING")) << m_trace.Dump();
}

TEST_F(ServiceControlTest, StopAlreadyUnderWayIsAwaitedAndReportedAsAlreadyStopped)
{
    // Hint 10 s: one poll step of 1 s; the stop started here finishes after 0.3 s.
    OwnProcessService service(L"SWLTestSvcUnderWay", L"--stop=pending --stop-hint=10000 --stop-delay=300");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());
    UniqueServiceHandle handle = service.Open(SERVICE_ALL_ACCESS);
    SERVICE_STATUS status = {};
    ASSERT_TRUE(ControlService(handle.get(), SERVICE_CONTROL_STOP, &status));
    ASSERT_EQ(static_cast<DWORD>(SERVICE_STOP_PENDING), status.dwCurrentState);

    EXPECT_EQ(0u, StopServiceAndWait(service.name(), handle.get(), 2000, m_session.handle()));

    EXPECT_EQ(std::vector<std::wstring>{L"Service already stopped"}, m_session.LogLines());
    EXPECT_TRUE(m_trace.Printed(L"Service stopped")) << m_trace.Dump();
}

TEST_F(ServiceControlTest, StopWaitRejectsUnusableHandlesAndLeavesThemOpen)
{
    OwnProcessService service(L"SWLTestSvcStopHandles", L"");
    ASSERT_TRUE(service.created());
    ASSERT_TRUE(service.StartAndWaitRunning());

    EXPECT_EQ(31u, StopServiceAndWait(service.name(), nullptr, 2000, m_session.handle()));
    EXPECT_TRUE(m_trace.Errored(L"Handle to the service is NULL!")) << m_trace.Dump();
    EXPECT_TRUE(m_session.LogLines().empty());

    UniqueServiceHandle stopOnly = service.Open(SERVICE_STOP);
    ASSERT_TRUE(stopOnly);
    EXPECT_EQ(31u, StopServiceAndWait(service.name(), stopOnly.get(), 2000, m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"QueryServiceStatus failed!!!!!!!"}, m_session.LogLines());

    m_session.ClearRecords();
    UniqueServiceHandle queryOnly = service.Open(SERVICE_QUERY_STATUS);
    ASSERT_TRUE(queryOnly);
    EXPECT_EQ(31u, StopServiceAndWait(service.name(), queryOnly.get(), 2000, m_session.handle()));
    EXPECT_TRUE(m_trace.Errored(L"Unable to send SERVICE_CONTROL_STOP command! - error=" +
                                SystemErrorText(ERROR_ACCESS_DENIED)))
        << m_trace.Dump();
    // Text and error detail travel as two fields of one record.
    const std::vector<CapturedRecord> records = m_session.InfoRecords();
    ASSERT_EQ(1u, records.size());
    ASSERT_EQ(4u, records[0].fields.size());
    EXPECT_EQ("Unable to send SERVICE_CONTROL_STOP command! and error=", Narrow(records[0].fields[2]));

    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), StateOf(queryOnly.get())) << "the handles stay open";
    SERVICE_STATUS status = {};
    EXPECT_TRUE(ControlService(stopOnly.get(), SERVICE_CONTROL_STOP, &status));
}
