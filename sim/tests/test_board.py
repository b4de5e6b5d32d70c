import os
import tempfile
import unittest

from vxsim import SimError
from vxsim.board import BOARDS, _merge_usr
from vxsim.steps import prepare_scenario, programs_used

from . import scenario

AVS = "<6>AVS Revision=1.0.0.2 V0=4294966.296V T0=-1.000C PV0=1.100V MV0=0.000V "


class BoardTest(unittest.TestCase):
    def test_the_arm64_player_expects_the_avs_record_of_a_zero_block(self):
        s = scenario(flash=[], expect={"status": 0, "stderr": ["<6>VELTRIX x", AVS + "<no line end>"],
                             "kmsg": [AVS + "ERROR: y"]})
        arm = BOARDS["arm64"].adapt(s).expect
        zero = "<6>AVS Revision=0.0.0.0 V0=0.000V T0=0.000C PV0=0.000V MV0=0.000V "
        self.assertEqual((arm.stderr, arm.kmsg, arm.stdout),
                         (["<6>VELTRIX x", zero + "<no line end>"], [zero + "ERROR: y"], None))
        self.assertIs(BOARDS["amd64"].adapt(s), s)
        with tempfile.TemporaryDirectory() as d:
            steps = prepare_scenario(s, d, {"vx-hwcheck": "/b/c"}, BOARDS["arm64"], "/b/host-vxtool")
        self.assertNotIn("vx_avs in/avs.bin", steps)

    def test_packages_of_the_boards_architecture_are_installed_before_the_run(self):
        s = scenario(flash=[], install={"packages": ["vx-hwcheck"]}, files={"/usr/sbin/x": False},
                     run={"program": "/usr/sbin/vx-hwcheck"})
        with tempfile.TemporaryDirectory() as d:
            for deb in ("vx-hwcheck_0.1_amd64.deb", "vx-hwcheck_0.1_arm64.deb",
                        "vx-hwcheck-dev_0.1_arm64.deb"):
                open(os.path.join(d, deb), "w").write(deb)
            os.mkdir(os.path.join(d, "s"))
            steps = prepare_scenario(s, os.path.join(d, "s"), {"packages": d}, BOARDS["arm64"])
            installed = open(os.path.join(d, "s", "in", "vx-hwcheck.deb")).read()
            self.assertEqual(installed, "vx-hwcheck_0.1_arm64.deb")
            os.unlink(os.path.join(d, "vx-hwcheck_0.1_arm64.deb"))
            with self.assertRaisesRegex(SimError, "0 packages vx-hwcheck_\\*_arm64.deb"):
                prepare_scenario(s, os.path.join(d, "s"), {"packages": d}, BOARDS["arm64"])
        self.assertEqual(steps[:2], ["vx_begin t", "vx_remove /usr/sbin/x"])
        self.assertEqual(steps[-2:], ["vx_install in/vx-hwcheck.deb", "vx_run 120 -- /usr/sbin/vx-hwcheck"])
        self.assertEqual(programs_used([s]), ["packages"])

    def test_the_arm64_layer_keeps_programs_and_libraries_below_usr(self):
        with tempfile.TemporaryDirectory() as d:
            for path in ("bin/dash", "usr/bin/env", "sbin/x", "lib/aarch64-linux-gnu/libacl.so.1",
                         "usr/libexec/valgrind/memcheck", "etc/dpkg/dpkg.cfg",
                         "usr/share/doc/dash/copyright"):
                os.makedirs(os.path.dirname(os.path.join(d, path)), exist_ok=True)
                open(os.path.join(d, path), "w").close()
            os.symlink("dash", os.path.join(d, "bin", "sh"))
            _merge_usr(d)
            found = sorted(os.path.relpath(os.path.join(top, f), d) for top, dirs, files in os.walk(d)
                           for f in files + [x for x in dirs if os.path.islink(os.path.join(top, x))])
        self.assertEqual(found, ["usr/bin/dash", "usr/bin/env", "usr/bin/sh",
                                 "usr/lib/aarch64-linux-gnu/libacl.so.1", "usr/libexec/valgrind/memcheck",
                                 "usr/sbin/x"])


if __name__ == "__main__":
    unittest.main()
