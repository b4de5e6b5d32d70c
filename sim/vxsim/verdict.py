"""Verdicts: a scenario's results judged against its [expect] table, and
the report of each scenario (PASS or FAIL, every difference, and the
program's output when asked for or when it failed)."""

import os
import re

from . import SimError


def substitute(text, meminfo, pid=""):
    """Replaces ${meminfo:KEY} with the number of KEY in the guest's meminfo,
    and ${pid} with the program's process id."""
    text = text.replace("${pid}", pid)
    def number(m):
        v = re.search(rf"^{re.escape(m.group(1))}:\s*(\d+)", meminfo, re.M)
        if not v:
            raise SimError(f"the guest's /proc/meminfo has no {m.group(1)}")
        return v.group(1)
    return re.sub(r"\$\{meminfo:([A-Za-z0-9_()]+)\}", number, text)


# An expected line that ends in this marker is the text without a line end
# (messages the program writes without one run into the next).
NO_LINE_END = "<no line end>"


def _text(line):
    if line.endswith(NO_LINE_END):
        return line[:-len(NO_LINE_END)]
    return line + "\n"


def lines_text(lines):
    return "".join(_text(line) for line in lines)


def lines_match(expected, actual):
    """Whether a text is exactly the expected lines, where a line "..."
    stands for any number of lines (dumps whose bytes do not matter)."""
    pattern = "".join("(?:.*\n)*" if line == "..." else re.escape(_text(line))
                      for line in expected)
    return re.fullmatch(pattern, actual) is not None


def judge_status(expected, result):
    if result.status is None:
        if not result.status_text.strip():
            return [f"exit status: expected {expected}, but the guest left an empty status file"]
        return [f"exit status: expected {expected}, but the guest's status file holds "
                f"{result.status_text!r}, not a number"]
    if result.status != expected:
        return [f"exit status: expected {expected}, got {result.status}"]
    return []


def writes_of(log):
    """The writes in the event device's log: [(ns, "TYPE CODE VALUE")]."""
    return [(t, what[6:]) for t, what in log if what.startswith("write ")]


def gaps_ms(writes):
    return [(b - a) / 1e6 for (a, _), (b, _) in zip(writes, writes[1:])]


def ms_list(values):
    return "[" + ", ".join(f"{v:.1f}" for v in values) + "]"


def press_to_close(log):
    """(ns of the last press before the last close or None, ns of the last
    close or None), from the event device's log."""
    closes = [t for t, what in log if what.startswith("close ")]
    if not closes:
        return None, None
    presses = [t for t, what in log if what.startswith("press ") and t <= closes[-1]]
    return (presses[-1] if presses else None), closes[-1]


def since_epoch(log):
    """Milliseconds after the device's epoch (its "start" line, else its
    first line) of a time in its log."""
    start = next((t for t, what in log if what == "start"), log[0][0] if log else 0)
    return lambda t: (t - start) / 1e6


def judge_input(exp, log):
    """The event device's log against [expect.input]: the writes in order,
    the gaps between them, and how soon after the last press the program
    closed the device for the last time."""
    if log is None:
        return ["event device: the guest left no log of its server"]
    diffs = []
    if not any(what == "exit" for _, what in log):
        diffs.append("event device: its server's log has no 'exit' line: it did not stop cleanly")
    writes = writes_of(log)
    if exp.writes is not None and [w for _, w in writes] != exp.writes:
        diffs.append(f"event-device writes differ:\n  expected: {exp.writes!r}\n"
                     f"  actual:   {[w for _, w in writes]!r}")
    if exp.gaps_ms is not None:
        measured = gaps_ms(writes)
        if len(measured) != len(exp.gaps_ms):
            diffs.append(f"write gaps: expected {len(exp.gaps_ms)} gaps (ms) {ms_list(exp.gaps_ms)}, "
                         f"but the device saw {len(writes)} writes, gaps {ms_list(measured)}")
        else:
            phases = exp.gap_phases or [1] * len(exp.gaps_ms)
            off = [f"  gap {i + 1} (writes {i + 1} to {i + 2}): expected {e} ms, measured "
                   f"{m:.1f} ms, off by {m - e:+.1f}"
                   for i, (e, m, k) in enumerate(zip(exp.gaps_ms, measured, phases))
                   if abs(m - e) > exp.tolerance_ms * k]
            if off:
                diffs.append(f"write gaps outside {exp.tolerance_ms} ms a phase of the expected ones:\n"
                             f"  expected (ms): {ms_list(exp.gaps_ms)}\n"
                             f"  measured (ms): {ms_list(measured)}\n" + "\n".join(off))
    if exp.exit_after_press_ms is not None:
        press, close = press_to_close(log)
        at = since_epoch(log)
        if close is None:
            diffs.append("exit after press: the program never closed the device")
        elif press is None:
            diffs.append(f"exit after press: the program last closed the device at {at(close):.1f} ms "
                         "after the epoch, before any press")
        elif (close - press) / 1e6 > exp.exit_after_press_ms:
            diffs.append(f"exit after press: expected the program's last close at most "
                         f"{exp.exit_after_press_ms} ms after the press, measured "
                         f"{(close - press) / 1e6:.2f} ms (press at {at(press):.1f} ms, "
                         f"close at {at(close):.1f} ms after the epoch)")
    return diffs


def device_summary(log):
    """One line on the event device's log: the writes, their gaps, the
    press that came last before the program's last close."""
    writes, at = writes_of(log), since_epoch(log)
    press, close = press_to_close(log)
    text = f"{len(writes)} writes, gaps (ms) {ms_list(gaps_ms(writes))}"
    if press is not None:
        text += (f"; press at {at(press):.1f} ms after the epoch, "
                 f"last close {(close - press) / 1e6:.2f} ms later")
    elif close is not None:
        text += f"; last close at {at(close):.1f} ms after the epoch"
    return text


def judge(scenario, result):
    """Compares a scenario's results with its expectations; returns the list
    of differences (empty when everything held)."""
    exp, meminfo = scenario.expect, result.meminfo
    diffs = judge_status(exp.status, result)

    def compare(what, expected, actual):
        if expected != actual:
            diffs.append(f"{what} differs:\n  expected: {expected!r}\n  actual:   {actual!r}")

    for stream in ("stdout", "stderr"):
        lines = getattr(exp, stream)
        if lines is None:
            continue
        expected = [substitute(line, meminfo, result.pid) for line in lines]
        actual = getattr(result, stream)
        if not lines_match(expected, actual):
            compare(stream, lines_text(expected), actual)
    if exp.kmsg is not None:
        compare("kernel-log records", [substitute(r, meminfo, result.pid) for r in exp.kmsg],
                result.kmsg)
    for path, content in exp.files.items():
        actual = result.files.get(path, False)
        expected = substitute(content, meminfo) if content is not False else False
        if expected is False and actual is not False:
            diffs.append(f"{path}: expected no file, found {actual!r}")
        elif expected is not False and actual is False:
            diffs.append(f"{path}: expected {expected!r}, but there is no such file")
        else:
            compare(path, expected, actual)
    for path, mode in exp.modes.items():
        compare(f"{path} permission bits", mode, result.modes.get(path, "no such file"))
    if exp.splash is not None:
        if result.splash is None:
            diffs.append(f"splash: expected {exp.splash!r}, but the guest left nothing of the reader")
        else:
            compare("splash (what the reader got)", exp.splash, result.splash)
    if exp.input is not None:
        diffs.extend(judge_input(exp.input, result.device_log))
    if result.steps_failed is not None:
        diffs.append("a step after the program failed:\n  " + result.steps_failed.replace("\n", "\n  "))
    return diffs


def report(s, result, rundir, show, log):
    """Prints the verdict of one scenario; returns True when it passed."""
    if result is None:
        log(f"FAIL {s.name}: the scenario did not run")
        try:
            with open(os.path.join(rundir, s.name, "setup.log"), errors="replace") as f:
                log("  setup: " + f.read().strip().replace("\n", "\n  setup: "))
        except OSError:
            pass
        return False
    diffs = judge(s, result)
    took = f" ({result.seconds:.2f} s)" if result.seconds is not None else ""
    log(f"{'PASS' if not diffs else 'FAIL'} {s.name}{took}")
    for d in diffs:
        log("  " + d.replace("\n", "\n  "))
    if show or diffs:
        for stream in ("stdout", "stderr"):
            text = getattr(result, stream)
            if text:
                log(f"  --- {stream} ---")
                for line in text.rstrip("\n").split("\n"):
                    log("  | " + line)
            elif stream == "stderr":
                log("  --- stderr: empty ---")
        if result.device_log is not None:
            log(f"  --- event device: {device_summary(result.device_log)} ---")
        if result.splash is not None:
            log(f"  --- splash: {result.splash!r} ---")
        for path, content in sorted(result.files.items()):
            log(f"  --- {path} (mode {result.modes.get(path, '?')}): {content!r} ---")
        status = result.status if result.status is not None else "unknown"
        log(f"  --- exit status {status} ---")
    return not diffs
