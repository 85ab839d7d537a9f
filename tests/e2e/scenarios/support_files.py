"""Payload extraction into the support folder and its removal."""
from swl_scenarios import (CA, PRODUCT_KEY, Match, Package, Scenario, custom, exit_code, failed,
                           logged, not_logged, prop, reg, succeeded)

# GetTempFileNameW in the user's temporary folder: "SWL", up to four hex digits,
# ".tmp" (Wine's folder is C:\users\<name>\Temp, Windows' ...\AppData\Local\Temp).
SUPPORT_DIR = Match(r"C:\\users\\[^\\]+\\(AppData\\Local\\)?Temp\\SWL[0-9A-F]{1,4}\.tmp")

DEVICE_FILES = ["hwa_swl4.inf", "hwa_swl4.sys", "swl_msg4.dll", "hwa_swl4.cat",
                "swl_m31x.bin", "swl_m31x_mmp.bin", "swl_7xxx.bin", "swl_7xxx_mmp.bin",
                "swl_702xx.bin", "swl_702xx_mmp.bin", "swl_720xx.bin", "swl_720xx_mmp.bin"]


def stand_in(name: str) -> bytes:
    # Every byte value, so a text-mode or truncated copy shows.
    return ("stand-in for %s\r\n" % name).encode() + bytes(range(256)) * 3


BINARIES = {name: stand_in(name) for name in DEVICE_FILES}
BINARIES["vcredist_x64"] = stand_in("vcredist_x64")
BINARIES["swlzip.dll"] = stand_in("swlzip.dll")


def support_folder_holds(expected):
    """The folder named by "SupportDir" holds exactly these files (name -> bytes)."""
    def fn(ctx):
        value = ctx.reg_value(PRODUCT_KEY, "SupportDir")
        if value is None:
            return "SupportDir not written"
        folder = ctx.host_path(value[1])
        if folder is None or not folder.is_dir():
            return "no folder %s" % value[1]
        found = {p.name: p.read_bytes() for p in folder.iterdir()}
        if sorted(found) != sorted(expected):
            return "folder holds %s" % sorted(found)
        wrong = [n for n, data in expected.items() if found[n] != data]
        return "content differs: %s" % wrong if wrong else None
    return custom("the support folder holds %s" % ", ".join(sorted(expected)), fn)


def support_folder_gone(ctx):
    value = ctx.reg_value(PRODUCT_KEY, "SupportDir")
    if value is None:
        return "SupportDir not written"
    return "%s still exists" % value[1] if ctx.host_path(value[1]) is not None else None


def supportdir_property_matches_registry(ctx):
    value = ctx.reg_value(PRODUCT_KEY, "SupportDir")
    got = ctx.log().properties.get("SUPPORTDIR")
    return None if value and got == value[1] else "SUPPORTDIR = %r, SupportDir = %r" % (got, value)


# The product key exists only after WriteRegistryValues has run, and the
# actions are immediate, so they come after InstallFinalize.
SCENARIOS = [
    Scenario(
        name="setup_files_extracts_payload",
        title="SetupFiles writes every payload row into a new SWL*.tmp folder",
        package=Package(actions=[CA("SetupFiles", 6610)], binaries=BINARIES,
                        properties={"INSTALLDLLONLY": "0"}),
        checks=[
            succeeded("SetupFiles"),
            logged(*["Extracted file : " + n for n in DEVICE_FILES], "Exiting SetupFiles"),
            not_logged("Failed to extract swlzip.dll."),
            reg(PRODUCT_KEY, "SupportDir", SUPPORT_DIR),
            prop("SUPPORTDIR", SUPPORT_DIR),
            custom("SUPPORTDIR equals SupportDir", supportdir_property_matches_registry),
            support_folder_holds({**{n: BINARIES[n] for n in DEVICE_FILES},
                                  "vcredist.exe": BINARIES["vcredist_x64"],
                                  "swlzip.dll": BINARIES["swlzip.dll"]}),
            exit_code(0),
        ]),
    Scenario(
        name="setup_files_software_only",
        title="without INSTALLDLLONLY=0 only swlzip.dll is extracted",
        package=Package(actions=[CA("SetupFiles", 6610)], binaries=BINARIES),
        checks=[
            succeeded("SetupFiles"),
            logged("Exiting SetupFiles"),
            not_logged("Extracted file : hwa_swl4.inf"),
            support_folder_holds({"swlzip.dll": BINARIES["swlzip.dll"]}),
        ]),
    Scenario(
        name="clean_setup_files_removes_support_folder",
        title="CleanSetupFiles deletes the folder SetupFiles made; SupportDir stays",
        package=Package(actions=[CA("SetupFiles", 6610), CA("CleanSetupFiles", 6620)], binaries=BINARIES,
                        properties={"INSTALLDLLONLY": "0"}),
        checks=[
            succeeded("SetupFiles"),
            succeeded("CleanSetupFiles"),
            logged("Extracted file : swl_720xx_mmp.bin", "Exiting SetupFiles", "Removing temporary files"),
            reg(PRODUCT_KEY, "SupportDir", SUPPORT_DIR),
            custom("the support folder is gone", support_folder_gone),
            exit_code(0),
        ]),
    Scenario(
        name="clean_setup_files_needs_support_dir",
        title="CleanSetupFiles fails the install when SupportDir was never written",
        package=Package(actions=[CA("CleanSetupFiles", 6620)]),
        checks=[
            failed("CleanSetupFiles"),
            logged("Removing temporary files", "Cannot get required registry key SupportDir"),
            exit_code(1603),
        ]),
]
