#pragma once
// The library's trace log (g_Debug) as a test sees it. A TraceCapture switches
// g_Debug on, whenever it is off, into the program's own file (the
// switch value "TRACE" = 1 is written under HKLM\SOFTWARE\SWLTest\Trace, which
// Configure consults). Each TraceCapture remembers where the file ended when
// it was made and reads back only the lines written after that.
#include <string>
#include <vector>

class TraceCapture
{
public:
    TraceCapture();

    // The message part of every line written since construction (the text
    // after the name, PID, TID, time and counter fields).
    std::vector<std::wstring> Messages() const;
    // True when a Print line's message is exactly message.
    bool Printed(const std::wstring& message) const;
    // True when an Error line ("file (line): message") carries exactly message.
    bool Errored(const std::wstring& message) const;
    // All messages, one per line, for assertion output.
    std::string Dump() const;

    static const std::wstring& FilePath();

private:
    size_t m_start = 0;
};

// The system's message for a Win32 error, trailing line break removed: what
// the library's GetLastErrorText puts into a trace line, as it reads back.
std::wstring SystemErrorText(unsigned long error);
