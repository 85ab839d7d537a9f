#pragma once
// Bounded copies that report through the trace log instead of ending the process.
#include "SwlApi.h"
#include <cstddef>
#include <cwchar>

// wcscpy_s with the invalid-parameter handler below installed first; returns its errno_t.
// The thread's last Win32 error is left as it was.
int KesSafeCopy(const wchar_t* sourceFile, int line, wchar_t* destination, size_t destinationSize,
                const wchar_t* source);

// Prints "KesSecureInvalidParameterHandler : ERROR" and returns, so that the
// runtime function reports an error code instead of ending the process.
void KesSecureInvalidParameterHandler(const wchar_t* expression, const wchar_t* function, const wchar_t* file,
                                      unsigned int line, uintptr_t reserved);

#define KES_WIDEN2(x) L##x
#define KES_WIDEN(x) KES_WIDEN2(x)
// The calling source file's name as a wide string, for trace lines that say where a fault was found.
#define KES_WFILE KES_WIDEN(__FILE_NAME__)
#define KES_SAFE_COPY(dest, size, src) KesSafeCopy(KES_WFILE, __LINE__, (dest), (size), (src))
