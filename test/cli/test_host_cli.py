#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""ipmi-oem-host and start-sim-bus as a user runs them: the listing, raw
requests printed the way ipmitool prints them, overrides, batch mode, the
daemon's buffer rules, the sandbox root and the simulated bus."""

import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

HOST = os.environ["OEM_HOST"]
PLUGIN = os.environ["OEM_PLUGIN"]
ECHO = os.environ["OEM_ECHO_PROVIDER"]
MKSANDBOX = os.environ["OEM_MKSANDBOX"]
START_SIM_BUS = os.environ["START_SIM_BUS"]
TABLE = os.path.join(os.path.dirname(MKSANDBOX), "..", "src", "oem", "command_table.hpp")


def host(*args, plugin=PLUGIN, stdin=None):
    return subprocess.run([HOST, "--plugin", plugin, *args], input=stdin,
                          capture_output=True, text=True, timeout=60)


class Host(unittest.TestCase):
    def test_lists_the_command_table_in_order_with_privilege_ff(self):
        # SLOT and OTHER entries register their forwarder, DIRECT ones the
        # default handler; NetFn 0x30 for OTHER.
        expected = []
        for kind, name, cmd in re.findall(r"\b(SLOT|DIRECT|OTHER)\((\w+), (0x\w+)\)",
                                          open(TABLE).read()):
            expected.append(f"{'0x30' if kind == 'OTHER' else '0x3a'} 0x{int(cmd, 16):02x} 0xff "
                            f"{'ipmi_vel_oem_' if kind == 'DIRECT' else 'ipmi_xo_oem_'}{name}")
        listing = host("list").stdout.splitlines()
        self.assertEqual(listing, expected)
        # The numbers the daemon routes, spelled out: a slip in the table
        # would move the listing and its expectation together.
        routed = sorted(line[2:9] for line in listing)
        self.assertEqual(" ".join(routed), "30 0x16 30 0xb1 30 0xb7 30 0xb8 30 0xb9 " + " ".join(
            "3a 0x" + cmd for cmd in "01 02 03 04 09 0a 12 13 14 15 16 17 20 21 22 23 24 25 26 27 "
            "28 30 31 32 33 41 42 43 45 46 47 48 49 50 51 52 53 54 55 56 57 58 60 61 62 63 64 65 "
            "66 67 68 70 71 72 75 76 77 78 79 80 81 82 83 84 91 94 95 96".split()))
        self.assertEqual(host("list", plugin=ECHO).stdout.split()[:3], ["0x3a", "0x01", "0x03"])
        missing = host("list", plugin="/nonexistent/libipmioem.so.0")
        self.assertEqual(missing.returncode, 1)
        self.assertIn("/nonexistent/libipmioem.so.0", missing.stderr)

    def test_raw_prints_like_ipmitool(self):
        result = host("raw", "0x3a", "0x05")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", (
            "Unable to send RAW command (channel=0x0 netfn=0x3a lun=0x0 cmd=0x5 rsp=0xc1): "
            "Invalid command\n")))
        for count, expected in [(0, "\n"), (3, " 00 01 02\n"),
                                (17, "".join(f" {i:02x}" for i in range(16)) + "\n 10\n")]:
            result = host("raw", "0x3a", "0x01", *map(str, range(count)), plugin=ECHO)
            self.assertEqual((result.returncode, result.stdout), (0, expected), count)
        # Bytes written under an error code are printed; the provider's own
        # standard output goes to standard error, away from them.
        result = host("raw", "0x3a", "0x02", "0xde", "0xad", plugin=ECHO)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, " de ad\n", (
            "echo provider: invalid field\nUnable to send RAW command (channel=0x0 netfn=0x3a "
            "lun=0x0 cmd=0x2 rsp=0xcc): Invalid data field in request\n")))
        result = host("--override", "0x01=ipmi_oem_platform_test", "raw", "58", "1", "0xff")
        self.assertEqual((result.returncode, result.stdout), (0, " 0a 0b 0c 0d\n"))

    def test_bad_arguments_and_overrides_are_refused(self):
        for args, code, message in [
            (["raw", "0x3a"], 2, "NETFN and CMD"),
            (["raw", "0x3a", "256"], 2, "invalid byte '256'"),
            (["raw", "0x3a", "0x01", "-1"], 2, "invalid byte '-1'"),
            (["raw", "0x3a", "0x01", "0xzz"], 2, "invalid byte '0xzz'"),
            (["--override", "0x01=no_such_handler", "raw", "0x3a", "1"], 1, "no_such_handler"),
            (["--override", "0xa0=ipmi_oem_platform_test", "raw", "0x3a", "1"], 1, "refused"),
            (["--override", "0x9f=ipmi_oem_platform_test", "raw", "0x3a", "5"], 1, "rsp=0xc1"),
            (["frobnicate"], 2, "usage"),
        ]:
            result = host(*args)
            self.assertEqual(result.returncode, code, args)
            self.assertIn(message, result.stderr, args)

    def test_batch_and_the_daemons_buffer_rules(self):
        big = "0x3a 0x01" + " 0x5a" * 65536
        requests = ["# comments and blank lines get no answer", "", "0x3a 0x01 1 2 0x10",
                    "0x3a 0x02 0xff", "0x3a 0x05", "0x3a", "0x3a 0x03", "0x3a 0x06",
                    "0x3a 0x04 1", big, big + " 0x5a"]
        result = host("--batch", plugin=ECHO, stdin="\n".join(requests) + "\n")
        self.assertEqual(result.stdout.splitlines()[:8], [
            "00 01 02 10", "cc ff", "c1", "error: a request needs NETFN and CMD",
            "ff",  # an escaping exception
            "ff",  # a response length past the capacity
            "00 a5",
            "00 " + " ".join(["5a"] * 65536)])
        self.assertEqual(result.stdout.splitlines()[8:], ["c7"])  # never reaches the handler
        self.assertEqual(result.returncode, 1)
        self.assertIn("handler of netfn 0x3a cmd 0x03 threw: asked to throw", result.stderr)
        self.assertIn("returned 65537 bytes, more than the 65536-byte capacity", result.stderr)
        # regression: requests came in a zero-filled 64 KiB buffer, so a read
        # past the request went unseen (checked where AddressSanitizer can see)
        for request in ["0x3a 0x07", "0x3a 0x07 1 2 3"]:
            result = host("raw", *request.split(), plugin=ECHO)
            if result.returncode == 0 or "rsp=0xc1" not in result.stderr:
                self.assertEqual((result.returncode, result.stdout), (0, " 01\n"), request)


class Sandbox(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="oem-cli-")
        subprocess.run([MKSANDBOX, "--force", self.root], check=True, capture_output=True)

    def tearDown(self):
        subprocess.run([START_SIM_BUS, "--stop", self.root])
        shutil.rmtree(self.root, ignore_errors=True)

    def test_requests_run_inside_the_root_with_its_bus(self):
        result = host("--root", self.root + "/none", "raw", "0x3a", "0x01")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot", result.stderr)
        address = subprocess.run([START_SIM_BUS, self.root], capture_output=True, text=True,
                                 check=True).stdout.strip()
        result = host("--root", self.root, "--bus", address, "raw", "0x3a", "0x76")
        self.assertEqual((result.returncode, result.stdout), (0, " 00\n"), result.stderr)
        # --stop ends the bus: the socket and the process ids go.
        subprocess.run([START_SIM_BUS, "--stop", self.root], check=True)
        self.assertFalse(os.path.exists(self.root + "/run/dbus/system_bus_socket"))
        self.assertFalse(os.path.exists(self.root + "/run/dbus/bmc-dbus-sim.pid"))
        result = host("--bus", address, "raw", "0x3a", "0x01")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot connect to D-Bus", result.stderr)

    def test_the_host_joins_the_bus_before_its_first_request(self):
        # Bug: the handshake waited for the first call, and the bus daemon
        # dropped a host idle past its authentication time-out (30 s).
        address = subprocess.run([START_SIM_BUS, self.root], capture_output=True, text=True,
                                 check=True).stdout.strip()
        started = subprocess.Popen([HOST, "--plugin", PLUGIN, "--root", self.root, "--bus",
                                    address, "--batch"], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            for _ in range(600):
                listed = subprocess.run(["busctl", f"--address={address}", "list", "--unique",
                                         "--no-legend"], capture_output=True, text=True)
                if " ipmi-oem-host " in listed.stdout:
                    break
                time.sleep(0.1)
            self.assertIn(" ipmi-oem-host ", listed.stdout)
            self.assertEqual(started.communicate("0x3a 0x76\n", timeout=60)[0], "00 00\n")
        finally:
            started.kill()
            started.wait()

    def test_a_broken_board_description_fails_the_start(self):
        with open(self.root + "/var/sim/dbus/objects.conf", "a") as f:
            f.write("service xyz.openbmc_project.Broken\nproperty Orphan s x\n")
        started = subprocess.run([START_SIM_BUS, self.root], capture_output=True, text=True)
        self.assertEqual((started.returncode, started.stdout), (1, ""))
        self.assertIn("bmc-dbus-sim did not start", started.stderr)
        with open(self.root + "/var/log/sim/bmc-dbus-sim.log") as f:
            self.assertIn("objects.conf:", f.read())


if __name__ == "__main__":
    unittest.main(verbosity=2)
