#include "TestRegistry.h"
#include "UniqueHandle.h"
#include <shlwapi.h>
#include <filesystem>
#include <fstream>
#include <iterator>

const HKEY HKLM = HKEY_LOCAL_MACHINE;

namespace testreg
{
bool CreateKey(const std::wstring& path)
{
    UniqueHKey key;
    return RegCreateKeyExW(HKLM, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(), nullptr) ==
           ERROR_SUCCESS;
}

void DeleteTree(const std::wstring& path)
{
    SHDeleteKeyW(HKLM, path.c_str());
}

bool KeyExists(const std::wstring& path)
{
    UniqueHKey key;
    return RegOpenKeyExW(HKLM, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

bool SetString(const std::wstring& path, const std::wstring& name, const std::wstring& value)
{
    const DWORD bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    return RegSetKeyValueW(HKLM, path.c_str(), name.c_str(), REG_SZ, value.c_str(), bytes) == ERROR_SUCCESS;
}

bool SetDword(const std::wstring& path, const std::wstring& name, DWORD value)
{
    return RegSetKeyValueW(HKLM, path.c_str(), name.c_str(), REG_DWORD, &value, sizeof(value)) == ERROR_SUCCESS;
}

bool SetBytes(const std::wstring& path, const std::wstring& name, DWORD type, const std::string& bytes)
{
    return RegSetKeyValueW(HKLM, path.c_str(), name.c_str(), type, bytes.data(), static_cast<DWORD>(bytes.size())) ==
           ERROR_SUCCESS;
}

bool GetBytes(const std::wstring& path, const std::wstring& name, std::string& bytes)
{
    // RegQueryValueExW, not RegGetValueW, which would add terminators to string types.
    UniqueHKey key;
    std::string buffer(65536, '\0');
    DWORD size = static_cast<DWORD>(buffer.size());
    if (RegOpenKeyExW(HKLM, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
        RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&buffer[0]), &size) !=
            ERROR_SUCCESS)
        return false;
    bytes = buffer.substr(0, size);
    return true;
}

bool DeleteValue(const std::wstring& path, const std::wstring& name)
{
    return RegDeleteKeyValueW(HKLM, path.c_str(), name.c_str()) == ERROR_SUCCESS;
}

bool GetString(const std::wstring& path, const std::wstring& name, std::wstring& value, DWORD* type)
{
    std::wstring buffer(32768, L'\0'); // more than any test stores
    DWORD size = static_cast<DWORD>(buffer.size() * sizeof(wchar_t)), t = 0;
    if (RegGetValueW(HKLM, path.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &t, &buffer[0], &size) != 0)
        return false;
    buffer.resize(size / sizeof(wchar_t));
    while (!buffer.empty() && buffer.back() == L'\0' && t != REG_MULTI_SZ)
        buffer.pop_back();
    value = buffer;
    if (type)
        *type = t;
    return true;
}

bool ValueExists(const std::wstring& path, const std::wstring& name)
{
    return RegGetValueW(HKLM, path.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}
} // namespace testreg

// Every test run has a throwaway prefix: the key is removed, not saved and restored.
ProductKeyGuard::ProductKeyGuard(bool createEmpty)
{
    testreg::DeleteTree(L"SOFTWARE\\CORVANE\\SWL");
    if (createEmpty)
        testreg::CreateKey(L"SOFTWARE\\CORVANE\\SWL");
}

TempDir::TempDir()
{
    wchar_t dir[MAX_PATH], path[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, L"tst", 0, path);
    DeleteFileW(path); // the unique name becomes the folder's
    CreateDirectoryW(path, nullptr);
    m_path = path;
}

void RemoveTree(const std::wstring& path)
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string ReadFileBytes(const std::wstring& path)
{
    std::ifstream file(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes)
{
    std::ofstream file(path.c_str(), std::ios::binary);
    return file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush().good();
}

bool FileExists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}
