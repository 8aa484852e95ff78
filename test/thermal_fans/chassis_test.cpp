// SPDX-License-Identifier: Apache-2.0
// Chassis intrusion, the high-temperature detection flag, the warning LED
// and the identify LED, through the host on the default board.

#include "board.hpp"
#include "plugin.hpp"

#include <cstdlib>
#include <filesystem>
#include <string>

namespace
{

using Bytes = std::vector<uint8_t>;
using Handler = ipmid_callback_t;
using Install = int32_t (*)(int, Handler);

constexpr const char* intrusionValue = "/sys/class/gpio/gpio332/value";
constexpr const char* exportFile = "/sys/class/gpio/export";
constexpr const char* flagFile = "/etc/flag_tempdetect";
constexpr const char* identifyState = "/var/sim/identify-led";

TEST(ChassisIntrusion, AnswersTheSwitchState)
{
    struct Case
    {
        const char* what;
        const char* value; // nullptr: the GPIO is not there
        uint8_t cc;
        Bytes data;
        std::string errors;
    };
    const Case cases[] = {
        {"closed", "1\n", 0x00, {0}, "pq add oem get_chassis_status val=1 \n"},
        {"opened", "0\n", 0x00, {1}, "pq add oem get_chassis_status val=0 \n"},
        {"unexpected value",
         "2\n",
         0x00,
         {0x11},
         "pq add oem get_chassis_status val=2 \n"},
        {"no number",
         "x\n",
         0x00,
         {0x11},
         "pq add oem get_chassis_status val=-1 \n"},
        {"not exported",
         nullptr,
         0xFF,
         {0x11},
         "pq add oem open gpio332 not exist \xEF\xBC\x81\n"},
    };
    for (const auto& c : cases)
    {
        writeFile(exportFile, "");
        if (c.value != nullptr)
        {
            writeFile(intrusionValue, c.value);
        }
        else
        {
            std::filesystem::rename("/sys/class/gpio/gpio332", "/tmp/gpio332");
        }
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x46, {0x55});
        std::string errors = testing::internal::GetCapturedStderr();
        if (c.value == nullptr)
        {
            std::filesystem::rename("/tmp/gpio332", "/sys/class/gpio/gpio332");
        }
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(errors, c.errors) << c.what;
        EXPECT_EQ(readFile(exportFile), "332\n") << c.what;
    }
    writeFile(intrusionValue, "1\n");
}

TEST(HighTempDetect, SetWritesTheFlagAndGetReadsIt)
{
    struct Case
    {
        const char* what;
        const char* before; // nullptr: no flag file
        uint8_t cmd;
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string after;
    };
    const Case cases[] = {
        {"set off", "1\n", 0x57, {0}, 0x00, {0}, "0\n"},
        {"set on", "0\n", 0x57, {1, 7}, 0x00, {0}, "1\n"},
        {"set 5 refused", "0\n", 0x57, {5}, 0x00, {2}, "0\n"},
        {"set 5 creates nothing", nullptr, 0x57, {5}, 0x00, {2}, "<missing>"},
        {"set without a value", "1\n", 0x57, {}, 0xC7, {}, "1\n"},
        {"get on", "1\n", 0x56, {}, 0x00, {1}, "1\n"},
        {"get off", "0\n", 0x56, {}, 0x00, {0}, "0\n"},
        {"get low byte", "258\n", 0x56, {}, 0x00, {2}, "258\n"},
        {"get garbage", "on\n", 0x56, {}, 0x00, {0}, "on\n"},
        {"get creates the flag off", nullptr, 0x56, {}, 0x00, {0}, "0\n"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(flagFile);
        if (c.before != nullptr)
        {
            writeFile(flagFile, c.before);
        }
        auto answer = call(0x3A, c.cmd, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(flagFile), c.after) << c.what;
    }
    writeFile(flagFile, "1\n");
}

TEST(WarnLed, SetWritesTheActiveLowRegisterAndGetReadsIt)
{
    struct Case
    {
        const char* what;
        uint8_t before;
        uint8_t cmd;
        Bytes request;
        uint8_t cc;
        Bytes data;
        uint8_t after;
    };
    const Case cases[] = {
        {"set on with 0x80", 1, 0x25, {0x80}, 0x00, {0}, 0},
        {"set on with 1", 1, 0x25, {1}, 0x00, {0}, 0},
        {"set off", 0, 0x25, {0}, 0x00, {0}, 1},
        {"set without a value", 0, 0x25, {}, 0xC7, {}, 0},
        {"get lit", 0, 0x26, {}, 0x00, {1}, 0},
        {"get off", 1, 0x26, {}, 0x00, {0}, 1},
        {"get any other value is off", 0x5A, 0x26, {}, 0x00, {0}, 0x5A},
    };
    for (const auto& c : cases)
    {
        board::setI2cRegister(10, 0x23, 0x3C, {c.before});
        auto answer = call(0x3A, c.cmd, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(board::i2cRegister(10, 0x23, 0x3C), Bytes{c.after}) << c.what;
        // The CPLD's other registers are left alone.
        EXPECT_EQ(board::i2cRegister(10, 0x23, 0x02), Bytes{0x05}) << c.what;
    }
    board::setI2cRegister(10, 0x23, 0x3C, {0x01});
}

TEST(WarnLed, OneCombinedTransferPerCommand)
{
    const char* transferLog = "/tmp/warn-led-transfers.log";
    std::filesystem::remove(transferLog);
    setenv("I2CSIM_LOG", transferLog, 1);
    EXPECT_EQ(call(0x3A, 0x25, {1}).data, Bytes{0});
    EXPECT_EQ(call(0x3A, 0x26).data, Bytes{1});
    unsetenv("I2CSIM_LOG");
    // The process id varies; the rest of each line is the transfer.
    std::string log = readFile(transferLog);
    for (size_t at = log.find(" pid="); at != std::string::npos;
         at = log.find(" pid=", at))
    {
        log.erase(at, log.find(' ', at + 1) - at);
    }
    EXPECT_EQ(log, "rdwr dev=/dev/i2c-10 msgs=1 m0=w:0x23:2:3c00 result=1\n"
                   "rdwr dev=/dev/i2c-10 msgs=2 m0=w:0x23:1:3c m1=r:0x23:1:00 "
                   "result=2\n");
    board::setI2cRegister(10, 0x23, 0x3C, {0x01});
}

TEST(WarnLed, BusFailures)
{
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        uint8_t cc;
        Bytes data;
        std::string errors;
    };
    const char* transferError = "write reg 23 3c error\r\n";
    const Case cases[] = {
        {"set, no answer", 0x25, {1}, 0x01, {1}, transferError},
        {"get, no answer", 0x26, {}, 0x01, {0x11}, transferError},
    };
    for (const auto& c : cases)
    {
        board::failI2cTransfers(10, 0x23, 1);
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, c.cmd, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(errors, c.errors) << c.what;
        EXPECT_EQ(board::i2cRegister(10, 0x23, 0x3C), Bytes{0x01}) << c.what;
    }

    std::filesystem::rename("/dev/i2c-10", "/tmp/i2c-10");
    auto set = call(0x3A, 0x25, {1});
    auto get = call(0x3A, 0x26);
    std::filesystem::rename("/tmp/i2c-10", "/dev/i2c-10");
    EXPECT_EQ(set.cc, 0xFF);
    EXPECT_EQ(set.data, Bytes{1});
    EXPECT_EQ(get.cc, 0xFF);
    EXPECT_EQ(get.data, Bytes{0x11});
    EXPECT_EQ(board::i2cRegister(10, 0x23, 0x3C), Bytes{0x01});
}

// The identify-LED handlers here are the defaults; the machine start-up
// puts the factory-test ones in their slots. Installs the defaults for the
// life of the object.
class DefaultIdentifyLed
{
  public:
    DefaultIdentifyLed() :
        install(pluginSymbol<Install>("regiter_functions")),
        savedGet(slots()[0x23]), savedSet(slots()[0x24])
    {
        EXPECT_EQ(
            install(0x23, pluginSymbol<Handler>("ipmi_vel_oem_get_bmc_led")),
            0);
        EXPECT_EQ(
            install(0x24, pluginSymbol<Handler>("ipmi_vel_oem_set_bmc_led")),
            0);
    }
    ~DefaultIdentifyLed()
    {
        install(0x23, savedGet);
        install(0x24, savedSet);
    }
    DefaultIdentifyLed(const DefaultIdentifyLed&) = delete;
    DefaultIdentifyLed& operator=(const DefaultIdentifyLed&) = delete;

  private:
    static Handler* slots()
    {
        return pluginSymbol<Handler*>("g_ipmiOemHandle");
    }

    Install install;
    Handler savedGet;
    Handler savedSet;
};

TEST(IdentifyLed, SetTogglesAndGetReportsTheScriptStatus)
{
    DefaultIdentifyLed defaults;
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        int status; // the script's exit status, if not its own
        uint8_t cc;
        Bytes data;
        std::string after;
    };
    const Case cases[] = {
        {"off", 0x23, {}, 0, 0x00, {0}, "off\n"},
        {"toggle, no data added", 0x24, {}, 0, 0x00, {}, "on\n"},
        {"lit", 0x23, {}, 0, 0x00, {1}, "on\n"},
        {"toggle whatever the request", 0x24, {0}, 0, 0x00, {0}, "off\n"},
        {"response as long as the request",
         0x24,
         {1, 1},
         0,
         0x00,
         {0, 0},
         "on\n"},
        {"exit code 3 is still 0x00", 0x24, {}, 3, 0x00, {}, "on\n"},
        {"get, any non-zero exit is lit", 0x23, {}, 2, 0x00, {1}, "on\n"},
    };
    writeFile(identifyState, "off\n");
    for (const auto& c : cases)
    {
        const char* script =
            c.cmd == 0x23 ? "get_identify_led.sh" : "toggle_identify_led.sh";
        if (c.status != 0)
        {
            board::setToolStatus(script, c.status);
        }
        board::clearCommandLog();
        auto answer = call(0x3A, c.cmd, c.request);
        board::resetTool(script);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(identifyState), c.after) << c.what;
        EXPECT_EQ(board::commandLog(), std::vector<std::string>{script})
            << c.what;
    }
    writeFile(identifyState, "off\n");
}

// The raw status of a shell ended by a signal is the signal number.
TEST(IdentifyLed, ShellKilledBySignalGivesTheSignalAsCompletionCode)
{
    DefaultIdentifyLed defaults;
    const std::string script = "/usr/bin/toggle_identify_led.sh";
    std::filesystem::rename(script, "/tmp/toggle_identify_led.sh");
    writeFile(script, "#!/bin/sh\nkill -TERM $PPID\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    auto answer = call(0x3A, 0x24);
    std::filesystem::remove(script);
    std::filesystem::rename("/tmp/toggle_identify_led.sh", script);
    EXPECT_EQ(answer.cc, 15); // SIGTERM
    EXPECT_EQ(answer.data, Bytes{});
}

} // namespace
