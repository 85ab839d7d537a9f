#pragma once
// The frame every exported custom action stands in: no exception leaves an export.
#include "KesTrace.h"
#include <windows.h>
#include <msi.h>
#include <exception>

// Runs body and returns its status code. An exception that escapes body is
// traced with the action's name and turns into ERROR_GEN_FAILURE.
template <class Body>
UINT GuardedAction(const wchar_t* actionName, Body&& body) noexcept
{
    try
    {
        return body();
    }
    catch (const std::exception& e)
    {
        try
        {
            KES_TRACE_ERROR(L"%s: exception caught: %S", actionName, e.what());
        }
        catch (...)
        {
        }
    }
    catch (...)
    {
        try
        {
            KES_TRACE_ERROR(L"%s: exception caught", actionName);
        }
        catch (...)
        {
        }
    }
    return ERROR_GEN_FAILURE;
}

#define SWL_CUSTOM_ACTION(name) extern "C" UINT __stdcall name(MSIHANDLE hInstall)
