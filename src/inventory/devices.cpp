// SPDX-License-Identifier: Apache-2.0
// Device inventory commands: the host BIOS reports one record per CPU, DIMM,
// disk, PCI device and NIC at start-up, and management software reads them
// back. Every command answers completion code 0x00 and carries its outcome
// in the first response byte.

#include "inventory/devices.hpp"

#include "globals.hpp"
#include "inventory/eeprom.hpp"
#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

using oem::wire::reply;
using oem::wire::requestByte;
using oem::wire::storeLength;

namespace
{

constexpr uint32_t minSetLength = 6;
constexpr const char* boardEeprom = "/sys/bus/i2c/devices/5-0050/eeprom";
constexpr long onboardNicOffset = 400;
constexpr long offboardNicOffset = 528;
constexpr size_t nicRecordSize = 13;
constexpr size_t nicReadSize = 20;
constexpr int maxPort = 15;
constexpr const char* dimmSizeFile = "/etc/all_dimm_size";
constexpr const char* nicDir = "/var/ipmi";

// Record numbers of each kind of device. The ranges overlap; the store does
// not arbitrate and the last writer wins.
constexpr int cpuRecordBase = 1;
constexpr int pciRecordBase = 2;
constexpr int hddRecordBase = 15;
constexpr int hddKind8RecordBase = 19;
constexpr int dimmRecordBase = 31;
constexpr uint8_t hddKind8 = 8;
constexpr int hddKind8DeviceBase = 4;

// Lets the FRU inventory pick up the record just stored. Only numbers and
// fixed texts reach the command line.
void runFruUpdate(const char* kind, int device, int record)
{
    char command[256];
    int n = snprintf(command, sizeof(command),
                     "/usr/sbin/up_pci_frulist.sh  %s %s %d %d", kind,
                     eeprom_path.c_str(), device, record);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(command))
    {
        // A cut line would name the wrong EEPROM.
        return;
    }
    [[maybe_unused]] int status = system(command);
}

ipmi_ret_t storeAndUpdate(ipmi_request_t request, uint32_t length,
                          BIOS_DATA_TYPE type, const char* kind, int device,
                          int record, ipmi_response_t response,
                          ipmi_data_len_t dataLen)
{
    eeprom_store_data(BIOS_DATA_WRITE, type, record,
                      static_cast<char*>(request), storeLength(length));
    runFruUpdate(kind, device, record);
    return reply(response, dataLen, {0x00});
}

// Get commands answer 0x00 0x01 and the payload, zeros for whatever could
// not be read.
ipmi_ret_t answerRecord(int record, int size, ipmi_response_t response,
                        ipmi_data_len_t dataLen)
{
    char payload[EEPROM_RECORD_PAYLOAD] = {};
    get_eeprom_store_data(record, payload, size);
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x00;
    out[1] = 0x01;
    memcpy(out + 2, payload, static_cast<size_t>(size));
    *dataLen = static_cast<uint32_t>(size + 2);
    return IPMI_CC_OK;
}

int pciRecord(ipmi_request_t request, uint32_t length)
{
    return pciDev_get_id(requestByte(request, length, 0),
                         requestByte(request, length, 1)) +
           pciRecordBase;
}

ipmi_ret_t setBoardNic(long offset, ipmi_request_t request, uint32_t length,
                       ipmi_response_t response, ipmi_data_len_t dataLen)
{
    // Thirteen bytes are written whatever the request length.
    uint8_t nic[nicRecordSize];
    oem::wire::requestBytes(request, length, nic, sizeof(nic));
    if (nic[0] > maxPort)
    {
        return reply(response, dataLen, {0x01});
    }
    FILE* file = fopen(boardEeprom, "rb+");
    if (file == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", boardEeprom);
        return reply(response, dataLen, {0x01});
    }
    bool ok = fseek(file, offset, SEEK_SET) == 0 &&
              fwrite(nic, 1, sizeof(nic), file) == sizeof(nic) &&
              fflush(file) == 0;
    ok = (fclose(file) == 0) && ok;
    return reply(response, dataLen, {static_cast<uint8_t>(ok ? 0x00 : 0x01)});
}

ipmi_ret_t getBoardNic(long offset, ipmi_request_t request, uint32_t length,
                       ipmi_response_t response, ipmi_data_len_t dataLen)
{
    uint8_t port = requestByte(request, length, 0);
    uint8_t stored[nicReadSize] = {};
    size_t got = 0;
    FILE* file = fopen(boardEeprom, "rb");
    if (file != nullptr)
    {
        if (fseek(file, offset, SEEK_SET) == 0)
        {
            got = fread(stored, 1, sizeof(stored), file);
        }
        fclose(file);
    }
    if (got == 0)
    {
        printf("read error\n");
        return reply(response, dataLen, {0x00, 0x00});
    }
    if (stored[0] != port)
    {
        return reply(response, dataLen, {0x00, 0x00});
    }
    int link = get_net_stat(port);
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x00;
    out[1] = 0x01;
    memcpy(out + 2, stored + 1, 12);
    out[14] =
        (link == 0 || link == 1) ? static_cast<uint8_t>(link) : stored[13];
    *dataLen = 15;
    return IPMI_CC_OK;
}

} // namespace

int32_t pciDev_get_id(uint8_t bus, uint8_t device)
{
    auto key = static_cast<uint16_t>((bus << 8) | device);
    for (const auto& slot : gPCI_slot)
    {
        if (slot.key == key)
        {
            return slot.index;
        }
    }
    return PCI_SLOT_UNKNOWN;
}

int get_net_stat(int port)
{
    if (port < 0 || port > 3)
    {
        return 0;
    }
    char command[64];
    snprintf(command, sizeof(command), "ifconfig eth%d | grep RUNNING", port);
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr)
    {
        return -1;
    }
    char output[8192];
    size_t got = fread(output, 1, sizeof(output) - 1, pipe);
    pclose(pipe);
    return got > 0 ? 1 : 0;
}

int nicDev_set_list(char* request, int length)
{
    uint32_t size = length > 0 ? static_cast<uint32_t>(length) : 0;
    auto at = [&](size_t i) { return requestByte(request, size, i); };
    char name[8];
    char address[16];
    char path[64];
    snprintf(name, sizeof(name), "%02x:%02x", at(0), at(1));
    snprintf(address, sizeof(address), "%02x:%02x:%01x", at(2), at(3), at(4));
    snprintf(path, sizeof(path), "%s/%s%s", nicDir, "nicDev.list", name);
    unsigned first = static_cast<unsigned>((at(5) << 8) | at(6));
    unsigned second = static_cast<unsigned>((at(7) << 8) | at(8));

    // The BIOS reports the functions of a NIC in order; a new function with
    // the same identifiers gets the next ordinal, anything else (a function
    // seen before, another card) starts the list afresh.
    int ordinal = 0;
    bool restart = false;
    std::string text;
    auto read = oem::readFile(path, text);
    if (read == oem::ReadResult::failed)
    {
        // A list that cannot be read is not an empty one.
        fprintf(stderr, " %s file cannot open \n", path);
        return -1;
    }
    // Lines in pieces of at most 31 characters, as fgets with a 32-byte
    // buffer hands them over.
    for (size_t from = 0; !restart && from < text.size();)
    {
        size_t end = text.find('\n', from);
        size_t stop = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(from, std::min<size_t>(stop - from, 31));
        from += line.size();
        char lineName[8] = {};
        char lineAddress[8] = {};
        unsigned lineFirst = 0;
        unsigned lineSecond = 0;
        unsigned count = 0;
        int fields = sscanf(line.c_str(), "%5s--%7s,%04x,%04x,%02x;", lineName,
                            lineAddress, &lineFirst, &lineSecond, &count);
        if (fields != 5 || lineFirst != first || lineSecond != second ||
            strcmp(lineAddress, address) == 0)
        {
            restart = true;
        }
        else
        {
            ordinal = static_cast<int>(count) + 1;
        }
    }
    if (restart)
    {
        ordinal = 0;
    }

    char line[64];
    snprintf(line, sizeof(line), "%5s--%7s,%04x,%04x,%02x;\n", name, address,
             first, second, static_cast<unsigned>(ordinal));
    if (ordinal == 0)
    {
        // Started afresh: the list is replaced whole.
        if (oem::replaceFile(path, line) != oem::WriteResult::done)
        {
            fprintf(stderr, " %s file cannot open \n", path);
            return -1;
        }
        return ordinal;
    }
    FILE* list = fopen(path, "a");
    if (list == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", path);
        return -1;
    }
    bool ok = fputs(line, list) >= 0;
    if (fclose(list) != 0 || !ok)
    {
        return -1;
    }
    return ordinal;
}

ipmi_ret_t ipmi_vel_oem_set_cpu_dev(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (length < minSetLength)
    {
        return reply(response, data_len, {0x01});
    }
    int cpu = requestByte(request, length, 0);
    return storeAndUpdate(request, length, BIOS_DATA_TYPE_CPU, "cpu", cpu,
                          cpu + cpuRecordBase, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_cpu_dev(OEM_HANDLER_PARAMS)
{
    int cpu = requestByte(request, *data_len, 0);
    return answerRecord(cpu + cpuRecordBase, 71, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_set_dimm_info(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (length < minSetLength)
    {
        return reply(response, data_len, {0x01});
    }
    int dimm = requestByte(request, length, 0);
    int record = dimm + dimmRecordBase;
    eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_DIMM, record,
                      static_cast<char*>(request), storeLength(length));

    FILE* sizes = fopen(dimmSizeFile, "a+");
    if (sizes == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", dimmSizeFile);
        return reply(response, data_len, {0x01});
    }
    // Bytes 11 to 18: the size as decimal text, NUL-terminated if shorter.
    char size[9] = {};
    for (size_t i = 0; i < 8; ++i)
    {
        size[i] = static_cast<char>(requestByte(request, length, 11 + i));
        if (size[i] == '\0')
        {
            break;
        }
    }
    bool ok = fprintf(sizes, "%s\n", size) > 0;
    ok = (fclose(sizes) == 0) && ok;
    runFruUpdate("dim", dimm, record);
    return reply(response, data_len, {static_cast<uint8_t>(ok ? 0x00 : 0x01)});
}

ipmi_ret_t ipmi_vel_oem_get_dimm_info(OEM_HANDLER_PARAMS)
{
    int dimm = requestByte(request, *data_len, 0);
    return answerRecord(dimm + dimmRecordBase, 55, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_set_pci_dev(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (length < minSetLength)
    {
        return reply(response, data_len, {0x01});
    }
    int record = pciRecord(request, length);
    return storeAndUpdate(request, length, BIOS_DATA_TYPE_PCI, "pci",
                          record - pciRecordBase, record, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_pci_dev(OEM_HANDLER_PARAMS)
{
    return answerRecord(pciRecord(request, *data_len), 16, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_set_onboard_nic(OEM_HANDLER_PARAMS)
{
    return setBoardNic(onboardNicOffset, request, *data_len, response,
                       data_len);
}

ipmi_ret_t ipmi_vel_oem_get_onboard_nic(OEM_HANDLER_PARAMS)
{
    return getBoardNic(onboardNicOffset, request, *data_len, response,
                       data_len);
}

ipmi_ret_t ipmi_vel_oem_set_offboard_nic(OEM_HANDLER_PARAMS)
{
    return setBoardNic(offboardNicOffset, request, *data_len, response,
                       data_len);
}

ipmi_ret_t ipmi_vel_oem_get_offboard_nic(OEM_HANDLER_PARAMS)
{
    return getBoardNic(offboardNicOffset, request, *data_len, response,
                       data_len);
}

ipmi_ret_t ipmi_vel_oem_set_onboard_hdd(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (length < minSetLength)
    {
        return reply(response, data_len, {0x01});
    }
    int disk = requestByte(request, length, 0);
    bool kind8 = requestByte(request, length, 1) == hddKind8;
    int record = disk + (kind8 ? hddKind8RecordBase : hddRecordBase);
    int device = kind8 ? disk + hddKind8DeviceBase : disk;
    return storeAndUpdate(request, length, BIOS_DATA_TYPE_HDD, "hdd", device,
                          record, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_onboard_hdd(OEM_HANDLER_PARAMS)
{
    // Always the first range: kind 8 disks are read back as disk + 4.
    int disk = requestByte(request, *data_len, 0);
    return answerRecord(disk + hddRecordBase, 72, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_set_nic_dev(OEM_HANDLER_PARAMS)
{
    uint32_t length = *data_len;
    if (length < minSetLength)
    {
        return reply(response, data_len, {0x01});
    }
    uint8_t bus = requestByte(request, length, 0);
    uint8_t device = requestByte(request, length, 1);
    int32_t slot = pciDev_get_id(bus, device);
    if (slot < 0)
    {
        return reply(response, data_len, {0x01});
    }
    char path[31];
    snprintf(path, sizeof(path), "%s/nic%02x:%02x", nicDir, bus, device);

    struct stat status = {};
    if (stat(nicDir, &status) != 0 || !S_ISDIR(status.st_mode))
    {
        mkdir(nicDir, 0755);
    }

    int ordinal =
        nicDev_set_list(static_cast<char*>(request), storeLength(length));
    if (ordinal < 0 || ordinal > 3)
    {
        return reply(response, data_len, {0x01});
    }
    char nic[6];
    for (size_t i = 0; i < sizeof(nic); ++i)
    {
        nic[i] = static_cast<char>(requestByte(request, length, 13 + i));
    }
    if (ordinal == 0)
    {
        // The first function of a NIC creates the file afresh, whole.
        if (oem::replaceFile(path, std::string_view(nic, sizeof(nic))) !=
            oem::WriteResult::done)
        {
            printf(" %s file cannot open \n", path);
            return reply(response, data_len, {0x01});
        }
    }
    else
    {
        FILE* file = fopen(path, "a+");
        if (file == nullptr)
        {
            printf(" %s file cannot open \n", path);
            return reply(response, data_len, {0x01});
        }
        fputc(ordinal, file);
        fwrite(nic, 1, sizeof(nic), file);
        if (fclose(file) != 0)
        {
            printf("%s file cannot be closed \n", path);
        }
    }

    FILE* file = fopen(path, "rb");
    if (file == nullptr)
    {
        return reply(response, data_len, {0x01});
    }
    char readBack[128] = {};
    [[maybe_unused]] size_t got = fread(readBack, 1, sizeof(readBack), file);
    fclose(file);

    int record = slot + pciRecordBase;
    return storeAndUpdate(request, length, BIOS_DATA_TYPE_NIC, "nic", slot,
                          record, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_nic_dev(OEM_HANDLER_PARAMS)
{
    return answerRecord(pciRecord(request, *data_len), 40, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_all_dimm_size(OEM_HANDLER_PARAMS)
{
    FILE* sizes = fopen(dimmSizeFile, "r");
    if (sizes == nullptr)
    {
        return reply(response, data_len, {0x01});
    }
    char line[32];
    int32_t total = 0;
    while (fgets(line, sizeof(line), sizes) != nullptr)
    {
        // Each line and the sum are ints, as on the BMC; a corrupt file
        // stops the sum at the end of the range instead of wrapping it.
        int64_t sum = int64_t{total} + oem::strtol32(line, nullptr, 10);
        total = static_cast<int32_t>(
            std::clamp<int64_t>(sum, INT32_MIN, INT32_MAX));
    }
    fclose(sizes);
    fprintf(stderr, "dimm size is %d\n", static_cast<int>(total));
    char text[16];
    int n = snprintf(text, sizeof(text), "%d", static_cast<int>(total));
    memcpy(response, text, static_cast<size_t>(n));
    *data_len = static_cast<uint32_t>(n);
    return IPMI_CC_OK;
}
