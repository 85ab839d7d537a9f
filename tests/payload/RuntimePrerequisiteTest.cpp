// The Visual C++ runtime prerequisite: product states from Installer's own registry records, the test
// stand-in as the runtime installer, and the runtime's uninstall entry in the 32-bit registry view.
#include "Payload/RuntimePrerequisite.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "ToolStandIn.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const wchar_t* const kProducts = L"SOFTWARE\\Classes\\Installer\\Products\\";
const wchar_t* const kMachineProducts =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\S-1-5-18\\Products\\";
// The two runtimes' product codes as Installer keys them: each part reversed, the last two byte by byte.
const std::wstring kRuntimes[] = {L"915F51E2ADF443844BEEE7CF7E8D4DEE", L"49DA825E7D214C24193A09B82EE8B92D"};

// Installer's records of a per-machine product: the product key alone reads as advertised, with
// install properties as installed.
void RegisterRuntime(int which, bool installed)
{
    testreg::CreateKey(kProducts + kRuntimes[which]);
    if (installed)
        testreg::SetDword(kMachineProducts + kRuntimes[which] + L"\\InstallProperties", L"WindowsInstaller", 1);
}

// The support folder, of the length asked for, with the stand-in as the runtime installer.
struct RuntimeInstallTest : ::testing::Test
{
    std::wstring SupportDir(size_t length)
    {
        std::wstring folder = m_dir.File(L"Support Dir");
        folder.resize(length, L'x');
        EXPECT_TRUE(CreateDirectoryW(folder.c_str(), nullptr) && InstallToolStandIn(folder + L"\\vcredist.exe"));
        m_session.SetProperty(L"SUPPORTDIR", folder);
        return folder;
    }
    static std::wstring Command(const std::wstring& folder)
    {
        return L"\"" + folder + L"\\vcredist.exe\" /install /passive /norestart /silent";
    }
    TempDir m_dir;
    TestSession m_session;
};
} // namespace

// "keep" shows that the property is never cleared.
TEST(PeekCRT, RuntimeIsRequiredOnlyWhenNeitherRuntimeIsInstalled)
{
    const struct { int product; bool installed; const wchar_t* addcrt; } cases[] = {
        {-1, false, L"1"}, {0, false, L"1"}, {0, true, L"keep"}, {1, true, L"keep"}}; // -1: neither is known
    for (const auto& c : cases)
    {
        if (c.product >= 0)
            RegisterRuntime(c.product, c.installed);
        TestSession session;
        session.SetProperty(L"ADDCRT", L"keep");
        EXPECT_EQ(PeekCRT(session.handle()), 0u);
        EXPECT_EQ(session.Property(L"ADDCRT"), c.addcrt) << &c - cases;
        EXPECT_EQ(session.LogLines(), c.addcrt[0] == L'1'
                                          ? Lines({L"PeekCRT", L"Installation of Visual C++ runtime is required"})
                                          : Lines({L"PeekCRT"}));
        for (const std::wstring& runtime : kRuntimes)
            testreg::DeleteTree(kProducts + runtime), testreg::DeleteTree(kMachineProducts + runtime);
    }
}

// The stand-in runs for a second, fails, and writes its record last: the action waited for it.
TEST_F(RuntimeInstallTest, InstallerRunsQuietlyFromTheSupportFolderAndIsWaitedForWhateverItsResult)
{
    const std::wstring folder = SupportDir(60);
    ToolStandInBehaviour slowFailure(1000, 1603);
    EXPECT_EQ(InstallCRT(m_session.handle()), 0u);
    EXPECT_EQ(ToolStandInRuns(folder + L"\\vcredist.exe"), Lines({Command(folder)}));
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"Entering InstallCRT", folder, L"InstallCRT - command line is:" + Command(folder)}));
}

// 52 characters go around the folder: 209 of folder fill the 262-character buffer with its terminator.
// An empty folder would name "\vcredist.exe" in the current drive's root.
TEST_F(RuntimeInstallTest, CommandLineTooLongForItsBufferOrWithoutAFolderIsOnlyLogged)
{
    const std::wstring fits = SupportDir(209), tooLong = SupportDir(210);
    m_session.SetProperty(L"SUPPORTDIR", fits);
    EXPECT_EQ(InstallCRT(m_session.handle()), 0u);
    EXPECT_EQ(ToolStandInRuns(fits + L"\\vcredist.exe"), Lines({Command(fits)}));
    const Lines refused = {L"InstallCRT - command line is:", L"InstallCRT - MSIExec_Execute - failed"};
    TraceCapture trace;
    for (const std::wstring& folder : {tooLong, std::wstring()})
    {
        m_session.SetProperty(L"SUPPORTDIR", folder);
        m_session.ClearRecords();
        EXPECT_EQ(InstallCRT(m_session.handle()), 0u);
        EXPECT_EQ(m_session.LogLines(), Lines({L"Entering InstallCRT", folder, refused[0], refused[1]}));
    }
    EXPECT_TRUE(ToolStandInRuns(tooLong + L"\\vcredist.exe").empty());
    EXPECT_TRUE(trace.Errored(L"KesSafeCopy ERROR: strDestination size 0, or too small")) << trace.Dump();
}

// The same path in the 64-bit view shows which view was written.
TEST(HideCRTARP, RuntimeEntryIsHiddenInThe32BitViewOnlyAndAMissingEntryIsOnlyLogged)
{
    const REGSAM views[] = {KEY_WOW64_64KEY, KEY_WOW64_32KEY};
    UniqueHKey entries[2];
    for (int i = 0; i < 2; ++i)
    {
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kRuntimeUninstallKey, 0, nullptr, 0, KEY_ALL_ACCESS | views[i],
                                  nullptr, entries[i].put(), nullptr), ERROR_SUCCESS);
        TestSession session;
        EXPECT_EQ(HideCRTARP(session.handle()), 0u);
        Lines expected = {L"Entering HideCRTARP()", L"Opening Key: " + std::wstring(kRuntimeUninstallKey)};
        if (i == 0) // only the 64-bit entry exists
            expected.push_back(L"Failed opening ARP GUID registry key");
        expected.push_back(L"Exiting HideCRTARP()");
        EXPECT_EQ(session.LogLines(), expected);
    }
    DWORD value = 0, size = sizeof(value);
    EXPECT_EQ(RegQueryValueExW(entries[0].get(), L"SystemComponent", nullptr, nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(RegQueryValueExW(entries[1].get(), L"SystemComponent", nullptr, nullptr,
                                 reinterpret_cast<BYTE*>(&value), &size) == ERROR_SUCCESS && value == 1);
    for (REGSAM view : views)
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kRuntimeUninstallKey, view, 0);
}
