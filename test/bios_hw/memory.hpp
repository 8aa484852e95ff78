// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

/* The sandbox's physical memory, a sparse file at /dev/mem. */
namespace memory
{

inline std::vector<uint8_t> read(uint64_t address, size_t size)
{
    std::vector<uint8_t> bytes(size);
    int fd = open("/dev/mem", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << "/dev/mem";
    if (fd >= 0)
    {
        EXPECT_EQ(pread(fd, bytes.data(), size, static_cast<off_t>(address)),
                  static_cast<ssize_t>(size));
        close(fd);
    }
    return bytes;
}

inline void write(uint64_t address, const std::vector<uint8_t>& bytes)
{
    int fd = open("/dev/mem", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << "/dev/mem";
    EXPECT_EQ(
        pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(address)),
        static_cast<ssize_t>(bytes.size()));
    close(fd);
}

/* A 32-bit chip register, little endian as on the BMC. */
inline uint32_t reg32(uint64_t address)
{
    auto b = read(address, 4);
    return b[0] | (b[1] << 8) | (b[2] << 16) | (uint32_t{b[3]} << 24);
}

inline void setReg32(uint64_t address, uint32_t value)
{
    write(address,
          {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
           static_cast<uint8_t>(value >> 16),
           static_cast<uint8_t>(value >> 24)});
}

} // namespace memory
