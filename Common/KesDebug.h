#pragma once
// CKesDebug: the support trace file. One line per call, stamped with the
// component name, process, thread, local time and the performance counter.
// Off until Configure succeeds; the registry has the last word.
// Public: exported with all its members. The library's own trace object and
// its ENTRY/EXIT scope are internal (KesTrace.h).
#include "SwlApi.h"
#include <windows.h>
#include <cstdio>

class SWLLIB_API CKesDebug
{
public:
    CKesDebug();
    virtual ~CKesDebug();

    // Switches tracing on. Returns 0 (on, or deliberately off), 31 (logFile longer
    // than 243 characters) or 1006 (the file cannot be opened).
    int Configure(const wchar_t* name, const wchar_t* logFile, DWORD level, int append, DWORD maxFileSize,
                  const wchar_t* regSubKey);
    // One line; printf-style wide format with Windows semantics (%s is wide).
    // Never throws; an overlong message is cut.
    void Print(const wchar_t* format, ...);
    // One line "file (line): message". Never throws.
    void Error(wchar_t* sourceFile, int line, const wchar_t* format, ...);
    // The system's text for a Win32 error; 0 means GetLastError().
    void PrintLastError(int error);
    DWORD GetCurrentLogLevel();
    bool IsConfigured();

private:
    CKesDebug(const CKesDebug&);
    CKesDebug& operator=(const CKesDebug&);

    wchar_t* m_pszName;
    FILE* m_pFile;
    CRITICAL_SECTION* m_pLock;
    CRITICAL_SECTION m_Lock;
    bool m_bConfigured;
    DWORD m_dwLevel;
    DWORD m_dwMaxFileSize;
};
