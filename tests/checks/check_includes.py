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
    "core": LOW | {"hash"},
    "api": LOW | {"hash", "core"},
    "profile": LOW | {"core"},
    "collector": LOW | {"hash"},
    "tools": LOW | {"hash", "collector"},
    "examples": {"include"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


def module_of(path):
    """The row of a file given relative to the root; src/ has a row for each of its folders."""
    return path.parts[1] if path.parts[0] == "src" else path.parts[0]


def target_of(root, source, name):
    """The project's file that an include names, relative to the root; None when there is none."""
    places = (source.parent, root / "src", root / "include", root)
    return next((f.relative_to(root) for f in (p / name for p in places) if f.is_file()), None)


def faults(root):
    sources = [
        f
        for folder in ("include", "src", "collector", "tools", "examples")
        for f in sorted((root / folder).rglob("*"))
        if f.suffix in (".h", ".c", ".cpp")
    ]
    if not sources:
        yield f"no sources under {root}"
    for source in sources:
        module = module_of(source.relative_to(root))
        if module not in MAY_SEE:
            yield f"{source}: MAY_SEE has no row for {module}"
            continue
        for number, line in enumerate(source.read_text("utf-8").splitlines(), 1):
            include = INCLUDE.match(line)
            if not include:
                continue
            quoted, name = include[1] == '"', include[2]
            target = None if ".." in name else target_of(root, source, name)
            if target is None:
                if quoted:
                    yield f'{source}:{number}: "{name}" is no file of the project by its full name'
                continue
            seen = module_of(target)
            if seen != module and seen not in MAY_SEE[module]:
                yield f"{source}:{number}: {module} must not see {seen} ({name})"


sys.exit("\n".join(faults(pathlib.Path(sys.argv[1]))) or None)
