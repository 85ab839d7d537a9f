"""The sample package CorvaneSWL.msi, as package/CMakeLists.txt builds it."""
from swl_scenarios import (PRODUCT_KEY, UNINSTALL_KEY, Scenario, every_action_succeeded, exit_code,
                           logged, no_key, ran, reg)

ARP = UNINSTALL_KEY + r"\{product_code}"


def support_folder_gone(c):
    folder = c.value(PRODUCT_KEY, "SupportDir", "install")
    if not folder or not c.path(folder).parent.is_dir():
        return "SupportDir %r is not in an existing folder" % folder
    return "%s still exists" % folder if c.path(folder).exists() else None


SCENARIOS = [
    Scenario(
        name="sample_package_installs_and_removes",
        package="{build}/package/CorvaneSWL.msi",
        windows="win10",
        # No launcher: ARPREMOVE=1, what the uninstall entry passes, lets IsSetupRunning accept the start.
        runs=[("install", "/i ARPREMOVE=1"), ("remove", "/x ARPREMOVE=1")],
        checks=[
            every_action_succeeded(run="install"), exit_code(0, run="install"),
            logged("IsSetupRunning() - Exit", "User is an administrator", "Operating system supported",
                   "WriteMSIPropertyToRegistry() - Exit", "WriteMSIPropertiesToRegistry() - Exit",
                   "Extracted file : hwa_swl4.inf", "Exiting SetupFiles", "Removing temporary files",
                   "WriteARPEntries()", "WriteARPEntries() - Exit", run="install"),
            reg(PRODUCT_KEY, "UILevel", "2", run="install"),
            reg(ARP, "DisplayName", "Corvane(R) Swiftlane Technology {version}", run="install"),
            reg(ARP, "UninstallString", "MsiExec.exe /i {product_code} ARPREMOVE=1", run="install"),
            reg(ARP, "WindowsInstaller", 0, run="install"),
            support_folder_gone,
            ran("IsSetupRunning", run="remove"), ran("WriteARPEntries", None, run="remove"),
            exit_code(0, run="remove"), no_key(ARP), reg(PRODUCT_KEY, "InstallDir", None),
        ]),
]
