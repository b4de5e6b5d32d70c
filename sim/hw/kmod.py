#!/usr/bin/env python3
"""Builds the simulated player's kernel modules (sim/hw/*/Kbuild) against the
headers of the distribution kernel that the guest boots.

    kmod.py [--build-dir DIR] [--kernel PACKAGE] [MODULE]

Prints the path of the built module (default: gpio_chip, vxgpio.ko). The
header packages are fetched with apt-get and unpacked below
DIR/sim/kheaders/RELEASE once per kernel release; a module is rebuilt below
DIR/sim/kmod/RELEASE/MODULE when its sources change. Nothing is installed on
the host. Python 3.11 standard library only.
"""

import argparse
import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import sys
import tempfile

HW_DIR = os.path.dirname(os.path.abspath(__file__))
KERNEL_METAPACKAGE = "linux-image-amd64"


class KmodError(Exception):
    """The headers could not be had or the module did not build."""


def _run(cmd, **kw):
    p = subprocess.run(cmd, capture_output=True, text=True, **kw)
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


def header_packages(release):
    """The packages a module build needs: the flavour's headers, the common
    headers and the kernel's build tools."""
    abi, series = re.fullmatch(r"((\d+\.\d+)\.\d+-\d+)-.+", release).group(1, 2)
    return [f"linux-headers-{release}", f"linux-headers-{abi}-common", f"linux-kbuild-{series}"]


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
        version = re.search(r"^Version:\s*(\S+)", _run(["apt-cache", "show", packages[0]]), re.M)
        if not version:
            raise KmodError(f"apt-cache knows no {packages[0]}")
        wanted = [f"{p}={version.group(1)}" for p in packages]
        if len(os.listdir(debs)) < len(packages):
            log(f"kmod: fetching {' '.join(wanted)}")
            cmd = ["apt-get", "download"] + wanted
            if os.geteuid() == 0:
                cmd[1:1] = ["-o", "APT::Sandbox::User=root"]
            _run(cmd, cwd=debs)
        root = os.path.join(kdir, "root")
        shutil.rmtree(root, ignore_errors=True)
        for deb in sorted(os.listdir(debs)):
            _run(["dpkg-deb", "-x", os.path.join(debs, deb), root])
        point_include_at(os.path.join(headers, "Makefile"), root)
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


def build_module(build_dir, kernel, module="gpio_chip", log=print):
    """Builds sim/hw/MODULE for the kernel (image package or release);
    returns the path of the .ko. Kbuild writes next to the sources, so they
    are copied into the build tree first."""
    build_dir = os.path.abspath(build_dir)
    release = kernel_release(kernel)
    src = os.path.join(HW_DIR, module)
    if not os.path.isfile(os.path.join(src, "Kbuild")):
        raise KmodError(f"{src} has no Kbuild file")
    headers = ensure_headers(build_dir, release, log)
    out = os.path.join(build_dir, "sim", "kmod", release, module)
    digest = _sources_digest(src)
    stamp = os.path.join(out, ".sources")
    with open(os.path.join(build_dir, "sim", "kheaders", "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        names = re.findall(r"obj-m\s*[:+]?=\s*(\S+)\.o", _read(os.path.join(src, "Kbuild")))
        kos = [os.path.join(out, n + ".ko") for n in names]
        if not kos:
            raise KmodError(f"{src}/Kbuild names no module (obj-m)")
        if os.path.exists(stamp) and _read(stamp) == digest and all(map(os.path.exists, kos)):
            return kos[0]
        os.makedirs(os.path.dirname(out), exist_ok=True)
        with tempfile.TemporaryDirectory(dir=os.path.dirname(out)) as tmp:
            work = os.path.join(tmp, module)
            shutil.copytree(src, work)
            log(f"kmod: building {module} for {release}")
            _run(["make", "-s", "-C", headers, f"M={work}", "modules"])
            shutil.rmtree(out, ignore_errors=True)
            os.rename(work, out)
        with open(stamp, "w") as f:
            f.write(digest)
        return kos[0]


def main(argv=None):
    ap = argparse.ArgumentParser(prog="kmod.py", description=__doc__.split("\n\n")[0])
    ap.add_argument("module", nargs="?", default="gpio_chip", help="a folder of sim/hw with a Kbuild file")
    ap.add_argument("--build-dir", default="build")
    ap.add_argument("--kernel", help="kernel image package or release (default: what "
                    f"{KERNEL_METAPACKAGE} depends on)")
    args = ap.parse_args(argv)
    try:
        kernel = args.kernel or resolve_kernel()
        print(build_module(args.build_dir, kernel, args.module,
                           log=lambda m: print(m, file=sys.stderr, flush=True)))
        return 0
    except KmodError as e:
        print(f"kmod: {e}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
