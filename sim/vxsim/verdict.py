"""Verdicts: a scenario's results judged against its [expect] table, and
the report of each scenario (PASS or FAIL, every difference, and the
program's output when asked for or when it failed)."""

import fnmatch
import os
import re

from . import SimError
from .scenario import EPOCHS
from .steps import MEMCHECK_LOG


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


def epoch_of(scenario):
    """The epoch of the scenario's [input] times."""
    return scenario.input.epoch if scenario.input else "write"


def judge_input(exp, log, epoch="write"):
    """The event device's log against [expect.input]: the writes in order,
    the gaps between them, and how soon after the last press the program
    closed the device for the last time. Times are named after the epoch of
    [input] (EPOCHS)."""
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
                         f"after {EPOCHS[epoch]}, before any press")
        elif (close - press) / 1e6 > exp.exit_after_press_ms:
            diffs.append(f"exit after press: expected the program's last close at most "
                         f"{exp.exit_after_press_ms} ms after the press, measured "
                         f"{(close - press) / 1e6:.2f} ms (press at {at(press):.1f} ms, "
                         f"close at {at(close):.1f} ms after {EPOCHS[epoch]})")
    return diffs


def device_summary(log, epoch="write"):
    """One line on the event device's log: the writes, their gaps, the
    press that came last before the program's last close."""
    writes, at = writes_of(log), since_epoch(log)
    press, close = press_to_close(log)
    text = f"{len(writes)} writes, gaps (ms) {ms_list(gaps_ms(writes))}"
    if press is not None:
        text += (f"; press at {at(press):.1f} ms after {EPOCHS[epoch]}, "
                 f"last close {(close - press) / 1e6:.2f} ms later")
    elif close is not None:
        text += f"; last close at {at(close):.1f} ms after {EPOCHS[epoch]}"
    return text


# The check's statuses: passed, a hardware failure, an unexpected failure.
CHECK_STATUSES = (0, 1, 2)
TIMEOUT_STATUS = 128 + 9  # timeout -s KILL
# The check's one deliberate crash: the LED pattern shown 17 times unseen.
DELIBERATE_CRASH = (128 + 6, "Forced crash due to LED error")


def fault_target(run):
    """A failed call as the sweep's patterns name it: "KIND TARGET", the
    target without the descriptor number ("read /dev/mtd0")."""
    fields = run.fault.split(" ", 4)
    target = fields[4] if len(fields) == 5 else ""
    return f"{run.kind} {re.sub(r'^fd=[0-9]+:', '', target)}"


def fault_verdict(run, faults, plain_stderr):
    """What is wrong with one run of a fault sweep, or None. Every run ends
    by itself, in time, with one of the check's statuses (or the deliberate
    crash, or a death by a signal that [faults] killed allows for that call,
    with a message); a failure has its "ERROR:" line unless the failed call
    was a write to standard error, which may have been that line; a pass
    shows the fault in what it printed unless [faults] unreported allows
    silence for that call."""
    call = fault_target(run)
    allowed = lambda patterns: any(fnmatch.fnmatchcase(call, p) for p in patterns)
    if run.status is None:
        return "the guest left no exit status"
    if run.status == TIMEOUT_STATUS:
        return f"hung: killed after {faults.timeout} s"
    if run.status > 128:
        crash_status, crash_message = DELIBERATE_CRASH
        if run.status == crash_status and crash_message in run.stderr:
            return None
        if allowed(faults.killed) and run.stderr.strip():
            return None
        return f"killed by signal {run.status - 128}"
    if run.status not in CHECK_STATUSES:
        return f"exit status {run.status}"
    if run.status != 0:
        on_stderr = run.kind == "write" and run.fault.split(" ", 4)[-1].startswith("fd=2:")
        # Anywhere in a line: the AVS line before it has no line end.
        if "ERROR: " in run.stderr or on_stderr:
            return None
        return f"status {run.status} without an ERROR: line"
    if run.stderr == plain_stderr and not allowed(faults.unreported):
        return "passed without a word of the failed call"
    return None


def judge_faults(scenario, result):
    """A fault sweep's runs against the rules of fault_verdict; each kind
    of call must have been failed at least once, and the run that made no
    further call of a kind ends as the plain run was expected to."""
    sweep, faults = result.faults, scenario.faults
    if sweep is None:
        return ["fault sweep: the guest left no results"]
    diffs = []
    for kind in faults.calls:
        if not any(r.kind == kind for r in sweep.runs):
            diffs.append(f"fault sweep: no {kind} call was failed")
        end = sweep.ends.get(kind)
        if end != scenario.expect.status:
            diffs.append(f"fault sweep: the {kind} run past the last call ended with status {end}, "
                         f"not {scenario.expect.status}")
    for r in sweep.runs:
        wrong = fault_verdict(r, faults, result.stderr)
        if wrong:
            diffs.append(f"fault sweep: {r.fault}: {wrong}; stderr {r.stderr[-300:]!r}")
    return diffs


def fault_table(sweep, plain_stderr):
    """The sweep in numbers: per kind of call, the calls failed and how the
    runs ended: passed with a message, passed with the plain run's output
    (as [faults] unreported allows), statuses 1 and 2, anything else."""
    def row(kind, runs):
        count = lambda st: sum(r.status == st for r in runs)
        silent = sum(r.status == 0 and r.stderr == plain_stderr for r in runs)
        other = sorted({r.status for r in runs} - set(CHECK_STATUSES), key=str)
        return (kind, len(runs), count(0) - silent, silent, count(1), count(2),
                ", ".join(f"{count(st)} x {st}" for st in other) or "-")
    kinds = dict.fromkeys(r.kind for r in sweep.runs)
    rows = [("call", "failed", "0 told", "0 silent", "1", "2", "other")]
    rows += [row(kind, [r for r in sweep.runs if r.kind == kind]) for kind in kinds]
    rows.append(row("all", sweep.runs))
    return [f"{k:<6} {n:>6} {a:>6} {b:>8} {c:>4} {d:>4}  {o}" for k, n, a, b, c, d, o in rows]


def fault_runs(sweep, plain_stderr):
    """One line per run: the failed call, the status, and the first line
    that the run printed where the plain run did not."""
    plain = set(plain_stderr.split("\n"))
    for r in sweep.runs:
        new = [line for line in r.stderr.split("\n") if line.strip() and line not in plain]
        yield f"{r.fault} -> {r.status}: {new[0] if new else '(as the plain run)'}"


def judge_memcheck(report, status):
    """valgrind's memcheck report: no memory error, no definite or indirect
    leak, and no descriptor open at exit but the standard three and the
    report's own. A program that a signal ended unwinds nothing: only its
    errors count then."""
    if report is None:
        return ["memcheck: the guest left no report"]
    diffs = []
    errors = re.search(r"ERROR SUMMARY: (\d+) errors", report)
    if not errors:
        diffs.append("memcheck: the report has no error summary")
    elif errors.group(1) != "0" and status < 128:
        diffs.append(f"memcheck: {errors.group(1)} errors or leaks")
    opened = [m.group(1) for m in re.finditer(r"^==\d+== Open (.*)$", report, re.M)
              if not m.group(1).endswith(MEMCHECK_LOG)]
    if status < 128:
        if "FILE DESCRIPTORS: " not in report:
            diffs.append("memcheck: the report has no descriptor summary")
        diffs.extend(f"memcheck: open at exit: {o}" for o in opened)
    return diffs


def journal_has(expected, journal):
    """The expected lines that the journal lacks: each must match a whole
    line of it (shell wildcards: "* s" for a time), after the line that
    matched the one before."""
    lines, at = journal.split("\n"), 0
    for i, pattern in enumerate(expected):
        at = next((k + 1 for k in range(at, len(lines)) if fnmatch.fnmatchcase(lines[k], pattern)), None)
        if at is None:
            return expected[i:]
    return []


def judge_systemd(exp, result, boot):
    """A systemd boot's record against [expect.systemd]: the units'
    properties, the journal's lines in order, what the boot's script
    printed and the system's state once the boot was over."""
    sd = result.systemd
    diffs = []
    for unit, props in exp.units.items():
        actual = sd.units.get(unit, {})
        for name, value in props.items():
            if actual.get(name) != value:
                diffs.append(f"{unit} {name}: expected {value!r}, got {actual.get(name)!r}")
    if exp.journal is not None:
        missing = journal_has(exp.journal, sd.journal)
        if missing:
            diffs.append("the journal lacks, in this order:\n  " + "\n  ".join(missing))
    if exp.scripts is not None:
        expected = exp.scripts[boot - 1]
        if not lines_match(expected, sd.script or ""):
            diffs.append(f"what boot {boot}'s script printed differs:\n  expected: {lines_text(expected)!r}\n"
                         f"  actual:   {sd.script!r}")
    if exp.state is not None and sd.state != exp.state:
        diffs.append(f"system state: expected {exp.state!r}, got {sd.state!r}")
    return diffs


def judge(scenario, result, boot=1):
    """Compares a scenario's results (of its boot number boot, for a systemd
    boot) with its expectations; returns the list of differences (empty when
    everything held)."""
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
        diffs.extend(judge_input(exp.input, result.device_log, epoch_of(scenario)))
    if scenario.faults is not None:
        diffs.extend(judge_faults(scenario, result))
    if scenario.systemd is not None:
        if result.systemd is None:
            diffs.append("the systemd boot's observer left no record")
        elif exp.systemd is not None:
            diffs.extend(judge_systemd(exp.systemd, result, boot))
    if scenario.run.memcheck and result.status is not None:
        diffs.extend(judge_memcheck(result.memcheck, result.status))
    if result.steps_failed is not None:
        diffs.append("a step after the program failed:\n  " + result.steps_failed.replace("\n", "\n  "))
    return diffs


def show_result(s, result, log, diffs=()):
    """Prints what the program left: its output, the event device's writes,
    the splash, the files, the status."""
    for stream in ("stdout", "stderr"):
        text = getattr(result, stream)
        if text:
            log(f"  --- {stream} ---")
            for line in text.rstrip("\n").split("\n"):
                log("  | " + line)
        elif stream == "stderr":
            log("  --- stderr: empty ---")
    if result.device_log is not None:
        log(f"  --- event device: {device_summary(result.device_log, epoch_of(s))} ---")
    if result.splash is not None:
        log(f"  --- splash: {result.splash!r} ---")
    if result.memcheck is not None:
        summary = [line.split("== ", 1)[-1] for line in result.memcheck.split("\n")
                   if re.search(r"FILE DESCRIPTORS|in use at exit|definitely lost|ERROR SUMMARY", line)]
        log(f"  --- memcheck: {'; '.join(summary)} ---")
    for path, content in sorted(result.files.items()):
        log(f"  --- {path} (mode {result.modes.get(path, '?')}): {content!r} ---")
    if result.systemd is not None:
        sd = result.systemd
        log(f"  --- systemd: {sd.state or 'no state'}; units: " + "; ".join(
            f"{u} {p.get('ActiveState')}/{p.get('SubState')}" for u, p in sd.units.items()) + " ---")
        if sd.script:
            log("  --- script ---\n" + "".join(f"  | {line}\n" for line in sd.script.rstrip("\n").split("\n")))
        if diffs:
            log("  --- journal (end) ---\n" + "".join(
                f"  | {line}\n" for line in sd.journal_log.rstrip("\n").split("\n")[-60:]))
    status = result.status if result.status is not None else "unknown"
    log(f"  --- exit status {status} ---")


def did_not_run(s, name, rundir, log):
    log(f"FAIL {name}: the scenario did not run")
    try:
        with open(os.path.join(rundir, s.name, "setup.log"), errors="replace") as f:
            log("  setup: " + f.read().strip().replace("\n", "\n  setup: "))
    except OSError:
        pass
    return False


def explore(s, result, rundir, log, boot=1):
    """Prints what happened in one scenario (of its boot number boot)
    without judging it; returns False only when it did not run."""
    name = s.name + (f" (boot {boot} of {s.systemd.boots})" if s.systemd and s.systemd.boots > 1 else "")
    if result is None:
        return did_not_run(s, name, rundir, log)
    took = f" ({result.seconds:.2f} s)" if result.seconds is not None else ""
    log(f"RAN {name}{took}")
    show_result(s, result, log)
    if result.steps_failed is not None:
        log("  a step after the program failed:\n  " + result.steps_failed.replace("\n", "\n  "))
    return True


def report(s, result, rundir, show, log, boot=1):
    """Prints the verdict of one scenario (of its boot number boot);
    returns True when it passed."""
    name = s.name + (f" (boot {boot} of {s.systemd.boots})" if s.systemd and s.systemd.boots > 1 else "")
    if result is None:
        return did_not_run(s, name, rundir, log)
    diffs = judge(s, result, boot)
    took = f" ({result.seconds:.2f} s)" if result.seconds is not None else ""
    log(f"{'PASS' if not diffs else 'FAIL'} {name}{took}")
    for d in diffs:
        log("  " + d.replace("\n", "\n  "))
    if show or diffs:
        show_result(s, result, log, diffs)
    if result.faults is not None:
        log(f"  --- fault sweep: {len(result.faults.runs)} runs, one call failed in each ---")
        for line in fault_table(result.faults, result.stderr):
            log("  | " + line)
        if show or diffs:
            for line in fault_runs(result.faults, result.stderr):
                log("  | " + line)
    return not diffs
