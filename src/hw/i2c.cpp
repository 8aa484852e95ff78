// SPDX-License-Identifier: Apache-2.0
// I2C and SMBus transfers. Every call opens the bus, does one transfer and
// closes it again; a register read is one combined transfer so that no other
// bus user can move the register pointer between the write and the read.

#include "i2c.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

// The supplies are usually bound to a kernel PMBus driver, which makes a
// plain I2C_SLAVE (0x0703) fail with EBUSY; the forcing variant addresses
// them anyway.
constexpr unsigned long i2cSlaveRequest = 0x0706;

int transfer(int fd, i2c_msg* msgs, unsigned count)
{
    i2c_rdwr_ioctl_data data{msgs, count};
    return ioctl(fd, I2C_RDWR, &data);
}

// The open failure is reported with the text of the negated open result,
// not of errno: the message always reads as error 1, which is what the
// field tools have always matched on.
int openBus(const char* path)
{
    int fd = open(path, O_RDWR);
    if (fd < 0)
    {
        fprintf(stderr, "I2C Bus Open(\"%s\"): \"%s\"\n", path, strerror(-fd));
    }
    return fd;
}

} // namespace

int i2c_read(int bus, int address, uint8_t reg, uint8_t* dest)
{
    char path[15];
    snprintf(path, sizeof(path), "/dev/i2c-%d", bus);
    uint8_t regBuf[1] = {reg};
    i2c_msg msgs[2] = {};
    msgs[0].addr = static_cast<uint16_t>(address);
    msgs[0].flags = 0;
    msgs[0].len = 1;
    msgs[0].buf = regBuf;
    msgs[1].addr = static_cast<uint16_t>(address);
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = 1;
    msgs[1].buf = dest;

    int fd = openBus(path);
    if (fd < 0)
    {
        return fd;
    }
    int rc = transfer(fd, msgs, 2);
    close(fd);
    if (rc < 0)
    {
        fprintf(stderr, " I2c%d-%d  reg 0x%x I2C_RDWR ioError=%d?\n", bus,
                address, reg, rc);
        return rc;
    }
    return 0;
}

int i2c_write(int bus, int address, uint8_t reg, uint8_t value)
{
    char path[15];
    snprintf(path, sizeof(path), "/dev/i2c-%d", bus);
    uint8_t buf[2] = {reg, value};
    i2c_msg msgs[2] = {};
    msgs[0].addr = static_cast<uint16_t>(address);
    msgs[0].flags = 0;
    msgs[0].len = 2;
    msgs[0].buf = buf;

    int fd = openBus(path);
    if (fd < 0)
    {
        return fd;
    }
    int rc = transfer(fd, msgs, 1);
    close(fd);
    if (rc < 0)
    {
        fprintf(stderr, " i2c_write :I2c%d-%d  reg 0x%x I2C_RDWR ioError=%d?\n",
                bus, address, reg, rc);
        return rc;
    }
    return 0;
}

int i2c_read_buffer(int bus, uint16_t address, uint8_t reg, uint8_t* dest,
                    uint16_t length)
{
    char path[16];
    snprintf(path, sizeof(path), "/dev/i2c-%d", bus);
    uint8_t regBuf[1] = {reg};
    i2c_msg msgs[2] = {};
    msgs[0].addr = address;
    msgs[0].flags = 0;
    msgs[0].len = 1;
    msgs[0].buf = regBuf;
    msgs[1].addr = address;
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = length;
    msgs[1].buf = dest;

    int fd = open(path, O_RDWR);
    if (fd < 0)
    {
        return -1;
    }
    int rc = transfer(fd, msgs, 2);
    close(fd);
    return rc;
}

int i2c_write_buffer(int bus, uint16_t address, uint8_t* source,
                     uint16_t length)
{
    char path[16];
    snprintf(path, sizeof(path), "/dev/i2c-%d", bus);
    i2c_msg msgs[1] = {};
    msgs[0].addr = address;
    msgs[0].flags = 0;
    msgs[0].len = length;
    msgs[0].buf = source;

    int fd = open(path, O_RDWR);
    if (fd < 0)
    {
        return -1;
    }
    int rc = transfer(fd, msgs, 1);
    close(fd);
    return rc;
}

int i2c_smbus_access(int fd, char read_write, uint8_t command, int size,
                     union i2c_smbus_data* data)
{
    i2c_smbus_ioctl_data args{};
    args.read_write = static_cast<uint8_t>(read_write);
    args.command = command;
    args.size = static_cast<uint32_t>(size);
    args.data = data;
    int rc = ioctl(fd, I2C_SMBUS, &args);
    if (rc == -1)
    {
        fprintf(stderr, "psu i2c_smbus_access fail\n");
    }
    return rc;
}

int i2c_smbus_read_block_data(int fd, uint8_t command, uint8_t length,
                              char* dest)
{
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    int size = I2C_SMBUS_I2C_BLOCK_DATA;
    if (length >= I2C_SMBUS_BLOCK_MAX)
    {
        // The kernel reads a fixed 32 bytes for the broken block type.
        length = I2C_SMBUS_BLOCK_MAX;
        size = I2C_SMBUS_I2C_BLOCK_BROKEN;
    }
    data.block[0] = length;
    if (i2c_smbus_access(fd, I2C_SMBUS_READ, command, size, &data) < 0)
    {
        return -1;
    }
    // Never trust the count beyond what we asked for and the block can hold.
    int count = std::min<int>(data.block[0], length);
    memcpy(dest, &data.block[1], static_cast<size_t>(count));
    return count;
}

int smbus_read(int bus, uint8_t address, uint8_t command, uint8_t length,
               char* dest)
{
    char path[19];
    snprintf(path, sizeof(path), "/dev/i2c-%d", bus);
    int fd = open(path, O_RDWR);
    if (fd < 0)
    {
        fprintf(stderr, "open psu file fail\n");
        return -1;
    }
    if (ioctl(fd, i2cSlaveRequest, static_cast<long>(address)) < 0)
    {
        fprintf(stderr, "psu ioctl, I2C_SLAVE failed: %d.\n", errno);
        close(fd);
        return -1;
    }
    int rc = i2c_smbus_read_block_data(fd, command, length, dest);
    close(fd);
    return rc < 0 ? -1 : rc;
}
