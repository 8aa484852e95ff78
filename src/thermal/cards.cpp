// SPDX-License-Identifier: Apache-2.0
// The add-in card registry. External, network and middle cards have no
// sensors the BMC can reach; the host reports each card's thresholds,
// readings and FRU data, and we publish them as a per-card hwmon device
// (configuration under /etc/default/external/hwmon, readings and FRU data
// under /var/hwmon) for the BMC's sensor and FRU services to pick up.

#include "thermal/cards.hpp"

#include "oem/utils.hpp"
#include "oem/wire.hpp"
#include "thermal/tables.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using oem::wire::requestByte;

namespace
{

// Lines of the configuration files are read in pieces of up to 99
// characters, as the platform writes them.
constexpr int confLineSize = 100;

// The count line of the middle-card file is always two digits wide, so it
// can be rewritten in place; that caps the file at 99 cards.
constexpr int middleCardLimit = 99;
constexpr size_t middleCountLineLength = sizeof("number=00;\n") - 1;

long toNumber(const char* text)
{
    long value = strtol(text, nullptr, 10);
    return std::clamp<long>(value, INT_MIN, INT_MAX);
}

// Splits "key=value;" into key and value in place; false if there is no
// "=".
bool splitConfLine(char* line, char** key, char** value)
{
    char* equals = strchr(line, '=');
    if (equals == nullptr)
    {
        return false;
    }
    *equals = '\0';
    *key = line;
    *value = equals + 1;
    (*value)[strcspn(*value, ";\n")] = '\0';
    return true;
}

// The first "number" of a configuration file; 0 and the given complaint
// on standard error when the file is missing.
int readCount(const char* path, const char* missing)
{
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fputs(missing, stderr);
        return 0;
    }
    int number = 0;
    char line[confLineSize];
    while (fgets(line, sizeof(line), file) != nullptr)
    {
        char* key = nullptr;
        char* value = nullptr;
        if (splitConfLine(line, &key, &value) && strcmp(key, "number") == 0)
        {
            number = static_cast<int>(toNumber(value));
            break;
        }
    }
    fclose(file);
    return number;
}

// Sums in 64 bits: the files are the platform's, their numbers anything.
void refreshBoardNumber()
{
    exter_board_number = static_cast<int32_t>(
        static_cast<int64_t>(exter_board_conf_init()) + net_board_num());
}

void runShell(const char* command)
{
    [[maybe_unused]] int status = system(command);
}

// What a scan of the middle-card file found.
struct MiddleScan
{
    int count = 0;
    bool present = false;
    // Whether the first line is the two-digit count line that may be
    // rewritten in place.
    bool countLineIntact = false;
};

// The lines of a configuration file as fgets with a buffer of
// confLineSize hands them over: a longer line comes in pieces.
std::vector<std::string> confLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size())
    {
        size_t end = text.find('\n', at);
        size_t stop = end == std::string::npos ? text.size() : end + 1;
        size_t length = std::min<size_t>(stop - at, confLineSize - 1);
        lines.push_back(text.substr(at, length));
        at += length;
    }
    return lines;
}

MiddleScan scanMiddleFile(const std::string& text, int card)
{
    MiddleScan scan;
    bool first = true;
    for (std::string piece : confLines(text))
    {
        char* line = piece.data();
        if (first)
        {
            scan.countLineIntact = strlen(line) == middleCountLineLength &&
                                   strncmp(line, "number=", 7) == 0;
            first = false;
        }
        char* key = nullptr;
        char* value = nullptr;
        if (!splitConfLine(line, &key, &value))
        {
            continue;
        }
        if (strcmp(key, "number") == 0)
        {
            scan.count = static_cast<int>(toNumber(value));
        }
        else if (strcmp(key, "Cardid") == 0 && toNumber(value) == card)
        {
            scan.present = true;
            break;
        }
    }
    return scan;
}

std::string countLine(int count)
{
    char line[32];
    snprintf(line, sizeof(line), "number=%02d;\n", count);
    return line;
}

std::string cardLine(int card)
{
    return "Cardid=" + std::to_string(card) + ";\n";
}

// The whole middle-card file is written in one go, so that a reset leaves
// the old registry or the new one, never a count that disagrees with the
// card lines.
int writeMiddleFile(const std::string& text)
{
    if (oem::replaceFile(MIDDLE_BOARD_CONF, text) != oem::WriteResult::done)
    {
        fprintf(stderr, "Unable to open file: %s\n", MIDDLE_BOARD_CONF);
        return -1;
    }
    return 0;
}

// Reads the middle-card file; false (and a complaint) if it is there but
// cannot be read: a read error is not an empty registry.
bool readMiddleFile(std::string& text, bool& missing)
{
    auto result = oem::readFile(MIDDLE_BOARD_CONF, text);
    missing = result == oem::ReadResult::missing;
    if (result == oem::ReadResult::failed)
    {
        fprintf(stderr, "%s: cannot be read\n", MIDDLE_BOARD_CONF);
        return false;
    }
    return true;
}

// Replaces a file whole (see oem::replaceFile), with the messages of the
// card data writers.
bool replaceCardFile(const char* path, const void* data, size_t size,
                     const char* writer)
{
    auto result = oem::replaceFile(
        path, std::string_view(static_cast<const char*>(data), size));
    if (result == oem::WriteResult::notOpened)
    {
        fprintf(stderr, "Unable to open file: %s\n", path);
    }
    else if (result == oem::WriteResult::notWritten)
    {
        fprintf(stderr, "%s: write  failed.\n", writer);
    }
    return result == oem::WriteResult::done;
}

// The hwmon attribute prefix of a card sensor type, or null for a type
// that ends a record list.
const char* hwmonKind(uint8_t type)
{
    switch (type)
    {
        case cardSensorTemperature:
            return "temp";
        case cardSensorVoltage:
            return "in";
        case cardSensorCurrent:
            return "curr";
        default:
            return nullptr;
    }
}

uint32_t be24(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 16 |
           static_cast<uint32_t>(bytes[1]) << 8 | bytes[2];
}

// Per-type numbering of the hwmon attributes, from 1 in record order.
struct KindCounters
{
    int temp = 0;
    int in = 0;
    int curr = 0;

    int next(uint8_t type)
    {
        switch (type)
        {
            case cardSensorTemperature:
                return ++temp;
            case cardSensorVoltage:
                return ++in;
            default:
                return ++curr;
        }
    }
};

// How many whole records of size bytes, at most ten, the data holds.
int recordCount(int length, int size)
{
    return std::clamp(length / size, 0, cardMaxRecords);
}

ipmi_ret_t cardError(ipmi_response_t response, ipmi_data_len_t dataLen)
{
    static_cast<uint8_t*>(response)[0] = 1;
    *dataLen = 1;
    return IPMI_CC_OK;
}

// Reads a card data file whole into out, which has room bytes; its size
// in length. Files that do not fit a response are refused.
int readCardFile(const char* path, uint8_t* out, size_t room, uint32_t& length)
{
    struct stat st;
    if (stat(path, &st) != 0)
    {
        printf(" %s file cannot open \n", path);
        return -1;
    }
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > room)
    {
        fprintf(stderr, "%s: %lld bytes do not fit a response\n", path,
                static_cast<long long>(st.st_size));
        return -1;
    }
    length = static_cast<uint32_t>(st.st_size);
    return Card_FILE_info(path, out, static_cast<int>(length));
}

} // namespace

namespace oem::cards
{

int writeValues(const uint8_t* records, int length, int hwmon)
{
    KindCounters counters;
    int count = recordCount(length, cardReadingRecordSize);
    for (int n = 0; n < count; ++n)
    {
        const uint8_t* record = records + n * cardReadingRecordSize;
        const char* kind = hwmonKind(record[1]);
        if (kind == nullptr)
        {
            break;
        }
        // The text "echo %d > FILE" would leave, written whole so that
        // the sensor service never reads an empty reading.
        char path[64];
        snprintf(path, sizeof(path), "/var/hwmon/hwmon%d/%s%d_input", hwmon,
                 kind, counters.next(record[1]));
        oem::replaceFile(
            path, std::to_string(static_cast<int>(be24(record + 2))) + "\n");
    }
    return 0;
}

int writeInfo(const uint8_t* data, int length, int hwmon, uint8_t mode)
{
    char path[64];
    snprintf(path, sizeof(path), "/var/hwmon/hwmon%d/boardinfo", hwmon);
    size_t size = mode == 2 ? 0 : static_cast<size_t>(std::max(length, 0));
    replaceCardFile(path, data, size, "writeinfotohwmon");
    return 0;
}

} // namespace oem::cards

int middle_board_num(void)
{
    // The fan-table text is the platform's; tools match on it.
    return readCount(MIDDLE_BOARD_CONF, "open Sorrelind_FanTable false ！\n");
}

int exter_board_conf_init(void)
{
    return readCount(EXTER_BOARD_CONF, "open exterBoard.conf false ！\n");
}

int net_board_num(void)
{
    return readCount(NET_BOARD_CONF, "open netBoard.conf false ！\n");
}

int set_middle_card_num(int, int card)
{
    std::string text;
    bool missing = false;
    if (!readMiddleFile(text, missing))
    {
        return -1;
    }
    std::string created = countLine(1) + cardLine(card);
    if (missing)
    {
        return writeMiddleFile(created);
    }
    MiddleScan scan = scanMiddleFile(text, card);
    if (scan.present)
    {
        return 0;
    }
    if (scan.count == 0)
    {
        return writeMiddleFile(created);
    }
    if (scan.count >= middleCardLimit || !scan.countLineIntact)
    {
        fprintf(stderr, "%s: cannot count card %d in (count %d)\n",
                MIDDLE_BOARD_CONF, card, scan.count);
        return -1;
    }
    // The count line rewritten in place, the card appended at the end.
    return writeMiddleFile(countLine(scan.count + 1) +
                           text.substr(middleCountLineLength) + cardLine(card));
}

int del_middle_card_num(int card)
{
    std::string text;
    bool missing = false;
    if (!readMiddleFile(text, missing))
    {
        return -1;
    }
    if (missing)
    {
        return 0;
    }
    MiddleScan scan = scanMiddleFile(text, card);
    if (!scan.present)
    {
        return 0;
    }
    if (!scan.countLineIntact)
    {
        fprintf(stderr, "%s: cannot count card %d out (count %d)\n",
                MIDDLE_BOARD_CONF, card, scan.count);
        return -1;
    }
    // The count drops by one and every line holding "Cardid=<card>" goes,
    // as "sed -i '/Cardid=%d/'d" would drop them: a plain substring match,
    // so removing card 1 also drops cards 10-19 and 100-199. The host tools
    // count on it.
    std::string pattern = "Cardid=" + std::to_string(card);
    std::string kept = countLine(std::max(scan.count - 1, 0));
    size_t at = middleCountLineLength;
    while (at < text.size())
    {
        size_t end = text.find('\n', at);
        size_t stop = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(at, stop - at);
        if (line.find(pattern) == std::string::npos)
        {
            kept += line;
        }
        at = stop;
    }
    return writeMiddleFile(kept);
}

int writeThresholdTohwmon(const uint8_t* records, int length, uint8_t card,
                          int hwmon)
{
    char path[64];
    snprintf(path, sizeof(path), "/etc/default/external/hwmon/hwmon%d.conf",
             hwmon);
    std::string text;
    KindCounters counters;
    int count = recordCount(length, cardThresholdRecordSize);
    for (int n = 0; n < count; ++n)
    {
        const uint8_t* record = records + n * cardThresholdRecordSize;
        const char* kind = hwmonKind(record[1]);
        if (kind == nullptr)
        {
            break;
        }
        // Up to twelve bytes: a name that fills its ten runs into the
        // warning-low bytes, which the host tools rely on. A byte that
        // would break the one-key-a-line format is replaced.
        char name[13] = {};
        memcpy(name, record + 2, 12);
        for (char* c = name; *c != '\0'; ++c)
        {
            auto byte = static_cast<unsigned char>(*c);
            if (byte < 0x20 || byte >= 0x7F)
            {
                *c = '_';
            }
        }
        char key[16];
        snprintf(key, sizeof(key), "%s%d", kind, counters.next(record[1]));
        char block[256];
        snprintf(block, sizeof(block),
                 "LABEL_%s=ExterCard%d_%s\nWARNLO_%s=%d\nWARNHI_%s=%d\n"
                 "CRITLO_%s=%d\nCRITHI_%s=%d\n",
                 key, card, name, key, static_cast<int>(be24(record + 12)), key,
                 static_cast<int>(be24(record + 15)), key,
                 static_cast<int>(be24(record + 18)), key,
                 static_cast<int>(be24(record + 21)));
        text += block;
    }
    return replaceCardFile(path, text.data(), text.size(),
                           "writeThresholdTohwmon")
               ? 0
               : -1;
}

int writevaluetohwmon(const uint8_t* records, int length, uint8_t hwmon)
{
    return oem::cards::writeValues(records, length, hwmon);
}

int writeinfotohwmon(const uint8_t* data, int length, uint8_t hwmon,
                     uint8_t mode)
{
    return oem::cards::writeInfo(data, length, hwmon, mode);
}

int Card_POWER_info(const char* path, uint8_t* out, int length)
{
    FILE* file = fopen(path, "rb");
    if (file == nullptr)
    {
        printf(" %s file cannot open \n", path);
        return -1;
    }
    int state = fgetc(file);
    fclose(file);
    if (length < 1 || (state != 0 && state != 1))
    {
        return -1;
    }
    *out = state == 1 ? 2 : 3;
    return 0;
}

int Card_FILE_info(const char* path, uint8_t* out, int length)
{
    FILE* file = fopen(path, "rb");
    if (file == nullptr)
    {
        printf(" %s file cannot open \n", path);
        return -1;
    }
    // The service that writes the file leaves "unread" in it until the
    // card's data is there.
    char head[6] = {};
    size_t headLength = fread(head, 1, sizeof(head), file);
    bool unread =
        headLength == sizeof(head) && memcmp(head, "unread", sizeof(head)) == 0;
    size_t size = static_cast<size_t>(std::max(length, 0));
    bool ok = !unread && fseek(file, 0, SEEK_SET) == 0 &&
              fread(out, 1, size, file) == size;
    fclose(file);
    return ok ? 0 : -1;
}

ipmi_ret_t ipmi_vel_oem_get_exCard_info(ipmi_netfn_t, ipmi_cmd_t,
                                        ipmi_request_t request,
                                        ipmi_response_t response,
                                        ipmi_data_len_t data_len,
                                        ipmi_context_t)
{
    uint8_t card = requestByte(request, *data_len, 0);
    uint8_t sub = requestByte(request, *data_len, 1);
    refreshBoardNumber();
    if (card == 0 || card > exter_board_number)
    {
        printf("care id (%d) : not  support \n", card);
        return cardError(response, data_len);
    }

    auto* out = static_cast<uint8_t*>(response);
    constexpr size_t header = 4;
    int hwmon = card + cardHwmonOffset;
    char path[64];
    uint32_t length = 0;
    int result = -1;
    switch (sub)
    {
        case 0x11:
            snprintf(path, sizeof(path), "/var/hwmon/hwmon%d/sensorinfo",
                     hwmon);
            result = readCardFile(path, out + header,
                                  IPMID_RESPONSE_CAPACITY - header, length);
            break;
        case 0x05:
            snprintf(path, sizeof(path), "/var/hwmon/hwmon%d/boardinfo", hwmon);
            result = readCardFile(path, out + header,
                                  IPMID_RESPONSE_CAPACITY - header, length);
            break;
        case 0x21:
            snprintf(path, sizeof(path), "/var/hwmon/hwmon%d/boardinfo", hwmon);
            length = 1;
            result = Card_POWER_info(path, out + header, 1);
            break;
        default:
            printf("cmd (0x%x): not  support \n", sub);
            return cardError(response, data_len);
    }
    if (result != 0)
    {
        printf("cmd (0x%x): fail \n", sub);
        return cardError(response, data_len);
    }
    out[0] = 0;
    out[1] = card;
    out[2] = sub;
    out[3] = 0;
    *data_len = length + header;
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_middCard_info(ipmi_netfn_t, ipmi_cmd_t,
                                          ipmi_request_t request,
                                          ipmi_response_t response,
                                          ipmi_data_len_t data_len,
                                          ipmi_context_t)
{
    uint32_t requestLength = *data_len;
    uint8_t card = requestByte(request, requestLength, 0);
    uint8_t sub = requestByte(request, requestLength, 1);
    // The records after the three header bytes; none in a shorter request.
    const uint8_t* data =
        requestLength > 3 ? static_cast<const uint8_t*>(request) + 3 : nullptr;
    int dataLength =
        requestLength > 3
            ? static_cast<int>(std::min<uint32_t>(requestLength - 3, INT_MAX))
            : 0;
    refreshBoardNumber();
    if (card == 0)
    {
        printf("care id (%d) : not  support \n", card);
        return cardError(response, data_len);
    }

    int hwmon = card + cardHwmonOffset;
    int fru = card + cardFruOffset;
    char command[256];
    switch (sub)
    {
        case 2:
        case 3:
        case 4:
            printf("care id (%d): power set\n", card);
            break;
        case 5:
            if (requestLength < 50)
            {
                printf("cmd (0x%x): length too short \n", sub);
                return cardError(response, data_len);
            }
            oem::cards::writeInfo(data, dataLength, hwmon, 1);
            snprintf(command, sizeof(command),
                     "phosphor-read-other --type car --fruid %d --file "
                     "/var/hwmon/hwmon%d/boardinfo",
                     fru, hwmon);
            runShell(command);
            break;
        case 6:
            if (writeThresholdTohwmon(data, dataLength, card, hwmon) != 0)
            {
                printf("cmd (0x%x): set  fail  \n", sub);
                return cardError(response, data_len);
            }
            break;
        case 7:
            snprintf(command, sizeof(command),
                     "external_hwmon.sh start hwmon%d", hwmon);
            runShell(command);
            if (set_middle_card_num(0, card) != 0)
            {
                printf("cmd (0x%x): set  fail  \n", sub);
                return cardError(response, data_len);
            }
            break;
        case 8:
        case 9:
            snprintf(command, sizeof(command),
                     "phosphor-read-other --type clean --fruid %d ", fru);
            runShell(command);
            snprintf(command, sizeof(command), "external_hwmon.sh stop hwmon%d",
                     hwmon);
            runShell(command);
            if (sub == 9 && del_middle_card_num(card) != 0)
            {
                printf("cmd (0x%x): set  fail  \n", sub);
                return cardError(response, data_len);
            }
            break;
        case 0x11:
            oem::cards::writeValues(data, dataLength, hwmon);
            break;
        default:
            printf("cmd (0x%x): not  support \n", sub);
            return cardError(response, data_len);
    }
    return oem::wire::reply(response, data_len, {0, card, sub});
}

ipmi_ret_t ipmi_vel_oem_get_middCard_info(ipmi_netfn_t, ipmi_cmd_t,
                                          ipmi_request_t request,
                                          ipmi_response_t response,
                                          ipmi_data_len_t data_len,
                                          ipmi_context_t)
{
    int middle = middle_board_num();
    refreshBoardNumber();
    uint8_t module = requestByte(request, *data_len, 0);
    uint8_t sub = requestByte(request, *data_len, 1);
    if (module != 0)
    {
        printf("care id (%d) : not  support \n", module);
        return cardError(response, data_len);
    }
    if (sub != 1)
    {
        printf("cmd (0x%x): not  support \n", sub);
        return cardError(response, data_len);
    }
    auto low = [](int64_t value) { return static_cast<uint8_t>(value & 0xFF); };
    return oem::wire::reply(
        response, data_len,
        {0, 0, 1, 0, low(static_cast<int64_t>(exter_board_number) + middle),
         low(exter_board_number), low(middle)});
}
