// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>
#include <string>
#include <vector>

/* Where each supply sits is written by the platform's configuration, one
 * KEY=VALUE file per supply; values are decimal. */
constexpr const char* PSU1_LOCATION_FILE =
    "/etc/default/obmc/other/system/chassis/psu1";
constexpr const char* PSU2_LOCATION_FILE =
    "/etc/default/obmc/other/system/chassis/psu2";

/* PMBus command codes the supplies are read with. */
constexpr uint8_t PMBUS_STATUS_WORD = 0x79;
constexpr uint8_t PMBUS_READ_VIN = 0x88;
constexpr uint8_t PMBUS_MFR_ID = 0x99;
constexpr uint8_t PMBUS_MFR_MODEL = 0x9A;
constexpr uint8_t PMBUS_MFR_REVISION = 0x9B;
constexpr uint8_t PMBUS_MFR_SERIAL = 0x9E;
constexpr uint8_t PMBUS_MFR_POUT_MAX = 0xA7;

/* The pieces of text between occurrences of delimiter; consecutive
 * delimiters give empty pieces, an empty text none. */
OEM_EXPORT std::vector<std::string> psu_split_m7r(const std::string& text,
                                                  const std::string& delimiter);

/* The raw text after "I2CBUS=" / "I2CADDR=" in a location file, or empty when
 * the file or the key is missing. */
OEM_EXPORT std::string get_Psu_Bus_m7r(const char* path);
OEM_EXPORT std::string get_Psu_Addr_m7r(const char* path);
OEM_EXPORT std::string getPsuBus(const char* path);
OEM_EXPORT std::string getPsuAddr(const char* path);

extern "C"
{
/* Fills bus and addr from a location file (each only if its key is there);
 * 0, or -1 when the file cannot be opened. */
OEM_EXPORT int m7r_find_psu_i2cbus_and_addr(const char* path, uint8_t* bus,
                                            uint8_t* addr);
/* Probes a supply's READ_VIN up to five times: 0 answering with AC, -2
 * answering below 80 V, -1 not answering. */
OEM_EXPORT int m7r_read_psu_i2cbus_and_addr(uint8_t bus, uint8_t addr);
}

namespace oem
{
/* PMBus LINEAR11 as the supplies' firmware and our tools read it: signed
 * 5-bit exponent, but the 11-bit mantissa taken unsigned. */
int linear11(uint8_t low, uint8_t high);

/* A location file value as the callers use it: base 10, low 8 bits. */
uint8_t locationValue(const std::string& text);
} // namespace oem
