#pragma once
// Byte-level text helpers. Trace files are written in the C runtime's
// multibyte encoding: UTF-8 on some machines, the ANSI code page on others.
// Everything we print is valid UTF-8, whatever the input held.
#include <cstdint>
#include <string>
#include <string_view>

namespace swltrace
{
enum class TextEncoding
{
    Ascii,  // no byte above 0x7F
    Utf8,   // valid UTF-8 with at least one multibyte character
    Ansi    // not valid UTF-8: read as Windows-1252
};

// Classifies a line of bytes.
TextEncoding DetectEncoding(std::string_view bytes);

// Appends bytes to out as valid UTF-8: valid UTF-8 is copied, anything else is
// read as Windows-1252; bytes that code page does not define and control
// characters other than tab become U+FFFD.
void AppendUtf8(std::string& out, std::string_view bytes);
std::string ToUtf8(std::string_view bytes);

// Number of characters: code points for ASCII or UTF-8, bytes otherwise.
size_t CharacterCount(std::string_view bytes);

// Appends bytes (any encoding) as the inside of a JSON string literal.
void AppendJsonEscaped(std::string& out, std::string_view bytes);
// Appends bytes (any encoding) as HTML text or attribute content.
void AppendHtmlEscaped(std::string& out, std::string_view bytes);

// "12.3 us", "4.567 ms", "1.234 s", or "?" for a negative value.
std::string FormatDuration(double milliseconds);
void AppendDuration(std::string& out, double milliseconds);
// "hh:mm:ss.mmm" from milliseconds since midnight.
std::string FormatClock(int32_t milliseconds);
void AppendClock(std::string& out, int32_t milliseconds);
// value in decimal, right-aligned in width characters (printf's "%*llu").
void AppendNumber(std::string& out, uint64_t value, int width);
} // namespace swltrace
