"""The simulated player: runs the unmodified check and the device-level tests
in a small x86_64 guest under qemu (TCG), against the kernel's own MTD stack
(nandsim), from declarative scenario files.

Modules, in the order a run uses them:

- scenario: the scenario files, their tables and their batches;
- kernel: the distribution kernel and the modules the guest loads;
- initramfs: the guest's initial file system;
- steps: a scenario's inputs and the guest steps of its tables;
- guest: one boot of the guest for a group of scenarios, and its results;
- verdict: results judged against a scenario's expectations;
- cli: the command line (python3 -m vxsim, or sim/vxsim-run).
"""

import os

SIM_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCENARIO_DIR = os.path.join(SIM_DIR, "scenarios")
GUEST_DIR = os.path.join(SIM_DIR, "guest")
# The test-only signing keys, for scenarios that make signed records.
TEST_KEYS_DIR = os.path.join(os.path.dirname(SIM_DIR), "keys", "test")


class SimError(Exception):
    """A problem with a scenario, the build or the host, not a verdict."""
