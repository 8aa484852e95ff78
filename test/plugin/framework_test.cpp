// SPDX-License-Identifier: Apache-2.0
// Registration, the override table and dispatch through the host.

#include "plugin.hpp"

#include <cstring>
#include <set>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif
#include <stdexcept>
#include <utility>

namespace
{

using Handler = ipmid_callback_t;
using Install = int32_t (*)(int, Handler);

Handler* slots()
{
    return pluginSymbol<Handler*>("g_ipmiOemHandle");
}

// Puts a handler in a slot for the life of the object, then restores the
// slot as it was.
class ScopedOverride
{
  public:
    ScopedOverride(int slotIndex, Handler handler) :
        index(slotIndex), saved(slots()[slotIndex])
    {
        EXPECT_EQ(
            pluginSymbol<Install>("regiter_functions")(slotIndex, handler), 0);
    }
    ~ScopedOverride()
    {
        slots()[index] = saved;
    }

  private:
    int index;
    Handler saved;
};

struct Seen
{
    uint8_t netfn = 0;
    uint8_t cmd = 0;
    uint32_t length = 0;
    std::vector<uint8_t> request;
    bool pastEndReadable = true;
    void* context = reinterpret_cast<void*>(1);
} seen;

ipmi_ret_t recorder(ipmi_netfn_t netfn, ipmi_cmd_t cmd, ipmi_request_t request,
                    ipmi_response_t response, ipmi_data_len_t len,
                    ipmi_context_t context)
{
    seen.netfn = netfn;
    seen.cmd = cmd;
    seen.length = *len;
    auto* in = static_cast<uint8_t*>(request);
    seen.request.assign(in, in + *len);
#ifdef __SANITIZE_ADDRESS__
    seen.pastEndReadable = !__asan_address_is_poisoned(in + *len);
#endif
    seen.context = context;
    memcpy(response, "\x11\x22\x33", 3);
    *len = 3;
    return 0x42;
}

ipmi_ret_t thrower(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t, ipmi_response_t,
                   ipmi_data_len_t len, ipmi_context_t)
{
    *len = 0;
    throw std::runtime_error("bus gone");
}

ipmi_ret_t overlong(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t, ipmi_response_t,
                    ipmi_data_len_t len, ipmi_context_t)
{
    *len = IPMID_RESPONSE_CAPACITY + 1;
    return 0;
}

TEST(Registration, RegistersTheWholeCommandSetOnceWithSystemPrivilege)
{
    const auto& all = oemhost::registrations();
    ASSERT_EQ(all.size(), 73u);

    std::set<std::pair<int, int>> pairs;
    for (size_t i = 0; i < all.size(); ++i)
    {
        const auto& entry = all[i];
        std::string name = oemhost::handlerName(entry.handler);
        EXPECT_EQ(entry.privilege, 0xFF) << name;
        EXPECT_EQ(entry.context, nullptr) << name;
        EXPECT_TRUE(pairs.insert({entry.netfn, entry.cmd}).second) << name;

        // 64 forwarders, 4 defaults registered directly, 5 on NetFn 0x30.
        uint8_t netfn = i < 68 ? 0x3A : 0x30;
        std::string prefix =
            i >= 64 && i < 68 ? "ipmi_vel_oem_" : "ipmi_xo_oem_";
        EXPECT_EQ(entry.netfn, netfn) << name;
        EXPECT_EQ(name.rfind(prefix, 0), 0u) << name;
    }
    EXPECT_EQ(all[63].cmd, 0x83) << "0x83 closes the forwarded commands";
}

TEST(Registration, MachineInitInstallsOnlyTheFactoryTestLedOverrides)
{
    Handler* table = slots();
    for (int slot = 0; slot < 160; ++slot)
    {
        Handler expected = nullptr;
        if (slot == 0x23)
        {
            expected = pluginSymbol<Handler>("ipmi_vel_oem_get_bmc_led_FT");
        }
        else if (slot == 0x24)
        {
            expected = pluginSymbol<Handler>("ipmi_vel_oem_set_bmc_led_FT");
        }
        EXPECT_EQ(table[slot], expected) << "slot " << slot;
    }
}

TEST(Dispatch, UnregisteredCommandsAnswerInvalidCommand)
{
    const std::pair<uint8_t, uint8_t> commands[] = {
        {0x3A, 0x05}, {0x3A, 0x90}, {0x3A, 0x00}, {0x30, 0x17}, {0x06, 0x01}};
    for (auto [netfn, cmd] : commands)
    {
        auto answer = call(netfn, cmd, {1, 2, 3});
        EXPECT_EQ(answer.cc, 0xC1) << int(netfn) << " " << int(cmd);
        EXPECT_TRUE(answer.data.empty());
    }
}

TEST(Dispatch, ForwarderPassesItsArgumentsUnchanged)
{
    ScopedOverride over(0x01, recorder);
    auto answer = call(0x3A, 0x01, {0xAA, 0xBB, 0xCC});

    EXPECT_EQ(answer.cc, 0x42);
    EXPECT_EQ(answer.data, (std::vector<uint8_t>{0x11, 0x22, 0x33}));
    EXPECT_EQ(seen.netfn, 0x3A);
    EXPECT_EQ(seen.cmd, 0x01);
    EXPECT_EQ(seen.length, 3u);
    EXPECT_EQ(seen.context, nullptr);
    EXPECT_EQ(seen.request, (std::vector<uint8_t>{0xAA, 0xBB, 0xCC}));
#ifdef __SANITIZE_ADDRESS__
    // regression: the host passed a 64 KiB zero-filled request buffer, so
    // a read past the request went unseen; the daemon passes its bytes only.
    EXPECT_FALSE(seen.pastEndReadable);
#endif
}

TEST(Dispatch, PlatformTestHandlerAnswersThroughAnySlot)
{
    auto test = pluginSymbol<Handler>("ipmi_oem_platform_test");
    for (uint8_t cmd : {0x01, 0x58, 0x83})
    {
        ScopedOverride over(cmd, test);
        auto answer = call(0x3A, cmd, {cmd, 0x77});
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, (std::vector<uint8_t>{0x0A, 0x0B, 0x0C, 0x0D}));
    }
}

TEST(Dispatch, NetFn30CommandsIgnoreTheOverrideTable)
{
    auto before = call(0x30, 0x16);
    ScopedOverride over(0x16, pluginSymbol<Handler>("ipmi_oem_platform_test"));

    auto oem = call(0x3A, 0x16);
    EXPECT_EQ(oem.cc, 0x00);
    EXPECT_EQ(oem.data, (std::vector<uint8_t>{0x0A, 0x0B, 0x0C, 0x0D}));

    auto other = call(0x30, 0x16);
    EXPECT_EQ(other.cc, before.cc);
    EXPECT_EQ(other.data, before.data);
    EXPECT_NE(other.data, oem.data);
}

TEST(Overrides, RegiterFunctionsChecksSlotAndHandler)
{
    auto install = pluginSymbol<Install>("regiter_functions");
    auto test = pluginSymbol<Handler>("ipmi_oem_platform_test");
    Handler* table = slots();
    Handler ledFT = table[0x23];

    struct Case
    {
        int slot;
        Handler fn;
        int32_t result;
    };
    const Case cases[] = {
        {160, test, -1}, {1000, test, -1}, {0x23, nullptr, -1}, {159, test, 0}};
    for (const auto& c : cases)
    {
        Handler saved[160];
        memcpy(saved, table, sizeof(saved));
        EXPECT_EQ(install(c.slot, c.fn), c.result) << c.slot;
        if (c.result == 0)
        {
            EXPECT_EQ(table[c.slot], c.fn);
            table[c.slot] = saved[c.slot];
        }
        EXPECT_EQ(memcmp(saved, table, sizeof(saved)), 0) << c.slot;
    }
    EXPECT_EQ(table[0x23], ledFT);

    // The later of two installs in one slot wins.
    {
        ScopedOverride first(0x02, test);
        ScopedOverride second(0x02, recorder);
        EXPECT_EQ(call(0x3A, 0x02).cc, 0x42);
    }
}

TEST(Host, EscapingExceptionAnswersUnspecifiedErrorAndIsReported)
{
    ScopedOverride over(0x03, thrower);
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x03, {1});
    std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_TRUE(answer.data.empty());
    EXPECT_NE(err.find("netfn 0x3a cmd 0x03 threw: bus gone"),
              std::string::npos)
        << err;
}

TEST(Host, ResponseLengthBeyondCapacityIsRefused)
{
    ScopedOverride over(0x04, overlong);
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x04);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_TRUE(answer.data.empty());
    EXPECT_NE(err.find("more than the 65536-byte capacity"), std::string::npos);
}

TEST(Host, RequestBeyondCapacityNeverReachesTheHandler)
{
    ScopedOverride over(0x01, recorder);
    seen = Seen{};
    std::vector<uint8_t> big(IPMID_REQUEST_CAPACITY + 1, 0x5A);
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x01, big);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(answer.cc, 0xC7);
    EXPECT_EQ(seen.cmd, 0);

    std::vector<uint8_t> full(IPMID_REQUEST_CAPACITY, 0x5A);
    EXPECT_EQ(call(0x3A, 0x01, full).cc, 0x42);
    EXPECT_EQ(seen.length, IPMID_REQUEST_CAPACITY);
}

} // namespace
