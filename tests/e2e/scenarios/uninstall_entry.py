"""The product's uninstall entry and the saved Installer properties."""
from swl_scenarios import (CA, UNINSTALL_KEY, Dword, Package, Scenario, exit_code, failed, logged,
                           not_logged, reg, reg_absent, succeeded)

# Both actions run immediately after InstallFinalize: by then Windows Installer
# has registered the product (its uninstall key exists) and the Registry table
# has created the product key. Immediate, because WriteMSIPropertiesToRegistry
# reads "UILevel" from the session, which a deferred action cannot see.
AFTER_FINALIZE = [CA("WriteMSIPropertiesToRegistry", 6610, condition="NOT REMOVE"),
                  CA("WriteARPEntries", 6620, condition="NOT REMOVE")]

SCENARIOS = [
    Scenario(
        name="uninstall_entry_and_saved_uilevel",
        title="a silent install saves UILevel and completes the uninstall entry",
        package=Package(actions=AFTER_FINALIZE, version="2.6.0"),
        checks=[
            succeeded("WriteMSIPropertiesToRegistry"),
            succeeded("WriteARPEntries"),
            logged("WriteMSIPropertiesToRegistry()", "WriteMSIPropertyToRegistry()",
                   "WriteMSIPropertyToRegistry() - Exit", "WriteMSIPropertiesToRegistry() - Exit",
                   "WriteARPEntries()", "WriteARPEntries() - Exit"),
            reg(r"HKLM\SOFTWARE\CORVANE\SWL", "UILevel", "2"),
            reg(UNINSTALL_KEY + r"\{product_code}", "DisplayName", "Corvane(R) Swiftlane Technology 2.6.0"),
            reg(UNINSTALL_KEY + r"\{product_code}", "UninstallString", "MsiExec.exe /i {product_code} ARPREMOVE=1"),
            reg(UNINSTALL_KEY + r"\{product_code}", "WindowsInstaller", Dword(0)),
            exit_code(0),
        ]),
    Scenario(
        name="saved_properties_need_product_key",
        title="without the product key WriteMSIPropertiesToRegistry fails the install",
        package=Package(actions=AFTER_FINALIZE[:1], product_key=False),
        checks=[
            failed("WriteMSIPropertiesToRegistry"),
            logged("WriteMSIPropertiesToRegistry()", "WriteMSIPropertyToRegistry()",
                   r"Failed to open Registry key for MSI properties entry SOFTWARE\CORVANE\SWL",
                   "WriteMSIPropertiesToRegistry() - Exit"),
            not_logged("WriteMSIPropertyToRegistry() - Exit"),
            reg_absent(r"HKLM\SOFTWARE\CORVANE\SWL"),
            exit_code(1603),
        ]),
]
