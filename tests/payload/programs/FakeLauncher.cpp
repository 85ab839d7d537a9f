// Stands in for the product's launcher: the launcher check only looks for a
// running process of this name. Usage: SwlSetup.exe [seconds] [ready-event]
// Signals the named event (when given) once running, then sleeps for the given
// number of seconds (300 by default) or until it is terminated.
#include <windows.h>
#include <cwchar>
#include <shellapi.h>

int main()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    DWORD seconds = 300;
    if (argv && argc > 1)
        seconds = static_cast<DWORD>(std::wcstoul(argv[1], nullptr, 10));
    if (argv && argc > 2)
    {
        HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[2]);
        if (ready)
        {
            SetEvent(ready);
            CloseHandle(ready);
        }
    }
    if (argv)
        LocalFree(argv);
    Sleep(seconds * 1000);
    return 0;
}
