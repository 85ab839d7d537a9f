#pragma once
// Direct registry access for test set-up and checks (HKEY_LOCAL_MACHINE, 64-bit
// view), independent of the library's own registry class.
#include <windows.h>
#include <string>
#include <vector>

namespace testreg
{
bool CreateKey(const std::wstring& path);
// Removes the key and everything below it; fine when it does not exist.
void DeleteTree(const std::wstring& path);
bool KeyExists(const std::wstring& path);
bool SetString(const std::wstring& path, const std::wstring& name, const std::wstring& value);
bool SetDword(const std::wstring& path, const std::wstring& name, DWORD value);
bool DeleteValue(const std::wstring& path, const std::wstring& name);
// False when the value is missing; type receives REG_*.
bool GetString(const std::wstring& path, const std::wstring& name, std::wstring& value, DWORD* type = nullptr);
bool ValueExists(const std::wstring& path, const std::wstring& name);
// The value's bytes exactly as stored, of any type.
bool SetBytes(const std::wstring& path, const std::wstring& name, DWORD type, const std::string& bytes);
bool GetBytes(const std::wstring& path, const std::wstring& name, std::string& bytes);
} // namespace testreg

// The product key HKLM\SOFTWARE\CORVANE\SWL, removed before a test (and
// created empty when asked) and removed again afterwards.
class ProductKeyGuard
{
public:
    explicit ProductKeyGuard(bool createEmpty = true);
    ~ProductKeyGuard() { testreg::DeleteTree(L"SOFTWARE\\CORVANE\\SWL"); }
};

void RemoveTree(const std::wstring& path);

// A folder under %TEMP% that is removed with everything in it at the end.
class TempDir
{
public:
    TempDir();
    ~TempDir() { RemoveTree(m_path); }
    const std::wstring& path() const { return m_path; }
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }

private:
    std::wstring m_path;
};

std::string ReadFileBytes(const std::wstring& path);
bool WriteFileBytes(const std::wstring& path, const std::string& bytes);
bool FileExists(const std::wstring& path);
