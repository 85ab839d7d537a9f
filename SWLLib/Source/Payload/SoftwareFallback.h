#pragma once
// Software compression fallback: swlzip.dll copied into the system folder, and
// the Ostra library unpacked from its package file in the product's program
// folder into a fixed folder that is recorded in the registry for swlzip.dll.
#include "KesString.h"
#include <windows.h>
#include <msi.h>

// Fixed locations; deliberately not derived from properties or from the
// system's program-files folder.
extern const wchar_t* const kOstraPackagePath;     // the .nupkg as delivered
extern const wchar_t* const kOstraZipPath;         // the same file while it is unpacked
extern const wchar_t* const kOstraBaseFolder;      // C:\Program Files\Corvane\OSTRA
extern const wchar_t* const kOstraVersionedFolder; // "\corvaneostra.win-x64.2.30.0", added to the base
extern const wchar_t* const kOstraNativeFolder;    // the folder that must hold ostra.dll
extern const wchar_t* const kOstraFallbackKey;     // SOFTWARE\Corvane\SWL\SWFallback (HKLM)

// Copies swlzip.dll from the folder in "SUPPORTDIR" into the system folder,
// replacing a file already there. False, with an Installer-log line, when the
// system folder is unknown or the copy fails.
bool InstallDlls(MSIHANDLE hInstall);

// Unpacks the compressed folder zipFile into targetFolder through the Windows
// Shell (Shell.Application: NameSpace, Items, CopyHere with no UI). Nothing is
// reported: the copy's result is not examined and its end not awaited. Copies
// nothing (with a trace line) when either cannot be opened as a folder.
// The caller has initialised COM on this thread.
void UnpackZipWithShell(const wchar_t* zipFile, const wchar_t* targetFolder);

// Test seam for the unpack step of ExtractOstraPackage. Wine's Shell opens no
// .zip as a folder and does not implement CopyHere, so a test replaces this
// to make the unpack succeed or fail; everything around it stays real.
// Default: UnpackZipWithShell.
struct OstraUnpackCalls
{
    static void (*UnpackWithShell)(const wchar_t* zipFile, const wchar_t* targetFolder);
};
