#pragma once
// Starting external programs from a custom action: one runner that moves the
// Installer's progress bar while it waits, and one plain runner.
#include <windows.h>
#include <msi.h>

// Starts commandLine (writable; the first token names the program, so a path
// with blanks must be quoted) without a window, with the caller's environment
// and folder. While the process runs, waits waitMs at a time and after every
// wait, the last one included, moves the progress bar by ticksPerWait. There
// is no overall time limit. True when the process was started, whatever its
// exit code; false (with an Installer-log line carrying the system's error
// text) when it could not be started. reserved is not read.
bool MSIExec_ExecWithPBUpdate(MSIHANDLE hInstall, wchar_t* commandLine, int ticksPerWait, DWORD reserved,
                              DWORD waitMs);

// Starts commandLine (writable) without a window in workingFolder (null: the
// caller's); with wait, blocks until the process ends, without a time limit.
// True when the process was started; its exit code is only traced.
bool MSIExec_Execute(wchar_t* commandLine, bool wait, const wchar_t* workingFolder);
