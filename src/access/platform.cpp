// SPDX-License-Identifier: Apache-2.0
// Narrow access to board signals for the host: the two generic GPIO banks,
// the board ID straps, the CPU status lines, the serial-over-LAN routing
// line and one register at a time on the disk-enclosure (JBOD) I2C channels.
// GPIOs go through sysfs, exporting a line the first time it is needed.

#include "access/platform.hpp"

#include "oem/handler.hpp"
#include "oem/wire.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

using oem::wire::badLength;
using oem::wire::byteAnswer;
using oem::wire::requestByte;

namespace
{

constexpr int bank1Base = 280;
constexpr int bank0Base = 292;
constexpr int boardIdStrap0 = 280;
constexpr int boardIdStrap1 = 290;
constexpr int solGpio = 381;
constexpr std::array<std::array<int, 5>, 2> cpuLines = {{
    {405, 402, 415, 413, 403},
    {391, 401, 410, 389, 390},
}};

constexpr const char* jbodBuses[] = {
    "/dev/i2c-30", "/dev/i2c-31", "/dev/i2c-32",
    "/dev/i2c-33", "/dev/i2c-34", "/dev/i2c-35",
};
constexpr uint8_t jbodChannels = 6;

// The byte a failed JBOD read answers, so that the host cannot take it for
// a register value of 0.
constexpr uint8_t jbodGetError = 0x11;

void runShell(const char* command)
{
    [[maybe_unused]] int status = system(command);
}

void exportGpio(int gpio)
{
    char command[64];
    snprintf(command, sizeof(command), "echo %d > /sys/class/gpio/export",
             gpio);
    runShell(command);
}

bool exists(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

// The sysfs number of a generic bank pin, or -1 for an unknown bank.
int bankGpio(uint8_t bank, uint8_t pin)
{
    if (bank == 1)
    {
        return bank1Base + pin;
    }
    if (bank == 0)
    {
        return bank0Base + pin;
    }
    return -1;
}

// Exports the line if its sysfs folder is missing.
void exportIfNoFolder(int gpio)
{
    char folder[64];
    snprintf(folder, sizeof(folder), "/sys/class/gpio/gpio%d/", gpio);
    if (!exists(folder))
    {
        exportGpio(gpio);
    }
}

// Exports the line if its value file is missing, then reads it.
int readGpioExporting(int gpio, uint8_t* value)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/value", gpio);
    if (!exists(path))
    {
        exportGpio(gpio);
    }
    return oem::access::readGpio(gpio, value);
}

// Drives a line that is already an output; false if its value file cannot
// be written.
bool driveGpio(int gpio, uint8_t value)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/value", gpio);
    FILE* file = fopen(path, "w");
    if (file == nullptr)
    {
        return false;
    }
    fclose(file);
    char command[64];
    snprintf(command, sizeof(command),
             "echo %d  > /sys/class/gpio/gpio%d/value", value, gpio);
    runShell(command);
    return true;
}

struct FdCloser
{
    int fd;
    ~FdCloser()
    {
        close(fd);
    }
};

// The two JBOD commands differ only in the direction of the transfer, the
// handler named in their messages and the byte a failure answers.
struct JbodAccess
{
    const char* handler;
    uint8_t failure;
    bool write;
};

// One register of a device on a JBOD channel (request bytes: channel,
// address, register): writes value there, or reads it into value. On
// failure answers for the handler and returns its completion code.
std::optional<ipmi_ret_t> jbodTransfer(const JbodAccess& access,
                                       const uint8_t* in, uint8_t& value,
                                       ipmi_response_t response,
                                       ipmi_data_len_t dataLen)
{
    uint8_t channel = in[0];
    uint8_t address = in[1];
    uint8_t reg = in[2];
    if (channel >= jbodChannels)
    {
        fprintf(stderr, "%s error Channel %d.\n", access.handler, channel);
        *dataLen = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    const char* bus = jbodBuses[channel];
    int fd = open(bus, O_RDWR);
    if (fd < 0)
    {
        fprintf(stderr, "%s Open i2c bus /dev/%s failed.\n", access.handler,
                bus);
        return byteAnswer(response, dataLen, access.failure,
                          IPMI_CC_UNSPECIFIED_ERROR);
    }
    FdCloser closer{fd};
    uint32_t count = access.write ? 1 : 2;
    std::unique_ptr<i2c_msg[]> messages(new (std::nothrow) i2c_msg[count]);
    if (!messages)
    {
        fprintf(stderr, "%s memery alloc error.\n", access.handler);
        return byteAnswer(response, dataLen, access.failure,
                          IPMI_CC_UNSPECIFIED_ERROR);
    }
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[2]);
    if (!buffer)
    {
        fprintf(stderr, "%s buf memery alloc error.\n", access.handler);
        return byteAnswer(response, dataLen, access.failure,
                          IPMI_CC_UNSPECIFIED_ERROR);
    }
    buffer[0] = reg;
    if (access.write)
    {
        buffer[1] = value;
        messages[0] = {address, 0, 2, buffer.get()};
    }
    else
    {
        buffer[1] = 0;
        messages[0] = {address, 0, 1, &buffer[0]};
        messages[1] = {address, I2C_M_RD, 1, &buffer[1]};
    }
    i2c_rdwr_ioctl_data transfer = {messages.get(), count};
    if (ioctl(fd, I2C_RDWR, &transfer) < 0)
    {
        if (access.write)
        {
            fprintf(stderr, "%s write reg %x %x error\r\n", access.handler,
                    address, reg);
        }
        else
        {
            fprintf(stderr,
                    "%s read reg i2c_bus=[%s] addr=[%x] reg=[%x] error\r\n",
                    access.handler, bus, address, reg);
        }
        return byteAnswer(response, dataLen, access.failure, 0x01);
    }
    value = buffer[1];
    return std::nullopt;
}

} // namespace

namespace oem::access
{

int readGpio(int gpio, uint8_t* value)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/value", gpio);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        return -1;
    }
    char text[16] = {};
    size_t got = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[got] = '\0';
    int number = 0;
    if (sscanf(text, "%d", &number) != 1)
    {
        return -1;
    }
    *value = static_cast<uint8_t>(number & 0xFF);
    return 0;
}

} // namespace oem::access

using oem::access::readGpio;

ipmi_ret_t ipmi_vel_oem_get_gpio_value(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    if (*data_len < 2)
    {
        return badLength(data_len);
    }
    int gpio = bankGpio(requestByte(request, *data_len, 0),
                        requestByte(request, *data_len, 1));
    if (gpio < 0)
    {
        return byteAnswer(response, data_len, 2, IPMI_CC_UNSPECIFIED_ERROR);
    }
    exportIfNoFolder(gpio);
    uint8_t value = 0;
    if (readGpio(gpio, &value) != 0)
    {
        return byteAnswer(response, data_len, 2, IPMI_CC_UNSPECIFIED_ERROR);
    }
    return oem::wire::reply(response, data_len, {value});
}

ipmi_ret_t ipmi_vel_oem_set_gpio_value(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    uint32_t length = *data_len;
    uint8_t drive = requestByte(request, length, 2);
    // A drive request without its value must not drive the line to 0.
    if (length < 3 || (drive == 1 && length < 4))
    {
        return badLength(data_len);
    }
    int gpio = bankGpio(requestByte(request, length, 0),
                        requestByte(request, length, 1));
    if (gpio < 0)
    {
        return byteAnswer(response, data_len, 1, IPMI_CC_UNSPECIFIED_ERROR);
    }
    exportIfNoFolder(gpio);
    if (drive == 1)
    {
        char command[64];
        snprintf(command, sizeof(command),
                 "echo out> /sys/class/gpio/gpio%d/direction", gpio);
        runShell(command);
        if (!driveGpio(gpio, requestByte(request, length, 3)))
        {
            return byteAnswer(response, data_len, 1, IPMI_CC_UNSPECIFIED_ERROR);
        }
    }
    return oem::wire::reply(response, data_len, {0x00});
}

ipmi_ret_t ipmi_vel_oem_get_board_id(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                     ipmi_response_t response,
                                     ipmi_data_len_t data_len, ipmi_context_t)
{
    uint8_t strap0 = 0;
    uint8_t strap1 = 0;
    if (readGpioExporting(boardIdStrap0, &strap0) != 0 ||
        readGpioExporting(boardIdStrap1, &strap1) != 0)
    {
        return byteAnswer(response, data_len, 2, IPMI_CC_UNSPECIFIED_ERROR);
    }
    return oem::wire::reply(response, data_len, {strap0, strap1});
}

ipmi_ret_t ipmi_vel_oem_get_cpu_status(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    if (*data_len != 1)
    {
        fprintf(stderr, "Invalid data_len\n ");
        return badLength(data_len);
    }
    uint8_t cpu = requestByte(request, *data_len, 0);
    if (cpu >= cpuLines.size())
    {
        fprintf(stderr, "Error input cpu id\n");
        *data_len = 0;
        return IPMI_CC_PARM_OUT_OF_RANGE;
    }
    std::array<uint8_t, 5> values{};
    for (size_t i = 0; i < values.size(); ++i)
    {
        if (readGpioExporting(cpuLines[cpu][i], &values[i]) != 0)
        {
            return byteAnswer(response, data_len, 5, IPMI_CC_UNSPECIFIED_ERROR);
        }
    }
    memcpy(response, values.data(), values.size());
    *data_len = values.size();
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_bmc_sol_status(ipmi_netfn_t, ipmi_cmd_t,
                                           ipmi_request_t request,
                                           ipmi_response_t response,
                                           ipmi_data_len_t data_len,
                                           ipmi_context_t)
{
    if (*data_len < 1)
    {
        return badLength(data_len);
    }
    uint8_t state = requestByte(request, *data_len, 0);
    if (state > 1)
    {
        return byteAnswer(response, data_len, 1, IPMI_CC_UNSPECIFIED_ERROR);
    }
    exportGpio(solGpio);
    if (!driveGpio(solGpio, state))
    {
        return byteAnswer(response, data_len, 1, IPMI_CC_UNSPECIFIED_ERROR);
    }
    return oem::wire::reply(response, data_len, {0x00});
}

ipmi_ret_t ipmi_vel_oem_get_bmc_sol_status(ipmi_netfn_t, ipmi_cmd_t,
                                           ipmi_request_t,
                                           ipmi_response_t response,
                                           ipmi_data_len_t data_len,
                                           ipmi_context_t)
{
    exportGpio(solGpio);
    uint8_t value = 0;
    if (readGpio(solGpio, &value) != 0)
    {
        return byteAnswer(response, data_len, 2, IPMI_CC_UNSPECIFIED_ERROR);
    }
    return oem::wire::reply(response, data_len, {value});
}

ipmi_ret_t ipmi_vel_oem_set_jbod_i2c_data(ipmi_netfn_t, ipmi_cmd_t,
                                          ipmi_request_t request,
                                          ipmi_response_t response,
                                          ipmi_data_len_t data_len,
                                          ipmi_context_t)
{
    // A short request must not write a guessed value into an enclosure.
    if (*data_len < 4)
    {
        return badLength(data_len);
    }
    const auto* in = static_cast<const uint8_t*>(request);
    const JbodAccess access = {"ipmi_vel_oem_set_jbod_i2c_data", 1, true};
    uint8_t value = in[3];
    if (auto failed = jbodTransfer(access, in, value, response, data_len))
    {
        return *failed;
    }
    return oem::wire::reply(response, data_len, {0x00});
}

ipmi_ret_t ipmi_vel_oem_get_jbod_i2c_data(ipmi_netfn_t, ipmi_cmd_t,
                                          ipmi_request_t request,
                                          ipmi_response_t response,
                                          ipmi_data_len_t data_len,
                                          ipmi_context_t)
{
    if (*data_len < 3)
    {
        return badLength(data_len);
    }
    const auto* in = static_cast<const uint8_t*>(request);
    const JbodAccess access = {"ipmi_vel_oem_get_jbod_i2c_data", jbodGetError,
                               false};
    uint8_t value = 0;
    if (auto failed = jbodTransfer(access, in, value, response, data_len))
    {
        return *failed;
    }
    return oem::wire::reply(response, data_len, {value});
}
