#pragma once
// What the analysis hands to a report: the items of each thread's story in the
// order they happened, and at the end the summary tables. Text, JSON and HTML
// reports implement ReportSink.
#include "MsiLog.h"
#include "TraceLine.h"
#include "Warnings.h"
#include <cstdint>
#include <unordered_map>
#include <string>
#include <vector>

namespace swltrace
{
// A thread of one process. run counts the machine's restarts seen in the
// trace (the performance counter starting again), so that a process id used
// again after a restart is another process.
struct ThreadId
{
    uint32_t run = 0;
    uint32_t pid = 0;
    uint32_t tid = 0;
    bool operator==(const ThreadId& o) const { return run == o.run && pid == o.pid && tid == o.tid; }
    bool operator!=(const ThreadId& o) const { return !(*this == o); }
};

enum class CallStatus
{
    Returned,
    Open,           // not known yet when the item had to be written out; a Return item follows
    NeverReturned
};

struct Item
{
    enum class Kind
    {
        ActionBegin,  // a custom action starts in this thread
        Call,         // a function's ENTRY line, with its outcome when known
        Return,       // the outcome of a Call that was written out while still open
        Message       // any other line: plain, Installer-log, fault, exception
    };
    Kind kind = Kind::Message;
    uint64_t line = 0;
    int32_t clockMs = 0;
    int depth = 0;
    std::string text;          // Call/Return: the function; Message: the message; ActionBegin: the action

    Item() = default;
    Item(Kind kind_, uint64_t line_, int32_t clockMs_, size_t depth_, std::string text_)
        : kind(kind_), line(line_), clockMs(clockMs_), depth(static_cast<int>(depth_)), text(std::move(text_))
    {
    }
    // Call and Return
    uint64_t callId = 0;
    uint64_t parentId = 0;
    double durationMs = -1;
    std::string result;        // "bReturn=false", ...
    CallStatus status = CallStatus::Open;
    std::string reason;        // why a call never returned
    uint64_t exitLine = 0;
    // Message
    MessageKind messageKind = MessageKind::Plain;
    bool exception = false;
    // ActionBegin: index into the Installer log's actions, or -1
    int msiIndex = -1;
};

struct InputFile
{
    std::string path;
    uint64_t bytes = 0;
    uint64_t lines = 0;
    double frequency = 0;       // performance-counter ticks per second used
    std::string frequencySource;
};

struct CallRef
{
    std::string name;
    std::string file;
    ThreadId thread;
    uint64_t line = 0;
    int32_t clockMs = 0;
    double durationMs = -1;
    std::string result;
    std::string action;
    std::string reason;         // calls that never returned
};

struct FunctionStats
{
    uint64_t count = 0;
    uint64_t neverReturned = 0;
    double totalMs = 0;
    double maxMs = 0;
};

struct FaultRef
{
    std::string file;
    ThreadId thread;
    uint64_t line = 0;
    int32_t clockMs = 0;
    std::string message;        // as written (bytes)
    bool fault = false;         // "File.cpp (123): ..."
    bool exception = false;
    std::vector<std::string> stack;  // open calls, outermost first
    std::string action;
};

struct ActionRun
{
    std::string name;
    int msiIndex = -1;
    std::string file;
    ThreadId thread;
    uint64_t firstLine = 0;
    uint64_t lastLine = 0;
    int32_t firstClock = 0;
    int32_t lastClock = 0;
    double durationMs = -1;     // from the performance counter, first to last line
    uint64_t lines = 0;
    uint64_t calls = 0;
    uint64_t faults = 0;
    uint64_t neverReturned = 0;
};

struct Summary
{
    std::vector<InputFile> files;
    uint64_t lines = 0;          // all lines read
    uint64_t traceLines = 0;     // lines that are ours
    uint64_t calls = 0;
    std::vector<CallRef> slowest;                 // longest first
    std::unordered_map<std::string, FunctionStats> functions;
    uint64_t otherFunctions = 0;                  // calls of names past the table's limit
    std::vector<FaultRef> faults;
    uint64_t faultCount = 0;
    std::vector<CallRef> neverReturned;
    uint64_t neverReturnedCount = 0;
    std::vector<ActionRun> actions;
    uint64_t actionCount = 0;
};

struct Header
{
    std::vector<std::string> inputs;
    const MsiLog* msiLog = nullptr;   // null without --msi-log
};

class ReportSink
{
public:
    virtual ~ReportSink() = default;
    virtual void Begin(const Header& header) = 0;
    // False when only End's summary is wanted: the analysis then builds no items.
    virtual bool WantsItems() const { return true; }
    // The items that follow belong to this thread (action: its process's current custom action).
    virtual void Thread(const ThreadId& thread, const std::string& file, const std::string& action) = 0;
    virtual void Emit(const Item& item) = 0;
    virtual void End(const Summary& summary, const Warnings& warnings) = 0;
};
} // namespace swltrace
