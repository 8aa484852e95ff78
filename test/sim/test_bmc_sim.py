#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The simulated BMC as a user drives it: ./bmc-sim up, a stock ipmitool over
RMCP+ on loopback, ./bmc-sim down."""

import os
import shutil
import socket
import subprocess
import tempfile
import unittest

BMC_SIM = os.environ["OEM_BMC_SIM"]
HOST = os.environ["OEM_HOST"]


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class SimulatedBmc(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="bmc-sim-test-")
        self.env = dict(os.environ, BMC_SIM_STATE=os.path.join(self.work, "state"))
        self.root = os.path.join(self.work, "root")
        self.port = free_udp_port()

    def tearDown(self):
        self.sim("down")
        shutil.rmtree(self.work, ignore_errors=True)

    def sim(self, *args, env=None):
        return subprocess.run([BMC_SIM, *args], env=env or self.env,
                              capture_output=True, text=True, timeout=120)

    def ipmitool(self, *raw, retries=()):
        return subprocess.run(
            ["ipmitool", "-I", "lanplus", "-C", "3", "-H", "127.0.0.1",
             "-p", str(self.port), "-U", "admin", "-P", "admin", *retries,
             "raw", *raw],
            capture_output=True, text=True, timeout=60)

    def test_ipmitool_reaches_the_plugin_as_the_host_does(self):
        env = dict(self.env, BMC_SIM_BRIDGE_OPTIONS="override=0x01=ipmi_oem_platform_test")
        up = self.sim("up", "--detach", "--port", str(self.port), "--root", self.root, env=env)
        self.assertEqual(up.returncode, 0, up.stdout + up.stderr)
        self.assertIn(f"-p {self.port} -U admin -P admin raw", up.stdout)
        # Data bytes and completion codes pass the bridge unchanged, and
        # ipmi_sim's own commands still answer.
        self.assertEqual(self.ipmitool("0x3a", "0x01", "0x99").stdout, " 0a 0b 0c 0d\n")
        self.assertTrue(self.ipmitool("0x06", "0x01").stdout.startswith(" 00 03"))
        bus = "unix:path=" + os.path.join(self.root, "run/dbus/system_bus_socket")
        for request in (["0x3a", "0x02", "0x01"], ["0x30", "0x16"], ["0x3a", "0x05"]):
            lan = self.ipmitool(*request)
            local = subprocess.run([HOST, "--root", self.root, "--bus", bus, "raw", *request],
                                   capture_output=True, text=True, timeout=60)
            self.assertEqual((lan.returncode, lan.stdout), (local.returncode, local.stdout))
            if lan.returncode != 0:
                self.assertIn(local.stderr.splitlines()[-1], lan.stderr, request)
        # regression: raw --root on a running simulator's root stopped its bus
        raw = self.sim("raw", "--root", self.root, "0x3a", "0x76")
        self.assertEqual((raw.returncode, raw.stdout), (0, " 00\n"), raw.stderr)
        self.assertEqual(self.ipmitool("0x3a", "0x76").stdout, " 00\n")

        self.assertEqual(self.sim("down").returncode, 0)
        self.assertEqual(self.sim("status").returncode, 1)
        gone = self.ipmitool("0x06", "0x01", retries=("-N", "1", "-R", "1"))
        self.assertNotEqual(gone.returncode, 0)
        self.assertTrue(os.path.isfile(os.path.join(self.root, "dev/mem")),
                        "a named root is kept after stop")

    def test_busy_port_create_and_raw(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as busy:
            busy.bind(("127.0.0.1", self.port))
            up = self.sim("up", "--detach", "--port", str(self.port))
            self.assertEqual(up.returncode, 1)
            self.assertIn("did not come up", up.stderr)
        self.assertEqual(self.sim("create", self.root).returncode, 0)
        raw = self.sim("raw", "--root", self.root, "0x3a", "0x05")
        self.assertEqual(raw.returncode, 1)
        self.assertIn("rsp=0xc1): Invalid command", raw.stderr)
        self.assertEqual(self.sim("create").returncode, 2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
