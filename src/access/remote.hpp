// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/* The pieces of the remote-access commands that decide what a request may
 * put into a file or onto a shell command line, and what the settings
 * service's restriction mode means. */
namespace oem::access
{

/* A default user name that may stand unquoted on a command line: a letter
 * or '_' first, then letters, digits, '_', '.' or '-'. Whether it fits the
 * command line is the command's to judge. */
bool validUserName(std::string_view name);

/* An allow-list entry: an IPv4 address with an optional /0../32 prefix
 * length, or an IPv6 address with an optional /0../128, written with no
 * blanks and no leading zeros in the prefix length. The list service turns
 * entries into firewall rules, so nothing else gets into the file. */
bool validAllowListEntry(std::string_view entry);

/* The restriction-mode byte of a settings-service value, or nothing if the
 * value is not one of the six modes. */
std::optional<uint8_t> restrictionModeByte(const std::string& value);

} // namespace oem::access
