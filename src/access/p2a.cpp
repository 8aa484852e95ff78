// SPDX-License-Identifier: Apache-2.0
// The PCIe-to-AHB (P2A) bridge of the BMC chip, through which the host can
// reach BMC memory. Switching it off also closes the LPC-to-AHB path and
// sets the hardware strap that keeps the bridge shut, the mitigation for
// the published weakness of these bridges. Registers go through devmem, one
// read and one write per bit; nothing is kept here.

#include "access/p2a.hpp"

#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <cstdio>
#include <cstdlib>

using oem::wire::requestByte;

namespace
{

constexpr uint32_t p2aRegister = 0x1E6E2180;
constexpr int p2aBit = 1;
constexpr uint32_t lpcRegister = 0x1E789100;
constexpr int lpcBit = 6;
constexpr uint32_t strapRegister = 0x1E6E2070;
constexpr uint32_t strapClearRegister = 0x1E6E207C;
constexpr int strapBit = 20;

// Both commands do nothing without it, so that a stray byte cannot open
// the bridge.
constexpr uint8_t confirmation = 0xA7;

constexpr uint8_t refused = 2;
constexpr uint8_t badSwitch = 1;

uint32_t readRegister(uint32_t reg)
{
    char command[64];
    snprintf(command, sizeof(command), "devmem 0x%x", reg);
    char output[256] = {};
    system_ctrl(command, output, sizeof(output));
    return oem::access::parseRegister(output);
}

// The write command line; for the P2A register it reads
// "devmem 0x1e6e2180 32 0x...".
void writeCommand(char (&command)[64], uint32_t reg, uint32_t value)
{
    snprintf(command, sizeof(command), "devmem 0x%x 32 0x%x", reg, value);
}

ipmi_ret_t answer(ipmi_response_t response, ipmi_data_len_t dataLen,
                  uint8_t byte, ipmi_ret_t code)
{
    static_cast<uint8_t*>(response)[0] = byte;
    *dataLen = 1;
    return code;
}

} // namespace

namespace oem::access
{

uint32_t parseRegister(const char* output)
{
    char* end = nullptr;
    uint32_t value = oem::strtoul32(output, &end, 16);
    return end == output ? 0 : value;
}

uint32_t applyBit(uint32_t reg, int value, int bit)
{
    if (bit < 0 || bit >= 32)
    {
        return reg;
    }
    uint32_t mask = uint32_t{1} << bit;
    if (value == 0)
    {
        return reg & ~mask;
    }
    if (value == 1)
    {
        return reg | mask;
    }
    return reg;
}

} // namespace oem::access

int set_value_CVE(int value, uint32_t reg, int bit)
{
    fprintf(stderr, "set_value_CVE start. value=%d, reg=0x%x, bit=%d. \n",
            value, reg, bit);
    uint32_t current = readRegister(reg);
    char command[64];
    writeCommand(command, reg, oem::access::applyBit(current, value, bit));
    fprintf(stderr, "oem set CVE cmds=%s. \n", command);
    return system(command) & 0xFF;
}

int set_p2a_switch(unsigned value)
{
    uint32_t current = readRegister(p2aRegister);
    if (value > 1)
    {
        return -1;
    }
    char command[64];
    writeCommand(
        command, p2aRegister,
        oem::access::applyBit(current, static_cast<int>(value), p2aBit));
    fprintf(stderr, "oem set p2a switch cmds=%s. \n", command);
    int status = system(command);
    if (status == -1)
    {
        fprintf(stderr, "execute system cmd error\n");
        return -1;
    }
    fprintf(stderr, "exit status value = 0x%x\n", status);
    if ((status & 0x7F) != 0)
    {
        // The fixed numbers are what the update tools match on.
        fprintf(stderr, "exit code: %d\n", 0);
        return -1;
    }
    if (status != 0)
    {
        fprintf(stderr, "run shell fail,exit code: %d\n", 1);
        return -1;
    }
    fprintf(stderr, "run shell success\n");
    return 0;
}

ipmi_ret_t ipmi_vel_oem_set_p2a_switch(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (request == nullptr || length == 0)
    {
        fprintf(stderr, "oem set_p2a_switch str is NULL.\n");
        return answer(response, data_len, refused, IPMI_CC_UNSPECIFIED_ERROR);
    }
    uint8_t on = requestByte(request, length, 0);
    uint8_t confirm = requestByte(request, length, 1);
    if (confirm != confirmation)
    {
        fprintf(stderr,
                "oem set_p2a_switch str[1] is not 0xa7, str[0]=%x,str[1]=%x.\n",
                on, confirm);
        return answer(response, data_len, refused, IPMI_CC_UNSPECIFIED_ERROR);
    }
    fprintf(stderr, "oem set_p2a_switch start. str[0]=%x,str[1]=%x.\n", on,
            confirm);
    if (on > 1)
    {
        return answer(response, data_len, badSwitch, IPMI_CC_OK);
    }

    uint32_t current = readRegister(p2aRegister);
    char command[64];
    writeCommand(command, p2aRegister,
                 oem::access::applyBit(current, on, p2aBit));
    fprintf(stderr, "oem set p2a switch cmds=%s. \n", command);
    [[maybe_unused]] int status = system(command);

    int last;
    if (on == 0)
    {
        set_value_CVE(1, lpcRegister, lpcBit);
        last = set_value_CVE(1, strapRegister, strapBit);
    }
    else
    {
        // Only the strap is undone; the LPC path stays closed once it has
        // been closed.
        last = set_value_CVE(1, strapClearRegister, strapBit);
    }
    // The answer is the value 0 whichever way the bridge went; the
    // outcome of the last register write is the completion code.
    return answer(response, data_len, 0, static_cast<ipmi_ret_t>(last));
}

ipmi_ret_t ipmi_vel_oem_get_p2a_switch(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (request == nullptr || length == 0)
    {
        fprintf(stderr, "oem get_p2a_switch str is NULL.\n");
        return answer(response, data_len, refused, IPMI_CC_UNSPECIFIED_ERROR);
    }
    uint8_t confirm = requestByte(request, length, 0);
    if (confirm != confirmation)
    {
        fprintf(stderr,
                "wvt.oem get_p2a_switch str[0] is not 0xa7, str[0]=%x.\n",
                confirm);
        return answer(response, data_len, refused, IPMI_CC_UNSPECIFIED_ERROR);
    }
    fprintf(stderr, "oem get_p2a_switch start. str[0]=%x.\n", confirm);
    uint8_t bit = (readRegister(p2aRegister) >> p2aBit) & 1;
    fprintf(stderr, "oem get p2a switch is %x, *data_len=%d\n", bit, 1);
    return answer(response, data_len, bit, IPMI_CC_OK);
}
