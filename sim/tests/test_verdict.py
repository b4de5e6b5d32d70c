import io
import os
import tempfile
import unittest
from contextlib import redirect_stdout
from dataclasses import replace

from vxsim.guest import Result, device_log, read_results, user_records
from vxsim.verdict import judge, lines_match, report

from . import scenario


class VerdictTest(unittest.TestCase):
    MEMINFO = "MemTotal:         153412 kB\nMemFree:   1 kB\n"
    RESULT = Result(status=1, stderr="Low: 153412KB.\nERROR: Low\n", meminfo=MEMINFO,
                    kmsg=["<2>assertion"], files={"/etc/issue": "Veltrix\r\n\n"})

    def expect(self, **changes):
        e = {"status": 1, "stderr": ["Low: ${meminfo:MemTotal}KB.", "ERROR: Low"],
             "kmsg": ["<2>assertion"], "files": {"/etc/issue": "Veltrix\r\n\n", "/etc/other": False}}
        e.update(changes)
        return scenario(expect=e)

    def report(self, s, result, rundir="/nonexistent"):
        out = io.StringIO()
        with redirect_stdout(out):
            ok = report(s, result, rundir, False, print)
        return ok, out.getvalue()

    def test_matching_results_pass(self):
        self.assertEqual(judge(self.expect(), self.RESULT), [])

    def test_each_difference_is_reported(self):
        diffs = judge(self.expect(), replace(self.RESULT, status=0, stderr="Low: 153412KB.\nERROR: Low",
                                             kmsg=["<3>assertion"], files={"/etc/other": "x"}))
        self.assertEqual(diffs, [
            "exit status: expected 1, got 0",
            "stderr differs:\n  expected: 'Low: 153412KB.\\nERROR: Low\\n'\n"
            "  actual:   'Low: 153412KB.\\nERROR: Low'",
            "kernel-log records differs:\n  expected: ['<2>assertion']\n  actual:   ['<3>assertion']",
            "/etc/issue: expected 'Veltrix\\r\\n\\n', but there is no such file",
            "/etc/other: expected no file, found 'x'",
        ])
        ok, out = self.report(self.expect(status=2), self.RESULT)
        self.assertFalse(ok)
        self.assertIn("FAIL t\n  exit status: expected 2, got 1\n", out)

    def test_a_status_file_without_a_number_fails_the_scenario(self):
        cases = {"": "the guest left an empty status file",
                 "\n": "the guest left an empty status file",
                 "Killed\n": "the guest's status file holds 'Killed\\n', not a number"}
        for text, message in cases.items():
            with self.subTest(text=text), tempfile.TemporaryDirectory() as d:
                os.makedirs(os.path.join(d, "t", "out"))
                with open(os.path.join(d, "t", "out", "status"), "w") as f:
                    f.write(text)
                result = read_results(os.path.join(d, "t"), [])
                ok, out = self.report(scenario(), result, d)
                self.assertFalse(ok)
                self.assertIn(f"FAIL t\n  exit status: expected 0, but {message}\n", out)
                self.assertIn("--- exit status unknown ---", out)

    def test_a_scenario_without_results_did_not_run(self):
        with tempfile.TemporaryDirectory() as d:
            os.makedirs(os.path.join(d, "t", "out"))
            with open(os.path.join(d, "t", "setup.log"), "w") as f:
                f.write("cannot load nandsim\n")
            self.assertIsNone(read_results(os.path.join(d, "t"), []))
            ok, out = self.report(scenario(), None, d)
        self.assertFalse(ok)
        self.assertEqual(out, "FAIL t: the scenario did not run\n  setup: cannot load nandsim\n")

    def test_a_marked_line_has_no_line_end(self):
        expected = ["<3>warning<no line end>", "next"]
        self.assertTrue(lines_match(expected, "<3>warningnext\n"))
        self.assertFalse(lines_match(expected, "<3>warning\nnext\n"))

    def test_an_ellipsis_line_stands_for_any_lines(self):
        dump = ["Damaged", "...", "Expected hash", "..."]
        self.assertTrue(lines_match(dump, "Damaged\n0: 42\n16: 4c\nExpected hash\n0: 1b\n"))
        self.assertTrue(lines_match(dump, "Damaged\nExpected hash\n"))
        self.assertFalse(lines_match(dump, "Damaged\n0: 42\n"))
        self.assertFalse(lines_match(["a.b"], "axb\n"))
        self.assertFalse(lines_match([], "unexpected\n"))

    def test_only_user_records_after_the_baseline_count(self):
        before = "6,10,100,-;kernel boot\n SUBSYSTEM=x\n12,11,200,-;old\n"
        after = before + "6,12,300,-;kernel later\n10,13,400,-;new\\x0anext\n11,14,500,-;more\n"
        self.assertEqual(user_records(before, after), ["<2>new\\x0anext", "<3>more"])



class DeviceVerdictTest(unittest.TestCase):
    # The server's log: LED writes 200 and 300 ms apart, the button pressed
    # 900 ms after the epoch, the program's close 6 ms later.
    LOG = ("5 ready\n10 open 1 42\n1000000000 start\n1000000000 write 17 17 1\n"
           "1200000000 write 17 17 0\n1500000000 write 17 17 1\n1900000000 press 12\n"
           "1906000000 close 1\n2000000000 exit\n")
    WRITES = ["17 17 1", "17 17 0", "17 17 1"]

    def judge(self, expect_input, log=LOG, **expect):
        s = scenario(input={"press": ["12@900"]}, splash={"reader": "splash" in expect},
                     expect=dict(status=0, input=expect_input, **expect))
        return judge(s, Result(status=0, device_log=device_log(log) if log else None,
                               splash="50%\n100%"))

    def test_writes_gaps_within_tolerance_and_exit_after_press_pass(self):
        self.assertEqual(self.judge({"writes": self.WRITES, "gaps_ms": [220, 280],
                                     "exit_after_press_ms": 6}), [])

    def test_a_gap_of_two_phases_may_be_off_by_twice_the_tolerance(self):
        self.assertEqual(self.judge({"gaps_ms": [200, "140+125"]}), [])
        self.assertEqual(len(self.judge({"gaps_ms": [200, "100+159"]})), 1)

    def test_wrong_writes_a_gap_just_outside_and_a_late_exit_fail_with_the_numbers(self):
        wrong = ["17 17 1", "17 17 1", "17 17 0"]
        self.assertEqual(self.judge({"writes": wrong, "gaps_ms": [200, 279.9],
                                     "exit_after_press_ms": 5.9}), [
            f"event-device writes differ:\n  expected: {wrong!r}\n  actual:   {self.WRITES!r}",
            "write gaps outside 20 ms a phase of the expected ones:\n  expected (ms): [200.0, 279.9]\n"
            "  measured (ms): [200.0, 300.0]\n"
            "  gap 2 (writes 2 to 3): expected 279.9 ms, measured 300.0 ms, off by +20.1",
            "exit after press: expected the program's last close at most 5.9 ms after the press, "
            "measured 6.00 ms (press at 900.0 ms, close at 906.0 ms after the program's first write to the device)"])

    def test_a_missing_write_a_close_before_the_press_and_an_unfinished_server(self):
        cut = self.LOG.replace("1500000000 write 17 17 1\n", "").replace("2000000000 exit\n", "200")
        self.assertEqual(self.judge({"gaps_ms": [200, 300], "exit_after_press_ms": 10}, cut), [
            "event device: its server's log has no 'exit' line: it did not stop cleanly",
            "write gaps: expected 2 gaps (ms) [200.0, 300.0], but the device saw 2 writes, gaps [200.0]"])
        early = self.LOG.replace("1906000000 close", "1800000000 close")
        self.assertEqual(self.judge({"exit_after_press_ms": 10}, early), [
            "exit after press: the program last closed the device at 800.0 ms after the program's first "
            "write to the device, before any press"])
        self.assertEqual(self.judge({"writes": []}, None),
                         ["event device: the guest left no log of its server"])

    def test_the_splash_reader_must_get_the_exact_bytes(self):
        self.assertEqual(self.judge({}, splash="50%\n100%"), [])
        self.assertEqual(self.judge({}, splash="50%\n100%\n"), [
            "splash (what the reader got) differs:\n  expected: '50%\\n100%\\n'\n"
            "  actual:   '50%\\n100%'"])

    def test_a_step_failing_after_the_program_fails_the_scenario(self):
        result = Result(status=0, steps_failed="no /dev/input/veltrix-gpio")
        self.assertEqual(judge(scenario(), result),
                         ["a step after the program failed:\n  no /dev/input/veltrix-gpio"])


if __name__ == "__main__":
    unittest.main()
