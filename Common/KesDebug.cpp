// The support trace file and the function scope object that writes ENTRY/EXIT lines.
// g_Debug itself is defined with the library's other process-wide objects
// (SWLLib.cpp), which fixes its place in the static-initialisation order.
#include "KesTrace.h"
#include "KesDebugSeam.h"
#include "KesSecure.h"
#include "UniqueHandle.h"
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cwchar>
#include <io.h>

void (*g_pfnKesDebugBeforeWrite)() = nullptr;

namespace
{
const size_t kLineChars = 1152;
const size_t kMessageChars = 1024;
const size_t kMaxMessageChars = 1023;
const size_t kMaxLogFileChars = 243;
const int kMaxLineChars = 1150;

// Shared by every instance; only touched while the instance's lock is held.
wchar_t s_szLine[kLineChars];
wchar_t s_szMessage[kMessageChars];

// The text-mode stream converts each character with the runtime's wctomb and
// stops writing at the first one it cannot convert, which would lose the rest
// of the line and its line break. Such characters (text outside the code page,
// lone surrogates) are written as '?' instead, so every line stays whole.
void ReplaceUnwritableCharacters(wchar_t* line)
{
    char bytes[MB_LEN_MAX];
    for (; *line != L'\0'; ++line)
    {
        // ASCII converts in every code page; only the rest is worth asking about.
        if (*line >= 0x80 && wctomb(bytes, *line) == -1)
            *line = L'?';
    }
}
} // namespace

CKesDebug::CKesDebug()
    : m_pszName(nullptr), m_pFile(nullptr), m_pLock(&m_Lock), m_bConfigured(false), m_dwLevel(0), m_dwMaxFileSize(0)
{
    InitializeCriticalSection(m_pLock);
}

CKesDebug::~CKesDebug()
{
    if (m_pFile != nullptr)
    {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
    delete[] m_pszName;
    m_pszName = nullptr;
    DeleteCriticalSection(m_pLock);
}

int CKesDebug::Configure(const wchar_t* name, const wchar_t* logFile, DWORD level, int append, DWORD maxFileSize,
                         const wchar_t* regSubKey)
{
    if (logFile != nullptr && wcslen(logFile) > kMaxLogFileChars)
        return ERROR_GEN_FAILURE;

    if (level == 0)
    {
        m_dwLevel = 0;
        return ERROR_SUCCESS;
    }

    // The key stays open on purpose: the component has always left it to process exit.
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, regSubKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return ERROR_SUCCESS;
    DWORD registryLevel = 0;
    DWORD size = sizeof(registryLevel);
    if (RegQueryValueExW(key, L"TRACE", nullptr, nullptr, reinterpret_cast<BYTE*>(&registryLevel), &size) !=
            ERROR_SUCCESS ||
        registryLevel == 0)
        return ERROR_SUCCESS;

    m_dwLevel = registryLevel;
    m_dwMaxFileSize = maxFileSize;

    // A repeated Configure keeps the earlier name and file alive: another thread
    // may still be printing with them.
    const wchar_t* source = name != nullptr ? name : L"";
    const size_t nameChars = wcslen(source) + 1;
    m_pszName = new wchar_t[nameChars];
    m_pszName[0] = L'\0';
    KES_SAFE_COPY(m_pszName, nameChars, source);

    m_pFile = logFile != nullptr ? _wfopen(logFile, append == 1 ? L"a+" : L"w") : nullptr;
    if (m_pFile == nullptr)
        return ERROR_FILE_INVALID;

    m_bConfigured = true;
    // The caller's level wins once the registry has allowed tracing at all.
    m_dwLevel = level;
    return ERROR_SUCCESS;
}

void CKesDebug::Print(const wchar_t* format, ...)
{
    if (m_dwLevel == 0 || !m_bConfigured || m_pFile == nullptr)
        return;

    EnterCriticalSection(m_pLock);
    try
    {
        // Compared in 64 bits: a limit above 2 GB must not turn negative.
        if (m_dwMaxFileSize != 0 &&
            static_cast<long long>(_filelength(_fileno(m_pFile))) >= static_cast<long long>(m_dwMaxFileSize))
        {
            LeaveCriticalSection(m_pLock);
            return;
        }

        SYSTEMTIME now;
        GetLocalTime(&now);
        LARGE_INTEGER counter;
        QueryPerformanceCounter(&counter);

        const int prefix =
            _snwprintf(s_szLine, kLineChars - 1, L"%s\tPID:%x\tTID:%x\t%02.2d:%02.2d:%02.2d.%03.3d\t(%I64X)\t",
                       m_pszName, GetCurrentProcessId(), GetCurrentThreadId(), now.wHour, now.wMinute, now.wSecond,
                       now.wMilliseconds, counter.QuadPart);
        if (prefix < 0)
        {
            LeaveCriticalSection(m_pLock);
            return;
        }

        // The message never runs past the buffer, whatever the name's length:
        // the line is cut at 1150 characters below in any case.
        size_t room = kLineChars - 1 - static_cast<size_t>(prefix);
        if (room > kMaxMessageChars)
            room = kMaxMessageChars;
        wchar_t* message = s_szLine + prefix;
        message[0] = L'\0';
        message[room] = L'\0';
        va_list args;
        va_start(args, format);
        const int written = _vsnwprintf(message, room, format, args);
        va_end(args);
        const size_t messageChars =
            written >= 0 && static_cast<size_t>(written) <= room ? static_cast<size_t>(written) : wcslen(message);

        int n = prefix + static_cast<int>(messageChars);
        if (n >= kMaxLineChars + 1)
            n = kMaxLineChars;
        s_szLine[n] = L'\n';
        s_szLine[n + 1] = L'\0';

        if (g_pfnKesDebugBeforeWrite != nullptr)
            g_pfnKesDebugBeforeWrite();
        ReplaceUnwritableCharacters(s_szLine);
        // fputws rather than fwprintf, which would read %s as narrow here; the
        // text-mode stream writes the LF as CR LF.
        fputws(s_szLine, m_pFile);
        fflush(m_pFile);
    }
    catch (...)
    {
        Print(L"CKesDebug::Error - EXCEPTION DURING DEBUG PRINT.");
    }
    LeaveCriticalSection(m_pLock);
}

void CKesDebug::Error(wchar_t* sourceFile, int line, const wchar_t* format, ...)
{
    // Unlike Print, the configured flag is not consulted here.
    if (m_dwLevel == 0 || m_pFile == nullptr)
        return;

    EnterCriticalSection(m_pLock);
    try
    {
        s_szMessage[0] = L'\0';
        va_list args;
        va_start(args, format);
        _vsnwprintf(s_szMessage, kMaxMessageChars, format, args);
        va_end(args);
        s_szMessage[kMaxMessageChars] = L'\0';
        Print(L"%s (%d): %s", sourceFile, line, s_szMessage);
    }
    catch (...)
    {
    }
    LeaveCriticalSection(m_pLock);
}

void CKesDebug::PrintLastError(int error)
{
    DWORD code = error != 0 ? static_cast<DWORD>(error) : GetLastError();
    wchar_t* text = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code,
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    // An error without a system text leaves no line rather than a null format.
    if (text == nullptr)
        return;
    UniqueLocalMemory owner(text);
    // The system text is the format on purpose: that is how the component has always printed it.
    Print(text);
}

DWORD CKesDebug::GetCurrentLogLevel()
{
    return m_dwLevel;
}

bool CKesDebug::IsConfigured()
{
    return m_bConfigured;
}

CKesDebugScope::CKesDebugScope(const wchar_t* function)
    : m_Name(function != nullptr ? function : L""), m_nKind(0), m_pbResult(nullptr), m_pnResult(nullptr),
      m_pResult(nullptr), m_phResult(nullptr)
{
    g_Debug.Print(L"ENTRY:  %s", static_cast<const wchar_t*>(m_Name));
}

CKesDebugScope::CKesDebugScope(const wchar_t* function, bool* result) : CKesDebugScope(function)
{
    if (result != nullptr)
    {
        m_nKind = 1;
        m_pbResult = result;
    }
}

CKesDebugScope::CKesDebugScope(const wchar_t* function, int* result) : CKesDebugScope(function)
{
    if (result != nullptr)
    {
        m_nKind = 2;
        m_pnResult = result;
    }
}

CKesDebugScope::CKesDebugScope(const wchar_t* function, KesResult* result) : CKesDebugScope(function)
{
    if (result != nullptr)
    {
        m_nKind = 3;
        m_pResult = result;
    }
}

CKesDebugScope::CKesDebugScope(const wchar_t* function, HRESULT* result, int) : CKesDebugScope(function)
{
    if (result != nullptr)
    {
        m_nKind = 4;
        m_phResult = result;
    }
}

CKesDebugScope::~CKesDebugScope()
{
    const wchar_t* name = m_Name;
    if (m_nKind == 1 && m_pbResult != nullptr)
        g_Debug.Print(L"EXIT:  %s, bReturn=%s", name, *m_pbResult ? L"true" : L"false");
    else if (m_nKind == 2 && m_pnResult != nullptr)
        g_Debug.Print(L"EXIT:  %s, nReturn=%d", name, *m_pnResult);
    else if (m_nKind == 3 && m_pResult != nullptr)
        g_Debug.Print(L"EXIT:  %s, res.ulErrCode=%d", name, m_pResult->ulErrCode);
    else if (m_nKind == 4 && m_phResult != nullptr)
        g_Debug.Print(L"EXIT:  %s, HRESULT=0X%x", name, *m_phResult);
    else
        g_Debug.Print(L"EXIT:  %s", name);
}
