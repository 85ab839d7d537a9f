#!/usr/bin/env python3
"""What our custom actions cost an install: the sample package installed and removed through the
launcher on a simulated 7xxx, three times in fresh prefixes of one machine:

  with           the package as shipped, tracing off: the wall times that count;
  traced         the same with tracing on: where the time goes (each action's span, the waits);
  without        every custom action of ours switched off (condition 0 in the sequence);
  no-op actions  the same 32 actions from a DLL where each returns at once: what Installer itself
                 spends on calling them, apart from what ours do.

The ratio with/without is taken after removing the waits that the actions must make: Delay's
one-second pause, the waits for the programs they start (MSIExec_Execute, MSIExec_ExecWithPBUpdate)
and InstallCRT's pause after the runtime installer. Prints figures only; it asserts nothing.

  install_bench.py --build DIR
"""

import argparse, re, shutil, subprocess, sys, time
from collections import defaultdict
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/e2e"))
import swl_scenarios as e2e  # noqa: E402
from scenarios import full_package  # noqa: E402

TRACE = r"C:\SWLDBG.txt"
WAIT_SCOPES = ("Delay", "MSIExec_Execute", "MSIExec_ExecWithPBUpdate")
INSTALL_CRT_PAUSE = 0.2
LINE = re.compile(r"SWL\tPID:(\w+)\tTID:(\w+)\t(\d\d):(\d\d):(\d\d)\.(\d{3})\t\((\w+)\)\t(.*)")


def seconds(m):
    return int(m[3]) * 3600 + int(m[4]) * 60 + int(m[5]) + int(m[6]) / 1000


def trace_spans(path, actions):
    """(waits in s, [(action, s)], [Installer-log lines, s spent handing them over]) from a trace file. Installer runs each custom action on a thread of its own:
    an action's span is its thread's first to last trace line, named by the first action of the package that
    the thread logs. Waits are the spans of the WAIT_SCOPES (ENTRY to EXIT on the same thread)."""
    waits, open_scopes, threads, logged = 0.0, defaultdict(list), {}, [0, 0.0]
    for raw in path.read_bytes().decode("cp1252", "replace").splitlines():
        m = LINE.match(raw)
        if not m:
            continue
        thread, text, t = (m[1], m[2]), m[8], seconds(m)
        span = threads.setdefault(thread, [None, t, t, False])
        if span[3]:   # the previous line of this thread went to the Installer log: what handing it over took
            logged[0], logged[1] = logged[0] + 1, logged[1] + t - span[2]
        span[2], span[3] = t, text.startswith("(MSI LOG ENTRY) ")
        if text.startswith("ENTRY:  "):
            open_scopes[thread].append((text[8:].strip(), t))
            if span[0] is None and text[8:].strip() in actions:   # e.g. SetupFiles, which logs no "Name()"
                span[0] = text[8:].strip()
        elif text.startswith("EXIT:  ") and open_scopes[thread]:
            name, start = open_scopes[thread].pop()
            if name in WAIT_SCOPES:
                waits += t - start
        elif text.startswith("(MSI LOG ENTRY) ") and span[0] is None:
            name = re.match(r"(?:Entering )?(\w+)", text[16:])
            span[0] = name[1] if name and name[1] in actions else None
    return waits, [(name, end - start) for name, start, end, _ in threads.values() if name], logged


def switched_off(msi, out):
    """A copy of the package with every action of ours conditioned out."""
    copy = out / "CorvaneSWL-without-actions.msi"
    shutil.copy(msi, copy)
    for action in [a[0] for a in e2e.msi_table(msi, "CustomAction")]:
        subprocess.run(["msibuild", str(copy), "-q", "UPDATE `InstallExecuteSequence` SET `Condition` = '0' "
                        "WHERE `Action` = '%s'" % action], check=True, capture_output=True)
    return copy


def with_noop_actions(msi, noop, out):
    """A copy of the package whose SWLLib row is a DLL with the same actions, each returning at once."""
    copy = out / "CorvaneSWL-noop-actions.msi"
    shutil.copy(msi, copy)
    subprocess.run(["msibuild", str(copy), "-a", "Binary.SWLLib", str(noop)], check=True, capture_output=True)
    return copy


def install_and_remove(build, out, msi, traced):
    """Wall times of the install and of the removal through the launcher in a fresh prefix, and the logs."""
    out.mkdir(parents=True, exist_ok=True)
    prefix = out / "prefix"
    registry = {e2e.PRODUCT_KEY: {"Trace": 1, "Log": TRACE}} if traced else {}
    scenario = e2e.Scenario(name="bench", package=None, checks=[], machine="pf-7xxx", registry=registry,
                            files=full_package.OSTRA)
    e2e.prepare_prefix(scenario, out, prefix, build)
    e2e.place_launcher(build, out, msi)
    times = {}
    try:
        for run, arguments in (("install", []), ("remove", ["/x"])):
            e2e.sh([e2e.PREFIX_TOOL, "stop", str(prefix)], out, prefix)
            e2e.start_first_process(out, prefix)
            start = time.monotonic()
            code = e2e.sh(["wine", "SwlSetup.exe", *arguments, "/qn", "/l*v", run + ".log"], out, prefix)
            times[run] = time.monotonic() - start
            if code:
                raise RuntimeError("%s: exit code %d (see %s)" % (run, code, out / (run + ".log")))
        trace = prefix / "drive_c/SWLDBG.txt"
        if traced and trace.exists():
            shutil.copy(trace, out / "SWLDBG.txt")
    finally:
        e2e.sh([e2e.PREFIX_TOOL, "destroy", str(prefix)], out, prefix)
    return times


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", type=Path, default=ROOT / "build")
    args = ap.parse_args()
    build = args.build.resolve()
    out = build / "bench-install"
    shutil.rmtree(out, ignore_errors=True)
    out.mkdir(parents=True)
    msi = build / "package/CorvaneSWL.msi"
    dll = build / "bin/SWLLib.dll"

    runs = {"with": install_and_remove(build, out / "with", msi, False),
            "traced": install_and_remove(build, out / "traced", msi, True),
            "without": install_and_remove(build, out / "without", switched_off(msi, out), False),
            "no-op actions": install_and_remove(build, out / "noop", with_noop_actions(
                msi, build / "bin/swl_noop_actions.dll", out), False)}
    ours = [a[0] for a in e2e.msi_table(msi, "CustomAction") if int(a[1]) & 0x3F == 1]
    waits, spans, logged = trace_spans(out / "traced/SWLDBG.txt", ours)
    log = e2e.Log(out / "traced/install.log")
    if "InstallCRT" in log.results:
        waits += INSTALL_CRT_PAUSE

    print("install_bench: sample package on a simulated 7xxx, through SwlSetup.exe, wall times in s")
    print("  %-28s %8s %8s %8s" % ("", "install", "remove", "total"))
    for name, times in runs.items():
        print("  %-28s %8.2f %8.2f %8.2f" % (name, times["install"], times["remove"], sum(times.values())))
    with_total, without_total = sum(runs["with"].values()), sum(runs["without"].values())
    print("  mandated waits (traced run): %.2f s (Delay, programs started, InstallCRT's pause)" % waits)
    print("  ratio with/without, waits taken out: %.2f (target at most 1.10); with the waits: %.2f"
          % ((with_total - waits) / without_total, with_total / without_total))
    noop_total = sum(runs["no-op actions"].values())
    print("  Installer's own cost of calling our %d actions (no-op actions - without): %.2f s, %.0f ms a call"
          % (len(spans), noop_total - without_total, 1000 * (noop_total - without_total) / max(1, len(spans))))
    print("  what our actions themselves add (with - waits - no-op actions): %.2f s; ratio (with - waits) / "
          "no-op actions: %.2f" % (with_total - waits - noop_total, (with_total - waits) / noop_total))
    print("  inside our actions (traced run, first to last trace line of each call): %.2f s, of which %.2f s "
          "handing %d lines to the Installer log (%.0f ms a line: the property read and the message, each a "
          "call from the custom-action server to Installer)"
          % (sum(span for _, span in spans), logged[1], logged[0], 1000 * logged[1] / max(1, logged[0])))
    # Wine's verbose log stamps action start and end to the second only: the trace's clock gives milliseconds.
    print("install_bench: each custom action, first to last trace line of its thread, ms (install, then removal)")
    for action, span in spans:
        print("  %-36s %8.1f" % (action, span * 1000))
    print("install_bench: shipped DLL (as cmake --install strips it)")
    stripped = out / "SWLLib.dll"
    subprocess.run(["x86_64-w64-mingw32-strip", "--strip-all", "-o", str(stripped), str(dll)], check=True)
    print("  size %d bytes stripped, %d in the build tree" % (stripped.stat().st_size, dll.stat().st_size))
    dump = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", str(stripped)], capture_output=True, text=True).stdout
    print("  imports: " + " ".join(sorted(set(re.findall(r"DLL Name: (\S+)", dump)), key=str.lower)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
