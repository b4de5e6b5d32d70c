import io
import os
import tempfile
import unittest
from contextlib import redirect_stdout
from dataclasses import replace

from vxsim.guest import Result, read_results, user_records
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


if __name__ == "__main__":
    unittest.main()
