// The package's custom actions with nothing in them: each returns success at
// once. install_bench puts this DLL in the package's SWLLib row to measure what
// Installer itself spends on calling 32 actions (writing the DLL out of the
// Binary table, loading it, a thread per call), apart from what ours do.
#include <windows.h>

#define SWL_NOOP_ACTION(name) \
    extern "C" __declspec(dllexport) UINT __stdcall name(ULONG) { return 0; }

SWL_NOOP_ACTION(WriteARPEntries)
SWL_NOOP_ACTION(WriteMSIPropertiesToRegistry)
SWL_NOOP_ACTION(SetupFiles)
SWL_NOOP_ACTION(CleanSetupFiles)
SWL_NOOP_ACTION(ExtractOstraPackage)
SWL_NOOP_ACTION(RegisterOstra)
SWL_NOOP_ACTION(VerifyAdminOrWarn)
SWL_NOOP_ACTION(VerifyOSOrWarn)
SWL_NOOP_ACTION(IsSetupRunning)
SWL_NOOP_ACTION(HideCancelButton)
SWL_NOOP_ACTION(Delay)
SWL_NOOP_ACTION(VerifyHardwareOrWarn)
SWL_NOOP_ACTION(InstallDrivers)
SWL_NOOP_ACTION(RemoveDevices)
SWL_NOOP_ACTION(DisableDevices)
SWL_NOOP_ACTION(EnableDevices)
SWL_NOOP_ACTION(SetRegistryKeyForEnableSriov)
SWL_NOOP_ACTION(RegisterPlugInProvider)
SWL_NOOP_ACTION(UnRegisterPlugInProvider)
SWL_NOOP_ACTION(PeekCRT)
SWL_NOOP_ACTION(InstallCRT)
SWL_NOOP_ACTION(HideCRTARP)
SWL_NOOP_ACTION(CheckFilesForRemoval)
SWL_NOOP_ACTION(AddServices)
SWL_NOOP_ACTION(RemoveServices)
SWL_NOOP_ACTION(RestartServices)
SWL_NOOP_ACTION(RequestReboot)
SWL_NOOP_ACTION(WarnRebootRequired_BeforeInstall)
SWL_NOOP_ACTION(WarnRebootRequired_AfterUninstall)
SWL_NOOP_ACTION(WarnUninstallRequired_Upgrade)
SWL_NOOP_ACTION(RemoveDrivers)
SWL_NOOP_ACTION(RemoveFirmware)
