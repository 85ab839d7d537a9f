// swltrace: reads the library's trace files, and optionally the Installer's
// verbose log, and tells what happened as one story: the call trees per
// process and thread under their custom actions, the faults with the calls
// open at that moment, and a summary.
#include "Analyzer.h"
#include "MsiLog.h"
#include "Reports.h"
#include "Warnings.h"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#ifdef _WIN32
#include <io.h>
#define SWLTRACE_ISATTY(fd) _isatty(fd)
#else
#include <unistd.h>
#define SWLTRACE_ISATTY(fd) isatty(fd)
#endif

namespace
{
const char kUsage[] =
    "usage: swltrace [options] TRACE_FILE... [--msi-log LOG]\n"
    "\n"
    "Reads trace files (SWLDBG.txt) and shows, per process and thread, the call\n"
    "tree with each call's duration and result, every fault and exception line\n"
    "with the calls open at that moment, and a summary. With the verbose\n"
    "Installer log (msiexec /l*v), each custom action's start, end and return\n"
    "value frames the trace lines that ran inside it, and the first failing\n"
    "action is named at the top.\n"
    "\n"
    "  --msi-log LOG         merge in the verbose Installer log LOG\n"
    "  --summary             text: the summary only, without the call trees\n"
    "  --json                write one JSON document to stdout instead of text\n"
    "  --html FILE           also write a self-contained HTML report to FILE\n"
    "                        (stdout then gets the text summary)\n"
    "  --color, --no-color   colour the text (default: when stdout is a terminal)\n"
    "  --qpc-frequency HZ    performance-counter ticks per second (default:\n"
    "                        calibrated from the clock column of each file)\n"
    "  --help, --version\n"
    "\n"
    "Problems in the input are warnings on stderr naming file and line; the\n"
    "tool goes on. Exit status: 0 read, 1 a file could not be read, 2 usage.\n";

// Sends every call to each of its sinks.
class Tee : public swltrace::ReportSink
{
public:
    void Add(std::unique_ptr<swltrace::ReportSink> sink) { m_sinks.push_back(std::move(sink)); }
    void Begin(const swltrace::Header& h) override
    {
        for (auto& s : m_sinks)
            s->Begin(h);
    }
    bool WantsItems() const override
    {
        for (auto& s : m_sinks)
            if (s->WantsItems())
                return true;
        return false;
    }
    void Thread(const swltrace::ThreadId& t, const std::string& file, const std::string& action) override
    {
        for (auto& s : m_sinks)
            s->Thread(t, file, action);
    }
    void Emit(const swltrace::Item& item) override
    {
        for (auto& s : m_sinks)
            s->Emit(item);
    }
    void End(const swltrace::Summary& summary, const swltrace::Warnings& w) override
    {
        for (auto& s : m_sinks)
            s->End(summary, w);
    }

private:
    std::vector<std::unique_ptr<swltrace::ReportSink>> m_sinks;
};

int Usage(const char* problem)
{
    std::fprintf(stderr, "swltrace: %s\n\n%s", problem, kUsage);
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> traces;
    std::string msiLogPath;
    std::string htmlPath;
    bool json = false;
    bool summaryOnly = false;
    int color = -1;
    swltrace::Options options;

    for (int i = 1; i < argc; ++i)
    {
        const std::string a = argv[i];
        auto value = [&](const char* what) -> const char* {
            if (i + 1 >= argc)
                return nullptr;
            (void)what;
            return argv[++i];
        };
        if (a == "--help" || a == "-h")
        {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a == "--version")
        {
            std::puts("swltrace 1.0");
            return 0;
        }
        if (a == "--msi-log")
        {
            const char* v = value("LOG");
            if (v == nullptr)
                return Usage("--msi-log needs a file");
            msiLogPath = v;
        }
        else if (a == "--html")
        {
            const char* v = value("FILE");
            if (v == nullptr)
                return Usage("--html needs a file");
            htmlPath = v;
        }
        else if (a == "--qpc-frequency")
        {
            const char* v = value("HZ");
            char* end = nullptr;
            options.qpcFrequency = v != nullptr ? std::strtod(v, &end) : 0;
            if (v == nullptr || end == v || *end != '\0' || !(options.qpcFrequency > 0))
                return Usage("--qpc-frequency needs a positive number of ticks per second");
        }
        else if (a == "--json")
            json = true;
        else if (a == "--summary")
            summaryOnly = true;
        else if (a == "--color")
            color = 1;
        else if (a == "--no-color")
            color = 0;
        else if (a.size() > 1 && a[0] == '-')
            return Usage(("unknown option " + a).c_str());
        else
            traces.push_back(a);
    }
    if (traces.empty())
        return Usage("no trace file given");

    if (color < 0)
    {
#ifdef _WIN32
        color = 0;  // the console shows escapes as text unless told otherwise
#else
        const char* term = std::getenv("TERM");
        color = SWLTRACE_ISATTY(1) && std::getenv("NO_COLOR") == nullptr && term != nullptr &&
                std::strcmp(term, "dumb") != 0;
#endif
    }

    // Into a file or a pipe, write in large blocks (a terminal keeps its lines).
    if (!SWLTRACE_ISATTY(1))
        std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);

    swltrace::Warnings warnings(stderr);
    int status = 0;
    swltrace::MsiLog msiLog;
    const swltrace::MsiLog* log = nullptr;
    if (!msiLogPath.empty())
    {
        if (swltrace::ReadMsiLog(msiLogPath, msiLog, warnings))
            log = &msiLog;
        else
            status = 1;
    }

    std::FILE* html = nullptr;
    Tee tee;
    if (json)
        tee.Add(swltrace::MakeJsonReport(stdout));
    else
        tee.Add(swltrace::MakeTextReport(stdout, color == 1, summaryOnly || !htmlPath.empty()));
    if (!htmlPath.empty())
    {
        html = std::fopen(htmlPath.c_str(), "wb");
        if (html == nullptr)
        {
            std::fprintf(stderr, "swltrace: cannot write %s\n", htmlPath.c_str());
            return 1;
        }
        tee.Add(swltrace::MakeHtmlReport(html));
    }

    swltrace::Header header;
    header.inputs = traces;
    header.msiLog = log;
    tee.Begin(header);
    swltrace::Analyzer analyzer(options, log, &tee, warnings);
    for (const std::string& path : traces)
        if (!analyzer.AddFile(path))
            status = 1;
    analyzer.Finish();
    if (html != nullptr && std::fclose(html) != 0)
    {
        std::fprintf(stderr, "swltrace: cannot write %s\n", htmlPath.c_str());
        status = 1;
    }
    return status;
}
