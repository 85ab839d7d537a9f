"""The sample package CorvaneSWL.msi with all its actions, installed and removed through the launcher on
simulated machines: what an administrator's silent deployment does."""
from swl_scenarios import (PRODUCT_KEY, UNINSTALL_KEY, Scenario, box_shown, exit_code, file_is, logged,
                           machine_restored, no_key, not_logged, prop, ran, ran_in_order, reg)
from scenarios.hardware import DRIVERS_KEY, PF_7XXX, PF_7XXX_KEY, SERVER_2019

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


GUARDS = ["IsSetupRunning", "VerifyAdminOrWarn", "VerifyOSOrWarn", "WarnUninstallRequired_Upgrade",
          "WarnRebootRequired_BeforeInstall", "HideCancelButton"]
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
    # With our provider as the default one: silent, so RequestReboot says so in the log instead of setting REBOOT.
    Scenario(
        name="full_package_on_a_7xxx_installs_and_removes",
        package=PACKAGE, machine="pf-7xxx", launcher=True, files=OSTRA,
        keep=(SUMMARY, r"C:\windows\system32\drivers\hwa_swl4.sys"),
        runs=[("install", "/i TOPPROVIDER=1"), ("remove", "/x")],
        checks=[
            ran_in_order(*HARDWARE_INSTALL, run="install"), exit_code(0, run="install"),
            logged("IsSetupRunning() - Exit", "User is an administrator", "Operating system supported",
                   "WarnUninstallRequired_Upgrade : Exit", "WarnRebootRequired_BeforeInstall : Exit",
                   "Extracted file : hwa_swl4.inf", "Exiting SetupFiles",
                   # ("... returned [SUCCESS]" loses its bracketed part in Wine's verbose log.)
                   "UpdateDriverForDevices: szHardwareID " + PF_7XXX, "Request to update driver successful for " +
                   PF_7XXX, "CRYPTO enabled, register value is asym;dc", "InstallDrivers() - Exit",
                   "Set EnableSriov to 0", "INSTALLCRYPTO=1, adding and starting crypto services.",
                   "Service start succesful for 'tpxprovuser'", "AddServices() - Exit",
                   "RegisterPlugInProvider() - Exit", "RegisterOstra() - Exit", "Removing temporary files",
                   "WriteARPEntries() - Exit", "RequestReboot()",
                   "RequestReboot : You must restart your system for the configuration changes made to Corvane(R) "
                   "Swiftlane Technology to take effect.", "RequestReboot() - Exit", run="install"),
            prop("REBOOT", None, run="install"), reg(PRODUCT_KEY, "TopProvider", "1", run="install"),
            reg(PRODUCT_KEY, "UILevel", "2", run="install"),
            # Wine records the INF under its own name in the driver store.
            reg(DRIVERS_KEY, PF_7XXX, "hwa_swl4.inf", run="install"),
            reg(DRIVERS_KEY, "hwa_swl4.sys", r"C:\windows\system32\drivers\hwa_swl4.sys", run="install"),
            file_is(r"C:\windows\system32\drivers\hwa_swl4.sys", "{build}/test-drivers/hwa_swl4.sys", run="install"),
            reg(SERVICES + r"\TPXPROV", "ImagePath", r"C:\windows\system32\Drivers\tpxprov.sys", run="install"),
            reg(PF_7XXX_KEY + r"\Device Parameters\Sriov", "EnableSriov", 0, run="install"),
            reg(SERVICES + r"\cfSwl\Parameters", "PreAllocatedMemorySessions", 4, run="install"),
            reg(PRODUCT_KEY + r"\SWFallback", "Location", OSTRA_NATIVE, run="install"),
            reg(ARP, "DisplayName", "Corvane(R) Swiftlane Technology {version}", run="install"),
            reg(ARP, "UninstallString", "MsiExec.exe /i {product_code} ARPREMOVE=1", run="install"),
            file_is(SUMMARY, summary("Successfully Installed", "Successfully Installed", "Successfully Installed",
                                     "Not Installed", "Successfully Installed"), run="install"),
            ran_in_order(*REMOVAL, run="remove"), exit_code(0, run="remove"),
            logged("UnRegisterPlugInProvider() - Exit", "RemoveServices() - Exit", "RemoveDevices: search devID " +
                   PF_7XXX, "RemoveDevices: Device removed",
                   "RemoveDrivers() - Exit", "RemoveFirmware() - Exit", "All remnant files deleted.",
                   "WarnRebootRequired_AfterUninstall : Exit", run="remove"),
            *[no_key(SERVICES + "\\" + name, run="remove") for name in ("cfSwl", "TPXPROV", "TPXPROVUSER", "HWA_SWL4")],
            no_key(PRODUCT_KEY, run="remove"), no_key(ARP, run="remove"), no_key(PF_7XXX_KEY, run="remove"),
            file_is(r"C:\windows\system32\drivers\hwa_swl4.sys", None, run="remove"),
            machine_restored(*LEFT_BY_WINE, run="remove"),
        ]),
]

NO_HARDWARE = "No Corvane(R) Swiftlane Technology compatible hardware found; cannot install"
VF_INSTALL = GUARDS + PREPARE + ["InstallDrivers", "SetRegistryKeyForEnableSriov", "AddServices",
                                 "RegisterPlugInProvider", "ExtractOstraPackage", "RegisterOstra"] + FINISH
VF_7XXX = r"PCI\VEN_1F2E&DEV_6B21&SUBSYS_00001F2E&REV_20"

# Other machines.
SCENARIOS += [
    # Inside a virtual machine: only virtual functions, which get the driver too.
    Scenario(
        name="full_package_on_virtual_functions_only",
        package=PACKAGE, machine="vf-only", launcher=True, files=OSTRA,
        checks=[ran_in_order(*VF_INSTALL), exit_code(0), logged("VF devices present.", "InstallDrivers() - Exit"),
                reg(DRIVERS_KEY, VF_7XXX, "hwa_swl4.inf"), prop("INSTALLVMONLY", "1"),
                not_logged("checkVirtualizationSupport()")]),
    # A TLM-D part has no crypto: InstallDrivers clears INSTALLCRYPTO, and AddServices' data, taken after it,
    # says so; the crypto provider is not registered.
    Scenario(
        name="full_package_on_tlmd_leaves_crypto_out",
        package=PACKAGE, machine="pf-720xx", launcher=True, files=OSTRA, keep=(SUMMARY,),
        checks=[ran_in_order(*[a for a in HARDWARE_INSTALL if a != "RegisterPlugInProvider"]), exit_code(0),
                prop("INSTALLCRYPTO", "0"),
                not_logged("SearchRegistryForCryptoCompatibility"),
                logged("Device ID is a TLM-D device. Disabling crypto related installs - "
                       r"PCI\VEN_1F2E&DEV_6B26&SUBSYS_00001F2E&REV_30", "InstallDrivers() - Exit", "AddServices()",
                       "Crypto is not supported, crypto services will not be installed.", "AddServices() - Exit"),
                no_key(SERVICES + r"\TPXPROV"), no_key(SERVICES + r"\TPXPROVUSER"),
                file_is(SUMMARY, summary("Successfully Installed", "Successfully Installed", "Not Installed (Not supported)",
                                         "Not Installed", "Successfully Installed"))]),
    # No device and nobody to ask: the install stops after the hardware check, and nothing stays.
    Scenario(
        name="full_package_without_hardware_fails_silently",
        package=PACKAGE, machine="none", launcher=True,
        checks=[ran_in_order(*GUARDS, "WriteMSIPropertiesToRegistry", "SetupFiles", "VerifyHardwareOrWarn=0"),
                exit_code(1603), logged("VerifyHardwareOrWarn()", NO_HARDWARE, "VerifyHardwareOrWarn() - Exit"),
                prop("INSTALLDLLONLY", "0"), no_key(PRODUCT_KEY),
                # Wine does not roll back: on Windows the product folder and the component records go too.
                machine_restored(r"c:\\program files\\corvane", r"software\\microsoft\\windows\\currentversion\\installer")]),
    # A Hyper-V host on Server 2019: SR-IOV is supported, and the deferred action's data switches it on.
    Scenario(
        name="full_package_in_hyperv_mode_on_server_2019",
        package=PACKAGE, machine="pf-7xxx", registry=SERVER_2019, launcher=True, files=OSTRA,
        runs=[("install", "/i HYPERVMODE=1")],
        checks=[ran_in_order(*HARDWARE_INSTALL), exit_code(0),
                prop("_IsSrIovSupported", "Yes"),
                logged("The system supports SR-IOV mode.", "SetRegistryKeyForEnableSriov()", "HyperVMode set to 1",
                       "Set EnableSriov to 1", "device instance 4&1a2b3c4d&0&0008"),
                reg(PF_7XXX_KEY + r"\Device Parameters\Sriov", "EnableSriov", 1)]),
]

# Guards, and the exit codes that come out of the launcher for them.
SCENARIOS += [
    # Without the launcher (a distribution tool that runs msiexec itself): 1602, and nothing changes.
    Scenario(
        name="full_package_started_directly_stops_with_1602",
        package=PACKAGE, machine="pf-7xxx",
        checks=[ran_in_order("IsSetupRunning=0"), exit_code(1602), no_key(PRODUCT_KEY),
                logged("IsSetupRunning()", "The MSI is not being ran through LSetup, exiting install"),
                machine_restored()]),
    # An older version is installed: the upgrade guard answers 15609, which Installer turns into 1603.
    Scenario(
        name="full_package_over_an_older_version_stops",
        package=PACKAGE, machine="pf-7xxx", launcher=True, files=OSTRA,
        runs=[("older", "/i", "{build}/package/older/CorvaneSWL.msi"), ("install", "/i")],
        checks=[exit_code(0, run="older"), ran("WarnUninstallRequired_Upgrade", 0), exit_code(1603),
                prop("UPGRADING", "1"),
                logged("WarnUninstallRequired_Upgrade()", "A previous version was detected and must be uninstalled. "
                       "The Corvane(R) Swiftlane installer cannot continue.", "WarnUninstallRequired_Upgrade : Exit"),
                reg(ARP.replace("{product_code}", "{9A4E27C3-61F0-4B8D-A5C2-3D7E90B4F118}"), "DisplayVersion",
                    "2.5.0")]),
    # A driver file that cannot be deleted means a reboot is pending: 3010 from the guard, 1603 from Installer.
    Scenario(
        name="full_package_with_a_pending_reboot_stops",
        package=PACKAGE, machine="pf-7xxx", launcher=True,
        files={r"C:\windows\system32\drivers\CfSwl.sys\held": b""},
        checks=[ran("WarnRebootRequired_BeforeInstall", 0), exit_code(1603), no_key(PRODUCT_KEY),
                logged("WarnRebootRequired_BeforeInstall()", "IsRebootRequired : not all files could be removed, "
                       "reboot required")]),
    # Windows 7 (the base prefix): the OS check stops the install.
    Scenario(
        name="full_package_on_windows_7_stops",
        package=PACKAGE, machine="pf-7xxx", windows="win7", launcher=True,
        checks=[ran("VerifyOSOrWarn", 0), exit_code(1603), no_key(PRODUCT_KEY),
                logged("VerifyOSOrWarn()", "Operating system not supported; cannot install")]),
    # The launcher without its package beside it: 1619, and no Installer run at all.
    Scenario(
        name="launcher_without_its_package_stops_with_1619",
        package=PACKAGE, machine="pf-7xxx", launcher="alone",
        checks=[exit_code(1619), ran_in_order(), machine_restored()]),
    # The administrator asked for our provider as the default one: the first install asks for a restart,
    # which a run with a user interface reports as 3010 (here /qb, without restarting).
    Scenario(
        name="full_package_with_default_provider_asks_for_a_restart",
        package=PACKAGE, machine="pf-7xxx", launcher=True, files=OSTRA,
        runs=[("install", "/i TOPPROVIDER=1 /qb /norestart")],
        checks=[ran_in_order(*HARDWARE_INSTALL), exit_code(3010), reg(PRODUCT_KEY, "TopProvider", "1"),
                logged("RequestReboot()", "RequestReboot : Setting REBOOT to 'FORCE'", "RequestReboot() - Exit")]),
]

CAPTION = "Corvane\u00ae Swiftlane Technology Install Wizard"
NO_HARDWARE_BOX = ("Cannot install drivers. No supported Corvane\u00ae Swiftlane Technology Accelerator devices are "
                   "present on this system.\r\n\r\nClick 'Yes' if you want to install components to use software "
                   "compression or 'No' to cancel.")

# A person at the screen (run with --ui under xvfb-run): no device, and Yes to the software-only install.
SCENARIOS += [
    Scenario(
        name="full_package_without_hardware_answered_yes_installs_software_only",
        package=PACKAGE, machine="none", launcher=True, files=OSTRA, keep=(SUMMARY,),
        answer=("Install Wizard", "Return"),
        checks=[box_shown(CAPTION, NO_HARDWARE_BOX),
                ran_in_order(*GUARDS, *PREPARE, "ExtractOstraPackage", "RegisterOstra", *FINISH), exit_code(0),
                logged("No supported SWL devices are present on this system. Install swlzip.dll in System32.",
                       "InstallDlls()", "VerifyHardwareOrWarn() - Exit", "RegisterOstra() - Exit"),
                prop("INSTALLDLLONLY", "1"),
                file_is(r"C:\windows\system32\swlzip.dll", "{build}/package/payload/swlzip.dll"),
                file_is(SUMMARY, summary("Not Installed", "Not Installed (No SWL Hardware detected)",
                                         "Not Installed (No SWL Hardware detected)", "Successfully Installed",
                                         "Successfully Installed"))]),
]
