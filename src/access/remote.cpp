// SPDX-License-Identifier: Apache-2.0
// The BMC's own ways in: SSH login (a DROP rule on port 22 and a flag file
// that survives reboots), the IPMI restriction mode of the settings
// service, the source-address allow list, the default user name and the
// administrative state of the two Ethernet ports. Everything is done by
// shell commands, flag files and one D-Bus property; nothing is kept in
// memory.
//
// Request text never reaches a command line unchecked: a user name or an
// allow-list entry that is not plainly one is refused with 0xCC before
// anything is run or written, and every other command line is built from
// fixed text chosen by a validated request byte.

#include "access/remote.hpp"

#include "oem/dbus.hpp"
#include "oem/handler.hpp"
#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

using oem::wire::reply;
using oem::wire::requestByte;
using oem::wire::requestText;

namespace
{

constexpr const char* allowListFile = "/etc/default/obmc/ip";

constexpr const char* modePath =
    "/xyz/openbmc_project/control/host0/restriction_mode";
constexpr const char* modeInterface =
    "xyz.openbmc_project.Control.Security.RestrictionMode";
constexpr const char* modeProperty = "RestrictionMode";
constexpr const char* modePrefix =
    "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";

// Indexed by the IPMI byte.
constexpr std::array<const char*, 6> modeNames = {
    "None",
    "Whitelist",
    "Blacklist",
    "Provisioning",
    "ProvisionedHostWhitelist",
    "ProvisionedHostDisabled",
};

// Capture sizes of the commands whose output is read back.
constexpr int sshCaptureSize = 256;
constexpr int allowListCaptureSize = 200;
// Lines of the allow list are compared in pieces of at most this many
// characters (the terminating zero included).
constexpr int allowListLineSize = 200;

// Allow-list status bytes.
constexpr uint8_t allowAdded = 0;
constexpr uint8_t allowPresent = 1;
constexpr uint8_t allowRejected = 2;

void runShell(const char* command)
{
    [[maybe_unused]] int status = system(command);
}

bool exists(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

ipmi_ret_t invalidField(ipmi_data_len_t dataLen)
{
    *dataLen = 0;
    return IPMI_CC_INVALID_FIELD_REQUEST;
}

// Error answers of set restriction mode keep the length the request came
// with; the bytes it covers are zeroed so that nothing stale goes out.
ipmi_ret_t keepLength(ipmi_response_t response, ipmi_data_len_t dataLen,
                      ipmi_ret_t code)
{
    if (*dataLen > IPMID_RESPONSE_CAPACITY)
    {
        *dataLen = IPMID_RESPONSE_CAPACITY;
    }
    memset(response, 0, *dataLen);
    return code;
}

// Appends entry and a newline in one write; a failed or short write is
// undone, so the list never holds half an entry. A last line left without
// its newline (a list edited by hand) is ended first, or the two entries
// would run together and neither would reach the firewall. False if the
// file cannot be opened or written.
bool appendLine(const char* path, const std::string& entry)
{
    int fd = open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
    {
        return false;
    }
    std::string line = entry + "\n";
    off_t before = lseek(fd, 0, SEEK_END);
    char last = '\n';
    if (before > 0 && pread(fd, &last, 1, before - 1) == 1 && last != '\n')
    {
        line.insert(line.begin(), '\n');
    }
    ssize_t written = write(fd, line.data(), line.size());
    bool ok = written == static_cast<ssize_t>(line.size());
    if (!ok && before >= 0)
    {
        [[maybe_unused]] int ignored = ftruncate(fd, before);
    }
    if (close(fd) != 0)
    {
        ok = false;
    }
    return ok;
}

// The settings service's value for a restriction-mode byte, or nothing
// for a byte above 5.
std::optional<std::string> restrictionModeValue(uint8_t mode)
{
    if (mode >= modeNames.size())
    {
        return std::nullopt;
    }
    return std::string(modePrefix) + modeNames[mode];
}

// What the SSH flag file says: 1 while SSH is forbidden, else 0.
uint8_t sshStatusFromFlag(const char* text)
{
    if (strstr(text, "false") != nullptr || strstr(text, "can't") != nullptr)
    {
        return 0;
    }
    return text[0] != '\0' ? 1 : 0;
}

} // namespace

namespace oem::access
{

bool validUserName(std::string_view name)
{
    if (name.empty())
    {
        return false;
    }
    auto letter = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    };
    if (!letter(name[0]))
    {
        return false;
    }
    for (char c : name.substr(1))
    {
        if (!letter(c) && !(c >= '0' && c <= '9') && c != '.' && c != '-')
        {
            return false;
        }
    }
    return true;
}

bool validAllowListEntry(std::string_view entry)
{
    // The longest: a full IPv6 address with an IPv4 tail and "/128".
    constexpr size_t longest = 45 + 4;
    if (entry.empty() || entry.size() > longest)
    {
        return false;
    }
    // Only what addresses are written with; this also keeps out a zero
    // byte, which inet_pton would take for the end.
    if (entry.find_first_not_of("0123456789abcdefABCDEF.:/") !=
        std::string_view::npos)
    {
        return false;
    }
    std::string_view address = entry;
    std::string_view prefix;
    bool hasPrefix = false;
    if (auto slash = entry.find('/'); slash != std::string_view::npos)
    {
        address = entry.substr(0, slash);
        prefix = entry.substr(slash + 1);
        hasPrefix = true;
    }
    std::string text(address);
    std::array<unsigned char, 16> binary{};
    int maxPrefix = 0;
    if (inet_pton(AF_INET, text.c_str(), binary.data()) == 1)
    {
        maxPrefix = 32;
    }
    else if (inet_pton(AF_INET6, text.c_str(), binary.data()) == 1)
    {
        maxPrefix = 128;
    }
    else
    {
        return false;
    }
    if (!hasPrefix)
    {
        return true;
    }
    if (prefix.empty() || prefix.size() > 3 ||
        (prefix.size() > 1 && prefix[0] == '0'))
    {
        return false;
    }
    int bits = 0;
    for (char c : prefix)
    {
        if (c < '0' || c > '9')
        {
            return false;
        }
        bits = bits * 10 + (c - '0');
    }
    return bits <= maxPrefix;
}

std::optional<uint8_t> restrictionModeByte(const std::string& value)
{
    // The name is whatever follows the prefix up to the first blank, cut to
    // the 29 characters the settings service's longest name easily fits.
    char name[30] = {};
    if (sscanf(value.c_str(),
               "xyz.openbmc_project.Control.Security.RestrictionMode.Modes."
               "%29s",
               name) != 1)
    {
        return std::nullopt;
    }
    for (size_t i = 0; i < modeNames.size(); ++i)
    {
        if (strcmp(name, modeNames[i]) == 0)
        {
            return static_cast<uint8_t>(i);
        }
    }
    return std::nullopt;
}

} // namespace oem::access

using namespace oem::access;

namespace
{

// Reads the SSH flag file through the shell and logs what it holds, as
// both SSH handlers do before they decide.
void readSshFlag(const char* handler, char (&text)[sshCaptureSize])
{
    memset(text, 0, sizeof(text));
    char command[] = "cat /etc/ssh_forbid.conf";
    system_ctrl(command, text, sizeof(text));
    fprintf(stderr, "%s dptssh   shellret = %s\n ", handler, text);
}

} // namespace

ipmi_ret_t ipmi_vel_oem_get_ssh_status(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    char text[sshCaptureSize];
    readSshFlag(__func__, text);
    return reply(response, data_len, {sshStatusFromFlag(text)});
}

ipmi_ret_t ipmi_vel_oem_set_ssh_status(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    uint8_t forbid = requestByte(request, *data_len, 0);
    if (forbid > 1)
    {
        reply(response, data_len, {1});
        return 0x01;
    }
    if (forbid == 0)
    {
        fprintf(stderr, "%s set enable ssh login NET\n ", __func__);
        // Drops the port-22 rule by its line number; runs even when SSH is
        // already allowed, so a stray rule is always cleaned up.
        runShell("dptssh=`iptables -L -n --line-number | grep DROP | grep "
                 "dpt:22 | awk -F' ' '{print $1}'` && iptables -D INPUT "
                 "$dptssh");
        // What "echo 'false' > FILE" would leave, written whole: the
        // redirect empties the flag before it writes.
        oem::replaceFile("/etc/ssh_forbid.conf", "false\n");
    }
    else
    {
        char text[sshCaptureSize];
        readSshFlag(__func__, text);
        // The flag is the only memory of the DROP rule: adding it once more
        // would leave a rule that allowing SSH again does not remove.
        if (strstr(text, "ture") == nullptr)
        {
            fprintf(stderr, "%s set disable ssh login\n ", __func__);
            runShell("iptables -A INPUT -p tcp --dport 22 -j DROP");
            if (oem::replaceFile("/etc/ssh_forbid.conf", "ture\n") ==
                oem::WriteResult::done)
            {
                runShell("rm /run/ssh_login.conf &");
            }
        }
    }
    return reply(response, data_len, {0});
}

ipmi_ret_t ipmi_vel_oem_set_restriction_mode(ipmi_netfn_t, ipmi_cmd_t,
                                             ipmi_request_t request,
                                             ipmi_response_t response,
                                             ipmi_data_len_t data_len,
                                             ipmi_context_t)
{
    if (*data_len != 1)
    {
        fprintf(stderr, "Invalid data_len\n ");
        return keepLength(response, data_len, IPMI_CC_REQ_DATA_LEN_INVALID);
    }
    auto value = restrictionModeValue(requestByte(request, *data_len, 0));
    if (!value)
    {
        fprintf(stderr, "Out of range\n");
        return keepLength(response, data_len, IPMI_CC_PARM_OUT_OF_RANGE);
    }
    *data_len = 0;
    // Built whole: with the two longest mode names the line is longer than
    // 256 characters, and a cut line would set a mode that does not exist.
    std::string command =
        "busctl set-property  xyz.openbmc_project.Settings "
        "/xyz/openbmc_project/control/host0/restriction_mode "
        "xyz.openbmc_project.Control.Security.RestrictionMode  "
        "RestrictionMode s " +
        *value + " ";
    return oem::shellStatus(system(command.c_str()));
}

ipmi_ret_t ipmi_vel_oem_get_restriction_mode(ipmi_netfn_t, ipmi_cmd_t,
                                             ipmi_request_t,
                                             ipmi_response_t response,
                                             ipmi_data_len_t data_len,
                                             ipmi_context_t)
{
    std::optional<uint8_t> mode;
    try
    {
        std::string service = dbus.getService(modeInterface, modePath);
        oem::Value value =
            dbus.getProperty(service, modePath, modeInterface, modeProperty);
        mode = restrictionModeByte(std::get<std::string>(value));
    }
    catch (const std::exception& e)
    {
        // A settings service that is missing or answers with an error, or
        // a property of another type: no mode to report.
        fprintf(stderr, "%s: %s\n", __func__, e.what());
    }
    if (!mode)
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    return reply(response, data_len, {*mode});
}

ipmi_ret_t ipmi_vel_oem_set_allow_list(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    std::string entry = requestText(request, *data_len);
    if (!validAllowListEntry(entry))
    {
        fprintf(stderr, "%s: not an address: refused\n", __func__);
        return invalidField(data_len);
    }
    if (FILE* file = fopen(allowListFile, "r"); file != nullptr)
    {
        // A line that holds the entry ends the scan (already there); a
        // line met before that which starts with another character refuses
        // the entry. Lines are compared in pieces of at most 199
        // characters.
        char line[allowListLineSize];
        uint8_t status = allowAdded;
        while (status == allowAdded && fgets(line, sizeof(line), file))
        {
            if (strstr(line, entry.c_str()) != nullptr)
            {
                status = allowPresent;
            }
            else if (line[0] != entry[0])
            {
                status = allowRejected;
            }
        }
        fclose(file);
        if (status != allowAdded)
        {
            return reply(response, data_len, {status});
        }
    }
    if (!appendLine(allowListFile, entry))
    {
        return reply(response, data_len, {allowPresent});
    }
    runShell("systemctl restart obmc-allow-list.service");
    return reply(response, data_len, {allowAdded});
}

ipmi_ret_t ipmi_vel_oem_del_allow_list(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    runShell("rm /etc/default/obmc/ip");
    // Flushes every chain, the SSH rule included; the flag file is left.
    runShell("iptables -F");
    return reply(response, data_len, {0});
}

ipmi_ret_t ipmi_vel_oem_get_allow_list(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    FILE* file = fopen(allowListFile, "r");
    if (file == nullptr)
    {
        return reply(response, data_len, {0});
    }
    fclose(file);
    char text[allowListCaptureSize] = {};
    char command[] =
        "cat /etc/default/obmc/ip | tr '\n' ' ' | sed 's/[ ]*$//g'";
    system_ctrl(command, text, sizeof(text));
    size_t length = strnlen(text, sizeof(text) - 1);
    memcpy(response, text, length);
    *data_len = static_cast<uint32_t>(length);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_default_user(ipmi_netfn_t, ipmi_cmd_t,
                                         ipmi_request_t request,
                                         ipmi_response_t response,
                                         ipmi_data_len_t data_len,
                                         ipmi_context_t)
{
    std::string name = requestText(request, *data_len);
    // The name stands unquoted on the command line: only plain names pass.
    if (!validUserName(name))
    {
        fprintf(stderr, "%s: not a user name: refused\n", __func__);
        return invalidField(data_len);
    }
    // The name is what "echo NAME > /etc/default/obmc/user" in a 64-byte
    // line would store: a name whose line would be cut is refused, as a cut
    // line would write somewhere else. The file is written whole.
    char command[64];
    int length = snprintf(command, sizeof(command),
                          "echo %s > /etc/default/obmc/user", name.c_str());
    if (length < 0 || static_cast<size_t>(length) >= sizeof(command))
    {
        fprintf(stderr, "%s: user name too long: refused\n", __func__);
        return invalidField(data_len);
    }
    oem::replaceFile("/etc/default/obmc/user", name + "\n");
    return reply(response, data_len, {0});
}

ipmi_ret_t ipmi_vel_oem_set_eth_status(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    uint8_t port = requestByte(request, *data_len, 0);
    uint8_t enable = requestByte(request, *data_len, 1);
    if (port > 1 || enable > 1)
    {
        reply(response, data_len, {1});
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    fprintf(stderr, "ipmi_vel_oem_set_eth_status eth%d status:%d \r\n", port,
            enable);
    constexpr std::array<const char*, 2> markers = {
        "/etc/systemd/network/bmc_eth0_disable",
        "/etc/systemd/network/bmc_eth1_disable",
    };
    const char* marker = markers[port];
    char command[64];
    if (enable == 0)
    {
        // The marker keeps the port down across restarts of the network.
        if (!exists(marker))
        {
            int fd = open(marker, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0)
            {
                fprintf(stderr, "%s: cannot create %s\n", __func__, marker);
            }
            else
            {
                close(fd);
            }
        }
        snprintf(command, sizeof(command), "ifconfig eth%d down", port);
    }
    else
    {
        if (exists(marker))
        {
            snprintf(command, sizeof(command), "rm %s", marker);
            runShell(command);
        }
        snprintf(command, sizeof(command), "ifconfig eth%d up", port);
    }
    runShell(command);
    return reply(response, data_len, {0});
}
