import json
import os
import tempfile
import unittest

from vxsim import SimError
from vxsim.capture import replay_expect, scenario_from_capture, text_lines
from vxsim.guest import Result
from vxsim.scenario import ERASE_SIZE, OOB_SIZE, PAGE_SIZE

STRIDE = ERASE_SIZE // PAGE_SIZE * (PAGE_SIZE + OOB_SIZE)  # one raw erase block


def write_capture(d, blocks, raw=True, erase=ERASE_SIZE, more=None):
    """A capture of one partition "p" of len(blocks) raw blocks (each a
    byte repeated), block 1 bad, behind a partition "q" that was not
    captured."""
    os.makedirs(os.path.join(d, "files", "proc"))
    with open(os.path.join(d, "files", "proc", "mtd"), "w") as f:
        f.write('dev:    size   erasesize  name\nmtd0: 00040000 00020000 "q"\n'
                f'mtd1: {len(blocks) * erase:08x} {erase:08x} "p"\nmtd2: 00020000 00020000 "NAND rest 2"\n')
    with open(os.path.join(d, "p.raw"), "wb") as f:
        for b in blocks:
            f.write(bytes([b]) * STRIDE)
    manifest = {"format": "vx-capture", "version": 1,
                "files": {"/proc/mtd": "files/proc/mtd", "/proc/boardid": None},
                "partitions": [{"name": "p", "erase_size": erase, "write_size": PAGE_SIZE, "oob_size": OOB_SIZE,
                                "bad_blocks": [1], "raw": "p.raw" if raw else None}],
                "eth0": {"present": True, "address": "02:00:00:00:00:07"}, "gpio64": {"value": "0\n"},
                "avs": list(range(18))}
    manifest.update(more or {})
    with open(os.path.join(d, "manifest.json"), "w") as f:
        json.dump(manifest, f)


class CaptureTest(unittest.TestCase):
    def test_a_capture_becomes_a_player(self):
        with tempfile.TemporaryDirectory() as d:
            write_capture(d, [0x11, 0x22, 0x33, 0xFF, 0xFF])
            s = scenario_from_capture(d, "unit", os.path.join(d, "work"))
            q, p = s.flash
            self.assertEqual([(f.name, f.blocks, f.bad, f.raw) for f in s.flash],
                             [("q", 2, [], None), ("p", 5, [1], os.path.join(d, "work", "p.raw"))])
            # The good blocks only, the erased ones at the end left out.
            with open(p.raw, "rb") as f:
                self.assertEqual(f.read(), b"\x11" * STRIDE + b"\x33" * STRIDE)
            self.assertEqual((s.proc, s.files, s.net.eth0, s.gpio.levels, s.avs.words),
                             ({}, {"/etc/veltrix-version": False}, "02:00:00:00:00:07", 0, list(range(18))))

    def test_what_cannot_be_replayed_is_named(self):
        cases = {
            "not a capture \\(no \"format\"": dict(more={"format": "tar"}),
            "capture version 2": dict(more={"version": 2}),
            "p has erase blocks of 65536": dict(erase=65536),
            "p was captured without its raw pages": dict(raw=False),
        }
        for message, change in cases.items():
            with self.subTest(message), tempfile.TemporaryDirectory() as d:
                write_capture(d, [0x11, 0x22], **change)
                with self.assertRaisesRegex(SimError, message):
                    scenario_from_capture(d, "unit", os.path.join(d, "work"))

    def test_a_replay_expects_the_originals_bytes(self):
        self.assertEqual(text_lines("a\nb"), ["a", "b<no line end>"])
        self.assertEqual(text_lines("a\n"), ["a"])
        original = Result(status=1, status_text="1\n", stdout="", stderr="ERROR: x\n", meminfo="", pid="",
                          kmsg=["<3>k"], device_log=[(0, "open"), (5, "write 17 17 1"), (9, "write 17 17 0")])
        e = replay_expect(original)
        self.assertEqual((e.status, e.stdout, e.stderr, e.kmsg, e.input.writes),
                         (1, [], ["ERROR: x"], ["<3>k"], ["17 17 1", "17 17 0"]))


if __name__ == "__main__":
    unittest.main()
