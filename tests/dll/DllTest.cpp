// SWLLib.dll as the Installer and other components see it: custom actions under plain names, the string
// table, the trace set up at load, and the exported classes used through the import library.
#include "KesDebug.h"
#include "KesRegKey.h"
#include "KesString.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <windows.h>
#include <msi.h>

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

struct LoadedLibrary : ::testing::Test
{
    void SetUp() override
    {
        wchar_t tmp[512] = {};
        m_oldTmp = GetEnvironmentVariableW(L"TMP", tmp, 512) ? tmp : L"";
        SetEnvironmentVariableW(L"TMP", m_dir.path().c_str());
    }
    void TearDown() override
    {
        FreeLibrary(m_module);
        SetEnvironmentVariableW(L"TMP", m_oldTmp.empty() ? nullptr : m_oldTmp.c_str());
    }
    // Loads a fresh copy of the DLL, whose entry point then runs again; returns the Log value left, or "(none)".
    std::wstring Load()
    {
        FreeLibrary(m_module);
        wchar_t original[MAX_PATH];
        GetModuleFileNameW(GetModuleHandleW(L"SWLLib.dll"), original, MAX_PATH);
        EXPECT_TRUE(CopyFileW(original, m_dir.File(L"SWLLibCopy.dll").c_str(), FALSE));
        m_module = LoadLibraryW(m_dir.File(L"SWLLibCopy.dll").c_str());
        EXPECT_NE(m_module, nullptr);
        std::wstring log;
        return testreg::GetString(kProduct, L"Log", log) ? log : L"(none)";
    }

    ProductKeyGuard m_product{false};
    TempDir m_dir;
    std::wstring m_oldTmp;
    HMODULE m_module = nullptr;
};
} // namespace

TEST_F(LoadedLibrary, TraceNeedsTheProductKeyAndTraceOnAndGoesToTheRecordedLogOrIntoTmp)
{
    EXPECT_EQ(Load(), L"(none)");
    EXPECT_FALSE(testreg::KeyExists(kProduct)) << "loading never creates the product key";
    ASSERT_TRUE(testreg::SetDword(kProduct, L"Trace", 0));
    EXPECT_EQ(Load(), L"(none)");
    ASSERT_TRUE(testreg::SetDword(kProduct, L"Trace", 1) && testreg::SetString(kProduct, L"Log", m_dir.File(L"a.txt")));
    EXPECT_EQ(Load(), m_dir.File(L"a.txt"));
    EXPECT_TRUE(FileExists(m_dir.File(L"a.txt")) && !FileExists(m_dir.File(L"SWLDBG.txt")));
    ASSERT_TRUE(testreg::DeleteValue(kProduct, L"Log"));
    EXPECT_EQ(Load(), m_dir.File(L"SWLDBG.txt"));
    ASSERT_TRUE(testreg::DeleteValue(kProduct, L"Log"));
    SetEnvironmentVariableW(L"TMP", (m_dir.path() + L"\\" + std::wstring(600, L'a')).c_str());
    EXPECT_EQ(Load(), L"") << "a TMP too long for its buffer counts as unset";
}

TEST_F(LoadedLibrary, ActionsAnswerUnderTheirPlainNamesAndTraceTheirInstallerLogLines)
{
    ASSERT_TRUE(testreg::SetDword(kProduct, L"Trace", 1) && testreg::SetString(kProduct, L"Log", m_dir.File(L"t.txt")));
    Load();
    // Without a session every Installer call fails; the actions still answer.
    const struct { const char* name; UINT result; } actions[] = {{"WriteMSIPropertiesToRegistry", ERROR_GEN_FAILURE},
        {"WriteARPEntries", ERROR_GEN_FAILURE}, {"CleanSetupFiles", ERROR_GEN_FAILURE}, {"HideCancelButton", 0}};
    for (const auto& a : actions)
    {
        auto action = reinterpret_cast<UINT(__stdcall*)(MSIHANDLE)>(GetProcAddress(m_module, a.name));
        ASSERT_NE(action, nullptr) << a.name;
        EXPECT_EQ(action(0), a.result) << a.name;
    }
    const std::string bytes = ReadFileBytes(m_dir.File(L"t.txt"));
    EXPECT_EQ(bytes.rfind("SWL\tPID:", 0), 0u) << bytes;
    EXPECT_NE(bytes.find("\t(MSI LOG ENTRY) WriteMSIPropertiesToRegistry()\r\n"), std::string::npos) << bytes;
}

TEST(StringTable, OnlyTheShippedIdsHoldTextsAndTheirSymbolsSurviveTheBuild)
{
    const HMODULE dll = GetModuleHandleW(L"SWLLib.dll");
    CKesString text;
    for (DWORD id = 100; id <= 123; ++id)
        EXPECT_EQ(text.LoadStringW(dll, id) > 0, id >= 101 && id <= 122 && id != 115 && id != 116) << id;
    const std::wstring devices = L"Cannot install drivers. No supported Corvane\u00AE Swiftlane Technology Accelerator "
                                 L"devices are present on this system.\r\n\r\nClick 'Yes' if you want to install "
                                 L"components to use software compression or 'No' to cancel.";
    EXPECT_EQ(text.LoadStringW(dll, 102), static_cast<int>(devices.size()));
    EXPECT_EQ(std::wstring(text), devices);
}
