// SPDX-License-Identifier: Apache-2.0
// The checks that stand between request text and the shell or the allow
// list, and the decoder of the settings service's restriction mode.

#include "access/remote.hpp"

#include <string>

#include <gtest/gtest.h>

namespace
{

using namespace oem::access;

TEST(RequestChecks, AcceptOnlyPlainNamesAndAddresses)
{
    struct Case
    {
        bool (*check)(std::string_view);
        std::string text;
        bool valid;
    };
    const auto user = validUserName;
    const auto entry = validAllowListEntry;
    const Case cases[] = {
        {user, "admin", true},
        {user, "_svc", true},
        {user, "ops-admin.2", true},
        {user, "abcdefghijklmnop", true},
        {user, "abcdefghijklmnopq", true},
        {user, "", false},
        {user, "1admin", false},
        {user, "-n", false},
        {user, ".hidden", false},
        {user, "admin\xc3\xa9", false},
        {entry, "10.0.0.5", true},
        {entry, "0.0.0.0/0", true},
        {entry, "10.0.0.0/32", true},
        {entry, "10.0.0.0/33", false},
        {entry, "10.0.0.0/08", false},
        {entry, "10.0.0.0/", false},
        {entry, "10.0.0.0/8/8", false},
        {entry, "10.0.0.0/+8", false},
        {entry, "2001:db8::/128", true},
        {entry, "::ffff:10.0.0.5", true},
        {entry, "2001:db8::/129", false},
        {entry, "10.0.0", false},
        {entry, "10.0.0.256", false},
        {entry, "host.example", false},
        {entry, "", false},
        {entry, std::string("10.0.0.5\0;reboot", 16), false},
        {user, std::string("admin\0;reboot", 13), false},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(c.check(c.text), c.valid) << c.text;
    }
}

TEST(RestrictionMode, OnlyTheSixNamesAfterThePrefix)
{
    const std::string prefix =
        "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";
    struct Case
    {
        std::string value;
        std::optional<uint8_t> mode;
    };
    const Case cases[] = {
        {prefix + "None", 0},
        {prefix + "ProvisionedHostDisabled", 5},
        {prefix + "Provisioning trailing words", 3},
        {prefix + " Blacklist", 2},
        {prefix + "provisioning", std::nullopt},
        {prefix, std::nullopt},
        {"Provisioning", std::nullopt},
        {prefix + "ProvisionedHostWhitelistAndMoreThanThirtyCharacters",
         std::nullopt},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(restrictionModeByte(c.value), c.mode) << c.value;
    }
}

} // namespace
