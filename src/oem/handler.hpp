// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ipmid-abi.h"

#include "command_table.hpp"

#include <cstdint>

/* Everything the daemon, a machine layer or a test looks up by name. The
 * rest of the plug-in is built with hidden visibility. */
#define OEM_EXPORT __attribute__((visibility("default")))

/* The handler signature every registered handler, default handler and
 * override shares. */
#define OEM_HANDLER_PARAMS                                                     \
    ipmi_netfn_t netfn, ipmi_cmd_t cmd, ipmi_request_t request,                \
        ipmi_response_t response, ipmi_data_len_t data_len,                    \
        ipmi_context_t context

using ipmi_oem_handler_t = ipmid_callback_t;

constexpr ipmi_netfn_t NETFN_OEM = 0x3A;
constexpr ipmi_netfn_t NETFN_OEM_OTHER = 0x30;

/* NetFn 0x3A command numbers; a value is also the command's slot in
 * g_ipmiOemHandle. */
#define OEM_ENUMERATOR(name, cmd) IPMI_OEM_CMD_##name = cmd,
enum ipmi_netfn_oem_cmds : int
{
    IPMI_OEM_SLOT_COMMANDS(OEM_ENUMERATOR)
        IPMI_OEM_DIRECT_COMMANDS(OEM_ENUMERATOR)
};
#undef OEM_ENUMERATOR

constexpr int IPMI_OEM_HANDLE_SLOTS = 160;

extern "C"
{
#define OEM_DECLARE_DEFAULT(name, cmd)                                         \
    OEM_EXPORT ipmi_ret_t ipmi_vel_oem_##name(OEM_HANDLER_PARAMS);
#define OEM_DECLARE_FORWARDED(name, cmd)                                       \
    OEM_DECLARE_DEFAULT(name, cmd)                                             \
    OEM_EXPORT ipmi_ret_t ipmi_xo_oem_##name(OEM_HANDLER_PARAMS);

IPMI_OEM_COMMANDS(OEM_DECLARE_FORWARDED, OEM_DECLARE_DEFAULT,
                  OEM_DECLARE_FORWARDED)
IPMI_OEM_MACHINE_OVERRIDES(OEM_DECLARE_DEFAULT)

#undef OEM_DECLARE_FORWARDED
#undef OEM_DECLARE_DEFAULT

OEM_EXPORT extern ipmi_oem_handler_t g_ipmiOemHandle[IPMI_OEM_HANDLE_SLOTS];

OEM_EXPORT int32_t regiter_functions(ipmi_netfn_oem_cmds cmd,
                                     ipmi_oem_handler_t fn);
OEM_EXPORT void platform_init(void);
OEM_EXPORT void machine_init(void);
OEM_EXPORT ipmi_ret_t ipmi_oem_platform_test(OEM_HANDLER_PARAMS);

OEM_EXPORT void register_netfn_oem_functions(void);
OEM_EXPORT void register_netfn_machine_oem_functions(void);
OEM_EXPORT void register_netfn_other_oem_functions(void);
}
