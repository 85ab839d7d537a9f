// Device state changes through the class installer.
#include "Devices/DeviceState.h"
#include "Devices/DriverInstall.h"
#include "Devices/HardwareDiscovery.h"
#include "KesTrace.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include "resource.h"
#include <cwchar>
#include <vector>

BOOL(WINAPI* DeviceStateCalls::SetClassInstallParams)(HDEVINFO, SP_DEVINFO_DATA*, SP_CLASSINSTALL_HEADER*,
                                                      DWORD) = SetupDiSetClassInstallParamsW;
BOOL(WINAPI* DeviceStateCalls::CallClassInstaller)(DI_FUNCTION, HDEVINFO, SP_DEVINFO_DATA*) = SetupDiCallClassInstaller;

namespace
{
const DWORD kInstanceIdChars = 200;

// What an action does to one target device; false stops the walk of this ID's device set.
struct DeviceOperation
{
    const wchar_t* couldNotFind;      // "<Action>: Couldn't find devices"
    const wchar_t* couldNotEnumerate; // "<Action>: Could not enumerate devices"
    const wchar_t* searchLine;        // logged with each ID before its walk; null for none
    // Called for each device whose instance ID contains the enumerated ID.
    bool (*act)(MSIHANDLE hInstall, HDEVINFO devices, SP_DEVINFO_DATA& device, const wchar_t* instanceId,
                UINT& result);
};

// The walk shared by the three actions: for each enumerated ID, every present
// device whose instance ID contains it. Returns 31 (with the "Could not
// enumerate" line) when the last walk's index stayed 0: no device list at
// all, an empty or unobtainable set, or a stop on the very first device.
UINT WalkDevices(MSIHANDLE hInstall, const std::vector<CKesString>& ids, const DeviceOperation& operation, UINT result)
{
    DWORD index = 0;
    for (const CKesString& id : ids)
    {
        index = 0;
        if (operation.searchLine != nullptr)
            LogToMSI(hInstall, operation.searchLine, id);
        UniqueDevInfo devices(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
        if (!devices)
        {
            LogToMSI(hInstall, operation.couldNotFind);
            continue;
        }
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof(SP_DEVINFO_DATA);
        while (SetupDiEnumDeviceInfo(devices.get(), index, &device))
        {
            wchar_t instanceId[kInstanceIdChars] = {};
            SetupDiGetDeviceInstanceIdW(devices.get(), &device, instanceId, kInstanceIdChars, nullptr);
            instanceId[kInstanceIdChars - 1] = L'\0';
            if (std::wcsstr(instanceId, id) != nullptr &&
                !operation.act(hInstall, devices.get(), device, instanceId, result))
                break;
            ++index;
        }
    }
    if (index == 0)
    {
        LogToMSI(hInstall, operation.couldNotEnumerate);
        result = ERROR_GEN_FAILURE;
    }
    return result;
}

// DIF_PROPERTYCHANGE with the given state, for the whole machine (all hardware profiles).
bool ChangeState(MSIHANDLE hInstall, HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD stateChange, UINT& result)
{
    SP_PROPCHANGE_PARAMS params = {};
    params.ClassInstallHeader.cbSize = sizeof(SP_CLASSINSTALL_HEADER);
    params.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
    params.StateChange = stateChange;
    params.Scope = DICS_FLAG_GLOBAL;
    params.HwProfile = 0;
    if (!DeviceStateCalls::SetClassInstallParams(devices, &device, &params.ClassInstallHeader, sizeof(params)))
    {
        LogToMSI(hInstall, L"SetupDiSetClassInstallParams FAILED!");
        result = ERROR_GEN_FAILURE;
        return false;
    }
    // FALSE with no error code counts as success.
    if (!DeviceStateCalls::CallClassInstaller(DIF_PROPERTYCHANGE, devices, &device) && GetLastError() != 0)
    {
        LogToMSI(hInstall, L"SetupDiCallClassInstaller FAILED!");
        result = ERROR_GEN_FAILURE;
        return false;
    }
    return true;
}

const DeviceOperation kDisable = {
    L"DisableDevices: Couldn't find devices", L"DisableDevices: Could not enumerate devices", nullptr,
    [](MSIHANDLE hInstall, HDEVINFO devices, SP_DEVINFO_DATA& device, const wchar_t* instanceId, UINT& result) {
        LogToMSI(hInstall, L"Disable device ", instanceId);
        if (!ChangeState(hInstall, devices, device, DICS_DISABLE, result))
            return false;
        Sleep(1000);
        return true;
    }};

const DeviceOperation kEnable = {
    L"EnableDevices: Couldn't find devices", L"EnableDevices: Could not enumerate devices", nullptr,
    [](MSIHANDLE hInstall, HDEVINFO devices, SP_DEVINFO_DATA& device, const wchar_t* instanceId, UINT& result) {
        LogToMSI(hInstall, L"Enable device ", instanceId);
        return ChangeState(hInstall, devices, device, DICS_ENABLE, result);
    }};

const DeviceOperation kRemove = {
    L"RemoveDevices: Couldn't find devices", L"RemoveDevices: Could not enumerate devices",
    L"RemoveDevices: search devID ",
    [](MSIHANDLE hInstall, HDEVINFO devices, SP_DEVINFO_DATA& device, const wchar_t* instanceId, UINT& result) {
        LogToMSI(hInstall, L"found device instance ", instanceId);
        if (DeviceStateCalls::CallClassInstaller(DIF_REMOVE, devices, &device))
        {
            LogToMSI(hInstall, L"RemoveDevices: Device removed");
        }
        else
        {
            LogToMSI(hInstall, L"RemoveDevices: SetupDiCallClassInstaller failed");
            result = ERROR_GEN_FAILURE;
        }
        return true; // a failed removal does not stop the walk
    }};
} // namespace

SWL_CUSTOM_ACTION(DisableDevices)
{
    return GuardedAction(L"DisableDevices", [&]() -> UINT {
        LogToMSI(hInstall, L"DisableDevices()");
        std::vector<CKesString> ids;
        EnumerateDeviceMgrForSupportedDevices(ids);
        UINT result = WalkDevices(hInstall, ids, kDisable, ERROR_SUCCESS);
        if (result != ERROR_GEN_FAILURE)
            ReEnumeratePCIDevices();
        LogToMSI(hInstall, L"DisableDevices() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(EnableDevices)
{
    return GuardedAction(L"EnableDevices", [&]() -> UINT {
        LogToMSI(hInstall, L"EnableDevices()");
        Sleep(1000);
        std::vector<CKesString> ids;
        EnumerateDeviceMgrForSupportedDevices(ids);
        UINT result = WalkDevices(hInstall, ids, kEnable, ERROR_SUCCESS);
        LogToMSI(hInstall, L"EnableDevices() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(RemoveDevices)
{
    return GuardedAction(L"RemoveDevices", [&]() -> UINT {
        LogToMSI(hInstall, L"RemoveDevices()");
        ReportActionStart(hInstall, LoadResString(IDS_REMOVING_DEVICES), L"");
        std::vector<CKesString> ids;
        EnumerateDeviceMgrForSupportedDevices(ids);
        UINT result = WalkDevices(hInstall, ids, kRemove, ERROR_SUCCESS);
        LogToMSI(hInstall, L"RemoveDevices() - Exit");
        return result;
    });
}
