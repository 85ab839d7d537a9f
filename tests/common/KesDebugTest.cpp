#include "KesDebug.h"
#include "KesDebugSeam.h"
#include "TestRegistry.h"
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
const wchar_t* const kTraceKey = L"SOFTWARE\\SWLTest\\Trace";
const wchar_t* const kTraceKeyParent = L"SOFTWARE\\SWLTest";

struct TraceLine
{
    std::string name;
    unsigned long pid = 0;
    unsigned long tid = 0;
    std::string message;
};

// Splits trace-file bytes into lines: every line must end in CR LF and carry
// the full prefix; anything else fails the calling test.
std::vector<TraceLine> ParseLines(const std::string& bytes)
{
    static const std::regex prefix(
        "([^\\t]*)\\tPID:([0-9a-f]+)\\tTID:([0-9a-f]+)\\t([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]\\.[0-9]{3}"
        "\\t\\([0-9A-F]+\\)\\t(.*)");
    std::vector<TraceLine> lines;
    size_t start = 0;
    while (start < bytes.size())
    {
        size_t end = bytes.find("\r\n", start);
        EXPECT_NE(end, std::string::npos) << "unterminated line: " << bytes.substr(start);
        if (end == std::string::npos)
            break;
        std::string text = bytes.substr(start, end - start);
        EXPECT_EQ(text.find('\n'), std::string::npos) << "bare line feed in: " << text;
        std::smatch m;
        EXPECT_TRUE(std::regex_match(text, m, prefix)) << "no prefix: " << text;
        if (m.empty())
            break;
        lines.push_back({m[1], std::stoul(m[2], nullptr, 16), std::stoul(m[3], nullptr, 16), m[5]});
        start = end + 2;
    }
    return lines;
}

std::vector<std::string> Messages(const std::string& bytes)
{
    std::vector<std::string> messages;
    for (const auto& line : ParseLines(bytes))
        messages.push_back(line.message);
    return messages;
}

class TraceLogTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 1)); }
    void TearDown() override
    {
        g_pfnKesDebugBeforeWrite = nullptr;
        testreg::DeleteTree(kTraceKey);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKeyParent); // only when no other test left keys there
    }

    TempDir m_dir;
    std::wstring m_file = m_dir.File(L"trace.txt");
};

TEST_F(TraceLogTest, LineCarriesPrefixAndWindowsFormattedMessageEndingInCrLf)
{
    ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 7));
    CKesDebug trace;
    ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 3, 0, 0, kTraceKey), 0);
    EXPECT_TRUE(trace.IsConfigured());
    EXPECT_EQ(trace.GetCurrentLogLevel(), 3u) << "the caller's level replaces the registry's";

    trace.Print(L"Value %d of %s and %S, %I64X", 7, L"wide", "narrow", 0xABCDEF0123ULL);

    std::string bytes = ReadFileBytes(m_file);
    auto lines = ParseLines(bytes);
    ASSERT_EQ(lines.size(), 1u) << bytes;
    EXPECT_EQ(lines[0].name, "SWL");
    EXPECT_EQ(lines[0].pid, GetCurrentProcessId());
    EXPECT_EQ(lines[0].tid, GetCurrentThreadId());
    EXPECT_EQ(lines[0].message, "Value 7 of wide and narrow, ABCDEF0123");
}

TEST_F(TraceLogTest, AppendOneKeepsEarlierLinesAnyOtherValueStartsEmpty)
{
    const std::string earlier = "earlier line\r\n";
    for (int append : {1, 0, 2, -1})
    {
        ASSERT_TRUE(WriteFileBytes(m_file, earlier));
        {
            CKesDebug trace;
            ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, append, 0, kTraceKey), 0);
            trace.Print(L"new");
        }
        std::string bytes = ReadFileBytes(m_file);
        bool kept = bytes.compare(0, earlier.size(), earlier) == 0;
        EXPECT_EQ(kept, append == 1) << "append=" << append;
        EXPECT_EQ(Messages(kept ? bytes.substr(earlier.size()) : bytes), std::vector<std::string>{"new"})
            << "append=" << append;
    }
}

TEST_F(TraceLogTest, RegistrySwitchOffLeavesTracingOffWhateverTheLevel)
{
    struct Case
    {
        const char* what;
        bool keyPresent;
        bool valuePresent;
        DWORD value;
        DWORD level;
    } cases[] = {{"no key", false, false, 0, 1},
                 {"no TRACE value", true, false, 0, 1},
                 {"TRACE = 0", true, true, 0, 5},
                 {"level argument 0", true, true, 1, 0}};
    for (const auto& c : cases)
    {
        testreg::DeleteTree(kTraceKey);
        if (c.keyPresent)
        {
            ASSERT_TRUE(testreg::CreateKey(kTraceKey));
        }
        if (c.valuePresent)
        {
            ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", c.value));
        }
        CKesDebug trace;
        EXPECT_EQ(trace.Configure(L"SWL", m_file.c_str(), c.level, 1, 0, kTraceKey), 0) << c.what;
        EXPECT_FALSE(trace.IsConfigured()) << c.what;
        trace.Print(L"never");
        trace.Error(const_cast<wchar_t*>(L"x.cpp"), 1, L"never");
        EXPECT_FALSE(FileExists(m_file)) << c.what;
    }
}

TEST_F(TraceLogTest, LogPathOf244CharactersIsRejectedBeforeAnythingElse)
{
    std::wstring base = m_dir.path() + L"\\";
    std::wstring path243 = base + std::wstring(243 - base.size(), L'a');
    std::wstring path244 = path243 + L"b";

    CKesDebug rejected;
    EXPECT_EQ(rejected.Configure(L"SWL", path244.c_str(), 1, 0, 0, kTraceKey), 31);
    EXPECT_EQ(rejected.Configure(L"SWL", path244.c_str(), 0, 0, 0, kTraceKey), 31) << "checked before the level";
    EXPECT_FALSE(rejected.IsConfigured());

    CKesDebug accepted;
    EXPECT_EQ(accepted.Configure(L"SWL", path243.c_str(), 1, 0, 0, kTraceKey), 0);
    EXPECT_TRUE(accepted.IsConfigured());
}

TEST_F(TraceLogTest, UnopenableFileGives1006AndNothingIsWritten)
{
    ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 4));
    for (std::wstring path : {m_dir.File(L"missing\\trace.txt"), std::wstring()})
    {
        CKesDebug trace;
        EXPECT_EQ(trace.Configure(L"SWL", path.c_str(), 1, 1, 0, kTraceKey), 1006);
        EXPECT_FALSE(trace.IsConfigured());
        // The level is set but there is no file: Error must not touch it.
        EXPECT_EQ(trace.GetCurrentLogLevel(), 4u);
        trace.Error(const_cast<wchar_t*>(L"x.cpp"), 1, L"dropped %s", L"text");
        trace.Print(L"dropped");
    }
    EXPECT_FALSE(FileExists(m_dir.File(L"missing")));
}

TEST_F(TraceLogTest, LongMessageIsCutTo1023AndTheLineTo1150Characters)
{
    const std::string x2000(2000, 'x');
    const std::wstring w2000(2000, L'x');
    {
        CKesDebug trace;
        ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, 0, 0, kTraceKey), 0);
        trace.Print(L"%s", w2000.c_str());
        trace.Print(L"%s", w2000.substr(0, 1023).c_str());
        trace.Print(L"%s", w2000.substr(0, 1022).c_str());
    }
    EXPECT_EQ(Messages(ReadFileBytes(m_file)),
              (std::vector<std::string>{x2000.substr(0, 1023), x2000.substr(0, 1023), x2000.substr(0, 1022)}));

    // A long component name pushes the line past 1150 characters: the message gives way.
    const std::wstring longName(300, L'N');
    {
        CKesDebug trace;
        ASSERT_EQ(trace.Configure(longName.c_str(), m_file.c_str(), 1, 0, 0, kTraceKey), 0);
        trace.Print(L"%s", w2000.c_str());
    }
    std::string bytes = ReadFileBytes(m_file);
    auto lines = ParseLines(bytes);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].name, std::string(300, 'N'));
    EXPECT_EQ(bytes.size(), 1150u + 2u);
    EXPECT_EQ(lines[0].message, std::string(lines[0].message.size(), 'x'));
    EXPECT_LT(lines[0].message.size(), 1023u);

    // A name too long for the line buffer leaves no line at all.
    const std::wstring hugeName(1200, L'N');
    {
        CKesDebug trace;
        ASSERT_EQ(trace.Configure(hugeName.c_str(), m_file.c_str(), 1, 0, 0, kTraceKey), 0);
        trace.Print(L"dropped");
    }
    EXPECT_EQ(ReadFileBytes(m_file), "");
}

TEST_F(TraceLogTest, MaxFileSizeOfOneStopsWritingOnceTheFileHoldsOneByte)
{
    {
        CKesDebug trace;
        ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, 0, 1, kTraceKey), 0);
        trace.Print(L"first");
        trace.Print(L"second");
    }
    EXPECT_EQ(Messages(ReadFileBytes(m_file)), std::vector<std::string>{"first"});

    // A file that already holds exactly the limit gets nothing appended.
    ASSERT_TRUE(WriteFileBytes(m_file, "x"));
    {
        CKesDebug trace;
        ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, 1, 1, kTraceKey), 0);
        trace.Print(L"appended");
    }
    EXPECT_EQ(ReadFileBytes(m_file), "x");
}

TEST_F(TraceLogTest, ExceptionWhileWritingLeavesTheErrorLineAndReleasesTheLock)
{
    static int throwsLeft;
    throwsLeft = 1;
    g_pfnKesDebugBeforeWrite = [] {
        if (throwsLeft-- > 0)
            throw std::runtime_error("write failed");
    };
    CKesDebug trace;
    ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, 0, 0, kTraceKey), 0);
    EXPECT_NO_THROW(trace.Print(L"lost"));

    // A lock still held by this thread would block the other thread for good;
    // the wait only turns such a deadlock into a failure.
    HANDLE thread = CreateThread(
        nullptr, 0, [](void* p) -> DWORD {
            static_cast<CKesDebug*>(p)->Print(L"from another thread");
            return 0;
        },
        &trace, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
    CloseHandle(thread);

    EXPECT_EQ(Messages(ReadFileBytes(m_file)),
              (std::vector<std::string>{"CKesDebug::Error - EXCEPTION DURING DEBUG PRINT.", "from another thread"}));
}

TEST_F(TraceLogTest, ErrorAndPrintLastErrorWriteOneLineEach)
{
    CKesDebug trace;
    ASSERT_EQ(trace.Configure(L"SWL", m_file.c_str(), 1, 0, 0, kTraceKey), 0);
    trace.Error(const_cast<wchar_t*>(L"Services.cpp"), 412, L"AddServices: cannot retrieve %s (%d)", L"system directory",
                5);
    trace.PrintLastError(ERROR_FILE_NOT_FOUND);
    SetLastError(ERROR_ACCESS_DENIED);
    trace.PrintLastError(0);

    // The system text carries its own CR LF; the first line of it is what matters here.
    auto systemText = [](DWORD code) {
        wchar_t text[512] = {};
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0x400, text, 512, nullptr);
        std::wstring w(text);
        return std::string(w.begin(), w.begin() + w.find_first_of(L"\r\n"));
    };
    std::string bytes = ReadFileBytes(m_file);
    std::string notFound = systemText(ERROR_FILE_NOT_FOUND);
    std::string denied = systemText(ERROR_ACCESS_DENIED);
    ASSERT_FALSE(notFound.empty());
    std::smatch m;
    EXPECT_TRUE(std::regex_search(bytes, m, std::regex("\\t\\([0-9A-F]+\\)\\tServices\\.cpp \\(412\\): AddServices: "
                                                       "cannot retrieve system directory \\(5\\)\r\n")))
        << bytes;
    EXPECT_NE(bytes.find(")\t" + notFound), std::string::npos) << bytes;
    EXPECT_NE(bytes.find(")\t" + denied), std::string::npos) << bytes;
}

// Scope objects print through the process-wide trace log, which this suite
// points at its own file and switches off again at the end.
class TraceScopeTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        s_file = std::wstring(dir) + L"KesDebugScopeTest.txt";
        testreg::SetDword(kTraceKey, L"TRACE", 1);
        ASSERT_EQ(g_Debug.Configure(L"SWL", s_file.c_str(), 1, 0, 0, kTraceKey), 0);
        testreg::DeleteTree(kTraceKey);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKeyParent);
    }
    static void TearDownTestSuite() { g_Debug.Configure(L"SWL", s_file.c_str(), 0, 1, 0, kTraceKey); }
    void SetUp() override { m_start = ReadFileBytes(s_file).size(); }
    std::vector<std::string> NewMessages() const { return Messages(ReadFileBytes(s_file).substr(m_start)); }

    static std::wstring s_file;
    size_t m_start = 0;
};
std::wstring TraceScopeTest::s_file;

int ReturnsOneSetLate()
{
    int result = 0;
    CKesDebugScope scope(L"ReturnsOneSetLate", &result);
    result = 1;
    return result;
}

TEST_F(TraceScopeTest, ExitLineShowsTheResultAsItIsWhenTheScopeEnds)
{
    EXPECT_EQ(ReturnsOneSetLate(), 1);
    {
        bool ok = false;
        CKesDebugScope scope(L"BoolTrue", &ok);
        ok = true;
    }
    {
        bool ok = true;
        CKesDebugScope scope(L"BoolFalse", &ok);
        ok = false;
    }
    {
        KesResult res{0};
        CKesDebugScope scope(L"Record", &res);
        res.ulErrCode = 31;
    }
    {
        HRESULT hr = S_OK;
        CKesDebugScope scope(L"Com", &hr, 0);
        hr = E_FAIL;
    }
    EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                                 "ENTRY:  ReturnsOneSetLate", "EXIT:  ReturnsOneSetLate, nReturn=1",
                                 "ENTRY:  BoolTrue", "EXIT:  BoolTrue, bReturn=true",
                                 "ENTRY:  BoolFalse", "EXIT:  BoolFalse, bReturn=false",
                                 "ENTRY:  Record", "EXIT:  Record, res.ulErrCode=31",
                                 "ENTRY:  Com", "EXIT:  Com, HRESULT=0X80004005"}));
}

TEST_F(TraceScopeTest, PlainExitWithoutResultAndWhenAnExceptionPasses)
{
    {
        CKesDebugScope scope(L"CreateTempFolder");
    }
    {
        CKesDebugScope scope(L"NoResult", static_cast<int*>(nullptr));
    }
    try
    {
        CKesDebugScope scope(L"Throws");
        throw std::runtime_error("fault");
    }
    catch (const std::exception&)
    {
    }
    EXPECT_EQ(NewMessages(), (std::vector<std::string>{"ENTRY:  CreateTempFolder", "EXIT:  CreateTempFolder",
                                                       "ENTRY:  NoResult", "EXIT:  NoResult", "ENTRY:  Throws",
                                                       "EXIT:  Throws"}));
}
} // namespace
