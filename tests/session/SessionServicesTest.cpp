// The Installer session services and the custom-action frame, against a real
// in-process Installer session.
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>

namespace
{
bool IsTimeStamp(const std::wstring& text)
{
    return std::regex_match(text, std::wregex(L"\\[\\d\\d:\\d\\d:\\d\\d\\]"));
}
} // namespace

TEST(InstallerLog, RecordsCarryTimeStampTextAndDetail)
{
    TestSession session;
    LogToMSI(session.handle(), L"VerifyAdminOrWarn()");
    LogToMSI(session.handle(), L"Cannot set required registry key : ", L"SupportDir");
    LogToMSI(session.handle(), L"No detail", nullptr);
    auto records = session.InfoRecords();
    ASSERT_EQ(records.size(), 3u);
    ASSERT_EQ(records[0].fields.size(), 3u); // field 0, then two fields
    EXPECT_TRUE(IsTimeStamp(records[0].fields[1])) << Narrow(records[0].fields[1]);
    EXPECT_EQ(records[0].fields[2], L"VerifyAdminOrWarn()");
    ASSERT_EQ(records[1].fields.size(), 4u);
    EXPECT_EQ(records[1].fields[2], L"Cannot set required registry key : ");
    EXPECT_EQ(records[1].fields[3], L"SupportDir");
    EXPECT_EQ(records[2].fields, (std::vector<std::wstring>{records[2].fields[0], records[2].fields[1],
                                                            L"No detail", L""}));
}

TEST(InstallerLog, DoActionRunWritesThePropertyLogAndOnlyExactlyOneCounts)
{
    TestSession session;
    session.SetProperty(L"DoActionCA", L"1");
    LogToMSI(session.handle(), L"VerifyAdminOrWarn()");
    std::wstring log = session.Property(L"Log");
    EXPECT_TRUE(IsTimeStamp(log.substr(0, 10))) << Narrow(log);
    EXPECT_EQ(log.substr(10), L": VerifyAdminOrWarn()");
    LogToMSI(session.handle(), L"text", L"detail");
    EXPECT_EQ(session.Property(L"Log").substr(10), L": text: detail");
    EXPECT_TRUE(session.InfoRecords().empty());

    for (const wchar_t* value : {L"true", L" 1", L"01"})
    {
        session.SetProperty(L"DoActionCA", value);
        session.SetProperty(L"Log", L"");
        LogToMSI(session.handle(), value);
        EXPECT_TRUE(session.Logged(value)) << Narrow(value);
        EXPECT_EQ(session.Property(L"Log"), L"") << Narrow(value);
    }
}

TEST(Properties, UnsetIsFalseAndEmptyOverlongIsCutAt259)
{
    TestSession session;
    CKesString value(L"stale");
    EXPECT_FALSE(GetMSIProperty(session.handle(), L"NOT_SET_ANYWHERE", value));
    EXPECT_TRUE(value.empty());
    std::wstring longValue(300, L'x');
    longValue[258] = L'y';
    session.SetProperty(L"LONGPROP", longValue);
    EXPECT_TRUE(GetMSIProperty(session.handle(), L"LONGPROP", value));
    EXPECT_EQ(value, longValue.substr(0, 259).c_str());
}

TEST(Conditions, EmptyAndMalformedConditionsAreFalse)
{
    TestSession session;
    session.SetProperty(L"MYPROP", L"5");
    EXPECT_TRUE(EvaluateCondition(session.handle(), L"MYPROP=5"));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L"MYPROP=6"));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L""));
    EXPECT_FALSE(EvaluateCondition(session.handle(), L"((MYPROP"));
}

TEST(MessageBoxes, SilentUiLevelOrSavedSilentLevelShowsNothing)
{
    ProductKeyGuard product;
    TestSession session; // an in-process session runs with UI level 2
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_YESNO), 0);
    // A deferred or uninstall run may see another UI level; the saved one decides.
    testreg::SetString(L"SOFTWARE\\CORVANE\\SWL", L"UILevel", L"2");
    session.SetProperty(L"UILevel", L"5");
    ASSERT_FALSE(EvaluateCondition(session.handle(), L"UILevel=2"));
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_OK), 0);
}

TEST(Progress, ActionStartAndTickRecords)
{
    TestSession session;
    ReportActionStart(session.handle(), L"Adding drivers", L"[1]");
    ReportProgressTicks(session.handle(), 25);
    auto start = session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    ASSERT_EQ(start.size(), 1u);
    EXPECT_EQ(start[0].fields, (std::vector<std::wstring>{start[0].fields[0], L"Progress Custom Action",
                                                          L"Adding drivers", L"[1]"}));
    auto ticks = session.RecordsOfType(INSTALLMESSAGE_PROGRESS);
    ASSERT_EQ(ticks.size(), 1u);
    EXPECT_EQ(ticks[0].fields, (std::vector<std::wstring>{ticks[0].fields[0], L"2", L"25", L"0"}));
}

TEST(ProductKeyValues, MatchIsCaseInsensitiveAndMissingIsNoMatch)
{
    {
        ProductKeyGuard noKey(false);
        EXPECT_FALSE(DoesRegistryKeyMatchValue(L"UILevel", L"2"));
    }
    ProductKeyGuard product;
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"UILevel", L"2"));
    testreg::SetString(L"SOFTWARE\\CORVANE\\SWL", L"Mode", L"Silent");
    EXPECT_TRUE(DoesRegistryKeyMatchValue(L"Mode", L"sILENT"));
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Mode", L"Silent "));
    testreg::SetDword(L"SOFTWARE\\CORVANE\\SWL", L"Number", 2);
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Number", L"2"));
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

TEST(ActionFrame, NoExceptionLeavesAnAction)
{
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw std::runtime_error("boom"); }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw 42; }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Returns", []() -> UINT { return 1602; }), 1602u);
}
