// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>

extern "C"
{
/* Rebuilds the cache that maps each hwmon device's device-tree full name to
 * its hwmon number; 0, or -1 if the cache cannot be created. */
OEM_EXPORT int hwmonid_OF_FULLNAME(void);
/* Finds the first hwmon device whose full name contains name; 0 and the
 * number in id, or -1. Builds the cache on first use. */
OEM_EXPORT int findhwmonid_OF_FULLNAME(const char* name, int* id);
/* Copies length characters from position start of line number line (from 1)
 * of a text file; 0, or -1 if the file cannot be opened. */
OEM_EXPORT int read_fw_ver(const char* path, char* out, int line, int start,
                           int length);
/* Reads the byte at offset of a device or memory file; 0 on success. */
OEM_EXPORT int local_bus_read(const char* path, long offset, uint8_t* out);
}
