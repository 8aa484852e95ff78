#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""ipmi-oem-host as a user runs it: the listing, raw requests printed the way
ipmitool prints them, overrides, batch mode and the sandbox root."""

import os
import shlex
import shutil
import subprocess
import tempfile
import unittest

# A prefix such as an emulator for a host of another architecture.
HOST = [*shlex.split(os.environ.get("OEM_EXE_WRAPPER", "")), os.environ["OEM_HOST"]]
PLUGIN = os.environ["OEM_PLUGIN"]
ECHO = os.environ["OEM_ECHO_PROVIDER"]
MKSANDBOX = os.environ["OEM_MKSANDBOX"]

# Registration order of the command set, as the daemon sees it.
REGISTRATIONS = """\
0x3a 0x09 ipmi_xo_oem_set_pci_dev
0x3a 0x0a ipmi_xo_oem_get_pci_dev
0x3a 0x01 ipmi_xo_oem_set_cpu_dev
0x3a 0x02 ipmi_xo_oem_get_cpu_dev
0x3a 0x03 ipmi_xo_oem_set_dimm_info
0x3a 0x04 ipmi_xo_oem_get_dimm_info
0x3a 0x12 ipmi_xo_oem_set_onboard_nic
0x3a 0x13 ipmi_xo_oem_get_onboard_nic
0x3a 0x14 ipmi_xo_oem_set_offboard_nic
0x3a 0x15 ipmi_xo_oem_get_offboard_nic
0x3a 0x24 ipmi_xo_oem_set_bmc_led
0x3a 0x23 ipmi_xo_oem_get_bmc_led
0x3a 0x25 ipmi_xo_oem_set_warn_led
0x3a 0x26 ipmi_xo_oem_get_warn_led
0x3a 0x16 ipmi_xo_oem_set_onboard_hdd
0x3a 0x17 ipmi_xo_oem_get_onboard_hdd
0x3a 0x22 ipmi_xo_oem_cpld_get_version
0x3a 0x20 ipmi_xo_oem_bios_set_version
0x3a 0x21 ipmi_xo_oem_bios_get_version
0x3a 0x27 ipmi_xo_oem_set_nic_dev
0x3a 0x28 ipmi_xo_oem_get_nic_dev
0x3a 0x30 ipmi_xo_oem_set_fan_config
0x3a 0x31 ipmi_xo_oem_get_fan_info
0x3a 0x32 ipmi_xo_oem_get_riser_info
0x3a 0x33 ipmi_xo_oem_get_explorer
0x3a 0x41 ipmi_xo_oem_get_exCard_info
0x3a 0x42 ipmi_xo_oem_set_middCard_info
0x3a 0x43 ipmi_xo_oem_get_middCard_info
0x3a 0x45 ipmi_xo_oem_get_boardCard_info
0x3a 0x46 ipmi_xo_oem_get_chassis_intrusion
0x3a 0x47 ipmi_xo_oem_get_fan_pid_info
0x3a 0x48 ipmi_xo_oem_set_fan_pid_info
0x3a 0x49 ipmi_xo_oem_get_system_uuid
0x3a 0x50 ipmi_xo_oem_set_system_uuid
0x3a 0x51 ipmi_xo_oem_get_p2a_switch
0x3a 0x52 ipmi_xo_oem_set_p2a_switch
0x3a 0x84 ipmi_xo_oem_get_cpld_update
0x3a 0x53 ipmi_xo_oem_get_bmc_uuid
0x3a 0x54 ipmi_xo_oem_get_bmc_sol_status
0x3a 0x55 ipmi_xo_oem_set_bmc_sol_status
0x3a 0x56 ipmi_xo_oem_get_high_temp_detect_status
0x3a 0x57 ipmi_xo_oem_set_high_temp_detect_status
0x3a 0x58 ipmi_xo_oem_get_psu_info
0x3a 0x60 ipmi_xo_oem_get_jbod_i2c_data
0x3a 0x61 ipmi_xo_oem_set_jbod_i2c_data
0x3a 0x62 ipmi_xo_oem_get_board_id
0x3a 0x63 ipmi_xo_oem_set_eth_status
0x3a 0x64 ipmi_xo_oem_set_default_user
0x3a 0x65 ipmi_xo_oem_get_gpio_value
0x3a 0x66 ipmi_xo_oem_set_gpio_value
0x3a 0x67 ipmi_xo_oem_get_cpu_status
0x3a 0x68 ipmi_xo_oem_get_bios_reset
0x3a 0x70 ipmi_xo_oem_set_reset_factory
0x3a 0x71 ipmi_xo_oem_get_bios_configure
0x3a 0x72 ipmi_xo_oem_set_bios_configure
0x3a 0x75 ipmi_xo_oem_set_restriction_mode
0x3a 0x76 ipmi_xo_oem_get_restriction_mode
0x3a 0x77 ipmi_xo_oem_get_sw_hw_version
0x3a 0x78 ipmi_xo_oem_get_ncsi_test
0x3a 0x80 ipmi_xo_oem_get_sys_status
0x3a 0x81 ipmi_xo_oem_get_psu_status
0x3a 0x79 ipmi_xo_oem_get_eeprom_test
0x3a 0x82 ipmi_xo_oem_get_mii_test
0x3a 0x83 ipmi_xo_oem_get_all_dimm_size
0x3a 0x91 ipmi_vel_oem_get_total_power
0x3a 0x94 ipmi_vel_oem_psu_get_version
0x3a 0x95 ipmi_vel_oem_get_ssh_status
0x3a 0x96 ipmi_vel_oem_set_ssh_status
0x30 0x16 ipmi_xo_oem_get_power_consumption
0x30 0xb1 ipmi_xo_oem_get_audit_log
0x30 0xb7 ipmi_xo_oem_set_allow_list
0x30 0xb8 ipmi_xo_oem_del_allow_list
0x30 0xb9 ipmi_xo_oem_get_allow_list
"""


def host(*args, plugin=PLUGIN, stdin=None):
    return subprocess.run(
        [*HOST, "--plugin", plugin, *args],
        input=stdin,
        capture_output=True,
        text=True,
        timeout=60,
    )


class Listing(unittest.TestCase):
    def test_lists_73_registrations_in_table_order_with_privilege_ff(self):
        result = host("list")
        self.assertEqual(result.returncode, 0, result.stderr)
        expected = [
            f"{netfn} {cmd} 0xff {name}"
            for netfn, cmd, name in (line.split() for line in REGISTRATIONS.splitlines())
        ]
        self.assertEqual(result.stdout.splitlines(), expected)

    def test_a_provider_that_cannot_be_loaded_is_an_error(self):
        result = host("list", plugin="/nonexistent/libipmioem.so.0")
        self.assertEqual(result.returncode, 1)
        self.assertIn("/nonexistent/libipmioem.so.0", result.stderr)


class Raw(unittest.TestCase):
    def test_unregistered_command_reports_invalid_command(self):
        result = host("raw", "0x3a", "0x05")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, "")
        self.assertEqual(
            result.stderr,
            "Unable to send RAW command (channel=0x0 netfn=0x3a lun=0x0 "
            "cmd=0x5 rsp=0xc1): Invalid command\n",
        )

    def test_override_makes_a_slot_answer_the_platform_test_bytes(self):
        for args in (["0x3a", "0x01"], ["58", "1"], ["0x3A", "0x01", "0xff", "7"]):
            result = host("--override", "0x01=ipmi_oem_platform_test", "raw", *args)
            self.assertEqual((result.returncode, result.stdout), (0, " 0a 0b 0c 0d\n"), args)

    def test_netfn_30_command_16_keeps_its_own_handler_when_slot_16_is_overridden(self):
        plain = host("raw", "0x30", "0x16")
        over = ["--override", "0x16=ipmi_oem_platform_test"]
        self.assertEqual(host(*over, "raw", "0x3a", "0x16").stdout, " 0a 0b 0c 0d\n")
        other = host(*over, "raw", "0x30", "0x16")
        self.assertEqual((other.returncode, other.stdout, other.stderr),
                         (plain.returncode, plain.stdout, plain.stderr))
        self.assertNotEqual(other.stdout, " 0a 0b 0c 0d\n")

    def test_bad_requests_and_overrides_are_refused(self):
        cases = [
            (["raw", "0x3a"], 2, "NETFN and CMD"),
            (["raw", "0x3a", "256"], 2, "invalid byte '256'"),
            (["raw", "0x3a", "0x01", "-1"], 2, "invalid byte '-1'"),
            (["raw", "0x3a", "0x01", "0xzz"], 2, "invalid byte '0xzz'"),
            (["--override", "0x01=no_such_handler", "raw", "0x3a", "1"], 1, "no_such_handler"),
            (["--override", "0xa0=ipmi_oem_platform_test", "raw", "0x3a", "1"], 1, "refused"),
            (["frobnicate"], 2, "usage"),
        ]
        for args, code, message in cases:
            result = host(*args)
            self.assertEqual(result.returncode, code, args)
            self.assertIn(message, result.stderr, args)

    def test_response_is_printed_sixteen_bytes_to_a_line(self):
        for count, expected in [
            (0, "\n"),
            (3, " 00 01 02\n"),
            (16, "".join(f" {i:02x}" for i in range(16)) + "\n"),
            (17, "".join(f" {i:02x}" for i in range(16)) + "\n 10\n"),
        ]:
            result = host("raw", "0x3a", "0x01", *[str(i) for i in range(count)], plugin=ECHO)
            self.assertEqual((result.returncode, result.stdout), (0, expected), count)

    def test_error_code_still_prints_the_bytes_the_handler_wrote(self):
        result = host("raw", "0x3a", "0x02", "0xde", "0xad", plugin=ECHO)
        self.assertEqual(result.returncode, 1)
        # The provider's own stdout diagnostics go to stderr, away from the
        # answer bytes.
        self.assertEqual(result.stdout, " de ad\n")
        self.assertEqual(
            result.stderr,
            "echo provider: invalid field\n"
            "Unable to send RAW command (channel=0x0 netfn=0x3a lun=0x0 "
            "cmd=0x2 rsp=0xcc): Invalid data field in request\n",
        )

    def test_escaping_exception_answers_ff(self):
        result = host("raw", "0x3a", "0x03", plugin=ECHO)
        self.assertEqual(result.returncode, 1)
        self.assertIn("threw: asked to throw", result.stderr)
        self.assertIn("rsp=0xff): Unspecified error", result.stderr)

    def test_lists_the_privilege_a_provider_asked_for(self):
        result = host("list", plugin=ECHO)
        self.assertEqual(result.stdout.splitlines()[0].split()[:3], ["0x3a", "0x01", "0x03"])


class Batch(unittest.TestCase):
    def test_answers_one_line_per_request(self):
        requests = "\n".join([
            "# comment lines and blank lines get no answer",
            "",
            "0x3a 0x01 1 2 0x10",
            "0x3a 0x02 0xff",
            "0x3a 0x05",
            "0x3a",
            "0x3a 0x01",
        ]) + "\n"
        result = host("--batch", plugin=ECHO, stdin=requests)
        self.assertEqual(result.stdout.splitlines(), [
            "00 01 02 10",
            "cc ff",
            "c1",
            "error: a request needs NETFN and CMD",
            "00",
        ])
        self.assertEqual(result.returncode, 1)


class SandboxRoot(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="oem-cli-")
        subprocess.run([MKSANDBOX, "--force", self.root], check=True, capture_output=True)

    def tearDown(self):
        shutil.rmtree(self.root, ignore_errors=True)

    def test_requests_run_inside_the_sandbox(self):
        over = ["--override", "0x01=ipmi_oem_platform_test"]
        result = host("--root", self.root, *over, "raw", "0x3a", "0x01")
        self.assertEqual((result.returncode, result.stdout), (0, " 0a 0b 0c 0d\n"), result.stderr)
        result = host("--root", self.root, "--batch", stdin="0x3a 0x05\n0x3a 0x01\n")
        self.assertEqual(result.stdout, "c1\n00 01\n")

    def test_missing_root_is_an_error(self):
        result = host("--root", self.root + "/none", "raw", "0x3a", "0x01")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot", result.stderr)

    def test_unreachable_bus_is_an_error(self):
        result = host("--bus", "unix:path=" + self.root + "/no-bus", "raw", "0x3a", "0x01")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot connect to D-Bus", result.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
