#include "ToolStandIn.h"
#include "TestRegistry.h"

bool InstallToolStandIn(const std::wstring& path)
{
    wchar_t own[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, own, MAX_PATH);
    std::wstring standIn(own);
    standIn.resize(standIn.rfind(L'\\') + 1);
    standIn += L"swl_tool_standin.exe";
    return CopyFileW(standIn.c_str(), path.c_str(), FALSE) != FALSE;
}

std::vector<std::wstring> ToolStandInRuns(const std::wstring& path)
{
    const std::string bytes = ReadFileBytes(path + L".calls");
    const std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
    std::vector<std::wstring> runs;
    for (size_t start = 0, end; (end = text.find(L'\n', start)) != std::wstring::npos; start = end + 1)
        runs.push_back(text.substr(start, end - start));
    return runs;
}

ToolStandInBehaviour::ToolStandInBehaviour(DWORD runMs, DWORD exitCode, bool moveSelf)
{
    SetEnvironmentVariableW(L"SWL_STANDIN_RUN_MS", std::to_wstring(runMs).c_str());
    SetEnvironmentVariableW(L"SWL_STANDIN_EXIT_CODE", std::to_wstring(exitCode).c_str());
    SetEnvironmentVariableW(L"SWL_STANDIN_MOVE_SELF", moveSelf ? L"1" : nullptr);
}

ToolStandInBehaviour::~ToolStandInBehaviour()
{
    for (const wchar_t* name : {L"SWL_STANDIN_RUN_MS", L"SWL_STANDIN_EXIT_CODE", L"SWL_STANDIN_MOVE_SELF"})
        SetEnvironmentVariableW(name, nullptr);
}
