// SPDX-License-Identifier: Apache-2.0
// LINEAR11 decoding. The location files' reading is checked through the
// commands (power_health/psu.cases).

#include "power/psu_location.hpp"

#include <gtest/gtest.h>

namespace
{

TEST(Linear11, UnsignedMantissaSignedExponent)
{
    struct Case
    {
        uint16_t word;
        int value;
    };
    const Case cases[] = {
        {0xF8F0, 120},                     // exponent -1, mantissa 240
        {0xF840, 32},                      // AC lost
        {0xF9CC, 230},                     // the default board's READ_VIN
        {0x07FF, 2047},                    // top mantissa bit is not a sign
        {0x0320, 800},                     // exponent 0
        {0x0801, 2},                       // exponent 1 shifts left
        {0x7FFF, 2047 << 15}, {0x87FF, 0}, // exponent -16: 2047 >> 16
        {0xC7FF, 7},                       // exponent -8
        {0x0000, 0},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(oem::linear11(static_cast<uint8_t>(c.word & 0xFF),
                                static_cast<uint8_t>(c.word >> 8)),
                  c.value)
            << std::hex << c.word;
    }
}

} // namespace
