"""Scenario files: one simulated player each, as TOML.

Each table of a file is read by a function of its own into a dataclass of
its own; a new table gets both, a field in Scenario and a line in
parse_scenario, and its guest steps in the steps module. Every key a table
does not take is an error, and so is a file that names no batch.
"""

import os
import re
import tomllib
from dataclasses import dataclass, field

from . import SCENARIO_DIR, SimError

# The simulated chip: ID bytes 0x20 0xaa 0x00 0x15.
CHIP_BLOCKS = 2048
ERASE_SIZE = 128 * 1024
PAGE_SIZE = 2048
OOB_SIZE = 64

# Tables that a player will grow; accepted names, not yet simulated.
RESERVED_TABLES = {
}

MASK_MAX = 0xFFFFFFFF  # GPIO masks: 32 lines or pins, bit n for line or pin n
# What [input] times count from (see Input.epoch), as the verdicts name it.
EPOCHS = {"write": "the program's first write to the device", "open": "the program's first open of the device",
          "start": "the event device server's start"}

NAME = r"[A-Za-z0-9][A-Za-z0-9._-]*"
# The simulated players, by Debian architecture (board.py).
ARCHITECTURES = ("amd64", "arm64")


@dataclass
class Boot:
    memory: str = "384M"
    cmdline: str = ""


@dataclass
class Image:
    """How a partition's logical image is made on the host: vxtool with
    arguments and standard input, or a factory script."""
    vxtool: list[str] | None = None
    stdin: str = ""
    script: str | None = None


@dataclass
class Flash:
    name: str
    blocks: int
    bad: list[int]
    image: Image | None = None  # None: erased
    # Pages (2048 bytes, counted from the partition's first block, bad ones
    # included) that fail to read: "PAGE" from the first read on, "PAGE:N"
    # after N good reads. The chip then returns data its ECC cannot correct.
    read_errors: list[str] = field(default_factory=list)
    # Bits that flip after the partition is written, each "PAGE:BYTE": the
    # lowest set bit of the first non-zero byte from BYTE of PAGE is cleared
    # in a raw write that leaves the page's ECC as it was, which is a bit flip
    # the chip's ECC corrects (one per 256 bytes).
    bit_flips: list[str] = field(default_factory=list)
    # A capture's raw contents of the partition's good blocks (a host file:
    # each page followed by its OOB bytes), written without ECC; set for a
    # player built from a capture (capture.py), never by a scenario file.
    raw: str | None = None
    # A logical image (a host file) written over the good blocks with the
    # chip's ECC, in place of the captured pages (run --capture --image).
    logical: str | None = None


@dataclass
class Net:
    eth0: str | None = None
    # Seconds into a systemd boot at which the NIC becomes eth0, as a driver
    # that probes late would make it; None: it is eth0 before the boot.
    late: int | None = None


@dataclass
class Gpio:
    """The GPIO chip, lines 64..95: present in every scenario."""
    levels: int = 0x1  # input levels, bit n for line 64 + n; line 64 high: healthy


@dataclass
class Avs:
    """The AVS status block (18 words at physical 0x08144000), written into
    the guest's reserved register range before the program runs."""
    words: list[int] = field(default_factory=lambda: [0] * 18)


@dataclass
class Input:
    """The GPIO event device /dev/input/veltrix-gpio, served by vxevdev.
    Masks have bit n for pin n (event code n + 8)."""
    inputs: int = 0x1000  # the button, pin 12
    outputs: int = 0x200  # the error LED, pin 9
    configurable: int = 0
    levels: int = 0
    press: list[tuple[int, int]] = field(default_factory=list)  # (pin, ms after the epoch)
    release: list[tuple[int, int]] = field(default_factory=list)
    epoch: str = "write"  # the first write to the device, the first open, or the server's start


@dataclass
class Splash:
    reader: bool = False  # a FIFO /boot-splash-pipe with a reader
    # The reader exits once it has read this many bytes (a display that goes
    # away); None: it reads until the program is done.
    reader_exits_after_bytes: int | None = None


@dataclass
class Disk:
    """The scenario root's writable layer, a tmpfs of its own."""
    full: bool = False  # no page left when the program starts: a file can be made, not written


@dataclass
class Install:
    """Debian packages of the build (by name) that the player's dpkg
    installs into the scenario's root before the program runs."""
    packages: list[str] = field(default_factory=list)


@dataclass
class Run:
    program: str = "vx-hwcheck"
    args: list[str] = field(default_factory=list)
    env: dict[str, str] = field(default_factory=dict)
    timeout: int = 120
    # Where the program's standard error goes: "file" (compared as stderr),
    # "kmsg", the kernel log, as the player's boot scripts connect it, or
    # "broken-pipe", a pipe whose reader has gone before the program starts.
    stderr: str = "file"
    # Under valgrind's memcheck, whose report is judged too (verdict.py).
    memcheck: bool = False


# The kinds of system call a fault sweep fails, as the injector names them.
FAULT_CALLS = ("open", "read", "ioctl", "mmap", "write")


@dataclass
class Faults:
    """A fault sweep after the run: the program again, once per system call
    of each kind that it makes, with that one call failed."""
    calls: list[str]
    timeout: int = 20  # seconds per run
    total: int = 900  # seconds the whole sweep may take
    # Failed calls, as "KIND TARGET" patterns ("mmap anonymous", "read
    # */fips_enabled"), that a run may pass without a word of; and those
    # after which it may be killed by a signal, with a message.
    unreported: list[str] = field(default_factory=list)
    killed: list[str] = field(default_factory=list)
    # A path: only the calls from the program's first open of it on are
    # counted and failed (a sweep of what a failing check does last).
    from_open: str | None = None


@dataclass
class Systemd:
    """The player boots Debian's systemd as its first process from the
    scenario's root, whose writable layer is a virtual disk kept from boot
    to boot; an observer unit waits for the boot to end, runs the boot's
    script and records the state of the units [expect.systemd] names."""
    scripts: list[str] = field(default_factory=lambda: [""])  # one per boot, run as root by sh
    check_unit: str = "vx-hwcheck.service"  # whose main process gives the status

    @property
    def boots(self):
        return len(self.scripts)


@dataclass
class ExpectSystemd:
    """What a systemd boot must show; None: not judged."""
    units: dict[str, dict[str, str]] = field(default_factory=dict)  # unit -> property -> value
    journal: list[str] | None = None  # lines of the boot's journal, in this order, others between
    scripts: list[list[str]] | None = None  # per boot: what its script printed, exact lines
    state: str | None = None  # systemctl is-system-running once the boot is over


@dataclass
class ExpectInput:
    """What the event device's log must show; None: not judged."""
    writes: list[str] | None = None  # "TYPE CODE VALUE", in order
    gaps_ms: list[float] | None = None  # between successive writes
    gap_phases: list[int] | None = None  # how many timed phases each gap spans
    tolerance_ms: float = 20  # per phase
    exit_after_press_ms: float | None = None  # from the last press to the last close


@dataclass
class Expect:
    status: int
    stdout: list[str] | None = None  # None: not compared
    stderr: list[str] | None = None
    kmsg: list[str] | None = None
    files: dict[str, str | bool] = field(default_factory=dict)  # False: no such file
    modes: dict[str, str] = field(default_factory=dict)  # permission bits in octal, "644"
    splash: str | None = None  # what the splash reader got
    input: ExpectInput | None = None
    systemd: ExpectSystemd | None = None


@dataclass
class Scenario:
    name: str
    batch: str
    expect: Expect
    description: str = ""
    boot: Boot = field(default_factory=Boot)
    flash: list[Flash] = field(default_factory=list)
    proc: dict[str, str] = field(default_factory=dict)
    # A text, False (removed from the root), {"fifo": True} or {"symlink": TARGET}.
    files: dict[str, str | bool | dict] = field(default_factory=dict)
    net: Net = field(default_factory=Net)
    gpio: Gpio = field(default_factory=Gpio)
    avs: Avs = field(default_factory=Avs)
    input: Input | None = None  # None: no event device
    splash: Splash = field(default_factory=Splash)
    disk: Disk = field(default_factory=Disk)
    install: Install = field(default_factory=Install)
    run: Run = field(default_factory=Run)
    faults: Faults | None = None  # None: no fault sweep
    systemd: Systemd | None = None  # None: the program runs by itself, no init system
    # The players the scenario runs on; a file's own, never inherited.
    architectures: tuple[str, ...] = ARCHITECTURES
    # After the program: vxtool captures the player, these partitions, into
    # out/capture (the round trip of capture.py); None: no capture.
    capture: list[str] | None = None
    # After the program: a shell on the guest's second serial port, the
    # terminal of the person who asked for it (sim/run-player --shell).
    shell: bool = False

    def boot_key(self):
        """Scenarios with equal keys can share one boot; a systemd boot is
        its scenario's alone."""
        return (self.boot.memory, self.boot.cmdline) + ((self.name,) if self.systemd else ())


class Table:
    """A table being read: keys are taken one by one, and whatever is left
    at the end is reported as unknown."""

    KINDS = {str: "a text", int: "a number", list: "a list", dict: "a table", bool: "true or false",
             (int, float): "a number"}

    def __init__(self, data, scenario, path="", where=None):
        self.scenario, self.path = scenario, path
        self.where = where or (f"{scenario} [{path}]" if path else scenario)
        if not isinstance(data, dict):
            raise self.error("must be a table")
        self.data = dict(data)

    def __contains__(self, key):
        return key in self.data

    def error(self, message):
        return SimError(f"{self.where}: {message}")

    def take(self, key, kind, default=None):
        if key not in self.data:
            return default
        value = self.data.pop(key)
        if not isinstance(value, kind) or (kind is not bool and isinstance(value, bool)):
            raise self.error(f"'{key}' must be {self.KINDS[kind]}")
        return value

    def mask(self, key, default):
        """A 32-bit mask, bit n for line or pin n."""
        value = self.take(key, int, default)
        if not 0 <= value <= MASK_MAX:
            raise self.error(f"'{key}' must be a mask of 32 bits")
        return value

    def millis(self, key, default=None):
        """A duration in milliseconds, not negative."""
        value = self.take(key, (int, float), default)
        if value is not None and value < 0:
            raise self.error(f"'{key}' must not be negative")
        return value

    def texts(self, key, default=None):
        """A list of strings."""
        value = self.take(key, list, default)
        if value is not None and not all(isinstance(v, str) for v in value):
            raise self.error(f"'{key}' must be a list of texts")
        return value

    def table(self, key):
        path = f"{self.path}.{key}" if self.path else key
        return Table(self.take(key, dict, {}), self.scenario, path)

    def done(self):
        if self.data:
            raise self.error(f"unknown key(s) {', '.join(sorted(self.data))}")


def parse_boot(t):
    boot = Boot(memory=t.take("memory", str, Boot.memory), cmdline=t.take("cmdline", str, ""))
    if not re.fullmatch(r"[1-9][0-9]*[MG]", boot.memory):
        raise t.error("memory must look like 256M")
    t.done()
    return boot


def parse_image(t):
    env, tool, script = t.texts("env"), t.texts("vxtool"), t.take("script", str)
    stdin = t.take("stdin", str)
    if sum(x is not None for x in (env, tool, script)) > 1:
        raise t.error("give one of env, vxtool or script")
    if stdin is not None and tool is None:
        raise t.error("stdin goes with vxtool")
    if env is not None:
        return Image(vxtool=["mkenv", "--erase-size", "{erase_size}", "-o", "{output}"],
                     stdin="".join(line + "\n" for line in env))
    if tool is not None:
        return Image(vxtool=tool, stdin=stdin or "")
    if script is not None:
        return Image(script=script)
    return None


def parse_flash(t):
    name = t.take("name", str)
    if not name or not re.fullmatch(r"[A-Za-z0-9._-]+", name):
        raise t.error("name must be letters, digits, '.', '_' or '-'")
    blocks = t.take("blocks", int)
    if not blocks or blocks < 1:
        raise t.error("blocks must be a positive number of erase blocks")
    bad = t.take("bad", list, [])
    if not all(type(b) is int and 0 <= b < blocks for b in bad):
        raise t.error(f"bad blocks must be indexes below {blocks}")
    flash = Flash(name, blocks, sorted(set(bad)), parse_image(t))
    pages = blocks * ERASE_SIZE // PAGE_SIZE
    for e in t.take("read_errors", list, []):
        m = re.fullmatch(r"(\d+)(?::(\d+))?", str(e))
        if not m or int(m.group(1)) >= pages:
            raise t.error(f"read_errors are pages below {pages}, each \"PAGE\" or \"PAGE:READS\", not {e!r}")
        flash.read_errors.append(f"{m.group(1)}:{m.group(2) or 0}")
    for e in t.take("bit_flips", list, []):
        m = re.fullmatch(r"(\d+):(\d+)", str(e))
        if not m or int(m.group(1)) >= pages or int(m.group(2)) >= PAGE_SIZE:
            raise t.error(f"bit_flips are \"PAGE:BYTE\", pages below {pages}, bytes below {PAGE_SIZE}, not {e!r}")
        flash.bit_flips.append(e)
    t.done()
    return flash


def parse_flash_list(doc):
    flash = [parse_flash(Table(f, doc.scenario, "flash", f"{doc.where} [[flash]] #{i + 1}"))
             for i, f in enumerate(doc.take("flash", list, []))]
    used = sum(f.blocks for f in flash)
    if used > CHIP_BLOCKS - 1:
        raise doc.error(f"the partitions need {used} erase blocks; the chip has {CHIP_BLOCKS}")
    if len({f.name for f in flash}) != len(flash):
        raise doc.error("partition names must differ")
    return flash


def parse_texts(t, absolute):
    """[proc] and [files]: paths mapped to their contents; false leaves out
    a file that the base scenario gives ([files]: or that the host's root
    has, kept as False). [files] also takes a FIFO, { fifo = true }, and a
    symbolic link, { symlink = "TARGET" }."""
    for path, content in t.data.items():
        special = absolute and isinstance(content, dict) and (
            content == {"fifo": True} or (list(content) == ["symlink"] and isinstance(content["symlink"], str)
                                          and content["symlink"]))
        if not (isinstance(content, str) or content is False or special) or ".." in path.split("/"):
            raise t.error(f"'{path}' must be a text (or false{', a fifo or a symlink' if absolute else ''}) "
                          "and a plain path")
        if absolute and not path.startswith("/"):
            raise t.error("paths must be absolute")
    return {path: content for path, content in t.data.items() if content is not False or absolute}


def parse_net(t):
    net = Net(eth0=t.take("eth0", str) or None, late=t.take("late", int))  # "": no eth0
    if net.eth0 is not None and not re.fullmatch(r"([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}", net.eth0):
        raise t.error("eth0 must be a MAC address like 02:00:00:00:00:01")
    if net.late is not None and (net.late < 1 or net.eth0 is None):
        raise t.error("late is a positive number of seconds, for an eth0")
    t.done()
    return net


def parse_gpio(t):
    gpio = Gpio(levels=t.mask("levels", Gpio.levels))
    t.done()
    return gpio


def parse_avs(t):
    avs = Avs(words=t.take("words", list, Avs().words))
    if len(avs.words) != 18 or not all(isinstance(w, int) and not isinstance(w, bool)
                                       and 0 <= w <= 0xFFFFFFFF for w in avs.words):
        raise t.error("words must be 18 unsigned 32-bit numbers")
    t.done()
    return avs


def parse_timed(t, key, inputs):
    """press or release: "PIN@MS" texts, each an input pin and milliseconds
    after the epoch."""
    timed = []
    for text in t.texts(key, []):
        m = re.fullmatch(r"(\d+)@(\d+)", text)
        if not m or int(m.group(1)) > 31:
            raise t.error(f"'{key}' takes texts like \"12@3000\" (pin 0..31 @ milliseconds), "
                          f"not {text!r}")
        pin, ms = int(m.group(1)), int(m.group(2))
        if not inputs >> pin & 1:
            raise t.error(f"pin {pin} is not an input (see 'inputs')")
        timed.append((pin, ms))
    return timed


def parse_input(t):
    inputs = t.mask("inputs", Input.inputs)
    device = Input(inputs=inputs, outputs=t.mask("outputs", Input.outputs),
                   configurable=t.mask("configurable", Input.configurable),
                   levels=t.mask("levels", Input.levels), press=parse_timed(t, "press", inputs),
                   release=parse_timed(t, "release", inputs), epoch=t.take("epoch", str, "write"))
    if device.epoch not in EPOCHS:
        raise t.error(f"epoch must be one of {', '.join(EPOCHS)}")
    t.done()
    return device


def parse_splash(t):
    splash = Splash(reader=t.take("reader", bool, False),
                    reader_exits_after_bytes=t.take("reader_exits_after_bytes", int))
    if splash.reader_exits_after_bytes is not None and (not splash.reader or splash.reader_exits_after_bytes < 1):
        raise t.error("reader_exits_after_bytes is a positive number of bytes, for a reader")
    t.done()
    return splash


def parse_disk(t):
    disk = Disk(full=t.take("full", bool, False))
    t.done()
    return disk


def parse_install(t):
    install = Install(packages=t.texts("packages", []))
    t.done()
    if not all(re.fullmatch(NAME, p) for p in install.packages):
        raise t.error("packages must be package names")
    return install


def parse_run(t):
    run = Run(program=t.take("program", str, Run.program), args=t.texts("args", []),
              env=t.take("env", dict, {}), timeout=t.take("timeout", int, Run.timeout),
              stderr=t.take("stderr", str, Run.stderr), memcheck=t.take("memcheck", bool, False))
    if run.stderr not in ("file", "kmsg", "broken-pipe"):
        raise t.error('stderr must be "file", "kmsg" or "broken-pipe"')
    if not all(re.fullmatch(r"[A-Za-z_][A-Za-z0-9_]*", k) and isinstance(v, str)
               for k, v in run.env.items()):
        raise t.error("env must map variable names to texts")
    if run.timeout < 1:
        raise t.error("timeout must be a positive number of seconds")
    t.done()
    return run


def parse_faults(t):
    calls = t.texts("calls", [])
    if not calls or len(set(calls)) != len(calls) or not set(calls) <= set(FAULT_CALLS):
        raise t.error(f"calls must name kinds of system call, each once: {', '.join(FAULT_CALLS)}")
    faults = Faults(calls=calls, timeout=t.take("timeout", int, Faults.timeout),
                    total=t.take("total", int, Faults.total), unreported=t.texts("unreported", []),
                    killed=t.texts("killed", []), from_open=t.take("from_open", str))
    if faults.timeout < 1 or faults.total < 1:
        raise t.error("timeout and total must be positive numbers of seconds")
    t.done()
    return faults


def parse_systemd(t):
    sd = Systemd(scripts=t.texts("scripts", [""]), check_unit=t.take("check_unit", str, Systemd.check_unit))
    if not sd.scripts:
        raise t.error("scripts lists one script a boot (an empty text for none)")
    t.done()
    return sd


def parse_expect_systemd(t):
    if not t.data:
        return None
    units = t.table("units")
    exp = ExpectSystemd(units=units.data, journal=t.texts("journal"), scripts=t.take("scripts", list),
                        state=t.take("state", str))
    for unit, props in exp.units.items():
        if not (isinstance(props, dict) and props and all(isinstance(v, str) for v in props.values())):
            raise units.error(f"'{unit}' must map property names to texts, like ActiveState = \"active\"")
    if exp.scripts is not None and not all(isinstance(b, list) and all(isinstance(x, str) for x in b)
                                           for b in exp.scripts):
        raise t.error("scripts lists each boot's lines, a list of texts per boot")
    t.done()
    return exp


def parse_expect_input(t):
    if not t.data:
        return None
    exp = ExpectInput(writes=t.texts("writes"), gaps_ms=t.take("gaps_ms", list),
                      tolerance_ms=t.millis("tolerance_ms", ExpectInput.tolerance_ms),
                      exit_after_press_ms=t.millis("exit_after_press_ms"))
    for w in exp.writes or []:
        if not re.fullmatch(r"\d+ \d+ -?\d+", w):
            raise t.error(f"writes are texts like \"17 17 1\" (type code value), not {w!r}")
    if exp.gaps_ms is not None:
        # A gap is milliseconds, or a text "300+1500" when it spans several
        # timed phases; each phase may be off by tolerance_ms.
        totals, phases = [], []
        for g in exp.gaps_ms:
            if isinstance(g, str) and re.fullmatch(r"\d+(\+\d+)*", g):
                parts = [int(p) for p in g.split("+")]
            elif isinstance(g, (int, float)) and not isinstance(g, bool) and g >= 0:
                parts = [g]
            else:
                raise t.error("'gaps_ms' must be a list of milliseconds (or texts like \"300+1500\")")
            totals.append(sum(parts))
            phases.append(len(parts))
        exp.gaps_ms, exp.gap_phases = totals, phases
        if exp.writes is not None and len(exp.gaps_ms) != max(len(exp.writes) - 1, 0):
            raise t.error(f"{len(exp.writes)} writes have {max(len(exp.writes) - 1, 0)} gaps, "
                          f"not {len(exp.gaps_ms)}")
    t.done()
    return exp


def parse_expect(t):
    if "status" not in t:
        raise t.error("status is required")
    files = t.table("files")
    expect = Expect(status=t.take("status", int), stdout=t.texts("stdout"),
                    stderr=t.texts("stderr"), kmsg=t.texts("kmsg"), files=files.data,
                    splash=t.take("splash", str), input=parse_expect_input(t.table("input")),
                    systemd=parse_expect_systemd(t.table("systemd")))
    if "etc_issue" in t:
        expect.files["/etc/issue"] = t.take("etc_issue", str)
    modes = t.table("modes")
    expect.modes = dict(modes.data)
    for path, mode in expect.modes.items():
        if not path.startswith("/") or not (isinstance(mode, str) and re.fullmatch(r"[0-7]{3}", mode)):
            raise modes.error(f"'{path}' must be absolute and map to octal permission bits like \"644\"")
    for path, content in expect.files.items():
        if not path.startswith("/") or not (isinstance(content, str) or content is False):
            raise files.error(f"'{path}' must be absolute and map to a text or false")
    t.done()
    return expect


def parse_scenario(name, data):
    """A scenario from a file's tables (merged over its base's); raises
    SimError on any mistake."""
    doc = Table(data, name)
    for table, what in RESERVED_TABLES.items():
        if table in doc:
            raise doc.error(f"[{table}] ({what}) is not simulated yet")
    batch = doc.take("batch", str)
    if batch is None:
        raise doc.error("batch is missing: every scenario names the batch it runs in")
    if not re.fullmatch(NAME, batch):
        raise doc.error("batch must be letters, digits, '.', '_' and '-'")
    architectures = doc.texts("architectures", list(ARCHITECTURES))
    if not architectures or not set(architectures) <= set(ARCHITECTURES):
        raise doc.error(f"architectures must name some of {', '.join(ARCHITECTURES)}")
    s = Scenario(
        name=name,
        batch=batch,
        architectures=tuple(architectures),
        description=doc.take("description", str, ""),
        boot=parse_boot(doc.table("boot")),
        flash=parse_flash_list(doc),
        proc=parse_texts(doc.table("proc"), absolute=False),
        files=parse_texts(doc.table("files"), absolute=True),
        net=parse_net(doc.table("net")),
        gpio=parse_gpio(doc.table("gpio")),
        avs=parse_avs(doc.table("avs")),
        input=parse_input(doc.table("input")) if "input" in doc else None,
        splash=parse_splash(doc.table("splash")),
        disk=parse_disk(doc.table("disk")),
        install=parse_install(doc.table("install")),
        run=parse_run(doc.table("run")),
        faults=parse_faults(doc.table("faults")) if "faults" in doc else None,
        systemd=parse_systemd(doc.table("systemd")) if "systemd" in doc else None,
        expect=parse_expect(doc.table("expect")),
    )
    doc.done()
    if s.systemd:
        check_systemd(doc, s)
    elif s.expect.systemd or s.net.late:
        raise doc.error("[expect.systemd] and [net] late need a systemd boot: add [systemd]")
    if s.expect.input and not s.input:
        raise doc.error("[expect.input] needs an event device: add [input]")
    if s.expect.input and s.expect.input.exit_after_press_ms is not None and not s.input.press:
        raise doc.error("[expect.input] exit_after_press_ms needs a press in [input]")
    if s.expect.splash is not None and not s.splash.reader:
        raise doc.error("[expect] splash needs [splash] reader = true")
    if s.faults and s.splash.reader:
        raise doc.error("[faults] runs without a splash reader: leave out [splash] reader")
    if s.faults and s.disk.full:
        raise doc.error("[faults] restores files between runs: leave out [disk] full")
    return s


def check_systemd(doc, s):
    """What a systemd boot cannot play: the program is the unit's, started
    by systemd with its own standard error; /proc is the kernel's, which
    shows only the board identity; and what runs beside a program run by
    hand."""
    if set(s.proc) - {"boardid"}:
        raise doc.error("under [systemd] /proc is the kernel's: [proc] takes only boardid")
    for what, used in (("[faults]", s.faults), ("[splash] reader", s.splash.reader),
                       ("[disk] full", s.disk.full), ("[run] memcheck", s.run.memcheck)):
        if used:
            raise doc.error(f"{what} is for a program run by hand, not under [systemd]")
    scripts = s.expect.systemd.scripts if s.expect.systemd else None
    if scripts is not None and len(scripts) != s.systemd.boots:
        raise doc.error(f"[expect.systemd] scripts gives {len(scripts)} boots' lines; "
                        f"[systemd] scripts boots {s.systemd.boots} times")


# ------------------------------------------------------------------ files

IMAGE_KEYS = ("env", "vxtool", "stdin", "script")


def merge_partition(base, over):
    """One partition over the base's of the same name, key by key; an image
    given (env, vxtool or script) replaces the base's image whole."""
    if any(k in over for k in IMAGE_KEYS):
        base = {k: v for k, v in base.items() if k not in IMAGE_KEYS}
    return dict(base, **over)


def merge_flash(base, over):
    """[[flash]] of a scenario over its base's: a partition of the same name
    merges over the base's in its place (merge_partition), one marked
    absent = true leaves it out, and new partitions follow the base's in
    their order."""
    by_name = {o.get("name"): o for o in over}
    out = [merge_partition(b, by_name[b.get("name")]) if b.get("name") in by_name else b for b in base]
    out += [o for o in over if o.get("name") not in {b.get("name") for b in base}]
    return [f for f in out if f.get("absent") is not True]


def merge(base, over):
    """The tables of a scenario that names a base: tables merge key by key,
    partitions by name (merge_flash), and everything else (texts, numbers,
    lists) replaces the base's value. [expect] is a scenario's own: a
    scenario that gives one replaces the base's whole."""
    out = dict(base)
    for k, v in over.items():
        if isinstance(v, dict) and isinstance(out.get(k), dict) and k != "expect":
            out[k] = merge(out[k], v)
        elif k == "flash" and isinstance(v, list) and isinstance(out.get(k), list):
            out[k] = merge_flash(out[k], v)
        else:
            out[k] = v
    return out


def scenario_path(arg):
    """A scenario's file: a name in the scenario directory, or a path."""
    return arg if os.sep in arg or arg.endswith(".toml") else os.path.join(SCENARIO_DIR, arg + ".toml")


def read_scenario_data(path, seen=()):
    """A scenario file's tables, merged over those of its base. A file's
    description, batch and architectures are its own; they are not
    inherited."""
    if path in seen:
        raise SimError(f"scenario {path} is its own base")
    try:
        with open(path, "rb") as f:
            data = tomllib.load(f)
    except OSError as e:
        raise SimError(f"cannot read scenario {path}: {e.strerror}") from e
    except tomllib.TOMLDecodeError as e:
        raise SimError(f"{path}: {e}") from e
    base = data.pop("base", None)
    if base is None:
        return data
    if not isinstance(base, str):
        raise SimError(f"{path}: base must be a scenario name or a path")
    # A name is a scenario of sim/scenarios wherever the file is; a path
    # ("../mine.toml", "./base.toml") is relative to the file.
    if os.sep not in base and not base.endswith(".toml"):
        base = os.path.join(SCENARIO_DIR, base + ".toml")
    else:
        base = os.path.join(os.path.dirname(path), base)
    inherited = read_scenario_data(base, seen + (path,))
    for own in ("description", "batch", "architectures"):
        inherited.pop(own, None)
    return merge(inherited, data)


def load_scenario(arg):
    path = scenario_path(arg)
    name = os.path.splitext(os.path.basename(path))[0]
    if not re.fullmatch(NAME, name):
        raise SimError(f"scenario name {name!r}: use letters, digits, '.', '_' and '-'")
    return parse_scenario(name, read_scenario_data(path))


def load_batches(directory=SCENARIO_DIR, architecture=None):
    """Every scenario file of the directory (those for the architecture,
    when one is given), by batch: {batch: [scenario]}, batches and their
    scenarios in the order of their names."""
    batches = {}
    for fn in sorted(os.listdir(directory)):
        if fn.endswith(".toml"):
            s = load_scenario(os.path.join(directory, fn))
            if architecture is None or architecture in s.architectures:
                batches.setdefault(s.batch, []).append(s)
    return dict(sorted(batches.items()))


def boot_groups(scenarios):
    """Scenarios by boot: those with equal [boot] tables share one, in the
    order of their first scenario."""
    groups = {}
    for s in scenarios:
        groups.setdefault(s.boot_key(), []).append(s)
    return list(groups.values())
