// SPDX-License-Identifier: Apache-2.0
// Hostile request bytes against every remote-access command: none of them
// may run a command the handler did not mean to run, leave a file behind or
// change the SSH flag, the allow list, the default user, the firewall or the
// ports other than as an ordinary request would.

#include "remote.hpp"

#include <filesystem>
#include <set>

namespace
{

using namespace remote;
using namespace std::string_literals;

struct Payload
{
    const char* what;
    std::string bytes;
    // Set default user: the answer and the user file afterwards.
    uint8_t userCc;
    std::string user;
    // Set allow list: the answer and the list afterwards.
    uint8_t allowCc;
    std::string allow;
};

const Payload payloads[] = {
    {"semicolon", "; touch /tmp/pwned", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"name and semicolon", "admin;touch /tmp/pwned", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"name and a logged tool", "admin;iptables -F", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"pipe", "admin|touch /tmp/pwned", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"and-and", "admin && ifconfig eth0 down", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"background", "admin & touch /tmp/pwned", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"command substitution", "$(touch /tmp/pwned)", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"backquotes", "`touch /tmp/pwned`", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"variable", "admin$IFS$HOME", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"single quotes", "admin'; touch /tmp/pwned; '", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"double quotes", "admin\"; touch /tmp/pwned; \"", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"redirection", "admin > /tmp/pwned", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"redirection without blanks", "x>/tmp/pwned", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"newline", "admin\ntouch /tmp/pwned", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"carriage return", "admin\rroot", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"blank", "admin root", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"tab", "admin\troot", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"echo option", "-e admin", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"glob", "*", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"tilde", "~root", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"backslash", "admin\\", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"high bytes", "adm\xff\xfe", 0xCC, "admin\n", 0xCC, "<missing>"},
    {"address then command", "10.0.0.5;touch /tmp/pwned", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"address then substitution", "10.0.0.0/24$(iptables -F)", 0xCC, "admin\n",
     0xCC, "<missing>"},
    {"two addresses on two lines", "10.0.0.5\n10.0.0.6", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"two addresses, blank between", "10.0.0.5 8.8.8.8", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"address and firewall option", "10.0.0.5 -j ACCEPT", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    // What follows the zero byte is not part of the text.
    {"user name, zero, command", "operator\0; touch /tmp/pwned"s, 0x00,
     "operator\n", 0xCC, "<missing>"},
    {"address, zero, command", "10.0.0.5\0$(touch /tmp/pwned)"s, 0xCC,
     "admin\n", 0x00, "10.0.0.5\n"},
    {"zero first", "\0admin"s, 0xCC, "admin\n", 0xCC, "<missing>"},
    {"a name one too long", "abcdefghijklmnopq", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"long enough to cut the command line",
     std::string(40, 'a') + "; touch /tmp/pwned", 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"long enough to cut the redirection", std::string(50, 'a'), 0xCC,
     "admin\n", 0xCC, "<missing>"},
    {"a long address", std::string(200, '1'), 0xCC, "admin\n", 0xCC,
     "<missing>"},
    {"a full request without a zero byte", std::string(65536, 'a'), 0xCC,
     "admin\n", 0xCC, "<missing>"},
};

struct Expect
{
    uint8_t cc;
    Bytes data;
    Lines log;
};

struct Command
{
    const char* name;
    uint8_t netfn, cmd;
    Expect (*expect)(const Payload&);
};

Bytes statusIfOk(uint8_t cc)
{
    return cc == 0x00 ? Bytes{0} : Bytes{};
}

// The byte commands see a first byte above their range (every payload
// starts with a character, or with a zero byte followed by one).
const Command commands[] = {
    {"set default user", 0x3A, 0x64,
     [](const Payload& p) {
         return Expect{p.userCc, statusIfOk(p.userCc), {}};
     }},
    {"set allow list", 0x30, 0xB7,
     [](const Payload& p) {
         return Expect{p.allowCc, statusIfOk(p.allowCc),
                       p.allowCc == 0x00
                           ? Lines{"systemctl restart obmc-allow-list.service"}
                           : Lines{}};
     }},
    {"set SSH status", 0x3A, 0x96,
     [](const Payload& p) {
         return p.bytes[0] == '\0' ? Expect{0x00,
                                            {0},
                                            {"iptables -L -n --line-number",
                                             "iptables -D INPUT"}}
                                   : Expect{0x01, {1}, {}};
     }},
    {"set eth status", 0x3A, 0x63,
     [](const Payload&) {
         return Expect{0xFF, {1}, {}};
     }},
    {"set restriction mode", 0x3A, 0x75,
     [](const Payload& p) {
         // The length of the request comes back, zero-filled (set below).
         return Expect{
             p.bytes.size() == 1 ? uint8_t{0xC9} : uint8_t{0xC7}, {}, {}};
     }},
    {"get SSH status", 0x3A, 0x95,
     [](const Payload&) {
         return Expect{0x00, {0}, {}};
     }},
    {"get restriction mode", 0x3A, 0x76,
     [](const Payload&) {
         return Expect{0x00, {0}, {}};
     }},
    {"get allow list", 0x30, 0xB9,
     [](const Payload&) {
         return Expect{0x00, {0}, {}};
     }},
    {"delete allow list", 0x30, 0xB8,
     [](const Payload&) {
         return Expect{0x00, {0}, {"iptables -F"}};
     }},
};

// What lies in the folders a stray redirection or command would write to.
std::set<std::string> listing()
{
    std::set<std::string> names;
    for (const char* folder : {"/", "/tmp", "/etc", "/etc/default/obmc",
                               "/etc/systemd/network", "/run", "/var/sim"})
    {
        for (const auto& entry : std::filesystem::directory_iterator(folder))
        {
            names.insert(entry.path().string());
        }
    }
    return names;
}

using Injection = Remote;

TEST_F(Injection, NoRequestByteReachesTheShell)
{
    const std::string login = readFile(sshLogin);
    const auto before = listing();
    for (const auto& p : payloads)
    {
        Bytes request(p.bytes.begin(), p.bytes.end());
        for (const auto& c : commands)
        {
            restoreBoard();
            Expect expect = c.expect(p);
            if (c.cmd == 0x75)
            {
                expect.data = Bytes(request.size(), 0);
            }
            auto answer = call(c.netfn, c.cmd, request);
            std::string where = std::string(c.name) + ", " + p.what;
            EXPECT_EQ(answer.cc, expect.cc) << where;
            EXPECT_EQ(answer.data, expect.data) << where;
            EXPECT_EQ(board::commandLog(), expect.log) << where;
            EXPECT_EQ(readFile(pwned), "<missing>") << where;
            EXPECT_EQ(readFile(userFile), c.cmd == 0x64 ? p.user : "admin\n")
                << where;
            EXPECT_EQ(readFile(allowList),
                      c.cmd == 0xB7 ? p.allow : "<missing>")
                << where;
            EXPECT_EQ(readFile(sshFlag), "false\n") << where;
            EXPECT_EQ(readFile(sshLogin), login) << where;
            EXPECT_EQ(readFile(rules), "") << where;
            EXPECT_EQ(portUp("eth0"), "yes") << where;
            EXPECT_EQ(portUp("eth1"), "yes") << where;
            EXPECT_EQ(restrictionMode(), modePrefix + "None") << where;
            auto after = listing();
            if (c.cmd == 0xB7 && p.allowCc == 0x00)
            {
                after.erase(allowList);
            }
            EXPECT_EQ(after, before) << where;
        }
    }
}

} // namespace
