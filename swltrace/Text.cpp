#include "Text.h"
#include <charconv>
#include <cstdio>
#include <cstring>
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

namespace swltrace
{
namespace
{
// Windows-1252 bytes 0x80-0x9F; 0 where the code page defines no character.
const char16_t kCp1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

const char kReplacement[] = "\xEF\xBF\xBD";

// Length of the valid UTF-8 sequence at p, or 0 when it is not one.
size_t Utf8SequenceLength(const unsigned char* p, const unsigned char* end)
{
    const unsigned char c = p[0];
    size_t n;
    uint32_t min;
    uint32_t cp;
    if (c < 0x80)
        return 1;
    if ((c & 0xE0) == 0xC0)
    {
        n = 2;
        min = 0x80;
        cp = c & 0x1F;
    }
    else if ((c & 0xF0) == 0xE0)
    {
        n = 3;
        min = 0x800;
        cp = c & 0x0F;
    }
    else if ((c & 0xF8) == 0xF0)
    {
        n = 4;
        min = 0x10000;
        cp = c & 0x07;
    }
    else
        return 0;
    if (static_cast<size_t>(end - p) < n)
        return 0;
    for (size_t i = 1; i < n; ++i)
    {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

void AppendCodePoint(std::string& out, uint32_t cp)
{
    if (cp < 0x80)
        out += static_cast<char>(cp);
    else if (cp < 0x800)
    {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
    else
    {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool HasHighByte(std::string_view bytes)
{
    for (unsigned char c : bytes)
        if (c >= 0x80)
            return true;
    return false;
}

// Calls emit(ascii byte) for ASCII and emitUtf8(sequence) for everything else,
// already converted to valid UTF-8.
template <class Ascii, class Other>
void Walk(std::string_view bytes, Ascii&& ascii, Other&& other)
{
    const bool utf8 = DetectEncoding(bytes) != TextEncoding::Ansi;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    std::string seq;
    while (p < end)
    {
        if (*p < 0x80)
        {
            ascii(static_cast<char>(*p));
            ++p;
            continue;
        }
        seq.clear();
        if (utf8)
        {
            size_t n = Utf8SequenceLength(p, end);
            seq.assign(reinterpret_cast<const char*>(p), n);
            p += n;
        }
        else
        {
            uint32_t cp = *p < 0xA0 ? kCp1252High[*p - 0x80] : *p;
            if (cp == 0)
                seq = kReplacement;
            else
                AppendCodePoint(seq, cp);
            ++p;
        }
        other(seq);
    }
}
} // namespace

TextEncoding DetectEncoding(std::string_view bytes)
{
    if (!HasHighByte(bytes))
        return TextEncoding::Ascii;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end)
    {
        size_t n = Utf8SequenceLength(p, end);
        if (n == 0)
            return TextEncoding::Ansi;
        p += n;
    }
    return TextEncoding::Utf8;
}

// Length of the start of bytes that is printable ASCII or tabs: copied as it is.
size_t PlainPrefix(std::string_view bytes)
{
    const char* const begin = bytes.data();
    const char* p = begin;
    const char* const end = p + bytes.size();
#if defined(__SSE2__) || defined(_M_X64)
    // Bytes below 0x20 (signed: also those above 0x7F) that are not tabs.
    const __m128i space = _mm_set1_epi8(0x20);
    const __m128i tab = _mm_set1_epi8('\t');
    for (; end - p >= 16; p += 16)
    {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i odd = _mm_andnot_si128(_mm_cmpeq_epi8(v, tab), _mm_cmplt_epi8(v, space));
        const unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(odd));
        if (bits != 0)
        {
            unsigned bit = 0;
            while ((bits & (1u << bit)) == 0)
                ++bit;
            return static_cast<size_t>(p - begin) + bit;
        }
    }
#endif
    for (; p < end; ++p)
    {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x80 || (c < 0x20 && c != '\t'))
            break;
    }
    return static_cast<size_t>(p - begin);
}

void AppendUtf8(std::string& out, std::string_view bytes)
{
    // The plain ASCII start in one piece; what follows it reads the same on its
    // own, as no character spans the point where it begins.
    const size_t plain = PlainPrefix(bytes);
    out.append(bytes.data(), plain);
    if (plain == bytes.size())
        return;
    bytes.remove_prefix(plain);
    Walk(
        bytes,
        [&](char c) {
            if (static_cast<unsigned char>(c) < 0x20 && c != '\t')
                out += kReplacement;
            else
                out += c;
        },
        [&](const std::string& seq) { out += seq; });
}

std::string ToUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size());
    AppendUtf8(out, bytes);
    return out;
}

size_t CharacterCount(std::string_view bytes)
{
    if (DetectEncoding(bytes) == TextEncoding::Ansi)
        return bytes.size();
    size_t count = 0;
    for (unsigned char c : bytes)
        if ((c & 0xC0) != 0x80)
            ++count;
    return count;
}

void AppendJsonEscaped(std::string& out, std::string_view bytes)
{
    Walk(
        bytes,
        [&](char c) {
            switch (c)
            {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
                {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned char>(c));
                    out += buf;
                }
                else
                    out += c;
            }
        },
        [&](const std::string& seq) { out += seq; });
}

void AppendHtmlEscaped(std::string& out, std::string_view bytes)
{
    Walk(
        bytes,
        [&](char c) {
            switch (c)
            {
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '&': out += "&amp;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t')
                    out += kReplacement;
                else
                    out += c;
            }
        },
        [&](const std::string& seq) { out += seq; });
}

namespace
{
// value with digits decimals, as printf's "%.*f" writes it.
void AppendFixed(std::string& out, double value, int digits)
{
    char buf[64];
    const std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, digits);
    if (r.ec == std::errc())
        out.append(buf, static_cast<size_t>(r.ptr - buf));
    else
    {
        std::snprintf(buf, sizeof buf, "%.*f", digits, value);
        out += buf;
    }
}

void AppendTwoDigits(char* p, int v)
{
    p[0] = static_cast<char>('0' + v / 10);
    p[1] = static_cast<char>('0' + v % 10);
}
} // namespace

void AppendDuration(std::string& out, double ms)
{
    if (ms < 0)
        out += '?';
    else if (ms < 1.0)
    {
        AppendFixed(out, ms * 1000.0, 1);
        out += " us";
    }
    else if (ms < 1000.0)
    {
        AppendFixed(out, ms, 3);
        out += " ms";
    }
    else
    {
        AppendFixed(out, ms / 1000.0, 3);
        out += " s";
    }
}

std::string FormatDuration(double ms)
{
    std::string s;
    AppendDuration(s, ms);
    return s;
}

void AppendClock(std::string& out, int32_t ms)
{
    if (ms < 0)
    {
        out += "--:--:--.---";
        return;
    }
    if (ms >= 100 * 3600000)
    {
        char buf[24];
        std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03d", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
        out += buf;
        return;
    }
    char buf[12];
    AppendTwoDigits(buf, ms / 3600000);
    buf[2] = ':';
    AppendTwoDigits(buf + 3, ms / 60000 % 60);
    buf[5] = ':';
    AppendTwoDigits(buf + 6, ms / 1000 % 60);
    buf[8] = '.';
    buf[9] = static_cast<char>('0' + ms % 1000 / 100);
    AppendTwoDigits(buf + 10, ms % 100);
    out.append(buf, 12);
}

std::string FormatClock(int32_t ms)
{
    std::string s;
    AppendClock(s, ms);
    return s;
}

void AppendNumber(std::string& out, uint64_t value, int width)
{
    char buf[24];
    char* p = buf + sizeof buf;
    do
    {
        *--p = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    const int digits = static_cast<int>(buf + sizeof buf - p);
    if (digits < width)
        out.append(static_cast<size_t>(width - digits), ' ');
    out.append(p, static_cast<size_t>(digits));
}
} // namespace swltrace
