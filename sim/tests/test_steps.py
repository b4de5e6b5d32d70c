import os
import tempfile
import textwrap
import unittest

from vxsim import SimError
from vxsim.steps import flash_layout, prepare_scenario, programs_used

from . import scenario


class StepsTest(unittest.TestCase):
    def test_bad_blocks_become_chip_wide_indexes(self):
        self.assertEqual(flash_layout(scenario().flash), ("8,16", "0,1,11,13"))

    def test_images_come_from_the_tool_and_steps_quote_their_words(self):
        s = scenario(run={"program": "vx-hwcheck", "args": ["a b"], "env": {"V": "x'y"}},
                     files={"/etc/issue": "old\n"}, expect={"status": 0, "files": {"/etc/issue": "new\n"}})
        with tempfile.TemporaryDirectory() as d:
            tool = os.path.join(d, "vxtool")
            with open(tool, "w") as f:   # records its arguments and input in the image
                f.write('#!/bin/sh\nout=$5\n{ echo "$@"; cat; } > "$out"\n')
            os.chmod(tool, 0o755)
            steps = prepare_scenario(s, d, {"vxtool": tool, "vx-hwcheck": "/b/vx-hwcheck"})
            with open(os.path.join(d, "in", "flash0.nvram.img")) as f:
                image = f.read()
            with open(os.path.join(d, "in", "root", "etc", "issue")) as f:
                issue = f.read()
            with open(os.path.join(d, "in", "proc", "boardid")) as f:
                boardid = f.read()
        self.assertEqual(image, f"mkenv --erase-size 131072 -o {d}/in/flash0.nvram.img\nVX_FORMAT=1\n")
        self.assertEqual((issue, boardid), ("old\n", "Secure-ID: 1\n"))
        self.assertEqual(steps, textwrap.dedent("""\
            vx_begin t
            vx_flash 8,16 0,1,11,13
            vx_proc flash0.nvram test.scratch
            vx_erase 0
            vx_write 0 in/flash0.nvram.img
            vx_erase 1
            vx_eth0 02:00:00:00:00:01
            vx_gpio 0x1
            vx_avs in/avs.bin
            vx_run 120 'V=x'"'"'y' -- /b/vx-hwcheck 'a b'
            vx_collect /etc/issue""").split("\n"))

    def test_the_device_server_and_splash_reader_run_around_the_program(self):
        s = scenario(flash=[], net={}, gpio={"levels": 0x80000000}, splash={"reader": True},
                     input={"outputs": 0x300, "press": ["12@3000", "12@9000"], "release": ["12@3100"],
                            "epoch": "open"}, run={"program": "/bin/true"})
        with tempfile.TemporaryDirectory() as d:
            steps = prepare_scenario(s, d, {"vxevdev": "/b/vxevdev"})
        self.assertEqual(steps[4:], [
            "vx_gpio 0x80000000",
            "vx_avs in/avs.bin",
            "vx_input_start /b/vxevdev --inputs 0x1000 --outputs 0x300 --configurable 0x0 --levels 0x0 "
            "--epoch open --press 12@3000 --press 12@9000 --release 12@3100",
            "vx_splash_start",
            "vx_run 120 -- /bin/true",
            "vx_splash_stop",
            "vx_input_stop"])
        self.assertEqual(programs_used([s]), ["vxevdev"])

    def test_special_files_a_reader_that_leaves_a_full_disk_and_a_broken_stderr(self):
        s = scenario(flash=[], net={}, files={"/etc/issue": {"fifo": True}, "/etc/motd": {"symlink": "/etc/x y"},
                                              "/etc/x y": "v\n"},
                     splash={"reader": True, "reader_exits_after_bytes": 9}, disk={"full": True},
                     run={"program": "/bin/true", "stderr": "broken-pipe"})
        with tempfile.TemporaryDirectory() as d:
            steps = prepare_scenario(s, d, {})
            self.assertEqual(os.listdir(os.path.join(d, "in", "root", "etc")), ["x y"])
        self.assertEqual(steps[:3], ["vx_begin t", "vx_fifo /etc/issue", "vx_symlink '/etc/x y' /etc/motd"])
        self.assertEqual(steps[-4:], ["vx_splash_start 9", "vx_disk_full", "vx_run 120 --broken-pipe -- /bin/true",
                                      "vx_splash_stop"])

    def test_a_failing_factory_script_stops_the_scenario(self):
        s = scenario(flash=[{"name": "a", "blocks": 2, "script": 'echo "$BLOCKS blocks" >&2; false'}])
        with tempfile.TemporaryDirectory() as d, self.assertRaisesRegex(SimError, "failed \\(1\\): 2 blocks$"):
            prepare_scenario(s, d, {"vxtool": "/bin/false", "vx-hwcheck": "/b/vx-hwcheck"})

    def test_a_batch_needs_the_programs_it_runs_and_vxtool_for_images(self):
        self.assertEqual(programs_used([scenario(), scenario(run={"program": "device_tests"})]),
                         ["device_tests", "vx-hwcheck", "vxtool"])
        self.assertEqual(programs_used([scenario(flash=[], run={"program": "/bin/true"})]), [])


if __name__ == "__main__":
    unittest.main()
