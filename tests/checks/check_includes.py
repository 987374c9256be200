"""Includes point down: a folder sees only the folders that its row below names.

Usage: check_includes.py ROOT
"""

import pathlib
import re
import sys

LOW = {"include", "layout", "util"}
MAY_SEE = {
    "include": set(),
    "layout": {"include"},
    "util": {"include", "layout"},
    "hash": LOW,
    "tong": LOW,
    "core": LOW | {"hash", "tong"},
    "api": LOW | {"hash", "tong", "core"},
    "jni": LOW | {"tong", "core"},
    "profile": LOW | {"core"},
    "collector": LOW | {"hash"},
    "tools": LOW | {"hash", "collector"},
    "examples": {"include"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.M)


def row_of(path):
    """Of a file given relative to the root; src/ has a row for each of its folders."""
    return path.parts[1] if path.parts[0] == "src" else path.parts[0]


def faults_of(root, source):
    row = row_of(source.relative_to(root))
    if row not in MAY_SEE:
        yield f"MAY_SEE has no row for {row}"
        return
    for quote, name in INCLUDE.findall(source.read_text("utf-8")):
        places = (source.parent, root / "src", root / "include", root)
        found = [p / name for p in places if (p / name).is_file() and ".." not in name]
        seen = row_of(found[0].relative_to(root)) if found else None
        if quote == '"' and not found:
            yield f'"{name}" is no file of the project by its full name'
        if found and seen != row and seen not in MAY_SEE[row]:
            yield f"{row} must not see {seen} ({name})"


root = pathlib.Path(sys.argv[1])
folders = ("include", "src", "collector", "tools", "examples")
files = [f for folder in folders for f in sorted((root / folder).rglob("*"))]
sources = [f for f in files if f.suffix in (".h", ".c", ".cpp")]
faults = [] if sources else [f"no sources under {root}"]
faults += [f"{source}: {fault}" for source in sources for fault in faults_of(root, source)]
sys.exit("\n".join(faults) or None)
