// The service helpers against Wine's real service control manager, with swl_test_service as the service to control.
#include "Services/ServiceControl.h"
#include "TestService.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const SC_HANDLE g_manager = TestServiceManager();

struct ServiceControlTest : ::testing::Test { TestSession m_session; TraceCapture m_trace; };
} // namespace

TEST_F(ServiceControlTest, AddedDriverHasTheDriverConfigurationAndIsGoneAfterRemoveService)
{
    const std::wstring binary = L"C:\\windows\\win.ini"; // exists, and is never started
    EXPECT_EQ(0u, AddService(L"SWLTestDriver", L"SWL test driver", binary.c_str(), 1));
    QUERY_SERVICE_CONFIGW config[64] = {}; // the strings follow the fixed part
    DWORD needed = 0;
    ASSERT_TRUE(QueryServiceConfigW(
        UniqueServiceHandle(OpenServiceW(g_manager, L"SWLTestDriver", SERVICE_QUERY_CONFIG)).get(), config,
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
    EXPECT_EQ(31u, AddService(L"SWLTestDriver2", L"Other", L"C:\\windows\\missing.sys", 1));
    EXPECT_TRUE(m_trace.Printed(L"Invalid binary for service, doesnt exist : " +
                                SystemErrorText(ERROR_FILE_NOT_FOUND)));

    EXPECT_EQ(0u, STOPService(L"SWLTestDriver", m_session.handle())); // never started
    EXPECT_EQ(0u, RemoveService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ(31u, STOPService(L"SWLTestDriver", m_session.handle()));
    EXPECT_EQ((Lines{L"Service already stopped", L"Service does not exist!!!!!!"}), m_session.LogLines());
}

TEST_F(ServiceControlTest, StartIsSentOnceAndAPendingStartMustBeRunningWithinATenthOfTheHint)
{
    TestService slow(L"SWLTestSvcSlowStart", L"--start-hint=15000 --start-delay=300"); // one poll step of 1.5 s
    EXPECT_EQ(0u, STARTService(L"SWLTestSvcSlowStart"));
    EXPECT_EQ(0u, STARTService(L"SWLTestSvcSlowStart")); // running: no second start request
    EXPECT_TRUE(m_trace.Errored(L"Service already started")) << m_trace.Dump();
    TestService stuck(L"SWLTestSvcStuckStart", L"--start-hint=1000 --start-delay=2500"); // one poll step of 0.1 s
    EXPECT_EQ(31u, STARTService(L"SWLTestSvcStuckStart"));
    EXPECT_TRUE(m_trace.Printed(L"Service start request timed out!")) << m_trace.Dump();
}

TEST_F(ServiceControlTest, StopWaitsAtLeastOneSecondAndAsksForRebootWhenTheServiceDoesNotStop)
{
    // Polled every 300 ms, stopped after 750 ms: a 500 ms budget would give up at the second poll.
    TestService pending(L"SWLTestSvcBudget", L"--stop=pending --stop-hint=300 --stop-delay=750");
    ASSERT_EQ(0u, STARTService(L"SWLTestSvcBudget"));
    EXPECT_EQ(0u, StopServiceAndWait(L"SWLTestSvcBudget", pending.service.get(), 500, m_session.handle()));
    EXPECT_TRUE(m_trace.Printed(L"Service stop requested for SWLTestSvcBudget with wait time of 500 ms"));

    const Lines notStopped = {L"Service stop request timed out!",
        L"STOP service request indicated the service was not stopped; requesting new status. A reboot may be needed.!!!!!!"};
    const struct { const wchar_t* name; const wchar_t* arguments; DWORD result; const wchar_t* trace; } cases[] = {
        {L"SWLTestSvcQuick", L"", 0, L"Service stopped"},
        {L"SWLTestSvcHang", L"--stop=hang --stop-hint=700", 31, L"'SWLTestSvcHang' state is SERVICE_STOP_PENDING"},
        {L"SWLTestSvcRefuse", L"--stop=refuse --stop-hint=300", 31, L"'SWLTestSvcRefuse' state is SERVICE_RUNNING"},
    };
    for (const auto& c : cases)
    {
        TestService service(c.name, c.arguments);
        ASSERT_EQ(0u, STARTService(c.name));
        m_session.ClearRecords();
        EXPECT_EQ(c.result, STOPService(c.name, m_session.handle())) << Narrow(c.name);
        EXPECT_EQ(c.result ? notStopped : Lines{}, m_session.LogLines());
        EXPECT_TRUE(m_trace.Printed(c.trace)) << m_trace.Dump();
    }
}
