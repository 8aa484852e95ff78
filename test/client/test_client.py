#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""ipmi-oem as its users run it, against simulated BMCs over RMCP+: every
example of the command description, its bytes compared with what ipmitool
gets for the same request; the description against the plug-in's
registrations; argument checking; failures; the generated reference."""

import json
import os
import re
import socket
import subprocess
import tempfile
import unittest

CLIENT = os.environ["OEM_CLIENT"]
HOST = os.environ["OEM_HOST"]
BMC_SIM = os.environ["OEM_BMC_SIM"]
TOP = os.environ["OEM_SOURCE_ROOT"]
BUILD = os.environ["BMC_SIM_BUILD"]
with open(os.path.join(TOP, "client", "commands.json")) as f:
    COMMANDS = json.load(f)["commands"]


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def run(*args, env=None):
    return subprocess.run(args, capture_output=True, text=True, env=env, timeout=300)


class Sim:
    """One ./bmc-sim up on a port and a root of its own."""

    def __init__(self, work, name):
        self.root = os.path.join(work, name)
        self.port = str(free_udp_port())
        self.env = dict(os.environ, BMC_SIM_STATE=os.path.join(work, name + "-state"))
        up = run(BMC_SIM, "up", "--detach", "--port", self.port, "--root", self.root, env=self.env)
        if up.returncode != 0:
            raise RuntimeError(up.stdout + up.stderr)

    def lan(self):
        return ["-I", "lanplus", "-H", "127.0.0.1", "-p", self.port, "-U", "admin", "-P", "admin"]

    def down(self):
        run(BMC_SIM, "down", env=self.env)

    def file(self, path, mode="r"):
        with open(os.path.join(self.root, path.lstrip("/")), mode) as f:
            return f.read()


class Client(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory(prefix="client-test-")
        # Two boards alike: ipmi-oem talks to one, ipmitool to the other, so
        # that commands whose answer depends on the previous one (adding an
        # allow-list entry twice) still meet the same state.
        cls.a = Sim(cls.work.name, "a")
        cls.b = Sim(cls.work.name, "b")
        cls.answers = {}

    @classmethod
    def tearDownClass(cls):
        cls.a.down()
        cls.b.down()
        cls.work.cleanup()

    def client(self, *args, sim=None):
        return run(CLIENT, *((sim or self.a).lan()), *args)

    def test_1_description_names_exactly_the_registered_commands(self):
        registered = set()
        for line in run(HOST, "list").stdout.splitlines():
            netfn, cmd, _, handler = line.split()
            name = re.sub(r"^ipmi_(xo|vel)_oem_", "", handler)
            registered.add((int(netfn, 16), int(cmd, 16), name))
        listed = set()
        for line in run(CLIENT, "list").stdout.splitlines():
            name, netfn, cmd = line.split()[:3]
            listed.add((int(netfn, 16), int(cmd, 16), name))
        self.assertEqual(len(registered), 73)
        self.assertEqual(listed, registered)

    def test_2_every_example_over_rmcp_answers_as_ipmitool_does(self):
        for command in COMMANDS:
            name = command["name"]
            for args in command["examples"]:
                with self.subTest(command=name, args=args):
                    got = self.client("--json", name, *args)
                    self.assertIn(got.returncode, (0, 1), got.stderr)
                    out = json.loads(got.stdout)
                    request = [command["netfn"], command["cmd"]] + [
                        "0x" + b for b in out["request"].split()]
                    tool = run("ipmitool", "-C", "3", *self.b.lan(), "raw", *request)
                    if out["completion_code"] == 0:
                        self.assertEqual(tool.returncode, 0, tool.stderr)
                        self.assertEqual(tool.stdout.split(), out["answer"].split())
                        self.answers[(name, tuple(args))] = out["fields"]
                    else:
                        self.assertIn("rsp=0x%x)" % out["completion_code"], tool.stderr)

    def test_every_answer_layout_fits_what_the_plugin_answers(self):
        # Through the host library on a fresh board, where no transport
        # limits the answer's length.
        got = run(os.path.join(TOP, "client", "gen-reference"), "--json", BUILD)
        self.assertEqual(got.returncode, 0, got.stderr)
        used = set()
        for example in json.loads(got.stdout):
            with self.subTest(command=example["command"], args=example["arguments"]):
                command = next(c for c in COMMANDS if c["name"] == example["command"])
                self.assertEqual(example["completion_code"], 0)
                layout = example.get("layout")
                self.assertIsNotNone(layout, example)
                self.assertIn("fields", command["answer"][layout])
                used.add((command["name"], layout))
        for command in COMMANDS:
            for i, layout in enumerate(command["answer"]):
                if "fields" in layout:
                    self.assertIn((command["name"], i), used, "no example gives this layout")

    def psu_text(self, address, register):
        bus = self.a.file("/dev/i2c-8")
        device = bus.split("device 0x%02x" % address)[1].split("device")[0]
        text = re.search(r'reg 0x%02x "\\x[0-9a-f]{2}([^"]*)"' % register, device).group(1)
        return text.split("#")[0]

    def test_3_decoded_fields_agree_with_the_board(self):
        if not self.answers:
            self.skipTest("needs the examples' answers")
        a = self.answers
        psu = a[("get_psu_info", ("1",))]
        self.assertEqual((psu["model"], psu["vendor"], psu["serial"]),
                         (self.psu_text(0x59, 0x9a), self.psu_text(0x59, 0x99),
                          self.psu_text(0x59, 0x9e)))
        self.assertEqual((psu["location"], psu["capacity"], psu["state"]), ("Bottom", 800, "ok"))
        self.assertEqual(a[("get_bmc_uuid", ())]["uuid"], self.a.file("/etc/bmc-uuid").strip())
        eeprom = self.a.file("/usr/bin/eeprom", "rb")[0x3000:0x3010].hex()
        self.assertEqual(a[("get_system_uuid", ())]["uuid"].replace("-", ""), eeprom)
        line = self.a.file("/etc/fancontrol_param.conf").splitlines()[1].split(":")
        pid = a[("get_fan_pid_info", ("0x02",))]
        self.assertEqual(list(pid.values()), [int(x, 16) for x in line])
        options = dict(re.findall(r"(\w+)=(\d+)", self.a.file("/etc/default/obmc/future_bios_configure")))
        self.assertEqual({k: str(v) for k, v in a[("get_bios_configure", ())].items()}, options)
        version = re.search(r'"(.*)"', self.a.file("/run/psu0.version")).group(1)
        self.assertEqual(a[("psu_get_version", ("1",))]["version"], version)
        lines = [self.a.file("/sys/class/gpio/gpio%d/value" % n).strip() for n in (405, 402, 415, 413, 403)]
        self.assertEqual([str(v) for v in a[("get_cpu_status", ("0",))].values()], lines)
        self.assertEqual(a[("get_riser_info", ())]["risers"], {"riser 1": True, "riser 2": False})

    def test_bad_arguments_are_refused_before_anything_is_sent(self):
        cases = [
            (["get_psu_info"], "missing supply"),
            (["get_psu_info", "2"], "supply: 2 is not one of 0 (PSU 1), 1 (PSU 2)"),
            (["get_psu_info", "256"], "supply: 256 is out of range (0 to 255)"),
            (["get_psu_info", "1", "1"], "too many arguments, from '1' on"),
            (["get_psu_info", "one"], "supply: 'one' is not a number"),
            (["set_fan_config", "fixed", "8", "40"], "fan: 8 is out of range (0 to 7)"),
            (["set_fan_config", "0", "1", "101"], "duty: 101 is out of range (0 to 100)"),
            (["set_system_uuid", "1234"], "is not 32 hexadecimal digits"),
            (["set_onboard_nic", "0", "0011"], "data: 2 bytes, not 12"),
            (["set_default_user", "a;reboot"], "holds a character not allowed here"),
            (["set_default_user", "u" * 34], "34 characters, not 1 to 33"),
            (["set_middCard_info", "1", "0x11", "heat,1"], "type: 'heat' is not a number"),
            (["set_middCard_info", "1", "0x11", "temperature"], "is not type,value"),
            (["get_audit_log", "log=1", "index=201"], "index: 201 is out of range (0 to 200)"),
            (["no_such_command"], "no command no_such_command"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                # A root that does not exist: opening it would fail, so a
                # refusal shows the arguments were judged first.
                got = run(CLIENT, "--root", "/nonexistent", *args)
                self.assertEqual(got.returncode, 2, got.stderr)
                self.assertIn(message, got.stderr)

    def test_failures_print_the_commands_meaning_and_exit_1(self):
        cases = [
            (["get_fan_pid_info", "0x07"], "completion code 0x01: no line for this sensor"),
            (["cpld_get_version", "front", "3"], "completion code 0xff: the CPLD cannot be read"),
            (["get_jbod_i2c_data", "2", "0x41", "0"], "completion code 0x01: the device did not answer"),
            (["get_onboard_nic", "5"], "no record for this port"),
            (["get_mii_test", "1", "0", "duplex", "2"], "F (not set: auto-negotiation is on"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                got = self.client(*args)
                self.assertEqual(got.returncode, 1, got.stdout)
                self.assertIn(args[0] + ": " + message, got.stderr)
                self.assertEqual(got.stdout, "")
                as_json = self.client("--json", *args)
                self.assertEqual(as_json.returncode, 1)
                self.assertIn(message.split(": ")[-1], json.loads(as_json.stdout)["failure"])

    def test_reference_is_current(self):
        regenerate = os.path.join(TOP, "client", "gen-reference")
        got = run(regenerate, BUILD)
        self.assertEqual(got.returncode, 0, got.stderr)
        with open(os.path.join(TOP, "docs", "commands.md")) as f:
            committed = f.read()
        if got.stdout != committed:
            self.fail("docs/commands.md is stale; regenerate it with:\n"
                      "  client/gen-reference %s > docs/commands.md" % BUILD)


if __name__ == "__main__":
    unittest.main(verbosity=2)
