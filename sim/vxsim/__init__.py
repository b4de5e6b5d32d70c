"""The simulated player: runs the unmodified check and the device-level tests
in a small amd64 or arm64 guest under qemu (TCG), against the kernel's own
MTD stack (nandsim), from declarative scenario files.

Modules, in the order a run uses them:

- scenario: the scenario files, their tables and their batches;
- board: the amd64 and arm64 players;
- kernel: the distribution kernel and the modules the guest loads;
- initramfs: the guest's initial file system;
- steps: a scenario's inputs and the guest steps of its tables;
- guest: one boot of the guest for a group of scenarios, and its results;
- verdict: results judged against a scenario's expectations;
- cli: the command line (python3 -m vxsim, or sim/vxsim-run).
"""

import os
import subprocess

SIM_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCENARIO_DIR = os.path.join(SIM_DIR, "scenarios")
GUEST_DIR = os.path.join(SIM_DIR, "guest")
# The test-only signing keys, for scenarios that make signed records.
TEST_KEYS_DIR = os.path.join(os.path.dirname(SIM_DIR), "keys", "test")


class SimError(Exception):
    """A problem with a scenario, the build or the host, not a verdict."""


def run_command(cmd, **kw):
    """Runs a host command and returns its output; a failure is a SimError
    with its message."""
    p = subprocess.run(cmd, capture_output=True, text=True, **kw)
    if p.returncode != 0:
        raise SimError(f"{' '.join(cmd)} failed ({p.returncode}): {(p.stderr or p.stdout).strip()}")
    return p.stdout


def apt_download(packages, directory):
    """apt-get download of the packages into the directory (as root, apt's
    sandbox user could not write there)."""
    cmd = ["apt-get", "download", "-q", *packages]
    if os.geteuid() == 0:
        cmd[1:1] = ["-o", "APT::Sandbox::User=root"]
    run_command(cmd, cwd=directory)
