#include "TestRegistry.h"
#include <cstdio>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

bool SetRaw(const std::wstring& path, const std::wstring& name, DWORD type, const void* data, DWORD size)
{
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), type, data, size) == ERROR_SUCCESS;
}
} // namespace

namespace testreg
{
bool CreateKey(const std::wstring& path)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr))
        return false;
    RegCloseKey(key);
    return true;
}

void DeleteTree(const std::wstring& path)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
}

bool KeyExists(const std::wstring& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

bool SetString(const std::wstring& path, const std::wstring& name, const std::wstring& value)
{
    return SetRaw(path, name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

bool SetDword(const std::wstring& path, const std::wstring& name, DWORD value)
{
    return SetRaw(path, name, REG_DWORD, &value, sizeof(value));
}

bool SetMultiString(const std::wstring& path, const std::wstring& name, const std::vector<std::wstring>& values)
{
    std::wstring block;
    for (const auto& v : values)
        block.append(v).push_back(L'\0');
    block.push_back(L'\0');
    return SetRaw(path, name, REG_MULTI_SZ, block.data(), static_cast<DWORD>(block.size() * sizeof(wchar_t)));
}

bool DeleteValue(const std::wstring& path, const std::wstring& name)
{
    return RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str()) == ERROR_SUCCESS;
}

bool GetString(const std::wstring& path, const std::wstring& name, std::wstring& value, DWORD* type)
{
    DWORD size = 0;
    DWORD t = 0;
    const DWORD flags = RRF_RT_ANY | RRF_NOEXPAND;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), flags, &t, nullptr, &size) != ERROR_SUCCESS)
        return false;
    std::wstring buffer(size / sizeof(wchar_t) + 1, L'\0');
    if (RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), flags, &t, &buffer[0], &size) != ERROR_SUCCESS)
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
    return RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) ==
           ERROR_SUCCESS;
}
} // namespace testreg

// Every test run has a throwaway prefix, so the product key is simply
// removed before and after rather than saved and restored.
ProductKeyGuard::ProductKeyGuard(bool createEmpty)
{
    testreg::DeleteTree(kProduct);
    if (createEmpty)
        testreg::CreateKey(kProduct);
}

ProductKeyGuard::~ProductKeyGuard()
{
    testreg::DeleteTree(kProduct);
}

TempDir::TempDir()
{
    wchar_t dir[MAX_PATH];
    wchar_t path[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, L"tst", 0, path);
    DeleteFileW(path);
    CreateDirectoryW(path, nullptr);
    m_path = path;
}

TempDir::~TempDir()
{
    RemoveTree(m_path);
}

void RemoveTree(const std::wstring& path)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
        {
            std::wstring name = data.cFileName;
            std::wstring full = path + L"\\" + name;
            if (name == L"." || name == L"..")
                continue;
            SetFileAttributesW(full.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(full);
            else
                DeleteFileW(full.c_str());
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

std::string ReadFileBytes(const std::wstring& path)
{
    std::string bytes;
    if (FILE* f = _wfopen(path.c_str(), L"rb"))
    {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof(buffer), f)) > 0;)
            bytes.append(buffer, n);
        fclose(f);
    }
    return bytes;
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes)
{
    FILE* f = _wfopen(path.c_str(), L"wb");
    if (!f)
        return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    fclose(f);
    return ok;
}

bool FileExists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}
