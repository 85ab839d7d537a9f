#include "Helper.h"
#include "KesDebug.h"
#include "KesSecure.h"
#include "KesString.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace
{
using Strings = std::vector<CKesString>;

std::wstring W(const CKesString& s)
{
    return std::wstring(s);
}

// ---------------------------------------------------------------- construction, comparison

TEST(KesStringBasics, NumberConstructorGivesDecimalTextUpToNineCharacters)
{
    EXPECT_EQ(W(CKesString(2)), L"2");
    EXPECT_EQ(W(CKesString(999999999)), L"999999999");
    EXPECT_EQ(W(CKesString(-99999999)), L"-99999999");
    CKesString assigned(L"old");
    assigned = 0;
    EXPECT_EQ(W(assigned), L"0");
}

// The conversion buffer holds nine characters: a longer number leaves the string
// empty instead of ending the process.
TEST(KesStringBasics, NumberNeedingMoreThanNineCharactersGivesEmptyString)
{
    for (int number : {1000000000, -100000000, INT_MAX, INT_MIN})
    {
        EXPECT_EQ(W(CKesString(number)), L"") << number;
        CKesString assigned(L"old");
        assigned = number;
        EXPECT_EQ(W(assigned), L"") << number;
    }
}

TEST(KesStringBasics, EqualityIsExactAndOrderingIsOrdinal)
{
    CKesString upper(L"ABC");
    EXPECT_TRUE(upper == L"ABC");
    EXPECT_FALSE(upper == L"abc");
    EXPECT_TRUE(upper.CompareI(L"aBc"));
    EXPECT_EQ(W(upper), L"ABC") << "CompareI works on copies";
    EXPECT_TRUE(CKesString(L"B") < CKesString(L"a"));
    EXPECT_TRUE(CKesString::IsStrGreater(L"B", L"a")) << "the predicate is 'less' despite its name";
    EXPECT_FALSE(CKesString::IsStrGreater(L"a", L"a"));
    EXPECT_EQ(W(upper + CKesString(L"def")), L"ABCdef");
    EXPECT_EQ(W(upper), L"ABC");
}

// ---------------------------------------------------------------- Split

TEST(KesStringSplit, TextWithoutDelimiterGivesFalseAndNoTokens)
{
    Strings out{L"stale"};
    EXPECT_FALSE(CKesString(L"").Split(',', out));
    EXPECT_TRUE(out.empty());
    out.push_back(L"stale");
    EXPECT_FALSE(CKesString(L"abc").Split(',', out));
    EXPECT_TRUE(out.empty());
}

TEST(KesStringSplit, EmptyTokensSurviveExceptAfterATrailingDelimiter)
{
    Strings out;
    EXPECT_TRUE(CKesString(L"a,b").Split(',', out));
    EXPECT_EQ(out, (Strings{L"a", L"b"}));
    EXPECT_TRUE(CKesString(L"abc,").Split(',', out));
    EXPECT_EQ(out, (Strings{L"abc"}));
    EXPECT_TRUE(CKesString(L",a").Split(',', out));
    EXPECT_EQ(out, (Strings{L"", L"a"}));
    EXPECT_TRUE(CKesString(L"a,,b").Split(',', out));
    EXPECT_EQ(out, (Strings{L"a", L"", L"b"}));
    EXPECT_TRUE(CKesString(L"x;y z;").Split(';', out));
    EXPECT_EQ(out, (Strings{L"x", L"y z"}));
}

// ---------------------------------------------------------------- CompareVectors

TEST(KesStringCompareVectors, OrderDoesNotMatterButSizeDoes)
{
    EXPECT_TRUE(CKesString::CompareVectors({L"b", L"a"}, {L"a", L"b"}, true));
    EXPECT_FALSE(CKesString::CompareVectors({L"a", L"B"}, {L"a", L"b"}, true));
    EXPECT_FALSE(CKesString::CompareVectors({L"a", L"b"}, {L"a", L"b", L"c"}, true));
    EXPECT_FALSE(CKesString::CompareVectors({L"a", L"b"}, {L"a", L"b", L"c"}, false));
    EXPECT_TRUE(CKesString::CompareVectors({}, {}, true));
}

// Both lists are sorted case-sensitively even when the comparison is not.
TEST(KesStringCompareVectors, CaseInsensitiveComparisonStillSortsByCase)
{
    EXPECT_TRUE(CKesString::CompareVectors({L"a", L"B"}, {L"B", L"a"}, false));
    EXPECT_TRUE(CKesString::CompareVectors({L"a", L"b"}, {L"B", L"A"}, false));
    // Sorted: {B, a} and {A, b}; B does not match A.
    EXPECT_FALSE(CKesString::CompareVectors({L"B", L"a"}, {L"b", L"A"}, false));
}

// ---------------------------------------------------------------- FormatString

TEST(KesStringFormat, UsesWindowsConversions)
{
    CKesString s(L"previous");
    EXPECT_EQ(s.FormatString(L"%s=%d, %S, %I64X, %05.1f", L"wide", -42, "narrow", 0xABCDEF0123ULL, 2.5), 35);
    EXPECT_EQ(W(s), L"wide=-42, narrow, ABCDEF0123, 002.5");
    EXPECT_EQ(s.FormatString(L""), 0);
    EXPECT_EQ(W(s), L"");
}

TEST(KesStringFormat, KeepsAtMost1023CharactersAndReturnsTheFullLength)
{
    CKesString s;
    for (size_t length : {1022u, 1023u, 1024u, 2000u})
    {
        std::wstring text(length, L'x');
        text.back() = L'y';
        EXPECT_EQ(s.FormatString(L"%s", text.c_str()), static_cast<int>(length)) << length;
        EXPECT_EQ(W(s), text.substr(0, 1023)) << length;
    }
}

// ---------------------------------------------------------------- FormatWarningMessage

TEST(KesStringWarningMessage, ArgumentsFillPlaceholdersThenFollowOnNewLines)
{
    CKesString s(L"File %s not found");
    s.FormatWarningMessage({L"a.txt", L"b"});
    EXPECT_EQ(W(s), L"File a.txt not found\nb");

    s = L"%s copied to %s";
    s.FormatWarningMessage({L"x", L"y", L"z", L"w"});
    EXPECT_EQ(W(s), L"x copied to y\nz\nw");

    s = L"%s and %s, 100% sure";
    s.FormatWarningMessage({L"one"});
    EXPECT_EQ(W(s), L"one and %s, 100% sure") << "placeholders without an argument stay";

    s = L"No placeholder";
    s.FormatWarningMessage({});
    EXPECT_EQ(W(s), L"No placeholder");
}

// ---------------------------------------------------------------- character classes

TEST(KesStringClasses, NumericNeedsDigitsWhileHexAcceptsTheEmptyString)
{
    EXPECT_FALSE(CKesString(L"").IsNumeric());
    EXPECT_TRUE(CKesString(L"").IsStringHexadecimal());
    EXPECT_TRUE(CKesString(L"0123456789").IsNumeric());
    EXPECT_FALSE(CKesString(L"-1").IsNumeric());
    EXPECT_TRUE(CKesString(L"09afAF").IsStringHexadecimal());
    EXPECT_FALSE(CKesString(L"0x1F").IsStringHexadecimal());
}

TEST(KesStringClasses, StringTypeRejectsAnyClassNotAllowed)
{
    EXPECT_TRUE(CKesString(L"123").IsStringType(0x2));
    EXPECT_FALSE(CKesString(L"12a").IsStringType(0x2));
    EXPECT_FALSE(CKesString(L"12 3").IsStringType(0x2)) << "the blank is a symbol";
    EXPECT_TRUE(CKesString(L"Ab1_~").IsStringType(0x7));
    EXPECT_FALSE(CKesString(L"Ab1_").IsStringType(0x3));
    EXPECT_TRUE(CKesString(L"").IsStringType(0));
    EXPECT_TRUE(CKesString(L"\u00E9\t\x7F").IsStringType(0)) << "non-ASCII and controls are of no class";
}

TEST(KesStringClasses, AsciiRangeIsInclusive)
{
    EXPECT_TRUE(CKesString(L"").IsWithinAsciiRange(0x41, 0x41));
    EXPECT_TRUE(CKesString(L"AZ").IsWithinAsciiRange(0x41, 0x5A));
    EXPECT_FALSE(CKesString(L"AZ[").IsWithinAsciiRange(0x41, 0x5A));
}

// ---------------------------------------------------------------- trims and cuts

TEST(KesStringTrim, OnlyBlanksAreTrimmed)
{
    CKesString s(L"\t abc");
    s.TrimLeft();
    EXPECT_EQ(W(s), L"\t abc");
    s = L"abc \r\n";
    s.TrimRight();
    EXPECT_EQ(W(s), L"abc \r\n");
    s = L"  a b  ";
    s.Trim();
    EXPECT_EQ(W(s), L"a b");
    s = L"   ";
    s.Trim();
    EXPECT_EQ(W(s), L"");
}

TEST(KesStringCut, LeftAndRightKeepAtMostNCharacters)
{
    CKesString s(L"abcdef");
    s.Left(4);
    EXPECT_EQ(W(s), L"abcd");
    s.Right(3);
    EXPECT_EQ(W(s), L"bcd");
    s.Left(10);
    s.Right(10);
    EXPECT_EQ(W(s), L"bcd");
    s.Right(0);
    EXPECT_EQ(W(s), L"");
    s = L"abc";
    s.Left(0);
    EXPECT_EQ(W(s), L"");
}

// ---------------------------------------------------------------- conversions

TEST(KesStringConversion, ExplicitLengthPutsTheTerminatorOverTheLastCharacter)
{
    wchar_t wide[16];
    std::wmemset(wide, L'#', 16);
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_ACP, 0, "abc", 3, wide, 16), 3);
    EXPECT_EQ(std::wstring(wide), L"ab");

    char narrow[16];
    std::memset(narrow, '#', sizeof(narrow));
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(CP_ACP, 0, L"abc", 3, narrow, 16, nullptr, nullptr), 3);
    EXPECT_EQ(std::string(narrow), "ab");

    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_ACP, 0, "abc", 3, nullptr, 4), 0);
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_ACP, 0, "abc", 0, wide, 4), 0);
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(CP_ACP, 0, L"abc", -2, narrow, 4, nullptr, nullptr), 0);
}

TEST(KesStringConversion, WholeTextConvertsWithItsTerminator)
{
    wchar_t wide[16];
    EXPECT_EQ(CKesString::KesMultiByteToWideChar(CP_UTF8, 0, "\xC2\xAE x", -1, wide, 16), 4);
    EXPECT_EQ(std::wstring(wide), L"\u00AE x");

    char narrow[16];
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(CP_UTF8, 0, L"\u00AE x", -1, narrow, 16, nullptr, nullptr), 5);
    EXPECT_EQ(std::string(narrow), "\xC2\xAE x");

    int usedDefault = 0;
    EXPECT_EQ(CKesString::KesWideCharToMultiByte(1252, 0, L"a\u4E2D", -1, narrow, 16, "*", &usedDefault), 3);
    EXPECT_EQ(std::string(narrow), "a*");
    EXPECT_EQ(usedDefault, 1);
}

TEST(KesStringConversion, AllocFormsAllocateOnlyIntoAnEmptyPointer)
{
    wchar_t* wide = nullptr;
    EXPECT_EQ(CKesString::KesMultiByteToWideChar_alloc(CP_UTF8, 0, "\xC2\xAE" "abc", wide), 5);
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(std::wstring(wide), L"\u00AE" L"abc");
    wchar_t* held = wide;
    EXPECT_EQ(CKesString::KesMultiByteToWideChar_alloc(CP_UTF8, 0, "other", wide), 0);
    EXPECT_EQ(wide, held);
    CKesString::KesMultiByteToWideChar_dealloc(wide);
    EXPECT_EQ(wide, nullptr);

    char* narrow = nullptr;
    EXPECT_EQ(CKesString::KesWideCharToMultiByte_alloc(CP_UTF8, 0, L"\u00AE" L"abc", narrow, nullptr, nullptr), 6);
    ASSERT_NE(narrow, nullptr);
    EXPECT_EQ(std::string(narrow), "\xC2\xAE" "abc");
    char* heldNarrow = narrow;
    EXPECT_EQ(CKesString::KesWideCharToMultiByte_alloc(CP_UTF8, 0, L"x", narrow, nullptr, nullptr), 0);
    EXPECT_EQ(narrow, heldNarrow);
    CKesString::KesWideCharToMultiByte_dealloc(narrow);
    EXPECT_EQ(narrow, nullptr);
}

TEST(KesStringConversion, CodePageOfALocale)
{
    EXPECT_EQ(GetCodePage(0), GetACP());
    EXPECT_EQ(GetCodePage(MAKELCID(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), SORT_DEFAULT)), 1252u);
    EXPECT_EQ(GetCodePage(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)), 1251u);
    EXPECT_EQ(GetCodePage(0x7FFF0000), 0u) << "an unknown locale gives no number";
}

// ---------------------------------------------------------------- string resources

struct ResourceText
{
    DWORD id;
    const wchar_t* text;
};

const ResourceText kStringTable[] = {
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

// The test program carries the library's string table.
TEST(KesStringResources, LoadsEveryTextOfTheStringTableExactly)
{
    HMODULE module = GetModuleHandleW(nullptr);
    for (const ResourceText& entry : kStringTable)
    {
        CKesString s(L"previous");
        EXPECT_EQ(s.LoadStringW(module, entry.id), static_cast<int>(wcslen(entry.text))) << entry.id;
        EXPECT_EQ(W(s), entry.text) << entry.id;
    }
}

TEST(KesStringResources, MissingResourceOrModuleGivesZero)
{
    CKesString s(L"previous");
    EXPECT_EQ(s.LoadStringW(GetModuleHandleW(nullptr), 115), 0);
    EXPECT_EQ(W(s), L"") << "a missing resource empties the string";
    s = L"previous";
    EXPECT_EQ(s.LoadStringW(nullptr, 101), 0);
    EXPECT_EQ(W(s), L"previous") << "no module, no load";
}

const wchar_t kTorqKey[] = L"SOFTWARE\\CORVANE\\Network_Services\\TORQ";
const wchar_t kKes2Key[] = L"SOFTWARE\\CORVANE\\Network_Services\\KES2";
const wchar_t kNetworkServicesKey[] = L"SOFTWARE\\CORVANE\\Network_Services";

// The shared resource library is played by a copy of this test program, which
// carries the same string table.
class CommonResTest : public ::testing::Test
{
protected:
    void SetUp() override { RemoveKeys(); }
    void TearDown() override { RemoveKeys(); }
    static void RemoveKeys()
    {
        testreg::DeleteTree(kTorqKey);
        testreg::DeleteTree(kKes2Key);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kNetworkServicesKey); // only when nothing else is left there
    }
    bool PlaceLibrary(const std::wstring& fileName)
    {
        wchar_t self[MAX_PATH];
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        return CopyFileW(self, m_dir.File(fileName).c_str(), FALSE) != FALSE;
    }

    TempDir m_dir;
};

TEST_F(CommonResTest, AbsentLibraryGivesMinusOne)
{
    CKesString s(L"previous");
    EXPECT_EQ(s.LoadWarningMessage(0x01000065), -1);
    EXPECT_EQ(W(s), L"previous");
    EXPECT_EQ(s.LoadWarningMessage(0x65, {L"arg"}), -1);
    EXPECT_EQ(W(s), L"previous\narg") << "the arguments are applied even when the load fails";
}

TEST_F(CommonResTest, LanguageCodeAndResourceFolderSelectTheLibraryAndTheTopByteIsIgnored)
{
    ASSERT_TRUE(PlaceLibrary(L"CommonRes1033.dll"));
    ASSERT_TRUE(testreg::SetString(kTorqKey, L"LocalLanguage", L"1033"));
    ASSERT_TRUE(testreg::SetString(kTorqKey, L"ResourceDir", m_dir.path() + L"\\"));
    EXPECT_EQ(W(CHelper::CommonResourceLibraryName()), L"CommonRes1033");

    CKesString s;
    EXPECT_EQ(s.LoadWarningMessage(0x01000065), static_cast<int>(wcslen(kStringTable[0].text)));
    EXPECT_EQ(W(s), kStringTable[0].text);
    EXPECT_EQ(s.LoadWarningMessage(0xFF000068, {L"x", L"y"}), 44);
    EXPECT_EQ(W(s), L"Corvane\u00AE Swiftlane Technology Install Wizard\nx\ny");
    EXPECT_EQ(GetModuleHandleW(L"CommonRes1033"), nullptr) << "the library is freed after each load";
}

TEST_F(CommonResTest, SecondProductsInstallFolderIsSearchedWhenTheFirstHasNone)
{
    ASSERT_TRUE(PlaceLibrary(L"CommonRes.dll"));
    ASSERT_TRUE(testreg::SetString(kTorqKey, L"ResourceDir", L"C:\\no such folder"));
    ASSERT_TRUE(testreg::SetString(kKes2Key, L"InstallDir", m_dir.path()));

    CKesString s;
    EXPECT_EQ(s.LoadCommonResString(109), 31);
    EXPECT_EQ(W(s), L"Corvane(R) Swiftlane Technology");
}

// ---------------------------------------------------------------- safe copy and traced members

const wchar_t kTraceKey[] = L"SOFTWARE\\SWLTest\\KesStringTrace";
const wchar_t kTraceKeyParent[] = L"SOFTWARE\\SWLTest";

// Tracing goes through the process-wide log, which this suite points at its own
// file; the suite switches it off again at the end.
class KesStringTraceTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        s_file = std::wstring(dir) + L"KesStringTraceTest.txt";
        testreg::SetDword(kTraceKey, L"TRACE", 1);
        ASSERT_EQ(g_Debug.Configure(L"SWL", s_file.c_str(), 1, 0, 0, kTraceKey), 0);
    }
    static void TearDownTestSuite()
    {
        g_Debug.Configure(L"SWL", s_file.c_str(), 0, 1, 0, kTraceKey);
        testreg::DeleteTree(kTraceKey);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKeyParent); // only when no other test left keys there
    }
    void SetUp() override { m_start = ReadFileBytes(s_file).size(); }

    // Messages written since the test began, without their prefixes.
    std::vector<std::string> NewMessages() const
    {
        std::string bytes = ReadFileBytes(s_file).substr(m_start);
        std::vector<std::string> messages;
        size_t start = 0;
        while (start < bytes.size())
        {
            size_t end = bytes.find("\r\n", start);
            std::string line = bytes.substr(start, end - start);
            size_t tab = line.find(")\t");
            messages.push_back(tab == std::string::npos ? line : line.substr(tab + 2));
            if (end == std::string::npos)
                break;
            start = end + 2;
        }
        return messages;
    }

    static std::wstring s_file;
    size_t m_start = 0;
};
std::wstring KesStringTraceTest::s_file;

// Forgets the handler so that the next safe copy installs it again, wherever
// the runtime keeps it.
void ForgetInvalidParameterHandler()
{
    _set_invalid_parameter_handler(nullptr);
    using SetFunction = _invalid_parameter_handler(__cdecl*)(_invalid_parameter_handler);
    if (auto set = reinterpret_cast<SetFunction>(
            GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "_set_invalid_parameter_handler")))
        set(nullptr);
}

TEST_F(KesStringTraceTest, SafeCopyReportsErrorsWithoutEndingTheProcess)
{
    ForgetInvalidParameterHandler();
    wchar_t small[4] = L"old";
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 11, small, 4, L"abcdef"), 34);
    EXPECT_EQ(small[0], L'\0');
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 12, small, 4, nullptr), 22);
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 13, nullptr, 4, L"a"), 22);
    EXPECT_EQ(KesSafeCopy(L"Caller.cpp", 14, small, 4, L"abc"), 0);
    EXPECT_EQ(std::wstring(small), L"abc");
    KesSecureInvalidParameterHandler(L"expression", L"function", L"file", 1, 0);

    std::vector<std::string> messages = NewMessages();
    // Where the runtime lets the handler be installed it also reports the two
    // refused copies; Wine's msvcrt does not consult it.
    std::vector<std::string> fromCopies;
    for (const std::string& m : messages)
        if (m != "KesSecureInvalidParameterHandler : ERROR")
            fromCopies.push_back(m);
    EXPECT_EQ(fromCopies, (std::vector<std::string>{
                              "KesSecure.cpp (97): Setting invalid parameter handler to: "
                              "KesSecureInvalidParameterHandler",
                              "Caller.cpp (11): KesSafeCopy ERROR: strDestination size 0, or too small",
                              "Caller.cpp (12): KesSafeCopy ERROR: NULL == strSource",
                              "KesSecure.cpp (187): KesSafeCopy ERROR: NULL == strDestination",
                          }));
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "KesSecureInvalidParameterHandler : ERROR");
}

TEST_F(KesStringTraceTest, TracedMembersPrintTheirScopeWithTheResult)
{
    EXPECT_FALSE(CKesString(L"a\u00AE").IsWithinAsciiRange(0x20, 0x7E));
    EXPECT_TRUE(CKesString::CompareVectors({L"x"}, {L"x"}, true));
    EXPECT_EQ(CKesString().LoadWarningMessage(0x65), -1);
    EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                                 "ENTRY:  CKesString::IsWithinAsciiRange",
                                 "EXIT:  CKesString::IsWithinAsciiRange, bReturn=false",
                                 "ENTRY:  CKesString::CompareVectors",
                                 "EXIT:  CKesString::CompareVectors, bReturn=true",
                                 "ENTRY:  CKesString::LoadWarningMessage",
                                 "EXIT:  CKesString::LoadWarningMessage, nReturn=-1",
                             }));
}

} // namespace
