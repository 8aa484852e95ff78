#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The simulated D-Bus as a developer uses it from a shell: start-sim-bus
starts it for a sandbox, ipmi-oem-host --bus hands it to the provider, the
provider's calls are answered (or failed) by the simulator and recorded in
the sandbox, and --stop ends it."""

import os
import shutil
import subprocess
import tempfile
import time
import unittest

HOST = os.environ["OEM_HOST"]
PROVIDER = os.environ["OEM_BUS_PROVIDER"]
MKSANDBOX = os.environ["OEM_MKSANDBOX"]
START_SIM_BUS = os.environ["START_SIM_BUS"]
STOP_SIM_BUS = os.path.join(os.path.dirname(START_SIM_BUS), "stop-sim-bus")
SIM = os.environ["BMC_DBUS_SIM"]

MODE = "xyz.openbmc_project.Control.Security.RestrictionMode"
MODE_PATH = "/xyz/openbmc_project/control/host0/restriction_mode"


def run(*args):
    return subprocess.run(args, capture_output=True, text=True, timeout=60)


class SimulatedBus(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="oem-dbus-")
        subprocess.run([MKSANDBOX, "--force", self.root], check=True, capture_output=True)

    def tearDown(self):
        run(START_SIM_BUS, "--stop", self.root)
        shutil.rmtree(self.root, ignore_errors=True)

    def start(self):
        started = run(START_SIM_BUS, "--sim", SIM, self.root)
        self.assertEqual(started.returncode, 0, started.stderr)
        address = started.stdout.strip()
        self.assertEqual(address, f"unix:path={self.root}/run/dbus/system_bus_socket")
        return address

    def host(self, address, *request):
        return run(HOST, "--plugin", PROVIDER, "--bus", address, "--root", self.root,
                   "raw", *request)

    def sandbox_file(self, path):
        with open(self.root + path) as f:
            return f.read()

    def test_the_provider_reads_the_board_through_the_host_connection(self):
        address = self.start()
        cases = [
            # Restriction mode "...Modes.None", found through GetObject.
            (["0x3a", "0x76"], " 4e 6f 6e 65\n"),
            # The seven fans' PWM targets, 102 each, in path order.
            (["0x3a", "0x31"], " 66 66 66 66 66 66 66\n"),
        ]
        for request, expected in cases:
            result = self.host(address, *request)
            self.assertEqual((result.returncode, result.stdout), (0, expected), result.stderr)

        record = self.sandbox_file("/var/log/sim/dbus-calls.log").splitlines()
        self.assertEqual(record[:2], [
            "xyz.openbmc_project.ObjectMapper /xyz/openbmc_project/object_mapper "
            f'xyz.openbmc_project.ObjectMapper GetObject "{MODE_PATH}" ["{MODE}"]',
            f"xyz.openbmc_project.Settings {MODE_PATH} org.freedesktop.DBus.Properties "
            f'Get "{MODE}" "RestrictionMode"',
        ])
        self.assertEqual(len(record), 2 + 1 + 7)

    def test_the_host_joins_the_bus_before_its_first_request(self):
        # Bug: the handshake waited for the first call, and the bus daemon
        # dropped a host idle past its authentication time-out (30 s).
        address = self.start()
        host = subprocess.Popen([HOST, "--plugin", PROVIDER, "--bus", address, "--root",
                                 self.root, "--batch"], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            for _ in range(600):
                listed = run("busctl", f"--address={address}", "list", "--unique", "--no-legend")
                if " ipmi-oem-host " in listed.stdout:
                    break
                time.sleep(0.1)
            self.assertIn(" ipmi-oem-host ", listed.stdout)
            answer, _ = host.communicate("0x3a 0x76\n", timeout=60)
            self.assertEqual(answer, "00 4e 6f 6e 65\n")
        finally:
            host.kill()
            host.wait()

    def test_an_injected_error_reaches_the_provider(self):
        address = self.start()
        with open(self.root + "/var/sim/dbus/failures", "w") as f:
            f.write('1 org.freedesktop.DBus.Error.AccessDenied "not now" * Get *RestrictionMode"\n')
        failed = self.host(address, "0x3a", "0x76")
        self.assertEqual(failed.returncode, 1)
        self.assertIn("sd_bus_call: org.freedesktop.DBus.Error.AccessDenied: not now",
                      failed.stderr)
        self.assertIn("rsp=0xff", failed.stderr)
        self.assertEqual(self.sandbox_file("/var/sim/dbus/failures"), "")
        again = self.host(address, "0x3a", "0x76")
        self.assertEqual((again.returncode, again.stdout), (0, " 4e 6f 6e 65\n"), again.stderr)

    def test_stop_ends_the_bus(self):
        address = self.start()
        stopped = run(STOP_SIM_BUS, self.root)
        self.assertEqual(stopped.returncode, 0, stopped.stderr)
        self.assertFalse(os.path.exists(self.root + "/run/dbus/system_bus_socket"))
        self.assertFalse(os.path.exists(self.root + "/run/dbus/bmc-dbus-sim.pid"))
        result = self.host(address, "0x3a", "0x76")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot connect to D-Bus", result.stderr)

    def test_a_broken_board_description_fails_the_start(self):
        with open(self.root + "/var/sim/dbus/objects.conf", "a") as f:
            f.write("service xyz.openbmc_project.Broken\nproperty Orphan s x\n")
        started = run(START_SIM_BUS, "--sim", SIM, self.root)
        self.assertEqual((started.returncode, started.stdout), (1, ""))
        self.assertIn("bmc-dbus-sim did not start", started.stderr)
        log = self.sandbox_file("/var/log/sim/bmc-dbus-sim.log")
        self.assertIn("objects.conf:", log)
        self.assertIn("property outside an interface", log)


if __name__ == "__main__":
    unittest.main(verbosity=2)
