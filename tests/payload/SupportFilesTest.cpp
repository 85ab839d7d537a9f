// SetupFiles, CleanSetupFiles and the operations under them, against an
// in-process session whose package carries the payload in its Binary table.
#include "Payload/SupportFiles.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <io.h>
#include <sddl.h>
#include <set>
#include <string>
#include <vector>

extern "C" UINT __stdcall SetupFiles(MSIHANDLE hInstall);
extern "C" UINT __stdcall CleanSetupFiles(MSIHANDLE hInstall);

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

const std::vector<std::wstring> kDeviceFiles = {
    L"hwa_swl4.inf",  L"hwa_swl4.sys",      L"swl_msg4.dll",  L"hwa_swl4.cat",
    L"swl_m31x.bin",  L"swl_m31x_mmp.bin",  L"swl_7xxx.bin",  L"swl_7xxx_mmp.bin",
    L"swl_702xx.bin", L"swl_702xx_mmp.bin", L"swl_720xx.bin", L"swl_720xx_mmp.bin"};

// Distinct contents per row, with bytes a text-mode write would alter.
std::string Payload(const std::wstring& name)
{
    return "payload of " + Narrow(name) + std::string("\r\n\0\x1a\xff", 5);
}

std::wstring TempPath()
{
    wchar_t dir[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    return dir;
}

std::set<std::wstring> SupportFolders()
{
    std::set<std::wstring> found;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((TempPath() + L"SWL*.tmp").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return found;
    do
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            found.insert(TempPath() + data.cFileName);
    while (FindNextFileW(find, &data));
    FindClose(find);
    return found;
}

std::vector<std::wstring> FilesIn(const std::wstring& folder)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return names;
    do
    {
        std::wstring name = data.cFileName;
        if (name != L"." && name != L"..")
            names.push_back(name);
    } while (FindNextFileW(find, &data));
    FindClose(find);
    return names;
}

std::wstring Doubled(const std::wstring& path)
{
    std::wstring out;
    for (wchar_t c : path)
        out += c == L'\\' ? std::wstring(L"\\\\") : std::wstring(1, c);
    return out + L"\\\\";
}

TestPackage FullPayload()
{
    TestPackage package;
    package.Binary(L"vcredist_x64", Payload(L"vcredist_x64"));
    for (const auto& name : kDeviceFiles)
        package.Binary(name, Payload(name));
    package.Binary(L"swlzip.dll", Payload(L"swlzip.dll"));
    return package;
}

// Runs SetupFiles and finds the one support folder it made; removes every
// folder it made at the end.
class SetupFilesTest : public ::testing::Test
{
protected:
    UINT RunSetupFiles(TestSession& session)
    {
        std::set<std::wstring> before = SupportFolders();
        UINT result = SetupFiles(session.handle());
        for (const auto& folder : SupportFolders())
            if (!before.count(folder))
                m_created.push_back(folder);
        return result;
    }
    std::wstring Folder() const { return m_created.empty() ? std::wstring() : m_created.back(); }
    void TearDown() override
    {
        for (const auto& folder : m_created)
            RemoveTree(folder);
    }

    ProductKeyGuard m_key;
    std::vector<std::wstring> m_created;
};
} // namespace

TEST_F(SetupFilesTest, FullInstallExtractsRuntimeDeviceFilesAndSwlzipAndRecordsTheFolder)
{
    TestSession session(FullPayload().Property(L"INSTALLDLLONLY", L"0"));

    ASSERT_EQ(0u, RunSetupFiles(session));
    ASSERT_EQ(1u, m_created.size());
    const std::wstring folder = Folder();

    EXPECT_EQ(Narrow(folder), Narrow(session.Property(L"SUPPORTDIR")));
    std::wstring recorded;
    ASSERT_TRUE(testreg::GetString(kProduct, L"SupportDir", recorded));
    EXPECT_EQ(Narrow(folder), Narrow(recorded));

    EXPECT_EQ(Payload(L"vcredist_x64"), ReadFileBytes(folder + L"\\vcredist.exe"));
    EXPECT_EQ(Payload(L"swlzip.dll"), ReadFileBytes(folder + L"\\swlzip.dll"));
    for (const auto& name : kDeviceFiles)
    {
        EXPECT_EQ(Payload(name), ReadFileBytes(folder + L"\\" + name)) << Narrow(name);
        EXPECT_TRUE(session.Logged(L"Extracted file : " + name)) << Narrow(name);
    }
    EXPECT_EQ(kDeviceFiles.size() + 2, FilesIn(folder).size());

    // The paths are built from the doubled-separator prefix and logged that way.
    EXPECT_TRUE(session.Logged(Doubled(folder) + L"vcredist.exe"));
    EXPECT_TRUE(session.Logged(L"Exiting SetupFiles"));
    EXPECT_EQ(0u, folder.rfind(TempPath() + L"SWL", 0)) << Narrow(folder);
}

TEST_F(SetupFilesTest, AnythingButZeroInInstallDllOnlyExtractsOnlySwlzip)
{
    for (const wchar_t* value : {L"", L"1", L" 0"})
    {
        SCOPED_TRACE(Narrow(value));
        TestPackage package = FullPayload();
        if (*value)
            package.Property(L"INSTALLDLLONLY", value);
        TestSession session(package);
        m_created.clear();

        ASSERT_EQ(0u, RunSetupFiles(session));
        ASSERT_EQ(1u, m_created.size());
        std::vector<std::wstring> files = FilesIn(Folder());
        ASSERT_EQ(1u, files.size());
        EXPECT_EQ("swlzip.dll", Narrow(files[0]));
        EXPECT_EQ(Payload(L"swlzip.dll"), ReadFileBytes(Folder() + L"\\swlzip.dll"));
        EXPECT_EQ(Narrow(Folder()), Narrow(session.Property(L"SUPPORTDIR")));
        RemoveTree(Folder());
    }
}

TEST_F(SetupFilesTest, MissingRowsAreLoggedAndDoNotChangeTheResult)
{
    TestPackage package;
    package.Property(L"INSTALLDLLONLY", L"0").Binary(L"hwa_swl4.sys", Payload(L"hwa_swl4.sys"));
    TestSession session(package);

    EXPECT_EQ(0u, RunSetupFiles(session));
    EXPECT_TRUE(session.Logged(L"Extracted file : hwa_swl4.sys"));
    EXPECT_TRUE(session.Logged(L"Failed to extract file :hwa_swl4.inf"));
    EXPECT_TRUE(session.Logged(L"Failed to extract file :swl_720xx_mmp.bin"));
    EXPECT_TRUE(session.Logged(L"MsiViewFetch failed"));
    EXPECT_TRUE(session.Logged(L"Failed to extract swlzip.dll."));
    EXPECT_TRUE(session.Logged(L"Exiting SetupFiles"));
    ASSERT_EQ(1u, m_created.size());
    EXPECT_EQ(1u, FilesIn(Folder()).size());
}

TEST_F(SetupFilesTest, EmptyStreamGivesEmptyFile)
{
    TestSession session(TestPackage().Binary(L"swlzip.dll", ""));
    ASSERT_EQ(0u, RunSetupFiles(session));
    ASSERT_EQ(1u, m_created.size());
    EXPECT_TRUE(FileExists(Folder() + L"\\swlzip.dll"));
    EXPECT_EQ("", ReadFileBytes(Folder() + L"\\swlzip.dll"));
}

TEST(SetupFilesWithoutProductKey, FailsWithoutCreatingTheKeyOrSettingTheProperty)
{
    ProductKeyGuard noKey(false);
    TestSession session(TestPackage().Binary(L"swlzip.dll", "x"));
    std::set<std::wstring> before = SupportFolders();

    EXPECT_EQ(31u, SetupFiles(session.handle()));
    EXPECT_TRUE(session.Logged(L"Cannot set required registry key : SupportDir"));
    EXPECT_FALSE(session.Logged(L"Exiting SetupFiles"));
    EXPECT_FALSE(testreg::KeyExists(kProduct));
    EXPECT_EQ("", Narrow(session.Property(L"SUPPORTDIR")));

    for (const auto& folder : SupportFolders())
        if (!before.count(folder))
            RemoveTree(folder);
}

class ExtractBinaryTest : public ::testing::Test
{
protected:
    TempDir m_dir;
};

TEST_F(ExtractBinaryTest, ReplacesAnExistingFileWithTheRowsBytes)
{
    TestSession session(TestPackage().Binary(L"swl_7xxx_mmp.bin", Payload(L"a")));
    const std::wstring target = m_dir.File(L"out.bin");
    ASSERT_TRUE(WriteFileBytes(target, std::string(4096, 'z')));

    EXPECT_TRUE(ExtractBinary(session.handle(), L"swl_7xxx_mmp.bin", target.c_str()));
    EXPECT_EQ(Payload(L"a"), ReadFileBytes(target));
}

// The create fails with INVALID_HANDLE_VALUE, which passes the null test; the
// write then fails and the answer is still true.
TEST_F(ExtractBinaryTest, PathInMissingFolderStillAnswersTrue)
{
    TestSession session(TestPackage().Binary(L"swlzip.dll", "x"));
    const std::wstring target = m_dir.File(L"missing\\swlzip.dll");

    EXPECT_TRUE(ExtractBinary(session.handle(), L"swlzip.dll", target.c_str()));
    EXPECT_FALSE(session.Logged(L"CreateFileW failed"));
    EXPECT_FALSE(FileExists(target));
}

// Names go into the query unescaped, so any name that could change the
// statement is refused before a query runs, even when a row of that name exists.
TEST_F(ExtractBinaryTest, NamesThatCouldChangeTheQueryAreRefused)
{
    TestSession session(TestPackage().Binary(L"swlzip.dll", "real").Binary(L"it's", "quoted"));
    const std::wstring target = m_dir.File(L"out.bin");
    const std::wstring refused =
        L"ExtractBinary: refused Binary name with characters other than letters, digits, '.', '_' or '-' : ";

    for (const wchar_t* name : {L"it's", L"x' OR `Binary`.`Name`<>'", L"swlzip.dll`", L"swl zip.dll", L"swlzip.dll;",
                                L"\x00e9t\x00e9.bin", L""})
    {
        SCOPED_TRACE(Narrow(name));
        session.ClearRecords();
        EXPECT_FALSE(ExtractBinary(session.handle(), name, target.c_str()));
        EXPECT_TRUE(session.Logged(refused + name));
        EXPECT_FALSE(session.Logged(L"MsiViewFetch failed"));
        EXPECT_FALSE(FileExists(target));
    }
    EXPECT_FALSE(ExtractBinary(session.handle(), nullptr, target.c_str()));
    EXPECT_TRUE(session.Logged(refused));
    EXPECT_TRUE(IsSafeBinaryName(L"Swl_7xxx-mmp.2.bin"));
}

TEST(TempFolderSecurity, EveryoneReadsAndAdministratorsOwnWithNoInheritance)
{
    TempFolderSecurity security;
    ASSERT_TRUE(BuildTempFolderSecurity(security));
    EXPECT_EQ(40u, LocalSize(security.descriptor.get()));

    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(GetSecurityDescriptorControl(security.descriptor.get(), &control, &revision));
    EXPECT_EQ(1u, revision);
    EXPECT_TRUE(control & SE_DACL_PRESENT);
    EXPECT_FALSE(control & SE_DACL_DEFAULTED);
    EXPECT_FALSE(control & SE_SELF_RELATIVE);

    LPWSTR sddl = nullptr;
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(security.descriptor.get(), SDDL_REVISION_1,
                                                                     DACL_SECURITY_INFORMATION, &sddl, nullptr));
    EXPECT_EQ("D:(A;;GR;;;WD)(A;;GA;;;BA)", Narrow(sddl));
    LocalFree(sddl);
}

TEST(TempFolderSecurity, StepFailureIsPrintedOnStandardOutputWithTheErrorText)
{
    TempDir dir;
    const std::wstring capture = dir.File(L"stdout.txt");
    fflush(stdout);
    int saved = _dup(_fileno(stdout));
    ASSERT_NE(-1, saved);
    ASSERT_NE(nullptr, _wfreopen(capture.c_str(), L"w", stdout));

    SetLastError(ERROR_FILE_NOT_FOUND);
    PrintSecurityStepError(L"SetEntriesInAcl Error %s\n");

    fflush(stdout);
    _dup2(saved, _fileno(stdout));
    _close(saved);

    wchar_t system[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, ERROR_FILE_NOT_FOUND, 0x400,
                   system, 512, nullptr);
    std::string expected = "SetEntriesInAcl Error " + Narrow(system) + "\n";
    // stdout is a text stream: each line feed reaches the file as CR LF.
    std::string text;
    for (char c : expected)
        text += c == '\n' ? std::string("\r\n") : std::string(1, c);
    EXPECT_EQ(text, ReadFileBytes(capture));
}

class CleanSetupFilesTest : public ::testing::Test
{
protected:
    ProductKeyGuard m_key;
    TempDir m_dir;
    TestSession m_session;
};

TEST_F(CleanSetupFilesTest, FolderWithSubFolderStaysWithTheSubFolderButLosesItsFiles)
{
    const std::wstring folder = m_dir.File(L"SWL1A2C.tmp");
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((folder + L"\\sub").c_str(), nullptr));
    ASSERT_TRUE(WriteFileBytes(folder + L"\\sub\\inner.bin", "x"));
    ASSERT_TRUE(WriteFileBytes(folder + L"\\a.bin", "x"));
    ASSERT_TRUE(WriteFileBytes(folder + L"\\z.bin", "x"));
    ASSERT_TRUE(testreg::SetString(kProduct, L"SupportDir", folder));

    EXPECT_EQ(0u, CleanSetupFiles(m_session.handle()));
    EXPECT_FALSE(FileExists(folder + L"\\a.bin"));
    EXPECT_FALSE(FileExists(folder + L"\\z.bin"));
    EXPECT_TRUE(FileExists(folder + L"\\sub\\inner.bin"));
}

TEST_F(CleanSetupFilesTest, MissingValueFailsAndMissingFolderSucceeds)
{
    EXPECT_EQ(31u, CleanSetupFiles(m_session.handle()));
    EXPECT_TRUE(m_session.Logged(L"Cannot get required registry key SupportDir"));

    m_session.ClearRecords();
    ASSERT_TRUE(testreg::SetString(kProduct, L"SupportDir", m_dir.File(L"gone.tmp")));
    EXPECT_EQ(0u, CleanSetupFiles(m_session.handle()));
    EXPECT_TRUE(m_session.Logged(L"Removing temporary files"));
}

TEST_F(SetupFilesTest, CleanSetupFilesRemovesWhatSetupFilesMade)
{
    TestSession session(FullPayload().Property(L"INSTALLDLLONLY", L"0"));
    ASSERT_EQ(0u, RunSetupFiles(session));
    ASSERT_EQ(1u, m_created.size());
    ASSERT_TRUE(FileExists(Folder() + L"\\hwa_swl4.inf"));

    session.ClearRecords();
    EXPECT_EQ(0u, CleanSetupFiles(session.handle()));
    EXPECT_TRUE(session.Logged(L"Removing temporary files"));
    EXPECT_FALSE(FileExists(Folder()));
    std::wstring recorded;
    EXPECT_TRUE(testreg::GetString(kProduct, L"SupportDir", recorded));
    EXPECT_EQ(Narrow(Folder()), Narrow(recorded));
}
