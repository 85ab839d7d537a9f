#!/usr/bin/env python3
"""The main job after the build: the sample package installed and removed through the launcher
SwlSetup.exe in a throwaway Windows 10 prefix with a simulated accelerator, showing what a user and
support would look at. Called by tools/main-job.sh.

  main_job.py --build DIR [--machine NAME]

NAME is a profile of tests/machines (pf-7xxx by default) or one of: tlmd (a 720xx TLM-D part),
hyperv-server2019 (a 7xxx in a Server 2019 Hyper-V host, installed with HYPERVMODE=1), none (no
device: the silent install is refused), pending-reboot (a 7xxx where a driver file of an earlier
install cannot be deleted: the install is refused). The logs, the trace file and the install summary stay in
BUILD/main-job/NAME/; with --swltrace, the support tool's summary of the trace file ends the job.
Exit code 0 when every stage gave what the machine should give.
"""

import argparse, shutil, subprocess, sys, time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/e2e"))
import swl_scenarios as e2e  # noqa: E402
from scenarios import full_package, hardware  # noqa: E402

TRACE = r"C:\SWLDBG.txt"   # in a folder that exists: the trace does not create folders
SUMMARY = full_package.SUMMARY
SERVICES = ("HWA_SWL4", "cfSwl", "TPXPROV", "TPXPROVUSER")
START = {0: "boot", 1: "system", 2: "automatic", 3: "demand", 4: "disabled"}
# name: (machine profile, extra registry, msiexec properties, expected install exit code, what it shows)
PROFILES = {
    "tlmd": ("pf-720xx", {}, [], 0, "a TLM-D part: no crypto services"),
    "hyperv-server2019": ("pf-7xxx", hardware.SERVER_2019, ["HYPERVMODE=1"], 0,
                          "a Hyper-V host on Server 2019: SR-IOV switched on"),
    "none": ("none", {}, [], 1603, "no device: a silent install is refused"),
    "vf-only": ("vf-only", {}, [], 0, "virtual functions only, as inside a virtual machine"),
    "pending-reboot": ("pf-7xxx", {}, [], 1603, "a driver file of an earlier install cannot be deleted: a "
                       "reboot is pending, and the install is refused"),
}
# Files placed before the install, per profile: a folder where CfSwl.sys should be cannot be deleted, as a
# driver file still in use cannot.
PLACED = {"pending-reboot": {r"C:\windows\system32\drivers\CfSwl.sys\held": b""}}
CODES = {0: "success", 1602: "stopped: not started through SwlSetup.exe", 1603: "the install failed",
         3010: "success, restart needed"}


class Job:
    def __init__(self, args):
        self.build, self.name, self.swltrace = args.build, args.machine, args.swltrace
        machine, extra, self.props, self.expected, self.about = PROFILES.get(
            args.machine, (args.machine, {}, [], 0, "a machine of tests/machines"))
        self.out = self.build / "main-job" / args.machine
        self.started, self.stage, self.ok = time.monotonic(), 0, True
        self.scenario = e2e.Scenario(name="main-job", package=None, checks=[], machine=machine,
                                     registry={e2e.PRODUCT_KEY: {"Trace": 1, "Log": TRACE}, **extra},
                                     files=PLACED.get(args.machine, full_package.OSTRA))
        self.prefix = self.out / "prefix"

    def progress(self, text):
        self.stage += 1
        print("\n[%d/5 %5.1f s] %s" % (self.stage, time.monotonic() - self.started, text), flush=True)

    def fail(self, text):
        print("   FAILED: " + text, flush=True)
        self.ok = False

    def wine(self, *command, timeout=300):
        return e2e.sh(["wine", *command], self.out, self.prefix, timeout)

    def stop(self):
        e2e.sh([e2e.PREFIX_TOOL, "stop", str(self.prefix)], self.out, self.prefix)

    def run_launcher(self, name, *arguments):
        e2e.start_first_process(self.out, self.prefix)
        log = self.out / (name + ".log")
        code = self.wine("SwlSetup.exe", *arguments, "/qn", "/l*v", log.name)
        if not log.exists():   # Wine itself failed to start (seen on loaded machines): once more
            print("   (Wine did not start the launcher; trying once more)")
            self.stop()
            code = self.wine("SwlSetup.exe", *arguments, "/qn", "/l*v", log.name)
        self.stop()   # ending the server writes the registry files
        return code, e2e.Log(log)

    def show_exit(self, code, expected):
        # Linux sees the low 8 bits of the exit code: 1603 arrives as 67.
        full = next((c for c in CODES if c & 0xFF == code), code)
        print("   SwlSetup.exe exit code %d (%s)" % (full, CODES.get(full, "unexpected")))
        if full != expected:
            self.fail("expected %d (%s)" % (expected, CODES.get(expected)))

    def show_actions(self, log):
        """Each of our actions with its result, and the lines our actions wrote."""
        results = {}
        for m in map(e2e.ENDED.match, log.lines):
            if m and m[1] in self.actions:
                results[m[1]] = m[2]
        print("   our custom actions, in the order they ran (1 = success; the package ignores the results of "
              "DisableDevices, RemoveDevices and RequestReboot):")
        for action, result in results.items():
            print("     %-34s %s" % (action, result))
        print("   Installer-log lines of our actions (%d in all), the key ones:" % len(log.ours))
        keys = ("()", "- Exit", ": Exit", "succes", "fail", "FAIL", "Extracted", "Set EnableSriov",
                "crypto", "Crypto", "hardware", "Device removed", "remnant", "REBOOT")
        for line in log.ours:
            if any(k in line for k in keys) and not line.endswith(("()", "() - Exit", ": Exit")):
                print("     " + line)

    def show_machine(self, hklm):
        drivers = hklm.get(hardware.DRIVERS_KEY.split("\\", 1)[1].lower(), {})
        print("   recorded drivers (%s):" % hardware.DRIVERS_KEY)
        for name, value in drivers.items() or [("", "(none)")]:
            print("     %s = %s" % (name, value))
        print("   kernel services:")
        for service in SERVICES:
            values = hklm.get(("system\\currentcontrolset\\services\\" + service).lower())
            print("     %-12s %s" % (service, "(not present)" if values is None else "start %s, %s" % (
                START.get(values.get("start"), values.get("start")), values.get("imagepath", "no image path"))))
        product = hklm.get(e2e.PRODUCT_KEY.split("\\", 1)[1].lower(), {})
        print("   product key %s:" % e2e.PRODUCT_KEY)
        for name, value in product.items():
            print("     %s = %s" % (name, value))

    def read_trace(self):
        """What support would look at first: swltrace's summary of the trace with the install's log."""
        print("\nThe trace file as support reads it: swltrace --summary SWLDBG.txt --msi-log install.log "
              "(full report: %s)" % (self.out / "swltrace.html"))
        command = [str(self.swltrace), "--no-color", str(self.out / "SWLDBG.txt"),
                   "--msi-log", str(self.out / "install.log")]
        subprocess.run(command + ["--html", str(self.out / "swltrace.html")], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        out = subprocess.run(command + ["--summary"], capture_output=True, text=True, errors="replace").stdout
        lines = out.splitlines()
        start = next((i for i, l in enumerate(lines) if l.startswith("=== Summary")), 0)
        for line in lines[:2] + lines[start + 1:start + 30]:
            print("   " + line)

    def main(self):
        print("Main job on a simulated machine: %s (%s)" % (self.name, self.about))
        msi = self.build / "package/CorvaneSWL.msi"
        if not msi.exists():
            sys.exit("no package at %s: build first" % msi)
        self.actions = [a[0] for a in e2e.msi_table(msi, "CustomAction") if int(a[1]) & 0x3F == 1]

        self.progress("Windows 10 prefix with the simulated machine, tracing on (%s)" % TRACE)
        if self.out.exists():
            e2e.sh([e2e.PREFIX_TOOL, "destroy", str(self.prefix)], self.out, self.prefix)
            shutil.rmtree(self.out)
        self.out.mkdir(parents=True)
        e2e.prepare_prefix(self.scenario, self.out, self.prefix, self.build)
        if self.scenario.files is full_package.OSTRA:
            print("   Wine's Shell cannot unpack a .zip: the Ostra library that ExtractOstraPackage would unpack "
                  "from the package is laid out in advance")
        e2e.place_launcher(self.build, self.out, msi)
        self.stop()
        before = e2e.read_hklm(self.prefix), e2e.listing(self.prefix)

        self.progress("Install: SwlSetup.exe %s/qn /l*v install.log" % "".join(p + " " for p in self.props))
        code, log = self.run_launcher("install", *self.props)
        self.show_exit(code, self.expected)
        self.show_actions(log)
        summary = e2e.Context(self.prefix, {}, []).path(SUMMARY)
        if summary.exists():
            shutil.copy(summary, self.out / "SWLInstallSummary.log")
            print("   install summary %s:" % SUMMARY)
            for line in summary.read_bytes().decode("cp1252").splitlines():
                print("     | " + line)
        elif self.expected == 0:
            self.fail("no install summary")

        self.progress("What the install left on the machine")
        installed = e2e.read_hklm(self.prefix)
        self.show_machine(installed)

        if self.expected == 0:
            self.progress("Removal: SwlSetup.exe /x /qn /l*v remove.log")
            code, log = self.run_launcher("remove", "/x")
            self.show_exit(code, 0)
            self.show_actions(log)
        else:
            self.progress("No removal: nothing was installed")
        after = e2e.read_hklm(self.prefix), e2e.listing(self.prefix)

        self.progress("Is the machine as it was before the install?")
        allowed = full_package.LEFT_BY_WINE + (r"c:\\swldbg\.txt",) + (
            () if self.expected == 0 else (r"c:\\program files\\corvane",
                                           r"software\\microsoft\\windows\\currentversion\\installer"))
        context = e2e.Context(self.prefix, {}, [])
        context.hklm, context.files = {"before": before[0], "after": after[0]}, {"before": before[1], "after": after[1]}
        problem = e2e.machine_restored(*allowed, run="after")(context)
        if problem:
            self.fail(problem)
        else:
            print("   yes: nothing of ours is left; what differs is Wine's own (its catalogue copy, the compiled "
                  "INF, the message DLL it cannot take ownership of, Installer's records) and the trace file")
        trace = context.path(TRACE)
        if trace.exists():
            shutil.copy(trace, self.out / "SWLDBG.txt")
        e2e.sh([e2e.PREFIX_TOOL, "destroy", str(self.prefix)], self.out, self.prefix)
        if self.swltrace and (self.out / "SWLDBG.txt").exists():
            self.read_trace()
        print("\nLogs, trace file and summary: %s (%.0f s in all)" % (self.out, time.monotonic() - self.started))
        print("RESULT: %s" % ("as expected for this machine" if self.ok else "FAILED"))
        return 0 if self.ok else 1


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", type=Path, default=ROOT / "build")
    names = sorted(set(PROFILES) | {p.stem for p in e2e.MACHINES.glob("*.json")})
    ap.add_argument("--machine", default="pf-7xxx", choices=names, metavar="NAME", help=", ".join(names))
    ap.add_argument("--swltrace", type=Path, help="the support tool, to summarise the trace file at the end")
    args = ap.parse_args()
    args.build = args.build.resolve()
    return Job(args).main()


if __name__ == "__main__":
    sys.exit(main())
