// SPDX-License-Identifier: Apache-2.0
// The factory-test commands through the host on the default board: the
// front LED and the factory reset over the simulated D-Bus, the NC-SI and
// MII tests through the tool stand-ins, and the EEPROM self-test on the
// board's EEPROM image.

#include "board.hpp"
#include "dbus.hpp"
#include "plugin.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr const char* ledService = "org.openbmc.control.bussysctl";
constexpr const char* ledPath = "/org/openbmc/control/bussysctl";
constexpr const char* ledInterface = "org.openbmc.control.bussysctlMachine";
constexpr const char* eepromFile = "/usr/bin/eeprom";

const std::string ledGet =
    "org.openbmc.control.bussysctl /org/openbmc/control/bussysctl "
    "org.freedesktop.DBus.Properties Get "
    "\"org.openbmc.control.bussysctlMachine\" \"LedStatus\"";
const std::string ledSet =
    "org.openbmc.control.bussysctl /org/openbmc/control/bussysctl "
    "org.freedesktop.DBus.Properties Set "
    "\"org.openbmc.control.bussysctlMachine\" \"LedStatus\" s ";
const std::string factoryReset =
    "xyz.openbmc_project.Software.BMC.Updater /xyz/openbmc_project/software "
    "xyz.openbmc_project.Common.FactoryReset Reset";

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

void setLed(const oem::Value& value)
{
    testing_dbus::setProperty(ledService, ledPath, ledInterface, "LedStatus",
                              value);
}

std::string led()
{
    return std::get<std::string>(testing_dbus::getProperty(
        ledService, ledPath, ledInterface, "LedStatus"));
}

/* Every test starts from the board's state and leaves it so. */
class FactoryTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        eeprom = readFile(eepromFile);
        eth0 = readFile("/var/sim/net/eth0");
        eth1 = readFile("/var/sim/net/eth1");
        ncsi = readFile("/var/sim/ncsi");
        clear();
    }
    void TearDown() override
    {
        writeFile(eepromFile, eeprom);
        writeFile("/var/sim/net/eth0", eth0);
        writeFile("/var/sim/net/eth1", eth1);
        writeFile("/var/sim/ncsi", ncsi);
        for (const char* tool : {"ethtool", "ncsi-netlink"})
        {
            board::resetTool(tool);
        }
        testing_dbus::clearFailures();
        setLed(std::string("false"));
    }
    static void clear()
    {
        board::clearCommandLog();
        testing_dbus::clearCalls();
    }

    std::string eeprom;
    std::string eth0;
    std::string eth1;
    std::string ncsi;
};

TEST_F(FactoryTest, LedSlotsAnswerWithTheOverridesAfterMachineInit)
{
    using Handler = ipmid_callback_t;
    auto* table = pluginSymbol<Handler*>("g_ipmiOemHandle");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table[0x23],
              pluginSymbol<Handler>("ipmi_vel_oem_get_bmc_led_FT"));
    EXPECT_EQ(table[0x24],
              pluginSymbol<Handler>("ipmi_vel_oem_set_bmc_led_FT"));

    // The slots reach the bus-control service, which the default LED
    // handlers do not.
    auto answer = call(0x3A, 0x24, {2});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    answer = call(0x3A, 0x23);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{2});
    EXPECT_EQ(testing_dbus::calls(), (Lines{ledSet + "\"blink\"", ledGet}));
}

TEST_F(FactoryTest, GetLedMapsTheServiceStateExactly)
{
    struct Case
    {
        std::string state;
        uint8_t answer;
    };
    const Case cases[] = {
        {"false", 0}, {"true", 1}, {"blink", 2}, {"Blink", 3},
        {"on", 3},    {"", 3},     {"true ", 3}, {"blinking", 3},
    };
    for (const auto& c : cases)
    {
        setLed(c.state);
        clear();
        auto answer = call(0x3A, 0x23);
        EXPECT_EQ(answer.cc, 0x00) << c.state;
        EXPECT_EQ(answer.data, Bytes{c.answer}) << c.state;
        EXPECT_EQ(testing_dbus::calls(), Lines{ledGet}) << c.state;
    }
}

TEST_F(FactoryTest, GetLedReportsAnUnknownStateWhenTheServiceRefuses)
{
    testing_dbus::failCall("* Get * \"LedStatus\"",
                           "org.freedesktop.DBus.Error.NoReply",
                           "LED controller asleep", 1);
    auto answer = call(0x3A, 0x23);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{3});
    // Request bytes are not looked at.
    answer = call(0x3A, 0x23, {1, 2, 3});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(testing_dbus::calls(), (Lines{ledGet, ledGet}));
}

TEST_F(FactoryTest, GetLedOfAnotherTypeIsAnError)
{
    setLed(int32_t{1});
    auto answer = call(0x3A, 0x23);
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{});
}

TEST_F(FactoryTest, SetLedWritesTheStateOrRefuses)
{
    struct Case
    {
        const char* what;
        Bytes request;
        Bytes answer;
        std::string led;
        Lines calls;
    };
    const Case cases[] = {
        {"on", {1}, {0}, "true", {ledSet + "\"true\""}},
        {"blink", {2}, {0}, "blink", {ledSet + "\"blink\""}},
        {"off", {0}, {0}, "false", {ledSet + "\"false\""}},
        {"extra bytes ignored", {1, 7, 7}, {0}, "true", {ledSet + "\"true\""}},
        {"state 3", {3}, {1}, "false", {}},
        {"state 0xFF", {0xFF}, {1}, "false", {}},
        {"no state", {}, {1}, "false", {}},
    };
    for (const auto& c : cases)
    {
        setLed(std::string("false"));
        clear();
        auto answer = call(0x3A, 0x24, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
        EXPECT_EQ(led(), c.led) << c.what;
        EXPECT_EQ(testing_dbus::calls(), c.calls) << c.what;
    }
}

TEST_F(FactoryTest, SetLedAnswersFailedWhenTheServiceRefuses)
{
    testing_dbus::failCall("* Set * \"LedStatus\" *",
                           "org.freedesktop.DBus.Error.AccessDenied");
    auto answer = call(0x3A, 0x24, {1});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{1});
    EXPECT_EQ(led(), "false");
    EXPECT_EQ(testing_dbus::calls(), Lines{ledSet + "\"true\""});
}

TEST_F(FactoryTest, FactoryResetAsksTheUpdater)
{
    auto answer = call(0x3A, 0x70);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    // Request bytes are not looked at.
    answer = call(0x3A, 0x70, {0xFF, 0x00});
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(testing_dbus::calls(), (Lines{factoryReset, factoryReset}));
    EXPECT_EQ(board::commandLog(), Lines{});

    testing_dbus::failCall("xyz.openbmc_project.Software.BMC.Updater *",
                           "xyz.openbmc_project.Common.Error.NotAllowed");
    answer = call(0x3A, 0x70);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{1});
}

TEST_F(FactoryTest, NcsiTestPassesOnlyOnAnActiveChannel)
{
    struct Case
    {
        const char* what;
        std::string active;
        std::string output;
        int status;
        Bytes answer;
    };
    // Past the 1023 characters kept, a report is not looked at.
    std::string flood(5000, 'x');
    const Case cases[] = {
        {"active channel", "yes", "", 0, {0}},
        {"inactive channel", "no", "", 0, {1}},
        {"tool fails", "yes", "", 1, {1}},
        {"long report, Active early", "yes", "Active\n" + flood, 0, {0}},
        {"long report, Active late", "yes", flood + "\nActive\n", 0, {1}},
        {"lower case", "yes", "channel is active\n", 0, {1}},
    };
    for (const auto& c : cases)
    {
        board::setState("/var/sim/ncsi", "active", c.active);
        board::resetTool("ncsi-netlink");
        if (!c.output.empty())
        {
            board::setToolOutput("ncsi-netlink", c.output);
        }
        board::setToolStatus("ncsi-netlink", c.status);
        clear();
        auto answer = call(0x3A, 0x78);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
        EXPECT_EQ(board::commandLog(), Lines{"ncsi-netlink --info -x 2"})
            << c.what;
    }
}

TEST_F(FactoryTest, EepromTestLeavesAGoodPartAsItWas)
{
    // Make every tested block distinct, so that a block restored in the
    // wrong place shows.
    std::string image = eeprom;
    for (size_t i = 0; i < 4096; ++i)
    {
        image[i] = static_cast<char>(i * 13 + i / 128);
    }
    writeFile(eepromFile, image);
    auto answer = call(0x3A, 0x79);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_TRUE(readFile(eepromFile) == image);

    writeFile(eepromFile, eeprom);
    answer = call(0x3A, 0x79, {1, 2, 3});
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_TRUE(readFile(eepromFile) == eeprom);
    EXPECT_EQ(board::commandLog(), Lines{});
}

// regression: a reset during the test left the test pattern in a live
// block, and the next test took the pattern for the block's contents
TEST_F(FactoryTest, EepromTestPutsBackABlockAResetLeftUnderTest)
{
    std::string image = eeprom;
    std::string block = image.substr(0x280, 128);
    for (size_t i = 0; i < 128; ++i)
    {
        image[0x280 + i] = static_cast<char>(i % 2 == 0 ? 0x55 : 0xAA);
    }
    writeFile(eepromFile, image);
    writeFile(std::string(eepromFile) + "_testblock", "640\n" + block);
    auto answer = call(0x3A, 0x79);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_TRUE(readFile(eepromFile) == eeprom);
    EXPECT_EQ(readFile(std::string(eepromFile) + "_testblock"), "<missing>");
}

TEST_F(FactoryTest, EepromTestOfAMissingPartAnswers0xFF)
{
    unlink(eepromFile);
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x79);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0xFF});
    EXPECT_EQ(log, " /usr/bin/eeprom file cannot open \n");
    // Nothing is created in its place.
    EXPECT_EQ(readFile(eepromFile), "<missing>");

    ASSERT_EQ(mkdir(eepromFile, 0755), 0);
    answer = call(0x3A, 0x79);
    EXPECT_EQ(answer.data, Bytes{0xFF});
    rmdir(eepromFile);
}

TEST_F(FactoryTest, MiiReadReportsThePortSettings)
{
    struct Case
    {
        const char* what;
        Bytes request;
        std::string answer;
        Lines log;
    };
    const Case cases[] = {
        {"static port 0",
         {0, 0},
         "Duplex:Full\n Speed:1000Mb/s\n Mode:static "
         "IP:192.168.0.10/24\n\n",
         {"ethtool eth0"}},
        {"DHCP port 1",
         {0, 1},
         "Duplex:Full\n Speed:100Mb/s\n Mode:DHCP IP:\n",
         {"ethtool eth1"}},
        {"extra bytes ignored",
         {0, 1, 1, 2, 3},
         "Duplex:Full\n Speed:100Mb/s\n Mode:DHCP IP:\n",
         {"ethtool eth1"}},
    };
    for (const auto& c : cases)
    {
        clear();
        auto answer = call(0x3A, 0x82, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, bytesOf(c.answer)) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
    }
}

TEST_F(FactoryTest, MiiReadOfAPortWithoutLinkOrUnit)
{
    board::setState("/var/sim/net/eth1", "link", "no");
    auto answer = call(0x3A, 0x82, {0, 1});
    EXPECT_EQ(answer.data,
              bytesOf("Duplex:Unknown! Speed:Unknown!\n Mode:DHCP IP:\n"));

    // Without its unit the port is not asked at all.
    const char* unit = "/etc/systemd/network/00-bmc-eth1.network";
    std::string saved = readFile(unit);
    unlink(unit);
    clear();
    answer = call(0x3A, 0x82, {0, 1});
    writeFile(unit, saved);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, bytesOf("Duplex: Speed: Mode: IP:\n"));
    EXPECT_EQ(board::commandLog(), Lines{});
}

TEST_F(FactoryTest, MiiSetChangesDuplexOrSpeed)
{
    struct Case
    {
        const char* what;
        Bytes request;
        std::string result;
        std::string netFile;
        std::string key;
        std::string value;
        Lines log;
    };
    const Case cases[] = {
        {"half duplex on port 0",
         {1, 0, 0, 1},
         "P",
         "/var/sim/net/eth0",
         "duplex",
         "half",
         {"ethtool eth0", "ethtool -s eth0 duplex half"}},
        {"full duplex on port 1",
         {1, 1, 0, 0},
         "P",
         "/var/sim/net/eth1",
         "duplex",
         "full",
         {"ethtool eth1", "ethtool -s eth1 duplex full"}},
        {"10 Mb/s on port 0",
         {1, 0, 1, 0},
         "P",
         "/var/sim/net/eth0",
         "speed",
         "10",
         {"ethtool eth0", "ethtool -s eth0 speed 10"}},
        {"1000 Mb/s on port 1",
         {1, 1, 1, 2},
         "P",
         "/var/sim/net/eth1",
         "speed",
         "1000",
         {"ethtool eth1", "ethtool -s eth1 speed 1000"}},
        {"speed value 3",
         {1, 1, 1, 3},
         "F",
         "/var/sim/net/eth1",
         "speed",
         "100",
         {"ethtool eth1"}},
        {"duplex value 2",
         {1, 0, 0, 2},
         "F",
         "/var/sim/net/eth0",
         "duplex",
         "full",
         {"ethtool eth0"}},
        {"setting kind 2",
         {1, 0, 2, 0},
         "F",
         "/var/sim/net/eth0",
         "duplex",
         "full",
         {"ethtool eth0"}},
        {"setting kind 0xFF",
         {1, 0, 0xFF, 0xFF},
         "F",
         "/var/sim/net/eth0",
         "speed",
         "1000",
         {"ethtool eth0"}},
    };
    for (const auto& c : cases)
    {
        writeFile("/var/sim/net/eth0", eth0);
        writeFile("/var/sim/net/eth1", eth1);
        clear();
        auto answer = call(0x3A, 0x82, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data,
                  bytesOf("set_eth_info_result:" + c.result + "\n"))
            << c.what;
        EXPECT_EQ(board::state(c.netFile, c.key), c.value) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
    }
}

TEST_F(FactoryTest, MiiSetStopsOnlyOnABareAutoNegotiationOn)
{
    struct Case
    {
        const char* what;
        std::string report;
        Bytes request;
        std::string result;
        Lines log;
    };
    const Case cases[] = {
        {"bare on, duplex",
         "\tDuplex: Full\n\tAuto-negotiation: on",
         {1, 0, 0, 1},
         "F",
         {"ethtool eth0"}},
        {"bare on, speed",
         "\tAuto-negotiation: on",
         {1, 0, 1, 1},
         "F",
         {"ethtool eth0"}},
        {"on with its line end",
         "\tAuto-negotiation: on\n",
         {1, 0, 0, 1},
         "P",
         {"ethtool eth0", "ethtool -s eth0 duplex half"}},
        {"no status line",
         "\tDuplex: Full\n",
         {1, 0, 1, 1},
         "P",
         {"ethtool eth0", "ethtool -s eth0 speed 100"}},
    };
    for (const auto& c : cases)
    {
        board::setToolOutput("ethtool", c.report);
        clear();
        auto answer = call(0x3A, 0x82, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data,
                  bytesOf("set_eth_info_result:" + c.result + "\n"))
            << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
    }
}

TEST_F(FactoryTest, MiiMalformedRequestsAnswerOneAndRunNothing)
{
    const Bytes requests[] = {
        {},     {0},       {1},    {0, 2},    {1, 2, 0, 0}, {0, 0xFF},
        {2, 0}, {0xFF, 0}, {1, 0}, {1, 0, 0}, {1, 1, 1},
    };
    for (const auto& request : requests)
    {
        clear();
        auto answer = call(0x3A, 0x82, request);
        EXPECT_EQ(answer.cc, 0x00) << testing::PrintToString(request);
        EXPECT_EQ(answer.data, Bytes{0x01}) << testing::PrintToString(request);
        EXPECT_EQ(board::commandLog(), Lines{})
            << testing::PrintToString(request);
    }
}

TEST_F(FactoryTest, MiiRequestBytesNeverReachTheShellAsText)
{
    // Only these command lines may ever run, whatever the request holds.
    std::set<std::string> allowed;
    for (const char* port : {"eth0", "eth1"})
    {
        std::string tool = std::string("ethtool ") + port;
        allowed.insert(tool);
        std::string set = std::string("ethtool -s ") + port;
        for (const char* setting : {" duplex full", " duplex half", " speed 10",
                                    " speed 100", " speed 1000"})
        {
            allowed.insert(set + setting);
        }
    }
    const uint8_t odd[] = {0x00, 0x01, 0x02, 0x03, 0x0A, 0x22, 0x24,
                           0x27, 0x3B, 0x60, 0x7C, 0x7F, 0x80, 0xFF};
    for (uint8_t op : {0, 1})
    {
        for (uint8_t port : {0, 1})
        {
            for (uint8_t kind : odd)
            {
                for (uint8_t value : {uint8_t{0}, uint8_t{2}, uint8_t{';'},
                                      uint8_t{'\n'}, uint8_t{0xFF}})
                {
                    writeFile("/var/sim/net/eth0", eth0);
                    writeFile("/var/sim/net/eth1", eth1);
                    clear();
                    Bytes request{op, port, kind, value};
                    // Over-long requests too.
                    request.resize(op == 1 && kind == 0x7F ? 4096 : 4, '`');
                    auto answer = call(0x3A, 0x82, request);
                    EXPECT_EQ(answer.cc, 0x00);
                    for (const auto& line : board::commandLog())
                    {
                        EXPECT_EQ(allowed.count(line), 1U)
                            << line << " for "
                            << testing::PrintToString(
                                   Bytes(request.begin(), request.begin() + 4));
                    }
                }
            }
        }
    }
}

} // namespace
