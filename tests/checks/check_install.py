"""The package installs into any prefix, a program builds against it both ways and is traced.

Usage: check_install.py ROOT BUILD CMAKE GENERATOR CC
"""

import os
import pathlib
import shlex
import subprocess
import sys
import tempfile


def run(*command, **options):
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8", **options
    )
    if done.returncode != 0:
        sys.exit(f"{shlex.join(map(str, command))}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


def check(root, build, cmake, generator, cc, scratch):
    prefix = scratch / "prefix"
    run(cmake, "--install", build, "--prefix", prefix)
    sonames = list(prefix.rglob("libvarn.so.?"))
    if len(sonames) != 1:
        sys.exit(f"one libvarn.so.N wanted, found: {sonames}")
    lib = sonames[0].parent
    paths = {**os.environ, "LD_LIBRARY_PATH": lib, "PKG_CONFIG_PATH": lib / "pkgconfig"}

    source = root / "examples/cmake_consumer"
    folder = scratch / "build"
    run(cmake, "-G", generator, "-S", source, "-B", folder, f"-DCMAKE_PREFIX_PATH={prefix}")
    run(cmake, "--build", folder)
    with_cmake = folder / "consumer"
    with_pkg_config = scratch / "consumer"
    flags = shlex.split(run("pkg-config", "--cflags", "--libs", "varn", env=paths))
    run(cc, "-std=c99", "-Wall", "-Werror", source / "main.c", "-o", with_pkg_config, *flags)
    for program in (with_cmake, with_pkg_config):
        traced = (root / "tests/support/private_ipc.sh", prefix / "bin/varn", "run", "--", program)
        shown = run(*traced, env=paths)
        if "built against the installed library" not in shown:
            sys.exit(f"{program}: its event was not shown:\n{shown}")


with tempfile.TemporaryDirectory() as scratch:
    root, *tools = sys.argv[1:]
    check(pathlib.Path(root), *tools, pathlib.Path(scratch))
