#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The parts of scripts/bench that are easier in Python: picking the OEM
command for the round trip, timing ipmitool, and writing the Markdown."""

import json
import os
import platform
import statistics
import subprocess
import sys
import time


def commands(results):
    """(kind, netfn, cmd, request, microseconds, processes, cc) per command."""
    rows = []
    for b in results["benchmarks"]:
        parts = b["name"].split("/")
        if parts[0] != "command":
            continue
        rows.append((parts[1], parts[2], parts[3], parts[4],
                     b["real_time"], b.get("processes", 0), int(b.get("cc", 0))))
    return rows


def pick(path):
    rows = [r for r in commands(json.load(open(path)))
            if r[0] == "file" and r[6] == 0]
    rows.sort(key=lambda r: r[4])
    if not rows:
        sys.exit("no file-only command answered 0x00")
    kind, netfn, cmd, request, *_ = rows[0]
    data = [] if request == "-" else [
        "0x" + request[i:i + 2] for i in range(0, len(request), 2)]
    print(" ".join([netfn, cmd] + data))


def roundtrip(port, request, rounds=40):
    base = ["ipmitool", "-I", "lanplus", "-C", "3", "-H", "127.0.0.1",
            "-p", port, "-U", "admin", "-P", "admin", "raw"]
    oem = base + request.split()
    own = base + ["0x06", "0x01"]
    times = {"oem": [], "own": []}
    for _ in range(rounds):
        # Interleaved, so that a change of load hits both alike.
        for key, argv in (("oem", oem), ("own", own)):
            start = time.perf_counter()
            subprocess.run(argv, check=True, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
            times[key].append(time.perf_counter() - start)
    json.dump({"request": request, "rounds": rounds, "times": times},
              sys.stdout)


def machine():
    model = "unknown"
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    return model


def page(bench_path, trip_path, load, commit):
    results = json.load(open(bench_path))
    trip = json.load(open(trip_path))
    out = []
    w = out.append
    w(f"Measured {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())} at "
      f"commit {commit}; machine: {os.cpu_count()} CPUs ({machine()}), "
      f"kernel {platform.release()}, load average {load} at the start "
      f"(the machine is shared: treat the numbers as upper bounds).")
    w("")
    w("Forwarder (CPU ns per call, the no-op override or the cheapest default "
      "handler behind it; the forwarder's share is the difference):")
    w("")
    w("| path | direct call | through the forwarder | forwarder's share |")
    w("|---|---|---|---|")
    fw = {}
    for b in results["benchmarks"]:
        parts = b["name"].split("/")
        if parts[0] == "forwarder":
            fw[(parts[1], parts[2])] = (b["cpu_time"], parts[3])
    for case, label in (("without_override", "without override (default handler)"),
                        ("with_override", "with override (no-op)")):
        direct_key = "direct_default" if case == "without_override" else "direct_override"
        direct, name = fw[(case, direct_key)]
        via, _ = fw[(case, "via_forwarder")]
        w(f"| {label}, `{name}` | {direct:.1f} | {via:.1f} | {via - direct:+.1f} |")
    w("")
    w("Per command, in one host process (`oemhost::dispatch`, including its "
      "request buffer of exactly the request's size and its zero-filled "
      "64 KiB response buffer), by what the command reached: "
      "`shell` started processes, `dbus` called the bus, `i2c` made "
      "transfers, `file` none of these. Request: the one of the seed corpus "
      "or plain shapes that did the most work (hex, `-` empty).")
    w("")
    rows = commands(results)
    kinds = {}
    for r in rows:
        kinds.setdefault(r[0], []).append(r)
    w("| kind | commands | median µs | max µs |")
    w("|---|---|---|---|")
    for kind in sorted(kinds):
        t = [r[4] for r in kinds[kind]]
        w(f"| {kind} | {len(t)} | {statistics.median(t):.1f} | {max(t):.1f} |")
    w("")
    w("| NetFn | cmd | request | kind | cc | µs | processes per call |")
    w("|---|---|---|---|---|---|---|")
    for r in sorted(rows, key=lambda r: (r[0], r[4])):
        w(f"| {r[1]} | {r[2]} | {r[3][:24]} | {r[0]} | 0x{r[6]:02x} | "
          f"{r[4]:.1f} | {r[5]:.1f} |")
    w("")
    oem = statistics.median(trip["times"]["oem"]) * 1000
    own = statistics.median(trip["times"]["own"]) * 1000
    w(f"Round trip through `ipmitool -I lanplus -C 3` and the ipmi_sim bridge "
      f"(median of {trip['rounds']} interleaved runs, each a whole ipmitool "
      f"session): OEM `raw {trip['request']}` {oem:.1f} ms, ipmi_sim's own "
      f"Get Device ID `raw 0x06 0x01` {own:.1f} ms, ratio {oem / own:.2f}.")
    print("\n".join(out))


if __name__ == "__main__":
    what = sys.argv[1]
    if what == "pick":
        pick(sys.argv[2])
    elif what == "roundtrip":
        roundtrip(sys.argv[2], sys.argv[3])
    elif what == "page":
        page(*sys.argv[2:6])
