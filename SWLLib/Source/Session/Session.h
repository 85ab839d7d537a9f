#pragma once
// Installer session services shared by every custom action: properties, the
// Installer log, conditions, message boxes, progress messages and error texts.
#include "KesString.h"
#include <windows.h>
#include <msi.h>
#include <msiquery.h>

// The library's module handle, from which string resources are loaded.
extern HINSTANCE g_hInstance;

// The product's registry key under HKEY_LOCAL_MACHINE.
extern const wchar_t* const kProductKey; // L"SOFTWARE\\CORVANE\\SWL"

// Reads a property (at most 259 characters). True exactly when the value read is not empty.
bool GetMSIProperty(MSIHANDLE hInstall, CKesString name, CKesString& value);
// One Installer-log line stamped [HH:MM:SS]; when "DoActionCA" is "1" the line
// goes to the property "Log" instead.
void LogToMSI(MSIHANDLE hInstall, const wchar_t* text);
void LogToMSI(MSIHANDLE hInstall, const wchar_t* text, const wchar_t* detail);
bool EvaluateCondition(MSIHANDLE hInstall, const wchar_t* condition);
// Returns 0 without showing anything in a silent run.
int ShowMessageBox(MSIHANDLE hInstall, HWND owner, const wchar_t* text, const wchar_t* caption, UINT type);
int ReportActionStart(MSIHANDLE hInstall, const wchar_t* description, const wchar_t* actionTemplate);
int ReportProgressTicks(MSIHANDLE hInstall, int ticks);
// Compares a string value under the product key with expected, case-insensitively.
bool DoesRegistryKeyMatchValue(CKesString valueName, CKesString expected);
// The system's message for the calling thread's last Win32 error (trailing line break kept).
CKesString GetLastErrorText();
// Switches tracing on from the product key; run once from the library entry.
void ConfigureTraceFromRegistry();
// A string-table text of this library.
CKesString LoadResString(DWORD id);
