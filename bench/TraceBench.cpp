// Cost of the trace log under the real C runtime: lines per second with tracing
// on, against a plain format-write-flush loop producing the same lines, and the
// cost of a call while tracing is off (the state of every production run
// without the registry switch).
#include "KesTrace.h"
#include "BenchClock.h"
#include <windows.h>
#include <algorithm>
#include <cstdio>
#include <string>

namespace
{
const wchar_t* const kTraceKey = L"SOFTWARE\\SWLBench\\Trace";
const wchar_t* const kTraceKeyParent = L"SOFTWARE\\SWLBench";
const wchar_t* const kPayload = L"CreateTempFolder: created the support folder for the driver files";
const int kLines = 20000;
const int kRounds = 5;
const int kOffCalls = 5000000;

wchar_t s_line[1152];

long long FileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return -1;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

bool SwitchTraceOn()
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTraceKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return false;
    DWORD on = 1;
    LONG r = RegSetValueExW(key, L"TRACE", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&on), sizeof(on));
    RegCloseKey(key);
    return r == ERROR_SUCCESS;
}

// Seconds for kLines lines through CKesDebug::Print.
double TimeTracedLines(const std::wstring& path)
{
    CKesDebug trace;
    if (trace.Configure(L"SWL", path.c_str(), 1, 0, 0, kTraceKey) != 0 || !trace.IsConfigured())
        return -1;
    double start = Now();
    for (int i = 0; i < kLines; ++i)
        trace.Print(L"Line %d: %s", i, kPayload);
    return Now() - start;
}

// Seconds for the same lines formatted by hand (msvcrt semantics), written and flushed.
double TimePlainLines(const std::wstring& path)
{
    FILE* file = _wfopen(path.c_str(), L"w");
    if (file == nullptr)
        return -1;
    double start = Now();
    for (int i = 0; i < kLines; ++i)
    {
        SYSTEMTIME now;
        GetLocalTime(&now);
        LARGE_INTEGER counter;
        QueryPerformanceCounter(&counter);
        _snwprintf(s_line, 1151, L"%s\tPID:%x\tTID:%x\t%02.2d:%02.2d:%02.2d.%03.3d\t(%I64X)\tLine %d: %s\n", L"SWL",
                   GetCurrentProcessId(), GetCurrentThreadId(), now.wHour, now.wMinute, now.wSecond,
                   now.wMilliseconds, counter.QuadPart, i, kPayload);
        s_line[1151] = L'\0';
        fputws(s_line, file);
        fflush(file);
    }
    double elapsed = Now() - start;
    fclose(file);
    return elapsed;
}

double NanosecondsPerOffPrint()
{
    CKesDebug off;
    double start = Now();
    for (int i = 0; i < kOffCalls; ++i)
        off.Print(L"Line %d: %s", i, kPayload);
    return (Now() - start) * 1e9 / kOffCalls;
}

double NanosecondsPerOffScope()
{
    double start = Now();
    for (int i = 0; i < kOffCalls; ++i)
    {
        int result = i;
        CKesDebugScope scope(L"CreateTempFolder", &result);
    }
    return (Now() - start) * 1e9 / kOffCalls;
}
} // namespace

int main()
{
    wchar_t dir[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    const std::wstring tracedPath = std::wstring(dir) + L"trace_bench_traced.txt";
    const std::wstring plainPath = std::wstring(dir) + L"trace_bench_plain.txt";

    if (!SwitchTraceOn())
    {
        std::fprintf(stderr, "trace_bench: cannot create HKLM\\SOFTWARE\\SWLBench\\Trace\n");
        return 1;
    }
    // Interleaved rounds after an untimed one each; the best round of each
    // counts, which keeps scheduler and file-cache noise out of the ratio.
    TimeTracedLines(tracedPath);
    TimePlainLines(plainPath);
    double traced = 1e30;
    double plain = 1e30;
    for (int round = 0; round < kRounds; ++round)
    {
        traced = std::min(traced, TimeTracedLines(tracedPath));
        plain = std::min(plain, TimePlainLines(plainPath));
    }
    long long tracedBytes = FileSize(tracedPath);
    long long plainBytes = FileSize(plainPath);
    double offPrint = NanosecondsPerOffPrint();
    bool debugWasOff = !g_Debug.IsConfigured();
    double offScope = NanosecondsPerOffScope();

    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKey);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTraceKeyParent);
    DeleteFileW(tracedPath.c_str());
    DeleteFileW(plainPath.c_str());

    if (traced <= 0 || plain <= 0)
    {
        std::fprintf(stderr, "trace_bench: a trace file could not be written\n");
        return 1;
    }
    std::printf("trace_bench: %d lines per round, flushed per line, best of %d rounds\n", kLines, kRounds);
    std::printf("  CKesDebug::Print, tracing on    : %10.0f lines/s  (%lld bytes)\n", kLines / traced, tracedBytes);
    std::printf("  _snwprintf + fputws + fflush    : %10.0f lines/s  (%lld bytes)\n", kLines / plain, plainBytes);
    std::printf("  time ratio, Print / plain loop  : %10.2f\n", traced / plain);
    std::printf("  CKesDebug::Print, tracing off   : %10.2f ns/call  (%d calls)\n", offPrint, kOffCalls);
    std::printf("  CKesDebugScope, tracing off     : %10.2f ns/scope (%d scopes%s)\n", offScope, kOffCalls,
                debugWasOff ? "" : ", g_Debug was configured");
    return 0;
}
