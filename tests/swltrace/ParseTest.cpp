// Reading single trace lines, text in any encoding, and files line by line.
#include "LineReader.h"
#include "ParsedLines.h"
#include "Text.h"
#include "TraceLine.h"
#include <gtest/gtest.h>
#include <cmath>
#include <cstdio>
#include <random>
#include <regex>
#include <string>

using namespace swltrace;

TEST(TraceLineTest, SplitsTheFieldsOfALineTheLibraryWrote)
{
    TraceLine t;
    ASSERT_EQ(ParseTraceLine("SWL\tPID:130\tTID:154\t02:38:43.360\t(16B4FE7A7F)\tEXIT:  IsOSSupported, bReturn=false", t),
              ParseResult::Ok);
    EXPECT_EQ(t.componentLength, 3u);
    EXPECT_EQ(t.pid, 0x130u);
    EXPECT_EQ(t.tid, 0x154u);
    EXPECT_EQ(t.clockMs, ((2 * 60 + 38) * 60 + 43) * 1000 + 360);
    EXPECT_EQ(t.counter, 0x16B4FE7A7Full);
    EXPECT_EQ(t.kind, MessageKind::Exit);
    EXPECT_EQ(t.name, "IsOSSupported");
    EXPECT_EQ(t.result, "bReturn=false");
}

TEST(TraceLineTest, ReadsWhatEachMessageSays)
{
    struct Case
    {
        const char* message;
        MessageKind kind;
        const char* name;
        const char* result;
        const char* text;
        bool exception;
    } cases[] = {
        {"ENTRY:  COSType::COSType", MessageKind::Entry, "COSType::COSType", "", "", false},
        {"EXIT:  COSType::GetOSType, nReturn=-19", MessageKind::Exit, "COSType::GetOSType", "nReturn=-19", "", false},
        {"EXIT:  Run, res.ulErrCode=31", MessageKind::Exit, "Run", "res.ulErrCode=31", "", false},
        {"EXIT:  Query, HRESULT=0X80041003", MessageKind::Exit, "Query", "HRESULT=0X80041003", "", false},
        {"EXIT:  COSType::ApplyOverride", MessageKind::Exit, "COSType::ApplyOverride", "", "", false},
        // A comma in the name that is no result stays in the name.
        {"EXIT:  Split, then join", MessageKind::Exit, "Split, then join", "", "", false},
        {"(MSI LOG ENTRY) InstallDrivers() - Exit", MessageKind::MsiLog, "", "", "InstallDrivers() - Exit", false},
        {"SupportFiles.cpp (123): SetupFiles: cannot extract", MessageKind::Fault, "SupportFiles.cpp", "",
         "SetupFiles: cannot extract", false},
        {"CustomAction.h (21): Delay: exception caught: bad_alloc", MessageKind::Fault, "CustomAction.h", "",
         "Delay: exception caught: bad_alloc", true},
        {"CKesDebug::Error - EXCEPTION DURING DEBUG PRINT.", MessageKind::Plain, "", "", "", true},
        {"Service state (4): running", MessageKind::Plain, "", "", "", false},  // no file name
        {"Deleting file 'C:\\x (1).txt'", MessageKind::Plain, "", "", "", false},
    };
    for (const Case& c : cases)
    {
        TraceLine t;
        const std::string line = std::string("SWL\tPID:1\tTID:2\t00:00:00.000\t(1)\t") + c.message;
        ASSERT_EQ(ParseTraceLine(line, t), ParseResult::Ok) << c.message;
        EXPECT_EQ(t.kind, c.kind) << c.message;
        EXPECT_EQ(t.name, c.name) << c.message;
        EXPECT_EQ(t.result, c.result) << c.message;
        if (c.kind == MessageKind::MsiLog || c.kind == MessageKind::Fault)
            EXPECT_EQ(t.text, c.text) << c.message;
        EXPECT_EQ(t.exception, c.exception) << c.message;
    }
    TraceLine fault;
    ParseTraceLine("SWL\tPID:1\tTID:2\t00:00:00.000\t(1)\tKesSecure.cpp (57): x", fault);
    EXPECT_EQ(fault.sourceLine, 57);
}

TEST(TraceLineTest, TellsForeignLinesFromCutOnes)
{
    struct Case
    {
        const char* line;
        ParseResult result;
    } cases[] = {
        {"", ParseResult::NotOurs},
        {"hello world", ParseResult::NotOurs},
        {"2024-01-02 10:11:12\t[INFO]\tother", ParseResult::NotOurs},
        {"SWL\tPID:", ParseResult::Cut},
        {"SWL\tPID:130\tTID:154\t02:38", ParseResult::Cut},
        {"SWL\tPID:130\tTID:154\t02:38:43.360\t(16B4FE7A", ParseResult::Cut},
        {"SWL\tPID:130\tTID:154\t25:00:00.000\t(1)\tx", ParseResult::Cut},
        {"SWL\tPID:xyz\tTID:154\t02:38:43.360\t(1)\tx", ParseResult::Cut},
        {"SWL\tPID:130\tTID:154\t02:38:43.360\t(1)\t", ParseResult::Ok},
    };
    for (const Case& c : cases)
    {
        TraceLine t;
        EXPECT_EQ(ParseTraceLine(c.line, t), c.result) << '"' << c.line << '"';
    }
}

TEST(TraceLineTest, FindsTheNextWritersLineBehindACutOne)
{
    const std::string next = "SWL\tPID:300\tTID:304\t14:02:11.005\t(1)\tENTRY:  X";
    EXPECT_EQ(FindEmbeddedLine("SWL\tPID:200\tTID:204\t14:02:11.0" + next, "SWL"), 30u);
    EXPECT_EQ(FindEmbeddedLine(next, "SWL"), std::string_view::npos);
    // A message that quotes "\tPID:" without the component is not a line.
    EXPECT_EQ(FindEmbeddedLine("SWL\tPID:1\tTID:2\t00:00:00.000\t(1)\tsee\tPID:3", "SWL"), std::string_view::npos);
}

TEST(TextTest, ReadsUtf8AndAnsiAndAlwaysWritesValidUtf8)
{
    EXPECT_EQ(DetectEncoding("plain"), TextEncoding::Ascii);
    EXPECT_EQ(DetectEncoding("M\xC3\xBCller"), TextEncoding::Utf8);
    EXPECT_EQ(DetectEncoding("M\xFCller"), TextEncoding::Ansi);
    EXPECT_EQ(DetectEncoding("\xED\xA0\x80"), TextEncoding::Ansi);  // an encoded surrogate is not UTF-8
    EXPECT_EQ(ToUtf8("M\xC3\xBCller"), "M\xC3\xBCller");
    EXPECT_EQ(ToUtf8("M\xFCller \x80"), "M\xC3\xBCller \xE2\x82\xAC");
    EXPECT_EQ(ToUtf8("a\x81" "b\x01"), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
    EXPECT_EQ(CharacterCount("M\xC3\xBCller"), 6u);
    EXPECT_EQ(CharacterCount("M\xFCller"), 6u);

    // Whatever the bytes, the escaped forms are valid UTF-8 without raw control characters.
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round)
    {
        std::string bytes(1 + random() % 40, '\0');
        for (char& c : bytes)
            c = static_cast<char>(random() % 256);
        std::string json;
        std::string html;
        AppendJsonEscaped(json, bytes);
        AppendHtmlEscaped(html, bytes);
        for (const std::string* out : {&json, &html})
        {
            EXPECT_NE(DetectEncoding(*out), TextEncoding::Ansi);
            for (unsigned char c : *out)
                EXPECT_TRUE(c >= 0x20 || c == '\t');
        }
        EXPECT_EQ(html.find('<'), std::string::npos);
        for (size_t q = json.find('"'); q != std::string::npos; q = json.find('"', q + 1))
            EXPECT_EQ(json[q - 1], '\\');
    }
}

TEST(TextTest, FormatsDurationsAndClocks)
{
    EXPECT_EQ(FormatDuration(0.0125), "12.5 us");
    EXPECT_EQ(FormatDuration(3.1886), "3.189 ms");  // rounded
    EXPECT_EQ(FormatDuration(1234.5), "1.234 s");
    EXPECT_EQ(FormatDuration(-1), "?");
    EXPECT_EQ(FormatClock(((14 * 60 + 2) * 60 + 11) * 1000 + 5), "14:02:11.005");
    EXPECT_EQ(FormatClock(-1), "--:--:--.---");

    // Rounded as printf rounds, at every scale and on the halves.
    std::mt19937 random(3);
    for (int i = 0; i < 20000; ++i)
    {
        const double ms = i % 3 == 0 ? (random() % 2000000) / 2000.0 : std::ldexp(random() % 100000, -(int)(random() % 30));
        char expected[64];
        if (ms < 1)
            std::snprintf(expected, sizeof expected, "%.1f us", ms * 1000.0);
        else if (ms < 1000)
            std::snprintf(expected, sizeof expected, "%.3f ms", ms);
        else
            std::snprintf(expected, sizeof expected, "%.3f s", ms / 1000.0);
        ASSERT_EQ(FormatDuration(ms), expected) << ms;
    }
    std::string numbers;
    AppendNumber(numbers, 42, 7);
    AppendNumber(numbers, 123456789, 7);
    EXPECT_EQ(numbers, "     42123456789");
}

namespace
{
std::string WriteTemp(const std::string& bytes)
{
    char name[] = "/tmp/swltrace-lines-XXXXXX";
    int fd = mkstemp(name);
    FILE* f = fdopen(fd, "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return name;
}
} // namespace

TEST(TraceLineTest, TheFieldsAgreeWithTheFormat)
{
    // Lines with a byte of their fields changed at random and hex fields of
    // every length, with a short message and a long one, against the format
    // written out as a pattern.
    const std::regex format("SWL\tPID:([0-9A-Fa-f]{1,8})\tTID:([0-9A-Fa-f]{1,8})\t([0-9]{2}):([0-9]{2}):([0-9]{2})"
                            "\\.([0-9]{3})\t\\(([0-9A-Fa-f]{1,16})\\)\t.*");
    const std::string noise = "0123456789abcdefABCDEFgG:.()\t \x80\xff";
    std::mt19937 random(5);
    for (int i = 0; i < 20000; ++i)
    {
        auto hex = [&](size_t n) {
            std::string h;
            for (size_t k = 0; k < n; ++k)
                h += "0123456789abcdefABCDEF"[random() % 22];
            return h;
        };
        std::string head = "SWL\tPID:" + hex(1 + random() % 9) + "\tTID:" + hex(1 + random() % 9) + "\t" +
                           std::to_string(10 + random() % 15) + ":" + std::to_string(10 + random() % 51) + ":" +
                           std::to_string(10 + random() % 51) + "." + std::to_string(100 + random() % 900) + "\t(" +
                           hex(1 + random() % 17) + ")\t";
        if (i % 2 == 0)
            head[4 + random() % (head.size() - 4)] = noise[random() % noise.size()];
        for (const std::string& message : {std::string("x"), std::string(40, 'm')})
        {
            const std::string line = head + message;
            TraceLine t;
            const ParseResult r = ParseTraceLine(line, t);
            std::smatch m;
            const bool ours = line.compare(0, 8, "SWL\tPID:") == 0;
            const bool ok = std::regex_match(line, m, format) && std::stoi(m[3]) <= 23 && std::stoi(m[4]) <= 59 &&
                            std::stoi(m[5]) <= 59;
            ASSERT_EQ(r, ok ? ParseResult::Ok : ours ? ParseResult::Cut : ParseResult::NotOurs) << line;
            if (!ok)
                continue;
            EXPECT_EQ(t.pid, std::stoul(m[1], nullptr, 16)) << line;
            EXPECT_EQ(t.tid, std::stoul(m[2], nullptr, 16)) << line;
            EXPECT_EQ(t.clockMs, ((std::stoi(m[3]) * 60 + std::stoi(m[4])) * 60 + std::stoi(m[5])) * 1000 + std::stoi(m[6]));
            EXPECT_EQ(t.counter, std::stoull(m[7], nullptr, 16)) << line;
            EXPECT_EQ(t.message, message);
        }
    }
}

TEST(LineReaderTest, GivesLinesWithoutLineEndsAcrossBlocks)
{
    // Lines of every length around the block size, CR LF and LF, no end at the last.
    std::string bytes;
    std::vector<std::string> expected;
    for (int i = 0; bytes.size() < (3u << 20); ++i)
    {
        std::string line(static_cast<size_t>(i * 7919 % 5000), static_cast<char>('a' + i % 26));
        expected.push_back(line);
        bytes += line + (i % 2 ? "\r\n" : "\n");
    }
    bytes += "last";
    expected.push_back("last");
    const std::string path = WriteTemp(bytes);
    LineReader reader(path);
    std::string_view line;
    size_t n = 0;
    while (reader.Next(line))
    {
        ASSERT_LT(n, expected.size());
        ASSERT_EQ(line, expected[n]) << "line " << n + 1;
        EXPECT_EQ(reader.HadNoLineEnd(), n + 1 == expected.size());
        ++n;
    }
    EXPECT_EQ(n, expected.size());
    EXPECT_EQ(reader.BytesRead(), bytes.size());
    std::remove(path.c_str());
}

TEST(LineReaderTest, CutsALineLongerThanTheLimitAndGoesOn)
{
    const std::string path = WriteTemp("short\n" + std::string(5000, 'x') + "\r\nafter\n");
    LineReader reader(path, 1000);
    std::string_view line;
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line, "short");
    ASSERT_TRUE(reader.Next(line));
    EXPECT_TRUE(reader.WasCut());
    EXPECT_EQ(line, std::string(1000, 'x'));
    ASSERT_TRUE(reader.Next(line));
    EXPECT_FALSE(reader.WasCut());
    EXPECT_EQ(line, "after");
    EXPECT_EQ(reader.LineNumber(), 3u);
    EXPECT_FALSE(reader.Next(line));
    std::remove(path.c_str());
}

TEST(ParsedLineReaderTest, SplitsBlocksIntoLinesLikeReadingOneByOne)
{
    // Small blocks and a small limit: lines across block ends, runs of empty
    // lines that fill a batch's table, lines over the limit by 0 to 3 bytes with
    // and without CR, far longer ones, and a last line without its end.
    const size_t maxLine = 300;
    std::mt19937 random(11);
    std::string bytes;
    for (int i = 0; i < 60000; ++i)
    {
        size_t length = random() % 120;
        if (i % 97 == 0)
            length = maxLine - 1 + random() % 4;
        if (i % 501 == 0)
            length = 70000 + random() % 5000;
        if (i > 20000 && i < 40000)
            length = 0;
        bytes += std::string(length, static_cast<char>('a' + i % 26));
        bytes += random() % 2 ? "\r\n" : "\n";
    }
    bytes += std::string(maxLine + 2, 'z');

    // What each line should be.
    struct Expected
    {
        std::string line;
        uint64_t offset;
        bool cut;
        bool noLineEnd;
    };
    std::vector<Expected> expected;
    for (size_t at = 0; at < bytes.size();)
    {
        size_t nl = bytes.find('\n', at);
        const bool end = nl != std::string::npos;
        size_t length = (end ? nl : bytes.size()) - at;
        const size_t next = end ? nl + 1 : bytes.size();
        if (end && length > 0 && bytes[at + length - 1] == '\r')
            --length;
        const bool cut = length > maxLine;
        expected.push_back({bytes.substr(at, cut ? maxLine : length), at, cut, !end && !cut});
        at = next;
    }

    const std::string path = WriteTemp(bytes);
    ParsedLineReader reader(path, maxLine, 1000);
    size_t n = 0;
    size_t count = 0;
    while (const ParsedLine* lines = reader.Next(count))
    {
        for (size_t i = 0; i < count; ++i, ++n)
        {
            ASSERT_LT(n, expected.size());
            const ParsedLine& p = lines[i];
            ASSERT_EQ(p.line, expected[n].line) << "line " << n + 1;
            EXPECT_EQ(p.number, n + 1);
            EXPECT_EQ(p.offset, expected[n].offset) << "line " << n + 1;
            EXPECT_EQ(p.cut, expected[n].cut) << "line " << n + 1;
            EXPECT_EQ(p.noLineEnd, expected[n].noLineEnd) << "line " << n + 1;
        }
    }
    EXPECT_EQ(n, expected.size());
    EXPECT_EQ(reader.Lines(), expected.size());
    EXPECT_EQ(reader.Bytes(), bytes.size());
    std::remove(path.c_str());
}
