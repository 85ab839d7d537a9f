#pragma once
// One line of the trace file, split into its fields without copying:
//   COMPONENT \t PID:hex \t TID:hex \t hh:mm:ss.mmm \t (HEXCOUNTER) \t message
// and the message read for what it says: a function's ENTRY or EXIT, a line
// that also went to the Installer log, a fault with its source position, an
// exception.
#include <cstdint>
#include <string_view>

namespace swltrace
{
enum class ParseResult : uint8_t
{
    Ok,
    NotOurs,  // does not start with a component name and "\tPID:"
    Cut       // starts like ours but a field is missing or broken
};

enum class MessageKind : uint8_t
{
    Plain,
    Entry,      // "ENTRY:  Name"
    Exit,       // "EXIT:  Name" or "EXIT:  Name, bReturn=..." (nReturn, res.ulErrCode, HRESULT)
    MsiLog,     // "(MSI LOG ENTRY) text": the same text is in the Installer log
    Fault       // "File.cpp (123): text"
};

struct TraceLine
{
    // Ordered so that the record packs without holes: the parsing thread
    // writes it and the thread with the call stacks reads it right after,
    // so every cache line it spans crosses between the cores.
    std::string_view message;
    std::string_view name;      // Entry/Exit: the function; Fault: the source file
    std::string_view result;    // Exit: "bReturn=true" and the like, or empty
    std::string_view text;      // MsiLog: the logged text; Fault: the text after "): "
    uint64_t counter = 0;       // performance counter, raw ticks
    uint64_t nameHash = 0;      // Entry/Exit: NameHash(name)
    uint32_t pid = 0;
    uint32_t tid = 0;
    int32_t clockMs = 0;        // local time, milliseconds since midnight
    int sourceLine = 0;         // Fault: the line number in the source file
    MessageKind kind = MessageKind::Plain;
    bool exception = false;     // the message reports an exception
    bool highBytes = false;     // the message has bytes above 0x7F
    bool tabs = false;          // the message has a tab
    uint8_t componentLength = 0;  // the component is the line's first componentLength bytes
};

// A hash of a function's name, computed with the rest of the line so that the
// thread that builds the call stacks only looks it up.
uint64_t NameHash(std::string_view name);

// Splits line (without its line end) into out. out's views point into line.
ParseResult ParseTraceLine(std::string_view line, TraceLine& out);
// Only the fields up to the message (component, pid, tid, clock, counter,
// message), without reading what the message says.
ParseResult ParseTraceFields(std::string_view line, TraceLine& out);

// Where, after the start, another trace line begins inside this one (a line cut
// off by a crash, followed by the next writer's line), or npos. component is
// the name the file's lines carry ("SWL").
size_t FindEmbeddedLine(std::string_view line, std::string_view component);
} // namespace swltrace
