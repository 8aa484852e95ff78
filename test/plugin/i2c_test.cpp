// SPDX-License-Identifier: Apache-2.0
// I2C and SMBus transfers against simulated buses: /dev/i2c-N in the
// sandbox describes the devices, and the interposer serves the ioctls.

#include "plugin.hpp"

#include <cstring>
#include <filesystem>
#include <functional>

namespace
{

using I2cRead = int (*)(int, int, uint8_t, uint8_t*);
using I2cWrite = int (*)(int, int, uint8_t, uint8_t);
using I2cReadBuffer = int (*)(int, uint16_t, uint8_t, uint8_t*, uint16_t);
using I2cWriteBuffer = int (*)(int, uint16_t, uint8_t*, uint16_t);
using SmbusRead = int (*)(int, uint8_t, uint8_t, uint8_t, char*);

constexpr const char* busPath = "/dev/i2c-40";
constexpr const char* transferLog = "/tmp/i2c-transfers.log";

// A CPLD-like device with byte registers, a PMBus supply with block
// registers, one that never answers and one whose block reads are short.
constexpr const char* busText = R"(device 0x23
reg 0x02 15
reg 0x39 f0
reg 0x3c 01
device 0x58
reg 0x88 1a f8
reg 0x9a 0b "DELTA#12345" 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
device 0x59 noanswer
device 0x5a maxread=3
reg 0x9a "ABCDEF"
)";

class I2c : public testing::Test
{
  protected:
    void SetUp() override
    {
        writeFile(busPath, busText);
        std::filesystem::remove(transferLog);
        setenv("I2CSIM_LOG", transferLog, 1);
    }
    void TearDown() override
    {
        unsetenv("I2CSIM_LOG");
        std::filesystem::remove(busPath);
    }
    template <typename F>
    std::string stderrOf(F&& body)
    {
        testing::internal::CaptureStderr();
        body();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(I2c, RegisterReadAndWriteOnTheSimulatedBus)
{
    auto read = pluginSymbol<I2cRead>("i2c_read");
    auto write = pluginSymbol<I2cWrite>("i2c_write");

    uint8_t value = 0;
    EXPECT_EQ(read(40, 0x23, 0x02, &value), 0);
    EXPECT_EQ(value, 0x15);
    EXPECT_EQ(read(40, 0x23, 0x39, &value), 0);
    EXPECT_EQ(value, 0xF0);

    std::string before = readFile(busPath);
    EXPECT_EQ(write(40, 0x23, 0x3C, 0x00), 0);
    EXPECT_NE(readFile(busPath), before) << "the bus file keeps the write";
    EXPECT_EQ(read(40, 0x23, 0x3C, &value), 0);
    EXPECT_EQ(value, 0x00);
    EXPECT_EQ(read(40, 0x23, 0x02, &value), 0);
    EXPECT_EQ(value, 0x15) << "other registers unchanged";
}

TEST_F(I2c, DeviceThatDoesNotAnswerFailsWithTheTransferMessage)
{
    auto read = pluginSymbol<I2cRead>("i2c_read");
    auto write = pluginSymbol<I2cWrite>("i2c_write");
    uint8_t value = 0x77;
    int rc = 0;

    std::string err = stderrOf([&] { rc = read(40, 0x59, 0x02, &value); });
    EXPECT_LT(rc, 0);
    EXPECT_EQ(value, 0x77);
    EXPECT_EQ(err, " I2c40-89  reg 0x2 I2C_RDWR ioError=" + std::to_string(rc) +
                       "?\n");

    err = stderrOf([&] { rc = write(40, 0x59, 0x3C, 1); });
    EXPECT_LT(rc, 0);
    EXPECT_EQ(err, " i2c_write :I2c40-89  reg 0x3c I2C_RDWR ioError=" +
                       std::to_string(rc) + "?\n");

    // An address with no device at all does not answer either.
    EXPECT_LT(read(40, 0x10, 0x00, &value), 0);
}

TEST_F(I2c, MissingBusFailsEveryFunction)
{
    const std::string openMessage =
        "I2C Bus Open(\"/dev/i2c-99\"): \"Operation not permitted\"\n";
    uint8_t byte = 0;
    uint8_t buffer[4] = {};
    char text[8] = {};
    struct Case
    {
        const char* name;
        std::function<int()> run;
        std::string message;
    };
    const Case cases[] = {
        {"i2c_read",
         [&] { return pluginSymbol<I2cRead>("i2c_read")(99, 0x23, 2, &byte); },
         openMessage},
        {"i2c_write",
         [&] { return pluginSymbol<I2cWrite>("i2c_write")(99, 0x23, 2, 1); },
         openMessage},
        {"i2c_read_buffer",
         [&] {
             return pluginSymbol<I2cReadBuffer>("i2c_read_buffer")(
                 99, 0x58, 0x88, buffer, 2);
         },
         ""},
        {"i2c_write_buffer",
         [&] {
             return pluginSymbol<I2cWriteBuffer>("i2c_write_buffer")(99, 0x58,
                                                                     buffer, 2);
         },
         ""},
        {"smbus_read",
         [&] {
             return pluginSymbol<SmbusRead>("smbus_read")(99, 0x58, 0x9A, 4,
                                                          text);
         },
         "open psu file fail\n"},
    };
    for (const auto& c : cases)
    {
        int rc = 0;
        std::string err = stderrOf([&] { rc = c.run(); });
        EXPECT_EQ(rc, -1) << c.name;
        EXPECT_EQ(err, c.message) << c.name;
    }
}

TEST_F(I2c, BufferTransfersReturnTheIoctlResult)
{
    auto readBuffer = pluginSymbol<I2cReadBuffer>("i2c_read_buffer");
    auto writeBuffer = pluginSymbol<I2cWriteBuffer>("i2c_write_buffer");

    uint8_t vin[2] = {};
    EXPECT_EQ(readBuffer(40, 0x58, 0x88, vin, 2), 2);
    EXPECT_EQ(vin[0], 0x1A);
    EXPECT_EQ(vin[1], 0xF8);

    // Byte registers read on from one to the next.
    uint8_t regs[3] = {};
    EXPECT_EQ(readBuffer(40, 0x23, 0x02, regs, 1), 2);
    EXPECT_EQ(regs[0], 0x15);

    uint8_t update[3] = {0x39, 0x0F, 0x00};
    EXPECT_EQ(writeBuffer(40, 0x23, update, 2), 1);
    uint8_t value = 0;
    EXPECT_EQ(pluginSymbol<I2cRead>("i2c_read")(40, 0x23, 0x39, &value), 0);
    EXPECT_EQ(value, 0x0F);

    EXPECT_LT(readBuffer(40, 0x59, 0x88, vin, 2), 0);
    EXPECT_LT(writeBuffer(40, 0x59, update, 2), 0);
}

TEST_F(I2c, SmbusBlockReadChoosesTheTransactionTypeByLength)
{
    auto smbusRead = pluginSymbol<SmbusRead>("smbus_read");
    struct Case
    {
        uint8_t address;
        uint8_t length;
        int count;
        std::string bytes;
        const char* type;
    };
    const std::string model = std::string("\x0b") + "DELTA#12345";
    const Case cases[] = {
        {0x58, 4, 4,
         "\x0b"
         "DEL",
         "size=i2c_block_data "},
        {0x58, 12, 12, model, "size=i2c_block_data "},
        {0x58, 32, 32, model, "size=i2c_block_broken "},
        {0x58, 40, 32, model,
         "size=i2c_block_broken "},                  // asks the kernel for 32
        {0x5A, 6, 3, "ABC", "size=i2c_block_data "}, // the device answers short
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(transferLog);
        char out[64];
        memset(out, '#', sizeof(out));
        EXPECT_EQ(smbusRead(40, c.address, 0x9A, c.length, out), c.count)
            << int(c.length);
        EXPECT_EQ(std::string(out, c.bytes.size()), c.bytes);
        EXPECT_EQ(out[c.count], '#') << "wrote past the count";
        EXPECT_NE(readFile(transferLog).find(c.type), std::string::npos)
            << int(c.length) << ": " << readFile(transferLog);
    }

    char out[40];
    int rc = 0;
    std::string err = stderrOf([&] { rc = smbusRead(40, 0x59, 0x9A, 4, out); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, "psu i2c_smbus_access fail\n");
}

} // namespace
