// The service custom actions and the reboot test built on the service helpers.
#include "Services/ServiceActions.h"
#include "KesRegKey.h"
#include "KesTrace.h"
#include "Payload/InstallSummary.h"
#include "Removal/RemnantCleanup.h"
#include "Services/ServiceControl.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "resource.h"
#include <cwchar>

const wchar_t* const kCfSwlParametersKey = L"SYSTEM\\CurrentControlSet\\Services\\cfSwl\\Parameters";

namespace
{
const DWORD kPathChars = 260;
const DWORD kPreAllocatedMemorySessions = 4;

// Start and stop lines, shared by AddServices and RestartServices.
const wchar_t* const kCfSwlStarted = L"Service start succesful for 'cfSwl'";
const wchar_t* const kCfSwlNotStarted = L"Service start failed for 'cfSwl'";

// A crypto service as AddServices and RestartServices know it.
struct CryptoService
{
    const wchar_t* name;
    const wchar_t* displayName;
    const wchar_t* file;
    DWORD progressText;
    const wchar_t* started;
    const wchar_t* notStarted;
};
const CryptoService kKernelModeCrypto = {L"TPXPROV", L"Corvane(R) Swiftlane Technology Kernel Mode Service",
                                         L"tpxprov.sys", IDS_ADDING_SYSTEM_SERVICE,
                                         L"Service start succesful for 'tpxprov'",
                                         L"Service start failed for 'tpxprov'"};
const CryptoService kUserModeCrypto = {L"TPXPROVUSER", L"Corvane(R) Swiftlane Technology User Mode Service",
                                       L"tpxprovuser.sys", IDS_STARTING_USER_SERVICE,
                                       L"Service start succesful for 'tpxprovuser'",
                                       L"Service start failed for 'tpxprovuser'"};

// A service RemoveServices deletes, with its own log texts.
struct RemovedService
{
    const wchar_t* name;
    DWORD progressText;
    const wchar_t* removing;
    const wchar_t* failed;
    const wchar_t* removed;
    const wchar_t* missing;
};
// Only the first "does not exist" line carries the action's prefix.
const RemovedService kRemovedServices[] = {
    {L"TPXPROV", IDS_REMOVING_SYSTEM_SERVICE, L"RemoveServices : removing TPXPROV service",
     L"RemoveServices: Service removal failed for 'tpxprov'; it is marked for deletion",
     L"RemoveServices: Service removal succesful for 'tpxprov'", L"RemoveServices: Service 'TPXPROV' does not exist"},
    {L"TPXPROVUSER", IDS_REMOVING_USER_SERVICE, L"RemoveServices : removing TPXPROVUSER service",
     L"RemoveServices: Service removal failed for 'tpxprovuser'; it is marked for deletion",
     L"RemoveServices: Service removal succesful for 'tpxprovuser'", L"Service 'TPXPROVUSER' does not exist"},
    {L"cfSwl", IDS_REMOVING_CFSWL, L"RemoveServices : removing cfSwl service",
     L"RemoveServices: Service removal failed for 'cfSwl'; it is marked for deletion",
     L"RemoveServices: Service removal succesful for 'cfSwl'", L"Service 'cfSwl' does not exist"},
};

// A step of RestartServices: the service and its two lines.
struct RestartStep
{
    const wchar_t* name;
    const wchar_t* succeeded;
    const wchar_t* failed;
};

CKesString DriverPath(const CKesString& driversFolder, const wchar_t* file)
{
    CKesString path(driversFolder);
    path += file;
    return path;
}

// Adds a crypto service and starts it once added; 0 when both worked.
DWORD AddAndStart(MSIHANDLE hInstall, const CryptoService& service, const CKesString& driversFolder)
{
    ReportActionStart(hInstall, LoadResString(service.progressText), L"");
    DWORD result = AddService(service.name, service.displayName, DriverPath(driversFolder, service.file), 1);
    if (result == ERROR_SUCCESS)
        result = STARTService(service.name);
    LogToMSI(hInstall, result == ERROR_SUCCESS ? service.started : service.notStarted);
    return result;
}

// Creates cfSwl's Parameters key when missing and writes its one value. False
// (with its log line) for each part that failed; both parts are always tried.
bool WriteCfSwlParameters(MSIHANDLE hInstall)
{
    bool written = true;
    CKesRegKey parameters;
    if (!parameters.Open(HKEY_LOCAL_MACHINE, kCfSwlParametersKey, false) &&
        !parameters.Create(HKEY_LOCAL_MACHINE, kCfSwlParametersKey, false, false))
    {
        LogToMSI(hInstall, L"Cannot create required registry path cfSwl\\Parameters");
        written = false;
    }
    CKesRegKey writable;
    if (!writable.Open(HKEY_LOCAL_MACHINE, kCfSwlParametersKey, true) ||
        !writable.SetValue(L"PreAllocatedMemorySessions", kPreAllocatedMemorySessions))
    {
        LogToMSI(hInstall, L"Cannot set required registry key PreAllocatedMemorySessions");
        written = false;
    }
    return written;
}
} // namespace

SWL_CUSTOM_ACTION(AddServices)
{
    return GuardedAction(L"AddServices", [&]() -> UINT {
        LogToMSI(hInstall, L"AddServices()");
        UINT status = ERROR_SUCCESS;

        // The product folder itself is not used here; its value shows that the product key is complete.
        CKesRegKey product;
        CKesString installDir;
        if (!product.Open(HKEY_LOCAL_MACHINE, kProductKey, false) || !product.GetValue(L"InstallDir", installDir))
        {
            LogToMSI(hInstall, L"Cannot locate required registry keys");
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        ReportActionStart(hInstall, LoadResString(IDS_ADDING_CFSWL), L"");

        wchar_t systemDir[kPathChars] = {};
        const UINT length = GetSystemDirectoryW(systemDir, kPathChars);
        // A folder that does not fit counts as none: the buffer would hold no path.
        if (length == 0 || length >= kPathChars)
        {
            KES_TRACE_ERROR(L"AddServices: cannot retrieve system directory");
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        // The summary of an earlier install is replaced by the one written below.
        DeleteFileW(kInstallSummaryPath);
        CKesString driversFolder(systemDir);
        driversFolder += L"\\Drivers\\";

        if (AddService(L"cfSwl", L"cfSwl", DriverPath(driversFolder, L"cfswl.sys"), 1) != ERROR_SUCCESS)
        {
            LogToMSI(hInstall, L"Service add failed for 'cfSwl'");
            status = ERROR_GEN_FAILURE;
        }
        else
        {
            if (!WriteCfSwlParameters(hInstall))
                status = ERROR_GEN_FAILURE;
            if (STARTService(L"cfSwl") != ERROR_SUCCESS)
            {
                LogToMSI(hInstall, kCfSwlNotStarted);
                status = ERROR_GEN_FAILURE;
            }
            else
            {
                LogToMSI(hInstall, kCfSwlStarted);
            }
        }

        wchar_t data[kPathChars] = {};
        DWORD size = kPathChars;
        if (MsiGetPropertyW(hInstall, L"CustomActionData", data, &size) != ERROR_SUCCESS)
        {
            LogToMSI(hInstall, L"Failed to get INSTALLCRYPTO property value");
        }
        else if (std::wcscmp(data, L"1") == 0)
        {
            LogToMSI(hInstall, L"INSTALLCRYPTO=1, adding and starting crypto services.");
            // The user-mode service is added whatever became of the kernel-mode one.
            if (AddAndStart(hInstall, kKernelModeCrypto, driversFolder) != ERROR_SUCCESS)
                status = ERROR_GEN_FAILURE;
            if (AddAndStart(hInstall, kUserModeCrypto, driversFolder) != ERROR_SUCCESS)
                status = ERROR_GEN_FAILURE;
        }
        else
        {
            LogToMSI(hInstall, L"Crypto is not supported, crypto services will not be installed.");
        }

        WriteInstallSummary(hInstall, false);
        LogToMSI(hInstall, L"AddServices() - Exit");
        return status;
    });
}

SWL_CUSTOM_ACTION(RemoveServices)
{
    return GuardedAction(L"RemoveServices", [&]() -> UINT {
        LogToMSI(hInstall, L"RemoveServices()");
        UINT status = ERROR_SUCCESS;
        g_Debug.Print(L"If this function was called during install, it will be normal to not find the service "
                      L"running or present");

        for (const RemovedService& service : kRemovedServices)
        {
            ReportActionStart(hInstall, LoadResString(service.progressText), L"");
            LogToMSI(hInstall, service.removing);
            if (GetServiceStatus(service.name) == 0)
            {
                LogToMSI(hInstall, service.missing);
                continue;
            }
            // A service that does not stop is still deleted: the SCM marks it for deletion.
            STOPService(service.name, hInstall);
            if (RemoveService(service.name, hInstall) != ERROR_SUCCESS)
            {
                LogToMSI(hInstall, service.failed);
                status = ERROR_GEN_FAILURE;
            }
            else
            {
                LogToMSI(hInstall, service.removed);
            }
        }

        // The base driver belongs to the device driver: its removal never changes the result.
        ReportActionStart(hInstall, LoadResString(IDS_REMOVING_HWA_SWL), L"");
        LogToMSI(hInstall, L"RemoveServices : removing hwa_swl4 service");
        if (GetServiceStatus(L"HWA_SWL4") != 0)
        {
            const DWORD stopped = STOPService(L"HWA_SWL4", hInstall);
            // Deliberate: the stop result (0, 31 or 5930) is used as a string id; none is in the table.
            ReportActionStart(hInstall, LoadResString(stopped), L"");
            if (RemoveService(L"HWA_SWL4", hInstall) != ERROR_SUCCESS)
                LogToMSI(hInstall, L"RemoveServices: Service removal failed for 'hwa_swl4'; it is marked for deletion");
            else
                LogToMSI(hInstall, L"RemoveServices: Service removal succesful for 'hwa_swl4'");
        }
        else
        {
            LogToMSI(hInstall, L"Service 'hwa_swl4' does not exist");
        }

        LogToMSI(hInstall, L"RemoveServices() - Exit");
        DeleteFileW(kInstallSummaryPath);
        return status;
    });
}

SWL_CUSTOM_ACTION(RestartServices)
{
    return GuardedAction(L"RestartServices", [&]() -> UINT {
        LogToMSI(hInstall, L"Entering RestartServices()");
        UINT status = ERROR_SUCCESS;
        static const RestartStep kStops[] = {
            {L"cfSwl", L"Service stop succesful for 'cfSwl'", L"Service stop failed for 'cfSwl'"},
            {L"TPXPROVUSER", L"Service stop succesful for 'tpxprovuser'", L"Service stop failed for 'tpxprovuser'"},
            {L"TPXPROV", L"Service stop succesful for 'tpxprov'", L"Service stop failed for 'tpxprov'"},
        };
        static const RestartStep kStarts[] = {
            {L"cfSwl", kCfSwlStarted, kCfSwlNotStarted},
            {kKernelModeCrypto.name, kKernelModeCrypto.started, kKernelModeCrypto.notStarted},
            {kUserModeCrypto.name, kUserModeCrypto.started, kUserModeCrypto.notStarted},
        };
        // Deliberately reversed: the helpers return 0 on success, yet a non-zero
        // result is logged as success and a zero one as failure (31).
        for (const RestartStep& step : kStops)
        {
            if (STOPService(step.name, hInstall) != ERROR_SUCCESS)
            {
                LogToMSI(hInstall, step.succeeded);
            }
            else
            {
                LogToMSI(hInstall, step.failed);
                status = ERROR_GEN_FAILURE;
            }
        }
        for (const RestartStep& step : kStarts)
        {
            if (STARTService(step.name) != ERROR_SUCCESS)
            {
                LogToMSI(hInstall, step.succeeded);
            }
            else
            {
                LogToMSI(hInstall, step.failed);
                status = ERROR_GEN_FAILURE;
            }
        }
        LogToMSI(hInstall, L"RestartServices() - Exit");
        return status;
    });
}

bool IsRebootRequired(MSIHANDLE hInstall)
{
    bool required = false;
    CKesDebugScope scope(L"IsRebootRequired", &required);
    LogToMSI(hInstall, L"IsRebootRequired()");

    static const wchar_t* const kServices[] = {L"TPXPROV", L"TPXPROVUSER", L"cfSwl", L"HWA_SWL4"};
    for (const wchar_t* name : kServices)
    {
        if (GetServiceStatus(name) == SERVICE_STOP_PENDING)
        {
            LogToMSI(hInstall, L"IsRebootRequired : one or more services are PENDING, reboot required");
            required = true;
            break;
        }
    }
    // Deletes the remnant files as a side effect.
    if (!required && CheckFilesForRemoval(hInstall) != ERROR_SUCCESS)
    {
        LogToMSI(hInstall, L"IsRebootRequired : not all files could be removed, reboot required");
        required = true;
    }
    LogToMSI(hInstall, L"IsRebootRequired: Exit");
    return required;
}
