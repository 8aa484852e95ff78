// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

/* Size of the serial and revision buffers get_psuN_sn_version_capacity_m7r
 * fills (a 31-byte block read holds at most 30 characters). */
constexpr int PSU_TEXT_CAPACITY = 32;

extern "C"
{
/* Sets present (preset by the caller) when supply 1 or 2 answers on PMBus;
 * never clears it. */
OEM_EXPORT void get_psuN_present_status_m7r(int index, bool* present);
/* Serial, revision, rated output (W) and a clean status word of supply 1
 * or 2; sn and version hold PSU_TEXT_CAPACITY bytes. */
OEM_EXPORT void get_psuN_sn_version_capacity_m7r(int index, int* capacity,
                                                 char* sn, char* version,
                                                 bool* ok);
/* Input and output voltage readings of the supply's hwmon node; a negative
 * result, values untouched, when the node is not there. */
OEM_EXPORT int get_psuN_status_m7r(int index, int* ac, int* dc);
OEM_EXPORT void get_psuN_ac_status_m7r(int hwmon, int* ac);
OEM_EXPORT int get_psuN_dc_status_m7r(int hwmon, int* dc);
}
