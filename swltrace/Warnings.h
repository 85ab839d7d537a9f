#pragma once
// Problems found in the input: each names the file and line, goes to stderr at
// once, and is kept (up to a limit) for the report. Repeats of one kind in one
// file are counted after the first few instead of printed.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace swltrace
{
struct Warning
{
    std::string file;
    uint64_t line = 0;   // 0: about the whole file
    std::string kind;
    std::string text;
};

class Warnings
{
public:
    static const int kShownPerKind = 10;
    static const size_t kKept = 500;

    // stream: where warnings are printed as they come (nullptr: nowhere).
    explicit Warnings(std::FILE* stream = stderr) : m_stream(stream) {}

    void Add(const std::string& file, uint64_t line, const std::string& kind, const std::string& text);
    // Prints how many of each kind were not shown, for one file.
    void FinishFile(const std::string& file);

    const std::vector<Warning>& Kept() const { return m_kept; }
    uint64_t Total() const { return m_total; }
    // Count per kind over all files.
    const std::map<std::string, uint64_t>& Counts() const { return m_counts; }

private:
    std::FILE* m_stream;
    std::vector<Warning> m_kept;
    std::map<std::string, uint64_t> m_counts;
    std::map<std::pair<std::string, std::string>, uint64_t> m_perFile;
    uint64_t m_total = 0;
};
} // namespace swltrace
