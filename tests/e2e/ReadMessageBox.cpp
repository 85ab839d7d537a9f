// Test helper for the scenarios that answer a message box: waits (up to 60 s)
// for a top-level window whose caption contains the text given as the only
// argument, then prints, in UTF-8, "caption: <caption>" and one "text: <text>"
// line per static control with text (line breaks as \r and \n escapes). It
// answers nothing: the scenario presses the button as a person would.
// Exit code 0 when a window was found, 1 when none appeared.
#include <windows.h>
#include <cstdio>
#include <string>

namespace
{
std::wstring g_part;
HWND g_window = nullptr;

std::string Utf8(const std::wstring& text)
{
    std::string escaped;
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &bytes[0], size, nullptr, nullptr);
    for (char c : bytes)
        escaped += c == '\r' ? std::string("\\r") : c == '\n' ? std::string("\\n") : std::string(1, c);
    return escaped;
}

std::wstring TextOf(HWND window)
{
    wchar_t text[4096] = {};
    GetWindowTextW(window, text, 4096);
    return text;
}

// A top-level window's caption without asking its thread: GetWindowTextW sends
// WM_GETTEXT to another process's window and waits, and Installer's own
// progress window does not answer while a custom action runs.
std::wstring CaptionOf(HWND window)
{
    wchar_t text[4096] = {};
    InternalGetWindowText(window, text, 4096);
    return text;
}

BOOL CALLBACK FindTopLevel(HWND window, LPARAM)
{
    if (IsWindowVisible(window) && CaptionOf(window).find(g_part) != std::wstring::npos)
    {
        g_window = window;
        return FALSE;
    }
    return TRUE;
}

BOOL CALLBACK PrintStatic(HWND window, LPARAM)
{
    wchar_t className[64] = {};
    GetClassNameW(window, className, 64);
    const std::wstring text = TextOf(window);
    if (lstrcmpiW(className, L"Static") == 0 && !text.empty())
        std::printf("text: %s\n", Utf8(text).c_str());
    return TRUE;
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2)
        return 2;
    g_part = argv[1];
    for (int tries = 0; tries < 600 && g_window == nullptr; ++tries)
    {
        EnumWindows(FindTopLevel, 0);
        if (g_window == nullptr)
            Sleep(100);
    }
    if (g_window == nullptr)
    {
        std::printf("no window with \"%s\" in its caption\n", Utf8(g_part).c_str());
        return 1;
    }
    std::printf("caption: %s\n", Utf8(CaptionOf(g_window)).c_str());
    EnumChildWindows(g_window, PrintStatic, 0);
    std::fflush(stdout);
    return 0;
}
