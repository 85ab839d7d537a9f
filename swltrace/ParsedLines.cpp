#include "ParsedLines.h"
#include <cstring>
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

namespace swltrace
{
namespace
{
const size_t kBatches = 4;
}

size_t FindLineEnds(const char* text, size_t from, size_t size, uint32_t* out, size_t max)
{
    size_t count = 0;
    size_t i = from;
#if (defined(__SSE2__) || defined(_M_X64)) && defined(__GNUC__)
    // 32 bytes at a time: one bit per '\n', then the offsets of the set bits.
    const __m128i nl = _mm_set1_epi8('\n');
    for (; i + 32 <= size; i += 32)
    {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i + 16));
        uint32_t bits = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, nl))) |
                        static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, nl))) << 16;
        while (bits != 0)
        {
            if (count == max)
                return count;
            out[count++] = static_cast<uint32_t>(i + static_cast<size_t>(__builtin_ctz(bits)));
            bits &= bits - 1;
        }
    }
#endif
    while (i < size && count < max)
    {
        const void* nl = std::memchr(text + i, '\n', size - i);
        if (nl == nullptr)
            break;
        i = static_cast<size_t>(static_cast<const char*>(nl) - text);
        out[count++] = static_cast<uint32_t>(i++);
    }
    return count;
}

ParsedLineReader::ParsedLineReader(const std::string& path, size_t maxLine, size_t block, bool fieldsOnly)
    : m_maxLine(maxLine), m_fieldsOnly(fieldsOnly), m_batches(kBatches)
{
    m_file = std::fopen(path.c_str(), "rb");
    if (m_file == nullptr)
        return;
    if (block < 2 * kBatchLines)
        block = 2 * kBatchLines;
    m_ends.resize(kBatchLines);
    for (Batch& b : m_batches)
    {
        // Room for a block behind the start of a line carried over from the
        // batch before, which stays shorter than maxLine + 2.
        b.buffer.resize(block + maxLine + 2);
        b.lines.resize(kBatchLines);
        b.spans.resize(kBatchLines);
        m_free.push_back(&b);
    }
    m_thread = std::thread([this] { Run(); });
}

ParsedLineReader::~ParsedLineReader()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    if (m_file != nullptr)
        std::fclose(m_file);
}

// Parses the batch's next chunk nobody took yet; false when none is left.
bool ParsedLineReader::ParseOneChunk(Batch& b)
{
    const size_t c = b.nextChunk.fetch_add(1, std::memory_order_relaxed);
    if (c >= b.chunks)
        return false;
    const size_t end = (c + 1) * kChunk < b.count ? (c + 1) * kChunk : b.count;
    for (size_t i = c * kChunk; i < end; ++i)
    {
        // The reader only noted where the line is; all of it is written here.
        const Span& span = b.spans[i];
        ParsedLine& p = b.lines[i];
        p.line = std::string_view(b.text + span.begin, span.length);
        p.number = b.firstNumber + i;
        p.offset = b.base + span.begin;
        p.cut = span.cut;
        p.noLineEnd = span.noLineEnd;
        p.result = m_fieldsOnly ? ParseTraceFields(p.line, p.fields) : ParseTraceLine(p.line, p.fields);
    }
    b.parsed[c].store(true, std::memory_order_release);
    return true;
}

// A free batch; while there is none, helps parse the batches waiting for the caller.
ParsedLineReader::Batch* ParsedLineReader::TakeFree()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop && m_free.empty())
    {
        Batch* help = nullptr;
        for (Batch* b : m_full)
            if (b->nextChunk.load(std::memory_order_relaxed) < b->chunks)
            {
                help = b;
                break;
            }
        if (help == nullptr)
        {
            m_changed.wait(lock);
            continue;
        }
        // The caller frees a batch only once all of it is parsed, so help stays ours.
        lock.unlock();
        while (!m_freed.load(std::memory_order_relaxed) && ParseOneChunk(*help))
        {
        }
        lock.lock();
    }
    if (m_stop)
        return nullptr;
    Batch* b = m_free.back();
    m_free.pop_back();
    m_freed.store(!m_free.empty(), std::memory_order_relaxed);
    return b;
}

// Reads the next block into b behind the rest of the last one and splits it
// into lines; false when the file is done.
bool ParsedLineReader::Fill(Batch& b)
{
    char* const text = b.buffer.data();
    size_t size = m_carryLength;
    if (m_carryLength > 0)
        std::memmove(text, m_carry, m_carryLength);   // b may be the batch the rest is in
    m_carry = nullptr;
    m_carryLength = 0;
    while (!m_eof && size < b.buffer.size())
    {
        const size_t n = std::fread(text + size, 1, b.buffer.size() - size, m_file);
        if (n == 0)
            m_eof = true;
        size += n;
    }
    b.count = 0;
    b.base = m_readBytes;   // the file offset of text[0]
    b.firstNumber = m_readLines + 1;
    b.text = text;
    size_t pos = 0;
    if (m_skipping)
    {
        const void* nl = std::memchr(text, '\n', size);
        if (nl == nullptr)
        {
            m_readBytes += size;
            return !m_eof;
        }
        pos = static_cast<size_t>(static_cast<const char*>(nl) - text) + 1;
        m_readBytes += pos;
        m_skipping = false;
    }
    const size_t ends = FindLineEnds(text, pos, size, m_ends.data(), kBatchLines);
    // In locals, so that they stay in registers while the spans are written.
    const uint32_t* const lineEnds = m_ends.data();
    Span* const spans = b.spans.data();
    const size_t maxLine = m_maxLine;
    const size_t start = pos;
    for (size_t k = 0; k < ends; ++k)
    {
        const size_t end = lineEnds[k];
        size_t length = end - pos;
        if (length > 0 && text[end - 1] == '\r')
            --length;
        Span& p = spans[k];
        p.cut = length > maxLine;
        p.noLineEnd = false;
        p.begin = static_cast<uint32_t>(pos);
        p.length = static_cast<uint32_t>(p.cut ? maxLine : length);
        pos = end + 1;
    }
    b.count = ends;
    m_readLines += ends;
    m_readBytes += pos - start;
    const size_t rest = size - pos;
    if (b.count == kBatchLines)
    {
        // No room for more lines: the rest goes to the next batch.
        m_carry = text + pos;
        m_carryLength = rest;
        return rest > 0 || !m_eof;
    }
    if (m_eof)
    {
        if (rest > 0)
        {
            // The file ends inside a line: cut off, or too long to keep.
            Span& p = b.spans[b.count++];
            ++m_readLines;
            m_readBytes += rest;
            size_t length = rest;
            p.cut = length > m_maxLine;
            if (p.cut)
                length = m_maxLine;
            else if (text[pos + length - 1] == '\r')
                --length;
            p.noLineEnd = !p.cut;
            p.begin = static_cast<uint32_t>(pos);
            p.length = static_cast<uint32_t>(length);
        }
        return false;
    }
    if (rest > m_maxLine + 1)
    {
        // Longer than the limit even without its CR LF: keep its start, drop
        // the rest up to its line end.
        Span& p = b.spans[b.count++];
        ++m_readLines;
        m_readBytes += rest;
        p.cut = true;
        p.noLineEnd = false;
        p.begin = static_cast<uint32_t>(pos);
        p.length = static_cast<uint32_t>(m_maxLine);
        m_skipping = true;
        return true;
    }
    m_carry = text + pos;
    m_carryLength = rest;
    return true;
}

void ParsedLineReader::Run()
{
    bool more = true;
    while (more)
    {
        Batch* b = TakeFree();
        if (b == nullptr)
            return;
        more = Fill(*b);
        b->chunks = (b->count + kChunk - 1) / kChunk;
        for (size_t c = 0; c < b->chunks; ++c)
            b->parsed[c].store(false, std::memory_order_relaxed);
        b->nextChunk.store(0, std::memory_order_relaxed);
        b->last = !more;
        if (!more)
        {
            m_lines = m_readLines;
            m_bytes = m_readBytes;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_full.push_back(b);
        }
        m_changed.notify_all();
    }
}

const ParsedLine* ParsedLineReader::Next(size_t& count)
{
    count = 0;
    if (m_file == nullptr)
        return nullptr;
    while (true)
    {
        Batch* b = nullptr;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_full.empty() && m_chunk >= m_full.front()->chunks)
            {
                // All of the front batch was handed out: give it back.
                const bool last = m_full.front()->last;
                m_free.push_back(m_full.front());
                m_full.pop_front();
                m_freed.store(true, std::memory_order_relaxed);
                m_chunk = 0;
                m_changed.notify_all();
                if (last)
                    m_end = true;
            }
            if (m_end)
                return nullptr;
            m_changed.wait(lock, [this] { return !m_full.empty(); });
            b = m_full.front();
        }
        if (m_chunk >= b->chunks)
            continue;   // an empty last batch
        const size_t c = m_chunk++;
        // Parse what nobody has taken yet until this chunk is done.
        while (!b->parsed[c].load(std::memory_order_acquire))
            if (!ParseOneChunk(*b))
                std::this_thread::yield();
        count = (c + 1) * kChunk < b->count ? kChunk : b->count - c * kChunk;
        return &b->lines[c * kChunk];
    }
}
} // namespace swltrace
