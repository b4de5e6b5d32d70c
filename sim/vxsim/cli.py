"""The simulated player's runner: plays scenario files in a qemu guest
against the kernel's own MTD stack.

    vxsim run [--arch ARCH] [--build-dir DIR] [--program NAME=PATH]... [--show] SCENARIO...
    vxsim run [--arch ARCH] [--build-dir DIR] [--program NAME=PATH]... --batch NAME
    vxsim run [--arch ARCH] [--build-dir DIR] --capture DIR [--image PARTITION=FILE]... [--shell]
    vxsim run [--arch ARCH] [--build-dir DIR] --explore [--shell] SCENARIO...
    vxsim roundtrip [--arch ARCH] [--build-dir DIR] [--program NAME=PATH]... [SCENARIO...]
    vxsim batches [--arch ARCH]
    vxsim kernel [--arch ARCH] [--build-dir DIR]

ARCH is the player's architecture, amd64 (the default) or arm64 (board.py);
an arm64 run takes the programs of a cross build.

A SCENARIO is a name in sim/scenarios (without ".toml") or a path to a file.
Every scenario file names its batch and may name the architectures it runs
on; "batches" lists those of the architecture, one a line with
the seconds the batch may take and the programs it needs from the build.
Scenarios with the same [boot] table share one boot of the guest. "run" ends with 0 when every expectation
of every scenario held, 1 otherwise, and 2 when a scenario, the build or the
host is wrong.

"run --capture DIR" plays the player that "vxtool capture" saved in DIR
(capture.py). "--explore" runs without judging [expect] and prints what
happened (a capture is always explored). "--shell" leaves a shell on the
guest, in the terminal the runner runs in, once the program has run (one
scenario or capture, amd64). "roundtrip" captures each scenario's player
inside the guest after its program ran, replays each capture in a fresh
guest and requires the same output, status and LED writes; without
scenarios it takes ROUND_TRIP's.
"""

import argparse
import os
import re
import sys

from . import SimError
from .board import board
from .capture import read_manifest, replay_expect, scenario_from_capture
from .guest import batch_timeout, run_boots
from .kernel import ensure_kernel
from .scenario import NAME, boot_groups, load_batches, load_scenario
from .steps import VALGRIND, programs_used
from .verdict import explore, report

# Where the build puts the programs scenarios name, below the build directory.
DEFAULT_PROGRAMS = {
    "vx-hwcheck": "check/vx-hwcheck",
    "vxtool": "tools/vxtool/vxtool",
    "device_tests": "tests/device_tests",
    "platform_tests": "tests/platform_tests",
    "hardware_tests": "tests/hardware_tests",
    "vxevdev": "sim/hw/vxevdev",
    "vxevplay": "sim/hw/vxevplay",
    "hw_device_tests": "sim/hw/hw_device_tests",
    "vxfault": "tests/libvxfault.so",
    # The Debian packages, as the package test builds them.
    "packages": "tests/debian-packages",
}


# The round trip of sim.capture: every scenario of the report batch, a
# player with worn flash (bit flips besides the factory's bad blocks) and
# one whose check fails.
ROUND_TRIP_BATCHES = ("report",)
ROUND_TRIP_MORE = ("flash-bitflip-nvram", "eth-absent")


def select(args):
    """The scenarios to run and the run's label: a batch, or scenarios
    given by name or path."""
    if args.batch and args.scenarios:
        raise SimError("give either --batch or scenarios, not both")
    suffix = "" if args.arch == "amd64" else "." + args.arch
    if args.batch:
        batches = load_batches(architecture=args.arch)
        if args.batch not in batches:
            raise SimError(f"no batch {args.batch} for {args.arch}; the batches are {', '.join(batches)}")
        return batches[args.batch], (args.name or args.batch) + suffix
    if not args.scenarios and args.capture:
        return [], args.name or "capture"
    if not args.scenarios:
        raise SimError("name a batch (--batch) or scenarios to run")
    scenarios = [load_scenario(a) for a in args.scenarios]
    if len({s.name for s in scenarios}) != len(scenarios):
        raise SimError("scenario names must differ")
    for s in scenarios:
        if args.arch not in s.architectures:
            raise SimError(f"{s.name} runs on {', '.join(s.architectures)} only")
    return scenarios, (args.name or "-".join(s.name for s in scenarios)) + suffix


def programs_of(args):
    build_dir = os.path.abspath(args.build_dir)
    programs = {k: os.path.join(build_dir, v) for k, v in DEFAULT_PROGRAMS.items()}
    for p in args.program:
        k, _, v = p.partition("=")
        programs[k] = os.path.abspath(v)
    return build_dir, programs


def play(scenarios, label, args, log, judge=True, shell=False):
    """Boots the guest for the scenarios (one boot per [boot] table) and
    reports on each: judged, or explored. Returns ({name: Result}, ok)."""
    build_dir, programs = programs_of(args)
    player = board(args.arch)
    scenarios = [player.adapt(s) for s in scenarios]
    for n in programs_used(scenarios):
        if n in programs and not os.access(programs[n], os.X_OK) and n != "packages":
            raise SimError(f"{programs[n]} is missing; build the project first")
    if any(s.run.memcheck for s in scenarios) and not os.access(VALGRIND, os.X_OK):
        raise SimError(f"{VALGRIND} is missing: [run] memcheck needs valgrind (scripts/install-deps)")
    kernel = ensure_kernel(build_dir, log, player)
    userland = player.userland(build_dir, log)
    ok, results = True, {}
    for i, group in enumerate(boot_groups(scenarios)):
        rundir = os.path.join(build_dir, "sim", "runs", f"{label}.{i}")
        group_results = run_boots(group, kernel, programs, rundir, args.timeout, log, player, userland, shell)
        for s in group:
            results[s.name] = group_results[s.name][-1] if group_results[s.name] else None
            for boot, result in enumerate(group_results[s.name], start=1):
                if judge and s.expect.status is not None:
                    ok = report(s, result, rundir, args.show, log, boot) and ok
                else:
                    ok = explore(s, result, rundir, log, boot) and ok
    return results, ok


def unit_verdict(directory):
    """What the unit's own report said when it was captured."""
    report_json = read_manifest(directory).get("report") or {}
    verdict = report_json.get("verdict") or {}
    if "exit_status" not in verdict:
        return f"the unit's own report at the capture: {report_json.get('error', 'none')}"
    return (f"the unit's own report at the capture: exit status {verdict['exit_status']}, blink code "
            f"{verdict.get('blink_code') if verdict.get('blink_code') is not None else 'none'}")


def cmd_run(args, log):
    scenarios, label = select(args)
    build_dir, _ = programs_of(args)
    if any("=" not in i for i in args.image) or (args.image and len(args.capture) != 1):
        raise SimError("--image takes PARTITION=FILE, with one --capture")
    for i, directory in enumerate(args.capture):
        name = os.path.basename(os.path.normpath(directory)) or f"capture{i}"
        name = name if re.fullmatch(NAME, name) else f"capture{i}"
        workdir = os.path.join(build_dir, "sim", "captures", name)
        images = dict(i.split("=", 1) for i in args.image)
        s = scenario_from_capture(os.path.abspath(directory), name, workdir, images=images)
        s.expect.files = {"/etc/issue": False}
        log(f"vxsim: {name}: {unit_verdict(directory)}")
        scenarios.append(s)
    if len({s.name for s in scenarios}) != len(scenarios):
        raise SimError("scenario names must differ")
    if args.explore:
        for s in scenarios:
            s.expect.files.setdefault("/etc/issue", False)
    if args.shell:
        if len(scenarios) != 1 or scenarios[0].systemd:
            raise SimError("--shell takes one scenario or capture that runs its program by hand")
        if args.arch != "amd64":
            raise SimError("--shell needs the amd64 player (its second serial port)")
        scenarios[0].shell = True
    _, ok = play(scenarios, label, args, log, judge=not args.explore, shell=args.shell)
    return 0 if ok else 1


def cmd_roundtrip(args, log):
    """Each scenario's player captured after its program ran, then each
    capture replayed in a fresh guest: same output, status, LED writes."""
    if args.scenarios:
        originals = [load_scenario(a) for a in args.scenarios]
    else:
        batches = load_batches(architecture=args.arch)
        originals = [s for b in ROUND_TRIP_BATCHES for s in batches.get(b, [])]
        originals += [load_scenario(n) for n in ROUND_TRIP_MORE]
    originals = [s for s in originals if args.arch in s.architectures and not s.systemd and not s.faults]
    for s in originals:
        s.capture = [f.name for f in s.flash]
    suffix = "" if args.arch == "amd64" else "." + args.arch
    label = (args.name or "roundtrip") + suffix
    build_dir, _ = programs_of(args)
    results, ok = play(originals, label + ".captured", args, log)
    replays = []
    for s in originals:
        result = results.get(s.name)
        directory = os.path.join(build_dir, "sim", "runs", f"{label}.captured.{boot_index(originals, s)}",
                                 s.name, "out", "capture")
        if result is None or not os.path.isdir(directory):
            log(f"FAIL {s.name}: no capture was made" + (f" ({result.steps_failed})" if result else ""))
            ok = False
            continue
        replay = scenario_from_capture(directory, s.name + ".replay",
                                       os.path.join(build_dir, "sim", "captures", label, s.name),
                                       expect=replay_expect(result))
        replay.run, replay.input = s.run, s.input
        replays.append(replay)
    _, replayed = play(replays, label + ".replayed", args, log)
    return 0 if ok and replayed else 1


def boot_index(scenarios, s):
    """The index of the boot (run directory) that played s."""
    return next(i for i, group in enumerate(boot_groups(scenarios)) if s in group)


def cmd_batches(args, log):
    for name, scenarios in load_batches(architecture=args.arch).items():
        log(" ".join([name, str(batch_timeout(scenarios))] + programs_used(scenarios)))
    return 0


def cmd_kernel(args, log):
    vmlinux, _ = ensure_kernel(os.path.abspath(args.build_dir), log, board(args.arch))
    log(vmlinux)
    return 0


def parser():
    ap = argparse.ArgumentParser(prog="vxsim", description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = ap.add_subparsers(dest="command", required=True)
    run = sub.add_parser("run", help="run scenarios on the simulated player")
    run.set_defaults(func=cmd_run)
    run.add_argument("scenarios", nargs="*", metavar="SCENARIO")
    run.add_argument("--arch", default="amd64", help="the player's architecture: amd64 or arm64")
    run.add_argument("--batch", metavar="NAME", help="run every scenario of a batch")
    run.add_argument("--build-dir", default="build")
    run.add_argument("--program", action="append", default=[], metavar="NAME=PATH",
                     help="where a built program is (vx-hwcheck, vxtool, device_tests, vxevdev, ...)")
    run.add_argument("--name", help="name of the run directory below BUILD/sim/runs")
    run.add_argument("--timeout", type=int, help="seconds per boot (default: 60, and 30 per "
                     "scenario on top of its [run] timeout)")
    run.add_argument("--show", action="store_true", help="print every scenario's output")
    run.add_argument("--capture", action="append", default=[], metavar="DIR",
                     help="play the player a vxtool capture saved in DIR (explored, not judged)")
    run.add_argument("--image", action="append", default=[], metavar="PARTITION=FILE",
                     help="with --capture: this logical image (vxtool mkenv, ...) in place of the partition's pages")
    run.add_argument("--explore", action="store_true",
                     help="run without judging [expect]; print what happened")
    run.add_argument("--shell", action="store_true",
                     help="after the program, a shell on the guest in this terminal (one scenario, amd64)")
    rt = sub.add_parser("roundtrip", help="capture each scenario's player and replay the capture")
    rt.set_defaults(func=cmd_roundtrip)
    rt.add_argument("scenarios", nargs="*", metavar="SCENARIO")
    rt.add_argument("--arch", default="amd64")
    rt.add_argument("--build-dir", default="build")
    rt.add_argument("--program", action="append", default=[], metavar="NAME=PATH")
    rt.add_argument("--name", help="name of the run directories below BUILD/sim/runs")
    rt.add_argument("--timeout", type=int, help="seconds per boot")
    rt.add_argument("--show", action="store_true", help="print every scenario's output")
    batches = sub.add_parser("batches", help="list the batches and the programs they need")
    batches.set_defaults(func=cmd_batches)
    batches.add_argument("--arch", default="amd64")
    kernel = sub.add_parser("kernel", help="fetch and unpack the guest kernel")
    kernel.set_defaults(func=cmd_kernel)
    kernel.add_argument("--build-dir", default="build")
    kernel.add_argument("--arch", default="amd64")
    return ap


def main(argv=None):
    args = parser().parse_args(argv)
    try:
        return args.func(args, lambda m: print(m, flush=True))
    except SimError as e:
        print(f"vxsim: {e}", file=sys.stderr)
        return 2
