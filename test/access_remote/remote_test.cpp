// SPDX-License-Identifier: Apache-2.0
// SSH access, restriction mode, the allow list, the default user and the
// Ethernet ports through the host, on the default board: answers, the tool
// command lines in the command log, the files left behind and the D-Bus
// calls.

#include "remote.hpp"

#include <unistd.h>

#include <filesystem>

namespace remote
{

void restoreBoard()
{
    writeFile(sshFlag, "false\n");
    writeFile(sshLogin, "admin 192.168.0.20\n");
    std::filesystem::remove_all(allowList);
    writeFile(userFile, "admin\n");
    writeFile(rules, "");
    std::filesystem::remove(eth0Marker);
    std::filesystem::remove(eth1Marker);
    std::filesystem::remove(pwned);
    board::setState("/var/sim/net/eth0", "up", "yes");
    board::setState("/var/sim/net/eth1", "up", "yes");
    for (const char* tool : {"iptables", "ifconfig", "systemctl", "busctl"})
    {
        board::resetTool(tool);
    }
    testing_dbus::clearFailures();
    testing_dbus::setProperty(modeService, modePath, modeInterface,
                              "RestrictionMode", modePrefix + "None");
    testing_dbus::clearCalls();
    board::clearCommandLog();
}

std::string restrictionMode()
{
    auto value = testing_dbus::getProperty(modeService, modePath, modeInterface,
                                           "RestrictionMode");
    auto* text = std::get_if<std::string>(&value);
    return text != nullptr ? *text : "<not a string>";
}

std::string portUp(const std::string& port)
{
    return board::state("/var/sim/net/" + port, "up");
}

} // namespace remote

namespace
{

using namespace remote;
using namespace std::string_literals;

const std::string dropSsh = "INPUT -p tcp --dport 22 -j DROP\n";
const std::string listRules = "iptables -L -n --line-number";
const std::string restartList = "systemctl restart obmc-allow-list.service";

// The SSH login state file is removed in the background; waits for that,
// for at most five seconds.
bool loginStateGone()
{
    for (int i = 0; i < 500; ++i)
    {
        if (!std::filesystem::exists(sshLogin))
        {
            return true;
        }
        usleep(10'000);
    }
    return false;
}

using SshStatus = Remote;

TEST_F(SshStatus, GetReadsTheFlagFile)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> flag;
        uint8_t status;
    };
    const Case cases[] = {
        {"allowed", "false\n", 0},
        {"forbidden, as the flag is spelt", "ture\n", 1},
        {"any other word counts as forbidden", "true\n", 1},
        {"no flag file", std::nullopt, 0},
        {"empty flag file", "", 0},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(sshFlag);
        if (c.flag)
        {
            writeFile(sshFlag, *c.flag);
        }
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x95);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{c.status}) << c.what;
        std::string shown = c.flag ? c.flag->substr(0, c.flag->find('\n')) : "";
        EXPECT_NE(errors.find("ipmi_vel_oem_get_ssh_status dptssh   "
                              "shellret = " +
                              shown + "\n "),
                  std::string::npos)
            << c.what << ": " << errors;
        EXPECT_EQ(board::commandLog(), Lines{}) << c.what;
    }
}

TEST_F(SshStatus, ForbidAddsOneDropRuleAndAllowRemovesIt)
{
    // An allow-list rule comes first, so the DROP rule is line 2.
    const std::string accept = "INPUT -s 10.0.0.5 -j ACCEPT\n";
    writeFile(rules, accept);

    auto answer = call(0x3A, 0x96, {1});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(sshFlag), "ture\n");
    EXPECT_EQ(readFile(rules), accept + dropSsh);
    EXPECT_EQ(board::commandLog(),
              Lines{"iptables -A INPUT -p tcp --dport 22 -j DROP"});
    EXPECT_TRUE(loginStateGone());
    EXPECT_EQ(call(0x3A, 0x95).data, Bytes{1});

    // Forbidding again finds the flag and adds nothing.
    board::clearCommandLog();
    answer = call(0x3A, 0x96, {1});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(rules), accept + dropSsh);
    EXPECT_EQ(board::commandLog(), Lines{});

    answer = call(0x3A, 0x96, {0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(sshFlag), "false\n");
    EXPECT_EQ(readFile(rules), accept);
    EXPECT_EQ(board::commandLog(), (Lines{listRules, "iptables -D INPUT 2"}));
    EXPECT_EQ(call(0x3A, 0x95).data, Bytes{0});

    // Allowing again still looks for the rule; there is none to delete.
    board::clearCommandLog();
    answer = call(0x3A, 0x96, {0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(sshFlag), "false\n");
    EXPECT_EQ(readFile(rules), accept);
    EXPECT_EQ(board::commandLog(), (Lines{listRules, "iptables -D INPUT"}));

    // Neither allow nor forbid: refused, nothing run.
    board::clearCommandLog();
    answer = call(0x3A, 0x96, {2});
    EXPECT_EQ(answer.cc, 0x01);
    EXPECT_EQ(answer.data, Bytes{1});
    EXPECT_EQ(board::commandLog(), Lines{});
}

using RestrictionMode = Remote;

TEST_F(RestrictionMode, SetRunsBusctlWithTheModeName)
{
    const char* names[] = {
        "None",
        "Whitelist",
        "Blacklist",
        "Provisioning",
        "ProvisionedHostWhitelist",
        "ProvisionedHostDisabled",
    };
    // From the last to the first, so that every set changes the value.
    for (int mode = 5; mode >= 0; --mode)
    {
        board::clearCommandLog();
        testing_dbus::clearCalls();
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x75, {static_cast<uint8_t>(mode)});
        std::string errors = testing::internal::GetCapturedStderr();
        std::string value = modePrefix + names[mode];
        EXPECT_EQ(answer.cc, 0x00) << mode;
        EXPECT_EQ(answer.data, Bytes{}) << mode;
        EXPECT_EQ(errors, "run shell success\n") << mode;
        EXPECT_EQ(restrictionMode(), value) << mode;
        EXPECT_EQ(board::commandLog(),
                  Lines{board::logLine({"busctl", "set-property", modeService,
                                        modePath, modeInterface,
                                        "RestrictionMode", "s", value})})
            << mode;
        EXPECT_EQ(testing_dbus::calls(),
                  Lines{std::string(modeService) + " " + modePath +
                        " org.freedesktop.DBus.Properties Set \"" +
                        modeInterface + "\" \"RestrictionMode\" s \"" + value +
                        "\""})
            << mode;
        EXPECT_EQ(call(0x3A, 0x76).data, Bytes{static_cast<uint8_t>(mode)});
    }
}

TEST_F(RestrictionMode, SetRefusesBadRequestsWithoutRunningAnything)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        std::string message;
    };
    const Case cases[] = {
        {"value 6", {6}, 0xC9, "Out of range\n"},
        {"value 0xFF", {0xFF}, 0xC9, "Out of range\n"},
        {"a valid value and one more byte",
         {1, 0},
         0xC7,
         "Invalid data_len\n "},
        {"nothing", {}, 0xC7, "Invalid data_len\n "},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x75, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        // The length stays as the request came, zero-filled.
        EXPECT_EQ(answer.data, Bytes(c.request.size(), 0)) << c.what;
        EXPECT_EQ(errors, c.message) << c.what;
        EXPECT_EQ(restrictionMode(), modePrefix + "None") << c.what;
        EXPECT_EQ(board::commandLog(), Lines{}) << c.what;
        EXPECT_EQ(testing_dbus::calls(), Lines{}) << c.what;
    }
}

TEST_F(RestrictionMode, SetFailsWhenTheSettingsServiceOrBusctlDoes)
{
    struct Case
    {
        const char* what;
        std::string failure;
        int busctlStatus;
        size_t calls;
    };
    const Case cases[] = {
        {"the service refuses the value",
         "org.freedesktop.DBus.Error.AccessDenied", 0, 1},
        {"busctl itself fails", "", 3, 0},
    };
    for (const auto& c : cases)
    {
        restoreBoard();
        if (!c.failure.empty())
        {
            testing_dbus::failCall("* Set \"" + std::string(modeInterface) +
                                       "\" \"RestrictionMode\" *",
                                   c.failure);
        }
        if (c.busctlStatus != 0)
        {
            board::setToolStatus("busctl", c.busctlStatus);
        }
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x75, {2});
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, 0xFF) << c.what;
        EXPECT_EQ(answer.data, Bytes{}) << c.what;
        // The number printed is the fixed 1, whatever busctl exited with.
        EXPECT_NE(errors.find("run shell fail,exit code: 1\n"),
                  std::string::npos)
            << c.what << ": " << errors;
        EXPECT_EQ(restrictionMode(), modePrefix + "None") << c.what;
        EXPECT_EQ(board::commandLog().size(), 1u) << c.what;
        EXPECT_EQ(testing_dbus::calls().size(), c.calls) << c.what;
    }
}

TEST_F(RestrictionMode, GetAnswersTheModeOfTheSettingsService)
{
    struct Case
    {
        const char* what;
        oem::Value value;
        uint8_t cc;
        Bytes data;
    };
    const Case cases[] = {
        {"None", modePrefix + "None", 0x00, {0}},
        {"Provisioning", modePrefix + "Provisioning", 0x00, {3}},
        {"a name not in the table", modePrefix + "Lockdown", 0xFF, {}},
        {"the name alone", "Provisioning"s, 0xFF, {}},
        {"not a string", int32_t{3}, 0xFF, {}},
    };
    for (const auto& c : cases)
    {
        testing_dbus::setProperty(modeService, modePath, modeInterface,
                                  "RestrictionMode", c.value);
        testing_dbus::clearCalls();
        auto answer = call(0x3A, 0x76);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(
            testing_dbus::calls(),
            (Lines{"xyz.openbmc_project.ObjectMapper "
                   "/xyz/openbmc_project/object_mapper "
                   "xyz.openbmc_project.ObjectMapper GetObject \"" +
                       std::string(modePath) + "\" [\"" + modeInterface + "\"]",
                   std::string(modeService) + " " + modePath +
                       " org.freedesktop.DBus.Properties Get \"" +
                       modeInterface + "\" \"RestrictionMode\""}))
            << c.what;
        EXPECT_EQ(board::commandLog(), Lines{}) << c.what;
    }
}

TEST_F(RestrictionMode, GetFailsWhenTheServiceCannotBeReached)
{
    struct Case
    {
        const char* what;
        std::string glob;
        std::string error;
    };
    const Case cases[] = {
        {"the mapper does not know the object", "* GetObject *",
         "xyz.openbmc_project.Common.Error.ResourceNotFound"},
        {"the read is refused", "* Get *\"RestrictionMode\"",
         "org.freedesktop.DBus.Error.AccessDenied"},
        {"the service does not answer", "* Get *\"RestrictionMode\"",
         "org.freedesktop.DBus.Error.NoReply"},
    };
    for (const auto& c : cases)
    {
        testing_dbus::clearFailures();
        testing_dbus::failCall(c.glob, c.error, "Injected failure", 1);
        auto answer = call(0x3A, 0x76);
        EXPECT_EQ(answer.cc, 0xFF) << c.what;
        EXPECT_EQ(answer.data, Bytes{}) << c.what;
        EXPECT_EQ(call(0x3A, 0x76).data, Bytes{0}) << c.what;
    }

    // No service serves the object at all.
    testing_dbus::remove(modeService, modePath, modeInterface);
    auto answer = call(0x3A, 0x76);
    EXPECT_EQ(answer.cc, 0xFF);
    EXPECT_EQ(answer.data, Bytes{});
}

using AllowList = Remote;

TEST_F(AllowList, SetAppendsNewEntriesByTheFirstCharacterRule)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> before;
        std::string entry;
        Bytes data;
        std::optional<std::string> after;
    };
    const Case cases[] = {
        {"no list yet", std::nullopt, "10.0.0.5", {0}, "10.0.0.5\n"},
        {"another first character than the first line",
         "192.168.1.1\n",
         "8.8.8.8",
         {2},
         "192.168.1.1\n"},
        {"first line passes, no later line stops it",
         "192.168.1.1\n",
         "10.0.0.5",
         {0},
         "192.168.1.1\n10.0.0.5\n"},
        {"same first character throughout",
         "10.0.0.1\n10.0.0.2\n",
         "10.0.0.5",
         {0},
         "10.0.0.1\n10.0.0.2\n10.0.0.5\n"},
        {"already the only line", "10.0.0.5\n", "10.0.0.5", {1}, "10.0.0.5\n"},
        {"contained in a line", "10.0.0.50\n", "10.0.0.5", {1}, "10.0.0.50\n"},
        {"found before a line that would refuse it",
         "10.0.0.5\n8.8.8.8\n",
         "10.0.0.5",
         {1},
         "10.0.0.5\n8.8.8.8\n"},
        {"refused before it is found",
         "8.8.8.8\n10.0.0.5\n",
         "10.0.0.5",
         {2},
         "8.8.8.8\n10.0.0.5\n"},
        {"an empty list", "", "10.0.0.5", {0}, "10.0.0.5\n"},
        {"last line without its line end",
         "10.0.0.1",
         "10.0.0.5",
         {0},
         "10.0.0.1\n10.0.0.5\n"},
        {"with a prefix length",
         "10.0.0.1\n",
         "10.1.0.0/16",
         {0},
         "10.0.0.1\n10.1.0.0/16\n"},
        {"an IPv6 address", std::nullopt, "fe80::1", {0}, "fe80::1\n"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(allowList);
        if (c.before)
        {
            writeFile(allowList, *c.before);
        }
        board::clearCommandLog();
        std::string request = c.entry + '\0';
        auto answer = call(0x30, 0xB7, Bytes(request.begin(), request.end()));
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
        EXPECT_EQ(readFile(allowList), c.after.value_or("<missing>")) << c.what;
        EXPECT_EQ(board::commandLog(),
                  c.data == Bytes{0} ? Lines{restartList} : Lines{})
            << c.what;
    }
}

TEST_F(AllowList, SetOnAnUnwritableListAnswersPresent)
{
    std::filesystem::create_directory(allowList);
    auto answer = call(0x30, 0xB7, {'1', '.', '2', '.', '3', '.', '4', 0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{1});
    EXPECT_TRUE(std::filesystem::is_directory(allowList));
    EXPECT_EQ(board::commandLog(), Lines{});
}

TEST_F(AllowList, GetJoinsTheEntriesWithBlanks)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> list;
        std::string text;
    };
    const Case cases[] = {
        {"no list", std::nullopt, "\0"s},
        {"empty list", "", ""},
        {"two entries", "10.0.0.5\n10.0.0.6\n", "10.0.0.5 10.0.0.6"},
        {"trailing blanks and blank lines", "10.0.0.5\n10.0.0.6  \n\n\n",
         "10.0.0.5 10.0.0.6"},
        {"cut to 199 characters",
         std::string(150, '1') + "\n" + std::string(150, '2') + "\n",
         std::string(150, '1') + " " + std::string(48, '2')},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(allowList);
        if (c.list)
        {
            writeFile(allowList, *c.list);
        }
        auto answer = call(0x30, 0xB9);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(std::string(answer.data.begin(), answer.data.end()), c.text)
            << c.what;
    }
}

TEST_F(AllowList, DeleteRemovesTheListAndFlushesEveryRule)
{
    writeFile(allowList, "10.0.0.5\n");
    writeFile(rules, "INPUT -s 10.0.0.5 -j ACCEPT\n" + dropSsh +
                         "OUTPUT -d 10.0.0.9 -j DROP\n");
    writeFile(sshFlag, "ture\n");
    auto answer = call(0x30, 0xB8);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    EXPECT_EQ(readFile(allowList), "<missing>");
    EXPECT_EQ(readFile(rules), "");
    // The SSH flag still says forbidden, though its rule is gone.
    EXPECT_EQ(readFile(sshFlag), "ture\n");
    EXPECT_EQ(board::commandLog(), Lines{"iptables -F"});
    EXPECT_EQ(call(0x30, 0xB9).data, Bytes{0});

    // Nothing to delete: the same answer.
    answer = call(0x30, 0xB8);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
}

using DefaultUser = Remote;

TEST_F(DefaultUser, SetWritesAPlainName)
{
    struct Case
    {
        std::string request;
        uint8_t cc;
        Bytes data;
        std::string file;
    };
    const Case cases[] = {
        {"operator\0"s, 0x00, {0}, "operator\n"},
        {"operator"s, 0x00, {0}, "operator\n"},
        {"svc_ipmi-2.x\0trailing"s, 0x00, {0}, "svc_ipmi-2.x\n"},
        {"abcdefghijklmnop\0"s, 0x00, {0}, "abcdefghijklmnop\n"},
        // regression: names over 16 characters were refused though their
        // "echo NAME > /etc/default/obmc/user" line fits its 64 bytes
        {std::string(33, 'u') + '\0', 0x00, {0}, std::string(33, 'u') + '\n'},
        {std::string(34, 'u') + '\0', 0xCC, {}, "admin\n"},
        {"\0"s, 0xCC, {}, "admin\n"},
        {""s, 0xCC, {}, "admin\n"},
        {"9lives\0"s, 0xCC, {}, "admin\n"},
    };
    for (const auto& c : cases)
    {
        writeFile(userFile, "admin\n");
        auto answer =
            call(0x3A, 0x64, Bytes(c.request.begin(), c.request.end()));
        EXPECT_EQ(answer.cc, c.cc) << c.request;
        EXPECT_EQ(answer.data, c.data) << c.request;
        EXPECT_EQ(readFile(userFile), c.file) << c.request;
    }
}

using EthStatus = Remote;

TEST_F(EthStatus, DisableMarksAndDownsThePortEnableUndoesIt)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Lines log;
        // Markers of eth0 and eth1, and whether each port is up.
        bool marked0, marked1, up0, up1;
    };
    // Each case starts where the one before ended.
    const Case cases[] = {
        {"disable eth1", {1, 0}, 0, {"ifconfig eth1 down"}, 0, 1, 1, 0},
        {"again", {1, 0}, 0, {"ifconfig eth1 down"}, 0, 1, 1, 0},
        {"disable eth0", {0, 0}, 0, {"ifconfig eth0 down"}, 1, 1, 0, 0},
        {"enable eth1", {1, 1}, 0, {"ifconfig eth1 up"}, 1, 0, 0, 1},
        {"again", {1, 1}, 0, {"ifconfig eth1 up"}, 1, 0, 0, 1},
        {"eth2", {2, 0}, 0xFF, {}, 1, 0, 0, 1},
        {"state 2", {0, 2}, 0xFF, {}, 1, 0, 0, 1},
        {"enable eth0, extra byte",
         {0, 1, 7},
         0,
         {"ifconfig eth0 up"},
         0,
         0,
         1,
         1},
        {"no bytes: eth0 disable", {}, 0, {"ifconfig eth0 down"}, 1, 0, 0, 1},
    };
    auto marker = [](bool marked) { return marked ? "" : "<missing>"; };
    auto up = [](bool on) { return on ? "yes" : "no"; };
    for (const auto& c : cases)
    {
        board::clearCommandLog();
        auto answer = call(0x3A, 0x63, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, Bytes{c.cc == 0 ? uint8_t{0} : uint8_t{1}})
            << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
        EXPECT_EQ(readFile(eth0Marker), marker(c.marked0)) << c.what;
        EXPECT_EQ(readFile(eth1Marker), marker(c.marked1)) << c.what;
        EXPECT_EQ(portUp("eth0"), up(c.up0)) << c.what;
        EXPECT_EQ(portUp("eth1"), up(c.up1)) << c.what;
    }
}

} // namespace
