// The summary on the prefix's real folders and services; the prefix has none of the product's.
#include "Payload/InstallSummary.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <shlobj.h>

const std::string kHeader =
    "Corvane(R) SWL Software Installation Summary\r\n\r\nSWL Base Driver: Successfully Installed\r\n";

TEST(InstallSummary, MissingProgramFolderWritesNothingAndTracesEveryLine)
{
    TraceCapture trace;
    WriteInstallSummary(0, false);
    EXPECT_FALSE(FileExists(L"C:\\Program Files\\Corvane"));
    int failures = 0;
    for (const std::wstring& message : trace.Messages())
        failures += message.find(L"): Summary Log File creation Error: 3") != std::wstring::npos;
    EXPECT_EQ(failures, 6) << trace.Dump();
}

// A kernel-driver entry, never started, is all the summary looks for in a service.
TEST(InstallSummary, EveryPartInstalledIsReportedAndAHostExaminesOnlyTheBaseDriver)
{
    const wchar_t* const services[] = {L"HWA_SWL4", L"cfSwl", L"TPXPROVUSER"};
    const std::wstring files[] = {L"C:\\Windows\\System32\\swlzip.dll", L"C:\\Windows\\System32\\ostra.dll"};
    UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    SHCreateDirectoryExW(nullptr, L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology", nullptr);
    for (const wchar_t* name : services)
        UniqueServiceHandle(CreateServiceW(manager.get(), name, name, SERVICE_QUERY_STATUS, SERVICE_KERNEL_DRIVER,
                                           SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, L"C:\\none.sys", nullptr,
                                           nullptr, nullptr, nullptr, nullptr));
    for (const std::wstring& file : files)
        WriteFileBytes(file, "MZ");
    WriteInstallSummary(0, false);
    WriteInstallSummary(0, true);
    const std::string summary = ReadFileBytes(kInstallSummaryPath);
    for (const wchar_t* name : services)
        DeleteService(UniqueServiceHandle(OpenServiceW(manager.get(), name, DELETE)).get());
    for (const std::wstring& file : files)
        DeleteFileW(file.c_str());
    RemoveTree(L"C:\\Program Files\\Corvane");
    EXPECT_EQ(summary, kHeader + "SWL Compression Service: Successfully Installed\r\n"
                                 "SWL Crypto Service: Successfully Installed\r\n"
                                 "SWLzip DLL: Successfully Installed\r\n"
                                 "Ostra DLL: Successfully Installed\r\n" +
                           kHeader + "SWL Compression Service: Not Installed (Virtualization host install)\r\n"
                                     "SWL Crypto Service: Not Installed (Virtualization host install)\r\n"
                                     "SWLzip DLL: Not Installed (Virtualization host install)\r\n"
                                     "Ostra DLL: Not Installed (Virtualization host install)\r\n");
}
