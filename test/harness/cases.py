#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs case files (test/README.md): each case sets up the simulated board,
sends requests to one ipmi-oem-host and checks the answers and what the
requests left behind.

    cases.py [-k TEXT] FILE...       run them; environment: OEM_HOST,
                                     OEM_MKSANDBOX, START_SIM_BUS,
                                     BMC_DBUS_SIM, OEM_EXE_WRAPPER
    cases.py --requests FILE...      print every request as NETFN CMD BYTE...
"""

import argparse
import collections
import difflib
import fcntl
import fnmatch
import itertools
import os
import re
import select
import shlex
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

TIMEOUT = 120  # seconds a request may take before the host counts as hung
COMMANDS = "/var/log/sim/commands.log"
CALLS = "/var/log/sim/dbus-calls.log"
TRANSFERS = "/var/log/sim/i2c-transfers.log"  # the interposer's, through I2CSIM_LOG
LOGS = {"ran": COMMANDS, "called": CALLS, "transferred": TRANSFERS}
# Written by the bus processes themselves; never restored.
UNTRACKED = ("/proc", "/run/dbus", "/var/log/sim/dbus-daemon.log",
             "/var/log/sim/bmc-dbus-sim.log", TRANSFERS)
SANITIZER = re.compile(r"ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:")
RAW = ("ran", "called", "transferred", "stderr", "dbus-fail", "sh")  # the line as it is


class Failure(Exception):
    pass


# ---- the notation -------------------------------------------------------------

ESCAPES = {"n": b"\n", "t": b"\t", "r": b"\r", "0": b"\0", "\\": b"\\", '"': b'"'}


def unquote(text):
    """The bytes of a "..." string, quotes included."""
    out, i = bytearray(), 1
    while i < len(text) - 1:
        if text[i] != "\\":
            out += text[i].encode()
            i += 1
        elif text[i + 1] == "x":
            out.append(int(text[i + 2:i + 4], 16))
            i += 4
        elif text[i + 1] in ESCAPES:
            out += ESCAPES[text[i + 1]]
            i += 2
        else:
            raise Failure(f"unknown escape \\{text[i + 1]}")
    return bytes(out)


TOKEN = re.compile(r'\s*(?:("(?:[^"\\]|\\.)*"(?:\*\d+)?)|(#.*)|(\S+))')


def tokens(text):
    """The words of a line; a string (with its repeat) is one word, and a #
    outside a string ends the line."""
    out, pos, text = [], 0, text.rstrip()
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if not m or m.end() == pos:
            raise Failure(f"cannot read {text[pos:]!r}")
        if m.group(2):
            break
        out.append(m.group(1) or m.group(3))
        pos = m.end()
    return out


ANY, REST = -1, -2  # a byte that may hold anything; anything to the end


def byte_list(words, pattern=False):
    """HH, 0xHH, "text", le16:N be16:N le32:N be32:N, each with an optional
    *COUNT; in a pattern also ?? and a final ..."""
    out = []
    for word in words:
        if pattern and word == "...":
            out.append(REST)
            continue
        m = re.fullmatch(r"(.+?)\*(\d+)", word)
        base, count = m.groups() if m else (word, "1")
        if base.startswith('"'):
            item = list(unquote(base))
        elif pattern and base == "??":
            item = [ANY]
        elif re.fullmatch(r"(le|be)(16|32):\S+", base):
            item = list(int(base[5:], 0).to_bytes(int(base[2:4]) // 8,
                                                  "little" if base[0] == "l" else "big"))
        elif re.fullmatch(r"(0x)?[0-9a-fA-F]{1,2}", base):
            item = [int(base, 16)]
        else:
            raise Failure(f"not a byte: {word!r}")
        out += item * int(count)
    if REST in out[:-1]:
        raise Failure("... must come last")
    return out


def matches(pattern, data):
    if pattern and pattern[-1] == REST:
        pattern, data = pattern[:-1], data[:len(pattern) - 1]
    return len(pattern) == len(data) and all(p in (ANY, d) for p, d in zip(pattern, data))


def show(values):
    """Bytes as hex, 16 a line, with their text."""
    lines = []
    for at in range(0, max(len(values), 1), 16):
        row = values[at:at + 16]
        hexes = " ".join({ANY: "??", REST: "..."}.get(b, f"{b:02x}") for b in row)
        text = "".join(chr(b) if 32 <= b < 127 else "." for b in row)
        lines.append(f"{at:4x}: {hexes:<47}  {text}")
    return lines


def diff(expected, got):
    return "\n".join(difflib.unified_diff(expected, got, "expected", "got", lineterm="", n=2))


# ---- case files -----------------------------------------------------------------

Step = collections.namedtuple("Step", "path line keyword rest")
Case = collections.namedtuple("Case", "path line name steps")
REQUEST = re.compile(r"(?:0x)?[0-9a-fA-F]{1,2}\s")


def read_cases(path):
    cases, defines, lists = [], {}, {}
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            text = line.strip()
            if not text or text.startswith("#"):
                continue
            for name in sorted(defines, key=len, reverse=True):
                text = text.replace("$" + name, defines[name])
            keyword, _, rest = text.partition(" ")
            if REQUEST.match(text + " "):
                keyword, rest = "request", text
            if keyword == "define":
                name, _, value = rest.strip().partition(" ")
                defines[name] = value.strip()
            elif keyword == "list":
                name, _, item = rest.strip().partition(" ")
                item = " ".join(tokens(item))
                lists.setdefault(name, []).extend(
                    lists[item[1:]] if item[:1] == "@" and item[1:] in lists else [item])
            elif keyword == "case":
                cases.append(Case(path, number, rest.strip(), []))
            elif not cases:
                raise Failure(f"{path}:{number}: {keyword} outside a case")
            else:
                cases[-1].steps.append(Step(path, number, keyword, rest.strip()))
    return [one for case in cases for one in each_item(case, lists)]


def each_item(case, lists):
    """A case that names lists (@NAME) once for every combination of their
    items."""
    text = "\n".join([case.name] + [step.rest for step in case.steps])
    used = [name for name in lists if re.search(rf"@{name}\b", text)]
    for items in itertools.product(*(lists[name] for name in used)):
        def fill(text):
            for name, item in zip(used, items):
                text = re.sub(rf"@{name}\b", lambda _: item, text)
            return text
        title = fill(case.name) + "".join(
            f" [{item}]" for name, item in zip(used, items) if "@" + name not in case.name)
        yield Case(case.path, case.line, title,
                   [step._replace(rest=fill(step.rest)) for step in case.steps])


def request_of(step):
    """(netfn, cmd, data, cc, answer pattern) of a request line."""
    left, arrow, right = step.rest.partition("->")
    request, answer = byte_list(tokens(left)), byte_list(tokens(right), pattern=True)
    if not arrow or len(request) < 2 or not answer or answer[0] < 0:
        raise Failure("a request reads NETFN CMD [BYTE...] -> CC [BYTE...]")
    return request[0], request[1], request[2:], answer[0], answer[1:]


# ---- the sandbox ------------------------------------------------------------------

def read_extents(path):
    """[(offset, bytes)] of a file's data without its holes (/dev/mem is a
    sparse file of gigabytes)."""
    extents = []
    with open(path, "rb") as f:
        end, at = os.fstat(f.fileno()).st_size, 0
        while at < end:
            try:
                at = os.lseek(f.fileno(), at, os.SEEK_DATA)
            except OSError:
                break
            stop = os.lseek(f.fileno(), at, os.SEEK_HOLE)
            extents.append((at, os.pread(f.fileno(), stop - at, at)))
            at = stop
    return extents


def remove(real):
    if os.path.isdir(real) and not os.path.islink(real):
        shutil.rmtree(real)
    elif os.path.lexists(real):
        os.unlink(real)


def write_bytes(real, data, mode="wb"):
    os.makedirs(os.path.dirname(real), exist_ok=True)
    with open(real, mode) as f:
        f.write(bytes(data))


class Board:
    """A sandbox of the default board with its simulated D-Bus, and what it
    held at the start, to go back to after every case."""

    def __init__(self, env):
        self.env = env
        self.root = tempfile.mkdtemp(prefix="oem-cases-")
        subprocess.run([env["OEM_MKSANDBOX"], "--force", self.root], check=True,
                       stdout=subprocess.DEVNULL)
        self.address = subprocess.run(
            [env["START_SIM_BUS"], "--sim", env["BMC_DBUS_SIM"], self.root],
            check=True, capture_output=True, text=True).stdout.strip()
        self.start = {}
        for inner, real in self.walk():
            st = os.lstat(real)
            content = (os.readlink(real) if os.path.islink(real) else
                       read_extents(real) if os.path.isfile(real) else None)
            self.start[inner] = (st.st_mode, st.st_size, st.st_mtime_ns, content)
        self.dbus_changed = False
        time.sleep(0.02)  # later writes get a later modification time

    def close(self):
        subprocess.run([self.env["START_SIM_BUS"], "--stop", self.root])
        shutil.rmtree(self.root, ignore_errors=True)

    def path(self, path):
        """The real path of a sandbox path, following its links inside the
        sandbox, never out of it."""
        parts, real = [p for p in path.split("/") if p], self.root
        for _ in range(64):
            if not parts:
                return real
            part = parts.pop(0)
            if part == "..":
                real = os.path.dirname(real) if real != self.root else real
            elif os.path.islink(os.path.join(real, part)):
                target = os.readlink(os.path.join(real, part))
                real = self.root if target.startswith("/") else real
                parts = [p for p in target.split("/") if p] + parts
            else:
                real = os.path.join(real, part)
        raise Failure(f"too many links in {path}")

    def walk(self):
        for top, dirs, files in os.walk(self.root):
            inner = top[len(self.root):] or "/"
            dirs[:] = [d for d in dirs if os.path.join(inner, d) not in UNTRACKED]
            for name in dirs + files:
                if os.path.join(inner, name) not in UNTRACKED:
                    yield os.path.join(inner, name), os.path.join(top, name)

    def restore(self):
        """Undoes every change since the start: files are rewritten in place
        (a process may hold them open), new ones removed."""
        for inner, real in sorted(self.walk(), reverse=True):
            if inner not in self.start:
                remove(real)
        for inner, (mode, size, mtime, content) in sorted(self.start.items()):
            real = self.root + inner
            st = os.lstat(real) if os.path.lexists(real) else None
            if st and (st.st_mode, st.st_size, st.st_mtime_ns) == (mode, size, mtime):
                continue
            kind = "link" if isinstance(content, str) else "dir" if content is None else "file"
            if st and kind != ("link" if os.path.islink(real) else
                               "dir" if os.path.isdir(real) else "file"):
                remove(real)
            if kind == "link":
                remove(real)
                os.symlink(content, real)
                continue
            if kind == "dir":
                os.makedirs(real, exist_ok=True)
            else:
                fd = os.open(real, os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
                for at, data in content:
                    os.pwrite(fd, data, at)
                os.ftruncate(fd, size)
                os.close(fd)
            os.chmod(real, mode & 0o7777)
            os.utime(real, ns=(mtime, mtime))
        if self.dbus_changed:
            self.restart_dbus()

    def changes(self, skip):
        """Sandbox paths that differ from the start: "+PATH" new, "-PATH"
        gone, "PATH" changed; those in skip, and what lies below them, are
        not looked at."""
        def skipped(inner):
            return any(inner == s or inner.startswith(s.rstrip("/") + "/") for s in skip)

        def same(inner, real):
            mode, size, mtime, content = self.start[inner]
            st = os.lstat(real)
            if (st.st_mode, st.st_size, st.st_mtime_ns) == (mode, size, mtime):
                return True
            now = (os.readlink(real) if os.path.islink(real) else
                   read_extents(real) if os.path.isfile(real) else None)
            return stat.S_IFMT(st.st_mode) == stat.S_IFMT(mode) and now == content

        out, seen = [], set()
        for inner, real in self.walk():
            seen.add(inner)
            if not skipped(inner) and not (inner in self.start and same(inner, real)):
                out.append(("" if inner in self.start else "+") + inner)
        return out + ["-" + p for p in sorted(self.start) if p not in seen and not skipped(p)]

    def restart_dbus(self):
        """A fresh simulator, with the board's properties, on the same bus:
        the host keeps its connection."""
        pidfile = self.root + "/run/dbus/bmc-dbus-sim.pid"
        with open(pidfile) as f:
            pid = int(f.read())
        os.kill(pid, signal.SIGTERM)
        for _ in range(500):
            try:
                # A simulator of an earlier restart is our child: until it
                # is reaped it stays a zombie and seems alive.
                if os.waitpid(pid, os.WNOHANG)[0]:
                    break
            except ChildProcessError:
                pass
            try:
                os.kill(pid, 0)
                time.sleep(0.01)
            except ProcessLookupError:
                break
        ready, ready_w = os.pipe()
        with open(self.root + "/var/log/sim/bmc-dbus-sim.log", "ab") as log:
            sim = subprocess.Popen(
                [self.env["BMC_DBUS_SIM"], "--address", self.address, "--root",
                 self.root, "--ready-fd", str(ready_w)], pass_fds=(ready_w,),
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=log,
                start_new_session=True)
        os.close(ready_w)
        with os.fdopen(ready) as f:
            if not f.readline():
                raise Failure("bmc-dbus-sim did not start again")
        with open(pidfile, "w") as f:
            f.write(f"{sim.pid}\n")
        self.dbus_changed = False

    def control(self, method, signature, *args):
        result = subprocess.run(
            ["busctl", f"--address={self.address}", "call", "--", "bmcsim.Control", "/bmcsim",
             "bmcsim.Control", method, signature, *args],
            capture_output=True, text=True, timeout=30)
        if result.returncode != 0:
            raise Failure(f"bmcsim.Control {method} {' '.join(args)}: {result.stderr}")
        return result.stdout.strip()


# ---- simulated I2C bus files (sim/i2c/README.md) ----------------------------

def parse_bus(text):
    """{address: ({attribute: value}, {register: (bytes, block)})}."""
    devices, device = {}, None
    for number, line in enumerate(text.decode("latin-1").splitlines(), 1):
        words = tokens(line)
        if words and words[0] == "device":
            device = devices.setdefault(int(words[1], 16), ({}, {}))
            device[0].update(w.partition("=")[::2] for w in words[2:])
        elif words and words[0] in ("reg", "block") and device:
            value = b"".join(unquote(w) if w[0] == '"' else bytes([int(w, 16)])
                             for w in words[2:])
            device[1][int(words[1], 16)] = (value, words[0] == "block" or len(value) != 1)
        elif words:
            raise Failure(f"bus file line {number}: cannot read {line!r}")
    return devices


def edit_bus(real, change=None):
    """Reads (and with change, rewrites) a bus file under the interposer's
    lock."""
    fd = os.open(real, os.O_RDWR | os.O_CREAT, 0o644)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        devices = parse_bus(os.pread(fd, os.fstat(fd).st_size, 0))
        if change:
            change(devices)
            out = []
            for address, (attributes, registers) in sorted(devices.items()):
                out.append(" ".join([f"device 0x{address:02x}"] +
                                    [k + ("=" + v if v else "") for k, v in attributes.items()]))
                out += [("block" if block and len(value) < 2 else "reg") + f" 0x{reg:02x} " +
                        value.hex(" ") for reg, (value, block) in sorted(registers.items())]
            os.ftruncate(fd, 0)
            os.pwrite(fd, ("\n".join(out) + "\n").encode(), 0)
        return devices
    finally:
        os.close(fd)


# ---- the host ---------------------------------------------------------------------

class Host:
    """One ipmi-oem-host --batch in the sandbox, one request at a time."""

    def __init__(self, board, options=()):
        wrapper = shlex.split(os.environ.get("OEM_EXE_WRAPPER", ""))
        env = dict(os.environ, I2CSIM_LOG=TRANSFERS)
        # scripts/coverage: the counts go out of the sandbox through
        # descriptor 9, open on the real root.
        keep = (9,) if "OEM_GCOV_PREFIX" in env else ()
        if keep:
            env["GCOV_PREFIX"] = env["OEM_GCOV_PREFIX"]
        self.options, self.out = tuple(options), b""
        self.process = subprocess.Popen(
            wrapper + [board.env["OEM_HOST"], "--root", board.root, "--bus", board.address,
                       *options, "--batch"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            pass_fds=keep, env=env)
        for stream in (self.process.stdout, self.process.stderr):
            os.set_blocking(stream.fileno(), False)

    def request(self, netfn, cmd, data):
        """The answer line of a request, and what it printed on stderr."""
        line = " ".join(f"0x{b:02x}" for b in [netfn, cmd] + data) + "\n"
        err, deadline = b"", time.monotonic() + TIMEOUT
        try:
            self.process.stdin.write(line.encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            pass
        while b"\n" not in self.out:
            streams = [self.process.stdout, self.process.stderr]
            ready = select.select(streams, [], [], max(deadline - time.monotonic(), 0))[0]
            if not ready:
                raise Failure(f"no answer in {TIMEOUT} s\n" + err.decode(errors="replace"))
            for stream in ready:
                chunk = os.read(stream.fileno(), 65536)
                if stream is self.process.stderr:
                    err += chunk
                elif chunk:
                    self.out += chunk
                else:
                    raise Failure("the host ended:\n" +
                                  (err + self.drain()).decode(errors="replace"))
        answer, _, self.out = self.out.partition(b"\n")
        # What the request printed was written before its answer line.
        return answer.decode(), (err + self.drain()).decode(errors="replace")

    def drain(self):
        data = b""
        while select.select([self.process.stderr], [], [], 0)[0]:
            chunk = os.read(self.process.stderr.fileno(), 65536)
            if not chunk:
                break
            data += chunk
        return data

    def close(self):
        """Ends at the end of input, as the daemon would end, so that
        coverage counts are written."""
        try:
            self.process.stdin.close()
            self.process.wait(timeout=30)
        except (BrokenPipeError, subprocess.TimeoutExpired):
            self.process.kill()
            self.process.wait()


# ---- running a case ------------------------------------------------------------------

class Run:
    def __init__(self, board):
        self.board, self.host, self.stderr, self.new, self.output = board, None, "", {}, b""

    def case(self, case):
        """Runs a case; the failure message, or None."""
        steps, options = case.steps, ()
        if steps and steps[0].keyword == "host":
            steps, options = steps[1:], tuple(shlex.split(steps[0].rest))
        if self.host and (self.host.options != options or self.host.process.poll() is not None):
            self.host.close()
            self.host = None
        self.host = self.host or Host(self.board, options)
        self.new, self.stderr, step = {log: [] for log in LOGS.values()}, "", None
        try:
            # Consecutive ran (called, transferred) steps list the lines of
            # one request.
            for keyword, group in groupby(steps):
                step = group[0]
                if keyword in LOGS:
                    got = self.new[LOGS[keyword]]
                    expected = [s.rest for s in group if s.rest != "nothing"]
                    if got != expected:
                        raise Failure(f"{keyword} lines differ\n{diff(expected, got)}")
                    continue
                for step in group:
                    getattr(self, "do_" + keyword.replace("-", "_"), self.unknown)(step)
            return None
        except Failure as failure:
            where = f"{step.path}:{step.line}" if step else f"{case.path}:{case.line}"
            return f"{where}: case {case.name!r}: {failure}"
        finally:
            self.board.restore()

    def unknown(self, step):
        raise Failure(f"unknown keyword {step.keyword!r}")

    def words(self, step):
        return tokens(step.rest)

    # Set-up.
    def logged(self, action):
        """Runs action and keeps the log lines it added, for ran and
        called."""
        sizes = {}
        for log in LOGS.values():
            real = self.board.path(log)
            sizes[log] = os.path.getsize(real) if os.path.exists(real) else 0
        result = action()
        for log, size in sizes.items():
            real = self.board.path(log)
            with open(real if os.path.exists(real) else os.devnull, "rb") as f:
                f.seek(size)
                self.new[log] = f.read().decode(errors="replace").splitlines()
        # The process id of a transfer differs from run to run.
        self.new[TRANSFERS] = [re.sub(r" pid=\d+", "", l) for l in self.new[TRANSFERS]]
        if any(" org.freedesktop.DBus.Properties Set " in l for l in self.new[CALLS]):
            self.board.dbus_changed = True
        return result

    def do_request(self, step):
        netfn, cmd, data, cc, pattern = request_of(step)
        answer, self.stderr = self.logged(lambda: self.host.request(netfn, cmd, data))
        if SANITIZER.search(self.stderr):
            raise Failure("sanitizer report:\n" + self.stderr)
        got = [int(word, 16) for word in answer.split()]
        if not got or got[0] != cc or not matches(pattern, got[1:]):
            raise Failure("answer differs\n" + diff(show([cc] + pattern), show(got)) +
                          (f"\nstderr:\n{self.stderr}" if self.stderr else ""))

    def do_write(self, step, mode="wb"):
        words = self.words(step)
        write_bytes(self.board.path(words[0]), byte_list(words[1:]), mode)

    def do_append(self, step):
        self.do_write(step, "ab")

    def do_remove(self, step):
        remove(self.board.path(self.words(step)[0]))

    def do_mkdir(self, step):
        os.makedirs(self.board.path(self.words(step)[0]), exist_ok=True)

    def do_i2c(self, step):
        words = self.words(step)
        address, what = int(words[1], 16), words[2]

        def change(devices):
            attributes, registers = devices.setdefault(address, ({}, {}))
            if what == "absent":
                del devices[address]
            elif what in ("answers", "noanswer"):
                attributes.pop("noanswer", None)
                attributes.pop("fail", None)
                attributes.update({"noanswer": ""} if what == "noanswer" else {})
            elif "=" in what:
                attributes[what.partition("=")[0]] = what.partition("=")[2]
            elif words[3:] == ["none"]:
                registers.pop(int(what, 16), None)
            else:
                value = bytes(byte_list(words[3:]))
                registers[int(what, 16)] = (value, len(value) != 1)

        edit_bus(self.board.path(f"/dev/i2c-{int(words[0])}"), change)

    def do_poke(self, step):
        path, words = file_and_offset(self.words(step))
        with open(self.board.path(path), "r+b") as f:
            f.seek(int(words[0], 16))
            f.write(bytes(byte_list(words[1:])))

    def do_tool(self, step):
        name, what, *rest = self.words(step)
        data = byte_list(rest) if what == "out" else (rest[0] + "\n").encode()
        write_bytes(self.board.path(f"/var/sim/tools/{name}.{what}"), data)

    def do_state(self, step):
        path, *assignments = self.words(step)
        real = self.board.path(path)
        lines = open(real).read().splitlines() if os.path.exists(real) else []
        for assignment in assignments:
            key = assignment.partition("=")[0] + "="
            lines = [line for line in lines if not line.startswith(key)] + [assignment]
        write_bytes(real + ".new", ("\n".join(lines) + "\n").encode())
        os.rename(real + ".new", real)

    def do_dbus_fail(self, step):
        write_bytes(self.board.path("/var/sim/dbus/failures"), (step.rest + "\n").encode(), "ab")

    def do_dbus_set(self, step):
        service, path, interface, prop, kind, value = property_of(step)
        self.board.control("SetProperty", "ssssv", service, path, interface, prop, kind, value)
        self.board.dbus_changed = True

    def do_dbus_remove(self, step):
        self.board.control("Remove", "ssss", *(self.words(step) + ["", ""])[:4])
        self.board.dbus_changed = True

    def do_sh(self, step):
        command = ["chroot", self.board.root, "/bin/sh", "-c", step.rest]
        if os.geteuid() != 0:
            command = ["unshare", "-r"] + command
        result = self.logged(lambda: subprocess.run(command, capture_output=True, timeout=60))
        self.output = result.stdout
        if result.returncode != 0:
            raise Failure(f"sh exited {result.returncode}: {result.stderr.decode()}")

    # Checks.
    def do_file(self, step):
        words = self.words(step)
        real, expected = self.board.path(words[0]), byte_list(words[1:], pattern=True)
        got = list(open(real, "rb").read()) if os.path.isfile(real) else None
        if got is None or not matches(expected, got):
            raise Failure(f"{words[0]} differs\n" +
                          ("(missing)" if got is None else diff(show(expected), show(got))))

    def do_output(self, step):
        expected = byte_list(self.words(step), pattern=True)
        if not matches(expected, list(self.output)):
            raise Failure("output differs\n" + diff(show(expected), show(list(self.output))))

    def do_absent(self, step):
        if os.path.lexists(self.board.path(self.words(step)[0])):
            raise Failure(f"{step.rest} is there")

    def do_register(self, step):
        bus, address, reg, *value = self.words(step)
        devices = edit_bus(self.board.path(f"/dev/i2c-{int(bus)}"))
        got = devices.get(int(address, 16), ({}, {}))[1].get(int(reg, 16), (None,))[0]
        if value == ["none"] and got is None:
            return
        if value == ["none"] or got is None or not matches(byte_list(value, True), list(got)):
            raise Failure(f"register {reg} of {address} on bus {bus}: " +
                          ("none" if got is None else got.hex(" ")))

    def do_memory(self, step):
        path, words = file_and_offset(self.words(step))
        expected = byte_list(words[1:], pattern=True)
        with open(self.board.path(path), "rb") as f:
            f.seek(int(words[0], 16))
            got = list(f.read(len(expected)))
        if not matches(expected, got):
            raise Failure(f"{path} at {words[0]} differs\n{diff(show(expected), show(got))}")

    def do_stderr(self, step):
        text, lines = step.rest, self.stderr.splitlines()
        if text == "nothing":
            ok = not lines
        elif "*" in text:
            ok = any(fnmatch.fnmatchcase(line, text) for line in lines)
        else:
            ok = text in self.stderr
        if not ok:
            raise Failure(f"stderr does not hold {text!r}; stderr:\n{self.stderr}")

    def do_unchanged(self, step):
        changed = self.board.changes(self.words(step))
        if changed:
            raise Failure("the board changed: " + " ".join(changed))

    def do_property(self, step):
        service, path, interface, prop, kind, value = property_of(step)
        got = self.board.control("GetProperty", "ssss", service, path, interface, prop)
        if kind in "sog":
            value = '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'
        if got != f"v {kind} {value}":
            raise Failure(f"property {prop}: expected v {kind} {value}, got {got}")


def groupby(steps):
    """(keyword, [steps]) of runs of steps with the same keyword."""
    groups = []
    for step in steps:
        if groups and groups[-1][0] == step.keyword:
            groups[-1][1].append(step)
        else:
            groups.append((step.keyword, [step]))
    return groups


def file_and_offset(words):
    """The file of a poke or memory step (/dev/mem unless a path comes first)
    and the rest of its words."""
    if words and words[0].startswith("/"):
        return words[0], words[1:]
    return "/dev/mem", words


def property_of(step):
    """SERVICE PATH INTERFACE PROPERTY TYPE VALUE, the value being the rest
    of the line (a string may be quoted)."""
    parts = step.rest.split(None, 5) + [""]
    value = parts[5].strip()
    if parts[4] in "sog" and value.startswith('"'):
        value = unquote(value).decode()
    return parts[:5] + [value]


# ---- main ----------------------------------------------------------------------------

def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--requests", action="store_true",
                        help="print every request as NETFN CMD BYTE... and exit")
    parser.add_argument("-k", metavar="TEXT", help="run only cases whose name holds TEXT")
    parser.add_argument("files", nargs="+")
    args = parser.parse_args()
    try:
        files = [(path, read_cases(path)) for path in args.files]
        requests = [request_of(step) for _, cases in files for case in cases
                    for step in case.steps if step.keyword == "request"]
    except Failure as failure:
        print(failure, file=sys.stderr)
        return 2
    if args.requests:
        for netfn, cmd, data, _, _ in requests:
            print(" ".join(f"0x{b:02x}" for b in [netfn, cmd] + data))
        return 0

    env = {name: os.environ[name]
           for name in ("OEM_HOST", "OEM_MKSANDBOX", "START_SIM_BUS", "BMC_DBUS_SIM")}
    failed = total = 0
    for path, cases in files:
        board = Board(env)
        run = Run(board)
        try:
            for case in cases:
                if args.k and args.k not in case.name:
                    continue
                total += 1
                problem = run.case(case)
                if problem:
                    failed += 1
                    print(f"FAIL {problem}\n", flush=True)
        finally:
            if run.host:
                run.host.close()
            board.close()
    print(f"{total} cases, {failed} failed")
    return 1 if failed or not total else 0


if __name__ == "__main__":
    sys.exit(main())
