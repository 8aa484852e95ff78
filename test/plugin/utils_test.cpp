// SPDX-License-Identifier: Apache-2.0
// The shell and file utilities, run for real inside the sandbox: its
// /bin/sh is busybox, as on the BMC.

#include "plugin.hpp"

#include <cstring>

namespace
{

using SystemCtrl = int (*)(char*, char*, int);

TEST(SystemCtrl, KeepsTheFirstLineOfOutputWithoutItsNewline)
{
    auto systemCtrl = pluginSymbol<SystemCtrl>("system_ctrl");
    struct Case
    {
        const char* command;
        int size;
        const char* expected;
    };
    const Case cases[] = {
        {"echo abc", 64, "abc"},
        {"printf 'first\\nsecond\\n'", 64, "first"},
        {"printf 'no newline'", 64, "no newline"},
        {"printf 'abcdef\\n'", 4, "abc"},        // size - 1 characters
        {"echo partial; exit 7", 64, "partial"}, // exit status not examined
        {"true", 64, "untouched"},               // no output, no change
        {"exit 3", 64, "untouched"},
        {"echo '' ", 64, ""}, // an empty line is still a line
    };
    for (const auto& c : cases)
    {
        char command[128];
        snprintf(command, sizeof(command), "%s", c.command);
        char output[64] = "untouched";
        EXPECT_EQ(systemCtrl(command, output, c.size), 0) << c.command;
        EXPECT_STREQ(output, c.expected) << c.command;
    }

    char command[] = "echo ignored";
    EXPECT_EQ(systemCtrl(command, nullptr, 0), 0);
}

TEST(ResetBmc, ReportsSuccessAndRunsReboot)
{
    auto resetBmc = pluginSymbol<int (*)(int)>("reset_bmc");
    unlink("/var/log/sim/commands.log");
    testing::internal::CaptureStderr();
    EXPECT_EQ(resetBmc(10), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "reset_bmc succeed\n");
    EXPECT_EQ(readFile("/var/log/sim/commands.log"), "reboot\n");
}

TEST(ReadWriteByte, AccessOneByteThroughAPointer)
{
    auto readb = pluginSymbol<uint8_t (*)(const volatile void*)>("readb");
    auto writeb = pluginSymbol<void (*)(uint8_t, volatile void*)>("writeb");
    uint8_t memory[4] = {1, 2, 3, 4};
    writeb(0xEE, &memory[2]);
    EXPECT_EQ(memory[2], 0xEE);
    EXPECT_EQ(memory[1], 2);
    EXPECT_EQ(memory[3], 4);
    EXPECT_EQ(readb(&memory[3]), 4);
}

} // namespace
