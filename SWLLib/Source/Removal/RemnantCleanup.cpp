// Remnant-file cleanup and the ownership takeover used for files the
// installer's account cannot simply delete.
#include "Removal/RemnantCleanup.h"
#include "KesSecure.h"
#include "KesTrace.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include <shlwapi.h>
#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <vector>

// <windows.h> makes both member names macros for their ...W forms, so the
// defaults are named from the global scope: unqualified, they would name the
// members themselves and stay null.
BOOL(WINAPI* OwnershipCalls::LookupAccountName)(const wchar_t*, const wchar_t*, PSID, DWORD*, wchar_t*, DWORD*,
                                                SID_NAME_USE*) = ::LookupAccountNameW;
BOOL(WINAPI* OwnershipCalls::SetFileSecurity)(const wchar_t*, SECURITY_INFORMATION,
                                              PSECURITY_DESCRIPTOR) = ::SetFileSecurityW;

namespace
{
// Installer-log lines of the ownership takeover are formatted into this many
// characters; a longer line (a long path) is cut.
const size_t kMessageChars = 260;
const DWORD kDomainChars = 4096;

static_assert(sizeof(TOKEN_PRIVILEGES) == 16, "one privilege: the 16-byte record AdjustTokenPrivileges is given");

// Literal paths, not derived from the system or program-files folders: these
// are where every earlier version put its files.
const wchar_t* const kRemnantFiles[] = {
    L"C:\\Windows\\System32\\Drivers\\TpxProv.sys",
    L"C:\\Windows\\System32\\Drivers\\TpxProvUser.sys",
    L"C:\\Windows\\System32\\UTpxProv.dll",
    L"C:\\Windows\\SysWOW64\\UTpxProv.dll",
    L"C:\\Windows\\System32\\drivers\\hwaswlfw\\mq531xcc_dev0.conf",
    L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_531xcc.bin",
    L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_531xcc_mmp.bin",
    L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_m31x.bin",
    L"C:\\Windows\\System32\\drivers\\hwaswlfw\\swl_m31x_mmp.bin",
    L"C:\\Windows\\System32\\Drivers\\CfSwl.sys",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\Fanzip.exe",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\Library\\swlzip.h",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\Library\\swlzip_km.h",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\Library\\libswlzip.lib",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\Library\\pdb\\swlzip.pdb",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\pdb\\CfSwl.pdb",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\pdb\\fanzip.pdb",
    L"C:\\Windows\\System32\\Drivers\\hwa_swl4.sys",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\hwa_swl.man",
    L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\hwa_swl_sw.man",
};
// The one remnant whose access-denied refusal does not fail the install.
const wchar_t* const kBaseDriverFile = L"C:\\Windows\\System32\\Drivers\\hwa_swl4.sys";

// One Installer-log line formatted with msvcrt's rules ("%s" is wide).
void LogFormatted(MSIHANDLE hInstall, const wchar_t* format, ...)
{
    wchar_t message[kMessageChars] = {};
    va_list arguments;
    va_start(arguments, format);
    _vsnwprintf(message, kMessageChars - 1, format, arguments);
    va_end(arguments);
    LogToMSI(hInstall, message);
}
} // namespace

bool DeleteFirmwareFile(CKesString path)
{
    bool deleted = true;
    CKesDebugScope scope(L"DeleteFileW", &deleted);
    if (!PathFileExistsW(path))
    {
        g_Debug.Print(L"DeleteFile: Firmware file not present : '%s'", path.c_str());
        return deleted;
    }
    if (DeleteFileW(path))
    {
        g_Debug.Print(L"DeleteFile: Deleted firmware file : '%s'", path.c_str());
        return deleted;
    }
    KES_TRACE_ERROR(L"DeleteFile: Failed to delete firmware file : '%s'", path.c_str());
    deleted = false;
    return deleted;
}

BOOL SetPrivilege(MSIHANDLE hInstall, HANDLE token, const wchar_t* privilegeName)
{
    bool enabled = false;
    CKesDebugScope scope(L"SetPrivilege", &enabled);
    LUID luid = {};
    if (!LookupPrivilegeValueW(nullptr, privilegeName, &luid))
    {
        LogFormatted(hInstall, L"SetPrivilege LookupPrivilegeValue() error: %x!!", GetLastError());
        return FALSE;
    }
    TOKEN_PRIVILEGES privileges = {};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Luid = luid;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (!AdjustTokenPrivileges(token, FALSE, &privileges, sizeof(privileges), nullptr, nullptr))
    {
        LogFormatted(hInstall, L"SetPrivilege AdjustTokenPrivileges error: %X!!", GetLastError());
        return FALSE;
    }
    // The call succeeds even when the token does not hold the privilege.
    if (GetLastError() == ERROR_NOT_ALL_ASSIGNED)
    {
        LogToMSI(hInstall, L"SetPrivilege the token does not have the priviledge!!");
        return FALSE;
    }
    enabled = true;
    return TRUE;
}

BOOL TakeOwnershipAndDelete(MSIHANDLE hInstall, const wchar_t* path)
{
    bool deleted = false;
    CKesDebugScope scope(L"TakeOwnershipAndDelete", &deleted);

    UniqueKernelHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()))
    {
        LogFormatted(hInstall, L"TakeOwnershipAndDelete OpenProcessToken error: %x!!", GetLastError());
        return FALSE;
    }
    // A privilege that cannot be enabled is only reported: the owner change may still be allowed.
    if (!SetPrivilege(hInstall, token.get(), SE_TAKE_OWNERSHIP_NAME))
        LogToMSI(hInstall, L"Set SE_TAKE_OWNERSHIP_NAME priviledge failed!!");
    if (!SetPrivilege(hInstall, token.get(), SE_SECURITY_NAME))
        LogToMSI(hInstall, L"Set SE_SECURITY_NAME priviledge failed!!");
    if (!SetPrivilege(hInstall, token.get(), SE_BACKUP_NAME))
        LogToMSI(hInstall, L"Set SE_BACKUP_NAME priviledge failed!!");
    if (!SetPrivilege(hInstall, token.get(), SE_RESTORE_NAME))
        LogToMSI(hInstall, L"Set SE_RESTORE_NAME priviledge failed!!");

    // Asked only for the size of the file's owner record. The new descriptor is
    // never smaller than an absolute descriptor: the self-relative record can
    // be smaller than that, and a file that cannot be read reports 0.
    DWORD needed = 0;
    GetFileSecurityW(path, OWNER_SECURITY_INFORMATION, nullptr, 0, &needed);
    const DWORD descriptorBytes = needed > sizeof(SECURITY_DESCRIPTOR) ? needed : sizeof(SECURITY_DESCRIPTOR);
    UniqueLocalMemory descriptor(LocalAlloc(LPTR, descriptorBytes));
    if (!descriptor || !InitializeSecurityDescriptor(descriptor.get(), SECURITY_DESCRIPTOR_REVISION))
    {
        LogFormatted(hInstall, L"InitializeSecurityDescriptor for %s, error: %x!!", path, GetLastError());
        return FALSE;
    }

    // By the account's name, not the well-known SID: a renamed account is not found.
    std::vector<wchar_t> domain(kDomainChars);
    DWORD domainChars = kDomainChars;
    DWORD sidBytes = 0;
    SID_NAME_USE use = SidTypeUnknown;
    OwnershipCalls::LookupAccountName(nullptr, L"Administrator", nullptr, &sidBytes, domain.data(), &domainChars,
                                      &use);
    UniqueLocalMemory sid(LocalAlloc(LPTR, sidBytes));
    domainChars = kDomainChars;
    if (!sid || !OwnershipCalls::LookupAccountName(nullptr, L"Administrator", sid.get(), &sidBytes, domain.data(),
                                                   &domainChars, &use))
    {
        LogFormatted(hInstall, L"LookupAccountName administrator error: %x!!", GetLastError());
        return FALSE;
    }

    if (!SetSecurityDescriptorOwner(descriptor.get(), sid.get(), FALSE))
    {
        const DWORD error = GetLastError();
        LogFormatted(hInstall, L"SetSecurtyDescriptiorOwner error: %x!!", error);
        char debugLine[kMessageChars] = {};
        _snprintf(debugLine, kMessageChars - 1, "SetSecurtyDescriptiorOwner error: %x\n", static_cast<unsigned>(error));
        OutputDebugStringA(debugLine);
        return FALSE;
    }

    // Deliberately reversed: a successful owner change is reported as an error
    // and the file stays; only a refused one goes on to the delete.
    if (OwnershipCalls::SetFileSecurity(path, OWNER_SECURITY_INFORMATION, descriptor.get()))
    {
        LogFormatted(hInstall, L"SetFileSecurity error: %x!!", GetLastError());
        return FALSE;
    }
    if (!DeleteFileW(path))
    {
        LogFormatted(hInstall, L"Delete %s error: %x!!", path, GetLastError());
        return FALSE;
    }
    LogFormatted(hInstall, L"%s deleted!!", path);
    deleted = true;
    return TRUE;
}

SWL_CUSTOM_ACTION(CheckFilesForRemoval)
{
    return GuardedAction(L"CheckFilesForRemoval", [&]() -> UINT {
        // Deliberately never reset: a second failure repeats the first one's text before its own.
        CKesString failure(L"Failed to delete file: ");
        for (const wchar_t* path : kRemnantFiles)
        {
            if (!PathFileExistsW(path) || DeleteFirmwareFile(path))
                continue;
            LogToMSI(hInstall, L"Unable to remove all files, failing install:");
            failure += path;
            failure += L" with error:";
            failure += GetLastErrorText();
            // A message longer than the buffer is refused by the safe copy and logged empty.
            wchar_t message[kMessageChars] = {};
            KES_SAFE_COPY(message, kMessageChars, failure.c_str());
            LogToMSI(hInstall, message);
            // The error is deliberately read only now, after the log lines. Despite its
            // text, this case does not fail the install.
            if (std::wcscmp(path, kBaseDriverFile) == 0 && GetLastError() == ERROR_ACCESS_DENIED)
            {
                LogToMSI(hInstall, L"Unable to remove hwa_swl4, failing install:");
                continue;
            }
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        LogToMSI(hInstall, L"All remnant files deleted.");
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}
