// Test double for newdev.dll: UpdateDriverForPlugAndPlayDevicesW installs
// nothing. It answers what HKLM\SOFTWARE\SWLTest\Doubles\newdev scripts:
//   Result     the BOOL returned (default 1)
//   LastError  passed to SetLastError before returning (default 0)
//   Reboot     stored through the reboot pointer when there is one (default 0)
// and records each call under Calls\NNNN: HardwareId, FullInfPath (absent when
// null), InstallFlags, Parent (the window handle's low 32 bits), RebootPointer
// (1 when the pointer was not null) and Process.
#include "DoubleRecord.h"

extern "C" BOOL WINAPI UpdateDriverForPlugAndPlayDevicesW(HWND parent, LPCWSTR hardwareId,
                                                                                LPCWSTR fullInfPath,
                                                                                DWORD installFlags,
                                                                                PBOOL rebootRequired)
{
    const wchar_t* const self = L"newdev";
    if (HKEY call = doublerecord::NewCallKey(self))
    {
        doublerecord::SetString(call, L"HardwareId", hardwareId);
        doublerecord::SetString(call, L"FullInfPath", fullInfPath);
        doublerecord::SetDword(call, L"InstallFlags", installFlags);
        doublerecord::SetDword(call, L"Parent", static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(parent)));
        doublerecord::SetDword(call, L"RebootPointer", rebootRequired != nullptr);
        RegCloseKey(call);
    }
    if (rebootRequired)
        *rebootRequired = doublerecord::ScriptedDword(self, L"Reboot", 0) != 0;
    const BOOL result = doublerecord::ScriptedDword(self, L"Result", 1) != 0;
    SetLastError(doublerecord::ScriptedDword(self, L"LastError", 0));
    return result;
}
