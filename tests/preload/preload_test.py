"""A preloaded agent that nobody starts: preload_test.py STRACE LIBVARN EMPTY SEMAPHORE_HOST.

Each program runs with the agent preloaded, and with a library that is empty.
"""

import collections
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

STRACE, LIBVARN, EMPTY, SEMAPHORE_HOST = sys.argv[1:]
DEADLINE = 60
# How often a virtual machine makes these depends on how its threads meet.
JAVA_MAKES = ("clone", "clone3", "socket", "connect", "shmget", "msgget", "semget")


def run(library, command):
    done = subprocess.run(command, env=dict(os.environ, LD_PRELOAD=library), capture_output=True,
                          timeout=DEADLINE)
    return done.returncode, done.stdout, done.stderr


def calls(library, command):
    """How often each system call was made, by all of the program's threads."""
    with tempfile.NamedTemporaryFile("r") as table:
        subprocess.run([STRACE, "-f", "-c", "-o", table.name, "-E", f"LD_PRELOAD={library}", *command],
                       capture_output=True, timeout=DEADLINE, check=True)
        rows = [line.split() for line in table]
    return collections.Counter({row[-1]: int(row[3]) for row in rows if row and row[0][0].isdigit()
                                and row[-1] != "total"})


class Preloaded(unittest.TestCase):
    maxDiff = None

    def test_programs_do_and_say_what_they_do_without_it(self):
        for command in ["bash", "-c", "echo $((6*7))"], ["ls", "/"]:
            with self.subTest(command):
                self.assertEqual(calls(LIBVARN, command), calls(EMPTY, command))
                self.assertEqual(run(LIBVARN, command), run(EMPTY, command))

    @unittest.skipUnless(shutil.which("java"), "no virtual machine")
    def test_so_does_a_virtual_machine(self):
        command = ["java", "-version"]
        self.assertEqual(run(LIBVARN, command), run(EMPTY, command))
        with_it, without = (calls(library, command) for library in (LIBVARN, EMPTY))
        for name in JAVA_MAKES:
            self.assertEqual(with_it[name], without[name], name)

    def test_its_names_and_the_hosts_do_not_meet(self):
        self.assertEqual(run(LIBVARN, [SEMAPHORE_HOST]), (0, b"ours\n", b""))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
