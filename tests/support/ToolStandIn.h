#pragma once
// The test stand-in swl_tool_standin.exe (tests/services/programs/ToolStandIn.cpp)
// installed under the name of a program a custom action starts.
#include <windows.h>
#include <string>
#include <vector>

// Copies the stand-in from this program's folder to path (its folder must exist).
bool InstallToolStandIn(const std::wstring& path);
// The command lines recorded by finished runs of the stand-in at path, in order.
std::vector<std::wstring> ToolStandInRuns(const std::wstring& path);

// How the stand-ins started while this object lives behave (through the
// environment they inherit); the defaults again afterwards.
class ToolStandInBehaviour
{
public:
    explicit ToolStandInBehaviour(DWORD runMs, DWORD exitCode = 0, bool moveSelf = false);
    ~ToolStandInBehaviour();
    ToolStandInBehaviour(const ToolStandInBehaviour&) = delete;
    ToolStandInBehaviour& operator=(const ToolStandInBehaviour&) = delete;
};
