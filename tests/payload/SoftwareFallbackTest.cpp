// The software fallback on the prefix's real folders; only the Shell's unpack is replaced.
#include "Payload/InstallSummary.h"
#include "Payload/SoftwareFallback.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>
#include <shlobj.h>
#include <thread>

extern "C" UINT __stdcall ExtractOstraPackage(MSIHANDLE hInstall);
extern "C" UINT __stdcall RegisterOstra(MSIHANDLE hInstall);

using Lines = std::vector<std::wstring>;
const std::wstring kCorvane = L"C:\\Program Files\\Corvane";
const std::wstring kLibrary = kCorvane + L"\\Corvane(R) Swiftlane Technology\\Compression\\Library";
static std::wstring g_unpackedInto; // empty: the unpack was not called

// Wine's Shell opens no .zip; everything else is real. The prefix has no Corvane folder of its own.
class FallbackTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        SHCreateDirectoryExW(nullptr, kLibrary.c_str(), nullptr);
        ASSERT_TRUE(WriteFileBytes(kOstraPackagePath, "nupkg"));
        g_unpackedInto.clear();
        OstraUnpackCalls::UnpackWithShell = [](const wchar_t* zip, const wchar_t* target) {
            g_unpackedInto = target; // lays the library out as unpacking would, if the .zip is there
            const std::wstring native = g_unpackedInto + L"\\runtimes\\win-x86\\native";
            if (FileExists(zip) && SHCreateDirectoryExW(nullptr, native.c_str(), nullptr) == ERROR_SUCCESS)
                WriteFileBytes(native + L"\\ostra.dll", "ostra");
        };
    }
    void TearDown() override
    {
        OstraUnpackCalls::UnpackWithShell = UnpackZipWithShell;
        RemoveTree(kCorvane);
    }
    ProductKeyGuard m_key;
    TestSession m_session;
};

// Deliberate asymmetry: the first install (base folder made now) unpacks into the
// versioned folder, a later one into the base folder, where RegisterOstra does not look.
TEST_F(FallbackTest, FirstOstraInstallIsRegisteredButALaterOneIsNot)
{
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 0u);
    EXPECT_EQ(ReadFileBytes(kOstraPackagePath), "nupkg");
    EXPECT_EQ(RegisterOstra(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(), Lines({L"ExtractOstraPackage()", L"RegisterOstra()", L"RegisterOstra() - Exit"}));
    std::wstring location;
    EXPECT_TRUE(testreg::GetString(kOstraFallbackKey, L"Location", location) && location == kOstraNativeFolder);
    RemoveTree(kOstraBaseFolder + std::wstring(kOstraVersionedFolder));
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 0u);
    EXPECT_EQ(g_unpackedInto, kOstraBaseFolder);
    EXPECT_EQ(RegisterOstra(m_session.handle()), 31u);
    EXPECT_TRUE(m_session.Logged(L"RegisterOstra: can not find Ostra DLL in " + std::wstring(kOstraNativeFolder)));
}

TEST_F(FallbackTest, ZipNameAlreadyTakenFailsBeforeUnpacking)
{
    ASSERT_TRUE(WriteFileBytes(kOstraZipPath, "leftover"));
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 31u);
    EXPECT_TRUE(g_unpackedInto.empty() && ReadFileBytes(kOstraZipPath) == "leftover");
}

// A thread in the multithreaded apartment cannot enter a single-threaded one.
TEST_F(FallbackTest, ComThatCannotStartReturnsOneAndDeliberatelyLeavesTheZipName)
{
    UINT result = 0;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        result = ExtractOstraPackage(m_session.handle());
        CoUninitialize();
    }).join();
    EXPECT_EQ(result, 1u);
    EXPECT_TRUE(g_unpackedInto.empty() && FileExists(kOstraZipPath));
}

TEST_F(FallbackTest, WithoutTheBaseDriverTheSummaryIsWrittenEvenWhenRegistrationFails)
{
    const std::string start = "Corvane(R) SWL Software Installation Summary\r\n\r\nSWL Base Driver: Not Installed\r\n";
    EXPECT_EQ(RegisterOstra(m_session.handle()), 31u);
    EXPECT_EQ(ReadFileBytes(kInstallSummaryPath).substr(0, start.size()), start);
}

// The real Shell: Wine's opens no archive as a folder, so there are no items to hand to CopyHere.
TEST_F(FallbackTest, ArchiveTheShellCannotOpenIsNotCopied)
{
    TraceCapture trace;
    ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr)));
    UnpackZipWithShell(kOstraPackagePath, kLibrary.c_str());
    CoUninitialize();
    EXPECT_TRUE(trace.Printed(L"UnpackZipWithShell: nothing copied from '" + std::wstring(kOstraPackagePath) +
                              L"' into '" + kLibrary + L"'"))
        << trace.Dump();
}

TEST_F(FallbackTest, InstallDllsReplacesSwlzipInTheSystemFolder)
{
    wchar_t system[MAX_PATH] = {};
    const std::wstring source = kLibrary + L"\\swlzip.dll",
                       target = std::wstring(system, GetSystemDirectoryW(system, MAX_PATH)) + L"\\swlzip.dll";
    m_session.SetProperty(L"SUPPORTDIR", kLibrary); // any folder will do
    ASSERT_TRUE(WriteFileBytes(target, "old library, longer than the new one") && WriteFileBytes(source, "new"));
    EXPECT_TRUE(InstallDlls(m_session.handle()));
    EXPECT_EQ(ReadFileBytes(target), "new");
    DeleteFileW(target.c_str());
    EXPECT_TRUE(m_session.Logged(L"InstallDlls: Target file path for swlzip.dll: " + target));
}
