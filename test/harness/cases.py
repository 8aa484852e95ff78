#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs case files (test/README.md): each case sets up the simulated board,
sends requests to one ipmi-oem-host and checks the answers and what the
requests left behind.

    cases.py FILE...                 run them; environment: OEM_HOST,
                                     OEM_MKSANDBOX, START_SIM_BUS,
                                     BMC_DBUS_SIM, OEM_EXE_WRAPPER
    cases.py --requests FILE...      print every request as NETFN CMD BYTE...
"""

import argparse
import difflib
import fcntl
import fnmatch
import os
import re
import select
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

TIMEOUT = 120  # seconds a request may take before the host counts as hung
COMMAND_LOG = "/var/log/sim/commands.log"
CALL_LOG = "/var/log/sim/dbus-calls.log"
# Written by the bus processes themselves; never restored.
UNTRACKED = ("/proc", "/run/dbus", "/var/log/sim/dbus-daemon.log",
             "/var/log/sim/bmc-dbus-sim.log")
SANITIZER = re.compile(r"ERROR: (Address|Leak)Sanitizer|runtime error:")


class Failure(Exception):
    pass


# ---- the notation -----------------------------------------------------------

ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "0": "\0", "\\": "\\", '"': '"'}


def unquote(text):
    """The bytes of a "..." string (quotes included)."""
    out = bytearray()
    i = 1
    while i < len(text) - 1:
        c = text[i]
        if c == "\\":
            e = text[i + 1]
            if e == "x":
                out.append(int(text[i + 2:i + 4], 16))
                i += 4
                continue
            if e not in ESCAPES:
                raise Failure(f"unknown escape \\{e}")
            out += ESCAPES[e].encode()
            i += 2
            continue
        out += c.encode()
        i += 1
    return bytes(out)


TOKEN = re.compile(r'\s*(?:("(?:[^"\\]|\\.)*")(\*\d+)?|(#.*)|(\S+))')


def tokens(text):
    """Words of a line; a string with its repeat stays one token; # outside a
    string ends the line."""
    out = []
    pos = 0
    text = text.rstrip()
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if not m or m.end() == pos:
            raise Failure(f"cannot read {text[pos:]!r}")
        pos = m.end()
        if m.group(3):
            break
        out.append(m.group(1) + (m.group(2) or "") if m.group(1) else m.group(4))
    return out


ANY = -1  # a byte an answer may hold anything in
REST = -2  # any number of bytes, to the end


def byte_list(words, pattern=False):
    """HH, 0xHH, "text", le16:N be16:N le32:N be32:N, each optionally *COUNT;
    in a pattern also ?? (any byte) and a final ... (anything after)."""
    out = []
    for word in words:
        if pattern and word == "...":
            out.append(REST)
            continue
        m = re.fullmatch(r"(.+?)\*(\d+)", word)
        base, count = (m.group(1), m.group(2)) if m else (word, "1")
        if base.startswith('"'):
            item = list(unquote(base))
        elif pattern and base == "??":
            item = [ANY]
        elif re.fullmatch(r"(le|be)(16|32):\S+", base):
            size = int(base[2:4]) // 8
            item = list(int(base[5:], 0).to_bytes(size, "little" if base[:2] == "le" else "big"))
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
        pattern = pattern[:-1]
        data = data[:len(pattern)]
    return len(pattern) == len(data) and all(p in (ANY, d) for p, d in zip(pattern, data))


def show(values):
    """Bytes as hex, 16 a line, with their text where printable."""
    lines = []
    for at in range(0, max(len(values), 1), 16):
        row = values[at:at + 16]
        hexes = " ".join({ANY: "??", REST: "..."}.get(b, f"{b:02x}") for b in row)
        text = "".join(chr(b) if 32 <= b < 127 else "." for b in row)
        lines.append(f"{at:4x}: {hexes:<47}  {text}")
    return lines


def diff(expected, got):
    return "\n".join(difflib.unified_diff(expected, got, "expected", "got", lineterm="", n=2))


# ---- case files -------------------------------------------------------------

class Step:
    def __init__(self, path, line, keyword, rest):
        self.path, self.line, self.keyword, self.rest = path, line, keyword, rest

    def where(self):
        return f"{self.path}:{self.line}"


class Case:
    def __init__(self, path, line, name):
        self.path, self.line, self.name, self.steps = path, line, name, []


REQUEST = re.compile(r"(?:0x)?[0-9a-fA-F]{1,2}\s")
RAW = ("ran", "called", "stderr", "dbus-fail", "sh", "define", "case")


def read_cases(path):
    cases = []
    defines = {}
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            text = line.strip()
            if not text or text.startswith("#"):
                continue
            for name in sorted(defines, key=len, reverse=True):
                text = text.replace("$" + name, defines[name])
            if REQUEST.match(text + " "):
                keyword, rest = "request", text
            else:
                keyword, _, rest = text.partition(" ")
                rest = rest.strip()
            if keyword == "define":
                name, _, value = rest.partition(" ")
                defines[name] = value.strip()
            elif keyword == "case":
                cases.append(Case(path, number, rest))
            elif not cases:
                raise Failure(f"{path}:{number}: {keyword} outside a case")
            else:
                cases[-1].steps.append(Step(path, number, keyword, rest))
    return cases


def request_of(step):
    """(netfn, cmd, data, cc, answer pattern) of a request line."""
    left, arrow, right = step.rest.partition("->")
    request = byte_list(tokens(left))
    answer = byte_list(tokens(right), pattern=True)
    if not arrow or len(request) < 2 or not answer or answer[0] < 0:
        raise Failure("a request reads NETFN CMD [BYTE...] -> CC [BYTE...]")
    return request[0], request[1], request[2:], answer[0], answer[1:]


# ---- the sandbox --------------------------------------------------------------

class Board:
    """A sandbox of the default board, its simulated D-Bus, and a record of
    its starting state to return to after every case."""

    def __init__(self, env):
        self.env = env
        self.root = tempfile.mkdtemp(prefix="oem-cases-")
        subprocess.run([env["OEM_MKSANDBOX"], "--force", self.root], check=True,
                       stdout=subprocess.DEVNULL)
        self.address = subprocess.run(
            [env["START_SIM_BUS"], "--sim", env["BMC_DBUS_SIM"], self.root],
            check=True, capture_output=True, text=True).stdout.strip()
        self.start = self.snapshot()
        self.dbus_changed = False
        time.sleep(0.02)  # later writes get a later modification time

    def close(self):
        subprocess.run([self.env["START_SIM_BUS"], "--stop", self.root])
        shutil.rmtree(self.root, ignore_errors=True)

    def path(self, path):
        """The real path of a sandbox path, following its symbolic links
        inside the sandbox, never out of it."""
        parts = [p for p in path.split("/") if p]
        real = self.root
        for hops in range(64):
            if not parts:
                return real
            part = parts.pop(0)
            if part == "..":
                real = os.path.dirname(real) if real != self.root else real
                continue
            candidate = os.path.join(real, part)
            if os.path.islink(candidate):
                target = os.readlink(candidate)
                if target.startswith("/"):
                    real = self.root
                parts = [p for p in target.split("/") if p] + parts
            else:
                real = candidate
        raise Failure(f"too many links in {path}")

    def walk(self):
        for top, dirs, files in os.walk(self.root):
            inner = top[len(self.root):] or "/"
            dirs[:] = [d for d in dirs if os.path.join(inner, d) not in UNTRACKED]
            for name in dirs + files:
                sandbox_path = os.path.join(inner, name)
                if sandbox_path not in UNTRACKED:
                    yield sandbox_path, os.path.join(top, name)

    def snapshot(self):
        state = {}
        for inner, real in self.walk():
            st = os.lstat(real)
            if os.path.islink(real):
                content = os.readlink(real)
            elif os.path.isfile(real):
                content = read_extents(real)
            else:
                content = None
            state[inner] = (st.st_mode, st.st_size, st.st_mtime_ns, content)
        return state

    def restore(self):
        """Undoes every change since the start: files are rewritten in place
        (a process may hold them open), new ones removed."""
        for inner, real in sorted(self.walk(), reverse=True):
            if inner not in self.start:
                remove(real)
        for inner in sorted(self.start):
            mode, size, mtime, content = self.start[inner]
            real = self.root + inner
            try:
                st = os.lstat(real)
                if (st.st_mode, st.st_size, st.st_mtime_ns) == (mode, size, mtime):
                    continue
            except FileNotFoundError:
                st = None
            if isinstance(content, str):
                if st:
                    remove(real)
                os.symlink(content, real)
                continue
            if content is None:
                if st is None or not os.path.isdir(real):
                    if st:
                        remove(real)
                    os.mkdir(real)
            else:
                if st is not None and not os.path.isfile(real):
                    remove(real)
                write_extents(real, size, content)
            os.chmod(real, mode & 0o7777)
            os.utime(real, ns=(mtime, mtime))

    def restart_dbus(self):
        """A fresh simulator on the same bus: its properties as the board has
        them, the host's connection kept."""
        pidfile = self.root + "/run/dbus/bmc-dbus-sim.pid"
        with open(pidfile) as f:
            pid = int(f.read())
        os.kill(pid, signal.SIGTERM)
        for _ in range(500):
            try:
                os.kill(pid, 0)
            except ProcessLookupError:
                break
            time.sleep(0.01)
        ready_r, ready_w = os.pipe()
        log = open(self.root + "/var/log/sim/bmc-dbus-sim.log", "ab")
        sim = subprocess.Popen(
            [self.env["BMC_DBUS_SIM"], "--address", self.address, "--root", self.root,
             "--ready-fd", str(ready_w)],
            pass_fds=(ready_w,), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=log, start_new_session=True)
        os.close(ready_w)
        log.close()
        with os.fdopen(ready_r) as ready:
            if not ready.readline():
                raise Failure("bmc-dbus-sim did not start again")
        with open(pidfile, "w") as f:
            f.write(f"{sim.pid}\n")

    def control(self, method, signature, *args):
        result = subprocess.run(
            ["busctl", f"--address={self.address}", "call", "bmcsim.Control", "/bmcsim",
             "bmcsim.Control", method, signature, *args],
            capture_output=True, text=True, timeout=30)
        if result.returncode != 0:
            raise Failure(f"bmcsim.Control {method} {' '.join(args)}: {result.stderr.strip()}")
        return result.stdout.strip()


def read_extents(path):
    """[(offset, bytes)] of a file's data, skipping holes (/dev/mem is a
    sparse file of gigabytes)."""
    extents = []
    with open(path, "rb") as f:
        fd = f.fileno()
        end = os.fstat(fd).st_size
        at = 0
        while at < end:
            try:
                at = os.lseek(fd, at, os.SEEK_DATA)
            except OSError:
                break
            stop = os.lseek(fd, at, os.SEEK_HOLE)
            extents.append((at, os.pread(fd, stop - at, at)))
            at = stop
    return extents


def write_extents(path, size, extents):
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    try:
        for at, data in extents:
            os.pwrite(fd, data, at)
        os.ftruncate(fd, size)
    finally:
        os.close(fd)


def remove(real):
    if os.path.isdir(real) and not os.path.islink(real):
        shutil.rmtree(real)
    elif os.path.lexists(real):
        os.unlink(real)


def read_bytes(real):
    try:
        with open(real, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return None


def write_bytes(real, data, mode="wb"):
    os.makedirs(os.path.dirname(real), exist_ok=True)
    with open(real, mode) as f:
        f.write(bytes(data))


# ---- simulated I2C bus files (sim/i2c/README.md) ----------------------------

def parse_bus(text):
    """{address: (attributes, {register: (bytes, block)})}."""
    devices = {}
    device = None
    for number, line in enumerate(text.decode("latin-1").splitlines(), 1):
        words = tokens(line)
        if not words:
            continue
        if words[0] == "device":
            device = devices.setdefault(int(words[1], 16), ({}, {}))
            for attribute in words[2:]:
                key, _, value = attribute.partition("=")
                device[0][key] = value
        elif words[0] in ("reg", "block") and device is not None:
            value = b"".join(unquote(w) if w.startswith('"') else bytes([int(w, 16)])
                             for w in words[2:])
            device[1][int(words[1], 16)] = (value, words[0] == "block" or len(value) != 1)
        else:
            raise Failure(f"bus file line {number}: cannot read {line!r}")
    return devices


def format_bus(devices):
    out = []
    for address in sorted(devices):
        attributes, registers = devices[address]
        out.append(" ".join([f"device 0x{address:02x}"] +
                            [k + ("=" + v if v else "") for k, v in attributes.items()]))
        for reg in sorted(registers):
            value, block = registers[reg]
            keyword = "block" if block and len(value) < 2 else "reg"
            out.append(f"{keyword} 0x{reg:02x} " + " ".join(f"{b:02x}" for b in value))
        out.append("")
    return "\n".join(out)


def edit_bus(real, change=None):
    """Reads (and with change, rewrites) a bus file under the interposer's
    lock."""
    fd = os.open(real, os.O_RDWR | os.O_CREAT, 0o644)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        size = os.fstat(fd).st_size
        devices = parse_bus(os.pread(fd, size, 0))
        if change:
            change(devices)
            text = format_bus(devices).encode()
            os.ftruncate(fd, 0)
            os.pwrite(fd, text, 0)
        return devices
    finally:
        os.close(fd)


# ---- the host ----------------------------------------------------------------

class Host:
    """One ipmi-oem-host --batch in the sandbox; one request at a time."""

    def __init__(self, board, options=()):
        wrapper = shlex.split(os.environ.get("OEM_EXE_WRAPPER", ""))
        # Coverage runs hand descriptor 9 (the real root) to every program.
        keep = (9,) if fd_open(9) else ()
        self.process = subprocess.Popen(
            wrapper + [board.env["OEM_HOST"], "--root", board.root, "--bus", board.address,
                       *options, "--batch"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            pass_fds=keep)
        self.options = tuple(options)
        self.out = b""
        for stream in (self.process.stdout, self.process.stderr):
            os.set_blocking(stream.fileno(), False)

    def request(self, netfn, cmd, data):
        """(answer line, stderr text) of one request."""
        line = " ".join(f"0x{b:02x}" for b in [netfn, cmd] + data) + "\n"
        err = b""
        try:
            self.process.stdin.write(line.encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            pass
        deadline = time.monotonic() + TIMEOUT
        while b"\n" not in self.out:
            left = deadline - time.monotonic()
            ready, _, _ = select.select([self.process.stdout, self.process.stderr], [], [],
                                        max(left, 0))
            if not ready:
                raise Failure(f"no answer in {TIMEOUT} s\n{err.decode(errors='replace')}")
            for stream in ready:
                chunk = os.read(stream.fileno(), 65536)
                if stream is self.process.stdout:
                    if not chunk:
                        err += self.drain()
                        raise Failure("the host ended:\n" + err.decode(errors="replace"))
                    self.out += chunk
                else:
                    err += chunk
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
        """Ends the host the way the daemon ends: at end of input, so that
        coverage counts are written."""
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass
        try:
            self.process.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def fd_open(fd):
    try:
        os.fstat(fd)
        return True
    except OSError:
        return False


# ---- running a case -----------------------------------------------------------

class Run:
    def __init__(self, board):
        self.board = board
        self.host = None
        self.stderr = ""
        self.new = {}  # log path -> lines the last request added

    def ensure_host(self, options=()):
        if self.host and (self.host.options != tuple(options) or
                          self.host.process.poll() is not None):
            self.host.close()
            self.host = None
        if not self.host:
            self.host = Host(self.board, options)

    def log_size(self, path):
        real = self.board.path(path)
        return os.path.getsize(real) if os.path.exists(real) else 0

    def case(self, case):
        """Runs a case; returns the failure message, or None."""
        board = self.board
        options = ()
        if case.steps and case.steps[0].keyword == "host":
            options = shlex.split(case.steps[0].rest)
        self.ensure_host(options)
        self.new = {COMMAND_LOG: [], CALL_LOG: []}
        self.stderr = ""
        pending = {}  # keyword -> (first step, expected lines)
        steps = case.steps[1:] if options else case.steps
        step = None
        try:
            for step in steps + [None]:
                keyword = step.keyword if step else None
                for key in [k for k in pending if k != keyword]:
                    self.check_lines(*pending.pop(key), key)
                if step is None:
                    break
                if keyword in ("ran", "called"):
                    pending.setdefault(keyword, (step, []))[1].append(step.rest)
                    continue
                self.step(step)
            return None
        except Failure as failure:
            where = step.where() if step else f"{case.path}:{case.line}"
            return f"{where}: case {case.name!r}: {failure}"
        finally:
            if board.dbus_changed:
                board.restart_dbus()
                board.dbus_changed = False
            board.restore()

    def check_lines(self, step, expected, keyword):
        got = self.new[COMMAND_LOG if keyword == "ran" else CALL_LOG]
        if expected == ["nothing"]:
            expected = []
        if got != expected:
            raise Failure(f"{keyword} lines differ\n{diff(expected, got)}")

    def step(self, step):
        board = self.board
        words = tokens(step.rest) if step.keyword not in RAW else None
        k = step.keyword
        if k == "request":
            self.send(step)
        elif k == "write" or k == "append":
            write_bytes(board.path(words[0]), byte_list(words[1:]), "ab" if k == "append" else "wb")
        elif k == "remove":
            remove(board.path(words[0]))
        elif k == "mkdir":
            os.makedirs(board.path(words[0]), exist_ok=True)
        elif k == "i2c":
            self.i2c(words)
        elif k == "poke":
            path, words = file_and_offset(words)
            with open(board.path(path), "r+b") as f:
                f.seek(int(words[0], 16))
                f.write(bytes(byte_list(words[1:])))
        elif k == "tool":
            name, what = words[0], words[1]
            data = byte_list(words[2:]) if what == "out" else (words[2] + "\n").encode()
            write_bytes(board.path(f"/var/sim/tools/{name}.{what}"), data)
        elif k == "state":
            self.state(words[0], words[1:])
        elif k == "dbus-fail":
            write_bytes(board.path("/var/sim/dbus/failures"), (step.rest + "\n").encode(), "ab")
        elif k == "dbus-set":
            service, path, interface, prop, kind = words[:5]
            value = dbus_value(kind, step.rest.split(None, 5)[5] if len(words) > 5 else "")
            board.control("SetProperty", "ssssv", service, path, interface, prop, kind, value)
            board.dbus_changed = True
        elif k == "dbus-remove":
            board.control("Remove", "ssss", *(words + ["", ""])[:4])
            board.dbus_changed = True
        elif k == "sh":
            chroot = ["chroot", board.root, "/bin/sh", "-c", step.rest]
            if os.geteuid() != 0:
                chroot = ["unshare", "-r"] + chroot
            result = subprocess.run(chroot, capture_output=True, timeout=60)
            if result.returncode != 0:
                raise Failure(f"sh exited {result.returncode}: {result.stderr.decode()}")
        elif k == "file":
            got = read_bytes(board.path(words[0]))
            expected = byte_list(words[1:], pattern=True)
            if got is None or not matches(expected, list(got)):
                raise Failure(f"{words[0]} differs\n" + (
                    "(missing)" if got is None else diff(show(expected), show(list(got)))))
        elif k == "absent":
            if os.path.lexists(board.path(words[0])):
                raise Failure(f"{words[0]} is there")
        elif k == "register":
            bus, address, reg = int(words[0]), int(words[1], 16), int(words[2], 16)
            device = edit_bus(board.path(f"/dev/i2c-{bus}")).get(address, ({}, {}))
            got = device[1].get(reg, (None,))[0]
            if words[3:] == ["none"]:
                if got is not None:
                    raise Failure(f"register {words[2]} holds {got.hex(' ')}")
            elif got is None or not matches(byte_list(words[3:], True), list(got)):
                raise Failure(f"register {words[2]} of {words[1]} on bus {bus}: " +
                              ("none" if got is None else got.hex(" ")))
        elif k == "memory":
            path, words = file_and_offset(words)
            expected = byte_list(words[1:], pattern=True)
            with open(board.path(path), "rb") as f:
                f.seek(int(words[0], 16))
                got = list(f.read(len(expected)))
            if not matches(expected, got):
                raise Failure(f"{path} at {words[0]} differs\n{diff(show(expected), show(got))}")
        elif k == "stderr":
            lines = self.stderr.splitlines()
            if step.rest == "nothing":
                if lines:
                    raise Failure("stderr:\n" + self.stderr)
            elif not any(fnmatch.fnmatchcase(line, step.rest) for line in lines):
                raise Failure(f"no stderr line matches {step.rest!r}; stderr:\n{self.stderr}")
        elif k == "property":
            service, path, interface, prop, kind = words[:5]
            got = board.control("GetProperty", "ssss", service, path, interface, prop)
            value = dbus_value(kind, step.rest.split(None, 5)[5] if len(words) > 5 else "")
            expected = f"v {kind} " + (json_quote(value) if kind in "sog" else value)
            if got != expected:
                raise Failure(f"property {prop}: expected {expected}, got {got}")
        else:
            raise Failure(f"unknown keyword {k!r}")

    def i2c(self, words):
        bus, address = int(words[0]), int(words[1], 16)

        def change(devices):
            attributes, registers = devices.setdefault(address, ({}, {}))
            what = words[2]
            if what == "absent":
                del devices[address]
            elif what == "answers":
                attributes.pop("noanswer", None)
                attributes.pop("fail", None)
            elif what == "noanswer":
                attributes["noanswer"] = ""
            elif what.startswith("fail="):
                attributes["fail"] = what[5:]
            elif words[3:] == ["none"]:
                registers.pop(int(what, 16), None)
            else:
                value = bytes(byte_list(words[3:]))
                registers[int(what, 16)] = (value, len(value) != 1)

        edit_bus(self.board.path(f"/dev/i2c-{bus}"), change)

    def state(self, path, assignments):
        real = self.board.path(path)
        lines = (read_bytes(real) or b"").decode().splitlines()
        for assignment in assignments:
            key = assignment.partition("=")[0]
            lines = [line for line in lines if not line.startswith(key + "=")] + [assignment]
        write_bytes(real + ".new", ("\n".join(lines) + "\n").encode())
        os.rename(real + ".new", real)

    def send(self, step):
        netfn, cmd, data, cc, pattern = request_of(step)
        sizes = {path: self.log_size(path) for path in (COMMAND_LOG, CALL_LOG)}
        answer, self.stderr = self.host.request(netfn, cmd, data)
        for path, size in sizes.items():
            real = self.board.path(path)
            with open(real, "rb") if os.path.exists(real) else open(os.devnull, "rb") as f:
                f.seek(size)
                self.new[path] = f.read().decode(errors="replace").splitlines()
        if any(" org.freedesktop.DBus.Properties Set " in line for line in self.new[CALL_LOG]):
            self.board.dbus_changed = True
        if SANITIZER.search(self.stderr):
            raise Failure("sanitizer report:\n" + self.stderr)
        got = [int(word, 16) for word in answer.split()]
        if not got or got[0] != cc or not matches(pattern, got[1:]):
            raise Failure("answer differs\n" + diff(show([cc] + pattern), show(got)) +
                          (f"\nstderr:\n{self.stderr}" if self.stderr else ""))


def file_and_offset(words):
    """The file of a poke or memory step (/dev/mem unless a path comes first)
    and the rest of its words."""
    if words and words[0].startswith("/"):
        return words[0], words[1:]
    return "/dev/mem", words


def dbus_value(kind, text):
    text = text.strip()
    if kind in "sog" and text.startswith('"'):
        return unquote(text).decode()
    return text


def json_quote(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


# ---- main ---------------------------------------------------------------------

def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--requests", action="store_true",
                        help="print every request as NETFN CMD BYTE... and exit")
    parser.add_argument("-k", metavar="TEXT", help="run only cases whose name holds TEXT")
    parser.add_argument("files", nargs="+")
    args = parser.parse_args()
    try:
        files = [(path, read_cases(path)) for path in args.files]
        requests = [(step, request_of(step)) for _, cases in files for case in cases
                    for step in case.steps if step.keyword == "request"]
    except Failure as failure:
        print(failure, file=sys.stderr)
        return 2
    if args.requests:
        for _, (netfn, cmd, data, _, _) in requests:
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
