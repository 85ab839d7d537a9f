"""The Visual C++ runtime prerequisite in a machine without the runtime: it is asked for, and neither
a missing runtime installer nor a missing runtime entry fails the install."""
from swl_scenarios import Scenario, exit_code, logged, prop, ran

SUPPORT = r"C:\no such folder"
RUNTIME_ENTRY = r"SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\{b49c10dd-4d54-45f8-ad13-fa25704456a4}"


SCENARIOS = [
    Scenario(
        name="runtime_prerequisite_never_fails_the_install",
        package=[("PeekCRT", 6610), ("InstallCRT", 6611), ("HideCRTARP", 6612)],
        properties={"SUPPORTDIR": SUPPORT},
        checks=[
            ran("PeekCRT"), ran("InstallCRT"), ran("HideCRTARP"), exit_code(0), prop("ADDCRT", "1"),
            logged("PeekCRT", "Installation of Visual C++ runtime is required", "Entering InstallCRT", SUPPORT,
                   'InstallCRT - command line is:"%s\\vcredist.exe" /install /passive /norestart /silent' % SUPPORT,
                   "InstallCRT - MSIExec_Execute - failed", "Entering HideCRTARP()", "Opening Key: " + RUNTIME_ENTRY,
                   "Failed opening ARP GUID registry key", "Exiting HideCRTARP()"),
        ]),
]
