// Driver and firmware removal.
#include "Removal/DriverRemoval.h"
#include "Devices/DeviceCatalogue.h"
#include "Devices/DriverInstall.h"
#include "KesRegKey.h"
#include "KesTrace.h"
#include "Payload/SupportFiles.h"
#include "Removal/RemnantCleanup.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "resource.h"
#include <setupapi.h>
#include <shlwapi.h>

MSIHANDLE g_hCurrentInstall = 0;

namespace
{
const DWORD kPathChars = 260;
// Literal paths, not derived from the system folder.
const wchar_t* const kBaseDriverFile = L"C:\\Windows\\System32\\Drivers\\hwa_swl4.sys";
const wchar_t* const kMessageLibrary = L"C:\\Windows\\System32\\swl_msg4.dll";

bool Contains(const CKesString& text, const wchar_t* part)
{
    return text.find(part) != CKesString::npos;
}
} // namespace

bool RemoveDriver(CKesString inf)
{
    bool removed = false;
    CKesDebugScope scope(L"RemoveDriver", &removed);
    if (!SetupUninstallOEMInfW(inf, SUOI_FORCEDELETE, nullptr))
    {
        LogToMSI(g_hCurrentInstall, L"SetupUninstallOEMInf() fails ", inf);
        return removed;
    }
    LogToMSI(g_hCurrentInstall, L"SetupUninstallOEMInf() succeeds ", inf);
    // At error level on purpose, so that it shows at every trace level.
    KES_TRACE_ERROR(L"SetupUninstallOEMInf() succeeds");
    removed = true;
    return removed;
}

SWL_CUSTOM_ACTION(RemoveDrivers)
{
    return GuardedAction(L"RemoveDrivers", [&]() -> UINT {
        g_hCurrentInstall = hInstall;
        LogToMSI(hInstall, L"RemoveDrivers()");
        UINT status = ERROR_SUCCESS;
        ReportActionStart(hInstall, LoadResString(IDS_REMOVING_DRIVERS), L"");

        CKesRegKey drivers;
        if (!drivers.Open(HKEY_LOCAL_MACHINE, kDriversKey, true))
        {
            LogToMSI(hInstall, L"Failed to open Registry key for driver removal ", kDriversKey);
            LogToMSI(hInstall, L"Exiting RemoveDrivers()");
            status = ERROR_GEN_FAILURE;
        }
        else
        {
            LogToMSI(hInstall, L"Opened Registry key for driver removal ", kDriversKey);
            CKesString name;
            while (drivers.EnumValue(name))
            {
                CKesString file;
                if (!drivers.GetValue(name, file))
                {
                    KES_TRACE_ERROR(L"Failed to get value for registry value name :%s\\%s", kDriversKey, name.c_str());
                    LogToMSI(hInstall, L"Exiting RemoveDrivers()");
                    status = ERROR_GEN_FAILURE;
                    break;
                }
                file.MakeLower();
                LogToMSI(hInstall, L"found file ", file);
                if (Contains(file, L".inf"))
                {
                    KES_TRACE_ERROR(L"Remove driver INF");
                    // A package that stays is logged by RemoveDriver; the walk goes on.
                    RemoveDriver(file);
                }
                if (PathFileExistsW(file) && Contains(file, L".sys"))
                {
                    LogToMSI(hInstall, L"delete file ", file);
                    if (!DeleteFileW(file))
                        KES_TRACE_ERROR(L"Unable to delete file :%s", file.c_str());
                }
            }
            // Deliberately "subkeys", although values are walked.
            LogToMSI(hInstall, L"No more subkeys");
        }

        // Only reported: the remnant cleanup deals with it.
        if (PathFileExistsW(kBaseDriverFile))
            LogToMSI(hInstall, L"hwa_swl4.sys exists!!");
        if (PathFileExistsW(kMessageLibrary))
        {
            LogToMSI(hInstall, L"Delete swl_msg4.dll");
            // Its result is not needed: every failing step has its own log line.
            TakeOwnershipAndDelete(hInstall, kMessageLibrary);
        }
        LogToMSI(hInstall, L"RemoveDrivers() - Exit");
        return status;
    });
}

SWL_CUSTOM_ACTION(RemoveFirmware)
{
    return GuardedAction(L"RemoveFirmware", [&]() -> UINT {
        LogToMSI(hInstall, L"RemoveFirmware()");
        ReportActionStart(hInstall, LoadResString(IDS_REMOVING_DRIVERS), L"");

        wchar_t systemDir[kPathChars] = {};
        const UINT length = GetSystemDirectoryW(systemDir, kPathChars);
        // A folder that does not fit counts as none, as when the call fails.
        if (length == 0 || length >= kPathChars)
        {
            KES_TRACE_ERROR(L"RemoveFirmware: cannot retrieve system directory");
            return static_cast<UINT>(ERROR_SUCCESS);
        }
        // Every shipped row names the same folder: the first call deletes it, the others find nothing.
        for (const auto& device : g_SWLDevices.Devices())
        {
            if (device->m_strFirmwareFolder.empty())
                continue;
            CKesString folder(systemDir);
            folder += L"\\Drivers\\";
            folder += device->m_strFirmwareFolder;
            DeleteFolder(folder);
        }
        LogToMSI(hInstall, L"RemoveFirmware() - Exit");
        // Firmware that stays never fails the uninstall.
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}
