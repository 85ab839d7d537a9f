#pragma once
// The newdev.dll and cfgmgr32.dll test doubles (tests/doubles/) for in-process
// tests. While a DllDoubles object lives, LoadLibraryW(L"newdev.dll") and
// LoadLibraryW(L"cfgmgr32.dll") in this process load the doubles: their folder
// is the process's DLL directory, and tools/wine-run.sh starts every test
// program with both names set to native-then-builtin (without the doubles on
// the search path Wine's own DLLs load as before). A module that the code under
// test leaves loaded stays the double until it is freed.
//
// Outcomes and call records live under HKLM\SOFTWARE\SWLTest\Doubles, so the
// same class scripts the doubles in another process of the prefix too.
#include <windows.h>
#include <string>
#include <vector>

struct UpdateDriverCall
{
    std::wstring hardwareId, infPath; // empty when the pointer was null
    DWORD flags = 0;
    bool rebootPointer = false;       // a reboot flag pointer was passed
    std::wstring process;             // the calling program's path
};

struct ConfigManagerCall
{
    std::wstring function;            // "CM_Locate_DevNodeA" or "CM_Reenumerate_DevNode"
    std::wstring deviceId;            // CM_Locate_DevNodeA; empty when null
    bool hasDeviceId = false;
    DWORD devInst = 0;                // CM_Reenumerate_DevNode
    DWORD flags = 0;
};

class DllDoubles
{
public:
    // Puts the doubles on the search path with their default outcomes (success,
    // no reboot, CR_SUCCESS and DEVINST 1) and no calls recorded. Throws
    // std::runtime_error when the doubles' folder is unknown.
    DllDoubles();
    // Takes the doubles off the search path; removes outcomes and records.
    ~DllDoubles();
    DllDoubles(const DllDoubles&) = delete;
    DllDoubles& operator=(const DllDoubles&) = delete;

    // UpdateDriverForPlugAndPlayDevicesW returns result, leaves lastError for
    // GetLastError and stores reboot through the caller's pointer.
    void UpdateDriverReturns(BOOL result, DWORD lastError = 0, BOOL reboot = FALSE);
    // CM_Locate_DevNodeA returns configRet and, on CR_SUCCESS, stores devInst.
    void LocateDevNodeReturns(DWORD configRet, DWORD devInst = 1);
    void ReenumerateDevNodeReturns(DWORD configRet);

    // Calls so far, oldest first.
    std::vector<UpdateDriverCall> UpdateDriverCalls() const;
    std::vector<ConfigManagerCall> ConfigManagerCalls() const;

    // The folder the doubles are built into (SWL_TEST_DOUBLES).
    static std::wstring Folder();
};
