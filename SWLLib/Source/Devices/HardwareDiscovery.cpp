// Hardware discovery through WMI and the registry, and the hardware check.
#include "Devices/HardwareDiscovery.h"
#include "Devices/DeviceCatalogue.h"
#include "Devices/DriverInstall.h"
#include "KesTrace.h"
#include "Payload/PreInstallChecks.h"
#include "Payload/SoftwareFallback.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include "resource.h"
#include <oleauto.h>
#include <wbemidl.h>
#include <algorithm>
#include <cwchar>

const wchar_t* const kPciEnumKey = L"SYSTEM\\CurrentControlSet\\Enum\\PCI";

namespace
{
const DWORD kNameChars = 260;
// The first read of "ServicesNeeded" is offered this many bytes.
const DWORD kServicesNeededBytes = 260;

// Releases the VARIANT it holds.
struct ScopedVariant
{
    ScopedVariant() { VariantInit(&value); }
    ~ScopedVariant() { VariantClear(&value); }
    VARIANT value;
};

// A string property of a WMI object as a BSTR that frees itself.
struct ScopedBstr
{
    explicit ScopedBstr(const wchar_t* text) : value(SysAllocString(text)) {}
    ~ScopedBstr() { SysFreeString(value); }
    BSTR value;
};

bool IsAcceptedServiceSet(const wchar_t* value)
{
    for (const wchar_t* accepted : {L"asym;dc", L"sym;dc", L"sym;asym", L"asym;sym"})
        if (std::wcscmp(value, accepted) == 0)
            return true;
    return false;
}
} // namespace

bool EnumerateDeviceMgrForSupportedDevices(std::vector<CKesString>& devices)
{
    CKesDebugScope scope(L"EnumerateDeviceMgrForSupportedDevices");
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
        return false;

    ComRef<IWbemLocator> locator;
    if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                reinterpret_cast<void**>(locator.put()))))
        return false; // COM deliberately stays initialised here, as it always has

    {
        ComRef<IWbemServices> services;
        ComRef<IEnumWbemClassObject> enumerator;
        ScopedBstr nameSpace(L"ROOT\\CIMV2");
        ScopedBstr language(L"WQL");
        ScopedBstr query(L"SELECT * FROM Win32_PnPEntity");
        if (SUCCEEDED(locator->ConnectServer(nameSpace.value, nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                             services.put())) &&
            SUCCEEDED(CoSetProxyBlanket(services.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                        RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE)) &&
            SUCCEEDED(services->ExecQuery(language.value, query.value,
                                          WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
                                          enumerator.put())))
        {
            for (;;)
            {
                ComRef<IWbemClassObject> object;
                ULONG returned = 0;
                HRESULT hr = enumerator->Next(WBEM_INFINITE, 1, object.put(), &returned);
                if (hr == WBEM_S_FALSE || FAILED(hr) || returned == 0)
                    break;
                ScopedVariant id;
                if (FAILED(object->Get(L"DeviceID", 0, &id.value, nullptr, nullptr)))
                    continue;
                CKesString deviceID(id.value.vt == VT_BSTR ? id.value.bstrVal : L"");
                const size_t cut = deviceID.rfind(L'\\');
                if (cut == CKesString::npos)
                    continue;
                deviceID.erase(cut);
                if (g_SWLDevices.IsDeviceIDSupported(deviceID) &&
                    std::find(devices.begin(), devices.end(), deviceID) == devices.end())
                    devices.push_back(deviceID);
            }
        }
        // The interfaces are released before COM is uninitialised.
    }
    locator.reset();
    CoUninitialize();
    return !devices.empty();
}

bool WalkSupportedPciInstances(const std::function<bool(const CKesString&, const wchar_t*)>& instance,
                               const std::function<void()>& hardwareKeyUnreadable,
                               const std::function<void()>& hardwareKeyDone)
{
    UniqueHKey pci;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPciEnumKey, 0, KEY_ENUMERATE_SUB_KEYS, pci.put()) != ERROR_SUCCESS)
        return false;
    wchar_t name[kNameChars];
    for (DWORD index = 0;; ++index)
    {
        DWORD chars = kNameChars; // reset before every call
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
        {
            hardwareKeyUnreadable();
            continue;
        }
        wchar_t instanceName[kNameChars];
        for (DWORD instanceIndex = 0;; ++instanceIndex)
        {
            chars = kNameChars;
            status = RegEnumKeyExW(hardware.get(), instanceIndex, instanceName, &chars, nullptr, nullptr, nullptr,
                                   nullptr);
            if (status == ERROR_NO_MORE_ITEMS)
                break;
            if (status == ERROR_SUCCESS && !instance(hardwarePath, instanceName))
                break;
        }
        hardwareKeyDone();
    }
    return true;
}

bool SearchRegistryForCryptoCompatibility()
{
    const MSIHANDLE hInstall = g_hInstallDriversSession;
    bool result = true;
    LogToMSI(hInstall, L"SearchRegistryForCryptoCompatibility");

    // Deliberately never reset: a later instance is offered only as many bytes
    // as the last successful read returned, so a longer value fails to read and
    // that instance counts neither way.
    DWORD offered = kServicesNeededBytes;
    const auto readInstance = [&](const CKesString& hardwarePath, const wchar_t* instance) {
        CKesString generalPath(hardwarePath);
        generalPath += L"\\";
        generalPath += instance;
        generalPath += L"\\Device Parameters\\General";
        UniqueHKey general;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, generalPath, 0, KEY_ALL_ACCESS, general.put()) != ERROR_SUCCESS)
            return true;
        // The type is not checked. One character more than the largest offer
        // keeps the text terminated whatever was stored.
        wchar_t value[kServicesNeededBytes / sizeof(wchar_t) + 1] = {};
        DWORD bytes = offered;
        if (RegQueryValueExW(general.get(), L"ServicesNeeded", nullptr, nullptr, reinterpret_cast<BYTE*>(value),
                             &bytes) != ERROR_SUCCESS)
            return true;
        offered = bytes;
        if (IsAcceptedServiceSet(value))
        {
            LogToMSI(hInstall, L"CRYPTO enabled, register value is ", value);
            return true;
        }
        LogToMSI(hInstall, L"CRYPTO not enabled, register value is ", value);
        result = false;
        return false; // the rest of this device's instances are not read
    };
    if (!WalkSupportedPciInstances(readInstance, [&] { LogToMSI(hInstall, L"RegOpenKeyEx Failed with subKey"); },
                                   [&] { LogToMSI(hInstall, L"ERROR_NO_MORE_ITEMS"); }))
        LogToMSI(hInstall, L"RegOpenKeyEx Failed");
    return result;
}

bool IsSrIovSupportedByOS(MSIHANDLE hInstall)
{
    LogToMSI(hInstall, L"IsSrIovSupportedByOS()");
    COSType os(true, kProductKey);
    return os.IsServer2019OrLater();
}

UINT checkVirtualizationSupport(MSIHANDLE hInstall)
{
    LogToMSI(hInstall, L"checkVirtualizationSupport()");
    if (IsSrIovSupportedByOS(hInstall))
    {
        LogToMSI(hInstall, L"The system supports SR-IOV mode.");
        MsiSetPropertyW(hInstall, L"_IsSrIovSupported", L"Yes");
        return ERROR_SUCCESS;
    }
    LogToMSI(hInstall, L"SR-IOV is not supported. Hyper-V configuration cannot be installed.");
    CKesString hyperVMode;
    GetMSIProperty(hInstall, L"HYPERVMODE", hyperVMode);
    if (hyperVMode == L"1")
    {
        LogToMSI(hInstall, L"Hyper-V mode install cannot continue as SRIOV is not supported by OS. ");
        return ERROR_GEN_FAILURE;
    }
    return ERROR_SUCCESS;
}

SWL_CUSTOM_ACTION(VerifyHardwareOrWarn)
{
    return GuardedAction(L"VerifyHardwareOrWarn", [&]() -> UINT {
        LogToMSI(hInstall, L"VerifyHardwareOrWarn()");
        UINT result = ERROR_SUCCESS;
        bool virtualFunctions = false;
        bool harrowgate = false;

        ReEnumeratePCIDevices();
        std::vector<CKesString> devices;
        if (!EnumerateDeviceMgrForSupportedDevices(devices))
        {
            LogToMSI(hInstall, L"No Corvane(R) Swiftlane Technology compatible hardware found; cannot install");
            CKesString caption = LoadResString(IDS_WIZARD_CAPTION);
            CKesString text = LoadResString(IDS_NO_SUPPORTED_DEVICES);
            HWND owner = FindWindowW(L"MsiDialogCloseClass", nullptr);
            // 0 (no box in a silent run) is no answer, and so not a Yes.
            if (ShowMessageBox(hInstall, owner, text, caption, MB_YESNO | MB_ICONEXCLAMATION) == IDYES)
            {
                LogToMSI(hInstall, L"No supported SWL devices are present on this system. Install swlzip.dll in "
                                   L"System32.");
                if (InstallDlls(hInstall))
                    MsiSetPropertyW(hInstall, L"INSTALLDLLONLY", L"1");
                else
                    result = ERROR_GEN_FAILURE;
            }
            else
            {
                result = ERROR_GEN_FAILURE;
            }
        }

        for (const CKesString& device : devices)
        {
            LogToMSI(hInstall, L"Check VF and HRG device");
            if (IsVirtualFunctionID(device))
            {
                LogToMSI(hInstall, L"VF devices present.");
                virtualFunctions = true;
            }
            else if (IsHarrowgateDeviceID(device))
            {
                LogToMSI(hInstall, L"Harrowgate devices present.");
                harrowgate = true;
            }
        }
        if (!devices.empty() && !virtualFunctions && !harrowgate)
            result = checkVirtualizationSupport(hInstall);
        if (virtualFunctions)
            MsiSetPropertyW(hInstall, L"INSTALLVMONLY", L"1");

        LogToMSI(hInstall, L"VerifyHardwareOrWarn() - Exit");
        return result;
    });
}
