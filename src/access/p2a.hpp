// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>

extern "C"
{
/* Read-modify-write of one bit of a 32-bit chip register through devmem:
 * value 0 clears it, 1 sets it, anything else writes the register back as
 * it was; a bit of 32 or more (or below 0) changes nothing. Returns the low
 * byte of the write's shell status. */
OEM_EXPORT int set_value_CVE(int value, uint32_t reg, int bit);

/* Switches the P2A bridge off (0) or on (1), nothing else; 0, or -1 for
 * another value or a failed write. */
OEM_EXPORT int set_p2a_switch(unsigned value);
}

namespace oem::access
{

/* A register as read back from devmem's output ("0x00000002"); 0 when the
 * output holds no number. */
uint32_t parseRegister(const char* output);

/* The register value with bit set (value 1) or cleared (value 0); other
 * values and bits outside the register leave it as it is. */
uint32_t applyBit(uint32_t reg, int value, int bit);

} // namespace oem::access
