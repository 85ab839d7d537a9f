// The pre-install checks: Windows classification (every table row through the
// query seam, real Wine versions in child processes, the registry override),
// the administrator check against real tokens, the launcher check against a
// running fake launcher, and the two small dialog actions.
#include "Payload/PreInstallChecks.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <algorithm>
#include <cstring>
#include <sstream>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const WORD X86 = PROCESSOR_ARCHITECTURE_INTEL, X64 = PROCESSOR_ARCHITECTURE_AMD64, IA64 = PROCESSOR_ARCHITECTURE_IA64,
           ARM64 = 12;

// The fake system seen through the query seam.
OSVERSIONINFOEXW g_fakeVersion;
LONG g_fakeStatus = 0;
WORD g_fakeArchitecture = X64;
bool g_recordArrivedClear = false;

LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* info)
{
    OSVERSIONINFOEXW clear = {};
    clear.dwOSVersionInfoSize = 284;
    g_recordArrivedClear = std::memcmp(info, &clear, sizeof(clear)) == 0;
    *info = g_fakeVersion;
    return g_fakeStatus;
}

void WINAPI FakeGetNativeSystemInfo(SYSTEM_INFO* info)
{
    info->wProcessorArchitecture = g_fakeArchitecture;
}

// The fake system: sets what the fake queries report and returns them.
OSQueryCalls Fake(DWORD major, DWORD minor, DWORD platform, BYTE productType, WORD architecture, DWORD build = 1000,
                  bool nativeInfoOffered = true)
{
    g_fakeVersion = OSVERSIONINFOEXW();
    g_fakeVersion.dwOSVersionInfoSize = 284;
    g_fakeVersion.dwMajorVersion = major;
    g_fakeVersion.dwMinorVersion = minor;
    g_fakeVersion.dwBuildNumber = build;
    g_fakeVersion.dwPlatformId = platform;
    g_fakeVersion.wProductType = productType;
    g_fakeArchitecture = architecture;
    OSQueryCalls calls;
    calls.RtlGetVersion = FakeRtlGetVersion;
    calls.GetNativeSystemInfo = nativeInfoOffered ? FakeGetNativeSystemInfo : nullptr;
    return calls;
}

struct SeamOSType : COSType
{
    explicit SeamOSType(const OSQueryCalls& calls) : COSType(false, L"", calls) {}
};

const wchar_t* const kOverrideNames[] = {L"OSMajorVersion", L"OSMinorVersion",     L"OSBuildNumber",
                                         L"OSPlatformID",   L"OSServicePackMajor", L"OSServicePackMinor",
                                         L"OSProductType",  L"OSCSDVersion"};

void WriteOverride(const std::vector<std::wstring>& values, const std::wstring& leaveOut = L"")
{
    for (size_t i = 0; i < 8; ++i)
        if (leaveOut != kOverrideNames[i])
            testreg::SetString(kProduct, kOverrideNames[i], values[i]);
}

bool SameRecord(const COSType& a, const COSType& b)
{
    return std::memcmp(&a.GetVersionInfo(), &b.GetVersionInfo(), sizeof(OSVERSIONINFOEXW)) == 0;
}

std::wstring OwnPath()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

// Wine fixes the reported Windows version when a process starts (a change made
// in the registry is not seen by a running process), so each real version is
// observed by a child: this program, running only DISABLED_OSTypeChild.Report,
// with Wine's per-program version set for its name.
const wchar_t* const kReportVariable = L"SWL_OSTYPE_REPORT";

struct ChildReport
{
    unsigned major = 0, minor = 0, productType = 0;
    int detected = -1, overridden = -1, supported = -1; // GetOSType without and with override, IsOSSupported
};

bool RunChild(const std::wstring& wineVersion, ChildReport& report)
{
    const std::wstring path = OwnPath();
    const std::wstring appKey = L"Software\\Wine\\AppDefaults\\" + path.substr(path.find_last_of(L'\\') + 1);
    RegSetKeyValueW(HKEY_CURRENT_USER, appKey.c_str(), L"Version", REG_SZ, wineVersion.c_str(),
                    static_cast<DWORD>((wineVersion.size() + 1) * sizeof(wchar_t)));
    TempDir dir;
    SetEnvironmentVariableW(kReportVariable, dir.File(L"report.txt").c_str());
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    UniqueFileHandle nul(CreateFileW(L"NUL", GENERIC_WRITE, 0, &inherit, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = nul.get();
    std::wstring command = L"\"" + path + L"\" --gtest_also_run_disabled_tests --gtest_filter=DISABLED_OSTypeChild.*";
    PROCESS_INFORMATION child = {};
    const bool started =
        CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child);
    SetEnvironmentVariableW(kReportVariable, nullptr);
    if (started)
    {
        UniqueKernelHandle process(child.hProcess), thread(child.hThread);
        WaitForSingleObject(process.get(), INFINITE);
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, appKey.c_str());
    RegDeleteKeyW(HKEY_CURRENT_USER, appKey.c_str());
    std::istringstream in(ReadFileBytes(dir.File(L"report.txt")));
    in >> report.major >> report.minor >> report.productType >> report.detected >> report.overridden >>
        report.supported;
    return started && !in.fail();
}

UniqueKernelHandle OwnProcessToken(DWORD access)
{
    UniqueKernelHandle token;
    OpenProcessToken(GetCurrentProcess(), access, token.put());
    return token;
}

UniqueSid AdministratorsSid()
{
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    UniqueSid admins;
    AllocateAndInitializeSid(&nt, 2, 32, 544, 0, 0, 0, 0, 0, 0, admins.put());
    return admins;
}

// The attributes of the Administrators entry of a token; 0 when absent.
DWORD AdministratorsAttributes(HANDLE token)
{
    DWORD size = 0;
    GetTokenInformation(token, TokenGroups, nullptr, 0, &size);
    std::vector<BYTE> buffer(size);
    UniqueSid admins = AdministratorsSid();
    const TOKEN_GROUPS* groups = reinterpret_cast<const TOKEN_GROUPS*>(buffer.data());
    if (GetTokenInformation(token, TokenGroups, buffer.data(), size, &size))
        for (DWORD i = 0; i < groups->GroupCount; ++i)
            if (EqualSid(groups->Groups[i].Sid, admins.get()))
                return groups->Groups[i].Attributes;
    return 0;
}

// A security descriptor whose empty access list lets nobody open the object.
struct NoAccess
{
    SECURITY_DESCRIPTOR sd;
    ACL acl;
    NoAccess()
    {
        InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        InitializeAcl(&acl, sizeof(acl), ACL_REVISION);
        SetSecurityDescriptorDacl(&sd, TRUE, &acl, FALSE);
    }
};

struct Impersonating
{
    explicit Impersonating(HANDLE token) : ok(SetThreadToken(nullptr, token) != FALSE) {}
    ~Impersonating() { RevertToSelf(); }
    bool ok;
};

std::vector<std::wstring> SnapshotNames()
{
    std::vector<std::wstring> names;
    UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry))
        names.push_back(entry.szExeFile);
    return names;
}

// Runs the fake launcher (or a copy) until destroyed; ready once it has
// signalled that it runs.
class RunningLauncher
{
public:
    explicit RunningLauncher(const std::wstring& exe)
    {
        const std::wstring event = L"SwlTestLauncher" + std::to_wstring(GetCurrentProcessId());
        UniqueKernelHandle ready(CreateEventW(nullptr, TRUE, FALSE, event.c_str()));
        std::wstring command = L"\"" + exe + L"\" 300 " + event;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION child = {};
        if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child))
            return;
        m_process.reset(child.hProcess);
        CloseHandle(child.hThread);
        HANDLE waits[] = {ready.get(), m_process.get()};
        m_ready = WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0;
    }
    ~RunningLauncher()
    {
        TerminateProcess(m_process.get(), 0);
        WaitForSingleObject(m_process.get(), INFINITE);
    }
    bool m_ready = false;

private:
    UniqueKernelHandle m_process;
};

std::wstring Launcher()
{
    std::wstring path = OwnPath();
    return path.substr(0, path.find_last_of(L'\\')) + L"\\SwlSetup.exe";
}

using Lines = std::vector<std::wstring>;
const Lines kGoOn = {L"IsSetupRunning()", L"IsSetupRunning() - Exit"};
const Lines kStop = {L"IsSetupRunning()", L"The MSI is not being ran through LSetup, exiting install",
                     L"IsSetupRunning() - Exit"};
} // namespace

// Not a test of its own: the body of the child processes of RunChild.
TEST(DISABLED_OSTypeChild, Report)
{
    wchar_t path[MAX_PATH] = {};
    if (GetEnvironmentVariableW(kReportVariable, path, MAX_PATH) == 0)
        return;
    COSType detected(false, L"");
    const OSVERSIONINFOEXW& v = detected.GetVersionInfo();
    std::ostringstream out;
    out << v.dwMajorVersion << ' ' << v.dwMinorVersion << ' ' << unsigned(v.wProductType) << ' ' << detected.GetOSType()
        << ' ' << COSType(true, kProduct).GetOSType() << ' ' << IsOSSupported();
    WriteFileBytes(path, out.str());
}

TEST(OSTypeTable, EveryVersionProductTypeAndProcessorGetsItsNumber)
{
    struct Case
    {
        DWORD major, minor, platform;
        BYTE productType;
        WORD architecture;
        int expected;
    } const cases[] = {
        {5, 1, 2, 1, X86, 7},   {5, 1, 2, 3, X64, 7},     {5, 1, 1, 1, X86, 0},   {5, 2, 2, 1, IA64, 8},
        {5, 2, 2, 1, X64, 9},   {5, 2, 2, 1, X86, 0},     {5, 2, 2, 2, X86, 10},  {5, 2, 2, 3, IA64, 11},
        {5, 2, 2, 3, X64, 12},  {5, 2, 2, 0, X64, 0},     {5, 2, 1, 3, X64, 0},   {6, 0, 2, 1, IA64, 13},
        {6, 0, 2, 1, X64, 14},  {6, 0, 2, 3, X86, 15},    {6, 0, 2, 2, X64, 16},  {6, 0, 2, 3, IA64, 17},
        {6, 0, 2, 4, X64, 0},   {6, 1, 2, 1, X86, 18},    {6, 1, 2, 1, X64, 19},  {6, 1, 2, 0, X64, 20},
        {6, 1, 2, 2, IA64, 21}, {6, 1, 2, 3, X86, 0},     {6, 2, 2, 3, X86, 22},  {6, 2, 2, 1, X64, 23},
        {6, 2, 2, 3, X64, 24},  {6, 3, 2, 1, ARM64, 25},  {6, 3, 2, 1, X64, 26},  {6, 3, 2, 2, X64, 27},
        {10, 0, 2, 3, X86, 28}, {10, 0, 2, 1, ARM64, 28}, {10, 0, 2, 1, X64, 29}, {10, 0, 2, 3, X64, 30},
        {10, 0, 2, 2, X64, 30}, {6, 4, 2, 1, X64, 0},     {10, 1, 2, 1, X64, 0},  {11, 0, 2, 1, X64, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SeamOSType(Fake(c.major, c.minor, c.platform, c.productType, c.architecture)).GetOSType(), c.expected)
            << c.major << "." << c.minor << " platform " << c.platform << " type " << int(c.productType) << " arch "
            << c.architecture;
    // Without GetNativeSystemInfo the processor is neither x64 nor IA64.
    EXPECT_EQ(SeamOSType(Fake(10, 0, 2, 1, X64, 1000, false)).GetOSType(), OS_WIN10);
    EXPECT_EQ(SeamOSType(Fake(5, 2, 2, 3, IA64, 1000, false)).GetOSType(), OS_WIN2003);
}

TEST(OSTypeTable, QueryFailureMeansUnknownAndServer2019NeedsX64ServerTenFromBuild17763)
{
    EXPECT_TRUE(SeamOSType(Fake(10, 0, 2, 3, X64, 17763)).IsServer2019OrLater());
    EXPECT_TRUE(g_recordArrivedClear);
    EXPECT_TRUE(SeamOSType(Fake(10, 0, 2, 2, X64, 20348)).IsServer2019OrLater());
    EXPECT_FALSE(SeamOSType(Fake(10, 0, 2, 3, X64, 17762)).IsServer2019OrLater());
    EXPECT_FALSE(SeamOSType(Fake(10, 0, 2, 1, X64, 22631)).IsServer2019OrLater());
    EXPECT_FALSE(SeamOSType(Fake(10, 0, 2, 3, ARM64, 20348)).IsServer2019OrLater());
    g_fakeStatus = static_cast<LONG>(0xC0000001);
    SeamOSType failed(Fake(10, 0, 2, 3, X64, 20348));
    g_fakeStatus = 0;
    EXPECT_FALSE(failed.IsVersionKnown());
    EXPECT_EQ(failed.GetOSType(), OS_UNKNOWN);
    EXPECT_FALSE(failed.IsServer2019OrLater());
}

// The expected number follows the product type reported: Wine 8 gives "win7" type 3.
TEST(RealWindowsVersion, WineVersionsAreClassifiedAndOnlyTenIsSupported)
{
    ProductKeyGuard product;
    struct Case
    {
        const wchar_t* wine;
        unsigned major, minor;
        int workstation, server;
    } const cases[] = {{L"win2003", 5, 2, 9, 12},
                       {L"win2008", 6, 0, 14, 16},
                       {L"win7", 6, 1, 19, 20},
                       {L"win81", 6, 3, 26, 27},
                       {L"win10", 10, 0, 29, 30}};
    for (const Case& c : cases)
    {
        ChildReport r;
        ASSERT_TRUE(RunChild(c.wine, r)) << Narrow(c.wine);
        EXPECT_EQ(r.major * 10 + r.minor, c.major * 10 + c.minor) << Narrow(c.wine);
        EXPECT_EQ(r.detected, r.productType == 1 ? c.workstation : c.server) << Narrow(c.wine);
        EXPECT_EQ(r.supported, c.major == 10 ? 1 : 0) << Narrow(c.wine);
    }
}

TEST(RealWindowsVersion, CompleteOverrideMakesWindowsTenUnsupportedAndSevenValuesDoNot)
{
    ProductKeyGuard product;
    WriteOverride({L"6", L"3", L"9600", L"2", L"0", L"0", L"1", L"any text"});
    ChildReport eight, seven;
    ASSERT_TRUE(RunChild(L"win10", eight));
    testreg::DeleteValue(kProduct, L"OSCSDVersion");
    ASSERT_TRUE(RunChild(L"win10", seven));
    EXPECT_EQ(eight.detected, OS_WIN10_X64);
    EXPECT_EQ(eight.overridden, OS_WIN81_X64);
    EXPECT_EQ(eight.supported, 0);
    EXPECT_EQ(seven.overridden, OS_WIN10_X64);
    EXPECT_EQ(seven.supported, 1);
}

TEST(OSOverride, AllEightValuesReplaceTheVersionButNotTheServicePackText)
{
    ProductKeyGuard product;
    WriteOverride({L"10", L"0", L"17763", L"2", L"3", L"1", L"3", L"Override Pack"});
    COSType detected(false, L""), os(true, kProduct);
    const OSVERSIONINFOEXW& v = os.GetVersionInfo();
    EXPECT_EQ(std::vector<DWORD>({v.dwMajorVersion, v.dwMinorVersion, v.dwBuildNumber, v.dwPlatformId,
                                  v.wServicePackMajor, v.wServicePackMinor, v.wProductType}),
              std::vector<DWORD>({10, 0, 17763, 2, 3, 1, 3}));
    EXPECT_STREQ(v.szCSDVersion, detected.GetVersionInfo().szCSDVersion);
    EXPECT_TRUE(os.IsServer2019OrLater()); // the real processor (x64) with the override's version
    EXPECT_TRUE(IsOSSupported());
}

TEST(OSOverride, OneValueMissingNoKeyOrNoRequestLeavesTheDetectedVersion)
{
    COSType detected(false, L"");
    const std::vector<std::wstring> values = {L"10", L"0", L"19045", L"1", L"9", L"9", L"2", L"x"};
    for (const wchar_t* missing : kOverrideNames)
    {
        ProductKeyGuard product;
        WriteOverride(values, missing);
        EXPECT_TRUE(SameRecord(COSType(true, kProduct), detected)) << Narrow(missing);
    }
    ProductKeyGuard product(false);
    EXPECT_TRUE(SameRecord(COSType(true, kProduct), detected));
    WriteOverride(values);
    EXPECT_TRUE(SameRecord(COSType(false, kProduct), detected));
    EXPECT_FALSE(SameRecord(COSType(true, kProduct), detected));
}

TEST(OSOverride, TextThatIsNotPlainDecimalDigitsCountsAsZero)
{
    ProductKeyGuard product;
    WriteOverride({L"10", L"zero", L"17763abc", L"2", L"-1", L"99999999999", L"3", L""});
    COSType os(true, kProduct);
    const OSVERSIONINFOEXW& v = os.GetVersionInfo();
    EXPECT_EQ(std::vector<DWORD>(
                  {v.dwMajorVersion, v.dwMinorVersion, v.dwBuildNumber, v.wServicePackMajor, v.wServicePackMinor}),
              std::vector<DWORD>({10, 0, 0, 0, 0xFFFF})); // too large: saturated, then cut to 16 bits
    EXPECT_FALSE(os.IsServer2019OrLater());
    WriteOverride({L" 10", L"0", L"19045", L"2", L"0", L"0", L"1", L""});
    EXPECT_FALSE(IsOSSupported());
}

TEST(VerifyOSOrWarnAction, OnlyWindowsTenGoesOn)
{
    ProductKeyGuard product;
    WriteOverride({L"10", L"0", L"22631", L"2", L"0", L"0", L"1", L""});
    TestSession supported;
    EXPECT_EQ(VerifyOSOrWarn(supported.handle()), 0u);
    EXPECT_EQ(supported.LogLines(),
              Lines({L"VerifyOSOrWarn()", L"Operating system supported", L"VerifyOSOrWarn() - Exit"}));
    WriteOverride({L"6", L"3", L"9600", L"2", L"0", L"0", L"1", L""});
    TestSession unsupported;
    EXPECT_EQ(VerifyOSOrWarn(unsupported.handle()), static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_EQ(unsupported.LogLines(), Lines({L"VerifyOSOrWarn()", L"Operating system not supported; cannot install",
                                             L"VerifyOSOrWarn() - Exit"}));
}

TEST(AdminCheck, AdministratorPassesAlsoWithAFilteredThreadToken)
{
    TestSession session;
    EXPECT_TRUE(IsAdministrator());
    UniqueKernelHandle process = OwnProcessToken(TOKEN_ALL_ACCESS), restricted, impersonation;
    UniqueSid admins = AdministratorsSid();
    SID_AND_ATTRIBUTES disable = {admins.get(), 0};
    ASSERT_TRUE(CreateRestrictedToken(process.get(), 0, 1, &disable, 0, nullptr, 0, nullptr, restricted.put()));
    ASSERT_TRUE(DuplicateTokenEx(restricted.get(), TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenImpersonation,
                                 impersonation.put()));
    ASSERT_NE(AdministratorsAttributes(impersonation.get()) & SE_GROUP_USE_FOR_DENY_ONLY, 0u);
    Impersonating filtered(impersonation.get());
    ASSERT_TRUE(filtered.ok);
    EXPECT_TRUE(IsAdministrator());
    EXPECT_EQ(VerifyAdminOrWarn(session.handle()), 0u);
    EXPECT_EQ(session.LogLines(),
              Lines({L"VerifyAdminOrWarn()", L"User is an administrator", L"VerifyAdminOrWarn() - Exit"}));
}

// The thread token comes first: when it cannot be opened the answer is no,
// although the process token would say yes.
TEST(AdminCheck, UnreadableThreadTokenFailsClosed)
{
    NoAccess noAccess;
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &noAccess.sd, FALSE};
    UniqueKernelHandle process = OwnProcessToken(TOKEN_ALL_ACCESS), impersonation;
    ASSERT_TRUE(DuplicateTokenEx(process.get(), TOKEN_ALL_ACCESS, &attributes, SecurityImpersonation,
                                 TokenImpersonation, impersonation.put()));
    TestSession session;
    TraceCapture trace;
    Impersonating unreadable(impersonation.get());
    ASSERT_TRUE(unreadable.ok);
    EXPECT_FALSE(IsAdministrator());
    EXPECT_TRUE(trace.Printed(L"ERROR getting thread token. " + SystemErrorText(ERROR_ACCESS_DENIED))) << trace.Dump();
    EXPECT_EQ(VerifyAdminOrWarn(session.handle()), static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_EQ(session.LogLines(), Lines({L"VerifyAdminOrWarn()", L"User is not an administrator; cannot install",
                                         L"VerifyAdminOrWarn() - Exit"}));
}

TEST(AdminCheck, UnreadableProcessTokenFailsClosed)
{
    UniqueKernelHandle process = OwnProcessToken(READ_CONTROL | WRITE_DAC);
    DWORD size = 0;
    GetKernelObjectSecurity(process.get(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    std::vector<BYTE> saved(size);
    ASSERT_TRUE(GetKernelObjectSecurity(process.get(), DACL_SECURITY_INFORMATION, saved.data(), size, &size));
    NoAccess noAccess;
    ASSERT_TRUE(SetKernelObjectSecurity(process.get(), DACL_SECURITY_INFORMATION, &noAccess.sd));
    TraceCapture trace;
    const bool administrator = IsAdministrator();
    SetKernelObjectSecurity(process.get(), DACL_SECURITY_INFORMATION, saved.data());
    EXPECT_FALSE(administrator);
    EXPECT_TRUE(trace.Printed(L"ERROR getting process token. " + SystemErrorText(ERROR_ACCESS_DENIED))) << trace.Dump();
    ASSERT_TRUE(OwnProcessToken(TOKEN_QUERY)) << "the process token's access list was not restored";
}

// Under Wine the first snapshot entry is the process with the lowest ID, often
// this test program itself; its name must not count.
TEST(ProcessSnapshot, FirstEntryIsNeverCompared)
{
    const std::vector<std::wstring> names = SnapshotNames();
    ASSERT_GE(names.size(), 2u);
    if (std::count_if(names.begin() + 1, names.end(),
                      [&](const std::wstring& n) { return _wcsicmp(n.c_str(), names[0].c_str()) == 0; }) != 0)
        GTEST_SKIP() << "the first process's name also names a later one";
    EXPECT_FALSE(IsProcessRunning(names[0].c_str())) << Narrow(names[0]);
    EXPECT_TRUE(IsProcessRunning(names.back().c_str())) << Narrow(names.back());
    EXPECT_FALSE(IsProcessRunning(L"NoSuchProgram.exe"));
}

TEST(LauncherCheck, RunningLauncherLetsTheInstallGoOnWhateverTheCaseOfItsName)
{
    TempDir dir;
    const std::wstring copy = dir.File(L"swlsetup.EXE");
    ASSERT_TRUE(CopyFileW(Launcher().c_str(), copy.c_str(), FALSE));
    for (const std::wstring& exe : {Launcher(), copy})
    {
        RunningLauncher launcher(exe);
        ASSERT_TRUE(launcher.m_ready);
        const std::wstring name = exe.substr(exe.find_last_of(L'\\') + 1);
        const std::vector<std::wstring> names = SnapshotNames();
        ASSERT_NE(std::find(names.begin() + 1, names.end(), name), names.end()) << "launcher missing or first";
        TestSession session;
        EXPECT_EQ(IsSetupRunning(session.handle()), 0u) << Narrow(name);
        EXPECT_EQ(session.LogLines(), kGoOn);
    }
}

TEST(LauncherCheck, WithoutLauncherOnlyArpRemoveOfExactlyOneGoesOn)
{
    const std::vector<std::wstring> names = SnapshotNames();
    ASSERT_EQ(std::count(names.begin(), names.end(), L"SwlSetup.exe"), 0);
    const std::pair<std::wstring, UINT> cases[] = {{L"", 1602},
                                                   {L"1", 0},
                                                   {L"true", 1602},
                                                   {L"01", 1602},
                                                   {L" 1", 1602},
                                                   {L"1 ", 1602},
                                                   {std::wstring(300, L'1'), 1602}};
    for (const auto& c : cases)
    {
        TestSession session;
        session.SetProperty(L"ARPREMOVE", c.first);
        EXPECT_EQ(IsSetupRunning(session.handle()), c.second) << Narrow(c.first.substr(0, 8));
        EXPECT_EQ(session.LogLines(), c.second == 0 ? kGoOn : kStop);
    }
}

TEST(DialogActions, HideCancelButtonSendsCommonDataTwoAndZeroAndDelaySucceeds)
{
    TestSession session;
    EXPECT_EQ(HideCancelButton(session.handle()), 0u);
    std::vector<CapturedRecord> records = session.RecordsOfType(INSTALLMESSAGE_COMMONDATA);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(Lines(records[0].fields.begin() + 1, records[0].fields.end()), Lines({L"2", L"0"}));
    EXPECT_EQ(Delay(session.handle()), 0u);
    EXPECT_EQ(session.LogLines(),
              Lines({L"HideCancelButton()", L"HideCancelButton() - Exit", L"Delay()", L"Delay() - Exit"}));
}
