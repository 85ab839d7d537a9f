// The Installer session services and the custom-action frame, against a real in-process session.
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>

static const std::wregex kTimeStamp(L"\\[\\d\\d:\\d\\d:\\d\\d\\]");
static const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

TEST(InstallerLog, InfoRecordsCarryTheTimeStampTextAndDetailUnlessDoActionIsExactlyOne)
{
    TestSession session;
    LogToMSI(session.handle(), L"VerifyAdminOrWarn()");
    LogToMSI(session.handle(), L"Cannot set required registry key : ", L"SupportDir");
    auto records = session.RecordsOfType(INSTALLMESSAGE_INFO);
    ASSERT_TRUE(records.size() == 2 && records[0].fields.size() == 3 && records[1].fields.size() == 4);
    EXPECT_TRUE(std::regex_match(records[0].fields[1], kTimeStamp)) << Narrow(records[0].fields[1]);
    EXPECT_EQ(records[0].fields[2], L"VerifyAdminOrWarn()");
    EXPECT_EQ(records[1].fields[2] + L"|" + records[1].fields[3], L"Cannot set required registry key : |SupportDir");

    session.ClearRecords();
    session.SetProperty(L"DoActionCA", L"1");
    LogToMSI(session.handle(), L"text");
    const std::wstring log = session.Property(L"Log");
    EXPECT_TRUE(std::regex_match(log.substr(0, 10), kTimeStamp) && log.substr(10) == L": text") << Narrow(log);
    LogToMSI(session.handle(), L"text", L"detail");
    EXPECT_EQ(session.Property(L"Log").substr(10), L": text: detail");
    EXPECT_TRUE(session.RecordsOfType(INSTALLMESSAGE_INFO).empty());
    for (const wchar_t* value : {L"true", L" 1", L"01"})
    {
        session.SetProperty(L"DoActionCA", value);
        session.SetProperty(L"Log", L"");
        LogToMSI(session.handle(), value);
        EXPECT_TRUE(session.Logged(value) && session.Property(L"Log").empty()) << Narrow(value);
    }
}

TEST(SessionQueries, UnsetPropertyIsFalseOverlongIsCutAt259AndBadConditionsAreFalse)
{
    TestSession session;
    CKesString value(L"stale");
    EXPECT_TRUE(!GetMSIProperty(session.handle(), L"NOT_SET_ANYWHERE", value) && value.empty());
    session.SetProperty(L"LONGPROP", std::wstring(258, L'x') + L"yz" + std::wstring(40, L'x'));
    EXPECT_TRUE(GetMSIProperty(session.handle(), L"LONGPROP", value));
    EXPECT_EQ(value, (std::wstring(258, L'x') + L"y").c_str());

    session.SetProperty(L"MYPROP", L"5");
    EXPECT_TRUE(EvaluateCondition(session.handle(), L"MYPROP=5"));
    for (const wchar_t* condition : {L"MYPROP=6", L"", L"((MYPROP"})
        EXPECT_FALSE(EvaluateCondition(session.handle(), condition)) << Narrow(condition);
}

// Without a display Wine's MessageBoxW returns at once, with a result other than 0.
TEST(SilentRuns, UiLevelTwoOrASavedTwoShowsNoMessageBoxAndSavedValuesMatchCaseInsensitively)
{
    ProductKeyGuard product;
    TestSession session; // an in-process session runs with UI level 2
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"UILevel", L"2"));
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_YESNO), 0);
    testreg::SetString(kProduct, L"UILevel", L"2");
    session.SetProperty(L"UILevel", L"5");
    ASSERT_FALSE(EvaluateCondition(session.handle(), L"UILevel=2"));
    EXPECT_EQ(ShowMessageBox(session.handle(), nullptr, L"text", L"caption", MB_OK), 0);

    testreg::SetString(kProduct, L"Mode", L"Silent");
    EXPECT_TRUE(DoesRegistryKeyMatchValue(L"Mode", L"sILENT"));
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Mode", L"Silent "));
    testreg::SetDword(kProduct, L"Number", 2);
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Number", L"2"));
    testreg::DeleteTree(kProduct);
    EXPECT_FALSE(DoesRegistryKeyMatchValue(L"Mode", L"Silent"));
}

TEST(Progress, ActionStartAndTickRecords)
{
    TestSession session;
    ReportActionStart(session.handle(), L"Adding drivers", L"[1]");
    ReportProgressTicks(session.handle(), 25);
    auto start = session.RecordsOfType(INSTALLMESSAGE_ACTIONSTART);
    auto ticks = session.RecordsOfType(INSTALLMESSAGE_PROGRESS);
    ASSERT_TRUE(start.size() == 1 && ticks.size() == 1);
    EXPECT_EQ(start[0].fields, (std::vector<std::wstring>{start[0].fields.at(0), L"Progress Custom Action",
                                                          L"Adding drivers", L"[1]"}));
    EXPECT_EQ(ticks[0].fields, (std::vector<std::wstring>{ticks[0].fields.at(0), L"2", L"25", L"0"}));
}

TEST(ErrorTextsAndActionFrame, SystemTextKeepsItsLineBreakAndNoExceptionLeavesAnAction)
{
    SetLastError(ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(std::regex_match(std::wstring(GetLastErrorText()), std::wregex(L"[\\s\\S]+\r\n")));
    SetLastError(0x2000FFFF);
    EXPECT_TRUE(GetLastErrorText().empty());

    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw std::runtime_error("boom"); }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Throws", []() -> UINT { throw 42; }), ERROR_GEN_FAILURE);
    EXPECT_EQ(GuardedAction(L"Returns", []() -> UINT { return 1602; }), 1602u);
}
