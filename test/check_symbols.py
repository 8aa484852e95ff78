#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails if a provider has undefined dynamic symbols that the daemon would not
resolve: anything outside the daemon ABI, libc, the C++ runtime and
libsystemd (plus the sanitizer runtimes in a sanitized build). The daemon
silently skips a provider with one unresolved symbol."""

import glob
import os
import re
import shlex
import subprocess
import sys

# The daemon's functions have C++ linkage: their mangled names, with the
# handler length as unsigned int* (32-bit BMC) or unsigned long* (64-bit).
DAEMON_ABI = {
    "_Z27ipmid_get_sd_bus_connectionv",
    "_Z22ipmi_register_callbackhhPvPFhhhS_S_PjS_E16CommandPrivilege",
    "_Z22ipmi_register_callbackhhPvPFhhhS_S_PmS_E16CommandPrivilege",
}
# The daemon's sensor table hook is optional: not every daemon build has it,
# so the plug-in must reference it weakly (then a daemon without it still
# loads the plug-in, which sees an empty table). A strong reference would
# make the plug-in unloadable there.
OPTIONAL_DAEMON_HOOKS = {"ipmid_sensor_table"}
ALLOWED_LIBS = re.compile(
    r"^(libc\.so\.6|libm\.so\.6|libstdc\+\+\.so\.6|libgcc_s\.so\.1|"
    r"libsystemd\.so\.0|ld-linux[^ ]*|"
    r"libasan\.so\.\d+|libubsan\.so\.\d+|libtsan\.so\.\d+)$"
)


def run(*args):
    return subprocess.run(args, check=True, capture_output=True, text=True).stdout


def needed(path):
    return re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]", run("readelf", "-d", path))


def resolved_paths(path):
    # A foreign provider run under an emulator: its libraries are under the
    # emulator's root (-L), where ldd cannot look.
    wrapper = shlex.split(os.environ.get("OEM_EXE_WRAPPER", ""))
    if "-L" in wrapper:
        root = wrapper[wrapper.index("-L") + 1]
        found = (glob.glob(f"{root}/{d}/*/{lib}") for d in ("lib", "usr/lib") for lib in needed(path))
        return {os.path.basename(p[0]): p[0] for p in found if p}
    paths = {}
    for line in run("ldd", path).splitlines():
        m = re.match(r"\s*(\S+) => (/\S+)", line)
        if m:
            paths[m.group(1)] = m.group(2)
    return paths


def symbols(path, *flags):
    names = set()
    for line in run("nm", "-D", *flags, path).splitlines():
        fields = line.split()
        if not fields:
            continue
        kind, name = fields[-2], fields[-1]
        if kind in ("w", "v"):  # weak: may stay unresolved
            continue
        names.add(name.split("@")[0])
    return names


def main(plugin):
    problems = []
    libs = needed(plugin)
    for lib in libs:
        if not ALLOWED_LIBS.match(lib):
            problems.append(f"links {lib}, which the BMC's daemon does not provide")

    paths = resolved_paths(plugin)
    defined = set(DAEMON_ABI)
    for lib in libs:
        if ALLOWED_LIBS.match(lib) and lib in paths:
            defined |= symbols(paths[lib], "--defined-only")

    undefined = symbols(plugin, "--undefined-only")
    for name in sorted(undefined & OPTIONAL_DAEMON_HOOKS):
        problems.append(f"optional daemon hook {name} is not referenced weakly")
    for name in sorted(undefined - defined - OPTIONAL_DAEMON_HOOKS):
        problems.append(f"undefined symbol {name}")

    print(f"{plugin}: {len(undefined)} undefined symbols, needs {', '.join(libs)}")
    for problem in problems:
        print(f"  {problem}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
