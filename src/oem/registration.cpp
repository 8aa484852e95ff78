// SPDX-License-Identifier: Apache-2.0
// Plug-in entry: the module-level objects and the registration of the whole
// command set, run by the static initializer when the daemon loads us.
// Everything is defined in this one file so that the order of construction
// is the order of definition.

#include "dbus.hpp"
#include "globals.hpp"
#include "handler.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace
{
// Carried for compatibility with the platform's other providers; no handler
// consults them. Plain constants, so that no template code of ours ends up
// among the exported symbols.
[[maybe_unused]] constexpr std::pair<std::string_view, uint16_t>
    interfaceNames[] = {{"eth0", 0x0197}, {"eth1", 0x01A7}};
[[maybe_unused]] constexpr std::string_view selEntry = "SEL Entry";
} // namespace

oem::Bus dbus{ipmid_get_sd_bus_connection()};
std::string eeprom_path = "/usr/bin/eeprom";

void register_netfn_oem_functions(void)
{
    // The override table must be complete before the first request.
    platform_init();
    machine_init();

#define OEM_REGISTER_FORWARDER(name, cmd)                                      \
    ipmi_register_callback(NETFN_OEM, cmd, nullptr, ipmi_xo_oem_##name,        \
                           SYSTEM_INTERFACE);
    IPMI_OEM_SLOT_COMMANDS(OEM_REGISTER_FORWARDER)
#undef OEM_REGISTER_FORWARDER
}

void register_netfn_machine_oem_functions(void)
{
#define OEM_REGISTER_DIRECT(name, cmd)                                         \
    ipmi_register_callback(NETFN_OEM, cmd, nullptr, ipmi_vel_oem_##name,       \
                           SYSTEM_INTERFACE);
    IPMI_OEM_DIRECT_COMMANDS(OEM_REGISTER_DIRECT)
#undef OEM_REGISTER_DIRECT
}

void register_netfn_other_oem_functions(void)
{
#define OEM_REGISTER_OTHER(name, cmd)                                          \
    ipmi_register_callback(NETFN_OEM_OTHER, cmd, nullptr, ipmi_xo_oem_##name,  \
                           SYSTEM_INTERFACE);
    IPMI_OEM_OTHER_COMMANDS(OEM_REGISTER_OTHER)
#undef OEM_REGISTER_OTHER
}

namespace
{
struct Registration
{
    Registration()
    {
        register_netfn_oem_functions();
        register_netfn_machine_oem_functions();
        register_netfn_other_oem_functions();
    }
} registration;
} // namespace
