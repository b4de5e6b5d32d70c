"""Host-side tests of kmod.py's logic; the real build is the sim.hw.gpio_module
test. Run from sim/hw: python3 -m unittest test_kmod"""

import os
import pathlib
import tempfile
import unittest
from unittest import mock

import kmod


class Names(unittest.TestCase):
    def test_release_and_packages(self):
        for name in ("linux-image-6.1.0-56-amd64", "6.1.0-56-amd64",
                     "linux-image-6.1.0-56-amd64-unsigned"):
            self.assertEqual(kmod.kernel_release(name), "6.1.0-56-amd64", name)
        self.assertEqual(kmod.kernel_release("linux-image-6.1.0-56-cloud-amd64"), "6.1.0-56-cloud-amd64")
        self.assertEqual(kmod.header_packages("6.1.0-56-cloud-amd64"),
                         ["linux-headers-6.1.0-56-cloud-amd64", "linux-headers-6.1.0-56-common",
                          "linux-kbuild-6.1"])
        for bad in ("linux-image-amd64", "6.1", "linux-headers-6.1.0-56-amd64"):
            self.assertRaises(kmod.KmodError, kmod.kernel_release, bad)

    def test_cross_compiler_for_another_architecture(self):
        self.assertEqual(kmod.make_args("6.1.0-56-arm64", host="amd64"),
                         ["ARCH=arm64", "CROSS_COMPILE=aarch64-linux-gnu-"])
        for release, host in (("6.1.0-56-cloud-amd64", "amd64"), ("6.1.0-56-arm64", "arm64")):
            self.assertEqual(kmod.make_args(release, host=host), [], release)
        self.assertRaisesRegex(kmod.KmodError, "ships nandsim", kmod.build_nand, "/nonexistent",
                               "linux-image-6.1.0-56-amd64")

    def test_nand_objects_as_the_kernel_composes_them(self):
        makefile = ("obj-$(CONFIG_MTD_RAW_NAND) += nand.o\nomap2_nand-objs := omap2.o\n"
                    "nand-objs := old.o\nnand-objs := nand_base.o nand_bbt.o\nnand-objs += nand_onfi.o\n")
        self.assertEqual(kmod.nand_objects(makefile), ["nand_base.o", "nand_bbt.o", "nand_onfi.o"])
        self.assertRaises(kmod.KmodError, kmod.nand_objects, "obj-m += nand.o\n")

    def test_include_points_into_the_unpacked_tree(self):
        with tempfile.TemporaryDirectory() as d:
            mk = pathlib.Path(d, "Makefile")
            mk.write_text("include /usr/src/x/Makefile\nA = 1\n")
            kmod.point_include_at(mk, "/r")
            self.assertEqual(mk.read_text(), "include /r/usr/src/x/Makefile\nA = 1\n")
            mk.write_text("A = 1\n")
            self.assertRaises(kmod.KmodError, kmod.point_include_at, mk, "/r")


class Build(unittest.TestCase):
    def test_rebuilds_when_the_sources_change(self):
        with tempfile.TemporaryDirectory() as d:
            src = os.path.join(d, "src", "chip")
            os.makedirs(src)
            with open(os.path.join(src, "Kbuild"), "w") as f:
                f.write("obj-m := chip.o\n")
            builds = []

            def fake_make(cmd, **kw):
                work = cmd[-2].removeprefix("M=")
                builds.append(sorted(os.listdir(work)))
                open(os.path.join(work, "chip.ko"), "w").close()

            with mock.patch.object(kmod, "HW_DIR", os.path.join(d, "src")), \
                    mock.patch.object(kmod, "ensure_headers", return_value="/h"), \
                    mock.patch.object(kmod, "_run", side_effect=fake_make):
                build = os.path.join(d, "build")
                os.makedirs(os.path.join(build, "sim", "kheaders"))
                ko = kmod.build_module(build, "6.1.0-56-amd64", "chip", log=lambda m: None)
                self.assertEqual(ko, os.path.join(build, "sim", "kmod", "6.1.0-56-amd64", "chip", "chip.ko"))
                kmod.build_module(build, "6.1.0-56-amd64", "chip", log=lambda m: None)
                self.assertEqual(len(builds), 1)
                with open(os.path.join(src, "chip.c"), "w") as f:
                    f.write("/* changed */\n")
                kmod.build_module(build, "6.1.0-56-amd64", "chip", log=lambda m: None)
                self.assertEqual(builds, [["Kbuild"], ["Kbuild", "chip.c"]])
                self.assertTrue(os.path.exists(ko))

    def test_refuses_undefined_symbols(self):
        modpost = 'ERROR: modpost: "nand_ecc_sw_hamming_correct" [/w/nand.ko] undefined!\n'
        with tempfile.TemporaryDirectory() as d, \
                mock.patch.object(kmod, "ensure_headers", return_value="/h"), \
                mock.patch.object(kmod, "_run", return_value=modpost):
            os.makedirs(os.path.join(d, "sim", "kheaders"))
            with self.assertRaisesRegex(kmod.KmodError, "nand_ecc_sw_hamming_correct"):
                kmod._build(d, "6.1.0-56-arm64", "nand_raw", ["nand"], "x", os.makedirs, log=lambda m: None)
            self.assertFalse(os.path.exists(os.path.join(d, "sim", "kmod", "6.1.0-56-arm64", "nand_raw")))


if __name__ == "__main__":
    unittest.main()
