#pragma once
// Reads a file line by line in fixed-size blocks: memory does not grow with
// the file, and a line longer than the limit is cut (and reported) rather
// than held whole.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace swltrace
{
class LineReader
{
public:
    static const size_t kDefaultMaxLine = 64 * 1024;

    // Opens path for reading; check IsOpen(). Lines longer than maxLine bytes
    // are returned cut to maxLine, with WasCut() set.
    explicit LineReader(const std::string& path, size_t maxLine = kDefaultMaxLine);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool IsOpen() const { return m_file != nullptr; }

    // The next line without its CR LF or LF; false at the end of the file.
    // The view stays valid until the next call.
    bool Next(std::string_view& line);

    // 1-based number of the line Next returned last.
    uint64_t LineNumber() const { return m_lineNumber; }
    // The last line was longer than the limit and was cut.
    bool WasCut() const { return m_cut; }
    // The last line ended the file without a line end.
    bool HadNoLineEnd() const { return m_noLineEnd; }
    // Bytes consumed so far.
    uint64_t BytesRead() const { return m_bytesRead; }

private:
    bool Fill();

    std::FILE* m_file = nullptr;
    std::vector<char> m_buffer;
    std::string m_long;
    size_t m_begin = 0;
    size_t m_end = 0;
    size_t m_maxLine;
    bool m_eof = false;
    uint64_t m_lineNumber = 0;
    uint64_t m_bytesRead = 0;
    bool m_cut = false;
    bool m_noLineEnd = false;
};
} // namespace swltrace
