// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>

/* Room the caller of get_sysalarm_detail provides, terminating zero
 * included; entries that would not fit are left out whole. */
constexpr int SYSALARM_DETAIL_CAPACITY = 4096;

extern "C"
{
/* Appends one "N: sensor|Level.\n" line per asserted sensor of the highest
 * level whose flag is 1 to out, which holds a zero-terminated text within
 * SYSALARM_DETAIL_CAPACITY bytes. */
OEM_EXPORT void get_sysalarm_detail(char* out, uint8_t nonrecoverable,
                                    uint8_t critical, uint8_t warning);
}
