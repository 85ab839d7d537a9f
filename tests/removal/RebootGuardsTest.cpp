// The reboot and upgrade guards in an in-process session. The Installer's own UI level is set to 5
// (full) unless a test wants a silent run; without a display a message box returns at once.
#include "Removal/RebootGuards.h"
#include "PlantedFiles.h"
#include "TestRegistry.h"
#include "TestService.h"
#include "TestSession.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const std::wstring kRemnant = L"C:\\Windows\\System32\\Drivers\\CfSwl.sys";
const Lines kNoReboot = {L"IsRebootRequired()", L"All remnant files deleted.", L"IsRebootRequired: Exit"};
const Lines kPending = {L"IsRebootRequired()", L"IsRebootRequired : one or more services are PENDING, reboot required",
                        L"IsRebootRequired: Exit"};

Lines operator+(Lines lines, const Lines& more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

struct RebootGuardsTest : ::testing::Test
{
    void SetUp() override { m_session.SetProperty(L"UILevel", L"5"); }
    // TPXPROV stays stop-pending until the test ends.
    void LeaveAServiceStopPending()
    {
        m_pending = std::make_unique<TestService>(L"TPXPROV", L"--stop=hang --stop-hint=60000");
        ASSERT_TRUE(m_pending->StartAndLeaveStopPending());
    }
    ProductKeyGuard m_key;
    PlantedFiles m_files;
    std::unique_ptr<TestService> m_pending;
    TestSession m_session;
};
} // namespace

TEST_F(RebootGuardsTest, RequestRebootForcesARebootForAnyTopProviderValue)
{
    EXPECT_EQ(RequestReboot(m_session.handle()), 0u);
    ASSERT_TRUE(testreg::SetString(kProduct, L"TopProvider", L"0"));
    EXPECT_EQ(RequestReboot(m_session.handle()), 3010u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"Force");
    EXPECT_EQ(m_session.LogLines(), Lines({L"RequestReboot()", L"RequestReboot() - Exit", L"RequestReboot()",
                                           L"RequestReboot : Setting REBOOT to 'FORCE'", L"RequestReboot() - Exit"}));
}

TEST_F(RebootGuardsTest, RequestRebootInASilentRunOnlyLogsTheNeed)
{
    ASSERT_TRUE(testreg::SetString(kProduct, L"TopProvider", L"1") && testreg::SetString(kProduct, L"UILevel", L"2"));
    EXPECT_EQ(RequestReboot(m_session.handle()), 3010u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RequestReboot()",
                     L"RequestReboot : You must restart your system for the configuration changes made to Corvane(R) "
                     L"Swiftlane Technology to take effect.",
                     L"RequestReboot() - Exit"}));
}

TEST_F(RebootGuardsTest, RequestRebootWithoutTheProductKeyAsksForNothing)
{
    testreg::DeleteTree(kProduct);
    EXPECT_EQ(RequestReboot(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    EXPECT_EQ(m_session.LogLines(), Lines({L"RequestReboot()", L"Cannot locate required registry keys for plugin provider",
                                           L"RequestReboot() - Exit"}));
}

TEST_F(RebootGuardsTest, AfterUninstallAPendingServiceForcesARebootButNeverFails)
{
    ASSERT_TRUE(m_files.Add(kRemnant));
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_FALSE(FileExists(kRemnant));
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    LeaveAServiceStopPending();
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"Force");
    const Lines entry = {L"WarnRebootRequired_AfterUninstall()"}, exit = {L"WarnRebootRequired_AfterUninstall : Exit"};
    const Lines found = {L"Found services pending removal, a reboot is required to complete uninstall."};
    EXPECT_EQ(m_session.LogLines(),
              entry + kNoReboot + exit + entry + kPending + found +
                  Lines{L"WarnRebootRequired_AfterUninstall : Setting REBOOT to 'FORCE'"} + exit);

    m_session.SetProperty(L"REBOOT", L"");
    m_session.SetProperty(L"UILevel", L"2");
    m_session.ClearRecords();
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    EXPECT_EQ(m_session.LogLines(), entry + kPending + found + exit);
}

// The line logged with the box has two blanks before "Please", the silent one a single blank.
TEST_F(RebootGuardsTest, BeforeInstallAPendingRebootStopsTheInstallation)
{
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 0u);
    LeaveAServiceStopPending();
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 3010u);
    ASSERT_TRUE(testreg::SetString(kProduct, L"UILevel", L"2"));
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 3010u);
    const Lines entry = {L"WarnRebootRequired_BeforeInstall()"}, exit = {L"WarnRebootRequired_BeforeInstall : Exit"};
    const std::wstring pending = L"A reboot is pending. The Corvane(R) Swiftlane installer cannot continue.";
    EXPECT_EQ(m_session.LogLines(),
              entry + kNoReboot + exit + entry + kPending +
                  Lines{pending + L"  Please reboot the system and run the installer again."} + exit + entry +
                  kPending + Lines{pending + L" Please reboot the system and run the installer again."} + exit);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
}

TEST_F(RebootGuardsTest, UpgradeGuardStopsOnlyForUpgradingExactlyOne)
{
    const std::wstring detected = L"A previous version was detected and must be uninstalled. The Corvane(R) "
                                  L"Swiftlane installer cannot continue.";
    const Lines entry = {L"WarnUninstallRequired_Upgrade()"}, exit = {L"WarnUninstallRequired_Upgrade : Exit"};
    for (const wchar_t* value : {L"", L"true", L"1 "})
    {
        m_session.SetProperty(L"UPGRADING", value);
        EXPECT_EQ(WarnUninstallRequired_Upgrade(m_session.handle()), 0u) << Narrow(value);
    }
    m_session.SetProperty(L"UPGRADING", L"1");
    EXPECT_EQ(WarnUninstallRequired_Upgrade(m_session.handle()), 15609u);
    m_session.SetProperty(L"UILevel", L"2");
    EXPECT_EQ(WarnUninstallRequired_Upgrade(m_session.handle()), 15609u);
    const Lines shown = {detected, detected}, silent = {detected};
    EXPECT_EQ(m_session.LogLines(),
              entry + exit + entry + exit + entry + exit + entry + shown + exit + entry + silent + exit);
}
