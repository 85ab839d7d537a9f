"""The person at the screen: the no-hardware message box, answered Yes (run with --ui under xvfb-run)."""
from swl_scenarios import Scenario, box_shown, exit_code, logged, ran
from scenarios.payload import BINARIES

CAPTION = "Corvane\u00ae Swiftlane Technology Install Wizard"
NO_HARDWARE = ("Cannot install drivers. No supported Corvane\u00ae Swiftlane Technology Accelerator devices are "
               "present on this system.\r\n\r\nClick 'Yes' if you want to install components to use software "
               "compression or 'No' to cancel.")


def system_file_is(name, data):
    def check(c):
        path = c.path("C:\\windows\\system32\\" + name)
        return None if path.is_file() and path.read_bytes() == data else "%s is missing or differs" % path
    return check


def property_is(name, want):
    return lambda c: None if c.log().props.get(name) == want else "%s = %r, expected %r" % (
        name, c.log().props.get(name), want)


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
            property_is("INSTALLDLLONLY", "1"), system_file_is("swlzip.dll", BINARIES["swlzip.dll"]),
        ]),
]
