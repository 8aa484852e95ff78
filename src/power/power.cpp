// SPDX-License-Identifier: Apache-2.0
// Total output power of all supplies, from their hwmon nodes.

#include "oem/handler.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

/* Sums power1_input (microwatts) of every hwmon device named asp2500. Its
 * input is /dev/null: with no such device "cat" gets no file arguments and
 * would otherwise read whatever the daemon's standard input is. */
constexpr const char* powerCommand =
    "exec </dev/null; "
    "power_node=`grep -E '^asp2500$' /sys/class/hwmon/*/name | awk -F / "
    "'{print $1\"/\"$2\"/\"$3\"/\"$4\"/\"$5\"/power1_input\"}'` && cat "
    "$power_node 2>&1 |awk '/^[0-9][0-9]*$/ {sum+=$1} END {print  sum}' ";

/* The supplies' summed power in microwatts; false if the pipeline cannot be
 * started. A reading past the 32-bit range saturates. */
bool readPower(int& value)
{
    fprintf(stderr, "enter ipmi_vel_oem_get_power_consumption******\n");
    FILE* pipe = popen(powerCommand, "r");
    if (pipe == nullptr)
    {
        return false;
    }
    value = 0;
    char line[100];
    while (fgets(line, sizeof(line), pipe) != nullptr)
    {
        size_t length = strlen(line);
        if (length == 0 || line[length - 1] != '\n')
        {
            continue;
        }
        line[length - 1] = '\0';
        fprintf(stderr, "output:%s\n", line);
        long parsed = strtol(line, nullptr, 10);
        if (parsed > INT_MAX)
        {
            parsed = INT_MAX;
        }
        else if (parsed < INT_MIN)
        {
            parsed = INT_MIN;
        }
        value = static_cast<int>(parsed);
        fprintf(stderr, "powerValue=%d\n", value);
    }
    pclose(pipe);
    return true;
}

} // namespace

ipmi_ret_t ipmi_vel_oem_get_total_power(ipmi_netfn_t, ipmi_cmd_t,
                                        ipmi_request_t,
                                        ipmi_response_t response,
                                        ipmi_data_len_t data_len,
                                        ipmi_context_t)
{
    int value = 0;
    if (!readPower(value))
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    int watts = value / 1000000;
    fprintf(stderr, "power = %d watt\n", watts);
    auto* out = static_cast<uint8_t*>(response);
    auto sent = static_cast<uint16_t>(watts);
    out[0] = static_cast<uint8_t>(sent & 0xFF);
    out[1] = static_cast<uint8_t>(sent >> 8);
    *data_len = 2;
    fprintf(stderr,
            "exit ipmi_vel_oem_get_power_consumption****** *data_len=%d\n", 2);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_power_consumption(ipmi_netfn_t, ipmi_cmd_t,
                                              ipmi_request_t,
                                              ipmi_response_t response,
                                              ipmi_data_len_t data_len,
                                              ipmi_context_t)
{
    int value = 0;
    if (!readPower(value))
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    // Most significant byte first here, unlike the watts of 0x91.
    auto raw = static_cast<uint32_t>(value);
    auto* out = static_cast<uint8_t*>(response);
    out[0] = static_cast<uint8_t>(raw >> 24);
    out[1] = static_cast<uint8_t>(raw >> 16);
    out[2] = static_cast<uint8_t>(raw >> 8);
    out[3] = static_cast<uint8_t>(raw);
    *data_len = 4;
    fprintf(stderr,
            "exit ipmi_vel_oem_get_power_consumption****** *data_len=%d\n", 4);
    return IPMI_CC_OK;
}
