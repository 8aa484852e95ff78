// SPDX-License-Identifier: Apache-2.0
// The audit record splitter, and the EEPROM block test on a simulated part
// whose faults can be chosen.

#include "health/audit.hpp"
#include "health/factory.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<uint8_t>;

std::vector<std::string> split(std::string line)
{
    // One entry more than the splitter may fill, to catch an overrun.
    char* fields[AUDIT_LOG_FIELDS + 1] = {};
    char sentinel[] = "sentinel";
    fields[AUDIT_LOG_FIELDS] = sentinel;
    int count = logLineSplit(line.data(), fields);
    EXPECT_EQ(fields[AUDIT_LOG_FIELDS], sentinel);
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i)
    {
        result.emplace_back(fields[i]);
    }
    if (count < AUDIT_LOG_FIELDS)
    {
        EXPECT_EQ(fields[count], nullptr);
    }
    return result;
}

std::string numbered(int first, int last)
{
    std::string text;
    for (int i = first; i <= last; ++i)
    {
        text += (i == first ? "" : " ") + std::string("f") + std::to_string(i);
    }
    return text;
}

TEST(AuditLog, SplitsOnRunsOfBlanksIntoAtMostTwentyFields)
{
    struct Case
    {
        std::string line;
        std::vector<std::string> fields;
    };
    std::vector<std::string> twenty;
    for (int i = 0; i < 20; ++i)
    {
        twenty.push_back("f" + std::to_string(i));
    }
    const Case cases[] = {
        {"a b c\n", {"a", "b", "c\n"}},
        {"  a   b  ", {"a", "b"}},
        {"a\tb", {"a\tb"}},
        {"", {}},
        {"    ", {}},
        {"\n", {"\n"}},
        {numbered(0, 19), twenty},
        {numbered(0, 30), twenty},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(split(c.line), c.fields) << '"' << c.line << '"';
    }
}

/* An EEPROM part in memory. A stuck bit reads back as 0 whatever is
 * written; the nth read or write (counting from 0) can be made to fail. */
struct SimulatedPart
{
    Bytes bytes;
    off_t position = 0;
    size_t stuckOffset = SIZE_MAX;
    uint8_t stuckMask = 0;
    int failRead = -1;
    int failWrite = -1;
    int reads = 0;
    int writes = 0;

    off_t seek(off_t offset)
    {
        position = offset;
        return offset;
    }
    ssize_t read(uint8_t* data, size_t size)
    {
        if (reads++ == failRead)
        {
            return -1;
        }
        size_t start = static_cast<size_t>(position);
        size_t count =
            start < bytes.size() ? std::min(size, bytes.size() - start) : 0;
        std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(start), count, data);
        position += static_cast<off_t>(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const uint8_t* data, size_t size)
    {
        if (writes++ == failWrite)
        {
            return -1;
        }
        size_t start = static_cast<size_t>(position);
        for (size_t i = 0; i < size && start + i < bytes.size(); ++i)
        {
            uint8_t value = data[i];
            if (start + i == stuckOffset)
            {
                value &= static_cast<uint8_t>(~stuckMask);
            }
            bytes[start + i] = value;
        }
        position += static_cast<off_t>(size);
        return static_cast<ssize_t>(size);
    }
};

Bytes contents()
{
    Bytes bytes(8192);
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    return bytes;
}

Bytes blockOf(const Bytes& bytes, size_t block)
{
    auto begin = bytes.begin() + static_cast<ptrdiff_t>(block * 128);
    return {begin, begin + 128};
}

Bytes pattern()
{
    Bytes bytes(128);
    oem::eepromTestPattern(bytes.data());
    return bytes;
}

TEST(EepromTest, RestoresWhatItTouchesUntilAStepFails)
{
    const Bytes original = contents();
    // The pattern with bit 0 of its first byte stuck low.
    Bytes stuckPattern = pattern();
    stuckPattern[0] = 0x54;
    // Block 4 left holding the pattern, the rest as it was.
    Bytes block4Pattern = original;
    std::copy_n(pattern().begin(), 128, block4Pattern.begin() + 4 * 128);

    struct Case
    {
        const char* what;
        size_t stuckOffset;
        int failRead;
        int failWrite;
        int result;
    };
    const Case cases[] = {
        {"a good part", SIZE_MAX, -1, -1, 0},
        {"saving block 3 fails", SIZE_MAX, 2 * 3, -1, 1},
        {"writing the pattern to block 4 fails", SIZE_MAX, -1, 2 * 4, 2},
        {"reading block 3 back fails", SIZE_MAX, 2 * 3 + 1, -1, 3},
        {"restoring block 4 fails", SIZE_MAX, -1, 2 * 4 + 1, 5},
        {"a bit stuck in block 5", 5 * 128, -1, -1, 4},
    };
    for (const auto& c : cases)
    {
        SimulatedPart part{original};
        part.stuckOffset = c.stuckOffset;
        part.stuckMask = 0x01;
        part.failRead = c.failRead;
        part.failWrite = c.failWrite;
        EXPECT_EQ(oem::eepromBlockTest(part), c.result) << c.what;
        switch (c.result)
        {
            case 4:
                // Blocks 0 to 4 restored; block 5 keeps the pattern and its
                // saved contents land just past it, on block 6.
                for (size_t block = 0; block < 5; ++block)
                {
                    EXPECT_EQ(blockOf(part.bytes, block),
                              blockOf(original, block))
                        << block;
                }
                EXPECT_EQ(blockOf(part.bytes, 5), stuckPattern);
                EXPECT_EQ(blockOf(part.bytes, 6), blockOf(original, 5));
                EXPECT_TRUE(std::equal(part.bytes.begin() + 7 * 128,
                                       part.bytes.end(),
                                       original.begin() + 7 * 128));
                break;
            case 5:
                EXPECT_EQ(part.bytes, block4Pattern) << c.what;
                break;
            default:
                // A failed read leaves the position at the block, so even
                // code 3 puts the block back where it was.
                EXPECT_EQ(part.bytes, original) << c.what;
                break;
        }
    }
}

TEST(EepromTest, CoversTheFirstFourKilobytesOnly)
{
    SimulatedPart part{contents()};
    // A stuck bit past the tested area goes unnoticed.
    part.stuckOffset = 4096;
    part.stuckMask = 0xFF;
    EXPECT_EQ(oem::eepromBlockTest(part), 0);
    EXPECT_EQ(part.reads, 64);
    EXPECT_EQ(part.writes, 64);
    EXPECT_EQ(part.bytes, contents());
}

} // namespace
