#include "TraceCapture.h"
#include "KesTrace.h"
#include "Session/Session.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <algorithm>
#include <regex>
#include <sstream>

const std::wstring& TraceCapture::FilePath()
{
    wchar_t temp[MAX_PATH] = {};
    static const std::wstring path = std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + L"swl-test-trace-" +
                                     std::to_wstring(GetCurrentProcessId()) + L".txt";
    if (!g_Debug.IsConfigured() || g_Debug.GetCurrentLogLevel() == 0) // suites tracing elsewhere end at level 0
    {
        testreg::SetDword(L"SOFTWARE\\SWLTest\\Trace", L"TRACE", 1);
        g_Debug.Configure(L"SWL", path.c_str(), 1, 1, 0, L"SOFTWARE\\SWLTest\\Trace");
    }
    return path;
}

TraceCapture::TraceCapture() : m_start(ReadFileBytes(FilePath()).size()) {}

std::vector<std::wstring> TraceCapture::Messages() const
{
    const std::string bytes = ReadFileBytes(FilePath()).substr(m_start);
    std::wstring text(bytes.size(), L'\0');
    text.resize(MultiByteToWideChar(CP_ACP, 0, bytes.data(), int(bytes.size()), &text[0], int(text.size())));
    static const std::wregex fields(L"(?:[^\\t]*\\t){5}([\\s\\S]*)"); // name, PID, TID, time, (counter), message
    std::vector<std::wstring> messages;
    std::wistringstream lines(text);
    for (std::wstring line; std::getline(lines, line);)
    {
        line.erase(line.find_last_not_of(L'\r') + 1); // text mode writes a message's own "\r\n" as "\r\r\n"
        std::wsmatch match;
        if (std::regex_match(line, match, fields))
            messages.push_back(match[1]);
        else if (!line.empty() && !messages.empty()) // an embedded line break continues the message
            messages.back() += L"\n" + line;
    }
    return messages;
}

bool TraceCapture::Printed(const std::wstring& message) const
{
    const auto messages = Messages();
    return std::find(messages.begin(), messages.end(), message) != messages.end();
}

bool TraceCapture::Errored(const std::wstring& message) const
{
    const auto messages = Messages();
    return std::any_of(messages.begin(), messages.end(), [&](const std::wstring& m) {
        return m.size() > message.size() + 3 && m.substr(m.size() - message.size() - 3) == L"): " + message;
    });
}

std::string TraceCapture::Dump() const
{
    std::string out;
    for (const std::wstring& m : Messages())
        out += "  " + Narrow(m) + "\n";
    return out;
}

std::wstring SystemErrorText(unsigned long error)
{
    SetLastError(error);
    const std::wstring text = GetLastErrorText();
    return text.substr(0, text.find_last_not_of(L"\r\n") + 1);
}
