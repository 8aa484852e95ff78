// SPDX-License-Identifier: Apache-2.0
// The pure pieces behind the hardware commands: version words, export
// headers, devmem output and register bits.

#include "access/p2a.hpp"
#include "bios/cpld.hpp"
#include "bios/report.hpp"

#include <array>
#include <string>

#include <gtest/gtest.h>

namespace
{

TEST(BackplaneVersion, TakesTheLowNibbleOfMajorAndMinor)
{
    struct Case
    {
        std::string word;
        uint8_t byte;
    };
    const Case cases[] = {
        {"VERSION_ID=\"v1.2\"", 0x12},
        {"VERSION_ID=\"v2.10\"", 0x2A},
        {"VERSION_ID=\"v3.4\"", 0x34},
        {"VERSION_ID=\"v17.3\"", 0x13},
        {"VERSION_ID=\"v0.0\"", 0x00},
        {"VERSION_ID=\"v+1.-1\"", 0x1F},
        {"VERSION_ID=\"v-1.2\"", 0xF2},
        {"VERSION_ID=\"v99999999999999999999.5\"", 0xF5},
        // The closing quote is not needed for both numbers to count.
        {"VERSION_ID=\"v1.2", 0x12},
        {"VERSION_ID=\"v1.2x", 0x12},
        // Anything short of both numbers answers 0x00.
        {"VERSION_ID=\"v1\"", 0x00},
        {"VERSION_ID=\"v1.\"", 0x00},
        {"VERSION_ID=\"v.2\"", 0x00},
        {"VERSION_ID=\"1.2\"", 0x00},
        {"VERSION_ID=v1.2", 0x00},
        {"version_id=\"v1.2\"", 0x00},
        {"", 0x00},
        {"VERSION_ID=\"v", 0x00},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(oem::bios::backplaneVersionByte(c.word), c.byte) << c.word;
    }
}

TEST(ExportHeader, MagicAndBoundedBigEndianLength)
{
    using oem::bios::ExportState;
    struct Case
    {
        std::array<uint8_t, 8> header; // bytes 8..15
        ExportState state;
        size_t length;
    };
    const Case cases[] = {
        {{'o', 'r', 'v', 0x40, 0, 0, 0, 0x6C}, ExportState::ready, 108},
        {{'o', 'r', 'v', 0x40, 0, 0, 1, 0x02}, ExportState::ready, 258},
        {{'o', 'r', 'v', 0x40, 0, 0, 0xFF, 0xF0}, ExportState::ready, 65520},
        {{'o', 'r', 'v', 0x40, 0, 0, 0xFF, 0xF1}, ExportState::ready, 65520},
        {{'o', 'r', 'v', 0x40, 0xFF, 0xFF, 0xFF, 0xFF},
         ExportState::ready,
         65520},
        {{'s', 't', 'a', 'r', 0, 0, 0, 5}, ExportState::writing, 5},
        {{'o', 'r', 'v', '@', 0, 0, 0, 0}, ExportState::ready, 0},
        {{'O', 'R', 'V', 0x40, 0, 0, 0, 1}, ExportState::none, 1},
        {{0, 0, 0, 0, 0, 0, 0, 0}, ExportState::none, 0},
    };
    for (const auto& c : cases)
    {
        std::array<uint8_t, 16> area{};
        std::copy(c.header.begin(), c.header.end(), area.begin() + 8);
        EXPECT_EQ(oem::bios::exportState(area.data()), c.state);
        EXPECT_EQ(oem::bios::exportLength(area.data()), c.length);
    }
}

TEST(Register, ParsesDevmemOutput)
{
    using oem::access::parseRegister;
    EXPECT_EQ(parseRegister("0x00000002"), 0x2U);
    EXPECT_EQ(parseRegister("0xF10CC206"), 0xF10CC206U);
    EXPECT_EQ(parseRegister("f10cc206"), 0xF10CC206U);
    EXPECT_EQ(parseRegister(""), 0U);
    EXPECT_EQ(parseRegister("no such address"), 0U);
}

TEST(Register, AppliesOneBit)
{
    struct Case
    {
        uint32_t reg;
        int value;
        int bit;
        uint32_t result;
    };
    const Case cases[] = {
        {0x00000002, 0, 1, 0x00000000},  {0x00000000, 1, 1, 0x00000002},
        {0x00000002, 1, 1, 0x00000002},  {0xF10CC206, 1, 20, 0xF11CC206},
        {0x00000000, 1, 31, 0x80000000}, {0xFFFFFFFF, 0, 31, 0x7FFFFFFF},
        {0x12345678, 2, 3, 0x12345678},  {0x12345678, -1, 3, 0x12345678},
        {0x12345678, 1, 32, 0x12345678}, {0x12345678, 0, 40, 0x12345678},
        {0x12345678, 1, -1, 0x12345678},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(oem::access::applyBit(c.reg, c.value, c.bit), c.result)
            << std::hex << c.reg << " " << c.value << " " << c.bit;
    }
}

} // namespace
