// The summary on the prefix's real folders and services; the prefix has none of the product's.
#include "Payload/InstallSummary.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <shlobj.h>

const std::wstring kCorvane = L"C:\\Program Files\\Corvane";
const std::wstring kSwlZip = L"C:\\Windows\\System32\\swlzip.dll", kOstra = L"C:\\Windows\\System32\\ostra.dll";
const std::string kHeader =
    "Corvane(R) SWL Software Installation Summary\r\n\r\nSWL Base Driver: Successfully Installed\r\n";

TEST(InstallSummary, EveryPartInstalledIsReportedAndAHostExaminesOnlyTheBaseDriver)
{
    const wchar_t* const services[] = {L"HWA_SWL4", L"cfSwl", L"TPXPROVUSER"};
    UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    SHCreateDirectoryExW(nullptr, (kCorvane + L"\\Corvane(R) Swiftlane Technology").c_str(), nullptr);
    for (const wchar_t* name : services) // a kernel-driver entry, never started, is all the summary looks for
        UniqueServiceHandle(CreateServiceW(manager.get(), name, name, SERVICE_QUERY_STATUS, SERVICE_KERNEL_DRIVER,
                                           SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, L"C:\\none.sys", nullptr,
                                           nullptr, nullptr, nullptr, nullptr));
    WriteFileBytes(kSwlZip, "MZ");
    WriteFileBytes(kOstra, "MZ");
    WriteInstallSummary(0, false);
    WriteInstallSummary(0, true);
    const std::string summary = ReadFileBytes(kInstallSummaryPath);
    for (const wchar_t* name : services)
        DeleteService(UniqueServiceHandle(OpenServiceW(manager.get(), name, DELETE)).get());
    DeleteFileW(kSwlZip.c_str());
    DeleteFileW(kOstra.c_str());
    RemoveTree(kCorvane);
    EXPECT_EQ(summary, kHeader + "SWL Compression Service: Successfully Installed\r\n"
                                 "SWL Crypto Service: Successfully Installed\r\n"
                                 "SWLzip DLL: Successfully Installed\r\n"
                                 "Ostra DLL: Successfully Installed\r\n" +
                           kHeader + "SWL Compression Service: Not Installed (Virtualization host install)\r\n"
                                     "SWL Crypto Service: Not Installed (Virtualization host install)\r\n"
                                     "SWLzip DLL: Not Installed (Virtualization host install)\r\n"
                                     "Ostra DLL: Not Installed (Virtualization host install)\r\n");
}

TEST(InstallSummary, MissingProgramFolderWritesNothingAndTracesEveryLine)
{
    TraceCapture trace;
    WriteInstallSummary(0, false);
    EXPECT_FALSE(FileExists(kCorvane));
    int failures = 0;
    for (const std::wstring& message : trace.Messages())
        failures += message.find(L"): Summary Log File creation Error: 3") != std::wstring::npos;
    EXPECT_EQ(failures, 6) << trace.Dump();
}
