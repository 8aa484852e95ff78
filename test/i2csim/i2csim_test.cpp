// SPDX-License-Identifier: Apache-2.0
// The simulated I2C buses as the plug-in meets them: a bus file's grammar,
// then real ioctl calls with the kernel's structs on a bus file, served by
// the interposer (sim/i2c/README.md).

#include "busfile.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<uint8_t>;

TEST(BusFile, GrammarGivesCanonicalTextOrNamesTheBadLine)
{
    struct Case
    {
        std::string text;
        std::string expected; // canonical text, or part of the error
        size_t errorLine;
    };
    const Case cases[] = {
        {"# bus 10\r\ndevice 0x23 # cpld\nreg 39 FF\n\treg 02 0x15\ndevice 22",
         "device 0x22\n\ndevice 0x23\nreg 0x02 15\nreg 0x39 ff\n", 0},
        {"device 58 maxread=4 ptr=0a bound fail=2 noanswer\ndevice 59 fail=0 ptr=0",
         "device 0x58 noanswer bound fail=2 maxread=4 ptr=0x0a\n\ndevice 0x59\n",
         0},
        {"device 58\nreg 9a \"\\x05A#\\\\\\\"\" 00\nreg 10 \"A\"\nblock 20\n"
         "block 21 7f\n",
         "device 0x58\nreg 0x10 41\nblock 0x20\nblock 0x21 7f\n"
         "reg 0x9a 05 41 23 5c 22 00\n",
         0},
        {"device 23\nregister 02 15\n", "unknown keyword 'register'", 2},
        {"# x\nreg 02 15\n", "before any device", 2},
        {"device 0x80\n", "bad device address", 1},
        {"device 23\ndevice 0x23\n", "described twice", 2},
        {"device 23\nreg 10 100\n", "bad value", 2},
        {"device 23\nreg 10\n", "needs a value", 2},
        {"device 23\nreg 10 \"abc\n", "closing quote", 2},
        {"device 23\nreg 10 \"ab\"cd\n", "blank must follow", 2},
        {"device 23 fail=-1\n", "bad device attribute 'fail=-1'", 1},
    };
    for (const auto& c : cases)
    {
        auto parsed = i2csim::parse(c.text);
        EXPECT_EQ(parsed.errorLine, c.errorLine) << c.text;
        if (c.errorLine == 0 && parsed.bus)
        {
            EXPECT_EQ(i2csim::serialize(*parsed.bus), c.expected);
        }
        EXPECT_NE(parsed.error.find(c.errorLine ? c.expected : ""),
                  std::string::npos)
            << parsed.error;
    }
}

class Bus : public testing::Test
{
  protected:
    void SetUp() override
    {
        path = testing::TempDir() + "i2csim-bus-XXXXXX";
        fd = mkstemp(path.data());
        describe("device 0x23\nreg 0x02 15\nreg 0x03 07\nreg 0x05 aa bb\n"
                 "reg 0xff 01\ndevice 0x58 maxread=6\nreg 0x79 40 08\n"
                 "reg 0x9a \"\\x0bDELTA#12345\"\nreg 0x9b 00 11\n"
                 "device 0x59 noanswer\ndevice 0x5a fail=2\nreg 0x88 00 01\n");
    }
    void TearDown() override
    {
        close(fd);
        unlink(path.c_str());
    }
    void describe(const std::string& text)
    {
        std::ofstream(path, std::ios::trunc) << text;
    }
    std::string content()
    {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    // ioctl's result, and errno on failure.
    std::pair<int, int> rdwr(std::vector<i2c_msg> msgs)
    {
        i2c_rdwr_ioctl_data data{msgs.data(), static_cast<__u32>(msgs.size())};
        errno = 0;
        int ret = ioctl(fd, I2C_RDWR, &data);
        return {ret, ret < 0 ? errno : 0};
    }
    // The combined write-register-then-read the plug-in uses.
    std::pair<int, int> read(uint16_t addr, uint8_t reg, Bytes& out)
    {
        return rdwr(
            {{addr, 0, 1, &reg},
             {addr, I2C_M_RD, static_cast<__u16>(out.size()), out.data()}});
    }
    std::pair<int, int> write(uint16_t addr, Bytes bytes)
    {
        return rdwr(
            {{addr, 0, static_cast<__u16>(bytes.size()), bytes.data()}});
    }
    std::pair<int, int> smbus(uint8_t rw, uint8_t command, uint32_t size,
                              i2c_smbus_data* data)
    {
        i2c_smbus_ioctl_data args{rw, command, size, data};
        errno = 0;
        int ret = ioctl(fd, I2C_SMBUS, &args);
        return {ret, ret < 0 ? errno : 0};
    }

    std::string path;
    int fd = -1;
};

TEST_F(Bus, ReadsServeTheDescriptionAndChangeNothing)
{
    struct Case
    {
        uint16_t addr;
        uint8_t reg;
        Bytes expected; // its size is the length read
        int err;
    };
    const Case cases[] = {
        {0x23, 0x02, {0x15, 0x07, 0xff}, 0}, // byte registers run on
        {0x23, 0x04, {0xff, 0xaa, 0xff}, 0}, // a block met gives its first
        {0x23, 0xff, {0x01, 0xff}, 0},       // wraps to 0x00
        {0x23, 0x05, {0xaa, 0xbb, 0xff}, 0}, // a block, then ff
        {0x59, 0x00, {0xee}, ENXIO},         // noanswer
        {0x24, 0x00, {0xee}, ENXIO},         // not described
    };
    std::string before = content();
    for (const auto& c : cases)
    {
        Bytes out(c.expected.size(), 0xee);
        EXPECT_EQ(read(c.addr, c.reg, out),
                  std::make_pair(c.err ? -1 : 2, c.err));
        EXPECT_EQ(out, c.expected) << int(c.reg);
    }
    EXPECT_EQ(content(), before);
}

TEST_F(Bus, WritesAreSavedInCanonicalForm)
{
    describe("# CPLD\ndevice 23\nreg 02 15 # version\nreg 03 07 08\n");
    EXPECT_EQ(write(0x23, {0x02, 0x00, 0x01}).first, 1); // runs into a block
    EXPECT_EQ(write(0x23, {0xff, 0x01, 0x02}).first, 1); // creates, wraps
    EXPECT_EQ(write(0x23, {0x03}).first, 1);             // sets the pointer
    EXPECT_EQ(content(), "device 0x23 ptr=0x03\nreg 0x00 02\nreg 0x02 00\n"
                         "reg 0x03 01 08\nreg 0xff 01\n");
    EXPECT_EQ(write(0x23, {0x03, 0x09}).first, 1); // a block, replaced whole
    EXPECT_NE(content().find("\nblock 0x03 09\n"), std::string::npos);

    // Messages run in order up to the first device that does not answer.
    Bytes a{0x02, 0x33}, b{0x00}, c{0x02, 0x44};
    EXPECT_EQ(rdwr({{0x23, 0, 2, a.data()},
                    {0x59, 0, 1, b.data()},
                    {0x23, 0, 2, c.data()}}),
              std::make_pair(-1, ENXIO));
    EXPECT_NE(content().find("reg 0x02 33\n"), std::string::npos);
}

TEST_F(Bus, FailingDeviceCountsDownInTheFile)
{
    Bytes out(2);
    EXPECT_EQ(read(0x5a, 0x88, out), std::make_pair(-1, ENXIO));
    EXPECT_NE(content().find("device 0x5a fail=1\n"), std::string::npos);
    EXPECT_EQ(read(0x5a, 0x88, out).second, ENXIO);
    EXPECT_EQ(read(0x5a, 0x88, out).first, 2);
    EXPECT_EQ(out, (Bytes{0x00, 0x01}));
    EXPECT_NE(content().find("device 0x5a\n"), std::string::npos);
}

TEST_F(Bus, RefusesWhatI2cDevRefuses)
{
    std::string before = content();
    Bytes buffer(8193, 0x3c);
    __u16 read = I2C_M_RD | I2C_M_RECV_LEN;
    EXPECT_EQ(rdwr({}).second, EINVAL);
    EXPECT_EQ(
        rdwr(std::vector<i2c_msg>(43, {0x23, 0, 1, buffer.data()})).second,
        EINVAL);
    EXPECT_EQ(rdwr({{0x23, 0, 8193, buffer.data()}}).second, EINVAL);
    EXPECT_EQ(rdwr({{0x23, I2C_M_TEN, 1, buffer.data()}}).second, EINVAL);
    EXPECT_EQ(rdwr({{0x23, read, 33, buffer.data()}}).second, EINVAL);
    EXPECT_EQ(rdwr({{0x23, 0, 2, nullptr}}).second, EFAULT);
    EXPECT_EQ(content(), before);
}

TEST_F(Bus, SmbusActsLikeI2cDevAtTheAddressOfThisDescriptor)
{
    i2c_smbus_data data{};
    // Nothing set yet: address 0, where nothing answers.
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).second,
              ENXIO);
    EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x80), -1);
    ASSERT_EQ(ioctl(fd, I2C_SLAVE_FORCE, 0x58), 0);

    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x79, I2C_SMBUS_WORD_DATA, &data).first, 0);
    EXPECT_EQ(data.word, 0x0840); // low byte first on the bus
    data.block[0] = 5;
    ASSERT_EQ(
        smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data).first, 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data.block), 6), "\x05\x0b"
                                                                   "DELT");
    // The old type reads 32 bytes whatever asked; this device gives 6.
    data.block[0] = 2;
    ASSERT_EQ(
        smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_BROKEN, &data).first,
        0);
    EXPECT_EQ(data.block[0], 6);
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_BLOCK_DATA, &data).first,
              0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data.block), 12),
              "\x0b"
              "DELTA#12345");
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x9b, I2C_SMBUS_BLOCK_DATA, &data).second,
              EPROTO); // count byte 0
    data.block[0] = 33;
    EXPECT_EQ(
        smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data).second,
        EINVAL);
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x9a, 9, &data).second, EINVAL);

    data.word = 0x1234;
    ASSERT_EQ(smbus(I2C_SMBUS_WRITE, 0x79, I2C_SMBUS_WORD_DATA, &data).first,
              0);
    EXPECT_NE(content().find("reg 0x79 34 12\n"), std::string::npos);
    ASSERT_EQ(smbus(I2C_SMBUS_WRITE, 0x20, I2C_SMBUS_BYTE, nullptr).first, 0);
    EXPECT_NE(content().find("device 0x58 maxread=6 ptr=0x20\n"),
              std::string::npos);
}

// regression: a plain I2C_SLAVE reached a device bound to a kernel driver,
// which i2c-dev refuses with EBUSY; only I2C_SLAVE_FORCE addresses it
TEST_F(Bus, BoundDeviceTakesOnlyTheForcedAddress)
{
    describe("device 0x58 bound\nreg 0x02 15\n");
    errno = 0;
    EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x58), -1);
    EXPECT_EQ(errno, EBUSY);
    i2c_smbus_data data{};
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).second,
              ENXIO);
    ASSERT_EQ(ioctl(fd, I2C_SLAVE_FORCE, 0x58), 0);
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).first, 0);
    EXPECT_EQ(data.byte, 0x15);
}

TEST_F(Bus, MalformedFileFailsWithEioAndSaysWhereOnce)
{
    describe("device 0x23\nreg 0x02 15\nregister 0x03 00\n");
    testing::internal::CaptureStderr();
    Bytes out(1);
    EXPECT_EQ(read(0x23, 0x02, out).second, EIO);
    EXPECT_EQ(write(0x23, {0x02, 0x00}).second, EIO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "i2csim: " + path +
                  " line 3: unknown keyword 'register' (expected device, reg "
                  "or block); every transfer on this bus fails with EIO\n");
    EXPECT_EQ(content(), "device 0x23\nreg 0x02 15\nregister 0x03 00\n");
}

TEST_F(Bus, OtherDescriptorsAndRequestsReachTheKernel)
{
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(::write(pipeFds[1], "abc", 3), 3);
    int pending = 0;
    EXPECT_EQ(ioctl(pipeFds[0], FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 3);
    i2c_rdwr_ioctl_data data{};
    EXPECT_EQ(ioctl(pipeFds[0], I2C_RDWR, &data), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(ioctl(fd, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, static_cast<int>(content().size()));
}

TEST_F(Bus, LogHasALinePerServedCall)
{
    std::string log = testing::TempDir() + "i2csim-log";
    unlink(log.c_str());
    setenv("I2CSIM_LOG", log.c_str(), 1);
    ioctl(fd, I2C_SLAVE, 0x58);
    i2c_smbus_data data{};
    data.block[0] = 3;
    smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data);
    write(0x23, {0x3c, 0x01});
    Bytes out(1);
    read(0x59, 0x00, out);
    unsetenv("I2CSIM_LOG");
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    std::string where = " dev=" + path + " pid=" + std::to_string(getpid());
    EXPECT_EQ(text.str(),
              "slave" + where + " addr=0x58 result=0\nsmbus" + where +
                  " addr=0x58 rw=r cmd=0x9a size=i2c_block_data len=3 "
                  "data=0b4445 result=0\nrdwr" +
                  where + " msgs=1 m0=w:0x23:2:3c01 result=1\nrdwr" + where +
                  " msgs=2 m0=w:0x59:1:00 m1=r:0x59:1 result=-1 "
                  "errno=ENXIO\n");
    unlink(log.c_str());
}

// A transfer that worked on a stale copy of the file would drop another
// writer's registers: two threads on one descriptor and another process.
TEST_F(Bus, ConcurrentWritersLoseNothing)
{
    describe("device 0x23\n");
    auto writer = [](int descriptor, int first) {
        for (int i = first; i < first + 80; ++i)
        {
            uint8_t bytes[2] = {static_cast<uint8_t>(i), 0x5a};
            i2c_msg msg{0x23, 0, 2, bytes};
            i2c_rdwr_ioctl_data data{&msg, 1};
            if (ioctl(descriptor, I2C_RDWR, &data) != 1)
            {
                return false;
            }
        }
        return true;
    };
    pid_t child = fork();
    if (child == 0)
    {
        _exit(writer(open(path.c_str(), O_RDWR), 160) ? 0 : 1);
    }
    bool ok[2] = {};
    std::thread first([&] { ok[0] = writer(fd, 0); });
    std::thread second([&] { ok[1] = writer(fd, 80); });
    first.join();
    second.join();
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(ok[0] && ok[1] && status == 0);
    std::string text = content();
    size_t registers = 0;
    for (size_t at = text.find("\nreg "); at != std::string::npos;
         at = text.find("\nreg ", at + 1))
    {
        ++registers;
    }
    EXPECT_EQ(registers, 240u);
}

} // namespace
