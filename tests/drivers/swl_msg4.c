/* TEST STAND-IN message library: an entry point and nothing else; its resources are in swl_msg4.rc. */
#include <windows.h>

BOOL WINAPI SwlMsg4Entry(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)instance;
    (void)reason;
    (void)reserved;
    return TRUE;
}
