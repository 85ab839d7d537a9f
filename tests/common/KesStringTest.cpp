#include "KesSecure.h"
#include "KesString.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

namespace
{
using Strings = std::vector<CKesString>;
using Lines = std::vector<std::wstring>;

TEST(KesString, SplitGivesNoEmptyLastTokenAndFalseWithoutDelimiter)
{
    Strings none{L"stale"}, tokens{L"stale"};
    EXPECT_FALSE(CKesString(L"abc").Split(',', none));
    EXPECT_EQ(none, Strings{});
    EXPECT_TRUE(CKesString(L",a,,b,").Split(',', tokens));
    EXPECT_EQ(tokens, (Strings{L"", L"a", L"", L"b"}));
}

TEST(KesString, CompareVectorsSortsByCaseEvenWhenComparingWithoutIt)
{
    TraceCapture trace;
    EXPECT_FALSE(CKesString::CompareVectors({L"a", L"b"}, {L"a", L"b", L"c"}, false));
    EXPECT_FALSE(CKesString::CompareVectors({L"a", L"B"}, {L"a", L"b"}, true));
    EXPECT_FALSE(CKesString::CompareVectors({L"B", L"a"}, {L"b", L"A"}, false)) << "sorted {B, a} and {A, b}";
    EXPECT_TRUE(CKesString::CompareVectors({L"b", L"a"}, {L"a", L"b"}, true));
    EXPECT_EQ(trace.Messages().back(), L"EXIT:  CKesString::CompareVectors, bReturn=true");
}

TEST(KesString, FormatUsesWindowsConversionsAndKeeps1023Characters)
{
    CKesString s(L"previous");
    EXPECT_EQ(s.FormatString(L"%s=%d, %S, %I64X", L"wide", -42, "narrow", 0xABCDEF0123ULL), 28);
    EXPECT_EQ(std::wstring(s), L"wide=-42, narrow, ABCDEF0123");
    EXPECT_EQ(s.FormatString(L"%s", std::wstring(1024, L'x').c_str()), 1024);
    EXPECT_EQ(std::wstring(s), std::wstring(1023, L'x'));
}

TEST(KesString, SmallMembersKeepTheirEdgeRules)
{
    EXPECT_EQ(std::wstring(CKesString(-12345678)), L"-12345678");
    EXPECT_EQ(std::wstring(CKesString(-100000000)), L"") << "more than nine characters leave it empty";
    EXPECT_FALSE(CKesString(L"").IsNumeric());
    EXPECT_TRUE(CKesString(L"").IsStringHexadecimal());
    EXPECT_FALSE(CKesString(L"12 3").IsStringType(0x2)) << "the blank is a symbol";
    CKesString s(L"\t abc  ");
    s.Trim();
    EXPECT_EQ(std::wstring(s), L"\t abc") << "only blanks are trimmed";
    wchar_t wide[16];
    char narrow[16];
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_ACP, 0, "abc", 3, wide, 16), 3);
    EXPECT_EQ(std::wstring(wide), L"ab") << "the terminator is written over the last character";
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(CP_ACP, 0, L"abc", 3, narrow, 16, nullptr, nullptr), 3);
    EXPECT_EQ(std::string(narrow), "ab");
}

TEST(KesString, WarningMessagesComeFromTheLanguagesResourceLibraryWithArgumentsAppended)
{
    CKesString s(L"File %s not found");
    s.FormatWarningMessage({L"a.txt", L"b", L"c"});
    EXPECT_EQ(std::wstring(s), L"File a.txt not found\nb\nc");
    EXPECT_EQ(s.LoadWarningMessage(0x65), -1) << "no resource library yet";
    // A copy of this program, which carries the library's string table, plays the resource library.
    const std::wstring torq = L"SOFTWARE\\CORVANE\\Network_Services\\TORQ";
    TempDir dir;
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    ASSERT_TRUE(CopyFileW(self, dir.File(L"CommonRes1033.dll").c_str(), FALSE));
    ASSERT_TRUE(testreg::SetString(torq, L"LocalLanguage", L"1033") &&
                testreg::SetString(torq, L"ResourceDir", dir.path() + L"\\"));
    CKesString expected;
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
    EXPECT_EQ(trace.Messages(), (Lines{L"Caller.cpp (11): KesSafeCopy ERROR: strDestination size 0, or too small",
                                       L"Caller.cpp (12): KesSafeCopy ERROR: NULL == strSource",
                                       L"KesSecure.cpp (187): KesSafeCopy ERROR: NULL == strDestination"}));
}
} // namespace
