// Hardware discovery and the hardware check on simulated machines: what WMI
// lists, what the registry says of crypto, and what kind of install follows.
#include "Devices/DriverInstall.h"
#include "Devices/HardwareDiscovery.h"
#include "SimulatedMachine.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <objbase.h>
#include <algorithm>
#include <thread>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
using Ids = std::vector<std::wstring>;
using Lines = std::vector<std::wstring>;

Ids Enumerate()
{
    std::vector<CKesString> found;
    EnumerateDeviceMgrForSupportedDevices(found);
    Ids ids(found.begin(), found.end());
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Sets the operating-system override under the product key: Windows Server 2019 or a workstation.
void OverrideWindows(bool server2019)
{
    for (const auto& [name, value] :
         {std::pair{L"OSMajorVersion", L"10"}, {L"OSMinorVersion", L"0"}, {L"OSBuildNumber", L"17763"},
          {L"OSPlatformID", L"2"}, {L"OSServicePackMajor", L"0"}, {L"OSServicePackMinor", L"0"},
          {L"OSProductType", server2019 ? L"3" : L"1"}, {L"OSCSDVersion", L""}})
        testreg::SetString(kProduct, name, value);
}
} // namespace

TEST(Discovery, ListsEachSupportedIdOnceWithoutItsInstanceWhateverCaseItWasWrittenIn)
{
    {
        SimulatedMachine machine("pf-vf-mix"); // two instances of the VF share one ID
        EXPECT_EQ(Enumerate(), (Ids{L"PCI\\VEN_1F2E&DEV_5A10&SUBSYS_00001F2E&REV_40",
                                    L"PCI\\VEN_1F2E&DEV_6B24&SUBSYS_00001F2E&REV_11",
                                    L"PCI\\VEN_1F2E&DEV_6B25&SUBSYS_00001F2E&REV_11"}));
    }
    {
        // Wine reports a key written in lower case upper-cased, so only the other vendors drop out.
        SimulatedMachine machine("other-vendors");
        EXPECT_EQ(Enumerate(), (Ids{L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20"}));
    }
    {
        SimulatedMachine machine("odd-key");
        EXPECT_EQ(Enumerate(), (Ids{L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20 %S#{X}"}));
    }
    SimulatedMachine harrowgate("harrowgate");
    std::vector<CKesString> none;
    EXPECT_FALSE(EnumerateDeviceMgrForSupportedDevices(none));
    EXPECT_TRUE(none.empty());
}

TEST(Discovery, ComInitialisedInAnotherModeOnTheThreadFindsNothing)
{
    SimulatedMachine machine("pf-7xxx");
    bool found = true;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        std::vector<CKesString> ids;
        found = EnumerateDeviceMgrForSupportedDevices(ids) || !ids.empty();
        CoUninitialize();
    }).join();
    EXPECT_FALSE(found);
}

struct CryptoSearch : ::testing::Test
{
    void SetUp() override { g_hInstallDriversSession = m_session.handle(); }
    void TearDown() override { g_hInstallDriversSession = 0; }

    // The result, with the search's Installer-log lines.
    std::pair<bool, Lines> Search(const std::string& profile)
    {
        SimulatedMachine machine(profile);
        m_session.ClearRecords();
        const bool result = SearchRegistryForCryptoCompatibility();
        return {result, m_session.LogLines()};
    }
    TestSession m_session;
};

TEST_F(CryptoSearch, AcceptedServiceSetsKeepCryptoAndOthersOrWrongTypesTurnItOff)
{
    EXPECT_EQ(Search("pf-7xxx"), (std::pair{true, Lines{L"SearchRegistryForCryptoCompatibility",
                                                        L"CRYPTO enabled, register value is asym;dc",
                                                        L"ERROR_NO_MORE_ITEMS"}}));
    // No ServicesNeeded, or a key written in lower case that the catalogue does not match: nothing counts.
    EXPECT_TRUE(Search("pf-m31x").first);
    EXPECT_TRUE(Search("other-vendors").first);
    const auto [rejected, lines] = Search("services-rejected");
    EXPECT_FALSE(rejected);
    EXPECT_NE(std::find(lines.begin(), lines.end(), L"CRYPTO not enabled, register value is dc"), lines.end());
    EXPECT_FALSE(Search("services-wrong-type").first) << "a number is no service set";
    const auto [odd, oddLines] = Search("odd-key");
    EXPECT_FALSE(odd) << "a key with blanks, braces and a format directive is walked like any other";
    EXPECT_NE(std::find(oddLines.begin(), oddLines.end(), L"CRYPTO not enabled, register value is dc"),
              oddLines.end());
}

// The offer for the second read is what the first returned: a longer value later cannot be read and is skipped.
TEST_F(CryptoSearch, LongerValueOnALaterInstanceIsPassedOverAndCryptoStaysOn)
{
    const auto [result, lines] = Search("services-long");
    EXPECT_TRUE(result);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), L"CRYPTO enabled, register value is asym;dc"), 1);
}

struct HardwareCheck : ::testing::Test
{
    UINT Run(const std::string& profile)
    {
        SimulatedMachine machine(profile);
        return VerifyHardwareOrWarn(m_session.handle());
    }
    bool Logged(const wchar_t* line) const { return m_session.Logged(line); }

    ProductKeyGuard m_product;
    TestSession m_session;
};

TEST_F(HardwareCheck, NoSupportedDeviceInASilentRunFailsWithoutTheSoftwareOnlyInstall)
{
    testreg::SetString(kProduct, L"UILevel", L"2");
    for (const char* profile : {"none", "harrowgate"})
    {
        m_session.ClearRecords();
        EXPECT_EQ(Run(profile), 31u) << profile;
        EXPECT_EQ(m_session.LogLines(),
                  (Lines{L"VerifyHardwareOrWarn()",
                         L"No Corvane(R) Swiftlane Technology compatible hardware found; cannot install",
                         L"VerifyHardwareOrWarn() - Exit"}))
            << profile;
    }
    EXPECT_EQ(m_session.Property(L"INSTALLDLLONLY"), L"");
}

TEST_F(HardwareCheck, VirtualFunctionsAskForAVirtualMachineInstallAndSkipTheSrIovCheck)
{
    m_session.SetProperty(L"HYPERVMODE", L"1");
    EXPECT_EQ(Run("vf-only"), 0u);
    EXPECT_EQ(m_session.Property(L"INSTALLVMONLY"), L"1");
    EXPECT_TRUE(Logged(L"VF devices present.") && !Logged(L"checkVirtualizationSupport()"));
}

TEST_F(HardwareCheck, PhysicalFunctionsOnAWorkstationFailOnlyAHyperVInstall)
{
    OverrideWindows(false);
    EXPECT_EQ(Run("pf-7xxx"), 0u);
    EXPECT_TRUE(Logged(L"SR-IOV is not supported. Hyper-V configuration cannot be installed."));
    m_session.SetProperty(L"HYPERVMODE", L"1");
    EXPECT_EQ(Run("pf-7xxx"), 31u);
    EXPECT_TRUE(Logged(L"Hyper-V mode install cannot continue as SRIOV is not supported by OS. "));
    EXPECT_EQ(m_session.Property(L"_IsSrIovSupported"), L"");
}

TEST_F(HardwareCheck, PhysicalFunctionsOnServer2019OfferSrIov)
{
    OverrideWindows(true);
    m_session.SetProperty(L"HYPERVMODE", L"1");
    EXPECT_EQ(Run("pf-7xxx"), 0u);
    EXPECT_TRUE(Logged(L"IsSrIovSupportedByOS()") && Logged(L"The system supports SR-IOV mode."));
    EXPECT_EQ(m_session.Property(L"_IsSrIovSupported"), L"Yes");
    EXPECT_EQ(m_session.Property(L"INSTALLVMONLY"), L"");
}
