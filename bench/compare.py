"""Measures the library beside its floors and its peers, and judges it by its goals.

Usage: compare.py BUILD [--repetitions N] [--only TEXT]

Exits with 1 when a goal is missed by more than the noise of its measurement, or when a row could not
be measured. A peer that is not to be had is named, and its row left open.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

RATIO, NS, MS, KB = "", " ns", " ms", " KB"
DIGITS = {RATIO: 3, NS: 1, MS: 2, KB: 0}
NOBODY = 65534

failed = False


class PeerMissing(Exception):
    """Why a peer has no figure."""


# ---- The table ----


def show(text, goal="", result="", noise="", verdict="", detail=""):
    print(f"{text:<55}{goal:>8}{result:>9}{noise:>8}  {verdict:<13}{detail}".rstrip(), flush=True)


def half_of_middle(values):
    """Half the interquartile range."""
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return (high - low) / 2


def judge(text, goal, unit, values, detail):
    """Shows a row by the values of its repetitions."""
    global failed
    middle, noise = statistics.median(values), half_of_middle(values)
    verdict = "met" if middle <= goal else "within noise" if middle - noise <= goal else "MISSED"
    failed |= verdict == "MISSED"
    digits = DIGITS[unit]
    show(text, f"{goal:g}{unit}", f"{middle:.{digits}f}{unit}", f"{noise:.{digits}f}", verdict, detail)


def fail(text, goal, unit, reason):
    global failed
    failed = True
    show(text, f"{goal:g}{unit}", "-", "", "FAILED", reason)


def nanoseconds(row, floor):
    return f"{row:.0f} / {floor:.0f} ns" if floor > 100 else f"{row:.1f} / {floor:.1f} ns"


# ---- Beside the floors, in one process: varn_bench ----

Row = collections.namedtuple("Row", "name text goal unit")
ROWS = [
    Row("start", "service start / bare send", 1.10, RATIO),
    Row("end", "service end / bare send", 1.10, RATIO),
    Row("info", "information / bare send", 1.10, RATIO),
    Row("event", "event / bare send", 1.10, RATIO),
    Row("business call end", "business call's end, recorded / bare send", 1.10, RATIO),
    Row("database call end", "database call's end, recorded / bare send", 1.10, RATIO),
    Row("SQL piece and its call's end", "the same with an SQL piece / two bare sends", 1.10, RATIO),
    Row("full queue", "record on a full queue / bare failing send", 1.12, RATIO),
    Row("call pair", "call pair below its limit / two clock reads", 1.25, RATIO),
    Row("two threads, one bucket", "call pair of two threads, one bucket / one thread", 1.05, RATIO),
    Row("two threads, two buckets", "call pair of two threads, two buckets / one thread", 1.05, RATIO),
    Row("two senders", "two threads, two queues / two bare senders", 1.05, RATIO),
    Row("kind off, few arguments", "refused, kind off; an empty function", 8, NS),
    Row("kind off, 59 arguments", "  the same with 59 arguments", 8, NS),
    Row("not started, few arguments", "refused, agent not started; an empty function", 8, NS),
    Row("not started, 59 arguments", "  the same with 59 arguments", 8, NS),
    Row("hook pair, not started", "hook pair, agent not started / empty hook pair", 1.5, RATIO),
    Row("whole service", "whole service, all 29 texts / two bare sends", 1.10, RATIO),
    Row("telegram", "telegram of 2 KB logged / malloc and memcpy", 1.5, RATIO),
]


def bench_runs(build, rows, repetitions):
    """The repetitions of each row."""
    with tempfile.TemporaryDirectory() as scratch:
        out = pathlib.Path(scratch) / "goals.json"
        done = subprocess.run(
            [build / "bench/varn_bench", "--goals", f"--benchmark_repetitions={repetitions}",
             "--benchmark_filter=" + "|".join(f"^{row.name}/" for row in rows),
             f"--benchmark_out={out}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        )
        if done.returncode != 0:
            sys.exit(done.stderr)
        runs = collections.defaultdict(list)
        for run in json.loads(out.read_text("utf-8"))["benchmarks"]:
            if run["run_type"] == "iteration":
                runs[run["run_name"].split("/")[0]].append(run)
        return runs


def judge_row(row, runs):
    faults = [run["error_message"] for run in runs if run.get("error_occurred")]
    if faults or not runs:
        return fail(row.text, row.goal, row.unit, faults[0] if faults else "not run")
    ns, floor_ns = ([run[side] for run in runs] for side in ("ns", "floor_ns"))
    values = [a / b for a, b in zip(ns, floor_ns)] if row.unit == RATIO else ns
    detail = nanoseconds(statistics.median(ns), statistics.median(floor_ns))
    judge(row.text, row.goal, row.unit, values, detail)


# ---- Processes of their own ----


def outcome(*command):
    """What a command printed."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        said = (done.stderr + done.stdout).strip().splitlines()
        raise RuntimeError(f"{pathlib.Path(command[0]).name}: {said[-1] if said else 'failed'}")
    return done.stdout


def numbers(*command):
    return [float(word) for word in outcome(*command).split()]


def peer(measure, *command):
    """Of a command that may not be there, or not run here."""
    try:
        return measure(*command)
    except (OSError, RuntimeError, subprocess.TimeoutExpired) as fault:
        raise PeerMissing(str(fault)) from None


@contextlib.contextmanager
def traced_processes(build):
    """Until its end the processes started are traced; no business call of theirs is recorded."""
    tool = build / "tools/varn/varn"
    with tempfile.TemporaryDirectory() as home:
        config = pathlib.Path(home) / "varn.cfg"
        outcome(tool, "init", config)
        text = config.read_text("utf-8")
        for key, value in (("CALL_TRC_LIMIT", 10**9), ("INFINITE_LOOP_BASE_CNT", 2 * 10**9)):
            text = re.sub(rf"^{key} *=.*$", f"{key} = {value}", text, flags=re.M)
        config.write_text(text, "utf-8")
        outcome(tool, "up", "-c", config)
        os.environ.update(TRAN_HOME=home, TRAN_AGT_HOME=home, TRAN_AGT_CFG_FILE=str(config),
                          VARN_CONSOLE="off")
        yield
        outcome(tool, "down", "-c", config)


def start(host, unlinked):
    return [numbers(host, "start")[0] for _ in range(25)], "25 processes"


def memory(host, unlinked):
    pairs = [(numbers(host, "memory"), numbers(unlinked, "memory")) for _ in range(9)]
    started = statistics.median(after - before for (before, after), _ in pairs)
    return [with_it[1] - without[1] for with_it, without in pairs], f"{started:.0f} KB of it by the start"


def traced_hooks(host, unlinked):
    with tempfile.TemporaryDirectory() as scratch:
        uftrace = ("uftrace", "record", "-d", f"{scratch}/data", unlinked, "hooks")
        pairs = [(numbers(host, "hooks")[0], peer(numbers, *uftrace)[0]) for _ in range(15)]
    ours, theirs = (statistics.median(side) for side in zip(*pairs))
    return [one / other for one, other in pairs], nanoseconds(ours, theirs)


Process = collections.namedtuple("Process", "text goal unit measure")
PROCESSES = [
    Process("hook pair, traced, no record / under uftrace", 0.5, RATIO, traced_hooks),
    Process("memory: idle attached process less unlinked one", 1024, KB, memory),
    Process("TRAN_INIT of a fresh process", 5, MS, start),
]


def judge_process(row, build):
    goal = f"{row.goal:g}{row.unit}"
    try:
        values, detail = row.measure(build / "bench/varn_bench_host", build / "bench/varn_bench_unlinked")
        judge(row.text, row.goal, row.unit, values, detail)
    except PeerMissing as reason:
        show(row.text, goal, "-", "", "not measured", str(reason))
    except RuntimeError as reason:
        fail(row.text, row.goal, row.unit, str(reason))


# ---- LTTng-UST ----


@contextlib.contextmanager
def lttng_session():
    """A recording session of a daemon of its own; what a command needs to take part in it."""
    with tempfile.TemporaryDirectory() as home:
        # The daemon of root would be the machine's.
        user = ()
        if os.geteuid() == 0:
            os.chown(home, NOBODY, NOBODY)
            user = ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups")
        inside = (*user, "env", f"LTTNG_HOME={home}", f"HOME={home}", "LTTNG_UST_REGISTER_TIMEOUT=-1")
        lttng = (*inside, "lttng", "--no-sessiond")
        daemon = subprocess.Popen([*inside, "lttng-sessiond", "--no-kernel"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + 10
            while subprocess.run([*lttng, "create", "bench", f"--output={home}/trace"],
                                 capture_output=True).returncode != 0:
                if daemon.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError("lttng-sessiond does not start")
                time.sleep(0.05)
            outcome(*lttng, "enable-channel", "--userspace", "--subbuf-size=4M", "--num-subbuf=4", "bench")
            outcome(*lttng, "enable-event", "--userspace", "--channel=bench", "varn_bench:*")
            outcome(*lttng, "start")
            yield inside
            said = outcome(*lttng, "stop")
            if "discarded" in said or "lost" in said:
                raise RuntimeError("events were lost")
        finally:
            daemon.terminate()
            daemon.wait()


def tracepoints(program):
    if not program.exists():
        raise RuntimeError("built without liblttng-ust-dev")
    with tempfile.TemporaryDirectory() as place, lttng_session() as inside:
        os.chmod(place, 0o755)  # the build's own directory may be closed to the session's user
        copy = shutil.copy(program, place)
        return [numbers(*inside, copy)[0] for _ in range(15)]


def show_tracepoints(build, service_ns):
    text = "  two LTTng-UST tracepoints with the same texts"
    try:
        ns = peer(tracepoints, build / "bench/varn_bench_tracepoints")
    except PeerMissing as reason:
        return show(text, "", "-", "", "not measured", str(reason))
    middle = statistics.median(ns)
    show(text, "", f"{middle:.0f} ns", f"{half_of_middle(ns):.0f}", "",
         f"the service {service_ns / middle:.2f} times that")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--repetitions", type=int, default=25)
    parser.add_argument("--only", default="", help="only rows with this in their text")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    rows = [row for row in ROWS if arguments.only in row.text]
    processes = [row for row in PROCESSES if arguments.only in row.text]
    print(f"""\
Medians of {arguments.repetitions} repetitions (processes: of 9 to 25). In each one batches of the row and of its
floor take turns, and their medians make its ratio. Noise: half the interquartile range of these.
""")
    show("", "goal", "result", "noise", "", "row / floor")
    runs = bench_runs(build, rows, arguments.repetitions) if rows else {}
    for row in rows:
        judge_row(row, runs[row.name])
        if row.name == "whole service":
            show_tracepoints(build, statistics.median(run["ns"] for run in runs[row.name]))
    if processes:
        with traced_processes(build):
            for row in processes:
                judge_process(row, build)
    sys.exit(1 if failed else 0)


main()
