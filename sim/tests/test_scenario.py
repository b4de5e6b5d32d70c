import os
import re
import tempfile
import unittest

from vxsim import SCENARIO_DIR, SimError
from vxsim.scenario import merge, load_batches, load_scenario

from . import scenario


def write(directory, files):
    for name, text in files.items():
        with open(os.path.join(directory, name + ".toml"), "w") as f:
            f.write(text)


class ScenarioTest(unittest.TestCase):
    def test_mistakes_are_named(self):
        cases = {
            "t: unknown key(s) colour": {"colour": "red"},
            "t: batch must be letters": {"batch": "a b"},
            "#1: unknown key(s) size": {"flash": [{"name": "a", "blocks": 1, "size": 2}]},
            "'blocks' must be a number": {"flash": [{"name": "a", "blocks": True}]},
            "bad blocks must be indexes below 8": {"flash": [{"name": "a", "blocks": 8, "bad": [8]}]},
            "give one of env, vxtool or script": {"flash": [{"name": "a", "blocks": 1, "env": [],
                                                              "script": "x"}]},
            "stdin goes with vxtool": {"flash": [{"name": "a", "blocks": 1, "stdin": "x"}]},
            "the partitions need 2048 erase blocks": {"flash": [{"name": "a", "blocks": 2048}]},
            "partition names must differ": {"flash": [{"name": "a", "blocks": 1}, {"name": "a", "blocks": 1}]},
            "[avs]: words must be 18 unsigned 32-bit numbers": {"avs": {"words": [1] * 17}},
            "[gpio]: 'levels' must be a mask of 32 bits": {"gpio": {"levels": 1 << 32}},
            "[input]: pin 3 is not an input": {"input": {"press": ["3@100"]}},
            "[input]: 'release' takes texts like": {"input": {"release": ["12:100"]}},
            "[input]: epoch must be one of write, open, start": {"input": {"epoch": "close"}},
            "[expect.input]: 3 writes have 2 gaps, not 3": {
                "input": {}, "expect": {"status": 0, "input": {"writes": ["17 17 1"] * 3,
                                                               "gaps_ms": [1, 2, 3]}}},
            "[expect.input]: writes are texts like": {
                "input": {}, "expect": {"status": 0, "input": {"writes": ["17,17,1"]}}},
            "t: [expect.input] needs an event device": {"expect": {"status": 0, "input": {"writes": []}}},
            "exit_after_press_ms needs a press": {
                "input": {}, "expect": {"status": 0, "input": {"exit_after_press_ms": 10}}},
            "t: [expect] splash needs [splash] reader = true": {"expect": {"status": 0, "splash": ""}},
            "[splash]: 'reader' must be true or false": {"splash": {"reader": 1}},
            "[splash]: reader_exits_after_bytes is a positive number of bytes, for a reader": {
                "splash": {"reader_exits_after_bytes": 9}},
            "[files]: '/x' must be a text (or false, a fifo or a symlink)": {"files": {"/x": {"fifo": False}}},
            "[proc]: 'x' must be a text (or false) and": {"proc": {"x": {"fifo": True}}},
            "[disk]: 'full' must be true or false": {"disk": {"full": 1}},
            "[run]: stderr must be \"file\", \"kmsg\" or \"broken-pipe\"": {"run": {"stderr": "pipe"}},
            "[files]: paths must be absolute": {"files": {"etc/issue": "x"}},
            "[net]: eth0 must be a MAC address": {"net": {"eth0": "02:00:00:00:00"}},
            "[run]: env must map variable names": {"run": {"env": {"1A": "x"}}},
            "[expect]: 'status' must be a number": {"expect": {"status": "0"}},
            "[expect.files]: 'x' must be absolute": {"expect": {"status": 0, "files": {"x": "y"}}},
        }
        for message, change in cases.items():
            with self.subTest(message), self.assertRaisesRegex(SimError, re.escape(message)):
                scenario(**change)

    def test_hardware_defaults_a_healthy_unit_without_event_device_or_splash(self):
        plain = scenario()
        self.assertEqual((plain.gpio.levels, plain.input, plain.splash.reader), (1, None, False))
        device = scenario(input={}, gpio={"levels": 0}).input  # an empty [input]: the defaults
        self.assertEqual((device.inputs, device.outputs, device.configurable, device.levels,
                          device.epoch), (0x1000, 0x200, 0, 0, "write"))

    def test_a_scenario_overrides_its_base_table_by_table(self):
        with tempfile.TemporaryDirectory() as d:
            write(d, {"base": 'description = "base"\nbatch = "a"\n[boot]\nmemory = "512M"\n'
                              'cmdline = "vx.debug"\n[proc]\nboardid = "b"\n'
                              '[expect]\nstatus = 0\nstderr = ["x", "y"]\n',
                      "derived": 'batch = "b"\nbase = "./base.toml"\n[boot]\nmemory = "200M"\n'
                                 '[expect]\nstatus = 1\nstderr = ["z"]\n'})
            s = load_scenario(os.path.join(d, "derived.toml"))
        self.assertEqual((s.name, s.batch, s.description), ("derived", "b", ""))
        self.assertEqual((s.boot.memory, s.boot.cmdline), ("200M", "vx.debug"))
        self.assertEqual(s.proc, {"boardid": "b"})
        self.assertEqual((s.expect.status, s.expect.stderr, s.expect.stdout), (1, ["z"], None))

    def test_a_base_is_named_or_given_by_a_path_relative_to_the_file(self):
        with tempfile.TemporaryDirectory() as d:
            os.mkdir(os.path.join(d, "sub"))
            write(d, {"healthy": 'batch = "local"\n[expect]\nstatus = 9\n',
                      "by-name": 'batch = "x"\nbase = "healthy"\n',
                      "sub/by-path": 'batch = "x"\nbase = "../healthy.toml"\n'})
            by_name = load_scenario(os.path.join(d, "by-name.toml"))
            by_path = load_scenario(os.path.join(d, "sub", "by-path.toml"))
        # The name is sim/scenarios' healthy player, not the file beside it.
        self.assertEqual([f.name for f in by_name.flash][:2], ["flash0.nvram", "flash0.devid"])
        self.assertEqual((by_name.expect.status, by_path.expect.status, by_path.flash), (0, 9, []))

    def test_partitions_merge_by_name(self):
        part = lambda name, blocks, **more: dict(name=name, blocks=blocks, **more)
        merged = merge({"flash": [part("a", 1), part("b", 2, script="s", bad=[1]), part("c", 3, env=["A=1"])]},
                       {"flash": [part("d", 4), part("b", 5, env=["B=1"]), part("a", 1, absent=True),
                                  {"name": "c", "bitflips": 1}]})
        self.assertEqual(merged["flash"], [part("b", 5, env=["B=1"], bad=[1]), part("c", 3, env=["A=1"], bitflips=1),
                                           part("d", 4)])


class BatchTest(unittest.TestCase):
    def test_every_checked_in_scenario_runs_in_a_batch(self):
        names = sorted(fn[:-5] for fn in os.listdir(SCENARIO_DIR) if fn.endswith(".toml"))
        batches = load_batches()
        self.assertEqual(sorted(s.name for group in batches.values() for s in group), names)

    def test_each_file_names_its_batch_which_is_not_inherited(self):
        with tempfile.TemporaryDirectory() as d:
            write(d, {"a": 'batch = "x"\n[expect]\nstatus = 0\n',
                      "b": 'batch = "y"\nbase = "./a.toml"\n',
                      "c": 'batch = "x"\nbase = "./a.toml"\n'})
            batches = load_batches(d)
            self.assertEqual({k: [s.name for s in v] for k, v in batches.items()},
                             {"x": ["a", "c"], "y": ["b"]})
            write(d, {"d": 'base = "./a.toml"\n'})
            with self.assertRaisesRegex(SimError, "^d: batch is missing"):
                load_batches(d)

    def test_architectures_select_batches_and_are_a_files_own(self):
        with tempfile.TemporaryDirectory() as d:
            write(d, {"a": 'batch = "x"\narchitectures = ["amd64"]\n[expect]\nstatus = 0\n',
                      "b": 'batch = "x"\nbase = "./a.toml"\n'})
            self.assertEqual([s.name for s in load_batches(d, "arm64")["x"]], ["b"])
            self.assertEqual([s.name for s in load_batches(d, "amd64")["x"]], ["a", "b"])
            write(d, {"c": 'batch = "x"\narchitectures = ["riscv64"]\n'})
            with self.assertRaisesRegex(SimError, "^c: architectures must name some of amd64, arm64"):
                load_batches(d)


if __name__ == "__main__":
    unittest.main()
