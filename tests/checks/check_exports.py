"""The library exports what its headers declare and its version script lists, and is a quiet guest.

Usage: check_exports.py ROOT LIBRARY NM READELF COMPILER [JAVA]
"""

import pathlib
import re
import subprocess
import sys

# A guest brings no library into its host that the host may not have.
NEEDED = {"libc.so.6", "ld-linux-x86-64.so.2"}
# What readelf shows of a guest, by pattern, and what it is without.
WANTED = {
    r"\(SONAME\).*\[libvarn\.so\.\d+\]": "no SONAME of the form libvarn.so.N",
    r"\(FLAGS_1\)\s+Flags:.* NODELETE\b": "it may be unloaded",
    r"\(FLAGS_1\)\s+Flags:.* NOW\b": "it is not bound at once",
    "GNU_RELRO": "no GNU_RELRO segment",
    r"GNU_STACK.*\sRW\s": "the stack has to be executable",
}
UNWANTED = {
    r"\(TEXTREL\)": "its code has to be relocated",
    "STATIC_TLS": "it takes thread-local storage that a running process may not have",
}
# Of the C library, by what the compiler makes of the sources.
WANTED_IMPORTS = {
    "__stack_chk_fail": "its stack frames are not protected",
    "__vsnprintf_chk": "its buffers are not checked",
}
UNWANTED_IMPORTS = {"__cxa_atexit": "it does something when its host exits", "atexit": "the same"}
# The one that the compiler puts into every library; one of our own would run in every host.
MOST_INITIALISERS = 1
# The C library has empty ones, for a profiler to take their place.
MEANT_TO_REPLACE = {"__cyg_profile_func_enter", "__cyg_profile_func_exit"}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


ADAPTER = "com/vexholm/tran/api/TranApiAdapter"


def prototypes(header):
    text = re.sub(r"/\*.*?\*/", "", header.read_text("utf-8"), flags=re.S)
    text = re.sub(r"^[ \t]*#(?:.*\\\n)*.*$", "", text, flags=re.M)
    return set(re.findall(r"\bVARN_API\b[^;(\[]*?(\w+)\s*[(\[;]", text))


def telegram_fields(header):
    """Each row of the table is an object."""
    return set(re.findall(r"^\s*X\((_\w+),", header.read_text("utf-8"), re.M))


def native_methods(java_class):
    names = re.findall(r"\bnative\b[^;(]*?(\w+)\s*\(", java_class.read_text("utf-8"))
    return {f"Java_{ADAPTER.replace('/', '_')}_{name}" for name in names}


def declared(root):
    return (
        prototypes(root / "include/varn/tran.h")
        | prototypes(root / "src/jni/tran_jni.h")
        | telegram_fields(root / "include/varn/sttl.h")
        | native_methods(root / f"java/src/main/java/{ADAPTER}.java")
    )


def listed(version_script):
    """Pairs of name and version."""
    text = version_script.read_text("utf-8")
    return {
        (name, version)
        for version, body in re.findall(r"([\w.]+)\s*{(.*?)}", text, flags=re.S)
        for name in re.findall(r"\w+", body.partition("global:")[2].partition("local:")[0])
    }


def exported(nm, library):
    symbols = (line.split() for line in run(nm, "-D", "--defined-only", library).splitlines())
    names = {symbol[-1] for symbol in symbols if symbol[-2] != "A"}  # A: the versions' own names
    return {(name.partition("@")[0], name.rpartition("@")[2]) for name in names}


def differences(left_name, left, right_name, right):
    for item in sorted(left ^ right):
        places = (left_name, right_name) if item in left else (right_name, left_name)
        yield f"{item}: in {places[0]}, not in {places[1]}"


def guest_faults(readelf, library, exports):
    dynamic = run(readelf, "-dW", library)
    needed = set(re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic))
    yield from differences("the libraries needed", needed, "those that may be", NEEDED)
    initialisers = re.search(r"\(INIT_ARRAYSZ\)\s+(\d+)", dynamic)
    if initialisers and int(initialisers[1]) > 8 * MOST_INITIALISERS:
        yield f"{int(initialisers[1]) // 8} initialisers run when it is loaded"
    seen = dynamic + run(readelf, "-lW", library)
    for pattern, fault in WANTED.items():
        if not re.search(pattern, seen):
            yield fault
    for pattern, fault in UNWANTED.items():
        if re.search(pattern, dynamic):
            yield fault
    imports = set(re.findall(r"\sUND\s+(\w+)", run(readelf, "-W", "--dyn-syms", library)))
    yield from (fault for name, fault in WANTED_IMPORTS.items() if name not in imports)
    yield from (fault for name, fault in UNWANTED_IMPORTS.items() if name in imports)
    relocations = run(readelf, "-rW", library)
    for name in sorted(exports):
        if re.search(rf"\s{name}(@|\s|$)", relocations, flags=re.M):
            yield f"{name}: calls from inside may bind to a namesake of the host's"


def hosts_libraries(compiler, java=None):
    for name in ("libc.so.6", "libstdc++.so.6"):
        yield run(compiler, f"-print-file-name={name}").strip()
    if java:
        yield from pathlib.Path(java).resolve().parents[1].glob("lib/**/libjvm.so")


def faults(root, library, nm, readelf, *host):
    header = declared(root)
    script = listed(root / "cmake/varn.map")
    if not header:
        yield "no prototypes found in the headers"
    yield from differences("the headers", header, "varn.map", {name for name, _ in script})
    built = exported(nm, library)
    yield from differences("varn.map", script, "the library", built)
    names = {name for name, _ in built}
    yield from guest_faults(readelf, library, names)
    for installed in hosts_libraries(*host):
        namesakes = names & {name for name, _ in exported(nm, installed)}
        for name in sorted(namesakes - MEANT_TO_REPLACE):
            yield f"{name}: {installed} has one too, and a preloaded library would take its place"


root, *rest = sys.argv[1:]
sys.exit("\n".join(faults(pathlib.Path(root), *rest)) or None)
