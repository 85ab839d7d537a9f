// The reboot and upgrade guards, and IsRebootRequired beneath them, with the product's services
// played by the test service and real remnant files. The Installer's UI level is 5 (full) unless a
// test wants a silent run; without a display a message box returns at once.
#include "Removal/RebootGuards.h"
#include "PlantedFiles.h"
#include "TestRegistry.h"
#include "TestService.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>
#include <memory>

namespace
{
using Lines = std::vector<std::wstring>;
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const std::wstring kRemnant = L"C:\\Windows\\System32\\Drivers\\CfSwl.sys";
const Lines kNoReboot = {L"IsRebootRequired()", L"All remnant files deleted.", L"IsRebootRequired: Exit"};
const Lines kPending = {L"IsRebootRequired()", L"IsRebootRequired : one or more services are PENDING, reboot required",
                        L"IsRebootRequired: Exit"};

struct RebootGuardsTest : ::testing::Test
{
    void SetUp() override { m_session.SetProperty(L"UILevel", L"5"); }
    // The service stays stop-pending until the test ends; one before it in the list runs.
    void LeaveStopPending(const wchar_t* name)
    {
        m_running = std::make_unique<TestService>(L"TPXPROVUSER", L"");
        m_pending = std::make_unique<TestService>(name, L"--stop=hang --stop-hint=60000");
        ASSERT_TRUE(m_running->Start() && m_pending->StartAndLeaveStopPending());
    }
    ProductKeyGuard m_key;
    PlantedFiles m_files;
    std::unique_ptr<TestService> m_running, m_pending;
    TestSession m_session;
};
} // namespace

// Any readable "TopProvider", even "0", asks for the reboot; a silent run only logs the need.
TEST_F(RebootGuardsTest, RequestRebootForcesARebootForAnyTopProviderValue)
{
    EXPECT_EQ(RequestReboot(m_session.handle()), 0u);
    ASSERT_TRUE(testreg::SetString(kProduct, L"TopProvider", L"0"));
    EXPECT_EQ(RequestReboot(m_session.handle()), 3010u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"Force");
    m_session.SetProperty(L"REBOOT", L"");
    ASSERT_TRUE(testreg::SetString(kProduct, L"UILevel", L"2"));
    EXPECT_EQ(RequestReboot(m_session.handle()), 3010u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    testreg::DeleteTree(kProduct);
    EXPECT_EQ(RequestReboot(m_session.handle()), 0u);
    const std::wstring entry = L"RequestReboot()", exit = L"RequestReboot() - Exit";
    EXPECT_EQ(m_session.LogLines(),
              Lines({entry, exit, entry, L"RequestReboot : Setting REBOOT to 'FORCE'", exit, entry,
                     L"RequestReboot : You must restart your system for the configuration changes made to Corvane(R) "
                     L"Swiftlane Technology to take effect.",
                     exit, entry, L"Cannot locate required registry keys for plugin provider", exit}));
}

// A remnant that cannot be deleted needs a reboot as much as a pending stop; a silent run never
// sets REBOOT, and the action never fails.
TEST_F(RebootGuardsTest, AfterUninstallAPendingRebootIsRequestedButNeverFails)
{
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");
    ASSERT_TRUE(m_files.Add(kRemnant));
    UniqueFileHandle locked(CreateFileW(kRemnant.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"Force");
    m_session.SetProperty(L"REBOOT", L"");
    m_session.SetProperty(L"UILevel", L"2");
    LeaveStopPending(L"HWA_SWL4");
    EXPECT_EQ(WarnRebootRequired_AfterUninstall(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"REBOOT"), L"");

    const Lines entry = {L"WarnRebootRequired_AfterUninstall()"}, exit = {L"WarnRebootRequired_AfterUninstall : Exit"};
    const Lines found = {L"Found services pending removal, a reboot is required to complete uninstall."};
    const Lines unremovable = {L"IsRebootRequired()", L"Unable to remove all files, failing install:",
        L"Failed to delete file: " + kRemnant + L" with error:" + SystemErrorText(ERROR_SHARING_VIOLATION) + L"\r\n",
        L"IsRebootRequired : not all files could be removed, reboot required", L"IsRebootRequired: Exit"};
    const Lines forced = {L"WarnRebootRequired_AfterUninstall : Setting REBOOT to 'FORCE'"};
    EXPECT_EQ(m_session.LogLines(), entry + kNoReboot + exit + entry + unremovable + found + forced + exit + entry +
                                        kPending + found + exit);
}

// A pending stop stops the installation and leaves the remnants alone. The line logged with the box
// has two blanks before "Please", the silent one a single blank.
TEST_F(RebootGuardsTest, BeforeInstallAPendingRebootStopsTheInstallation)
{
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 0u);
    LeaveStopPending(L"TPXPROV");
    ASSERT_TRUE(m_files.Add(kRemnant));
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 3010u);
    ASSERT_TRUE(testreg::SetString(kProduct, L"UILevel", L"2"));
    EXPECT_EQ(WarnRebootRequired_BeforeInstall(m_session.handle()), 3010u);
    EXPECT_TRUE(FileExists(kRemnant));
    const Lines entry = {L"WarnRebootRequired_BeforeInstall()"}, exit = {L"WarnRebootRequired_BeforeInstall : Exit"};
    const std::wstring pending = L"A reboot is pending. The Corvane(R) Swiftlane installer cannot continue.";
    const Lines shown = {pending + L"  Please reboot the system and run the installer again."};
    const Lines silent = {pending + L" Please reboot the system and run the installer again."};
    EXPECT_EQ(m_session.LogLines(),
              entry + kNoReboot + exit + entry + kPending + shown + exit + entry + kPending + silent + exit);
}

// Only exactly "1" stops; the line is logged a second time with the box.
TEST_F(RebootGuardsTest, UpgradeGuardStopsOnlyForUpgradingExactlyOne)
{
    const std::wstring entry = L"WarnUninstallRequired_Upgrade()", exit = L"WarnUninstallRequired_Upgrade : Exit";
    const std::wstring detected = L"A previous version was detected and must be uninstalled. The Corvane(R) "
                                  L"Swiftlane installer cannot continue.";
    const struct { const wchar_t* upgrading; const wchar_t* uiLevel; UINT result; Lines lines; } cases[] = {
        {L"true", L"5", 0, {entry, exit}},
        {L"1 ", L"5", 0, {entry, exit}},
        {L"1", L"5", 15609, {entry, detected, detected, exit}},
        {L"1", L"2", 15609, {entry, detected, exit}},
    };
    for (const auto& c : cases)
    {
        m_session.SetProperty(L"UPGRADING", c.upgrading);
        m_session.SetProperty(L"UILevel", c.uiLevel);
        m_session.ClearRecords();
        EXPECT_EQ(WarnUninstallRequired_Upgrade(m_session.handle()), c.result) << Narrow(c.upgrading);
        EXPECT_EQ(m_session.LogLines(), c.lines) << Narrow(c.upgrading);
    }
}
