#include "TestFolders.h"
#include <windows.h>
#include <stdexcept>

std::wstring TestFolder(const char* variable)
{
    wchar_t name[64], value[MAX_PATH];
    MultiByteToWideChar(CP_ACP, 0, variable, -1, name, 64);
    const DWORD n = GetEnvironmentVariableW(name, value, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        throw std::runtime_error(std::string(variable) + " is not set: run the test through ctest");
    std::wstring path(value, n);
    if (path[0] == L'/')
        path = L"Z:" + path; // Wine maps the Linux root to drive Z:
    for (auto& c : path)
        if (c == L'/')
            c = L'\\';
    return path;
}
