// SPDX-License-Identifier: Apache-2.0
// The override table through which a machine variant replaces the default
// handler of a NetFn 0x3A command, and the forwarders that consult it.

#include "handler.hpp"

ipmi_oem_handler_t g_ipmiOemHandle[IPMI_OEM_HANDLE_SLOTS] = {};

int32_t regiter_functions(ipmi_netfn_oem_cmds cmd, ipmi_oem_handler_t fn)
{
    if (static_cast<int>(cmd) > IPMI_OEM_HANDLE_SLOTS - 1 || fn == nullptr)
    {
        return -1;
    }
    g_ipmiOemHandle[cmd] = fn;
    return 0;
}

// A platform layer would install its overrides here, before the machine
// layer gets the chance to replace them.
void platform_init(void) {}

void machine_init(void)
{
#define OEM_INSTALL_OVERRIDE(name, cmd)                                        \
    regiter_functions(static_cast<ipmi_netfn_oem_cmds>(cmd),                   \
                      ipmi_vel_oem_##name);
    IPMI_OEM_MACHINE_OVERRIDES(OEM_INSTALL_OVERRIDE)
#undef OEM_INSTALL_OVERRIDE
}

// Not registered for any command: a platform layer installs it in a slot to
// prove that dispatch through the table works.
ipmi_ret_t ipmi_oem_platform_test(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x0A;
    out[1] = 0x0B;
    out[2] = 0x0C;
    out[3] = 0x0D;
    *data_len = 4;
    return IPMI_CC_OK;
}

// The slot is the forwarder's own constant, not the cmd argument.
#define OEM_SLOT_FORWARDER(name, slot)                                         \
    ipmi_ret_t ipmi_xo_oem_##name(OEM_HANDLER_PARAMS)                          \
    {                                                                          \
        if (ipmi_oem_handler_t fn = g_ipmiOemHandle[slot])                     \
        {                                                                      \
            return fn(netfn, cmd, request, response, data_len, context);       \
        }                                                                      \
        return ipmi_vel_oem_##name(netfn, cmd, request, response, data_len,    \
                                   context);                                   \
    }
IPMI_OEM_SLOT_COMMANDS(OEM_SLOT_FORWARDER)
#undef OEM_SLOT_FORWARDER

// NetFn 0x30 commands cannot be overridden: their forwarders never look at
// the table.
#define OEM_OTHER_FORWARDER(name, cmd)                                         \
    ipmi_ret_t ipmi_xo_oem_##name(OEM_HANDLER_PARAMS)                          \
    {                                                                          \
        return ipmi_vel_oem_##name(netfn, cmd, request, response, data_len,    \
                                   context);                                   \
    }
IPMI_OEM_OTHER_COMMANDS(OEM_OTHER_FORWARDER)
#undef OEM_OTHER_FORWARDER
