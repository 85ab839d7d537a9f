#include "KesSecure.h"
#include "KesTrace.h"

#include <windows.h>
#include <cerrno>
#include <cstdlib>
#include <cwchar>

namespace
{
// Trace lines of this file name it and a fixed line, whatever the build's layout.
wchar_t kThisFile[] = L"KesSecure.cpp";

using SetHandlerFunction = _invalid_parameter_handler(__cdecl*)(_invalid_parameter_handler);
using GetHandlerFunction = _invalid_parameter_handler(__cdecl*)();

struct HandlerAccess
{
    SetHandlerFunction set;
    GetHandlerFunction get;
};

// The handler that wcscpy_s consults lives in msvcrt.dll. Where msvcrt.dll
// exports the setter, that is the one to call. Otherwise (older Windows, and
// Wine, whose msvcrt.dll has no such export) the runtime's
// _set_invalid_parameter_handler only records the handler in this module;
// msvcrt.dll's own default then applies, which under Wine makes wcscpy_s
// return EINVAL or ERANGE without ending the process.
HandlerAccess RuntimeHandlerAccess()
{
    HMODULE runtime = ::GetModuleHandleW(L"msvcrt.dll");
    if (runtime != nullptr)
    {
        auto set = reinterpret_cast<SetHandlerFunction>(::GetProcAddress(runtime, "_set_invalid_parameter_handler"));
        auto get = reinterpret_cast<GetHandlerFunction>(::GetProcAddress(runtime, "_get_invalid_parameter_handler"));
        if (set != nullptr && get != nullptr)
            return {set, get};
    }
    return {_set_invalid_parameter_handler, _get_invalid_parameter_handler};
}

_invalid_parameter_handler g_pfnPreviousHandler = nullptr;

void InstallInvalidParameterHandler()
{
    static const HandlerAccess access = RuntimeHandlerAccess();
    if (access.get() == KesSecureInvalidParameterHandler)
        return;
    g_Debug.Error(kThisFile, 97, L"Setting invalid parameter handler to: KesSecureInvalidParameterHandler");
    g_pfnPreviousHandler = access.set(KesSecureInvalidParameterHandler);
}
} // namespace

void KesSecureInvalidParameterHandler(const wchar_t* expression, const wchar_t* function, const wchar_t* file,
                                      unsigned int line, uintptr_t reserved)
{
    g_Debug.Print(L"KesSecureInvalidParameterHandler : ERROR");
}

int KesSafeCopy(const wchar_t* sourceFile, int line, wchar_t* destination, size_t destinationSize,
                const wchar_t* source)
{
    // Callers may still want the error of the call whose message they copy: the
    // handler's look-ups (which fail under Wine) and the trace lines must not replace it.
    const DWORD lastError = ::GetLastError();
    InstallInvalidParameterHandler();

    int result = wcscpy_s(destination, destinationSize, source);
    wchar_t* callerFile = const_cast<wchar_t*>(sourceFile);
    if (result == EINVAL)
    {
        // msvcrt reports a destination of size 0 as EINVAL, so it lands here too.
        if (destination != nullptr)
            g_Debug.Error(callerFile, line, L"KesSafeCopy ERROR: NULL == strSource");
        else
            g_Debug.Error(kThisFile, 187, L"KesSafeCopy ERROR: NULL == strDestination");
    }
    else if (result == ERANGE)
    {
        g_Debug.Error(callerFile, line, L"KesSafeCopy ERROR: strDestination size 0, or too small");
    }
    ::SetLastError(lastError);
    return result;
}
