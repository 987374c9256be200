"""Every header compiles alone, and twice in a row; the public ones in every language they are for.

Usage: check_headers.py ROOT CC CXX JNI_INCLUDE_DIR
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys

STRICT = ["-fsyntax-only", "-Wall", "-Wextra", "-Werror"]
PUBLIC = {
    "varn/tran.h": ("c99", "c++98", "c++20"),
    "varn/sttl.h": ("c99", "c++98", "c++20"),
    "varn/tran.hpp": ("c++17", "c++20"),
}


def compile_alone(command, header):
    source = f'#include "{header}"\n' * 2
    done = subprocess.run(command, input=source, capture_output=True, text=True)
    return f"{' '.join(command)}: {header}\n{done.stderr}" if done.returncode != 0 else None


def jobs(root, cc, cxx, jni):
    include, src = root / "include", root / "src"
    for header, standards in PUBLIC.items():
        for standard in standards:
            compiler, language = (cxx, "c++") if "+" in standard else (cc, "c")
            yield [compiler, f"-std={standard}", *STRICT, "-pedantic", f"-I{include}", f"-x{language}", "-"], header
    inside = [cxx, "-std=c++20", *STRICT, f"-I{include}", f"-I{src}", f"-I{root}", f"-isystem{jni}",
              f"-isystem{jni}/linux", "-xc++", "-"]
    for folder, base in ((src, src), (root / "collector", root)):
        headers = sorted(folder.rglob("*.h"))
        if not headers:
            sys.exit(f"no headers under {folder}")
        for header in headers:
            yield inside, header.relative_to(base).as_posix()


with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
    results = list(pool.map(lambda job: compile_alone(*job), jobs(pathlib.Path(sys.argv[1]), *sys.argv[2:])))
sys.exit("\n".join(filter(None, results)) or None)
