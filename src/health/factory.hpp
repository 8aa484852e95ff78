// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

/* Room of each text get_eth_info_m7r fills, terminating zero included: a
 * value is cut from a line of at most ETH_INFO_TEXT_SIZE - 1 characters, so
 * it always fits. */
constexpr size_t ETH_INFO_TEXT_SIZE = 128;

/* The EEPROM self-test covers the first 4 KiB, block by block. */
constexpr size_t EEPROM_TEST_BLOCK_SIZE = 128;
constexpr size_t EEPROM_TEST_BLOCKS = 32;

extern "C"
{
/* Runs the EEPROM self-test on eeprom_path: 0 passed, 1 to 5 the step that
 * failed (see oem::eepromBlockTest), -1 the file cannot be opened. */
OEM_EXPORT int eeprom_test_result_m7r(void);

/* Fills the duplex, speed, mode and address texts of BMC port `port` (each
 * ETH_INFO_TEXT_SIZE bytes, cleared by the caller) from the port's network
 * unit and ethtool. Values are kept as the tools print them, line end
 * included. */
OEM_EXPORT void get_eth_info_m7r(int port, char* duplex, char* speed,
                                 char* mode, char* address);

/* Applies the duplex or speed setting of an MII test request (bytes 2 and 3
 * of request, which holds at least 4 bytes) to port `port` (0 or 1). 1 when
 * a setting was issued, else 0. */
OEM_EXPORT int set_eth_duplex_speed_handler_m7r(int port,
                                                const uint8_t* request);
}

namespace oem
{

/* Alternating 0x55 0xAA: every bit of a block flips between pattern and
 * its neighbours. */
inline void eepromTestPattern(uint8_t* block)
{
    for (size_t i = 0; i < EEPROM_TEST_BLOCK_SIZE; ++i)
    {
        block[i] = (i % 2 == 0) ? 0x55 : 0xAA;
    }
}

/* The EEPROM self-test over anything that seeks, reads and writes like a
 * file descriptor (File has off_t seek(off_t), ssize_t read(uint8_t*, size_t)
 * and ssize_t write(const uint8_t*, size_t)). Each block is saved, written
 * with the pattern, read back, compared and written back. Only a negative
 * count fails a step: short reads and writes pass on, as the production
 * tools have always judged it. Result codes: 1 saving failed, 2 writing the
 * pattern failed, 3 reading back failed, 4 the read-back differs, 5
 * restoring failed, 0 all blocks passed.
 *
 * On codes 3 and 4 the saved contents go back at the current position,
 * just past the block read back, not at the block itself; the production
 * line's records of failed parts were taken with this behaviour, so it is
 * kept. */
template <typename File>
int eepromBlockTest(File& file)
{
    constexpr const char* function = "eeprom_test_result_m7r";
    uint8_t pattern[EEPROM_TEST_BLOCK_SIZE];
    eepromTestPattern(pattern);
    for (size_t block = 0; block < EEPROM_TEST_BLOCKS; ++block)
    {
        const auto offset = static_cast<off_t>(block * EEPROM_TEST_BLOCK_SIZE);
        // Zeroed, so that a short read restores zeros, never stack garbage,
        // and a short read-back never matches by accident.
        uint8_t saved[EEPROM_TEST_BLOCK_SIZE] = {};
        uint8_t readBack[EEPROM_TEST_BLOCK_SIZE] = {};

        if (file.seek(offset) < 0 || file.read(saved, sizeof(saved)) < 0)
        {
            fprintf(stderr, "[%s:%d] read origin data error\n\n", function,
                    __LINE__);
            return 1;
        }
        if (file.seek(offset) < 0 || file.write(pattern, sizeof(pattern)) < 0)
        {
            fprintf(stderr, "[%s:%d] write test data error\n\n", function,
                    __LINE__);
            return 2;
        }
        if (file.seek(offset) < 0 || file.read(readBack, sizeof(readBack)) < 0)
        {
            fprintf(stderr, "[%s:%d] read test data error\n\n", function,
                    __LINE__);
            file.write(saved, sizeof(saved));
            return 3;
        }
        if (memcmp(readBack, pattern, sizeof(pattern)) != 0)
        {
            fprintf(stderr, "[%s:%d] strncmp read_data and test_data error\n\n",
                    function, __LINE__);
            file.write(saved, sizeof(saved));
            return 4;
        }
        if (file.seek(offset) < 0 || file.write(saved, sizeof(saved)) < 0)
        {
            fprintf(stderr, "[%s:%d] write origin data error\n\n", function,
                    __LINE__);
            return 5;
        }
    }
    return 0;
}

} // namespace oem
