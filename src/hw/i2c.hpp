// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <linux/i2c.h>

#include <cstdint>

extern "C"
{
/* One-byte register read (combined write-register/read transfer); 0 or a
 * negative open or ioctl result. */
OEM_EXPORT int i2c_read(int bus, int address, uint8_t reg, uint8_t* dest);
/* One-byte register write; 0 or a negative open or ioctl result. */
OEM_EXPORT int i2c_write(int bus, int address, uint8_t reg, uint8_t value);
/* Combined register read of length bytes; the ioctl's result (2 on
 * success), or -1 when the bus cannot be opened. */
OEM_EXPORT int i2c_read_buffer(int bus, uint16_t address, uint8_t reg,
                               uint8_t* dest, uint16_t length);
/* Raw write of length bytes; the ioctl's result (1 on success), or -1. */
OEM_EXPORT int i2c_write_buffer(int bus, uint16_t address, uint8_t* source,
                                uint16_t length);
OEM_EXPORT int i2c_smbus_access(int fd, char read_write, uint8_t command,
                                int size, union i2c_smbus_data* data);
/* I2C block read of up to 32 bytes; the count copied, or -1. */
OEM_EXPORT int i2c_smbus_read_block_data(int fd, uint8_t command,
                                         uint8_t length, char* dest);
/* Opens the bus, addresses the device and does an I2C block read; the count
 * read, or -1. */
OEM_EXPORT int smbus_read(int bus, uint8_t address, uint8_t command,
                          uint8_t length, char* dest);
}
