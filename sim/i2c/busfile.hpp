// SPDX-License-Identifier: Apache-2.0
// The simulated I2C bus: the text that describes the devices on one bus, and
// what a transfer does to them. No I/O here, so every rule can be tried in a
// unit test; interposer.cpp puts it behind the i2c-dev ioctls.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace i2csim
{

// Limits i2c-dev puts on an I2C_RDWR call.
inline constexpr std::size_t maxMessages = 42;
inline constexpr std::size_t maxMessageLength = 8192;
// Largest SMBus block.
inline constexpr std::size_t smbusBlockMax = 32;
// Largest register content a description may hold.
inline constexpr std::size_t maxRegisterLength = 8192;
inline constexpr unsigned maxFailCount = 1000000;

struct Register
{
    std::vector<std::uint8_t> bytes;
    // A block register is read and written as a whole; otherwise bytes holds
    // exactly one byte and reads run on to the next register.
    bool block = false;

    bool operator==(const Register&) const = default;
};

struct Device
{
    bool noAnswer = false;
    // Bound to a kernel driver: i2c-dev refuses a plain I2C_SLAVE to it.
    bool bound = false;
    // Transfers still to fail before the device answers again.
    unsigned failCount = 0;
    // Most bytes the device gives in an I2C block read, if capped.
    std::optional<unsigned> maxRead;
    // Register a read without a register selection starts at.
    std::uint8_t pointer = 0;
    std::map<std::uint8_t, Register> registers;

    bool operator==(const Device&) const = default;
};

struct Bus
{
    // By 7-bit address.
    std::map<std::uint8_t, Device> devices;

    bool operator==(const Bus&) const = default;
};

struct ParseResult
{
    std::optional<Bus> bus; // empty when the text is malformed
    std::size_t errorLine = 0;
    std::string error;
};

ParseResult parse(std::string_view text);

// Canonical text of a bus: parse(serialize(b)) gives b back. Comments and
// layout of the original text are not kept.
std::string serialize(const Bus& bus);

struct Message
{
    std::uint16_t addr = 0;
    bool read = false;
    std::span<std::uint8_t> data; // filled in for a read
};

// Every function below returns 0 or an errno value. A device that does not
// answer gives ENXIO; bad arguments give EINVAL.

// Performs the messages in order, stopping at the first one whose device
// does not answer; what the earlier ones did stays done.
int transfer(Bus& bus, std::span<const Message> msgs);

// A register read: a write of [reg] followed by a read of n bytes.
int readRegisters(Bus& bus, std::uint16_t addr, std::uint8_t reg, std::size_t n,
                  std::vector<std::uint8_t>& out);

// One write message: [reg, values...], or [reg] to set the register pointer.
int writeBytes(Bus& bus, std::uint16_t addr,
               std::span<const std::uint8_t> bytes);

// I2C_SLAVE (force false) or I2C_SLAVE_FORCE (force true) to addr: EINVAL
// for an address over 0x7f, EBUSY for a plain request to a device bound to
// a kernel driver, as i2c-dev answers; otherwise 0.
int checkSlaveAddress(const Bus& bus, unsigned long addr, bool force);

// Transaction types of the I2C_SMBUS ioctl.
enum class SmbusSize : std::uint32_t
{
    quick = 0,
    byte = 1,
    byteData = 2,
    wordData = 3,
    procCall = 4,
    blockData = 5,
    i2cBlockBroken = 6,
    blockProcCall = 7,
    i2cBlockData = 8,
};

// Same layout as the kernel's union i2c_smbus_data, except that a word is
// kept low byte first in [0] and [1] whatever the host's byte order.
using SmbusData = std::array<std::uint8_t, smbusBlockMax + 2>;

// One SMBus transaction, done the way i2c-dev does it over plain I2C
// messages. size is the raw value from the caller; unknown ones give EINVAL.
// A block read whose count byte from the device is 0 or above 32 gives
// EPROTO.
int smbusTransfer(Bus& bus, std::uint16_t addr, bool read, std::uint8_t command,
                  std::uint32_t size, SmbusData& data);

} // namespace i2csim
