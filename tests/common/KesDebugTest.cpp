#include "KesTrace.h"
#include "KesDebugSeam.h"
#include "TestRegistry.h"
#include "TraceCapture.h"
#include "UniqueHandle.h"
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>

namespace
{
const wchar_t* const kTraceKey = L"SOFTWARE\\SWLTest\\Trace";
using Lines = std::vector<std::string>;

// The message of every CR LF ended line: the text after its last tab.
Lines Messages(const std::string& bytes)
{
    Lines messages;
    for (size_t start = 0, end; (end = bytes.find("\r\n", start)) != std::string::npos; start = end + 2)
    {
        const std::string line = bytes.substr(start, end - start);
        messages.push_back(line.substr(line.rfind('\t') + 1));
    }
    return messages;
}

struct TraceLogTest : ::testing::Test
{
    void SetUp() override { ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 1)); }

    std::string Log(std::initializer_list<const wchar_t*> messages, int append = 0, DWORD maxFileSize = 0,
                    const wchar_t* name = L"SWL")
    {
        m_trace.reset(new CKesDebug); // the previous log is closed before the new one opens the file
        EXPECT_EQ(m_trace->Configure(name, m_file.c_str(), 1, append, maxFileSize, kTraceKey), 0);
        for (const wchar_t* message : messages)
            m_trace->Print(L"%s", message);
        return ReadFileBytes(m_file);
    }

    TempDir m_dir;
    std::wstring m_file = m_dir.File(L"trace.txt");
    std::unique_ptr<CKesDebug> m_trace;
};

TEST_F(TraceLogTest, LineIsTabbedPrefixAndWideMessageCutTo1023WithinA1150CharacterLine)
{
    char ids[64];
    snprintf(ids, sizeof(ids), "SWL\\tPID:%lx\\tTID:%lx\\t", GetCurrentProcessId(), GetCurrentThreadId());
    const std::string rest = "[0-2][0-9]:[0-5][0-9]:[0-5][0-9]\\.[0-9]{3}\\t\\([0-9A-F]+\\)\\twide text\r\n";
    const std::string bytes = Log({L"wide text"});
    EXPECT_TRUE(std::regex_match(bytes, std::regex(ids + rest))) << bytes;
    const std::wstring x2000(2000, L'x');
    EXPECT_EQ(Messages(Log({x2000.c_str()})), Lines{std::string(1023, 'x')});
    const std::string cut = Log({x2000.c_str()}, 0, 0, std::wstring(300, L'N').c_str());
    EXPECT_EQ(cut.substr(1148), "xx\r\n") << "a long name cuts the line to 1150 characters, not " << cut.size();
}

TEST_F(TraceLogTest, TextOutsideTheCodePageIsWrittenAsQuestionMarksAndEveryLineEnds)
{
    const std::string bytes = Log({L"Temp folder created 'C:\\tmp\u0416'", L"CJK \u6587\u5B57, lone \xD800.", L"caf\u00E9",
                                   L"next"});
    EXPECT_EQ(Messages(bytes), (Lines{"Temp folder created 'C:\\tmp?'", "CJK ??, lone ?.", "caf\xE9", "next"}))
        << bytes;
}

TEST_F(TraceLogTest, EarlierLinesStayOnlyWithAppendOneAndMaxFileSizeStopsWriting)
{
    for (int append : {1, 0, 2})
    {
        ASSERT_TRUE(WriteFileBytes(m_file, "earlier\r\n"));
        EXPECT_EQ(Messages(Log({L"new"}, append)), (append == 1 ? Lines{"earlier", "new"} : Lines{"new"})) << append;
    }
    EXPECT_EQ(Messages(Log({L"first", L"second"}, 0, 1)), Lines{"first"});
    EXPECT_EQ(Messages(Log({L"under a limit past 2 GB"}, 0, 0x80000000u)), Lines{"under a limit past 2 GB"});
}

TEST_F(TraceLogTest, ConfigureGivesZeroWhenSwitchedOff31ForLongPathsAnd1006ForUnopenableFiles)
{
    const std::wstring base = m_dir.path() + L"\\";
    m_file = base + std::wstring(243 - base.size(), L'a'); // the longest path accepted
    CKesDebug trace;
    EXPECT_EQ(trace.Configure(L"SWL", (m_file + L"b").c_str(), 0, 0, 0, kTraceKey), 31) << "checked before the level";
    EXPECT_EQ(trace.Configure(L"SWL", m_dir.File(L"missing\\trace.txt").c_str(), 1, 0, 0, kTraceKey), 1006);
    ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 0));
    EXPECT_EQ(Log({L"switched off in the registry"}), "");
    ASSERT_TRUE(testreg::SetDword(kTraceKey, L"TRACE", 1));
    EXPECT_EQ(Messages(Log({L"on"})), Lines{"on"});
}

TEST_F(TraceLogTest, ExceptionWhileWritingLeavesTheErrorLineAndReleasesTheLock)
{
    g_pfnKesDebugBeforeWrite = [] { g_pfnKesDebugBeforeWrite = nullptr; throw std::runtime_error("write failed"); };
    EXPECT_NO_THROW(Log({L"lost"}));
    // A lock left held would block another thread for good; the wait turns that into a failure.
    auto print = [](void* trace) -> DWORD { return static_cast<CKesDebug*>(trace)->Print(L"from another thread"), 0; };
    UniqueKernelHandle thread(CreateThread(nullptr, 0, print, m_trace.get(), 0, nullptr));
    EXPECT_EQ(WaitForSingleObject(thread.get(), 60000), WAIT_OBJECT_0);
    EXPECT_EQ(Messages(ReadFileBytes(m_file)),
              (Lines{"CKesDebug::Error - EXCEPTION DURING DEBUG PRINT.", "from another thread"}));
}

TEST(TraceScope, ExitLineShowsTheResultAsItIsWhenTheScopeEnds)
{
    TraceCapture trace;
    auto scoped = [](const wchar_t* name, auto start, auto end, auto... hresultTag) {
        auto result = start;
        CKesDebugScope scope(name, &result, hresultTag...);
        result = end;
    };
    scoped(L"Int", 0, 1);
    scoped(L"Record", KesResult{0}, KesResult{31});
    scoped(L"Com", HRESULT{S_OK}, HRESULT{E_FAIL}, 0);
    EXPECT_THROW([] { CKesDebugScope scope(L"Throws"); throw std::runtime_error("fault"); }(), std::runtime_error);
    EXPECT_EQ(trace.Messages(),
              (std::vector<std::wstring>{L"ENTRY:  Int", L"EXIT:  Int, nReturn=1", L"ENTRY:  Record",
                                         L"EXIT:  Record, res.ulErrCode=31", L"ENTRY:  Com",
                                         L"EXIT:  Com, HRESULT=0X80004005", L"ENTRY:  Throws", L"EXIT:  Throws"}));
}
} // namespace
