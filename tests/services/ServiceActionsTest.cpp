// The service actions against Wine's real service control manager. The product's services are
// played by swl_test_service installed under their names, or created by AddServices itself as
// kernel drivers from the stand-in driver image. IsRebootRequired is tested with the guards.
#include "Services/ServiceActions.h"
#include "Payload/InstallSummary.h"
#include "PlantedFiles.h"
#include "Services/ServiceControl.h"
#include "TestFolders.h"
#include "TestRegistry.h"
#include "TestService.h"
#include "TestSession.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const std::wstring kDrivers = L"C:\\windows\\system32\\drivers\\";
const std::wstring kSummaryFolder = L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\";

std::wstring BesideTheTest(const std::wstring& name)
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::wstring(path, wcsrchr(path, L'\\') + 1) + name;
}

// Stops and deletes the named services at the end, whoever created them.
struct ServiceCleanup
{
    explicit ServiceCleanup(Lines names) : m_names(std::move(names)) {}
    ~ServiceCleanup()
    {
        for (const auto& name : m_names)
        {
            UniqueServiceHandle service(OpenServiceW(TestServiceManager(), name.c_str(), SERVICE_ALL_ACCESS));
            SERVICE_STATUS status = {};
            ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
            DeleteService(service.get());
        }
    }
    Lines m_names;
};

struct AddServicesTest : ::testing::Test
{
    void SetUp() override
    {
        ASSERT_TRUE(testreg::SetString(kProduct, L"InstallDir", L"C:\\Program Files\\Corvane"));
        ASSERT_TRUE(m_files.Add(kSummaryFolder + L"SWLInstallSummary.log", "summary of an earlier install"));
    }
    UINT Run(const std::wstring& customActionData)
    {
        m_session.SetProperty(L"CustomActionData", customActionData);
        m_session.ClearRecords();
        return AddServices(m_session.handle());
    }
    static DWORD Sessions()
    {
        DWORD value = 0, bytes = sizeof(value);
        RegGetValueW(HKEY_LOCAL_MACHINE, kCfSwlParametersKey, L"PreAllocatedMemorySessions", RRF_RT_REG_DWORD, nullptr,
                     &value, &bytes);
        return value;
    }
    ProductKeyGuard m_key;
    PlantedFiles m_files;
    ServiceCleanup m_services{{L"cfSwl", L"TPXPROV", L"TPXPROVUSER", L"HWA_SWL4"}}; // before the files go
    TestSession m_session;
};
} // namespace

TEST_F(AddServicesTest, MissingProductKeyOrInstallDirFailsBeforeAnyServiceIsTouched)
{
    ASSERT_TRUE(m_files.Add(kDrivers + L"cfswl.sys"));
    testreg::DeleteValue(kProduct, L"InstallDir");
    EXPECT_EQ(Run(L"1"), 31u);
    testreg::DeleteTree(kProduct);
    EXPECT_EQ(AddServices(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(), Lines({L"AddServices()", L"Cannot locate required registry keys",
                                           L"AddServices()", L"Cannot locate required registry keys"}));
    EXPECT_TRUE(m_session.ActionStartTexts().empty());
    EXPECT_FALSE(ServiceExists(L"cfSwl"));
    EXPECT_EQ(ReadFileBytes(kInstallSummaryPath), "summary of an earlier install");
}

// No driver files at all: cfSwl cannot be added, so its parameters are not written, and the
// crypto services are still tried. The summary of the earlier install is replaced.
TEST_F(AddServicesTest, ServiceThatCannotBeAddedFailsTheActionButTheOthersAreStillTried)
{
    EXPECT_EQ(Run(L"1"), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"AddServices()", L"Service add failed for 'cfSwl'",
                     L"INSTALLCRYPTO=1, adding and starting crypto services.", L"Service start failed for 'tpxprov'",
                     L"Service start failed for 'tpxprovuser'", L"AddServices() - Exit"}));
    EXPECT_EQ(m_session.ActionStartTexts(),
              Lines({L"Adding cfSwl service", L"Adding system service", L"Starting user service"}));
    EXPECT_FALSE(testreg::KeyExists(kCfSwlParametersKey));
    const std::string summary = ReadFileBytes(kInstallSummaryPath);
    EXPECT_EQ(summary.rfind("Corvane(R) SWL Software Installation Summary\r\n", 0), 0u) << summary;
    EXPECT_EQ(summary.find("earlier install"), std::string::npos);
}

// The services as real kernel drivers: the stand-in driver image under each file name. A second
// run finds cfSwl there and touches nothing of it; RemoveServices then takes all four away, and
// the base driver's stop result (0) becomes the text of a second progress message (empty).
TEST_F(AddServicesTest, ServicesStartAsKernelDriversAndAreRemovedAgain)
{
    for (const std::wstring name : {L"cfswl.sys", L"tpxprov.sys", L"tpxprovuser.sys"})
        ASSERT_TRUE(m_files.Add(kDrivers + name, ReadFileBytes(BesideTheTest(name))));
    ASSERT_TRUE(m_files.Add(kDrivers + L"hwa_swl4.sys", ReadFileBytes(TestFolder("SWL_TEST_DRIVERS") + L"\\hwa_swl4.sys")));
    EXPECT_EQ(Run(L"1"), 0u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"AddServices()", L"Service start succesful for 'cfSwl'",
                     L"INSTALLCRYPTO=1, adding and starting crypto services.", L"Service start succesful for 'tpxprov'",
                     L"Service start succesful for 'tpxprovuser'", L"AddServices() - Exit"}));
    for (const wchar_t* name : {L"cfSwl", L"TPXPROV", L"TPXPROVUSER"})
        EXPECT_EQ(ServiceState(name), static_cast<DWORD>(SERVICE_RUNNING)) << Narrow(name);
    EXPECT_EQ(Sessions(), 4u);
    EXPECT_NE(ReadFileBytes(kInstallSummaryPath).find("SWL Crypto Service: Successfully Installed"), std::string::npos);

    ASSERT_TRUE(testreg::SetDword(kCfSwlParametersKey, L"PreAllocatedMemorySessions", 9));
    EXPECT_EQ(Run(L"1 "), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"AddServices()", L"Service add failed for 'cfSwl'",
                     L"Crypto is not supported, crypto services will not be installed.", L"AddServices() - Exit"}));
    EXPECT_EQ(Sessions(), 9u);

    ASSERT_EQ(AddService(L"HWA_SWL4", L"HWA_SWL4", (kDrivers + L"hwa_swl4.sys").c_str(), 1), 0u);
    ASSERT_EQ(STARTService(L"HWA_SWL4"), 0u);
    m_session.ClearRecords();
    EXPECT_EQ(RemoveServices(m_session.handle()), 0u);
    for (const wchar_t* name : {L"cfSwl", L"TPXPROV", L"TPXPROVUSER", L"HWA_SWL4"})
        EXPECT_FALSE(ServiceExists(name)) << Narrow(name);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RemoveServices()", L"RemoveServices : removing TPXPROV service",
                     L"RemoveServices: Service removal succesful for 'tpxprov'",
                     L"RemoveServices : removing TPXPROVUSER service",
                     L"RemoveServices: Service removal succesful for 'tpxprovuser'",
                     L"RemoveServices : removing cfSwl service", L"RemoveServices: Service removal succesful for 'cfSwl'",
                     L"RemoveServices : removing hwa_swl4 service",
                     L"RemoveServices: Service removal succesful for 'hwa_swl4'", L"RemoveServices() - Exit"}));
    EXPECT_EQ(m_session.ActionStartTexts(), Lines({L"Removing system service", L"Removing user service",
                                                   L"Removing cfSwl service", L"Removing hwa_swl service", L""}));
}

namespace
{
struct RemoveServicesTest : ::testing::Test
{
    PlantedFiles m_files;
    TestSession m_session;
};
} // namespace

TEST_F(RemoveServicesTest, WithNoServicesEachIsReportedMissingAndTheSummaryIsDeleted)
{
    ASSERT_TRUE(m_files.Add(kInstallSummaryPath) && m_files.Add(kSummaryFolder + L"SWLInstallSummary.txt"));
    EXPECT_EQ(RemoveServices(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RemoveServices()", L"RemoveServices : removing TPXPROV service",
                     L"RemoveServices: Service 'TPXPROV' does not exist", L"RemoveServices : removing TPXPROVUSER service",
                     L"Service 'TPXPROVUSER' does not exist", L"RemoveServices : removing cfSwl service",
                     L"Service 'cfSwl' does not exist", L"RemoveServices : removing hwa_swl4 service",
                     L"Service 'hwa_swl4' does not exist", L"RemoveServices() - Exit"}));
    EXPECT_EQ(m_session.ActionStartTexts(), Lines({L"Removing system service", L"Removing user service",
                                                   L"Removing cfSwl service", L"Removing hwa_swl service"}));
    EXPECT_FALSE(FileExists(kInstallSummaryPath));
    EXPECT_TRUE(FileExists(kSummaryFolder + L"SWLInstallSummary.txt"));
}

// A service already marked for deletion (running and refusing to stop, so the manager keeps it)
// cannot be deleted again: that fails the action for cfSwl, never for the base driver.
TEST_F(RemoveServicesTest, ServiceThatCannotBeDeletedFailsTheActionUnlessItIsTheBaseDriver)
{
    const struct { const wchar_t* name; UINT result; const wchar_t* line; } cases[] = {
        {L"HWA_SWL4", 0, L"RemoveServices: Service removal failed for 'hwa_swl4'; it is marked for deletion"},
        {L"cfSwl", 31, L"RemoveServices: Service removal failed for 'cfSwl'; it is marked for deletion"},
    };
    for (const auto& c : cases)
    {
        TestService marked(c.name, L"--stop=refuse");
        ASSERT_TRUE(marked.Start() && DeleteService(marked.service.get()));
        m_session.ClearRecords();
        EXPECT_EQ(RemoveServices(m_session.handle()), c.result) << Narrow(c.name);
        EXPECT_TRUE(m_session.Logged(c.line)) << Narrow(c.line);
    }
}

// The helpers' results are read reversed on purpose: healthy services give 31 and every line says
// failed; with none of the services there, every helper fails and the action reports success.
TEST(RestartServicesTest, ReadsEveryHelperResultReversed)
{
    TestSession session;
    {
        TestService cfSwl(L"cfSwl", L""), tpxprov(L"TPXPROV", L""), tpxprovUser(L"TPXPROVUSER", L"");
        for (TestService* service : {&cfSwl, &tpxprov, &tpxprovUser})
            ASSERT_TRUE(service->Start());
        EXPECT_EQ(RestartServices(session.handle()), 31u);
        for (const wchar_t* name : {L"cfSwl", L"TPXPROV", L"TPXPROVUSER"})
            EXPECT_EQ(ServiceState(name), static_cast<DWORD>(SERVICE_RUNNING)) << Narrow(name);
        EXPECT_EQ(session.LogLines(),
                  Lines({L"Entering RestartServices()", L"Service stop failed for 'cfSwl'",
                         L"Service stop failed for 'tpxprovuser'", L"Service stop failed for 'tpxprov'",
                         L"Service start failed for 'cfSwl'", L"Service start failed for 'tpxprov'",
                         L"Service start failed for 'tpxprovuser'", L"RestartServices() - Exit"}));
    }
    session.ClearRecords();
    const std::wstring missing = L"Service does not exist!!!!!!";
    EXPECT_EQ(RestartServices(session.handle()), 0u);
    EXPECT_EQ(session.LogLines(),
              Lines({L"Entering RestartServices()", missing, L"Service stop succesful for 'cfSwl'", missing,
                     L"Service stop succesful for 'tpxprovuser'", missing, L"Service stop succesful for 'tpxprov'",
                     L"Service start succesful for 'cfSwl'", L"Service start succesful for 'tpxprov'",
                     L"Service start succesful for 'tpxprovuser'", L"RestartServices() - Exit"}));
}
