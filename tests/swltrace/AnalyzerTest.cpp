// Call trees, faults in context and the summary, and every kind of odd input
// a real trace file holds.
#include "Recorder.h"
#include "TraceLine.h"
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdio>

using namespace swltrace;

namespace
{
std::string Line(uint32_t pid, uint32_t tid, uint64_t counter, int32_t ms, const std::string& message)
{
    char prefix[96];
    std::snprintf(prefix, sizeof prefix, "SWL\tPID:%x\tTID:%x\t%02d:%02d:%02d.%03d\t(%llX)\t", pid, tid, ms / 3600000,
                  ms / 60000 % 60, ms / 1000 % 60, ms % 1000, static_cast<unsigned long long>(counter));
    return prefix + message;
}
} // namespace

TEST(CallTreeTest, NestsCallsWithDurationsAndResults)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"calls.txt"});

    const Item* outer = r.Call("EnumerateDeviceMgrForSupportedDevices");
    const Item* property = r.Call("GetMSIProperty");
    const Item* wmi = r.Call("QueryWmi");
    ASSERT_TRUE(outer && property && wmi);
    EXPECT_EQ(outer->status, CallStatus::Returned);
    EXPECT_NEAR(outer->durationMs, 256.0, 1e-6);  // counter at 10 MHz, calibrated from the clock
    EXPECT_EQ(outer->result, "nReturn=0");
    EXPECT_EQ(outer->depth, 0);
    EXPECT_EQ(property->parentId, outer->callId);
    EXPECT_EQ(property->depth, 1);
    EXPECT_EQ(property->result, "bReturn=true");
    EXPECT_EQ(wmi->result, "HRESULT=0X80041003");
    EXPECT_EQ(r.Call("UpdateDriverForDevices")->result, "res.ulErrCode=31");
    // Items come in file order.
    EXPECT_LT(outer->line, property->line);
    EXPECT_LT(property->line, wmi->line);

    ASSERT_EQ(r.summary.slowest.front().name, "EnumerateDeviceMgrForSupportedDevices");
    const FunctionStats& stats = r.summary.functions.at("GetMSIProperty");
    EXPECT_EQ(stats.count, 1u);
    EXPECT_NEAR(stats.maxMs, 2.0, 1e-6);
}

TEST(CallTreeTest, FaultsAndExceptionsCarryTheCallsOpenAtThatMoment)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"calls.txt"});
    ASSERT_EQ(r.summary.faultCount, 2u);
    const FaultRef& fault = r.summary.faults[0];
    EXPECT_TRUE(fault.fault);
    EXPECT_EQ(fault.line, 6u);
    EXPECT_EQ(fault.action, "InstallDrivers");
    EXPECT_EQ(fault.stack, (std::vector<std::string>{"EnumerateDeviceMgrForSupportedDevices", "QueryWmi"}));
    const FaultRef& exception = r.summary.faults[1];
    EXPECT_TRUE(exception.exception);
    EXPECT_FALSE(exception.fault);
    EXPECT_TRUE(exception.stack.empty());
}

TEST(CallTreeTest, MarksCallsThatNeverReturnedAndSaysWhy)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"calls.txt"});
    // KesSafeCopy lost its EXIT when its caller returned; STARTService was open at the end.
    const Item* lost = r.Call("KesSafeCopy");
    const Item* open = r.Call("STARTService");
    ASSERT_TRUE(lost && open);
    EXPECT_EQ(lost->status, CallStatus::NeverReturned);
    EXPECT_NE(lost->reason.find("outer call returned"), std::string::npos);
    EXPECT_EQ(open->status, CallStatus::NeverReturned);
    EXPECT_NE(open->reason.find("died or threw"), std::string::npos);
    EXPECT_EQ(r.summary.neverReturnedCount, 2u);
    EXPECT_EQ(r.summary.neverReturned[1].action, "AddServices");
    EXPECT_EQ(WarnedLines(w, "missing exit"), std::vector<uint64_t>{11});
    EXPECT_EQ(WarnedLines(w, "exit without entry"), std::vector<uint64_t>{12});
}

TEST(CallTreeTest, RecognisesCustomActionsWithoutTheInstallerLog)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"real/pf-7xxx-install-and-remove.trace.txt"});
    std::vector<std::string> names;
    for (const ActionRun& a : r.summary.actions)
        names.push_back(a.name);
    // CleanSetupFiles opens with a scope and a log line, and counts once.
    EXPECT_EQ(std::count(names.begin(), names.end(), "CleanSetupFiles"), 1) << ::testing::PrintToString(names);
    EXPECT_EQ(std::count(names.begin(), names.end(), "SetupFiles"), 1);
    EXPECT_EQ(names.front(), "IsSetupRunning");
    EXPECT_EQ(r.summary.neverReturnedCount, 0u);
}

// Each odd input: a warning naming the line, and the lines around it still read.
TEST(OddInputTest, EachProblemIsNamedWithItsLineAndTheReadGoesOn)
{
    struct Case
    {
        const char* file;
        const char* kind;
        std::vector<uint64_t> lines;
        uint64_t calls;  // calls still found
    } cases[] = {
        {"cut-line.txt", "cut line", {2, 5}, 2},
        {"cut-line.txt", "no line end", {7}, 2},
        {"interleaved.txt", "interleaved", {3, 4, 5, 7}, 4},
        {"appended-days.txt", "appended later", {5}, 5},
        {"appended-days.txt", "restart", {9}, 5},
        {"ansi.txt", "ansi", {1}, 1},
        {"utf8.txt", "utf-8", {1}, 1},
        {"long-message.txt", "cut message", {2}, 1},
        {"foreign.txt", "not ours", {1, 3, 4}, 1},
        {"foreign.txt", "cut line", {5}, 1},
        {"empty.txt", "empty", {0}, 0},
    };
    for (const Case& c : cases)
    {
        Recorder r;
        Warnings w(nullptr);
        Analyse(r, w, {c.file});
        EXPECT_EQ(WarnedLines(w, c.kind), c.lines) << c.file << ": " << c.kind;
        EXPECT_EQ(r.summary.calls, c.calls) << c.file;
        EXPECT_TRUE(r.ended) << c.file;
    }
}

TEST(OddInputTest, ALineCutByACrashLeavesTheNextWritersLineWhole)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"cut-line.txt"});
    // Process 300's first line sat behind process 200's cut one.
    ASSERT_EQ(r.summary.actions.size(), 2u);
    EXPECT_EQ(r.summary.actions[1].thread.pid, 0x300u);
    EXPECT_EQ(r.summary.actions[1].firstLine, 2u);
    EXPECT_EQ(r.Call("RemoveService")->status, CallStatus::Returned);
}

TEST(OddInputTest, InterleavedProcessesKeepTheirOwnTrees)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"interleaved.txt"});
    const Item* first = r.Call("CreateTempFolder", 0);
    const Item* second = r.Call("CreateTempFolder", 1);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->result, "bReturn=true");
    EXPECT_EQ(second->result, "bReturn=false");
    EXPECT_NEAR(r.Call("SetupFiles", 0)->durationMs, 40.0, 1e-6);
    EXPECT_NEAR(r.Call("SetupFiles", 1)->durationMs, 48.0, 1e-6);
    EXPECT_EQ(r.summary.neverReturnedCount, 0u);
}

TEST(OddInputTest, ARestartEndsOpenCallsAndStartsANewRun)
{
    Recorder r;
    Warnings w(nullptr);
    Analyse(r, w, {"appended-days.txt"});
    // Process 100 comes back after the restart as another process.
    const Item* before = r.Call("IsProcessRunning");
    const Item* cut = r.Call("IsOSSupported", 0);
    const Item* after = r.Call("IsOSSupported", 1);
    ASSERT_TRUE(before && cut && after);
    EXPECT_EQ(before->status, CallStatus::NeverReturned);
    EXPECT_EQ(cut->status, CallStatus::NeverReturned);
    EXPECT_NE(cut->reason.find("restarted"), std::string::npos);
    EXPECT_EQ(after->status, CallStatus::Returned);
    EXPECT_NEAR(after->durationMs, 2.0, 1e-6);
    ASSERT_FALSE(r.threads.empty());
    EXPECT_EQ(r.threads.back().run, 1u);
    EXPECT_EQ(r.threads.back().pid, 0x100u);
}

TEST(FrequencyTest, CalibratesFromTheClockOrTakesTheGivenOne)
{
    // 3.579545 MHz over two seconds of clock.
    const char* path = "/tmp/swltrace-frequency.txt";
    FILE* f = std::fopen(path, "wb");
    for (int i = 0; i <= 20; ++i)
    {
        const int32_t ms = 50000000 + i * 100;
        const uint64_t counter = 1000000 + static_cast<uint64_t>(i) * 357954;
        std::fprintf(f, "%s\r\n", Line(0x10, 0x20, counter, ms, i % 2 ? "EXIT:  Wait" : "ENTRY:  Wait").c_str());
    }
    std::fclose(f);
    std::string how;
    EXPECT_DOUBLE_EQ(CalibrateFrequency(path, 1 << 20, how), 3579545.0);

    Recorder r;
    Warnings w(nullptr);
    Options given;
    given.qpcFrequency = 1e6;
    Analyzer analyzer(given, nullptr, &r, w);
    analyzer.AddFile(path);
    analyzer.Finish();
    EXPECT_NEAR(r.Call("Wait")->durationMs, 357.954, 1e-6);
    EXPECT_EQ(r.summary.files[0].frequencySource, "given with --qpc-frequency");
    std::remove(path);
}

TEST(BoundsTest, AThreadWritesItsOldestOpenCallWhenTooMuchWaits)
{
    Recorder r;
    Warnings w(nullptr);
    Options options;
    options.maxPendingItems = 8;
    options.qpcFrequency = 1e7;
    Analyzer analyzer(options, nullptr, &r, w);
    analyzer.ProcessLine("t", 1, Line(1, 2, 100, 0, "ENTRY:  Outer"));
    for (int i = 0; i < 50; ++i)
        analyzer.ProcessLine("t", 2 + i, Line(1, 2, 200 + i, 0, "waiting"));
    // Outer went out unresolved long before its EXIT; at most 8 items wait.
    ASSERT_FALSE(r.items.empty());
    EXPECT_EQ(r.items[0].kind, Item::Kind::Call);
    EXPECT_EQ(r.items[0].status, CallStatus::Open);
    EXPECT_GE(r.items.size(), 50u - 8u);
    analyzer.ProcessLine("t", 60, Line(1, 2, 10100, 0, "EXIT:  Outer, bReturn=true"));
    analyzer.Finish();
    const Item& ret = r.items.back();
    EXPECT_EQ(ret.kind, Item::Kind::Return);
    EXPECT_EQ(ret.callId, r.items[0].callId);
    EXPECT_NEAR(ret.durationMs, 1.0, 1e-9);
    EXPECT_EQ(ret.result, "bReturn=true");
}

TEST(BoundsTest, SummaryTablesStopGrowingAtTheirLimits)
{
    Warnings w(nullptr);
    Options options;
    options.maxFunctions = 10;
    options.maxFaults = 5;
    options.qpcFrequency = 1e7;
    Analyzer analyzer(options, nullptr, nullptr, w);
    uint64_t n = 0;
    // Calls of names past the limit still pair with their EXIT lines, also
    // inside and around calls of names within it.
    analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "ENTRY:  F0"));
    for (int i = 0; i < 100; ++i)
    {
        const std::string name = "F" + std::to_string(i);
        analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "ENTRY:  " + name));
        analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "ENTRY:  F1"));
        analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "X.cpp (1): failed"));
        analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "EXIT:  F1"));
        analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "EXIT:  " + name));
    }
    analyzer.ProcessLine("t", ++n, Line(1, 2, n, 0, "EXIT:  F0"));
    analyzer.Finish();
    const Summary& s = analyzer.GetSummary();
    EXPECT_EQ(s.neverReturnedCount, 0u);
    EXPECT_EQ(s.functions.at("F0").count, 2u);
    EXPECT_EQ(s.functions.at("F1").count, 101u);
    EXPECT_EQ(s.functions.size(), 10u);
    EXPECT_EQ(s.otherFunctions, 90u);
    EXPECT_EQ(s.faults.size(), 5u);
    EXPECT_EQ(s.faultCount, 100u);
    EXPECT_EQ(s.calls, 201u);
}
