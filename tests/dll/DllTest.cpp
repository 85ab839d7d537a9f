// SWLLib.dll as Windows Installer and other components see it: loaded as a
// module, its string table, its trace configuration at load, and the exported
// classes used through the import library.
#include "KesDebug.h"
#include "KesRegKey.h"
#include "KesString.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <windows.h>
#include <msi.h>
#include <map>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

std::wstring ModuleDir()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring p = path;
    return p.substr(0, p.find_last_of(L'\\'));
}

// Loads a private copy of the DLL, so that its entry point runs again with
// the registry as the test left it.
class FreshLibrary
{
public:
    explicit FreshLibrary(const TempDir& dir)
    {
        m_path = dir.File(L"SWLLibCopy.dll");
        CopyFileW((ModuleDir() + L"\\SWLLib.dll").c_str(), m_path.c_str(), FALSE);
        m_module = LoadLibraryW(m_path.c_str());
    }
    ~FreshLibrary()
    {
        if (m_module)
            FreeLibrary(m_module);
        DeleteFileW(m_path.c_str());
    }
    HMODULE get() const { return m_module; }

private:
    std::wstring m_path;
    HMODULE m_module = nullptr;
};

class TraceAtLoad : public ::testing::Test
{
protected:
    void SetUp() override
    {
        wchar_t old[512] = {};
        m_hadTmp = GetEnvironmentVariableW(L"TMP", old, 512) != 0;
        m_oldTmp = old;
        SetEnvironmentVariableW(L"TMP", m_dir.path().c_str());
    }
    void TearDown() override { SetEnvironmentVariableW(L"TMP", m_hadTmp ? m_oldTmp.c_str() : nullptr); }

    ProductKeyGuard m_product{false};
    TempDir m_dir;
    bool m_hadTmp = false;
    std::wstring m_oldTmp;
};
} // namespace

TEST(StringTable, EveryTextIsExactlyAsShipped)
{
    const std::map<DWORD, std::wstring> texts = {
        {101, L"Administrator rights are required to install the software. Please log in as a user with administrator "
              L"rights and try again."},
        {102, L"Cannot install drivers. No supported Corvane\u00AE Swiftlane Technology Accelerator devices are present "
              L"on this system.\r\n\r\nClick 'Yes' if you want to install components to use software compression or "
              L"'No' to cancel."},
        {103, L"This product is not supported on this operating system.\r\nThe software cannot be installed at this "
              L"time."},
        {104, L"Corvane\u00AE Swiftlane Technology Install Wizard"},
        {105, L"Removing system service"},
        {106, L"Adding system service"},
        {107, L"Removing user service"},
        {108, L"Starting user service"},
        {109, L"Corvane(R) Swiftlane Technology"},
        {110, L"CorvaneSWL.msi cannot be launched directly. You must install with the SwlSetup.exe utility."},
        {111, L"You must restart your system for the configuration changes made to the software for Corvane\u00AE "
              L"Swiftlane Technology to take effect."},
        {112, L"The installation cannot continue because there is a pending system restart from a previous instance of "
              L"the installation software. Please restart the system and then attempt the installation again."},
        {113, L"Adding drivers"},
        {114, L"Removing drivers"},
        {117, L"Adding cfSwl service"},
        {118, L"Removing cfSwl service"},
        {119, L"A previous version of Corvane(R) Swiftlane was detected and must be uninstalled. Please uninstall the "
              L"previous version and then attempt the installation again."},
        {120, L"Removing hwa_swl service"},
        {121, L"Adding hwa_swl service"},
        {122, L"Removing devices"},
    };
    HMODULE dll = GetModuleHandleW(L"SWLLib.dll");
    ASSERT_NE(dll, nullptr);
    for (const auto& t : texts)
    {
        CKesString text;
        EXPECT_EQ(text.LoadStringW(dll, t.first), static_cast<int>(t.second.size())) << t.first;
        EXPECT_EQ(text, t.second.c_str()) << t.first;
    }
    for (DWORD missing : {100u, 115u, 116u, 123u})
    {
        CKesString text(L"stale");
        EXPECT_EQ(text.LoadStringW(dll, missing), 0) << missing;
        EXPECT_TRUE(text.empty()) << missing;
    }
}

TEST_F(TraceAtLoad, NoProductKeyOrTraceZeroMeansNoTraceFile)
{
    {
        FreshLibrary dll(m_dir);
        ASSERT_NE(dll.get(), nullptr);
        EXPECT_FALSE(testreg::KeyExists(kProduct));
    }
    testreg::SetDword(kProduct, L"Trace", 0);
    FreshLibrary dll(m_dir);
    ASSERT_NE(dll.get(), nullptr);
    EXPECT_FALSE(FileExists(m_dir.File(L"SWLDBG.txt")));
    EXPECT_FALSE(testreg::ValueExists(kProduct, L"Log"));
}

TEST_F(TraceAtLoad, TraceOnWithoutLogUsesTmpAndRemembersThePath)
{
    testreg::SetDword(kProduct, L"Trace", 1);
    {
        FreshLibrary dll(m_dir);
        ASSERT_NE(dll.get(), nullptr);
        std::wstring log;
        ASSERT_TRUE(testreg::GetString(kProduct, L"Log", log));
        EXPECT_EQ(log, m_dir.File(L"SWLDBG.txt"));
        EXPECT_TRUE(FileExists(log));

        // An action traces its Installer-log lines; with no session the
        // Installer calls fail quietly and the action still answers.
        auto action = reinterpret_cast<UINT(__stdcall*)(MSIHANDLE)>(
            reinterpret_cast<void*>(GetProcAddress(dll.get(), "WriteMSIPropertiesToRegistry")));
        ASSERT_NE(action, nullptr);
        action(0);
    }
    std::string bytes = ReadFileBytes(m_dir.File(L"SWLDBG.txt"));
    EXPECT_NE(bytes.find("\t(MSI LOG ENTRY) WriteMSIPropertiesToRegistry()\r\n"), std::string::npos) << bytes;
    EXPECT_EQ(bytes.rfind("SWL\tPID:", 0), 0u) << bytes;
}

TEST_F(TraceAtLoad, TmpTooLongForItsBufferCountsAsUnset)
{
    testreg::SetDword(kProduct, L"Trace", 1);
    SetEnvironmentVariableW(L"TMP", (m_dir.path() + L"\\" + std::wstring(600, L'a')).c_str());
    FreshLibrary dll(m_dir);
    ASSERT_NE(dll.get(), nullptr);
    std::wstring log = L"unset";
    ASSERT_TRUE(testreg::GetString(kProduct, L"Log", log));
    EXPECT_EQ(log, L"");
}

TEST_F(TraceAtLoad, RecordedLogPathIsUsedAsItStands)
{
    testreg::SetDword(kProduct, L"Trace", 1);
    testreg::SetString(kProduct, L"Log", m_dir.File(L"custom.txt"));
    FreshLibrary dll(m_dir);
    ASSERT_NE(dll.get(), nullptr);
    EXPECT_TRUE(FileExists(m_dir.File(L"custom.txt")));
    EXPECT_FALSE(FileExists(m_dir.File(L"SWLDBG.txt")));
}

TEST(ExportedClasses, WorkAcrossTheModuleBoundary)
{
    CKesString text;
    text.FormatString(L"%s=%d", L"wide", 42);
    EXPECT_EQ(text, L"wide=42");
    std::vector<CKesString> parts;
    EXPECT_TRUE(CKesString(L"a,b").Split(',', parts));
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1], L"b");
    EXPECT_EQ(GetCodePage(0), GetACP());

    testreg::DeleteTree(L"SOFTWARE\\SWLTest\\Dll");
    CKesRegKey key;
    ASSERT_TRUE(key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\SWLTest\\Dll", true, false));
    CKesString value(L"stored");
    EXPECT_TRUE(key.SetValue(L"Name", value, false));
    CKesString read;
    EXPECT_TRUE(key.GetValue(L"Name", read));
    EXPECT_EQ(read, L"stored");
    key.Close();
    testreg::DeleteTree(L"SOFTWARE\\SWLTest\\Dll");

    EXPECT_FALSE(CKesDebug().IsConfigured());
}
