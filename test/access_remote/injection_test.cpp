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
    // The text before the zero byte, where set default user or set allow
    // list takes it; every other payload is refused by both.
    const char* user = nullptr;
    const char* allow = nullptr;
};

const Payload payloads[] = {
    {"semicolon", "; touch /tmp/pwned"},
    {"name and semicolon", "admin;touch /tmp/pwned"},
    {"name and a logged tool", "admin;iptables -F"},
    {"pipe", "admin|touch /tmp/pwned"},
    {"and-and", "admin && ifconfig eth0 down"},
    {"background", "admin & touch /tmp/pwned"},
    {"command substitution", "$(touch /tmp/pwned)"},
    {"backquotes", "`touch /tmp/pwned`"},
    {"variable", "admin$IFS$HOME"},
    {"single quotes", "admin'; touch /tmp/pwned; '"},
    {"double quotes", "admin\"; touch /tmp/pwned; \""},
    {"redirection", "admin > /tmp/pwned"},
    {"redirection without blanks", "x>/tmp/pwned"},
    {"newline", "admin\ntouch /tmp/pwned"},
    {"carriage return", "admin\rroot"},
    {"blank", "admin root"},
    {"tab", "admin\troot"},
    {"echo option", "-e admin"},
    {"glob", "*"},
    {"tilde", "~root"},
    {"backslash", "admin\\"},
    {"high bytes", "adm\xff\xfe"},
    {"address then command", "10.0.0.5;touch /tmp/pwned"},
    {"address then substitution", "10.0.0.0/24$(iptables -F)"},
    {"two addresses on two lines", "10.0.0.5\n10.0.0.6"},
    {"two addresses, blank between", "10.0.0.5 8.8.8.8"},
    {"address and firewall option", "10.0.0.5 -j ACCEPT"},
    {"user name, zero, command", "operator\0; touch /tmp/pwned"s, "operator"},
    {"address, zero, command", "10.0.0.5\0$(touch /tmp/pwned)"s, nullptr,
     "10.0.0.5"},
    {"zero first", "\0admin"s},
    {"a name that just fits", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa",
     "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"a name one too long", std::string(34, 'a')},
    {"long enough to cut the command line",
     std::string(40, 'a') + "; touch /tmp/pwned"},
    {"long enough to cut the redirection", std::string(50, 'a')},
    {"a long address", std::string(200, '1')},
    {"a full request without a zero byte", std::string(65536, 'a')},
};

uint8_t expectedCc(const char* accepted)
{
    return accepted != nullptr ? 0x00 : 0xCC;
}

std::string stored(const char* accepted, const std::string& otherwise)
{
    return accepted != nullptr ? std::string(accepted) + "\n" : otherwise;
}

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
         return Expect{expectedCc(p.user), statusIfOk(expectedCc(p.user)), {}};
     }},
    {"set allow list", 0x30, 0xB7,
     [](const Payload& p) {
         return Expect{expectedCc(p.allow), statusIfOk(expectedCc(p.allow)),
                       p.allow != nullptr
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
            EXPECT_EQ(readFile(userFile),
                      c.cmd == 0x64 ? stored(p.user, "admin\n") : "admin\n")
                << where;
            EXPECT_EQ(readFile(allowList), c.cmd == 0xB7
                                               ? stored(p.allow, "<missing>")
                                               : "<missing>")
                << where;
            EXPECT_EQ(readFile(sshFlag), "false\n") << where;
            EXPECT_EQ(readFile(sshLogin), login) << where;
            EXPECT_EQ(readFile(rules), "") << where;
            EXPECT_EQ(portUp("eth0"), "yes") << where;
            EXPECT_EQ(portUp("eth1"), "yes") << where;
            EXPECT_EQ(restrictionMode(), modePrefix + "None") << where;
            auto after = listing();
            if (c.cmd == 0xB7 && p.allow != nullptr)
            {
                after.erase(allowList);
            }
            EXPECT_EQ(after, before) << where;
        }
    }
}

} // namespace
