#include "TraceCapture.h"
#include "KesDebug.h"
#include "Session/Session.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <windows.h>

namespace
{
const wchar_t* const kTraceSwitchKey = L"SOFTWARE\\SWLTest\\Trace";
}

const std::wstring& TraceCapture::FilePath()
{
    static const std::wstring path = [] {
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        return std::wstring(temp) + L"swl-test-trace-" + std::to_wstring(GetCurrentProcessId()) + L".txt";
    }();
    // Suites that point g_Debug elsewhere switch it off (level 0) when they are
    // done; switch it on again into this file whenever it is off.
    if (!g_Debug.IsConfigured() || g_Debug.GetCurrentLogLevel() == 0)
    {
        testreg::SetDword(kTraceSwitchKey, L"TRACE", 1);
        g_Debug.Configure(L"SWL", path.c_str(), 1, 1, 0, kTraceSwitchKey);
    }
    return path;
}

TraceCapture::TraceCapture() : m_start(ReadFileBytes(FilePath()).size())
{
}

std::vector<std::wstring> TraceCapture::Messages() const
{
    // The file is a text-mode stream in the ANSI code page with CR LF line ends.
    std::string bytes = ReadFileBytes(FilePath());
    bytes = bytes.size() > m_start ? bytes.substr(m_start) : std::string();
    std::wstring text(bytes.size(), L'\0');
    text.resize(MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), &text[0],
                                    static_cast<int>(text.size())));
    std::vector<std::wstring> messages;
    for (size_t begin = 0, end; begin < text.size(); begin = end + 1)
    {
        end = text.find(L'\n', begin);
        if (end == std::wstring::npos)
            end = text.size();
        std::wstring line = text.substr(begin, end - begin);
        while (!line.empty() && line.back() == L'\r')
            line.pop_back();
        // name, PID, TID, time, (counter), message: the message follows the fifth tab.
        size_t pos = 0;
        int tabs = 0;
        while (tabs < 5 && (pos = line.find(L'\t', pos)) != std::wstring::npos)
            ++pos, ++tabs;
        if (tabs == 5)
            messages.push_back(line.substr(pos));
        else if (!line.empty() && !messages.empty()) // an embedded line break continues the message
            messages.back() += L"\n" + line;
    }
    return messages;
}

bool TraceCapture::Printed(const std::wstring& message) const
{
    for (const std::wstring& m : Messages())
        if (m == message)
            return true;
    return false;
}

bool TraceCapture::Errored(const std::wstring& message) const
{
    const std::wstring tail = L"): " + message;
    for (const std::wstring& m : Messages())
        if (m.size() > tail.size() && m.compare(m.size() - tail.size(), tail.size(), tail) == 0)
            return true;
    return false;
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
    std::wstring text = GetLastErrorText();
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r'))
        text.pop_back();
    return text;
}
