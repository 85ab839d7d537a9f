// Driver and firmware removal on the real registry and files of the test prefix. The DRIVERS
// record is written in the form InstallDrivers writes it (Devices/DriverInstall.h): a value per
// device ID holding the INF's driver-store name, a value per driver file holding its path under
// the system folder. Wine's SetupUninstallOEMInfW with SUOI_FORCEDELETE deletes
// C:\windows\inf\<name>, which stands for the driver store here.
#include "Removal/DriverRemoval.h"
#include "Devices/DriverInstall.h"
#include "PlantedFiles.h"
#include "Removal/RemnantCleanup.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <sddl.h>

namespace
{
using Lines = std::vector<std::wstring>;
const std::wstring kSystem = L"C:\\windows\\system32";
const std::wstring kInf = L"C:\\windows\\inf\\";
const std::wstring kDriverId = L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20";
const std::wstring kMessageLibrary = L"C:\\Windows\\System32\\swl_msg4.dll";

Lines operator+(Lines lines, const Lines& more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

struct RemoveDriversTest : ::testing::Test
{
    void SetUp() override { testreg::DeleteTree(kDriversKey); }
    void TearDown() override { testreg::DeleteTree(kDriversKey); }
    void Record(const std::wstring& name, const std::wstring& data)
    {
        ASSERT_TRUE(testreg::SetString(kDriversKey, name, data));
    }
    // The lines of a walk of the record: opened, walked, then the exit line.
    Lines Walked(const Lines& walk) const { return m_opened + walk + m_exit; }
    const Lines m_opened = {L"RemoveDrivers()", L"Opened Registry key for driver removal " + std::wstring(kDriversKey)};
    const Lines m_exit = {L"RemoveDrivers() - Exit"};
    PlantedFiles m_files;
    TestSession m_session;
};
} // namespace

TEST_F(RemoveDriversTest, RemovesTheRecordedPackageAndDriverFileAndNothingElse)
{
    const std::wstring driver = kSystem + L"\\drivers\\hwa_swl4.sys";
    Record(kDriverId, L"oem3.inf");
    Record(L"hwa_swl4.sys", driver);
    Record(L"swl.cat", kSystem + L"\\drivers\\swl.cat"); // neither a package nor a driver
    for (const auto& file : {kInf + L"oem3.inf", driver, kInf + L"oem4.inf", kSystem + L"\\drivers\\hwa_swl5.sys",
                             kSystem + L"\\drivers\\swl.cat"})
        ASSERT_TRUE(m_files.Add(file));
    ASSERT_TRUE(testreg::SetString(std::wstring(kDriversKey) + L"\\Bystander", L"hwa_swl5.sys", L"hwa_swl5.sys"));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(),
              Walked({L"found file c:\\windows\\system32\\drivers\\hwa_swl4.sys",
                      L"delete file c:\\windows\\system32\\drivers\\hwa_swl4.sys", L"found file oem3.inf",
                      L"SetupUninstallOEMInf() succeeds oem3.inf",
                      L"found file c:\\windows\\system32\\drivers\\swl.cat", L"No more subkeys"}));
    EXPECT_FALSE(FileExists(kInf + L"oem3.inf"));
    EXPECT_FALSE(FileExists(driver));
    for (const auto& file : {kInf + L"oem4.inf", kSystem + L"\\drivers\\hwa_swl5.sys", kSystem + L"\\drivers\\swl.cat"})
        EXPECT_TRUE(FileExists(file)) << Narrow(file);
    // The record stays as it was.
    std::wstring value;
    EXPECT_TRUE(testreg::GetString(kDriversKey, kDriverId, value) && value == L"oem3.inf");
    EXPECT_TRUE(testreg::ValueExists(std::wstring(kDriversKey) + L"\\Bystander", L"hwa_swl5.sys"));
    const auto progress = m_session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_EQ(progress.size(), 1u);
    EXPECT_EQ(progress[0].fields.at(2), L"Removing drivers");
}

// A package no longer in the store and a driver file that cannot be deleted are only logged.
TEST_F(RemoveDriversTest, PackagesAndFilesThatStayAreLoggedWithoutFailingTheRemoval)
{
    TraceCapture trace;
    const std::wstring driver = L"C:\\Windows\\System32\\Drivers\\HWA_SWL4.SYS";
    Record(kDriverId, L"OEM9.INF");
    Record(L"hwa_swl4.sys", driver);
    ASSERT_TRUE(m_files.Add(driver));
    const UniqueFileHandle locked(CreateFileW(driver.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    const std::wstring lowered = L"c:\\windows\\system32\\drivers\\hwa_swl4.sys";
    EXPECT_EQ(m_session.LogLines(),
              Walked({L"found file " + lowered, L"delete file " + lowered, L"found file oem9.inf",
                      L"SetupUninstallOEMInf() fails oem9.inf", L"No more subkeys", L"hwa_swl4.sys exists!!"}));
    EXPECT_TRUE(trace.Errored(L"Unable to delete file :" + lowered)) << trace.Dump();
}

// A path with ".inf" in a folder name is a package (which the store does not know) and a driver file.
TEST_F(RemoveDriversTest, ValueWithBothInfAndSysIsUninstalledAndDeleted)
{
    const std::wstring file = L"C:\\Windows\\System32\\DriverStore\\FileRepository\\hwa_swl4.inf_amd64\\hwa_swl4.sys";
    Record(L"hwa_swl4.sys", file);
    ASSERT_TRUE(m_files.Add(file) && m_files.Add(file + L".bak"));
    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    std::wstring lowered = file;
    for (auto& c : lowered)
        c = towlower(c);
    EXPECT_EQ(m_session.LogLines(), Walked({L"found file " + lowered,
                                                     L"SetupUninstallOEMInf() fails " + lowered,
                                                     L"delete file " + lowered, L"No more subkeys"}));
    EXPECT_FALSE(FileExists(file));
    EXPECT_TRUE(FileExists(file + L".bak"));
}

// Values are walked in registry order (by name under Wine); the unreadable one (more than 255
// characters) stops the walk, so the value after it is never looked at.
TEST_F(RemoveDriversTest, ValueThatCannotBeReadStopsTheWalkAndFailsTheRemoval)
{
    TraceCapture trace;
    const std::wstring first = kSystem + L"\\drivers\\cfswl.sys", last = kSystem + L"\\drivers\\tpxprov.sys";
    Record(L"cfswl.sys", first);
    Record(L"long.sys", kSystem + L"\\drivers\\" + std::wstring(260, L'x') + L".sys");
    Record(L"tpxprov.sys", last);
    ASSERT_TRUE(m_files.Add(first) && m_files.Add(last));

    EXPECT_EQ(RemoveDrivers(m_session.handle()), 31u);
    const std::wstring lowered = L"c:\\windows\\system32\\drivers\\cfswl.sys";
    EXPECT_EQ(m_session.LogLines(), Walked({L"found file " + lowered, L"delete file " + lowered,
                                            L"Exiting RemoveDrivers()", L"No more subkeys"}));
    EXPECT_FALSE(FileExists(first));
    EXPECT_TRUE(FileExists(last));
    EXPECT_TRUE(trace.Errored(L"Failed to get value for registry value name :" + std::wstring(kDriversKey) +
                              L"\\long.sys"))
        << trace.Dump();
}

TEST_F(RemoveDriversTest, EmptyRecordRemovesNothing)
{
    ASSERT_TRUE(testreg::CreateKey(kDriversKey));
    EXPECT_EQ(RemoveDrivers(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(), Walked({L"No more subkeys"}));
}

// Without the record the message library is still dealt with. Wine has no "Administrator"
// account, so the real takeover stops at the lookup and the library stays.
TEST_F(RemoveDriversTest, MissingRecordFailsTheRemovalButTheMessageLibraryIsStillTried)
{
    ASSERT_TRUE(m_files.Add(kMessageLibrary));
    EXPECT_EQ(RemoveDrivers(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RemoveDrivers()", L"Failed to open Registry key for driver removal " + std::wstring(kDriversKey),
                     L"Exiting RemoveDrivers()", L"Delete swl_msg4.dll", L"LookupAccountName administrator error: 534!!",
                     L"RemoveDrivers() - Exit"}));
    EXPECT_TRUE(FileExists(kMessageLibrary));
}

namespace
{
BOOL WINAPI AdministratorsGroup(const wchar_t*, const wchar_t*, PSID sid, DWORD* sidSize, wchar_t*, DWORD*,
                                SID_NAME_USE*)
{
    UniqueLocalMemory group;
    ConvertStringSidToSidW(L"S-1-5-32-544", reinterpret_cast<PSID*>(group.put()));
    const DWORD needed = GetLengthSid(group.get());
    const bool fits = sid != nullptr && *sidSize >= needed;
    *sidSize = needed;
    return fits && CopySid(needed, sid, group.get());
}
BOOL WINAPI RefuseOwnerChange(const wchar_t*, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}
} // namespace

TEST_F(RemoveDriversTest, MessageLibraryIsDeletedThroughTheOwnershipTakeover)
{
    ASSERT_TRUE(testreg::CreateKey(kDriversKey) && m_files.Add(kMessageLibrary));
    OwnershipCalls::LookupAccountName = AdministratorsGroup;
    OwnershipCalls::SetFileSecurity = RefuseOwnerChange;
    const UINT result = RemoveDrivers(m_session.handle());
    OwnershipCalls::LookupAccountName = ::LookupAccountNameW;
    OwnershipCalls::SetFileSecurity = ::SetFileSecurityW;
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(m_session.LogLines(), Walked({L"No more subkeys", L"Delete swl_msg4.dll",
                                                     kMessageLibrary + L" deleted!!"}));
    EXPECT_FALSE(FileExists(kMessageLibrary));
}

// Files directly in the firmware folder go, and so does the folder; its neighbours stay.
TEST(RemoveFirmwareTest, DeletesTheFirmwareFolderAndNothingBesideIt)
{
    PlantedFiles files;
    TestSession session;
    const std::wstring drivers = kSystem + L"\\drivers\\";
    for (const auto& file : {drivers + L"hwaSWLFW\\swl_531xcc.bin", drivers + L"hwaSWLFW\\mq531xcc_dev0.conf",
                             drivers + L"hwaSWLFW2\\swl_531xcc.bin", drivers + L"swl_531xcc.bin"})
        ASSERT_TRUE(files.Add(file));
    EXPECT_EQ(RemoveFirmware(session.handle()), 0u);
    EXPECT_FALSE(FileExists(drivers + L"hwaSWLFW"));
    EXPECT_TRUE(FileExists(drivers + L"hwaSWLFW2\\swl_531xcc.bin"));
    EXPECT_TRUE(FileExists(drivers + L"swl_531xcc.bin"));
    EXPECT_EQ(session.LogLines(), Lines({L"RemoveFirmware()", L"RemoveFirmware() - Exit"}));
    const auto progress = session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_EQ(progress.size(), 1u);
    EXPECT_EQ(progress[0].fields.at(2), L"Removing drivers");

    // A firmware file that cannot be deleted keeps the folder, and the removal still succeeds.
    ASSERT_TRUE(files.Add(drivers + L"hwaSWLFW\\swl_m31x.bin"));
    const UniqueFileHandle locked(CreateFileW((drivers + L"hwaSWLFW\\swl_m31x.bin").c_str(), GENERIC_READ, 0, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(RemoveFirmware(session.handle()), 0u);
    EXPECT_TRUE(FileExists(drivers + L"hwaSWLFW\\swl_m31x.bin"));
}
