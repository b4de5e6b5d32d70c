#!/usr/bin/env python3
"""Builds the simulated player's kernel modules (sim/hw/*/Kbuild) against the
headers of the distribution kernel that the guest boots.

    kmod.py [--build-dir DIR] [--kernel PACKAGE] [MODULE | nand]

Prints the path of the built module (default: gpio_chip, vxgpio.ko). The
header packages are fetched with apt-get and unpacked below
DIR/sim/kheaders/RELEASE once per kernel release; a module is rebuilt below
DIR/sim/kmod/RELEASE/MODULE when its sources change. A kernel of another
architecture than the host's (arm64 on amd64) is built for with the cross
compiler. "nand" builds the raw NAND core and nandsim, which the arm64
kernel leaves out, from the kernel's own sources (the linux-source package,
unpacked below DIR/sim/ksource/RELEASE) and prints both paths. Nothing is
installed on the host. Python 3.11 standard library only.
"""

import argparse
import fcntl
import hashlib
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile

HW_DIR = os.path.dirname(os.path.abspath(__file__))
KERNEL_METAPACKAGE = "linux-image-amd64"
# Kernels of another architecture than the host's are built for with the
# cross toolchain: Debian architecture -> (kernel ARCH, CROSS_COMPILE).
CROSS = {"amd64": ("x86", "x86_64-linux-gnu-"), "arm64": ("arm64", "aarch64-linux-gnu-")}
HOST_ARCH = {"x86_64": "amd64", "aarch64": "arm64"}.get(platform.machine(), platform.machine())
# The raw NAND core and the NAND simulator, built from the kernel's sources.
NAND_MODULE = "nand_raw"
NAND_KOS = ["nand", "nandsim"]
# What they may depend on: the MTD core, the NAND core and, for nandsim, nand.
NAND_DEPENDS = {"mtd", "nandcore", "nand"}


class KmodError(Exception):
    """The headers could not be had or the module did not build."""


def _run(cmd, **kw):
    """Runs cmd; returns its output (with stderr=subprocess.STDOUT, both)."""
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=kw.pop("stderr", subprocess.PIPE),
                       text=True, **kw)
    if p.returncode != 0:
        raise KmodError(f"{' '.join(cmd)} failed ({p.returncode}): {(p.stderr or p.stdout).strip()}")
    return p.stdout


def _read(path):
    with open(path) as f:
        return f.read()


def kernel_release(kernel):
    """The release ("6.1.0-56-amd64") of a kernel named by its image package
    ("linux-image-6.1.0-56-amd64") or by its release."""
    m = re.fullmatch(r"(?:linux-image-)?(\d+\.\d+\.\d+-\d+-[a-z0-9]+(?:-[a-z0-9]+)*?)(?:-unsigned)?",
                     kernel)
    if not m:
        raise KmodError(f"not a kernel image package or release: {kernel!r}")
    return m.group(1)


def _abi_series(release):
    return re.fullmatch(r"((\d+\.\d+)\.\d+-\d+)-.+", release).group(1, 2)


def header_packages(release):
    """The packages a module build needs: the flavour's headers, the common
    headers and the kernel's build tools (the host's own: they run here)."""
    abi, series = _abi_series(release)
    return [f"linux-headers-{release}", f"linux-headers-{abi}-common", f"linux-kbuild-{series}"]


def kernel_arch(release):
    """The Debian architecture of a kernel release: its flavour's last part
    ("6.1.0-56-cloud-amd64" -> "amd64")."""
    return release.rsplit("-", 1)[1]


def make_args(release, host=None):
    """The make variables that select the compiler for the release: none
    for the host's own architecture, the cross toolchain for another."""
    arch = kernel_arch(release)
    if arch == (host or HOST_ARCH) or arch not in CROSS:
        return []
    karch, prefix = CROSS[arch]
    return [f"ARCH={karch}", f"CROSS_COMPILE={prefix}"]


def package_version(package):
    """The version apt would fetch of a package (the first apt-cache lists)."""
    p = subprocess.run(["apt-cache", "show", package], capture_output=True, text=True)
    m = re.search(r"^Version:\s*(\S+)", p.stdout, re.M) if p.returncode == 0 else None
    if not m:
        raise KmodError(f"apt-cache knows no {package}")
    return m.group(1)


def _apt_download(wanted, cwd, log):
    log(f"kmod: fetching {' '.join(wanted)}")
    cmd = ["apt-get", "download"] + wanted
    if os.geteuid() == 0:
        cmd[1:1] = ["-o", "APT::Sandbox::User=root"]
    _run(cmd, cwd=cwd)


def resolve_kernel():
    """The release of the kernel image the metapackage depends on."""
    out = _run(["apt-cache", "depends", KERNEL_METAPACKAGE])
    m = re.search(r"^\s*\|?Depends:\s*(linux-image-\d\S*)$", out, re.M)
    if not m:
        raise KmodError(f"apt-cache names no kernel image behind {KERNEL_METAPACKAGE}")
    return kernel_release(m.group(1))


def point_include_at(makefile, root):
    """Rewrites the flavour Makefile's include of the common headers'
    Makefile (an absolute /usr/src path) to the copy unpacked below root."""
    text = _read(makefile)
    new, n = re.subn(r"^include /usr/src/", f"include {root}/usr/src/", text, flags=re.M)
    if n == 0 and f"include {root}/usr/src/" not in text:
        raise KmodError(f"{makefile} includes nothing below /usr/src")
    with open(makefile, "w") as f:
        f.write(new)


def ensure_headers(build_dir, release, log=print):
    """Fetches and unpacks the header packages of the release (once, under
    a lock); returns the directory to build modules against."""
    cache = os.path.join(build_dir, "sim", "kheaders")
    kdir = os.path.join(cache, release)
    headers = os.path.join(kdir, "root", "usr", "src", f"linux-headers-{release}")
    os.makedirs(kdir, exist_ok=True)
    with open(os.path.join(cache, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        ready = os.path.join(kdir, "ready")
        if os.path.exists(ready):
            return headers
        packages = header_packages(release)
        debs = os.path.join(kdir, "debs")
        os.makedirs(debs, exist_ok=True)
        # The three must be of one version: the kernel build tools are in
        # the archive in several versions at once.
        version = package_version(packages[0])
        wanted = [f"{p}={version}" for p in packages]
        if len(os.listdir(debs)) < len(packages):
            _apt_download(wanted, debs, log)
        root = os.path.join(kdir, "root")
        shutil.rmtree(root, ignore_errors=True)
        for deb in sorted(os.listdir(debs)):
            _run(["dpkg-deb", "-x", os.path.join(debs, deb), root])
        point_include_at(os.path.join(headers, "Makefile"), root)
        for link in ("scripts", "tools"):  # the host's build tools, in the tree
            target = os.path.realpath(os.path.join(headers, link))
            if not (target.startswith(root + os.sep) and os.path.isdir(target)):
                raise KmodError(f"{headers}/{link} leads to {target}, not into the unpacked headers")
        with open(ready, "w") as f:
            f.write(" ".join(wanted) + "\n")
        for other in os.listdir(cache):  # headers of earlier releases
            if other not in (release, "lock"):
                shutil.rmtree(os.path.join(cache, other), ignore_errors=True)
        return headers


def _sources_digest(src):
    h = hashlib.sha256()
    for name in sorted(os.listdir(src)):
        if not os.path.isfile(os.path.join(src, name)):
            continue
        with open(os.path.join(src, name), "rb") as f:
            h.update(name.encode() + b"\0" + f.read() + b"\0")
    return h.hexdigest()


def _build(build_dir, release, module, names, digest, populate, log):
    """Builds the modules names (without .ko) of BUILD/sim/kmod/RELEASE/MODULE
    unless the stamp there matches digest; populate(dir) puts the Kbuild and
    sources into the directory to build in. Returns the .ko paths."""
    headers = ensure_headers(build_dir, release, log)
    out = os.path.join(build_dir, "sim", "kmod", release, module)
    kos = [os.path.join(out, n + ".ko") for n in names]
    stamp = os.path.join(out, ".sources")
    with open(os.path.join(build_dir, "sim", "kheaders", "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if os.path.exists(stamp) and _read(stamp) == digest and all(map(os.path.exists, kos)):
            return kos
        os.makedirs(os.path.dirname(out), exist_ok=True)
        with tempfile.TemporaryDirectory(dir=os.path.dirname(out)) as tmp:
            work = os.path.join(tmp, module)
            populate(work)
            log(f"kmod: building {module} for {release}")
            output = _run(["make", "-s", *make_args(release), "-C", headers, f"M={work}", "modules"],
                          stderr=subprocess.STDOUT) or ""
            undefined = re.findall(r'"(\S+)" \[\S+\] undefined', output)
            if undefined:
                raise KmodError(f"{module}: symbols the kernel does not export: {' '.join(undefined)}")
            shutil.rmtree(out, ignore_errors=True)
            os.rename(work, out)
        with open(stamp, "w") as f:
            f.write(digest)
        return kos


def build_module(build_dir, kernel, module="gpio_chip", log=print):
    """Builds sim/hw/MODULE for the kernel (image package or release);
    returns the path of the .ko. Kbuild writes next to the sources, so they
    are copied into the build tree first."""
    build_dir = os.path.abspath(build_dir)
    release = kernel_release(kernel)
    src = os.path.join(HW_DIR, module)
    if not os.path.isfile(os.path.join(src, "Kbuild")):
        raise KmodError(f"{src} has no Kbuild file")
    names = re.findall(r"obj-m\s*[:+]?=\s*(\S+)\.o", _read(os.path.join(src, "Kbuild")))
    if not names:
        raise KmodError(f"{src}/Kbuild names no module (obj-m)")
    return _build(build_dir, release, module, names, _sources_digest(src),
                  lambda work: shutil.copytree(src, work), log)[0]


def nand_objects(makefile):
    """The objects the kernel's drivers/mtd/nand/raw/Makefile (its text)
    makes nand.o of, in order."""
    objs = []
    for op, value in re.findall(r"^nand-(?:objs|y)\s*(:=|\+=|=)(.*)$", makefile, re.M):
        if op != "+=":
            objs = []
        objs += value.split()
    if not objs or not all(o.endswith(".o") for o in objs):
        raise KmodError(f"the raw NAND Makefile composes nand.o of {objs or 'nothing'}")
    return objs


def module_depends(ko):
    """The depends= of a module's .modinfo (the bytes of the .ko)."""
    m = re.search(rb"(?:^|\0)depends=([^\0]*)\0", ko)
    return [d.decode() for d in m.group(1).split(b",") if d] if m else []


def ensure_source(build_dir, release, log=print):
    """Fetches the kernel's sources (linux-source-SERIES at the version of
    the release's image package) and keeps the raw NAND sources from them
    (once per release, under a lock); returns (tree, version)."""
    series = _abi_series(release)[1]
    package = f"linux-source-{series}"
    cache = os.path.join(build_dir, "sim", "ksource")
    kdir = os.path.join(cache, release)
    tree = os.path.join(kdir, "tree")
    ready = os.path.join(kdir, "ready")
    try:
        version = package_version(f"linux-image-{release}")
    except KmodError:
        if not os.path.exists(ready):
            raise
        version = _read(ready).strip().split("=", 1)[1]  # no apt lists: the cached sources serve
    wanted = f"{package}={version}"
    os.makedirs(kdir, exist_ok=True)
    with open(os.path.join(cache, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if os.path.exists(ready) and _read(ready) == wanted + "\n":
            return tree, version
        shown = subprocess.run(["apt-cache", "show", wanted], capture_output=True, text=True).stdout
        if not re.search(rf"^Version: {re.escape(version)}$", shown, re.M):
            raise KmodError(f"apt knows no {wanted}: the sources of linux-image-{release} {version} "
                            "cannot be had (apt-get update, or the archive has dropped that version)")
        debs = os.path.join(kdir, "debs")
        deb = [f for f in os.listdir(debs) if f.startswith(f"{package}_{version}_")] \
            if os.path.isdir(debs) else []
        if not deb:
            shutil.rmtree(debs, ignore_errors=True)
            os.makedirs(debs)
            _apt_download([wanted], debs, log)
            deb = os.listdir(debs)
        shutil.rmtree(tree, ignore_errors=True)
        os.makedirs(tree)
        with tempfile.TemporaryDirectory(dir=kdir) as tmp:
            _run(["dpkg-deb", "-x", os.path.join(debs, deb[0]), tmp])
            top = f"linux-source-{series}"
            _run(["tar", "-xJf", os.path.join(tmp, "usr", "src", top + ".tar.xz"), "-C", tree,
                  "--strip-components=1", "--wildcards", "--no-wildcards-match-slash",
                  f"{top}/drivers/mtd/nand/raw/*.[ch]", f"{top}/drivers/mtd/nand/raw/Makefile",
                  f"{top}/drivers/mtd/nand/ecc-sw-hamming.c"])
        with open(ready, "w") as f:
            f.write(wanted + "\n")
        for other in os.listdir(cache):  # sources of earlier releases
            if other not in (release, "lock"):
                shutil.rmtree(os.path.join(cache, other), ignore_errors=True)
        return tree, version


def build_nand(build_dir, kernel, log=print):
    """Builds the raw NAND core (nand.ko, with the software Hamming ECC in
    it) and nandsim.ko from the kernel's own sources, for a kernel whose
    configuration leaves them out (arm64); returns the two .ko paths."""
    build_dir = os.path.abspath(build_dir)
    release = kernel_release(kernel)
    if kernel_arch(release) == "amd64":
        raise KmodError(f"{release} ships nandsim and the raw NAND core itself; nothing to build")
    src = os.path.join(HW_DIR, NAND_MODULE)
    tree, version = ensure_source(build_dir, release, log)
    raw = os.path.join(tree, "drivers", "mtd", "nand", "raw")
    objs = nand_objects(_read(os.path.join(raw, "Makefile")))

    def populate(work):
        os.makedirs(work)
        shutil.copy(os.path.join(src, "Kbuild"), work)
        files = [os.path.join(raw, o[:-2] + ".c") for o in objs + ["nandsim.o"]]
        files += [os.path.join(raw, f) for f in os.listdir(raw) if f.endswith(".h")]
        files.append(os.path.join(tree, "drivers", "mtd", "nand", "ecc-sw-hamming.c"))
        for f in files:
            shutil.copy(f, work)
        with open(os.path.join(work, "nand-objs.mk"), "w") as f:
            f.write(f"# drivers/mtd/nand/raw/Makefile of linux-source {version}\n"
                    f"nand-objs := {' '.join(objs)}\n")

    digest = hashlib.sha256(f"{_sources_digest(src)} {version}".encode()).hexdigest()
    kos = _build(build_dir, release, NAND_MODULE, NAND_KOS, digest, populate, log)
    for ko in kos:
        with open(ko, "rb") as f:
            extra = set(module_depends(f.read())) - NAND_DEPENDS
        if extra:
            raise KmodError(f"{ko} depends on {', '.join(sorted(extra))}, which the guest does not load")
    return kos


def main(argv=None):
    ap = argparse.ArgumentParser(prog="kmod.py", description=__doc__.split("\n\n")[0])
    ap.add_argument("module", nargs="?", default="gpio_chip",
                    help="a folder of sim/hw with a Kbuild file, or nand: nand.ko and nandsim.ko "
                    "from the kernel's sources")
    ap.add_argument("--build-dir", default="build")
    ap.add_argument("--kernel", help="kernel image package or release (default: what "
                    f"{KERNEL_METAPACKAGE} depends on)")
    args = ap.parse_args(argv)
    try:
        kernel = args.kernel or resolve_kernel()
        log = lambda m: print(m, file=sys.stderr, flush=True)  # noqa: E731
        if args.module in ("nand", NAND_MODULE):
            print("\n".join(build_nand(args.build_dir, kernel, log)))
        else:
            print(build_module(args.build_dir, kernel, args.module, log))
        return 0
    except KmodError as e:
        print(f"kmod: {e}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
