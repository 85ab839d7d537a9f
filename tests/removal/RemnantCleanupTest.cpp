// Remnant cleanup on the real files of the test prefix (the list's literal paths), and the ownership
// takeover, whose account lookup and owner change go through OwnershipCalls where Wine differs.
#include "Removal/RemnantCleanup.h"
#include "PlantedFiles.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <sddl.h>

namespace
{
using Lines = std::vector<std::wstring>;
const std::wstring kDrivers = L"C:\\Windows\\System32\\Drivers\\";
const std::wstring kFirmware = L"C:\\Windows\\System32\\drivers\\hwaswlfw\\";
const std::wstring kProductDir = L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\";
const std::wstring kUnableToRemove = L"Unable to remove all files, failing install:";

// What the action appends for a failed delete: the system's text keeps its own line break.
std::wstring FailedPart(const std::wstring& path, DWORD error)
{
    return path + L" with error:" + SystemErrorText(error) + L"\r\n";
}

UniqueFileHandle Lock(const std::wstring& path)
{
    return UniqueFileHandle(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
}

struct CheckFilesForRemovalTest : ::testing::Test
{
    PlantedFiles m_files;
    TestSession m_session;
};
} // namespace

TEST_F(CheckFilesForRemovalTest, WithNoRemnantPresentOnlyTheAllDeletedLineIsLogged)
{
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(), Lines{L"All remnant files deleted."});
}

// Bystanders share the folders and differ from listed names by a letter or a folder.
TEST_F(CheckFilesForRemovalTest, DeletesEveryListedFileAndNothingBesideIt)
{
    const Lines listed = {kDrivers + L"TpxProv.sys", L"C:\\Windows\\SysWOW64\\UTpxProv.dll",
                          kFirmware + L"swl_m31x_mmp.bin", kProductDir + L"Compression\\Library\\pdb\\swlzip.pdb",
                          kDrivers + L"hwa_swl4.sys", kProductDir + L"hwa_swl_sw.man"};
    const Lines bystanders = {kDrivers + L"TpxProv2.sys", kFirmware + L"swl_m31x.cfg",
                              kProductDir + L"Compression\\swlzip.h", kProductDir + L"SWLInstallSummary.log",
                              L"C:\\Windows\\System32\\hwa_swl4.sys"};
    for (const auto& file : listed)
        ASSERT_TRUE(m_files.Add(file));
    for (const auto& file : bystanders)
        ASSERT_TRUE(m_files.Add(file));

    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 0u);
    for (const auto& file : listed)
        EXPECT_FALSE(FileExists(file)) << Narrow(file);
    for (const auto& file : bystanders)
        EXPECT_TRUE(FileExists(file)) << Narrow(file);
    EXPECT_TRUE(FileExists(kFirmware)); // files only: their folders stay
    EXPECT_EQ(m_session.LogLines(), Lines{L"All remnant files deleted."});
}

TEST_F(CheckFilesForRemovalTest, FileThatCannotBeDeletedFailsTheInstallAndStopsTheWalk)
{
    TraceCapture trace;
    for (const auto& file : {kDrivers + L"TpxProv.sys", kDrivers + L"CfSwl.sys", kProductDir + L"Compression\\Fanzip.exe",
                             kDrivers + L"hwa_swl4.sys"})
        ASSERT_TRUE(m_files.Add(file));
    const UniqueFileHandle locked = Lock(kDrivers + L"CfSwl.sys");
    ASSERT_TRUE(locked);

    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({kUnableToRemove,
                     L"Failed to delete file: " + FailedPart(kDrivers + L"CfSwl.sys", ERROR_SHARING_VIOLATION)}));
    EXPECT_FALSE(FileExists(kDrivers + L"TpxProv.sys"));
    EXPECT_TRUE(FileExists(kProductDir + L"Compression\\Fanzip.exe"));
    EXPECT_TRUE(FileExists(kDrivers + L"hwa_swl4.sys"));
    EXPECT_TRUE(trace.Errored(L"DeleteFile: Failed to delete firmware file : '" + kDrivers + L"CfSwl.sys'"))
        << trace.Dump();
}

// Access denied on the base driver is passed over; a later failure repeats its text before its own.
TEST_F(CheckFilesForRemovalTest, AccessDeniedOnTheBaseDriverIsLoggedButDoesNotFailTheInstall)
{
    const std::wstring baseDriver = kDrivers + L"hwa_swl4.sys";
    ASSERT_TRUE(m_files.AddReadOnly(baseDriver) && m_files.Add(kProductDir + L"hwa_swl_sw.man"));
    const std::wstring first = L"Failed to delete file: " + FailedPart(baseDriver, ERROR_ACCESS_DENIED);
    const Lines refused = {kUnableToRemove, first, L"Unable to remove hwa_swl4, failing install:"};

    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 0u);
    Lines expected = refused;
    expected.push_back(L"All remnant files deleted.");
    EXPECT_EQ(m_session.LogLines(), expected);
    EXPECT_FALSE(FileExists(kProductDir + L"hwa_swl_sw.man"));
    EXPECT_TRUE(FileExists(baseDriver));

    ASSERT_TRUE(m_files.Add(kProductDir + L"hwa_swl.man"));
    const UniqueFileHandle locked = Lock(kProductDir + L"hwa_swl.man");
    m_session.ClearRecords();
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 31u);
    expected = refused;
    expected.insert(expected.end(), {kUnableToRemove, first + FailedPart(kProductDir + L"hwa_swl.man",
                                                                         ERROR_SHARING_VIOLATION)});
    EXPECT_EQ(m_session.LogLines(), expected);
}

TEST_F(CheckFilesForRemovalTest, AnyOtherRefusalOfTheBaseDriverFailsTheInstall)
{
    ASSERT_TRUE(m_files.Add(kDrivers + L"hwa_swl4.sys"));
    const UniqueFileHandle locked = Lock(kDrivers + L"hwa_swl4.sys");
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({kUnableToRemove,
                     L"Failed to delete file: " + FailedPart(kDrivers + L"hwa_swl4.sys", ERROR_SHARING_VIOLATION)}));
}

namespace
{
// The SID the fake lookup gives for "Administrator" (the built-in Administrators group will do);
// any other account name is not found.
BOOL WINAPI FakeLookupAccountName(const wchar_t* system, const wchar_t* account, PSID sid, DWORD* sidSize,
                                  wchar_t* domain, DWORD* domainSize, SID_NAME_USE* use)
{
    UniqueLocalMemory administrators;
    if (system != nullptr || std::wstring(account) != L"Administrator" ||
        !ConvertStringSidToSidW(L"S-1-5-32-544", reinterpret_cast<PSID*>(administrators.put())))
    {
        SetLastError(ERROR_NONE_MAPPED);
        return FALSE;
    }
    const DWORD needed = GetLengthSid(administrators.get());
    if (sid == nullptr || *sidSize < needed)
    {
        *sidSize = needed;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    *domainSize = 0;
    *use = SidTypeAlias;
    return CopySid(*sidSize, sid, administrators.get());
}

BOOL WINAPI RefuseOwnerChange(const wchar_t*, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

struct TakeOwnershipTest : ::testing::Test
{
    void SetUp() override { ASSERT_TRUE(WriteFileBytes(m_file, "driver message table")); }
    void TearDown() override
    {
        OwnershipCalls::LookupAccountName = ::LookupAccountNameW;
        OwnershipCalls::SetFileSecurity = ::SetFileSecurityW;
    }
    TempDir m_dir;
    const std::wstring m_file = m_dir.File(L"swl_msg4.dll");
    TestSession m_session;
};
} // namespace

// Wine has no account of that name: the real lookup fails with ERROR_NONE_MAPPED (0x534).
TEST_F(TakeOwnershipTest, WithoutAnAdministratorAccountTheFileStays)
{
    EXPECT_FALSE(TakeOwnershipAndDelete(m_session.handle(), m_file.c_str()));
    EXPECT_EQ(m_session.LogLines(), Lines{L"LookupAccountName administrator error: 534!!"});
    EXPECT_TRUE(FileExists(m_file));
}

TEST_F(TakeOwnershipTest, SuccessfulOwnerChangeIsReportedAsAnErrorAndNothingIsDeleted)
{
    OwnershipCalls::LookupAccountName = FakeLookupAccountName;
    EXPECT_FALSE(TakeOwnershipAndDelete(m_session.handle(), m_file.c_str()));
    const Lines lines = m_session.LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(L"SetFileSecurity error: ", 0), 0u) << Narrow(lines[0]);
    EXPECT_TRUE(FileExists(m_file));
}

TEST_F(TakeOwnershipTest, RefusedOwnerChangeGoesOnToDeleteTheFile)
{
    OwnershipCalls::LookupAccountName = FakeLookupAccountName;
    OwnershipCalls::SetFileSecurity = RefuseOwnerChange;
    EXPECT_TRUE(TakeOwnershipAndDelete(m_session.handle(), m_file.c_str()));
    EXPECT_FALSE(FileExists(m_file));

    ASSERT_TRUE(WriteFileBytes(m_file, "again"));
    const UniqueFileHandle locked = Lock(m_file);
    EXPECT_FALSE(TakeOwnershipAndDelete(m_session.handle(), m_file.c_str()));
    EXPECT_EQ(m_session.LogLines(), Lines({m_file + L" deleted!!", L"Delete " + m_file + L" error: 20!!"}));
}

// A missing file reports no size for its owner record; the descriptor is built all the same.
TEST_F(TakeOwnershipTest, MissingFileGetsAsFarAsTheDelete)
{
    OwnershipCalls::LookupAccountName = FakeLookupAccountName;
    const std::wstring missing = m_dir.File(L"missing.dll");
    EXPECT_FALSE(TakeOwnershipAndDelete(m_session.handle(), missing.c_str()));
    EXPECT_EQ(m_session.LogLines(), Lines{L"Delete " + missing + L" error: 2!!"});
}

TEST(SetPrivilegeTest, UnknownOrUnheldPrivilegeIsLoggedAndRefused)
{
    TestSession session;
    UniqueKernelHandle token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()));
    EXPECT_TRUE(SetPrivilege(session.handle(), token.get(), SE_TAKE_OWNERSHIP_NAME));
    EXPECT_FALSE(SetPrivilege(session.handle(), token.get(), SE_CREATE_TOKEN_NAME));
    EXPECT_FALSE(SetPrivilege(session.handle(), token.get(), L"SeNoSuchPrivilege"));
    UniqueKernelHandle queryOnly;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, queryOnly.put()));
    EXPECT_FALSE(SetPrivilege(session.handle(), queryOnly.get(), SE_BACKUP_NAME));
    EXPECT_EQ(session.LogLines(), Lines({L"SetPrivilege the token does not have the priviledge!!",
                                         L"SetPrivilege LookupPrivilegeValue() error: 521!!",
                                         L"SetPrivilege AdjustTokenPrivileges error: 5!!"}));
}
