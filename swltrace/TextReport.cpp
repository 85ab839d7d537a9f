#include "Reports.h"
#include "Text.h"
#include <algorithm>
#include <cstdarg>
#ifdef _WIN32
#include <io.h>
#define SWLTRACE_ISATTY(f) _isatty(_fileno(f))
#else
#include <unistd.h>
#define SWLTRACE_ISATTY(f) isatty(fileno(f))
#endif

namespace swltrace
{
std::string DescribeThread(const ThreadId& t)
{
    char buf[96];
    if (t.run > 0)
        std::snprintf(buf, sizeof buf, "process %x, thread %x (after restart %u)", t.pid, t.tid, t.run);
    else
        std::snprintf(buf, sizeof buf, "process %x, thread %x", t.pid, t.tid);
    return buf;
}

std::string_view MsiText(std::string_view m)
{
    const std::string_view tag = "(MSI LOG ENTRY)";
    if (m.substr(0, tag.size()) == tag)
        m.remove_prefix(tag.size());
    if (!m.empty() && m.front() == ' ')
        m.remove_prefix(1);
    return m;
}

std::string FormatSeconds(int32_t sec)
{
    if (sec < 0)
        return "?";
    char buf[16];
    std::snprintf(buf, sizeof buf, "%d:%02d:%02d", sec / 3600, sec / 60 % 60, sec % 60);
    return buf;
}

std::string DescribeMsiAction(const MsiLog& log, const MsiAction& a)
{
    std::string s = FormatSeconds(a.startSec) + "-" + FormatSeconds(a.endSec) + ", " + log.Outcome(a);
    s += " (Installer log line " + std::to_string(a.startLine);
    if (a.endLine > 0)
        s += "-" + std::to_string(a.endLine);
    s += ")";
    return s;
}

std::vector<std::pair<std::string, FunctionStats>> FunctionsByTotal(const Summary& summary)
{
    std::vector<std::pair<std::string, FunctionStats>> v(summary.functions.begin(), summary.functions.end());
    std::sort(v.begin(), v.end(), [](const auto& a, const auto& b) {
        if (a.second.totalMs != b.second.totalMs)
            return a.second.totalMs > b.second.totalMs;
        return a.first < b.first;
    });
    return v;
}

namespace
{
const char* const kRed = "\x1b[31m";
const char* const kYellow = "\x1b[33m";
const char* const kCyan = "\x1b[36m";
const char* const kBold = "\x1b[1m";
const char* const kDim = "\x1b[2m";
const char* const kReset = "\x1b[0m";

class TextReport : public ReportSink
{
public:
    TextReport(std::FILE* out, bool color, bool summaryOnly)
        : m_out(out), m_color(color), m_summaryOnly(summaryOnly), m_terminal(SWLTRACE_ISATTY(out) != 0)
    {
    }
    ~TextReport() override { Flush(); }

    void Begin(const Header& h) override
    {
        m_log = h.msiLog;
        std::string inputs;
        for (const std::string& in : h.inputs)
            inputs += (inputs.empty() ? "" : ", ") + in;
        Printf("%sswltrace%s: trace %s", C(kBold), C(kReset), inputs.c_str());
        if (m_log != nullptr)
            Printf("; Installer log %s (%s format)", m_log->path.c_str(), m_log->windowsFormat ? "Windows" : "Wine");
        Printf("\n");
        FirstFailing();
        if (m_log == nullptr)
            return;
        Printf("\n%sCustom actions in the Installer log%s\n", C(kBold), C(kReset));
        for (const MsiAction& a : m_log->actions)
        {
            // The Installer's own actions, and dialogs in which nothing of ours ran.
            if (a.standard || (a.opening.empty() && a.entryPoint.empty() && !a.failed))
                continue;
            Printf("  %s%-34s%s %s\n", a.failed ? C(kRed) : "", a.name.c_str(), a.failed ? C(kReset) : "",
                   DescribeMsiAction(*m_log, a).c_str());
        }
    }

    bool WantsItems() const override { return !m_summaryOnly; }

    void Thread(const ThreadId& t, const std::string& file, const std::string& action) override
    {
        if (m_summaryOnly)
            return;
        Printf("\n%s=== %s: %s%s%s ===%s\n", C(kBold), file.c_str(), DescribeThread(t).c_str(),
               action.empty() ? "" : ", in ", action.c_str(), C(kReset));
    }

    void Emit(const Item& item) override
    {
        if (m_summaryOnly)
            return;
        if (item.kind == Item::Kind::ActionBegin)
        {
            Color(kBold);
            m_line += "--- custom action ";
            m_line += item.text;
            if (m_log != nullptr && item.msiIndex >= 0)
            {
                const MsiAction& a = m_log->actions[static_cast<size_t>(item.msiIndex)];
                m_line += " [Installer log: " + DescribeMsiAction(*m_log, a) + "]";
                if (a.failed)
                {
                    Color(kRed);
                    m_line += " FAILED";
                }
            }
            else if (m_log != nullptr)
                m_line += " [not in the Installer log]";
            Color(kReset);
            m_line += "\n";
            Written();
            return;
        }
        Color(kDim);
        AppendNumber(m_line, item.line, 7);
        m_line += ' ';
        AppendClock(m_line, item.clockMs);
        m_line += ' ';
        Color(kReset);
        m_line.append(static_cast<size_t>(item.depth) * 2, ' ');
        switch (item.kind)
        {
        case Item::Kind::Call:
            AppendUtf8(m_line, item.text);
            Outcome(item, false);
            break;
        case Item::Kind::Return:
            m_line += "<- ";
            AppendUtf8(m_line, item.text);
            Outcome(item, true);
            break;
        case Item::Kind::Message:
            if (item.messageKind == MessageKind::Fault)
            {
                Color(kRed);
                m_line += "[FAULT] ";
            }
            else if (item.exception)
            {
                Color(kYellow);
                m_line += "[EXCEPTION] ";
            }
            else if (item.messageKind == MessageKind::MsiLog)
            {
                Color(kCyan);
                m_line += "[MSI] ";
            }
            else
                m_line += "| ";
            AppendUtf8(m_line, item.messageKind == MessageKind::MsiLog ? MsiText(item.text) : std::string_view(item.text));
            Color(kReset);
            break;
        default:
            break;
        }
        m_line += '\n';
        Written();
    }

    void End(const Summary& s, const Warnings& w) override
    {
        Printf("\n%s=== Summary ===%s\n", C(kBold), C(kReset));
        for (const InputFile& f : s.files)
            Printf("%s: %llu lines, %llu bytes; performance counter %.0f Hz, %s\n", f.path.c_str(),
                   static_cast<unsigned long long>(f.lines), static_cast<unsigned long long>(f.bytes), f.frequency,
                   f.frequencySource.c_str());
        Printf("%llu trace lines, %llu calls\n", static_cast<unsigned long long>(s.traceLines),
               static_cast<unsigned long long>(s.calls));
        FirstFailing();

        Printf("\n%sFaults and exceptions (%llu)%s\n", C(kBold), static_cast<unsigned long long>(s.faultCount), C(kReset));
        for (const FaultRef& f : s.faults)
        {
            Printf("  %s:%llu %s %s%s%s\n", f.file.c_str(), static_cast<unsigned long long>(f.line),
                   FormatClock(f.clockMs).c_str(), DescribeThread(f.thread).c_str(),
                   f.action.empty() ? "" : ", in ", f.action.c_str());
            Printf("    %s%s%s\n", f.fault ? C(kRed) : C(kYellow), ToUtf8(f.message).c_str(), C(kReset));
            Printf("    open calls: %s\n", Stack(f.stack).c_str());
        }
        if (s.faults.size() < s.faultCount)
            Printf("  ... and %llu more\n", static_cast<unsigned long long>(s.faultCount - s.faults.size()));

        Printf("\n%sCalls that never returned (%llu)%s\n", C(kBold),
               static_cast<unsigned long long>(s.neverReturnedCount), C(kReset));
        for (const CallRef& c : s.neverReturned)
            Printf("  %s:%llu %s %s%s%s%s %s: %s\n", c.file.c_str(), static_cast<unsigned long long>(c.line),
                   FormatClock(c.clockMs).c_str(), DescribeThread(c.thread).c_str(), c.action.empty() ? "" : ", in ",
                   c.action.c_str(), C(kRed), ToUtf8(c.name).c_str(), (c.reason + C(kReset)).c_str());
        if (s.neverReturned.size() < s.neverReturnedCount)
            Printf("  ... and %llu more\n", static_cast<unsigned long long>(s.neverReturnedCount - s.neverReturned.size()));

        Printf("\n%sSlowest calls%s\n", C(kBold), C(kReset));
        for (const CallRef& c : s.slowest)
            Printf("  %12s  %s%s%s  (%s:%llu, %s%s%s)\n", FormatDuration(c.durationMs).c_str(), ToUtf8(c.name).c_str(),
                   c.result.empty() ? "" : "  ", c.result.c_str(), c.file.c_str(),
                   static_cast<unsigned long long>(c.line), DescribeThread(c.thread).c_str(),
                   c.action.empty() ? "" : ", in ", c.action.c_str());

        Printf("\n%sPer function, by total time%s\n", C(kBold), C(kReset));
        Printf("  %8s %12s %12s %6s  %s\n", "calls", "total", "largest", "open", "function");
        for (const auto& f : FunctionsByTotal(s))
            Printf("  %8llu %12s %12s %6llu  %s\n", static_cast<unsigned long long>(f.second.count),
                   f.second.count > 0 ? FormatDuration(f.second.totalMs).c_str() : "-",
                   f.second.count > 0 ? FormatDuration(f.second.maxMs).c_str() : "-",
                   static_cast<unsigned long long>(f.second.neverReturned), ToUtf8(f.first).c_str());
        if (s.otherFunctions > 0)
            Printf("  %8llu calls of further functions (table full)\n", static_cast<unsigned long long>(s.otherFunctions));

        Printf("\n%sCustom actions in the trace (%llu)%s\n", C(kBold), static_cast<unsigned long long>(s.actionCount),
               C(kReset));
        for (const ActionRun& a : s.actions)
        {
            std::string msi;
            if (m_log != nullptr && a.msiIndex >= 0)
                msi = m_log->Outcome(m_log->actions[static_cast<size_t>(a.msiIndex)]);
            else if (m_log != nullptr)
                msi = "not in the Installer log";
            Printf("  %-34s %s:%llu-%llu %s %s, %llu calls, %llu faults, %llu never returned%s%s\n", a.name.c_str(),
                   a.file.c_str(), static_cast<unsigned long long>(a.firstLine),
                   static_cast<unsigned long long>(a.lastLine), FormatClock(a.firstClock).c_str(),
                   FormatDuration(a.durationMs).c_str(), static_cast<unsigned long long>(a.calls),
                   static_cast<unsigned long long>(a.faults), static_cast<unsigned long long>(a.neverReturned),
                   msi.empty() ? "" : "; Installer log: ", msi.c_str());
        }

        Printf("\n%sWarnings: %llu%s", C(kBold), static_cast<unsigned long long>(w.Total()), C(kReset));
        if (w.Total() > 0)
        {
            std::string kinds;
            for (const auto& k : w.Counts())
                kinds += (kinds.empty() ? "" : ", ") + k.first + " " + std::to_string(k.second);
            Printf(" (%s; each went to stderr with its line number)", kinds.c_str());
        }
        Printf("\n");
        Flush();
        std::fflush(m_out);
    }

private:
    const char* C(const char* code) const { return m_color ? code : ""; }
    void Color(const char* code)
    {
        if (m_color)
            m_line += code;
    }

    // The lines of the call trees gather in m_line and go out in large blocks,
    // or each at once to a terminal.
    void Written()
    {
        if (m_terminal || m_line.size() >= (64u << 10))
            Flush();
    }
    void Flush()
    {
        if (!m_line.empty())
            std::fwrite(m_line.data(), 1, m_line.size(), m_out);
        m_line.clear();
    }

    void Printf(const char* format, ...)
    {
        Flush();
        va_list args;
        va_start(args, format);
        std::vfprintf(m_out, format, args);
        va_end(args);
    }

    void FirstFailing()
    {
        if (m_log == nullptr)
            return;
        if (m_log->firstFailing < 0)
        {
            Printf("No action failed in the Installer log.\n");
            return;
        }
        const MsiAction& a = m_log->actions[static_cast<size_t>(m_log->firstFailing)];
        Printf("%sFirst failing action: %s%s, %s\n", C(kRed), a.name.c_str(), C(kReset),
               DescribeMsiAction(*m_log, a).c_str());
    }

    void Outcome(const Item& item, bool isReturn)
    {
        if (item.status == CallStatus::Returned)
        {
            m_line += "  ";
            AppendDuration(m_line, item.durationMs);
            if (!item.result.empty())
            {
                m_line += "  ";
                m_line += item.result;
            }
            if (isReturn)
                m_line += "  (returned)";
        }
        else if (item.status == CallStatus::NeverReturned)
        {
            Color(kRed);
            m_line += "  NEVER RETURNED: ";
            m_line += item.reason;
            Color(kReset);
        }
        else
            m_line += "  (returns further down)";
    }

    static std::string Stack(const std::vector<std::string>& stack)
    {
        if (stack.empty())
            return "(none)";
        std::string s;
        for (const std::string& f : stack)
            s += (s.empty() ? "" : " > ") + ToUtf8(f);
        return s;
    }

    std::FILE* m_out;
    bool m_color;
    bool m_summaryOnly;
    bool m_terminal;
    const MsiLog* m_log = nullptr;
    std::string m_line;
};
} // namespace

std::unique_ptr<ReportSink> MakeTextReport(std::FILE* out, bool color, bool summaryOnly)
{
    return std::make_unique<TextReport>(out, color, summaryOnly);
}
} // namespace swltrace
