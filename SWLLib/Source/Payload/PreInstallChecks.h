#pragma once
// Guards at the start of an installation (administrator rights, a supported
// Windows, started through the launcher) and what Windows reports about itself.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// Classification of the running Windows by version (major.minor), product type
// (1 workstation, 2 domain controller, 3 server) and native processor. Names
// follow the usual product of each row; the numbers are what callers compare.
enum OSType
{
    OS_UNKNOWN = 0,          // unlisted combination, or the version query failed
    OS_WINXP = 7,            // 5.1, platform 2, any product type and processor
    OS_WINXP_IA64 = 8,       // 5.2 workstation, IA64
    OS_WINXP_X64 = 9,        // 5.2 workstation, x64
    OS_WIN2003 = 10,         // 5.2 server, neither x64 nor IA64
    OS_WIN2003_IA64 = 11,    // 5.2 server, IA64
    OS_WIN2003_X64 = 12,     // 5.2 server, x64
    OS_VISTA = 13,           // 6.0 workstation, not x64
    OS_VISTA_X64 = 14,       // 6.0 workstation, x64
    OS_WIN2008 = 15,         // 6.0 server, neither
    OS_WIN2008_X64 = 16,     // 6.0 server, x64 (note: after 5.2 the x64 and IA64 numbers swap order)
    OS_WIN2008_IA64 = 17,    // 6.0 server, IA64
    OS_WIN7 = 18,            // 6.1 workstation, not x64
    OS_WIN7_X64 = 19,        // 6.1 workstation, x64
    OS_WIN2008R2_X64 = 20,   // 6.1 not workstation, x64
    OS_WIN2008R2_IA64 = 21,  // 6.1 not workstation, IA64
    OS_WIN8 = 22,            // 6.2, any product type, not x64
    OS_WIN8_X64 = 23,        // 6.2 workstation, x64
    OS_WIN2012_X64 = 24,     // 6.2 not workstation, x64
    OS_WIN81 = 25,           // 6.3, any product type, not x64
    OS_WIN81_X64 = 26,       // 6.3 workstation, x64
    OS_WIN2012R2_X64 = 27,   // 6.3 not workstation, x64
    OS_WIN10 = 28,           // 10.0, any product type, not x64
    OS_WIN10_X64 = 29,       // 10.0 workstation, x64 (Windows 10 and 11)
    OS_WINSERVER10_X64 = 30, // 10.0 not workstation, x64 (Server 2016 and later)
};

// The two system queries COSType makes. Test seam: the public COSType
// constructor always uses Platform(); tests build a COSType through its
// protected constructor with their own functions, to cover versions, product
// types and processors that Wine cannot report.
struct OSQueryCalls
{
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW* info);
    using GetNativeSystemInfoFn = void(WINAPI*)(SYSTEM_INFO* info);

    RtlGetVersionFn RtlGetVersion = nullptr;             // null: not offered
    GetNativeSystemInfoFn GetNativeSystemInfo = nullptr; // null: not offered

    // RtlGetVersion from the loaded ntdll.dll and GetNativeSystemInfo from the
    // loaded kernel32.dll, found at run time.
    static OSQueryCalls Platform();
};

// What the running Windows reports about itself: the version record and the
// native processor architecture, taken once at construction.
class COSType
{
public:
    // With useOverride, the values under HKEY_LOCAL_MACHINE\<overrideKey>
    // replace the detected version, but only when all eight of "OSMajorVersion",
    // "OSMinorVersion", "OSBuildNumber", "OSPlatformID", "OSServicePackMajor",
    // "OSServicePackMinor", "OSProductType" and "OSCSDVersion" are present as
    // strings; otherwise nothing changes. Each is decimal text; text that is not
    // only decimal digits (empty, blanks, a sign, letters) counts as 0.
    // "OSCSDVersion" must be present but is not applied.
    COSType(bool useOverride, CKesString overrideKey);
    virtual ~COSType();

    // The OSType of the first matching row; OS_UNKNOWN when none matches or the
    // version query failed.
    virtual int GetOSType();
    // 10.0 server on x64 (OS_WINSERVER10_X64) with a build number of at least 17763.
    bool IsServer2019OrLater();

    const OSVERSIONINFOEXW& GetVersionInfo() const { return m_osvi; }
    bool IsVersionKnown() const { return m_bVersionKnown; }
    // The native processor architecture; both false when GetNativeSystemInfo
    // was not offered.
    bool IsAMD64() const;
    bool IsIA64() const;

protected:
    // Test seam: the same construction with the system queries replaced.
    COSType(bool useOverride, CKesString overrideKey, const OSQueryCalls& calls);

private:
    void ApplyOverride(const CKesString& overrideKey);

    OSVERSIONINFOEXW m_osvi;
    OSQueryCalls::GetNativeSystemInfoFn m_pfnGetNativeSystemInfo;
    SYSTEM_INFO m_SystemInfo;
    bool m_bVersionKnown;
};

// True when the calling thread's token (or, without one, the process token)
// lists the built-in Administrators group, whatever the group's attributes:
// a filtered token's deny-only entry counts. Any failure answers false.
bool IsAdministrator();
// True for Windows 10.0 on x64, workstation or server, after the override under
// the product key (COSType(true, kProductKey)).
bool IsOSSupported();
// True when a process other than the first one in the snapshot has this
// executable name, compared case-insensitively.
bool IsProcessRunning(CKesString name);

// Custom actions.
// 0 for an administrator; otherwise a message box (not in a silent run) and 31.
extern "C" UINT __stdcall VerifyAdminOrWarn(MSIHANDLE hInstall);
// 0 on a supported Windows; otherwise a message box (not in a silent run) and 31.
extern "C" UINT __stdcall VerifyOSOrWarn(MSIHANDLE hInstall);
// 0 when the launcher runs or "ARPREMOVE" is exactly "1"; otherwise 1602, with
// a message box only when the Installer's dialog window exists.
extern "C" UINT __stdcall IsSetupRunning(MSIHANDLE hInstall);
// Sends the COMMONDATA message that hides the progress dialog's Cancel button.
// 0, or 31 when the message record cannot be built.
extern "C" UINT __stdcall HideCancelButton(MSIHANDLE hInstall);
// Waits one second; 0.
extern "C" UINT __stdcall Delay(MSIHANDLE hInstall);
