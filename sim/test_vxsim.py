"""Host-side tests of the simulated player's runner: scenario checking,
verdicts, kernel unpacking and the guest's inputs. No guest is booted."""
import gzip
import io
import lzma
import os
import re
import subprocess
import tempfile
import textwrap
import unittest
from contextlib import redirect_stdout

import vxsim

HEALTHY = {
    "flash": [{"name": "flash0.nvram", "blocks": 8, "bad": [0, 1], "env": ["VX_FORMAT=1"]},
              {"name": "test.scratch", "blocks": 16, "bad": [5, 3]}],
    "proc": {"boardid": "Secure-ID: 1\n"},
    "net": {"eth0": "02:00:00:00:00:01"},
    "expect": {"status": 0, "stderr": []},
}


def scenario(**changes):
    return vxsim.parse_scenario("t", vxsim.merge(HEALTHY, changes))


class ScenarioTest(unittest.TestCase):
    def test_mistakes_are_named(self):
        cases = {
            "unknown key(s) colour": {"colour": "red"},
            "unknown key(s) size": {"flash": [{"name": "a", "blocks": 1, "size": 2}]},
            "bad blocks must be indexes below 8": {"flash": [{"name": "a", "blocks": 8, "bad": [8]}]},
            "the partitions need 2048 erase blocks": {"flash": [{"name": "a", "blocks": 2048}]},
            "partition names must differ": {"flash": [{"name": "a", "blocks": 1}, {"name": "a", "blocks": 1}]},
            "is not simulated yet": {"gpio": {"line64": 1}},
            "eth0 must be a MAC address": {"net": {"eth0": "02:00:00:00:00"}},
            "status must be a number": {"expect": {"status": "0"}},
        }
        for message, change in cases.items():
            with self.subTest(message), self.assertRaisesRegex(vxsim.SimError, re.escape(message)):
                scenario(**change)

    def test_a_scenario_overrides_its_base_table_by_table(self):
        with tempfile.TemporaryDirectory() as d:
            with open(os.path.join(d, "base.toml"), "w") as f:
                f.write('description = "base"\n[boot]\nmemory = "512M"\ncmdline = "vx.debug"\n'
                        '[proc]\nboardid = "b"\n[expect]\nstatus = 0\nstderr = ["x", "y"]\n')
            with open(os.path.join(d, "derived.toml"), "w") as f:
                f.write('base = "base"\n[boot]\nmemory = "200M"\n[expect]\nstatus = 1\nstderr = ["z"]\n')
            s = vxsim.load_scenario(os.path.join(d, "derived.toml"))
        self.assertEqual((s.name, s.description, s.memory, s.cmdline), ("derived", "", "200M", "vx.debug"))
        self.assertEqual(s.proc, {"boardid": "b"})
        self.assertEqual((s.expect["status"], s.expect["stderr"]), (1, ["z"]))

    def test_bad_blocks_become_chip_wide_indexes(self):
        self.assertEqual(vxsim.flash_layout(scenario().flash), ("8,16", "0,1,11,13"))

    def test_every_checked_in_scenario_is_valid(self):
        for fn in sorted(os.listdir(vxsim.SCENARIO_DIR)):
            with self.subTest(fn):
                vxsim.load_scenario(os.path.join(vxsim.SCENARIO_DIR, fn))


class VerdictTest(unittest.TestCase):
    MEMINFO = "MemTotal:         153412 kB\nMemFree:   1 kB\n"

    def result(self, **changes):
        r = {"status": 1, "stdout": "", "stderr": "Low: 153412KB.\nERROR: Low\n", "meminfo": self.MEMINFO,
             "kmsg": ["<2>assertion"], "files": {"/etc/issue": "Veltrix\r\n\n"}}
        r.update(changes)
        return r

    def expect(self, **changes):
        e = {"status": 1, "stderr": ["Low: ${meminfo:MemTotal}KB.", "ERROR: Low"],
             "kmsg": ["<2>assertion"], "files": {"/etc/issue": "Veltrix\r\n\n", "/etc/other": False}}
        e.update(changes)
        return scenario(expect=e)

    def test_matching_results_pass(self):
        self.assertEqual(vxsim.judge(self.expect(), self.result()), [])

    def test_each_difference_is_reported(self):
        s = self.expect()
        diffs = vxsim.judge(s, self.result(status=0, stderr="Low: 153412KB.\nERROR: Low",
                                           kmsg=["<3>assertion"],
                                           files={"/etc/other": "x"}))
        self.assertEqual(diffs, [
            "exit status: expected 1, got 0",
            "stderr differs:\n  expected: 'Low: 153412KB.\\nERROR: Low\\n'\n"
            "  actual:   'Low: 153412KB.\\nERROR: Low'",
            "kernel-log records differs:\n  expected: ['<2>assertion']\n  actual:   ['<3>assertion']",
            "/etc/issue: expected 'Veltrix\\r\\n\\n', but there is no such file",
            "/etc/other: expected no file, found 'x'",
        ])

    def test_a_failed_verdict_fails_the_run(self):
        out = io.StringIO()
        with tempfile.TemporaryDirectory() as d, redirect_stdout(out):
            ok = vxsim.report(self.expect(status=2), self.result(), d, False, print)
        self.assertFalse(ok)
        self.assertIn("FAIL t\n  exit status: expected 2, got 1\n", out.getvalue())

    def test_an_ellipsis_line_stands_for_any_lines(self):
        dump = ["Damaged", "...", "Expected hash", "..."]
        self.assertTrue(vxsim.lines_match(dump, "Damaged\n0: 42\n16: 4c\nExpected hash\n0: 1b\n"))
        self.assertTrue(vxsim.lines_match(dump, "Damaged\nExpected hash\n"))
        self.assertFalse(vxsim.lines_match(dump, "Damaged\n0: 42\n"))
        self.assertFalse(vxsim.lines_match(["a.b"], "axb\n"))
        self.assertFalse(vxsim.lines_match([], "unexpected\n"))

    def test_only_user_records_after_the_baseline_count(self):
        before = "6,10,100,-;kernel boot\n SUBSYSTEM=x\n12,11,200,-;old\n"
        after = before + "6,12,300,-;kernel later\n10,13,400,-;new\\x0anext\n11,14,500,-;more\n"
        self.assertEqual(vxsim.user_records(before, after), ["<2>new\\x0anext", "<3>more"])


class KernelTest(unittest.TestCase):
    ELF = b"\x7fELF" + bytes(range(256)) * 64

    def test_the_kernel_is_found_behind_its_compression_magic(self):
        xz = lzma.compress(self.ELF, format=lzma.FORMAT_XZ)
        gz = gzip.compress(self.ELF)
        for payload in (xz, gz):
            # a false magic in front of the payload must not stop the search
            image = b"MZ" + b"\xfd7zXZ\x00junk\x1f\x8b\x08junk" + payload + b"trailer" * 10
            self.assertEqual(vxsim.extract_vmlinux(image), self.ELF)
        with self.assertRaisesRegex(vxsim.SimError, "no compressed ELF kernel"):
            vxsim.extract_vmlinux(b"MZ" + lzma.compress(b"not an ELF", format=lzma.FORMAT_XZ))

    def test_modules_load_after_their_dependencies(self):
        deps = {"nandsim": ["nand", "mtd"], "nand": ["nandcore", "bch"], "nandcore": ["mtd"],
                "mtd": [], "bch": [], "dummy": []}
        order = vxsim.module_load_order(["nandsim", "dummy"], deps.__getitem__)
        self.assertEqual(order, ["mtd", "nandcore", "bch", "nand", "nandsim", "dummy"])
        with self.assertRaisesRegex(vxsim.SimError, "loop through a"):
            vxsim.module_load_order(["a"], {"a": ["b"], "b": ["a"]}.__getitem__)

    def test_initramfs_archive_reads_back_with_cpio(self):
        archive = vxsim.cpio_newc([("bin", 0o40755, b"", (0, 0)), ("dev/console", 0o20600, b"", (5, 1)),
                                   ("init", 0o100755, b"#!/bin/sh\n", (0, 0))])
        listing = subprocess.run(["cpio", "-itv", "--quiet"], input=archive, capture_output=True,
                                 check=True).stdout.decode().splitlines()
        self.assertEqual([line.split()[0] for line in listing], ["drwxr-xr-x", "crw-------", "-rwxr-xr-x"])
        self.assertEqual([line.split()[-1] for line in listing], ["bin", "dev/console", "init"])
        self.assertIn("5,", listing[1])
        self.assertEqual(listing[2].split()[4], "10")


class GuestInputTest(unittest.TestCase):
    def test_images_come_from_the_tool_and_steps_quote_their_words(self):
        s = scenario(run={"program": "vx-hwcheck", "args": ["a b"], "env": {"V": "x'y"}},
                     files={"/etc/issue": "old\n"})
        with tempfile.TemporaryDirectory() as d:
            tool = os.path.join(d, "vxtool")
            with open(tool, "w") as f:   # records its arguments and input in the image
                f.write('#!/bin/sh\nout=$5\n{ echo "$@"; cat; } > "$out"\n')
            os.chmod(tool, 0o755)
            steps = vxsim.prepare_scenario(s, d, {"vxtool": tool, "vx-hwcheck": "/b/vx-hwcheck"})
            with open(os.path.join(d, "in", "flash0.nvram.img")) as f:
                image = f.read()
            with open(os.path.join(d, "in", "root", "etc", "issue")) as f:
                issue = f.read()
        self.assertEqual(image, f"mkenv --erase-size 131072 -o {d}/in/flash0.nvram.img\nVX_FORMAT=1\n")
        self.assertEqual(issue, "old\n")
        self.assertEqual(steps, textwrap.dedent("""\
            vx_begin t
            vx_flash 8,16 0,1,11,13
            vx_proc flash0.nvram test.scratch
            vx_erase 0
            vx_write 0 in/flash0.nvram.img
            vx_erase 1
            vx_eth0 02:00:00:00:00:01
            vx_run 120 'V=x'"'"'y' -- /b/vx-hwcheck 'a b'""").split("\n"))


if __name__ == "__main__":
    unittest.main()
