#pragma once
// Reads trace files line by line and rebuilds, per process and thread, the
// calls from their ENTRY and EXIT lines, the custom action each line ran in,
// the faults with the calls open at that moment, and the summary tables.
// Memory is bounded by the open calls, a fixed number of items waiting per
// thread for their call's outcome, and the capped summary tables; not by the
// size of the input.
#include "MsiLog.h"
#include "Report.h"
#include "TraceLine.h"
#include "Warnings.h"
#include <deque>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace swltrace
{
struct Options
{
    double qpcFrequency = 0;       // ticks per second; 0: calibrate from each file
    size_t maxPendingItems = 20000; // per thread, before an open call is written out unresolved
    size_t slowestCount = 15;
    size_t maxFunctions = 50000;
    size_t maxFaults = 2000;
    size_t maxNeverReturned = 2000;
    size_t maxActions = 10000;
    uint64_t calibrationBytes = 16u << 20;
};

// Ticks per second of the performance counter, estimated from the clock
// column of the first calibrationBytes of path. Snaps to the usual
// frequencies when close. 0 when the file has too little to go by.
double CalibrateFrequency(const std::string& path, uint64_t calibrationBytes, std::string& how);

class Analyzer
{
public:
    // sink may be null: only the summary is built. msiLog may be null.
    Analyzer(const Options& options, const MsiLog* msiLog, ReportSink* sink, Warnings& warnings);

    // Reads one trace file to its end. False when it cannot be opened.
    bool AddFile(const std::string& path);
    // Closes what is still open and hands the summary to the sink.
    void Finish();

    const Summary& GetSummary() const { return m_summary; }

    // For tests and the benchmark: one line as if read from file.
    void ProcessLine(const std::string& file, uint64_t lineNumber, std::string_view line);

private:
    static const uint32_t kNoName = 0xFFFFFFFFu;
    struct Frame
    {
        uint32_t fn = kNoName;    // the function's number in m_names, or kNoName: then ownName
        std::string ownName;      // only when the table of names is full
        uint64_t line = 0;
        uint64_t counter = 0;
        int32_t clockMs = 0;
        uint64_t callId = 0;
        uint64_t itemSeq = 0;
        bool written = false;     // its Call item already went to the sink, unresolved
    };
    struct ThreadState
    {
        ThreadId id;
        std::vector<Frame> frames;   // [0, depth) are open; the rest are kept for reuse
        size_t depth = 0;
        std::deque<Item> pending;
        uint64_t frontSeq = 0;
        std::string action;
        uint64_t actionSerial = 0;   // the action run action was taken from
    };
    struct ProcessState
    {
        ActionRun action;
        uint64_t actionSerial = 0;   // a number for each action run, never reused
        bool inAction = false;
        size_t openFrames = 0;
        uint64_t firstCounter = 0;
        uint64_t lastCounter = 0;
    };

    // A line already split into its fields.
    void ProcessParsed(const std::string& file, uint64_t n, std::string_view line, ParseResult r, const TraceLine& t);
    void Line(const std::string& file, uint64_t n, const TraceLine& t);
    void NewRun(const std::string& file, uint64_t n, const std::string& why);
    ThreadState& Thread(uint32_t pid, uint32_t tid);
    ProcessState& Process(uint32_t pid);
    int MatchAction(std::string_view text, bool byName, int32_t clockMs);
    bool IsActionName(std::string_view name) const;
    bool NameIsAction(uint32_t fn, std::string_view name);
    void BeginAction(ThreadState& t, ProcessState& p, const std::string& file, uint64_t n, int32_t clockMs,
                     const std::string& name, int msiIndex);
    void EndAction(ProcessState& p);
    void CloseFrames(ThreadState& t, size_t keep, const std::string& file, uint64_t n, const std::string& reason);
    void CloseAll(const std::string& file, uint64_t n, const std::string& reason, uint32_t exceptPid);
    void Push(ThreadState& t, Item&& item);
    void Drain(ThreadState& t, bool all);
    void Write(ThreadState& t, const Item& item);
    void RecordCall(const Frame& f, const ThreadState& t, double ms, std::string_view result);
    void RecordNeverReturned(const Frame& f, const ThreadState& t, const std::string& file, const std::string& reason);
    double Milliseconds(uint64_t from, uint64_t to) const;
    void SetFrequency(double frequency);
    uint32_t FindName(std::string_view name, uint64_t hash) const;
    uint32_t AddName(std::string_view name, uint64_t hash);
    const std::string& FrameName(const Frame& f) const { return f.fn != kNoName ? m_names[f.fn] : f.ownName; }
    CallRef RefTo(const Frame& f, const ThreadState& t, const std::string& file) const;
    FunctionStats* Stats(const Frame& f, bool add);

    Options m_options;
    const MsiLog* m_msiLog;
    ReportSink* m_sink;
    Warnings& m_warnings;
    Summary m_summary;

    std::unordered_map<std::string, std::vector<int>> m_openings;   // opening text -> Installer-log actions
    std::unordered_map<std::string, std::vector<int>> m_byName;     // action name -> Installer-log actions
    std::vector<bool> m_matched;
    size_t m_cursor = 0;

    std::unordered_map<uint64_t, ThreadState> m_threads;
    std::unordered_map<uint32_t, ProcessState> m_processes;
    ThreadState* m_lastThread = nullptr;
    ProcessState* m_lastProcess = nullptr;
    uint32_t m_lastProcessPid = 0;
    std::unordered_set<std::string_view> m_actionNames;  // views of literals and of the log's names
    bool m_render = false;    // build items for the sink, not only the summary
    ThreadId m_lastWritten;
    bool m_anyWritten = false;
    std::string m_file;              // the file being read
    std::string m_component;
    uint32_t m_run = 0;
    double m_frequency = 1e7;
    // Set with m_frequency: a second of ticks, and a number of ticks below
    // which no gap between lines can be a later run, so that most lines
    // need no division.
    uint64_t m_secondTicks = 10000000;
    uint64_t m_belowLaterRun = 0;
    uint64_t m_maxCounter = 0;
    uint64_t m_lastCounter = 0;
    bool m_haveCounter = false;
    uint32_t m_lastPid = 0;
    bool m_havePid = false;
    uint64_t m_nextCallId = 1;
    bool m_sawUtf8 = false;
    bool m_sawAnsi = false;
    std::vector<std::pair<double, CallRef>> m_slowHeap;
    uint64_t m_nextActionSerial = 1;

    // Function names, each stored once and numbered, so that an EXIT line
    // compares numbers and finds its function's figures without hashing. At
    // most maxFunctions of them; further names stay with their frames.
    std::deque<std::string> m_names;
    std::vector<uint64_t> m_nameHashes;
    std::vector<uint32_t> m_nameSlots;             // open addressing: number + 1, 0 when free
    std::vector<FunctionStats*> m_statsByName;     // into m_summary.functions, null until there
    std::vector<signed char> m_nameIsAction;       // IsActionName, -1 until asked
};
} // namespace swltrace
