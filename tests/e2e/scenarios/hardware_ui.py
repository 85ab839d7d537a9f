"""The person at the screen: the no-hardware message box, answered Yes (run with --ui under xvfb-run)."""
from swl_scenarios import Scenario, box_shown, exit_code, file_is, logged, prop, ran
from scenarios.payload import BINARIES

CAPTION = "Corvane\u00ae Swiftlane Technology Install Wizard"
NO_HARDWARE = ("Cannot install drivers. No supported Corvane\u00ae Swiftlane Technology Accelerator devices are "
               "present on this system.\r\n\r\nClick 'Yes' if you want to install components to use software "
               "compression or 'No' to cancel.")


SCENARIOS = [
    # No device at all: the box offers the software-only install, and Yes takes it.
    Scenario(
        name="no_hardware_answered_yes_installs_software_only",
        package=[("SetupFiles", 6610), ("VerifyHardwareOrWarn", 6611)], binaries=BINARIES,
        answer=("Install Wizard", "Return"),
        checks=[
            box_shown(CAPTION, NO_HARDWARE), ran("SetupFiles"), ran("VerifyHardwareOrWarn"), exit_code(0),
            logged("VerifyHardwareOrWarn()",
                   "No Corvane(R) Swiftlane Technology compatible hardware found; cannot install",
                   "No supported SWL devices are present on this system. Install swlzip.dll in System32.",
                   "InstallDlls()", "VerifyHardwareOrWarn() - Exit"),
            prop("INSTALLDLLONLY", "1"), file_is(r"C:\windows\system32\swlzip.dll", BINARIES["swlzip.dll"]),
        ]),
]
