#include "DllDoubles.h"
#include "TestFolders.h"
#include "TestRegistry.h"
#include <stdexcept>

namespace
{
const std::wstring kRoot = L"SOFTWARE\\SWLTest\\Doubles";
const std::wstring kNewdev = kRoot + L"\\newdev", kCfgmgr = kRoot + L"\\cfgmgr32";

// The Calls\NNNN keys of a double, in call order.
std::vector<std::wstring> CallKeys(const std::wstring& double_)
{
    std::vector<std::wstring> keys;
    for (int i = 1;; ++i)
    {
        wchar_t name[16];
        swprintf(name, 16, L"\\Calls\\%04d", i);
        if (!testreg::KeyExists(double_ + name))
            return keys;
        keys.push_back(double_ + name);
    }
}

std::wstring Text(const std::wstring& key, const wchar_t* name)
{
    std::wstring value;
    testreg::GetString(key, name, value);
    return value;
}

DWORD Number(const std::wstring& key, const wchar_t* name)
{
    std::string bytes;
    DWORD value = 0;
    if (testreg::GetBytes(key, name, bytes) && bytes.size() == sizeof(value))
        memcpy(&value, bytes.data(), sizeof(value));
    return value;
}
} // namespace

std::wstring DllDoubles::Folder()
{
    return TestFolder("SWL_TEST_DOUBLES");
}

DllDoubles::DllDoubles()
{
    const std::wstring folder = Folder();
    testreg::DeleteTree(kRoot);
    if (!SetDllDirectoryW(folder.c_str()))
        throw std::runtime_error("SetDllDirectoryW failed for the doubles' folder");
}

DllDoubles::~DllDoubles()
{
    SetDllDirectoryW(nullptr);
    testreg::DeleteTree(kRoot);
}

void DllDoubles::UpdateDriverReturns(BOOL result, DWORD lastError, BOOL reboot)
{
    testreg::SetDword(kNewdev, L"Result", static_cast<DWORD>(result));
    testreg::SetDword(kNewdev, L"LastError", lastError);
    testreg::SetDword(kNewdev, L"Reboot", static_cast<DWORD>(reboot));
}

void DllDoubles::LocateDevNodeReturns(DWORD configRet, DWORD devInst)
{
    testreg::SetDword(kCfgmgr, L"LocateResult", configRet);
    testreg::SetDword(kCfgmgr, L"DevInst", devInst);
}

void DllDoubles::ReenumerateDevNodeReturns(DWORD configRet)
{
    testreg::SetDword(kCfgmgr, L"ReenumerateResult", configRet);
}

std::vector<UpdateDriverCall> DllDoubles::UpdateDriverCalls() const
{
    std::vector<UpdateDriverCall> calls;
    for (const auto& key : CallKeys(kNewdev))
        calls.push_back({Text(key, L"HardwareId"), Text(key, L"FullInfPath"), Number(key, L"InstallFlags"),
                         Number(key, L"RebootPointer") != 0, Text(key, L"Process")});
    return calls;
}

std::vector<ConfigManagerCall> DllDoubles::ConfigManagerCalls() const
{
    std::vector<ConfigManagerCall> calls;
    for (const auto& key : CallKeys(kCfgmgr))
        calls.push_back({Text(key, L"Function"), Text(key, L"DeviceID"), testreg::ValueExists(key, L"DeviceID"),
                         Number(key, L"DevInst"), Number(key, L"Flags")});
    return calls;
}
