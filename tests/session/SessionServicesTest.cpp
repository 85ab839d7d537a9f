// The Installer session services and the custom-action frame, against a real
// in-process Installer session.
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "resource.h"
#include <gtest/gtest.h>
#include <cwctype>
#include <new>
#include <stdexcept>

namespace
{
bool IsTimeStamp(const std::wstring& text)
{
    // [HH:MM:SS]
    if (text.size() != 10 || text[0] != L'[' || text[3] != L':' || text[6] != L':' || text[9] != L']')
        return false;
    for (size_t i : {1, 2, 4, 5, 7, 8})
        if (!iswdigit(text[i]))
            return false;
    return true;
}
} // namespace

TEST(InstallerLog, OneTextGoesOutAsTimeStampAndText)
{
    TestSession session;
    LogToMSI(session.handle(), L"VerifyAdminOrWarn()");
    auto records = session.InfoRecords();
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].fields.size(), 3u); // field 0 plus two fields
    EXPECT_TRUE(IsTimeStamp(records[0].fields[1])) << Narrow(records[0].fields[1]);
    EXPECT_EQ(records[0].fields[2], L"VerifyAdminOrWarn()");
}

TEST(InstallerLog, TextAndDetailGoOutAsThreeFields)
{
    TestSession session;
    LogToMSI(session.handle(), L"Cannot set required registry key : ", L"SupportDir");
    auto records = session.InfoRecords();
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].fields.size(), 4u);
    EXPECT_TRUE(IsTimeStamp(records[0].fields[1]));
    EXPECT_EQ(records[0].fields[2], L"Cannot set required registry key : ");
    EXPECT_EQ(records[0].fields[3], L"SupportDir");
    EXPECT_TRUE(session.Logged(L"Cannot set required registry key : SupportDir"));
}

TEST(InstallerLog, DoActionRunWritesThePropertyLogInsteadOfARecord)
{
    TestSession session;
    session.SetProperty(L"DoActionCA", L"1");
    LogToMSI(session.handle(), L"VerifyAdminOrWarn()");
    EXPECT_TRUE(session.InfoRecords().empty());
    std::wstring log = session.Property(L"Log");
    ASSERT_EQ(log.size(), 10u + 2 + 19) << Narrow(log);
    EXPECT_TRUE(IsTimeStamp(log.substr(0, 10)));
    EXPECT_EQ(log.substr(10), L": VerifyAdminOrWarn()");

    LogToMSI(session.handle(), L"text", L"detail");
    log = session.Property(L"Log");
    EXPECT_EQ(log.substr(10), L": text: detail");
    EXPECT_TRUE(session.InfoRecords().empty());
}

TEST(InstallerLog, OnlyExactlyOneMeansADoActionRun)
{
    for (const wchar_t* value : {L"true", L" 1", L"1 ", L"01", L""})
    {
        TestSession session;
        session.SetProperty(L"DoActionCA", value);
        LogToMSI(session.handle(), L"line");
        EXPECT_TRUE(session.Logged(L"line")) << Narrow(value);
        EXPECT_EQ(session.Property(L"Log"), L"") << Narrow(value);
    }
}

TEST(Properties, UnsetPropertyReadsAsFalseAndEmpty)
{
    TestSession session;
    CKesString value(L"stale");
    EXPECT_FALSE(GetMSIProperty(session.handle(), L"NOT_SET_ANYWHERE", value));
    EXPECT_TRUE(value.empty());
}

TEST(Properties, OverlongPropertyIsCutAt259Characters)
{
    TestSession session;
    std::wstring longValue(300, L'x');
    longValue[258] = L'y';
    longValue[259] = L'z';
    session.SetProperty(L"LONGPROP", longValue);
    CKesString value;
    EXPECT_TRUE(GetMSIProperty(session.handle(), L"LONGPROP", value));
    EXPECT_EQ(value.size(), 259u);
    EXPECT_EQ(value.back(), L'y');
}

TEST(Conditions, TrueFalseEmptyAndMalformed)
{
    TestSession session;
    session.SetProperty(L"MYPROP", L"5");
    EXPECT_TRUE(EvaluateCondition(session.handle(), L"MYPROP=5"));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L"MYPROP=6"));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L""));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L"((MYPROP"));
}

TEST(MessageBoxes, SilentUiLevelShowsNothing)
{
    ProductKeyGuard product;
    TestSession session; // an in-process session runs with UI level 2
    ASSERT_TRUE(EvaluateCondition(session.handle(), L"UILevel=2"));
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_YESNO), 0);
}

TEST(MessageBoxes, SavedSilentUiLevelShowsNothingInADeferredRun)
{
    ProductKeyGuard product;
    ASSERT_TRUE(testreg::SetString(L"SOFTWARE\\CORVANE\\SWL", L"UILevel", L"2"));
    TestSession session;
    session.SetProperty(L"UILevel", L"5");
    if (EvaluateCondition(session.handle(), L"UILevel=2"))
        GTEST_SKIP() << "this Installer keeps UILevel read-only";
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_OK), 0);
}

TEST(Progress, ActionStartRecordCarriesDescriptionAndTemplate)
{
    TestSession session;
    ReportActionStart(session.handle(), L"Adding drivers", L"[1]");
    auto records = session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].fields.size(), 4u);
    EXPECT_EQ(records[0].fields[1], L"Progress Custom Action");
    EXPECT_EQ(records[0].fields[2], L"Adding drivers");
    EXPECT_EQ(records[0].fields[3], L"[1]");
}

TEST(Progress, TicksRecordIncrementsTheBar)
{
    TestSession session;
    ReportProgressTicks(session.handle(), 25);
    auto records = session.RecordsOfType(INSTALLMESSAGE_PROGRESS);
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].fields.size(), 4u);
    EXPECT_EQ(records[0].fields[1], L"2");
    EXPECT_EQ(records[0].fields[2], L"25");
    EXPECT_EQ(records[0].fields[3], L"0");
}

TEST(ProductKeyValues, MatchIsCaseInsensitiveAndMissingIsNoMatch)
{
    {
        ProductKeyGuard product(false);
        EXPECT_FALSE(DoesRegistryKeyMatchValue(L"UILevel", L"2")); // no key
    }
    ProductKeyGuard product;
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"UILevel", L"2")); // no value
    testreg::SetString(L"SOFTWARE\\CORVANE\\SWL", L"Mode", L"Silent");
    EXPECT_TRUE(DoesRegistryKeyMatchValue(L"Mode", L"sILENT"));
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Mode", L"Silent "));
    testreg::SetDword(L"SOFTWARE\\CORVANE\\SWL", L"Number", 2);
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Number", L"2")); // not a string value
}

TEST(ErrorTexts, SystemTextKeepsItsLineBreakAndUnknownCodesGiveNothing)
{
    SetLastError(ERROR_FILE_NOT_FOUND);
    CKesString text = GetLastErrorText();
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ(text.substr(text.size() - 2), L"\r\n");
    SetLastError(0x2000FFFF);
    EXPECT_TRUE(GetLastErrorText().empty());
}

TEST(StringTable, TextsComeFromTheLibrarysResources)
{
    EXPECT_EQ(LoadResString(IDS_WIZARD_CAPTION), L"Corvane\u00AE Swiftlane Technology Install Wizard");
    EXPECT_EQ(LoadResString(IDS_OS_NOT_SUPPORTED),
              L"This product is not supported on this operating system.\r\nThe software cannot be installed at this "
              L"time.");
    EXPECT_TRUE(LoadResString(115).empty());
}

TEST(ActionFrame, NoExceptionLeavesAnAction)
{
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw std::runtime_error("boom"); }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw std::bad_alloc(); }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw 42; }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Returns", []() -> UINT { return 1602; }), 1602u);
}
