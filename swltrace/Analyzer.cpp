#include "Analyzer.h"
#include "ParsedLines.h"
#include "Text.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace swltrace
{
namespace
{
const int32_t kDayMs = 24 * 3600 * 1000;
const double kLaterRunSeconds = 3600;

// How each custom action of the library opens its Installer-log lines, for
// traces read without the Installer's log. Most log "Name()" first.
struct Opener
{
    const char* action;
    const char* text;
};
const Opener kOpeners[] = {
    {"VerifyHardwareOrWarn", "VerifyHardwareOrWarn()"},
    {"InstallDrivers", "InstallDrivers()"},
    {"RemoveDevices", "RemoveDevices()"},
    {"DisableDevices", "DisableDevices()"},
    {"EnableDevices", "EnableDevices()"},
    {"SetRegistryKeyForEnableSriov", "SetRegistryKeyForEnableSriov()"},
    {"AddServices", "AddServices()"},
    {"RemoveServices", "RemoveServices()"},
    {"RestartServices", "Entering RestartServices()"},
    {"RegisterPlugInProvider", "RegisterPlugInProvider()"},
    {"UnRegisterPlugInProvider", "UnRegisterPlugInProvider()"},
    {"RemoveDrivers", "RemoveDrivers()"},
    {"RemoveFirmware", "RemoveFirmware()"},
    {"CheckFilesForRemoval", "CheckFilesForRemoval()"},
    {"RequestReboot", "RequestReboot()"},
    {"WarnRebootRequired_BeforeInstall", "WarnRebootRequired_BeforeInstall()"},
    {"WarnRebootRequired_AfterUninstall", "WarnRebootRequired_AfterUninstall()"},
    {"WarnUninstallRequired_Upgrade", "WarnUninstallRequired_Upgrade()"},
    {"SetupFiles", "SetupFiles()"},
    {"CleanSetupFiles", "Removing temporary files"},
    {"ExtractOstraPackage", "ExtractOstraPackage()"},
    {"RegisterOstra", "RegisterOstra()"},
    {"PeekCRT", "PeekCRT"},
    {"InstallCRT", "Entering InstallCRT"},
    {"HideCRTARP", "Entering HideCRTARP()"},
    {"VerifyAdminOrWarn", "VerifyAdminOrWarn()"},
    {"VerifyOSOrWarn", "VerifyOSOrWarn()"},
    {"IsSetupRunning", "IsSetupRunning()"},
    {"HideCancelButton", "HideCancelButton()"},
    {"Delay", "Delay()"},
    {"WriteARPEntries", "WriteARPEntries()"},
    {"WriteMSIPropertiesToRegistry", "WriteMSIPropertiesToRegistry()"},
};

const char* BuiltInAction(std::string_view text)
{
    static const std::unordered_map<std::string_view, const char*> byText = [] {
        std::unordered_map<std::string_view, const char*> m;
        for (const Opener& o : kOpeners)
            m.emplace(o.text, o.action);
        return m;
    }();
    auto it = byText.find(text);
    return it != byText.end() ? it->second : nullptr;
}

std::string Hex(uint32_t v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%x", v);
    return buf;
}

// a == b for the short names of functions, without a call.
bool SameText(const std::string& a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    const size_t n = a.size();
    if (n > 32)
        return std::memcmp(a.data(), b.data(), n) == 0;
    const char* p = a.data();
    const char* q = b.data();
    size_t i = 0;
    uint64_t diff = 0;
    for (; i + 8 <= n; i += 8)
    {
        uint64_t x, y;
        std::memcpy(&x, p + i, 8);
        std::memcpy(&y, q + i, 8);
        diff |= x ^ y;
    }
    for (; i < n; ++i)
        diff |= static_cast<unsigned char>(p[i]) ^ static_cast<unsigned char>(q[i]);
    return diff == 0;
}

uint64_t ThreadKey(uint32_t pid, uint32_t tid)
{
    return (static_cast<uint64_t>(pid) << 32) | tid;
}

// Seconds between two clocks, across midnight, in [-12 h, 12 h).
int32_t ClockDiffSec(int32_t a, int32_t b)
{
    int32_t d = b - a;
    if (d >= 43200)
        d -= 86400;
    if (d < -43200)
        d += 86400;
    return d;
}
} // namespace

double CalibrateFrequency(const std::string& path, uint64_t calibrationBytes, std::string& how)
{
    ParsedLineReader reader(path, ParsedLineReader::kDefaultMaxLine, ParsedLineReader::kDefaultBlock, true);
    // Per process, the first and last point of its longest stretch with a
    // rising counter; the widest stretch over all processes wins.
    struct Span
    {
        uint64_t c0, c1;
        int32_t t0;
        int64_t elapsed;
    };
    std::unordered_map<uint32_t, Span> spans;
    double best = 0;
    int64_t bestElapsed = 0;
    auto consider = [&](const Span& s) {
        if (s.elapsed > bestElapsed && s.c1 > s.c0)
        {
            bestElapsed = s.elapsed;
            best = static_cast<double>(s.c1 - s.c0) * 1000.0 / static_cast<double>(s.elapsed);
        }
    };
    auto add = [&](const TraceLine& t) {
        auto it = spans.find(t.pid);
        if (it == spans.end())
        {
            spans[t.pid] = Span{t.counter, t.counter, t.clockMs, 0};
            return;
        }
        Span& s = it->second;
        if (t.counter < s.c1)
        {
            consider(s);
            s = Span{t.counter, t.counter, t.clockMs, 0};
            return;
        }
        int64_t elapsed = t.clockMs - s.t0;
        if (elapsed < 0)
            elapsed += kDayMs;
        s.c1 = t.counter;
        s.elapsed = elapsed;
    };
    size_t count = 0;
    bool more = true;
    while (more)
    {
        const ParsedLine* p = reader.Next(count);
        if (p == nullptr)
            break;
        for (const ParsedLine* end = p + count; p < end; ++p)
        {
            if (p->offset >= calibrationBytes)
            {
                more = false;
                break;
            }
            if (p->result == ParseResult::Ok)
                add(p->fields);
        }
    }
    for (const auto& s : spans)
        consider(s.second);
    if (spans.empty())
    {
        how = "no trace lines";
        return 0;
    }
    // The clock has millisecond steps: less than 20 ms says too little.
    if (bestElapsed < 20)
    {
        how = "not enough time in the file to calibrate";
        return 0;
    }
    static const double known[] = {1e7, 3579545.0, 14318180.0, 1193182.0, 1e6, 1e9};
    // Two clock steps of error over the span, and a little more.
    const double tolerance = std::max(0.01, 2.5 / static_cast<double>(bestElapsed));
    for (double k : known)
    {
        if (std::fabs(best - k) / k < tolerance)
        {
            char buf[96];
            std::snprintf(buf, sizeof buf, "calibrated from the clock over %.1f s (%.0f Hz, taken as %.0f Hz)",
                          bestElapsed / 1000.0, best, k);
            how = buf;
            return k;
        }
    }
    char buf[96];
    std::snprintf(buf, sizeof buf, "calibrated from the clock over %.1f s", bestElapsed / 1000.0);
    how = buf;
    return best;
}

Analyzer::Analyzer(const Options& options, const MsiLog* msiLog, ReportSink* sink, Warnings& warnings)
    : m_options(options), m_msiLog(msiLog), m_sink(sink), m_warnings(warnings)
{
    if (m_msiLog != nullptr)
    {
        m_matched.assign(m_msiLog->actions.size(), false);
        for (size_t i = 0; i < m_msiLog->actions.size(); ++i)
        {
            const MsiAction& a = m_msiLog->actions[i];
            if (a.standard)
                continue;  // none of our lines runs in the Installer's own actions
            if (!a.opening.empty())
                m_openings[a.opening].push_back(static_cast<int>(i));
            m_byName[a.name].push_back(static_cast<int>(i));
        }
        for (const MsiAction& a : m_msiLog->actions)
            if (!a.standard)
                m_actionNames.insert(a.name);
    }
    for (const Opener& o : kOpeners)
        m_actionNames.insert(o.action);
    m_render = m_sink != nullptr && m_sink->WantsItems();
}

bool Analyzer::AddFile(const std::string& path)
{
    std::FILE* probe = std::fopen(path.c_str(), "rb");
    if (probe == nullptr)
    {
        m_warnings.Add(path, 0, "file", "cannot open the trace file");
        return false;
    }
    std::fclose(probe);
    InputFile info;
    info.path = path;
    if (m_options.qpcFrequency > 0)
    {
        info.frequency = m_options.qpcFrequency;
        info.frequencySource = "given with --qpc-frequency";
    }
    else
    {
        info.frequency = CalibrateFrequency(path, m_options.calibrationBytes, info.frequencySource);
        if (info.frequency <= 0 && info.frequencySource == "no trace lines")
            info.frequency = 1e7;
        else if (info.frequency <= 0)
        {
            info.frequency = 1e7;
            m_warnings.Add(path, 0, "frequency",
                           "the clock column spans too little time to calibrate the performance counter; durations "
                           "assume 10 MHz (give the real one with --qpc-frequency)");
            info.frequencySource = "assumed (10 MHz)";
        }
    }
    // Opened after the calibration's reader is gone: only one holds its batches.
    ParsedLineReader reader(path);
    if (!reader.IsOpen())
    {
        m_warnings.Add(path, 0, "file", "cannot open the trace file");
        return false;
    }
    SetFrequency(info.frequency);
    m_file = path;
    m_sawUtf8 = m_sawAnsi = false;
    m_haveCounter = false;
    m_maxCounter = 0;
    m_havePid = false;
    m_anyWritten = false;
    m_run = 0;
    const size_t firstAction = m_summary.actions.size();

    size_t count = 0;
    while (const ParsedLine* lines = reader.Next(count))
    {
        for (const ParsedLine* end = lines + count, *at = lines; at < end; ++at)
        {
            const ParsedLine& p = *at;
            if (p.cut)
                m_warnings.Add(path, p.number, "long line",
                               "line longer than " + std::to_string(ParsedLineReader::kDefaultMaxLine) +
                                   " bytes: not a line the trace log writes; read cut");
            if (p.noLineEnd)
                m_warnings.Add(path, p.number, "no line end",
                               "the file ends inside this line: it was cut off (the process died while writing?)");
            ProcessParsed(path, p.number, p.line, p.result, p.fields);
        }
    }
    // Nothing carries over to the next file: it may come from another machine.
    CloseAll(path, reader.Lines(), "no EXIT line before the end of the file: the process died or threw inside it",
             0xFFFFFFFFu);
    for (auto& p : m_processes)
        EndAction(p.second);
    m_processes.clear();
    m_lastProcess = nullptr;
    m_threads.clear();
    m_lastThread = nullptr;
    // Actions are kept as they end; list this file's in the order they began.
    std::stable_sort(m_summary.actions.begin() + static_cast<std::ptrdiff_t>(firstAction), m_summary.actions.end(),
                     [](const ActionRun& a, const ActionRun& b) { return a.firstLine < b.firstLine; });
    info.lines = reader.Lines();
    info.bytes = reader.Bytes();
    if (info.lines == 0)
        m_warnings.Add(path, 0, "empty", "the file is empty: tracing was on, but nothing was written to it");
    m_summary.files.push_back(info);
    m_warnings.FinishFile(path);
    return true;
}

void Analyzer::ProcessLine(const std::string& file, uint64_t n, std::string_view line)
{
    TraceLine t;
    const ParseResult r = ParseTraceLine(line, t);
    ProcessParsed(file, n, line, r, t);
}

void Analyzer::ProcessParsed(const std::string& file, uint64_t n, std::string_view line, ParseResult r, const TraceLine& t)
{
    ++m_summary.lines;
    if (r == ParseResult::Ok)
    {
        if (m_component.empty())
            m_component.assign(line.data(), t.componentLength);
        // A line cut off inside its message, with the next writer's line behind it.
        if (t.tabs)
        {
            size_t at = FindEmbeddedLine(line, m_component);
            if (at != std::string_view::npos)
            {
                m_warnings.Add(file, n, "cut line",
                               "a line cut off (a crash while writing?) runs into the next one; both are read");
                TraceLine first;
                ParseTraceLine(line.substr(0, at), first);
                Line(file, n, first);
                ProcessLine(file, n, line.substr(at));
                --m_summary.lines;
                return;
            }
        }
        Line(file, n, t);
        return;
    }
    size_t at = FindEmbeddedLine(line, m_component.empty() ? std::string_view("SWL") : m_component);
    if (at != std::string_view::npos && at > 0)
    {
        m_warnings.Add(file, n, "cut line",
                       "a line cut off (a crash while writing?) runs into the next one; the rest is read");
        ProcessLine(file, n, line.substr(at));
        --m_summary.lines;
        return;
    }
    if (r == ParseResult::Cut)
        m_warnings.Add(file, n, "cut line", "line cut off before its message (a crash while writing?): skipped");
    else if (line.empty())
        m_warnings.Add(file, n, "not ours", "empty line: skipped");
    else
        m_warnings.Add(file, n, "not ours", "not a trace line (no \"NAME<tab>PID:\" at its start): skipped");
}

void Analyzer::SetFrequency(double frequency)
{
    m_frequency = frequency;
    m_secondTicks = static_cast<uint64_t>(frequency);
    // Below nine tenths of an hour of ticks the exact test in Line cannot pass.
    const double below = kLaterRunSeconds * frequency * 0.9;
    m_belowLaterRun = below > 0 ? below < 1.8e19 ? static_cast<uint64_t>(below) : UINT64_MAX : 0;
}

double Analyzer::Milliseconds(uint64_t from, uint64_t to) const
{
    if (to < from)
        return -1;
    return static_cast<double>(to - from) * 1000.0 / m_frequency;
}

Analyzer::ThreadState& Analyzer::Thread(uint32_t pid, uint32_t tid)
{
    if (m_lastThread != nullptr && m_lastThread->id.pid == pid && m_lastThread->id.tid == tid &&
        m_lastThread->id.run == m_run)
        return *m_lastThread;
    // Forget idle threads now and then: the table follows open calls, not the file.
    if (m_threads.size() > 1024)
    {
        for (auto it = m_threads.begin(); it != m_threads.end();)
        {
            if (it->second.depth == 0 && it->second.pending.empty())
                it = m_threads.erase(it);
            else
                ++it;
        }
    }
    ThreadState& t = m_threads[ThreadKey(pid, tid)];
    if (t.frames.empty() && t.pending.empty() && t.depth == 0)
    {
        t.id = ThreadId{m_run, pid, tid};
        auto p = m_processes.find(pid);
        if (p != m_processes.end() && p->second.inAction)
        {
            t.action = p->second.action.name;
            t.actionSerial = p->second.actionSerial;
        }
    }
    m_lastThread = &t;
    return t;
}

Analyzer::ProcessState& Analyzer::Process(uint32_t pid)
{
    auto it = m_processes.find(pid);
    if (it != m_processes.end())
        return it->second;
    if (m_processes.size() > 4096)
    {
        for (auto p = m_processes.begin(); p != m_processes.end();)
        {
            if (p->second.openFrames == 0)
            {
                EndAction(p->second);
                p = m_processes.erase(p);
                m_lastProcess = nullptr;
            }
            else
                ++p;
        }
    }
    return m_processes[pid];
}

void Analyzer::Line(const std::string& file, uint64_t n, const TraceLine& t)
{
    ++m_summary.traceLines;

    // The machine restarted: the counter starts again from near zero.
    const uint64_t slack = m_secondTicks;
    if (m_haveCounter && t.counter + slack < m_maxCounter)
    {
        char buf[160];
        std::snprintf(buf, sizeof buf,
                      "the performance counter goes back (from %llX to %llX): the machine restarted; calls "
                      "still open end here",
                      static_cast<unsigned long long>(m_maxCounter), static_cast<unsigned long long>(t.counter));
        NewRun(file, n, buf);
        m_maxCounter = t.counter;
    }
    else if (m_haveCounter && t.counter > m_lastCounter && t.counter - m_lastCounter > m_belowLaterRun &&
             static_cast<double>(t.counter - m_lastCounter) / m_frequency > kLaterRunSeconds)
    {
        char buf[160];
        std::snprintf(buf, sizeof buf, "%.1f hours pass since the line before: the file was appended to again later",
                      static_cast<double>(t.counter - m_lastCounter) / m_frequency / 3600.0);
        m_warnings.Add(file, n, "appended later", buf);
        CloseAll(file, n, "no EXIT line before the file was appended to again later (the process died?)", t.pid);
    }
    m_haveCounter = true;
    m_lastCounter = t.counter;
    if (t.counter > m_maxCounter)
        m_maxCounter = t.counter;

    // Text outside ASCII: say once per file how it is read.
    if (t.highBytes && (!m_sawAnsi || !m_sawUtf8))
    {
        TextEncoding e = DetectEncoding(t.message);
        if (e == TextEncoding::Ansi && !m_sawAnsi)
        {
            m_sawAnsi = true;
            m_warnings.Add(file, n, "ansi",
                           "text that is not UTF-8 (the machine's ANSI code page): read as Windows-1252");
        }
        else if (e == TextEncoding::Utf8 && !m_sawUtf8)
        {
            m_sawUtf8 = true;
            m_warnings.Add(file, n, "utf-8", "text in UTF-8 (non-ASCII characters): read as UTF-8");
        }
    }
    if (t.message.size() >= 1023 && CharacterCount(t.message) >= 1023)
        m_warnings.Add(file, n, "cut message",
                       "the message is 1023 characters or more: the trace log cuts messages there, the rest is lost");

    ProcessState& proc = m_lastProcess != nullptr && m_lastProcessPid == t.pid ? *m_lastProcess : Process(t.pid);
    m_lastProcess = &proc;
    m_lastProcessPid = t.pid;
    if (m_havePid && t.pid != m_lastPid)
    {
        auto prev = m_processes.find(m_lastPid);
        if (prev != m_processes.end() && prev->second.openFrames > 0)
            m_warnings.Add(file, n, "interleaved",
                           "process " + Hex(t.pid) + " writes while process " + Hex(m_lastPid) +
                               " has calls open: several processes append to this file; each is followed on its own");
    }
    m_havePid = true;
    m_lastPid = t.pid;

    ThreadState& th = Thread(t.pid, t.tid);
    const uint32_t entryName = t.kind == MessageKind::Entry ? AddName(t.name, t.nameHash) : kNoName;

    // Where a custom action begins.
    if (t.kind == MessageKind::MsiLog || (t.kind == MessageKind::Entry && th.depth == 0))
    {
        const bool byName = t.kind == MessageKind::Entry;
        std::string_view key = byName ? t.name : t.text;
        const bool isAction = byName && NameIsAction(entryName, key);
        int msi = byName && !isAction ? -1 : MatchAction(key, byName, t.clockMs);
        std::string name;
        if (msi >= 0)
            name = m_msiLog->actions[static_cast<size_t>(msi)].name;
        else if (!byName && BuiltInAction(key) != nullptr)
            name = BuiltInAction(key);
        else if (isAction)
            name.assign(key.data(), key.size());
        // An action that opens with both a scope and a log line (SetupFiles,
        // CleanSetupFiles) starts once.
        const bool already = msi < 0 && proc.inAction && proc.action.name == name && proc.action.thread == th.id;
        if (!name.empty() && !already)
        {
            if (msi >= 0)
                m_matched[static_cast<size_t>(msi)] = true;
            if (th.depth > 0)
                CloseFrames(th, 0, file, n, "no EXIT line before the next custom action began in this thread");
            BeginAction(th, proc, file, n, t.clockMs, name, msi);
        }
    }
    if (proc.inAction)
    {
        ActionRun& a = proc.action;
        ++a.lines;
        a.lastLine = n;
        a.lastClock = t.clockMs;
        proc.lastCounter = t.counter;
        if (th.actionSerial != proc.actionSerial)
        {
            th.action = a.name;
            th.actionSerial = proc.actionSerial;
        }
    }

    switch (t.kind)
    {
    case MessageKind::Entry:
    {
        if (th.frames.size() <= th.depth)
            th.frames.emplace_back();
        Frame& f = th.frames[th.depth];
        f.fn = entryName;
        if (f.fn == kNoName)
            f.ownName.assign(t.name.data(), t.name.size());
        f.line = n;
        f.counter = t.counter;
        f.clockMs = t.clockMs;
        f.callId = m_nextCallId++;
        f.written = false;
        f.itemSeq = th.frontSeq + th.pending.size();
        ++m_summary.calls;
        if (proc.inAction)
            ++proc.action.calls;
        if (m_render)
        {
            Item item(Item::Kind::Call, n, t.clockMs, th.depth, FrameName(f));
            item.callId = f.callId;
            item.parentId = th.depth > 0 ? th.frames[th.depth - 1].callId : 0;
            ++th.depth;
            ++proc.openFrames;
            Push(th, std::move(item));
        }
        else
        {
            ++th.depth;
            ++proc.openFrames;
        }
        return;
    }
    case MessageKind::Exit:
    {
        const uint32_t fn = FindName(t.name, t.nameHash);
        size_t at = th.depth;
        while (at > 0)
        {
            const Frame& f = th.frames[at - 1];
            if (fn != kNoName && f.fn != kNoName ? f.fn == fn : FrameName(f) == t.name)
                break;
            --at;
        }
        if (at == 0)
        {
            m_warnings.Add(file, n, "exit without entry",
                           "EXIT of " + std::string(t.name) + " without an open ENTRY in this thread: shown as a line");
            break;  // shown as a message below
        }
        if (at < th.depth)
        {
            m_warnings.Add(file, n, "missing exit",
                           "EXIT of " + std::string(t.name) + " while calls it made are still open: they get no EXIT line");
            CloseFrames(th, at, file, n, "no EXIT line; an outer call returned (the line was lost)");
        }
        Frame& f = th.frames[at - 1];
        const double ms = Milliseconds(f.counter, t.counter);
        RecordCall(f, th, ms, t.result);
        th.depth = at - 1;
        if (proc.openFrames > 0)
            --proc.openFrames;
        if (m_render)
        {
            if (!f.written && f.itemSeq >= th.frontSeq)
            {
                Item& item = th.pending[f.itemSeq - th.frontSeq];
                item.status = CallStatus::Returned;
                item.durationMs = ms;
                item.result.assign(t.result.data(), t.result.size());
                item.exitLine = n;
            }
            else
            {
                Item item(Item::Kind::Return, n, t.clockMs, th.depth, FrameName(f));
                item.callId = f.callId;
                item.status = CallStatus::Returned;
                item.durationMs = ms;
                item.result.assign(t.result.data(), t.result.size());
                item.exitLine = n;
                Push(th, std::move(item));
            }
            Drain(th, false);
        }
        return;
    }
    default:
        break;
    }

    // Everything else is a line of the story; faults and exceptions also go to the summary.
    if (t.kind == MessageKind::Fault || t.exception)
    {
        ++m_summary.faultCount;
        if (proc.inAction)
            ++proc.action.faults;
        if (m_summary.faults.size() < m_options.maxFaults)
        {
            FaultRef fr;
            fr.file = file;
            fr.thread = th.id;
            fr.line = n;
            fr.clockMs = t.clockMs;
            fr.message.assign(t.message.data(), t.message.size());
            fr.fault = t.kind == MessageKind::Fault;
            fr.exception = t.exception;
            for (size_t i = 0; i < th.depth && i < 64; ++i)
                fr.stack.push_back(FrameName(th.frames[i]));
            fr.action = proc.inAction ? proc.action.name : std::string();
            m_summary.faults.push_back(std::move(fr));
        }
    }
    if (m_render)
    {
        Item item(Item::Kind::Message, n, t.clockMs, th.depth, std::string(t.message));
        item.messageKind = t.kind == MessageKind::Exit ? MessageKind::Plain : t.kind;
        item.exception = t.exception;
        Push(th, std::move(item));
    }
}

int Analyzer::MatchAction(std::string_view text, bool byName, int32_t clockMs)
{
    if (m_msiLog == nullptr)
        return -1;
    const auto& table = byName ? m_byName : m_openings;
    auto it = table.find(std::string(text));
    if (it == table.end())
        return -1;
    const int32_t sec = clockMs / 1000;
    int best = -1;
    int bestScore = -1;
    for (int i : it->second)
    {
        const MsiAction& a = m_msiLog->actions[static_cast<size_t>(i)];
        if (m_matched[static_cast<size_t>(i)] || a.startSec < 0)
            continue;
        // Inside the action's time in the log, give or take the log's whole seconds.
        const int32_t end = a.endSec >= 0 ? a.endSec : a.startSec + 3600;
        if (ClockDiffSec(a.startSec, sec) < -2 || ClockDiffSec(end, sec) > 2)
            continue;
        // An action that logged lines of ours beats one that did not (the
        // immediate action that only schedules its deferred namesake); then
        // the next one after the last match.
        const int score = (a.infoLines > 0 ? 2 : 0) + (static_cast<size_t>(i) >= m_cursor ? 1 : 0);
        if (score > bestScore)
        {
            best = i;
            bestScore = score;
        }
        if (score == 3)
            break;
    }
    if (best >= 0)
        m_cursor = static_cast<size_t>(best) + 1;
    return best;
}

bool Analyzer::IsActionName(std::string_view name) const
{
    return m_actionNames.count(name) > 0;
}

// IsActionName, remembered for each numbered name.
bool Analyzer::NameIsAction(uint32_t fn, std::string_view name)
{
    if (fn == kNoName)
        return IsActionName(name);
    if (m_nameIsAction[fn] < 0)
        m_nameIsAction[fn] = IsActionName(name) ? 1 : 0;
    return m_nameIsAction[fn] == 1;
}

void Analyzer::BeginAction(ThreadState& t, ProcessState& p, const std::string& file, uint64_t n, int32_t clockMs,
                           const std::string& name, int msiIndex)
{
    EndAction(p);
    p.inAction = true;
    ActionRun& a = p.action;
    a = ActionRun();
    a.name = name;
    a.msiIndex = msiIndex;
    a.file = file;
    a.thread = t.id;
    a.firstLine = n;
    a.firstClock = clockMs;
    a.lastClock = clockMs;
    a.lastLine = n;
    a.durationMs = -1;
    p.actionSerial = m_nextActionSerial++;
    t.action = name;
    t.actionSerial = p.actionSerial;
    p.firstCounter = m_lastCounter;
    p.lastCounter = m_lastCounter;
    if (m_render)
    {
        Item item(Item::Kind::ActionBegin, n, clockMs, 0, name);
        item.msiIndex = msiIndex;
        Push(t, std::move(item));
    }
}

void Analyzer::EndAction(ProcessState& p)
{
    if (!p.inAction)
        return;
    p.inAction = false;
    p.action.durationMs = Milliseconds(p.firstCounter, p.lastCounter);
    ++m_summary.actionCount;
    if (m_summary.actions.size() < m_options.maxActions)
        m_summary.actions.push_back(p.action);
}

uint32_t Analyzer::FindName(std::string_view name, uint64_t hash) const
{
    if (m_nameSlots.empty())
        return kNoName;
    const size_t mask = m_nameSlots.size() - 1;
    for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask)
    {
        const uint32_t slot = m_nameSlots[i];
        if (slot == 0)
            return kNoName;
        if (m_nameHashes[slot - 1] == hash && SameText(m_names[slot - 1], name))
            return slot - 1;
    }
}

uint32_t Analyzer::AddName(std::string_view name, uint64_t hash)
{
    const uint32_t found = FindName(name, hash);
    if (found != kNoName || m_names.size() >= m_options.maxFunctions)
        return found;
    if (2 * (m_names.size() + 1) > m_nameSlots.size())
    {
        // Twice the room, every name placed again.
        std::vector<uint32_t> slots(m_nameSlots.empty() ? 256 : 2 * m_nameSlots.size(), 0);
        const size_t mask = slots.size() - 1;
        for (size_t k = 0; k < m_names.size(); ++k)
        {
            size_t i = static_cast<size_t>(m_nameHashes[k]) & mask;
            while (slots[i] != 0)
                i = (i + 1) & mask;
            slots[i] = static_cast<uint32_t>(k + 1);
        }
        m_nameSlots.swap(slots);
    }
    const uint32_t id = static_cast<uint32_t>(m_names.size());
    m_names.emplace_back(name);
    m_nameHashes.push_back(hash);
    m_statsByName.push_back(nullptr);
    m_nameIsAction.push_back(-1);
    const size_t mask = m_nameSlots.size() - 1;
    size_t i = static_cast<size_t>(hash) & mask;
    while (m_nameSlots[i] != 0)
        i = (i + 1) & mask;
    m_nameSlots[i] = id + 1;
    return id;
}

// f's figures in the summary; add: make room for them while the table has room
// (a call that does not fit is counted in otherFunctions). Null when they have none.
FunctionStats* Analyzer::Stats(const Frame& f, bool add)
{
    if (f.fn != kNoName && m_statsByName[f.fn] != nullptr)
        return m_statsByName[f.fn];
    const std::string& name = FrameName(f);
    FunctionStats* s = nullptr;
    auto it = m_summary.functions.find(name);
    if (it != m_summary.functions.end())
        s = &it->second;
    else if (add && m_summary.functions.size() >= m_options.maxFunctions)
        ++m_summary.otherFunctions;
    else if (add)
        s = &m_summary.functions.emplace(name, FunctionStats()).first->second;
    if (s != nullptr && f.fn != kNoName)
        m_statsByName[f.fn] = s;
    return s;
}

void Analyzer::RecordCall(const Frame& f, const ThreadState& t, double ms, std::string_view result)
{
    if (FunctionStats* stats = Stats(f, true))
    {
        FunctionStats& s = *stats;
        ++s.count;
        if (ms >= 0)
        {
            s.totalMs += ms;
            if (ms > s.maxMs)
                s.maxMs = ms;
        }
    }
    if (ms < 0 || m_options.slowestCount == 0)
        return;
    auto cmp = [](const std::pair<double, CallRef>& a, const std::pair<double, CallRef>& b) { return a.first > b.first; };
    if (m_slowHeap.size() >= m_options.slowestCount && ms <= m_slowHeap.front().first)
        return;
    CallRef c = RefTo(f, t, m_file);
    c.durationMs = ms;
    c.result.assign(result.data(), result.size());
    if (m_slowHeap.size() >= m_options.slowestCount)
    {
        std::pop_heap(m_slowHeap.begin(), m_slowHeap.end(), cmp);
        m_slowHeap.pop_back();
    }
    m_slowHeap.emplace_back(ms, std::move(c));
    std::push_heap(m_slowHeap.begin(), m_slowHeap.end(), cmp);
}

CallRef Analyzer::RefTo(const Frame& f, const ThreadState& t, const std::string& file) const
{
    CallRef c;
    c.name = FrameName(f);
    c.file = file;
    c.thread = t.id;
    c.line = f.line;
    c.clockMs = f.clockMs;
    c.action = t.action;
    return c;
}

void Analyzer::RecordNeverReturned(const Frame& f, const ThreadState& t, const std::string& file,
                                   const std::string& reason)
{
    ++m_summary.neverReturnedCount;
    if (FunctionStats* stats = Stats(f, false))
        ++stats->neverReturned;
    else if (m_summary.functions.size() < m_options.maxFunctions)
        m_summary.functions[FrameName(f)].neverReturned = 1;
    auto p = m_processes.find(t.id.pid);
    if (p != m_processes.end() && p->second.inAction)
        ++p->second.action.neverReturned;
    if (m_summary.neverReturned.size() >= m_options.maxNeverReturned)
        return;
    CallRef c = RefTo(f, t, file);
    c.reason = reason;
    m_summary.neverReturned.push_back(std::move(c));
}

// Ends the calls open above depth keep as never returned.
void Analyzer::CloseFrames(ThreadState& t, size_t keep, const std::string& file, uint64_t n, const std::string& reason)
{
    while (t.depth > keep)
    {
        Frame& f = t.frames[t.depth - 1];
        --t.depth;
        auto p = m_processes.find(t.id.pid);
        if (p != m_processes.end() && p->second.openFrames > 0)
            --p->second.openFrames;
        RecordNeverReturned(f, t, file, reason);
        if (!m_render)
            continue;
        if (!f.written && f.itemSeq >= t.frontSeq)
        {
            Item& item = t.pending[f.itemSeq - t.frontSeq];
            item.status = CallStatus::NeverReturned;
            item.reason = reason;
        }
        else
        {
            Item item(Item::Kind::Return, n, 0, t.depth, FrameName(f));
            item.callId = f.callId;
            item.status = CallStatus::NeverReturned;
            item.reason = reason;
            Push(t, std::move(item));
        }
    }
    if (m_render)
        Drain(t, false);
}

void Analyzer::CloseAll(const std::string& file, uint64_t n, const std::string& reason, uint32_t exceptPid)
{
    for (auto& entry : m_threads)
    {
        ThreadState& t = entry.second;
        if (t.id.pid == exceptPid && exceptPid != 0xFFFFFFFFu)
            continue;
        if (t.depth > 0)
            CloseFrames(t, 0, file, n, reason);
        if (m_render)
            Drain(t, true);
    }
}

void Analyzer::NewRun(const std::string& file, uint64_t n, const std::string& why)
{
    m_warnings.Add(file, n, "restart", why);
    CloseAll(file, n, "no EXIT line before the machine restarted", 0xFFFFFFFFu);
    for (auto& p : m_processes)
        EndAction(p.second);
    m_processes.clear();
    m_lastProcess = nullptr;
    m_threads.clear();
    m_lastThread = nullptr;
    m_havePid = false;
    ++m_run;
}

void Analyzer::Push(ThreadState& t, Item&& item)
{
    t.pending.push_back(std::move(item));
    Drain(t, false);
}

// Writes the waiting items whose outcome is known, in order. all: everything.
// A thread with too many waiting items writes its oldest open call unresolved.
void Analyzer::Drain(ThreadState& t, bool all)
{
    while (!t.pending.empty())
    {
        Item& front = t.pending.front();
        const bool waiting = front.kind == Item::Kind::Call && front.status == CallStatus::Open;
        if (waiting && !all && t.pending.size() <= m_options.maxPendingItems)
            break;
        if (waiting)
        {
            const size_t d = static_cast<size_t>(front.depth);
            if (d < t.depth && t.frames[d].callId == front.callId)
                t.frames[d].written = true;
        }
        Write(t, front);
        t.pending.pop_front();
        ++t.frontSeq;
    }
}

void Analyzer::Write(ThreadState& t, const Item& item)
{
    if (!m_anyWritten || m_lastWritten != t.id)
    {
        m_sink->Thread(t.id, m_file, t.action);
        m_lastWritten = t.id;
        m_anyWritten = true;
    }
    m_sink->Emit(item);
}

void Analyzer::Finish()
{
    CloseAll(m_file, 0, "no EXIT line before the end of the trace: the process died or threw inside it", 0xFFFFFFFFu);
    m_threads.clear();
    m_lastThread = nullptr;
    for (auto& p : m_processes)
        EndAction(p.second);
    m_processes.clear();
    m_lastProcess = nullptr;
    std::sort(m_slowHeap.begin(), m_slowHeap.end(),
              [](const std::pair<double, CallRef>& a, const std::pair<double, CallRef>& b) { return a.first > b.first; });
    m_summary.slowest.clear();
    for (auto& s : m_slowHeap)
        m_summary.slowest.push_back(s.second);
    if (m_sink != nullptr)
        m_sink->End(m_summary, m_warnings);
}
} // namespace swltrace
