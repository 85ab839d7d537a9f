"""What the full package (full_package.py) cannot show: the hardware check's refusals on a workstation and
without WMI, and a driver package that Plug and Play refuses (the newdev.dll double)."""
from swl_scenarios import DOUBLES_KEY, ENUM_PCI, PRODUCT_KEY, Scenario, exit_code, file_is, logged, prop, ran, reg
from scenarios.payload import BINARIES

DRIVERS_KEY = PRODUCT_KEY + r"\DRIVERS"
PF_7XXX = r"PCI\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20"
PF_7XXX_KEY = ENUM_PCI + r"\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\4&1a2b3c4d&0&0008"
STAND_IN = "{build}/test-drivers/"
# The payload with the real stand-in driver package in place of the byte patterns.
PAYLOAD = dict(BINARIES, **{n: STAND_IN + n for n in ["hwa_swl4.inf", "hwa_swl4.sys", "swl_msg4.dll", "hwa_swl4.cat"]})
SERVER_2019 = {PRODUCT_KEY: {
    "OSMajorVersion": "10", "OSMinorVersion": "0", "OSBuildNumber": "17763", "OSPlatformID": "2",
    "OSServicePackMajor": "0", "OSServicePackMinor": "0", "OSProductType": "3", "OSCSDVersion": ""}}
NO_HARDWARE = "No Corvane(R) Swiftlane Technology compatible hardware found; cannot install"
NO_HYPERV = "Hyper-V mode install cannot continue as SRIOV is not supported by OS. "

# After InstallFinalize, as an immediate action would run with the product key made by the Registry table.
INSTALL = [("SetupFiles", 6610, "NOT REMOVE"), ("VerifyHardwareOrWarn", 6611, "NOT REMOVE"),
           ("InstallDrivers", 6612, "NOT REMOVE"), ("SetRegistryKeyForEnableSriov", 6613, "NOT REMOVE")]

SCENARIOS = [
    Scenario(
        name="hyperv_install_on_a_workstation_fails",
        machine="pf-7xxx", package=[("VerifyHardwareOrWarn", 6611)], properties={"HYPERVMODE": "1"},
        checks=[ran("VerifyHardwareOrWarn", 0), exit_code(1603),
                logged("SR-IOV is not supported. Hyper-V configuration cannot be installed.", NO_HYPERV),
                prop("_IsSrIovSupported", None)]),
    # Plug and Play refuses the package (the newdev.dll double answers as Windows does for an unsigned one).
    Scenario(
        name="unsigned_driver_refused_fails_the_install",
        machine="pf-7xxx", package=INSTALL[:3], binaries=PAYLOAD, properties={"INSTALLDLLONLY": "0"},
        doubles={"newdev": {"Result": 0, "LastError": 0xE0000247}},
        checks=[ran("InstallDrivers", 0), exit_code(1603),
                logged("Request to update driver failed for " + PF_7XXX, "InstallDrivers() - Exit"),
                reg(DOUBLES_KEY + r"\newdev\Calls\0001", "HardwareId", PF_7XXX),
                reg(DRIVERS_KEY, PF_7XXX, None), file_is(r"C:\windows\system32\drivers\hwa_swl4.sys", None)]),
    # WMI cannot be had in the action server (its provider switched off): no device is found.
    Scenario(
        name="wmi_unavailable_counts_as_no_device",
        machine="pf-7xxx", package=[("VerifyHardwareOrWarn", 6611)],
        registry={r"HKEY_CURRENT_USER\Software\Wine\AppDefaults\msiexec.exe\DllOverrides": {"wbemprox": ""}},
        checks=[ran("VerifyHardwareOrWarn", 0), exit_code(1603), logged("VerifyHardwareOrWarn()", NO_HARDWARE)]),
]
