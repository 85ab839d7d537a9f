#include "TraceLine.h"
#include <cstring>
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

namespace swltrace
{
namespace
{
const size_t kMaxComponent = 64;

// Value of each byte as a hex digit, or -1.
struct HexTable
{
    signed char value[256];
    HexTable()
    {
        for (int i = 0; i < 256; ++i)
            value[i] = -1;
        for (int i = 0; i < 10; ++i)
            value['0' + i] = static_cast<signed char>(i);
        for (int i = 0; i < 6; ++i)
        {
            value['A' + i] = static_cast<signed char>(10 + i);
            value['a' + i] = static_cast<signed char>(10 + i);
        }
    }
};
const HexTable kHex;

int HexDigit(char c)
{
    return kHex.value[static_cast<unsigned char>(c)];
}

// Reads hex digits from p up to the delimiter; false when there are none, more
// than maxDigits, or another character comes first. One test per byte: a
// digit that is not hex makes bad negative.
bool ReadHex(const char*& p, const char* end, char delimiter, size_t maxDigits, uint64_t& value)
{
    const size_t available = static_cast<size_t>(end - p);
    const size_t limit = available < maxDigits + 1 ? available : maxDigits + 1;
    uint64_t v = 0;
    int bad = 0;
    size_t i = 0;
    for (; i < limit && p[i] != delimiter; ++i)
    {
        const int d = HexDigit(p[i]);
        bad |= d;
        v = (v << 4) | static_cast<uint64_t>(d & 15);
    }
    if (i == limit || i == 0 || bad < 0)
        return false;
    value = v;
    p += i + 1;  // the delimiter
    return true;
}

bool Expect(const char*& p, const char* end, const char* literal, size_t n)
{
    if (static_cast<size_t>(end - p) < n || std::memcmp(p, literal, n) != 0)
        return false;
    p += n;
    return true;
}

bool Digits(const char* p, int n, int& value)
{
    value = 0;
    for (int i = 0; i < n; ++i)
    {
        if (p[i] < '0' || p[i] > '9')
            return false;
        value = value * 10 + (p[i] - '0');
    }
    return true;
}

bool StartsWith(std::string_view s, std::string_view prefix)
{
    return s.size() >= prefix.size() && std::memcmp(s.data(), prefix.data(), prefix.size()) == 0;
}

// "exception" in any case, with its 'x' at s[i].
bool ExceptionAt(std::string_view s, size_t i)
{
    if (i == 0 || i + 8 > s.size() || (s[i - 1] | 0x20) != 'e')
        return false;
    static const char rest[] = "ception";
    for (size_t k = 0; k < 7; ++k)
        if ((s[i + 1 + k] | 0x20) != rest[k])
            return false;
    return true;
}

#if !(defined(__SSE2__) || defined(_M_X64))
uint64_t Load8(const char* p)
{
    uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
}

// Non-zero when a byte of w is zero.
uint64_t HasZeroByte(uint64_t w)
{
    return (w - 0x0101010101010101ULL) & ~w & 0x8080808080808080ULL;
}
#endif

// One pass over the message: bytes above 0x7F, tabs, and "exception" in any
// case, looked for only where an 'x' is (EXIT lines have one; most others do
// not).
void ScanMessage(std::string_view m, TraceLine& out)
{
    const char* const begin = m.data();
    const char* p = begin;
    const char* const end = p + m.size();
    bool high = false;
    bool tab = false;
    bool exception = false;
#if defined(__SSE2__) || defined(_M_X64)
    const __m128i tabs = _mm_set1_epi8('\t');
    const __m128i xs = _mm_set1_epi8('x');
    const __m128i lower = _mm_set1_epi8(0x20);
    // 16 bytes from at; only those whose bit is in valid count.
    auto scan = [&](const char* at, const char* base, unsigned valid) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        high |= (static_cast<unsigned>(_mm_movemask_epi8(v)) & valid) != 0;
        tab |= (static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, tabs))) & valid) != 0;
        unsigned x = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_or_si128(v, lower), xs))) & valid;
        while (x != 0 && !exception)
        {
            unsigned bit = 0;
            while ((x & (1u << bit)) == 0)
                ++bit;
            x &= x - 1;
            exception = ExceptionAt(m, static_cast<size_t>(at - base) + bit);
        }
    };
    for (; end - p >= 16; p += 16)
        scan(p, begin, 0xFFFF);
    const size_t rest = static_cast<size_t>(end - p);
    if (rest > 0 && m.size() >= 16)
    {
        // The last 16 bytes again, counting only those not seen yet.
        scan(end - 16, begin, 0xFFFFu << (16 - rest) & 0xFFFF);
    }
    else if (rest > 0)
    {
        // A short message: a copy padded with zero bytes, which count as nothing.
        alignas(16) char padded[16] = {};
        std::memcpy(padded, p, rest);
        scan(padded, padded, 0xFFFF);
    }
    p = end;
#else
    for (; end - p >= 8; p += 8)
    {
        const uint64_t w = Load8(p);
        high |= (w & 0x8080808080808080ULL) != 0;
        tab |= HasZeroByte(w ^ 0x0909090909090909ULL) != 0;
        if (!exception && HasZeroByte((w | 0x2020202020202020ULL) ^ 0x7878787878787878ULL) != 0)
            for (size_t k = 0; k < 8 && !exception; ++k)
                exception = (p[k] | 0x20) == 'x' && ExceptionAt(m, static_cast<size_t>(p - begin) + k);
    }
#endif
    for (; p < end; ++p)
    {
        const unsigned char c = static_cast<unsigned char>(*p);
        high |= (c & 0x80) != 0;
        tab |= c == '\t';
        if (!exception && (c | 0x20) == 'x')
            exception = ExceptionAt(m, static_cast<size_t>(p - begin));
    }
    out.highBytes = high;
    out.tabs = tab;
    out.exception = exception;
}

std::string_view TrimSpaces(std::string_view s)
{
    while (!s.empty() && s.front() == ' ')
        s.remove_prefix(1);
    while (!s.empty() && s.back() == ' ')
        s.remove_suffix(1);
    return s;
}

// "File.cpp (123): text": a file name without blanks, a blank, the line in
// parentheses, a colon.
bool ParseFault(std::string_view m, TraceLine& out)
{
    // The file name ends at the first blank, and a parenthesis follows it.
    const void* blank = std::memchr(m.data(), ' ', m.size() < 261 ? m.size() : 261);
    if (blank == nullptr)
        return false;
    const size_t open = static_cast<size_t>(static_cast<const char*>(blank) - m.data());
    if (open == 0 || open + 1 >= m.size() || m[open + 1] != '(')
        return false;
    std::string_view file = m.substr(0, open);
    if (file.find('.') == std::string_view::npos || file.find_first_of(" \t") != std::string_view::npos)
        return false;
    size_t p = open + 2;
    int line = 0;
    size_t digits = 0;
    while (p < m.size() && m[p] >= '0' && m[p] <= '9' && digits < 9)
    {
        line = line * 10 + (m[p] - '0');
        ++p;
        ++digits;
    }
    if (digits == 0 || m.substr(p, 2) != "):")
        return false;
    out.kind = MessageKind::Fault;
    out.name = file;
    out.sourceLine = line;
    out.text = m.substr(p + 2);
    if (!out.text.empty() && out.text.front() == ' ')
        out.text.remove_prefix(1);
    return true;
}

} // namespace

uint64_t NameHash(std::string_view name)
{
    // Eight bytes at a time, each word mixed in by a multiply.
    const char* p = name.data();
    size_t n = name.size();
    uint64_t h = 0x9E3779B97F4A7C15ULL ^ n;
    for (; n >= 8; n -= 8, p += 8)
    {
        uint64_t w;
        std::memcpy(&w, p, 8);
        h = (h ^ w) * 0xFF51AFD7ED558CCDULL;
        h ^= h >> 32;
    }
    uint64_t w = 0;
    for (size_t k = 0; k < n; ++k)
        w |= static_cast<uint64_t>(static_cast<unsigned char>(p[k])) << (8 * k);
    h = (h ^ w) * 0xC4CEB9FE1A85EC53ULL;
    return h ^ (h >> 29);
}

namespace
{
void Classify(TraceLine& out)
{
    std::string_view m = out.message;
    out.kind = MessageKind::Plain;
    out.name = {};
    out.result = {};
    out.text = {};
    out.sourceLine = 0;
    out.nameHash = 0;
    if (StartsWith(m, "ENTRY:"))
    {
        out.kind = MessageKind::Entry;
        out.name = TrimSpaces(m.substr(6));
        out.nameHash = NameHash(out.name);
    }
    else if (StartsWith(m, "EXIT:"))
    {
        out.kind = MessageKind::Exit;
        std::string_view rest = TrimSpaces(m.substr(5));
        out.name = rest;
        size_t comma = rest.rfind(", ");
        if (comma != std::string_view::npos)
        {
            std::string_view result = rest.substr(comma + 2);
            if (StartsWith(result, "bReturn=") || StartsWith(result, "nReturn=") ||
                StartsWith(result, "res.ulErrCode=") || StartsWith(result, "HRESULT="))
            {
                out.name = rest.substr(0, comma);
                out.result = result;
            }
        }
        out.nameHash = NameHash(out.name);
    }
    else if (StartsWith(m, "(MSI LOG ENTRY)"))
    {
        out.kind = MessageKind::MsiLog;
        out.text = m.substr(15);
        if (!out.text.empty() && out.text.front() == ' ')
            out.text.remove_prefix(1);
    }
    else if (!m.empty() && m.front() != ' ')
        ParseFault(m, out);
    ScanMessage(m, out);
}
} // namespace

namespace
{
ParseResult SplitFields(std::string_view line, TraceLine& out)
{
    const char* p = line.data();
    const char* end = p + line.size();

    // The component: a few printable bytes up to the first tab.
    const char* const limit = line.size() < kMaxComponent ? end : p + kMaxComponent;
    const char* t = p;
    while (t < limit && static_cast<unsigned char>(*t) >= 0x20)
        ++t;
    if (t == limit || *t != '\t' || t == p)
        return ParseResult::NotOurs;
    out.componentLength = static_cast<uint8_t>(t - p);
    p = t + 1;
    if (!Expect(p, end, "PID:", 4))
        return ParseResult::NotOurs;

    uint64_t value = 0;
    if (!ReadHex(p, end, '\t', 8, value))
        return ParseResult::Cut;
    out.pid = static_cast<uint32_t>(value);
    if (!Expect(p, end, "TID:", 4) || !ReadHex(p, end, '\t', 8, value))
        return ParseResult::Cut;
    out.tid = static_cast<uint32_t>(value);

    // hh:mm:ss.mmm
    int h, m, s, ms;
    if (end - p < 13 || p[2] != ':' || p[5] != ':' || p[8] != '.' || p[12] != '\t' || !Digits(p, 2, h) ||
        !Digits(p + 3, 2, m) || !Digits(p + 6, 2, s) || !Digits(p + 9, 3, ms) || h > 23 || m > 59 || s > 59)
        return ParseResult::Cut;
    out.clockMs = ((h * 60 + m) * 60 + s) * 1000 + ms;
    p += 13;

    if (!Expect(p, end, "(", 1) || !ReadHex(p, end, ')', 16, value) || !Expect(p, end, "\t", 1))
        return ParseResult::Cut;
    out.counter = value;

    out.message = std::string_view(p, static_cast<size_t>(end - p));
    return ParseResult::Ok;
}
} // namespace

ParseResult ParseTraceLine(std::string_view line, TraceLine& out)
{
    const ParseResult r = SplitFields(line, out);
    if (r == ParseResult::Ok)
        Classify(out);
    return r;
}

ParseResult ParseTraceFields(std::string_view line, TraceLine& out)
{
    return SplitFields(line, out);
}

size_t FindEmbeddedLine(std::string_view line, std::string_view component)
{
    if (component.empty())
        return std::string_view::npos;
    // The first "\tPID:" is this line's own; look behind it.
    size_t own = line.find("\tPID:");
    if (own == std::string_view::npos)
        return std::string_view::npos;
    size_t from = own + 5;
    while (true)
    {
        size_t at = line.find("\tPID:", from);
        if (at == std::string_view::npos)
            return std::string_view::npos;
        if (at >= component.size() && line.substr(at - component.size(), component.size()) == component)
            return at - component.size();
        from = at + 5;
    }
}
} // namespace swltrace
