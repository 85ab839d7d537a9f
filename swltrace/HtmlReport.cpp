#include "Reports.h"
#include "Text.h"
#include <algorithm>

namespace swltrace
{
namespace
{
const char kStyle[] = R"(
body{font:14px/1.35 system-ui,sans-serif;margin:1.2em;color:#222}
h1{font-size:1.4em;margin:0 0 .4em} h2{font-size:1.15em;margin:1.2em 0 .4em}
.fail{color:#b00;font-weight:bold} .warn{color:#a60}
table{border-collapse:collapse;font-size:13px} td,th{padding:2px 8px;border-bottom:1px solid #ddd;text-align:left;vertical-align:top}
td.num{text-align:right;font-variant-numeric:tabular-nums}
#timeline{position:relative;border:1px solid #ccc;background:#fafafa;padding:4px 0}
.tl{position:relative;height:20px;margin:2px 0}
.tl .lab{position:absolute;left:4px;width:260px;overflow:hidden;white-space:nowrap;font-size:12px}
.tl .track{position:absolute;left:270px;right:8px;top:3px;height:14px}
.tl .bar{position:absolute;height:14px;min-width:3px;background:#4a8;border-radius:2px}
.tl .bar.failed{background:#c33} .tl .bar.unmatched{background:#999}
#trees{font:12px/1.3 ui-monospace,Consolas,monospace}
.th{margin-top:1em;padding:3px 6px;background:#e8eef8;font-weight:bold}
.act{padding:2px 6px;background:#f3f3f3;font-weight:bold;margin-top:.3em}
.act.failed{background:#fbe3e3;color:#900}
.r{white-space:pre-wrap;padding-left:calc(var(--d,0)*1.6em)}
.r .ln{display:inline-block;width:6.5em;color:#999;text-align:right;margin-right:.6em}
.r .ck{color:#888;margin-right:.6em}
.r.c{cursor:pointer} .r.c .tg{display:inline-block;width:1em;color:#36c}
.r.c.leaf .tg{visibility:hidden}
.dur{color:#063;margin-left:.8em} .res{color:#555;margin-left:.8em}
.never{color:#b00;font-weight:bold;margin-left:.8em}
.msi{color:#07a} .fault{color:#b00;font-weight:bold} .exc{color:#a50;font-weight:bold}
.hidden{display:none}
button{margin-right:.5em}
)";

const char kScript[] = R"(
(function(){
  var rows = Array.prototype.slice.call(document.querySelectorAll('#trees .r'));
  var depth = rows.map(function(r){ return +r.getAttribute('data-d'); });
  // A call has children when the next row in the same block is deeper.
  rows.forEach(function(r, i){
    if (!r.classList.contains('c')) return;
    var next = r.nextElementSibling;
    if (!next || !next.classList.contains('r') || +next.getAttribute('data-d') <= depth[i]) r.classList.add('leaf');
  });
  function setOpen(i, open){
    var r = rows[i];
    r.classList.toggle('closed', !open);
    r.querySelector('.tg').textContent = open ? '\u25be' : '\u25b8';
    var skipBelow = -1;
    for (var n = r.nextElementSibling; n && n.classList.contains('r'); n = n.nextElementSibling){
      var d = +n.getAttribute('data-d');
      if (d <= depth[i]) break;
      if (skipBelow >= 0 && d > skipBelow) { continue; }
      skipBelow = -1;
      n.classList.toggle('hidden', !open);
      if (open && n.classList.contains('closed')) skipBelow = d;
    }
  }
  // Open the calls above every problem; close the rest.
  var keep = new Set(), stack = [];
  rows.forEach(function(r, i){
    var prev = r.previousElementSibling;
    if (!prev || !prev.classList.contains('r')) stack = [];
    while (stack.length && depth[stack[stack.length-1]] >= depth[i]) stack.pop();
    if (r.classList.contains('bad')) stack.forEach(function(k){ keep.add(k); });
    if (r.classList.contains('c')) stack.push(i);
  });
  var all = location.hash === '#all';
  for (var i = rows.length - 1; i >= 0; --i)
    if (rows[i].classList.contains('c') && !rows[i].classList.contains('leaf'))
      setOpen(i, all || keep.has(i));
  rows.forEach(function(r, i){
    if (r.classList.contains('c') && !r.classList.contains('leaf'))
      r.addEventListener('click', function(){ setOpen(i, r.classList.contains('closed')); });
  });
  document.getElementById('expand').onclick = function(){
    rows.forEach(function(r, i){ if (r.classList.contains('c') && !r.classList.contains('leaf')) setOpen(i, true); });
  };
  document.getElementById('collapse').onclick = function(){
    for (var i = rows.length - 1; i >= 0; --i)
      if (rows[i].classList.contains('c') && !rows[i].classList.contains('leaf')) setOpen(i, false);
  };
  // The summary is written last; show it first.
  var top = document.getElementById('top');
  top.parentNode.insertBefore(document.getElementById('summary'), top.nextSibling);
  top.parentNode.insertBefore(document.getElementById('timeline-section'), top.nextSibling);
  document.body.setAttribute('data-js', 'ready');
  document.body.setAttribute('data-hidden-rows', String(document.querySelectorAll('#trees .hidden').length));
})();
)";

class HtmlReport : public ReportSink
{
public:
    explicit HtmlReport(std::FILE* out) : m_out(out) {}

    void Begin(const Header& h) override
    {
        m_log = h.msiLog;
        m_s += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>swltrace report</title><style>";
        m_s += kStyle;
        m_s += "</style></head>\n<body data-js=\"off\">\n<h1>swltrace report</h1>\n<div id=\"top\"><p>Trace: ";
        for (size_t i = 0; i < h.inputs.size(); ++i)
        {
            m_s += i ? ", " : "";
            Esc(h.inputs[i]);
        }
        if (m_log != nullptr)
        {
            m_s += "<br>Installer log: ";
            Esc(m_log->path);
            m_s += m_log->windowsFormat ? " (Windows format)" : " (Wine format)";
        }
        m_s += "</p>";
        if (m_log != nullptr)
        {
            if (m_log->firstFailing >= 0)
            {
                const MsiAction& a = m_log->actions[static_cast<size_t>(m_log->firstFailing)];
                m_s += "<p id=\"first-failing\" class=\"fail\">First failing action: ";
                Esc(a.name);
                m_s += " &mdash; ";
                Esc(DescribeMsiAction(*m_log, a));
                m_s += "</p>";
            }
            else
                m_s += "<p id=\"first-failing\">No action failed in the Installer log.</p>";
        }
        m_s += "</div>\n<h2>Call trees</h2>\n<div><button id=\"expand\">Expand all</button>"
               "<button id=\"collapse\">Collapse all</button> Click a call to open or close it.</div>\n"
               "<div id=\"trees\">\n";
        Flush();
    }

    void Thread(const ThreadId& t, const std::string& file, const std::string& action) override
    {
        m_s += "<div class=\"th\">";
        Esc(file);
        m_s += ": ";
        Esc(DescribeThread(t));
        if (!action.empty())
        {
            m_s += ", in ";
            Esc(action);
        }
        m_s += "</div>\n";
        Flush();
    }

    void Emit(const Item& item) override
    {
        if (item.kind == Item::Kind::ActionBegin)
        {
            bool failed = false;
            std::string msi;
            if (m_log != nullptr && item.msiIndex >= 0)
            {
                const MsiAction& a = m_log->actions[static_cast<size_t>(item.msiIndex)];
                failed = a.failed;
                msi = " [Installer log: " + DescribeMsiAction(*m_log, a) + "]";
            }
            else if (m_log != nullptr)
                msi = " [not in the Installer log]";
            m_s += failed ? "<div class=\"act failed\">" : "<div class=\"act\">";
            m_s += "Custom action ";
            Esc(item.text);
            Esc(msi);
            m_s += "</div>\n";
            Flush();
            return;
        }
        const bool bad = item.status == CallStatus::NeverReturned || item.messageKind == MessageKind::Fault ||
                         item.exception;
        m_s += "<div class=\"r";
        m_s += item.kind == Item::Kind::Call ? " c" : item.kind == Item::Kind::Return ? " ret" : " m";
        if (bad)
            m_s += " bad";
        m_s += "\" data-d=\"" + std::to_string(item.depth) + "\" style=\"--d:" + std::to_string(item.depth) +
               "\"><span class=\"ln\">" + std::to_string(item.line) + "</span><span class=\"ck\">" +
               FormatClock(item.clockMs) + "</span>";
        switch (item.kind)
        {
        case Item::Kind::Call:
        case Item::Kind::Return:
            m_s += item.kind == Item::Kind::Call ? "<span class=\"tg\">\xE2\x96\xBE</span>" : "&larr; ";
            Esc(item.text);
            if (item.status == CallStatus::Returned)
            {
                m_s += "<span class=\"dur\">" + FormatDuration(item.durationMs) + "</span>";
                if (!item.result.empty())
                {
                    m_s += "<span class=\"res\">";
                    Esc(item.result);
                    m_s += "</span>";
                }
            }
            else if (item.status == CallStatus::NeverReturned)
            {
                m_s += "<span class=\"never\">never returned: ";
                Esc(item.reason);
                m_s += "</span>";
            }
            else
                m_s += "<span class=\"res\">(returns further down)</span>";
            break;
        default:
            if (item.messageKind == MessageKind::Fault)
                m_s += "<span class=\"fault\">FAULT ";
            else if (item.exception)
                m_s += "<span class=\"exc\">EXCEPTION ";
            else if (item.messageKind == MessageKind::MsiLog)
                m_s += "<span class=\"msi\" title=\"also in the Installer log\">[MSI] ";
            else
                m_s += "<span>";
            Esc(item.messageKind == MessageKind::MsiLog ? MsiText(item.text) : std::string_view(item.text));
            m_s += "</span>";
            break;
        }
        m_s += "</div>\n";
        if (m_s.size() > (1 << 16))
            Flush();
    }

    void End(const Summary& s, const Warnings& w) override
    {
        m_s += "</div>\n";
        Timeline(s);
        m_s += "<div id=\"summary\"><h2>Summary</h2><p>";
        for (const InputFile& f : s.files)
        {
            Esc(f.path);
            m_s += ": " + std::to_string(f.lines) + " lines, performance counter " +
                   std::to_string(static_cast<long long>(f.frequency)) + " Hz (";
            Esc(f.frequencySource);
            m_s += ")<br>";
        }
        m_s += std::to_string(s.traceLines) + " trace lines, " + std::to_string(s.calls) + " calls, " +
               std::to_string(w.Total()) + " warnings</p>\n";

        m_s += "<h2>Faults and exceptions (" + std::to_string(s.faultCount) + ")</h2><table id=\"faults\">"
               "<tr><th>where</th><th>action</th><th>line</th><th>open calls</th></tr>\n";
        for (const FaultRef& f : s.faults)
        {
            m_s += "<tr><td>";
            Esc(f.file + ":" + std::to_string(f.line) + " " + FormatClock(f.clockMs) + " " + DescribeThread(f.thread));
            m_s += "</td><td>";
            Esc(f.action);
            m_s += f.fault ? "</td><td class=\"fault\">" : "</td><td class=\"exc\">";
            Esc(f.message);
            m_s += "</td><td>";
            std::string stack;
            for (const std::string& c : f.stack)
                stack += (stack.empty() ? "" : " > ") + c;
            Esc(stack.empty() ? "(none)" : stack);
            m_s += "</td></tr>\n";
        }
        m_s += "</table>\n<h2>Calls that never returned (" + std::to_string(s.neverReturnedCount) +
               ")</h2><table id=\"never\"><tr><th>where</th><th>action</th><th>call</th><th>why</th></tr>\n";
        for (const CallRef& c : s.neverReturned)
        {
            m_s += "<tr><td>";
            Esc(c.file + ":" + std::to_string(c.line) + " " + FormatClock(c.clockMs) + " " + DescribeThread(c.thread));
            m_s += "</td><td>";
            Esc(c.action);
            m_s += "</td><td class=\"fault\">";
            Esc(c.name);
            m_s += "</td><td>";
            Esc(c.reason);
            m_s += "</td></tr>\n";
        }
        m_s += "</table>\n<h2>Slowest calls</h2><table><tr><th>time</th><th>call</th><th>result</th><th>where</th>"
               "<th>action</th></tr>\n";
        for (const CallRef& c : s.slowest)
        {
            m_s += "<tr><td class=\"num\">" + FormatDuration(c.durationMs) + "</td><td>";
            Esc(c.name);
            m_s += "</td><td>";
            Esc(c.result);
            m_s += "</td><td>";
            Esc(c.file + ":" + std::to_string(c.line) + " " + DescribeThread(c.thread));
            m_s += "</td><td>";
            Esc(c.action);
            m_s += "</td></tr>\n";
        }
        m_s += "</table>\n<h2>Per function</h2><table><tr><th>function</th><th>calls</th><th>total</th>"
               "<th>largest</th><th>never returned</th></tr>\n";
        for (const auto& f : FunctionsByTotal(s))
        {
            m_s += "<tr><td>";
            Esc(f.first);
            m_s += "</td><td class=\"num\">" + std::to_string(f.second.count) + "</td><td class=\"num\">" +
                   FormatDuration(f.second.totalMs) + "</td><td class=\"num\">" + FormatDuration(f.second.maxMs) +
                   "</td><td class=\"num\">" + std::to_string(f.second.neverReturned) + "</td></tr>\n";
            if (m_s.size() > (1 << 16))
                Flush();
        }
        m_s += "</table>\n<h2>Warnings (" + std::to_string(w.Total()) + ")</h2><table>\n";
        for (const Warning& x : w.Kept())
        {
            m_s += "<tr><td>";
            Esc(x.file + (x.line > 0 ? ":" + std::to_string(x.line) : std::string()));
            m_s += "</td><td class=\"warn\">";
            Esc(x.text);
            m_s += "</td></tr>\n";
        }
        m_s += "</table></div>\n<script>";
        m_s += kScript;
        m_s += "</script>\n</body></html>\n";
        Flush();
        std::fflush(m_out);
    }

private:
    // One bar per custom action the trace shows, placed by its clock.
    void Timeline(const Summary& s)
    {
        m_s += "<div id=\"timeline-section\"><h2>Timeline of the custom actions</h2><div id=\"timeline\">\n";
        if (s.actions.empty())
            m_s += "<p>No custom action was recognised in the trace.</p>";
        int64_t first = -1;
        int64_t last = -1;
        for (const ActionRun& a : s.actions)
        {
            int64_t start = a.firstClock;
            int64_t end = start + static_cast<int64_t>(std::max(0.0, a.durationMs));
            if (first < 0 || start < first)
                first = start;
            if (end > last)
                last = end;
        }
        const double span = std::max<double>(1.0, static_cast<double>(last - first));
        for (const ActionRun& a : s.actions)
        {
            const bool failed = m_log != nullptr && a.msiIndex >= 0 && m_log->actions[static_cast<size_t>(a.msiIndex)].failed;
            const double left = (a.firstClock - first) * 100.0 / span;
            const double width = std::max(0.0, a.durationMs) * 100.0 / span;
            char geometry[96];
            std::snprintf(geometry, sizeof geometry, "left:%.3f%%;width:%.3f%%", left, width);
            m_s += "<div class=\"tl\"><span class=\"lab\">";
            Esc(FormatClock(a.firstClock) + " " + a.name);
            m_s += "</span><div class=\"track\"><div class=\"bar";
            m_s += failed ? " failed" : (m_log != nullptr && a.msiIndex < 0 ? " unmatched" : "");
            m_s += "\" style=\"";
            m_s += geometry;
            m_s += "\" title=\"";
            std::string title = a.name + ": " + FormatDuration(a.durationMs) + ", trace lines " +
                                std::to_string(a.firstLine) + "-" + std::to_string(a.lastLine);
            if (m_log != nullptr && a.msiIndex >= 0)
                title += ", " + m_log->Outcome(m_log->actions[static_cast<size_t>(a.msiIndex)]);
            Esc(title);
            m_s += "\"></div></div></div>\n";
        }
        m_s += "</div></div>\n";
    }

    void Esc(std::string_view v) { AppendHtmlEscaped(m_s, v); }
    void Flush()
    {
        std::fwrite(m_s.data(), 1, m_s.size(), m_out);
        m_s.clear();
    }

    std::FILE* m_out;
    const MsiLog* m_log = nullptr;
    std::string m_s;
};
} // namespace

std::unique_ptr<ReportSink> MakeHtmlReport(std::FILE* out)
{
    return std::make_unique<HtmlReport>(out);
}
} // namespace swltrace
