"""A file that says which interpreter runs it is executable, and no other; shell scripts parse.

Usage: check_scripts.py ROOT
"""

import os
import pathlib
import subprocess
import sys

root = pathlib.Path(sys.argv[1])
WANTED = {".ci/run", "scripts/demo", "scripts/test", "scripts/bench", "scripts/soak"}
faults, found = [], set()
for folder in (".ci", "scripts", "tests", "tools", "bench", "examples"):
    for path in sorted((root / folder).rglob("*")):
        if not path.is_file() or "__pycache__" in path.parts:
            continue
        name = path.relative_to(root).as_posix()
        with path.open("rb") as file:
            first = file.readline()
        if first.startswith(b"#!") != os.access(path, os.X_OK):
            faults.append(f"{name}: an interpreter line and the right to execute go together")
        if first.startswith(b"#!"):
            found.add(name)
            shell = "bash" if b"bash" in first else "sh"
            done = subprocess.run([shell, "-n", path], capture_output=True, text=True)
            if done.returncode != 0:
                faults.append(f"{name}: {done.stderr}")
faults += [f"{name}: missing" for name in sorted(WANTED - found)]
sys.exit("\n".join(faults) or None)
