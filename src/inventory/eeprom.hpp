// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"
#include "inventory/tables.hpp"

extern "C"
{
/* Writes (BIOS_DATA_WRITE) or clears one record, or clears the 39 records
 * from record on (BIOS_DATA_CLEAN_ALL), in the EEPROM named by eeprom_path.
 * A write stores type's tag and the first min(length, 124) bytes of data,
 * zero-padded. The EEPROM is never created or grown, and the system UUID
 * area is never touched. 0 on success, -1 on failure (reported on standard
 * error). */
OEM_EXPORT int eeprom_store_data(BIOS_DATA_FLAGS flags, BIOS_DATA_TYPE type,
                                 int record, char* data, int length);

/* Copies min(length, 124) payload bytes of record into out; a record never
 * written reads as zeros. 0 on success, -1 on failure. */
OEM_EXPORT int get_eeprom_store_data(int record, char* out, int length);

/* Clears all 39 records; always 0. */
OEM_EXPORT int eeprom_bios_data_clean(void);
}
