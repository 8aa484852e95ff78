// SPDX-License-Identifier: Apache-2.0
// The board card report: this BMC's own sensors, readings and thresholds,
// its identity and its board inventory, in the compact records the card
// registry takes from add-in cards, so that a board's data can be collected
// here and handed on.

#include "thermal/board_card.hpp"

#include "oem/wire.hpp"
#include "oem/dbus.hpp"
#include "oem/utils.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <variant>

// Not every daemon exports its sensor table: referenced weakly, so that the
// plug-in still loads there, and reports an empty table.
extern "C" __attribute__((weak)) const struct ipmid_sensor_info*
    ipmid_sensor_table(size_t* count);

using oem::wire::requestByte;

namespace
{

constexpr uint8_t boardModuleId = 1;
constexpr size_t headerSize = 4;

constexpr const char* warningInterface =
    "xyz.openbmc_project.Sensor.Threshold.Warning";
constexpr const char* criticalInterface =
    "xyz.openbmc_project.Sensor.Threshold.Critical";

constexpr const char* inventoryService =
    "xyz.openbmc_project.Inventory.Manager";
constexpr const char* systemPath = "/xyz/openbmc_project/inventory/system";
constexpr const char* motherboardPath =
    "/xyz/openbmc_project/inventory/system/chassis/motherboard";
constexpr const char* assetInterface =
    "xyz.openbmc_project.Inventory.Decorator.Asset";
constexpr const char* revisionInterface =
    "xyz.openbmc_project.Inventory.Decorator.Revision";

// The inventory record: fixed-width, zero-padded text fields in this
// order, 106 bytes in all.
constexpr size_t manufacturerField = 0;
constexpr size_t modelField = 16;
constexpr size_t buildDateField = 32;
constexpr size_t serialField = 40;
constexpr size_t boardVersionField = 64;
constexpr size_t biosVersionField = 72;
constexpr size_t recordVersionField = 98;
static_assert(recordVersionField + 8 == boardCardInventorySize);

struct SensorTable
{
    const ipmid_sensor_info* records = nullptr;
    size_t count = 0;
};

SensorTable sensorTable()
{
    SensorTable table;
    if (ipmid_sensor_table != nullptr)
    {
        table.records = ipmid_sensor_table(&table.count);
    }
    if (table.records == nullptr)
    {
        table.count = 0;
    }
    return table;
}

// The card registry's type codes, from the IPMI sensor type.
uint8_t typeCode(uint8_t sensorType)
{
    return sensorType >= 1 && sensorType <= 4 ? sensorType << 4 : 0;
}

const char* text(const char* value)
{
    return value != nullptr ? value : "";
}

void put24(uint8_t* out, int64_t value)
{
    out[0] = static_cast<uint8_t>(value >> 16);
    out[1] = static_cast<uint8_t>(value >> 8);
    out[2] = static_cast<uint8_t>(value);
}

int64_t readInteger(const std::string& service, const char* path,
                    const char* interface, const char* property)
{
    return std::get<int64_t>(
        dbus.getProperty(service, path, interface, property));
}

std::string readText(const char* path, const char* interface,
                     const char* property)
{
    return std::get<std::string>(
        dbus.getProperty(inventoryService, path, interface, property));
}

// Copies text into a zero-padded field of width bytes, cut at the width.
void putText(uint8_t* field, size_t width, const std::string& value)
{
    memcpy(field, value.data(), std::min(width, value.size()));
}

// The VERSION_ID of /etc/bios-release without its quotation marks; empty
// if there is none.
std::string biosVersion()
{
    FILE* file = fopen("/etc/bios-release", "r");
    if (file == nullptr)
    {
        return {};
    }
    std::string version;
    char line[256];
    while (fgets(line, sizeof(line), file) != nullptr)
    {
        if (strncmp(line, "VERSION_ID=", 11) == 0)
        {
            version = line + 11;
            break;
        }
    }
    fclose(file);
    version.erase(std::remove_if(version.begin(), version.end(),
                                 [](char c) {
                                     return c == '"' || c == '\n' || c == '\r';
                                 }),
                  version.end());
    return version;
}

// The BMC's identity: address, host name, maker, date, OS version, kernel,
// product and record version at fixed places of a 95-byte record.
void identityRecord(uint8_t* record)
{
    memset(record, 0, boardCardIdentitySize);

    char command[256];
    char address[256] = {};
    snprintf(command, sizeof(command),
             "ifconfig  %s  |  grep  'inet addr:'  | awk '{print $2}' | awk "
             "-F: '{print $2}'",
             "eth0");
    system_ctrl(command, address, sizeof(address));
    // The address with its terminating zero; a longer text runs into the
    // host-name field, which is written over it next.
    memcpy(record, address, std::min<size_t>(strlen(address) + 1, 32));

    char host[17] = {};
    if (gethostname(host, sizeof(host)) != 0)
    {
        snprintf(host, sizeof(host), "host");
    }
    host[16] = '\0';
    memcpy(record + 16, host, 16);

    memcpy(record + 32, "TALVEX", 6);
    memcpy(record + 42, "20200108", 8);

    char version[256] = {};
    snprintf(command, sizeof(command),
             "grep 'VERSION_ID=' /etc/os-release | awk -F= '{print $2}' | awk "
             "-F- '{print $1}'");
    system_ctrl(command, version, sizeof(version));
    // Past the opening quotation mark.
    memcpy(record + 50, version + 1, strnlen(version + 1, 5));

    memcpy(record + 58, "LINUX-4.19", 10);
    memcpy(record + 74, "ORVANE-BMC", 10);
    memcpy(record + 90, "V2.0", 4);
}

// The board inventory from the inventory manager and the BIOS version.
void inventoryRecord(uint8_t* record)
{
    memset(record, 0, boardCardInventorySize);
    putText(record + manufacturerField, 16,
            readText(systemPath, assetInterface, "Manufacturer"));
    putText(record + modelField, 16,
            readText(systemPath, assetInterface, "Model"));

    // "2020-01-08" goes as "20200108".
    std::string buildDate =
        readText(motherboardPath, assetInterface, "BuildDate");
    char date[11] = {};
    sscanf(buildDate.c_str(), "%10s", date);
    char packed[9] = {};
    snprintf(packed, sizeof(packed), "%c%c%c%c%c%c%c%c", date[0], date[1],
             date[2], date[3], date[5], date[6], date[8], date[9]);
    memcpy(record + buildDateField, packed, strlen(packed));

    putText(record + serialField, 24,
            readText(motherboardPath, assetInterface, "SerialNumber"));
    putText(record + boardVersionField, 8,
            readText(motherboardPath, revisionInterface, "Version"));

    // "0-0-0" is what stands there before the BIOS has reported its
    // version: no version to report yet.
    std::string bios = biosVersion();
    if (bios != "0-0-0")
    {
        putText(record + biosVersionField, 26, bios);
    }
    putText(record + recordVersionField, 8, "V3.0");
}

ipmi_ret_t boardError(ipmi_response_t response, ipmi_data_len_t dataLen)
{
    static_cast<uint8_t*>(response)[0] = 1;
    *dataLen = 1;
    return IPMI_CC_OK;
}

// Appends one record kind for every sensor of the table, as many as the
// response holds; returns the bytes written.
template <typename Size, typename Write>
size_t sensorRecords(uint8_t* out, size_t room, Size size, Write write)
{
    SensorTable table = sensorTable();
    uint8_t counter = 0;
    size_t used = 0;
    size_t sensor = 0;
    for (; sensor < table.count; ++sensor)
    {
        const ipmid_sensor_info* record = &table.records[sensor];
        if (size(record) > room - used)
        {
            break;
        }
        used += static_cast<size_t>(write(record, out + used, &counter));
    }
    if (sensor < table.count)
    {
        fprintf(stderr,
                "get_boardCard_info: %zu of %zu sensors fit a response\n",
                sensor, table.count);
    }
    return used;
}

} // namespace

int getSensorName(const ipmid_sensor_info* sensor, uint8_t* out,
                  uint8_t* counter)
{
    memset(out, 0, boardCardNameRecordSize);
    out[0] = ++*counter;
    out[1] = typeCode(sensor->type);
    // The last part of /xyz/openbmc_project/sensors/KIND/NAME, at most 14
    // characters.
    char name[15] = {};
    sscanf(text(sensor->path), "%*29s%*[^/]/%14s", name);
    memcpy(out + 2, name, 14);
    return boardCardNameRecordSize;
}

int getSensorValue(const ipmid_sensor_info* sensor, uint8_t* out,
                   uint8_t* counter)
{
    std::string service =
        dbus.getService(text(sensor->interface), text(sensor->path));
    int written = 0;
    for (size_t i = 0; i < sensor->property_count; ++i)
    {
        const ipmid_sensor_property& property = sensor->properties[i];
        auto reading = static_cast<int32_t>(
            readInteger(service, text(sensor->path), text(property.interface),
                        text(property.property)));
        uint8_t* record = out + written;
        record[0] = ++*counter;
        record[1] = typeCode(sensor->type);
        record[2] = static_cast<uint8_t>(reading / 65536);
        record[3] = static_cast<uint8_t>(reading / 256);
        record[4] = static_cast<uint8_t>(reading);
        written += boardCardValueRecordSize;
    }
    return written;
}

int getSensorValueInfo(const ipmid_sensor_info* sensor, uint8_t* out,
                       uint8_t* counter)
{
    const char* path = text(sensor->path);
    // The service and, from the same lookup, which threshold interfaces the
    // sensor implements; those it does not give zeros.
    oem::ServiceMap services = dbus.getObject(path, {text(sensor->interface)});
    if (services.empty())
    {
        throw oem::DbusError(
            "GetObject", ENOENT,
            "xyz.openbmc_project.Common.Error.ResourceNotFound",
            std::string("no service serves ") + text(sensor->interface) +
                " at " + path);
    }
    const std::string& service = services.begin()->first;
    const auto& interfaces = services.begin()->second;
    auto implements = [&interfaces](const char* interface) {
        return std::find(interfaces.begin(), interfaces.end(), interface) !=
               interfaces.end();
    };

    memset(out, 0, boardCardThresholdRecordSize);
    out[0] = ++*counter;
    out[1] = typeCode(sensor->type);
    if (implements(warningInterface))
    {
        int64_t high =
            readInteger(service, path, warningInterface, "WarningHigh");
        int64_t low =
            readInteger(service, path, warningInterface, "WarningLow");
        // Only the high warning is kept from going negative; the host tools
        // read the low one as it comes.
        put24(out + 2, high > 0 ? high : 0);
        put24(out + 5, low);
    }
    if (implements(criticalInterface))
    {
        int64_t high =
            readInteger(service, path, criticalInterface, "CriticalHigh");
        int64_t low =
            readInteger(service, path, criticalInterface, "CriticalLow");
        put24(out + 8, high);
        put24(out + 11, low > 0 ? low : 0);
    }
    return boardCardThresholdRecordSize;
}

ipmi_ret_t ipmi_vel_oem_get_boardCard_info(ipmi_netfn_t, ipmi_cmd_t,
                                           ipmi_request_t request,
                                           ipmi_response_t response,
                                           ipmi_data_len_t data_len,
                                           ipmi_context_t)
{
    uint8_t module = requestByte(request, *data_len, 0);
    uint8_t sub = requestByte(request, *data_len, 1);
    if (module != boardModuleId)
    {
        printf("module id (%d) : not  support \n", module);
        return boardError(response, data_len);
    }
    if (sub > 4)
    {
        printf("cmd (0x%x): not  support \n", sub);
        return boardError(response, data_len);
    }

    auto* out = static_cast<uint8_t*>(response);
    uint8_t* records = out + headerSize;
    constexpr size_t room = IPMID_RESPONSE_CAPACITY - headerSize;
    size_t length = 0;
    switch (sub)
    {
        case 0:
            length = sensorRecords(
                records, room,
                [](const ipmid_sensor_info*) {
                    return size_t{boardCardNameRecordSize};
                },
                getSensorName);
            break;
        case 1:
            length = sensorRecords(
                records, room,
                [](const ipmid_sensor_info* sensor) {
                    return boardCardValueRecordSize * sensor->property_count;
                },
                getSensorValue);
            break;
        case 2:
            length = sensorRecords(
                records, room,
                [](const ipmid_sensor_info*) {
                    return size_t{boardCardThresholdRecordSize};
                },
                getSensorValueInfo);
            break;
        case 3:
            identityRecord(records);
            length = boardCardIdentitySize;
            break;
        case 4:
            inventoryRecord(records);
            length = boardCardInventorySize;
            break;
    }
    out[0] = 0;
    out[1] = module;
    out[2] = sub;
    out[3] = 0;
    *data_len = static_cast<uint32_t>(headerSize + length);
    return IPMI_CC_OK;
}
