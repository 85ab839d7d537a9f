// SR-IOV configuration of the installed devices.
#include "Devices/Sriov.h"
#include "Devices/HardwareDiscovery.h"
#include "KesTrace.h"
#include "Payload/InstallSummary.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"

SWL_CUSTOM_ACTION(SetRegistryKeyForEnableSriov)
{
    return GuardedAction(L"SetRegistryKeyForEnableSriov", [&]() -> UINT {
        CKesDebugScope scope(L"SetRegistryKeyForEnableSriov");
        LogToMSI(hInstall, L"SetRegistryKeyForEnableSriov()");

        CKesString data;
        const bool hyperVMode = GetMSIProperty(hInstall, L"CustomActionData", data) && data == L"1";
        if (hyperVMode)
        {
            WriteInstallSummary(hInstall, true);
            LogToMSI(hInstall, L"HyperVMode set to 1");
        }

        const auto nothing = [] {};
        WalkSupportedPciInstances([&](const CKesString& hardwarePath, const wchar_t* instance) {
            CKesString sriovPath(hardwarePath);
            sriovPath += L"\\";
            sriovPath += instance;
            sriovPath += L"\\Device Parameters\\Sriov";
            UniqueHKey sriov;
            if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, sriovPath, 0, KEY_ALL_ACCESS, sriov.put()) != ERROR_SUCCESS)
                return true;
            DWORD enable = hyperVMode ? 1 : 0;
            if (hyperVMode)
            {
                LogToMSI(hInstall, L"Set EnableSriov to 1");
                LogToMSI(hInstall, L"device instance ", instance);
            }
            else
            {
                LogToMSI(hInstall, L"Set EnableSriov to 0");
            }
            if (RegSetValueExW(sriov.get(), L"EnableSriov", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&enable),
                               sizeof(enable)) != ERROR_SUCCESS)
                LogToMSI(hInstall, L"ERROR:Write registry entry for EnableSriov FAILED!");
            return true;
        }, nothing, nothing);

        LogToMSI(hInstall, L"SetRegistryKeyForEnableSriov() - Exit");
        return ERROR_SUCCESS;
    });
}
