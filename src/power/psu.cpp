// SPDX-License-Identifier: Apache-2.0
// PSU information record, factory-test status line and firmware version.

#include "psu.hpp"

#include "health/health.hpp"
#include "hw/hwmon.hpp"
#include "hw/i2c.hpp"
#include "oem/utils.hpp"
#include "psu_location.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

/* Reads a PMBus block register of length raw bytes (count byte first) and
 * leaves its text, zero-terminated, in text (size bytes). The read's result:
 * the bytes read, or negative. */
int readBlockText(uint8_t bus, uint8_t addr, uint8_t command, uint8_t length,
                  char* text, size_t size)
{
    char raw[32] = {};
    length = std::min<uint8_t>(length, sizeof(raw));
    memset(text, 0, size);
    int got = smbus_read(bus, addr, command, length, raw);
    if (got <= 0)
    {
        return got;
    }
    size_t count = static_cast<uint8_t>(raw[0]);
    count = std::min({count, static_cast<size_t>(got - 1), size - 1});
    memcpy(text, raw + 1, count);
    return got;
}

/* Keeps the text before the first '#'; the rest of the field reads as
 * zeros. */
void cutAtHash(char* text, size_t size)
{
    if (char* hash = strchr(text, '#'))
    {
        memset(hash, 0, size - static_cast<size_t>(hash - text));
    }
}

/* Reads a word register; negative when the supply does not answer. */
int readWord(uint8_t bus, uint8_t addr, uint8_t command, uint8_t length,
             uint8_t (&word)[2])
{
    char raw[4] = {};
    length = std::min<uint8_t>(length, sizeof(raw));
    int got = smbus_read(bus, addr, command, length, raw);
    word[0] = static_cast<uint8_t>(raw[0]);
    word[1] = static_cast<uint8_t>(raw[1]);
    return got;
}

void locate(int index, uint8_t& bus, uint8_t& addr)
{
    const char* path = index == 1   ? PSU1_LOCATION_FILE
                       : index == 2 ? PSU2_LOCATION_FILE
                                    : nullptr;
    if (path == nullptr)
    {
        bus = 8;
        addr = 0x57;
        return;
    }
    addr = oem::locationValue(get_Psu_Addr_m7r(path));
    bus = oem::locationValue(get_Psu_Bus_m7r(path));
}

constexpr size_t psuInfoLength = 221;
constexpr size_t textField = 32;

} // namespace

extern "C" void get_psuN_present_status_m7r(int index, bool* present)
{
    bool psu1 = false;
    bool psu2 = false;
    bool psu1Ac = false;
    bool psu2Ac = false;
    bool fan = true;
    bool temp = true;
    get_sys_health_status(&psu1, &psu2, &fan, &psu1Ac, &psu2Ac, &temp);
    if ((index == 1 && psu1) || (index == 2 && psu2))
    {
        *present = true;
    }
}

extern "C" void get_psuN_sn_version_capacity_m7r(int index, int* capacity,
                                                 char* sn, char* version,
                                                 bool* ok)
{
    uint8_t bus = 0;
    uint8_t addr = 0;
    locate(index, bus, addr);
    readBlockText(bus, addr, PMBUS_MFR_SERIAL, 31, sn, PSU_TEXT_CAPACITY);
    readBlockText(bus, addr, PMBUS_MFR_REVISION, 31, version,
                  PSU_TEXT_CAPACITY);

    uint8_t word[2] = {};
    readWord(bus, addr, PMBUS_MFR_POUT_MAX, 4, word);
    int raw = word[0] + 256 * word[1];
    int exponent = raw >> 11;
    exponent = exponent > 15 ? exponent - 32 : exponent;
    fprintf(stderr, "[%s:%d] value=%d, exponent=%d\n\n", __func__, __LINE__,
            raw & 0x7FF, exponent);
    *capacity = oem::linear11(word[0], word[1]);

    uint8_t status[2] = {};
    readWord(bus, addr, PMBUS_STATUS_WORD, 2, status);
    // Bit 3 of the high byte (power not good) does not count as a fault.
    *ok = (status[0] & 0x3E) == 0 && (status[1] & ~0x08) == 0;
}

extern "C" void get_psuN_ac_status_m7r(int hwmon, int* ac)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/hwmon/hwmon%d/in1_input", hwmon);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "[%s:%d] in1_input can not open \n\n", __func__,
                __LINE__);
        return;
    }
    char line[32] = {};
    if (fgets(line, sizeof(line), file) != nullptr)
    {
        *ac = oem::strtol32(line, nullptr, 10);
    }
    fclose(file);
}

extern "C" int get_psuN_dc_status_m7r(int hwmon, int* dc)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/hwmon/hwmon%d/in2_input", hwmon);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "[%s:%d] in2_input can not open \n\n", __func__,
                __LINE__);
        return *dc;
    }
    char line[32] = {};
    if (fgets(line, sizeof(line), file) != nullptr)
    {
        *dc = oem::strtol32(line, nullptr, 10);
    }
    // Closed here too: the daemon runs for months and must not leak
    // descriptors.
    fclose(file);
    return *dc;
}

extern "C" int get_psuN_status_m7r(int index, int* ac, int* dc)
{
    hwmonid_OF_FULLNAME();
    int hwmon = 0;
    const bool first = index == 1;
    int rc =
        findhwmonid_OF_FULLNAME(first ? "asp2500@58" : "asp2500@59", &hwmon);
    if (rc < 0)
    {
        if (first)
        {
            fprintf(stderr,
                    "[%s:%d] asp2500@58 cannot find hwmonid_PSU1:%d \n\n",
                    __func__, __LINE__, hwmon);
        }
        else
        {
            fprintf(stderr,
                    "[%s:%d] asp2500@59 cannot find hwmonid_PSU2:%d \n\n",
                    __func__, __LINE__, hwmon);
        }
        // Some boards strap the supplies to the alternative addresses.
        rc = findhwmonid_OF_FULLNAME(first ? "asp2500@68" : "asp2500@69",
                                     &hwmon);
        if (rc < 0)
        {
            return rc;
        }
    }
    get_psuN_ac_status_m7r(hwmon, ac);
    get_psuN_dc_status_m7r(hwmon, dc);
    return 0;
}

ipmi_ret_t ipmi_vel_oem_get_psu_status(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    auto* out = static_cast<uint8_t*>(response);
    // An empty request names no supply: answered as a bad index.
    int index = request != nullptr && *data_len > 0
                    ? static_cast<const uint8_t*>(request)[0]
                    : 0;
    if (index != 1 && index != 2)
    {
        out[0] = 0x02;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    if (index == 1)
    {
        fprintf(stderr, "start psu test str[0]: %d!\r\n", index);
    }
    bool present = false;
    get_psuN_present_status_m7r(index, &present);
    if (!present)
    {
        fprintf(stderr,
                index == 1 ? "PSU1 not present!\r\n" : "PSU2 not present!\r\n");
        out[0] = 0x01;
        *data_len = 1;
        return IPMI_CC_OK;
    }

    int capacity = 0;
    char sn[PSU_TEXT_CAPACITY] = {};
    char version[PSU_TEXT_CAPACITY] = {};
    bool ok = false;
    int ac = 0;
    int dc = 0;
    get_psuN_sn_version_capacity_m7r(index, &capacity, sn, version, &ok);
    get_psuN_status_m7r(index, &ac, &dc);

    // Serial and revision are at most 30 characters each, so the line
    // always fits.
    char text[256] = {};
    int length = snprintf(text, sizeof(text),
                          "Sn:%s Cap:%dW ver:%s AC:%d DC:%d PSU alert:%s ", sn,
                          capacity, version, ac, dc, ok ? "ok" : "fail");
    length = std::clamp(length, 0, static_cast<int>(sizeof(text)) - 1);
    if (index == 1)
    {
        fprintf(stderr, "start psu test tmp: %s!\r\n", text);
    }
    memcpy(out, text, static_cast<size_t>(length));
    *data_len = static_cast<uint32_t>(length);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_psu_info(ipmi_netfn_t, ipmi_cmd_t,
                                     ipmi_request_t request,
                                     ipmi_response_t response,
                                     ipmi_data_len_t data_len, ipmi_context_t)
{
    auto* out = static_cast<uint8_t*>(response);
    // An empty request carries no selector: the same as none at all.
    if (request == nullptr || *data_len == 0)
    {
        fprintf(stderr, "oem_get_psu_info Parameter is NULL.\n");
        out[0] = 0x80;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    uint8_t selector = static_cast<const uint8_t*>(request)[0];
    if (selector > 1)
    {
        fprintf(stderr, "oem_get_psu_info Parameter err.\n");
        out[0] = 0x80;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    const char* path = selector == 0 ? PSU1_LOCATION_FILE : PSU2_LOCATION_FILE;
    uint8_t addr = oem::locationValue(getPsuAddr(path));
    uint8_t bus = oem::locationValue(getPsuBus(path));

    uint8_t record[psuInfoLength] = {};
    record[2] = 1;
    if (addr == 0x58)
    {
        record[1] = 0;
        memcpy(record + 3, "Top", 3);
    }
    else if (addr == 0x59)
    {
        record[1] = 1;
        memcpy(record + 3, "Bottom", 6);
    }

    char model[textField];
    char id[textField];
    char serial[textField];
    if (readBlockText(bus, addr, PMBUS_MFR_MODEL, 31, model, sizeof(model)) <
            0 ||
        readBlockText(bus, addr, PMBUS_MFR_ID, 31, id, sizeof(id)) < 0 ||
        readBlockText(bus, addr, PMBUS_MFR_SERIAL, 31, serial, sizeof(serial)) <
            0)
    {
        out[0] = 0x01;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    cutAtHash(model, sizeof(model));
    cutAtHash(id, sizeof(id));
    cutAtHash(serial, sizeof(serial));
    memcpy(record + 35, model, textField);
    memcpy(record + 67, id, textField);
    memcpy(record + 99, serial, textField);
    // Bytes 131-162 are reserved and stay zero.
    char serialAgain[textField];
    if (readBlockText(bus, addr, PMBUS_MFR_SERIAL, 31, serialAgain,
                      sizeof(serialAgain)) < 0)
    {
        out[0] = 0x01;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    cutAtHash(serialAgain, sizeof(serialAgain));
    // The short serial drops its two-character prefix; it ends in zeros.
    memcpy(record + 163, serialAgain + 2, strlen(serialAgain));

    char revision[16];
    uint8_t pout[2] = {};
    uint8_t vin[2] = {};
    uint8_t status[2] = {};
    if (readBlockText(bus, addr, PMBUS_MFR_REVISION, 15, revision,
                      sizeof(revision)) < 0 ||
        readWord(bus, addr, PMBUS_MFR_POUT_MAX, 4, pout) < 0 ||
        readWord(bus, addr, PMBUS_READ_VIN, 2, vin) < 0 ||
        readWord(bus, addr, PMBUS_STATUS_WORD, 2, status) < 0)
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    memcpy(record + 195, revision, sizeof(revision));
    auto watts = static_cast<uint32_t>(oem::linear11(pout[0], pout[1]));
    record[211] = static_cast<uint8_t>(watts >> 24);
    record[212] = static_cast<uint8_t>(watts >> 16);
    record[213] = static_cast<uint8_t>(watts >> 8);
    record[214] = static_cast<uint8_t>(watts);
    record[216] = oem::linear11(vin[0], vin[1]) <= 79 ? 1 : 0;
    record[218] = 4;
    uint8_t code = 2;
    if ((status[0] & 0x3E) != 0)
    {
        code = 4;
    }
    else if ((status[1] & 0xF4) != 0)
    {
        code = 3;
    }
    else if ((status[1] & 0x01) != 0)
    {
        code = 1;
    }
    else if ((status[1] & 0x02) != 0)
    {
        code = 0;
    }
    record[219] = code;
    record[220] = 3;

    memcpy(out, record, sizeof(record));
    *data_len = sizeof(record);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_psu_get_version(ipmi_netfn_t, ipmi_cmd_t,
                                        ipmi_request_t request,
                                        ipmi_response_t response,
                                        ipmi_data_len_t data_len,
                                        ipmi_context_t)
{
    auto* out = static_cast<uint8_t*>(response);
    uint8_t selector = request != nullptr && *data_len > 0
                           ? static_cast<const uint8_t*>(request)[0]
                           : 0;
    // 1 is the first supply; anything else the second.
    const char* path =
        selector == 1 ? "/run/psu0.version" : "/run/psu1.version";
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "file cannot open\n");
        out[0] = 0x01;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t read = getline(&line, &capacity, file);
    if (read == 0)
    {
        fprintf(stderr, "read failed.\n");
        free(line);
        fclose(file);
        out[0] = '0';
        *data_len = 1;
        return IPMI_CC_OK;
    }
    fprintf(stderr, "read file first line.\n");
    fprintf(stderr, "khb line: %s\n", read > 0 ? line : "");
    // The version is the first double-quoted text, after at least one
    // character; a line starting with the quote has none.
    char version[10] = {};
    if (read > 0)
    {
        const char* open = strchr(line, '"');
        if (open != nullptr && open != line)
        {
            const char* start = open + 1;
            const char* close = strchr(start, '"');
            size_t length = close != nullptr
                                ? static_cast<size_t>(close - start)
                                : strlen(start);
            memcpy(version, start, std::min(length, sizeof(version)));
        }
    }
    free(line);
    memcpy(out, version, sizeof(version));
    *data_len = sizeof(version);
    if (fclose(file) != 0)
    {
        printf("file cannot be closed ");
    }
    else
    {
        printf("file is now closed ");
    }
    return IPMI_CC_OK;
}
