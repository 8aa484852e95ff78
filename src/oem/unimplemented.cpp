// SPDX-License-Identifier: Apache-2.0
// Default handlers whose subsystem has not been written yet.
//
// THIS IS THE ONLY PLACE WHERE HANDLERS ARE STUBBED. Each handler named below
// answers completion code 0xC1 (invalid command) with no data, so that the
// whole command set is registered and reachable from the start. A subsystem
// that brings a real handler removes its name from this list.

#include "handler.hpp"

#define OEM_UNIMPLEMENTED_HANDLERS(X)                                          \
    X(set_bmc_led)                                                             \
    X(get_bmc_led)                                                             \
    X(set_warn_led)                                                            \
    X(get_warn_led)                                                            \
    X(set_fan_config)                                                          \
    X(get_fan_info)                                                            \
    X(get_exCard_info)                                                         \
    X(set_middCard_info)                                                       \
    X(get_middCard_info)                                                       \
    X(get_boardCard_info)                                                      \
    X(get_chassis_intrusion)                                                   \
    X(get_fan_pid_info)                                                        \
    X(set_fan_pid_info)                                                        \
    X(get_high_temp_detect_status)                                             \
    X(set_high_temp_detect_status)                                             \
    X(set_eth_status)                                                          \
    X(set_default_user)                                                        \
    X(set_reset_factory)                                                       \
    X(set_restriction_mode)                                                    \
    X(get_restriction_mode)                                                    \
    X(get_ncsi_test)                                                           \
    X(get_eeprom_test)                                                         \
    X(get_mii_test)                                                            \
    X(get_ssh_status)                                                          \
    X(set_ssh_status)                                                          \
    X(get_audit_log)                                                           \
    X(set_allow_list)                                                          \
    X(del_allow_list)                                                          \
    X(get_allow_list)                                                          \
    X(set_bmc_led_FT)                                                          \
    X(get_bmc_led_FT)

#define OEM_UNIMPLEMENTED(name)                                                \
    ipmi_ret_t ipmi_vel_oem_##name(OEM_HANDLER_PARAMS)                         \
    {                                                                          \
        *data_len = 0;                                                         \
        return IPMI_CC_INVALID;                                                \
    }
OEM_UNIMPLEMENTED_HANDLERS(OEM_UNIMPLEMENTED)
