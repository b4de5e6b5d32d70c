"""The guest's initramfs: an uncompressed newc archive holding a static
busybox of the guest's architecture, the guest scripts, the kernel modules
and /dev/console."""

import os

from . import GUEST_DIR

# The guest's own files (from sim/guest), in the archive's top directory.
GUEST_FILES = [("init", 0o755), ("player.sh", 0o644)]


def cpio_newc(entries):
    """An uncompressed newc archive of (path, mode, data, rdev) entries; data
    is the file's bytes or a symlink's target."""
    out = bytearray()

    def add(ino, name, mode, data, rdev=(0, 0)):
        name_b = name.encode() + b"\0"
        fields = [ino, mode, 0, 0, 1, 0, len(data), 0, 0, rdev[0], rdev[1], len(name_b), 0]
        out.extend(b"070701" + b"".join(b"%08X" % v for v in fields) + name_b)
        out.extend(b"\0" * (-len(out) % 4) + data)
        out.extend(b"\0" * (-len(out) % 4))
    for i, (path, mode, data, rdev) in enumerate(entries, start=1):
        add(i, path, mode, data, rdev)
    add(0, "TRAILER!!!", 0, b"")
    return bytes(out)


def build_initramfs(moddir, path, busybox):
    """Writes the archive for a boot: busybox (a static one, from its path
    on the host), the guest scripts at the top, the modules and their load
    order under modules/."""
    def read(p):
        with open(p, "rb") as f:
            return f.read()
    entries = [(d, 0o40755, b"", (0, 0)) for d in ("bin", "dev", "modules")]
    entries.append(("dev/console", 0o20600, b"", (5, 1)))
    entries.append(("bin/busybox", 0o100755, read(busybox), (0, 0)))
    for name, mode in GUEST_FILES:
        entries.append((name, 0o100000 | mode, read(os.path.join(GUEST_DIR, name)), (0, 0)))
    for fn in sorted(os.listdir(moddir)):
        entries.append(("modules/" + fn, 0o100644, read(os.path.join(moddir, fn)), (0, 0)))
    with open(path, "wb") as f:
        f.write(cpio_newc(entries))
