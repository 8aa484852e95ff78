// SPDX-License-Identifier: Apache-2.0
// The supplies over PMBus: location files, the presence and AC probe, the
// information record (0x58), the factory-test status line (0x81) and the
// firmware version (0x94).

#include "board.hpp"
#include "plugin.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr int psuBus = 8;
constexpr const char* psu1File = "/etc/default/obmc/other/system/chassis/psu1";
constexpr const char* psu2File = "/etc/default/obmc/other/system/chassis/psu2";
constexpr const char* busFile = "/dev/i2c-8";

/* Puts the supplies' bus and location files back as the board has them. */
struct RestorePsus
{
    std::string bus = readFile(busFile);
    std::string first = readFile(psu1File);
    std::string second = readFile(psu2File);
    ~RestorePsus()
    {
        writeFile(busFile, bus);
        writeFile(psu1File, first);
        writeFile(psu2File, second);
    }
};

Bytes block(const std::string& text)
{
    Bytes bytes{static_cast<uint8_t>(text.size())};
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
}

std::string text(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

TEST(PsuProbe, AnswersAcLostOrSilent)
{
    RestorePsus restore;
    auto probe =
        pluginSymbol<int (*)(uint8_t, uint8_t)>("m7r_read_psu_i2cbus_and_addr");
    struct Case
    {
        const char* what;
        Bytes vin;
        unsigned failures;
        bool answers;
        int result;
    };
    const Case cases[] = {
        {"230 V", {0xCC, 0xF9}, 0, true, 0},
        {"exactly 80 V", {0xA0, 0xF8}, 0, true, 0},
        {"32 V", {0x40, 0xF8}, 0, true, -2},
        {"79 V", {0x9E, 0xF8}, 0, true, -2},
        {"answers on the fifth try", {0xCC, 0xF9}, 4, true, 0},
        {"five failures", {0xCC, 0xF9}, 5, true, -1},
        {"never answers", {0xCC, 0xF9}, 0, false, -1},
    };
    for (const auto& c : cases)
    {
        board::setI2cRegister(psuBus, 0x58, 0x88, c.vin);
        board::setI2cAnswers(psuBus, 0x58, c.answers);
        if (c.failures > 0)
        {
            board::failI2cTransfers(psuBus, 0x58, c.failures);
        }
        EXPECT_EQ(probe(psuBus, 0x58), c.result) << c.what;
        board::setI2cAnswers(psuBus, 0x58, true);
        board::failI2cTransfers(psuBus, 0x58, 0);
    }
    EXPECT_EQ(probe(0, 0), -1) << "no bus";
}

TEST(PsuLocation, ScanTakesDecimalValues)
{
    RestorePsus restore;
    auto find = pluginSymbol<int (*)(const char*, uint8_t*, uint8_t*)>(
        "m7r_find_psu_i2cbus_and_addr");
    struct Case
    {
        const char* what;
        const char* content;
        int result;
        uint8_t bus;
        uint8_t addr;
    };
    const Case cases[] = {
        {"board", "I2CBUS=8\nI2CADDR=88\n", 0, 8, 88},
        {"hex address", "I2CBUS=8\nI2CADDR=0x58\n", 0, 8, 0},
        {"later line wins", "I2CBUS=8\nI2CBUS=9\nI2CADDR=89", 0, 9, 89},
        {"key missing", "I2CBUS=7\n", 0, 7, 0xEE},
        {"empty value", "I2CBUS=\nI2CADDR=300\n", 0, 0, 44},
        {"commented out", "#I2CBUS=3\n", 0, 3, 0xEE},
    };
    for (const auto& c : cases)
    {
        writeFile(psu1File, c.content);
        uint8_t bus = 0xEE;
        uint8_t addr = 0xEE;
        EXPECT_EQ(find(psu1File, &bus, &addr), c.result) << c.what;
        EXPECT_EQ(bus, c.bus) << c.what;
        EXPECT_EQ(addr, c.addr) << c.what;
    }
    uint8_t bus = 0xEE;
    uint8_t addr = 0xEE;
    EXPECT_EQ(find("/etc/no-such-psu", &bus, &addr), -1);
    EXPECT_EQ(bus, 0xEE);
}

/* The information record of the default board's top supply. */
Bytes topRecord()
{
    Bytes record(221, 0);
    auto put = [&record](size_t at, const std::string& value) {
        std::memcpy(record.data() + at, value.data(), value.size());
    };
    record[2] = 1;
    put(3, "Top");
    put(35, "VT-800P");
    put(67, "VOLTARA");
    put(99, "VT8P2001A0123");
    put(163, "8P2001A0123");
    put(195, "R1.02");
    record[213] = 0x03;
    record[214] = 0x20;
    record[218] = 4;
    record[219] = 2;
    record[220] = 3;
    return record;
}

TEST(PsuInfo, RecordLayout)
{
    RestorePsus restore;
    auto answer = call(0x3A, 0x58, {0x00});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, topRecord());

    struct Case
    {
        const char* what;
        uint8_t reg;
        Bytes value;
        size_t at;
        Bytes expected;
    };
    const Case cases[] = {
        {"serial cut at #",
         0x9E,
         block("AB123#X"),
         99,
         {'A', 'B', '1', '2', '3', 0}},
        {"short serial", 0x9E, block("AB123#X"), 163, {'1', '2', '3', 0, 0}},
        {"AC lost at 79 V", 0x88, {0x9E, 0xF8}, 216, {1}},
        {"AC present at 80 V", 0x88, {0xA0, 0xF8}, 216, {0}},
        {"1200 W", 0xA7, {0xB0, 0x04}, 211, {0x00, 0x00, 0x04, 0xB0}},
        {"input fault", 0x79, {0x02, 0x00}, 219, {4}},
        {"output fault", 0x79, {0x00, 0x04}, 219, {3}},
        {"power-good bit ignored for 3", 0x79, {0x00, 0x08}, 219, {2}},
        {"high bit 0", 0x79, {0x00, 0x01}, 219, {1}},
        {"high bit 1", 0x79, {0x00, 0x02}, 219, {0}},
        {"revision not cut",
         0x9B,
         block("R1#02-extra-long"),
         195,
         {'R', '1', '#', '0', '2', '-', 'e', 'x', 't', 'r', 'a', '-', 'l', 'o',
          0, 0}},
        {"model fills its field", 0x9A, block(std::string(40, 'M')), 35,
         Bytes(30, 'M')},
    };
    for (const auto& c : cases)
    {
        std::string saved = readFile(busFile);
        board::setI2cRegister(psuBus, 0x58, c.reg, c.value);
        auto got = call(0x3A, 0x58, {0x00});
        writeFile(busFile, saved);
        ASSERT_EQ(got.data.size(), 221u) << c.what;
        EXPECT_EQ(Bytes(got.data.begin() + static_cast<long>(c.at),
                        got.data.begin() +
                            static_cast<long>(c.at + c.expected.size())),
                  c.expected)
            << c.what;
    }
}

// regression: the simulated supplies took a plain I2C_SLAVE, which a BMC
// refuses for a supply its PMBus driver holds; 0x58 must answer regardless
TEST(PsuInfo, AnswersForSuppliesHeldByTheirDriver)
{
    EXPECT_EQ(call(0x3A, 0x58, {0x01}).data.size(), 221u);
    int fd = open(busFile, O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x59), -1);
    EXPECT_EQ(errno, EBUSY);
    close(fd);
}

TEST(PsuInfo, SelectorsPositionsAndFailures)
{
    RestorePsus restore;
    auto bottom = call(0x3A, 0x58, {0x01});
    ASSERT_EQ(bottom.data.size(), 221u);
    EXPECT_EQ(bottom.data[1], 1);
    EXPECT_EQ(text(Bytes(bottom.data.begin() + 3, bottom.data.begin() + 10)),
              std::string("Bottom\0", 7));

    for (uint8_t selector : {0x02, 0xFF})
    {
        auto bad = call(0x3A, 0x58, {selector});
        EXPECT_EQ(bad.cc, 0x00);
        EXPECT_EQ(bad.data, Bytes{0x80});
    }

    // A supply at another address has no position name.
    board::setI2cRegister(psuBus, 0x57, 0x9A, block("X"));
    writeFile(psu1File, "I2CBUS=8\nI2CADDR=87\n");
    auto other = call(0x3A, 0x58, {0x00});
    ASSERT_EQ(other.data.size(), 221u);
    EXPECT_EQ(other.data[1], 0);
    EXPECT_EQ(Bytes(other.data.begin() + 3, other.data.begin() + 35),
              Bytes(32, 0));
    EXPECT_EQ(other.data[35], 'X');

    // The identity reads come first; a silent supply fails there.
    writeFile(psu1File, "I2CBUS=8\nI2CADDR=88\n");
    board::setI2cAnswers(psuBus, 0x58, false);
    auto silent = call(0x3A, 0x58, {0x00});
    EXPECT_EQ(silent.cc, 0x00);
    EXPECT_EQ(silent.data, Bytes{0x01});

    unlink(psu1File);
    auto missing = call(0x3A, 0x58, {0x00});
    EXPECT_EQ(missing.cc, 0x00);
    EXPECT_EQ(missing.data, Bytes{0x01});
}

TEST(PsuStatus, FactoryTestLine)
{
    RestorePsus restore;
    EXPECT_EQ(text(call(0x3A, 0x81, {0x01}).data),
              "Sn:VT8P2001A0123#01 Cap:800W ver:R1.02 AC:230000 DC:12050 "
              "PSU alert:ok ");
    auto second = call(0x3A, 0x81, {0x02});
    EXPECT_EQ(second.cc, 0x00);
    EXPECT_EQ(text(second.data).substr(0, 31),
              "Sn:VT8P2001A0456#01 Cap:800W ve");

    for (uint8_t index : {0x00, 0x03, 0xFF})
    {
        auto bad = call(0x3A, 0x81, {index});
        EXPECT_EQ(bad.cc, 0x00);
        EXPECT_EQ(bad.data, Bytes{0x02});
    }

    // A status word with an input fault; bit 3 alone stays ok.
    board::setI2cRegister(psuBus, 0x58, 0x79, {0x00, 0x08});
    EXPECT_NE(text(call(0x3A, 0x81, {0x01}).data).find("PSU alert:ok "),
              std::string::npos);
    board::setI2cRegister(psuBus, 0x58, 0x79, {0x04, 0x00});
    EXPECT_NE(text(call(0x3A, 0x81, {0x01}).data).find("PSU alert:fail "),
              std::string::npos);

    // A supply with AC lost still counts as present.
    board::setI2cRegister(psuBus, 0x59, 0x88, {0x40, 0xF8});
    EXPECT_EQ(text(call(0x3A, 0x81, {0x02}).data).substr(0, 3), "Sn:");

    board::setI2cAnswers(psuBus, 0x59, false);
    auto absent = call(0x3A, 0x81, {0x02});
    EXPECT_EQ(absent.cc, 0x00);
    EXPECT_EQ(absent.data, Bytes{0x01});
}

TEST(PsuStatus, MissingHwmonNodeReadsZero)
{
    RestorePsus restore;
    const std::string uevent = "/sys/class/hwmon/hwmon3/uevent";
    std::string saved = readFile(uevent);
    writeFile(uevent, "OF_NAME=asp2500\nOF_FULLNAME=/ahb/elsewhere@11\n");
    auto answer = call(0x3A, 0x81, {0x01});
    writeFile(uevent, saved);
    EXPECT_NE(text(answer.data).find(" AC:0 DC:0 "), std::string::npos)
        << text(answer.data);
}

TEST(PsuVersion, QuotedTextOfTheFirstLine)
{
    const std::string first = "/run/psu0.version";
    const std::string second = "/run/psu1.version";
    std::string savedFirst = readFile(first);
    std::string savedSecond = readFile(second);
    struct Case
    {
        const char* what;
        uint8_t selector;
        std::optional<std::string> content;
        Bytes answer;
    };
    const Case cases[] = {
        {"board", 0x01, std::nullopt, {'R', '1', '.', '0', '2', 0, 0, 0, 0, 0}},
        {"version=",
         0x01,
         "version=\"1.2.3\"\n",
         {'1', '.', '2', '.', '3', 0, 0, 0, 0, 0}},
        {"starts with the quote", 0x01, "\"1.2.3\"\n", Bytes(10, 0)},
        {"cut at ten",
         0x01,
         "V=\"0123456789AB\"\n",
         {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}},
        {"no quote", 0x01, "1.2.3\n", Bytes(10, 0)},
        {"empty file", 0x01, "", Bytes(10, 0)},
        {"other selectors read the second",
         0x07,
         "V=\"two\"\n",
         {'t', 'w', 'o', 0, 0, 0, 0, 0, 0, 0}},
        {"missing", 0x00, "<missing>", {0x01}},
    };
    for (const auto& c : cases)
    {
        const std::string& path = c.selector == 1 ? first : second;
        if (c.content == "<missing>")
        {
            unlink(path.c_str());
        }
        else if (c.content)
        {
            writeFile(path, *c.content);
        }
        auto answer = call(0x3A, 0x94, {c.selector});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
        writeFile(first, savedFirst);
        writeFile(second, savedSecond);
    }
}

} // namespace
