// SPDX-License-Identifier: Apache-2.0
// The system health summary (0x80) and the alarm detail list.

#include "board.hpp"
#include "plugin.hpp"

#include <optional>
#include <string>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr const char* nonrecoverable = "/etc/nonrecoverlogreport_flag.conf";
constexpr const char* critical = "/etc/logreport_flag.conf";
constexpr const char* warning = "/etc/warnlogreport_flag.conf";
constexpr const char* busFile = "/dev/i2c-8";
constexpr const char* memState = "/var/sim/mem";
constexpr const char* eth1State = "/var/sim/net/eth1";

/* Puts the flag files, supplies, memory and eth1 back as the board has
 * them. */
struct RestoreHealth
{
    std::string files[3] = {readFile(nonrecoverable), readFile(critical),
                            readFile(warning)};
    std::string bus = readFile(busFile);
    std::string mem = readFile(memState);
    std::string eth1 = readFile(eth1State);
    ~RestoreHealth()
    {
        writeFile(nonrecoverable, files[0]);
        writeFile(critical, files[1]);
        writeFile(warning, files[2]);
        writeFile(busFile, bus);
        writeFile(memState, mem);
        writeFile(eth1State, eth1);
    }
};

/* Writes a flag file, or removes it when content is none. */
void flagFile(const char* path, const std::optional<std::string>& content)
{
    if (content)
    {
        writeFile(path, *content);
    }
    else
    {
        unlink(path);
    }
}

using Flags = std::optional<std::string>;

TEST(SystemHealth, FlagFilesAndProbes)
{
    RestoreHealth restore;
    struct Case
    {
        const char* what;
        Flags nonrecoverable;
        Flags critical;
        Flags warning;
        Bytes vin1;
        bool psu1Answers;
        Bytes vin2;
        Bytes components;
        Bytes levels;
    };
    const Bytes ac = {0xCC, 0xF9};
    const Bytes acLost = {0x32, 0xF8}; // 25 V
    const Case cases[] = {
        {"board",
         "fan1=0\n",
         "fan1=0\n",
         "temperature=0\n",
         ac,
         true,
         ac,
         {0, 0, 0, 0, 0, 0, 0},
         {0, 0, 0}},
        {"warning fan only",
         std::nullopt,
         std::nullopt,
         "fan1=2\n",
         ac,
         true,
         ac,
         {0, 0, 0, 1, 0, 0, 0},
         {0, 0, 1}},
        {"non-recoverable",
         "P12V=1\n",
         "",
         "",
         ac,
         true,
         ac,
         {0, 0, 0, 0, 0, 0, 0},
         {1, 1, 1}},
        {"critical temperature",
         "",
         "cpu0_temperature=1\n",
         "",
         ac,
         true,
         ac,
         {0, 0, 0, 0, 0, 1, 0},
         {0, 1, 1}},
        {"cleared values",
         "fan1=0\n",
         "temperature=3\n",
         "",
         ac,
         true,
         ac,
         {0, 0, 0, 0, 0, 0, 0},
         {0, 0, 0}},
        // Only substrings count: =10 holds =1.
        {"value 10",
         "",
         "",
         "fan2=10\n",
         ac,
         true,
         ac,
         {0, 0, 0, 1, 0, 0, 0},
         {0, 0, 1}},
        {"PSU 2 at 50 V",
         "",
         "",
         "",
         ac,
         true,
         {0x64, 0xF8},
         {0, 0, 0, 0, 1, 0, 0},
         {0, 0, 1}},
        {"PSU 1 silent",
         "",
         "",
         "",
         ac,
         false,
         ac,
         {0, 1, 0, 0, 1, 0, 0},
         {0, 1, 1}},
        {"PSU 1 AC lost",
         "",
         "",
         "",
         acLost,
         true,
         ac,
         {0, 0, 0, 0, 1, 0, 0},
         {0, 0, 1}},
        {"no flag file",
         std::nullopt,
         std::nullopt,
         std::nullopt,
         ac,
         false,
         acLost,
         {0, 2, 0, 0, 0, 0, 0},
         {0, 1, 1}},
        // The non-recoverable file is done with a fan line once seen.
        {"fan and temperature, non-recoverable",
         "fan_temperature=1\n",
         "",
         "",
         ac,
         true,
         ac,
         {0, 0, 0, 1, 0, 0, 0},
         {1, 1, 1}},
        // Elsewhere the second such line also clears temperature.
        {"fan and temperature twice, critical",
         "",
         "fan_temperature=1\nfan_temperature=1\n",
         "",
         ac,
         true,
         ac,
         {0, 0, 0, 1, 0, 1, 0},
         {0, 1, 1}},
        {"fan and temperature once, warning",
         "",
         "",
         "fan_temperature=2\n",
         ac,
         true,
         ac,
         {0, 0, 0, 1, 0, 0, 0},
         {0, 0, 1}},
    };
    for (const auto& c : cases)
    {
        flagFile(nonrecoverable, c.nonrecoverable);
        flagFile(critical, c.critical);
        flagFile(warning, c.warning);
        writeFile(busFile, restore.bus);
        board::setI2cRegister(8, 0x58, 0x88, c.vin1);
        board::setI2cRegister(8, 0x59, 0x88, c.vin2);
        board::setI2cAnswers(8, 0x58, c.psu1Answers);
        auto components = call(0x3A, 0x80, {0x00});
        EXPECT_EQ(components.cc, 0x00) << c.what;
        EXPECT_EQ(components.data, c.components) << c.what;
        auto levels = call(0x3A, 0x80, {0x01});
        EXPECT_EQ(levels.cc, 0x00) << c.what;
        EXPECT_EQ(levels.data, c.levels) << c.what;
    }
}

TEST(SystemHealth, MemoryAndLink)
{
    RestoreHealth restore;
    struct Case
    {
        const char* what;
        const char* used;
        const char* free;
        const char* shared;
        const char* eth1Link;
        uint8_t memory;
        uint8_t network;
    };
    const Case cases[] = {
        {"board", nullptr, nullptr, nullptr, nullptr, 0, 0},
        {"exactly 80 %", "80", "20", "0", nullptr, 1, 0},
        {"79 %", "79", "21", "0", nullptr, 0, 0},
        {"shared left out", "79", "21", "500", nullptr, 0, 0},
        {"no link", nullptr, nullptr, nullptr, "no", 0, 1},
    };
    for (const auto& c : cases)
    {
        writeFile(memState, restore.mem);
        writeFile(eth1State, restore.eth1);
        if (c.used != nullptr)
        {
            board::setState(memState, "used", c.used);
            board::setState(memState, "free", c.free);
            board::setState(memState, "shared", c.shared);
            board::setState(memState, "buff", "0");
            board::setState(memState, "cached", "0");
        }
        if (c.eth1Link != nullptr)
        {
            board::setState(eth1State, "link", c.eth1Link);
        }
        board::clearCommandLog();
        auto answer = call(0x3A, 0x80, {0x00});
        ASSERT_EQ(answer.data.size(), 7u) << c.what;
        EXPECT_EQ(answer.data[0], c.memory) << c.what;
        EXPECT_EQ(answer.data[6], c.network) << c.what;
        EXPECT_EQ(
            board::commandLog(),
            (std::vector<std::string>{"top", "killall top", "ethtool eth1"}))
            << c.what;
    }
}

TEST(SystemHealth, OtherSelectors)
{
    for (uint8_t selector : {0x02, 0x80, 0xFF})
    {
        auto answer = call(0x3A, 0x80, {selector});
        EXPECT_EQ(answer.cc, 0x80);
        EXPECT_TRUE(answer.data.empty());
    }
}

TEST(AlarmDetail, HighestFlaggedLevel)
{
    RestoreHealth restore;
    using Detail = void (*)(char*, uint8_t, uint8_t, uint8_t);
    auto detail = pluginSymbol<Detail>("get_sysalarm_detail");
    writeFile(nonrecoverable, "P12V=1\n");
    writeFile(critical, "fan1=0\nfan2=1\ntemp=2\n");
    writeFile(warning, "CPU0_Temp=2\n");
    const std::string longName(40, 'x');
    struct Case
    {
        const char* what;
        uint8_t levels[3];
        std::string before;
        std::string after;
    };
    const Case cases[] = {
        {"all three", {1, 1, 1}, "", "1: P12V|Nonrecoverable.\n"},
        {"critical", {0, 1, 1}, "", "1: fan2|Critical.\n2: temp|Critical.\n"},
        {"2 does not select", {0, 2, 1}, "", "1: CPU0_Temp|Warning.\n"},
        {"none", {0, 0, 0}, "kept", "kept"},
        {"appends", {0, 0, 1}, "x\n", "x\n1: CPU0_Temp|Warning.\n"},
    };
    for (const auto& c : cases)
    {
        std::string buffer(4096, '\0');
        buffer.replace(0, c.before.size(), c.before);
        detail(buffer.data(), c.levels[0], c.levels[1], c.levels[2]);
        EXPECT_EQ(std::string(buffer.c_str()), c.after) << c.what;
    }

    // A long name is read in pieces; only the one holding the value counts.
    writeFile(warning, longName + "=1\n");
    std::string buffer(4096, '\0');
    detail(buffer.data(), 0, 0, 1);
    EXPECT_EQ(std::string(buffer.c_str()),
              "1: " + std::string(9, 'x') + "|Warning.\n");

    // Missing file: nothing written.
    unlink(warning);
    std::string untouched(4096, '\0');
    detail(untouched.data(), 0, 0, 1);
    EXPECT_EQ(untouched[0], '\0');

    // Never past the buffer, however many sensors are in alarm.
    std::string many;
    for (int i = 0; i < 1000; ++i)
    {
        many += "s" + std::to_string(i) + "=1\n";
    }
    writeFile(critical, many);
    std::vector<char> bounded(4096, '\0');
    detail(bounded.data(), 0, 1, 0);
    std::string listed(bounded.data());
    EXPECT_LT(listed.size(), 4096u);
    EXPECT_EQ(listed.back(), '\n');
    EXPECT_EQ(listed.substr(0, 17), "1: s0|Critical.\n2");
}

} // namespace
