"""Verdicts: a scenario's results judged against its [expect] table, and
the report of each scenario (PASS or FAIL, every difference, and the
program's output when asked for or when it failed)."""

import os
import re

from . import SimError


def substitute(text, meminfo):
    """Replaces ${meminfo:KEY} with the number of KEY in the guest's meminfo."""
    def number(m):
        v = re.search(rf"^{re.escape(m.group(1))}:\s*(\d+)", meminfo, re.M)
        if not v:
            raise SimError(f"the guest's /proc/meminfo has no {m.group(1)}")
        return v.group(1)
    return re.sub(r"\$\{meminfo:([A-Za-z0-9_()]+)\}", number, text)


def lines_text(lines):
    return "".join(line + "\n" for line in lines)


def lines_match(expected, actual):
    """Whether a text is exactly the expected lines, where a line "..."
    stands for any number of lines (dumps whose bytes do not matter)."""
    pattern = "".join("(?:.*\n)*" if line == "..." else re.escape(line + "\n")
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
        expected = [substitute(line, meminfo) for line in lines]
        actual = getattr(result, stream)
        if not lines_match(expected, actual):
            compare(stream, lines_text(expected), actual)
    if exp.kmsg is not None:
        compare("kernel-log records", [substitute(r, meminfo) for r in exp.kmsg], result.kmsg)
    for path, content in exp.files.items():
        actual = result.files.get(path, False)
        expected = substitute(content, meminfo) if content is not False else False
        if expected is False and actual is not False:
            diffs.append(f"{path}: expected no file, found {actual!r}")
        elif expected is not False and actual is False:
            diffs.append(f"{path}: expected {expected!r}, but there is no such file")
        else:
            compare(path, expected, actual)
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
        status = result.status if result.status is not None else "unknown"
        log(f"  --- exit status {status} ---")
    return not diffs
