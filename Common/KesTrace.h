#pragma once
// The library's own tracing: the process-wide trace log g_Debug, the scope
// object that prints a function's ENTRY/EXIT lines, and the fault-line macro.
// Internal to SWLLib: none of this is exported, so it is not installed with
// the public headers.
#include "KesDebug.h"
#include "KesSecure.h"
#include "KesString.h"

// The library's one trace log.
extern CKesDebug g_Debug;

// Result record whose error code a scope of kind 3 reports.
struct KesResult
{
    int ulErrCode;
};

// Prints "ENTRY:  name" when built and the matching EXIT line when destroyed,
// reading the result variable at that moment.
class CKesDebugScope
{
public:
    explicit CKesDebugScope(const wchar_t* function);
    CKesDebugScope(const wchar_t* function, bool* result);
    CKesDebugScope(const wchar_t* function, int* result);
    CKesDebugScope(const wchar_t* function, KesResult* result);
    CKesDebugScope(const wchar_t* function, HRESULT* result, int /*hresultTag*/);
    ~CKesDebugScope();

private:
    CKesDebugScope(const CKesDebugScope&);
    CKesDebugScope& operator=(const CKesDebugScope&);

    CKesString m_Name;
    int m_nKind;
    bool* m_pbResult;
    int* m_pnResult;
    KesResult* m_pResult;
    HRESULT* m_phResult;
};

// Error line with the calling source file and line.
#define KES_TRACE_ERROR(...) g_Debug.Error(const_cast<wchar_t*>(KES_WFILE), __LINE__, __VA_ARGS__)
