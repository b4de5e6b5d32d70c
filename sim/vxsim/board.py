"""The simulated players, one per Debian architecture: the machine qemu
emulates, the distribution kernel it boots, the user space its scenario
roots run from, and what the machine cannot show.

amd64: a "pc" machine booting the distribution's amd64 kernel; the scenario
roots are the host's own root file system, so the build's programs, the
flash tools and the shell are the host's.

arm64: the player's own architecture. A "virt" machine with a Cortex-A53
boots the distribution's arm64 kernel; the build is the cross build. The
scenario roots lay a layer of arm64 user space (the shell, coreutils,
mtd-utils, dpkg and valgrind, unpacked from the distribution's packages into
the build tree) over the host's root, which already holds the arm64
libraries the cross build links (multiarch). The machine's register space at 0x08000000 is its
interrupt controller's: with six redistributor frames the AVS block's
address lies in a reserved, read-as-zero range, so the check maps it as on
the player and reads a block of zeros whatever the scenario gives; its AVS
record is judged as that block's (adapt). Scenarios about the AVS firmware
run on amd64 only.
"""

import fcntl
import os
import re
import shutil
import subprocess
from dataclasses import dataclass, replace

from . import SIM_DIR, SimError, apt_download, run_command

ROOT_DIR = os.path.dirname(SIM_DIR)
RUN_AARCH64 = os.path.join(ROOT_DIR, "scripts", "run-aarch64")

# The arm64 user space of the scenario roots: what player.sh runs there
# (sh, env, timeout, cat, dd; flash_erase, nandwrite, nanddump; dpkg and
# systemd-sysusers, which the package's postinst runs; valgrind with the C
# library's debugging symbols, which it needs, at the installed library's
# version), with the libraries of theirs that the host does not have for
# arm64.
ARM64_USERLAND = ("dash", "coreutils", "mtd-utils", "dpkg", "tar", "valgrind", "libc6-dbg=libc6",
                  "systemd-standalone-sysusers")
ARM64_LIBRARIES = ("libacl1", "libattr1", "libgmp10", "libselinux1", "libpcre2-8-0", "libiniparser1",
                   "liblzo2-2", "libssl3", "libuuid1", "libzstd1", "zlib1g", "libmd0", "liblzma5",
                   "libbz2-1.0", "libcap2", "libcrypt1")
ARM64_BUSYBOX = "busybox-static"

# The AVS record as the check prints it from a block of zeros.
AVS_FIELDS = re.compile(r"AVS Revision=\S* V0=\S* T0=\S* PV0=\S* MV0=\S* ")
ZERO_AVS_FIELDS = "AVS Revision=0.0.0.0 V0=0.000V T0=0.000C PV0=0.000V MV0=0.000V "


def _pinned(entry):
    """An apt-get download argument: "NAME" for the arm64 candidate,
    "NAME=LIBRARY" for NAME at the installed arm64 LIBRARY's version."""
    name, _, library = entry.partition("=")
    if not library:
        return name + ":arm64"
    p = subprocess.run(["dpkg-query", "-W", "-f=${Version}", library + ":arm64"],
                       capture_output=True, text=True)
    if p.returncode != 0 or not p.stdout:
        raise SimError(f"{library}:arm64 is not installed (scripts/install-deps)")
    return f"{name}:arm64={p.stdout}"


def _installed(package):
    p = subprocess.run(["dpkg-query", "-W", "-f=${Status}", package], capture_output=True, text=True)
    return p.returncode == 0 and p.stdout.endswith("install ok installed")


@dataclass(frozen=True)
class Userland:
    """What the guest runs: busybox for its initramfs, and the directories
    (as the host sees them) that the scenario roots lay over each other,
    uppermost first; the host's root is always the last."""
    busybox: str
    layers: tuple[str, ...] = ()


@dataclass(frozen=True)
class Board:
    architecture: str
    kernel_metapackage: str
    qemu: str
    console: str

    def machine_args(self):
        if self.architecture == "amd64":
            return ["-machine", "pc"]
        # Six CPUs for six redistributor frames (see above); the guest
        # brings up one (maxcpus=1).
        return ["-machine", "virt,gic-version=3", "-cpu", "cortex-a53", "-smp", "6"]

    def kernel_args(self):
        if self.architecture == "amd64":
            # The register space of the AVS block reserved, so that /dev/mem
            # may map it (the kernel restricts /dev/mem to what is not RAM);
            # MemTotal is 35 MiB less.
            return "memmap=0x2300000$0x08000000"
        # The register space is claimed by drivers; as on the player, the
        # check may map it.
        return "maxcpus=1 iomem=relaxed"

    def qemu_command(self, memory, cmdline, kernel, rundir, layers=(), disk=None, shell=False):
        """The qemu command line of a boot; the layers of the scenario roots
        are shared read-only as layer0, layer1, ... (overlayfs takes no
        layer inside another, so they cannot come through the host's root).
        A systemd boot has its disk (the root's writable layer, /dev/vda),
        and its player names its port eth0 (no predictable names) and runs
        no login prompt on the console. With shell, a second serial port
        (ttyS1) is the terminal qemu runs on, for the guest's shell."""
        systemd = "net.ifnames=0 systemd.getty_auto=0" if disk else ""
        append = (f"console={self.console} panic=-1 quiet loglevel=4 mitigations=off "
                  f"{self.kernel_args()} {systemd} {cmdline}").strip()
        append = " ".join(append.split())
        smp = [] if "-smp" in self.machine_args() else ["-smp", "1"]
        return [self.qemu, "-nodefaults", "-no-user-config", *self.machine_args(),
                "-accel", "tcg", "-m", memory, *smp, "-display", "none", "-no-reboot",
                "-serial", "file:" + os.path.join(rundir, "console.log"), "-monitor", "none",
                "-kernel", kernel, "-initrd", os.path.join(rundir, "initramfs.cpio"),
                "-append", append,
                # The player's Ethernet port, without a network behind it.
                "-device", "vmxnet3,id=nic0",
                "-virtfs", "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap",
                "-virtfs", f"local,path={rundir},mount_tag=vxsim,security_model=none",
                *[a for i, layer in enumerate(layers) for a in (
                    "-virtfs", f"local,path={layer},mount_tag=layer{i},security_model=none,readonly=on")],
                *(["-drive", f"file={disk},if=virtio,format=raw"] if disk else []),
                *(["-chardev", "stdio,id=shell,signal=off", "-serial", "chardev:shell"] if shell else [])]

    def adapt(self, scenario):
        """The scenario as this board can play it: on arm64 the AVS block
        reads as zeros, so its AVS record is that block's."""
        if self.architecture == "amd64":
            return scenario
        e = scenario.expect

        def lines(texts):
            return None if texts is None else [AVS_FIELDS.sub(ZERO_AVS_FIELDS, t) for t in texts]
        expect = replace(e, stdout=lines(e.stdout), stderr=lines(e.stderr), kmsg=lines(e.kmsg))
        return replace(scenario, expect=expect)

    def host_program(self, path, rundir):
        """A command word that runs one of the build's programs on the host
        (to make a scenario's images): the program itself, or for arm64 a
        script in the run directory that runs it under user-mode QEMU."""
        if self.architecture == "amd64":
            return path
        wrapper = os.path.join(rundir, "host-" + os.path.basename(path))
        with open(wrapper, "w") as f:
            f.write(f'#!/bin/sh\nexec "{RUN_AARCH64}" "{path}" "$@"\n')
        os.chmod(wrapper, 0o755)
        return wrapper

    def userland(self, build_dir, log=print):
        if self.architecture == "amd64":
            return Userland(busybox="/bin/busybox")
        return _arm64_userland(build_dir, log)


BOARDS = {
    "amd64": Board("amd64", "linux-image-amd64", "qemu-system-x86_64", "ttyS0"),
    "arm64": Board("arm64", "linux-image-arm64", "qemu-system-aarch64", "ttyAMA0"),
}


def board(architecture):
    try:
        return BOARDS[architecture]
    except KeyError:
        raise SimError(f"no simulated player for {architecture}; there are {', '.join(BOARDS)}") from None


def _arm64_userland(build_dir, log):
    """Downloads the arm64 packages once and unpacks them below
    BUILD/sim/arm64: busybox for the initramfs, and the layer of the
    scenario roots (only libraries the host lacks for arm64, so that the
    layer never hides one the cross build links)."""
    top = os.path.join(build_dir, "sim", "arm64")
    debs, layer = os.path.join(top, "debs"), os.path.join(top, "layer")
    busybox = os.path.join(top, "busybox", "bin", "busybox")
    wanted = [_pinned(p) for p in ARM64_USERLAND] + [p + ":arm64" for p in ARM64_LIBRARIES
                                                       if not _installed(p + ":arm64")]
    os.makedirs(debs, exist_ok=True)
    with open(os.path.join(top, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        ready = os.path.join(top, "ready")
        key = " ".join([ARM64_BUSYBOX + ":arm64"] + wanted)
        if os.path.exists(ready) and open(ready).read() == key:
            return Userland(busybox=busybox, layers=(layer,))
        log(f"vxsim: fetching the arm64 user space ({key}) into {top}")
        for name in os.listdir(debs):
            os.unlink(os.path.join(debs, name))
        apt_download([ARM64_BUSYBOX + ":arm64"] + wanted, debs)
        for d in (layer, os.path.dirname(os.path.dirname(busybox))):
            shutil.rmtree(d, ignore_errors=True)
        for deb in sorted(os.listdir(debs)):
            is_busybox = deb.startswith(ARM64_BUSYBOX + "_")
            target = os.path.dirname(os.path.dirname(busybox)) if is_busybox else layer
            run_command(["dpkg-deb", "-x", os.path.join(debs, deb), target])
        _merge_usr(layer)
        if not os.access(busybox, os.X_OK):
            raise SimError(f"{ARM64_BUSYBOX}:arm64 holds no bin/busybox")
        with open(ready, "w") as f:
            f.write(key)
    return Userland(busybox=busybox, layers=(layer,))


def _merge_usr(layer):
    """The layer as the host lays out its root (merged /usr): bin, sbin and
    lib of the packages go below usr, where the host's /bin, /sbin and /lib
    links lead; everything but programs and libraries (documentation,
    configuration) goes, so that it hides nothing of the host's."""
    usr = os.path.join(layer, "usr")
    for entry in os.listdir(layer):
        path = os.path.join(layer, entry)
        if entry in ("bin", "sbin", "lib"):
            shutil.copytree(path, os.path.join(usr, entry), symlinks=True, dirs_exist_ok=True)
        if entry != "usr":
            shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) else os.unlink(path)
    for entry in os.listdir(usr):
        if entry not in ("bin", "sbin", "lib", "libexec"):
            shutil.rmtree(os.path.join(usr, entry))
