#include "Reports.h"
#include "Text.h"

namespace swltrace
{
namespace
{
// One document: header, the items as they come ("events"), then the summary
// and the warnings. Calls carry an id and their parent's id, so a reader can
// rebuild the trees.
class JsonReport : public ReportSink
{
public:
    explicit JsonReport(std::FILE* out) : m_out(out) {}

    void Begin(const Header& h) override
    {
        m_log = h.msiLog;
        m_s = "{\n\"tool\": \"swltrace\",\n\"inputs\": [";
        for (size_t i = 0; i < h.inputs.size(); ++i)
        {
            m_s += i ? ", " : "";
            Str(h.inputs[i]);
        }
        m_s += "],\n\"installer_log\": ";
        if (m_log == nullptr)
            m_s += "null";
        else
        {
            m_s += "{\"path\": ";
            Str(m_log->path);
            m_s += ", \"format\": ";
            m_s += m_log->windowsFormat ? "\"windows\"" : "\"wine\"";
            m_s += ", \"first_failing_action\": ";
            if (m_log->firstFailing < 0)
                m_s += "null";
            else
                Action(m_log->actions[static_cast<size_t>(m_log->firstFailing)]);
            m_s += ",\n  \"actions\": [";
            for (size_t i = 0; i < m_log->actions.size(); ++i)
            {
                m_s += i ? ",\n    " : "\n    ";
                Action(m_log->actions[i]);
            }
            m_s += "]}";
        }
        m_s += ",\n\"events\": [";
        Flush();
    }

    void Thread(const ThreadId& t, const std::string& file, const std::string& action) override
    {
        Next();
        m_s += "{\"type\": \"thread\", \"file\": ";
        Str(file);
        ThreadFields(t);
        m_s += ", \"action\": ";
        Str(action);
        m_s += "}";
        Flush();
    }

    void Emit(const Item& item) override
    {
        Next();
        switch (item.kind)
        {
        case Item::Kind::ActionBegin:
            m_s += "{\"type\": \"action\", \"name\": ";
            Str(item.text);
            m_s += ", \"installer_log_index\": " + std::to_string(item.msiIndex);
            break;
        case Item::Kind::Call:
        case Item::Kind::Return:
            m_s += item.kind == Item::Kind::Call ? "{\"type\": \"call\"" : "{\"type\": \"return\"";
            m_s += ", \"id\": " + std::to_string(item.callId);
            if (item.kind == Item::Kind::Call)
                m_s += ", \"parent\": " + std::to_string(item.parentId);
            m_s += ", \"name\": ";
            Str(item.text);
            m_s += ", \"depth\": " + std::to_string(item.depth);
            m_s += ", \"status\": ";
            m_s += item.status == CallStatus::Returned ? "\"returned\""
                   : item.status == CallStatus::Open   ? "\"open\""
                                                       : "\"never_returned\"";
            if (item.status == CallStatus::Returned)
            {
                m_s += ", \"exit_line\": " + std::to_string(item.exitLine);
                Num("duration_ms", item.durationMs);
                if (!item.result.empty())
                {
                    m_s += ", \"result\": ";
                    Str(item.result);
                }
            }
            if (item.status == CallStatus::NeverReturned)
            {
                m_s += ", \"reason\": ";
                Str(item.reason);
            }
            break;
        case Item::Kind::Message:
            m_s += "{\"type\": \"line\", \"kind\": ";
            m_s += item.messageKind == MessageKind::Fault    ? "\"fault\""
                   : item.exception                          ? "\"exception\""
                   : item.messageKind == MessageKind::MsiLog ? "\"installer_log\""
                                                             : "\"message\"";
            m_s += ", \"depth\": " + std::to_string(item.depth);
            m_s += ", \"text\": ";
            Str(item.text);
            break;
        }
        m_s += ", \"line\": " + std::to_string(item.line);
        m_s += ", \"clock\": \"" + FormatClock(item.clockMs) + "\"}";
        Flush();
    }

    void End(const Summary& s, const Warnings& w) override
    {
        m_s += "\n],\n\"summary\": {\n  \"files\": [";
        for (size_t i = 0; i < s.files.size(); ++i)
        {
            const InputFile& f = s.files[i];
            m_s += i ? ", " : "";
            m_s += "{\"path\": ";
            Str(f.path);
            m_s += ", \"lines\": " + std::to_string(f.lines) + ", \"bytes\": " + std::to_string(f.bytes);
            Num("counter_frequency", f.frequency);
            m_s += ", \"frequency_source\": ";
            Str(f.frequencySource);
            m_s += "}";
        }
        m_s += "],\n  \"lines\": " + std::to_string(s.lines) + ", \"trace_lines\": " + std::to_string(s.traceLines) +
               ", \"calls\": " + std::to_string(s.calls);
        m_s += ",\n  \"fault_count\": " + std::to_string(s.faultCount) + ", \"faults\": [";
        for (size_t i = 0; i < s.faults.size(); ++i)
        {
            const FaultRef& f = s.faults[i];
            m_s += i ? ",\n    " : "\n    ";
            m_s += "{\"file\": ";
            Str(f.file);
            m_s += ", \"line\": " + std::to_string(f.line);
            ThreadFields(f.thread);
            m_s += ", \"clock\": \"" + FormatClock(f.clockMs) + "\", \"kind\": ";
            m_s += f.fault ? "\"fault\"" : "\"exception\"";
            m_s += ", \"text\": ";
            Str(f.message);
            m_s += ", \"action\": ";
            Str(f.action);
            m_s += ", \"open_calls\": [";
            for (size_t k = 0; k < f.stack.size(); ++k)
            {
                m_s += k ? ", " : "";
                Str(f.stack[k]);
            }
            m_s += "]}";
        }
        m_s += "],\n  \"never_returned_count\": " + std::to_string(s.neverReturnedCount) + ", \"never_returned\": [";
        CallList(s.neverReturned);
        m_s += "],\n  \"slowest\": [";
        CallList(s.slowest);
        m_s += "],\n  \"functions\": [";
        bool first = true;
        for (const auto& f : FunctionsByTotal(s))
        {
            m_s += first ? "\n    " : ",\n    ";
            first = false;
            m_s += "{\"name\": ";
            Str(f.first);
            m_s += ", \"count\": " + std::to_string(f.second.count);
            Num("total_ms", f.second.totalMs);
            Num("max_ms", f.second.maxMs);
            m_s += ", \"never_returned\": " + std::to_string(f.second.neverReturned) + "}";
            Flush();
        }
        m_s += "],\n  \"actions\": [";
        for (size_t i = 0; i < s.actions.size(); ++i)
        {
            const ActionRun& a = s.actions[i];
            m_s += i ? ",\n    " : "\n    ";
            m_s += "{\"name\": ";
            Str(a.name);
            m_s += ", \"file\": ";
            Str(a.file);
            ThreadFields(a.thread);
            m_s += ", \"first_line\": " + std::to_string(a.firstLine) + ", \"last_line\": " + std::to_string(a.lastLine);
            m_s += ", \"start\": \"" + FormatClock(a.firstClock) + "\"";
            Num("duration_ms", a.durationMs);
            m_s += ", \"lines\": " + std::to_string(a.lines) + ", \"calls\": " + std::to_string(a.calls) +
                   ", \"faults\": " + std::to_string(a.faults) +
                   ", \"never_returned\": " + std::to_string(a.neverReturned) +
                   ", \"installer_log_index\": " + std::to_string(a.msiIndex);
            if (m_log != nullptr && a.msiIndex >= 0)
            {
                m_s += ", \"installer_log_outcome\": ";
                Str(m_log->Outcome(m_log->actions[static_cast<size_t>(a.msiIndex)]));
            }
            m_s += "}";
        }
        m_s += "]},\n\"warning_count\": " + std::to_string(w.Total()) + ",\n\"warnings\": [";
        for (size_t i = 0; i < w.Kept().size(); ++i)
        {
            const Warning& x = w.Kept()[i];
            m_s += i ? ",\n  " : "\n  ";
            m_s += "{\"file\": ";
            Str(x.file);
            m_s += ", \"line\": " + std::to_string(x.line) + ", \"kind\": ";
            Str(x.kind);
            m_s += ", \"text\": ";
            Str(x.text);
            m_s += "}";
        }
        m_s += "]\n}\n";
        Flush();
        std::fflush(m_out);
    }

private:
    void Str(std::string_view v)
    {
        m_s += '"';
        AppendJsonEscaped(m_s, v);
        m_s += '"';
    }
    void Num(const char* key, double v)
    {
        char buf[64];
        if (v < 0)
            std::snprintf(buf, sizeof buf, ", \"%s\": null", key);
        else
            std::snprintf(buf, sizeof buf, ", \"%s\": %.4f", key, v);
        m_s += buf;
    }
    void ThreadFields(const ThreadId& t)
    {
        char buf[96];
        std::snprintf(buf, sizeof buf, ", \"pid\": \"%x\", \"tid\": \"%x\", \"run\": %u", t.pid, t.tid, t.run);
        m_s += buf;
    }
    void Action(const MsiAction& a)
    {
        m_s += "{\"name\": ";
        Str(a.name);
        m_s += ", \"start\": ";
        Str(FormatSeconds(a.startSec));
        m_s += ", \"end\": ";
        Str(FormatSeconds(a.endSec));
        m_s += ", \"start_line\": " + std::to_string(a.startLine) + ", \"end_line\": " + std::to_string(a.endLine);
        m_s += ", \"return_value\": " + std::to_string(a.returnValue);
        m_s += ", \"outcome\": ";
        Str(m_log->Outcome(a));
        m_s += std::string(", \"failed\": ") + (a.failed ? "true" : "false");
        m_s += std::string(", \"standard\": ") + (a.standard ? "true" : "false");
        if (a.errorCode >= 0)
            m_s += ", \"error_code\": " + std::to_string(a.errorCode);
        if (!a.entryPoint.empty())
        {
            m_s += ", \"entry_point\": ";
            Str(a.entryPoint);
        }
        m_s += ", \"opening\": ";
        Str(a.opening);
        m_s += "}";
    }
    void CallList(const std::vector<CallRef>& list)
    {
        for (size_t i = 0; i < list.size(); ++i)
        {
            const CallRef& c = list[i];
            m_s += i ? ",\n    " : "\n    ";
            m_s += "{\"name\": ";
            Str(c.name);
            m_s += ", \"file\": ";
            Str(c.file);
            m_s += ", \"line\": " + std::to_string(c.line);
            ThreadFields(c.thread);
            m_s += ", \"clock\": \"" + FormatClock(c.clockMs) + "\"";
            Num("duration_ms", c.durationMs);
            m_s += ", \"result\": ";
            Str(c.result);
            m_s += ", \"action\": ";
            Str(c.action);
            if (!c.reason.empty())
            {
                m_s += ", \"reason\": ";
                Str(c.reason);
            }
            m_s += "}";
        }
    }
    void Next()
    {
        m_s += m_first ? "\n  " : ",\n  ";
        m_first = false;
    }
    void Flush()
    {
        std::fwrite(m_s.data(), 1, m_s.size(), m_out);
        m_s.clear();
    }

    std::FILE* m_out;
    const MsiLog* m_log = nullptr;
    std::string m_s;
    bool m_first = true;
};
} // namespace

std::unique_ptr<ReportSink> MakeJsonReport(std::FILE* out)
{
    return std::make_unique<JsonReport>(out);
}
} // namespace swltrace
