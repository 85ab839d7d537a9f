#pragma once
// Remnant-file cleanup: the product files of older versions, and those the
// current uninstall could not take away, are deleted before a new install,
// and a file that stays fails the install. Files the installer's account does
// not own are deleted after making the local Administrator account their owner.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// Test seam for the two calls of TakeOwnershipAndDelete that Wine cannot make
// behave as Windows does: it has no account named "Administrator", and it lets
// any owner be set on a file, so a refused owner change cannot be caused. The
// defaults are the advapi32 functions themselves.
struct OwnershipCalls
{
    static BOOL(WINAPI* LookupAccountName)(const wchar_t* system, const wchar_t* account, PSID sid, DWORD* sidSize,
                                           wchar_t* domain, DWORD* domainSize, SID_NAME_USE* use);
    static BOOL(WINAPI* SetFileSecurity)(const wchar_t* path, SECURITY_INFORMATION what,
                                         PSECURITY_DESCRIPTOR descriptor);
};

// Deletes one file, with trace lines. True when the file is gone (or was never
// there); false when DeleteFileW failed, its error still the thread's last error.
bool DeleteFirmwareFile(CKesString path);

// Enables one privilege in token (opened with TOKEN_ADJUST_PRIVILEGES). FALSE,
// with an Installer-log line, when the name is unknown, the adjustment fails or
// the token does not hold the privilege.
BOOL SetPrivilege(MSIHANDLE hInstall, HANDLE token, const wchar_t* privilegeName);

// Tries to make the local "Administrator" account the file's owner, then
// deletes the file. TRUE only when the file was deleted. Every failing step
// writes an Installer-log line with the Win32 error in hexadecimal.
// Deliberately, a successful owner change is taken as a failure and the file
// is then left in place; only a refused owner change goes on to the delete.
BOOL TakeOwnershipAndDelete(MSIHANDLE hInstall, const wchar_t* path);

// Custom action: deletes the fixed list of twenty remnant files, in order. 31 at
// the first file that exists and cannot be deleted (later files are not
// tried), except hwa_swl4.sys refused with access denied, which is logged and
// passed over; otherwise 0 with "All remnant files deleted.".
extern "C" UINT __stdcall CheckFilesForRemoval(MSIHANDLE hInstall);
