#include "TraceCapture.h"
#include "KesDebug.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include <windows.h>

namespace
{
const wchar_t* const kTraceSwitchKey = L"SOFTWARE\\SWLTest\\Trace";

std::wstring MakeTracePath()
{
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp) + L"swl-test-trace-" + std::to_wstring(GetCurrentProcessId()) + L".txt";
}

long long FileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// The trace file is a text-mode stream in the ANSI code page; lines end in CR LF,
// and an error text's own line break leaves an extra CR (and an empty line).
std::vector<std::wstring> SplitLines(const std::string& bytes)
{
    std::wstring text;
    if (!bytes.empty())
    {
        int n = MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
        text.resize(n);
        MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), &text[0], n);
    }
    std::vector<std::wstring> lines;
    size_t begin = 0;
    while (begin < text.size())
    {
        size_t end = text.find(L'\n', begin);
        if (end == std::wstring::npos)
            end = text.size();
        std::wstring line = text.substr(begin, end - begin);
        while (!line.empty() && line.back() == L'\r')
            line.pop_back();
        if (!line.empty())
            lines.push_back(line);
        begin = end + 1;
    }
    return lines;
}
} // namespace

const std::wstring& TraceCapture::FilePath()
{
    static const std::wstring path = MakeTracePath();
    // Suites that point g_Debug elsewhere switch it off (level 0) when they are
    // done; switch it on again into this file whenever it is off.
    if (!g_Debug.IsConfigured() || g_Debug.GetCurrentLogLevel() == 0)
    {
        testreg::SetDword(kTraceSwitchKey, L"TRACE", 1);
        g_Debug.Configure(L"SWL", path.c_str(), 1, 1, 0, kTraceSwitchKey);
    }
    return path;
}

TraceCapture::TraceCapture() : m_start(FileSize(FilePath()))
{
}

std::vector<std::wstring> TraceCapture::Messages() const
{
    std::string bytes = ReadFileBytes(FilePath());
    if (static_cast<long long>(bytes.size()) < m_start)
        return {};
    std::vector<std::wstring> messages;
    for (const std::wstring& line : SplitLines(bytes.substr(static_cast<size_t>(m_start))))
    {
        // name, PID, TID, time, (counter), message: the message follows the fifth tab.
        size_t pos = 0;
        int tabs = 0;
        while (tabs < 5 && (pos = line.find(L'\t', pos)) != std::wstring::npos)
        {
            ++pos;
            ++tabs;
        }
        // A line without the prefix continues the previous message (an embedded line break).
        if (tabs == 5)
            messages.push_back(line.substr(pos));
        else if (!messages.empty())
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
        if (m.size() >= tail.size() && m.compare(m.size() - tail.size(), tail.size(), tail) == 0 &&
            m.find(L" (") != std::wstring::npos)
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
    wchar_t* buffer = nullptr;
    DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                                      FORMAT_MESSAGE_FROM_SYSTEM,
                                  nullptr, error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                  reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::wstring text = length ? std::wstring(buffer, length) : std::wstring();
    if (buffer)
        LocalFree(buffer);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r'))
        text.pop_back();
    return text;
}
