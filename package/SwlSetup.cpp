// SwlSetup.exe, the launcher of CorvaneSWL.msi: starts Windows Installer on the
// package in its own folder, passes its arguments through, waits and returns
// Installer's exit code. The package's first action checks that the launcher
// is running; the uninstall entry's command runs without it (ARPREMOVE=1).
//
//   SwlSetup.exe [/x | /uninstall] [msiexec options and PROPERTY=value ...]
//
// Without /x (or /uninstall) the package is installed (/i). Every other
// argument reaches msiexec exactly as it was written, quotes included.
#include "UniqueHandle.h"
#include <windows.h>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace
{
const wchar_t* const kPackageName = L"CorvaneSWL.msi";
// What msiexec answers for a package that cannot be opened.
const DWORD kPackageOpenFailed = 1619;

// The arguments after the program name, each spelled as written: split at
// blanks outside double quotes.
std::vector<std::wstring> RawArguments()
{
    const wchar_t* line = GetCommandLineW();
    bool quoted = false;
    // Skip the program name, which may be quoted.
    for (; *line != L'\0' && (quoted || (*line != L' ' && *line != L'\t')); ++line)
        if (*line == L'"')
            quoted = !quoted;
    std::vector<std::wstring> arguments;
    std::wstring current;
    quoted = false;
    for (; *line != L'\0'; ++line)
    {
        if (!quoted && (*line == L' ' || *line == L'\t'))
        {
            if (!current.empty())
                arguments.push_back(current);
            current.clear();
            continue;
        }
        if (*line == L'"')
            quoted = !quoted;
        current += *line;
    }
    if (!current.empty())
        arguments.push_back(current);
    return arguments;
}

std::wstring OwnFolder()
{
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\'));
}
} // namespace

int wmain()
{
    std::wstring mode = L"/i";
    std::wstring options;
    for (const std::wstring& argument : RawArguments())
    {
        if (_wcsicmp(argument.c_str(), L"/x") == 0 || _wcsicmp(argument.c_str(), L"/uninstall") == 0)
            mode = L"/x";
        else
            options += L" " + argument;
    }

    const std::wstring package = OwnFolder() + L"\\" + kPackageName;
    if (GetFileAttributesW(package.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        std::fwprintf(stderr, L"SwlSetup: %ls is missing\n", package.c_str());
        return static_cast<int>(kPackageOpenFailed);
    }
    wchar_t system[MAX_PATH] = {};
    const UINT length = GetSystemDirectoryW(system, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return static_cast<int>(ERROR_PATH_NOT_FOUND);
    const std::wstring msiexec = std::wstring(system) + L"\\msiexec.exe";
    std::wstring command = L"\"" + msiexec + L"\" " + mode + L" \"" + package + L"\"" + options;

    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(msiexec.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process))
    {
        const DWORD error = GetLastError();
        std::fwprintf(stderr, L"SwlSetup: cannot start %ls (error %lu)\n", msiexec.c_str(), error);
        return static_cast<int>(error);
    }
    UniqueKernelHandle installer(process.hProcess);
    UniqueKernelHandle thread(process.hThread);
    // The launcher stays until Installer ends: the package looks for it while it runs.
    WaitForSingleObject(installer.get(), INFINITE);
    DWORD exitCode = 1;
    GetExitCodeProcess(installer.get(), &exitCode);
    return static_cast<int>(exitCode);
}
