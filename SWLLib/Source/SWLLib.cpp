// SWLLib: Windows Installer custom actions for the Corvane(R) Swiftlane
// Technology driver stack. This file holds the library entry and the
// process-wide objects.
#include "Devices/DeviceCatalogue.h"
#include "KesTrace.h"
#include "Session/Session.h"
#include <windows.h>

// The process-wide objects are defined here, in this order, so that the trace
// log is built before the device catalogue (which traces while it is built)
// and destroyed after it.
CKesDebug g_Debug;
SWLDevices g_SWLDevices;

HINSTANCE g_hInstance = nullptr;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        // Tracing is optional: should setting it up throw, loading goes on without it.
        try
        {
            ConfigureTraceFromRegistry();
        }
        catch (...)
        {
        }
        g_hInstance = instance;
    }
    // Loading never fails on account of the trace configuration.
    return TRUE;
}
