// The pre-install checks that only an in-process test reaches (the rest runs end to end).
#include "Payload/PreInstallChecks.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <sddl.h>

const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
const WORD X86 = 0, X64 = 9, I64 = 6, ARM = 12, NONE = 0xFFFF; // NONE: no GetNativeSystemInfo offered
using Lines = std::vector<std::wstring>;
static struct { OSVERSIONINFOEXW version; LONG status; WORD arch; } g_fake = {};
static LONG WINAPI FakeVersion(OSVERSIONINFOEXW* info) // answers only a record sized for the extended fields
{
    *info = info->dwOSVersionInfoSize == sizeof(*info) ? g_fake.version : OSVERSIONINFOEXW{};
    return g_fake.status;
}
static void WINAPI FakeProcessor(SYSTEM_INFO* info) { info->wProcessorArchitecture = g_fake.arch; }

struct SeamOSType : COSType
{
    SeamOSType(DWORD major, DWORD minor, DWORD platform, BYTE type, WORD arch, DWORD build = 1000, LONG status = 0)
        : COSType(false, L"", (g_fake = {{284, major, minor, build, platform, {}, 0, 0, 0, type, 0}, status, arch},
                               OSQueryCalls{FakeVersion, arch == NONE ? nullptr : FakeProcessor})) {}
};

TEST(OSTypeTable, EveryVersionProductTypeAndProcessorGetsItsNumber)
{
    const struct { DWORD major, minor, platform; BYTE type; WORD arch; int expected; } cases[] = {
        {5,1,2,3,X64,7}, {5,1,1,1,X86,0}, {5,2,2,1,I64,8}, {5,2,2,1,X64,9}, {5,2,2,1,X86,0}, {5,2,2,2,X86,10},
        {5,2,2,3,I64,11}, {5,2,2,3,X64,12}, {5,2,2,0,X64,0}, {5,2,1,3,X64,0}, {6,0,2,1,I64,13}, {6,0,2,1,X64,14},
        {6,0,2,3,X86,15}, {6,0,2,2,X64,16}, {6,0,2,3,I64,17}, {6,0,2,4,X64,0}, {6,1,2,1,X86,18}, {6,1,2,1,X64,19},
        {6,1,2,0,X64,20}, {6,1,2,2,I64,21}, {6,1,2,3,X86,0}, {6,2,2,3,X86,22}, {6,2,2,1,X64,23}, {6,2,2,3,X64,24},
        {6,3,2,1,ARM,25}, {6,3,2,1,X64,26}, {6,3,2,2,X64,27}, {10,0,2,3,X86,28}, {10,0,2,1,ARM,28}, {10,0,2,1,X64,29},
        {10,0,2,2,X64,30}, {6,4,2,1,X64,0}, {11,0,2,1,X64,0}, {10,0,2,1,NONE,28}, {5,2,2,3,NONE,10}};
    for (const auto& c : cases)
        EXPECT_EQ(SeamOSType(c.major, c.minor, c.platform, c.type, c.arch).GetOSType(), c.expected) << &c - cases;
    EXPECT_TRUE(SeamOSType(10, 0, 2, 3, X64, 17763).IsServer2019OrLater());
    EXPECT_FALSE(SeamOSType(10, 0, 2, 3, X64, 17762).IsServer2019OrLater());
    EXPECT_EQ(SeamOSType(10, 0, 2, 3, X64, 20348, static_cast<LONG>(0xC0000001)).GetOSType(), OS_UNKNOWN);
}

// "zero" is not decimal digits and counts as 0; the service-pack text is required but never applied.
TEST(OSOverride, AppliesOnlyWhenAllEightValuesArePresent)
{
    ProductKeyGuard product;
    for (const auto& [name, value] : {std::pair{L"OSMajorVersion", L"10"}, {L"OSMinorVersion", L"zero"},
             {L"OSBuildNumber", L"17763"}, {L"OSPlatformID", L"2"}, {L"OSServicePackMajor", L"3"},
             {L"OSServicePackMinor", L"1"}, {L"OSProductType", L"3"}, {L"OSCSDVersion", L"Pack"}})
        testreg::SetString(kProduct, name, value);
    const OSVERSIONINFOEXW detected = COSType(false, L"").GetVersionInfo();
    COSType os(true, kProduct);
    EXPECT_TRUE(os.IsServer2019OrLater());
    EXPECT_STREQ(os.GetVersionInfo().szCSDVersion, detected.szCSDVersion);
    testreg::DeleteValue(kProduct, L"OSCSDVersion");
    EXPECT_EQ(memcmp(&COSType(true, kProduct).GetVersionInfo(), &detected, sizeof(detected)), 0);
}

// A deny-only Administrators entry counts; an unreadable thread token fails closed, process token or not.
TEST(AdminCheck, DenyOnlyAdministratorsCountAndUnreadableThreadTokenFailsClosed)
{
    UniqueKernelHandle process, filtered, unreadable;
    UniqueLocalMemory admins, noAccess; // noAccess: an empty access list, nobody may open the token
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, process.put()) &&
                ConvertStringSidToSidW(L"BA", admins.put()) &&
                ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:", SDDL_REVISION_1, noAccess.put(), nullptr));
    SID_AND_ATTRIBUTES disable = {admins.get(), 0};
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), noAccess.get(), FALSE};
    ASSERT_TRUE(CreateRestrictedToken(process.get(), 0, 1, &disable, 0, nullptr, 0, nullptr, filtered.put()) &&
                DuplicateTokenEx(process.get(), TOKEN_ALL_ACCESS, &attributes, SecurityImpersonation,
                                 TokenImpersonation, unreadable.put()));
    TestSession session;
    TraceCapture trace;
    BOOL member = TRUE;
    const bool denyOnly = ImpersonateLoggedOnUser(filtered.get()) &&
                          CheckTokenMembership(nullptr, admins.get(), &member) && !member;
    const bool denyOnlyCounts = IsAdministrator();
    const bool unreadableSet = SetThreadToken(nullptr, unreadable.get()) != FALSE;
    const UINT result = VerifyAdminOrWarn(session.handle());
    RevertToSelf();
    ASSERT_TRUE(denyOnly && unreadableSet) << "no deny-only Administrators entry, or no impersonation";
    EXPECT_TRUE(denyOnlyCounts);
    EXPECT_EQ(result, static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_EQ(session.LogLines(), Lines({L"VerifyAdminOrWarn()", L"User is not an administrator; cannot install",
                                         L"VerifyAdminOrWarn() - Exit"}));
    EXPECT_TRUE(trace.Printed(L"ERROR getting thread token. " + SystemErrorText(ERROR_ACCESS_DENIED))) << trace.Dump();
}

// A suspended copy of this program stands in for the launcher, looked for by name only.
TEST(LauncherCheck, LauncherRunningUnderANameInOtherLetterCaseLetsTheInstallGoOn)
{
    TempDir dir;
    const std::wstring launcher = dir.File(L"swlsetup.EXE");
    wchar_t own[MAX_PATH] = {};
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(GetModuleFileNameW(nullptr, own, MAX_PATH) && CopyFileW(own, launcher.c_str(), FALSE) &&
                CreateProcessW(launcher.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                               &startup, &child));
    UniqueKernelHandle process(child.hProcess), thread(child.hThread);
    TestSession session;
    EXPECT_EQ(IsSetupRunning(session.handle()), 0u);
    TerminateProcess(process.get(), 0);
    WaitForSingleObject(process.get(), INFINITE);
}

TEST(HideCancelButton, SendsOneCommonDataRecordTwoZero)
{
    TestSession session;
    EXPECT_EQ(HideCancelButton(session.handle()), 0u);
    const std::vector<CapturedRecord> records = session.RecordsOfType(INSTALLMESSAGE_COMMONDATA);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(Lines(records[0].fields.begin() + 1, records[0].fields.end()), Lines({L"2", L"0"}));
    EXPECT_EQ(session.LogLines(), Lines({L"HideCancelButton()", L"HideCancelButton() - Exit"}));
}
