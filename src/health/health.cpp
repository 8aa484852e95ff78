// SPDX-License-Identifier: Apache-2.0
// The one-shot health summary: alarm flag files, PSU probes, BMC memory use
// and the link of the BMC's port.

#include "health.hpp"

#include "power/psu_location.hpp"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

bool asserted(const char* line)
{
    return strstr(line, "=1") != nullptr || strstr(line, "=2") != nullptr;
}

/* Scans one flag file in pieces of up to 59 characters. The non-recoverable
 * file is read stricter: any fan line there is done with once seen. */
bool scanFlagFile(const char* path, bool strictFan, bool* fan, bool* temp)
{
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        return false;
    }
    char line[60];
    while (fgets(line, sizeof(line), file) != nullptr)
    {
        bool isFan = strstr(line, "fan") != nullptr;
        if (strictFan && isFan)
        {
            if (asserted(line))
            {
                *fan = false;
            }
            continue;
        }
        if (!strictFan && isFan && asserted(line) && *fan)
        {
            *fan = false;
            continue;
        }
        if (strstr(line, "temperature") != nullptr && asserted(line))
        {
            *temp = false;
        }
    }
    fclose(file);
    return true;
}

/* True if any piece (up to 49 characters) of the file is asserted. */
bool anyAsserted(const char* path)
{
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        return false;
    }
    bool found = false;
    char line[50];
    while (!found && fgets(line, sizeof(line), file) != nullptr)
    {
        found = asserted(line);
    }
    fclose(file);
    return found;
}

struct ProbeTexts
{
    const char* notFound;
    const char* readFailure;
    const char* acLost;
};

void probeSupply(const char* path, uint8_t& bus, uint8_t& addr, bool* present,
                 bool* ac, const ProbeTexts& texts, const char* function)
{
    if (m7r_find_psu_i2cbus_and_addr(path, &bus, &addr) != 0)
    {
        fprintf(stderr, "[%s:%d] %s\n\n", function, __LINE__, texts.notFound);
        *present = false;
    }
    switch (m7r_read_psu_i2cbus_and_addr(bus, addr))
    {
        case -1:
            fprintf(stderr, "[%s:%d] %s\n\n", function, __LINE__,
                    texts.readFailure);
            *present = false;
            break;
        case -2:
            fprintf(stderr, "[%s:%d] %s\n\n", function, __LINE__, texts.acLost);
            *present = true;
            *ac = false;
            break;
        default:
            *present = true;
            *ac = true;
            break;
    }
}

/* Quotes text for a single-quoted shell word. */
std::string shellQuoted(const char* text)
{
    std::string quoted;
    for (const char* c = text; *c != '\0'; ++c)
    {
        if (*c == '\'')
        {
            quoted += "'\\''";
        }
        else
        {
            quoted += *c;
        }
    }
    return quoted;
}

} // namespace

extern "C" int get_sys_health_status(bool* psu1, bool* psu2, bool* fan,
                                     bool* psu1_ac, bool* psu2_ac, bool* temp)
{
    bool opened = scanFlagFile(NONRECOVERABLE_FLAG_FILE, true, fan, temp);
    opened = scanFlagFile(CRITICAL_FLAG_FILE, false, fan, temp) || opened;
    opened = scanFlagFile(WARNING_FLAG_FILE, false, fan, temp) || opened;

    // A supply whose file is missing is probed at bus 0, address 0, where
    // nothing answers. PSU 2's scan starts from what PSU 1's left.
    uint8_t bus = 0;
    uint8_t addr = 0;
    probeSupply(
        PSU1_LOCATION_FILE, bus, addr, psu1, psu1_ac,
        {"psu1 not find i2c addr", "psu1 read i2c failure", "psu1 ac lost"},
        __func__);
    probeSupply(
        PSU2_LOCATION_FILE, bus, addr, psu2, psu2_ac,
        {"psu2 not find i2c addr", "psu2 read i2c failure", "psu2 ac lost"},
        __func__);
    return opened ? 1 : 0;
}

extern "C" int get_health_level_num(uint8_t* nonrecoverable, uint8_t* critical,
                                    uint8_t* warning)
{
    if (anyAsserted(NONRECOVERABLE_FLAG_FILE))
    {
        *nonrecoverable = 1;
        *critical = 1;
        *warning = 1;
    }
    else
    {
        if (anyAsserted(CRITICAL_FLAG_FILE))
        {
            *critical = 1;
            *warning = 1;
        }
        if (*critical == 0 && anyAsserted(WARNING_FLAG_FILE))
        {
            *warning = 1;
        }
    }

    bool psu1 = false;
    bool psu2 = false;
    bool psu1Ac = false;
    bool psu2Ac = false;
    bool fan = true;
    bool temp = true;
    int result =
        get_sys_health_status(&psu1, &psu2, &fan, &psu1Ac, &psu2Ac, &temp);
    // Fan and temperature reach the levels through the flag files already.
    if (!psu1 || !psu2)
    {
        *critical = 1;
    }
    if (!psu1Ac || !psu2Ac)
    {
        *warning = 1;
    }
    return result;
}

extern "C" int get_mem_status(void)
{
    FILE* top = popen("top", "r");
    if (top == nullptr)
    {
        fprintf(stderr, "[%s:%d]  popen top failed \n\n", __func__, __LINE__);
        return 0;
    }
    char line[128] = {};
    int values[5] = {};
    if (fgets(line, sizeof(line), top) != nullptr &&
        strstr(line, "Mem") != nullptr)
    {
        std::string quoted = shellQuoted(line);
        int found = 0;
        for (int field = 2; field <= 10; field += 2)
        {
            std::string command = "echo '" + quoted + "'| awk '{print $" +
                                  std::to_string(field) +
                                  "}' | awk -FK '{print $1}'";
            FILE* awk = popen(command.c_str(), "r");
            if (awk == nullptr)
            {
                fprintf(stderr, "[%s:%d]  popen awk failed \n\n", __func__,
                        __LINE__);
                pclose(top);
                return 0;
            }
            char text[8];
            if (fgets(text, sizeof(text), awk) != nullptr)
            {
                values[found++] = atoi(text);
            }
            pclose(awk);
        }
    }
    int used = values[0];
    int free = values[1];
    int buffered = values[3];
    int cached = values[4];
    // top keeps printing screens until it is told to stop.
    if (system("killall top") == -1)
    {
        fprintf(stderr, "[%s:%d]  killall top failed \n\n", __func__, __LINE__);
    }
    pclose(top);

    // Shared memory is counted in the other figures already. The quotient
    // is taken in single precision; exactly 80 % lands just above 0.8.
    float ratio = static_cast<float>(used) /
                  static_cast<float>(used + free + buffered + cached);
    return static_cast<double>(ratio) > 0.8 ? 0 : 1;
}

extern "C" int get_network_status(void)
{
    FILE* stream = popen("ethtool eth1 | grep detected", "r");
    if (stream == nullptr)
    {
        fprintf(stderr, "[%s:%d]  popen cmd failed \n\n", __func__, __LINE__);
        return 0;
    }
    char line[128] = {};
    while (fgets(line, sizeof(line), stream) != nullptr)
    {
        if (strstr(line, "Link detected") != nullptr)
        {
            break;
        }
    }
    pclose(stream);

    char* save = nullptr;
    const char* token = strtok_r(line, ": ", &save);
    for (int i = 1; i < 3 && token != nullptr; ++i)
    {
        token = strtok_r(nullptr, ": ", &save);
    }
    return token != nullptr && strncasecmp(token, "yes", 3) == 0 ? 1 : 0;
}

extern "C" int get_BIOS_status(void)
{
    return 1;
}

ipmi_ret_t ipmi_vel_oem_get_sys_status(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    auto* out = static_cast<uint8_t*>(response);
    // An empty request selects nothing: it is answered as an unknown
    // selector, without reading past the request.
    uint8_t selector = request != nullptr && *data_len > 0
                           ? static_cast<const uint8_t*>(request)[0]
                           : 0xFF;
    if (selector == 1)
    {
        uint8_t nonrecoverable = 0;
        uint8_t critical = 0;
        uint8_t warning = 0;
        get_health_level_num(&nonrecoverable, &critical, &warning);
        out[0] = nonrecoverable;
        out[1] = critical;
        out[2] = warning;
        *data_len = 3;
        return IPMI_CC_OK;
    }
    if (selector != 0)
    {
        fprintf(stderr, "unsupport command\r\n");
        *data_len = 0;
        return 0x80;
    }

    memset(out, 0, 7);
    if (get_mem_status() == 0)
    {
        fprintf(stderr, "get_mem_status fail!\r\n");
        out[0] = 1;
    }
    // Unlike the level evaluation, AC is assumed present until a probe says
    // otherwise.
    bool psu1 = false;
    bool psu2 = false;
    bool fan = true;
    bool psu1Ac = true;
    bool psu2Ac = true;
    bool temp = true;
    if (get_sys_health_status(&psu1, &psu2, &fan, &psu1Ac, &psu2Ac, &temp) == 0)
    {
        // Without any alarm file nothing was evaluated; say so.
        fprintf(stderr, "get_sys_health_status fail!\r\n");
        out[1] = 2;
    }
    else
    {
        if (!psu1)
        {
            fprintf(stderr, "get_sys_health_status psu1 fail!\r\n");
            out[1] = 1;
        }
        if (!psu2)
        {
            fprintf(stderr, "get_sys_health_status psu2 fail!\r\n");
            out[2] = 1;
        }
        if (!fan)
        {
            fprintf(stderr, "get_sys_health_status fan_status fail!\r\n");
            out[3] = 1;
        }
        if (!(psu1Ac && psu2Ac && psu1 && psu2))
        {
            fprintf(stderr, "get_sys_health_status psu_status fail!\r\n");
            out[4] = 1;
        }
        if (!temp)
        {
            fprintf(stderr, "get_sys_health_status temp_status fail!\r\n");
            out[5] = 1;
        }
    }
    if (get_network_status() == 0)
    {
        fprintf(stderr, "get_network_status fail!\r\n");
        out[6] = 1;
    }
    *data_len = 7;
    return IPMI_CC_OK;
}
