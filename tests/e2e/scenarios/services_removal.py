"""An install that adds the services and the crypto provider and asks for a reboot, and the removal that takes
everything out again, on a simulated 7xxx; and the two guards that stop an install."""
from swl_scenarios import (PRODUCT_KEY, Scenario, exit_code, file_is, logged, machine_restored, no_key, not_logged,
                           prop, ran, reg)
from scenarios.hardware import DRIVERS_KEY, PAYLOAD, PF_7XXX

SERVICES = r"HKLM\SYSTEM\CurrentControlSet\Services"
TOOL = r"C:\Program Files\SWL Scenario\Crypto\TpxCNGInstaller.exe"
# Real kernel-driver images (the stand-in driver under each service's file name), and the crypto tool stand-in.
FILES = {r"C:\windows\system32\drivers\cfswl.sys": "{build}/bin/cfswl.sys",
         r"C:\windows\system32\drivers\tpxprov.sys": "{build}/bin/tpxprov.sys",
         r"C:\windows\system32\drivers\tpxprovuser.sys": "{build}/bin/tpxprovuser.sys",
         TOOL: "{build}/bin/swl_tool_standin.exe"}
INSTALL = [("SetupFiles", 6610), ("VerifyHardwareOrWarn", 6611), ("InstallDrivers", 6612), ("AddServices", 6613),
           ("RegisterPlugInProvider", 6614), ("RequestReboot", 6615)]
# The removal runs before InstallFinalize takes the product key (and "InstallDir") away.
REMOVE = [("UnRegisterPlugInProvider", 1001), ("RemoveServices", 1002), ("RemoveDevices", 1003),
          ("RemoveDrivers", 1004), ("RemoveFirmware", 1005), ("CheckFilesForRemoval", 1006),
          ("WarnRebootRequired_AfterUninstall", 1007)]
# What may differ between the machine before the install and after the removal:
KEPT = (
    r"c:\\users\\[^\\]+\\temp\\swl",                          # the support folder: CleanSetupFiles' job, not here
    r"c:\\program files\\swl scenario",                       # the tool stand-in and its record of calls (placed)
    r"c:\\windows\\system32\\drivers\\(cfswl|tpxprov|tpxprovuser)\.sys",  # placed; the remnant list removes them
    r"software\\corvane\\swl\\drivers",                     # the driver records, read but never deleted
    r"c:\\windows\\system32\\catroot\\",                     # Wine's copy of the catalogue, not an OEM package
    r"c:\\windows\\inf\\hwa_swl4\.pnf",                      # Wine removes the INF but not its compiled twin
    # Taking ownership needs the account "Administrator", which Wine does not have: the file stays here.
    r"c:\\windows\\system32\\swl_msg4\.dll",
    r"software\\classes\\installer\\",                       # Installer's own (emptied) records of the product
    r"system\\currentcontrolset\\control\\class\\\{4d36e968",  # Wine's display driver, re-dated at each start
    r"software\\corvane\\swl(\\supportdir|\\topprovider|$)",  # values the removal actions never touch
    r"system\\currentcontrolset\\enum\\pci\\ven_1f2e&dev_6b20",  # the simulated device, removed: gone is expected
    r"system\\currentcontrolset\\control\\class\\\{4d36e97d",  # Wine's driver key for the removed device
    r"software\\microsoft\\windows\\currentversion\\(installer|uninstall)",  # Installer's own records of the runs
)

SCENARIOS = [
    Scenario(
        name="install_adds_services_then_removal_leaves_a_clean_machine",
        machine="pf-7xxx", binaries=PAYLOAD, files=FILES, registry={PRODUCT_KEY: {"TopProvider": "1"}},
        ignored=("RequestReboot",),  # it answers 3010, which Installer takes as a failure from an action
        package=[(a, n, "NOT REMOVE") for a, n in INSTALL] + [(a, n, 'REMOVE="ALL"') for a, n in REMOVE],
        properties={"INSTALLDLLONLY": "0", "CustomActionData": "1"},
        runs=[("install", "/i"), ("remove", "/x")],
        checks=[
            *[ran(a, run="install") for a, _ in INSTALL], exit_code(0, run="install"),
            logged("Service start succesful for 'tpxprov'", "Service start succesful for 'tpxprovuser'",
                   "AddServices() - Exit", "RegisterPlugInProvider() - Exit", "RequestReboot()",
                   # "TopProvider" is there and the run is silent: the text instead of REBOOT=Force.
                   "RequestReboot : You must restart your system for the configuration changes made to Corvane(R) "
                   "Swiftlane Technology to take effect.", run="install"),
            prop("REBOOT", None, run="install"),
            reg(SERVICES + r"\cfSwl\Parameters", "PreAllocatedMemorySessions", 4, run="install"),
            reg(SERVICES + r"\TPXPROV", "ImagePath", r"C:\windows\system32\Drivers\tpxprov.sys", run="install"),
            reg(DRIVERS_KEY, "hwa_swl4.sys", r"C:\windows\system32\drivers\hwa_swl4.sys", run="install"),
            *[ran(a, run="remove") for a, _ in REMOVE], exit_code(0, run="remove"),
            logged("UnRegisterPlugInProvider() - Exit", "RemoveServices() - Exit", "RemoveDevices: Device removed",
                   "RemoveDrivers() - Exit", "RemoveFirmware() - Exit", run="remove"),
            not_logged("Found services pending removal, a reboot is required to complete uninstall.", run="remove"),
            *[no_key(SERVICES + "\\" + name, run="remove") for name in ("cfSwl", "TPXPROV", "TPXPROVUSER", "HWA_SWL4")],
            # The records stay: removal reads them and deletes what they name, never the values themselves.
            reg(DRIVERS_KEY, PF_7XXX, "hwa_swl4.inf", run="remove"),
            file_is(r"C:\windows\system32\drivers\hwa_swl4.sys", None, run="remove"),
            machine_restored(*KEPT, run="remove"),
        ]),
    # An older version is being replaced: the install stops before anything is done.
    Scenario(
        name="upgrade_guard_stops_the_install",
        package=[("WarnUninstallRequired_Upgrade", 100)], properties={"UPGRADING": "1"},
        checks=[ran("WarnUninstallRequired_Upgrade", 0), exit_code(1603), no_key(PRODUCT_KEY),
                logged("WarnUninstallRequired_Upgrade()", "A previous version was detected and must be uninstalled. "
                       "The Corvane(R) Swiftlane installer cannot continue.", "WarnUninstallRequired_Upgrade : Exit")]),
    # A remnant of an earlier install that cannot be deleted (a folder where CfSwl.sys should be) means a reboot
    # is pending: the install stops, as on a machine where the driver file is still held.
    Scenario(
        name="pending_reboot_guard_stops_the_install",
        package=[("WarnRebootRequired_BeforeInstall", 100)],
        files={r"C:\windows\system32\drivers\CfSwl.sys\held": b""},
        checks=[ran("WarnRebootRequired_BeforeInstall", 0), exit_code(1603), no_key(PRODUCT_KEY),
                logged("WarnRebootRequired_BeforeInstall()",
                       "IsRebootRequired : not all files could be removed, reboot required",
                       "A reboot is pending. The Corvane(R) Swiftlane installer cannot continue. Please reboot the "
                       "system and run the installer again.", "WarnRebootRequired_BeforeInstall : Exit")]),
]
