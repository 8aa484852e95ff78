// SPDX-License-Identifier: Apache-2.0
#pragma once

/*
 * The one table of the OEM command set, in registration order. Everything
 * that lists the commands (the slot enumeration, the forwarders, the
 * declarations of the default handlers, the registration) is generated from
 * it, so a command is described here and nowhere else.
 *
 *   SLOT(name, cmd)    NetFn 0x3A; the forwarder ipmi_xo_oem_<name> calls the
 *                      override installed in slot cmd, else
 *                      ipmi_vel_oem_<name>.
 *   DIRECT(name, cmd)  NetFn 0x3A; ipmi_vel_oem_<name> itself is registered.
 *   OTHER(name, cmd)   NetFn 0x30; the forwarder ipmi_xo_oem_<name> always
 *                      calls ipmi_vel_oem_<name>.
 */
#define IPMI_OEM_SLOT_COMMANDS(SLOT)                                           \
    SLOT(set_pci_dev, 0x09)                                                    \
    SLOT(get_pci_dev, 0x0A)                                                    \
    SLOT(set_cpu_dev, 0x01)                                                    \
    SLOT(get_cpu_dev, 0x02)                                                    \
    SLOT(set_dimm_info, 0x03)                                                  \
    SLOT(get_dimm_info, 0x04)                                                  \
    SLOT(set_onboard_nic, 0x12)                                                \
    SLOT(get_onboard_nic, 0x13)                                                \
    SLOT(set_offboard_nic, 0x14)                                               \
    SLOT(get_offboard_nic, 0x15)                                               \
    SLOT(set_bmc_led, 0x24)                                                    \
    SLOT(get_bmc_led, 0x23)                                                    \
    SLOT(set_warn_led, 0x25)                                                   \
    SLOT(get_warn_led, 0x26)                                                   \
    SLOT(set_onboard_hdd, 0x16)                                                \
    SLOT(get_onboard_hdd, 0x17)                                                \
    SLOT(cpld_get_version, 0x22)                                               \
    SLOT(bios_set_version, 0x20)                                               \
    SLOT(bios_get_version, 0x21)                                               \
    SLOT(set_nic_dev, 0x27)                                                    \
    SLOT(get_nic_dev, 0x28)                                                    \
    SLOT(set_fan_config, 0x30)                                                 \
    SLOT(get_fan_info, 0x31)                                                   \
    SLOT(get_riser_info, 0x32)                                                 \
    SLOT(get_explorer, 0x33)                                                   \
    SLOT(get_exCard_info, 0x41)                                                \
    SLOT(set_middCard_info, 0x42)                                              \
    SLOT(get_middCard_info, 0x43)                                              \
    SLOT(get_boardCard_info, 0x45)                                             \
    SLOT(get_chassis_intrusion, 0x46)                                          \
    SLOT(get_fan_pid_info, 0x47)                                               \
    SLOT(set_fan_pid_info, 0x48)                                               \
    SLOT(get_system_uuid, 0x49)                                                \
    SLOT(set_system_uuid, 0x50)                                                \
    SLOT(get_p2a_switch, 0x51)                                                 \
    SLOT(set_p2a_switch, 0x52)                                                 \
    SLOT(get_cpld_update, 0x84)                                                \
    SLOT(get_bmc_uuid, 0x53)                                                   \
    SLOT(get_bmc_sol_status, 0x54)                                             \
    SLOT(set_bmc_sol_status, 0x55)                                             \
    SLOT(get_high_temp_detect_status, 0x56)                                    \
    SLOT(set_high_temp_detect_status, 0x57)                                    \
    SLOT(get_psu_info, 0x58)                                                   \
    SLOT(get_jbod_i2c_data, 0x60)                                              \
    SLOT(set_jbod_i2c_data, 0x61)                                              \
    SLOT(get_board_id, 0x62)                                                   \
    SLOT(set_eth_status, 0x63)                                                 \
    SLOT(set_default_user, 0x64)                                               \
    SLOT(get_gpio_value, 0x65)                                                 \
    SLOT(set_gpio_value, 0x66)                                                 \
    SLOT(get_cpu_status, 0x67)                                                 \
    SLOT(get_bios_reset, 0x68)                                                 \
    SLOT(set_reset_factory, 0x70)                                              \
    SLOT(get_bios_configure, 0x71)                                             \
    SLOT(set_bios_configure, 0x72)                                             \
    SLOT(set_restriction_mode, 0x75)                                           \
    SLOT(get_restriction_mode, 0x76)                                           \
    SLOT(get_sw_hw_version, 0x77)                                              \
    SLOT(get_ncsi_test, 0x78)                                                  \
    SLOT(get_sys_status, 0x80)                                                 \
    SLOT(get_psu_status, 0x81)                                                 \
    SLOT(get_eeprom_test, 0x79)                                                \
    SLOT(get_mii_test, 0x82)                                                   \
    SLOT(get_all_dimm_size, 0x83)

#define IPMI_OEM_DIRECT_COMMANDS(DIRECT)                                       \
    DIRECT(get_total_power, 0x91)                                              \
    DIRECT(psu_get_version, 0x94)                                              \
    DIRECT(get_ssh_status, 0x95)                                               \
    DIRECT(set_ssh_status, 0x96)

#define IPMI_OEM_OTHER_COMMANDS(OTHER)                                         \
    OTHER(get_power_consumption, 0x16)                                         \
    OTHER(get_audit_log, 0xB1)                                                 \
    OTHER(set_allow_list, 0xB7)                                                \
    OTHER(del_allow_list, 0xB8)                                                \
    OTHER(get_allow_list, 0xB9)

#define IPMI_OEM_COMMANDS(SLOT, DIRECT, OTHER)                                 \
    IPMI_OEM_SLOT_COMMANDS(SLOT)                                               \
    IPMI_OEM_DIRECT_COMMANDS(DIRECT)                                           \
    IPMI_OEM_OTHER_COMMANDS(OTHER)

/* Overrides that machine_init installs, beside the default handlers. */
#define IPMI_OEM_MACHINE_OVERRIDES(OVERRIDE)                                   \
    OVERRIDE(set_bmc_led_FT, 0x24)                                             \
    OVERRIDE(get_bmc_led_FT, 0x23)
