#include "MiniJson.h"
#include <windows.h>
#include <cstdlib>
#include <stdexcept>

namespace minijson
{
const Value* Value::Find(const std::wstring& name) const
{
    for (const auto& member : members)
        if (member.first == name)
            return &member.second;
    return nullptr;
}

namespace
{
class Parser
{
public:
    explicit Parser(const std::string& text) : m_text(text) {}

    Value Document()
    {
        Value value = Any();
        SkipSpace();
        if (m_at != m_text.size())
            Fail("text after the value");
        return value;
    }

private:
    [[noreturn]] void Fail(const char* what) const
    {
        throw std::runtime_error(std::string("JSON: ") + what + " at byte " + std::to_string(m_at));
    }

    void SkipSpace()
    {
        while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\r' ||
                                         m_text[m_at] == '\n'))
            ++m_at;
    }

    bool Next(char c)
    {
        SkipSpace();
        if (m_at < m_text.size() && m_text[m_at] == c)
        {
            ++m_at;
            return true;
        }
        return false;
    }

    void Expect(char c)
    {
        if (!Next(c))
            Fail((std::string("expected '") + c + "'").c_str());
    }

    bool Word(const char* word)
    {
        const std::string w = word;
        if (m_text.compare(m_at, w.size(), w) != 0)
            return false;
        m_at += w.size();
        return true;
    }

    Value Any()
    {
        SkipSpace();
        if (m_at >= m_text.size())
            Fail("unexpected end");
        Value value;
        const char c = m_text[m_at];
        if (c == '{')
        {
            ++m_at;
            value.type = Value::Type::Object;
            if (Next('}'))
                return value;
            do
            {
                SkipSpace();
                std::wstring name = String();
                Expect(':');
                value.members.emplace_back(std::move(name), Any());
            } while (Next(','));
            Expect('}');
        }
        else if (c == '[')
        {
            ++m_at;
            value.type = Value::Type::Array;
            if (Next(']'))
                return value;
            do
                value.items.push_back(Any());
            while (Next(','));
            Expect(']');
        }
        else if (c == '"')
        {
            value.type = Value::Type::String;
            value.string = String();
        }
        else if (Word("true") || Word("false"))
        {
            value.type = Value::Type::Bool;
            value.boolean = m_text[m_at - 4] == 't';
        }
        else if (Word("null"))
            value.type = Value::Type::Null;
        else
        {
            const char* start = m_text.c_str() + m_at;
            char* end = nullptr;
            value.number = std::strtod(start, &end);
            if (end == start)
                Fail("unexpected character");
            value.type = Value::Type::Number;
            m_at += static_cast<size_t>(end - start);
        }
        return value;
    }

    // A string at m_at; its UTF-8 runs are converted in one piece, escapes one by one.
    std::wstring String()
    {
        if (m_at >= m_text.size() || m_text[m_at] != '"')
            Fail("expected a string");
        ++m_at;
        std::wstring result;
        std::string run;
        auto flush = [&] {
            if (run.empty())
                return;
            const int n = MultiByteToWideChar(CP_UTF8, 0, run.data(), static_cast<int>(run.size()), nullptr, 0);
            std::wstring wide(static_cast<size_t>(n), L'\0');
            MultiByteToWideChar(CP_UTF8, 0, run.data(), static_cast<int>(run.size()), &wide[0], n);
            result += wide;
            run.clear();
        };
        while (true)
        {
            if (m_at >= m_text.size())
                Fail("unterminated string");
            const char c = m_text[m_at++];
            if (c == '"')
                break;
            if (static_cast<unsigned char>(c) < 0x20)
                Fail("control character in a string");
            if (c != '\\')
            {
                run += c;
                continue;
            }
            flush();
            if (m_at >= m_text.size())
                Fail("unterminated string");
            const char e = m_text[m_at++];
            switch (e)
            {
            case '"': case '\\': case '/': result += static_cast<wchar_t>(e); break;
            case 'b': result += L'\b'; break;
            case 'f': result += L'\f'; break;
            case 'n': result += L'\n'; break;
            case 'r': result += L'\r'; break;
            case 't': result += L'\t'; break;
            case 'u':
            {
                const std::string hex = m_text.substr(m_at, 4);
                if (hex.size() != 4 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                    Fail("bad \\u escape");
                result += static_cast<wchar_t>(std::strtoul(hex.c_str(), nullptr, 16));
                m_at += 4;
                break;
            }
            default:
                Fail("bad escape");
            }
        }
        flush();
        return result;
    }

    const std::string& m_text;
    size_t m_at = 0;
};
} // namespace

Value Parse(const std::string& utf8)
{
    return Parser(utf8).Document();
}
} // namespace minijson
