#include "LineReader.h"
#include <cstring>

namespace swltrace
{
namespace
{
const size_t kBlock = 1 << 20;
}

LineReader::LineReader(const std::string& path, size_t maxLine) : m_maxLine(maxLine)
{
    m_file = std::fopen(path.c_str(), "rb");
    m_buffer.resize(kBlock + maxLine + 1);
}

LineReader::~LineReader()
{
    if (m_file != nullptr)
        std::fclose(m_file);
}

// Moves the unread rest to the front and reads more behind it.
bool LineReader::Fill()
{
    if (m_eof)
        return false;
    if (m_begin > 0)
    {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    size_t room = m_buffer.size() - m_end;
    size_t n = std::fread(m_buffer.data() + m_end, 1, room, m_file);
    if (n == 0)
    {
        m_eof = true;
        return false;
    }
    m_end += n;
    return true;
}

bool LineReader::Next(std::string_view& line)
{
    if (m_file == nullptr)
        return false;
    m_cut = false;
    m_noLineEnd = false;
    size_t scanned = 0;
    while (true)
    {
        const char* start = m_buffer.data() + m_begin;
        const size_t available = m_end - m_begin;
        const void* nl = scanned < available ? std::memchr(start + scanned, '\n', available - scanned) : nullptr;
        if (nl != nullptr)
        {
            size_t len = static_cast<size_t>(static_cast<const char*>(nl) - start);
            m_begin += len + 1;
            m_bytesRead += len + 1;
            if (len > 0 && start[len - 1] == '\r')
                --len;
            if (len > m_maxLine)
            {
                len = m_maxLine;
                m_cut = true;
            }
            line = std::string_view(start, len);
            ++m_lineNumber;
            return true;
        }
        scanned = available;
        if (available > m_maxLine)
        {
            // Too long: keep the first maxLine bytes and skip to the next line end.
            m_long.assign(start, m_maxLine);
            m_cut = true;
            ++m_lineNumber;
            m_bytesRead += available;
            m_begin = m_end;
            while (Fill())
            {
                const void* end = std::memchr(m_buffer.data(), '\n', m_end);
                if (end != nullptr)
                {
                    size_t used = static_cast<size_t>(static_cast<const char*>(end) - m_buffer.data()) + 1;
                    m_begin = used;
                    m_bytesRead += used;
                    break;
                }
                m_bytesRead += m_end;
                m_begin = m_end;
            }
            line = m_long;
            return true;
        }
        if (!Fill())
        {
            const size_t rest = m_end - m_begin;
            if (rest == 0)
                return false;
            size_t len = rest;
            if (m_buffer[m_begin + len - 1] == '\r')
                --len;
            line = std::string_view(m_buffer.data() + m_begin, len);
            m_begin = m_end;
            m_bytesRead += rest;
            m_noLineEnd = true;
            ++m_lineNumber;
            return true;
        }
        // Fill moved the data to the front.
    }
}
} // namespace swltrace
