#pragma once
// The plain-text install summary: which parts of the product ended up
// installed. Each line is appended on its own, so an interrupted summary keeps
// the lines written so far; failures go to the trace log only.
#include <windows.h>
#include <msi.h>

// Fixed location of the summary, whatever the system's program-files folder is.
extern const wchar_t* const kInstallSummaryPath;

// Appends the whole summary. On a virtualization host only the base driver is
// examined; the other parts are reported as not installed for that reason.
// hInstall is not used.
void WriteInstallSummary(MSIHANDLE hInstall, bool virtualizationHost);

// Appends text (ASCII, without its terminator) to the summary file. The file's
// folder must exist; it is opened without sharing for this one write. A null
// text writes nothing.
void AppendSummaryLine(const char* text);
