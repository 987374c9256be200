"""clang-tidy finds nothing in the library, the collector and the tool.

Usage: check_tidy.py ROOT BUILD CLANG_TIDY
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile

FOLDERS = ("src", "collector", "tools")
# Clang has no execution character set but UTF-8.
NOT_FOR_CLANG = "-fexec-charset=EUC-KR"

root, build, clang_tidy = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
commands = [
    {**entry, "command": entry["command"].replace(NOT_FOR_CLANG, "")}
    for entry in json.loads((build / "compile_commands.json").read_text("utf-8"))
    if pathlib.Path(entry["file"]).relative_to(root).parts[0] in FOLDERS
]
if not commands:
    sys.exit(f"no compile commands for {FOLDERS} in {build}")


def tidy(source):
    done = subprocess.run(
        [clang_tidy, "--quiet", "-p", scratch, source],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
    )
    return done.stdout if done.returncode != 0 else None


with tempfile.TemporaryDirectory() as scratch:
    (pathlib.Path(scratch) / "compile_commands.json").write_text(json.dumps(commands), "utf-8")
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        found = list(filter(None, pool.map(tidy, [entry["file"] for entry in commands])))
sys.exit("\n".join(found) or None)
