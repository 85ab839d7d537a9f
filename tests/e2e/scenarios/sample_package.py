"""The sample package CorvaneSWL.msi, as built by package/CMakeLists.txt."""
from swl_scenarios import (PRODUCT_KEY, UNINSTALL_KEY, Prebuilt, Prefix, Run, Scenario, custom,
                           every_action_succeeded, exit_code, logged, not_run, reg, reg_absent, succeeded)

ARP = UNINSTALL_KEY + r"\{product_code}"


def support_folder_gone(ctx):
    value = ctx.reg_value(PRODUCT_KEY, "SupportDir", "install")
    if value is None:
        return "SupportDir not written"
    return "%s still exists" % value[1] if ctx.host_path(value[1]) is not None else None


SCENARIOS = [
    Scenario(
        name="sample_package_installs_and_removes",
        title="CorvaneSWL.msi installs on Windows 10 and is removed from the control panel",
        package=Prebuilt("{build}/package/CorvaneSWL.msi", "{03D159D5-D0D1-4A41-B640-1EE26AC63AD2}"),
        prefix=Prefix(windows="win10"),
        # No launcher here: ARPREMOVE=1 is what the uninstall entry passes, and
        # IsSetupRunning accepts it in place of the launcher.
        runs=[Run("/i", {"ARPREMOVE": "1"}), Run("/x", {"ARPREMOVE": "1"})],
        checks=[
            every_action_succeeded(run="install"),
            logged("IsSetupRunning() - Exit", "User is an administrator", "Operating system supported",
                   "WriteMSIPropertiesToRegistry() - Exit", "Extracted file : hwa_swl4.inf",
                   "Exiting SetupFiles", "Removing temporary files", "WriteARPEntries() - Exit", run="install"),
            exit_code(0, run="install"),
            reg(PRODUCT_KEY, "UILevel", "2", run="install"),
            reg(ARP, "DisplayName", "Corvane(R) Swiftlane Technology {version}", run="install"),
            reg(ARP, "UninstallString", "MsiExec.exe /i {product_code} ARPREMOVE=1", run="install"),
            custom("the support folder is gone after the install", support_folder_gone),
            succeeded("IsSetupRunning", run="remove"),
            not_run("WriteARPEntries", run="remove"),
            exit_code(0, run="remove"),
            reg_absent(ARP),
            reg_absent(PRODUCT_KEY, "InstallDir"),
        ]),
]
