#include "TestRegistry.h"
#include <cstdio>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const REGSAM kView = KEY_WOW64_64KEY;
} // namespace

namespace testreg
{
bool CreateKey(const std::wstring& path)
{
    HKEY key = nullptr;
    LONG r = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | kView, nullptr, &key,
                             nullptr);
    if (r == ERROR_SUCCESS)
        RegCloseKey(key);
    return r == ERROR_SUCCESS;
}

void DeleteTree(const std::wstring& path)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
    RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), kView, 0);
}

bool KeyExists(const std::wstring& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | kView, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

static bool SetRaw(const std::wstring& path, const std::wstring& name, DWORD type, const void* data, DWORD size)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | kView, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
        return false;
    LONG r = RegSetValueExW(key, name.c_str(), 0, type, static_cast<const BYTE*>(data), size);
    RegCloseKey(key);
    return r == ERROR_SUCCESS;
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
    {
        block += v;
        block.push_back(L'\0');
    }
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
    if (RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &t, nullptr, &size) !=
        ERROR_SUCCESS)
        return false;
    std::wstring buffer(size / sizeof(wchar_t) + 1, L'\0');
    if (RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &t, &buffer[0],
                     &size) != ERROR_SUCCESS)
        return false;
    buffer.resize(size / sizeof(wchar_t));
    while (!buffer.empty() && buffer.back() == L'\0' && t != REG_MULTI_SZ)
        buffer.pop_back();
    value = buffer;
    if (type)
        *type = t;
    return true;
}

bool GetDword(const std::wstring& path, const std::wstring& name, DWORD& value)
{
    DWORD size = sizeof(value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), RRF_RT_REG_DWORD, nullptr, &value, &size) ==
           ERROR_SUCCESS;
}

bool ValueExists(const std::wstring& path, const std::wstring& name)
{
    return RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) ==
           ERROR_SUCCESS;
}
} // namespace testreg

ProductKeyGuard::ProductKeyGuard(bool createEmpty)
{
    // Keep a copy of whatever an earlier step left, then start clean.
    m_backup = std::wstring(kProduct) + L"_TestBackup";
    testreg::DeleteTree(m_backup);
    if (testreg::KeyExists(kProduct))
    {
        testreg::CreateKey(m_backup);
        HKEY from = nullptr;
        HKEY to = nullptr;
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_READ | kView, &from);
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, m_backup.c_str(), 0, KEY_ALL_ACCESS | kView, &to);
        if (from && to)
            RegCopyTreeW(from, nullptr, to);
        if (from)
            RegCloseKey(from);
        if (to)
            RegCloseKey(to);
    }
    testreg::DeleteTree(kProduct);
    if (createEmpty)
        testreg::CreateKey(kProduct);
}

ProductKeyGuard::~ProductKeyGuard()
{
    testreg::DeleteTree(kProduct);
    if (testreg::KeyExists(m_backup))
    {
        testreg::CreateKey(kProduct);
        HKEY from = nullptr;
        HKEY to = nullptr;
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, m_backup.c_str(), 0, KEY_READ | kView, &from);
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_ALL_ACCESS | kView, &to);
        if (from && to)
            RegCopyTreeW(from, nullptr, to);
        if (from)
            RegCloseKey(from);
        if (to)
            RegCloseKey(to);
        testreg::DeleteTree(m_backup);
    }
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
            if (name == L"." || name == L"..")
                continue;
            std::wstring full = path + L"\\" + name;
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
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f)
        return bytes;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), f)) > 0)
        bytes.append(buffer, n);
    fclose(f);
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
