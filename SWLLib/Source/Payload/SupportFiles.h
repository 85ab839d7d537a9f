#pragma once
// The support folder: a fresh, protected temporary folder into which SetupFiles
// writes the package's payload (device files, the runtime installer and
// swlzip.dll) from the Binary table, and which CleanSetupFiles removes again.
// Its plain path is recorded in the property "SUPPORTDIR" and in the value
// "SupportDir" under the product key.
#include "KesString.h"
#include "UniqueHandle.h"
#include <windows.h>
#include <msi.h>

// Writes the data of the Binary row binaryName to filePath. False (with an
// Installer-log line) when the name is not a plain identifier, or the database,
// the query or the row's stream cannot be had, or the file cannot be created.
// True once the write loop has ended, even if not every byte was written.
bool ExtractBinary(MSIHANDLE hInstall, const wchar_t* binaryName, const wchar_t* filePath);

// True when name can go into the Binary query as it is: not empty, and only
// ASCII letters, digits, '.', '_' and '-'. Anything else could end the quoted
// literal or change the statement.
bool IsSafeBinaryName(const wchar_t* name);

// The access list of the support folder: Everyone may read, Administrators may
// do everything; no inheritance. descriptor (40 bytes, LocalAlloc) points into
// acl, so the two are kept and freed together.
struct TempFolderSecurity
{
    UniqueLocalMemory acl;
    UniqueLocalMemory descriptor;
};

// Builds the support folder's security descriptor. On failure prints the
// failing step with the system's error text on standard output and returns
// false; out is then empty.
bool BuildTempFolderSecurity(TempFolderSecurity& out);

// Prints format on standard output with the calling thread's last error text
// as its one "%s" argument. Used for the steps of BuildTempFolderSecurity.
void PrintSecurityStepError(const wchar_t* format);

// Creates the folder with the protective access list. Always true: a folder
// that could not be created shows up later as failed extractions.
bool CreateTempFolder(const wchar_t* path);

// Deletes the files directly in the folder, then the folder. Sub-folders are
// not descended into, so a folder holding one stays.
void DeleteFolder(const wchar_t* path);

// The file prefix of a support folder: every "\" doubled and "\\" appended,
// so that prefix + file name is the file's path.
CKesString MakeSupportFilePrefix(const CKesString& folder);
