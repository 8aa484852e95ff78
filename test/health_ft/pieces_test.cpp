// SPDX-License-Identifier: Apache-2.0
// The audit record splitter, and the EEPROM block test on a simulated part
// whose faults can be chosen (a file cannot fail on demand).

#include "health/audit.hpp"
#include "health/factory.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<uint8_t>;

TEST(AuditLog, SplitsOnRunsOfBlanksIntoAtMostTwentyFields)
{
    std::string twentyOne;
    std::vector<std::string> twenty;
    for (int i = 0; i < 21; ++i)
    {
        twentyOne += "f" + std::to_string(i) + " ";
        if (i < 20)
        {
            twenty.push_back("f" + std::to_string(i));
        }
    }
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"  a   b\tc  d\n", {"a", "b\tc", "d\n"}},
        {"    ", {}},
        {twentyOne, twenty},
    };
    for (auto [line, expected] : cases)
    {
        // One entry more than the splitter may fill, to catch an overrun.
        char* fields[AUDIT_LOG_FIELDS + 1] = {};
        int count = logLineSplit(line.data(), fields);
        EXPECT_EQ(std::vector<std::string>(fields, fields + count), expected);
        EXPECT_EQ(fields[count], nullptr);
    }
}

/* An EEPROM part in memory: a stuck bit reads back as 0 whatever is written;
 * the nth read or write (from 0) can be made to fail. */
struct SimulatedPart
{
    Bytes bytes;
    size_t stuckOffset = SIZE_MAX;
    int failRead = -1;
    int failWrite = -1;
    size_t position = 0;
    int reads = 0;
    int writes = 0;

    off_t seek(off_t offset)
    {
        position = static_cast<size_t>(offset);
        return offset;
    }
    ssize_t read(uint8_t* data, size_t size)
    {
        if (reads++ == failRead)
        {
            return -1;
        }
        size_t count = std::min(size, bytes.size() - position);
        std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(position), count,
                    data);
        position += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const uint8_t* data, size_t size)
    {
        if (writes++ == failWrite)
        {
            return -1;
        }
        for (size_t i = 0; i < size; ++i, ++position)
        {
            bytes[position] = data[i] & (position == stuckOffset ? 0xFE : 0xFF);
        }
        return static_cast<ssize_t>(size);
    }
};

Bytes block(const Bytes& bytes, size_t n)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(n * 128),
            bytes.begin() + static_cast<ptrdiff_t>(n * 128 + 128)};
}

TEST(EepromTest, ResultCodesAndWhatEachLeavesBehind)
{
    Bytes original(8192);
    for (size_t i = 0; i < original.size(); ++i)
    {
        original[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    Bytes pattern(128);
    oem::eepromTestPattern(pattern.data());
    struct Case
    {
        const char* what;
        size_t stuckOffset;
        int failRead, failWrite, result;
    };
    const Case cases[] = {
        {"a good part", SIZE_MAX, -1, -1, 0},
        {"saving block 3 fails", SIZE_MAX, 6, -1, 1},
        {"writing the pattern to block 4 fails", SIZE_MAX, -1, 8, 2},
        {"reading block 3 back fails", SIZE_MAX, 7, -1, 3},
        {"restoring block 4 fails", SIZE_MAX, -1, 9, 5},
        // Bit 0 of byte 100, where the pattern holds 0x55.
        {"a bit stuck in block 5", 5 * 128 + 100, -1, -1, 4},
    };
    for (const auto& c : cases)
    {
        SimulatedPart part{original, c.stuckOffset, c.failRead, c.failWrite};
        EXPECT_EQ(oem::eepromBlockTest(part), c.result) << c.what;
        Bytes expected = original;
        if (c.result == 5)
        {
            std::copy(pattern.begin(), pattern.end(), expected.begin() + 512);
        }
        if (c.result == 4)
        {
            // Block 5 keeps the pattern; its saved contents land just past
            // it, on block 6.
            pattern[100] = 0x54;
            std::copy(pattern.begin(), pattern.end(), expected.begin() + 640);
            auto saved = block(original, 5);
            std::copy(saved.begin(), saved.end(), expected.begin() + 768);
        }
        EXPECT_EQ(part.bytes, expected) << c.what;
        if (c.result == 0)
        {
            // The first 4 KiB, no more.
            EXPECT_EQ(part.reads + part.writes, 128);
        }
    }
}

} // namespace
