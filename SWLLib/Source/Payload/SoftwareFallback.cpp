#include "Payload/SoftwareFallback.h"
#include "KesTrace.h"
#include "KesRegKey.h"
#include "Payload/InstallSummary.h"
#include "Services/ServiceControl.h"
#include "Session/CustomAction.h"
#include "Session/Session.h"
#include "UniqueHandle.h"
#include <ole2.h>
#include <oleauto.h>
#include <shldisp.h>
#include <shlwapi.h>

const wchar_t* const kOstraPackagePath = L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\"
                                         L"Library\\corvaneostra.win-x64.2.30.0.nupkg";
const wchar_t* const kOstraZipPath = L"C:\\Program Files\\Corvane\\Corvane(R) Swiftlane Technology\\Compression\\"
                                     L"Library\\corvaneostra.win-x64.2.30.0.zip";
const wchar_t* const kOstraBaseFolder = L"C:\\Program Files\\Corvane\\OSTRA";
const wchar_t* const kOstraVersionedFolder = L"\\corvaneostra.win-x64.2.30.0";
// "win-x86" although the product is 64-bit: this is where the package keeps the DLL.
const wchar_t* const kOstraNativeFolder =
    L"C:\\Program Files\\Corvane\\OSTRA\\corvaneostra.win-x64.2.30.0\\runtimes\\win-x86\\native";
const wchar_t* const kOstraFallbackKey = L"SOFTWARE\\Corvane\\SWL\\SWFallback";

void (*OstraUnpackCalls::UnpackWithShell)(const wchar_t* zipFile, const wchar_t* targetFolder) = UnpackZipWithShell;

namespace
{
const DWORD kPathChars = 260;
const wchar_t* const kSwlZipName = L"swlzip.dll";
// FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOCONFIRMMKDIR | FOF_NOERRORUI
const LONG kCopyHereOptions = 1556;

// A VT_BSTR variant that frees its string.
class BstrVariant
{
public:
    explicit BstrVariant(const wchar_t* text)
    {
        VariantInit(&m_value);
        m_value.vt = VT_BSTR;
        m_value.bstrVal = SysAllocString(text);
    }
    ~BstrVariant() { VariantClear(&m_value); }
    BstrVariant(const BstrVariant&) = delete;
    BstrVariant& operator=(const BstrVariant&) = delete;
    const VARIANT& get() const { return m_value; }

private:
    VARIANT m_value;
};

} // namespace

bool InstallDlls(MSIHANDLE hInstall)
{
    CKesDebugScope scope(L"InstallDlls");
    LogToMSI(hInstall, L"InstallDlls()");

    CKesString supportDir;
    GetMSIProperty(hInstall, L"SUPPORTDIR", supportDir);
    wchar_t systemDir[kPathChars] = {};
    UINT length = GetSystemDirectoryW(systemDir, kPathChars);
    if (length == 0 || length >= kPathChars)
    {
        LogToMSI(hInstall, L"InstallDlls: cannot retrieve system directory.");
        return false;
    }

    CKesString source(supportDir);
    source += L"\\";
    source += kSwlZipName;
    CKesString target(systemDir);
    target += L"\\";
    target += kSwlZipName;
    LogToMSI(hInstall, L"InstallDlls: Source file path for swlzip.dll: ", source);
    LogToMSI(hInstall, L"InstallDlls: Target file path for swlzip.dll: ", target);

    if (!CopyFileW(source, target, FALSE))
    {
        LogToMSI(hInstall, L"InstallDlls: failed to copy swlzip.dll from ", source);
        return false;
    }
    return true;
}

void UnpackZipWithShell(const wchar_t* zipFile, const wchar_t* targetFolder)
{
    CKesDebugScope scope(L"UnpackZipWithShell");
    ComRef<IShellDispatch> shell;
    HRESULT hr = CoCreateInstance(CLSID_Shell, nullptr, CLSCTX_INPROC_SERVER, IID_IShellDispatch,
                                  reinterpret_cast<void**>(shell.put()));
    if (FAILED(hr) || !shell)
    {
        // Without the Shell there is nothing to copy with; the missing library
        // is reported later by RegisterOstra.
        KES_TRACE_ERROR(L"UnpackZipWithShell: cannot create the Shell object: 0x%08X", static_cast<unsigned>(hr));
        return;
    }

    BstrVariant targetName(targetFolder);
    BstrVariant zipName(zipFile);
    ComRef<Folder> target;
    ComRef<Folder> zip;
    shell->NameSpace(targetName.get(), target.put());
    shell->NameSpace(zipName.get(), zip.put());

    ComRef<FolderItems> items;
    if (zip)
        zip->Items(items.put());
    // A missing or unreadable archive leaves no items; the Shell is not handed
    // an empty argument, and RegisterOstra reports the library as missing.
    if (!target || !items)
    {
        g_Debug.Print(L"UnpackZipWithShell: nothing copied from '%s' into '%s'", zipFile, targetFolder);
        return;
    }
    VARIANT itemsArg;
    VariantInit(&itemsArg);
    itemsArg.vt = VT_DISPATCH;
    itemsArg.pdispVal = items.get();
    VARIANT options;
    VariantInit(&options);
    options.vt = VT_I4;
    options.lVal = kCopyHereOptions;
    // Deliberately neither examined nor awaited: the Shell copies on its own.
    target->CopyHere(itemsArg, options);
}

SWL_CUSTOM_ACTION(ExtractOstraPackage)
{
    return GuardedAction(L"ExtractOstraPackage", [&]() -> UINT {
        LogToMSI(hInstall, L"ExtractOstraPackage()");

        if (!PathFileExistsW(kOstraPackagePath))
        {
            KES_TRACE_ERROR(L"ExtractOstraPackage: cannot find archieve in %s", kOstraPackagePath);
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        // The Shell opens the package as a compressed folder only under a .zip name.
        if (!MoveFileW(kOstraPackagePath, kOstraZipPath))
        {
            g_Debug.Print(L"ExtractOstraPackage, renaming nupkg to zip failed with Error : %s",
                          GetLastErrorText().c_str());
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }

        // Deliberate asymmetry: a first install (base folder created now) unpacks
        // into the versioned sub-folder, any later one into the base folder.
        CKesString target(kOstraBaseFolder);
        if (!PathFileExistsW(kOstraBaseFolder) && CreateDirectoryW(kOstraBaseFolder, nullptr))
        {
            target += kOstraVersionedFolder;
            if (!CreateDirectoryW(target, nullptr))
            {
                g_Debug.Print(L"ExtractOstraPackage, cannot create target directory.. Error : %s",
                              GetLastErrorText().c_str());
                // Deliberately returned without renaming the package back.
                return static_cast<UINT>(ERROR_GEN_FAILURE);
            }
        }

        // S_FALSE (already initialised in the same mode) is success and is balanced below.
        if (FAILED(CoInitialize(nullptr)))
            return 1u; // deliberately without renaming the package back
        OstraUnpackCalls::UnpackWithShell(kOstraZipPath, target);
        CoUninitialize();

        if (PathFileExistsW(kOstraZipPath) && !MoveFileW(kOstraZipPath, kOstraPackagePath))
        {
            g_Debug.Print(L"ExtractOstraPackage, renaming zip to nupkg failed with Error : %s",
                          GetLastErrorText().c_str());
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}

SWL_CUSTOM_ACTION(RegisterOstra)
{
    return GuardedAction(L"RegisterOstra", [&]() -> UINT {
        LogToMSI(hInstall, L"RegisterOstra()");

        // No base driver: this is a software-only install, and its summary is
        // written here whether or not the registration below succeeds.
        if (GetServiceStatus(L"HWA_SWL4") == 0)
            WriteInstallSummary(hInstall, false);

        CKesString dllPath(kOstraNativeFolder);
        dllPath += L"\\ostra.dll";
        if (!PathFileExistsW(dllPath))
        {
            LogToMSI(hInstall, L"RegisterOstra: can not find Ostra DLL in ", kOstraNativeFolder);
            KES_TRACE_ERROR(L"RegisterOstra: Cannot find Ostra dll in %s", kOstraNativeFolder);
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }

        CKesRegKey key;
        CKesString location(kOstraNativeFolder);
        if (!key.Create(HKEY_LOCAL_MACHINE, kOstraFallbackKey, true, false) ||
            !key.SetValue(L"Location", location, false))
        {
            KES_TRACE_ERROR(L"RegisterOstra: Cannot set registry key %s", kOstraFallbackKey);
            return static_cast<UINT>(ERROR_GEN_FAILURE);
        }

        LogToMSI(hInstall, L"RegisterOstra() - Exit");
        return static_cast<UINT>(ERROR_SUCCESS);
    });
}
