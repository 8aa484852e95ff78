// SPDX-License-Identifier: Apache-2.0
// The checks that stand between request bytes and the shell or the allow
// list, and the decoders of the flag file and the restriction mode.

#include "access/remote.hpp"

#include <string>

#include <gtest/gtest.h>

namespace
{

using namespace std::string_literals;
using namespace oem::access;

TEST(RequestText, StopsAtTheFirstZeroOrTheEnd)
{
    struct Case
    {
        std::string bytes;
        uint32_t length;
        std::string text;
    };
    const Case cases[] = {
        {"admin\0root"s, 10, "admin"},
        {"admin"s, 5, "admin"},
        {"admin"s, 3, "adm"},
        {"\0admin"s, 6, ""},
        {""s, 0, ""},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(requestText(c.bytes.data(), c.length), c.text) << c.bytes;
    }
}

TEST(UserName, OnlyPlainShortNames)
{
    struct Case
    {
        std::string name;
        bool valid;
    };
    const Case cases[] = {
        {"admin", true},
        {"root", true},
        {"_svc", true},
        {"ops-admin.2", true},
        {"A", true},
        {"abcdefghijklmnop", true},
        {"abcdefghijklmnopq", false},
        {"", false},
        {"1admin", false},
        {"-n", false},
        {".hidden", false},
        {"admin root", false},
        {"admin;reboot", false},
        {"admin|cat", false},
        {"admin&", false},
        {"$(reboot)", false},
        {"`reboot`", false},
        {"ad'min", false},
        {"ad\"min", false},
        {"admin\n", false},
        {"admin\t", false},
        {"admin>x", false},
        {"admin*", false},
        {"admin\\", false},
        {"~root", false},
        {"admin\xc3\xa9", false},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(validUserName(c.name), c.valid) << c.name;
    }
}

TEST(AllowListEntry, OnlyAddressesWithAnOptionalPrefix)
{
    struct Case
    {
        std::string entry;
        bool valid;
    };
    const Case cases[] = {
        {"10.0.0.5", true},
        {"192.168.1.1", true},
        {"0.0.0.0/0", true},
        {"10.0.0.0/8", true},
        {"10.0.0.0/32", true},
        {"10.0.0.0/33", false},
        {"10.0.0.0/08", false},
        {"10.0.0.0/", false},
        {"10.0.0.0/8/8", false},
        {"10.0.0.0/-1", false},
        {"10.0.0.0/+8", false},
        {"10.0.0.0/1000", false},
        {"fe80::1", true},
        {"2001:db8::/32", true},
        {"::ffff:10.0.0.5", true},
        {"2001:db8::/128", true},
        {"2001:db8::/129", false},
        {"10.0.0", false},
        {"10.0.0.256", false},
        {"10.0.0.5 ", false},
        {" 10.0.0.5", false},
        {"10.0.0.5\n", false},
        {"10.0.0.5;reboot", false},
        {"10.0.0.5$(reboot)", false},
        {"host.example", false},
        {"", false},
        {std::string(60, '1'), false},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(validAllowListEntry(c.entry), c.valid) << c.entry;
    }
}

TEST(RestrictionMode, NamesAndBytesMatchBothWays)
{
    const std::string prefix =
        "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";
    const char* names[] = {
        "None",
        "Whitelist",
        "Blacklist",
        "Provisioning",
        "ProvisionedHostWhitelist",
        "ProvisionedHostDisabled",
    };
    for (uint8_t mode = 0; mode < 6; ++mode)
    {
        EXPECT_EQ(restrictionModeValue(mode), prefix + names[mode]);
        EXPECT_EQ(restrictionModeByte(prefix + names[mode]), mode);
    }
    EXPECT_EQ(restrictionModeValue(6), std::nullopt);
    EXPECT_EQ(restrictionModeValue(0xFF), std::nullopt);

    struct Case
    {
        std::string value;
        std::optional<uint8_t> mode;
    };
    const Case cases[] = {
        {prefix + "Provisioning trailing words", 3},
        {prefix + " Blacklist", 2},
        {prefix + "provisioning", std::nullopt},
        {prefix + "Unknown", std::nullopt},
        {prefix, std::nullopt},
        {"Provisioning", std::nullopt},
        {"xyz.openbmc_project.Control.Security.Modes.None", std::nullopt},
        {prefix + "ProvisionedHostWhitelistAndMoreThanThirtyChars",
         std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(restrictionModeByte(c.value), c.mode) << c.value;
    }
}

TEST(SshFlag, ForbiddenOnlyForOtherText)
{
    struct Case
    {
        const char* text;
        uint8_t status;
    };
    const Case cases[] = {
        {"ture", 1},
        {"true", 1},
        {"false", 0},
        {"", 0},
        {"cat: can't open '/etc/ssh_forbid.conf'", 0},
        {"turefalse", 0},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(sshStatusFromFlag(c.text), c.status) << c.text;
    }
}

} // namespace
