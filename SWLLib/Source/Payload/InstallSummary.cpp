// The plain-text install summary.
#include "Payload/InstallSummary.h"
#include "KesTrace.h"
#include "Services/ServiceControl.h"
#include "UniqueHandle.h"
#include <shlwapi.h>
#include <cstring>

const wchar_t* const kInstallSummaryPath =
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\SWLInstallSummary.log";

namespace
{
constexpr const wchar_t* kSwlZipPath = L"C:\\Windows\\System32\\swlzip.dll";
constexpr const wchar_t* kOstraDllPath = L"C:\\Windows\\System32\\ostra.dll";
constexpr const wchar_t* kOstraNativeFolder =
    L"C:\\Program Files\\Corvane\\OSTRA\\corvaneostra.win-x64.2.30.0\\runtimes\\win-x86\\native";

// GetServiceStatus is 0 only when the service cannot be opened.
bool ServiceExists(const wchar_t* name)
{
    return GetServiceStatus(name) != 0;
}
} // namespace

void AppendSummaryLine(const char* text)
{
    CKesDebugScope scope(L"AppendSummaryLine");
    if (text == nullptr)
        return;
    UniqueFileHandle file(
        CreateFileW(kInstallSummaryPath, GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
    {
        KES_TRACE_ERROR(L"Summary Log File creation Error: %x", GetLastError());
        return;
    }
    SetFilePointer(file.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    if (!WriteFile(file.get(), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr))
        KES_TRACE_ERROR(L"Summary Log File Write Error: %x", GetLastError());
}

void WriteInstallSummary(MSIHANDLE /*hInstall*/, bool virtualizationHost)
{
    CKesDebugScope scope(L"WriteInstallSummary");
    AppendSummaryLine("Corvane(R) SWL Software Installation Summary\r\n\r\n");

    const bool driverPresent = ServiceExists(L"HWA_SWL4");
    AppendSummaryLine(driverPresent ? "SWL Base Driver: Successfully Installed\r\n"
                                    : "SWL Base Driver: Not Installed\r\n");

    if (virtualizationHost)
    {
        // Nothing but the base driver is examined on a virtualization host.
        AppendSummaryLine("SWL Compression Service: Not Installed (Virtualization host install)\r\n");
        AppendSummaryLine("SWL Crypto Service: Not Installed (Virtualization host install)\r\n");
        AppendSummaryLine("SWLzip DLL: Not Installed (Virtualization host install)\r\n");
        AppendSummaryLine("Ostra DLL: Not Installed (Virtualization host install)\r\n");
        return;
    }

    if (ServiceExists(L"cfSwl"))
        AppendSummaryLine("SWL Compression Service: Successfully Installed\r\n");
    else if (driverPresent)
        AppendSummaryLine("SWL Compression Service: Not Installed\r\n");
    else
        AppendSummaryLine("SWL Compression Service: Not Installed (No SWL Hardware detected)\r\n");

    if (ServiceExists(L"TPXPROVUSER"))
        AppendSummaryLine("SWL Crypto Service: Successfully Installed\r\n");
    else if (driverPresent)
        AppendSummaryLine("SWL Crypto Service: Not Installed (Not supported)\r\n");
    else
        AppendSummaryLine("SWL Crypto Service: Not Installed (No SWL Hardware detected)\r\n");

    AppendSummaryLine(PathFileExistsW(kSwlZipPath) ? "SWLzip DLL: Successfully Installed\r\n"
                                                   : "SWLzip DLL: Not Installed\r\n");

    // The reason given for a missing library is fixed text, whatever the real cause.
    if (PathFileExistsW(kOstraDllPath) || PathFileExistsW(kOstraNativeFolder))
        AppendSummaryLine("Ostra DLL: Successfully Installed\r\n");
    else
        AppendSummaryLine("Ostra DLL: Not Installed (Nuget.exe is not present in the system)\r\n");
}
