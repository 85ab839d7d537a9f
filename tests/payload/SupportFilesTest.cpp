// What only an in-process test reaches of the support folder; its normal course runs end to end.
#include "Payload/SupportFiles.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <sddl.h>

extern "C" UINT __stdcall SetupFiles(MSIHANDLE hInstall);
extern "C" UINT __stdcall CleanSetupFiles(MSIHANDLE hInstall);

using Lines = std::vector<std::wstring>;

// Deliberate quirks: an empty stream gives an empty file, and a path in a missing folder still
// answers true (the failed create passes the null test). Names go into the query unescaped, so
// any that could change the statement is refused before a query runs, even when its row exists.
TEST(ExtractBinary, EmptyStreamAndMissingFolderAnswerTrueAndUnsafeNamesAreRefused)
{
    TempDir dir;
    TestSession session(TestPackage().Binary(L"empty.bin", "").Binary(L"swlzip.dll", "x").Binary(L"it's", "quoted"));
    const std::wstring target = dir.File(L"empty.bin"), missing = dir.File(L"missing\\swlzip.dll");
    ASSERT_TRUE(WriteFileBytes(target, std::string(4096, 'z')));
    EXPECT_TRUE(ExtractBinary(session.handle(), L"empty.bin", target.c_str()) && FileExists(target) &&
                ReadFileBytes(target).empty());
    EXPECT_TRUE(ExtractBinary(session.handle(), L"swlzip.dll", missing.c_str()) && !FileExists(missing));
    for (const wchar_t* name : {L"it's", L"x' OR `Name`<>'", L"swlzip.dll`", L"swl zip.dll", L"\x00e9t\x00e9.bin", L""})
    {
        session.ClearRecords();
        EXPECT_FALSE(ExtractBinary(session.handle(), name, target.c_str()));
        EXPECT_EQ(session.LogLines(), Lines({L"ExtractBinary: refused Binary name with characters other than letters, "
                                             L"digits, '.', '_' or '-' : " + std::wstring(name)})) << Narrow(name);
    }
    EXPECT_FALSE(ExtractBinary(session.handle(), nullptr, target.c_str()));
}

TEST(TempFolderSecurity, EveryoneReadsAndAdministratorsHaveAllWithoutInheritance)
{
    TempFolderSecurity security;
    UniqueLocalMemory sddl;
    ASSERT_TRUE(BuildTempFolderSecurity(security) &&
                ConvertSecurityDescriptorToStringSecurityDescriptorW(security.descriptor.get(), SDDL_REVISION_1,
                    DACL_SECURITY_INFORMATION, reinterpret_cast<LPWSTR*>(sddl.put()), nullptr));
    EXPECT_EQ(LocalSize(security.descriptor.get()), 40u); // absolute, pointing into the access list
    EXPECT_STREQ(static_cast<const wchar_t*>(sddl.get()), L"D:(A;;GR;;;WD)(A;;GA;;;BA)");
}

// The files around the sub-folder go; the sub-folder, its file and so the folder stay.
TEST(CleanSetupFiles, FolderWithASubFolderLosesItsFilesButStays)
{
    ProductKeyGuard key;
    TempDir dir;
    TestSession session;
    const std::wstring folder = dir.path() + L"\\SWL1A2C.tmp";
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr) && CreateDirectoryW((folder + L"\\sub").c_str(), nullptr) &&
                WriteFileBytes(folder + L"\\a.bin", "x") && WriteFileBytes(folder + L"\\z.bin", "x") &&
                WriteFileBytes(folder + L"\\sub\\inner.bin", "x") &&
                testreg::SetString(L"SOFTWARE\\CORVANE\\SWL", L"SupportDir", folder));
    EXPECT_EQ(CleanSetupFiles(session.handle()), 0u);
    EXPECT_EQ(session.LogLines(), Lines({L"Removing temporary files"}));
    EXPECT_FALSE(FileExists(folder + L"\\a.bin") || FileExists(folder + L"\\z.bin"));
    EXPECT_TRUE(FileExists(folder + L"\\sub\\inner.bin"));
}

// Missing Binary rows are only logged; without the product key the folder is not recorded.
TEST(SetupFiles, MissingRowsAreLoggedAndAMissingProductKeyFails)
{
    ProductKeyGuard noKey(false);
    TestSession session(TestPackage().Property(L"INSTALLDLLONLY", L"0").Binary(L"hwa_swl4.sys", "x"));
    TempDir temp;
    wchar_t saved[MAX_PATH] = {};
    GetEnvironmentVariableW(L"TMP", saved, MAX_PATH);
    SetEnvironmentVariableW(L"TMP", temp.path().c_str()); // the support folder is made in temp
    EXPECT_EQ(SetupFiles(session.handle()), 31u);
    SetEnvironmentVariableW(L"TMP", saved);
    for (const wchar_t* line : {L"Extracted file : hwa_swl4.sys", L"Failed to extract file :hwa_swl4.inf",
            L"MsiViewFetch failed", L"Failed to extract swlzip.dll.", L"Cannot set required registry key : SupportDir"})
        EXPECT_TRUE(session.Logged(line)) << Narrow(line);
    EXPECT_FALSE(session.Logged(L"Exiting SetupFiles") || testreg::KeyExists(L"SOFTWARE\\CORVANE\\SWL"));
    EXPECT_EQ(session.Property(L"SUPPORTDIR"), L"");
}
