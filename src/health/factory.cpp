// SPDX-License-Identifier: Apache-2.0
// The production line's self-tests: the BMC front LED, the EEPROM, the
// network ports, the NC-SI side-band link, and the factory reset. Test
// results travel in the response data; completion codes report only
// requests that could not be run at all.

#include "health/factory.hpp"

#include "dbus.hpp"
#include "globals.hpp"
#include "utils.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace
{

constexpr const char* ledService = "org.openbmc.control.bussysctl";
constexpr const char* ledPath = "/org/openbmc/control/bussysctl";
constexpr const char* ledInterface = "org.openbmc.control.bussysctlMachine";
constexpr const char* ledProperty = "LedStatus";

constexpr const char* updaterService =
    "xyz.openbmc_project.Software.BMC.Updater";
constexpr const char* updaterPath = "/xyz/openbmc_project/software";
constexpr const char* factoryResetInterface =
    "xyz.openbmc_project.Common.FactoryReset";

constexpr const char* ncsiCommand = "ncsi-netlink --info -x 2";
constexpr size_t ncsiTextSize = 1024;

constexpr uint8_t ledUnknown = 3;
constexpr uint8_t miiInvalid = 0x01;

/* Speeds in Mb/s, indexed by the request's speed value. */
constexpr int ethSpeeds[] = {10, 100, 1000};

/* The EEPROM file through the descriptor calls the self-test needs. */
// While a block holds the test pattern, its saved contents wait beside the
// EEPROM image (offset line, then the bytes), so that a reset in that moment
// does not leave the pattern in the inventory or the UUID: the next test
// puts the block back before it starts.
std::string eepromTestJournal()
{
    return eeprom_path + "_testblock";
}

bool restoreJournaledBlock(int fd)
{
    std::string journal;
    auto result = oem::readFile(eepromTestJournal(), journal);
    if (result == oem::ReadResult::missing)
    {
        return true;
    }
    size_t newline = journal.find('\n');
    if (result != oem::ReadResult::ok || newline == std::string::npos ||
        journal.size() != newline + 1 + EEPROM_TEST_BLOCK_SIZE)
    {
        fprintf(stderr, "%s: unreadable\n", eepromTestJournal().c_str());
        return false;
    }
    off_t offset = strtoll(journal.c_str(), nullptr, 10);
    const char* block = journal.data() + newline + 1;
    if (pwrite(fd, block, EEPROM_TEST_BLOCK_SIZE, offset) !=
            static_cast<ssize_t>(EEPROM_TEST_BLOCK_SIZE) ||
        fsync(fd) != 0)
    {
        fprintf(stderr, "%s: cannot put the block at 0x%llx back\n",
                eeprom_path.c_str(), static_cast<long long>(offset));
        return false;
    }
    unlink(eepromTestJournal().c_str());
    return true;
}

struct EepromFile
{
    int fd;
    off_t journaled = -1;

    off_t seek(off_t offset)
    {
        return lseek(fd, offset, SEEK_SET);
    }
    ssize_t read(uint8_t* data, size_t size)
    {
        return ::read(fd, data, size);
    }
    ssize_t write(const uint8_t* data, size_t size)
    {
        off_t at = lseek(fd, 0, SEEK_CUR);
        uint8_t pattern[EEPROM_TEST_BLOCK_SIZE];
        oem::eepromTestPattern(pattern);
        if (at >= 0 && size == sizeof(pattern) &&
            memcmp(data, pattern, size) == 0)
        {
            // The pattern goes over the block only once its contents are
            // safe in the journal.
            std::string journal = std::to_string(at) + "\n";
            journal.resize(journal.size() + size);
            if (pread(fd, journal.data() + journal.size() - size, size, at) !=
                    static_cast<ssize_t>(size) ||
                oem::replaceFile(eepromTestJournal(), journal) !=
                    oem::WriteResult::done)
            {
                return -1;
            }
            journaled = at;
            return ::write(fd, data, size);
        }
        ssize_t written = ::write(fd, data, size);
        if (at == journaled && written == static_cast<ssize_t>(size) &&
            fsync(fd) == 0)
        {
            unlink(eepromTestJournal().c_str());
            journaled = -1;
        }
        return written;
    }
};

/* Whether a D-Bus failure is the service's answer to the call. The call
 * cannot be built without a bus at all; that is not an answer and is left
 * to the daemon. */
bool refusedByService(const oem::DbusError& e)
{
    return e.operation() == "sd_bus_call";
}

/* The second token of line split on any of delimiters, copied into out
 * (ETH_INFO_TEXT_SIZE bytes); out is left as it is when there is none. */
void secondToken(char* line, const char* delimiters, char* out)
{
    char* save = nullptr;
    if (strtok_r(line, delimiters, &save) == nullptr)
    {
        return;
    }
    const char* token = strtok_r(nullptr, delimiters, &save);
    if (token != nullptr)
    {
        snprintf(out, ETH_INFO_TEXT_SIZE, "%s", token);
    }
}

} // namespace

ipmi_ret_t ipmi_vel_oem_get_bmc_led_FT(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    oem::Value value;
    try
    {
        value =
            dbus.getProperty(ledService, ledPath, ledInterface, ledProperty);
    }
    catch (const oem::DbusError& e)
    {
        if (!refusedByService(e))
        {
            throw;
        }
        out[0] = ledUnknown;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    const auto* state = std::get_if<std::string>(&value);
    if (state == nullptr)
    {
        // The service broke its own interface; nothing to map.
        throw oem::DbusError("sd_bus_message_read_basic string", ENXIO,
                             "org.freedesktop.DBus.Error.InvalidArgs",
                             "LedStatus is not a string");
    }
    uint8_t led = ledUnknown;
    if (*state == "false")
    {
        led = 0;
    }
    else if (*state == "true")
    {
        led = 1;
    }
    else if (*state == "blink")
    {
        led = 2;
    }
    out[0] = led;
    *data_len = 1;
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_bmc_led_FT(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    // No state byte asks for no state: refused like an unknown one.
    uint8_t requested =
        *data_len >= 1 ? static_cast<const uint8_t*>(request)[0] : ledUnknown;
    out[0] = 1;
    *data_len = 1;
    if (requested >= ledUnknown)
    {
        return IPMI_CC_OK;
    }
    static constexpr const char* states[] = {"false", "true", "blink"};
    try
    {
        dbus.setProperty(ledService, ledPath, ledInterface, ledProperty,
                         oem::Value{std::string(states[requested])});
    }
    catch (const oem::DbusError& e)
    {
        if (!refusedByService(e))
        {
            throw;
        }
        return IPMI_CC_OK;
    }
    out[0] = 0;
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_reset_factory(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    // The daemon's own connection, not the plug-in's bus object.
    oem::Bus bus(ipmid_get_sd_bus_connection());
    out[0] = 0;
    *data_len = 1;
    try
    {
        bus.callMethod(updaterService, updaterPath, factoryResetInterface,
                       "Reset");
    }
    catch (const oem::DbusError& e)
    {
        if (!refusedByService(e))
        {
            *data_len = 0;
            throw;
        }
        out[0] = 1;
    }
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_ncsi_test(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    FILE* tool = popen(ncsiCommand, "r");
    if (tool == nullptr)
    {
        fprintf(stderr, "popen error!\n");
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    // The report is a few short lines; anything past the first
    // ncsiTextSize - 1 characters is read (so the tool can finish) and
    // dropped.
    char result[ncsiTextSize] = {};
    size_t used = 0;
    char piece[ncsiTextSize];
    while (fgets(piece, sizeof(piece), tool) != nullptr)
    {
        size_t length = strnlen(piece, sizeof(piece));
        size_t room = sizeof(result) - 1 - used;
        size_t take = length < room ? length : room;
        memcpy(result + used, piece, take);
        used += take;
    }
    result[used] = '\0';
    pclose(tool);
    fprintf(stderr, "result: %s\n", result);

    if (strstr(result, "Active") != nullptr)
    {
        fprintf(stderr, "link is up\n");
        fprintf(stderr, "NCSI Status: ok , Test Pass: P\n");
        out[0] = 0;
    }
    else
    {
        fprintf(stderr, "link is down\n");
        fprintf(stderr, "NCSI Status: fault , Test Pass: F\n");
        out[0] = 1;
    }
    *data_len = 1;
    return IPMI_CC_OK;
}

extern "C" int eeprom_test_result_m7r(void)
{
    int fd = open(eeprom_path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
    {
        fprintf(stderr, " %s file cannot open \n", eeprom_path.c_str());
        return -1;
    }
    if (!restoreJournaledBlock(fd))
    {
        close(fd);
        return 5;
    }
    EepromFile file{fd};
    int result = oem::eepromBlockTest(file);
    // A test that ended on its own has put back what it was going to.
    unlink(eepromTestJournal().c_str());
    close(fd);
    return result;
}

ipmi_ret_t ipmi_vel_oem_get_eeprom_test(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    out[0] = static_cast<uint8_t>(eeprom_test_result_m7r());
    *data_len = 1;
    return IPMI_CC_OK;
}

extern "C" void get_eth_info_m7r(int port, char* duplex, char* speed,
                                 char* mode, char* address)
{
    char path[64];
    // The systemd-networkd unit of the port.
    snprintf(path, sizeof(path), "/etc/systemd/network/00-bmc-eth%d.network",
             port);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "[%s:%d] network file can not open \n\n", __func__,
                __LINE__);
        return;
    }
    char line[ETH_INFO_TEXT_SIZE];
    while (fgets(line, sizeof(line), file) != nullptr)
    {
        if (strstr(line, "Address=") != nullptr &&
            strstr(line, "MACAddress=") == nullptr)
        {
            secondToken(line, "=", address);
        }
        else if (strstr(line, "DHCP=") != nullptr)
        {
            char value[ETH_INFO_TEXT_SIZE] = {};
            secondToken(line, "=", value);
            size_t length = strlen(value);
            if (length > 0)
            {
                // The value still carries its line end.
                bool isStatic = strncmp(value, "false", length - 1) == 0;
                snprintf(mode, ETH_INFO_TEXT_SIZE, "%s",
                         isStatic ? "static" : "DHCP");
            }
        }
    }
    fclose(file);

    char command[64];
    snprintf(command, sizeof(command), "ethtool eth%d", port);
    FILE* tool = popen(command, "r");
    if (tool == nullptr)
    {
        fprintf(stderr, "[%s:%d]  popen cmd failed \n\n", __func__, __LINE__);
        return;
    }
    while (fgets(line, sizeof(line), tool) != nullptr)
    {
        if (strstr(line, "Duplex") != nullptr)
        {
            secondToken(line, ": ", duplex);
        }
        else if (strstr(line, "Speed") != nullptr)
        {
            secondToken(line, ": ", speed);
        }
    }
    pclose(tool);
    fprintf(stderr, "[%s:%d] duplex=%s, speed=%s.\n\n", __func__, __LINE__,
            duplex, speed);
}

extern "C" int set_eth_duplex_speed_handler_m7r(int port,
                                                const uint8_t* request)
{
    char command[64];
    snprintf(command, sizeof(command), "ethtool eth%d", port);
    FILE* tool = popen(command, "r");
    if (tool == nullptr)
    {
        fprintf(stderr, "[%s:%d]  popen cmd failed \n\n", __func__, __LINE__);
        return 0;
    }
    char status[ETH_INFO_TEXT_SIZE] = {};
    char line[ETH_INFO_TEXT_SIZE];
    while (fgets(line, sizeof(line), tool) != nullptr)
    {
        if (strstr(line, "Auto-negotiation: ") != nullptr)
        {
            secondToken(line, ": ", status);
        }
    }
    pclose(tool);
    fprintf(stderr, "[%s:%d] status=%s\n\n", __func__, __LINE__, status);

    uint8_t kind = request[2];
    uint8_t value = request[3];
    // Only the bare word counts as on: ethtool's own line end keeps the
    // setting going, as the production tools expect.
    if (strcmp(status, "on") == 0)
    {
        if (kind > 1)
        {
            fprintf(stderr, "[%s:%d] unsupport command!\n\n", __func__,
                    __LINE__);
        }
        return 0;
    }
    if (kind == 0)
    {
        if (value > 1)
        {
            return 0;
        }
        snprintf(command, sizeof(command), "ethtool -s eth%d duplex %s", port,
                 value == 0 ? "full" : "half");
        fprintf(stderr, "[%s:%d] set duplex cmd=%s\n\n", __func__, __LINE__,
                command);
    }
    else if (kind == 1)
    {
        if (value > 2)
        {
            return 0;
        }
        snprintf(command, sizeof(command), "ethtool -s eth%d speed %d", port,
                 ethSpeeds[value]);
        fprintf(stderr, "[%s:%d] set speed cmd=%s\n\n", __func__, __LINE__,
                command);
    }
    else
    {
        fprintf(stderr, "[%s:%d] unsupport command!\n\n", __func__, __LINE__);
        return 0;
    }
    // The tool's status is not judged: the test reads the port back.
    if (system(command) == -1)
    {
        fprintf(stderr, "[%s:%d] system cmd failed \n\n", __func__, __LINE__);
    }
    return 1;
}

ipmi_ret_t ipmi_vel_oem_get_mii_test(OEM_HANDLER_PARAMS)
{
    const auto* in = static_cast<const uint8_t*>(request);
    auto* out = static_cast<uint8_t*>(response);
    uint32_t length = *data_len;
    // Operation and port must be there, and a setting needs its kind and
    // value too; anything else is answered like a bad port.
    bool valid =
        length >= 2 && in[0] <= 1 && in[1] < 2 && (in[0] == 0 || length >= 4);
    if (!valid)
    {
        out[0] = miiInvalid;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    int port = in[1];
    char text[5 * ETH_INFO_TEXT_SIZE];
    int written = 0;
    if (in[0] == 0)
    {
        char duplex[ETH_INFO_TEXT_SIZE] = {};
        char speed[ETH_INFO_TEXT_SIZE] = {};
        char mode[ETH_INFO_TEXT_SIZE] = {};
        char address[ETH_INFO_TEXT_SIZE] = {};
        get_eth_info_m7r(port, duplex, speed, mode, address);
        written =
            snprintf(text, sizeof(text), "Duplex:%s Speed:%s Mode:%s IP:%s\n",
                     duplex, speed, mode, address);
    }
    else
    {
        bool done = set_eth_duplex_speed_handler_m7r(port, in) == 1;
        written = snprintf(text, sizeof(text), "set_eth_info_result:%s\n",
                           done ? "P" : "F");
    }
    // Four texts of at most ETH_INFO_TEXT_SIZE - 1 characters always fit;
    // the answer has no terminating zero.
    size_t size = written < 0 ? 0 : static_cast<size_t>(written);
    if (size >= sizeof(text))
    {
        size = sizeof(text) - 1;
    }
    memcpy(out, text, size);
    *data_len = static_cast<uint32_t>(size);
    return IPMI_CC_OK;
}
