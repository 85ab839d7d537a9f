#include "Payload/PreInstallChecks.h"
#include "KesTrace.h"
#include "KesRegKey.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include "resource.h"
#include <tlhelp32.h>
#include <cwchar>
#include <memory>
#include <new>

namespace
{
const DWORD kVersionRecordSize = 284;
static_assert(sizeof(OSVERSIONINFOEXW) == kVersionRecordSize, "the version record must be the 284-byte layout");

const DWORD kServer2019Build = 17763;
const wchar_t* const kLauncherName = L"SwlSetup.exe";
const wchar_t* const kInstallerDialogClass = L"MsiDialogCloseClass";

// Decimal digits only; anything else counts as 0. Values past 32 bits saturate.
DWORD DecimalValue(CKesString text)
{
    if (!text.IsNumeric())
        return 0;
    unsigned long long value = std::wcstoull(text.c_str(), nullptr, 10);
    return value > MAXDWORD ? MAXDWORD : static_cast<DWORD>(value);
}

// Loads a string-table caption and text and shows them owned by the
// Installer's dialog window, or by no window unless onlyWithDialog. The answer
// is not examined: these boxes only inform.
void ShowInstallerMessage(MSIHANDLE hInstall, DWORD captionId, DWORD textId, UINT type, bool onlyWithDialog)
{
    CKesString caption = LoadResString(captionId);
    CKesString text = LoadResString(textId);
    HWND dialog = FindWindowW(kInstallerDialogClass, nullptr);
    if (dialog || !onlyWithDialog)
        ShowMessageBox(hInstall, dialog, text, caption, type);
}
} // namespace

OSQueryCalls OSQueryCalls::Platform()
{
    OSQueryCalls calls;
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    if (kernel32)
        calls.GetNativeSystemInfo =
            reinterpret_cast<GetNativeSystemInfoFn>(GetProcAddress(kernel32, "GetNativeSystemInfo"));
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll)
        calls.RtlGetVersion = reinterpret_cast<RtlGetVersionFn>(GetProcAddress(ntdll, "RtlGetVersion"));
    return calls;
}

COSType::COSType(bool useOverride, CKesString overrideKey) : COSType(useOverride, overrideKey, OSQueryCalls::Platform())
{
}

COSType::COSType(bool useOverride, CKesString overrideKey, const OSQueryCalls& calls)
    : m_osvi(), m_pfnGetNativeSystemInfo(calls.GetNativeSystemInfo), m_SystemInfo(), m_bVersionKnown(false)
{
    CKesDebugScope scope(L"COSType::COSType");
    if (m_pfnGetNativeSystemInfo)
        m_pfnGetNativeSystemInfo(&m_SystemInfo);

    ZeroMemory(&m_osvi, sizeof(m_osvi));
    m_osvi.dwOSVersionInfoSize = kVersionRecordSize;
    // RtlGetVersion exists on every supported system; should the lookup ever
    // fail, the version counts as unknown instead of calling through null.
    if (calls.RtlGetVersion)
        m_bVersionKnown = calls.RtlGetVersion(&m_osvi) == 0;
    if (!m_bVersionKnown)
        g_Debug.Print(L"RtlGetVersion failed; the operating system is unknown");

    if (useOverride)
        ApplyOverride(overrideKey);
}

COSType::~COSType() {}

void COSType::ApplyOverride(const CKesString& overrideKey)
{
    CKesDebugScope scope(L"COSType::ApplyOverride");
    static const wchar_t* const kNames[] = {L"OSMajorVersion", L"OSMinorVersion",     L"OSBuildNumber",
                                            L"OSPlatformID",   L"OSServicePackMajor", L"OSServicePackMinor",
                                            L"OSProductType",  L"OSCSDVersion"};
    const size_t kCount = sizeof(kNames) / sizeof(kNames[0]);

    CKesRegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, overrideKey, false))
        return;
    CKesString values[kCount];
    for (size_t i = 0; i < kCount; ++i)
    {
        if (!key.GetValue(kNames[i], values[i]))
        {
            g_Debug.Print(L"Operating system override ignored: '%s' is missing", kNames[i]);
            return;
        }
    }

    // No range checks: a complete override is taken as it stands.
    m_osvi.dwMajorVersion = DecimalValue(values[0]);
    m_osvi.dwMinorVersion = DecimalValue(values[1]);
    m_osvi.dwBuildNumber = DecimalValue(values[2]);
    m_osvi.dwPlatformId = DecimalValue(values[3]);
    m_osvi.wServicePackMajor = static_cast<WORD>(DecimalValue(values[4]));
    m_osvi.wServicePackMinor = static_cast<WORD>(DecimalValue(values[5]));
    m_osvi.wProductType = static_cast<BYTE>(DecimalValue(values[6]));
    // "OSCSDVersion" only has to be present; the detected service-pack text is
    // kept on purpose.
    g_Debug.Print(L"Operating system override applied: %u.%u.%u, platform %u, product type %u",
                  static_cast<unsigned>(m_osvi.dwMajorVersion), static_cast<unsigned>(m_osvi.dwMinorVersion),
                  static_cast<unsigned>(m_osvi.dwBuildNumber), static_cast<unsigned>(m_osvi.dwPlatformId),
                  static_cast<unsigned>(m_osvi.wProductType));
}

bool COSType::IsAMD64() const
{
    return m_pfnGetNativeSystemInfo && m_SystemInfo.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
}

bool COSType::IsIA64() const
{
    return m_pfnGetNativeSystemInfo && m_SystemInfo.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_IA64;
}

int COSType::GetOSType()
{
    int type = OS_UNKNOWN;
    CKesDebugScope scope(L"COSType::GetOSType", &type);
    if (!m_bVersionKnown)
        return type;

    const DWORD major = m_osvi.dwMajorVersion;
    const DWORD minor = m_osvi.dwMinorVersion;
    const bool ntPlatform = m_osvi.dwPlatformId == VER_PLATFORM_WIN32_NT;
    const bool workstation = m_osvi.wProductType == VER_NT_WORKSTATION;
    const bool server = m_osvi.wProductType == VER_NT_DOMAIN_CONTROLLER || m_osvi.wProductType == VER_NT_SERVER;
    const bool amd64 = IsAMD64();
    const bool ia64 = IsIA64();
    auto version = [&](DWORD wantMajor, DWORD wantMinor) { return major == wantMajor && minor == wantMinor; };

    if (version(5, 1) && ntPlatform)
        type = OS_WINXP;
    else if (version(5, 2) && ntPlatform)
    {
        if (workstation)
            type = ia64 ? OS_WINXP_IA64 : amd64 ? OS_WINXP_X64 : OS_UNKNOWN;
        else if (server)
            type = ia64 ? OS_WIN2003_IA64 : amd64 ? OS_WIN2003_X64 : OS_WIN2003;
    }
    else if (version(6, 0))
    {
        if (workstation)
            type = amd64 ? OS_VISTA_X64 : OS_VISTA;
        else if (server)
            type = amd64 ? OS_WIN2008_X64 : ia64 ? OS_WIN2008_IA64 : OS_WIN2008;
    }
    else if (version(6, 1))
    {
        if (workstation)
            type = amd64 ? OS_WIN7_X64 : OS_WIN7;
        else
            type = amd64 ? OS_WIN2008R2_X64 : ia64 ? OS_WIN2008R2_IA64 : OS_UNKNOWN;
    }
    else if (version(6, 2))
        type = !amd64 ? OS_WIN8 : workstation ? OS_WIN8_X64 : OS_WIN2012_X64;
    else if (version(6, 3))
        type = !amd64 ? OS_WIN81 : workstation ? OS_WIN81_X64 : OS_WIN2012R2_X64;
    else if (version(10, 0))
        type = !amd64 ? OS_WIN10 : workstation ? OS_WIN10_X64 : OS_WINSERVER10_X64;
    return type;
}

bool COSType::IsServer2019OrLater()
{
    bool server2019 = false;
    CKesDebugScope scope(L"COSType::IsServer2019OrLater", &server2019);
    server2019 = GetOSType() == OS_WINSERVER10_X64 && m_osvi.dwBuildNumber >= kServer2019Build;
    return server2019;
}

bool IsAdministrator()
{
    bool administrator = false;
    CKesDebugScope scope(L"IsAdministrator", &administrator);

    UniqueKernelHandle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()))
    {
        if (GetLastError() != ERROR_NO_TOKEN)
        {
            g_Debug.Print(L"ERROR getting thread token. %s", GetLastErrorText().c_str());
            return administrator;
        }
        if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))
        {
            g_Debug.Print(L"ERROR getting process token. %s", GetLastErrorText().c_str());
            return administrator;
        }
    }

    DWORD size = 0;
    if (!GetTokenInformation(token.get(), TokenGroups, nullptr, 0, &size) &&
        GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        g_Debug.Print(L"GetTokenInformation() failed to determine required buffer size. %s",
                      GetLastErrorText().c_str());
        return administrator;
    }
    std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[size]);
    if (!buffer || !GetTokenInformation(token.get(), TokenGroups, buffer.get(), size, &size))
    {
        g_Debug.Print(L"GetTokenInformation() failed. GetLastError() = %s", GetLastErrorText().c_str());
        return administrator;
    }

    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    UniqueSid administrators;
    if (!AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0,
                                  0, administrators.put()))
    {
        g_Debug.Print(L"AllocateAndInitializeSID() failed. GetLastError() = %s", GetLastErrorText().c_str());
        return administrator;
    }

    // The group's attributes are deliberately not examined: a deny-only entry
    // (a filtered, non-elevated token) counts as an administrator.
    const TOKEN_GROUPS* groups = reinterpret_cast<const TOKEN_GROUPS*>(buffer.get());
    for (DWORD i = 0; i < groups->GroupCount; ++i)
    {
        if (EqualSid(groups->Groups[i].Sid, administrators.get()))
        {
            administrator = true;
            break;
        }
    }
    return administrator;
}

bool IsOSSupported()
{
    bool supported = false;
    CKesDebugScope scope(L"IsOSSupported", &supported);
    COSType os(true, kProductKey);
    const int type = os.GetOSType();
    // The build number is not examined.
    supported = type == OS_WIN10_X64 || type == OS_WINSERVER10_X64;
    return supported;
}

bool IsProcessRunning(CKesString name)
{
    bool running = false;
    CKesDebugScope scope(L"IsProcessRunning", &running);

    UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot)
    {
        g_Debug.Print(L"CreateToolhelp32Snapshot failed. %s", GetLastErrorText().c_str());
        return running;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.get(), &entry))
        return running;
    // The first entry is taken to be the system's idle process and is
    // deliberately never compared; the walk does not stop at a match.
    while (Process32NextW(snapshot.get(), &entry))
    {
        if (CKesString(entry.szExeFile).CompareI(name))
            running = true;
    }
    return running;
}

namespace
{
// The two verify-or-warn guards share their steps: log the outcome, and on a
// failed test show the message (whatever the user clicks) and answer 31.
UINT WarnUnless(MSIHANDLE hInstall, bool passed, const wchar_t* passedLine, const wchar_t* failedLine, DWORD textId,
                UINT type)
{
    if (passed)
    {
        LogToMSI(hInstall, passedLine);
        return ERROR_SUCCESS;
    }
    LogToMSI(hInstall, failedLine);
    ShowInstallerMessage(hInstall, IDS_WIZARD_CAPTION, textId, type, false);
    return ERROR_GEN_FAILURE;
}
} // namespace

SWL_CUSTOM_ACTION(VerifyAdminOrWarn)
{
    return GuardedAction(L"VerifyAdminOrWarn", [&]() -> UINT {
        LogToMSI(hInstall, L"VerifyAdminOrWarn()");
        UINT result = WarnUnless(hInstall, IsAdministrator(), L"User is an administrator",
                                 L"User is not an administrator; cannot install", IDS_ADMIN_REQUIRED, MB_OK);
        LogToMSI(hInstall, L"VerifyAdminOrWarn() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(VerifyOSOrWarn)
{
    return GuardedAction(L"VerifyOSOrWarn", [&]() -> UINT {
        LogToMSI(hInstall, L"VerifyOSOrWarn()");
        UINT result = WarnUnless(hInstall, IsOSSupported(), L"Operating system supported",
                                 L"Operating system not supported; cannot install", IDS_OS_NOT_SUPPORTED,
                                 MB_ICONERROR);
        LogToMSI(hInstall, L"VerifyOSOrWarn() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(IsSetupRunning)
{
    return GuardedAction(L"IsSetupRunning", [&]() -> UINT {
        LogToMSI(hInstall, L"IsSetupRunning()");
        const bool launcherRunning = IsProcessRunning(kLauncherName);

        wchar_t arpRemove[260] = {};
        DWORD size = 260;
        MsiGetPropertyW(hInstall, L"ARPREMOVE", arpRemove, &size);
        arpRemove[259] = L'\0';

        UINT result = ERROR_SUCCESS;
        // Only the exact text "1" (what the uninstall entry passes) lets a removal
        // run without the launcher.
        if (!launcherRunning && std::wcscmp(arpRemove, L"1") != 0)
        {
            LogToMSI(hInstall, L"The MSI is not being ran through LSetup, exiting install");
            ShowInstallerMessage(hInstall, IDS_PRODUCT_CAPTION, IDS_LAUNCHER_REQUIRED, MB_ICONERROR, true);
            result = ERROR_INSTALL_USEREXIT;
        }
        LogToMSI(hInstall, L"IsSetupRunning() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(HideCancelButton)
{
    return GuardedAction(L"HideCancelButton", [&]() -> UINT {
        CKesDebugScope scope(L"HideCancelButton");
        LogToMSI(hInstall, L"HideCancelButton()");
        UINT result = ERROR_SUCCESS;
        // Field 1 = 2 selects the Cancel button, field 2 = 0 hides it.
        UniqueMsiHandle record(MsiCreateRecord(2));
        if (!record || MsiRecordSetInteger(record.get(), 1, 2) != ERROR_SUCCESS ||
            MsiRecordSetInteger(record.get(), 2, 0) != ERROR_SUCCESS)
        {
            KES_TRACE_ERROR(L"HideCancelButton: cannot build the message record");
            result = ERROR_GEN_FAILURE;
        }
        else
        {
            // The reply is deliberately ignored: a dialog without the button is fine.
            MsiProcessMessage(hInstall, INSTALLMESSAGE_COMMONDATA, record.get());
        }
        LogToMSI(hInstall, L"HideCancelButton() - Exit");
        return result;
    });
}

SWL_CUSTOM_ACTION(Delay)
{
    return GuardedAction(L"Delay", [&]() -> UINT {
        CKesDebugScope scope(L"Delay");
        LogToMSI(hInstall, L"Delay()");
        Sleep(1000);
        LogToMSI(hInstall, L"Delay() - Exit");
        return ERROR_SUCCESS;
    });
}
