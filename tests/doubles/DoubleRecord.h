#pragma once
// Shared by the newdev.dll and cfgmgr32.dll test doubles: what a test scripted
// for them and the record of each call, both in the registry so that a test can
// script a double that runs in another process (the Installer's custom-action
// server). Layout, under HKLM\SOFTWARE\SWLTest\Doubles\<double>:
//   <outcome values>     REG_DWORD, read on every call (see each double)
//   Calls\0001, 0002...  one key per call, in call order, with its arguments
//                        and "Process", the full path of the calling program
// The doubles link nothing but kernel32 and advapi32 and never forward to the
// real DLLs.
#include <windows.h>
#include <stdio.h>

namespace doublerecord
{
inline const wchar_t* const kRoot = L"SOFTWARE\\SWLTest\\Doubles\\";

inline DWORD ScriptedDword(const wchar_t* double_, const wchar_t* name, DWORD fallback)
{
    wchar_t path[128];
    _snwprintf(path, 128, L"%ls%ls", kRoot, double_);
    DWORD value = 0, size = sizeof(value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, path, name, RRF_RT_REG_DWORD, nullptr, &value, &size) == ERROR_SUCCESS
               ? value
               : fallback;
}

// Creates the next Calls\NNNN key and records the calling program in it; null when the registry refuses.
inline HKEY NewCallKey(const wchar_t* double_)
{
    wchar_t path[160];
    _snwprintf(path, 160, L"%ls%ls\\Calls", kRoot, double_);
    HKEY calls = nullptr, call = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &calls, nullptr))
        return nullptr;
    DWORD count = 0;
    RegQueryInfoKeyW(calls, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr);
    wchar_t name[16];
    _snwprintf(name, 16, L"%04lu", count + 1);
    RegCreateKeyExW(calls, name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &call, nullptr);
    RegCloseKey(calls);
    if (call)
    {
        wchar_t program[MAX_PATH] = L"";
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        RegSetValueExW(call, L"Process", 0, REG_SZ, reinterpret_cast<const BYTE*>(program),
                       static_cast<DWORD>((wcslen(program) + 1) * sizeof(wchar_t)));
    }
    return call;
}

inline void SetString(HKEY key, const wchar_t* name, const wchar_t* text)
{
    if (key && text)
        RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text),
                       static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
}

inline void SetDword(HKEY key, const wchar_t* name, DWORD value)
{
    if (key)
        RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
}
} // namespace doublerecord
