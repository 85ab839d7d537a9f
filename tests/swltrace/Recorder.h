#pragma once
// Test helpers: a report sink that keeps what it is given, and a runner that
// analyses data files with it.
#include "Analyzer.h"
#include "MsiLog.h"
#include "Report.h"
#include <string>
#include <vector>

struct Recorder : swltrace::ReportSink
{
    std::vector<swltrace::Item> items;
    std::vector<swltrace::ThreadId> threads;
    swltrace::Summary summary;
    bool ended = false;

    void Begin(const swltrace::Header&) override {}
    void Thread(const swltrace::ThreadId& t, const std::string&, const std::string&) override { threads.push_back(t); }
    void Emit(const swltrace::Item& item) override { items.push_back(item); }
    void End(const swltrace::Summary& s, const swltrace::Warnings&) override
    {
        summary = s;
        ended = true;
    }

    const swltrace::Item* Call(const std::string& name, int nth = 0) const
    {
        for (const auto& i : items)
            if (i.kind == swltrace::Item::Kind::Call && i.text == name && nth-- == 0)
                return &i;
        return nullptr;
    }
};

inline std::string DataFile(const std::string& name)
{
    return std::string(SWLTRACE_DATA) + "/" + name;
}

// Analyses data files (and an Installer log) into recorder and warnings.
inline void Analyse(Recorder& recorder, swltrace::Warnings& warnings, const std::vector<std::string>& files,
                    const swltrace::MsiLog* log = nullptr, swltrace::Options options = swltrace::Options())
{
    swltrace::Analyzer analyzer(options, log, &recorder, warnings);
    for (const auto& f : files)
        analyzer.AddFile(DataFile(f));
    analyzer.Finish();
}

// The line numbers warnings of kind were given for, in order.
inline std::vector<uint64_t> WarnedLines(const swltrace::Warnings& w, const std::string& kind)
{
    std::vector<uint64_t> lines;
    for (const auto& x : w.Kept())
        if (x.kind == kind)
            lines.push_back(x.line);
    return lines;
}
