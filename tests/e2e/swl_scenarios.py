#!/usr/bin/env python3
"""End-to-end scenarios: real packages installed by `wine msiexec`.

A scenario is a declarative definition (see scenarios/*.py, each module exports
SCENARIOS): a package (WiX source built with wixl, or a prebuilt .msi), how the
throwaway Wine prefix is prepared, the msiexec runs, and the checks on what the
runs left behind: action results and our lines in the verbose log, final
properties, registry values and files.

Wine reports a custom action whose DLL does not load, whose export is missing
or which crashes as a success, so a scenario must always check real effects;
an action result alone proves nothing.

Every scenario runs in its own copy of the cached base prefix
(tools/wine-prefix.sh), whose wineserver is ended afterwards. A scenario whose
package uses an export that SWLLib/Source/SWLLib.def does not list yet is
skipped as pending.

Usage:
  swl_scenarios.py --build BUILD_DIR [--jobs N] [--keep] [NAME_FILTER ...]
  swl_scenarios.py --build BUILD_DIR --expect-fail --break-dll missing \\
                   --break-dll rename=WriteARPEntries SCENARIO
The last output line is exactly "N passed, M failed"; the exit code is 1 when
M > 0.
"""

import argparse
import concurrent.futures
import fnmatch
import importlib.util
import os
import re
import shutil
import struct
import subprocess
import sys
import threading
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Dict, List, Optional, Tuple, Union
from xml.sax.saxutils import escape as xml_escape, quoteattr

HERE = Path(__file__).resolve().parent
SOURCE_DIR = HERE.parent.parent
PRODUCT_COMPONENT_GUID = "{3B9D2E71-8C44-4F0A-9E62-7A15C0D4B8E3}"
PRODUCT_KEY = r"HKLM\SOFTWARE\CORVANE\SWL"
UNINSTALL_KEY = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall"

# ---------------------------------------------------------------------------
# Scenario definitions
# ---------------------------------------------------------------------------


@dataclass
class CA:
    """One custom action of SWLLib.dll in InstallExecuteSequence."""
    entry: str                      # the DLL export
    sequence: int
    execute: str = "immediate"      # immediate | deferred | commit | rollback
    ret: str = "check"              # check | ignore
    condition: str = ""
    id: Optional[str] = None        # CustomAction Id; the export name by default


@dataclass
class Package:
    """A test package: the product component (Guid PRODUCT_COMPONENT_GUID),
    optionally the product key, our custom actions and extra Binary rows."""
    actions: List[CA]
    product_key: bool = True        # Registry table creates HKLM\SOFTWARE\CORVANE\SWL
    binaries: Dict[str, bytes] = field(default_factory=dict)
    properties: Dict[str, str] = field(default_factory=dict)
    version: str = "2.6.0"
    name: str = "Corvane(R) Swiftlane Technology"


@dataclass
class Prebuilt:
    """A package built elsewhere; path may use {build}."""
    path: str
    product_code: str


@dataclass
class Prefix:
    """How the throwaway prefix is prepared before the first run."""
    windows: Optional[str] = None   # HKCU\Software\Wine "Version": win7 (default), win10, ...
    # {r"HKLM\KEY": {"Name": value}} ; str -> REG_SZ, int -> REG_DWORD,
    # list -> REG_MULTI_SZ, bytes -> REG_BINARY, Expand(str) -> REG_EXPAND_SZ;
    # a key mapped to None is deleted.
    registry: Dict[str, Optional[Dict[str, object]]] = field(default_factory=dict)
    files: Dict[str, bytes] = field(default_factory=dict)   # {r"C:\path": bytes}


@dataclass
class Expand:
    text: str


@dataclass
class Dword:
    value: int


SYSTEM_DEVICES_CLASS = "{4d36e97d-e325-11ce-bfc1-08002be10318}"


def pci_device(hardware_key: str, instance: str = "3&11583659&0&10", description: str = "PCI device",
               class_guid: str = SYSTEM_DEVICES_CLASS, parameters: Optional[Dict[str, Dict[str, object]]] = None
               ) -> Dict[str, Dict[str, object]]:
    r"""Registry keys of a simulated PCI device for Prefix.registry, e.g.
    pci_device("VEN_1F2E&DEV_6B20&SUBSYS_00001F2E&REV_20"). Wine lists it in
    WMI Win32_PnPEntity and SetupAPI as PCI\<hardware_key>\<INSTANCE>.
    parameters: {"General": {...}, "Sriov": {...}} under "Device Parameters"."""
    key = r"HKLM\SYSTEM\CurrentControlSet\Enum\PCI\%s\%s" % (hardware_key, instance)
    keys = {key: {"HardwareID": ["PCI\\" + hardware_key], "DeviceDesc": description, "ClassGUID": class_guid}}
    for sub, values in (parameters or {}).items():
        keys[key + "\\Device Parameters\\" + sub] = values
    return keys


@dataclass
class Run:
    """One msiexec call. mode: /i or /x."""
    mode: str = "/i"
    properties: Dict[str, str] = field(default_factory=dict)
    name: Optional[str] = None      # log name; "install" for /i, "remove" for /x


@dataclass
class Scenario:
    name: str
    title: str
    package: Union[Package, Prebuilt]
    checks: list
    prefix: Prefix = field(default_factory=Prefix)
    runs: List[Run] = field(default_factory=lambda: [Run()])
    timeout: int = 300


# ---------------------------------------------------------------------------
# What a run leaves behind: verbose log, registry files, drive_c
# ---------------------------------------------------------------------------

ACTION_ENDED = re.compile(r"^Action ended [0-9:]+: (.+?)\. Return value (-?\d+)\.\s*$")
PROPERTY = re.compile(r"^Property\(([SC])\): (\S+) = (.*)$")
# Our INFO records: field 1 (the [HH:MM:SS] stamp) comes out empty because
# Wine formats each field as a template and reads the stamp as a property.
OUR_LINE = re.compile(r"^1:  2: (.*?)(?: 3: (.*?))? ?$")


class InstallerLog:
    def __init__(self, path: Path):
        self.path = path
        self.lines = []
        if path.exists():
            text = path.read_bytes().decode("cp1252", errors="replace")
            self.lines = [l.rstrip("\r") for l in text.split("\n")]
        self.results: List[Tuple[str, int]] = []
        self.properties: Dict[str, str] = {}
        self.ours: List[str] = []
        for line in self.lines:
            m = ACTION_ENDED.match(line)
            if m:
                self.results.append((m.group(1), int(m.group(2))))
                continue
            m = PROPERTY.match(line)
            if m:
                self.properties[m.group(2)] = m.group(3)
                continue
            m = OUR_LINE.match(line)
            if m:
                self.ours.append(m.group(1) + (m.group(2) or ""))

    def result_of(self, action: str) -> Optional[int]:
        found = [r for a, r in self.results if a == action]
        return found[-1] if found else None

    def excerpt(self, actions: List[str], limit: int = 40) -> List[str]:
        """Our lines and the results of the given actions, in log order."""
        out = []
        for line in self.lines:
            m = ACTION_ENDED.match(line)
            if m and (m.group(1) in actions or m.group(1) == "INSTALL"):
                out.append(line.strip())
                continue
            m = OUR_LINE.match(line)
            if m:
                out.append("  " + m.group(1) + (m.group(2) or ""))
        return out[-limit:]


_REG_ESCAPES = {"a": "\a", "b": "\b", "e": "\x1b", "f": "\f", "n": "\n",
                "r": "\r", "t": "\t", "v": "\v", "\\": "\\", '"': '"'}


def _unescape(text: str) -> str:
    """Wine's registry-file string escapes."""
    out, i = [], 0
    while i < len(text):
        c = text[i]
        if c != "\\" or i + 1 == len(text):
            out.append(c)
            i += 1
            continue
        n = text[i + 1]
        if n == "x":
            m = re.match(r"[0-9a-fA-F]{1,4}", text[i + 2:])
            out.append(chr(int(m.group(0), 16)) if m else "x")
            i += 2 + (len(m.group(0)) if m else 0)
        elif n in "01234567":
            m = re.match(r"[0-7]{1,3}", text[i + 1:])
            out.append(chr(int(m.group(0), 8)))
            i += 1 + len(m.group(0))
        else:
            out.append(_REG_ESCAPES.get(n, n))
            i += 2
    return "".join(out)


def _hex_bytes(text: str) -> bytes:
    return bytes(int(b, 16) for b in text.replace("\\", "").replace(" ", "").split(",") if b)


class WineRegistry:
    """Reads a stopped prefix's system.reg (HKLM) and user.reg (HKCU).
    Values come back as (type, value): ("sz", str), ("expand_sz", str),
    ("multi_sz", [str]), ("dword", int), ("binary", bytes), ("hex(N)", bytes)."""

    def __init__(self, prefix: Path):
        self.hives = {"HKLM": self._load(prefix / "system.reg"),
                      "HKCU": self._load(prefix / "user.reg")}

    @staticmethod
    def _load(path: Path) -> Dict[str, Dict[str, Tuple[str, object]]]:
        keys: Dict[str, Dict[str, Tuple[str, object]]] = {}
        if not path.exists():
            return keys
        current = None
        pending = ""
        for raw in path.read_text(encoding="ascii", errors="replace").split("\n"):
            line = pending + raw
            if line.endswith("\\") and not line.startswith("["):
                pending = line[:-1]
                continue
            pending = ""
            if line.startswith("["):
                m = re.match(r"^\[(.*)\](?: \d+)?$", line)
                current = keys.setdefault(_unescape(m.group(1)).lower(), {}) if m else None
                continue
            if current is None or not line or line[0] not in '"@':
                continue
            if line.startswith("@="):
                name, rest = "", line[2:]
            else:
                m = re.match(r'^"((?:[^"\\]|\\.)*)"=(.*)$', line)
                if not m:
                    continue
                name, rest = _unescape(m.group(1)), m.group(2)
            current[name.lower()] = WineRegistry._value(rest)
        return keys

    @staticmethod
    def _value(rest: str) -> Tuple[str, object]:
        m = re.match(r'^(?:str\((\d+)\):)?"(.*)"$', rest)
        if m:
            text = _unescape(m.group(2))
            kind = m.group(1)
            if kind == "2":
                return ("expand_sz", text)
            if kind == "7":
                return ("multi_sz", [s for s in text.split("\0") if s])
            return ("sz", text)
        if rest.startswith("dword:"):
            return ("dword", int(rest[6:], 16))
        if rest.startswith("hex:"):
            return ("binary", _hex_bytes(rest[4:]))
        m = re.match(r"^hex\(([0-9a-fA-F]+)\):(.*)$", rest)
        if m:
            data = _hex_bytes(m.group(2))
            kind = int(m.group(1), 16)
            if kind in (1, 2):
                text = data.decode("utf-16-le", errors="replace").rstrip("\0")
                return ("sz" if kind == 1 else "expand_sz", text)
            if kind == 7:
                return ("multi_sz", [s for s in data.decode("utf-16-le", errors="replace").split("\0") if s])
            if kind == 4 and len(data) == 4:
                return ("dword", struct.unpack("<I", data)[0])
            return ("hex(%d)" % kind, data)
        return ("unknown", rest)

    def _split(self, key: str) -> Tuple[dict, str]:
        root, _, path = key.partition("\\")
        root = {"HKEY_LOCAL_MACHINE": "HKLM", "HKEY_CURRENT_USER": "HKCU"}.get(root.upper(), root.upper())
        return self.hives[root], path.lower()

    def key_exists(self, key: str) -> bool:
        hive, path = self._split(key)
        return path in hive

    def value(self, key: str, name: str) -> Optional[Tuple[str, object]]:
        hive, path = self._split(key)
        return hive.get(path, {}).get(name.lower())

    def subkeys(self, key: str) -> List[str]:
        hive, path = self._split(key)
        start = path + "\\"
        return sorted({k[len(start):].split("\\")[0] for k in hive if k.startswith(start)})


def host_path(prefix: Path, windows_path: str) -> Optional[Path]:
    """The Linux path of C:\\... in the prefix, matching names case-insensitively
    as Windows does; None when some component does not exist."""
    m = re.match(r"^[cC]:\\(.*)$", windows_path)
    if not m:
        raise ValueError("not a C: path: " + windows_path)
    path = prefix / "drive_c"
    for part in [p for p in m.group(1).split("\\") if p]:
        exact = path / part
        if exact.exists():
            path = exact
            continue
        try:
            match = [c for c in path.iterdir() if c.name.lower() == part.lower()]
        except (NotADirectoryError, FileNotFoundError):
            return None
        if not match:
            return None
        path = match[0]
    return path


class Context:
    """What the checks see after the runs."""

    def __init__(self, scenario: Scenario, workdir: Path, prefix: Path, vars: Dict[str, str]):
        self.scenario = scenario
        self.workdir = workdir
        self.prefix = prefix
        self.vars = vars
        self.logs: Dict[str, InstallerLog] = {}
        self.exit_codes: Dict[str, int] = {}
        self.registries: Dict[str, WineRegistry] = {}   # as each run left it
        self.last_run = ""
        self.custom_actions: List[str] = []              # the package's CustomAction table

    def log(self, run: Optional[str] = None) -> InstallerLog:
        return self.logs[run or self.last_run]

    def registry(self, run: Optional[str] = None) -> WineRegistry:
        return self.registries[run or self.last_run]

    def reg_value(self, key: str, name: str, run: Optional[str] = None):
        return self.registry(run).value(self.format(key), self.format(name))

    def host_path(self, windows_path: str) -> Optional[Path]:
        return host_path(self.prefix, self.format(windows_path))

    def format(self, text):
        """Puts in {product_code}, {version}; other braces (GUIDs) stay as they are."""
        if not isinstance(text, str):
            return text
        return re.sub(r"\{(\w+)\}", lambda m: self.vars.get(m.group(1), m.group(0)), text)


# ---------------------------------------------------------------------------
# Checks: each is called with the Context and returns None or what is wrong.
# Texts may use {product_code}, {version}.
# ---------------------------------------------------------------------------


class Check:
    def __init__(self, description: str, fn: Callable[[Context], Optional[str]]):
        self.description = description
        self.fn = fn

    def __call__(self, ctx: Context) -> Optional[str]:
        return self.fn(ctx)


class Match:
    """A registry or property value that must match a regular expression
    (whole value, case-insensitive; not formatted with the scenario's texts)."""

    def __init__(self, pattern: str):
        self.pattern = pattern

    def __repr__(self):
        return "/%s/" % self.pattern


def _equal(expected, actual: str, ctx: Context) -> bool:
    if isinstance(expected, Match):
        return re.fullmatch(expected.pattern, actual or "", re.IGNORECASE) is not None
    return actual == ctx.format(expected)


def _action_result(name: str, run: Optional[str], want_success: bool) -> Check:
    def fn(ctx):
        got = ctx.log(run).result_of(name)
        if got is None:
            return "action %s did not run" % name
        return None if (got == 1) == want_success else "return value %d" % got
    return Check("action %s %s" % (name, "succeeds" if want_success else "fails"), fn)


def succeeded(name: str, run: Optional[str] = None) -> Check:
    """The log's "Action ended ...: name. Return value 1." """
    return _action_result(name, run, True)


def failed(name: str, run: Optional[str] = None) -> Check:
    """The action ran and stopped the install. Wine 8 logs "Return value 0" for
    any result that is not a success (Windows: 2 for a user exit, 3 for a
    failure); tell them apart with exit_code."""
    return _action_result(name, run, False)


def every_action_succeeded(run: Optional[str] = None) -> Check:
    """Every custom action of the package ran in this run and succeeded."""
    def fn(ctx):
        log = ctx.log(run)
        wrong = ["%s %s" % (a, "did not run" if log.result_of(a) is None else "failed")
                 for a in ctx.custom_actions if log.result_of(a) != 1]
        return ", ".join(wrong) or None
    return Check("every custom action of the package succeeds", fn)


def not_run(name: str, run: Optional[str] = None) -> Check:
    def fn(ctx):
        got = ctx.log(run).result_of(name)
        return None if got is None else "it ran (return value %d)" % got
    return Check("action %s does not run" % name, fn)


def logged(*lines: str, run: Optional[str] = None) -> Check:
    """Our Installer-log lines (field 2 + field 3), in this order, others may come between."""
    def fn(ctx):
        ours = ctx.log(run).ours
        pos = 0
        for line in lines:
            want = ctx.format(line)
            try:
                pos = ours.index(want, pos) + 1
            except ValueError:
                where = "at all" if want not in ours else "in this order"
                return "not logged %s: %r" % (where, want)
        return None
    shown = " / ".join(repr(l) for l in lines) if len(lines) <= 2 else \
        "%r ... %r (%d lines)" % (lines[0], lines[-1], len(lines))
    return Check("logged " + shown, fn)


def not_logged(line: str, run: Optional[str] = None) -> Check:
    def fn(ctx):
        return "logged %r" % ctx.format(line) if ctx.format(line) in ctx.log(run).ours else None
    return Check("not logged %r" % line, fn)


def exit_code(code: int, run: Optional[str] = None) -> Check:
    """msiexec's result (1602 user exit, 1603 failure). Wine passes a process
    exit code to Linux, which keeps only its low 8 bits (1603 arrives as 67)."""
    def fn(ctx):
        got = ctx.exit_codes[run or ctx.last_run]
        return None if got == code & 0xFF else "msiexec exit code %d" % got
    return Check("msiexec exits with %d" % code, fn)


def prop(name: str, value, run: Optional[str] = None) -> Check:
    """A final property value (Property(S) lines at the end of the log)."""
    def fn(ctx):
        got = ctx.log(run).properties.get(name)
        if got is None:
            return "property %s not set" % name
        return None if _equal(value, got, ctx) else "property %s = %r" % (name, got)
    return Check("property %s = %r" % (name, value), fn)


def reg(key: str, name: str, value, run: Optional[str] = None) -> Check:
    """A registry value after the run (default: the last): str is REG_SZ, Dword(n)
    REG_DWORD, list REG_MULTI_SZ, Expand(s) REG_EXPAND_SZ, Match(p) any string
    value matching p."""
    def fn(ctx):
        got = ctx.reg_value(key, name, run)
        if got is None:
            return "value missing" if ctx.registry(run).key_exists(ctx.format(key)) else "key missing"
        kind, data = got
        if isinstance(value, Dword):
            ok = kind == "dword" and data == value.value
        elif isinstance(value, Expand):
            ok = kind == "expand_sz" and data == ctx.format(value.text)
        elif isinstance(value, list):
            ok = kind == "multi_sz" and data == [ctx.format(v) for v in value]
        elif isinstance(value, Match):
            ok = kind in ("sz", "expand_sz") and _equal(value, data, ctx)
        else:
            ok = kind == "sz" and data == ctx.format(value)
        return None if ok else "found %s %r" % (kind, data)
    return Check("registry %s\\%s = %r" % (key, name, value), fn)


def reg_absent(key: str, name: Optional[str] = None, run: Optional[str] = None) -> Check:
    """The key (or one of its values) does not exist after the run."""
    def fn(ctx):
        if name is None:
            return "key exists" if ctx.registry(run).key_exists(ctx.format(key)) else None
        got = ctx.reg_value(key, name, run)
        return None if got is None else "found %s %r" % got
    return Check("registry %s%s absent" % (key, "\\" + name if name else ""), fn)


def file(path: str, content: Optional[bytes] = None) -> Check:
    def fn(ctx):
        p = ctx.host_path(path)
        if p is None or not p.is_file():
            return "no such file"
        if content is not None and p.read_bytes() != content:
            return "content differs (%d bytes)" % p.stat().st_size
        return None
    return Check("file %s exists%s" % (path, " with the expected bytes" if content is not None else ""), fn)


def no_file(path: str) -> Check:
    def fn(ctx):
        return "exists" if ctx.host_path(path) is not None else None
    return Check("%s does not exist" % path, fn)


def custom(description: str, fn: Callable[[Context], Optional[str]]) -> Check:
    return Check(description, fn)


# ---------------------------------------------------------------------------
# Building packages
# ---------------------------------------------------------------------------

_EXECUTE = {"immediate": "", "deferred": ' Execute="deferred" Impersonate="no"',
            "commit": ' Execute="commit" Impersonate="no"',
            "rollback": ' Execute="rollback" Impersonate="no"'}


def package_wxs(pkg: Package, product_code: str, dll_name: Optional[str],
                binary_files: Dict[str, str]) -> str:
    """WiX source for pkg; dll_name None leaves the DLL's Binary row out."""
    if pkg.product_key:
        key = ('            <RegistryKey Root="HKLM" Key="%s">\n'
               '              <RegistryValue Name="InstallDir" Type="string" Value="[INSTALLDIR]" KeyPath="yes"/>\n'
               '            </RegistryKey>\n' % PRODUCT_KEY.split("\\", 1)[1])
    else:
        key = '            <CreateFolder/>\n'
    lines = []
    if dll_name:
        lines.append('    <Binary Id="SWLLib" SourceFile=%s/>' % quoteattr(dll_name))
    for name, source in binary_files.items():
        lines.append('    <Binary Id=%s SourceFile=%s/>' % (quoteattr(name), quoteattr(source)))
    for prop_name, value in pkg.properties.items():
        lines.append('    <Property Id=%s Value=%s/>' % (quoteattr(prop_name), quoteattr(value)))
    seq = []
    for ca in pkg.actions:
        ident = ca.id or ca.entry
        lines.append('    <CustomAction Id=%s BinaryKey="SWLLib" DllEntry=%s Return=%s%s/>'
                     % (quoteattr(ident), quoteattr(ca.entry), quoteattr(ca.ret), _EXECUTE[ca.execute]))
        seq.append('      <Custom Action=%s Sequence="%d">%s</Custom>'
                   % (quoteattr(ident), ca.sequence, xml_escape(ca.condition)))
    return """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="%(code)s" Name=%(name)s Language="1033" Version="%(version)s"
           Manufacturer="Corvane" UpgradeCode="{6E1A0C52-7B9D-4E21-A3F4-2C8B5D9E0F17}">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="SWL Scenario">
          <Component Id="Product" Guid="%(component)s" Win64="yes">
%(key)s          </Component>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Product"/></Feature>
%(lines)s
    <InstallExecuteSequence>
%(seq)s
    </InstallExecuteSequence>
  </Product>
</Wix>
""" % {"code": product_code, "name": quoteattr(pkg.name), "version": pkg.version,
       "component": PRODUCT_COMPONENT_GUID, "key": key, "lines": "\n".join(lines), "seq": "\n".join(seq)}


# ---------------------------------------------------------------------------
# The DLL under test and deliberately broken copies of it
# ---------------------------------------------------------------------------


def declared_exports(source_dir: Path) -> List[str]:
    """The custom actions SWLLib.def declares: what the library exports so far."""
    names, in_exports = [], False
    for line in (source_dir / "SWLLib/Source/SWLLib.def").read_text().splitlines():
        line = line.split(";")[0].strip()
        if line.upper() == "EXPORTS":
            in_exports = True
        elif in_exports and line:
            names.append(line.split()[0].split("=")[0])
    return names


def _pe_export_names(data: bytes) -> List[Tuple[str, int]]:
    """(name, file offset of the name) for every named export of a PE image."""
    u16 = lambda o: struct.unpack_from("<H", data, o)[0]
    u32 = lambda o: struct.unpack_from("<I", data, o)[0]
    pe = u32(0x3C)
    if data[pe:pe + 4] != b"PE\0\0":
        raise ValueError("not a PE image")
    sections, opt_size, opt = u16(pe + 6), u16(pe + 20), pe + 24
    directory = opt + (96 if u16(opt) == 0x10B else 112)
    table = [(u32(s + 12), max(u32(s + 8), u32(s + 16)), u32(s + 20))
             for s in range(opt + opt_size, opt + opt_size + 40 * sections, 40)]

    def offset(rva):
        for va, size, raw in table:
            if va <= rva < va + size:
                return rva - va + raw
        raise ValueError("RVA outside the sections")

    exports = offset(u32(directory))
    count, names = u32(exports + 24), offset(u32(exports + 32))
    result = []
    for i in range(count):
        at = offset(u32(names + 4 * i))
        result.append((data[at:data.index(b"\0", at)].decode("ascii"), at))
    return result


def custom_actions(msi: Path) -> List[Tuple[str, str]]:
    """(Action, Target) of every row of a package's CustomAction table."""
    out = subprocess.run(["msiinfo", "export", str(msi), "CustomAction"], capture_output=True, text=True)
    rows = [line.split("\t") for line in out.stdout.splitlines()[3:] if line]
    return [(row[0], row[3] if len(row) > 3 else "") for row in rows]


def rename_export(dll: Path, out: Path, name: str) -> str:
    """Copies dll to out with the export name changed in its last letter, keeping
    the name table sorted (the loader searches it by bisection), so only that one
    export goes missing. Returns the new name."""
    data = bytearray(dll.read_bytes())
    exports = _pe_export_names(bytes(data))
    names = [n for n, _ in exports]
    if name not in names:
        raise ValueError("%s does not export %s" % (dll, name))
    at = dict(exports)[name]
    for c in "zyxwvutsrqponmlkjihgfedcba_":
        new = name[:-1] + c
        trial = [new if n == name else n for n in names]
        if new != name and new not in names and trial == sorted(trial):
            data[at + len(name) - 1] = ord(c)
            out.write_bytes(bytes(data))
            return new
    raise ValueError("no same-length name keeps the export table sorted")


# ---------------------------------------------------------------------------
# Running one scenario
# ---------------------------------------------------------------------------

PASSED, FAILED, ERROR, PENDING = "passed", "failed", "error", "pending"


@dataclass
class Outcome:
    label: str
    status: str
    seconds: float = 0.0
    problems: List[str] = field(default_factory=list)
    excerpt: List[str] = field(default_factory=list)
    note: str = ""


def _reg_file(prefix: Prefix) -> str:
    """A .reg file (regedit format 5) for the prefix's preparation."""
    out = ["Windows Registry Editor Version 5.00", ""]
    registry = {k: (dict(v) if v is not None else None) for k, v in prefix.registry.items()}
    if prefix.windows:
        registry.setdefault(r"HKCU\Software\Wine", {})["Version"] = prefix.windows
    roots = {"HKLM": "HKEY_LOCAL_MACHINE", "HKCU": "HKEY_CURRENT_USER"}
    for key, values in registry.items():
        root, _, rest = key.partition("\\")
        full = roots.get(root.upper(), root) + "\\" + rest
        if values is None:
            out += ["[-%s]" % full, ""]
            continue
        out.append("[%s]" % full)
        for name, value in values.items():
            quoted = '"%s"' % name.replace("\\", "\\\\").replace('"', '\\"')
            if isinstance(value, Dword) or isinstance(value, int):
                out.append("%s=dword:%08x" % (quoted, value.value if isinstance(value, Dword) else value))
            elif isinstance(value, str):
                out.append('%s="%s"' % (quoted, value.replace("\\", "\\\\").replace('"', '\\"')))
            else:
                if isinstance(value, Expand):
                    kind, data = "hex(2)", (value.text + "\0").encode("utf-16-le")
                elif isinstance(value, list):
                    kind, data = "hex(7)", ("\0".join(value) + "\0\0").encode("utf-16-le")
                else:
                    kind, data = "hex", bytes(value)
                out.append("%s=%s:%s" % (quoted, kind, ",".join("%02x" % b for b in data)))
        out.append("")
    return "\r\n".join(out) + "\r\n"


class Runner:
    def __init__(self, args):
        self.build = Path(args.build).resolve()
        self.source = Path(args.source).resolve()
        self.dll = Path(args.dll).resolve() if args.dll else self.build / "bin/SWLLib.dll"
        self.workroot = Path(args.workdir).resolve() if args.workdir else self.build / "e2e"
        self.keep = args.keep
        self.verbose = args.verbose
        self.exports = declared_exports(self.source)
        self.tools = self.source / "tools"
        self.env = dict(os.environ)
        self.env.setdefault("WINEDEBUG", "-all")
        self.env["WINEDLLOVERRIDES"] = "mscoree,mshtml="
        self.env.pop("DISPLAY", None)
        self.env.pop("WAYLAND_DISPLAY", None)

    def _run(self, cmd, cwd: Path, timeout: int, prefix: Optional[Path] = None, log: Optional[Path] = None):
        env = dict(self.env)
        if prefix:
            env["WINEPREFIX"] = str(prefix)
        out = open(log, "ab") if log else subprocess.DEVNULL
        try:
            return subprocess.run(cmd, cwd=cwd, env=env, stdout=out, stderr=subprocess.STDOUT,
                                  stdin=subprocess.DEVNULL, timeout=timeout).returncode
        finally:
            if log:
                out.close()

    def pending_reason(self, scenario: Scenario) -> Optional[str]:
        if isinstance(scenario.package, Prebuilt):
            path = Path(scenario.package.path.format(build=self.build))
            return None if path.exists() else "%s is not built (wixl missing?)" % path
        missing = [a.entry for a in scenario.package.actions if a.entry not in self.exports]
        if missing:
            return "SWLLib.def does not export %s yet" % ", ".join(sorted(set(missing)))
        return None

    def build_package(self, scenario: Scenario, workdir: Path, variant: Optional[str]) -> Tuple[Path, str]:
        if isinstance(scenario.package, Prebuilt):
            if variant:
                raise ValueError("--break-dll needs a package built by the runner")
            return Path(scenario.package.path.format(build=self.build)), scenario.package.product_code
        pkg = scenario.package
        product_code = "{%s}" % str(uuid.uuid5(uuid.NAMESPACE_URL, "swl-e2e:" + scenario.name)).upper()
        binaries = {}
        for i, (name, data) in enumerate(pkg.binaries.items()):
            (workdir / ("bin%d.dat" % i)).write_bytes(data)
            binaries[name] = "bin%d.dat" % i
        dll_name: Optional[str] = "SWLLib.dll"
        if variant is None:
            shutil.copyfile(self.dll, workdir / dll_name)
        elif variant == "missing":
            dll_name = None
        elif variant == "unloadable":
            (workdir / dll_name).write_bytes(b"MZ this is not a loadable image\0" * 64)
        elif variant.startswith("rename="):
            rename_export(self.dll, workdir / dll_name, variant.split("=", 1)[1])
        else:
            raise ValueError("unknown --break-dll variant " + variant)
        wxs = workdir / "package.wxs"
        wxs.write_text(package_wxs(pkg, product_code, dll_name, binaries))
        msi = workdir / "package.msi"
        with open(workdir / "wixl.txt", "wb") as out:
            rc = subprocess.run(["wixl", "-a", "x64", "-o", str(msi), str(wxs)], cwd=workdir,
                                stdout=out, stderr=subprocess.STDOUT).returncode
        if rc != 0 or not msi.exists():
            raise RuntimeError("wixl failed: " + (workdir / "wixl.txt").read_text(errors="replace")[-400:])
        return msi, product_code

    def prepare_prefix(self, scenario: Scenario, workdir: Path, prefix: Path):
        if self._run([str(self.tools / "wine-prefix.sh"), "create", str(prefix)], workdir, 600,
                     log=workdir / "wine.txt") != 0:
            raise RuntimeError("cannot create the Wine prefix (see %s)" % (workdir / "wine.txt"))
        prep = scenario.prefix
        for path, data in prep.files.items():
            if not re.match(r"^[cC]:\\", path):
                raise ValueError("prefix files must be on C:\\: " + path)
            target = prefix / "drive_c" / path[3:].replace("\\", "/")
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(data)
        if prep.registry or prep.windows:
            reg = workdir / "prepare.reg"
            reg.write_bytes(b"\xff\xfe" + _reg_file(prep).encode("utf-16-le"))
            if self._run(["wine", "reg", "import", str(reg)], workdir, 120, prefix, workdir / "wine.txt") != 0:
                raise RuntimeError("wine reg import failed (see %s)" % (workdir / "wine.txt"))

    def run(self, scenario: Scenario, variant: Optional[str] = None) -> Outcome:
        label = scenario.name + ("[%s]" % variant if variant else "")
        reason = self.pending_reason(scenario)
        if reason:
            return Outcome(label, PENDING, note=reason)
        started = time.monotonic()
        workdir = self.workroot / label.replace("=", "-").replace("[", "-").replace("]", "")
        prefix = workdir / "prefix"
        if workdir.exists():
            self._run([str(self.tools / "wine-prefix.sh"), "destroy", str(prefix)], self.workroot, 120)
            shutil.rmtree(workdir)
        workdir.mkdir(parents=True)
        outcome = Outcome(label, PASSED)
        try:
            msi, product_code = self.build_package(scenario, workdir, variant)
            self.prepare_prefix(scenario, workdir, prefix)
            ctx = Context(scenario, workdir, prefix, {"product_code": product_code})
            rows = custom_actions(msi)
            ctx.custom_actions = [action for action, _ in rows]
            # Wine runs a missing export as a success, so a prebuilt package
            # must not name one.
            unknown = sorted({target for _, target in rows if target not in self.exports})
            if unknown:
                outcome.problems.append("the package calls %s, which SWLLib.def does not export"
                                        % ", ".join(unknown))
            if isinstance(scenario.package, Package):
                ctx.vars["version"] = scenario.package.version
            for i, run in enumerate(scenario.runs):
                name = run.name or {"/i": "install", "/x": "remove"}.get(run.mode, "run%d" % i)
                log = workdir / (name + ".log")
                cmd = ["wine", "msiexec", run.mode, str(msi), "/qn", "/l*v", str(log)]
                cmd += ["%s=%s" % (k, ctx.format(v)) for k, v in run.properties.items()]
                try:
                    ctx.exit_codes[name] = self._run(cmd, workdir, scenario.timeout, prefix, workdir / "wine.txt")
                except subprocess.TimeoutExpired:
                    raise RuntimeError("msiexec %s did not finish within %d s" % (run.mode, scenario.timeout))
                ctx.logs[name] = InstallerLog(log)
                ctx.last_run = name
                ctx.vars.setdefault("version", ctx.logs[name].properties.get("ProductVersion", ""))
                # Ending the server writes the registry files that the checks read.
                self._run([str(self.tools / "wine-prefix.sh"), "stop", str(prefix)], workdir, 120)
                ctx.registries[name] = WineRegistry(prefix)
            for check in scenario.checks:
                try:
                    problem = check(ctx)
                except Exception as e:  # a check that cannot run is a failed check
                    problem = "%s: %s" % (type(e).__name__, e)
                if problem:
                    outcome.problems.append("%s: %s" % (ctx.format(check.description), problem))
            if outcome.problems or self.verbose:
                for name, log in ctx.logs.items():
                    outcome.excerpt.append("-- %s (%s)" % (name, log.path))
                    outcome.excerpt += ["   " + l for l in log.excerpt(ctx.custom_actions)]
            if outcome.problems:
                outcome.status = FAILED
        except Exception as e:
            outcome.status = ERROR
            outcome.problems.append(str(e))
        finally:
            if self.keep:
                self._run([str(self.tools / "wine-prefix.sh"), "stop", str(prefix)], workdir, 120)
            else:
                self._run([str(self.tools / "wine-prefix.sh"), "destroy", str(prefix)], workdir, 120)
        outcome.seconds = time.monotonic() - started
        return outcome


# ---------------------------------------------------------------------------
# Command line
# ---------------------------------------------------------------------------


def load_scenarios(directory: Path) -> List[Scenario]:
    sys.modules.setdefault("swl_scenarios", sys.modules[__name__])
    found: List[Scenario] = []
    for path in sorted(directory.glob("*.py")):
        spec = importlib.util.spec_from_file_location("scenarios." + path.stem, path)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        found += getattr(module, "SCENARIOS", [])
    names = [s.name for s in found]
    duplicates = {n for n in names if names.count(n) > 1}
    if duplicates:
        raise SystemExit("duplicate scenario names: " + ", ".join(sorted(duplicates)))
    return found


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", required=True, help="the CMake build directory (bin/SWLLib.dll)")
    ap.add_argument("--source", default=str(SOURCE_DIR), help="the source tree (SWLLib.def, tools/)")
    ap.add_argument("--dll", help="the DLL under test (default BUILD/bin/SWLLib.dll)")
    ap.add_argument("--workdir", help="where packages, logs and prefixes go (default BUILD/e2e)")
    ap.add_argument("--scenarios", default=str(HERE / "scenarios"), help="directory of scenario modules")
    ap.add_argument("--jobs", "-j", type=int, default=min(4, os.cpu_count() or 1))
    ap.add_argument("--keep", action="store_true", help="keep the prefixes (stopped) for inspection")
    ap.add_argument("--verbose", "-v", action="store_true", help="show the log excerpt of passing scenarios too")
    ap.add_argument("--list", action="store_true", help="list the scenarios and exit")
    ap.add_argument("--break-dll", action="append", default=[], metavar="VARIANT",
                    help="run against a broken DLL: missing (no Binary row), unloadable, rename=EXPORT; repeatable")
    ap.add_argument("--expect-fail", action="store_true",
                    help="a scenario passes when its checks fail (proves the checks can fail)")
    ap.add_argument("filters", nargs="*", help="scenario names or glob patterns (default: all)")
    args = ap.parse_args(argv)

    scenarios = load_scenarios(Path(args.scenarios))
    if args.filters:
        scenarios = [s for s in scenarios if any(fnmatch.fnmatchcase(s.name, f) for f in args.filters)]
        if not scenarios:
            print("no scenario matches " + " ".join(args.filters))
            print("0 passed, 1 failed")
            return 1
    if args.list:
        for s in scenarios:
            print("%-45s %s" % (s.name, s.title))
        return 0

    runner = Runner(args)
    if not args.dll and not runner.dll.exists():
        print("SWLLib.dll not found at %s" % runner.dll)
        print("0 passed, 1 failed")
        return 1
    variants = args.break_dll or [None]
    jobs = [(s, v) for s in scenarios for v in variants]
    print("%d scenario run(s), %d at a time, work in %s" % (len(jobs), args.jobs, runner.workroot), flush=True)

    lock = threading.Lock()
    passed = failed = pending = 0
    started = time.monotonic()

    def report(outcome: Outcome, scenario: Scenario):
        nonlocal passed, failed, pending
        with lock:
            if outcome.status == PENDING:
                pending += 1
                print("SKIP %s: pending, %s" % (outcome.label, outcome.note), flush=True)
                return
            if args.expect_fail:
                ok = outcome.status == FAILED
                verdict = "PASS" if ok else "FAIL"
                print("%s %s (%.1f s): %s" % (verdict, outcome.label, outcome.seconds,
                      "the broken DLL was detected" if ok else
                      "expected the scenario to fail, it %s" % outcome.status))
            else:
                ok = outcome.status == PASSED
                print("%s %s (%.1f s) %s" % ("PASS" if ok else "FAIL", outcome.label, outcome.seconds,
                                              scenario.title))
            for problem in outcome.problems:
                print("    " + ("detected: " if args.expect_fail and ok else "") + problem)
            if not ok or args.verbose:
                for line in outcome.excerpt:
                    print("    " + line)
            sys.stdout.flush()
            if ok:
                passed += 1
            else:
                failed += 1

    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        futures = {pool.submit(runner.run, s, v): s for s, v in jobs}
        for future in concurrent.futures.as_completed(futures):
            report(future.result(), futures[future])

    if pending:
        print("%d pending" % pending)
    print("total %.1f s" % (time.monotonic() - started))
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
