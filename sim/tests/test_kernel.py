import gzip
import lzma
import subprocess
import unittest

from vxsim import SimError
from vxsim.initramfs import cpio_newc
from vxsim.kernel import extract_vmlinux, module_load_order


class KernelTest(unittest.TestCase):
    ELF = b"\x7fELF" + bytes(range(256)) * 64

    def test_the_kernel_is_found_behind_its_compression_magic(self):
        xz = lzma.compress(self.ELF, format=lzma.FORMAT_XZ)
        gz = gzip.compress(self.ELF)
        for payload in (xz, gz):
            # a false magic in front of the payload must not stop the search
            image = b"MZ" + b"\xfd7zXZ\x00junk\x1f\x8b\x08junk" + payload + b"trailer" * 10
            self.assertEqual(extract_vmlinux(image), self.ELF)
        with self.assertRaisesRegex(SimError, "no compressed ELF kernel"):
            extract_vmlinux(b"MZ" + lzma.compress(b"not an ELF", format=lzma.FORMAT_XZ))

    def test_modules_load_after_their_dependencies(self):
        deps = {"nandsim": ["nand", "mtd"], "nand": ["nandcore", "bch"], "nandcore": ["mtd"],
                "mtd": [], "bch": [], "dummy": []}
        order = module_load_order(["nandsim", "dummy"], deps.__getitem__)
        self.assertEqual(order, ["mtd", "nandcore", "bch", "nand", "nandsim", "dummy"])
        with self.assertRaisesRegex(SimError, "loop through a"):
            module_load_order(["a"], {"a": ["b"], "b": ["a"]}.__getitem__)

    def test_initramfs_archive_reads_back_with_cpio(self):
        archive = cpio_newc([("bin", 0o40755, b"", (0, 0)), ("dev/console", 0o20600, b"", (5, 1)),
                             ("init", 0o100755, b"#!/bin/sh\n", (0, 0))])
        listing = subprocess.run(["cpio", "-itv", "--quiet"], input=archive, capture_output=True,
                                 check=True).stdout.decode().splitlines()
        self.assertEqual([line.split()[0] for line in listing], ["drwxr-xr-x", "crw-------", "-rwxr-xr-x"])
        self.assertEqual([line.split()[-1] for line in listing], ["bin", "dev/console", "init"])
        self.assertIn("5,", listing[1])
        self.assertEqual(listing[2].split()[4], "10")


if __name__ == "__main__":
    unittest.main()
