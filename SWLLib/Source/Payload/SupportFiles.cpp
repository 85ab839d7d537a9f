#include "Payload/SupportFiles.h"
#include "Devices/DeviceCatalogue.h"
#include "KesTrace.h"
#include "KesRegKey.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include <aclapi.h>
#include <msiquery.h>
#include <shlwapi.h>
#include <cstdio>
#include <string>
#include <vector>

namespace
{
const DWORD kPathChars = 260;
// A security descriptor in absolute form on a 64-bit system.
const SIZE_T kDescriptorBytes = 40;

bool IsSafeBinaryNameChar(wchar_t c)
{
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') || c == L'.' ||
           c == L'_' || c == L'-';
}

// Opens the product key (never creates it) and sets "SupportDir".
bool RecordSupportDir(const CKesString& folder)
{
    CKesRegKey key;
    CKesString value(folder);
    return key.Open(HKEY_LOCAL_MACHINE, kProductKey, true) && key.SetValue(L"SupportDir", value, false);
}
} // namespace

bool IsSafeBinaryName(const wchar_t* name)
{
    if (name == nullptr || *name == L'\0')
        return false;
    for (const wchar_t* p = name; *p; ++p)
        if (!IsSafeBinaryNameChar(*p))
            return false;
    return true;
}

bool ExtractBinary(MSIHANDLE hInstall, const wchar_t* binaryName, const wchar_t* filePath)
{
    CKesDebugScope scope(L"ExtractBinary");
    g_Debug.Print(L"ExtractBinary: %s %s", binaryName ? binaryName : L"(null)", filePath ? filePath : L"(null)");

    // The name is placed in the query as it is, so anything that could end the
    // quoted literal or change the statement is refused instead of escaped:
    // Binary names are plain identifiers.
    if (!IsSafeBinaryName(binaryName))
    {
        LogToMSI(hInstall, L"ExtractBinary: refused Binary name with characters other than letters, digits, "
                           L"'.', '_' or '-' : ",
                 binaryName ? binaryName : L"");
        return false;
    }
    if (filePath == nullptr)
    {
        LogToMSI(hInstall, L"ExtractBinary: no file path for ", binaryName);
        return false;
    }

    PMSIHANDLE database = MsiGetActiveDatabase(hInstall);
    if (!database)
    {
        LogToMSI(hInstall, L"MsiGetActiveDatabase failed");
        return false;
    }

    CKesString query(L"SELECT `Binary`.`Name`, `Binary`.`Data` FROM `Binary` WHERE `Binary`.`Name`='");
    query += binaryName;
    query += L"'";
    PMSIHANDLE view;
    if (MsiDatabaseOpenViewW(database, query, &view) != ERROR_SUCCESS)
    {
        LogToMSI(hInstall, L"MsiDatabaseOpenViewW failed");
        return false;
    }
    if (MsiViewExecute(view, 0) != ERROR_SUCCESS)
    {
        LogToMSI(hInstall, L"MsiViewExecute failed");
        return false;
    }
    PMSIHANDLE record;
    if (MsiViewFetch(view, &record) != ERROR_SUCCESS)
    {
        LogToMSI(hInstall, L"MsiViewFetch failed");
        return false;
    }

    DWORD size = 0;
    if (MsiRecordReadStream(record, 2, nullptr, &size) != ERROR_SUCCESS)
    {
        LogToMSI(hInstall, L"MsiRecordReadStream failed");
        return false;
    }
    std::vector<char> data(size);
    DWORD read = size;
    MsiRecordReadStream(record, 2, data.data(), &read); // status deliberately not examined

    HANDLE created = CreateFileW(filePath, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    // Deliberately compared with null only: INVALID_HANDLE_VALUE passes, and the
    // write below then fails, which does not change the answer.
    if (created == nullptr)
    {
        LogToMSI(hInstall, L"CreateFileW failed");
        return false;
    }
    UniqueFileHandle file(created);

    DWORD total = 0;
    while (total < size)
    {
        DWORD written = 0;
        if (!WriteFile(file.get(), data.data() + total, size - total, &written, nullptr))
            break;
        // A write that succeeds without progress would never end the loop.
        if (written == 0)
            break;
        total += written;
    }
    // Deliberately true once the loop has ended, whether or not every byte was written.
    return true;
}

void PrintSecurityStepError(const wchar_t* format)
{
    CKesString errorText = GetLastErrorText();
    CKesString line;
    line.FormatString(format, errorText.c_str());
    int bytes = WideCharToMultiByte(CP_ACP, 0, line.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return;
    std::string narrow(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_ACP, 0, line.c_str(), -1, &narrow[0], bytes, nullptr, nullptr);
    fputs(narrow.c_str(), stdout);
    fflush(stdout);
}

bool BuildTempFolderSecurity(TempFolderSecurity& out)
{
    CKesDebugScope scope(L"BuildTempFolderSecurity");
    out.descriptor.reset();
    out.acl.reset();

    SID_IDENTIFIER_AUTHORITY worldAuthority = SECURITY_WORLD_SID_AUTHORITY;
    UniqueSid everyone;
    if (!AllocateAndInitializeSid(&worldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, everyone.put()))
    {
        PrintSecurityStepError(L"AllocateAndInitializeSid Error %s\n");
        return false;
    }
    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    UniqueSid administrators;
    if (!AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0,
                                  0, 0, administrators.put()))
    {
        PrintSecurityStepError(L"AllocateAndInitializeSid Error %s\n");
        return false;
    }

    // Each entry sets (not adds to) one group's rights on the folder alone.
    auto grant = [](DWORD access, TRUSTEE_TYPE type, PSID sid) {
        EXPLICIT_ACCESSW entry = {};
        entry.grfAccessPermissions = access;
        entry.grfAccessMode = SET_ACCESS;
        entry.grfInheritance = NO_INHERITANCE;
        entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
        entry.Trustee.TrusteeType = type;
        entry.Trustee.ptstrName = static_cast<LPWSTR>(sid);
        return entry;
    };
    EXPLICIT_ACCESSW entries[2] = {grant(GENERIC_READ, TRUSTEE_IS_WELL_KNOWN_GROUP, everyone.get()),
                                   grant(GENERIC_ALL, TRUSTEE_IS_GROUP, administrators.get())};

    PACL acl = nullptr;
    DWORD aclResult = SetEntriesInAclW(2, entries, nullptr, &acl);
    if (aclResult != ERROR_SUCCESS)
    {
        // SetEntriesInAcl returns its error instead of setting the thread's.
        SetLastError(aclResult);
        PrintSecurityStepError(L"SetEntriesInAcl Error %s\n");
        return false;
    }
    UniqueLocalMemory aclOwner(acl);

    UniqueLocalMemory descriptor(LocalAlloc(LPTR, kDescriptorBytes));
    if (!descriptor)
    {
        PrintSecurityStepError(L"LocalAlloc Error %s\n");
        return false;
    }
    if (!InitializeSecurityDescriptor(descriptor.get(), SECURITY_DESCRIPTOR_REVISION))
    {
        PrintSecurityStepError(L"InitializeSecurityDescriptor Error %s\n");
        return false;
    }
    if (!SetSecurityDescriptorDacl(descriptor.get(), TRUE, acl, FALSE))
    {
        PrintSecurityStepError(L"SetSecurityDescriptorDacl Error %s\n");
        return false;
    }

    out.acl = std::move(aclOwner);
    out.descriptor = std::move(descriptor);
    return true;
}

bool CreateTempFolder(const wchar_t* path)
{
    CKesDebugScope scope(L"CreateTempFolder");
    TempFolderSecurity security;
    if (BuildTempFolderSecurity(security))
    {
        SECURITY_ATTRIBUTES attributes = {};
        attributes.nLength = sizeof(attributes);
        attributes.lpSecurityDescriptor = security.descriptor.get();
        attributes.bInheritHandle = FALSE;
        CreateDirectoryW(path, &attributes); // deliberately not examined
        g_Debug.Print(L"Temp folder created '%s'", path);
    }
    return true;
}

void DeleteFolder(const wchar_t* path)
{
    CKesDebugScope scope(L"DeleteFolder");
    if (!PathFileExistsW(path))
    {
        g_Debug.Print(L"Unable delete '%s', it doesnt exist", path);
        return;
    }

    CKesString pattern(path);
    pattern += L"\\*.*";
    WIN32_FIND_DATAW entry = {};
    UniqueFindHandle search(FindFirstFileW(pattern, &entry));
    if (search)
    {
        // The first entry is deliberately not processed: it is the folder's own ".".
        while (FindNextFileW(search.get(), &entry))
        {
            CKesString name(entry.cFileName);
            if (name == L"." || name == L"..")
                continue;
            CKesString full(path);
            full += L"\\";
            full += name;
            g_Debug.Print(L"Deleting file '%s'", full.c_str());
            // Sub-folders deliberately get DeleteFileW too, which leaves them (and the folder) in place.
            DeleteFileW(full);
        }
    }
    search.reset();
    g_Debug.Print(L"Deleting directory '%s'", path);
    RemoveDirectoryW(path);
}

CKesString MakeSupportFilePrefix(const CKesString& folder)
{
    CKesString prefix;
    for (wchar_t c : folder)
    {
        if (c == L'\\')
            prefix += L"\\\\";
        else
            prefix.push_back(c);
    }
    prefix += L"\\\\";
    return prefix;
}

SWL_CUSTOM_ACTION(SetupFiles)
{
    return GuardedAction(L"SetupFiles", [&]() -> UINT {
        CKesDebugScope scope(L"SetupFiles");

        wchar_t tempPath[kPathChars] = {};
        wchar_t folderPath[kPathChars] = {};
        GetTempPathW(kPathChars, tempPath);
        if (GetTempFileNameW(tempPath, L"SWL", 0, folderPath) == 0)
            KES_TRACE_ERROR(L"SetupFiles: GetTempFileNameW failed in '%s': %s", tempPath, GetLastErrorText().c_str());
        // GetTempFileNameW made an empty file of that name; the folder takes its place.
        DeleteFileW(folderPath);
        CreateTempFolder(folderPath);

        const CKesString folder(folderPath);
        const CKesString prefix = MakeSupportFilePrefix(folder);

        CKesString dllOnly;
        GetMSIProperty(hInstall, L"INSTALLDLLONLY", dllOnly);
        if (dllOnly == L"0")
        {
            CKesString runtimePath(prefix);
            runtimePath += L"vcredist.exe";
            LogToMSI(hInstall, runtimePath);
            ExtractBinary(hInstall, L"vcredist_x64", runtimePath); // deliberately not examined

            std::vector<CKesString> deviceFiles = g_SWLDevices.GetFilesForAllDevices();
            g_Debug.Print(L"SetupFiles : Extracting files for all devices into the temporary directory");
            for (const CKesString& name : deviceFiles)
            {
                if (name.empty())
                    continue;
                CKesString filePath(prefix);
                filePath += name;
                if (ExtractBinary(hInstall, name, filePath))
                    LogToMSI(hInstall, L"Extracted file : ", name);
                else
                    LogToMSI(hInstall, L"Failed to extract file :", name);
            }
        }

        CKesString zipPath(prefix);
        zipPath += L"swlzip.dll";
        if (!ExtractBinary(hInstall, L"swlzip.dll", zipPath))
            LogToMSI(hInstall, L"Failed to extract swlzip.dll.");

        if (!RecordSupportDir(folder))
        {
            LogToMSI(hInstall, L"Cannot set required registry key : ", L"SupportDir");
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }

        MsiSetPropertyW(hInstall, L"SUPPORTDIR", folder);
        LogToMSI(hInstall, L"Exiting SetupFiles");
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}

SWL_CUSTOM_ACTION(CleanSetupFiles)
{
    return GuardedAction(L"CleanSetupFiles", [&]() -> UINT {
        CKesDebugScope scope(L"CleanSetupFiles");
        LogToMSI(hInstall, L"Removing temporary files");

        CKesRegKey key;
        CKesString folder;
        if (!key.Open(HKEY_LOCAL_MACHINE, kProductKey, false) || !key.GetValue(L"SupportDir", folder))
        {
            LogToMSI(hInstall, L"Cannot get required registry key ", L"SupportDir");
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        // The value itself stays; the next SetupFiles overwrites it.
        DeleteFolder(folder);
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}
