"""The sample package CorvaneSWL.msi with all its actions, installed and removed through the launcher on
simulated machines: what an administrator's silent deployment does."""
from swl_scenarios import (PRODUCT_KEY, UNINSTALL_KEY, Scenario, exit_code, file_is, logged, machine_restored,
                           no_key, ran_in_order, reg)
from scenarios.hardware import DRIVERS_KEY, PF_7XXX, PF_7XXX_KEY

PACKAGE = "{build}/package/CorvaneSWL.msi"
ARP = UNINSTALL_KEY + r"\{product_code}"
SERVICES = r"HKLM\SYSTEM\CurrentControlSet\Services"
SUMMARY = r"C:\Program Files\Corvane\Corvane(R) Swiftlane Technology\SWLInstallSummary.log"
# Wine's Shell cannot open a .zip (Folder::CopyHere is not implemented), so ExtractOstraPackage copies
# nothing there; the scenarios lay out what it would have unpacked from the package's stand-in.
OSTRA_NATIVE = r"C:\Program Files\Corvane\OSTRA\corvaneostra.win-x64.2.30.0\runtimes\win-x86\native"
OSTRA = {OSTRA_NATIVE + r"\ostra.dll": "{build}/package/payload/ostra/runtimes/win-x86/native/ostra.dll"}



def summary(driver, compression, crypto, swlzip, ostra):
    return ("Corvane(R) SWL Software Installation Summary\r\n\r\nSWL Base Driver: %s\r\n"
            "SWL Compression Service: %s\r\nSWL Crypto Service: %s\r\nSWLzip DLL: %s\r\nOstra DLL: %s\r\n"
            % (driver, compression, crypto, swlzip, ostra)).encode()


GUARDS = ["IsSetupRunning", "VerifyAdminOrWarn", "VerifyOSOrWarn", "WarnRebootRequired_BeforeInstall",
          "WarnUninstallRequired_Upgrade", "HideCancelButton"]
PREPARE = ["WriteMSIPropertiesToRegistry", "SetupFiles", "VerifyHardwareOrWarn", "PeekCRT", "InstallCRT", "HideCRTARP"]
FINISH = ["CleanSetupFiles", "WriteARPEntries", "RequestReboot"]
# A full install: the deferred actions (SR-IOV to RegisterOstra) run when InstallFinalize runs the script.
HARDWARE_INSTALL = GUARDS + PREPARE + ["InstallDrivers", "SetRegistryKeyForEnableSriov", "AddServices",
                                       "RegisterPlugInProvider", "ExtractOstraPackage", "RegisterOstra"] + FINISH
REMOVAL = ["IsSetupRunning", "HideCancelButton", "UnRegisterPlugInProvider", "RemoveServices", "DisableDevices",
           "Delay", "RemoveDevices", "RemoveDrivers", "RemoveFirmware", "CheckFilesForRemoval",
           "WarnRebootRequired_AfterUninstall"]

# What may differ between the machine before the install and after the removal.
LEFT_BY_WINE = (
    r"c:\\windows\\system32\\catroot\\",                      # Wine's copy of the catalogue, not an OEM package
    r"c:\\windows\\inf\\hwa_swl4\.pnf",                       # Wine removes the INF but not its compiled twin
    # Taking ownership needs the account "Administrator", which Wine does not have: the file stays.
    r"c:\\windows\\system32\\swl_msg4\.dll",
    r"software\\classes\\installer\\",                        # Installer's own (emptied) records of the product
    r"software\\microsoft\\windows\\currentversion\\(installer|uninstall)",  # Installer's records of the runs
    r"system\\currentcontrolset\\control\\class\\\{4d36e968",  # Wine's display driver, re-dated at each start
    r"system\\currentcontrolset\\control\\class\\\{4d36e97d",  # Wine's driver key for the removed device
    r"system\\currentcontrolset\\enum\\pci\\ven_1f2e",        # the simulated device, removed: gone is expected
    r"system\\currentcontrolset\\enum\\root\\legacy_",        # Wine's records of the started kernel services
    r"c:\\program files\\corvane\\ostra",                     # placed in the Shell's stead, removed by the package
)

SCENARIOS = [
    Scenario(
        name="full_package_on_a_7xxx_installs_and_removes",
        package=PACKAGE, machine="pf-7xxx", launcher=True, files=OSTRA, keep=(SUMMARY,),
        runs=[("install", "/i"), ("remove", "/x")],
        checks=[
            ran_in_order(*HARDWARE_INSTALL, run="install"), exit_code(0, run="install"),
            logged("IsSetupRunning() - Exit", "User is an administrator", "Operating system supported",
                   "WarnRebootRequired_BeforeInstall : Exit", "WarnUninstallRequired_Upgrade : Exit",
                   "Extracted file : hwa_swl4.inf", "Exiting SetupFiles", "InstallDrivers() - Exit",
                   "Set EnableSriov to 0", "INSTALLCRYPTO=1, adding and starting crypto services.",
                   "Service start succesful for 'tpxprovuser'", "AddServices() - Exit",
                   "RegisterPlugInProvider() - Exit", "RegisterOstra() - Exit", "Removing temporary files",
                   "WriteARPEntries() - Exit", "RequestReboot() - Exit", run="install"),
            reg(PRODUCT_KEY, "UILevel", "2", run="install"),
            reg(DRIVERS_KEY, PF_7XXX, "hwa_swl4.inf", run="install"),
            reg(PF_7XXX_KEY + r"\Device Parameters\Sriov", "EnableSriov", 0, run="install"),
            reg(SERVICES + r"\cfSwl\Parameters", "PreAllocatedMemorySessions", 4, run="install"),
            reg(PRODUCT_KEY + r"\SWFallback", "Location", OSTRA_NATIVE, run="install"),
            reg(ARP, "DisplayName", "Corvane(R) Swiftlane Technology {version}", run="install"),
            reg(ARP, "UninstallString", "MsiExec.exe /i {product_code} ARPREMOVE=1", run="install"),
            file_is(SUMMARY, summary("Successfully Installed", "Successfully Installed", "Successfully Installed",
                                     "Not Installed", "Successfully Installed"), run="install"),
            ran_in_order(*REMOVAL, run="remove"), exit_code(0, run="remove"),
            logged("UnRegisterPlugInProvider() - Exit", "RemoveServices() - Exit", "RemoveDevices: Device removed",
                   "RemoveDrivers() - Exit", "RemoveFirmware() - Exit", "All remnant files deleted.",
                   "WarnRebootRequired_AfterUninstall : Exit", run="remove"),
            *[no_key(SERVICES + "\\" + name, run="remove") for name in ("cfSwl", "TPXPROV", "TPXPROVUSER", "HWA_SWL4")],
            no_key(PRODUCT_KEY, run="remove"), no_key(ARP, run="remove"),
            machine_restored(*LEFT_BY_WINE, run="remove"),
        ]),
]
