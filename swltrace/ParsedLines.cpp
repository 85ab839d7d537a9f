#include "ParsedLines.h"
#include <cstring>

namespace swltrace
{
namespace
{
const size_t kBatches = 4;
const size_t kBatchText = 1 << 20;
}

ParsedLineReader::ParsedLineReader(const std::string& path) : m_reader(path), m_batches(kBatches)
{
    if (!m_reader.IsOpen())
        return;
    for (Batch& b : m_batches)
    {
        b.text.resize(kBatchText + LineReader::kDefaultMaxLine);
        b.lines.resize(kBatchLines);
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
        ParsedLine& p = b.lines[i];
        p.result = ParseTraceLine(p.line, p.fields);
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

// Reads lines into b until it is full or the file ends; false at the end.
bool ParsedLineReader::Fill(Batch& b)
{
    size_t used = 0;
    b.count = 0;
    std::string_view line;
    while (b.count < kBatchLines && used + LineReader::kDefaultMaxLine <= b.text.size() && m_reader.Next(line))
    {
        char* copy = b.text.data() + used;
        if (!line.empty())
            std::memcpy(copy, line.data(), line.size());
        used += line.size();
        ParsedLine& p = b.lines[b.count++];
        p.line = std::string_view(copy, line.size());
        p.number = m_reader.LineNumber();
        p.cut = m_reader.WasCut();
        p.noLineEnd = m_reader.HadNoLineEnd();
    }
    return b.count == kBatchLines || used + LineReader::kDefaultMaxLine > b.text.size();
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
            m_lines = m_reader.LineNumber();
            m_bytes = m_reader.BytesRead();
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
    if (!m_reader.IsOpen())
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
