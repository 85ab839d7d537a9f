"""Guards that stop an installation before anything is installed."""
from swl_scenarios import (CA, PRODUCT_KEY, Package, Prefix, Run, Scenario, exit_code, failed,
                           logged, not_logged, reg, reg_absent, succeeded)

# The guards run first, before costing, as immediate actions. The Registry
# table's product key shows whether the install went on after them.
INSTALLED = reg(PRODUCT_KEY, "InstallDir", r"C:\Program Files\SWL Scenario" + "\\")
NOT_INSTALLED = reg_absent(PRODUCT_KEY)


def guard(entry):
    return Package(actions=[CA(entry, 100)])


SCENARIOS = [
    Scenario(
        name="os_check_stops_windows7",
        title="VerifyOSOrWarn stops the install on Windows 7 (the prefix's default)",
        package=guard("VerifyOSOrWarn"),
        checks=[
            failed("VerifyOSOrWarn"),
            logged("VerifyOSOrWarn()", "Operating system not supported; cannot install", "VerifyOSOrWarn() - Exit"),
            not_logged("Operating system supported"),
            exit_code(1603),
            NOT_INSTALLED,
        ]),
    Scenario(
        name="os_check_passes_windows10",
        title="VerifyOSOrWarn lets a Windows 10 install go on",
        package=guard("VerifyOSOrWarn"),
        prefix=Prefix(windows="win10"),
        checks=[
            succeeded("VerifyOSOrWarn"),
            logged("VerifyOSOrWarn()", "Operating system supported", "VerifyOSOrWarn() - Exit"),
            exit_code(0),
            INSTALLED,
        ]),
    Scenario(
        name="os_check_follows_registry_override",
        title="the product key's OS override makes Windows 10 look like Windows 8.1",
        package=guard("VerifyOSOrWarn"),
        prefix=Prefix(windows="win10", registry={PRODUCT_KEY: {
            "OSMajorVersion": "6", "OSMinorVersion": "3", "OSBuildNumber": "9600", "OSPlatformID": "2",
            "OSServicePackMajor": "0", "OSServicePackMinor": "0", "OSProductType": "1", "OSCSDVersion": ""}}),
        checks=[
            failed("VerifyOSOrWarn"),
            logged("VerifyOSOrWarn()", "Operating system not supported; cannot install"),
            exit_code(1603),
            reg_absent(PRODUCT_KEY, "InstallDir"),
        ]),
    Scenario(
        name="admin_check_passes_for_administrator",
        title="VerifyAdminOrWarn lets an administrator install",
        package=guard("VerifyAdminOrWarn"),
        checks=[
            succeeded("VerifyAdminOrWarn"),
            logged("VerifyAdminOrWarn()", "User is an administrator", "VerifyAdminOrWarn() - Exit"),
            exit_code(0),
            INSTALLED,
        ]),
    Scenario(
        name="launcher_check_stops_direct_install",
        title="IsSetupRunning ends an install not started by the launcher as a user exit",
        package=guard("IsSetupRunning"),
        checks=[
            failed("IsSetupRunning"),
            logged("IsSetupRunning()", "The MSI is not being ran through LSetup, exiting install"),
            exit_code(1602),
            NOT_INSTALLED,
        ]),
    Scenario(
        name="launcher_check_passes_control_panel_removal",
        title="IsSetupRunning accepts ARPREMOVE=1 without the launcher",
        package=guard("IsSetupRunning"),
        runs=[Run("/i", {"ARPREMOVE": "1"})],
        checks=[
            succeeded("IsSetupRunning"),
            logged("IsSetupRunning()", "IsSetupRunning() - Exit"),
            not_logged("The MSI is not being ran through LSetup, exiting install"),
            exit_code(0),
            INSTALLED,
        ]),
]
