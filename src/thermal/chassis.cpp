// SPDX-License-Identifier: Apache-2.0
// Single indicators of the board: the chassis-intrusion switch, the flag
// that lets the thermal service act on high temperatures, the warning LED on
// the CPLD and the identify LED, which only its platform scripts drive.

#include "thermal/chassis.hpp"

#include "oem/handler.hpp"
#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

using namespace oem::thermal;
using oem::wire::badLength;
using oem::wire::byteAnswer;
using oem::wire::requestByte;

namespace
{

// What the intrusion and warning-LED reads answer when they cannot tell.
constexpr uint8_t unknownState = 0x11;

void runShell(const char* command)
{
    [[maybe_unused]] int status = system(command);
}

struct FdCloser
{
    int fd;
    ~FdCloser()
    {
        close(fd);
    }
};

// Writes value to the warning-LED register, or reads it back into value,
// in one combined transfer so that no other bus user comes between the
// register address and the data. Returns the completion code.
ipmi_ret_t warnLedTransfer(bool read, uint8_t& value)
{
    int fd = open(warnLedBus, O_RDWR);
    if (fd < 0)
    {
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    FdCloser closer{fd};
    const int count = read ? 2 : 1;
    std::unique_ptr<i2c_msg[]> messages(new (std::nothrow) i2c_msg[count]);
    if (!messages)
    {
        fprintf(stderr, "memery alloc error.\n");
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[2]);
    if (!buffer)
    {
        fprintf(stderr, "buf memery alloc error.\n");
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    buffer[0] = warnLedRegister;
    buffer[1] = value;
    if (read)
    {
        messages[0] = {warnLedAddress, 0, 1, buffer.get()};
        messages[1] = {warnLedAddress, I2C_M_RD, 1, buffer.get()};
    }
    else
    {
        messages[0] = {warnLedAddress, 0, 2, buffer.get()};
    }
    i2c_rdwr_ioctl_data transfer = {messages.get(),
                                    static_cast<uint32_t>(count)};
    if (ioctl(fd, I2C_RDWR, &transfer) < 0)
    {
        fprintf(stderr, "write reg %x %x error\r\n", warnLedAddress,
                warnLedRegister);
        return 0x01;
    }
    if (read)
    {
        value = buffer[0];
    }
    return IPMI_CC_OK;
}

} // namespace

ipmi_ret_t ipmi_vel_oem_get_chassis_intrusion(ipmi_netfn_t, ipmi_cmd_t,
                                              ipmi_request_t,
                                              ipmi_response_t response,
                                              ipmi_data_len_t data_len,
                                              ipmi_context_t)
{
    // Exporting a line that is already exported does no harm.
    char command[64];
    snprintf(command, sizeof(command), "echo %d > /sys/class/gpio/export",
             intrusionGpio);
    runShell(command);

    char path[64];
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/value", intrusionGpio);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "pq add oem open gpio%d not exist ！\n", intrusionGpio);
        return byteAnswer(response, data_len, unknownState,
                          IPMI_CC_UNSPECIFIED_ERROR);
    }
    char text[16] = {};
    size_t got = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[got] = '\0';
    int value = -1;
    if (sscanf(text, "%d", &value) != 1)
    {
        value = -1;
    }
    fprintf(stderr, "pq add oem get_chassis_status val=%d \n", value);

    uint8_t state = unknownState;
    if (value == 1)
    {
        state = 0; // closed
    }
    else if (value == 0)
    {
        state = 1; // opened
    }
    return byteAnswer(response, data_len, state, IPMI_CC_OK);
}

ipmi_ret_t ipmi_vel_oem_set_high_temp_detect_status(ipmi_netfn_t, ipmi_cmd_t,
                                                    ipmi_request_t request,
                                                    ipmi_response_t response,
                                                    ipmi_data_len_t data_len,
                                                    ipmi_context_t)
{
    // An empty request must not switch the protection off.
    if (*data_len < 1)
    {
        return badLength(data_len);
    }
    uint8_t enable = requestByte(request, *data_len, 0);
    if (enable > 1)
    {
        return byteAnswer(response, data_len, 2, IPMI_CC_OK);
    }
    // What "echo %d  > FILE" would leave, written whole: the thermal
    // service must never find the flag empty.
    oem::replaceFile(tempDetectFlagPath, std::to_string(enable) + "\n");
    return byteAnswer(response, data_len, 0, IPMI_CC_OK);
}

ipmi_ret_t ipmi_vel_oem_get_high_temp_detect_status(ipmi_netfn_t, ipmi_cmd_t,
                                                    ipmi_request_t,
                                                    ipmi_response_t response,
                                                    ipmi_data_len_t data_len,
                                                    ipmi_context_t)
{
    FILE* file = fopen(tempDetectFlagPath, "r");
    if (file == nullptr)
    {
        // No flag yet: the detection is off, and now says so.
        oem::replaceFile(tempDetectFlagPath, "0\n");
        return byteAnswer(response, data_len, 0, IPMI_CC_OK);
    }
    char text[16] = {};
    size_t got = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[got] = '\0';
    int flag = 0;
    if (sscanf(text, "%d", &flag) != 1)
    {
        flag = 0;
    }
    return byteAnswer(response, data_len, static_cast<uint8_t>(flag & 0xFF),
                      IPMI_CC_OK);
}

ipmi_ret_t ipmi_vel_oem_set_warn_led(ipmi_netfn_t, ipmi_cmd_t,
                                     ipmi_request_t request,
                                     ipmi_response_t response,
                                     ipmi_data_len_t data_len, ipmi_context_t)
{
    if (*data_len < 1)
    {
        return badLength(data_len);
    }
    // Active low: 0 lights the LED.
    uint8_t value = requestByte(request, *data_len, 0) == 0 ? 1 : 0;
    ipmi_ret_t code = warnLedTransfer(false, value);
    return byteAnswer(response, data_len, code == IPMI_CC_OK ? 0 : 1, code);
}

ipmi_ret_t ipmi_vel_oem_get_warn_led(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                     ipmi_response_t response,
                                     ipmi_data_len_t data_len, ipmi_context_t)
{
    uint8_t value = 0;
    ipmi_ret_t code = warnLedTransfer(true, value);
    if (code != IPMI_CC_OK)
    {
        return byteAnswer(response, data_len, unknownState, code);
    }
    return byteAnswer(response, data_len, value == 0 ? 1 : 0, IPMI_CC_OK);
}

ipmi_ret_t ipmi_vel_oem_set_bmc_led(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                    ipmi_response_t, ipmi_data_len_t,
                                    ipmi_context_t)
{
    // Every call toggles, whatever the request. The raw status's low byte is
    // the completion code: 0 for any normal exit, the signal number if the
    // script was killed. Callers read only the completion code, so the
    // response length is left as it came in.
    int status = system(toggleIdentifyLed);
    return static_cast<ipmi_ret_t>(status & 0xFF);
}

ipmi_ret_t ipmi_vel_oem_get_bmc_led(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                    ipmi_response_t response,
                                    ipmi_data_len_t data_len, ipmi_context_t)
{
    int status = system(getIdentifyLed);
    uint8_t lit = ((status >> 8) & 0xFF) != 0 ? 1 : 0;
    return byteAnswer(response, data_len, lit, IPMI_CC_OK);
}
