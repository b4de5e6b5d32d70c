#!/usr/bin/env python3
"""Simulated player: runs the unmodified check and the device-level tests in
a small x86_64 guest under qemu (TCG), against the kernel's own MTD stack
(nandsim), from declarative scenario files.

    vxsim.py run [--build-dir DIR] [--program NAME=PATH]... [--show] SCENARIO...
    vxsim.py kernel [--build-dir DIR]

A SCENARIO is a name in sim/scenarios (without ".toml") or a path to a file.
Scenarios with the same [boot] table share one boot of the guest. The exit
status is 0 when every expectation of every scenario held, 1 otherwise.
See docs/design.md (simulated player) for the scenario format.
"""

import argparse
import fcntl
import gzip
import lzma
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
import tomllib
import zlib

SIM_DIR = os.path.dirname(os.path.abspath(__file__))
SCENARIO_DIR = os.path.join(SIM_DIR, "scenarios")
GUEST_DIR = os.path.join(SIM_DIR, "guest")
# The test-only signing keys, for scenarios that make signed records.
TEST_KEYS_DIR = os.path.join(os.path.dirname(SIM_DIR), "keys", "test")

KERNEL_METAPACKAGE = "linux-image-amd64"
# Modules the guest loads, with everything they depend on: virtio and 9p for
# the shares, overlayfs for the scenario roots, the NAND simulator and the
# dummy network driver.
MODULE_ROOTS = ["virtio_pci", "9pnet_virtio", "9p", "overlay", "nandsim", "dummy"]
BUSYBOX = "/bin/busybox"

# The simulated chip: ID bytes 0x20 0xaa 0x00 0x15.
CHIP_BLOCKS = 2048
ERASE_SIZE = 128 * 1024
PAGE_SIZE = 2048
OOB_SIZE = 64

DEFAULT_PROGRAMS = {
    "vx-hwcheck": "check/vx-hwcheck",
    "vxtool": "tools/vxtool/vxtool",
    "device_tests": "tests/device_tests",
}

# Scenario tables that a player will grow; accepted names, not yet simulated.
RESERVED_TABLES = {
    "input": "the LED/button input device",
    "gpio": "sysfs GPIO lines",
    "avs": "the AVS register block behind /dev/mem",
    "splash": "the boot splash pipe",
}


class SimError(Exception):
    """A problem with a scenario, the build or the host, not a verdict."""


# ---------------------------------------------------------------- scenarios

class Flash:
    def __init__(self, name, blocks, bad, image):
        self.name = name
        self.blocks = blocks
        self.bad = bad
        self.image = image  # None (erased) or (vxtool arguments, stdin text)


class Scenario:
    def __init__(self, name):
        self.name = name
        self.description = ""
        self.memory = "384M"
        self.cmdline = ""
        self.flash = []
        self.proc = {}
        self.files = {}
        self.eth0 = None
        self.program = "vx-hwcheck"
        self.args = []
        self.env = {}
        self.timeout = 120
        self.expect = {}

    def boot_key(self):
        return (self.memory, self.cmdline)


def _take(table, key, kind, where, default=None):
    if key not in table:
        return default
    value = table.pop(key)
    if not isinstance(value, kind):
        raise SimError(f"{where}: '{key}' must be {kind.__name__ if isinstance(kind, type) else 'a list'}")
    return value


def _no_more(table, where):
    if table:
        raise SimError(f"{where}: unknown key(s) {', '.join(sorted(table))}")


def _str_list(value, where):
    if not isinstance(value, list) or not all(isinstance(v, str) for v in value):
        raise SimError(f"{where}: must be a list of strings")
    return value


def merge(base, over):
    """The tables of a scenario that names a base: tables merge key by key,
    everything else (texts, numbers, lists) replaces the base's value."""
    out = dict(base)
    for k, v in over.items():
        out[k] = merge(out[k], v) if isinstance(v, dict) and isinstance(out.get(k), dict) else v
    return out


def parse_scenario(name, data):
    """Checks a scenario's tables; raises SimError on any mistake."""
    data = dict(data)
    s = Scenario(name)
    s.description = _take(data, "description", str, name, "")

    for table in RESERVED_TABLES:
        if table in data:
            raise SimError(f"{name}: [{table}] ({RESERVED_TABLES[table]}) is not simulated yet")

    boot = dict(_take(data, "boot", dict, name, {}))
    s.memory = _take(boot, "memory", str, f"{name} [boot]", s.memory)
    if not re.fullmatch(r"[1-9][0-9]*[MG]", s.memory):
        raise SimError(f"{name} [boot]: memory must look like 256M")
    s.cmdline = _take(boot, "cmdline", str, f"{name} [boot]", "")
    _no_more(boot, f"{name} [boot]")

    used = 0
    for i, f in enumerate(_take(data, "flash", list, name, [])):
        where = f"{name} [[flash]] #{i + 1}"
        f = dict(f)
        pname = _take(f, "name", str, where)
        if not pname or not re.fullmatch(r"[A-Za-z0-9._-]+", pname):
            raise SimError(f"{where}: name must be letters, digits, '.', '_' or '-'")
        blocks = _take(f, "blocks", int, where)
        if not blocks or blocks < 1:
            raise SimError(f"{where}: blocks must be a positive number of erase blocks")
        bad = _take(f, "bad", list, where, [])
        if not all(isinstance(b, int) and 0 <= b < blocks for b in bad):
            raise SimError(f"{where}: bad blocks must be indexes below {blocks}")
        image = None
        env = _take(f, "env", list, where)
        tool = _take(f, "vxtool", list, where)
        script = _take(f, "script", str, where)
        stdin = _take(f, "stdin", str, where, "")
        if sum(x is not None for x in (env, tool, script)) > 1:
            raise SimError(f"{where}: give one of env, vxtool or script")
        if env is not None:
            image = (["mkenv", "--erase-size", "{erase_size}", "-o", "{output}"],
                     "".join(line + "\n" for line in _str_list(env, where + " env")))
        elif tool is not None:
            image = (_str_list(tool, where + " vxtool"), stdin)
        elif script is not None:
            image = (None, script)
        _no_more(f, where)
        s.flash.append(Flash(pname, blocks, sorted(set(bad)), image))
        used += blocks
    if used > CHIP_BLOCKS - 1:
        raise SimError(f"{name}: the partitions need {used} erase blocks; the chip has {CHIP_BLOCKS}")
    if len({f.name for f in s.flash}) != len(s.flash):
        raise SimError(f"{name}: partition names must differ")

    proc = _take(data, "proc", dict, name, {})
    files = _take(data, "files", dict, name, {})
    for table, target in (("proc", proc), ("files", files)):
        for path, content in target.items():
            if not isinstance(content, str) or ".." in path.split("/"):
                raise SimError(f"{name} [{table}]: '{path}' must be a text and a plain path")
        if table == "files" and not all(p.startswith("/") for p in target):
            raise SimError(f"{name} [files]: paths must be absolute")
    s.proc, s.files = proc, files

    net = dict(_take(data, "net", dict, name, {}))
    s.eth0 = _take(net, "eth0", str, f"{name} [net]")
    if s.eth0 is not None and not re.fullmatch(r"([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}", s.eth0):
        raise SimError(f"{name} [net]: eth0 must be a MAC address like 02:00:00:00:00:01")
    _no_more(net, f"{name} [net]")

    run = dict(_take(data, "run", dict, name, {}))
    s.program = _take(run, "program", str, f"{name} [run]", s.program)
    s.args = _str_list(_take(run, "args", list, f"{name} [run]", []), f"{name} [run] args")
    s.env = _take(run, "env", dict, f"{name} [run]", {})
    if not all(re.fullmatch(r"[A-Za-z_][A-Za-z0-9_]*", k) and isinstance(v, str)
               for k, v in s.env.items()):
        raise SimError(f"{name} [run]: env must map variable names to texts")
    s.timeout = _take(run, "timeout", int, f"{name} [run]", s.timeout)
    if s.timeout < 1:
        raise SimError(f"{name} [run]: timeout must be a positive number of seconds")
    _no_more(run, f"{name} [run]")

    expect = dict(_take(data, "expect", dict, name, {}))
    if "status" not in expect:
        raise SimError(f"{name} [expect]: status is required")
    if not isinstance(expect["status"], int):
        raise SimError(f"{name} [expect]: status must be a number")
    for key in ("stdout", "stderr", "kmsg"):
        if key in expect:
            _str_list(expect[key], f"{name} [expect] {key}")
    if "etc_issue" in expect:
        expect.setdefault("files", {})["/etc/issue"] = expect.pop("etc_issue")
    for path, content in expect.get("files", {}).items():
        if not path.startswith("/") or not (isinstance(content, str) or content is False):
            raise SimError(f"{name} [expect.files]: '{path}' must be absolute and map to a text or false")
    unknown = set(expect) - {"status", "stdout", "stderr", "kmsg", "files"}
    if unknown:
        raise SimError(f"{name} [expect]: unknown key(s) {', '.join(sorted(unknown))}")
    s.expect = expect
    _no_more(data, name)
    return s


def read_scenario_data(arg, seen=()):
    """A scenario file's tables, merged over those of its base."""
    path = arg if os.sep in arg or arg.endswith(".toml") else os.path.join(SCENARIO_DIR, arg + ".toml")
    if path in seen:
        raise SimError(f"scenario {arg} is its own base")
    try:
        with open(path, "rb") as f:
            data = tomllib.load(f)
    except OSError as e:
        raise SimError(f"cannot read scenario {arg}: {e.strerror}") from e
    except tomllib.TOMLDecodeError as e:
        raise SimError(f"{path}: {e}") from e
    base = data.pop("base", None)
    if base is None:
        return data
    if not isinstance(base, str):
        raise SimError(f"{path}: base must be a scenario name")
    if os.sep not in base and not base.endswith(".toml"):
        base = os.path.join(os.path.dirname(path), base + ".toml")
    inherited = read_scenario_data(base, seen + (path,))
    inherited.pop("description", None)
    return merge(inherited, data)


def load_scenario(arg):
    name = os.path.splitext(os.path.basename(arg))[0]
    if not re.fullmatch(r"[A-Za-z0-9][A-Za-z0-9._-]*", name):
        raise SimError(f"scenario name {name!r}: use letters, digits, '.', '_' and '-'")
    return parse_scenario(name, read_scenario_data(arg))


# ----------------------------------------------------------------- verdicts

def substitute(text, meminfo):
    """Replaces ${meminfo:KEY} with the number of KEY in the guest's meminfo."""
    def number(m):
        v = re.search(rf"^{re.escape(m.group(1))}:\s*(\d+)", meminfo, re.M)
        if not v:
            raise SimError(f"the guest's /proc/meminfo has no {m.group(1)}")
        return v.group(1)
    return re.sub(r"\$\{meminfo:([A-Za-z0-9_()]+)\}", number, text)


def user_records(before, after):
    """The records that user space wrote to the kernel log between the two
    /dev/kmsg dumps, each as "<level>message"."""
    def parse(dump):
        out = []
        for line in dump.split("\n"):
            m = re.match(r"(\d+),(\d+),[^;]*;(.*)", line)
            if m:
                out.append((int(m.group(2)), int(m.group(1)), m.group(3)))
        return out
    last = max((seq for seq, _, _ in parse(before)), default=-1)
    return [f"<{prio & 7}>{text}" for seq, prio, text in parse(after)
            if seq > last and prio >> 3 != 0]


def lines_text(lines):
    return "".join(line + "\n" for line in lines)


def lines_match(expected, actual):
    """Whether a text is exactly the expected lines, where a line "..."
    stands for any number of lines (dumps whose bytes do not matter)."""
    pattern = "".join("(?:.*\n)*" if line == "..." else re.escape(line + "\n")
                      for line in expected)
    return re.fullmatch(pattern, actual) is not None


def judge(scenario, result):
    """Compares a scenario's results with its expectations; returns the list
    of differences (empty when everything held)."""
    exp = scenario.expect
    meminfo = result.get("meminfo", "")
    diffs = []
    if result.get("status") != exp["status"]:
        diffs.append(f"exit status: expected {exp['status']}, got {result.get('status')}")

    def compare(what, expected, actual):
        if expected != actual:
            diffs.append(f"{what} differs:\n  expected: {expected!r}\n  actual:   {actual!r}")

    for stream in ("stdout", "stderr"):
        if stream not in exp:
            continue
        expected = [substitute(line, meminfo) for line in exp[stream]]
        actual = result.get(stream, "")
        if not lines_match(expected, actual):
            compare(stream, lines_text(expected), actual)
    if "kmsg" in exp:
        compare("kernel-log records", [substitute(r, meminfo) for r in exp["kmsg"]],
                result.get("kmsg", []))
    for path, content in exp.get("files", {}).items():
        actual = result.get("files", {}).get(path, False)
        expected = substitute(content, meminfo) if content is not False else False
        if expected is False and actual is not False:
            diffs.append(f"{path}: expected no file, found {actual!r}")
        elif expected is not False and actual is False:
            diffs.append(f"{path}: expected {expected!r}, but there is no such file")
        else:
            compare(path, expected, actual)
    return diffs


# ------------------------------------------------------------------- kernel

def _run(cmd, **kw):
    p = subprocess.run(cmd, capture_output=True, text=True, **kw)
    if p.returncode != 0:
        raise SimError(f"{' '.join(cmd)} failed ({p.returncode}): {p.stderr.strip()}")
    return p.stdout


def resolve_kernel_package():
    """The versioned kernel image package the metapackage depends on."""
    out = _run(["apt-cache", "depends", KERNEL_METAPACKAGE])
    m = re.search(r"^\s*\|?Depends:\s*(linux-image-\d\S*)$", out, re.M)
    if not m:
        raise SimError(f"apt-cache names no kernel image behind {KERNEL_METAPACKAGE}")
    return m.group(1)


def extract_vmlinux(data):
    """The uncompressed kernel ELF inside a bzImage: finds the payload by the
    magic of its compression and decompresses it."""
    def unxz(b):
        return lzma.LZMADecompressor(format=lzma.FORMAT_XZ).decompress(b)

    def unzstd(b):
        p = subprocess.run(["zstd", "-dcq"], input=b, capture_output=True)
        return p.stdout  # trailing data after the frame makes zstd complain

    def ungzip(b):
        return zlib.decompressobj(16 + zlib.MAX_WBITS).decompress(b)

    for magic, decompress in ((b"\xfd7zXZ\x00", unxz), (b"\x28\xb5\x2f\xfd", unzstd),
                              (b"\x1f\x8b\x08", ungzip)):
        pos = data.find(magic)
        while pos >= 0:
            try:
                out = decompress(data[pos:])
            except (lzma.LZMAError, zlib.error, OSError, EOFError):
                out = b""
            if out[:4] == b"\x7fELF":
                return out
            pos = data.find(magic, pos + 1)
    raise SimError("no compressed ELF kernel found in vmlinuz")


def _module_name(filename):
    m = re.fullmatch(r"(.+)\.ko(\.xz|\.zst|\.gz)?", filename)
    return m.group(1).replace("-", "_") if m else None


def _read_module(path):
    with open(path, "rb") as f:
        data = f.read()
    if path.endswith(".xz"):
        return lzma.decompress(data)
    if path.endswith(".gz"):
        return gzip.decompress(data)
    if path.endswith(".zst"):
        return subprocess.run(["zstd", "-dcq"], input=data, capture_output=True, check=True).stdout
    return data


def module_load_order(roots, depends):
    """Roots and their dependencies, each after everything it depends on;
    depends(name) lists a module's direct dependencies."""
    order = []

    def visit(n, path):
        if n in path:
            raise SimError(f"module dependency loop through {n}")
        if n in order:
            return
        for d in depends(n):
            visit(d, path + [n])
        order.append(n)
    for r in roots:
        visit(r, [])
    return order


def _install_modules(tree, dest):
    paths = {}
    for dirpath, _, filenames in os.walk(tree):
        for fn in filenames:
            n = _module_name(fn)
            if n:
                paths[n] = os.path.join(dirpath, fn)
    blobs = {}

    def depends(n):
        if n not in paths:
            raise SimError(f"the kernel package has no module {n}")
        if n not in blobs:
            blobs[n] = _read_module(paths[n])
        m = re.search(rb"(?:^|\0)depends=([^\0]*)\0", blobs[n])
        return [d.decode().replace("-", "_") for d in m.group(1).split(b",") if d] if m else []

    order = module_load_order(MODULE_ROOTS, depends)
    os.makedirs(dest, exist_ok=True)
    for n in order:
        with open(os.path.join(dest, n + ".ko"), "wb") as f:
            f.write(blobs[n])
    with open(os.path.join(dest, "order"), "w") as f:
        f.write("\n".join(order) + "\n")


def ensure_kernel(build_dir, log=print):
    """Fetches and unpacks the distribution kernel into the build directory
    (once per kernel version); returns (vmlinux path, module directory)."""
    cache = os.path.join(build_dir, "sim", "kernel")
    os.makedirs(cache, exist_ok=True)
    with open(os.path.join(cache, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        try:
            package = resolve_kernel_package()
        except (SimError, OSError) as e:
            cached = sorted(d for d in os.listdir(cache) if os.path.isfile(os.path.join(cache, d, "ready")))
            if not cached:
                raise SimError(f"cannot resolve the kernel package ({e}); run scripts/install-deps") from e
            package = cached[-1]
            log(f"vxsim: {e}; using the cached {package}")
        kdir = os.path.join(cache, package)
        vmlinux, moddir = os.path.join(kdir, "vmlinux"), os.path.join(kdir, "modules")
        ready = os.path.join(kdir, "ready")
        if os.path.exists(ready) and open(ready).read() == " ".join(MODULE_ROOTS):
            return vmlinux, moddir
        log(f"vxsim: fetching {package} into {kdir}")
        os.makedirs(kdir, exist_ok=True)
        debs = [f for f in os.listdir(kdir) if f.endswith(".deb")]
        if not debs:
            cmd = ["apt-get", "download", package]
            if os.geteuid() == 0:
                cmd[1:1] = ["-o", "APT::Sandbox::User=root"]
            _run(cmd, cwd=kdir)
            debs = [f for f in os.listdir(kdir) if f.endswith(".deb")]
        with tempfile.TemporaryDirectory(dir=kdir) as tree:
            _run(["dpkg-deb", "-x", os.path.join(kdir, debs[0]), tree])
            vmlinuz = [f for f in os.listdir(os.path.join(tree, "boot")) if f.startswith("vmlinuz")]
            if not vmlinuz:
                raise SimError(f"{package} holds no vmlinuz")
            with open(os.path.join(tree, "boot", vmlinuz[0]), "rb") as f:
                elf = extract_vmlinux(f.read())
            with open(vmlinux + ".tmp", "wb") as f:
                f.write(elf)
            os.replace(vmlinux + ".tmp", vmlinux)
            shutil.rmtree(moddir, ignore_errors=True)
            _install_modules(os.path.join(tree, "lib", "modules"), moddir)
        with open(ready, "w") as f:
            f.write(" ".join(MODULE_ROOTS))
        for other in os.listdir(cache):   # kernels of earlier releases
            if other != package and other.startswith("linux-image-"):
                shutil.rmtree(os.path.join(cache, other), ignore_errors=True)
        return vmlinux, moddir


# ---------------------------------------------------------------- initramfs

def cpio_newc(entries):
    """An uncompressed newc archive of (path, mode, data, rdev) entries; data
    is the file's bytes or a symlink's target."""
    out = bytearray()

    def add(ino, name, mode, data, rdev=(0, 0)):
        name_b = name.encode() + b"\0"
        fields = [ino, mode, 0, 0, 1, 0, len(data), 0, 0, rdev[0], rdev[1], len(name_b), 0]
        out.extend(b"070701" + b"".join(b"%08X" % v for v in fields) + name_b)
        out.extend(b"\0" * (-len(out) % 4) + data)
        out.extend(b"\0" * (-len(out) % 4))
    for i, (path, mode, data, rdev) in enumerate(entries, start=1):
        add(i, path, mode, data, rdev)
    add(0, "TRAILER!!!", 0, b"")
    return bytes(out)


def build_initramfs(moddir, path):
    def read(p):
        with open(p, "rb") as f:
            return f.read()
    entries = [(d, 0o40755, b"", (0, 0)) for d in ("bin", "dev", "modules")]
    entries.append(("dev/console", 0o20600, b"", (5, 1)))
    entries.append(("bin/busybox", 0o100755, read(BUSYBOX), (0, 0)))
    entries.append(("init", 0o100755, read(os.path.join(GUEST_DIR, "init")), (0, 0)))
    entries.append(("player.sh", 0o100644, read(os.path.join(GUEST_DIR, "player.sh")), (0, 0)))
    for fn in sorted(os.listdir(moddir)):
        entries.append(("modules/" + fn, 0o100644, read(os.path.join(moddir, fn)), (0, 0)))
    with open(path, "wb") as f:
        f.write(cpio_newc(entries))


# ------------------------------------------------------------------ batches

def flash_layout(flash):
    """nandsim's parts= and badblocks= for the scenario's partitions, laid
    out from the start of the chip in order; the rest of the chip stays an
    extra partition that the scenario does not name."""
    parts, bad, start = [], [], 0
    for f in flash:
        parts.append(str(f.blocks))
        bad.extend(str(start + b) for b in f.bad)
        start += f.blocks
    return ",".join(parts), ",".join(bad)


def prepare_scenario(s, sdir, programs):
    """Writes the scenario's inputs below sdir and returns its batch steps."""
    q = shlex.quote
    indir = os.path.join(sdir, "in")
    os.makedirs(indir, exist_ok=True)
    for sub, table in (("proc", s.proc), ("root", s.files)):
        for path, content in table.items():
            target = os.path.join(indir, sub, path.lstrip("/"))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "w", encoding="utf-8") as f:
                f.write(content)
    steps = [f"vx_begin {q(s.name)}"]
    parts, bad = flash_layout(s.flash)
    steps.append(f"vx_flash {q(parts)} {q(bad)}")
    steps.append("vx_proc " + " ".join(q(f.name) for f in s.flash))
    for i, f in enumerate(s.flash):
        steps.append(f"vx_erase {i}")
        if f.image:
            args, stdin = f.image
            image = f"in/{f.name}.img"
            subst = {"{erase_size}": str(ERASE_SIZE), "{page_size}": str(PAGE_SIZE),
                     "{oob_size}": str(OOB_SIZE), "{output}": os.path.join(sdir, image)}
            if args is None:
                # A factory script on the host: the image is made by the
                # project's own tools, step by step, never checked in.
                env = dict(os.environ, VXTOOL=programs["vxtool"], OUTPUT=subst["{output}"],
                           ERASE_SIZE=subst["{erase_size}"], PAGE_SIZE=subst["{page_size}"],
                           BLOCKS=str(f.blocks), BAD_BLOCKS=",".join(map(str, f.bad)),
                           KEYS=TEST_KEYS_DIR)
                cmd = ["bash", "-euo", "pipefail", "-c", stdin]
                p = subprocess.run(cmd, cwd=indir, env=env, capture_output=True, text=True)
            else:
                cmd = [programs["vxtool"]] + [subst.get(a, a) for a in args]
                p = subprocess.run(cmd, input=stdin, capture_output=True, text=True)
            if p.returncode != 0:
                raise SimError(f"{s.name}: {' '.join(cmd)} failed ({p.returncode}): {p.stderr.strip()}")
            steps.append(f"vx_write {i} {q(image)}")
    steps.append(f"vx_eth0 {q(s.eth0 or '')}")
    program = s.program if s.program.startswith("/") else programs.get(s.program)
    if not program:
        raise SimError(f"{s.name}: unknown program {s.program}")
    env = [f"{k}={v}" for k, v in sorted(s.env.items())]
    steps.append("vx_run " + " ".join(q(a) for a in [str(s.timeout)] + env + ["--", program] + s.args))
    collect = sorted(s.expect.get("files", {}))
    if collect:
        steps.append("vx_collect " + " ".join(q(p) for p in collect))
    return steps


def batch_script(names_steps):
    """The guest's script for one boot: each scenario's steps run in a
    subshell that stops at the first failing step, then its root is torn
    down whatever happened."""
    out = ["# Written by vxsim for one boot of the simulated player."]
    for name, steps in names_steps:
        q = shlex.quote(name)
        out.append("( set -e\n  " + "\n  ".join(steps) + f"\n) > /vx/{q}/setup.log 2>&1\n"
                   f"[ $? -eq 0 ] || echo failed > /vx/{q}/setup-failed\n"
                   f"vx_end {q}")
    return "\n".join(out) + "\n"


def read_results(sdir, collect):
    """What the guest left in a scenario's out/ directory."""
    out = os.path.join(sdir, "out")

    def text(name, default=None):
        try:
            with open(os.path.join(out, name), encoding="utf-8", errors="surrogateescape") as f:
                return f.read()
        except FileNotFoundError:
            return default
    status = text("status")
    if status is None:
        return None
    result = {
        "status": int(status.strip()),
        "stdout": text("stdout", ""),
        "stderr": text("stderr", ""),
        "meminfo": text("meminfo", ""),
        "kmsg": user_records(text("kmsg-before", ""), text("kmsg-after", "")),
        "files": {},
    }
    for path in collect:
        content = text(os.path.join("files", path.lstrip("/")))
        if content is not None:
            result["files"][path] = content
    run = (text("run-uptime") or "").split()
    if len(run) == 2:
        result["seconds"] = float(run[1]) - float(run[0])
    return result


def run_boot(scenarios, kernel, programs, rundir, timeout, log):
    """Boots the guest once for scenarios that share their [boot] table;
    returns {name: result or None} and prints the boot's timing."""
    vmlinux, moddir = kernel
    shutil.rmtree(rundir, ignore_errors=True)
    os.makedirs(rundir)
    build_initramfs(moddir, os.path.join(rundir, "initramfs.cpio"))
    named = []
    for s in scenarios:
        sdir = os.path.join(rundir, s.name)
        os.makedirs(sdir)
        named.append((s.name, prepare_scenario(s, sdir, programs)))
    with open(os.path.join(rundir, "batch.sh"), "w") as f:
        f.write(batch_script(named))
    memory, cmdline = scenarios[0].boot_key()
    append = f"console=ttyS0 panic=-1 quiet loglevel=4 mitigations=off {cmdline}".strip()
    cmd = ["qemu-system-x86_64", "-nodefaults", "-no-user-config", "-machine", "pc",
           "-accel", "tcg", "-m", memory, "-smp", "1", "-display", "none", "-no-reboot",
           "-serial", "file:" + os.path.join(rundir, "console.log"), "-monitor", "none",
           "-kernel", vmlinux, "-initrd", os.path.join(rundir, "initramfs.cpio"),
           "-append", append,
           "-virtfs", "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap",
           "-virtfs", f"local,path={rundir},mount_tag=vxsim,security_model=none"]
    start = time.monotonic()
    try:
        p = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
        qemu_error = p.stderr.strip() if p.returncode != 0 else ""
    except subprocess.TimeoutExpired:
        qemu_error = f"the guest did not finish within {timeout} s"
    wall = time.monotonic() - start

    def uptime(name):
        try:
            with open(os.path.join(rundir, name)) as f:
                return float(f.read().split()[0])
        except (OSError, ValueError, IndexError):
            return None
    t_init, t_done = uptime("init-uptime"), uptime("done")
    names = ", ".join(s.name for s in scenarios)
    if t_init is not None and t_done is not None:
        log(f"vxsim: boot [{names}] ({memory}): /init at {t_init:.1f} s, "
            f"results at {t_done:.1f} s guest time; {wall:.1f} s on the host")
    else:
        log(f"vxsim: boot [{names}] ({memory}) failed after {wall:.1f} s on the host")
    if qemu_error or t_done is None:
        if qemu_error:
            log("vxsim: qemu: " + qemu_error)
        for name in ("console.log", "batch.log"):
            try:
                with open(os.path.join(rundir, name), errors="replace") as f:
                    tail = f.read()[-4000:]
                log(f"--- {name} (end) ---\n{tail}")
            except OSError:
                pass
    return {s.name: read_results(os.path.join(rundir, s.name), sorted(s.expect.get("files", {})))
            for s in scenarios}


def report(s, result, rundir, show, log):
    """Prints the verdict of one scenario; returns True when it passed."""
    sdir = os.path.join(rundir, s.name)
    if result is None:
        log(f"FAIL {s.name}: the scenario did not run")
        try:
            with open(os.path.join(sdir, "setup.log"), errors="replace") as f:
                log("  setup: " + f.read().strip().replace("\n", "\n  setup: "))
        except OSError:
            pass
        return False
    diffs = judge(s, result)
    took = f" ({result['seconds']:.2f} s)" if "seconds" in result else ""
    log(f"{'PASS' if not diffs else 'FAIL'} {s.name}{took}")
    for d in diffs:
        log("  " + d.replace("\n", "\n  "))
    if show or diffs:
        for stream in ("stdout", "stderr"):
            if not result[stream]:
                if stream == "stderr":
                    log("  --- stderr: empty ---")
            else:
                log(f"  --- {stream} ---")
                for line in result[stream].rstrip("\n").split("\n"):
                    log("  | " + line)
        log(f"  --- exit status {result['status']} ---")
    return not diffs


def cmd_run(args):
    build_dir = os.path.abspath(args.build_dir)
    programs = {k: os.path.join(build_dir, v) for k, v in DEFAULT_PROGRAMS.items()}
    for p in args.program:
        k, _, v = p.partition("=")
        programs[k] = os.path.abspath(v)
    scenarios = [load_scenario(a) for a in args.scenarios]
    if len({s.name for s in scenarios}) != len(scenarios):
        raise SimError("scenario names must differ")
    needed = {"vxtool"} if any(f.image for s in scenarios for f in s.flash) else set()
    needed |= {s.program for s in scenarios if not s.program.startswith("/")}
    for n in sorted(needed):
        if n in programs and not os.access(programs[n], os.X_OK):
            raise SimError(f"{programs[n]} is missing; build the project first")
    log = lambda m: print(m, flush=True)  # noqa: E731
    kernel = ensure_kernel(build_dir, log)
    groups = {}
    for s in scenarios:
        groups.setdefault(s.boot_key(), []).append(s)
    ok = True
    for i, group in enumerate(groups.values()):
        label = args.name or "-".join(s.name for s in scenarios)
        rundir = os.path.join(build_dir, "sim", "runs", f"{label}.{i}")
        results = run_boot(group, kernel, programs, rundir, args.timeout, log)
        for s in group:
            ok = report(s, results[s.name], rundir, args.show, log) and ok
    return 0 if ok else 1


def main(argv=None):
    ap = argparse.ArgumentParser(prog="vxsim", description=__doc__.split("\n\n")[0])
    sub = ap.add_subparsers(dest="command", required=True)
    run = sub.add_parser("run", help="run scenarios on the simulated player")
    run.add_argument("scenarios", nargs="+", metavar="SCENARIO")
    run.add_argument("--build-dir", default="build")
    run.add_argument("--program", action="append", default=[], metavar="NAME=PATH",
                     help="where a built program is (vx-hwcheck, vxtool, device_tests)")
    run.add_argument("--name", help="name of the run directory below BUILD/sim/runs")
    run.add_argument("--timeout", type=int, default=300, help="seconds per boot")
    run.add_argument("--show", action="store_true", help="print every scenario's output")
    kernel = sub.add_parser("kernel", help="fetch and unpack the guest kernel")
    kernel.add_argument("--build-dir", default="build")
    args = ap.parse_args(argv)
    try:
        if args.command == "kernel":
            vmlinux, moddir = ensure_kernel(os.path.abspath(args.build_dir))
            print(vmlinux)
            return 0
        return cmd_run(args)
    except SimError as e:
        print(f"vxsim: {e}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
