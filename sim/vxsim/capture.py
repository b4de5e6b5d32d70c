"""A player built from a capture ("vxtool capture", tools/vxtool/capture.h),
and the round trip that proves it: a scenario's player captured inside the
guest by vxtool, replayed in a fresh guest, must print the same report,
end with the same status and blink the same LED pattern.

A capture becomes a Scenario: the chip cut into the captured /proc/mtd's
partitions (up to the last one captured), the same bad blocks marked, each
partition's good blocks written raw from the capture (pages with their OOB
bytes, so the chip's ECC sees what the unit's did), /proc/boardid, meminfo
and cmdline, the version file, eth0's address, GPIO line 64 and the AVS
block as captured.
"""

import json
import os
import re

from . import SimError
from .scenario import (CHIP_BLOCKS, ERASE_SIZE, OOB_SIZE, PAGE_SIZE, Avs, Expect, ExpectInput, Flash, Gpio,
                       Input, Net, Scenario)
from .verdict import NO_LINE_END, writes_of

FORMAT, VERSION = "vx-capture", 1


def read_manifest(directory):
    try:
        with open(os.path.join(directory, "manifest.json"), encoding="utf-8") as f:
            manifest = json.load(f)
    except (OSError, ValueError) as e:
        raise SimError(f"{directory}: not a capture ({e})") from e
    if not isinstance(manifest, dict) or manifest.get("format") != FORMAT:
        raise SimError(f"{directory}: not a capture (no \"format\": \"{FORMAT}\" in manifest.json)")
    if manifest.get("version") != VERSION:
        raise SimError(f"{directory}: capture version {manifest.get('version')} (the runner plays {VERSION})")
    return manifest


def mtd_rows(text):
    """(name, size, erase size) of each row of a /proc/mtd."""
    rows = []
    for line in text.split("\n")[1:]:
        m = re.fullmatch(r'\s*[^:]+:\s+([0-9a-fA-F]+)\s+([0-9a-fA-F]+)\s+"?(.*?)"?\s*', line)
        if m:
            rows.append((m.group(3), int(m.group(1), 16), int(m.group(2), 16)))
    return rows


def good_blocks_raw(source, target, blocks, bad):
    """The raw file of a partition's good blocks only, in order: what
    nandwrite, which passes over bad blocks, writes back block for block.
    Erased blocks at its end (every byte 0xff, OOB included) are left out:
    the erased chip holds them already. Returns the file's size."""
    stride = ERASE_SIZE // PAGE_SIZE * (PAGE_SIZE + OOB_SIZE)
    erased = b"\xff" * stride
    with open(source, "rb") as src, open(target, "wb") as out:
        end = 0
        for b in range(blocks):
            chunk = src.read(stride)
            if len(chunk) != stride:
                raise SimError(f"{source}: ends in block {b} of {blocks}")
            if b not in bad:
                out.write(chunk)
                if chunk != erased:
                    end = out.tell()
        out.truncate(end)
    return end


def capture_file(directory, manifest, live):
    relative = manifest.get("files", {}).get(live)
    if not relative:
        return None
    with open(os.path.join(directory, relative), encoding="utf-8", errors="surrogateescape", newline="") as f:
        return f.read()


def capture_flash(directory, manifest, workdir, images=None):
    """The chip's partitions: the captured /proc/mtd's rows up to the last
    captured partition, each captured one with its bad blocks and raw
    pages, the others erased; a partition named in images gets that logical
    image instead, written over its good blocks with the chip's ECC."""
    images = dict(images or {})
    captured = {p["name"]: p for p in manifest.get("partitions", [])}
    table = capture_file(directory, manifest, "/proc/mtd") or ""
    rows = mtd_rows(table)
    last = max((i for i, (name, _, _) in enumerate(rows) if name in captured), default=-1)
    flash = []
    for name, size, erase in rows[:last + 1]:
        p = captured.get(name)
        geometry = (p["erase_size"], p["write_size"], p["oob_size"]) if p else (erase, PAGE_SIZE, OOB_SIZE)
        if geometry != (ERASE_SIZE, PAGE_SIZE, OOB_SIZE) or size % ERASE_SIZE:
            raise SimError(f"{directory}: {name} has erase blocks of {geometry[0]}, pages of {geometry[1]} and "
                           f"{geometry[2]} OOB bytes; the simulated chip has {ERASE_SIZE}, {PAGE_SIZE} and {OOB_SIZE}")
        blocks = size // ERASE_SIZE
        f = Flash(name=name, blocks=blocks, bad=list(p["bad_blocks"]) if p else [])
        if name in images:
            f.logical = os.path.abspath(images.pop(name))
            if os.path.getsize(f.logical) > (blocks - len(f.bad)) * ERASE_SIZE:
                raise SimError(f"{f.logical}: larger than the good blocks of {name}")
        elif p and p.get("raw"):
            f.raw = os.path.join(workdir, f"{name}.raw")
            if not good_blocks_raw(os.path.join(directory, p["raw"]), f.raw, blocks, set(f.bad)):
                f.raw = None  # erased: nothing to write
        elif p:
            raise SimError(f"{directory}: {name} was captured without its raw pages; the simulated player "
                           "writes raw pages only")
        flash.append(f)
    if images:
        raise SimError(f"{directory}: no captured partition {', '.join(sorted(images))}")
    if sum(f.blocks for f in flash) > CHIP_BLOCKS:
        raise SimError(f"{directory}: the partitions need more than the simulated chip's {CHIP_BLOCKS} blocks")
    return flash


def scenario_from_capture(directory, name, workdir, expect=None, images=None):
    """The player of the capture in directory as a scenario called name
    (raw files are prepared in workdir), with the logical images of images
    ({partition: file}) in place of those partitions' captured pages.
    Without expect it is judged on nothing but that it ran (an
    exploration)."""
    manifest = read_manifest(directory)
    os.makedirs(workdir, exist_ok=True)
    proc = {}
    for entry in ("boardid", "meminfo", "cmdline"):
        text = capture_file(directory, manifest, f"/proc/{entry}")
        if text is not None:
            proc[entry] = text
    version = capture_file(directory, manifest, "/etc/veltrix-version")
    eth0 = manifest.get("eth0") or {}
    gpio = manifest.get("gpio64") or {}
    words = manifest.get("avs")
    return Scenario(
        name=name, batch="capture", expect=expect or Expect(status=None),
        description=f"the player captured in {directory}",
        flash=capture_flash(directory, manifest, workdir, images),
        proc=proc,
        files={"/etc/veltrix-version": version if version is not None else False},
        net=Net(eth0=(eth0.get("address") or "") if eth0.get("present") else ""),
        gpio=Gpio(levels=0 if str(gpio.get("value", "1")).startswith("0") else 1),
        avs=Avs(words=list(words) if isinstance(words, list) and len(words) == 18 else [0] * 18),
        # The button breaks a blink code off in its second round, as in the
        # failure scenarios, rather than after its seventeen rounds.
        input=Input(press=[(12, 4500)]),
    )


def text_lines(text):
    """A program's output as [expect] lines: exact, the last one marked when
    it has no line end."""
    if not text:
        return []
    lines = text.split("\n")
    if lines[-1] == "":
        return lines[:-1]
    return lines[:-1] + [lines[-1] + NO_LINE_END]


def replay_expect(result):
    """What a replay must show: the original run's exact output, status and
    event-device writes (LED pattern)."""
    expect = Expect(status=result.status, stdout=text_lines(result.stdout), stderr=text_lines(result.stderr),
                    kmsg=result.kmsg)
    if result.device_log is not None:
        expect.input = ExpectInput(writes=[w for _, w in writes_of(result.device_log)])
    return expect
