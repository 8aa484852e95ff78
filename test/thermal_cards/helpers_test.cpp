// SPDX-License-Identifier: Apache-2.0
// The exported card helpers, for other modules, where no command reaches:
// emptying a card's board information, reading a card file for a length it
// does not hold, and the readings writer under its exported name.

#include "plugin.hpp"

#include <unistd.h>

namespace
{

TEST(CardHelpers, WhatNoCommandAsksFor)
{
    auto writeInfo =
        pluginSymbol<int (*)(const uint8_t*, int, uint8_t, uint8_t)>(
            "writeinfotohwmon");
    auto fileInfo =
        pluginSymbol<int (*)(const char*, uint8_t*, int)>("Card_FILE_info");
    auto powerInfo =
        pluginSymbol<int (*)(const char*, uint8_t*, int)>("Card_POWER_info");
    auto writeValues = pluginSymbol<int (*)(const uint8_t*, int, uint8_t)>(
        "writevaluetohwmon");
    const std::string info = "/var/hwmon/hwmon41/boardinfo";
    const std::string saved = readFile(info);

    const uint8_t data[] = {1, 'a', 'b', 'c'};
    uint8_t out[8] = {};
    EXPECT_EQ(writeInfo(data, 4, 41, 1), 0);
    EXPECT_EQ(fileInfo(info.c_str(), out, 4), 0);
    EXPECT_EQ(std::string(out, out + 4), "\1abc");
    EXPECT_EQ(fileInfo(info.c_str(), out, 5), -1);
    EXPECT_EQ(fileInfo("/var/hwmon/hwmon41/none", out, 1), -1);
    EXPECT_EQ(powerInfo(info.c_str(), out, 0), -1);
    // Mode 2 empties the information.
    EXPECT_EQ(writeInfo(data, 4, 41, 2), 0);
    EXPECT_EQ(readFile(info), "");
    writeFile(info, saved);

    const uint8_t reading[] = {0, 0x20, 0x00, 0x0C, 0xE4};
    EXPECT_EQ(writeValues(reading, 5, 41), 0);
    EXPECT_EQ(readFile("/var/hwmon/hwmon41/in1_input"), "3300\n");
    unlink("/var/hwmon/hwmon41/in1_input");
}

} // namespace
