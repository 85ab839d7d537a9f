// The newdev.dll and cfgmgr32.dll doubles: loaded by name while DllDoubles lives, answering what the test
// scripted and recording each call; Wine's own DLLs again afterwards.
#include "DllDoubles.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <newdev.h>

namespace
{
using Update = BOOL(WINAPI*)(HWND, LPCWSTR, LPCWSTR, DWORD, PBOOL);
using Locate = DWORD(WINAPI*)(DWORD*, const char*, ULONG);
using Reenumerate = DWORD(WINAPI*)(DWORD, ULONG);

// A DLL loaded by name, as the installer loads it, and freed at the end.
struct Loaded
{
    explicit Loaded(const wchar_t* name) : module(LoadLibraryW(name)) {}
    ~Loaded() { FreeLibrary(module); }
    std::wstring Path() const
    {
        wchar_t path[MAX_PATH] = L"";
        GetModuleFileNameW(module, path, MAX_PATH);
        return path;
    }
    template <class F> F Get(const char* name) const { return reinterpret_cast<F>(GetProcAddress(module, name)); }
    HMODULE module;
};

std::wstring ThisProgram()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}
} // namespace

TEST(DllDoubles, NewdevAnswersAsScriptedAndRecordsEachCall)
{
    DllDoubles doubles;
    Loaded newdev(L"newdev.dll");
    EXPECT_EQ(DllDoubles::Folder() + L"\\newdev.dll", newdev.Path());
    const auto update = newdev.Get<Update>("UpdateDriverForPlugAndPlayDevicesW");
    ASSERT_TRUE(update);

    BOOL reboot = TRUE;
    EXPECT_TRUE(update(nullptr, L"PCI\\VEN_1F2E&DEV_6B20", L"C:\\drivers\\hwa_swl4.inf", INSTALLFLAG_FORCE, &reboot));
    EXPECT_FALSE(reboot); // the defaults: success, no reboot

    for (const DWORD error : {0xE000020Bul, 0xDEADBEEFul})
    {
        doubles.UpdateDriverReturns(FALSE, error, TRUE);
        reboot = FALSE;
        SetLastError(0);
        EXPECT_FALSE(update(nullptr, L"PCI\\VEN_1F2E&DEV_6B26", nullptr, 0, &reboot));
        EXPECT_EQ(error, GetLastError());
        EXPECT_TRUE(reboot);
    }
    doubles.UpdateDriverReturns(TRUE, 0, TRUE);
    EXPECT_TRUE(update(nullptr, L"PCI\\VEN_1F2E&DEV_5A10", L"x.inf", 0, nullptr));

    const auto calls = doubles.UpdateDriverCalls();
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B20|C:\\drivers\\hwa_swl4.inf", calls[0].hardwareId + L"|" + calls[0].infPath);
    EXPECT_EQ(static_cast<DWORD>(INSTALLFLAG_FORCE), calls[0].flags);
    EXPECT_TRUE(calls[0].rebootPointer);
    EXPECT_EQ(ThisProgram(), calls[0].process);
    EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B26|", calls[1].hardwareId + L"|" + calls[1].infPath);
    EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_5A10", calls[3].hardwareId);
    EXPECT_FALSE(calls[3].rebootPointer);
}

TEST(DllDoubles, Cfgmgr32ReturnsTheScriptedResultOfEachFunctionAndRecordsEachCall)
{
    DllDoubles doubles;
    Loaded cfgmgr32(L"cfgmgr32.dll");
    EXPECT_EQ(DllDoubles::Folder() + L"\\cfgmgr32.dll", cfgmgr32.Path());
    const auto locate = cfgmgr32.Get<Locate>("CM_Locate_DevNodeA");
    const auto reenumerate = cfgmgr32.Get<Reenumerate>("CM_Reenumerate_DevNode");
    ASSERT_TRUE(locate && reenumerate);

    DWORD devInst = 0;
    EXPECT_EQ(0u, locate(&devInst, "PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\\4&1A2B3C4D&0&0008", 0));
    EXPECT_EQ(1u, devInst);
    EXPECT_EQ(0u, reenumerate(devInst, 0));

    doubles.LocateDevNodeReturns(0, 0x4242);
    doubles.ReenumerateDevNodeReturns(0x17); // CR_NO_SUCH_DEVINST
    EXPECT_EQ(0u, locate(&devInst, nullptr, 0));
    EXPECT_EQ(0x4242u, devInst);
    EXPECT_EQ(0x17u, reenumerate(devInst, 1));
    doubles.LocateDevNodeReturns(0x0D); // CR_NO_SUCH_DEVNODE: nothing stored
    devInst = 7;
    EXPECT_EQ(0x0Du, locate(&devInst, "ROOT\\X", 2));
    EXPECT_EQ(7u, devInst);

    const auto calls = doubles.ConfigManagerCalls();
    ASSERT_EQ(5u, calls.size());
    EXPECT_EQ(L"CM_Locate_DevNodeA", calls[0].function);
    EXPECT_EQ(L"PCI\\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\\4&1A2B3C4D&0&0008", calls[0].deviceId);
    EXPECT_EQ(L"CM_Reenumerate_DevNode", calls[1].function);
    EXPECT_EQ(1u, calls[1].devInst);
    EXPECT_FALSE(calls[2].hasDeviceId);
    EXPECT_EQ(0x4242u, calls[3].devInst);
    EXPECT_EQ(1u, calls[3].flags);
    EXPECT_EQ(L"ROOT\\X", calls[4].deviceId);
    EXPECT_EQ(2u, calls[4].flags);
}

TEST(DllDoubles, WinesOwnDllsLoadAgainOnceTheDoublesAreGone)
{
    {
        DllDoubles doubles;
        Loaded newdev(L"newdev.dll");
        ASSERT_EQ(DllDoubles::Folder() + L"\\newdev.dll", newdev.Path());
    }
    Loaded newdev(L"newdev.dll"), cfgmgr32(L"cfgmgr32.dll");
    EXPECT_NE(0u, newdev.Path().find(L"\\system32\\")) << Narrow(newdev.Path());
    // Wine's cfgmgr32 does not implement the call: CR_CALL_NOT_IMPLEMENTED.
    DWORD devInst = 0;
    const auto locate = cfgmgr32.Get<Locate>("CM_Locate_DevNodeA");
    ASSERT_TRUE(locate);
    EXPECT_EQ(19u, locate(&devInst, "PCI\\VEN_1F2E&DEV_6B20", 0));
    EXPECT_TRUE(newdev.Get<FARPROC>("UpdateDriverForPlugAndPlayDevicesA")); // the double has only the W form
}
