// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/* Path of the board EEPROM image that holds the inventory records and the
 * system UUID. */
extern std::string eeprom_path;
