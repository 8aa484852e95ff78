// SPDX-License-Identifier: Apache-2.0
// Exported helpers that no command reaches (or not on these paths), called
// directly inside the sandbox. Everything a command reaches is in the case
// files.

#include "plugin.hpp"

#include <cstring>
#include <functional>
#include <string>

namespace
{

std::string stderrOf(const std::function<void()>& body)
{
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST(AlarmDetail, ListsTheSensorsOfTheHighestFlaggedLevel)
{
    auto detail = pluginSymbol<void (*)(char*, uint8_t, uint8_t, uint8_t)>(
        "get_sysalarm_detail");
    writeFile("/etc/nonrecoverlogreport_flag.conf", "P12V=1\n");
    writeFile("/etc/logreport_flag.conf", "fan1=0\nfan2=1\ntemp=2\n");
    writeFile("/etc/warnlogreport_flag.conf", "CPU0_Temp=2\n");
    struct Case
    {
        uint8_t levels[3];
        std::string before;
        std::string after;
    };
    const Case cases[] = {
        {{1, 1, 1}, "", "1: P12V|Nonrecoverable.\n"},
        {{0, 1, 1}, "", "1: fan2|Critical.\n2: temp|Critical.\n"},
        {{0, 2, 1}, "", "1: CPU0_Temp|Warning.\n"}, // only 1 selects
        {{0, 0, 0}, "kept", "kept"},
        {{0, 0, 1}, "x\n", "x\n1: CPU0_Temp|Warning.\n"}, // appends
    };
    for (const auto& c : cases)
    {
        std::string buffer(4096, '\0');
        buffer.replace(0, c.before.size(), c.before);
        detail(buffer.data(), c.levels[0], c.levels[1], c.levels[2]);
        EXPECT_EQ(std::string(buffer.c_str()), c.after) << c.after;
    }

    // A long name is read in pieces; only the one holding the value counts.
    writeFile("/etc/warnlogreport_flag.conf", std::string(40, 'x') + "=1\n");
    std::string buffer(4096, '\0');
    detail(buffer.data(), 0, 0, 1);
    EXPECT_EQ(std::string(buffer.c_str()), "1: xxxxxxxxx|Warning.\n");

    unlink("/etc/warnlogreport_flag.conf");
    std::string untouched(4096, '\0');
    EXPECT_NE(stderrOf([&] {
                  detail(untouched.data(), 0, 0, 1);
              }).find("] warnlogreport_flag.conf can not open \n\n"),
              std::string::npos);
    EXPECT_EQ(untouched[0], '\0');

    // However many sensors are in alarm, whole entries within the buffer.
    std::string many;
    for (int i = 0; i < 1000; ++i)
    {
        many += "s" + std::to_string(i) + "=1\n";
    }
    writeFile("/etc/logreport_flag.conf", many);
    std::vector<char> bounded(4096, '\0');
    stderrOf([&] { detail(bounded.data(), 0, 1, 0); });
    std::string listed(bounded.data());
    EXPECT_LT(listed.size(), 4096u);
    EXPECT_GT(listed.size(), 4000u);
    EXPECT_EQ(listed.back(), '\n');
    EXPECT_EQ(listed.substr(0, 17), "1: s0|Critical.\n2");
}

TEST(SystemCtrl, KeepsTheFirstLineOfOutputWithoutItsNewline)
{
    auto systemCtrl = pluginSymbol<int (*)(char*, char*, int)>("system_ctrl");
    struct Case
    {
        const char* command;
        int size;
        const char* expected;
    };
    const Case cases[] = {
        {"printf 'first\\nsecond\\n'", 64, "first"},
        {"printf 'no newline'", 64, "no newline"},
        {"printf 'abcdef\\n'", 4, "abc"},        // size - 1 characters
        {"echo partial; exit 7", 64, "partial"}, // exit status not examined
        {"exit 3", 64, "untouched"},             // no output, no change
    };
    for (const auto& c : cases)
    {
        char command[128];
        snprintf(command, sizeof(command), "%s", c.command);
        char output[64] = "untouched";
        EXPECT_EQ(systemCtrl(command, output, c.size), 0) << c.command;
        EXPECT_STREQ(output, c.expected) << c.command;
    }
}

TEST(ResetBmc, ReportsSuccessAndRunsReboot)
{
    unlink("/var/log/sim/commands.log");
    EXPECT_EQ(stderrOf([] { pluginSymbol<int (*)(int)>("reset_bmc")(10); }),
              "reset_bmc succeed\n");
    EXPECT_EQ(readFile("/var/log/sim/commands.log"), "reboot\n");
}

TEST(LocalBusRead, ReadsOneByteAtAnOffset)
{
    auto read =
        pluginSymbol<int (*)(const char*, long, uint8_t*)>("local_bus_read");
    writeFile("/tmp/regs", std::string("\x10\x20\x30\x40", 4));
    uint8_t value = 0;
    EXPECT_EQ(read("/tmp/regs", 2, &value), 0);
    EXPECT_EQ(value, 0x30);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(read("/tmp/regs", -1, &value), -1); }),
              "Fseek err ret = -1");
    EXPECT_EQ(stderrOf([&] { EXPECT_LT(read("/tmp/none", 0, &value), 0); }),
              "/tmp/none file cannot open \n");
    EXPECT_EQ(value, 0x30);
}

// i2c_write and i2c_write_buffer serve no command; the SMBus block read of
// 32 bytes and more no command asks for.
TEST(I2c, WritesAndLongBlockReads)
{
    auto write = pluginSymbol<int (*)(int, int, uint8_t, uint8_t)>("i2c_write");
    auto writeBuffer = pluginSymbol<int (*)(int, uint16_t, uint8_t*, uint16_t)>(
        "i2c_write_buffer");
    auto smbusRead =
        pluginSymbol<int (*)(int, uint8_t, uint8_t, uint8_t, char*)>(
            "smbus_read");
    writeFile("/dev/i2c-40", "device 0x23\nreg 0x3c 01\ndevice 0x59 noanswer\n"
                             "device 0x58\nreg 0x9a \"\\x0bDELTA#12345\"\n");
    EXPECT_EQ(write(40, 0x23, 0x3C, 0x00), 0);
    uint8_t update[2] = {0x39, 0x0F};
    EXPECT_EQ(writeBuffer(40, 0x23, update, 2), 1);
    EXPECT_EQ(readFile("/dev/i2c-40").substr(0, 36),
              "device 0x23\nreg 0x39 0f\nreg 0x3c 00\n");

    int rc = 0;
    EXPECT_EQ(stderrOf([&] { rc = write(40, 0x59, 0x3C, 1); }),
              " i2c_write :I2c40-89  reg 0x3c I2C_RDWR ioError=-1?\n");
    EXPECT_EQ(rc, -1);
    EXPECT_LT(writeBuffer(40, 0x59, update, 2), 0);
    EXPECT_EQ(stderrOf([&] { rc = write(99, 0x23, 2, 1); }),
              "I2C Bus Open(\"/dev/i2c-99\"): \"Operation not permitted\"\n");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(writeBuffer(99, 0x58, update, 2), -1);

    // 32 and more: the broken block type, which reads 32 bytes.
    for (uint8_t length : {32, 40})
    {
        char out[64];
        memset(out, '#', sizeof(out));
        EXPECT_EQ(smbusRead(40, 0x58, 0x9A, length, out), 32);
        EXPECT_EQ(std::string(out, 13), "\x0b"
                                        "DELTA#12345\xff");
        EXPECT_EQ(out[32], '#');
    }
}

// killall and ps in the sandbox must see only its own processes: the host
// (here the test) is PID 1 of a namespace of its own.
TEST(Sandbox, SeesOnlyItsOwnProcesses)
{
    EXPECT_EQ(getpid(), 1);
    // Us, the bus's two, and the shell, its subshell, ps and wc.
    EXPECT_EQ(system("[ $(ps -o pid= | wc -l) -le 7 ] || ps >&2"), 0);
}

} // namespace
