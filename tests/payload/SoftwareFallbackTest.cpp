// The software fallback on the prefix's real folders; the Shell's unpack is mostly replaced.
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
const std::wstring kCorvane = L"C:\\Program Files\\Corvane", kNative = L"\\runtimes\\win-x86\\native";
const std::wstring kLibrary = kCorvane + L"\\Corvane(R) Swiftlane Technology\\Compression\\Library";

// Wine's Shell opens no .zip, so the unpack is replaced. The prefix has no Corvane folder of its own.
struct FallbackTest : ::testing::Test
{
    void SetUp() override
    {
        SHCreateDirectoryExW(nullptr, kLibrary.c_str(), nullptr);
        ASSERT_TRUE(WriteFileBytes(kOstraPackagePath, "nupkg"));
        OstraUnpackCalls::UnpackWithShell = [](const wchar_t*, const wchar_t* target) { // lays out what it would
            SHCreateDirectoryExW(nullptr, (target + kNative).c_str(), nullptr);
            WriteFileBytes(target + kNative + L"\\ostra.dll", "ostra");
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

// Deliberate asymmetry: the first install (base folder made now) unpacks into the versioned
// folder, a later one into the base folder, where RegisterOstra does not look. Without the
// base driver the summary is written either way.
TEST_F(FallbackTest, FirstOstraInstallIsRegisteredButALaterOneIsNot)
{
    std::wstring location;
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 0u);
    EXPECT_EQ(RegisterOstra(m_session.handle()), 0u);
    EXPECT_EQ(m_session.LogLines(), Lines({L"ExtractOstraPackage()", L"RegisterOstra()", L"RegisterOstra() - Exit"}));
    EXPECT_TRUE(ReadFileBytes(kOstraPackagePath) == "nupkg" &&
                testreg::GetString(kOstraFallbackKey, L"Location", location) && location == kOstraNativeFolder);
    RemoveTree(kOstraBaseFolder + std::wstring(kOstraVersionedFolder));
    DeleteFileW(kInstallSummaryPath);
    OstraUnpackCalls::UnpackWithShell = UnpackZipWithShell; // Wine's Shell opens no archive: it only says where
    TraceCapture trace;
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 0u);
    EXPECT_TRUE(trace.Printed(L"UnpackZipWithShell: nothing copied from '" + std::wstring(kOstraZipPath) +
                              L"' into '" + kOstraBaseFolder + L"'")) << trace.Dump();
    EXPECT_EQ(RegisterOstra(m_session.handle()), 31u);
    EXPECT_TRUE(m_session.Logged(L"RegisterOstra: can not find Ostra DLL in " + std::wstring(kOstraNativeFolder)));
    EXPECT_EQ(ReadFileBytes(kInstallSummaryPath),
              "Corvane(R) SWL Software Installation Summary\r\n\r\nSWL Base Driver: Not Installed\r\n"
              "SWL Compression Service: Not Installed (No SWL Hardware detected)\r\n"
              "SWL Crypto Service: Not Installed (No SWL Hardware detected)\r\nSWLzip DLL: Not Installed\r\n"
              "Ostra DLL: Not Installed (Nuget.exe is not present in the system)\r\n");
}

// A thread in the multithreaded apartment cannot enter a single-threaded one. The .zip
// name that failure deliberately leaves then stops the next extraction before its unpack.
TEST_F(FallbackTest, ComThatCannotStartReturnsOneAndLeavesTheZipNameThatStopsTheNextRun)
{
    UINT result = 0;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        result = ExtractOstraPackage(m_session.handle());
        CoUninitialize();
    }).join();
    EXPECT_EQ(result, 1u);
    ASSERT_TRUE(ReadFileBytes(kOstraZipPath) == "nupkg" && WriteFileBytes(kOstraPackagePath, "next"));
    TraceCapture trace;
    EXPECT_EQ(ExtractOstraPackage(m_session.handle()), 31u);
    EXPECT_TRUE(trace.Printed(L"ExtractOstraPackage, renaming nupkg to zip failed with Error : " +
                              SystemErrorText(ERROR_ALREADY_EXISTS))) << trace.Dump();
    EXPECT_TRUE(ReadFileBytes(kOstraZipPath) == "nupkg" && ReadFileBytes(kOstraPackagePath) == "next");
    EXPECT_FALSE(FileExists(kOstraNativeFolder));
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
