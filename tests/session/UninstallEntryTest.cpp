// The uninstall entry and the saved Installer properties.
#include "Payload/UninstallEntry.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

extern "C" UINT __stdcall WriteMSIPropertiesToRegistry(MSIHANDLE);
extern "C" UINT __stdcall WriteARPEntries(MSIHANDLE);
static const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";
using Lines = std::vector<std::wstring>;

TEST(SavedProperties, ValuesAreSavedAsStringsAndEachFailureIsLoggedWithTheSameWords)
{
    ProductKeyGuard product;
    TestSession session;
    TraceCapture trace;
    EXPECT_EQ(WriteMSIPropertiesToRegistry(session.handle()), 0u);
    EXPECT_TRUE(trace.Printed(L"EXIT:  WriteMSIPropertyToRegistry, nReturn=0")) << trace.Dump();
    std::wstring value;
    DWORD type = 0;
    EXPECT_TRUE(testreg::GetString(kProduct, L"UILevel", value, &type) && value == L"2" && type == REG_SZ);

    testreg::SetString(kProduct, L"EMPTYPROP", L"stale");
    EXPECT_EQ(WriteMSIPropertyToRegistry(session.handle(), L"EMPTYPROP"), 0u);
    EXPECT_TRUE(testreg::GetString(kProduct, L"EMPTYPROP", value) && value.empty());
    session.SetProperty(L"LONGPROP", std::wstring(260, L'a'));
    EXPECT_EQ(WriteMSIPropertyToRegistry(session.handle(), L"LONGPROP"), 31u);
    EXPECT_TRUE(session.Logged(L"Failed to open Registry key for MSI properties entry LONGPROP"));

    testreg::DeleteTree(kProduct);
    session.ClearRecords();
    EXPECT_EQ(WriteMSIPropertiesToRegistry(session.handle()), 31u);
    EXPECT_EQ(session.LogLines(), (Lines{L"WriteMSIPropertiesToRegistry()", L"WriteMSIPropertyToRegistry()",
                                         L"Failed to open Registry key for MSI properties entry SOFTWARE\\CORVANE\\SWL",
                                         L"WriteMSIPropertiesToRegistry() - Exit"}));
    EXPECT_FALSE(testreg::KeyExists(kProduct)); // opened, never created
}

// The in-process package is not installed, so no product owns the component.
TEST(UninstallEntry, WithoutTheProductsEntryNothingIsWrittenAndTheActionFails)
{
    const std::wstring uninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
    testreg::CreateKey(uninstall);
    TestSession session;
    EXPECT_EQ(WriteARPEntries(session.handle()), 31u);
    EXPECT_EQ(session.LogLines(), (Lines{L"WriteARPEntries()", L"Cannot locate required registry key for ARP entry",
                                         L"WriteARPEntries() - Exit"}));
    EXPECT_FALSE(testreg::ValueExists(uninstall, L"DisplayName"));
}
