import os
import re
import tempfile
import unittest

from vxsim import SimError
from vxsim.guest import Result, SystemdResult, batch_timeout, user_records
from vxsim.scenario import boot_groups
from vxsim.steps import batch_script, prepare_scenario
from vxsim.verdict import judge

from . import scenario

SYSTEMD = {"systemd": {"scripts": ["echo one", "echo two"]}}


class SystemdBootTest(unittest.TestCase):
    def test_what_a_systemd_boot_cannot_play_is_named(self):
        cases = {
            "[proc] takes only boardid": dict(SYSTEMD, proc={"meminfo": "MemTotal: 1 kB\n"}),
            "[splash] reader is for a program run by hand": dict(SYSTEMD, splash={"reader": True}),
            "gives 1 boots' lines; [systemd] scripts boots 2 times": dict(
                SYSTEMD, expect={"status": 0, "systemd": {"scripts": [["one"]]}}),
            "need a systemd boot: add [systemd]": {"net": {"eth0": "02:00:00:00:00:01", "late": 3}},
            "late is a positive number of seconds, for an eth0": dict(SYSTEMD, net={"eth0": "", "late": 3}),
            "'vx-hwcheck.service' must map property names to texts": dict(
                SYSTEMD, expect={"status": 0, "systemd": {"units": {"vx-hwcheck.service": {"A": 1}}}}),
        }
        for message, changes in cases.items():
            with self.subTest(message), self.assertRaisesRegex(SimError, re.escape(message)):
                scenario(**changes)

    def test_each_boot_sets_up_the_hardware_and_only_the_first_the_root_and_packages(self):
        s = scenario(**SYSTEMD, flash=[{"name": "flash0.nvram", "blocks": 8}], install={"packages": ["p"]},
                     net={"eth0": "02:00:00:00:00:01", "late": 5}, files={"/etc/issue": "old\n"})
        with tempfile.TemporaryDirectory() as d:
            os.makedirs(os.path.join(d, "debs"))
            open(os.path.join(d, "debs", "p_1_amd64.deb"), "w").close()
            boots = [prepare_scenario(s, d, {"packages": os.path.join(d, "debs")}, boot=b) for b in (1, 2)]
            with open(os.path.join(d, "in", "observe.conf")) as f:
                conf = f.read()
            with open(os.path.join(d, "in", "root", "etc", "systemd", "system", "vxsim-late-nic.service")) as f:
                late = f.read()
        hardware = ["vx_flash 8 ''", "vx_board flash0.nvram", "vx_erase 0", "vx_eth0", "vx_gpio 0x1",
                    "vx_avs in/avs.bin"]
        self.assertEqual(boots[0], ["vx_systemd_begin t /dev/vda first", "vx_remove /usr/sbin/policy-rc.d",
                                    "vx_symlink /etc/systemd/system/vxsim-observe.service "
                                    "/etc/systemd/system/multi-user.target.wants/vxsim-observe.service",
                                    "vx_symlink /etc/machine-id /var/lib/dbus/machine-id",
                                    "vx_symlink /etc/systemd/system/vxsim-late-nic.service "
                                    "/etc/systemd/system/sysinit.target.wants/vxsim-late-nic.service"]
                         + hardware + ["vx_install in/p.deb", "vx_systemd_boot"])
        self.assertEqual(boots[1], ["vx_systemd_begin t /dev/vda again"] + hardware + ["vx_systemd_boot"])
        self.assertIn("BOOT=2\nBOOTS=2\n", conf)
        self.assertIn("sleep 5 && ip link set nic0 address 02:00:00:00:00:01 && \\\n    ip link set nic0 name eth0", late)
        # A boot of its own, kept for systemd, and its time limit once per boot.
        self.assertEqual(len(boot_groups([s, scenario()])), 2)
        self.assertEqual(batch_timeout([s]), 2 * (60 + 30 + 120))
        script = batch_script([("t", boots[0])], systemd=True)
        self.assertNotIn("vx_end", script)
        self.assertIn("vx_systemd_boot\n) > /vx/t/setup.log", script)

    def test_a_boot_is_judged_on_its_units_journal_script_and_state(self):
        s = scenario(**SYSTEMD, expect={"status": 0, "systemd": {
            "state": "running", "scripts": [["one"], ["two"]],
            "units": {"a.service": {"ActiveState": "active", "ExecMainStatus": "0"}},
            "journal": ["Started a.service.", "waited * s", "Reached target b."]}})
        journal = "x\nStarted a.service.\nwaited 1.5 s\ny\nReached target b.\n"

        def boot(units, journal=journal, script="two\n", state="running"):
            return Result(status=0, systemd=SystemdResult(units=units, journal=journal, journal_log="",
                                                          script=script, state=state, times={}))
        ok = {"a.service": {"ActiveState": "active", "ExecMainStatus": "0", "Other": "x"}}
        self.assertEqual(judge(s, boot(ok), 2), [])
        self.assertEqual(judge(s, boot({"a.service": {"ActiveState": "failed", "ExecMainStatus": "1"}},
                                       state="degraded"), 2),
                         ["a.service ActiveState: expected 'active', got 'failed'",
                          "a.service ExecMainStatus: expected '0', got '1'",
                          "system state: expected 'running', got 'degraded'"])
        wrong = judge(s, boot(ok, journal="Reached target b.\nStarted a.service.\nwaited 2 s\n", script="one\n"), 2)
        self.assertEqual(wrong[0], "the journal lacks, in this order:\n  Reached target b.")
        self.assertIn("what boot 2's script printed differs", wrong[1])
        self.assertEqual(judge(s, Result(status=0), 1), ["the systemd boot's observer left no record"])

    def test_a_systemd_boots_kernel_log_counts_the_user_facility_only(self):
        dump = "14,1,5,-;VELTRIX\n30,2,6,-;systemd[1]: Started\n12,3,7,-;ERROR: x\n15,4,8,-;vxsim: end of run\n"
        self.assertEqual(user_records("", dump, facility=1), ["<6>VELTRIX", "<4>ERROR: x"])
        self.assertEqual(len(user_records("", dump)), 3)
