"""The agent loaded while its host runs: guest_test.py VARN LIBVARN GUEST_HOST LIBRARY...

In an IPC namespace of its own.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

VARN, LIBVARN, GUEST_HOST, *STORAGE_LIBRARIES = sys.argv[1:]
DEADLINE = 120
EXITS = 200
NOBODY = 65534
ENVIRONMENT = {"VARN_CONSOLE": "off", "PATH": os.environ["PATH"]}


def run(*command, **options):
    return subprocess.run(command, env=ENVIRONMENT, encoding="utf-8", timeout=DEADLINE,
                          capture_output=True, **options)


def traced(*command):
    return run(VARN, "run", "--out", os.devnull, "--", *command)


class Guest(unittest.TestCase):
    def expect_started(self, done):
        self.assertEqual((done.returncode, done.stdout), (0, "0\n"), done.stderr)

    def test_stays_when_its_host_lets_go_of_it(self):
        self.expect_started(traced(GUEST_HOST, LIBVARN, "unload"))

    def test_needs_no_storage_that_other_libraries_have_taken(self):
        self.expect_started(traced(GUEST_HOST, LIBVARN, "", *STORAGE_LIBRARIES))

    def test_lets_its_host_exit_at_any_moment(self):
        done = traced("sh", "-c", f'''for i in $(seq {EXITS}); do
            "$0" "$1" exit >/dev/null || echo "exit $i: $?"; done; echo 0''', GUEST_HOST, LIBVARN)
        self.expect_started(done)

    @unittest.skipUnless(os.getuid() == 0, "needs other users' ids")
    def test_believes_no_environment_of_somebody_with_fewer_rights(self):
        with tempfile.TemporaryDirectory() as home:
            os.chmod(home, 0o755)
            host, library = pathlib.Path(home, "host"), pathlib.Path(home, "libvarn.so")
            shutil.copy(GUEST_HOST, host)
            shutil.copy(LIBVARN, library)
            host.chmod(0o4755)
            for name, mode in (("log", 0o777), ("agent.cfg", 0o644)):
                pathlib.Path(home, name).touch(mode)
            settings = {"TRAN_HOME": home, "TRAN_AGT_HOME": home,
                        "TRAN_AGT_CFG_FILE": f"{home}/agent.cfg"}
            for user, code in ((NOBODY, "106\n"), (0, "103\n")):
                done = subprocess.run([host, library], env=ENVIRONMENT | settings, user=user,
                                      encoding="utf-8", timeout=DEADLINE, capture_output=True)
                self.assertEqual((done.returncode, done.stdout), (0, code))
                if user == NOBODY:
                    self.assertEqual(done.stderr, "")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
