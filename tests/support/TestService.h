#pragma once
// swl_test_service (tests/services/programs/TestService.cpp), installed from beside the test
// program as an own-process service: its arguments choose how it starts and stops.
#include "UniqueHandle.h"
#include <string>

// The service manager with all access, for test set-up and checks.
SC_HANDLE TestServiceManager();

// Installed (not started) under name; at the end released, awaited and deleted.
struct TestService
{
    TestService(const std::wstring& name, const std::wstring& arguments);
    ~TestService();
    // Starts it and waits until it runs; false when it does not.
    bool Start();
    // Starts it and asks it to stop: with "--stop=hang" it then stays SERVICE_STOP_PENDING until the end.
    bool StartAndLeaveStopPending();

    UniqueKernelHandle release;
    UniqueServiceHandle service;
};

// True when the service manager knows name (a service marked for deletion included).
bool ServiceExists(const std::wstring& name);
// The service's current state, 0 when it cannot be queried.
DWORD ServiceState(const std::wstring& name);
