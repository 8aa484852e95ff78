// SPDX-License-Identifier: Apache-2.0
// A provider that answers from the simulated BMC's D-Bus through the
// plug-in's D-Bus layer, over the connection the host hands out, so that the
// host's --bus option is tested without depending on which of the
// plug-in's own handlers exist yet.

#include "ipmid-abi.h"

#include "oem/dbus.hpp"

#include <cstdio>
#include <cstring>

namespace
{

constexpr const char* modeInterface =
    "xyz.openbmc_project.Control.Security.RestrictionMode";
constexpr const char* modePath =
    "/xyz/openbmc_project/control/host0/restriction_mode";

// NetFn 0x3A: command 0x76 answers the restriction mode's name, 0x31 the
// low bytes of the fan PWM targets in object-path order. A D-Bus error
// answers 0xFF and is printed.
ipmi_ret_t answer(ipmi_netfn_t, ipmi_cmd_t cmd, ipmi_request_t,
                  ipmi_response_t response, ipmi_data_len_t len, ipmi_context_t)
{
    auto* out = static_cast<uint8_t*>(response);
    *len = 0;
    try
    {
        oem::Bus bus(ipmid_get_sd_bus_connection());
        if (cmd == 0x76)
        {
            std::string service = bus.getService(modeInterface, modePath);
            auto mode = std::get<std::string>(bus.getProperty(
                service, modePath, modeInterface, "RestrictionMode"));
            std::string name = mode.substr(mode.rfind('.') + 1);
            memcpy(out, name.data(), name.size());
            *len = name.size();
            return IPMI_CC_OK;
        }
        auto fans = bus.getAllDbusObjects("/xyz/openbmc_project/sensors",
                                          "xyz.openbmc_project.Control.FanPwm");
        for (const auto& [path, services] : fans)
        {
            if (*len == IPMID_RESPONSE_CAPACITY)
            {
                break;
            }
            auto target = std::get<uint64_t>(bus.getProperty(
                services.begin()->first, path,
                "xyz.openbmc_project.Control.FanPwm", "Target"));
            out[(*len)++] = static_cast<uint8_t>(target);
        }
        return IPMI_CC_OK;
    }
    catch (const oem::DbusError& e)
    {
        fprintf(stderr, "%s\n", e.what());
        *len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
}

struct Register
{
    Register()
    {
        ipmi_register_callback(0x3A, 0x76, nullptr, answer, SYSTEM_INTERFACE);
        ipmi_register_callback(0x3A, 0x31, nullptr, answer, SYSTEM_INTERFACE);
    }
} registerAtLoad;

} // namespace
