// The install summary on the prefix's real C:\Program Files folder: services
// are real kernel-driver entries in Wine's service manager (never started),
// the libraries are files in the real system folder.
#include "Payload/InstallSummary.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
const std::wstring kCorvane = L"C:\\Program Files\\Corvane";
const std::wstring kProductFolder = kCorvane + L"\\Corvane(R) Swiftlane Technology";
const std::wstring kOstraFolder = kCorvane + L"\\OSTRA";
const std::wstring kOstraNative = kOstraFolder + L"\\corvaneostra.win-x64.2.30.0\\runtimes\\win-x86\\native";
const std::wstring kSwlZip = L"C:\\Windows\\System32\\swlzip.dll";
const std::wstring kOstraDll = L"C:\\Windows\\System32\\ostra.dll";

const std::string kHeader = "Corvane(R) SWL Software Installation Summary\r\n\r\n";

// The whole summary of a virtualization host.
std::string HostSummary(bool driverPresent)
{
    return kHeader +
           (driverPresent ? "SWL Base Driver: Successfully Installed\r\n" : "SWL Base Driver: Not Installed\r\n") +
           "SWL Compression Service: Not Installed (Virtualization host install)\r\n"
           "SWL Crypto Service: Not Installed (Virtualization host install)\r\n"
           "SWLzip DLL: Not Installed (Virtualization host install)\r\n"
           "Ostra DLL: Not Installed (Virtualization host install)\r\n";
}

void CreatePath(const std::wstring& path)
{
    for (size_t pos = path.find(L'\\', 3); pos != std::wstring::npos; pos = path.find(L'\\', pos + 1))
        CreateDirectoryW(path.substr(0, pos).c_str(), nullptr);
    CreateDirectoryW(path.c_str(), nullptr);
}

class InstallSummaryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_hadCorvane = FileExists(kCorvane);
        m_hadProductFolder = FileExists(kProductFolder);
        ASSERT_FALSE(FileExists(kSwlZip)) << "the prefix already holds swlzip.dll";
        ASSERT_FALSE(FileExists(kOstraDll)) << "the prefix already holds ostra.dll";
        ASSERT_FALSE(FileExists(kOstraFolder)) << "the prefix already holds the Ostra folder";
        CreatePath(kProductFolder);
        DeleteFileW(kInstallSummaryPath);
        m_binary = m_dir.File(L"placeholder.sys");
        ASSERT_TRUE(WriteFileBytes(m_binary, "not a driver image"));
    }
    void TearDown() override
    {
        for (const wchar_t* name : {L"HWA_SWL4", L"cfSwl", L"TPXPROVUSER"})
        {
            UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
            UniqueServiceHandle service(OpenServiceW(manager.get(), name, DELETE));
            if (service)
                DeleteService(service.get());
        }
        DeleteFileW(kSwlZip.c_str());
        DeleteFileW(kOstraDll.c_str());
        RemoveTree(kOstraFolder);
        DeleteFileW(kInstallSummaryPath);
        if (!m_hadCorvane)
            RemoveTree(kCorvane);
        else if (!m_hadProductFolder)
            RemoveTree(kProductFolder);
    }

    // A kernel-driver entry is all GetServiceStatus needs to see a service.
    void InstallService(const wchar_t* name)
    {
        UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        UniqueServiceHandle service(CreateServiceW(manager.get(), name, name, SERVICE_QUERY_STATUS,
                                                   SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                                   m_binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
        ASSERT_TRUE(service) << "cannot create service " << Narrow(name);
    }
    void InstallEverything()
    {
        InstallService(L"HWA_SWL4");
        InstallService(L"cfSwl");
        InstallService(L"TPXPROVUSER");
        ASSERT_TRUE(WriteFileBytes(kSwlZip, "MZ"));
        ASSERT_TRUE(WriteFileBytes(kOstraDll, "MZ"));
    }
    static std::string Summary() { return ReadFileBytes(kInstallSummaryPath); }

    TempDir m_dir;
    std::wstring m_binary;
    bool m_hadCorvane = false;
    bool m_hadProductFolder = false;
};
} // namespace

TEST_F(InstallSummaryTest, FullInstallReportsEveryPartInstalled)
{
    InstallEverything();

    WriteInstallSummary(0, false);

    EXPECT_EQ(kHeader + "SWL Base Driver: Successfully Installed\r\n"
                        "SWL Compression Service: Successfully Installed\r\n"
                        "SWL Crypto Service: Successfully Installed\r\n"
                        "SWLzip DLL: Successfully Installed\r\n"
                        "Ostra DLL: Successfully Installed\r\n",
              Summary());
}

TEST_F(InstallSummaryTest, SoftwareOnlyInstallBlamesMissingHardware)
{
    WriteInstallSummary(0, false);

    EXPECT_EQ(kHeader + "SWL Base Driver: Not Installed\r\n"
                        "SWL Compression Service: Not Installed (No SWL Hardware detected)\r\n"
                        "SWL Crypto Service: Not Installed (No SWL Hardware detected)\r\n"
                        "SWLzip DLL: Not Installed\r\n"
                        "Ostra DLL: Not Installed (Nuget.exe is not present in the system)\r\n",
              Summary());
}

TEST_F(InstallSummaryTest, DriverWithoutServicesReportsPlainAndUnsupportedForms)
{
    InstallService(L"HWA_SWL4");
    ASSERT_TRUE(WriteFileBytes(kSwlZip, "MZ"));

    WriteInstallSummary(0, false);

    EXPECT_EQ(kHeader + "SWL Base Driver: Successfully Installed\r\n"
                        "SWL Compression Service: Not Installed\r\n"
                        "SWL Crypto Service: Not Installed (Not supported)\r\n"
                        "SWLzip DLL: Successfully Installed\r\n"
                        "Ostra DLL: Not Installed (Nuget.exe is not present in the system)\r\n",
              Summary());
}

TEST_F(InstallSummaryTest, OstraNativeFolderAloneCountsAsInstalled)
{
    InstallService(L"cfSwl");
    CreatePath(kOstraNative);

    WriteInstallSummary(0, false);

    EXPECT_EQ(kHeader + "SWL Base Driver: Not Installed\r\n"
                        "SWL Compression Service: Successfully Installed\r\n"
                        "SWL Crypto Service: Not Installed (No SWL Hardware detected)\r\n"
                        "SWLzip DLL: Not Installed\r\n"
                        "Ostra DLL: Successfully Installed\r\n",
              Summary());
}

TEST_F(InstallSummaryTest, VirtualizationHostExaminesOnlyTheBaseDriver)
{
    InstallEverything();

    WriteInstallSummary(0, true);

    EXPECT_EQ(HostSummary(true), Summary());
}

TEST_F(InstallSummaryTest, SecondSummaryIsAppendedAfterTheFirst)
{
    WriteInstallSummary(0, true);
    InstallService(L"HWA_SWL4");

    WriteInstallSummary(0, true);

    EXPECT_EQ(HostSummary(false) + HostSummary(true), Summary());
}

TEST_F(InstallSummaryTest, MissingProgramFolderWritesNothingAndTracesEachLine)
{
    RemoveTree(kProductFolder);
    TraceCapture trace;

    WriteInstallSummary(0, false);

    EXPECT_FALSE(FileExists(kProductFolder));
    int failures = 0;
    for (const std::wstring& m : trace.Messages())
        failures += m.find(L"): Summary Log File creation Error: 3") != std::wstring::npos ? 1 : 0;
    EXPECT_EQ(6, failures) << "one per AppendSummaryLine call\n" << trace.Dump();
}

TEST_F(InstallSummaryTest, LineRefusedWhileAReaderHoldsTheFileAndNextLineWritten)
{
    AppendSummaryLine("before\r\n");
    TraceCapture trace;
    {
        UniqueFileHandle reader(CreateFileW(kInstallSummaryPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(reader);
        AppendSummaryLine("while held\r\n");
    }
    AppendSummaryLine("after\r\n");

    EXPECT_EQ("before\r\nafter\r\n", Summary());
    EXPECT_TRUE(trace.Errored(L"Summary Log File creation Error: 20")) << trace.Dump();
    EXPECT_FALSE(trace.Errored(L"Summary Log File creation Error: 3"));
}
