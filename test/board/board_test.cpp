// SPDX-License-Identifier: Apache-2.0
// The default board is a healthy server: its devices answer where the
// platform files say, and its files hold what the handlers parse, read
// through the plug-in's own I2C and hwmon functions where it has them.

#include "board.hpp"
#include "plugin.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace
{

using board::readFile;

// PMBus LINEAR11: 5-bit signed exponent, 11-bit mantissa.
int linear11(uint8_t low, uint8_t high)
{
    int word = low | high << 8;
    int exponent = (word >> 11) - ((word & 0x8000) ? 32 : 0);
    int mantissa = word & 0x7FF;
    return exponent < 0 ? mantissa >> -exponent : mantissa << exponent;
}

std::string value(const std::string& file, const std::string& key)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
    {
        if (line.starts_with(key + "="))
        {
            return line.substr(key.size() + 1);
        }
    }
    return "";
}

TEST(Board, PowerSuppliesAnswerWhereTheirLocationFilesSay)
{
    auto readBuffer =
        pluginSymbol<int (*)(int, uint16_t, uint8_t, uint8_t*, uint16_t)>(
            "i2c_read_buffer");
    auto smbusRead =
        pluginSymbol<int (*)(int, uint8_t, uint8_t, uint8_t, char*)>(
            "smbus_read");
    auto findHwmon =
        pluginSymbol<int (*)(const char*, int*)>("findhwmonid_OF_FULLNAME");
    struct Case
    {
        const char* location;
        int address;
        const char* hwmonName;
    };
    const Case cases[] = {
        {"/etc/default/obmc/other/system/chassis/psu1", 0x58, "asp2500@58"},
        {"/etc/default/obmc/other/system/chassis/psu2", 0x59, "asp2500@59"},
    };
    for (const auto& c : cases)
    {
        // Decimal, as the location files are read.
        int bus = std::stoi(value(c.location, "I2CBUS"));
        int address = std::stoi(value(c.location, "I2CADDR"));
        EXPECT_EQ(address, c.address) << c.location;

        uint8_t vin[2] = {};
        EXPECT_EQ(readBuffer(bus, address, 0x88, vin, 2), 2) << c.location;
        EXPECT_GE(linear11(vin[0], vin[1]), 200) << c.location;

        uint8_t status[2] = {0xFF, 0xFF};
        EXPECT_EQ(readBuffer(bus, address, 0x79, status, 2), 2);
        EXPECT_EQ(status[0] | status[1] << 8, 0) << c.location;

        for (uint8_t command : {0x99, 0x9A, 0x9B, 0x9E})
        {
            char block[32] = {};
            EXPECT_EQ(smbusRead(bus, address, command, 31, block), 31);
            // A PMBus block: its byte count, then that much text.
            size_t count = static_cast<uint8_t>(block[0]);
            EXPECT_GT(count, 0U) << c.location << " " << int{command};
            ASSERT_LE(count, 30U);
            for (size_t i = 1; i <= count; ++i)
            {
                EXPECT_TRUE(isprint(static_cast<unsigned char>(block[i])))
                    << c.location << " " << int{command};
            }
        }

        int id = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(findHwmon(c.hwmonName, &id), 0) << c.hwmonName;
        testing::internal::GetCapturedStderr();
        std::string node = "/sys/class/hwmon/hwmon" + std::to_string(id);
        EXPECT_EQ(readFile(node + "/name"), "asp2500\n");
        for (const char* attribute : {"in1_input", "in2_input", "power1_input"})
        {
            EXPECT_GT(std::stol(readFile(node + "/" + attribute)), 0)
                << node << "/" << attribute;
        }
    }

    // The total power pipeline of the power commands, as they run it.
    EXPECT_EQ(board::run("power_node=`grep -E '^asp2500$' "
                         "/sys/class/hwmon/*/name | awk -F / "
                         "'{print $1\"/\"$2\"/\"$3\"/\"$4\"/\"$5\"/"
                         "power1_input\"}'` && cat $power_node 2>&1 |awk "
                         "'/^[0-9][0-9]*$/ {sum+=$1} END {print  sum}' ")
                  .output,
              "510000000\n");
}

TEST(Board, MainBoardAndJbodDevicesAnswerTheirRegisters)
{
    auto i2cRead =
        pluginSymbol<int (*)(int, int, uint8_t, uint8_t*)>("i2c_read");
    struct Case
    {
        int bus;
        int address;
        uint8_t reg;
        uint8_t expected;
    };
    const Case cases[] = {
        {10, 0x23, 0x02, 0x05}, // CPLD version
        {10, 0x23, 0x39, 0x70}, // riser 1 present, riser 2 absent
        {10, 0x23, 0x3C, 0x01}, // warning LED off
        {30, 0x40, 0x00, 0x30}, {31, 0x40, 0x00, 0x31}, // JBOD enclosure IDs
        {32, 0x40, 0x00, 0x32}, {33, 0x40, 0x00, 0x33},
        {34, 0x40, 0x00, 0x34}, {35, 0x40, 0x00, 0x35},
    };
    for (const auto& c : cases)
    {
        uint8_t byte = 0;
        EXPECT_EQ(i2cRead(c.bus, c.address, c.reg, &byte), 0) << c.bus;
        EXPECT_EQ(byte, c.expected) << c.bus << " " << int{c.reg};
    }
}

TEST(Board, VersionFilesHoldTheFieldsAtTheirPlaces)
{
    auto readFwVer =
        pluginSymbol<int (*)(const char*, char*, int, int, int)>("read_fw_ver");
    struct Case
    {
        const char* path;
        int line;
        int start;
        int length;
        const char* expected;
    };
    const Case cases[] = {
        {"/etc/os-release", 4, 12, 20, "2.8.0-v1.02-20200108"},
        {"/etc/bios-release", 1, 12, 13, "1.05.20200108"},
        {"/run/cpld1.version", 1, 12, 4, "v0.5"},
        {"/etc/default/obmc/bios-version", 1, 0, 14, "1.05.20200108\n"},
    };
    for (const auto& c : cases)
    {
        char out[64] = {};
        testing::internal::CaptureStderr();
        EXPECT_EQ(readFwVer(c.path, out, c.line, c.start, c.length), 0);
        testing::internal::GetCapturedStderr();
        EXPECT_STREQ(out, c.expected) << c.path;
    }

    for (const char* name :
         {"Front_HDD_Backplane0_CPLD", "Front_HDD_Backplane1_CPLD",
          "Rear_HDD_Backplane0_CPLD"})
    {
        int major = -1;
        int minor = -1;
        std::string text = readFile(std::string("/run/") + name + ".version");
        EXPECT_EQ(sscanf(text.c_str(), "VERSION_ID=\"v%d.%d\"", &major, &minor),
                  2)
            << name;
    }
    EXPECT_EQ(readFile("/run/Rear_HDD_Backplane1_CPLD.version"), "<missing>");
}

TEST(Board, ControlFilesAreInTheLayoutTheirReadersNeed)
{
    // Rewritten in place, so every line keeps the fixed width:
    // 0xHH:0xHH:0xHH:0xHH:0xHH:0xHH and a line feed.
    auto fixedWidth = [](const std::string& line) {
        for (size_t field = 0; field < 6; ++field)
        {
            const char* f = line.c_str() + 5 * field;
            if (f[0] != '0' || f[1] != 'x' || !isxdigit(f[2]) ||
                !isxdigit(f[3]) || islower(f[2]) || islower(f[3]) ||
                f[4] != (field < 5 ? ':' : '\n'))
            {
                return false;
            }
        }
        return true;
    };
    std::string params = readFile("/etc/fancontrol_param.conf");
    ASSERT_EQ(params.size() % 30, 0U);
    for (size_t at = 0; at < params.size(); at += 30)
    {
        EXPECT_TRUE(fixedWidth(params.substr(at, 30))) << params.substr(at, 30);
    }

    // A healthy server: alarm files present, nothing asserted.
    for (const char* path :
         {"/etc/nonrecoverlogreport_flag.conf", "/etc/logreport_flag.conf",
          "/etc/warnlogreport_flag.conf"})
    {
        std::string text = readFile(path);
        EXPECT_NE(text, "<missing>");
        EXPECT_EQ(text.find("=1"), std::string::npos) << path;
        EXPECT_EQ(text.find("=2"), std::string::npos) << path;
    }

    // Every GPIO the handlers use is exported with a 0 or 1.
    std::vector<int> gpios = {332, 381, 405, 402, 415, 413,
                              403, 391, 401, 410, 389, 390};
    for (int pin = 0; pin < 12; ++pin)
    {
        gpios.push_back(280 + pin);
        gpios.push_back(292 + pin);
    }
    for (int gpio : gpios)
    {
        std::string file =
            "/sys/class/gpio/gpio" + std::to_string(gpio) + "/value";
        std::string text = readFile(file);
        EXPECT_TRUE(text == "0\n" || text == "1\n") << file << ": " << text;
    }

    // Fan 7 drives PWM channel 8; there is no channel 7.
    for (int channel : {1, 2, 3, 4, 5, 6, 8})
    {
        EXPECT_TRUE(std::filesystem::exists("/sys/class/hwmon/hwmon0/pwm" +
                                            std::to_string(channel)));
    }
    EXPECT_FALSE(std::filesystem::exists("/sys/class/hwmon/hwmon0/pwm7"));
}

TEST(Board, EepromAndHostExportAreaHoldTheirData)
{
    std::string eeprom = readFile("/usr/bin/eeprom");
    ASSERT_GE(eeprom.size(), 0x3010U);
    EXPECT_EQ(eeprom.substr(0x1000, 4), "BIOS");
    EXPECT_EQ(eeprom.substr(0x1000 + 128 * 31, 4), "DIMs");
    EXPECT_NE(eeprom.substr(0x3000, 16), std::string(16, '\0'));
    EXPECT_EQ(eeprom[0], 1); // FRU common header version

    int fd = open("/dev/mem", O_RDONLY);
    ASSERT_GE(fd, 0);
    char header[8] = {};
    EXPECT_EQ(pread(fd, header, sizeof(header), 0x9FFF0008), 8);
    EXPECT_EQ(std::string(header, 4), "orv@");
    size_t length = static_cast<uint8_t>(header[4]) << 24 |
                    static_cast<uint8_t>(header[5]) << 16 |
                    static_cast<uint8_t>(header[6]) << 8 |
                    static_cast<uint8_t>(header[7]);
    EXPECT_GT(length, 61U); // more than one page
    EXPECT_LE(length, 65520U);
    uint32_t scu180 = 0;
    EXPECT_EQ(pread(fd, &scu180, 4, 0x1E6E2180), 4);
    EXPECT_EQ(scu180 & 2, 2U); // P2A bridge on
    close(fd);
}

} // namespace
