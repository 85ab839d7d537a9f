// Driver installation and the record of installed drivers.
#include "Devices/DriverInstall.h"
#include "Devices/DeviceCatalogue.h"
#include "Devices/HardwareDiscovery.h"
#include "KesRegKey.h"
#include "KesTrace.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include "resource.h"
#include <setupapi.h>
#include <vector>

MSIHANDLE g_hInstallDriversSession = 0;
const wchar_t* const kDriversKey = L"SOFTWARE\\CORVANE\\SWL\\DRIVERS";

namespace
{
using UpdateDriverForPlugAndPlayDevicesFn = BOOL(WINAPI*)(HWND owner, const wchar_t* hardwareId,
                                                          const wchar_t* infPath, DWORD flags, BOOL* rebootRequired);
using CMLocateDevNodeFn = DWORD(WINAPI*)(DWORD* devInst, char* deviceId, ULONG flags);
using CMReenumerateDevNodeFn = DWORD(WINAPI*)(DWORD devInst, ULONG flags);

const DWORD kInstanceIdChars = 200;
const DWORD kDriverKeyBytes = 200;
const DWORD kInfPathBytes = 512;
const DWORD kPathChars = 260;
// SetupAPI's codes, spelled out: not every SDK's headers have them.
const DWORD kErrorNoSuchDevinst = 0xE000020B;
const DWORD kErrorDriverStoreAddFailed = 0xE0000247;

// Judges the driver update's outcome as the table of known codes says; the
// trace (and for two outcomes the Installer log) says which it was.
bool JudgeDriverUpdate(MSIHANDLE hInstall, BOOL returned, DWORD error)
{
    if (returned)
    {
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [SUCCESS])");
        LogToMSI(hInstall, L"UpdateDriverForDevices: UpdateDriverForPlugAndPlayDevicesW returned [SUCCESS]");
        return true;
    }
    switch (error)
    {
    case ERROR_INVALID_FUNCTION:
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [Invalid function]");
        g_Debug.Print(L"(You can ignore this error, its very common to get this response and result in a "
                      L"functioning driver)");
        return true;
    case ERROR_FILE_NOT_FOUND:
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [Inf path does not exist]");
        return false;
    case ERROR_NO_MORE_ITEMS:
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [Driver was not a better match than the current "
                      L"driver]");
        return true;
    case kErrorNoSuchDevinst:
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [Device is not plugged in]");
        return true;
    case kErrorDriverStoreAddFailed:
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned [Cannot install unsigned driver unless Windows "
                      L"in Test Mode]");
        LogToMSI(hInstall, L"UpdateDriverForDevices: UpdateDriverForPlugAndPlayDevicesW returned [Cannot install "
                           L"unsigned driver unless Windows in Test Mode]");
        return false;
    default:
        // Deliberately a success: an unknown code has always been let through.
        g_Debug.Print(L"UpdateDriverForPlugAndPlayDevicesW returned unexpected error code, GetLastError: 0x%x",
                      GetLastError());
        return true;
    }
}
} // namespace

bool ReEnumeratePCIDevices()
{
    bool result = true;
    CKesDebugScope scope(L"ReEnumeratePCIDevices", &result);
    UniqueModule cfgmgr32(LoadLibraryW(L"cfgmgr32.dll"));
    if (!cfgmgr32)
        return result;
    auto locate = reinterpret_cast<CMLocateDevNodeFn>(GetProcAddress(cfgmgr32.get(), "CM_Locate_DevNodeA"));
    auto reenumerate =
        reinterpret_cast<CMReenumerateDevNodeFn>(GetProcAddress(cfgmgr32.get(), "CM_Reenumerate_DevNode"));
    if (locate == nullptr || reenumerate == nullptr)
    {
        g_Debug.Print(L"ReEnumeratePCIDevices: Failed to load cfgmgr32.dll functions");
        result = false;
        return result;
    }
    DWORD root = 0;
    // A null ID with CM_LOCATE_DEVNODE_NORMAL (0) is the root of the device tree.
    if (locate(&root, nullptr, 0) != 0)
    {
        g_Debug.Print(L"ReEnumeratePCIDevices: Call to CM_Locate_DevNodeA failed");
        result = false;
    }
    else if (reenumerate(root, 0) != 0) // CM_REENUMERATE_NORMAL: synchronous
    {
        g_Debug.Print(L"ReEnumeratePCIDevices: Call to CM_Reenumerate_DevNode failed");
        result = false;
    }
    return result;
}

bool UpdateDriverForDevices(CKesString deviceID, CKesString infName)
{
    bool success = true;
    CKesDebugScope scope(L"UpdateDriverForDevices", &success);
    const MSIHANDLE hInstall = g_hInstallDriversSession;
    g_Debug.Print(L"UpdateDriverForDevices invoked for %s with %s", deviceID.c_str(), infName.c_str());
    LogToMSI(hInstall, L"UpdateDriverForDevices: szHardwareID ", deviceID);
    LogToMSI(hInstall, L"UpdateDriverForDevices: INF ", infName);

    CKesRegKey product;
    CKesString supportDir;
    if (!product.Open(HKEY_LOCAL_MACHINE, kProductKey, false) || !product.GetValue(L"SupportDir", supportDir))
    {
        KES_TRACE_ERROR(L"UpdateDriverForDevices: Cannot retrieve registry key %s", L"SupportDir");
        success = false;
        return success;
    }
    CKesString infPath(supportDir);
    infPath += L"\\";
    infPath += infName;
    LogToMSI(hInstall, L"UpdateDriverForDevices: INF path ", infPath);

    UniqueModule newdev(LoadLibraryW(L"newdev.dll"));
    if (!newdev)
    {
        g_Debug.Print(L"UpdateDriverForDevices - Returning FALSE, cannot access newdev.dll");
        success = false;
        return success;
    }
    auto update = reinterpret_cast<UpdateDriverForPlugAndPlayDevicesFn>(
        GetProcAddress(newdev.get(), "UpdateDriverForPlugAndPlayDevicesW"));
    if (update == nullptr)
    {
        g_Debug.Print(L"UpdateDriverForDevices - NULL Return Value, function call failed");
        success = false;
        return success;
    }

    BOOL rebootRequired = FALSE;
    // No INSTALLFLAG_FORCE: Windows installs only a better match than the current driver.
    const BOOL returned = update(nullptr, deviceID, infPath, 0, &rebootRequired);
    const DWORD error = returned ? ERROR_SUCCESS : GetLastError();
    success = JudgeDriverUpdate(hInstall, returned, error);

    // The reboot decision belongs to the reboot guards; the flag is only traced.
    g_Debug.Print(rebootRequired ? L"UpdateDriverForPlugAndPlayDevicesW indicated a reboot is necessary for driver "
                                   L"installs"
                                 : L"UpdateDriverForPlugAndPlayDevicesW indicated NO reboot is necessary for driver "
                                   L"installs");
    if (success)
    {
        g_Debug.Print(L"Since device install was successful, driver registry entries for SWL will be now be written");
        GetDriverStoreInfPath(deviceID);
    }
    else
    {
        g_Debug.Print(L"Since device install was not successful, driver registry entries were skipped");
    }
    return success;
}

void GetDriverStoreInfPath(CKesString deviceID)
{
    const MSIHANDLE hInstall = g_hInstallDriversSession;
    g_Debug.Print(L"GetDriverStoreInfPath: Enter");
    LogToMSI(hInstall, L"GetDriverStoreInfPath: search szHardwareID ", deviceID);

    UniqueDevInfo devices(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    if (!devices)
    {
        g_Debug.Print(L"GetDriverStoreInfPath: SetupDiGetClassDevs - error=%s", GetLastErrorText().c_str());
        return;
    }
    g_Debug.Print(L"GetDriverStoreInfPath: Found ClassDevs");

    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices.get(), index, &device); ++index)
    {
        wchar_t instanceId[kInstanceIdChars] = {};
        SetupDiGetDeviceInstanceIdW(devices.get(), &device, instanceId, kInstanceIdChars, nullptr);
        instanceId[kInstanceIdChars - 1] = L'\0';
        LogToMSI(hInstall, L"enumerated device instance ", instanceId);
        if (std::wcsstr(instanceId, deviceID) == nullptr)
        {
            LogToMSI(hInstall, L"Not the required instance ");
            continue;
        }

        // Results are not examined: a read that fails leaves the zeroed buffer,
        // so an empty INF name is recorded.
        wchar_t driverKey[kDriverKeyBytes / sizeof(wchar_t) + 1] = {};
        SetupDiGetDeviceRegistryPropertyW(devices.get(), &device, SPDRP_DRIVER, nullptr,
                                          reinterpret_cast<BYTE*>(driverKey), kDriverKeyBytes, nullptr);
        CKesString classKey(L"SYSTEM\\CurrentControlSet\\Control\\Class\\");
        classKey += driverKey;
        LogToMSI(hInstall, L"driver key ", classKey);

        wchar_t infName[kInfPathBytes / sizeof(wchar_t) + 1] = {};
        UniqueHKey driver;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, classKey, 0, KEY_READ, driver.put()) == ERROR_SUCCESS)
        {
            DWORD bytes = kInfPathBytes;
            RegQueryValueExW(driver.get(), L"InfPath", nullptr, nullptr, reinterpret_cast<BYTE*>(infName), &bytes);
        }
        LogToMSI(hInstall, L"driver pathname ", infName);
        LogToMSI(hInstall, L"INF file ", infName);
        LogToMSI(hInstall, L"Create INF install key ", deviceID);
        LogToMSI(hInstall, L"Create INF install key value ", infName);
        // Their results are not looked at: recording failures are traced only.
        EnterRegistryKeyForINFInstall(deviceID, infName);
        EnterRegistryKeyForSysInstall(deviceID);
        break;
    }
    g_Debug.Print(L"GetDriverStoreInfPath: Exit");
}

bool EnterRegistryKeyForINFInstall(CKesString deviceID, CKesString infPath)
{
    bool result = false;
    CKesDebugScope scope(L"EnterRegistryKeyForINFInstall", &result);
    g_Debug.Print(L"EnterRegistryKeyForINFInstall: Creating driver installation entry for [%s], value %s",
                  deviceID.c_str(), infPath.c_str());
    CKesRegKey drivers;
    if (!drivers.Create(HKEY_LOCAL_MACHINE, kDriversKey, true, false) || !drivers.SetValue(deviceID, infPath, false))
    {
        KES_TRACE_ERROR(L"EnterRegistryKeyForINFInstall: Cannot set registry key [%s]", deviceID.c_str());
        return result;
    }
    g_Debug.Print(L"EnterRegistryKeyForINFInstall: The following registry value was written [%s]", infPath.c_str());
    result = true;
    return result;
}

bool EnterRegistryKeyForSysInstall(CKesString deviceID)
{
    bool result = false;
    CKesDebugScope scope(L"EnterRegistryKeyForSysInstall", &result);
    g_Debug.Print(L"EnterRegistryKeyForSysInstall: Creating sys installation entry for [%s]", deviceID.c_str());

    wchar_t systemDir[kPathChars] = {};
    const UINT length = GetSystemDirectoryW(systemDir, kPathChars);
    if (length == 0 || length >= kPathChars)
    {
        KES_TRACE_ERROR(L"EnterRegistryKeyForSysInstall:  cannot retrieve system directory");
        return result;
    }
    CKesRegKey drivers;
    if (!drivers.Create(HKEY_LOCAL_MACHINE, kDriversKey, true, false))
    {
        KES_TRACE_ERROR(L"EnterRegistryKeyForSysInstall: Cannot set registry key [%s]", deviceID.c_str());
        return result;
    }
    for (CKesString& name : g_SWLDevices.GetSysForDeviceID(deviceID))
    {
        CKesString path(systemDir);
        path += L"\\drivers\\";
        path += name;
        // An existing entry stays as it is: only the first install of a file records it.
        if (!drivers.ValueExists(name) && !drivers.SetValue(name, path, false))
        {
            KES_TRACE_ERROR(L"EnterRegistryKeyForSysInstall: Failed to write .sys registry entry for  [%s]",
                            deviceID.c_str());
            return result;
        }
    }
    g_Debug.Print(L"EnterRegistryKeyForSysInstall: The following registry value was written [%s]", deviceID.c_str());
    result = true;
    return result;
}

SWL_CUSTOM_ACTION(InstallDrivers)
{
    return GuardedAction(L"InstallDrivers", [&]() -> UINT {
        g_hInstallDriversSession = hInstall;
        LogToMSI(hInstall, L"InstallDrivers()");
        SWLDevices catalogue;
        UINT result = ERROR_SUCCESS;
        bool cryptoAllowed = true;

        ReEnumeratePCIDevices();
        ReportActionStart(hInstall, LoadResString(IDS_ADDING_DRIVERS), L"");

        std::vector<CKesString> devices;
        if (EnumerateDeviceMgrForSupportedDevices(devices))
        {
            for (const CKesString& device : devices)
            {
                if (catalogue.IsDeviceIDSupported(device))
                {
                    if (UpdateDriverForDevices(device, catalogue.GetINFForDeviceID(device)))
                    {
                        LogToMSI(hInstall, L"Request to update driver successful for ", device);
                    }
                    else
                    {
                        LogToMSI(hInstall, L"Request to update driver failed for ", device);
                        result = ERROR_GEN_FAILURE;
                    }
                }
                else
                {
                    LogToMSI(hInstall, L"Device ID is not supported for driver install - ", device);
                    result = ERROR_GEN_FAILURE;
                }
                if (!catalogue.IsNotTlmdDevice(device))
                {
                    cryptoAllowed = false;
                    LogToMSI(hInstall, L"Device ID is a TLM-D device. Disabling crypto related installs - ", device);
                }
            }
        }
        if (cryptoAllowed)
            cryptoAllowed = SearchRegistryForCryptoCompatibility();
        if (!cryptoAllowed)
            MsiSetPropertyW(hInstall, L"INSTALLCRYPTO", L"0");

        LogToMSI(hInstall, L"InstallDrivers() - Exit");
        return result;
    });
}
