"""Payload extraction into the support folder, and the actions that need the product key."""
import re
from swl_scenarios import PRODUCT_KEY, Scenario, exit_code, logged, no_key, not_logged, ran, reg

# GetTempFileNameW in the user's temporary folder (Wine: C:\users\<name>\Temp).
SUPPORT_DIR = re.compile(r"C:\\users\\[^\\]+\\(AppData\\Local\\)?Temp\\SWL[0-9A-F]{1,4}\.tmp", re.I)
DEVICE_FILES = ["hwa_swl4.inf", "hwa_swl4.sys", "swl_msg4.dll", "hwa_swl4.cat",
                "swl_m31x.bin", "swl_m31x_mmp.bin", "swl_7xxx.bin", "swl_7xxx_mmp.bin",
                "swl_702xx.bin", "swl_702xx_mmp.bin", "swl_720xx.bin", "swl_720xx_mmp.bin"]
# Every byte value, so that a text-mode or truncated copy shows.
BINARIES = {n: ("stand-in for %s\r\n" % n).encode() + bytes(range(256)) * 3
            for n in DEVICE_FILES + ["vcredist_x64", "swlzip.dll"]}


def support_folder_holds(files):
    """SUPPORTDIR and "SupportDir" name the folder, which holds exactly these files."""
    def check(c):
        folder = c.value(PRODUCT_KEY, "SupportDir")
        if not folder or c.log().props.get("SUPPORTDIR") != folder:
            return "SUPPORTDIR %r, SupportDir %r" % (c.log().props.get("SUPPORTDIR"), folder)
        path = c.path(folder)
        found = {p.name: p.read_bytes() for p in path.iterdir()} if path.is_dir() else {}
        return None if found == files else "%s holds other files or bytes: %s" % (folder, sorted(found))
    return check


# Immediate, after InstallFinalize: by then the Registry table has made the product key.
SCENARIOS = [
    Scenario(
        name="setup_files_extracts_payload",
        package=[("SetupFiles", 6610)], binaries=BINARIES, properties={"INSTALLDLLONLY": "0"},
        checks=[
            ran("SetupFiles"), exit_code(0),
            logged(*["Extracted file : " + n for n in DEVICE_FILES], "Exiting SetupFiles"),
            reg(PRODUCT_KEY, "SupportDir", SUPPORT_DIR),
            support_folder_holds(dict({n: BINARIES[n] for n in DEVICE_FILES}, **{
                "vcredist.exe": BINARIES["vcredist_x64"], "swlzip.dll": BINARIES["swlzip.dll"]})),
        ]),
    Scenario(
        name="setup_files_software_only_without_installdllonly",
        package=[("SetupFiles", 6610)], binaries=BINARIES,
        checks=[ran("SetupFiles"), logged("Exiting SetupFiles"), not_logged("Extracted file : hwa_swl4.inf"),
                support_folder_holds({"swlzip.dll": BINARIES["swlzip.dll"]})]),
    # The actions open the product key, never create it.
    Scenario(
        name="missing_product_key_fails_install",
        package=[("WriteMSIPropertiesToRegistry", 6610, "NOT CLEAN"), ("CleanSetupFiles", 6611, "CLEAN")],
        product_key=False,
        runs=[("save", "/i"), ("clean", "/i CLEAN=1")],
        checks=[
            ran("WriteMSIPropertiesToRegistry", 0, run="save"), exit_code(1603, run="save"),
            logged("WriteMSIPropertiesToRegistry()", "WriteMSIPropertyToRegistry()",
                   r"Failed to open Registry key for MSI properties entry SOFTWARE\CORVANE\SWL",
                   "WriteMSIPropertiesToRegistry() - Exit", run="save"),
            not_logged("WriteMSIPropertyToRegistry() - Exit", run="save"),
            ran("CleanSetupFiles", 0), exit_code(1603), no_key(PRODUCT_KEY),
            logged("Removing temporary files", "Cannot get required registry key SupportDir"),
        ]),
]
