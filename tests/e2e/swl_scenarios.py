#!/usr/bin/env python3
"""End-to-end scenarios (scenarios/*.py): packages built with wixl around the DLL under test, or
prebuilt, installed by `wine msiexec` in a fresh prefix each. Wine reports an action whose DLL does
not load, or lacks the export, as a success: the checks look at log lines, registry and files.

  swl_scenarios.py --build DIR [--dll DLL] [--workdir DIR] [NAME_GLOB ...]
  swl_scenarios.py ... --expect-fail --break-dll missing|unloadable|rename=EXPORT|overflow=DLL ... NAME
Every prefix has Wine's heap checking on for msiexec.exe (the custom-action server): a scenario in
whose Wine output an "err:heap" line appears has failed.
The last line is exactly "N passed, M failed"; the exit code is 1 when M > 0.
"""

import argparse, concurrent.futures, fnmatch, json, os, re, runpy, shutil, subprocess, sys, time, uuid
from dataclasses import dataclass, field
from pathlib import Path
from xml.sax.saxutils import escape, quoteattr

HERE = Path(__file__).resolve().parent
PREFIX_TOOL = str(HERE.parents[1] / "tools/wine-prefix.sh")
PRODUCT_KEY = r"HKLM\SOFTWARE\CORVANE\SWL"
UNINSTALL_KEY = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall"


@dataclass
class Scenario:
    name: str
    package: object    # [(export, sequence[, condition])], or a prebuilt .msi path with {build}
    checks: list       # functions of the Context returning what is wrong, or None
    # (name, msiexec arguments[, another package for this run, e.g. an older version, with {build}])
    runs: list = field(default_factory=lambda: [("install", "/i")])
    windows: str = ""  # HKCU\Software\Wine "Version"; the base prefix is Windows 7
    registry: dict = field(default_factory=dict)     # {key: {name: REG_SZ text}} set before the runs
    binaries: dict = field(default_factory=dict)     # extra Binary rows {name: bytes, or a file path with {build}}
    properties: dict = field(default_factory=dict)
    product_key: bool = True   # the Registry table creates PRODUCT_KEY\InstallDir
    # A message box to answer as a person would: (part of its caption, key to press). Such a scenario runs
    # with basic UI (/qb) on the X display of --ui (xvfb-run) only; the box is read and photographed first.
    answer: tuple = ()
    files: dict = field(default_factory=dict)   # {C:\ path: bytes, or a file path with {build}} placed first
    launcher: object = False   # run through SwlSetup.exe (next to the package, as CorvaneSWL.msi), not msiexec;
                               # "alone": without the package beside it
    keep: tuple = ()   # Windows paths of files copied out after each run, for file_is(..., run=) to read
    machine: str = ""  # a simulated machine, tests/machines/NAME.json: its PCI devices and Windows version
    doubles: dict = field(default_factory=dict)   # {"newdev"|"cfgmgr32": {outcome value: int}}: the test
                                                  # doubles stand in for Wine's DLLs in msiexec (see DOUBLES_KEY)


MACHINES = HERE.parent / "machines"
ENUM_PCI = r"HKLM\SYSTEM\CurrentControlSet\Enum\PCI"
SYSTEM_CLASS = "{4d36e97d-e325-11ce-bfc1-08002be10318}"
# Outcomes the doubles read and the calls they record (Calls\0001, ...): tests/doubles/*.cpp.
DOUBLES_KEY = r"HKLM\SOFTWARE\SWLTest\Doubles"
REG_TYPES = {"REG_SZ": 1, "REG_EXPAND_SZ": 2, "REG_BINARY": 3, "REG_DWORD": 4, "REG_MULTI_SZ": 7}


class Raw:
    """A registry value of any type for a .reg file: REG_* number and its bytes."""
    def __init__(self, type, data):
        self.type, self.data = type, data


def multi_sz(strings):
    return Raw(7, "".join(s + "\0" for s in strings).encode("utf-16-le") + b"\0\0")


def typed(value):
    """A profile's value: text is REG_SZ, a number REG_DWORD, {"type": "REG_...", "value": ...} the type named."""
    if not isinstance(value, dict):
        return value
    kind, data = REG_TYPES[value["type"]], value["value"]
    return (multi_sz(data) if kind == 7 else Raw(kind, bytes.fromhex(data)) if kind == 3 else
            data if kind == 4 else Raw(kind, (data + "\0").encode("utf-16-le")))


def machine_registry(name):
    """(windows version, {key: {name: value}}) of tests/machines/NAME.json, written as SimulatedMachine
    (tests/support) writes it; tests/machines/README.md describes the layout."""
    profile, keys = json.loads((MACHINES / (name + ".json")).read_text()), {}
    for d in profile["devices"]:
        spell = (lambda id: id.lower()) if d.get("lowerCase") else (lambda id: id)
        ven_dev, subsys, rev = "VEN_%s&DEV_%s" % (d["vendor"], d["device"]), "&SUBSYS_" + d["subsystem"], "&REV_" + d["revision"]
        for instance in d["instances"]:
            key = "%s\\%s\\%s" % (ENUM_PCI, spell(ven_dev + subsys + rev), instance)
            keys[key] = {
                "HardwareID": multi_sz([spell("PCI\\" + ven_dev + subsys + rev), spell("PCI\\" + ven_dev + subsys)]),
                "CompatibleIDs": multi_sz([spell("PCI\\" + ven_dev + rev), spell("PCI\\" + ven_dev)]),
                "ClassGUID": SYSTEM_CLASS, "DeviceDesc": d.get("description", "PCI device")}
            if "servicesNeeded" in d:
                keys[key + r"\Device Parameters\General"] = {"ServicesNeeded": typed(d["servicesNeeded"])}
            if "sriov" in d:
                keys[key + r"\Device Parameters\Sriov"] = {n: typed(v) for n, v in d["sriov"].items()}
    return profile.get("windows", ""), keys


ENDED = re.compile(r"Action ended [0-9:]+: (.+?)\. Return value (-?\d+)\.")
PROPERTY = re.compile(r"Property\([SC]\): (\S+) = (.*)")
OURS = re.compile(r"1:  2: (.*?)(?: 3: (.*?))? ?")   # our INFO records: Wine leaves the time stamp empty


class Log:
    def __init__(self, path):
        text = path.read_bytes().decode("cp1252", "replace") if path.exists() else ""
        self.lines = text.replace("\r", "").split("\n")
        self.results = {m[1]: int(m[2]) for m in map(ENDED.match, self.lines) if m}   # the last of each action
        self.props = {m[1]: m[2] for m in map(PROPERTY.match, self.lines) if m}
        self.ours = [m[1] + (m[2] or "") for m in map(OURS.fullmatch, self.lines) if m]

    def excerpt(self, actions):
        return [l for l in self.lines if OURS.fullmatch(l) or
                ((m := ENDED.match(l)) and m[1] in actions + ["INSTALL"])][-40:]


def unescape(text):
    return re.sub(r"\\(x[0-9a-fA-F]{1,4}|.)", lambda m: chr(int(m[1][1:], 16)) if len(m[1]) > 1
                  else {"n": "\n", "r": "\r", "t": "\t", "0": "\0"}.get(m[1], m[1]), text)


def read_hklm(prefix):
    """HKLM of a stopped prefix: {key without "HKLM\\": {name: str | int (REG_DWORD) | raw}}, all lower case."""
    keys, current = {}, None
    for line in (prefix / "system.reg").read_text("ascii", "replace").split("\n"):
        if line.startswith("["):
            current = keys.setdefault(unescape(line[1:line.rindex("]")]).lower(), {})
        elif current is not None and (m := re.match(r'(@|"(?:[^"\\]|\\.)*")=(.*)', line)):
            current["" if m[1] == "@" else unescape(m[1][1:-1]).lower()] = (
                unescape(m[2][1:-1]) if m[2].startswith('"') else
                int(m[2][6:], 16) if m[2].startswith("dword:") else m[2])
    return keys


class Context:
    """What the checks see: per run its log, msiexec exit code and HKLM afterwards; run=None is the last run."""

    def __init__(self, prefix, vars, actions):
        self.prefix, self.vars, self.actions = prefix, vars, actions
        self.logs, self.codes, self.hklm, self.last = {}, {}, {}, ""
        self.box = {}   # the answered message box: {"caption": str, "text": [str], "picture": Path}
        self.kept = {}   # (run, Windows path in lower case): the copy of Scenario.keep's file after that run
        self.files = {}  # per run (and "before", the prepared prefix): every path under drive_c, lower case

    def fmt(self, text):  # puts in {product_code} and {version}; GUID braces stay
        return re.sub(r"\{(\w+)\}", lambda m: self.vars.get(m[1], m[0]), text)

    def log(self, run=None):
        return self.logs[run or self.last]

    def key(self, key, run=None):
        return self.hklm[run or self.last].get(self.fmt(key).split("\\", 1)[1].lower())

    def value(self, key, name, run=None):
        return (self.key(key, run) or {}).get(name.lower())

    def path(self, windows_path):  # C:\\...
        return self.prefix / "drive_c" / windows_path[3:].replace("\\", "/")


def check(test):
    """The check test(c, run, *arguments) as name(*arguments, run=None); run=None is the last run."""
    return lambda *arguments, run=None: lambda c: test(c, run or c.last, *arguments)


@check
def ran(c, run, action, want=1):  # "Return value": 1 success, 0 any failure (see exit_code), None not run
    got = c.log(run).results.get(action)
    return None if got == want else "%s: return value %s, expected %s" % (action, got, want)


@check
def ran_in_order(c, run, *actions):
    """Exactly these DLL actions ran, in this order, each with success ("Name=0": with failure). A deferred
    action is logged twice, when it is scheduled and when it runs: its last line counts."""
    last = {}
    for i, m in enumerate(map(ENDED.match, c.log(run).lines)):
        if m and m[1] in c.actions:
            last[m[1]] = (i, int(m[2]))
    got = ["%s=0" % a if last[a][1] != 1 else a for a in sorted(last, key=lambda a: last[a][0])]
    if got != list(actions):
        return "actions that ran: %s; expected: %s" % (", ".join(got), ", ".join(actions))


@check
def every_action_succeeded(c, run):
    wrong = [a for a in c.actions if c.log(run).results.get(a) != 1]
    return "not successful: " + ", ".join(wrong) if wrong else None


@check
def logged(c, run, *lines):  # our log lines (field 2 + field 3) in this order; others may come between
    ours, at = c.log(run).ours, 0
    for line in map(c.fmt, lines):
        if line not in ours[at:]:
            return "not logged%s: %r" % (" in this order" if line in ours else "", line)
        at = ours.index(line, at) + 1


@check
def reg(c, run, key, name, want):  # str is REG_SZ, int REG_DWORD, re.Pattern a matching REG_SZ, None absent
    got = c.value(key, name, run)
    ok = (isinstance(got, str) and want.fullmatch(got)) if isinstance(want, re.Pattern) else \
        got == (c.fmt(want) if isinstance(want, str) else want)
    return None if ok else "%s\\%s = %r, expected %r" % (c.fmt(key), name, got, want)


@check
def box_shown(c, run, caption, text):  # the message box had exactly this caption and text
    got = (c.box.get("caption"), c.box.get("text"))
    return None if got == (caption, [text]) else "message box %r, expected %r" % (got, (caption, [text]))


@check
def prop(c, run, name, want):  # an Installer property at the end of the run; None: not set
    got = c.log(run).props.get(name)
    return None if got == want else "property %s = %r, expected %r" % (name, got, want)


@check
def file_is(c, run, windows_path, want):  # want: the file's bytes, a path with {build}, or None for no file
    path = c.kept.get((run, windows_path.lower()), c.path(windows_path))
    if isinstance(want, str):
        want = Path(c.fmt(want)).read_bytes()
    got = path.read_bytes() if path.is_file() else None
    return None if got == want else "%s: %s" % (windows_path, "missing" if got is None else "other bytes")


not_logged = check(lambda c, run, line: "logged %r" % line if line in c.log(run).ours else None)
no_key = check(lambda c, run, key: "%s exists" % c.fmt(key) if c.key(key, run) is not None else None)
exit_code = check(lambda c, run, code: None if c.codes[run] == code & 0xFF else  # Linux gets the low 8 bits: 1603 is 67
                  "msiexec exit code %d, expected %d" % (c.codes[run], code & 0xFF))


WXS = """<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="%(code)s" Name="Corvane(R) Swiftlane Technology" Language="1033" Version="2.6.0" Manufacturer="Corvane"
         UpgradeCode="{6E1A0C52-7B9D-4E21-A3F4-2C8B5D9E0F17}">
  <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
  <Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFiles64Folder">
    <Directory Id="INSTALLDIR" Name="SWL Scenario">
      <Component Id="Product" Guid="{3B9D2E71-8C44-4F0A-9E62-7A15C0D4B8E3}" Win64="yes">%(key)s</Component>
  </Directory></Directory></Directory>
  <Feature Id="Main" Level="1"><ComponentRef Id="Product"/></Feature>
  %(rows)s
  <InstallExecuteSequence>%(sequence)s</InstallExecuteSequence>
</Product></Wix>
"""
PRODUCT_KEY_XML = ('<RegistryKey Root="HKLM" Key="SOFTWARE\\CORVANE\\SWL"><RegistryValue Name="InstallDir" '
                   'Type="string" Value="[INSTALLDIR]" KeyPath="yes"/></RegistryKey>')


def exports():
    """The custom actions SWLLib.def declares."""
    text = (HERE.parents[1] / "SWLLib/Source/SWLLib.def").read_text()
    return re.findall(r"^[ \t]*(\w+)", text.split("EXPORTS", 1)[1], re.M)


def rename_export(data, name):
    """The DLL with the export's last letter changed so that only it goes missing: ld writes
    the .def names as one sorted block, which the loader searches by bisection."""
    names, pack = sorted(exports()), lambda names: b"\0".join(n.encode() for n in names) + b"\0"
    if name not in names or pack(names) not in data:
        raise ValueError("cannot find the export %s" % name)
    for c in "zyxwvutsrqponmlkjihgfedcba_":
        trial = [name[:-1] + c if n == name else n for n in names]
        if trial == sorted(set(trial)):   # still sorted, no name twice
            return data.replace(pack(names), pack(trial), 1)
    raise ValueError("no same-length name keeps the export table sorted")


def dll_bytes(dll, variant):
    """The DLL as variant breaks it: unloadable, rename=X, overflow=DLL (a copy of the DLL that damages the
    heap when it loads); None and missing leave it whole."""
    data = dll.read_bytes()
    if variant and variant.startswith("overflow="):
        data = Path(variant[9:]).read_bytes()
    elif variant == "unloadable":
        data = b"MZ this is not a loadable image\0" * 64
    elif variant and variant.startswith("rename="):
        data = rename_export(data, variant[7:])
    elif variant not in (None, "missing"):
        raise ValueError("unknown --break-dll " + variant)
    return data


def break_package(msi, work, dll, variant):
    """A copy of a prebuilt package whose SWLLib row variant breaks (missing: the row is deleted)."""
    copy = work / "package.msi"
    shutil.copy(msi, copy)
    if variant == "missing":
        command = ["msibuild", str(copy), "-q", "DELETE FROM `Binary` WHERE `Name` = 'SWLLib'"]
    else:
        (work / "broken.dll").write_bytes(dll_bytes(dll, variant))
        command = ["msibuild", str(copy), "-a", "Binary.SWLLib", str(work / "broken.dll")]
    subprocess.run(command, check=True, capture_output=True)
    return copy


def build_package(s, work, build, dll, variant):
    """Builds s.package with wixl around the DLL, broken as variant says (see dll_bytes; missing: no row)."""
    data = dll_bytes(dll, variant)
    binaries = dict(s.binaries) if variant == "missing" else {"SWLLib": data, **s.binaries}
    for i, data in enumerate(binaries.values()):
        (work / ("bin%d.dat" % i)).write_bytes(data if isinstance(data, bytes) else
                                               Path(data.format(build=build)).read_bytes())
    rows = ['<Binary Id=%s SourceFile="bin%d.dat"/>' % (quoteattr(name), i) for i, name in enumerate(binaries)]
    rows += ['<Property Id=%s Value=%s/>' % (quoteattr(k), quoteattr(v)) for k, v in s.properties.items()]
    rows += ['<CustomAction Id="%s" BinaryKey="SWLLib" DllEntry="%s" Return="check"/>' % (a[0], a[0])
             for a in s.package]
    sequence = ['<Custom Action="%s" Sequence="%d">%s</Custom>' % (a[0], a[1], escape("".join(a[2:])))
                for a in s.package]
    (work / "package.wxs").write_text(WXS % {
        "code": "{%s}" % str(uuid.uuid5(uuid.NAMESPACE_URL, "swl-e2e:" + s.name)).upper(),
        "key": PRODUCT_KEY_XML if s.product_key else "<CreateFolder/>",
        "rows": "\n  ".join(rows), "sequence": "".join(sequence)})
    out = subprocess.run(["wixl", "-a", "x64", "-o", "package.msi", "package.wxs"], cwd=work,
                         capture_output=True, text=True)
    if out.returncode:
        raise RuntimeError("wixl failed: " + out.stderr[-400:])
    return work / "package.msi"


def msi_table(msi, table):
    out = subprocess.run(["msiinfo", "export", str(msi), table], capture_output=True, text=True, check=True)
    return [l.split("\t") for l in out.stdout.replace("\r", "").splitlines()[3:] if l]


ENV = {k: v for k, v in os.environ.items() if k not in ("DISPLAY", "WAYLAND_DISPLAY")}
# err+heap: heap checking reports damage on that channel.
ENV.update(WINEDEBUG=ENV.get("WINEDEBUG", "-all,err+heap"), WINEDLLOVERRIDES="mscoree,mshtml=", WINEARCH="win64")
HEAP_DAMAGE = "Wine reported heap damage"


def sh(cmd, work, prefix, timeout=300):
    with open(work / "wine.txt", "ab") as out:
        return subprocess.run(cmd, cwd=work, env=dict(ENV, WINEPREFIX=str(prefix)), stdin=subprocess.DEVNULL,
                              stdout=out, stderr=subprocess.STDOUT, timeout=timeout).returncode


def reg_line(name, value):
    """One value of a UTF-16 .reg file: str is REG_SZ, int REG_DWORD, Raw any type (hex(7) holds UTF-16)."""
    name = '"%s"' % name.replace("\\", "\\\\").replace('"', '\\"')
    if isinstance(value, str):
        return '%s="%s"' % (name, value.replace("\\", "\\\\").replace('"', '\\"'))
    if isinstance(value, int):
        return "%s=dword:%08x" % (name, value)
    return "%s=%s:%s" % (name, "hex" if value.type == 3 else "hex(%x)" % value.type,
                         ",".join("%02x" % b for b in value.data))


def listing(prefix):
    """Every file and folder under drive_c, as lower-case Windows paths."""
    root = prefix / "drive_c"
    return {"c:\\" + str(p.relative_to(root)).replace("/", "\\").lower() for p in root.rglob("*")}


@check
def machine_restored(c, run, *allowed):
    """HKLM and drive_c after the run are as before the first, but for keys, values ("key\\value") and files that
    match one of the allowed patterns (regular expressions, lower case) and Wine's own churn."""
    allow = [re.compile(p) for p in allowed + WINE_CHURN]
    def entries(hklm):
        return {k for k in hklm} | {"%s\\%s=%r" % (k, n, v) for k, values in hklm.items() for n, v in values.items()}
    changed = (entries(c.hklm["before"]) ^ entries(c.hklm[run])) | (c.files["before"] ^ c.files[run])
    left = sorted(e for e in changed if not any(a.match(e) for a in allow))
    return None if not left else "%d differences after %s, e.g.: %s" % (len(left), run, "; ".join(left[:12]))


# What Wine itself changes in a prefix while programs run, whatever they are.
WINE_CHURN = (r"software\\microsoft\\windows nt\\currentversion\\(perflib|time zones|fonts)",
              r"system\\currentcontrolset\\control\\class\\\{4d36e968-[^\\]*\\0000\\driverdatedata=",
              r"system\\currentcontrolset\\control\\(session manager|timezoneinformation)",
              r"c:\\windows\\(temp|logs|installer)(\\|$)", r"c:\\users\\[^\\]+\\temp(\\|$)")


def prepare_prefix(s, work, prefix, build):
    """A fresh prefix with the scenario's Windows version, machine, doubles and registry values."""
    if sh([PREFIX_TOOL, "create", str(prefix), "msiexec.exe"], work, prefix, 600):
        raise RuntimeError("cannot create the Wine prefix (see wine.txt)")
    windows, keys = machine_registry(s.machine) if s.machine else ("", {})
    windows = s.windows or windows
    for name, outcome in s.doubles.items():
        # msiexec looks in its own folder, system32, first: the double replaces Wine's placeholder there,
        # and the override makes Wine load that file instead of its own DLL, in msiexec only.
        shutil.copy(build / "test-doubles" / (name + ".dll"), prefix / "drive_c/windows/system32" / (name + ".dll"))
        keys.setdefault(r"HKEY_CURRENT_USER\Software\Wine\AppDefaults\msiexec.exe\DllOverrides", {})[name] = "native"
        keys["%s\\%s" % (DOUBLES_KEY, name)] = dict(outcome)
    keys.update(s.registry)
    if windows:
        keys[r"HKEY_CURRENT_USER\Software\Wine"] = {"Version": windows}
    if keys:
        lines = ["Windows Registry Editor Version 5.00"]
        for key, values in keys.items():
            lines += ["", "[%s]" % key.replace("HKLM", "HKEY_LOCAL_MACHINE", 1)]
            lines += [reg_line(n, v) for n, v in values.items()]
        (work / "prepare.reg").write_bytes(b"\xff\xfe" + ("\r\n".join(lines) + "\r\n").encode("utf-16-le"))
        if sh(["wine", "reg", "import", "prepare.reg"], work, prefix, 120):
            raise RuntimeError("wine reg import failed (see wine.txt)")
    for path, data in s.files.items():
        target = prefix / "drive_c" / path[3:].replace("\\", "/")
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(data if isinstance(data, bytes) else Path(data.format(build=build)).read_bytes())


def place_launcher(build, work, msi=None):
    """SwlSetup.exe in work, with msi beside it as CorvaneSWL.msi, and the placeholder start_first_process runs."""
    shutil.copy(build / "bin/SwlSetup.exe", work / "SwlSetup.exe")
    if msi:
        shutil.copy(msi, work / "CorvaneSWL.msi")
    shutil.copy(build / "bin/swl_tool_standin.exe", work / "first_process.exe")


def start_first_process(work, prefix):
    """The launcher check passes over the first process of the snapshot (on Windows the idle process; under
    Wine the first process of the server's list, which a launcher started into a fresh server would be): a
    placeholder takes that place until the server is stopped."""
    subprocess.Popen(["wine", "first_process.exe"], cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                     stderr=subprocess.DEVNULL, env=dict(ENV, WINEPREFIX=str(prefix), SWL_STANDIN_RUN_MS="600000"))
    time.sleep(2)


def answer_box(s, args, work, prefix, c):
    """Waits for the scenario's message box, reads its caption and text (a Windows helper in the same prefix),
    keeps a picture of it and presses the answer's key, as a person at the screen would."""
    part, key = s.answer
    # Into a file, not a pipe: Wine's service processes may inherit it and keep a pipe open for good.
    with open(work / "message-box.txt", "wb") as out:
        subprocess.run(["wine", str(args.build / "bin/read_message_box.exe"), part], cwd=work, timeout=120,
                       env=dict(ENV, WINEPREFIX=str(prefix)), stdin=subprocess.DEVNULL, stdout=out,
                       stderr=subprocess.DEVNULL)
    lines = (work / "message-box.txt").read_bytes().decode("utf-8", "replace").replace("\r", "").splitlines()
    c.box = {"caption": next((l[9:] for l in lines if l.startswith("caption: ")), None),
             "text": [l[6:].replace("\\r", "\r").replace("\\n", "\n") for l in lines if l.startswith("text: ")]}
    windows = subprocess.run(["xdotool", "search", "--name", part], capture_output=True, text=True).stdout.split()
    if windows:
        c.box["picture"] = work / "message-box.png"
        subprocess.run(["import", "-window", windows[0], str(c.box["picture"])], timeout=60)
    subprocess.run(["xdotool", "key", key], timeout=60)


def run_scenario(s, args, variant):
    """(label, status: passed | failed | error, problems with log excerpts and the end of wine.txt)."""
    label = s.name + ("[%s]" % variant.split("=/")[0] if variant else "")   # overflow=DLL without the path
    work = args.workdir / re.sub(r"[^\w.-]", "-", label)
    prefix, problems, c = work / "prefix", [], None
    if work.exists():
        sh([PREFIX_TOOL, "destroy", str(prefix)], work, prefix)
        shutil.rmtree(work)
    work.mkdir(parents=True)
    try:
        if isinstance(s.package, str):   # prebuilt
            msi = Path(s.package.format(build=args.build))
            msi = break_package(msi, work, args.dll, variant) if variant else msi
        else:
            msi = build_package(s, work, args.build, args.dll, variant)
        props = dict(row[:2] for row in msi_table(msi, "Property"))
        # Our DLL actions (type 1 in the low bits); the others set properties.
        actions = [a for a in msi_table(msi, "CustomAction") if int(a[1]) & 0x3F == 1]
        problems += ["SWLLib.def does not export " + a[3] for a in actions if a[3] not in exports()]  # Wine: success
        c = Context(prefix, {"product_code": props["ProductCode"], "version": props["ProductVersion"],
                             "build": str(args.build)},
                    [a[0] for a in actions])
        prepare_prefix(s, work, prefix, args.build)
        sh([PREFIX_TOOL, "stop", str(prefix)], work, prefix)
        c.hklm["before"], c.files["before"] = read_hklm(prefix), listing(prefix)
        for name, arguments, *other in s.runs:
            mode, *extra = arguments.split()
            run_msi = Path(other[0].format(build=args.build)) if other else msi
            command = ["wine", "msiexec", mode, str(run_msi), "/qb" if s.answer else "/qn", "/l*v", name + ".log"] + extra
            if s.launcher:   # the launcher finds CorvaneSWL.msi in its own folder and passes the rest through
                place_launcher(args.build, work, run_msi if s.launcher != "alone" else None)
                command = ["wine", "SwlSetup.exe"] + ([mode] if mode != "/i" else []) + command[4:]
                start_first_process(work, prefix)
            if s.answer:
                with open(work / "wine.txt", "ab") as out:
                    msiexec = subprocess.Popen(command, cwd=work, env=dict(ENV, WINEPREFIX=str(prefix)),
                                               stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)
                answer_box(s, args, work, prefix, c)
                c.codes[name] = msiexec.wait(timeout=300)
            else:
                c.codes[name] = sh(command, work, prefix)
            if not (work / (name + ".log")).exists() and s.launcher != "alone":
                # Wine itself failed to start msiexec (seen once on a loaded machine): one more try.
                print("RETRY %s: %s wrote no log (exit code %d)" % (label, name, c.codes[name]), flush=True)
                sh([PREFIX_TOOL, "stop", str(prefix)], work, prefix)
                c.codes[name] = sh(command, work, prefix)
            c.logs[name], c.last = Log(work / (name + ".log")), name   # an empty Log when none was written
            sh([PREFIX_TOOL, "stop", str(prefix)], work, prefix)  # ending the server writes the registry files
            c.hklm[name], c.files[name] = read_hklm(prefix), listing(prefix)
            for i, kept in enumerate(s.keep):
                if c.path(kept).is_file():
                    copy = work / "kept" / name / ("%d-%s" % (i, kept.rsplit("\\", 1)[-1]))
                    copy.parent.mkdir(parents=True, exist_ok=True)
                    shutil.copy(c.path(kept), copy)
                    c.kept[(name, kept.lower())] = copy
        for test in s.checks:
            try:
                problems.append(test(c))
            except Exception as e:  # a check that cannot run has failed
                problems.append("%s: %s" % (type(e).__name__, e))
        damage = [l for l in (work / "wine.txt").read_bytes().decode("utf-8", "replace").splitlines()
                  if "err:heap" in l]
        if damage:
            problems.append("%s: %d err:heap lines in wine.txt, first: %s" % (HEAP_DAMAGE, len(damage), damage[0]))
        problems = [p for p in problems if p]
        status = "failed" if problems else "passed"
        if variant and variant.startswith("overflow=") and problems and not all(
                p.startswith(HEAP_DAMAGE) for p in problems):
            status = "error"   # it must fail for the heap damage alone
    except Exception as e:
        status, problems = "error", problems + ["%s: %s" % (type(e).__name__, e)]
    finally:
        for name, log in c.logs.items() if c and problems else []:
            problems += ["-- %s.log" % name] + ["   " + l for l in log.excerpt(c.actions)]
        if problems and (work / "wine.txt").exists():
            wine = (work / "wine.txt").read_bytes().decode("utf-8", "replace").splitlines()
            problems += ["-- wine.txt"] + ["   " + l for l in wine[-15:]]
        sh([PREFIX_TOOL, "destroy", str(prefix)], work, prefix)
    return label, status, problems


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", required=True, type=Path, help="the CMake build directory")
    ap.add_argument("--dll", type=Path, help="the DLL under test (default BUILD/bin/SWLLib.dll)")
    ap.add_argument("--workdir", type=Path, help="packages, logs and prefixes (default BUILD/e2e)")
    ap.add_argument("--break-dll", action="append", default=[], metavar="VARIANT")
    ap.add_argument("--expect-fail", action="store_true")
    ap.add_argument("--ui", action="store_true", help="run the scenarios that answer a message box (needs a "
                    "display, e.g. xvfb-run), and only those")
    ap.add_argument("names", nargs="*", help="scenario names or glob patterns (default: all)")
    args = ap.parse_args()
    args.build, args.dll, args.workdir = (p.resolve() for p in (
        args.build, args.dll or args.build / "bin/SWLLib.dll", args.workdir or args.build / "e2e"))

    sys.modules.setdefault("swl_scenarios", sys.modules[__name__])
    scenarios = [s for p in sorted((HERE / "scenarios").glob("*.py")) for s in runpy.run_path(str(p))["SCENARIOS"]]
    if args.ui and not os.environ.get("DISPLAY"):
        ap.error("--ui needs an X display: run under xvfb-run")
    if args.ui:   # Wine's windows must reach the display, also those of the prefix's first process
        ENV.update(DISPLAY=os.environ["DISPLAY"], SWL_KEEP_DISPLAY="1")
    jobs = [(s, v) for s in scenarios for v in args.break_dll or [None]
            if bool(s.answer) == args.ui and (not args.names or any(fnmatch.fnmatchcase(s.name, n) for n in args.names))]
    passed = failed = 0
    # One message box at a time on the display: a key press goes to whichever box has the focus.
    with concurrent.futures.ThreadPoolExecutor(1 if args.ui else min(4, os.cpu_count() or 1)) as pool:
        for future in concurrent.futures.as_completed([pool.submit(run_scenario, s, args, v) for s, v in jobs]):
            label, status, problems = future.result()
            ok = status == ("failed" if args.expect_fail else "passed")
            passed, failed = passed + ok, failed + (not ok)
            print("%s %s%s" % ("PASS" if ok else "FAIL", label, "" if status == "passed" else " (%s)" % status) +
                  "".join("\n    " + p for p in problems), flush=True)
    if not jobs:
        print("no scenario matches " + " ".join(args.names))
        failed = 1
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
