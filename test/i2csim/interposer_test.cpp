// SPDX-License-Identifier: Apache-2.0
// Drives the interposer through real ioctl calls with the kernel's structs,
// the way the plug-in talks to /dev/i2c-N in the sandbox.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using ::testing::HasSubstr;
using ::testing::Not;
using Bytes = std::vector<std::uint8_t>;

struct Result
{
    int ret;
    int err; // errno, when ret is -1
};

constexpr const char* board = R"(# bus 10 of the main board
device 0x23   # CPLD
reg 0x02 15   # version
reg 0x39 fe   # riser presence
device 0x58 maxread=6   # power supply
reg 0x79 40 08
reg 0x88 1a f8
reg 0x9a "\x0bDELTA#12345"
device 0x59 noanswer
device 0x5a fail=2
reg 0x88 00 01
)";

std::string slurp(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

class Interposer : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        path = ::testing::TempDir() + "i2csim-bus-XXXXXX";
        fd = mkstemp(path.data());
        ASSERT_GE(fd, 0) << std::strerror(errno);
        describe(board);
    }

    void TearDown() override
    {
        close(fd);
        unlink(path.c_str());
    }

    void describe(const std::string& text) const
    {
        std::ofstream(path, std::ios::trunc) << text;
    }

    std::string content() const
    {
        return slurp(path);
    }

    Result rdwr(std::vector<i2c_msg>& msgs) const
    {
        i2c_rdwr_ioctl_data data{msgs.data(), static_cast<__u32>(msgs.size())};
        errno = 0;
        int ret = ioctl(fd, I2C_RDWR, &data);
        return {ret, errno};
    }

    // The combined write-register-then-read the plug-in uses.
    Result readRegister(std::uint16_t addr, std::uint8_t reg, Bytes& out) const
    {
        std::vector<i2c_msg> msgs{
            {addr, 0, 1, &reg},
            {addr, I2C_M_RD, static_cast<__u16>(out.size()), out.data()}};
        return rdwr(msgs);
    }

    Result writeRegister(std::uint16_t addr, Bytes bytes) const
    {
        std::vector<i2c_msg> msgs{
            {addr, 0, static_cast<__u16>(bytes.size()), bytes.data()}};
        return rdwr(msgs);
    }

    Result setAddress(unsigned long addr) const
    {
        errno = 0;
        int ret = ioctl(fd, I2C_SLAVE, addr);
        return {ret, errno};
    }

    Result smbus(std::uint8_t readWrite, std::uint8_t command,
                 std::uint32_t size, i2c_smbus_data* data) const
    {
        i2c_smbus_ioctl_data args{readWrite, command, size, data};
        errno = 0;
        int ret = ioctl(fd, I2C_SMBUS, &args);
        return {ret, errno};
    }

    std::string path;
    int fd = -1;
};

struct ReadCase
{
    const char* name;
    std::uint16_t addr;
    std::uint8_t reg;
    Bytes expected; // its size is the length read
    int err;        // 0 when the read succeeds
};

class RegisterRead : public Interposer,
                     public ::testing::WithParamInterface<ReadCase>
{};

TEST_P(RegisterRead, ServesTheDescriptionAndLeavesTheFileAlone)
{
    const ReadCase& c = GetParam();
    Bytes out(c.expected.size(), 0xee);
    Result r = readRegister(c.addr, c.reg, out);
    if (c.err == 0)
    {
        EXPECT_EQ(r.ret, 2); // the messages done
        EXPECT_EQ(out, c.expected);
    }
    else
    {
        EXPECT_EQ(r.ret, -1);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(out, Bytes(out.size(), 0xee)) << "buffer written on error";
    }
    EXPECT_EQ(content(), board);
}

INSTANTIATE_TEST_SUITE_P(
    Interposer, RegisterRead,
    ::testing::Values(ReadCase{"cpldVersion", 0x23, 0x02, {0x15}, 0},
                      ReadCase{"readVin", 0x58, 0x88, {0x1a, 0xf8}, 0},
                      ReadCase{"noAnswer", 0x59, 0x00, {0x00}, ENXIO},
                      ReadCase{"nothingThere", 0x24, 0x02, {0x00}, ENXIO}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(Interposer, WriteIsSavedInCanonicalForm)
{
    describe("# CPLD\ndevice 23\nreg 02 15 # version\n");
    EXPECT_EQ(writeRegister(0x23, {0x3c, 0x01}).ret, 1);
    EXPECT_EQ(content(), "device 0x23\nreg 0x02 15\nreg 0x3c 01\n");

    Bytes out(1);
    EXPECT_EQ(readRegister(0x23, 0x3c, out).ret, 2);
    EXPECT_EQ(out, Bytes{0x01});
}

TEST_F(Interposer, FailingDeviceRecoversAndTheCountIsSaved)
{
    Bytes out(2);
    Result r = readRegister(0x5a, 0x88, out);
    EXPECT_EQ(r.ret, -1);
    EXPECT_EQ(r.err, ENXIO);
    EXPECT_THAT(content(), HasSubstr("device 0x5a fail=1\n"));

    EXPECT_EQ(readRegister(0x5a, 0x88, out).err, ENXIO);
    EXPECT_EQ(readRegister(0x5a, 0x88, out).ret, 2);
    EXPECT_EQ(out, (Bytes{0x00, 0x01}));
    EXPECT_THAT(content(), HasSubstr("device 0x5a\n"));
}

struct RefusalCase
{
    const char* name;
    std::size_t nmsgs;
    __u16 len;
    __u16 flags;
    bool nullBuffer;
    int err;
};

class RdwrRefusal : public Interposer,
                    public ::testing::WithParamInterface<RefusalCase>
{};

TEST_P(RdwrRefusal, RefusesWhatI2cDevRefuses)
{
    const RefusalCase& c = GetParam();
    Bytes buf(c.len, 0x3c);
    std::vector<i2c_msg> msgs(
        std::max<std::size_t>(c.nmsgs, 1),
        i2c_msg{0x23, c.flags, c.len, c.nullBuffer ? nullptr : buf.data()});
    i2c_rdwr_ioctl_data data{msgs.data(), static_cast<__u32>(c.nmsgs)};
    errno = 0;
    EXPECT_EQ(ioctl(fd, I2C_RDWR, &data), -1);
    EXPECT_EQ(errno, c.err);
    EXPECT_EQ(content(), board);
}

INSTANTIATE_TEST_SUITE_P(
    Interposer, RdwrRefusal,
    ::testing::Values(
        RefusalCase{"noMessages", 0, 1, 0, false, EINVAL},
        RefusalCase{"tooManyMessages", I2C_RDWR_IOCTL_MAX_MSGS + 1, 1, 0, false,
                    EINVAL},
        RefusalCase{"tooLong", 1, 8193, 0, false, EINVAL},
        RefusalCase{"tenBitAddress", 1, 1, I2C_M_TEN, false, EINVAL},
        RefusalCase{"receivedLength", 1, 33, I2C_M_RD | I2C_M_RECV_LEN, false,
                    EINVAL},
        RefusalCase{"nullBuffer", 1, 2, 0, true, EFAULT}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(Interposer, SmbusBlockReadGivesPmbusText)
{
    ASSERT_EQ(setAddress(0x58).ret, 0);
    i2c_smbus_data data{};
    data.block[0] = 5;
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data).ret,
              0);
    EXPECT_EQ(data.block[0], 5);
    EXPECT_EQ(data.block[1], 0x0b);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&data.block[2]), 4), "DELT");

    // The old block type reads a full block whatever the caller asked;
    // this device stops after maxread bytes.
    data = {};
    data.block[0] = 2;
    ASSERT_EQ(
        smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_BROKEN, &data).ret, 0);
    EXPECT_EQ(data.block[0], 6);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&data.block[2]), 5), "DELTA");
}

TEST_F(Interposer, SmbusWordIsInHostOrder)
{
    ASSERT_EQ(setAddress(0x58).ret, 0);
    i2c_smbus_data data{};
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x79, I2C_SMBUS_WORD_DATA, &data).ret, 0);
    EXPECT_EQ(data.word, 0x0840);

    data.word = 0x1234;
    ASSERT_EQ(smbus(I2C_SMBUS_WRITE, 0x79, I2C_SMBUS_WORD_DATA, &data).ret, 0);
    EXPECT_THAT(content(), HasSubstr("reg 0x79 34 12\n"));
}

TEST_F(Interposer, SmbusRefusesBadArguments)
{
    ASSERT_EQ(setAddress(0x58).ret, 0);
    i2c_smbus_data data{};
    data.block[0] = 33;
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data).err,
              EINVAL);
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_BYTE_DATA, nullptr).err,
              EINVAL);
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x9a, 9, &data).err, EINVAL);
    EXPECT_EQ(smbus(2, 0x9a, I2C_SMBUS_BYTE_DATA, &data).err, EINVAL);
    errno = 0;
    EXPECT_EQ(ioctl(fd, I2C_SMBUS, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    // Needs no data: goes to the device.
    EXPECT_EQ(smbus(I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr).ret, 0);
}

TEST_F(Interposer, SmbusGoesToTheAddressSetOnThisDescriptor)
{
    i2c_smbus_data data{};
    // Nothing set yet: address 0, where nothing answers.
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).err,
              ENXIO);
    EXPECT_EQ(setAddress(0x80).err, EINVAL);

    ASSERT_EQ(setAddress(0x23).ret, 0);
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).ret, 0);
    EXPECT_EQ(data.byte, 0x15);
    ASSERT_EQ(setAddress(0x59).ret, 0);
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).err,
              ENXIO);

    // The same descriptor number on another bus file starts afresh.
    ASSERT_EQ(setAddress(0x23).ret, 0);
    std::string other = ::testing::TempDir() + "i2csim-other-XXXXXX";
    int otherFd = mkstemp(other.data());
    ASSERT_GE(otherFd, 0);
    std::ofstream(other) << "device 0x23\nreg 0x02 77\n";
    ASSERT_EQ(dup2(otherFd, fd), fd);
    close(otherFd);
    unlink(other.c_str());
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).err,
              ENXIO);
}

// regression: a plain I2C_SLAVE reached a device bound to a kernel driver,
// which i2c-dev refuses with EBUSY; only I2C_SLAVE_FORCE addresses it
TEST_F(Interposer, BoundDeviceTakesOnlyTheForcedAddress)
{
    describe("device 0x58 bound\nreg 0x02 15\n");
    EXPECT_EQ(setAddress(0x58).err, EBUSY);
    i2c_smbus_data data{};
    EXPECT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).err,
              ENXIO);
    ASSERT_EQ(ioctl(fd, I2C_SLAVE_FORCE, 0x58), 0);
    ASSERT_EQ(smbus(I2C_SMBUS_READ, 0x02, I2C_SMBUS_BYTE_DATA, &data).ret, 0);
    EXPECT_EQ(data.byte, 0x15);
}

TEST_F(Interposer, MalformedDescriptionFailsWithEioAndSaysWhereOnce)
{
    describe("device 0x23\nreg 0x02 15\nregister 0x03 00\n");
    std::string errPath = ::testing::TempDir() + "i2csim-stderr-XXXXXX";
    int errFd = mkstemp(errPath.data());
    ASSERT_GE(errFd, 0);
    int savedStderr = dup(STDERR_FILENO);
    dup2(errFd, STDERR_FILENO);

    Bytes out(1);
    Result first = readRegister(0x23, 0x02, out);
    Result second = writeRegister(0x23, {0x02, 0x00});

    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    close(errFd);
    std::string said = slurp(errPath);
    unlink(errPath.c_str());

    EXPECT_EQ(first.err, EIO);
    EXPECT_EQ(second.err, EIO);
    EXPECT_EQ(content(), "device 0x23\nreg 0x02 15\nregister 0x03 00\n");
    EXPECT_THAT(said, HasSubstr(path + " line 3: unknown keyword"));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

TEST_F(Interposer, OtherDescriptorsAndRequestsReachTheKernel)
{
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(write(pipeFds[1], "abc", 3), 3);
    int pending = 0;
    EXPECT_EQ(ioctl(pipeFds[0], FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 3);

    i2c_rdwr_ioctl_data data{};
    errno = 0;
    EXPECT_EQ(ioctl(pipeFds[0], I2C_RDWR, &data), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(pipeFds[0]);
    close(pipeFds[1]);

    // A request we do not serve, on a bus file.
    EXPECT_EQ(ioctl(fd, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, static_cast<int>(std::strlen(board)));
}

TEST_F(Interposer, LogHasALinePerServedCall)
{
    std::string logPath = ::testing::TempDir() + "i2csim-log-XXXXXX";
    int logFd = mkstemp(logPath.data());
    ASSERT_GE(logFd, 0);
    close(logFd);
    setenv("I2CSIM_LOG", logPath.c_str(), 1);

    setAddress(0x58);
    i2c_smbus_data data{};
    data.block[0] = 3;
    smbus(I2C_SMBUS_READ, 0x9a, I2C_SMBUS_I2C_BLOCK_DATA, &data);
    writeRegister(0x23, {0x3c, 0x01});
    Bytes out(1);
    readRegister(0x59, 0x00, out);
    int pending = 0;
    ioctl(fd, FIONREAD, &pending);

    unsetenv("I2CSIM_LOG");
    std::string log = slurp(logPath);
    unlink(logPath.c_str());

    std::vector<std::string> lines;
    std::stringstream stream(log);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 4u) << log;
    const std::string where = " dev=" + path + " pid=";
    EXPECT_THAT(lines[0], HasSubstr("slave" + where));
    EXPECT_THAT(lines[0], HasSubstr(" addr=0x58 result=0"));
    EXPECT_THAT(lines[1], HasSubstr("smbus" + where));
    EXPECT_THAT(lines[1], HasSubstr(" addr=0x58 rw=r cmd=0x9a "
                                    "size=i2c_block_data len=3 "
                                    "data=0b4445 result=0"));
    EXPECT_THAT(lines[2], HasSubstr("rdwr" + where));
    EXPECT_THAT(lines[2], HasSubstr(" msgs=1 m0=w:0x23:2:3c01 result=1"));
    EXPECT_THAT(lines[3], HasSubstr(" msgs=2 m0=w:0x59:1:00 m1=r:0x59:1 "
                                    "result=-1 errno=ENXIO"));
    EXPECT_THAT(log, Not(HasSubstr("FIONREAD")));
}

// Each writer creates its own registers, one transfer each; a transfer that
// worked on a stale copy of the file would drop another writer's register.
TEST_F(Interposer, ConcurrentWritersLoseNothing)
{
    // Three writers share the 256 register numbers.
    constexpr int perWriter = 80;
    describe("device 0x23\n");
    auto writer = [](int descriptor, int first) {
        for (int i = 0; i < perWriter; ++i)
        {
            Bytes bytes{static_cast<std::uint8_t>(first + i), 0x5a};
            i2c_msg msg{0x23, 0, 2, bytes.data()};
            i2c_rdwr_ioctl_data data{&msg, 1};
            if (ioctl(descriptor, I2C_RDWR, &data) != 1)
            {
                return false;
            }
        }
        return true;
    };

    // Another process, with its own open file description.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        int own = open(path.c_str(), O_RDWR);
        _exit(own >= 0 && writer(own, 2 * perWriter) ? 0 : 1);
    }
    // Two threads sharing one descriptor.
    bool firstOk = false;
    bool secondOk = false;
    std::thread first([&] { firstOk = writer(fd, 0); });
    std::thread second([&] { secondOk = writer(fd, perWriter); });
    first.join();
    second.join();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_TRUE(firstOk);
    EXPECT_TRUE(secondOk);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string text = content();
    std::size_t registers = 0;
    for (std::size_t at = text.find("\nreg "); at != std::string::npos;
         at = text.find("\nreg ", at + 1))
    {
        ++registers;
    }
    EXPECT_EQ(registers, 3u * perWriter) << text;
}

} // namespace
