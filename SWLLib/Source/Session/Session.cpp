#include "Session/Session.h"
#include "KesTrace.h"
#include "KesRegKey.h"
#include <ctime>
#include <cwchar>

const wchar_t* const kProductKey = L"SOFTWARE\\CORVANE\\SWL";

bool GetMSIProperty(MSIHANDLE hInstall, CKesString name, CKesString& value)
{
    bool result = false;
    CKesDebugScope scope(L"GetMSIProperty", &result);
    wchar_t buffer[260] = {};
    DWORD size = 260;
    // A too-long or unknown property is not an error: the value is simply cut or empty.
    MsiGetPropertyW(hInstall, name, buffer, &size);
    buffer[259] = L'\0';
    value = buffer;
    result = !value.empty();
    return result;
}

namespace
{
// "[%H:%M:%S]" of the local time; empty when the time cannot be had.
void FormatTimeStamp(wchar_t (&stamp)[260])
{
    stamp[0] = L'\0';
    time_t now = time(nullptr);
    struct tm local;
    if (now == static_cast<time_t>(-1) || localtime_s(&local, &now) != 0)
        return;
    if (wcsftime(stamp, 260, L"[%H:%M:%S]", &local) == 0)
        stamp[0] = L'\0';
}

void SendToInstallerLog(MSIHANDLE hInstall, const wchar_t* text, const wchar_t* detail)
{
    wchar_t stamp[260];
    FormatTimeStamp(stamp);

    wchar_t doAction[512] = {};
    DWORD size = 512;
    MsiGetPropertyW(hInstall, L"DoActionCA", doAction, &size);
    doAction[511] = L'\0';

    if (wcscmp(doAction, L"1") != 0)
    {
        PMSIHANDLE record = MsiCreateRecord(detail ? 3 : 2);
        MsiRecordSetStringW(record, 1, stamp);
        MsiRecordSetStringW(record, 2, text);
        if (detail)
            MsiRecordSetStringW(record, 3, detail);
        MsiProcessMessage(hInstall, INSTALLMESSAGE_INFO, record);
        return;
    }

    // Run through DoAction from a dialog: Installer shows no INFO records
    // then, so the line is handed to the UI in the property "Log".
    CKesString line(stamp);
    line += L": ";
    line += CKesString(text);
    if (detail)
    {
        line += L": ";
        line += detail;
    }
    MsiSetPropertyW(hInstall, L"Log", line);
}
} // namespace

void LogToMSI(MSIHANDLE hInstall, const wchar_t* text)
{
    g_Debug.Print(L"(MSI LOG ENTRY) %s", text);
    SendToInstallerLog(hInstall, text, nullptr);
}

void LogToMSI(MSIHANDLE hInstall, const wchar_t* text, const wchar_t* detail)
{
    // A null detail still makes a two-text line, with an empty detail.
    if (detail == nullptr)
        detail = L"";
    g_Debug.Print(L"(MSI LOG ENTRY) %s%s", text, detail);
    SendToInstallerLog(hInstall, text, detail);
}

bool EvaluateCondition(MSIHANDLE hInstall, const wchar_t* condition)
{
    switch (MsiEvaluateConditionW(hInstall, condition))
    {
    case MSICONDITION_TRUE:
        return true;
    case MSICONDITION_FALSE:
        return false;
    case MSICONDITION_NONE:
        g_Debug.Print(L"MsiEvaluateCondition was passed an empty condition '%s'", condition);
        return false;
    case MSICONDITION_ERROR:
    default:
        g_Debug.Print(L"MsiEvaluateCondition returned error for '%s'", condition);
        return false;
    }
}

int ShowMessageBox(MSIHANDLE hInstall, HWND owner, const wchar_t* text, const wchar_t* caption, UINT type)
{
    if (EvaluateCondition(hInstall, L"UILevel=2"))
        return 0;
    CKesString silent(2);
    if (DoesRegistryKeyMatchValue(L"UILevel", silent))
        return 0;
    return MessageBoxW(owner, text, caption, type);
}

int ReportActionStart(MSIHANDLE hInstall, const wchar_t* description, const wchar_t* actionTemplate)
{
    PMSIHANDLE record = MsiCreateRecord(3);
    MsiRecordSetStringW(record, 1, L"Progress Custom Action");
    MsiRecordSetStringW(record, 2, description);
    MsiRecordSetStringW(record, 3, actionTemplate);
    return MsiProcessMessage(hInstall, INSTALLMESSAGE_ACTIONSTART, record);
}

int ReportProgressTicks(MSIHANDLE hInstall, int ticks)
{
    PMSIHANDLE record = MsiCreateRecord(3);
    MsiRecordSetInteger(record, 1, 2); // increment the progress bar
    MsiRecordSetInteger(record, 2, ticks);
    MsiRecordSetInteger(record, 3, 0);
    return MsiProcessMessage(hInstall, INSTALLMESSAGE_PROGRESS, record);
}

bool DoesRegistryKeyMatchValue(CKesString valueName, CKesString expected)
{
    bool result = false;
    CKesDebugScope scope(L"DoesRegistryKeyMatchValue", &result);
    g_Debug.Print(L"Checking if registry key '%s' has value '%s'", valueName.c_str(), expected.c_str());

    CKesRegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, kProductKey, false))
    {
        g_Debug.Print(L"Failed to open registry key for '%s'", kProductKey);
        return result;
    }
    CKesString value;
    if (!key.GetValue(valueName, value))
    {
        g_Debug.Print(L"Failed to get value for registry key '%s'", valueName.c_str());
        return result;
    }
    if (value.CompareI(expected))
    {
        g_Debug.Print(L"Values matched for '%s'", expected.c_str());
        result = true;
    }
    else
    {
        g_Debug.Print(L"Values did not match; registry value is '%s'", value.c_str());
    }
    return result;
}

CKesString GetLastErrorText()
{
    DWORD error = GetLastError();
    wchar_t* buffer = nullptr;
    DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                                      FORMAT_MESSAGE_FROM_SYSTEM,
                                  nullptr, error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                  reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    CKesString text;
    if (length != 0 && buffer)
        text.assign(buffer, length);
    if (buffer)
        LocalFree(buffer);
    return text;
}

void ConfigureTraceFromRegistry()
{
    CKesRegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, kProductKey, true))
        return;
    DWORD trace = 0;
    if (!key.GetValue(L"Trace", trace) || trace == 0)
        return;

    CKesString path;
    if (!key.GetValue(L"Log", path))
    {
        wchar_t tmp[512] = {};
        // A TMP too long for the buffer counts as unset: its length comes back
        // and the buffer stays empty, which would put the file in the root.
        const DWORD length = GetEnvironmentVariableW(L"TMP", tmp, 512);
        if (length != 0 && length < 512)
        {
            path = tmp;
            path += L"\\";
            path += L"SWLDBG.txt";
        }
        // Later loads find the file where this one put it.
        key.SetValue(L"Log", path, false);
    }
    // The result is deliberately not examined: a failure simply leaves tracing off.
    g_Debug.Configure(L"SWL", path, 1, 1, 0, kProductKey);
}

CKesString LoadResString(DWORD id)
{
    CKesString text;
    text.LoadStringW(g_hInstance, id);
    return text;
}
