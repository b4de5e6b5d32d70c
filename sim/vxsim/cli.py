"""The simulated player's runner: plays scenario files in a qemu guest
against the kernel's own MTD stack.

    vxsim run [--arch ARCH] [--build-dir DIR] [--program NAME=PATH]... [--show] SCENARIO...
    vxsim run [--arch ARCH] [--build-dir DIR] [--program NAME=PATH]... --batch NAME
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
"""

import argparse
import os
import sys

from . import SimError
from .board import board
from .guest import batch_timeout, run_boots
from .kernel import ensure_kernel
from .scenario import boot_groups, load_batches, load_scenario
from .steps import VALGRIND, programs_used
from .verdict import report

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
    if not args.scenarios:
        raise SimError("name a batch (--batch) or scenarios to run")
    scenarios = [load_scenario(a) for a in args.scenarios]
    if len({s.name for s in scenarios}) != len(scenarios):
        raise SimError("scenario names must differ")
    for s in scenarios:
        if args.arch not in s.architectures:
            raise SimError(f"{s.name} runs on {', '.join(s.architectures)} only")
    return scenarios, (args.name or "-".join(s.name for s in scenarios)) + suffix


def cmd_run(args, log):
    build_dir = os.path.abspath(args.build_dir)
    programs = {k: os.path.join(build_dir, v) for k, v in DEFAULT_PROGRAMS.items()}
    for p in args.program:
        k, _, v = p.partition("=")
        programs[k] = os.path.abspath(v)
    player = board(args.arch)
    scenarios, label = select(args)
    scenarios = [player.adapt(s) for s in scenarios]
    for n in programs_used(scenarios):
        if n in programs and not os.access(programs[n], os.X_OK) and n != "packages":
            raise SimError(f"{programs[n]} is missing; build the project first")
    if any(s.run.memcheck for s in scenarios) and not os.access(VALGRIND, os.X_OK):
        raise SimError(f"{VALGRIND} is missing: [run] memcheck needs valgrind (scripts/install-deps)")
    kernel = ensure_kernel(build_dir, log, player)
    userland = player.userland(build_dir, log)
    ok = True
    for i, group in enumerate(boot_groups(scenarios)):
        rundir = os.path.join(build_dir, "sim", "runs", f"{label}.{i}")
        results = run_boots(group, kernel, programs, rundir, args.timeout, log, player, userland)
        for s in group:
            for boot, result in enumerate(results[s.name], start=1):
                ok = report(s, result, rundir, args.show, log, boot) and ok
    return 0 if ok else 1


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
