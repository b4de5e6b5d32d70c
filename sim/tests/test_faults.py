import os
import re
import tempfile
import unittest

from vxsim import SimError
from vxsim.guest import FaultRun, FaultSweep, Result, read_results
from vxsim.steps import prepare_scenario, programs_used
from vxsim.verdict import judge, judge_memcheck

from . import scenario

PLAIN = "<6>VELTRIX ok\n"
FAULTS = {"calls": ["open", "write"], "unreported": ["mmap anonymous"], "killed": ["open /proc/x"]}


def run(fault, status, stderr):
    kind, nth = fault.split(" ")[:2]
    return FaultRun(kind, int(nth), status, fault, stderr=stderr)


class FaultSweepTest(unittest.TestCase):
    def judge(self, *runs, ends=None, **faults):
        s = scenario(faults=dict(FAULTS, calls=sorted({r.kind for r in runs}), **faults),
                     expect={"status": 0})
        return judge(s, Result(status=0, stderr=PLAIN,
                               faults=FaultSweep(list(runs), ends or {r.kind: 0 for r in runs})))

    def test_statuses_messages_and_tolerated_silence(self):
        self.assertEqual(self.judge(
            run("open 1 openat 5 /proc/boardid", 0, "<3>Board identity unavailable\n" + PLAIN),
            run("open 2 openat 5 /proc/meminfo", 2, "ERROR: /proc/meminfo: Input/output error\n"),
            run("open 3 openat 5 /proc/x", 134, "FATAL: cannot tell\n"),
            run("write 1 write 5 fd=2:/out/stderr", 2, ""),
            run("write 2 write 5 fd=3:/etc/issue", 2, "<6>AVS line ERROR: /etc/issue\n"),
            run("mmap 1 mmap 12 anonymous", 0, PLAIN),
            run("mmap 2 mmap 12 fd=5:/dev/mem", 134, "Forced crash due to LED error 2\n")), [])

    def test_a_hang_a_signal_a_silent_failure_and_a_silent_pass_are_named(self):
        diffs = self.judge(
            run("open 1 openat 5 /a", 137, ""),
            run("open 2 openat 5 /b", 139, "Segmentation fault\n"),
            run("open 3 openat 5 /proc/x", 134, ""),
            run("read 1 read 5 fd=4:/c", 1, "Unable to show the error LED pattern\n"),
            run("read 2 read 5 fd=4:/d", 0, PLAIN),
            run("write 1 write 5 fd=1:/out", 3, "ERROR: x\n"))
        self.assertEqual([re.sub(r"; stderr .*", "", d) for d in diffs], [
            "fault sweep: open 1 openat 5 /a: hung: killed after 20 s",
            "fault sweep: open 2 openat 5 /b: killed by signal 11",
            "fault sweep: open 3 openat 5 /proc/x: killed by signal 6",
            "fault sweep: read 1 read 5 fd=4:/c: status 1 without an ERROR: line",
            "fault sweep: read 2 read 5 fd=4:/d: passed without a word of the failed call",
            "fault sweep: write 1 write 5 fd=1:/out: exit status 3"])

    def test_every_kind_must_be_failed_and_its_last_run_must_end_as_planned(self):
        s = scenario(faults={"calls": ["open", "ioctl"]}, expect={"status": 0})
        sweep = FaultSweep([run("open 1 openat 5 /a", 0, "x\n")], {"open": 2})
        self.assertEqual(judge(s, Result(status=0, stderr=PLAIN, faults=sweep)), [
            "fault sweep: the open run past the last call ended with status 2, not 0",
            "fault sweep: no ioctl call was failed",
            "fault sweep: the ioctl run past the last call ended with status None, not 0"])
        self.assertEqual(judge(s, Result(status=0, stderr=PLAIN)), ["fault sweep: the guest left no results"])

    def test_the_guest_results_are_read_in_call_order(self):
        with tempfile.TemporaryDirectory() as d:
            out = os.path.join(d, "t", "out")
            os.makedirs(os.path.join(out, "faults"))
            files = {"status": "0\n", "stderr": PLAIN, "faults/open.1.status": "2\n",
                     "faults/open.1.fault": "open 1 openat 5 /a\n", "faults/open.1.stderr": "ERROR: a\n",
                     "faults/open.2.status": "0\n", "faults/open.2.fault": "open 2 openat 5 /b\n",
                     "faults/open.end.status": "0\n", "faults/write.end.status": "0\n"}
            for name, text in files.items():
                with open(os.path.join(out, name), "w") as f:
                    f.write(text)
            sweep = read_results(os.path.join(d, "t"), [], ["open", "write"]).faults
        self.assertEqual([(r.fault, r.status, r.stderr) for r in sweep.runs],
                         [("open 1 openat 5 /a", 2, "ERROR: a\n"), ("open 2 openat 5 /b", 0, "")])
        self.assertEqual(sweep.ends, {"open": 0, "write": 0})

    def test_the_sweep_runs_after_the_collected_files_with_a_fresh_event_device(self):
        s = scenario(flash=[], input={}, faults={"calls": ["ioctl", "open"], "timeout": 5, "from_open": "/dev/x"},
                     run={"program": "/b/vx-hwcheck", "args": ["x y"], "env": {"V": "1"}})
        with tempfile.TemporaryDirectory() as d:
            steps = prepare_scenario(s, d, {"vxevdev": "/b/vxevdev", "vxfault": "/b/libvxfault.so"})
            with self.assertRaisesRegex(SimError, "needs the fault injector"):
                prepare_scenario(s, d, {"vxevdev": "/b/vxevdev"})
        self.assertEqual(steps[-3:], [
            "vx_fault_before() { vx_input_start /b/vxevdev --inputs 0x1000 --outputs 0x200 "
            "--configurable 0x0 --levels 0x0 --epoch write; }",
            'vx_fault_after() { vx_stop_server "$ROOT"; }',
            "vx_fault_sweep 5 /b/libvxfault.so ioctl open -- VXFAULT_FROM=/dev/x V=1 /b/vx-hwcheck 'x y'"])
        self.assertEqual(programs_used([s]), ["vxevdev", "vxfault"])

    def test_mistakes_in_the_table_are_named(self):
        for change, message in [({"calls": []}, "calls must name kinds"), ({"calls": ["open", "open"]}, "each once"),
                                ({"calls": ["close"]}, "calls must name"), ({"calls": ["read"], "timeout": 0},
                                                                            "must be positive")]:
            with self.subTest(change), self.assertRaisesRegex(SimError, message):
                scenario(faults=change)
        with self.assertRaisesRegex(SimError, "without a splash reader"):
            scenario(faults={"calls": ["read"]}, splash={"reader": True})


REPORT = """==7== Command: /b/vx-hwcheck
==7== FILE DESCRIPTORS: 4 open (3 std) at exit.
==7== Open file descriptor 3: /run/vxsim/scenario/out/memcheck
==7==    <inherited from parent>
==7== ERROR SUMMARY: 0 errors from 0 contexts (suppressed: 0 from 0)
"""


class MemcheckTest(unittest.TestCase):
    def test_the_program_runs_under_valgrind(self):
        s = scenario(flash=[], run={"program": "/b/vx-hwcheck", "memcheck": True})
        with tempfile.TemporaryDirectory() as d:
            steps = prepare_scenario(s, d, {})
        self.assertEqual(steps[-1], "vx_run 120 -- /usr/bin/valgrind --track-fds=yes --leak-check=full "
                                    "--errors-for-leak-kinds=definite,indirect "
                                    "--log-file=/run/vxsim/scenario/out/memcheck /b/vx-hwcheck")

    def test_errors_leaks_and_descriptors_left_open_fail(self):
        self.assertEqual(judge_memcheck(REPORT, 0), [])
        leaky = REPORT.replace("FILE DESCRIPTORS: 4", "FILE DESCRIPTORS: 5").replace(
            "0 errors", "2 errors") + "==7== Open file descriptor 5: /dev/mtd1\n"
        self.assertEqual(judge_memcheck(leaky, 1), ["memcheck: 2 errors or leaks",
                                                    "memcheck: open at exit: file descriptor 5: /dev/mtd1"])
        # A program that a signal ended unwound nothing: only errors count.
        self.assertEqual(judge_memcheck(leaky.replace("2 errors", "0 errors"), 134), [])
        self.assertEqual(judge_memcheck("==7== Command: x\n", 0), [
            "memcheck: the report has no error summary", "memcheck: the report has no descriptor summary"])
        self.assertEqual(judge_memcheck(None, 0), ["memcheck: the guest left no report"])


if __name__ == "__main__":
    unittest.main()
