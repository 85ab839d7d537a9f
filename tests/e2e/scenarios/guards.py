"""Guards that stop an install before anything is installed."""
from swl_scenarios import PRODUCT_KEY, Scenario, exit_code, logged, no_key, not_logged, ran, reg

NOT_LAUNCHED = "The MSI is not being ran through LSetup, exiting install"
UNSUPPORTED = "Operating system not supported; cannot install"

# The guards run first, before costing; the Registry table's product key shows
# whether the install went on after them.
SCENARIOS = [
    # Windows 7, the base prefix's. ARPREMOVE=1 is what the uninstall entry passes.
    Scenario(
        name="guards_stop_direct_start_and_windows7",
        package=[("IsSetupRunning", 100), ("VerifyAdminOrWarn", 101), ("VerifyOSOrWarn", 102)],
        runs=[("direct", "/i"), ("arpremove", "/i ARPREMOVE=1")],
        checks=[
            ran("IsSetupRunning", 0, run="direct"), ran("VerifyAdminOrWarn", None, run="direct"),
            logged("IsSetupRunning()", NOT_LAUNCHED, run="direct"), exit_code(1602, run="direct"),
            ran("IsSetupRunning"), ran("VerifyAdminOrWarn"), ran("VerifyOSOrWarn", 0),
            logged("IsSetupRunning() - Exit", "VerifyAdminOrWarn()", "User is an administrator",
                   "VerifyAdminOrWarn() - Exit", "VerifyOSOrWarn()", UNSUPPORTED, "VerifyOSOrWarn() - Exit"),
            not_logged(NOT_LAUNCHED), not_logged("Operating system supported"),
            exit_code(1603), no_key(PRODUCT_KEY),
        ]),
    # The product key's override makes Windows 10 look like Windows 8.1.
    Scenario(
        name="os_check_follows_registry_override",
        package=[("VerifyOSOrWarn", 100)],
        windows="win10",
        registry={PRODUCT_KEY: {
            "OSMajorVersion": "6", "OSMinorVersion": "3", "OSBuildNumber": "9600", "OSPlatformID": "2",
            "OSServicePackMajor": "0", "OSServicePackMinor": "0", "OSProductType": "1", "OSCSDVersion": ""}},
        checks=[ran("VerifyOSOrWarn", 0), logged("VerifyOSOrWarn()", UNSUPPORTED), exit_code(1603),
                reg(PRODUCT_KEY, "InstallDir", None)]),
]
