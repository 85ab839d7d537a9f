// Linked into every in-process test program: the library's objects live in the
// test program itself, so its string table is the program's own resources.
#include <windows.h>

extern HINSTANCE g_hInstance;

namespace
{
struct InProcessInit
{
    InProcessInit()
    {
        if (!g_hInstance)
            g_hInstance = GetModuleHandleW(nullptr);
    }
} s_inProcessInit;
} // namespace
