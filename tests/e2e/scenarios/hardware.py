"""The hardware check, the driver installation, SR-IOV and device removal on simulated machines, with
Wine's own Plug and Play installing the stand-in driver package (tests/drivers)."""
from swl_scenarios import (DOUBLES_KEY, ENUM_PCI, PRODUCT_KEY, Scenario, exit_code, file_is, logged, no_key, not_logged, prop,
                           ran, reg)
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
        name="pf_7xxx_driver_installed_recorded_and_device_removed",
        machine="pf-7xxx", package=INSTALL + [("RemoveDevices", 6614, 'REMOVE="ALL"')], binaries=PAYLOAD,
        properties={"INSTALLDLLONLY": "0", "INSTALLCRYPTO": "1"},
        runs=[("install", "/i"), ("remove", "/x")],
        checks=[
            ran("VerifyHardwareOrWarn", run="install"), ran("InstallDrivers", run="install"),
            ran("SetRegistryKeyForEnableSriov", run="install"), exit_code(0, run="install"),
            # ("... returned [SUCCESS]" loses its bracketed part in Wine's verbose log.)
            logged("UpdateDriverForDevices: szHardwareID " + PF_7XXX, "Request to update driver successful for " + PF_7XXX, "CRYPTO enabled, register value is asym;dc",
                   "InstallDrivers() - Exit", "Set EnableSriov to 0", run="install"),
            prop("INSTALLCRYPTO", "1", run="install"),
            # Wine records the INF under its own name in the driver store.
            reg(DRIVERS_KEY, PF_7XXX, "hwa_swl4.inf", run="install"),
            reg(DRIVERS_KEY, "hwa_swl4.sys", r"C:\windows\system32\drivers\hwa_swl4.sys", run="install"),
            file_is(r"C:\windows\system32\drivers\hwa_swl4.sys", STAND_IN + "hwa_swl4.sys", run="install"),
            reg(PF_7XXX_KEY + r"\Device Parameters\Sriov", "EnableSriov", 0, run="install"),
            ran("RemoveDevices", run="remove"), exit_code(0, run="remove"),
            logged("RemoveDevices: search devID " + PF_7XXX, "RemoveDevices: Device removed", run="remove"),
            no_key(PF_7XXX_KEY, run="remove"),
        ]),
    Scenario(
        name="vf_only_asks_for_a_virtual_machine_install",
        machine="vf-only", package=[("VerifyHardwareOrWarn", 6611)], properties={"HYPERVMODE": "1"},
        checks=[ran("VerifyHardwareOrWarn"), exit_code(0), logged("VF devices present."), prop("INSTALLVMONLY", "1"),
                not_logged("checkVirtualizationSupport()")]),
    Scenario(
        name="tlmd_installs_its_driver_without_crypto",
        machine="pf-720xx", package=INSTALL[:3], binaries=PAYLOAD,
        properties={"INSTALLDLLONLY": "0", "INSTALLCRYPTO": "1"},
        checks=[ran("InstallDrivers"), exit_code(0), prop("INSTALLCRYPTO", "0"),
                logged("Device ID is a TLM-D device. Disabling crypto related installs - "
                       r"PCI\VEN_1F2E&DEV_6B26&SUBSYS_00001F2E&REV_30"),
                not_logged("SearchRegistryForCryptoCompatibility")]),
    Scenario(
        name="no_device_in_a_silent_install_fails",
        machine="none", package=[("VerifyHardwareOrWarn", 6611)],
        checks=[ran("VerifyHardwareOrWarn", 0), exit_code(1603),
                logged("VerifyHardwareOrWarn()", NO_HARDWARE, "VerifyHardwareOrWarn() - Exit"),
                prop("INSTALLDLLONLY", None)]),
    Scenario(
        name="hyperv_install_on_a_workstation_fails",
        machine="pf-7xxx", package=[("VerifyHardwareOrWarn", 6611)], properties={"HYPERVMODE": "1"},
        checks=[ran("VerifyHardwareOrWarn", 0), exit_code(1603),
                logged("SR-IOV is not supported. Hyper-V configuration cannot be installed.", NO_HYPERV),
                prop("_IsSrIovSupported", None)]),
    Scenario(
        name="hyperv_install_on_server_2019_switches_sriov_on",
        machine="pf-7xxx", registry=SERVER_2019,
        package=[("VerifyHardwareOrWarn", 6611), ("SetRegistryKeyForEnableSriov", 6613)],
        properties={"HYPERVMODE": "1", "CustomActionData": "1"},
        checks=[ran("VerifyHardwareOrWarn"), ran("SetRegistryKeyForEnableSriov"), exit_code(0),
                prop("_IsSrIovSupported", "Yes"), logged("The system supports SR-IOV mode.", "HyperVMode set to 1",
                                                         "Set EnableSriov to 1", "device instance 4&1a2b3c4d&0&0008"),
                reg(PF_7XXX_KEY + r"\Device Parameters\Sriov", "EnableSriov", 1)]),
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
