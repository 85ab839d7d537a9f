// The service helpers against Wine's real service control manager, with swl_test_service as the service to control.
#include "Services/ServiceControl.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
const UniqueServiceHandle g_manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));

// swl_test_service installed (not started) under name; released, awaited and deleted at the end.
struct TestService
{
    TestService(const std::wstring& name, const std::wstring& arguments)
        : release(CreateEventW(nullptr, TRUE, FALSE, (L"Global\\SWLTestServiceRelease_" + name).c_str()))
    {
        wchar_t folder[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, folder, MAX_PATH);
        *wcsrchr(folder, L'\\') = L'\0';
        const std::wstring binary = L"\"" + std::wstring(folder) + L"\\swl_test_service.exe\" " + arguments;
        service.reset(CreateServiceW(g_manager.get(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                     binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    }
    ~TestService()
    {
        SetEvent(release.get());
        SERVICE_STATUS status = {};
        while (QueryServiceStatus(service.get(), &status) && status.dwCurrentState != SERVICE_STOPPED)
            Sleep(50);
        DeleteService(service.get());
    }
    UniqueKernelHandle release;
    UniqueServiceHandle service;
};

struct ServiceControlTest : ::testing::Test
{
    TestSession m_session;
    TraceCapture m_trace;
};
} // namespace

TEST_F(ServiceControlTest, AddedDriverHasTheDriverConfigurationAndIsGoneAfterRemoveService)
{
    const std::wstring binary = L"C:\\windows\\win.ini"; // exists, and is never started
    EXPECT_EQ(0u, AddService(L"SWLTestDriver", L"SWL test driver", binary.c_str(), 1));
    QUERY_SERVICE_CONFIGW config[64] = {}; // the strings follow the fixed part
    DWORD needed = 0;
    ASSERT_TRUE(QueryServiceConfigW(
        UniqueServiceHandle(OpenServiceW(g_manager.get(), L"SWLTestDriver", SERVICE_QUERY_CONFIG)).get(), config,
        sizeof(config), &needed));
    EXPECT_EQ((std::vector<DWORD>{SERVICE_KERNEL_DRIVER, SERVICE_SYSTEM_START, SERVICE_ERROR_NORMAL}),
              (std::vector<DWORD>{config->dwServiceType, config->dwStartType, config->dwErrorControl}));
    EXPECT_EQ(binary + L"|SWL test driver", std::wstring(config->lpBinaryPathName) + L"|" + config->lpDisplayName);

    // Name taken: refused, the trace line as the C runtime renders its "%'s".
    EXPECT_EQ(31u, AddService(L"SWLTestDriver", L"Second", binary.c_str(), 1));
    EXPECT_TRUE(m_trace.Printed(L"A service with name ''s already exists! you can't add it again")) << m_trace.Dump();
    EXPECT_EQ(0u, AddService(L"SWLTestDriver2", L"SWL test driver", binary.c_str(), 1)); // display name taken
    EXPECT_TRUE(m_trace.Printed(L"AddService failed for 'SWLTestDriver2': " +
                                SystemErrorText(ERROR_DUPLICATE_SERVICE_NAME)));
    EXPECT_EQ(31u, AddService(L"SWLTestDriver2", L"Other", L"C:\\windows\\missing.sys", 1)); // the manager is not asked
    EXPECT_TRUE(m_trace.Printed(L"Invalid binary for service, doesnt exist : " +
                                SystemErrorText(ERROR_FILE_NOT_FOUND)));
    EXPECT_FALSE(UniqueServiceHandle(OpenServiceW(g_manager.get(), L"SWLTestDriver2", SERVICE_QUERY_STATUS)));

    EXPECT_EQ(0u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(0u, GetServiceStatus(L"SWLTestDriver"));
    EXPECT_TRUE(m_trace.Printed(L"Service 'SWLTestDriver' does not exist")) << m_trace.Dump();
    EXPECT_EQ(31u, STOPService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Service does not exist!!!!!!"}, m_session.LogLines());
}

TEST_F(ServiceControlTest, QuickServiceIsStartedAndStoppedOnceOnly)
{
    TestService service(L"SWLTestSvcQuick", L"");
    EXPECT_EQ(0u, STARTService(L"SWLTestSvcQuick"));
    TraceCapture again;
    EXPECT_EQ(0u, STARTService(L"SWLTestSvcQuick"));
    EXPECT_TRUE(again.Errored(L"Service already started")) << again.Dump();
    EXPECT_FALSE(again.Printed(L"Service elgible for a start request"));

    EXPECT_EQ(0u, STOPService(L"SWLTestSvcQuick", m_session.handle()));
    EXPECT_TRUE(m_trace.Printed(L"Service stopped")) << m_trace.Dump();
    EXPECT_EQ(0u, STOPService(L"SWLTestSvcQuick", m_session.handle()));
    EXPECT_EQ(std::vector<std::wstring>{L"Service already stopped"}, m_session.LogLines());
}

TEST_F(ServiceControlTest, PendingStartMustReachRunningWithinATenthOfTheHint)
{
    TestService slow(L"SWLTestSvcSlowStart", L"--start-hint=15000 --start-delay=300"); // one poll step of 1.5 s
    EXPECT_EQ(0u, STARTService(L"SWLTestSvcSlowStart"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), GetServiceStatus(L"SWLTestSvcSlowStart"));
    TestService stuck(L"SWLTestSvcStuckStart", L"--start-hint=1000 --start-delay=2500"); // one poll step of 0.1 s
    EXPECT_EQ(31u, STARTService(L"SWLTestSvcStuckStart"));
    EXPECT_TRUE(m_trace.Printed(L"Service start request timed out!")) << m_trace.Dump();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_START_PENDING), GetServiceStatus(L"SWLTestSvcStuckStart"));
}

TEST_F(ServiceControlTest, StopWaitAllowsOneSecondWhenTheCallerAsksForLess)
{
    // Polls every 300 ms and stops after 750 ms: a 500 ms budget would give up at the second poll.
    TestService service(L"SWLTestSvcShortBudget", L"--stop=pending --stop-hint=300 --stop-delay=750");
    ASSERT_EQ(0u, STARTService(L"SWLTestSvcShortBudget"));
    EXPECT_EQ(0u, StopServiceAndWait(L"SWLTestSvcShortBudget", service.service.get(), 500, m_session.handle()));
    EXPECT_TRUE(m_trace.Printed(L"Service stop requested for SWLTestSvcShortBudget with wait time of 500 ms"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), GetServiceStatus(L"SWLTestSvcShortBudget"));
}

TEST_F(ServiceControlTest, ServiceThatDoesNotStopTimesOutAndAsksForReboot)
{
    const struct { const wchar_t* name; const wchar_t* arguments; const wchar_t* state; } cases[] = {
        {L"SWLTestSvcHang", L"--stop=hang --stop-hint=700", L"SERVICE_STOP_PENDING"},
        {L"SWLTestSvcRefuse", L"--stop=refuse --stop-hint=300", L"SERVICE_RUNNING"},
    };
    for (const auto& c : cases)
    {
        TestService service(c.name, c.arguments);
        ASSERT_EQ(0u, STARTService(c.name));
        m_session.ClearRecords();
        EXPECT_EQ(31u, STOPService(c.name, m_session.handle()));
        EXPECT_EQ((std::vector<std::wstring>{L"Service stop request timed out!",
                                             L"STOP service request indicated the service was not stopped; requesting "
                                             L"new status. A reboot may be needed.!!!!!!"}),
                  m_session.LogLines());
        EXPECT_TRUE(m_trace.Printed(L"'" + std::wstring(c.name) + L"' state is " + c.state)) << m_trace.Dump();
    }
}
