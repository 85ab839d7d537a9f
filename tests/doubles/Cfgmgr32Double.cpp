// Test double for cfgmgr32.dll: the two Configuration Manager calls the
// installer makes, answering what HKLM\SOFTWARE\SWLTest\Doubles\cfgmgr32
// scripts:
//   LocateResult       CONFIGRET of CM_Locate_DevNodeA (default 0, CR_SUCCESS)
//   DevInst            stored through its DEVINST pointer on CR_SUCCESS (default 1)
//   ReenumerateResult  CONFIGRET of CM_Reenumerate_DevNode (default 0)
// Each call is recorded under Calls\NNNN: Function, DeviceID (CM_Locate_DevNodeA,
// absent when null), DevInst (CM_Reenumerate_DevNode), Flags and Process.
#include "DoubleRecord.h"

typedef DWORD DEVINST_T;
typedef DWORD CONFIGRET_T;

namespace
{
const wchar_t* const kSelf = L"cfgmgr32";
}

extern "C" CONFIGRET_T WINAPI CM_Locate_DevNodeA(DEVINST_T* devInst, const char* deviceId,
                                                                      ULONG flags)
{
    if (HKEY call = doublerecord::NewCallKey(kSelf))
    {
        doublerecord::SetString(call, L"Function", L"CM_Locate_DevNodeA");
        if (deviceId)
        {
            wchar_t wide[512] = L"";
            MultiByteToWideChar(CP_ACP, 0, deviceId, -1, wide, 511);
            doublerecord::SetString(call, L"DeviceID", wide);
        }
        doublerecord::SetDword(call, L"Flags", flags);
        RegCloseKey(call);
    }
    const CONFIGRET_T result = doublerecord::ScriptedDword(kSelf, L"LocateResult", 0);
    if (devInst && result == 0)
        *devInst = doublerecord::ScriptedDword(kSelf, L"DevInst", 1);
    return result;
}

extern "C" CONFIGRET_T WINAPI CM_Reenumerate_DevNode(DEVINST_T devInst, ULONG flags)
{
    if (HKEY call = doublerecord::NewCallKey(kSelf))
    {
        doublerecord::SetString(call, L"Function", L"CM_Reenumerate_DevNode");
        doublerecord::SetDword(call, L"DevInst", devInst);
        doublerecord::SetDword(call, L"Flags", flags);
        RegCloseKey(call);
    }
    return doublerecord::ScriptedDword(kSelf, L"ReenumerateResult", 0);
}
