"""The library still has the interface that programs were built against, but for what is added.

Usage: check_abi.py ROOT LIBRARY ABIDW ABIDIFF [--keep]

After a change that is meant, --keep takes down the interface that the library has now.
"""

import pathlib
import subprocess
import sys
import tempfile

root, library, abidw, abidiff, *options = sys.argv[1:]
kept = pathlib.Path(root) / "tests/checks/libvarn.abi"
# There where a Java virtual machine's headers are; their own check compares them with the Java class.
SUPPRESSED = "[suppress_function]\n  name_regexp = ^Java_\n"


def interface():
    text = subprocess.run(
        [abidw, "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-parameter-names",
         "--exported-interfaces-only", "--drop-private-types", "--headers-dir", f"{root}/include", library],
        check=True, capture_output=True, text=True).stdout
    return text.replace(f"{root}/", "")


def difference(built):
    with tempfile.TemporaryDirectory() as scratch:
        suppressed, new = pathlib.Path(scratch) / "suppressed", pathlib.Path(scratch) / "new.abi"
        suppressed.write_text(SUPPRESSED, "utf-8")
        new.write_text(built, "utf-8")
        done = subprocess.run([abidiff, "--no-added-syms", "--suppressions", suppressed, kept, new],
                              capture_output=True, text=True)
    return done.stdout + done.stderr if done.returncode != 0 else None


if "--keep" in options:
    kept.write_text(interface(), "utf-8")
else:
    sys.exit(difference(interface()))
