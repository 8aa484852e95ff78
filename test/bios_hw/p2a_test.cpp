// SPDX-License-Identifier: Apache-2.0
// The P2A bridge switch (0x51, 0x52) and its helpers through the host, on
// the default board: registers in /dev/mem, changed through devmem.

#include "board.hpp"
#include "memory.hpp"
#include "plugin.hpp"

namespace
{

using Bytes = std::vector<uint8_t>;
using Log = std::vector<std::string>;

constexpr uint32_t p2a = 0x1E6E2180;
constexpr uint32_t lpc = 0x1E789100;
constexpr uint32_t strap = 0x1E6E2070;
constexpr uint32_t strapClear = 0x1E6E207C;

struct Registers
{
    uint32_t p2a;
    uint32_t lpc;
    uint32_t strap;
    uint32_t strapClear;

    bool operator==(const Registers&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Registers& r)
{
    return out << std::hex << "P2A " << r.p2a << " LPC " << r.lpc << " strap "
               << r.strap << " strap clear " << r.strapClear;
}

Registers registers()
{
    return {memory::reg32(p2a), memory::reg32(lpc), memory::reg32(strap),
            memory::reg32(strapClear)};
}

void setRegisters(const Registers& r)
{
    memory::setReg32(p2a, r.p2a);
    memory::setReg32(lpc, r.lpc);
    memory::setReg32(strap, r.strap);
    memory::setReg32(strapClear, r.strapClear);
}

// As the chip comes out of reset on this board: bridge on, LPC path open,
// strap bit 20 clear.
constexpr Registers afterReset = {0x00000002, 0x00000000, 0xF10CC206, 0};

TEST(P2aSwitch, SetChangesTheBridgeAndItsSecurityBits)
{
    struct Case
    {
        const char* what;
        Registers before;
        Bytes request;
        uint8_t cc;
        Bytes data;
        Registers after;
        Log log;
    };
    const Case cases[] = {
        {"off: bridge bit cleared, LPC and strap bits set",
         afterReset,
         {0x00, 0xA7},
         0x00,
         {0x00},
         {0x00000000, 0x00000040, 0xF11CC206, 0},
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0x0", "devmem 0x1e789100",
          "devmem 0x1e789100 32 0x40", "devmem 0x1e6e2070",
          "devmem 0x1e6e2070 32 0xf11cc206"}},
        {"on: bridge bit set, strap cleared, LPC bit left set",
         {0x00000000, 0x00000040, 0xF11CC206, 0},
         {0x01, 0xA7},
         0x00,
         // regression: a successful set P2A switch echoed request byte 0
         {0x00},
         {0x00000002, 0x00000040, 0xF11CC206, 0x00100000},
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0x2", "devmem 0x1e6e207c",
          "devmem 0x1e6e207c 32 0x100000"}},
        {"other bits kept",
         {0xFFFFFFFF, 0x12345678, 0x00000000, 0x00000001},
         {0x00, 0xA7, 0x55, 0x66},
         0x00,
         {0x00},
         {0xFFFFFFFD, 0x12345678 | 0x40, 0x00100000, 0x00000001},
         {"devmem 0x1e6e2180", "devmem 0x1e6e2180 32 0xfffffffd",
          "devmem 0x1e789100", "devmem 0x1e789100 32 0x12345678",
          "devmem 0x1e6e2070", "devmem 0x1e6e2070 32 0x100000"}},
        {"switch value above 1: nothing touched",
         afterReset,
         {0x02, 0xA7},
         0x00,
         {0x01},
         afterReset,
         {}},
        {"switch 0xFF: nothing touched",
         afterReset,
         {0xFF, 0xA7},
         0x00,
         {0x01},
         afterReset,
         {}},
        {"no confirmation",
         afterReset,
         {0x01, 0x00},
         0xFF,
         {0x02},
         afterReset,
         {}},
        {"confirmation in the wrong byte",
         afterReset,
         {0xA7, 0x00},
         0xFF,
         {0x02},
         afterReset,
         {}},
        {"short request", afterReset, {0x00}, 0xFF, {0x02}, afterReset, {}},
        {"empty request", afterReset, {}, 0xFF, {0x02}, afterReset, {}},
    };
    for (const auto& c : cases)
    {
        setRegisters(c.before);
        board::clearCommandLog();
        auto answer = call(0x3A, 0x52, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(registers(), c.after) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
    }
    setRegisters(afterReset);
}

TEST(P2aSwitch, SetReportsItsSteps)
{
    setRegisters(afterReset);
    testing::internal::CaptureStderr();
    call(0x3A, 0x52, {0x00, 0xA7});
    std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors, "oem set_p2a_switch start. str[0]=0,str[1]=a7.\n"
                      "oem set p2a switch cmds=devmem 0x1e6e2180 32 0x0. \n"
                      "set_value_CVE start. value=1, reg=0x1e789100, bit=6. \n"
                      "oem set CVE cmds=devmem 0x1e789100 32 0x40. \n"
                      "set_value_CVE start. value=1, reg=0x1e6e2070, bit=20. \n"
                      "oem set CVE cmds=devmem 0x1e6e2070 32 0xf11cc206. \n");

    testing::internal::CaptureStderr();
    call(0x3A, 0x52, {0x01, 0x33});
    errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors, "oem set_p2a_switch str[1] is not 0xa7, "
                      "str[0]=1,str[1]=33.\n");

    testing::internal::CaptureStderr();
    call(0x3A, 0x52, {});
    errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors, "oem set_p2a_switch str is NULL.\n");
    setRegisters(afterReset);
}

TEST(P2aSwitch, SetAnswersTheLastWritesShellStatus)
{
    // devmem failing with an exit code is still a normal exit: its status's
    // low byte, and so the completion code, is 0.
    setRegisters(afterReset);
    board::setToolStatus("devmem", 3);
    auto answer = call(0x3A, 0x52, {0x00, 0xA7});
    board::resetTool("devmem");
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0x00});
    EXPECT_EQ(registers(), afterReset);
}

TEST(P2aSwitch, GetReadsTheBridgeBit)
{
    struct Case
    {
        const char* what;
        uint32_t reg;
        Bytes request;
        uint8_t cc;
        Bytes data;
        Log log;
    };
    const Case cases[] = {
        {"on", 0x00000002, {0xA7}, 0x00, {0x01}, {"devmem 0x1e6e2180"}},
        {"off", 0x00000000, {0xA7}, 0x00, {0x00}, {"devmem 0x1e6e2180"}},
        {"only bit 1 counts",
         0xFFFFFFFD,
         {0xA7},
         0x00,
         {0x00},
         {"devmem 0x1e6e2180"}},
        {"extra bytes ignored",
         0x00000003,
         {0xA7, 0x00, 0x01},
         0x00,
         {0x01},
         {"devmem 0x1e6e2180"}},
        {"no confirmation", 0x00000002, {0x00}, 0xFF, {0x02}, {}},
        {"wrong confirmation", 0x00000002, {0xA6}, 0xFF, {0x02}, {}},
        {"empty request", 0x00000002, {}, 0xFF, {0x02}, {}},
    };
    for (const auto& c : cases)
    {
        memory::setReg32(p2a, c.reg);
        board::clearCommandLog();
        auto answer = call(0x3A, 0x51, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
        EXPECT_EQ(memory::reg32(p2a), c.reg) << c.what;
    }
    memory::setReg32(p2a, afterReset.p2a);
}

TEST(P2aSwitch, GetReportsItsSteps)
{
    memory::setReg32(p2a, 0x2);
    testing::internal::CaptureStderr();
    call(0x3A, 0x51, {0xA7});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "oem get_p2a_switch start. str[0]=a7.\n"
              "oem get p2a switch is 1, *data_len=1\n");
    testing::internal::CaptureStderr();
    call(0x3A, 0x51, {0x12});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "wvt.oem get_p2a_switch str[0] is not 0xa7, str[0]=12.\n");
    testing::internal::CaptureStderr();
    call(0x3A, 0x51);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "oem get_p2a_switch str is NULL.\n");
}

TEST(P2aSwitch, GetWithUnreadableRegisterAnswersOff)
{
    // devmem prints nothing: the register reads as 0.
    memory::setReg32(p2a, 0x2);
    board::setToolStatus("devmem", 1);
    auto answer = call(0x3A, 0x51, {0xA7});
    board::resetTool("devmem");
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0x00});
}

TEST(P2aHelpers, SetP2aSwitchJudgesTheWrite)
{
    auto setP2aSwitch = pluginSymbol<int (*)(unsigned)>("set_p2a_switch");
    ASSERT_NE(setP2aSwitch, nullptr);
    struct Case
    {
        const char* what;
        unsigned value;
        int devmemStatus;
        int result;
        uint32_t after;
        const char* ending;
    };
    const Case cases[] = {
        {"off", 0, 0, 0, 0x0, "run shell success\n"},
        {"on", 1, 0, 0, 0x2, "run shell success\n"},
        {"not a switch value", 2, 0, -1, 0x2, nullptr},
        {"failed write", 0, 3, -1, 0x2, "run shell fail,exit code: 1\n"},
    };
    for (const auto& c : cases)
    {
        memory::setReg32(p2a, 0x2);
        board::clearCommandLog();
        if (c.devmemStatus != 0)
        {
            board::setToolStatus("devmem", c.devmemStatus);
        }
        testing::internal::CaptureStderr();
        int result = setP2aSwitch(c.value);
        std::string errors = testing::internal::GetCapturedStderr();
        board::resetTool("devmem");
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_EQ(memory::reg32(p2a), c.after) << c.what;
        if (c.ending != nullptr)
        {
            EXPECT_TRUE(errors.ends_with(c.ending)) << c.what << ": " << errors;
            EXPECT_NE(errors.find("exit status value = 0x"), std::string::npos)
                << c.what;
        }
        else
        {
            // Read first, then refused without a write.
            EXPECT_EQ(board::commandLog(), Log{"devmem 0x1e6e2180"}) << c.what;
            EXPECT_EQ(errors, "") << c.what;
        }
    }
    memory::setReg32(p2a, 0x2);
}

TEST(P2aHelpers, SetValueCveChangesOneBitAtMost)
{
    auto setValueCve =
        pluginSymbol<int (*)(int, uint32_t, int)>("set_value_CVE");
    ASSERT_NE(setValueCve, nullptr);
    struct Case
    {
        int value;
        int bit;
        uint32_t after;
    };
    const Case cases[] = {
        {1, 6, 0x12345678 | 0x40}, {0, 3, 0x12345670},  {0, 6, 0x12345638},
        {2, 6, 0x12345678},        {1, 32, 0x12345678}, {1, 40, 0x12345678},
    };
    for (const auto& c : cases)
    {
        memory::setReg32(lpc, 0x12345678);
        board::clearCommandLog();
        EXPECT_EQ(setValueCve(c.value, lpc, c.bit), 0);
        EXPECT_EQ(memory::reg32(lpc), c.after) << c.value << " " << c.bit;
        ASSERT_EQ(board::commandLog().size(), 2U);
        EXPECT_EQ(board::commandLog()[0], "devmem 0x1e789100");
    }
    memory::setReg32(lpc, afterReset.lpc);
}

} // namespace
