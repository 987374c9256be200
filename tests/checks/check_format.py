"""The C and C++ sources are as clang-format would have them.

Usage: check_format.py ROOT CLANG_FORMAT
"""

import pathlib
import subprocess
import sys

FOLDERS = ("include", "src", "collector", "tools", "tests", "bench", "examples")

root, clang_format = pathlib.Path(sys.argv[1]), sys.argv[2]
sources = [
    f for folder in FOLDERS for f in sorted((root / folder).rglob("*")) if f.suffix in (".h", ".c", ".cpp")
]
if not sources:
    sys.exit(f"no sources under {root}")
sys.exit(subprocess.run([clang_format, "--dry-run", "-Werror", *sources]).returncode)
