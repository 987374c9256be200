"""Programs traced as they are: functions_test.py STRIP VARN LIBRARY THUMBNAIL PART PROGRAM...,
in an IPC namespace of its own."""

import collections
import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

STRIP, VARN, LIBRARY, THUMBNAIL, PART, SCENARIOS, NAMES, OWN_HOOKS, OWN_SERVICES = sys.argv[1:]
DEADLINE = 60
QUEUE_BYTES = int(pathlib.Path("/proc/sys/kernel/msgmnb").read_text())
SYMTAB = 2

Traced = collections.namedtuple("Traced", "calls kinds starts out err")


def patched(data, at, fmt, value):
    return data[:at] + struct.pack(fmt, value) + data[at + struct.calcsize(fmt):]


def field(data, at, fmt):
    return struct.unpack_from(fmt, data, at)[0]


def sections(data):
    """Where the headers of the sections lie."""
    offset, count = field(data, 40, "<Q"), field(data, 60, "<H")
    return [offset + 64 * n for n in range(count)]


def full_table(data):
    return next(at for at in sections(data) if field(data, at + 4, "<I") == SYMTAB)


def texts_of_full_table(data):
    return sections(data)[field(data, full_table(data) + 40, "<I")]


def with_names_out_of_bounds(data):
    at, size = (field(data, full_table(data) + n, "<Q") for n in (24, 32))
    for symbol in range(at, at + size, 24):
        data = patched(data, symbol, "<I", 0xFFFFFFFF)
    return data


def cut_behind_segments(data):
    first, count = field(data, 32, "<Q"), field(data, 56, "<H")
    return data[:max(field(data, at + 8, "<Q") + field(data, at + 32, "<Q")
                     for at in range(first, first + 56 * count, 56))]


DAMAGE = {
    "sections past the end": lambda data: patched(data, 40, "<Q", len(data) - 8),
    "sections at no address": lambda data: patched(data, 40, "<Q", 2**64 - 64),
    "more sections than there are": lambda data: patched(data, 60, "<H", 0xFFFF),
    "no sections": lambda data: patched(data, 60, "<H", 0),
    "sections of another size": lambda data: patched(data, 58, "<H", 1),
    "symbols past the end": lambda data: patched(data, full_table(data) + 24, "<Q", len(data) - 8),
    "endless symbols": lambda data: patched(data, full_table(data) + 32, "<Q", 2**64 - 24),
    "symbols without texts": lambda data: patched(data, full_table(data) + 40, "<I", 0xFFFF),
    "symbols of no size": lambda data: patched(data, full_table(data) + 56, "<Q", 0),
    "empty texts": lambda data: patched(data, texts_of_full_table(data) + 32, "<Q", 0),
    "endless texts": lambda data: patched(data, texts_of_full_table(data) + 32, "<Q", 2**64 - 1),
    "names out of bounds": with_names_out_of_bounds,
    "the file's end cut off": cut_behind_segments,
}


class Functions(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.home = pathlib.Path(directory.name)
        self.environment = {"PATH": os.environ["PATH"], "TMPDIR": str(self.home)}

    def run_plainly(self, *command, status):
        done = subprocess.run([str(word) for word in command], env=self.environment, text=True,
                              encoding="utf-8", timeout=DEADLINE, capture_output=True)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done

    def trace(self, *command, status=0):
        records = self.home / "records"
        done = self.run_plainly(VARN, "run", "--functions", "--format", "json", "--out", records,
                                "--", *command, status=status)
        if "those records are lost" in done.stderr and QUEUE_BYTES < 1 << 20:
            self.skipTest("a queue that may not be made larger was full")
        lines = [json.loads(line) for line in records.read_text("utf-8").splitlines()]
        calls = sorted((line["call"] for line in lines if line["kind"] == "call"),
                       key=lambda call: call["number"])
        return Traced([(call["level"], call["function"]) for call in calls],
                      collections.Counter(line["kind"] for line in lines),
                      [line for line in lines if line["kind"] == "start"], done.stdout, done.stderr)

    def copy(self, file, change=lambda data: data):
        copied = self.home / pathlib.Path(file).name
        copied.write_bytes(change(pathlib.Path(file).read_bytes()))
        copied.chmod(0o755)
        return copied

    def test_the_main_threads_calls_are_one_service(self):
        traced = self.trace(SCENARIOS, "return", status=3)
        self.assertEqual(traced.calls, [(1, "main"), (2, "work"), (3, "part_of"), (4, "half_of"),
                                        (1, "at_exit")])
        self.assertEqual((traced.kinds["start"], traced.kinds["end"], traced.kinds["event"]),
                         (1, 1, 1))
        self.assertEqual(traced.starts[0]["svc_id"], "functions_scenar")
        self.assertRegex(traced.starts[0]["gid"], r"^\d{17}FNC\d{10}$")
        self.assertEqual(traced.out, "")
        self.assertNotIn("last faults", traced.err)

    def test_a_program_goes_on_and_ends_as_it_would_untraced(self):
        work = ["work", "part_of", "half_of"]
        unfinished, finished = 0, 1
        for scenario, status, ends, functions in (
                ("exit", 4, finished, ["main", "end_by_exit", *work, "at_exit"]),
                ("signal", 139, unfinished, work),
                ("fork", 3, finished, ["main", "fork_and_wait", *work, "at_exit"]),
                ("exec", 0, unfinished, []),
                ("shell", 3, finished, ["main", "run_shell", *work, "at_exit"]),
                ("thread", 3, finished, ["main", "start_thread", "at_exit"]),
                ("exit in thread", 5, unfinished, [])):
            with self.subTest(scenario=scenario):
                traced = self.trace(SCENARIOS, scenario, status=status)
                self.assertEqual([name for _, name in traced.calls], functions)
                self.assertEqual((traced.kinds["start"], traced.kinds["end"]), (1, ends))
                self.assertEqual(traced.kinds["event"], 1)
                self.assertEqual(traced.out, "shell\n" if scenario == "shell" else "")
                self.assertNotIn("last faults", traced.err)

    def test_names_are_shown_as_people_write_them(self):
        pair = "shop::Pair<shop::Pair<unsigned long, unsigned long>, shop::Pair<char, short> >"
        self.assertGreater(len(pair), 70)
        expected = [
            "main", "shop::(anonymous namespace)::hidden", "shop::Cart::Cart", "shop::Cart::add",
            "shop::Cart::add", "shop::Cart::operator()", "shop::Cart::operator<",
            "shop::Cart::operator char const*", "shop::Cart::operator<< <int>",
            "shop::largest<int>", "shop::largest<shop::Pair<int, char> >", "shop::operator==<int>",
            "main::{lambda(int)#1}::operator()", "shop::Cart::operator<< <>",
            "shop::Shelf<>::put<>", "shop::Shelf<>::operator shop::Pair<>",
            "...::and_another_one_inside_it_that_has_no_short_name::last",
            "a_function_of_plain_c_with_seventy_bytes_in_its_name_and_then_some_mor",
            "shop::Cart::~Cart"]
        self.assertEqual([name for _, name in self.trace(NAMES).calls], expected)

    def test_what_a_stripped_file_exports_still_has_a_name(self):
        program, _ = self.copy(SCENARIOS), self.copy(PART)
        for file in (program, self.home / pathlib.Path(PART).name):
            self.run_plainly(STRIP, file, status=0)
        self.environment["LD_LIBRARY_PATH"] = str(self.home)
        self.assertEqual(self.trace(program, "return", status=3).calls,
                         [(1, "?"), (2, "?"), (3, "part_of"), (4, "?"), (1, "?")])

    def test_a_damaged_file_costs_its_names_only(self):
        for damage, change in DAMAGE.items():
            with self.subTest(damage=damage):
                program = self.copy(SCENARIOS, change)
                self.assertEqual(self.trace(program, "return", status=3).calls,
                                 [(1, "?"), (2, "?"), (3, "part_of"), (4, "half_of"), (1, "?")])

    def test_programs_with_hooks_or_services_of_their_own_keep_them(self):
        traced = self.trace(OWN_HOOKS)
        self.assertEqual((traced.out, traced.kinds), ("6 calls\n", {}))
        traced = self.trace(OWN_SERVICES)
        self.assertEqual([start["svc_id"] for start in traced.starts], ["OWN"])
        self.assertEqual((traced.calls, traced.kinds["end"]), ([(1, "work")], 0))

    def test_a_program_that_cannot_be_traced_runs_and_it_is_said_once(self):
        self.environment["LD_PRELOAD"] = LIBRARY
        done = self.run_plainly(SCENARIOS, "return", status=3)
        self.assertEqual((done.stdout, done.stderr), ("", ""))
        self.environment |= {"TRAN_HOME": "/", "TRAN_AGT_HOME": "/",
                             "TRAN_AGT_CFG_FILE": str(self.home / "none")}
        done = self.run_plainly(SCENARIOS, "shell", status=3)
        self.assertEqual(done.stdout, "shell\n")
        self.assertEqual(done.stderr.count("is not traced, TRAN_INIT returned 103"), 1, done.stderr)

    def test_a_real_program_shows_its_call_tree(self):
        traced = self.trace(THUMBNAIL, self.home)
        self.assertEqual(len(traced.out.splitlines()), 3)
        functions = collections.Counter(name for _, name in traced.calls)
        self.assertEqual(functions["make_thumbnail"], 3)
        self.assertEqual(functions["stbir_resize_uint8"], 3)
        self.assertEqual(functions["?"], 0)
        self.assertLess(len(traced.calls), 500)
        self.trace(THUMBNAIL, self.home, self.home / "drawing-64x64.jpg")
        refused = self.trace(THUMBNAIL, self.home, VARN, status=1)
        self.assertIn(f"thumbnail: {VARN}: ", refused.err)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
