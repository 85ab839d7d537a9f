"""The device test support as msiexec's action server sees it: a simulated machine's devices and the
newdev.dll/cfgmgr32.dll doubles, through a test-only custom action (tests/e2e/probe)."""
from swl_scenarios import DOUBLES_KEY, Scenario, logged, no_key, reg

PROBE = "{build}/e2e-probe/swl_device_probe.dll"
M31X = r"PCI\VEN_1F2E&DEV_5A10&SUBSYS_00001F2E&REV_40"   # the first of ours SetupAPI lists (key order)
CALL = DOUBLES_KEY + r"\%s\Calls\0001"

SCENARIOS = [
    Scenario(
        name="machine_and_doubles_reach_the_action_server",
        package=[("ProbeDevices", 100)], dll=PROBE, machine="pf-vf-mix",
        doubles={"newdev": {"Result": 0, "LastError": 0xE000020B, "Reboot": 1},
                 "cfgmgr32": {"DevInst": 77, "ReenumerateResult": 0x17}},
        checks=[
            logged("device: " + M31X + r"\4&3C0FFEE1&0&0010",
                   r"device: PCI\VEN_1F2E&DEV_6B24&SUBSYS_00001F2E&REV_11\4&2D3E4F50&0&0020",
                   r"device: PCI\VEN_1F2E&DEV_6B25&SUBSYS_00001F2E&REV_11\5&7F00AA01&0&0001",
                   r"device: PCI\VEN_1F2E&DEV_6B25&SUBSYS_00001F2E&REV_11\5&7F00AA01&0&0002"),
            logged("UpdateDriverForPlugAndPlayDevicesW: 0, error 0xE000020B, reboot 1",
                   "CM_Locate_DevNodeA: 0x0, DEVINST 77", "CM_Reenumerate_DevNode: 0x17"),
            reg(CALL % "newdev", "HardwareId", M31X),
            reg(CALL % "newdev", "FullInfPath", r"C:\stand-in\hwa_swl4.inf"),
            reg(CALL % "newdev", "Process", r"C:\windows\system32\msiexec.exe"),
            reg(CALL % "cfgmgr32", "DeviceID", M31X + r"\4&3C0FFEE1&0&0010"),
            reg(DOUBLES_KEY + r"\cfgmgr32\Calls\0002", "DevInst", 77),
        ]),
    # Without doubles the action server gets Wine's own DLLs: success for any ID, CR_CALL_NOT_IMPLEMENTED.
    Scenario(
        name="without_doubles_the_action_server_gets_wines_dlls",
        package=[("ProbeDevices", 100)], dll=PROBE, machine="pf-7xxx",
        checks=[
            logged(r"device: PCI\VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20\4&1A2B3C4D&0&0008",
                   "UpdateDriverForPlugAndPlayDevicesW: 1, error 0x00000000, reboot 0",
                   "CM_Locate_DevNodeA: 0x13, DEVINST 0", "CM_Reenumerate_DevNode: 0x13"),
            no_key(DOUBLES_KEY),
        ]),
]
