// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board.hpp"
#include "dbus.hpp"
#include "plugin.hpp"

#include <string>
#include <vector>

namespace remote
{

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr const char* sshFlag = "/etc/ssh_forbid.conf";
constexpr const char* sshLogin = "/run/ssh_login.conf";
constexpr const char* allowList = "/etc/default/obmc/ip";
constexpr const char* userFile = "/etc/default/obmc/user";
constexpr const char* rules = "/var/sim/iptables";
constexpr const char* eth0Marker = "/etc/systemd/network/bmc_eth0_disable";
constexpr const char* eth1Marker = "/etc/systemd/network/bmc_eth1_disable";
constexpr const char* pwned = "/tmp/pwned";

constexpr const char* modeService = "xyz.openbmc_project.Settings";
constexpr const char* modePath =
    "/xyz/openbmc_project/control/host0/restriction_mode";
constexpr const char* modeInterface =
    "xyz.openbmc_project.Control.Security.RestrictionMode";
inline const std::string modePrefix =
    "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";

/* What the default board starts with: SSH allowed, no firewall rule, no
 * allow list, user "admin", both ports up without a marker, restriction
 * mode None; no tool told to fail, no injected D-Bus failure, empty command
 * log and call record. */
void restoreBoard();

/* The restriction mode as the settings service holds it. */
std::string restrictionMode();

/* The "up" state of an interface's stand-in (yes or no). */
std::string portUp(const std::string& port);

class Remote : public testing::Test
{
  protected:
    void SetUp() override
    {
        restoreBoard();
    }
    void TearDown() override
    {
        restoreBoard();
    }
};

} // namespace remote
