// SPDX-License-Identifier: Apache-2.0
// Default handlers whose subsystem has not been written yet.
//
// THIS IS THE ONLY PLACE WHERE HANDLERS ARE STUBBED. Each handler named below
// answers completion code 0xC1 (invalid command) with no data, so that the
// whole command set is registered and reachable from the start. A subsystem
// that brings a real handler removes its name from this list.

#include "handler.hpp"

#define OEM_UNIMPLEMENTED_HANDLERS(X)                                          \
    X(cpld_get_version)                                                        \
    X(get_riser_info)                                                          \
    X(get_explorer)                                                            \
    X(get_p2a_switch)                                                          \
    X(set_p2a_switch)                                                          \
    X(get_cpld_update)                                                         \
    X(get_sw_hw_version)

#define OEM_UNIMPLEMENTED(name)                                                \
    ipmi_ret_t ipmi_vel_oem_##name(OEM_HANDLER_PARAMS)                         \
    {                                                                          \
        *data_len = 0;                                                         \
        return IPMI_CC_INVALID;                                                \
    }
OEM_UNIMPLEMENTED_HANDLERS(OEM_UNIMPLEMENTED)
