// SPDX-License-Identifier: Apache-2.0
// GPIO access, board ID, CPU status, serial-over-LAN routing and the JBOD
// I2C pass-through through the host, on the default board.

#include "board.hpp"
#include "plugin.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr const char* exportFile = "/sys/class/gpio/export";

std::string gpioFile(int gpio, const char* name)
{
    return "/sys/class/gpio/gpio" + std::to_string(gpio) + "/" + name;
}

TEST(Gpio, GetReadsTheBankPinAndExportsOnlyWhatIsMissing)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string exported;
    };
    const Case cases[] = {
        {"bank 1 pin 5 is 285", {1, 5}, 0x00, {1}, "<missing>"},
        {"bank 0 pin 5 is 297", {0, 5}, 0x00, {0}, "<missing>"},
        {"bank 1 pin 0", {1, 0}, 0x00, {1}, "<missing>"},
        {"bank 0 pin 11", {0, 11}, 0x00, {0}, "<missing>"},
        {"bank 2", {2, 5}, 0xFF, {2}, "<missing>"},
        {"unexported line", {1, 40}, 0xFF, {2}, "320\n"},
        {"short request", {1}, 0xC7, {}, "<missing>"},
        {"extra bytes ignored", {0, 1, 9, 9}, 0x00, {1}, "<missing>"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(exportFile);
        auto answer = call(0x3A, 0x65, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(exportFile), c.exported) << c.what;
    }
}

TEST(Gpio, SetDrivesOnlyWhenAsked)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
        int gpio;
        std::string direction;
        std::string value;
    };
    const Case cases[] = {
        {"drive bank 0 pin 9 high",
         {0, 9, 1, 1},
         0x00,
         {0},
         301,
         "out\n",
         "1\n"},
        {"drive bank 1 pin 1 high",
         {1, 1, 1, 1},
         0x00,
         {0},
         281,
         "out\n",
         "1\n"},
        {"drive bank 1 pin 8 low",
         {1, 8, 1, 0},
         0x00,
         {0},
         288,
         "out\n",
         "0\n"},
        {"byte 2 not 1 changes nothing",
         {1, 3, 0, 0},
         0x00,
         {0},
         283,
         "in\n",
         "1\n"},
        {"bank 3", {3, 3, 1, 0}, 0xFF, {1}, 283, "in\n", "1\n"},
        {"drive without a value", {1, 3, 1}, 0xC7, {}, 283, "in\n", "1\n"},
        {"nothing", {}, 0xC7, {}, 283, "in\n", "1\n"},
    };
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, 0x66, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(gpioFile(c.gpio, "direction")), c.direction)
            << c.what;
        EXPECT_EQ(readFile(gpioFile(c.gpio, "value")), c.value) << c.what;
    }
    EXPECT_EQ(call(0x3A, 0x65, {0, 9}).data, Bytes{1});
}

TEST(Gpio, SetOnAMissingLineExportsItAndFailsToDrive)
{
    std::filesystem::remove(exportFile);
    auto answer = call(0x3A, 0x66, {1, 50, 0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(exportFile), "330\n");

    answer = call(0x3A, 0x66, {1, 50, 1, 1});
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{1});
    EXPECT_FALSE(std::filesystem::exists(gpioFile(330, "value")));
}

TEST(BoardId, AnswersBothStraps)
{
    auto answer = call(0x3A, 0x62);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, (Bytes{1, 0}));

    writeFile(gpioFile(290, "value"), "1\n");
    EXPECT_EQ(call(0x3A, 0x62).data, (Bytes{1, 1}));

    std::filesystem::rename("/sys/class/gpio/gpio290", "/tmp/gpio290");
    answer = call(0x3A, 0x62);
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{2});
    std::filesystem::rename("/tmp/gpio290", "/sys/class/gpio/gpio290");
    writeFile(gpioFile(290, "value"), "0\n");
}

TEST(CpuStatus, AnswersTheFiveLinesInOrder)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
    };
    writeFile(gpioFile(413, "value"), "0\n");
    writeFile(gpioFile(390, "value"), "0\n");
    const Case cases[] = {
        {"CPU 0", {0}, 0x00, {0, 1, 1, 0, 1}},
        {"CPU 1", {1}, 0x00, {0, 1, 1, 1, 0}},
        {"CPU 2", {2}, 0xC9, {}},
        {"two bytes", {0, 0}, 0xC7, {}},
        {"no byte", {}, 0xC7, {}},
    };
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, 0x67, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
    }
    writeFile(gpioFile(413, "value"), "1\n");
    writeFile(gpioFile(390, "value"), "1\n");

    std::filesystem::rename("/sys/class/gpio/gpio415", "/tmp/gpio415");
    auto answer = call(0x3A, 0x67, {0});
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{5});
    EXPECT_EQ(readFile(exportFile), "415\n");
    std::filesystem::rename("/tmp/gpio415", "/sys/class/gpio/gpio415");
}

TEST(Sol, SetAndGetTheRoutingLine)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string value;
    };
    const Case cases[] = {
        {"to the BMC", {1}, 0x00, {0}, "1\n"},
        {"above 1", {2}, 0xFF, {1}, "1\n"},
        {"back to the host", {0}, 0x00, {0}, "0\n"},
        {"nothing", {}, 0xC7, {}, "0\n"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(exportFile);
        auto answer = call(0x3A, 0x55, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(gpioFile(381, "value")), c.value) << c.what;
        auto state = call(0x3A, 0x54);
        EXPECT_EQ(state.cc, 0x00) << c.what;
        EXPECT_EQ(state.data, Bytes{uint8_t(c.value[0] - '0')}) << c.what;
        EXPECT_EQ(readFile(exportFile), "381\n") << c.what;
    }
    // The routing line's direction is the board's business.
    EXPECT_EQ(readFile(gpioFile(381, "direction")), "out\n");

    std::filesystem::rename("/sys/class/gpio/gpio381", "/tmp/gpio381");
    auto answer = call(0x3A, 0x54);
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{2});
    answer = call(0x3A, 0x55, {1});
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{1});
    std::filesystem::rename("/tmp/gpio381", "/sys/class/gpio/gpio381");
}

TEST(Jbod, ReadsAndWritesOneRegisterPerChannel)
{
    for (uint8_t channel = 0; channel < 6; ++channel)
    {
        auto answer = call(0x3A, 0x60, {channel, 0x40, 0x00});
        EXPECT_EQ(answer.cc, 0x00) << int(channel);
        EXPECT_EQ(answer.data, Bytes{uint8_t(0x30 + channel)}) << int(channel);
    }
    auto answer = call(0x3A, 0x61, {2, 0x40, 0x11, 0x0A});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(board::i2cRegister(32, 0x40, 0x11), Bytes{0x0A});
    EXPECT_EQ(call(0x3A, 0x60, {2, 0x40, 0x11}).data, Bytes{0x0A});
}

TEST(Jbod, FailuresAnswerTheirCodes)
{
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string message;
    };
    board::setI2cAnswers(33, 0x40, false);
    std::filesystem::rename("/dev/i2c-34", "/tmp/i2c-34");
    const Case cases[] = {
        {"get channel 6",
         0x60,
         {6, 0x40, 0},
         0xFF,
         {},
         "ipmi_vel_oem_get_jbod_i2c_data error Channel 6.\n"},
        {"set channel 6",
         0x61,
         {6, 0x40, 0, 1},
         0xFF,
         {},
         "ipmi_vel_oem_set_jbod_i2c_data error Channel 6.\n"},
        {"get, no answer",
         0x60,
         {3, 0x40, 0x01},
         0x01,
         {0x11},
         "ipmi_vel_oem_get_jbod_i2c_data read reg i2c_bus=[/dev/i2c-33] "
         "addr=[40] reg=[1] error\r\n"},
        {"set, no answer",
         0x61,
         {3, 0x40, 0x11, 1},
         0x01,
         {0x01},
         "ipmi_vel_oem_set_jbod_i2c_data write reg 40 11 error\r\n"},
        {"get, no bus",
         0x60,
         {4, 0x40, 0},
         0xFF,
         {0x11},
         "ipmi_vel_oem_get_jbod_i2c_data Open i2c bus /dev//dev/i2c-34 "
         "failed.\n"},
        {"set, no bus",
         0x61,
         {4, 0x40, 0, 1},
         0xFF,
         {0x01},
         "ipmi_vel_oem_set_jbod_i2c_data Open i2c bus /dev//dev/i2c-34 "
         "failed.\n"},
        {"get, short", 0x60, {0, 0x40}, 0xC7, {}, ""},
        {"set without a value", 0x61, {0, 0x40, 0x11}, 0xC7, {}, ""},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, c.cmd, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(errors, c.message) << c.what;
    }
    std::filesystem::rename("/tmp/i2c-34", "/dev/i2c-34");
    board::setI2cAnswers(33, 0x40, true);
    EXPECT_EQ(board::i2cRegister(30, 0x40, 0x11), Bytes{0x00});
    EXPECT_EQ(board::i2cRegister(33, 0x40, 0x11), Bytes{0x00});
}

} // namespace
