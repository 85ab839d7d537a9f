#pragma once
// Service control helpers over the service control manager: create a
// kernel-driver service, delete a service, read a service's state, start and
// stop a service with bounded waits. None of them throws.
//
// Results are Win32-style numbers: 0 success, ERROR_GEN_FAILURE (31) for every
// failure, 5930 when an exception was caught. GetServiceStatus has its own
// scale (see there). Each function traces its steps to g_Debug; the ones that
// take a session handle also write Installer-log lines.
#include "KesString.h"
#include <windows.h>
#include <winsvc.h>
#include <msi.h>

// Result of GetServiceStatus when the SCM cannot be opened or the query fails.
constexpr DWORD kServiceStatusUnavailable = 716;
// Result of GetServiceStatus, STARTService and STOPService when an exception was caught.
constexpr DWORD kServiceExceptionCaught = 5930;

// Creates name as a kernel driver started by the I/O system (SERVICE_SYSTEM_START,
// SERVICE_ERROR_NORMAL) running binaryPath. 31 when binaryPath does not exist or
// a service called name already exists; otherwise 0, even when the creation
// itself failed (that failure is only traced). reserved is not read.
DWORD AddService(CKesString name, CKesString displayName, CKesString binaryPath, DWORD reserved);

// Deletes the service without stopping it first (a running service is only
// marked for deletion). 0 when deleted or marked, 31 otherwise.
DWORD RemoveService(CKesString name, MSIHANDLE hInstall);

// 0 when the service cannot be opened (taken as "does not exist", whatever the
// error); 1 to 7 its current state (SERVICE_STOPPED ... SERVICE_PAUSED); 716 when
// the SCM cannot be opened or the status cannot be read; 5930 on an exception.
// Callers treat any non-zero result as "exists".
DWORD GetServiceStatus(CKesString name);

// "SERVICE_STOPPED" ... "SERVICE_PAUSED" for states 1 to 7, else "UNKNOWN".
CKesString ServiceStateName(DWORD state);

// Starts the service and waits for it with StartServiceAndWait(name, service, 2000).
DWORD STARTService(CKesString name);

// Starts an already opened service (the handle stays open). 0 when it was
// already running or reached SERVICE_RUNNING; 31 otherwise. The wait is bounded
// by the service's own wait hint: a service still pending after sleeping a tenth
// of its hint counts as timed out. waitMs is clamped but has no effect.
DWORD StartServiceAndWait(CKesString name, SC_HANDLE service, DWORD waitMs);

// Stops the service with StopServiceAndWait(name, service, 2000, hInstall).
// 31 when it is missing or did not stop in time.
DWORD STOPService(CKesString name, MSIHANDLE hInstall);

// Stops an already opened service (the handle stays open). 0 when it was
// already stopped or stopped in time; 31 otherwise. Gives up once the time
// since entry exceeds waitMs clamped to 1000..10000 ms; each poll sleeps the
// service's full wait hint, so the last one can overrun by one hint.
DWORD StopServiceAndWait(CKesString name, SC_HANDLE service, DWORD waitMs, MSIHANDLE hInstall);
