// SPDX-License-Identifier: Apache-2.0
// Total power (0x3A 0x91) and power consumption (0x30 0x16) from the
// supplies' hwmon nodes.

#include "board.hpp"
#include "plugin.hpp"

#include <filesystem>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr const char* psu1Power = "/sys/class/hwmon/hwmon3/power1_input";
constexpr const char* psu2Power = "/sys/class/hwmon/hwmon4/power1_input";
constexpr const char* psu2Name = "/sys/class/hwmon/hwmon4/name";

struct RestorePower
{
    std::string first = readFile(psu1Power);
    std::string second = readFile(psu2Power);
    std::string name = readFile(psu2Name);
    ~RestorePower()
    {
        writeFile(psu1Power, first);
        writeFile(psu2Power, second);
        writeFile(psu2Name, name);
    }
};

TEST(PowerReadings, SumOfSuppliesInBothByteOrders)
{
    RestorePower restore;
    struct Case
    {
        const char* what;
        std::string first;
        std::string second;
        std::string secondName;
        Bytes watts;
        Bytes microwatts;
    };
    const Case cases[] = {
        {"two supplies",
         "250000000\n",
         "260000000\n",
         "asp2500\n",
         {0xFE, 0x01},
         {0x1E, 0x65, 0xFB, 0x80}},
        {"under a watt",
         "999999\n",
         "0\n",
         "asp2500\n",
         {0x00, 0x00},
         {0x00, 0x0F, 0x42, 0x3F}},
        {"one not a PSU",
         "250000000\n",
         "260000000\n",
         "tmp75\n",
         {0xFA, 0x00},
         {0x0E, 0xE6, 0xB2, 0x80}},
        {"non-numeric reading",
         "250000000\n",
         "N/A\n",
         "asp2500\n",
         {0xFA, 0x00},
         {0x0E, 0xE6, 0xB2, 0x80}},
        {"past 32 bits saturates",
         "2000000000\n",
         "2000000000\n",
         "asp2500\n",
         {0x63, 0x08},
         {0x7F, 0xFF, 0xFF, 0xFF}},
    };
    for (const auto& c : cases)
    {
        writeFile(psu1Power, c.first);
        writeFile(psu2Power, c.second);
        writeFile(psu2Name, c.secondName);
        auto total = call(0x3A, 0x91);
        EXPECT_EQ(total.cc, 0x00) << c.what;
        EXPECT_EQ(total.data, c.watts) << c.what;
        auto consumption = call(0x30, 0x16, {0x01, 0x02});
        EXPECT_EQ(consumption.cc, 0x00) << c.what;
        EXPECT_EQ(consumption.data, c.microwatts) << c.what;
    }
}

TEST(PowerReadings, NoSupplyNodeGivesZero)
{
    RestorePower restore;
    const std::string psu1Name = "/sys/class/hwmon/hwmon3/name";
    std::string saved = readFile(psu1Name);
    writeFile(psu1Name, "asp2500x\n");
    writeFile(psu2Name, "other\n");
    auto total = call(0x3A, 0x91);
    auto consumption = call(0x30, 0x16);
    writeFile(psu1Name, saved);
    EXPECT_EQ(total.cc, 0x00);
    EXPECT_EQ(total.data, (Bytes{0x00, 0x00}));
    EXPECT_EQ(consumption.cc, 0x00);
    EXPECT_EQ(consumption.data, (Bytes{0x00, 0x00, 0x00, 0x00}));
}

} // namespace
