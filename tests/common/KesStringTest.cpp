#include "KesSecure.h"
#include "KesString.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{
using Strings = std::vector<CKesString>;
using Lines = std::vector<std::wstring>;

TEST(KesString, SplitGivesNoEmptyLastTokenAndFalseWithoutDelimiter)
{
    const struct { const wchar_t* text; bool result; Strings tokens; } rows[] = {
        {L"", false, {}},         {L"abc", false, {}},        {L"a,b", true, {L"a", L"b"}},
        {L"abc,", true, {L"abc"}}, {L",a", true, {L"", L"a"}}, {L"a,,b", true, {L"a", L"", L"b"}}};
    for (const auto& row : rows)
    {
        Strings out{L"stale"};
        EXPECT_EQ(CKesString(row.text).Split(',', out), row.result) << row.text;
        EXPECT_EQ(out, row.tokens) << row.text;
    }
}

TEST(KesString, CompareVectorsSortsByCaseEvenWhenComparingWithoutIt)
{
    const struct { Strings a, b; bool caseSensitive, equal; } rows[] = {
        {{L"b", L"a"}, {L"a", L"b"}, true, true},
        {{L"a", L"B"}, {L"a", L"b"}, true, false},
        {{L"a", L"B"}, {L"B", L"a"}, false, true},
        {{L"B", L"a"}, {L"b", L"A"}, false, false}, // sorted {B, a} and {A, b}
        {{L"a", L"b"}, {L"a", L"b", L"c"}, false, false}};
    for (const auto& row : rows)
        EXPECT_EQ(CKesString::CompareVectors(row.a, row.b, row.caseSensitive), row.equal) << "row " << &row - rows;
}

TEST(KesString, FormatUsesWindowsConversionsAndKeeps1023Characters)
{
    CKesString s(L"previous");
    EXPECT_EQ(s.FormatString(L"%s=%d, %S, %I64X", L"wide", -42, "narrow", 0xABCDEF0123ULL), 28);
    EXPECT_EQ(std::wstring(s), L"wide=-42, narrow, ABCDEF0123");
    for (size_t length : {1023u, 1024u, 2000u})
    {
        EXPECT_EQ(s.FormatString(L"%s", std::wstring(length, L'x').c_str()), static_cast<int>(length));
        EXPECT_EQ(std::wstring(s), std::wstring(1023, L'x'));
    }
}

TEST(KesString, WarningArgumentsFillPlaceholdersThenFollowOnNewLines)
{
    CKesString s(L"File %s not found");
    s.FormatWarningMessage({L"a.txt", L"b", L"c"});
    EXPECT_EQ(std::wstring(s), L"File a.txt not found\nb\nc");
}

TEST(KesString, SmallMembersKeepTheirEdgeRules)
{
    EXPECT_EQ(std::wstring(CKesString(2)), L"2");
    EXPECT_EQ(std::wstring(CKesString(-100000000)), L"") << "more than nine characters leave it empty";
    EXPECT_FALSE(CKesString(L"").IsNumeric());
    EXPECT_TRUE(CKesString(L"").IsStringHexadecimal());
    EXPECT_FALSE(CKesString(L"12 3").IsStringType(0x2)) << "the blank is a symbol";
    CKesString s(L"\t abc  ");
    s.Trim();
    EXPECT_EQ(std::wstring(s), L"\t abc") << "only blanks are trimmed";
    s.Right(0);
    EXPECT_EQ(std::wstring(s), L"");
}

TEST(KesString, ConversionWritesTheTerminatorOverTheLastCharacter)
{
    wchar_t wide[16];
    char narrow[16];
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_ACP, 0, "abc", 3, wide, 16), 3);
    EXPECT_EQ(std::wstring(wide), L"ab");
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(CP_ACP, 0, L"abc", 3, narrow, 16, nullptr, nullptr), 3);
    EXPECT_EQ(std::string(narrow), "ab");
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_UTF8, 0, "\xC2\xAE x", -1, wide, 16), 4);
    EXPECT_EQ(std::wstring(wide), L"\u00AE x");
    EXPECT_EQ(GetCodePage(0), GetACP());
}

TEST(KesString, WarningMessageComesFromTheLanguagesResourceLibraryWithArgumentsAppended)
{
    // A copy of this program, which carries the library's string table, plays the resource library.
    const std::wstring torq = L"SOFTWARE\\CORVANE\\Network_Services\\TORQ";
    TempDir dir;
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    ASSERT_TRUE(CopyFileW(self, dir.File(L"CommonRes1033.dll").c_str(), FALSE));
    ASSERT_TRUE(testreg::SetString(torq, L"LocalLanguage", L"1033"));
    ASSERT_TRUE(testreg::SetString(torq, L"ResourceDir", dir.path() + L"\\"));
    CKesString s, expected;
    expected.LoadStringW(GetModuleHandleW(nullptr), 0x65);
    EXPECT_EQ(s.LoadWarningMessage(0x01000065, {L"arg"}), static_cast<int>(expected.size()));
    EXPECT_EQ(std::wstring(s), std::wstring(expected) + L"\narg");
    testreg::DeleteTree(torq);
}

TEST(KesString, SafeCopyReportsErrorsInsteadOfEndingTheProcess)
{
    TraceCapture trace;
    wchar_t small[4] = L"old";
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 11, small, 4, L"abcdef"), 34);
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 12, small, 4, nullptr), 22);
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 13, nullptr, 4, L"a"), 22);
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 14, small, 4, L"abc"), 0);
    EXPECT_EQ(std::wstring(small), L"abc");
    // Wine's msvcrt never calls the handler; where a runtime does, its lines are left out.
    Lines lines;
    for (const std::wstring& m : trace.Messages())
        if (m != L"KesSecureInvalidParameterHandler : ERROR")
            lines.push_back(m);
    EXPECT_EQ(lines, (Lines{L"Caller.cpp (11): KesSafeCopy ERROR: strDestination size 0, or too small",
                            L"Caller.cpp (12): KesSafeCopy ERROR: NULL == strSource",
                            L"KesSecure.cpp (187): KesSafeCopy ERROR: NULL == strDestination"}));
}

TEST(KesString, TracedMembersPrintTheirScopeWithTheResult)
{
    TraceCapture trace;
    EXPECT_FALSE(CKesString(L"a\u00AE").IsWithinAsciiRange(0x20, 0x7E));
    EXPECT_TRUE(CKesString::CompareVectors({L"x"}, {L"x"}, true));
    EXPECT_EQ(CKesString().LoadWarningMessage(0x65), -1);
    EXPECT_EQ(trace.Messages(), (Lines{L"ENTRY:  CKesString::IsWithinAsciiRange",
                                       L"EXIT:  CKesString::IsWithinAsciiRange, bReturn=false",
                                       L"ENTRY:  CKesString::CompareVectors",
                                       L"EXIT:  CKesString::CompareVectors, bReturn=true",
                                       L"ENTRY:  CKesString::LoadWarningMessage",
                                       L"EXIT:  CKesString::LoadWarningMessage, nReturn=-1"}));
}
} // namespace
