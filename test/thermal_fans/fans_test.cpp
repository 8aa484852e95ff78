// SPDX-License-Identifier: Apache-2.0
// Fan duty and mode, fan information from D-Bus and the fan-control
// parameter file, through the host on the default board.

#include "board.hpp"
#include "dbus.hpp"
#include "plugin.hpp"

#include <filesystem>
#include <string>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr const char* paramFile = "/etc/fancontrol_param.conf";
constexpr const char* fanModeFile = "/var/log/fan_mode";
constexpr const char* fanService =
    "xyz.openbmc_project.Hwmon-1644477290.Hwmon1";
constexpr const char* fanPwm = "xyz.openbmc_project.Control.FanPwm";
constexpr const char* fanModeService = "org.openbmc.control.FanMode";
constexpr const char* fanModePath = "/org/openbmc/control/fanmode";

std::string pwmFile(int channel)
{
    return "/sys/class/hwmon/hwmon0/pwm" + std::to_string(channel);
}

std::string fanPath(const std::string& name)
{
    return "/xyz/openbmc_project/sensors/fan_tach/" + name;
}

std::string targetGet(const std::string& service, const std::string& name)
{
    return service + " " + fanPath(name) +
           " org.freedesktop.DBus.Properties Get "
           "\"xyz.openbmc_project.Control.FanPwm\" \"Target\"";
}

constexpr int pwmChannels[] = {1, 2, 3, 4, 5, 6, 8};

std::vector<std::string> boardPwmFiles()
{
    std::vector<std::string> all;
    for (int channel : pwmChannels)
    {
        all.push_back(readFile(pwmFile(channel)));
    }
    return all;
}

TEST(SetFanConfig, DrivesOneFanOrAllOrReturnsToStandardMode)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
        int channel; // the PWM file written, 0: none
        std::string pwm;
        std::vector<std::string> log;
    };
    const std::string setPwm40 =
        board::logLine({"busctl", "set-property", fanModeService, fanModePath,
                        fanModeService, "setPwm", "i", "40"});
    const std::string stand =
        board::logLine({"busctl", "set-property", fanModeService, fanModePath,
                        fanModeService, "setFanmode", "s", "stand"});
    const Case cases[] = {
        {"fan 7 is channel 8", {0, 7, 100}, 0x00, {0}, 8, "255", {}},
        {"fan 1 at 50 %", {0, 1, 50}, 0x00, {0}, 1, "127", {}},
        {"fan 2 at 1 %", {0, 2, 1}, 0x00, {0}, 2, "2", {}},
        {"fan 6 stopped", {0, 6, 0}, 0x00, {0}, 6, "0", {}},
        {"all fans, unscaled", {0, 0, 40}, 0x00, {0}, 0, "", {setPwm40}},
        {"standard mode", {1}, 0x00, {0}, 0, "", {stand}},
        {"standard mode, rest ignored", {1, 9, 200}, 0x00, {0}, 0, "", {stand}},
        {"fan checked before duty", {0, 8, 150}, 0x00, {2}, 0, "", {}},
        {"duty above 100", {0, 3, 101}, 0x00, {3}, 0, "", {}},
        {"action 2", {2}, 0x00, {1}, 0, "", {}},
        {"action 0xFF", {0xFF, 1, 1}, 0x00, {1}, 0, "", {}},
        {"nothing", {}, 0xC7, {}, 0, "", {}},
        {"duty missing", {0, 1}, 0xC7, {}, 0, "", {}},
    };
    for (const auto& c : cases)
    {
        std::vector<std::string> expected;
        for (int channel : pwmChannels)
        {
            writeFile(pwmFile(channel), "102\n");
            expected.push_back(channel == c.channel ? c.pwm : "102\n");
        }
        board::clearCommandLog();
        auto answer = call(0x3A, 0x30, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(boardPwmFiles(), expected) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
    }
}

TEST(SetFanConfig, BusctlLinesReachTheFanModeService)
{
    testing_dbus::setProperty(fanModeService, fanModePath, fanModeService,
                              "setFanmode", std::string("manual"));
    testing_dbus::clearCalls();
    EXPECT_EQ(call(0x3A, 0x30, {0, 0, 65}).data, Bytes{0});
    EXPECT_EQ(call(0x3A, 0x30, {1}).data, Bytes{0});
    EXPECT_EQ(std::get<int32_t>(testing_dbus::getProperty(
                  fanModeService, fanModePath, fanModeService, "setPwm")),
              65);
    EXPECT_EQ(std::get<std::string>(testing_dbus::getProperty(
                  fanModeService, fanModePath, fanModeService, "setFanmode")),
              "stand");
    const std::string set = std::string(fanModeService) + " " + fanModePath +
                            " org.freedesktop.DBus.Properties Set \"" +
                            fanModeService + "\" ";
    EXPECT_EQ(testing_dbus::calls(),
              (std::vector<std::string>{set + "\"setPwm\" i 65",
                                        set + "\"setFanmode\" s \"stand\""}));
}

TEST(SetFanConfig, UnwritablePwmFileAnswersStatus5)
{
    std::filesystem::remove(pwmFile(3));
    std::filesystem::create_directory(pwmFile(3));
    testing::internal::CaptureStdout();
    auto answer = call(0x3A, 0x30, {0, 3, 20});
    std::string printed = testing::internal::GetCapturedStdout();
    std::filesystem::remove(pwmFile(3));
    writeFile(pwmFile(3), "102\n");
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{5});
    EXPECT_EQ(printed, "open FanTable false");
}

TEST(GetFanInfo, ModeFromTheFanModeFile)
{
    struct Case
    {
        const char* what;
        const char* contents; // nullptr: no file
        uint8_t mode;
        std::string printed;
    };
    const Case cases[] = {
        {"auto", "auto\n", 1, " buff=auto\n fan_mode=auto \n"},
        {"manual", "manual\n", 0, " buff=manual\n fan_mode=manual \n"},
        {"leading blank", " auto x\n", 1, " buff= auto x fan_mode=auto \n"},
        {"only seven characters read", "automatic\n", 0,
         " buff=automat fan_mode=automat \n"},
        {"auto2", "auto2\n", 0, " buff=auto2\n fan_mode=auto2 \n"},
        {"empty", "", 0, " buff= fan_mode= \n"},
        {"missing", nullptr, 1, "open /var/log/fan_mode false "},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(fanModeFile);
        if (c.contents != nullptr)
        {
            writeFile(fanModeFile, c.contents);
        }
        testing::internal::CaptureStdout();
        auto answer = call(0x3A, 0x31);
        std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data,
                  (Bytes{c.mode, 102, 102, 102, 102, 102, 102, 102}))
            << c.what;
        EXPECT_EQ(printed, c.printed) << c.what;
    }
    writeFile(fanModeFile, "auto\n");
}

TEST(GetFanInfo, TargetsOfTheFirstSevenObjectsInPathOrder)
{
    testing_dbus::clearCalls();
    EXPECT_EQ(call(0x3A, 0x31).data,
              (Bytes{1, 102, 102, 102, 102, 102, 102, 102}));
    std::vector<std::string> expected = {
        "xyz.openbmc_project.ObjectMapper /xyz/openbmc_project/object_mapper "
        "xyz.openbmc_project.ObjectMapper GetSubTree "
        "\"/xyz/openbmc_project/sensors\" 0 "
        "[\"xyz.openbmc_project.Control.FanPwm\"]"};
    for (const char* fan :
         {"FAN1", "FAN2", "FAN3", "FAN4", "FAN5", "FAN6", "FAN7"})
    {
        expected.push_back(targetGet(fanService, fan));
    }
    EXPECT_EQ(testing_dbus::calls(), expected);

    // Nine objects: one sorting first in a service of its own, one last. A
    // Target of 300 is reported by its low byte; FAN1 is also served by a
    // service whose name sorts first, and that one is asked.
    const std::string early = "xyz.openbmc_project.A";
    const std::string other = "xyz.openbmc_project.Hwmon-9.Hwmon1";
    testing_dbus::setProperty(other, fanPath("FAN0"), fanPwm, "Target",
                              uint64_t{300});
    testing_dbus::setProperty(fanService, fanPath("FAN8"), fanPwm, "Target",
                              std::string("not a number, never looked at"));
    testing_dbus::setProperty(early, fanPath("FAN1"), fanPwm, "Target",
                              uint64_t{5});
    testing_dbus::setProperty(fanService, fanPath("FAN3"), fanPwm, "Target",
                              uint64_t{0x1FF});
    testing_dbus::clearCalls();
    auto answer = call(0x3A, 0x31);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, (Bytes{1, 44, 5, 102, 0xFF, 102, 102, 102}));
    expected.resize(1);
    expected.push_back(targetGet(other, "FAN0"));
    expected.push_back(targetGet(early, "FAN1"));
    for (const char* fan :
         {"FAN2", "FAN3", "FAN4", "FAN5", "FAN6", "FAN7", "FAN8"})
    {
        expected.push_back(targetGet(fanService, fan));
    }
    EXPECT_EQ(testing_dbus::calls(), expected);

    testing_dbus::remove(other, fanPath("FAN0"));
    testing_dbus::remove(fanService, fanPath("FAN8"));
    testing_dbus::remove(early, fanPath("FAN1"));
    testing_dbus::setProperty(fanService, fanPath("FAN3"), fanPwm, "Target",
                              uint64_t{102});
    EXPECT_EQ(call(0x3A, 0x31).data,
              (Bytes{1, 102, 102, 102, 102, 102, 102, 102}));
}

TEST(GetFanInfo, DbusFailures)
{
    struct Case
    {
        const char* what;
        std::string glob;
        uint8_t cc;
        Bytes data;
        std::string errors;
    };
    const Case cases[] = {
        {"mapper fails: no targets",
         "* GetSubTree *",
         0x00,
         {1, 0, 0, 0, 0, 0, 0, 0},
         "Failed to fetch FanPwm object from dbus.\n"},
        {"a Target read fails", "* Get * \"Target\"", 0xFF, {}, ""},
    };
    for (const auto& c : cases)
    {
        testing_dbus::failCall(c.glob, "org.freedesktop.DBus.Error.NoReply",
                               "fan controller asleep", 1);
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x31);
        std::string errors = testing::internal::GetCapturedStderr();
        testing_dbus::clearFailures();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        if (!c.errors.empty())
        {
            EXPECT_EQ(errors, c.errors) << c.what;
        }
    }

    // A Target that is not a uint64 among the first seven fails the command.
    testing_dbus::setProperty(fanService, fanPath("FAN4"), fanPwm, "Target",
                              uint32_t{102});
    auto answer = call(0x3A, 0x31);
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{});
    testing_dbus::setProperty(fanService, fanPath("FAN4"), fanPwm, "Target",
                              uint64_t{102});
    EXPECT_EQ(call(0x3A, 0x31).cc, 0x00);
}

TEST(FanHelpers, ExportedReadersOfPwmFilesAndFanMode)
{
    using ReadPwm = int (*)(int, uint8_t*);
    using ReadMode = int (*)(uint8_t*);
    auto readPwm = pluginSymbol<ReadPwm>("fan_get_pwmfile");
    struct Case
    {
        const char* what;
        int channel;
        const char* contents;
        int result;
        uint8_t value;
        std::string printed;
    };
    const Case cases[] = {
        {"channel 8", 8, "255\n", 0, 255, ""},
        {"three characters only", 1, "1000\n", 0, 100, ""},
        {"no number", 2, "x\n", 0, 0, ""},
        {"no channel 7", 7, nullptr, -1, 0xEE,
         "open Sorrelind_FanTable false "},
    };
    for (const auto& c : cases)
    {
        if (c.contents != nullptr)
        {
            writeFile(pwmFile(c.channel), c.contents);
        }
        uint8_t value = 0xEE;
        testing::internal::CaptureStdout();
        EXPECT_EQ(readPwm(c.channel, &value), c.result) << c.what;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.what;
        EXPECT_EQ(value, c.value) << c.what;
        if (c.contents != nullptr)
        {
            writeFile(pwmFile(c.channel), "102\n");
        }
    }

    auto readMode = pluginSymbol<ReadMode>("fan_get_fan_mode");
    uint8_t mode = 0xEE;
    writeFile(fanModeFile, "manual\n");
    EXPECT_EQ(readMode(&mode), 0);
    EXPECT_EQ(mode, 0);
    std::filesystem::remove(fanModeFile);
    EXPECT_EQ(readMode(&mode), -1);
    EXPECT_EQ(mode, 1);
    writeFile(fanModeFile, "auto\n");
}

const std::string line1 = "0x01:0x0A:0x02:0x00:0x1E:0x14\n";
const std::string line2 = "0x02:0x0C:0x03:0x01:0x46:0x1E\n";
const std::string line5 = "0x05:0x08:0x02:0x00:0x32:0x14\n";
const std::string line6 = "0x06:0x06:0x01:0x00:0x28:0x14\n";

TEST(FanPidInfo, GetAnswersTheSixFieldsOfTheLine)
{
    struct Case
    {
        const char* what;
        const char* contents; // nullptr: no file
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string errors;
    };
    const std::string original = readFile(paramFile);
    const std::string noNewline = line1 + line6.substr(0, 29);
    const Case cases[] = {
        {"board's sensor 3",
         original.c_str(),
         {3},
         0x00,
         {0x03, 0x0C, 0x03, 0x01, 0x46, 0x1E},
         ""},
        {"board's sensor 6, rest ignored",
         original.c_str(),
         {6, 1, 2},
         0x00,
         {0x06, 0x06, 0x01, 0x00, 0x28, 0x14},
         ""},
        {"unknown sensor: byte 1 in the message",
         original.c_str(),
         {7, 0x2A},
         0x01,
         {1},
         "cmd(0x2a):please enter correct sensorID!\n"},
        {"last line without newline",
         noNewline.c_str(),
         {6, 9},
         0x01,
         {1},
         "cmd(0x9):please enter correct sensorID!\n"},
        {"empty request",
         original.c_str(),
         {},
         0x01,
         {1},
         "cmd(0x0):please enter correct sensorID!\n"},
        {"no file",
         nullptr,
         {3},
         0xFF,
         {1},
         "cmd(0x47):/etc/fancontrol_param.conf does not exist!\n"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(paramFile);
        if (c.contents != nullptr)
        {
            writeFile(paramFile, c.contents);
        }
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x47, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(errors, c.errors) << c.what;
        EXPECT_EQ(readFile(paramFile),
                  c.contents != nullptr ? c.contents : "<missing>")
            << c.what;
    }
    writeFile(paramFile, original);
}

TEST(FanPidInfo, SetRewritesTheLineInPlace)
{
    struct Case
    {
        const char* what;
        const char* before; // nullptr: no file
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string after;
        std::string errors;
    };
    const std::string third = line1 + line2 + line5 + line6;
    const std::string narrow = line1 + "0x5:0x8:0x2:0x0:0x32:0x14\n" + line6;
    const Case cases[] = {
        {"third line",
         third.c_str(),
         {0x05, 0xAB, 0x00, 0xFF, 0x7F, 0x01},
         0x00,
         {0x05, 0xAB, 0x00, 0xFF, 0x7F, 0x01},
         line1 + line2 + "0x05:0xAB:0x00:0xFF:0x7F:0x01\n" + line6,
         ""},
        {"extra bytes not echoed",
         third.c_str(),
         {0x01, 1, 2, 3, 4, 5, 6, 7},
         0x00,
         {0x01, 1, 2, 3, 4, 5},
         "0x01:0x01:0x02:0x03:0x04:0x05\n" + line2 + line5 + line6,
         ""},
        {"new sensor not added",
         third.c_str(),
         {0x09, 1, 2, 3, 4, 5, 0x33},
         0xFF,
         {1},
         third,
         "cmd(0x1):please enter correct sensorID!\n"},
        {"line not of the fixed width",
         narrow.c_str(),
         {0x05, 1, 2, 3, 4, 5},
         0xFF,
         {1},
         narrow,
         "cmd(0x48):line of sensorID 0x05 is not "
         "0xNN:0xNN:0xNN:0xNN:0xNN:0xNN, not rewritten!\n"},
        {"parameters missing",
         third.c_str(),
         {0x05, 1, 2, 3, 4},
         0xC7,
         {},
         third,
         ""},
        {"no file",
         nullptr,
         {0x05, 1, 2, 3, 4, 5},
         0xFF,
         {1},
         "<missing>",
         "cmd(0x48):/etc/fancontrol_param.conf does not exist!\n"},
    };
    const std::string original = readFile(paramFile);
    for (const auto& c : cases)
    {
        std::filesystem::remove(paramFile);
        if (c.before != nullptr)
        {
            writeFile(paramFile, c.before);
        }
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x48, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(paramFile), c.after) << c.what;
        EXPECT_EQ(errors, c.errors) << c.what;
    }
    writeFile(paramFile, original);
}

TEST(FanPidInfo, SetThenGetOnTheBoardFile)
{
    const std::string original = readFile(paramFile);
    auto answer = call(0x3A, 0x48, {0x04, 0x10, 0x20, 0x30, 0x40, 0x50});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(call(0x3A, 0x47, {0x04}).data,
              (Bytes{0x04, 0x10, 0x20, 0x30, 0x40, 0x50}));
    std::string expected = original;
    expected.replace(3 * 30, 30, "0x04:0x10:0x20:0x30:0x40:0x50\n");
    EXPECT_EQ(readFile(paramFile), expected);
    writeFile(paramFile, original);
}

} // namespace
