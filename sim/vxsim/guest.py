"""One boot of the guest for scenarios that share their [boot] table, and
the results it leaves for each of them.

The run directory (BUILD/sim/runs/NAME.N) holds the initramfs, the batch
script, one directory per scenario (inputs in in/, results in out/) and the
boot's logs; the guest mounts it read-write as /vx.
"""

import os
import re
import shutil
import subprocess
import time
from dataclasses import dataclass, field

from . import SimError, run_command
from .initramfs import build_initramfs
from .scenario import boot_groups
from .steps import batch_script, prepare_scenario

# Time limits of the guest, in seconds: a boot (kernel, modules, power-off)
# and, per scenario, its set-up and tear-down on top of its [run] timeout.
BOOT_SECONDS = 60
SCENARIO_SECONDS = 30


def boot_timeout(scenarios):
    """How long one boot for the scenarios may take before it is stopped."""
    return BOOT_SECONDS + sum(SCENARIO_SECONDS + s.run.timeout + (s.faults.total if s.faults else 0)
                              for s in scenarios)


def boots(scenarios):
    """How many times the guest boots for a group of scenarios: once, or as
    often as its systemd boot's scenario asks."""
    return scenarios[0].systemd.boots if scenarios[0].systemd else 1


def batch_timeout(scenarios):
    """How long a batch may take: each of its boots in turn."""
    return sum(boot_timeout(g) * boots(g) for g in boot_groups(scenarios))


@dataclass
class FaultRun:
    """One run of a fault sweep: the program with one call failed."""
    kind: str  # open, read, ioctl, mmap, write
    nth: int  # the call of that kind that failed, from 1
    status: int | None  # as Result.status
    fault: str  # the injector's line: "KIND N SYSCALL ERRNO TARGET"
    stdout: str = ""
    stderr: str = ""


@dataclass
class FaultSweep:
    runs: list[FaultRun]  # by kind in the sweep's order, then by call
    ends: dict[str, int | None]  # by kind: the status of the run that made no further call


@dataclass
class Result:
    """What the guest left for a scenario whose program ran."""
    status: int | None  # None: the status file holds no number
    status_text: str = ""  # the status file as the guest wrote it
    stdout: str = ""
    stderr: str = ""
    meminfo: str = ""  # /proc/meminfo as the program saw it
    pid: str = ""  # the program's process id
    kmsg: list[str] = field(default_factory=list)  # see user_records
    files: dict[str, str] = field(default_factory=dict)  # collected, by path
    modes: dict[str, str] = field(default_factory=dict)  # their permission bits, octal
    seconds: float | None = None  # the program's run time, guest clock
    device_log: list[tuple[int, str]] | None = None  # the event device's, see device_log
    splash: str | None = None  # what the splash reader got; None: no reader
    steps_failed: str | None = None  # setup.log, when a step after the run failed
    faults: FaultSweep | None = None  # the fault sweep's runs, when there was one
    memcheck: str | None = None  # valgrind's report, when the program ran under memcheck
    systemd: "SystemdResult | None" = None  # what the observer of a systemd boot recorded


@dataclass
class SystemdResult:
    """What the observer of a systemd boot left (guest/observe.sh)."""
    units: dict[str, dict[str, str]]  # by unit, its properties (systemctl show)
    journal: str  # the boot's messages, one a line
    journal_log: str  # the same with times and senders
    script: str | None  # what the boot's script printed
    state: str  # systemctl is-system-running at the end
    times: dict[str, float]  # systemd_start, check_start, check_end, boot_end: seconds, guest clock


def unit_properties(text):
    """systemctl show's "Name=value" lines as a dict."""
    return dict(line.split("=", 1) for line in text.split("\n") if "=" in line)


def device_log(text):
    """The event device server's log as (CLOCK_MONOTONIC ns, event) pairs,
    e.g. (1234, "write 17 17 1"); lines that are not "<ns> <event>" are left
    out (a line cut short when the server was killed)."""
    out = []
    for line in text.split("\n"):
        t, _, what = line.partition(" ")
        if t.isdigit() and what:
            out.append((int(t), what))
    return out


# What the guest writes to the kernel log after the program (player.sh).
RUN_END_RECORD = "vxsim: end of run"


def user_records(before, after, facility=None):
    """The records that user space wrote to the kernel log between the two
    /dev/kmsg dumps, each as "<level>message", but for the runner's own
    end-of-run record; with a facility, only those of that facility (1,
    user: what a program writes with a bare level prefix)."""
    def parse(dump):
        out = []
        for line in dump.split("\n"):
            m = re.match(r"(\d+),(\d+),[^;]*;(.*)", line)
            if m:
                out.append((int(m.group(2)), int(m.group(1)), m.group(3)))
        return out
    last = max((seq for seq, _, _ in parse(before)), default=-1)
    return [f"<{prio & 7}>{text}" for seq, prio, text in parse(after)
            if seq > last and prio >> 3 != 0 and facility in (None, prio >> 3) and text != RUN_END_RECORD]


def status_number(text):
    try:
        return int(text.strip())
    except ValueError:
        return None


def read_fault_sweep(directory, kinds):
    """The runs that vx_fault_sweep left in out/faults; None when it left
    nothing."""
    if not os.path.isdir(directory):
        return None

    def text(name):
        try:
            with open(os.path.join(directory, name), encoding="utf-8", errors="surrogateescape",
                      newline="") as f:
                return f.read()
        except FileNotFoundError:
            return None
    runs, ends = [], {}
    for kind in kinds:
        n = 1
        while (status := text(f"{kind}.{n}.status")) is not None:
            runs.append(FaultRun(kind, n, status_number(status), (text(f"{kind}.{n}.fault") or "").strip(),
                                 text(f"{kind}.{n}.stdout") or "", text(f"{kind}.{n}.stderr") or ""))
            n += 1
        end = text(f"{kind}.end.status")
        if end is not None:
            ends[kind] = status_number(end)
    return FaultSweep(runs, ends)


def read_results(sdir, collect, fault_kinds=(), systemd=False):
    """What the guest left in a scenario's out/ directory; None when the
    program never ran (no status file). The kernel log of a systemd boot is
    the whole boot's: only the records of the user facility count."""
    out = os.path.join(sdir, "out")

    def text(name, default=None):
        try:
            with open(os.path.join(out, name), encoding="utf-8", errors="surrogateescape", newline="") as f:
                return f.read()
        except FileNotFoundError:
            return default
    status_text = text("status")
    if status_text is None:
        return None
    status = status_number(status_text)
    result = Result(status=status, status_text=status_text, stdout=text("stdout", ""),
                    stderr=text("stderr", ""), meminfo=text("meminfo", ""),
                    pid=text("pid", "").strip(),
                    kmsg=user_records(text("kmsg-before", ""), text("kmsg-after", ""),
                                      facility=1 if systemd else None))
    for path in collect:
        content = text(os.path.join("files", path.lstrip("/")))
        if content is not None:
            result.files[path] = content
            result.modes[path] = (text(os.path.join("files", path.lstrip("/") + ".mode")) or "").strip()
    log = text("vxevdev.log")
    result.device_log = device_log(log) if log is not None else None
    result.splash = text("splash")
    result.memcheck = text("memcheck")
    if os.path.exists(os.path.join(sdir, "setup-failed")):
        try:
            with open(os.path.join(sdir, "setup.log"), errors="replace") as f:
                result.steps_failed = f.read().strip()
        except OSError:
            result.steps_failed = ""
    if fault_kinds:
        result.faults = read_fault_sweep(os.path.join(out, "faults"), fault_kinds)
    try:
        t0, t1 = map(float, (text("run-uptime") or "").split())
        result.seconds = t1 - t0
    except ValueError:
        pass
    if systemd:
        units = {}
        if os.path.isdir(os.path.join(out, "units")):
            units = {u: unit_properties(text(os.path.join("units", u), ""))
                     for u in sorted(os.listdir(os.path.join(out, "units")))}
        times = {}
        for line in (text("times") or "").split("\n"):
            key, _, value = line.partition(" ")
            if value.strip().isdigit() and int(value) > 0:
                times[key] = int(value) / 1e6
        result.systemd = SystemdResult(units=units, journal=text("journal", ""), journal_log=text("journal.log", ""),
                                       script=text("script"), state=(text("state") or "").strip(), times=times)
        if "check_start" in times and "check_end" in times:
            result.seconds = times["check_end"] - times["check_start"]
    return result


# A systemd boot's disk: the root's writable layer, ext4, made on the host.
DISK_NAME = "disk.img"
DISK_SIZE = 256 * 1024 * 1024


def make_disk(path):
    mkfs = shutil.which("mkfs.ext4", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not mkfs:
        raise SimError("a systemd boot needs mkfs.ext4 (e2fsprogs, scripts/install-deps)")
    with open(path, "wb") as f:
        f.truncate(DISK_SIZE)
    run_command([mkfs, "-q", "-F", "-L", "vxsim-root", path])


def prepare_boot(scenarios, moddir, programs, rundir, board, userland, boot=1):
    """A fresh run directory with the initramfs, every scenario's inputs
    and the batch script; for a systemd boot's later boots, the run
    directory as the boot before left it (its disk, its results set aside),
    with the inputs of this boot."""
    systemd = scenarios[0].systemd is not None
    if boot == 1:
        shutil.rmtree(rundir, ignore_errors=True)
        os.makedirs(rundir)
        build_initramfs(moddir, os.path.join(rundir, "initramfs.cpio"), userland.busybox)
        if systemd:
            make_disk(os.path.join(rundir, DISK_NAME))
    for marker in ("init-uptime", "done", "batch-status"):
        if os.path.exists(os.path.join(rundir, marker)):
            os.unlink(os.path.join(rundir, marker))
    image_tool = board.host_program(programs["vxtool"], rundir) if "vxtool" in programs else None
    named = []
    for s in scenarios:
        sdir = os.path.join(rundir, s.name)
        os.makedirs(sdir, exist_ok=True)
        named.append((s.name, prepare_scenario(s, sdir, programs, board, image_tool, boot)))
    with open(os.path.join(rundir, "batch.sh"), "w") as f:
        f.write(batch_script(named, len(userland.layers), systemd))


def run_boots(scenarios, kernel, programs, rundir, timeout, log, board, userland, shell=False):
    """Boots the guest for scenarios that share their [boot] table: once,
    or for a systemd boot as often as its scenario asks, each boot's results
    set aside in the scenario's directory as boot.N. Returns {name: [Result
    or None per boot]}."""
    results = {s.name: [] for s in scenarios}
    for boot in range(1, boots(scenarios) + 1):
        for name, result in run_boot(scenarios, kernel, programs, rundir, timeout, log, board, userland,
                                     boot, shell).items():
            results[name].append(result)
            out = os.path.join(rundir, name, "out")
            if boots(scenarios) > 1 and os.path.isdir(out):
                os.rename(out, os.path.join(rundir, name, f"boot.{boot}"))
    return results


def run_boot(scenarios, kernel, programs, rundir, timeout, log, board, userland, boot=1, shell=False):
    """Boots the board's guest once for scenarios that share their [boot] table;
    returns {name: Result or None} and logs the boot's timing, and the end
    of the guest's logs when the boot failed. Without a timeout the boot
    may take boot_timeout(scenarios) seconds. With shell, the guest's shell
    runs on this process's terminal, for as long as a person uses it."""
    vmlinux, moddir = kernel
    timeout = timeout or boot_timeout(scenarios)
    prepare_boot(scenarios, moddir, programs, rundir, board, userland, boot)
    memory, cmdline = scenarios[0].boot_key()[:2]
    systemd = scenarios[0].systemd is not None
    command = board.qemu_command(memory, cmdline, vmlinux, rundir, userland.layers,
                                 os.path.join(rundir, DISK_NAME) if systemd else None, shell)
    start = time.monotonic()
    try:
        if shell:
            p = subprocess.run(command)
            qemu_error = f"qemu ended with status {p.returncode}" if p.returncode != 0 else ""
        else:
            p = subprocess.run(command, capture_output=True, text=True, timeout=timeout)
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
    names = ", ".join(s.name for s in scenarios) + (f" #{boot}" if boots(scenarios) > 1 else "")
    if t_init is not None and t_done is not None:
        log(f"vxsim: boot [{names}] ({board.architecture}, {memory}): /init at {t_init:.1f} s, "
            f"results at {t_done:.1f} s guest time; {wall:.1f} s on the host")
    else:
        log(f"vxsim: boot [{names}] ({board.architecture}, {memory}) failed after {wall:.1f} s on the host")
    if qemu_error or t_done is None:
        if qemu_error:
            log("vxsim: qemu: " + qemu_error)
        for name in ("console.log", "batch.log"):
            try:
                with open(os.path.join(rundir, name), errors="replace") as f:
                    log(f"--- {name} (end) ---\n{f.read()[-4000:]}")
            except OSError:
                pass
    results = {s.name: read_results(os.path.join(rundir, s.name), sorted(set(s.expect.files) | set(s.expect.modes)),
                                    s.faults.calls if s.faults else (), systemd)
               for s in scenarios}
    for name, result in results.items():
        times = result.systemd.times if result and result.systemd else {}
        if times:
            def at(key):
                return f"{times[key]:.1f} s" if key in times else "never"
            log(f"vxsim: systemd boot [{names}]: systemd started at {at('systemd_start')}, "
                f"{scenarios[0].systemd.check_unit} at {at('check_start')}, its process ended at "
                f"{at('check_end')}; the boot was over at {at('boot_end')} (guest clock)")
    return results
