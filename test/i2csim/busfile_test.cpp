// SPDX-License-Identifier: Apache-2.0
#include "busfile.hpp"

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace i2csim
{
namespace
{

using ::testing::HasSubstr;
using namespace std::literals;
using Bytes = std::vector<std::uint8_t>;

// Parameterized cases are named by their name field.
constexpr auto caseName = [](const auto& param) {
    return std::string(param.param.name);
};

Bus busOf(std::string_view text)
{
    ParseResult parsed = parse(text);
    EXPECT_TRUE(parsed.bus.has_value())
        << "line " << parsed.errorLine << ": " << parsed.error;
    return parsed.bus.value_or(Bus{});
}

struct TextCase
{
    const char* name;
    std::string_view text;
    std::string_view expected; // canonical text, or the error message
    std::size_t errorLine = 0;
};

class Parse : public ::testing::TestWithParam<TextCase>
{};

TEST_P(Parse, GivesCanonicalTextOrNamesTheBadLine)
{
    const TextCase& c = GetParam();
    ParseResult parsed = parse(c.text);
    if (c.errorLine == 0)
    {
        ASSERT_TRUE(parsed.bus) << parsed.errorLine << ": " << parsed.error;
        EXPECT_EQ(serialize(*parsed.bus), c.expected);
        EXPECT_EQ(busOf(c.expected), *parsed.bus);
        return;
    }
    EXPECT_FALSE(parsed.bus);
    EXPECT_EQ(parsed.errorLine, c.errorLine);
    EXPECT_THAT(parsed.error, HasSubstr(c.expected));
}

INSTANTIATE_TEST_SUITE_P(
    BusFile, Parse,
    ::testing::Values(
        TextCase{"empty", "# nothing\n\n  \n", ""},
        TextCase{"layout",
                 "# bus 10\r\ndevice 0x23 # cpld\nreg 39 FF\n\treg 02 0x15",
                 "device 0x23\nreg 0x02 15\nreg 0x39 ff\n"},
        TextCase{"devicesSorted", "device 58\ndevice 0x23\n",
                 "device 0x23\n\ndevice 0x58\n"},
        TextCase{"attributes",
                 "device 58 maxread=4 ptr=0a bound fail=2 noanswer\n",
                 "device 0x58 noanswer bound fail=2 maxread=4 ptr=0x0a\n"},
        TextCase{"defaultsDropped", "device 58 fail=0 ptr=0\n",
                 "device 0x58\n"},
        TextCase{"strings",
                 "device 58\nreg 9a \"\\x05A#\\\\\\\"\" 00\nreg 10 \"A\"\n",
                 "device 0x58\nreg 0x10 41\nreg 0x9a 05 41 23 5c 22 00\n"},
        TextCase{"shortBlocks", "device 58\nblock 20\nblock 21 7f\n",
                 "device 0x58\nblock 0x20\nblock 0x21 7f\n"},
        TextCase{"unknownKeyword", "device 23\nregister 02 15\n",
                 "unknown keyword 'register'", 2},
        TextCase{"registerFirst", "# x\nreg 02 15\n", "before any device", 2},
        TextCase{"tenBitAddress", "device 0x80\n", "bad device address", 1},
        TextCase{"deviceTwice", "device 23\ndevice 0x23\n", "described twice",
                 2},
        TextCase{"valueTooBig", "device 23\nreg 10 100\n", "bad value", 2},
        TextCase{"noValue", "device 23\nreg 10\n", "needs a value", 2},
        TextCase{"openString", "device 23\nreg 10 \"abc\n", "closing quote", 2},
        TextCase{"badEscape", "device 23\nreg 10 \"\\x4\"\n", "bad escape", 2},
        TextCase{"glued", "device 23\nreg 10 \"ab\"cd\n", "blank must follow",
                 2},
        TextCase{"badAttribute", "device 23 fail=-1\n",
                 "bad device attribute 'fail=-1'", 1},
        TextCase{"binary", "dev\0ice\n"sv, "unknown keyword 'dev?ice'", 1}),
    caseName);

constexpr const char* board = R"(
device 0x23
reg 0x02 15
reg 0x03 07
reg 0x05 aa bb
reg 0xff 01
device 0x58
reg 0x99 "\x05DELTA"
device 0x59 noanswer
)";

struct ReadCase
{
    const char* name;
    std::uint16_t addr;
    std::uint8_t reg;
    Bytes expected; // its size is the length read
    int err = 0;
};

class Read : public ::testing::TestWithParam<ReadCase>
{};

TEST_P(Read, ReturnsWhatTheDeviceHoldsAndChangesNothing)
{
    Bus bus = busOf(board);
    const Bus before = bus;
    Bytes out;
    const ReadCase& c = GetParam();
    EXPECT_EQ(readRegisters(bus, c.addr, c.reg, c.expected.size(), out), c.err);
    if (c.err == 0)
    {
        EXPECT_EQ(out, c.expected);
    }
    EXPECT_EQ(bus, before);
}

INSTANTIATE_TEST_SUITE_P(
    BusFile, Read,
    ::testing::Values(
        ReadCase{"autoIncrement", 0x23, 0x02, {0x15, 0x07, 0xff}},
        ReadCase{"blockInRunGivesFirstByte", 0x23, 0x04, {0xff, 0xaa, 0xff}},
        ReadCase{"wrapsAround", 0x23, 0xff, {0x01, 0xff}},
        ReadCase{"blockPaddedWithFF", 0x23, 0x05, {0xaa, 0xbb, 0xff}},
        ReadCase{"blockPrefix", 0x58, 0x99, {0x05, 'D'}},
        ReadCase{"noAnswer", 0x59, 0x00, {0}, ENXIO},
        ReadCase{"absent", 0x24, 0x00, {0}, ENXIO},
        ReadCase{"tenBitAliasIsAbsent", 0x123, 0x02, {0}, ENXIO}),
    caseName);

struct WriteCase
{
    const char* name;
    Bytes bytes;
    const char* after;
};

class Write : public ::testing::TestWithParam<WriteCase>
{};

TEST_P(Write, ChangesTheDescription)
{
    Bus bus = busOf("device 0x23\nreg 0x02 15\nreg 0x03 07 08\n");
    EXPECT_EQ(writeBytes(bus, 0x23, GetParam().bytes), 0);
    EXPECT_EQ(serialize(bus), GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(
    BusFile, Write,
    ::testing::Values(
        WriteCase{
            "byte", {0x02, 0x16}, "device 0x23\nreg 0x02 16\nreg 0x03 07 08\n"},
        WriteCase{"createsAndWraps",
                  {0xff, 0x01, 0x02},
                  "device 0x23\nreg 0x00 02\nreg 0x02 15\nreg 0x03 07 08\n"
                  "reg 0xff 01\n"},
        WriteCase{"replacesBlock",
                  {0x03, 0x09},
                  "device 0x23\nreg 0x02 15\nblock 0x03 09\n"},
        WriteCase{"runOverBlockSetsFirstByte",
                  {0x02, 0x00, 0x01},
                  "device 0x23\nreg 0x02 00\nreg 0x03 01 08\n"},
        WriteCase{"registerAloneSetsPointer",
                  {0x03},
                  "device 0x23 ptr=0x03\nreg 0x02 15\nreg 0x03 07 08\n"}),
    caseName);

TEST(BusFile, TransferStopsAtTheFirstDeviceThatDoesNotAnswer)
{
    Bus bus = busOf("device 0x23\nreg 0x02 15\ndevice 0x59 noanswer\n");
    Bytes first{0x02, 0x33};
    Bytes second{0x00, 0x01};
    Bytes third{0x02, 0x44};
    const std::array<Message, 3> msgs{Message{0x23, false, first},
                                      Message{0x59, false, second},
                                      Message{0x23, false, third}};
    EXPECT_EQ(transfer(bus, msgs), ENXIO);
    EXPECT_EQ(serialize(bus),
              "device 0x23\nreg 0x02 33\n\ndevice 0x59 noanswer\n");
}

struct SmbusCase
{
    const char* name;
    std::uint16_t addr;
    bool read;
    std::uint8_t command;
    std::uint32_t size;
    Bytes in; // leading bytes of the data union
    int err;
    Bytes out;                   // leading bytes of the data union afterwards
    const char* after = nullptr; // a line of the description, if changed
};

class Smbus : public ::testing::TestWithParam<SmbusCase>
{};

TEST_P(Smbus, ActsLikeI2cDevOverPlainI2c)
{
    const SmbusCase& c = GetParam();
    Bus bus = busOf("device 0x58 maxread=4 ptr=0x88\nreg 0x20 5a\n"
                    "reg 0x79 40 08\nreg 0x88 1a f8\nreg 0x9a 05 \"DELTA\"\n"
                    "reg 0x9b 00 11\nreg 0x9c 21 11\n"
                    "device 0x59\nreg 0x9a 05 \"DELTA\"\n");
    const std::string before = serialize(bus);
    SmbusData data{};
    std::copy(c.in.begin(), c.in.end(), data.begin());

    EXPECT_EQ(smbusTransfer(bus, c.addr, c.read, c.command, c.size, data),
              c.err);
    EXPECT_EQ(Bytes(data.begin(), data.begin() + c.out.size()), c.out);
    if (c.after == nullptr)
    {
        EXPECT_EQ(serialize(bus), before);
    }
    else
    {
        EXPECT_THAT(serialize(bus), HasSubstr(c.after));
    }
}

INSTANTIATE_TEST_SUITE_P(
    BusFile, Smbus,
    ::testing::Values(
        SmbusCase{"byteReadAtPointer", 0x58, true, 0, 1, {}, 0, {0x1a}},
        SmbusCase{"byteWriteSetsPointer",
                  0x58,
                  false,
                  0x20,
                  1,
                  {},
                  0,
                  {},
                  "device 0x58 maxread=4 ptr=0x20\n"},
        SmbusCase{"byteDataWrite",
                  0x58,
                  false,
                  0x20,
                  2,
                  {0x01},
                  0,
                  {},
                  "\nreg 0x20 01\n"},
        SmbusCase{"wordLowByteFirst", 0x58, true, 0x79, 3, {}, 0, {0x40, 8}},
        SmbusCase{"blockDataCountFirst",
                  0x58,
                  true,
                  0x9a,
                  5,
                  {},
                  0,
                  {0x05, 'D', 'E', 'L', 'T', 'A', 0x00}},
        SmbusCase{"blockDataZeroCount", 0x58, true, 0x9b, 5, {}, EPROTO, {}},
        SmbusCase{"blockDataWrite",
                  0x58,
                  false,
                  0x9b,
                  5,
                  {2, 0x41, 0x42},
                  0,
                  {},
                  "\nreg 0x9b 02 41 42\n"},
        SmbusCase{"i2cBlockCappedByMaxread",
                  0x58,
                  true,
                  0x9a,
                  8,
                  {16},
                  0,
                  {4, 0x05, 'D', 'E', 'L', 0x00}},
        SmbusCase{"brokenReadsAFullBlock",
                  0x59,
                  true,
                  0x9a,
                  6,
                  {2},
                  0,
                  {32, 0x05, 'D', 'E', 'L', 'T', 'A', 0xff}},
        SmbusCase{"i2cBlockZeroLength", 0x59, true, 0x9a, 8, {0}, EINVAL, {}},
        SmbusCase{"i2cBlockWrite",
                  0x58,
                  false,
                  0x88,
                  8,
                  {1, 0x7f},
                  0,
                  {},
                  "\nblock 0x88 7f\n"},
        SmbusCase{"unknownSize", 0x58, true, 0x20, 9, {}, EINVAL, {}}),
    caseName);

} // namespace
} // namespace i2csim
