"""A scenario's guest steps: its inputs, written below its directory in the
run directory, and the lines of the batch script that set up its player,
run its program and collect what the program left. The steps are the
functions of guest/player.sh.

Each table contributes steps of its own, through one function in STEPS;
the order of STEPS is the order in which the guest sets a player up. A table
whose guest part runs alongside the program (the event device's server, the
splash reader) is a function in COMPANIONS instead, which returns the steps
that start it before the program and those that stop it after.
"""

import glob
import hashlib
import os
import shlex
import shutil
import struct
import subprocess
from dataclasses import dataclass

from . import GUEST_DIR, TEST_KEYS_DIR, SimError
from .board import BOARDS, Board
from .scenario import ERASE_SIZE, OOB_SIZE, PAGE_SIZE

q = shlex.quote


@dataclass
class Setup:
    """Where a scenario's inputs go (sdir/in), the programs it uses (their
    paths for the guest), the board, and the command that runs vxtool on
    the host to make images."""
    sdir: str
    programs: dict[str, str]
    board: Board
    image_tool: str | None

    @property
    def indir(self):
        return os.path.join(self.sdir, "in")

    def write(self, sub, table):
        """Writes texts by path below in/SUB, for the guest to copy."""
        for path, content in table.items():
            target = os.path.join(self.indir, sub, path.lstrip("/"))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "w", encoding="utf-8") as f:
                f.write(content)


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


def make_image(scenario, flash, output, setup):
    """Makes a partition's logical image on the host with the project's own
    tool: one vxtool command, or a factory script of several steps. Images
    are never checked in."""
    image, vxtool = flash.image, setup.image_tool
    if image.script is not None:
        env = dict(os.environ, VXTOOL=vxtool, OUTPUT=output, ERASE_SIZE=str(ERASE_SIZE),
                   PAGE_SIZE=str(PAGE_SIZE), BLOCKS=str(flash.blocks),
                   BAD_BLOCKS=",".join(map(str, flash.bad)), KEYS=TEST_KEYS_DIR)
        cmd = ["bash", "-euo", "pipefail", "-c", image.script]
        p = subprocess.run(cmd, cwd=setup.indir, env=env, capture_output=True, text=True)
    else:
        subst = {"{erase_size}": str(ERASE_SIZE), "{page_size}": str(PAGE_SIZE),
                 "{oob_size}": str(OOB_SIZE), "{output}": output}
        cmd = [vxtool] + [subst.get(a, a) for a in image.vxtool]
        p = subprocess.run(cmd, input=image.stdin, capture_output=True, text=True)
    if p.returncode != 0:
        raise SimError(f"{scenario}: {' '.join(cmd)} failed ({p.returncode}): {p.stderr.strip()}")


def root_steps(s, setup):
    """The scenario's own root, holding its [files], without those it
    gives as false, with its FIFOs and symbolic links."""
    setup.write("root", {p: c for p, c in s.files.items() if isinstance(c, str)})
    removed = [p for p, c in s.files.items() if c is False]
    special = [f"vx_fifo {q(p)}" if "fifo" in c else f"vx_symlink {q(c['symlink'])} {q(p)}"
               for p, c in s.files.items() if isinstance(c, dict)]
    return ([f"vx_begin {q(s.name)}"] + (["vx_remove " + " ".join(q(p) for p in removed)] if removed else [])
            + special)


def chip_faults(flash):
    """nandsim's gravepages= for the partitions' read errors."""
    grave, start = [], 0
    for f in flash:
        first_page = start * ERASE_SIZE // PAGE_SIZE
        for e in f.read_errors:
            page, reads = e.split(":")
            grave.append(f"{first_page + int(page)}:{reads}")
        start += f.blocks
    return [f"gravepages={','.join(grave)}"] if grave else []


def chip_steps(s, setup):
    """A fresh chip cut into the [[flash]] partitions, with their faults."""
    parts, bad = flash_layout(s.flash)
    return [" ".join(["vx_flash", q(parts), q(bad)] + [q(p) for p in chip_faults(s.flash)])]


def proc_steps(s, setup):
    """The scenario's /proc: its [proc] files and the partition names."""
    setup.write("proc", s.proc)
    return ["vx_proc " + " ".join(q(f.name) for f in s.flash)]


def flash_steps(s, setup):
    """Every partition erased, then written with its image if it has one."""
    steps = []
    for i, f in enumerate(s.flash):
        steps.append(f"vx_erase {i}")
        if f.raw:
            raw = f"in/{f.name}.raw"
            shutil.copyfile(f.raw, os.path.join(setup.sdir, raw))
            steps.append(f"vx_write_raw {i} {q(raw)}")
        if f.logical:
            image = f"in/{f.name}.img"
            shutil.copyfile(f.logical, os.path.join(setup.sdir, image))
            steps.append(f"vx_write {i} {q(image)}")
        if f.image:
            image = f"in/{f.name}.img"
            make_image(s.name, f, os.path.join(setup.sdir, image), setup)
            steps.append(f"vx_write {i} {q(image)}")
        steps += [f"vx_flip {i} {flip.replace(':', ' ')}" for flip in f.bit_flips]
    return steps


def net_steps(s, setup):
    return [f"vx_eth0 {q(s.net.eth0 or '')}"]


def gpio_steps(s, setup):
    """The GPIO chip loaded afresh with the scenario's input levels."""
    return [f"vx_gpio {s.gpio.levels:#x}"]


def avs_steps(s, setup):
    """The AVS status block as the scenario gives it (zeros by default);
    the arm64 board's reads as zeros (board.py)."""
    if setup.board.architecture != "amd64":
        return []
    block = os.path.join(setup.sdir, "in", "avs.bin")
    os.makedirs(os.path.dirname(block), exist_ok=True)
    with open(block, "wb") as f:
        f.write(struct.pack("<18I", *s.avs.words))
    return ["vx_avs in/avs.bin"]


def install_steps(s, setup):
    """The [install] packages, each the one file of that name for the
    board's architecture in the build's package directory."""
    steps = []
    for name in s.install.packages:
        directory = setup.programs.get("packages", "")
        debs = glob.glob(os.path.join(glob.escape(directory), f"{name}_*_{setup.board.architecture}.deb"))
        if len(debs) != 1:
            raise SimError(f"{s.name}: {len(debs)} packages {name}_*_{setup.board.architecture}.deb "
                           f"in {directory or 'no package directory'}; build them first")
        shutil.copyfile(debs[0], os.path.join(setup.indir, name + ".deb"))
        steps.append(f"vx_install in/{q(name)}.deb")
    return steps


def input_companion(s, setup):
    """The event device's server, from before the program until after it."""
    d = s.input
    if d is None:
        return [], []
    server = setup.programs.get("vxevdev")
    if not server:
        raise SimError(f"{s.name}: [input] needs the vxevdev program")
    args = [server, "--inputs", f"{d.inputs:#x}", "--outputs", f"{d.outputs:#x}",
            "--configurable", f"{d.configurable:#x}", "--levels", f"{d.levels:#x}",
            "--epoch", d.epoch]
    for option, timed in (("--press", d.press), ("--release", d.release)):
        for pin, ms in timed:
            args += [option, f"{pin}@{ms}"]
    return ["vx_input_start " + " ".join(q(a) for a in args)], ["vx_input_stop"]


def splash_companion(s, setup):
    """The boot splash pipe and its reader."""
    if not s.splash.reader:
        return [], []
    leaves = s.splash.reader_exits_after_bytes
    return ["vx_splash_start" + (f" {leaves}" if leaves else "")], ["vx_splash_stop"]


COMPANIONS = [input_companion, splash_companion]


# valgrind's memcheck in the guest (the host's, through the scenario root),
# and where its report goes (the scenario's out/ as the root sees it).
VALGRIND = "/usr/bin/valgrind"
MEMCHECK_OPTIONS = ["--track-fds=yes", "--leak-check=full", "--errors-for-leak-kinds=definite,indirect"]
MEMCHECK_LOG = "/run/vxsim/scenario/out/memcheck"


def run_program(s, setup):
    """The path of the program that [run] names."""
    program = s.run.program if s.run.program.startswith("/") else setup.programs.get(s.run.program)
    if not program:
        raise SimError(f"{s.name}: unknown program {s.run.program}")
    return program


def run_steps(s, setup):
    """The program, between the steps that start its companions and those
    that stop them (in reverse order); the disk made full just before it."""
    run = s.run
    program = run_program(s, setup)
    env = [f"{k}={v}" for k, v in sorted(run.env.items())]
    starts, stops = [], []
    for companion in COMPANIONS:
        start, stop = companion(s, setup)
        starts += start
        stops[:0] = stop
    command = [program] + run.args
    if run.memcheck:
        command = [VALGRIND] + MEMCHECK_OPTIONS + [f"--log-file={MEMCHECK_LOG}"] + command
    stderr = {"file": [], "kmsg": ["--kmsg"], "broken-pipe": ["--broken-pipe"]}[run.stderr]
    words = [str(run.timeout)] + stderr + env + ["--"] + command
    full = ["vx_disk_full"] if s.disk.full else []
    return starts + full + ["vx_run " + " ".join(q(a) for a in words)] + stops


def collect_steps(s, setup):
    """The files [expect] looks at, copied out of the root after the run."""
    collect = sorted(set(s.expect.files) | set(s.expect.modes))
    return ["vx_collect " + " ".join(q(p) for p in collect)] if collect else []


def capture_steps(s, setup):
    """vxtool's capture of the player after the program ran."""
    if s.capture is None:
        return []
    return [f"vx_capture {q(setup.programs['vxtool'])} {q(','.join(s.capture))}"]


def shell_steps(s, setup):
    """A shell for a person at the terminal, once the program has run."""
    return [f"vx_shell {q(setup.programs.get('vxtool', ''))}"] if s.shell else []


def fault_steps(s, setup):
    """The fault sweep, after the run and its files are collected: the
    program with the injector loaded, once per call of each kind. The event
    device's server starts afresh for every run, so that each finds the
    device as the first run did."""
    if s.faults is None:
        return []
    injector = setup.programs.get("vxfault")
    if not injector:
        raise SimError(f"{s.name}: [faults] needs the fault injector (vxfault)")
    program = run_program(s, setup)
    steps = []
    if s.input:
        start, _ = input_companion(s, setup)
        steps += [f"vx_fault_before() {{ {start[0]}; }}", 'vx_fault_after() { vx_stop_server "$ROOT"; }']
    env = [f"{k}={v}" for k, v in sorted(s.run.env.items())]
    if s.faults.from_open:
        env.insert(0, f"VXFAULT_FROM={s.faults.from_open}")
    words = [str(s.faults.timeout), injector] + s.faults.calls + ["--"] + env + [program] + s.run.args
    return steps + ["vx_fault_sweep " + " ".join(q(w) for w in words)]


STEPS = [root_steps, chip_steps, proc_steps, flash_steps, net_steps, gpio_steps, avs_steps, install_steps,
         run_steps, collect_steps, capture_steps, fault_steps, shell_steps]


# A systemd boot: the virtual disk that holds its root's writable layer, and
# the units of the simulation in that root (its observer, a late NIC).
SYSTEMD_DISK = "/dev/vda"
OBSERVER_UNIT = """[Unit]
Description=vxsim: the simulated player's observer

[Service]
Type=exec
ExecStart=/bin/sh /run/vxsim/scenario/in/observe.sh
"""
LATE_NIC_UNIT = """[Unit]
Description=vxsim: the NIC becomes eth0 {seconds} s into the boot
DefaultDependencies=no

[Service]
Type=exec
ExecStart=/bin/sh -c 'sleep {seconds} && ip link set nic0 address {mac} && \\
    ip link set nic0 name eth0 && ip link set eth0 up'
"""
SYSTEM = "/etc/systemd/system"


def systemd_files(s, setup):
    """The files of a systemd boot's root, written once: the observer's
    unit, started with multi-user.target, the late NIC's, started at once,
    and a machine id of the scenario's own (dbus reads the same one); and
    no policy-rc.d, which a build machine in a container may have to keep
    package scripts from starting services, and a player has not."""
    files = {f"{SYSTEM}/vxsim-observe.service": OBSERVER_UNIT,
             "/etc/machine-id": hashlib.md5(s.name.encode()).hexdigest() + "\n"}
    links = [(f"{SYSTEM}/vxsim-observe.service", f"{SYSTEM}/multi-user.target.wants/vxsim-observe.service"),
             ("/etc/machine-id", "/var/lib/dbus/machine-id")]
    if s.net.late:
        files[f"{SYSTEM}/vxsim-late-nic.service"] = LATE_NIC_UNIT.format(seconds=s.net.late, mac=s.net.eth0)
        links.append((f"{SYSTEM}/vxsim-late-nic.service", f"{SYSTEM}/sysinit.target.wants/vxsim-late-nic.service"))
    setup.write("root", files)
    return ["vx_remove /usr/sbin/policy-rc.d"] + [f"vx_symlink {q(target)} {q(path)}" for target, path in links]


def observer_inputs(s, setup, boot):
    """What the observer reads in a boot: observe.sh, its settings and the
    boot's script."""
    shutil.copyfile(os.path.join(GUEST_DIR, "observe.sh"), os.path.join(setup.indir, "observe.sh"))
    units = sorted(s.expect.systemd.units) if s.expect.systemd else []
    collect = sorted(set(s.expect.files) | set(s.expect.modes))
    conf = {"BOOT": boot, "BOOTS": s.systemd.boots, "UNITS": " ".join(units),
            "CHECK_UNIT": s.systemd.check_unit, "COLLECT": " ".join(collect), "INPUT": int(s.input is not None)}
    with open(os.path.join(setup.indir, "observe.conf"), "w") as f:
        f.write("".join(f"{k}={q(str(v))}\n" for k, v in conf.items()))
    with open(os.path.join(setup.indir, f"script.{boot}"), "w") as f:
        f.write(s.systemd.scripts[boot - 1])


def systemd_steps(s, setup, boot):
    """A player that boots systemd: its root (the files on the first boot
    only: the disk keeps them), the hardware of every boot (the chip and
    its images, the board's identity and partition names in the kernel's
    own tables, the NIC, the GPIO chip, the AVS block, the event device),
    the packages on the first boot, and then the switch to systemd."""
    first = boot == 1
    steps = [f"vx_systemd_begin {q(s.name)} {SYSTEMD_DISK} {'first' if first else 'again'}"]
    if first:
        steps += systemd_files(s, setup) + root_steps(s, setup)[1:]
    observer_inputs(s, setup, boot)
    setup.write("proc", s.proc)
    steps += chip_steps(s, setup) + ["vx_board " + " ".join(q(f.name) for f in s.flash)] + flash_steps(s, setup)
    steps += ["vx_eth0"] if s.net.late else net_steps(s, setup)
    steps += gpio_steps(s, setup) + avs_steps(s, setup)
    if first:
        steps += install_steps(s, setup)
    return steps + input_companion(s, setup)[0] + ["vx_systemd_boot"]


def prepare_scenario(s, sdir, programs, board=BOARDS["amd64"], image_tool=None, boot=1):
    """Writes the scenario's inputs below sdir and returns its steps (of its
    boot number boot, for a systemd boot); images are made with image_tool,
    by default the build's vxtool."""
    setup = Setup(sdir, programs, board, image_tool or programs.get("vxtool"))
    os.makedirs(setup.indir, exist_ok=True)
    if s.systemd:
        return systemd_steps(s, setup, boot)
    return [step for emit in STEPS for step in emit(s, setup)]


def batch_script(names_steps, layers=0, systemd=False):
    """The guest's script for one boot: the shared layers of the scenario
    roots mounted (layers: how many, see board.py), then each scenario's
    steps in a subshell that stops at the first failing step, then its root
    torn down whatever happened; but a systemd boot's one root, which its
    last step hands to the guest's init."""
    out = ["# Written by vxsim for one boot of the simulated player."]
    if layers:
        out.append(f"vx_layers {layers} || exit 1")
    for name, steps in names_steps:
        n = q(name)
        out.append("( set -e\n  " + "\n  ".join(steps) + f"\n) > /vx/{n}/setup.log 2>&1\n"
                   f"[ $? -eq 0 ] || echo failed > /vx/{n}/setup-failed" + ("" if systemd else f"\nvx_end {n}"))
    return "\n".join(out) + "\n"


def programs_used(scenarios):
    """The named programs (not absolute paths) that the scenarios need from
    the build: the programs they run, vxtool when any image is made,
    vxevdev when any has an event device, the fault injector when any
    has a fault sweep and the package directory when any installs one."""
    used = {s.run.program for s in scenarios if not s.run.program.startswith("/")}
    if any(f.image for s in scenarios for f in s.flash) or any(s.capture is not None for s in scenarios):
        used.add("vxtool")
    if any(s.input for s in scenarios):
        used.add("vxevdev")
    if any(s.faults for s in scenarios):
        used.add("vxfault")
    if any(s.install.packages for s in scenarios):
        used.add("packages")
    return sorted(used)
