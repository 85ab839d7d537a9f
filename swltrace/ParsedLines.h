#pragma once
// Reads a trace file and splits its lines into fields with both cores: a
// second thread reads the file in blocks straight into a batch's buffer and
// finds the line ends of the whole block in one pass, and the lines of a batch
// are parsed in chunks by whichever thread is free, the reader when it is
// ahead, the caller when it is waiting. The call stacks need the lines in
// file order, so the caller takes the chunks in order. A few batches of fixed
// size are in flight: memory does not grow with the file.
#include "TraceLine.h"
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace swltrace
{
struct ParsedLine
{
    TraceLine fields;        // when result is Ok
    std::string_view line;   // without its line end
    uint64_t number = 0;     // 1-based
    uint64_t offset = 0;     // of its first byte in the file
    ParseResult result = ParseResult::NotOurs;
    bool cut = false;        // longer than the reader's limit, cut
    bool noLineEnd = false;  // the file ends inside this line
};

// Offsets of the '\n' bytes of text[from, size), at most max of them, into
// out; returns how many.
size_t FindLineEnds(const char* text, size_t from, size_t size, uint32_t* out, size_t max);

class ParsedLineReader
{
public:
    static const size_t kDefaultMaxLine = 64 * 1024;
    static const size_t kDefaultBlock = 1 << 18;

    // Lines longer than maxLine bytes are given cut to maxLine, with cut set.
    // The file is read block bytes at a time.
    // fieldsOnly: split lines with ParseTraceFields, not ParseTraceLine.
    explicit ParsedLineReader(const std::string& path, size_t maxLine = kDefaultMaxLine,
                              size_t block = kDefaultBlock, bool fieldsOnly = false);
    ~ParsedLineReader();
    ParsedLineReader(const ParsedLineReader&) = delete;
    ParsedLineReader& operator=(const ParsedLineReader&) = delete;

    bool IsOpen() const { return m_file != nullptr; }

    // The next lines in file order, count of them; null at the end. Valid
    // until the next call.
    const ParsedLine* Next(size_t& count);

    // After the end: what the whole file held.
    uint64_t Lines() const { return m_lines; }
    uint64_t Bytes() const { return m_bytes; }

private:
    static const size_t kChunk = 256;
    static const size_t kBatchLines = 16 * kChunk;

    // Where the reader found a line in its batch's text.
    struct Span
    {
        uint32_t begin = 0;
        uint32_t length = 0;
        bool cut = false;
        bool noLineEnd = false;
    };
    struct Batch
    {
        std::vector<char> buffer;        // a block of the file; the lines are views into it
        const char* text = nullptr;      // where this batch's bytes are
        uint64_t base = 0;               // the file offset of text[0]
        uint64_t firstNumber = 0;        // of the first line
        std::vector<Span> spans;         // kBatchLines; the first count are used
        std::vector<ParsedLine> lines;   // kBatchLines; the first count are used
        size_t count = 0;
        size_t chunks = 0;
        std::atomic<size_t> nextChunk{0};                // the next chunk nobody parses yet
        std::array<std::atomic<bool>, kBatchLines / kChunk> parsed{};
        bool last = false;
    };

    void Run();
    bool Fill(Batch& b);
    bool ParseOneChunk(Batch& b);
    Batch* TakeFree();

    std::FILE* m_file = nullptr;
    size_t m_maxLine;
    bool m_fieldsOnly;
    bool m_eof = false;
    bool m_skipping = false;         // inside a line too long to keep: drop bytes up to its end
    const char* m_carry = nullptr;   // the bytes of the last batch that begin its next line
    size_t m_carryLength = 0;
    std::vector<uint32_t> m_ends;    // line ends of the block being split
    uint64_t m_readLines = 0;        // the reader's count
    uint64_t m_readBytes = 0;
    std::vector<Batch> m_batches;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Batch*> m_full;       // read, in file order; the front is the caller's
    std::vector<Batch*> m_free;
    std::atomic<bool> m_freed{false};   // m_free has a batch: the reader stops helping and reads on
    bool m_stop = false;
    bool m_end = false;
    size_t m_chunk = 0;              // the caller's next chunk of m_full.front()
    uint64_t m_lines = 0;
    uint64_t m_bytes = 0;
    std::thread m_thread;
};
} // namespace swltrace
