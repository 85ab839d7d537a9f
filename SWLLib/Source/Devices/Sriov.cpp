// SR-IOV configuration of the installed devices.
#include "Devices/Sriov.h"
#include "Devices/DeviceCatalogue.h"
#include "Devices/HardwareDiscovery.h"
#include "KesTrace.h"
#include "Payload/InstallSummary.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"

namespace
{
const DWORD kNameChars = 260;

// Calls visit(path) for each instance key of every hardware key under Enum\PCI
// that the catalogue supports; path is "<Enum\PCI>\<hardware key>\<instance>".
template <class Visit>
void ForEachSupportedInstance(Visit&& visit)
{
    UniqueHKey pci;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPciEnumKey, 0, KEY_ENUMERATE_SUB_KEYS, pci.put()) != ERROR_SUCCESS)
        return;
    wchar_t name[kNameChars];
    for (DWORD index = 0;; ++index)
    {
        DWORD chars = kNameChars;
        LONG status = RegEnumKeyExW(pci.get(), index, name, &chars, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS)
            break;
        if (status != ERROR_SUCCESS)
            continue;
        CKesString hardwarePath(kPciEnumKey);
        hardwarePath += L"\\";
        hardwarePath += name;
        if (!g_SWLDevices.IsDeviceIDSupported(hardwarePath))
            continue;
        UniqueHKey hardware;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, hardwarePath, 0, KEY_ENUMERATE_SUB_KEYS, hardware.put()) !=
            ERROR_SUCCESS)
            continue;
        wchar_t instance[kNameChars];
        for (DWORD instanceIndex = 0;; ++instanceIndex)
        {
            chars = kNameChars;
            status = RegEnumKeyExW(hardware.get(), instanceIndex, instance, &chars, nullptr, nullptr, nullptr, nullptr);
            if (status == ERROR_NO_MORE_ITEMS)
                break;
            if (status == ERROR_SUCCESS)
                visit(hardwarePath, instance);
        }
    }
}
} // namespace

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

        ForEachSupportedInstance([&](const CKesString& hardwarePath, const wchar_t* instance) {
            CKesString sriovPath(hardwarePath);
            sriovPath += L"\\";
            sriovPath += instance;
            sriovPath += L"\\Device Parameters\\Sriov";
            UniqueHKey sriov;
            if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, sriovPath, 0, KEY_ALL_ACCESS, sriov.put()) != ERROR_SUCCESS)
                return;
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
        });

        LogToMSI(hInstall, L"SetRegistryKeyForEnableSriov() - Exit");
        return ERROR_SUCCESS;
    });
}
