// InstallDlls, ExtractOstraPackage and RegisterOstra on the prefix's real
// C:\Program Files\Corvane folders. Only the Shell's unpack is replaced, since
// Wine's Shell cannot open a .zip; renames, folder choice, COM start-up,
// registry and results are real.
#include "Payload/InstallSummary.h"
#include "Payload/SoftwareFallback.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <objbase.h>
#include <thread>

extern "C" UINT __stdcall ExtractOstraPackage(MSIHANDLE hInstall);
extern "C" UINT __stdcall RegisterOstra(MSIHANDLE hInstall);

namespace
{
const std::wstring kCorvane = L"C:\\Program Files\\Corvane";
const std::wstring kProductFolder = kCorvane + L"\\Corvane(R) Swiftlane Technology";
const std::wstring kLibraryFolder = kProductFolder + L"\\Compression\\Library";
const std::wstring kVersioned = std::wstring(kOstraBaseFolder) + L"\\corvaneostra.win-x64.2.30.0";
const std::wstring kPackedDll = L"\\runtimes\\win-x86\\native\\ostra.dll";
// An empty but well-formed zip archive (end-of-central-directory record only).
const std::string kEmptyZip = std::string("PK\x05\x06", 4) + std::string(18, '\0');

// What the fake unpack saw, and what it does.
struct UnpackLog
{
    int calls = 0;
    std::wstring zip;
    std::wstring target;
    bool zipPresentDuringUnpack = false;
    bool occupyPackageName = false;
} g_unpack;

void CreatePath(const std::wstring& path)
{
    for (size_t pos = path.find(L'\\', 3); pos != std::wstring::npos; pos = path.find(L'\\', pos + 1))
        CreateDirectoryW(path.substr(0, pos).c_str(), nullptr);
    CreateDirectoryW(path.c_str(), nullptr);
}

// Lays the package's content out as unpacking would: the DLL under runtimes\.
void FakeUnpack(const wchar_t* zip, const wchar_t* target)
{
    ++g_unpack.calls;
    g_unpack.zip = zip;
    g_unpack.target = target;
    g_unpack.zipPresentDuringUnpack = FileExists(zip);
    std::wstring dll = std::wstring(target) + kPackedDll;
    CreatePath(dll.substr(0, dll.rfind(L'\\')));
    WriteFileBytes(dll, "ostra");
    if (g_unpack.occupyPackageName)
        WriteFileBytes(kOstraPackagePath, "squatter");
}

class OstraTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_hadCorvane = FileExists(kCorvane);
        RemoveTree(kOstraBaseFolder);
        RemoveTree(kLibraryFolder);
        DeleteFileW(kInstallSummaryPath);
        CreatePath(kLibraryFolder);
        g_unpack = UnpackLog();
        OstraUnpackCalls::UnpackWithShell = FakeUnpack;
    }
    void TearDown() override
    {
        OstraUnpackCalls::UnpackWithShell = UnpackZipWithShell;
        if (m_hadCorvane)
        {
            RemoveTree(kOstraBaseFolder);
            RemoveTree(kProductFolder + L"\\Compression");
            DeleteFileW(kInstallSummaryPath);
        }
        else
        {
            RemoveTree(kCorvane);
        }
    }
    void DeliverPackage() { ASSERT_TRUE(WriteFileBytes(kOstraPackagePath, kEmptyZip)); }

    ProductKeyGuard m_key;
    TestSession m_session;
    bool m_hadCorvane = false;
};
} // namespace

TEST_F(OstraTest, FirstInstallUnpacksIntoVersionedFolderAndRegistersIt)
{
    DeliverPackage();

    EXPECT_EQ(0u, ExtractOstraPackage(m_session.handle()));
    EXPECT_TRUE(m_session.Logged(L"ExtractOstraPackage()"));
    ASSERT_EQ(1, g_unpack.calls);
    EXPECT_EQ(Narrow(kOstraZipPath), Narrow(g_unpack.zip));
    EXPECT_TRUE(g_unpack.zipPresentDuringUnpack);
    EXPECT_EQ(Narrow(kVersioned), Narrow(g_unpack.target));
    EXPECT_EQ(kEmptyZip, ReadFileBytes(kOstraPackagePath));
    EXPECT_FALSE(FileExists(kOstraZipPath));

    EXPECT_EQ(0u, RegisterOstra(m_session.handle()));
    std::wstring location;
    ASSERT_TRUE(testreg::GetString(kOstraFallbackKey, L"Location", location));
    EXPECT_EQ(Narrow(kOstraNativeFolder), Narrow(location));
    EXPECT_TRUE(m_session.Logged(L"RegisterOstra()"));
    EXPECT_TRUE(m_session.Logged(L"RegisterOstra() - Exit"));
}

// A base folder left by an earlier install makes the unpack land in the base
// folder itself, where RegisterOstra does not look.
TEST_F(OstraTest, LaterInstallUnpacksIntoBaseFolderAndRegistrationThenFails)
{
    DeliverPackage();
    ASSERT_TRUE(CreateDirectoryW(kOstraBaseFolder, nullptr));

    EXPECT_EQ(0u, ExtractOstraPackage(m_session.handle()));
    EXPECT_EQ(Narrow(kOstraBaseFolder), Narrow(g_unpack.target));
    EXPECT_TRUE(FileExists(kOstraBaseFolder + kPackedDll));
    EXPECT_FALSE(FileExists(kVersioned));

    EXPECT_EQ(31u, RegisterOstra(m_session.handle()));
    EXPECT_TRUE(m_session.Logged(std::wstring(L"RegisterOstra: can not find Ostra DLL in ") + kOstraNativeFolder));
    EXPECT_FALSE(m_session.Logged(L"RegisterOstra() - Exit"));
    EXPECT_FALSE(testreg::KeyExists(kOstraFallbackKey));
}

TEST_F(OstraTest, MissingPackageFailsAndLeavesAZipNameAlone)
{
    ASSERT_TRUE(WriteFileBytes(kOstraZipPath, kEmptyZip));

    EXPECT_EQ(31u, ExtractOstraPackage(m_session.handle()));
    EXPECT_EQ(0, g_unpack.calls);
    EXPECT_TRUE(FileExists(kOstraZipPath));
    EXPECT_FALSE(FileExists(kOstraPackagePath));
    EXPECT_FALSE(FileExists(kOstraBaseFolder));
}

TEST_F(OstraTest, PackageNameTakenDuringUnpackFailsTheRenameBackAndKeepsTheZip)
{
    DeliverPackage();
    g_unpack.occupyPackageName = true;

    EXPECT_EQ(31u, ExtractOstraPackage(m_session.handle()));
    EXPECT_EQ(kEmptyZip, ReadFileBytes(kOstraZipPath));
    EXPECT_EQ("squatter", ReadFileBytes(kOstraPackagePath));
}

// A thread already in the multithreaded apartment cannot enter a
// single-threaded one: CoInitialize answers RPC_E_CHANGED_MODE.
TEST_F(OstraTest, ComThatCannotStartReturnsOneAndLeavesThePackageAsZip)
{
    DeliverPackage();
    UINT result = 0;
    HRESULT apartment = E_FAIL;
    std::thread worker([&] {
        apartment = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        result = ExtractOstraPackage(m_session.handle());
        if (SUCCEEDED(apartment))
            CoUninitialize();
    });
    worker.join();

    ASSERT_EQ(S_OK, apartment);
    EXPECT_EQ(1u, result);
    EXPECT_EQ(0, g_unpack.calls);
    EXPECT_TRUE(FileExists(kOstraZipPath));
    EXPECT_FALSE(FileExists(kOstraPackagePath));
}

// Wine's Shell gives no folder for a .zip and does not implement CopyHere: the
// real path must simply run through, unpack nothing and restore the name. The
// failed unpack is not detected until RegisterOstra looks for the DLL.
TEST_F(OstraTest, RealShellUnpackRunsThroughUnderWineWithoutUnpacking)
{
    DeliverPackage();
    OstraUnpackCalls::UnpackWithShell = UnpackZipWithShell;

    EXPECT_EQ(0u, ExtractOstraPackage(m_session.handle()));
    EXPECT_EQ(kEmptyZip, ReadFileBytes(kOstraPackagePath));
    EXPECT_FALSE(FileExists(kOstraZipPath));
    EXPECT_TRUE(FileExists(kVersioned));
    EXPECT_FALSE(FileExists(kVersioned + kPackedDll));
    EXPECT_EQ(31u, RegisterOstra(m_session.handle()));
}

TEST_F(OstraTest, WithoutBaseDriverTheSoftwareOnlySummaryIsWrittenEvenWhenRegistrationFails)
{
    EXPECT_EQ(31u, RegisterOstra(m_session.handle()));
    std::string summary = ReadFileBytes(kInstallSummaryPath);
    EXPECT_EQ(0u, summary.find("Corvane(R) SWL Software Installation Summary\r\n\r\n"
                               "SWL Base Driver: Not Installed\r\n"
                               "SWL Compression Service: Not Installed (No SWL Hardware detected)\r\n"))
        << summary;
}

TEST_F(OstraTest, WithBaseDriverNoSummaryIsWritten)
{
    SC_HANDLE scm = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    ASSERT_NE(nullptr, scm);
    SC_HANDLE service = CreateServiceW(scm, L"HWA_SWL4", L"HWA_SWL4", SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER,
                                       SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                       L"C:\\windows\\system32\\drivers\\hwa_swl4.sys", nullptr, nullptr, nullptr,
                                       nullptr, nullptr);
    ASSERT_NE(nullptr, service);

    UINT result = RegisterOstra(m_session.handle());

    DeleteService(service);
    CloseServiceHandle(service);
    CloseServiceHandle(scm);
    EXPECT_EQ(31u, result);
    EXPECT_FALSE(FileExists(kInstallSummaryPath));
}

class InstallDllsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        wchar_t system[MAX_PATH];
        GetSystemDirectoryW(system, MAX_PATH);
        m_target = std::wstring(system) + L"\\swlzip.dll";
        m_session.SetProperty(L"SUPPORTDIR", m_support.path());
    }
    void TearDown() override { DeleteFileW(m_target.c_str()); }

    TempDir m_support;
    TestSession m_session;
    std::wstring m_target;
};

TEST_F(InstallDllsTest, ReplacesSwlzipInTheSystemFolder)
{
    ASSERT_TRUE(WriteFileBytes(m_target, "old library, longer than the new one"));
    ASSERT_TRUE(WriteFileBytes(m_support.File(L"swlzip.dll"), "new"));

    EXPECT_TRUE(InstallDlls(m_session.handle()));
    EXPECT_EQ("new", ReadFileBytes(m_target));
    EXPECT_TRUE(m_session.Logged(L"InstallDlls()"));
    EXPECT_TRUE(m_session.Logged(L"InstallDlls: Source file path for swlzip.dll: " + m_support.File(L"swlzip.dll")));
    EXPECT_TRUE(m_session.Logged(L"InstallDlls: Target file path for swlzip.dll: " + m_target));
}

TEST_F(InstallDllsTest, MissingSourceFailsWithTheSourceLogged)
{
    EXPECT_FALSE(InstallDlls(m_session.handle()));
    EXPECT_TRUE(m_session.Logged(L"InstallDlls: failed to copy swlzip.dll from " + m_support.File(L"swlzip.dll")));
    EXPECT_FALSE(FileExists(m_target));
}
