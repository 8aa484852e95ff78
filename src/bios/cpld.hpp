// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

extern "C"
{
/* Reads the main CPLD's version register; 0 and the byte in version, or the
 * negative i2c_read result with version untouched. */
OEM_EXPORT int cpld_version_read(uint8_t* version);
}

namespace oem::bios
{

/* The backplane CPLD at a position of a group (0 front, 1 rear), or none for
 * a group or position that does not exist. */
std::optional<std::string> backplaneCpldName(uint8_t group, uint8_t position);

/* The version byte of a backplane CPLD from the first word of its version
 * file, VERSION_ID="vMAJOR.MINOR": major in the high nibble, minor in the
 * low one. 0x00 for a word that does not carry both numbers. */
uint8_t backplaneVersionByte(std::string_view word);

} // namespace oem::bios
