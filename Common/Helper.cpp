#include "Helper.h"

namespace
{
const wchar_t kTorqKey[] = L"SOFTWARE\\CORVANE\\Network_Services\\TORQ";
const wchar_t kKes2Key[] = L"SOFTWARE\\CORVANE\\Network_Services\\KES2";
const DWORD kValueChars = MAX_PATH;

// The REG_SZ value, or an empty string when it is missing, of another type or too long.
CKesString ReadMachineString(const wchar_t* subKey, const wchar_t* valueName)
{
    wchar_t buffer[kValueChars] = {};
    DWORD bytes = sizeof(buffer);
    LSTATUS status = ::RegGetValueW(HKEY_LOCAL_MACHINE, subKey, valueName, RRF_RT_REG_SZ, nullptr, buffer, &bytes);
    return status == ERROR_SUCCESS ? CKesString(buffer) : CKesString();
}
} // namespace

CKesString CHelper::CommonResourceLibraryName()
{
    CKesString name(L"CommonRes");
    name.append(ReadMachineString(kTorqKey, L"LocalLanguage"));
    return name;
}

HMODULE CHelper::LoadResourceLibrary(const CKesString& name)
{
    const wchar_t* const keys[] = {kTorqKey, kKes2Key};
    const wchar_t* const values[] = {L"ResourceDir", L"InstallDir"};
    for (const wchar_t* key : keys)
    {
        for (const wchar_t* value : values)
        {
            CKesString path = ReadMachineString(key, value);
            if (path.empty())
                continue;
            if (path.back() != L'\\' && path.back() != L'/')
                path.append(L"\\");
            path.append(name);
            path.append(L".dll");
            if (HMODULE module = ::LoadLibraryW(path))
                return module;
        }
    }
    return ::LoadLibraryW(name);
}
