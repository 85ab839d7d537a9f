// A test-only custom action for the scenarios that check the device test support from inside msiexec:
// it logs the PCI devices SetupAPI lists, then loads newdev.dll and cfgmgr32.dll by name, as the
// installer does, calls them for the first Swiftlane device and logs what they answered.
#include <windows.h>
#include <msi.h>
#include <msiquery.h>
#include <setupapi.h>
#include <cstdio>
#include <string>

namespace
{
void Log(MSIHANDLE install, const std::wstring& text)
{
    PMSIHANDLE record = MsiCreateRecord(2);
    MsiRecordSetStringW(record, 1, L"");
    MsiRecordSetStringW(record, 2, text.c_str());
    MsiProcessMessage(install, INSTALLMESSAGE_INFO, record);
}

std::wstring Format(const wchar_t* format, ...)
{
    wchar_t text[512];
    va_list arguments;
    va_start(arguments, format);
    _vsnwprintf(text, 511, format, arguments);
    va_end(arguments);
    text[511] = L'\0';
    return text;
}
} // namespace

extern "C" UINT __stdcall ProbeDevices(MSIHANDLE install)
{
    std::wstring first; // the first device of vendor 1F2E
    HDEVINFO set = SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD i = 0; SetupDiEnumDeviceInfo(set, i, &device); ++i)
    {
        wchar_t id[256];
        if (!SetupDiGetDeviceInstanceIdW(set, &device, id, 256, nullptr) || wcsncmp(id, L"PCI\\", 4))
            continue;
        Log(install, std::wstring(L"device: ") + id);
        if (first.empty() && !wcsncmp(id, L"PCI\\VEN_1F2E&", 13))
            first = id;
    }
    SetupDiDestroyDeviceInfoList(set);
    const std::wstring hardwareId = first.substr(0, first.rfind(L'\\'));

    using Update = BOOL(WINAPI*)(HWND, LPCWSTR, LPCWSTR, DWORD, PBOOL);
    HMODULE newdev = LoadLibraryW(L"newdev.dll");
    if (auto update = reinterpret_cast<Update>(GetProcAddress(newdev, "UpdateDriverForPlugAndPlayDevicesW")))
    {
        BOOL reboot = FALSE;
        SetLastError(0);
        const BOOL result = update(nullptr, hardwareId.c_str(), L"C:\\stand-in\\hwa_swl4.inf", 0, &reboot);
        Log(install, Format(L"UpdateDriverForPlugAndPlayDevicesW: %d, error 0x%08X, reboot %d", result,
                            static_cast<unsigned>(GetLastError()), reboot));
    }
    FreeLibrary(newdev);

    using Locate = DWORD(WINAPI*)(DWORD*, const char*, ULONG);
    using Reenumerate = DWORD(WINAPI*)(DWORD, ULONG);
    HMODULE cfgmgr32 = LoadLibraryW(L"cfgmgr32.dll");
    auto locate = reinterpret_cast<Locate>(GetProcAddress(cfgmgr32, "CM_Locate_DevNodeA"));
    auto reenumerate = reinterpret_cast<Reenumerate>(GetProcAddress(cfgmgr32, "CM_Reenumerate_DevNode"));
    if (locate && reenumerate)
    {
        const std::string narrow(first.begin(), first.end());
        DWORD devInst = 0;
        const DWORD located = locate(&devInst, narrow.c_str(), 0);
        Log(install, Format(L"CM_Locate_DevNodeA: 0x%X, DEVINST %u", static_cast<unsigned>(located),
                            static_cast<unsigned>(devInst)));
        Log(install, Format(L"CM_Reenumerate_DevNode: 0x%X", static_cast<unsigned>(reenumerate(devInst, 0))));
    }
    FreeLibrary(cfgmgr32);
    return ERROR_SUCCESS;
}
