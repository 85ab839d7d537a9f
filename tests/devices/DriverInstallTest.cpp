// Driver installation on simulated machines, with the newdev.dll and
// cfgmgr32.dll doubles scripting what Plug and Play answers.
#include "Devices/DriverInstall.h"
#include "DllDoubles.h"
#include "SimulatedMachine.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const wchar_t* const kDrivers = L"SOFTWARE\\CORVANE\\SWL\\DRIVERS";
const wchar_t* const k7xxx = L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20";

std::wstring SysPath()
{
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    return std::wstring(system) + L"\\drivers\\hwa_swl4.sys";
}

struct DriverInstall : ::testing::Test
{
    void SetUp() override
    {
        testreg::SetString(kProduct, L"SupportDir", L"C:\\support");
        g_hInstallDriversSession = m_session.handle();
    }
    void TearDown() override { g_hInstallDriversSession = 0; }

    std::wstring Recorded(const std::wstring& name)
    {
        std::wstring value = L"(none)";
        testreg::GetString(kDrivers, name, value);
        return value;
    }

    ProductKeyGuard m_product;
    DllDoubles m_doubles;
    TestSession m_session;
};
} // namespace

TEST_F(DriverInstall, EveryOutcomeOfTheDriverUpdateIsJudgedAndOnlySuccessesAreRecorded)
{
    SimulatedMachine machine("pf-7xxx");
    const struct { BOOL returned; DWORD error; bool success; const wchar_t* trace; } outcomes[] = {
        {TRUE, 0, true, L"UpdateDriverForPlugAndPlayDevicesW returned [SUCCESS])"},
        {FALSE, 1, true, L"UpdateDriverForPlugAndPlayDevicesW returned [Invalid function]"},
        {FALSE, 2, false, L"UpdateDriverForPlugAndPlayDevicesW returned [Inf path does not exist]"},
        {FALSE, 0x103, true,
         L"UpdateDriverForPlugAndPlayDevicesW returned [Driver was not a better match than the current driver]"},
        {FALSE, 0xE000020B, true, L"UpdateDriverForPlugAndPlayDevicesW returned [Device is not plugged in]"},
        {FALSE, 0xE0000247, false,
         L"UpdateDriverForPlugAndPlayDevicesW returned [Cannot install unsigned driver unless Windows in Test Mode]"},
        {FALSE, 0x1234, true, L"UpdateDriverForPlugAndPlayDevicesW returned unexpected error code, GetLastError: 0x1234"},
    };
    for (const auto& o : outcomes)
    {
        SCOPED_TRACE(Narrow(o.trace));
        testreg::DeleteTree(kDrivers);
        m_doubles.UpdateDriverReturns(o.returned, o.error, o.success);
        TraceCapture trace;
        m_session.ClearRecords();
        EXPECT_EQ(UpdateDriverForDevices(k7xxx, L"hwa_swl4.inf"), o.success);
        EXPECT_TRUE(trace.Printed(o.trace)) << trace.Dump();
        EXPECT_TRUE(trace.Printed(o.success ? L"UpdateDriverForPlugAndPlayDevicesW indicated a reboot is necessary "
                                              L"for driver installs"
                                            : L"UpdateDriverForPlugAndPlayDevicesW indicated NO reboot is necessary "
                                              L"for driver installs"));
        // The double installs nothing, so the device has no driver key: the INF name recorded is empty.
        EXPECT_EQ(Recorded(k7xxx), o.success ? L"" : L"(none)");
        EXPECT_EQ(Recorded(L"hwa_swl4.sys"), o.success ? SysPath() : L"(none)");
        std::wstring installerLine = L"UpdateDriverForDevices: " + std::wstring(o.trace);
        if (o.returned)
            installerLine.pop_back(); // the stray ')' is the trace line's alone
        EXPECT_EQ(m_session.Logged(installerLine), o.error == 0 || o.error == 0xE0000247) << "only two reach the log";
    }
    const auto calls = m_doubles.UpdateDriverCalls();
    ASSERT_EQ(calls.size(), std::size(outcomes));
    EXPECT_EQ(calls[0].hardwareId, k7xxx);
    EXPECT_EQ(calls[0].infPath, L"C:\\support\\hwa_swl4.inf");
    EXPECT_TRUE(calls[0].flags == 0 && calls[0].rebootPointer) << "no INSTALLFLAG_FORCE";
}

TEST_F(DriverInstall, MissingSupportFolderFailsBeforePlugAndPlayIsAsked)
{
    testreg::DeleteValue(kProduct, L"SupportDir");
    TraceCapture trace;
    EXPECT_FALSE(UpdateDriverForDevices(k7xxx, L"hwa_swl4.inf"));
    EXPECT_TRUE(trace.Errored(L"UpdateDriverForDevices: Cannot retrieve registry key SupportDir")) << trace.Dump();
    EXPECT_TRUE(m_doubles.UpdateDriverCalls().empty());
}

TEST_F(DriverInstall, ReinstallRewritesTheDeviceRecordButKeepsAnExistingDriverFileRecord)
{
    SimulatedMachine machine("pf-7xxx");
    testreg::SetString(kDrivers, k7xxx, L"oem9.inf");
    testreg::SetString(kDrivers, L"hwa_swl4.sys", L"D:\\kept.sys");
    EXPECT_TRUE(UpdateDriverForDevices(k7xxx, L"hwa_swl4.inf"));
    EXPECT_EQ(Recorded(k7xxx), L"");
    EXPECT_EQ(Recorded(L"hwa_swl4.sys"), L"D:\\kept.sys");
}

// Plug and Play answers "not plugged in", a success, but no present device carries the ID: nothing is recorded.
TEST_F(DriverInstall, DeviceThatVanishedBeforeTheUpdateLeavesNoRecord)
{
    m_doubles.UpdateDriverReturns(FALSE, 0xE000020B);
    EXPECT_TRUE(UpdateDriverForDevices(k7xxx, L"hwa_swl4.inf"));
    EXPECT_FALSE(testreg::KeyExists(kDrivers));
}

TEST_F(DriverInstall, TlmdDeviceTurnsCryptoOffAndSkipsTheRegistrySearch)
{
    SimulatedMachine machine("pf-720xx");
    m_session.SetProperty(L"INSTALLCRYPTO", L"1");
    EXPECT_EQ(InstallDrivers(m_session.handle()), 0u);
    EXPECT_EQ(m_session.Property(L"INSTALLCRYPTO"), L"0");
    EXPECT_TRUE(m_session.Logged(std::wstring(L"Device ID is a TLM-D device. Disabling crypto related installs - ") +
                                 L"PCI\\VEN_1F2E&DEV_6B26&SUBSYS_00001F2E&REV_30"));
    EXPECT_FALSE(m_session.Logged(L"SearchRegistryForCryptoCompatibility"));
}

TEST_F(DriverInstall, FailingDeviceFailsTheActionAfterAllAreTriedAndCryptoFollowsTheRegistry)
{
    SimulatedMachine machine("services-rejected"); // a 7xxx and a 701xx, neither with crypto
    m_session.SetProperty(L"INSTALLCRYPTO", L"1");
    m_doubles.UpdateDriverReturns(FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(InstallDrivers(m_session.handle()), 31u);
    EXPECT_EQ(m_doubles.UpdateDriverCalls().size(), 2u);
    EXPECT_TRUE(m_session.Logged(std::wstring(L"Request to update driver failed for ") + k7xxx));
    EXPECT_EQ(m_session.Property(L"INSTALLCRYPTO"), L"0");
    const auto starts = m_session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_FALSE(starts.empty());
    EXPECT_EQ(starts[0].fields[2], L"Adding drivers");
}

TEST_F(DriverInstall, NoDeviceTouchesNoDriverButStillSearchesForCrypto)
{
    SimulatedMachine machine("none");
    m_session.SetProperty(L"INSTALLCRYPTO", L"1");
    EXPECT_EQ(InstallDrivers(m_session.handle()), 0u);
    EXPECT_TRUE(m_doubles.UpdateDriverCalls().empty());
    EXPECT_TRUE(m_session.Logged(L"SearchRegistryForCryptoCompatibility"));
    EXPECT_EQ(m_session.Property(L"INSTALLCRYPTO"), L"1");
}

TEST_F(DriverInstall, ReEnumerationAsksForTheRootAndReportsEachFailingStep)
{
    EXPECT_TRUE(ReEnumeratePCIDevices());
    auto calls = m_doubles.ConfigManagerCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[0].function == L"CM_Locate_DevNodeA" && !calls[0].hasDeviceId && calls[0].flags == 0);
    EXPECT_TRUE(calls[1].function == L"CM_Reenumerate_DevNode" && calls[1].devInst == 1 && calls[1].flags == 0);

    TraceCapture trace;
    m_doubles.ReenumerateDevNodeReturns(19);
    EXPECT_FALSE(ReEnumeratePCIDevices());
    m_doubles.LocateDevNodeReturns(13);
    EXPECT_FALSE(ReEnumeratePCIDevices());
    EXPECT_TRUE(trace.Printed(L"ReEnumeratePCIDevices: Call to CM_Reenumerate_DevNode failed") &&
                trace.Printed(L"ReEnumeratePCIDevices: Call to CM_Locate_DevNodeA failed"))
        << trace.Dump();
}
