// SPDX-License-Identifier: Apache-2.0
// The P2A helpers other modules call, which no command reaches in these
// ways, on the default board: the bridge on (0x1E6E2180 = 0x2) and the
// strap register 0x1E6E2070 = 0xF10CC206.

#include "board.hpp"
#include "plugin.hpp"

namespace
{

using Log = std::vector<std::string>;

TEST(P2aHelpers, SetP2aSwitchJudgesItsWrite)
{
    auto setP2aSwitch = pluginSymbol<int (*)(unsigned)>("set_p2a_switch");
    struct Case
    {
        unsigned value;
        int devmemStatus;
        int result;
        Log log;
        std::string messages;
    };
    const Case cases[] = {
        // Read first, then refused without a write.
        {2, 0, -1, {"devmem 0x1e6e2180"}, ""},
        {0,
         0,
         0,
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0x0"},
         "oem set p2a switch cmds=devmem 0x1e6e2180 32 0x0. \n"
         "exit status value = 0x0\nrun shell success\n"},
        {1,
         0,
         0,
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0x2"},
         "oem set p2a switch cmds=devmem 0x1e6e2180 32 0x2. \n"
         "exit status value = 0x0\nrun shell success\n"},
        // devmem fails at once: the read gives nothing, so 0 is written.
        {1,
         3,
         -1,
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0x2"},
         "oem set p2a switch cmds=devmem 0x1e6e2180 32 0x2. \n"
         "exit status value = 0x300\nrun shell fail,exit code: 1\n"},
    };
    for (const auto& c : cases)
    {
        board::clearCommandLog();
        board::setToolStatus("devmem", c.devmemStatus);
        testing::internal::CaptureStderr();
        EXPECT_EQ(setP2aSwitch(c.value), c.result) << c.value;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.messages)
            << c.value;
        EXPECT_EQ(board::commandLog(), c.log) << c.value;
    }
    board::resetTool("devmem");
}

TEST(P2aHelpers, SetValueCveChangesOneBitAtMost)
{
    auto setValueCve =
        pluginSymbol<int (*)(int, uint32_t, int)>("set_value_CVE");
    struct Case
    {
        int value;
        int bit;
        const char* written;
    };
    const Case cases[] = {
        {2, 20, "devmem 0x1e6e2070 32 0xf10cc206"},
        {1, 32, "devmem 0x1e6e2070 32 0xf10cc206"},
        {0, -1, "devmem 0x1e6e2070 32 0xf10cc206"},
        {0, 31, "devmem 0x1e6e2070 32 0x710cc206"},
        {0, 1, "devmem 0x1e6e2070 32 0x710cc204"},
    };
    for (const auto& c : cases)
    {
        board::clearCommandLog();
        testing::internal::CaptureStderr();
        EXPECT_EQ(setValueCve(c.value, 0x1E6E2070, c.bit), 0);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(board::commandLog(), (Log{"devmem 0x1e6e2070", c.written}))
            << c.value << " " << c.bit;
    }
}

} // namespace
