// The uninstall entry and the saved Installer properties.
#include "Payload/UninstallEntry.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

extern "C" UINT __stdcall WriteMSIPropertiesToRegistry(MSIHANDLE);
extern "C" UINT __stdcall WriteARPEntries(MSIHANDLE);

namespace
{
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
}

TEST(SavedProperties, UiLevelIsSavedAsAStringValue)
{
    ProductKeyGuard product;
    TestSession session;
    TraceCapture trace;
    EXPECT_EQ(WriteMSIPropertiesToRegistry(session.handle()), 0u);
    EXPECT_TRUE(trace.Printed(L"EXIT:  WriteMSIPropertyToRegistry, nReturn=0")) << trace.Dump();
    std::wstring value;
    DWORD type = 0;
    ASSERT_TRUE(testreg::GetString(kProduct, L"UILevel", value, &type));
    EXPECT_EQ(value, L"2");
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    std::vector<std::wstring> expected = {L"WriteMSIPropertiesToRegistry()", L"WriteMSIPropertyToRegistry()",
                                          L"WriteMSIPropertyToRegistry() - Exit",
                                          L"WriteMSIPropertiesToRegistry() - Exit"};
    EXPECT_EQ(session.LogLines(), expected);
}

TEST(SavedProperties, MissingProductKeyFailsWithItsPath)
{
    ProductKeyGuard product(false);
    TestSession session;
    EXPECT_EQ(WriteMSIPropertiesToRegistry(session.handle()), static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_TRUE(session.Logged(L"Failed to open Registry key for MSI properties entry SOFTWARE\\CORVANE\\SWL"));
    EXPECT_TRUE(session.Logged(L"WriteMSIPropertiesToRegistry() - Exit"));
    EXPECT_FALSE(session.Logged(L"WriteMSIPropertyToRegistry() - Exit"));
    EXPECT_FALSE(testreg::KeyExists(kProduct)); // opened, never created
}

TEST(SavedProperties, EmptyIsSavedEmptyAndOverlongFailsWithTheSameWordsAndItsName)
{
    ProductKeyGuard product;
    testreg::SetString(kProduct, L"EMPTYPROP", L"stale");
    TestSession session;
    EXPECT_EQ(WriteMSIPropertyToRegistry(session.handle(), L"EMPTYPROP"), 0u);
    std::wstring value = L"x";
    ASSERT_TRUE(testreg::GetString(kProduct, L"EMPTYPROP", value));
    EXPECT_EQ(value, L"");

    session.SetProperty(L"LONGPROP", std::wstring(260, L'a'));
    EXPECT_EQ(WriteMSIPropertyToRegistry(session.handle(), L"LONGPROP"), static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_TRUE(session.Logged(L"Failed to open Registry key for MSI properties entry LONGPROP"));
    EXPECT_FALSE(testreg::ValueExists(kProduct, L"LONGPROP"));
}

TEST(UninstallEntry, WithoutTheProductsEntryNothingIsWrittenAndTheActionFails)
{
    // The in-process package is not installed, so its product code cannot be
    // found from the component; the Uninstall key itself must stay untouched.
    const std::wstring uninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
    testreg::CreateKey(uninstall);
    TestSession session;
    EXPECT_EQ(WriteARPEntries(session.handle()), static_cast<UINT>(ERROR_GEN_FAILURE));
    EXPECT_TRUE(session.Logged(L"Cannot locate required registry key for ARP entry"));
    EXPECT_TRUE(session.Logged(L"WriteARPEntries() - Exit"));
    EXPECT_FALSE(testreg::ValueExists(uninstall, L"DisplayName"));
    EXPECT_FALSE(testreg::ValueExists(uninstall, L"UninstallString"));
}
