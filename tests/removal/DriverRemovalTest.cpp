// Driver and firmware removal on the real registry and files of the test prefix. The DRIVERS
// record is written in the form InstallDrivers writes it (Devices/DriverInstall.h): a value per
// device ID holding the INF's driver-store name, a value per driver file holding its path under
// the system folder. Wine's SetupUninstallOEMInfW with SUOI_FORCEDELETE deletes
// C:\windows\inf\<name>, which stands for the driver store here. Wine walks values by name.
#include "Removal/DriverRemoval.h"
#include "Devices/DriverInstall.h"
#include "PlantedFiles.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const std::wstring kRecord = kDriversKey;
const std::wstring kDrivers = L"C:\\windows\\system32\\drivers\\", kLowered = L"c:\\windows\\system32\\drivers\\";
const std::wstring kInf = L"C:\\windows\\inf\\";
const std::wstring kDeviceId = L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20";

struct RemoveDriversTest : ::testing::Test
{
    void SetUp() override { testreg::DeleteTree(kRecord); }
    void TearDown() override { testreg::DeleteTree(kRecord); }
    void Record(const std::wstring& name, const std::wstring& data) { ASSERT_TRUE(testreg::SetString(kRecord, name, data)); }
    // The lines of one run that walked the record, with what it logged after the walk.
    Lines Walked(const Lines& walk, const Lines& after = {}) const
    {
        return Lines{L"RemoveDrivers()", L"Opened Registry key for driver removal " + kRecord} + walk +
               Lines{L"No more subkeys"} + after + Lines{L"RemoveDrivers() - Exit"};
    }
    PlantedFiles m_files;
    TestSession m_session;
    TraceCapture m_trace;
};
} // namespace

TEST_F(RemoveDriversTest, RemovesTheRecordedPackageAndDriverFileAndNothingElse)
{
    Record(kDeviceId, L"oem3.inf");
    Record(L"hwa_swl4.sys", kDrivers + L"hwa_swl4.sys");
    Record(L"swl.cat", kDrivers + L"swl.cat"); // neither a package nor a driver
    Record(L"tpxprov.sys", kDrivers + L"tpxprov.sys"); // not there
    const Lines bystanders = {kInf + L"oem4.inf", kDrivers + L"hwa_swl5.sys", kDrivers + L"swl.cat"};
    for (const auto& file : Lines{kInf + L"oem3.inf", kDrivers + L"hwa_swl4.sys"} + bystanders)
        ASSERT_TRUE(m_files.Add(file));
    ASSERT_TRUE(testreg::SetString(kRecord + L"\\Bystander", L"hwa_swl5.sys", kDrivers + L"hwa_swl5.sys"));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(),
              Walked({L"found file " + kLowered + L"hwa_swl4.sys", L"delete file " + kLowered + L"hwa_swl4.sys",
                      L"found file oem3.inf", L"SetupUninstallOEMInf() succeeds oem3.inf",
                      L"found file " + kLowered + L"swl.cat", L"found file " + kLowered + L"tpxprov.sys"}));
    EXPECT_FALSE(FileExists(kInf + L"oem3.inf") || FileExists(kDrivers + L"hwa_swl4.sys"));
    for (const auto& file : bystanders)
        EXPECT_TRUE(FileExists(file)) << Narrow(file);
    std::wstring kept;
    EXPECT_TRUE(testreg::GetString(kRecord, kDeviceId, kept) && kept == L"oem3.inf"); // the record stays
    EXPECT_TRUE(testreg::ValueExists(kRecord + L"\\Bystander", L"hwa_swl5.sys"));
    EXPECT_EQ(m_session.ActionStartTexts(), Lines{L"Removing drivers"});
}

// An unknown package and a locked driver file are only logged. A path with ".inf" in a folder name
// is both a package (the store does not know it) and a driver file.
TEST_F(RemoveDriversTest, PackagesAndFilesThatStayAreOnlyLogged)
{
    const std::wstring both = L"C:\\Windows\\System32\\DriverStore\\hwa_swl4.INF_amd64\\hwa_swl4.sys";
    const std::wstring bothLowered = L"c:\\windows\\system32\\driverstore\\hwa_swl4.inf_amd64\\hwa_swl4.sys";
    Record(L"a.sys", both);
    Record(kDeviceId, L"OEM9.INF");
    Record(L"hwa_swl4.sys", L"C:\\Windows\\System32\\Drivers\\HWA_SWL4.SYS");
    ASSERT_TRUE(m_files.Add(both) && m_files.Add(kDrivers + L"hwa_swl4.sys"));
    const UniqueFileHandle locked(
        CreateFileW((kDrivers + L"hwa_swl4.sys").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(),
              Walked({L"found file " + bothLowered, L"SetupUninstallOEMInf() fails " + bothLowered,
                      L"delete file " + bothLowered, L"found file " + kLowered + L"hwa_swl4.sys",
                      L"delete file " + kLowered + L"hwa_swl4.sys", L"found file oem9.inf",
                      L"SetupUninstallOEMInf() fails oem9.inf"},
                     {L"hwa_swl4.sys exists!!"}));
    EXPECT_FALSE(FileExists(both));
    EXPECT_TRUE(m_trace.Errored(L"Unable to delete file :" + kLowered + L"hwa_swl4.sys")) << m_trace.Dump();
}

// A value of more than 255 characters cannot be read: the walk stops there, before "tpxprov.sys".
TEST_F(RemoveDriversTest, ValueThatCannotBeReadStopsTheWalkAndFailsTheRemoval)
{
    Record(L"cfswl.sys", kDrivers + L"cfswl.sys");
    Record(L"long.sys", kDrivers + std::wstring(260, L'x') + L".sys");
    Record(L"tpxprov.sys", kDrivers + L"tpxprov.sys");
    ASSERT_TRUE(m_files.Add(kDrivers + L"cfswl.sys") && m_files.Add(kDrivers + L"tpxprov.sys"));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(), Walked({L"found file " + kLowered + L"cfswl.sys",
                                            L"delete file " + kLowered + L"cfswl.sys", L"Exiting RemoveDrivers()"}));
    EXPECT_TRUE(FileExists(kDrivers + L"tpxprov.sys"));
    EXPECT_TRUE(m_trace.Errored(L"Failed to get value for registry value name :" + kRecord + L"\\long.sys"));
}

// Wine has no "Administrator" account, so the real takeover stops at the lookup and the library stays.
TEST_F(RemoveDriversTest, MissingRecordFailsTheRemovalButTheMessageLibraryIsStillTried)
{
    ASSERT_TRUE(m_files.Add(L"C:\\Windows\\System32\\swl_msg4.dll"));
    EXPECT_EQ(RemoveDrivers(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RemoveDrivers()", L"Failed to open Registry key for driver removal " + kRecord,
                     L"Exiting RemoveDrivers()", L"Delete swl_msg4.dll", L"LookupAccountName administrator error: 534!!",
                     L"RemoveDrivers() - Exit"}));
}

// Files directly in the firmware folder go, and so does the folder; its neighbours stay.
TEST(RemoveFirmwareTest, DeletesTheFirmwareFolderAndNothingBesideIt)
{
    PlantedFiles files;
    TestSession session;
    for (const auto& file : {kDrivers + L"hwaSWLFW\\swl_531xcc.bin", kDrivers + L"hwaSWLFW\\mq531xcc_dev0.conf",
                             kDrivers + L"hwaSWLFW2\\swl_531xcc.bin", kDrivers + L"swl_531xcc.bin"})
        ASSERT_TRUE(files.Add(file));
    EXPECT_EQ(RemoveFirmware(session.handle()), 0u);
    EXPECT_FALSE(FileExists(kDrivers + L"hwaSWLFW"));
    EXPECT_TRUE(FileExists(kDrivers + L"hwaSWLFW2\\swl_531xcc.bin") && FileExists(kDrivers + L"swl_531xcc.bin"));
    EXPECT_EQ(session.LogLines(), Lines({L"RemoveFirmware()", L"RemoveFirmware() - Exit"}));
    EXPECT_EQ(session.ActionStartTexts(), Lines{L"Removing drivers"});
}
