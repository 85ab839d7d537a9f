// Another installer component's view of SWLLib: built against nothing but the
// installed include/ and lib/, run next to the installed DLL. Uses every
// exported class and function the public headers offer.
#include "KesDebug.h"
#include "KesRegKey.h"
#include "KesString.h"
#include <windows.h>
#include <cstdio>
#include <string>
#include <vector>

static int s_passed = 0, s_failed = 0;

static void Check(bool ok, const char* what)
{
    ++(ok ? s_passed : s_failed);
    std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
}

int main()
{
    CKesString text;
    text.FormatString(L"%s=%d", L"Devices", 2);
    Check(text == L"Devices=2", "CKesString::FormatString takes a wide %s");
    std::vector<CKesString> parts;
    Check(text.Split('=', parts) && parts.size() == 2 && parts[1] == L"2", "CKesString::Split");
    CKesString upper(L" cfSwl ");
    upper.Trim();
    upper.MakeUpper();
    Check(upper == L"CFSWL" && upper.Length() == 5, "CKesString trims and upper-cases");
    Check(GetCodePage(0) == GetACP(), "GetCodePage(0) is the ANSI code page");

    const CKesString keyPath(L"SOFTWARE\\SWLConsumerCheck");
    CKesRegKey key;
    Check(key.Create(HKEY_LOCAL_MACHINE, keyPath, true, false), "CKesRegKey::Create");
    CKesString value(L"C:\\Program Files\\Corvane");
    std::vector<CKesString> list{CKesString(L"one"), CKesString(L"two")};
    Check(key.SetValue(L"Dir", value, false) && key.SetValue(L"TRACE", DWORD(1)) && key.SetValue(L"List", list),
          "CKesRegKey::SetValue (string, number, list)");
    CKesString dir;
    std::vector<CKesString> back;
    Check(key.GetValue(L"Dir", dir) && dir == value, "CKesRegKey::GetValue reads the string back");
    Check(key.AddValueToMultiString(L"List", L"three") && key.GetValue(L"List", back) && back.size() == 3 &&
              back[2] == L"three",
          "CKesRegKey list edit");
    CKesRegKey copy(key);
    Check(copy.ValueExists(L"Dir") && copy.KeyName() == key.KeyName(), "a CKesRegKey copy owns its own handle");

    // The trace needs the registry's consent under the key we name.
    wchar_t tmp[MAX_PATH];
    GetTempPathW(MAX_PATH, tmp);
    const std::wstring traceFile = std::wstring(tmp) + L"SWLConsumerTrace.txt";
    DeleteFileW(traceFile.c_str());
    {
        CKesDebug trace;
        Check(trace.Configure(L"CONSUMER", traceFile.c_str(), 1, 1, 0, keyPath) == 0 && trace.IsConfigured(),
              "CKesDebug::Configure");
        trace.Print(L"installed %s, %d devices", L"cfSwl", 2);
    }
    char line[512] = {};
    FILE* file = _wfopen(traceFile.c_str(), L"r");
    if (file != nullptr)
    {
        std::fgets(line, sizeof(line), file);
        std::fclose(file);
    }
    const std::string written(line);
    Check(written.rfind("CONSUMER\tPID:", 0) == 0 && written.find("\tinstalled cfSwl, 2 devices\n") != std::string::npos,
          "CKesDebug::Print writes one stamped line");
    DeleteFileW(traceFile.c_str());

    key.Close();
    CKesRegKey parent;
    Check(parent.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE", true) && parent.DeleteSubKey(L"SWLConsumerCheck"),
          "CKesRegKey::DeleteSubKey");

    std::printf("%d passed, %d failed\n", s_passed, s_failed);
    return s_failed == 0 ? 0 : 1;
}
