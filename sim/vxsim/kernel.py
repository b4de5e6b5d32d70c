"""The guest's kernel: the distribution's own image package for the board's
architecture, fetched with apt into the build tree once per kernel release,
and the modules the guest loads, with everything they depend on; and the
GPIO chip's module, built for that kernel by sim/hw/kmod.py. The arm64
kernel has no raw NAND stack: kmod.py builds it and nandsim from the
distribution's kernel source."""

import fcntl
import gzip
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile
import zlib

from . import SIM_DIR, SimError, apt_download, run_command
from .board import BOARDS

sys.path.insert(0, os.path.join(SIM_DIR, "hw"))
import kmod  # noqa: E402  (sim/hw/kmod.py)

# Modules the guest loads, with everything they depend on: virtio and 9p for
# the shares, overlayfs for the scenario roots, the NAND simulator, the
# Ethernet NIC's driver (vmxnet3 takes any address, even the invalid ones
# the player must refuse), CUSE for the GPIO event device, and the virtual
# disk with ext4 for the root of a systemd boot.
MODULE_ROOTS = ["virtio_pci", "9pnet_virtio", "9p", "overlay", "nandsim", "vmxnet3", "cuse",
                "virtio_blk", "crc32c_generic", "ext4"]
# The simulated hardware's modules (sim/hw), next to them but out of the
# load order: the guest loads them per scenario. By folder: the GPIO chip,
# and the board's identity and partition names for a systemd boot, whose
# /proc is the kernel's.
HW_MODULES = {"gpio_chip": "vxgpio.ko", "board": "vxboard.ko"}


def resolve_kernel_package(metapackage):
    """The versioned kernel image package the metapackage depends on (the
    architecture qualifier apt adds for a foreign one left out)."""
    out = run_command(["apt-cache", "depends", metapackage])
    m = re.search(r"^\s*\|?Depends:\s*(linux-image-\d[^\s:]*)(:[a-z0-9]+)?$", out, re.M)
    if not m:
        raise SimError(f"apt-cache names no kernel image behind {metapackage}")
    return m.group(1)


def extract_vmlinux(data):
    """The uncompressed kernel ELF inside a bzImage: finds the payload by the
    magic of its compression and decompresses it."""
    def unxz(b):
        return lzma.LZMADecompressor(format=lzma.FORMAT_XZ).decompress(b)

    def unzstd(b):
        p = subprocess.run(["zstd", "-dcq"], input=b, capture_output=True)
        return p.stdout  # trailing data after the frame makes zstd complain

    def ungzip(b):
        return zlib.decompressobj(16 + zlib.MAX_WBITS).decompress(b)

    for magic, decompress in ((b"\xfd7zXZ\x00", unxz), (b"\x28\xb5\x2f\xfd", unzstd),
                              (b"\x1f\x8b\x08", ungzip)):
        pos = data.find(magic)
        while pos >= 0:
            try:
                out = decompress(data[pos:])
            except (lzma.LZMAError, zlib.error, OSError, EOFError):
                out = b""
            if out[:4] == b"\x7fELF":
                return out
            pos = data.find(magic, pos + 1)
    raise SimError("no compressed ELF kernel found in vmlinuz")


def _module_name(filename):
    m = re.fullmatch(r"(.+)\.ko(\.xz|\.zst|\.gz)?", filename)
    return m.group(1).replace("-", "_") if m else None


def _read_module(path):
    with open(path, "rb") as f:
        data = f.read()
    if path.endswith(".xz"):
        return lzma.decompress(data)
    if path.endswith(".gz"):
        return gzip.decompress(data)
    if path.endswith(".zst"):
        return subprocess.run(["zstd", "-dcq"], input=data, capture_output=True, check=True).stdout
    return data


def module_load_order(roots, depends):
    """Roots and their dependencies, each after everything it depends on;
    depends(name) lists a module's direct dependencies."""
    order = []

    def visit(n, path):
        if n in path:
            raise SimError(f"module dependency loop through {n}")
        if n in order:
            return
        for d in depends(n):
            visit(d, path + [n])
        order.append(n)
    for r in roots:
        visit(r, [])
    return order


def _install_modules(tree, dest, extra=()):
    """The roots and their dependencies from the package's module tree and
    the extra module files, into dest with their load order."""
    paths = {}
    for dirpath, _, filenames in os.walk(tree):
        for fn in filenames:
            n = _module_name(fn)
            if n:
                paths[n] = os.path.join(dirpath, fn)
    paths.update((_module_name(os.path.basename(p)), p) for p in extra)
    blobs = {}

    def depends(n):
        if n not in paths:
            raise SimError(f"the kernel package has no module {n}")
        if n not in blobs:
            blobs[n] = _read_module(paths[n])
        m = re.search(rb"(?:^|\0)depends=([^\0]*)\0", blobs[n])
        return [d.decode().replace("-", "_") for d in m.group(1).split(b",") if d] if m else []

    order = module_load_order(MODULE_ROOTS, depends)
    os.makedirs(dest, exist_ok=True)
    for n in order:
        with open(os.path.join(dest, n + ".ko"), "wb") as f:
            f.write(blobs[n])
    with open(os.path.join(dest, "order"), "w") as f:
        f.write("\n".join(order) + "\n")


def ensure_kernel(build_dir, log=print, board=BOARDS["amd64"]):
    """Fetches and unpacks the board's distribution kernel into the build
    directory (once per kernel release) and puts the GPIO chip's module,
    built for it, next to its modules; returns (kernel image path, module
    directory). Without apt lists the newest cached kernel serves."""
    arm64 = board.architecture == "arm64"
    cache = os.path.join(build_dir, "sim", "kernel-arm64" if arm64 else "kernel")
    os.makedirs(cache, exist_ok=True)
    with open(os.path.join(cache, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        try:
            package = resolve_kernel_package(board.kernel_metapackage)
        except (SimError, OSError) as e:
            cached = sorted(d for d in os.listdir(cache) if os.path.isfile(os.path.join(cache, d, "ready")))
            if not cached:
                raise SimError(f"cannot resolve the kernel package ({e}); run scripts/install-deps") from e
            package = cached[-1]
            log(f"vxsim: {e}; using the cached {package}")
        kdir = os.path.join(cache, package)
        # amd64: the ELF inside the bzImage; arm64: the Image as it is.
        vmlinux = os.path.join(kdir, "Image" if arm64 else "vmlinux")
        moddir = os.path.join(kdir, "modules")
        ready = os.path.join(kdir, "ready")
        if not (os.path.exists(ready) and open(ready).read() == " ".join(MODULE_ROOTS)):
            log(f"vxsim: fetching {package} into {kdir}")
            extra = _build_nand(build_dir, package, log) if arm64 else ()
            _unpack(package, kdir, vmlinux, moddir, extra)
            with open(ready, "w") as f:
                f.write(" ".join(MODULE_ROOTS))
            for other in os.listdir(cache):   # kernels of earlier releases
                if other != package and other.startswith("linux-image-"):
                    shutil.rmtree(os.path.join(cache, other), ignore_errors=True)
        for folder, name in HW_MODULES.items():
            _install_hw_module(build_dir, package, moddir, folder, name, log)
        return vmlinux, moddir


def _install_hw_module(build_dir, package, moddir, folder, name, log):
    """Builds a module of the simulated hardware for the kernel (kmod
    rebuilds it only when its sources change) and copies it next to the
    kernel's modules."""
    try:
        ko = kmod.build_module(build_dir, package, folder, log=log)
    except kmod.KmodError as e:
        raise SimError(f"the module {name}: {e}") from e
    with open(ko, "rb") as f:
        data = f.read()
    target = os.path.join(moddir, name)
    if not os.path.exists(target) or open(target, "rb").read() != data:
        with open(target + ".tmp", "wb") as f:
            f.write(data)
        os.replace(target + ".tmp", target)


def _build_nand(build_dir, package, log):
    """The raw NAND stack and nandsim, built for the kernel."""
    try:
        return kmod.build_nand(build_dir, package, log=log)
    except kmod.KmodError as e:
        raise SimError(f"the NAND simulator's modules: {e}") from e


def _unpack(package, kdir, vmlinux, moddir, extra=()):
    """Downloads the package into kdir (unless it is there) and keeps the
    kernel and the modules from it (with the extra module files)."""
    os.makedirs(kdir, exist_ok=True)
    debs = [f for f in os.listdir(kdir) if f.endswith(".deb")]
    if not debs:
        apt_download([package], kdir)
        debs = [f for f in os.listdir(kdir) if f.endswith(".deb")]
    with tempfile.TemporaryDirectory(dir=kdir) as tree:
        run_command(["dpkg-deb", "-x", os.path.join(kdir, debs[0]), tree])
        vmlinuz = [f for f in os.listdir(os.path.join(tree, "boot")) if f.startswith("vmlinuz")]
        if not vmlinuz:
            raise SimError(f"{package} holds no vmlinuz")
        with open(os.path.join(tree, "boot", vmlinuz[0]), "rb") as f:
            image = f.read()
        if os.path.basename(vmlinux) == "vmlinux":
            image = extract_vmlinux(image)
        with open(vmlinux + ".tmp", "wb") as f:
            f.write(image)
        os.replace(vmlinux + ".tmp", vmlinux)
        shutil.rmtree(moddir, ignore_errors=True)
        _install_modules(os.path.join(tree, "lib", "modules"), moddir, extra)
