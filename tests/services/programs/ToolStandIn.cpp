// swl_tool_standin: TEST STAND-IN for the external programs the custom actions
// start (TpxCNGInstaller.exe, vcredist.exe). Tests copy it under those names
// (tests/support/ToolStandIn.h). It is not the real tool and does nothing but:
//   - sleep SWL_STANDIN_RUN_MS milliseconds (environment; default 0),
//   - with SWL_STANDIN_MOVE_SELF=1, rename its own file to "<own path>.moved",
//     so that a later start of the same path fails,
//   - append its command line and a line feed (UTF-16) to "<own path>.calls",
//     last, so that a record shows that the run ended,
//   - exit with SWL_STANDIN_EXIT_CODE (default 0).
#include <windows.h>
#include <cwchar>
#include <cstdlib>
#include <string>

namespace
{
DWORD EnvironmentNumber(const wchar_t* name)
{
    wchar_t value[32] = {};
    const DWORD length = GetEnvironmentVariableW(name, value, 32);
    return length > 0 && length < 32 ? std::wcstoul(value, nullptr, 10) : 0;
}

std::wstring OwnPath()
{
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size())));
    return path;
}
} // namespace

int main()
{
    const std::wstring self = OwnPath();
    Sleep(EnvironmentNumber(L"SWL_STANDIN_RUN_MS"));
    if (EnvironmentNumber(L"SWL_STANDIN_MOVE_SELF") == 1)
        MoveFileW(self.c_str(), (self + L".moved").c_str());

    const std::wstring record = std::wstring(GetCommandLineW()) + L"\n";
    HANDLE calls = CreateFileW((self + L".calls").c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
    if (calls == INVALID_HANDLE_VALUE)
        return 100;
    DWORD written = 0;
    WriteFile(calls, record.data(), static_cast<DWORD>(record.size() * sizeof(wchar_t)), &written, nullptr);
    CloseHandle(calls);
    return static_cast<int>(EnvironmentNumber(L"SWL_STANDIN_EXIT_CODE"));
}
