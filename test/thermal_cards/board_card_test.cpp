// SPDX-License-Identifier: Apache-2.0
// The board card report (0x45): sensor names, readings and thresholds of
// the daemon's sensor table, the BMC's identity and the board inventory.

#include "board.hpp"
#include "dbus.hpp"
#include "keep_files.hpp"
#include "plugin.hpp"

#include <sys/utsname.h>

#include <cstring>
#include <string>

namespace
{

constexpr uint8_t netfn = 0x3A;
constexpr uint8_t getBoardCard = 0x45;
constexpr const char* sensorTable = "/var/sim/ipmid/sensors";
constexpr const char* valueInterface = "xyz.openbmc_project.Sensor.Value";
constexpr const char* warning = "xyz.openbmc_project.Sensor.Threshold.Warning";
constexpr const char* critical =
    "xyz.openbmc_project.Sensor.Threshold.Critical";
constexpr const char* inletService =
    "xyz.openbmc_project.Hwmon-2953416418.Hwmon1";
constexpr const char* inletPath =
    "/xyz/openbmc_project/sensors/temperature/Inlet_Temp";
constexpr const char* inventory = "xyz.openbmc_project.Inventory.Manager";
constexpr const char* systemPath = "/xyz/openbmc_project/inventory/system";
constexpr const char* boardPath =
    "/xyz/openbmc_project/inventory/system/chassis/motherboard";
constexpr const char* asset = "xyz.openbmc_project.Inventory.Decorator.Asset";

const Bytes error = {1};

Bytes header(uint8_t sub)
{
    return {0, 1, sub, 0};
}

void append(Bytes& to, const Bytes& more)
{
    to.insert(to.end(), more.begin(), more.end());
}

Bytes nameRecord(uint8_t index, uint8_t type, const std::string& name)
{
    Bytes record(16, 0);
    record[0] = index;
    record[1] = type;
    std::copy(name.begin(), name.end(), record.begin() + 2);
    return record;
}

Bytes be24(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

Bytes valueRecord(uint8_t index, uint8_t type, uint32_t value)
{
    Bytes record = {index, type};
    append(record, be24(value));
    return record;
}

Bytes thresholdRecord(uint8_t index, uint8_t type, uint32_t warnHigh,
                      uint32_t warnLow, uint32_t critHigh, uint32_t critLow)
{
    Bytes record = {index, type};
    for (uint32_t value : {warnHigh, warnLow, critHigh, critLow})
    {
        append(record, be24(value));
    }
    return record;
}

std::string sensorLine(
    int number, int type, const std::string& path,
    const std::string& properties = "xyz.openbmc_project.Sensor.Value:Value")
{
    return std::to_string(number) + " " + std::to_string(type) + " " + path +
           " " + valueInterface + " " + properties + "\n";
}

/* The simulator's property values, put back when a test ends. */
class KeepProperties
{
  public:
    struct Property
    {
        std::string service, path, interface, name;
    };
    KeepProperties(std::initializer_list<Property> properties)
    {
        for (const auto& p : properties)
        {
            kept.emplace_back(p, testing_dbus::getProperty(
                                     p.service, p.path, p.interface, p.name));
        }
    }
    ~KeepProperties()
    {
        for (const auto& [p, value] : kept)
        {
            testing_dbus::setProperty(p.service, p.path, p.interface, p.name,
                                      value);
        }
        testing_dbus::clearFailures();
    }
    KeepProperties(const KeepProperties&) = delete;
    KeepProperties& operator=(const KeepProperties&) = delete;

  private:
    std::vector<std::pair<Property, oem::Value>> kept;
};

// The default board's table, in sensor-number order.
struct BoardSensor
{
    uint8_t type;
    const char* name;
    uint32_t value;
};
const BoardSensor boardSensors[] = {
    {0x10, "Inlet_Temp", 27500}, {0x10, "PSU1_Temp", 34000},
    {0x10, "PSU2_Temp", 35000},  {0x20, "P12V", 12060},
    {0x20, "P5V", 5010},         {0x20, "P3V3", 3310},
    {0x20, "P1V8", 1800},        {0x30, "PSU1_Iout", 20750},
    {0x30, "PSU2_Iout", 21580},  {0x40, "FAN1", 8400},
    {0x40, "FAN2", 8460},        {0x40, "FAN3", 8370},
    {0x40, "FAN4", 8520},        {0x40, "FAN5", 8430},
    {0x40, "FAN6", 8490},        {0x40, "FAN7", 8400},
};

TEST(BoardCard, RequestErrors)
{
    struct Case
    {
        Bytes request;
        std::string printed;
    };
    const Case cases[] = {
        {{2, 0}, "module id (2) : not  support \n"},
        {{0, 0}, "module id (0) : not  support \n"},
        {{}, "module id (0) : not  support \n"},
        {{1, 5}, "cmd (0x5): not  support \n"},
        {{1, 0xFF}, "cmd (0xff): not  support \n"},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStdout();
        auto answer = call(netfn, getBoardCard, c.request);
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, error);
    }
}

TEST(BoardCard, BoardSensors)
{
    Bytes names = header(0);
    Bytes values = header(1);
    uint8_t index = 0;
    for (const auto& sensor : boardSensors)
    {
        ++index;
        append(names, nameRecord(index, sensor.type, sensor.name));
        append(values, valueRecord(index, sensor.type, sensor.value));
    }
    auto answer = call(netfn, getBoardCard, {1, 0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, names);
    answer = call(netfn, getBoardCard, {1, 1});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, values);

    Bytes thresholds = header(2);
    append(thresholds, thresholdRecord(1, 0x10, 40000, 5000, 45000, 0));
    append(thresholds, thresholdRecord(2, 0x10, 60000, 0, 70000, 0));
    append(thresholds, thresholdRecord(3, 0x10, 60000, 0, 70000, 0));
    append(thresholds, thresholdRecord(4, 0x20, 12600, 11400, 13200, 10800));
    append(thresholds, thresholdRecord(5, 0x20, 5250, 4750, 5500, 4500));
    append(thresholds, thresholdRecord(6, 0x20, 3465, 3135, 3630, 2970));
    append(thresholds, thresholdRecord(7, 0x20, 1890, 1710, 1980, 1620));
    append(thresholds, thresholdRecord(8, 0x30, 41000, 0, 45000, 0));
    append(thresholds, thresholdRecord(9, 0x30, 41000, 0, 45000, 0));
    // Fans have critical thresholds only.
    for (uint8_t fan = 10; fan <= 16; ++fan)
    {
        append(thresholds, thresholdRecord(fan, 0x40, 0, 0, 25000, 1000));
    }
    answer = call(netfn, getBoardCard, {1, 2});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, thresholds);
}

TEST(BoardCard, NamesAndTypes)
{
    KeepFiles keep{sensorTable};
    const std::string sensors = "/xyz/openbmc_project/sensors/";
    struct Case
    {
        const char* what;
        std::string table;
        Bytes answer;
    };
    Bytes three = header(0);
    append(three, nameRecord(1, 0x10, "CPU0_Temperatu"));
    append(three, nameRecord(2, 0x00, "Other"));
    append(three, nameRecord(3, 0x30, "I"));
    Bytes odd = header(0);
    append(odd, nameRecord(1, 0x20, ""));
    append(odd, nameRecord(2, 0x00, ""));
    // The first 29 characters are skipped, whatever they are.
    append(odd, nameRecord(3, 0x40, "fan/FAN1"));
    const Case cases[] = {
        {"three sensors, by number",
         sensorLine(9, 3, sensors + "current/I") +
             sensorLine(1, 1, sensors + "temperature/CPU0_Temperature_Long") +
             sensorLine(5, 7, sensors + "other/Other"),
         three},
        {"paths of another shape",
         sensorLine(1, 2, "/short") + sensorLine(2, 0, sensors + "nokind") +
             sensorLine(3, 4, "/xyz/openbmc_project/elsewhere/fan/FAN1"),
         odd},
        {"empty table", "# nothing\n", header(0)},
        {"no table", "<missing>", header(0)},
    };
    for (const auto& c : cases)
    {
        putFile(sensorTable, c.table);
        for (uint8_t sub : {0, 1, 2})
        {
            if (sub != 0 && c.answer.size() > 4)
            {
                continue;
            }
            auto answer = call(netfn, getBoardCard, {1, sub});
            EXPECT_EQ(answer.cc, 0x00) << c.what;
            Bytes expected = c.answer;
            expected[2] = sub;
            EXPECT_EQ(answer.data, expected) << c.what << " " << int(sub);
        }
    }
}

TEST(BoardCard, ReadingsAndThresholdsAsSent)
{
    KeepFiles keep{sensorTable};
    KeepProperties properties{
        {inletService, inletPath, valueInterface, "Value"},
        {inletService, inletPath, valueInterface, "Scale"},
        {inletService, inletPath, warning, "WarningHigh"},
        {inletService, inletPath, warning, "WarningLow"},
        {inletService, inletPath, critical, "CriticalHigh"},
        {inletService, inletPath, critical, "CriticalLow"},
    };
    auto set = [](const char* interface, const char* name, int64_t value) {
        testing_dbus::setProperty(inletService, inletPath, interface, name,
                                  value);
    };
    putFile(sensorTable, sensorLine(1, 1, inletPath));
    struct Case
    {
        int64_t reading;
        Bytes bytes;
    };
    const Case readings[] = {
        {0x123456, {0x12, 0x34, 0x56}},    {0x12345678, {0x34, 0x56, 0x78}},
        {-5, {0x00, 0x00, 0xFB}},          {-70000, {0xFF, 0xEF, 0x90}},
        {0x100000005, {0x00, 0x00, 0x05}},
    };
    for (const auto& c : readings)
    {
        set(valueInterface, "Value", c.reading);
        Bytes expected = header(1);
        append(expected, {1, 0x10});
        append(expected, c.bytes);
        EXPECT_EQ(call(netfn, getBoardCard, {1, 1}).data, expected)
            << c.reading;
    }

    // Warning high and critical low never go negative; the other two go
    // as their low 24 bits.
    set(warning, "WarningHigh", -5);
    set(warning, "WarningLow", -5);
    set(critical, "CriticalHigh", -5);
    set(critical, "CriticalLow", -5);
    Bytes expected = header(2);
    append(expected,
           {1, 0x10, 0, 0, 0, 0xFF, 0xFF, 0xFB, 0xFF, 0xFF, 0xFB, 0, 0, 0});
    EXPECT_EQ(call(netfn, getBoardCard, {1, 2}).data, expected);
    set(warning, "WarningHigh", 0x1234567);
    set(critical, "CriticalLow", 0x7654321);
    expected = header(2);
    append(expected, {1, 0x10, 0x23, 0x45, 0x67, 0xFF, 0xFF, 0xFB, 0xFF, 0xFF,
                      0xFB, 0x65, 0x43, 0x21});
    EXPECT_EQ(call(netfn, getBoardCard, {1, 2}).data, expected);

    // One record per property, in interface and name order.
    putFile(sensorTable,
            sensorLine(1, 1, inletPath,
                       std::string(valueInterface) + ":Value " +
                           valueInterface + ":Scale") +
                sensorLine(2, 2, "/xyz/openbmc_project/sensors/voltage/P5V"));
    set(valueInterface, "Value", 27500);
    testing_dbus::clearCalls();
    expected = header(1);
    append(expected, {1, 0x10, 0x00, 0x00, 0xFD}); // Scale -3
    append(expected, valueRecord(2, 0x10, 27500));
    append(expected, valueRecord(3, 0x20, 5010));
    EXPECT_EQ(call(netfn, getBoardCard, {1, 1}).data, expected);
    auto calls = testing_dbus::calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0],
              std::string("xyz.openbmc_project.ObjectMapper "
                          "/xyz/openbmc_project/object_mapper "
                          "xyz.openbmc_project.ObjectMapper GetObject \"") +
                  inletPath + "\" [\"" + valueInterface + "\"]");
    EXPECT_EQ(calls[1], std::string(inletService) + " " + inletPath +
                            " org.freedesktop.DBus.Properties Get \"" +
                            valueInterface + "\" \"Scale\"");
    EXPECT_EQ(calls[2], std::string(inletService) + " " + inletPath +
                            " org.freedesktop.DBus.Properties Get \"" +
                            valueInterface + "\" \"Value\"");
}

TEST(BoardCard, ThresholdCalls)
{
    KeepFiles keep{sensorTable};
    putFile(sensorTable, sensorLine(1, 1, inletPath) +
                             sensorLine(2, 4,
                                        "/xyz/openbmc_project/sensors/"
                                        "fan_tach/FAN1"));
    testing_dbus::clearCalls();
    call(netfn, getBoardCard, {1, 2});
    auto get = [](const std::string& service, const std::string& path,
                  const char* interface, const char* name) {
        return service + " " + path +
               " org.freedesktop.DBus.Properties Get \"" + interface + "\" \"" +
               name + "\"";
    };
    const std::string fan = "/xyz/openbmc_project/sensors/fan_tach/FAN1";
    const std::string fanService =
        "xyz.openbmc_project.Hwmon-1644477290.Hwmon1";
    const std::string mapper = "xyz.openbmc_project.ObjectMapper "
                               "/xyz/openbmc_project/object_mapper "
                               "xyz.openbmc_project.ObjectMapper GetObject \"";
    const std::vector<std::string> expected = {
        mapper + inletPath + "\" [\"" + valueInterface + "\"]",
        get(inletService, inletPath, warning, "WarningHigh"),
        get(inletService, inletPath, warning, "WarningLow"),
        get(inletService, inletPath, critical, "CriticalHigh"),
        get(inletService, inletPath, critical, "CriticalLow"),
        mapper + fan + "\" [\"" + valueInterface + "\"]",
        get(fanService, fan, critical, "CriticalHigh"),
        get(fanService, fan, critical, "CriticalLow"),
    };
    EXPECT_EQ(testing_dbus::calls(), expected);
}

TEST(BoardCard, DbusFailuresLeaveTheHandler)
{
    KeepFiles keep{sensorTable};
    KeepProperties properties{
        {inletService, inletPath, valueInterface, "Value"},
        {inletService, inletPath, warning, "WarningLow"},
        {inventory, systemPath, asset, "Model"},
    };
    putFile(sensorTable, sensorLine(1, 1, inletPath));
    struct Case
    {
        const char* what;
        std::string glob;
        uint8_t sub;
    };
    const Case cases[] = {
        {"service lookup", "* GetObject \"*Inlet_Temp\"*", 1},
        {"reading", "* Get \"xyz.openbmc_project.Sensor.Value\" \"Value\"", 1},
        {"threshold service lookup", "* GetObject *", 2},
        {"threshold", "* Get * \"CriticalHigh\"", 2},
        {"manufacturer", "* Get * \"Manufacturer\"", 4},
        {"build date", "* Get * \"BuildDate\"", 4},
        {"board version",
         "* Get \"xyz.openbmc_project.Inventory.Decorator.Revision\" "
         "\"Version\"",
         4},
    };
    for (const auto& c : cases)
    {
        testing_dbus::failCall(c.glob, "org.freedesktop.DBus.Error.NoReply",
                               "asleep", 1);
        auto answer = call(netfn, getBoardCard, {1, c.sub});
        EXPECT_EQ(answer.cc, 0xFF) << c.what;
        EXPECT_TRUE(answer.data.empty()) << c.what;
        // The next request finds the bus well again.
        EXPECT_EQ(call(netfn, getBoardCard, {1, c.sub}).cc, 0x00) << c.what;
    }

    // Values of another type than the report sends.
    testing_dbus::setProperty(inletService, inletPath, valueInterface, "Value",
                              oem::Value{27.5});
    EXPECT_EQ(call(netfn, getBoardCard, {1, 1}).cc, 0xFF);
    testing_dbus::setProperty(inletService, inletPath, warning, "WarningLow",
                              oem::Value{std::string("5000")});
    EXPECT_EQ(call(netfn, getBoardCard, {1, 2}).cc, 0xFF);
    testing_dbus::setProperty(inventory, systemPath, asset, "Model",
                              oem::Value{int64_t{2}});
    EXPECT_EQ(call(netfn, getBoardCard, {1, 4}).cc, 0xFF);

    // A sensor no service serves.
    putFile(sensorTable,
            sensorLine(1, 1, "/xyz/openbmc_project/sensors/temperature/Gone"));
    EXPECT_EQ(call(netfn, getBoardCard, {1, 1}).cc, 0xFF);
    EXPECT_EQ(call(netfn, getBoardCard, {1, 2}).cc, 0xFF);
    EXPECT_EQ(call(netfn, getBoardCard, {1, 0}).cc, 0x00);
}

TEST(BoardCard, LongTables)
{
    KeepFiles keep{sensorTable};
    // 256 sensors, the most a table holds: the index wraps after 255.
    std::string table;
    for (int i = 0; i < 256; ++i)
    {
        table += sensorLine(i, 1,
                            "/xyz/openbmc_project/sensors/temperature/T" +
                                std::to_string(i));
    }
    putFile(sensorTable, table);
    auto answer = call(netfn, getBoardCard, {1, 0});
    ASSERT_EQ(answer.data.size(), 4u + 256 * 16);
    EXPECT_EQ(Bytes(answer.data.begin() + 4 + 254 * 16,
                    answer.data.begin() + 4 + 256 * 16),
              [] {
                  Bytes last = nameRecord(255, 0x10, "T254");
                  append(last, nameRecord(0, 0x10, "T255"));
                  return last;
              }());

    // A sensor whose readings do not fit is left out, unread.
    std::string many;
    for (int i = 0; i < 13107; ++i)
    {
        many += std::string(" ") + valueInterface + ":P" + std::to_string(i);
    }
    putFile(sensorTable, sensorLine(1, 1, inletPath) +
                             sensorLine(2, 1, inletPath, many.substr(1)));
    testing_dbus::clearCalls();
    testing::internal::CaptureStderr();
    answer = call(netfn, getBoardCard, {1, 1});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "get_boardCard_info: 1 of 2 sensors fit a response\n");
    EXPECT_EQ(answer.cc, 0x00);
    Bytes expected = header(1);
    append(expected, valueRecord(1, 0x10, 27500));
    EXPECT_EQ(answer.data, expected);
    EXPECT_EQ(testing_dbus::calls().size(), 2u);
}

std::string field(const Bytes& data, size_t at, size_t width)
{
    return std::string(data.begin() + static_cast<long>(at),
                       data.begin() + static_cast<long>(at + width));
}

std::string padded(const std::string& text, size_t width)
{
    std::string out = text.substr(0, width);
    out.resize(width, '\0');
    return out;
}

TEST(BoardCard, Identity)
{
    KeepFiles keep{"/var/sim/net/eth0"};
    utsname names{};
    uname(&names);
    std::string host = strlen(names.nodename) <= 16 ? names.nodename : "host";
    struct Case
    {
        const char* what;
        std::string inet;
        std::string address;
    };
    const Case cases[] = {
        {"board", "192.168.0.10", padded("192.168.0.10", 16)},
        {"no address", "", padded("", 16)},
        {"a long address text runs into the host name", "1234567890123456789",
         "1234567890123456"},
    };
    for (const auto& c : cases)
    {
        board::setState("/var/sim/net/eth0", "inet", c.inet);
        board::clearCommandLog();
        auto answer = call(netfn, getBoardCard, {1, 3});
        ASSERT_EQ(answer.data.size(), 99u) << c.what;
        EXPECT_EQ(Bytes(answer.data.begin(), answer.data.begin() + 4),
                  header(3));
        Bytes data(answer.data.begin() + 4, answer.data.end());
        std::string expected = c.address + padded(host, 16) +
                               padded("TALVEX", 10) + padded("20200108", 8) +
                               padded("2.8.0", 8) + padded("LINUX-4.19", 16) +
                               padded("ORVANE-BMC", 16) + padded("V2.0", 5);
        EXPECT_EQ(std::string(data.begin(), data.end()), expected) << c.what;
        EXPECT_EQ(board::commandLog(),
                  std::vector<std::string>{"ifconfig eth0"})
            << c.what;
    }
}

TEST(BoardCard, Inventory)
{
    KeepFiles keep{"/etc/bios-release"};
    KeepProperties properties{
        {inventory, systemPath, asset, "Manufacturer"},
        {inventory, boardPath, asset, "SerialNumber"},
        {inventory, boardPath, asset, "BuildDate"},
    };
    struct Case
    {
        const char* what;
        std::string biosRelease;
        std::string manufacturer;
        std::string buildDate;
        std::string bios;
    };
    const Case cases[] = {
        {"board", "VERSION_ID=\"1.05.20200108\"\n", "TALVEX", "20200108",
         "1.05.20200108"},
        {"BIOS not reported yet", "VERSION_ID=\"0-0-0\"\n", "TALVEX",
         "20200108", ""},
        {"no BIOS release", "<missing>", "TALVEX", "20200108", ""},
        {"long texts cut at their width",
         "NAME=x\nVERSION_ID=\"1.05.20200108-with-a-long-build-tag\"\n",
         "TALVEX Corporation of the Hills", "20200108",
         "1.05.20200108-with-a-long-"},
    };
    for (const auto& c : cases)
    {
        putFile("/etc/bios-release", c.biosRelease);
        testing_dbus::setProperty(inventory, systemPath, asset, "Manufacturer",
                                  c.manufacturer);
        auto answer = call(netfn, getBoardCard, {1, 4});
        ASSERT_EQ(answer.data.size(), 110u) << c.what;
        Bytes data(answer.data.begin() + 4, answer.data.end());
        std::string expected =
            padded(c.manufacturer, 16) + padded("ORVANE-2U", 16) +
            padded(c.buildDate, 8) + padded("TVXMB20010800042", 24) +
            padded("A01", 8) + padded(c.bios, 26) + padded("V3.0", 8);
        EXPECT_EQ(std::string(data.begin(), data.end()), expected) << c.what;
    }

    // A build date of another shape is packed the same way.
    testing_dbus::setProperty(inventory, boardPath, asset, "BuildDate",
                              std::string("2021/12/31 10:00"));
    auto answer = call(netfn, getBoardCard, {1, 4});
    ASSERT_EQ(answer.data.size(), 110u);
    EXPECT_EQ(field(answer.data, 4 + 32, 8), "20211231");
}

TEST(BoardCardHelpers, RecordsOfOneSensor)
{
    auto name =
        pluginSymbol<int (*)(const ipmid_sensor_info*, uint8_t*, uint8_t*)>(
            "getSensorName");
    auto value =
        pluginSymbol<int (*)(const ipmid_sensor_info*, uint8_t*, uint8_t*)>(
            "getSensorValue");
    auto thresholds =
        pluginSymbol<int (*)(const ipmid_sensor_info*, uint8_t*, uint8_t*)>(
            "getSensorValueInfo");
    const ipmid_sensor_property property = {valueInterface, "Value"};
    ipmid_sensor_info sensor = {7, 1, inletPath, valueInterface, &property, 1};
    uint8_t out[16];
    uint8_t counter = 41;

    EXPECT_EQ(name(&sensor, out, &counter), 16);
    EXPECT_EQ(Bytes(out, out + 16), nameRecord(42, 0x10, "Inlet_Temp"));
    EXPECT_EQ(value(&sensor, out, &counter), 5);
    EXPECT_EQ(Bytes(out, out + 5), valueRecord(43, 0x10, 27500));
    EXPECT_EQ(thresholds(&sensor, out, &counter), 14);
    EXPECT_EQ(Bytes(out, out + 14),
              thresholdRecord(44, 0x10, 40000, 5000, 45000, 0));

    // No properties: the service is looked up, nothing is read.
    sensor.property_count = 0;
    testing_dbus::clearCalls();
    EXPECT_EQ(value(&sensor, out, &counter), 0);
    EXPECT_EQ(testing_dbus::calls().size(), 1u);
    EXPECT_EQ(counter, 44);

    sensor.path = "/xyz/openbmc_project/sensors/temperature/Nowhere";
    EXPECT_ANY_THROW(value(&sensor, out, &counter));
    EXPECT_ANY_THROW(thresholds(&sensor, out, &counter));
}

} // namespace
