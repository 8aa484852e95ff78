// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>

extern "C"
{
/* Reads the 16-byte system UUID from the EEPROM; 0, or -1 on failure. */
OEM_EXPORT int eeprom_read_uuid(uint8_t* uuid);

/* Writes the 16-byte system UUID to the EEPROM (length is ignored); 0, or
 * -1 on failure. */
OEM_EXPORT int eeprom_write_uuid(uint8_t* uuid, int length);

/* Whether a UUID read from the EEPROM may be reported: 0 yes, -1 no. */
OEM_EXPORT int check_uuid(uint8_t* uuid);
}
