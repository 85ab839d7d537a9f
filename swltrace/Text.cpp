#include "Text.h"
#include <cstdio>
#include <cstring>

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

void AppendUtf8(std::string& out, std::string_view bytes)
{
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

std::string FormatDuration(double ms)
{
    char buf[32];
    if (ms < 0)
        return "?";
    if (ms < 1.0)
        std::snprintf(buf, sizeof buf, "%.1f us", ms * 1000.0);
    else if (ms < 1000.0)
        std::snprintf(buf, sizeof buf, "%.3f ms", ms);
    else
        std::snprintf(buf, sizeof buf, "%.3f s", ms / 1000.0);
    return buf;
}

std::string FormatClock(int32_t ms)
{
    char buf[16];
    if (ms < 0)
        return "--:--:--.---";
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03d", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
    return buf;
}
} // namespace swltrace
