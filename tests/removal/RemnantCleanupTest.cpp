// Remnant cleanup on the list's literal paths in the test prefix, and the ownership takeover, whose
// account lookup and owner change go through OwnershipCalls where Wine differs from Windows.
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
const std::wstring kProductDir = L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\";
const std::wstring kUnable = L"Unable to remove all files, failing install:";

// The text appended for a failed delete; the system's text keeps its own line break.
std::wstring Failed(const std::wstring& path, DWORD error)
{
    return path + L" with error:" + SystemErrorText(error) + L"\r\n";
}
UniqueFileHandle Lock(const std::wstring& path)
{
    return UniqueFileHandle(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
}
// Tracing is on: the failure texts must survive the trace lines written between the delete and the log.
struct CheckFilesForRemovalTest : ::testing::Test { TraceCapture m_trace; PlantedFiles m_files; TestSession m_session; };
} // namespace

// Bystanders share the folders and differ from listed names by a letter or a folder.
TEST_F(CheckFilesForRemovalTest, DeletesEveryListedFileAndNothingBesideIt)
{
    const Lines listed = {kDrivers + L"TpxProv.sys", L"C:\\Windows\\SysWOW64\\UTpxProv.dll",
        L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_m31x_mmp.bin", kProductDir + L"Compression\\Library\\pdb\\swlzip.pdb",
        kProductDir + L"hwa_swl_sw.man"};
    const Lines bystanders = {kDrivers + L"TpxProv2.sys", L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_m31x.cfg",
        kProductDir + L"Compression\\swlzip.h", kProductDir + L"SWLInstallSummary.log", L"C:\\Windows\\System32\\hwa_swl4.sys"};
    for (const auto& file : listed + bystanders)
        ASSERT_TRUE(m_files.Add(file));
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 0u);
    for (const auto& file : listed)
        EXPECT_FALSE(FileExists(file)) << Narrow(file);
    for (const auto& file : bystanders)
        EXPECT_TRUE(FileExists(file)) << Narrow(file);
    EXPECT_EQ(m_session.LogLines(), Lines{L"All remnant files deleted."});
}

// Access denied on the base driver is logged and passed over, and the message is never reset: the
// next failure repeats its text, fails the install and ends the walk. Any other refusal of the
// base driver fails like any file.
TEST_F(CheckFilesForRemovalTest, OnlyAccessDeniedOnTheBaseDriverIsPassedOver)
{
    const std::wstring base = kDrivers + L"hwa_swl4.sys", manifest = kProductDir + L"hwa_swl.man";
    ASSERT_TRUE(m_files.Add(kDrivers + L"TpxProv.sys") && m_files.AddReadOnly(base) && m_files.Add(manifest) &&
                m_files.Add(kProductDir + L"hwa_swl_sw.man"));
    const std::wstring first = L"Failed to delete file: " + Failed(base, ERROR_ACCESS_DENIED);
    UniqueFileHandle locked = Lock(manifest);
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(), Lines({kUnable, first, L"Unable to remove hwa_swl4, failing install:", kUnable,
                                           first + Failed(manifest, ERROR_SHARING_VIOLATION)}));
    EXPECT_FALSE(FileExists(kDrivers + L"TpxProv.sys"));
    EXPECT_TRUE(FileExists(kProductDir + L"hwa_swl_sw.man"));

    SetFileAttributesW(base.c_str(), FILE_ATTRIBUTE_NORMAL);
    locked = Lock(base);
    m_session.ClearRecords();
    EXPECT_EQ(CheckFilesForRemoval(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({kUnable, L"Failed to delete file: " + Failed(base, ERROR_SHARING_VIOLATION)}));
}

namespace
{
// The fake lookup answers only for "Administrator", with the Administrators group's SID.
BOOL WINAPI FakeLookupAccountName(const wchar_t* system, const wchar_t* account, PSID sid, DWORD* sidSize,
                                  wchar_t*, DWORD*, SID_NAME_USE*)
{
    UniqueLocalMemory group;
    if (system || std::wstring(account) != L"Administrator" ||
        !ConvertStringSidToSidW(L"S-1-5-32-544", reinterpret_cast<PSID*>(group.put())))
        return SetLastError(ERROR_NONE_MAPPED), FALSE;
    const DWORD needed = GetLengthSid(group.get());
    const bool fits = sid && *sidSize >= needed;
    *sidSize = needed;
    return fits ? CopySid(needed, sid, group.get()) : (SetLastError(ERROR_INSUFFICIENT_BUFFER), FALSE);
}
BOOL WINAPI RefuseOwnerChange(const wchar_t*, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR)
{
    return SetLastError(ERROR_ACCESS_DENIED), FALSE;
}
struct TakeOwnershipTest : ::testing::Test
{
    void SetUp() override { ASSERT_TRUE(WriteFileBytes(m_file, "messages")); }
    void TearDown() override { OwnershipCalls::LookupAccountName = ::LookupAccountNameW; OwnershipCalls::SetFileSecurity = ::SetFileSecurityW; }
    BOOL Take(const std::wstring& path) { return TakeOwnershipAndDelete(m_session.handle(), path.c_str()); }
    TempDir m_dir;
    const std::wstring m_file = m_dir.File(L"swl_msg4.dll");
    TestSession m_session;
};
} // namespace

// Wine has no such account: the real lookup fails with ERROR_NONE_MAPPED (0x534). Given one, the
// owner change succeeds, which is deliberately read as an error: the file stays either way.
TEST_F(TakeOwnershipTest, FileStaysUnlessTheOwnerChangeIsRefused)
{
    EXPECT_FALSE(Take(m_file));
    OwnershipCalls::LookupAccountName = FakeLookupAccountName;
    EXPECT_FALSE(Take(m_file));
    EXPECT_TRUE(FileExists(m_file));
    const Lines lines = m_session.LogLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], L"LookupAccountName administrator error: 534!!");
    EXPECT_EQ(lines[1].rfind(L"SetFileSecurity error: ", 0), 0u) << Narrow(lines[1]);
}

// A missing file reports no size for its owner record; the descriptor is built all the same.
TEST_F(TakeOwnershipTest, RefusedOwnerChangeGoesOnToTheDelete)
{
    OwnershipCalls::LookupAccountName = FakeLookupAccountName;
    OwnershipCalls::SetFileSecurity = RefuseOwnerChange;
    EXPECT_TRUE(Take(m_file));
    EXPECT_FALSE(FileExists(m_file));
    ASSERT_TRUE(WriteFileBytes(m_file, "again"));
    const UniqueFileHandle locked = Lock(m_file);
    EXPECT_FALSE(Take(m_file));
    EXPECT_FALSE(Take(m_dir.File(L"missing.dll")));
    EXPECT_EQ(m_session.LogLines(), Lines({m_file + L" deleted!!", L"Delete " + m_file + L" error: 20!!",
                                           L"Delete " + m_dir.File(L"missing.dll") + L" error: 2!!"}));
}

TEST(SetPrivilegeTest, UnknownOrUnheldPrivilegeIsLoggedAndRefused)
{
    TestSession session;
    UniqueKernelHandle token, queryOnly;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()) &&
                OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, queryOnly.put()));
    EXPECT_TRUE(SetPrivilege(session.handle(), token.get(), SE_TAKE_OWNERSHIP_NAME));
    EXPECT_FALSE(SetPrivilege(session.handle(), token.get(), SE_CREATE_TOKEN_NAME));
    EXPECT_FALSE(SetPrivilege(session.handle(), token.get(), L"SeNoSuchPrivilege"));
    EXPECT_FALSE(SetPrivilege(session.handle(), queryOnly.get(), SE_BACKUP_NAME));
    EXPECT_EQ(session.LogLines(), Lines({L"SetPrivilege the token does not have the priviledge!!",
                                         L"SetPrivilege LookupPrivilegeValue() error: 521!!",
                                         L"SetPrivilege AdjustTokenPrivileges error: 5!!"}));
}
