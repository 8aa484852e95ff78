// SPDX-License-Identifier: Apache-2.0
// Hex-text conversion and the judgement of shell statuses.

#include "oem/utils.hpp"

#include <sys/wait.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

TEST(Asc2hex, ConvertsPairsThroughItsTable)
{
    struct Case
    {
        std::string text;
        int length;
        std::vector<uint8_t> expected;
    };
    const Case cases[] = {
        {"1A2b", 4, {0x1A, 0x2B}},
        {"1:", 2, {0x1A}}, // ':' reads as A
        {";<=>?9", 6, {0xBC, 0xDE, 0xF9}},
        {"zz", 2, {0x00}}, // unknown characters read as 0
        {"G1g2", 4, {0x01, 0x02}},
        {"abc", 3, {0xAB}}, // the odd character is ignored
        {"12", 1, {}},      // below two characters nothing is written
        {"12", 0, {}},
        {"12", -4, {}},
        {"\xff\x80", 2, {0x00}},
    };
    for (const auto& c : cases)
    {
        std::vector<char> out(8, '\x5A');
        asc2hex(c.text.c_str(), c.length, out.data());
        std::vector<uint8_t> expected = c.expected;
        expected.resize(8, 0x5A);
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.end()), expected)
            << c.text;
    }
}

TEST(StringToHex, ConvertsPairsAndKeepsAnOddTailUnmasked)
{
    struct Case
    {
        std::string text;
        std::vector<uint8_t> expected;
    };
    const Case cases[] = {
        {"1a2", {0x1A, 0x02}},
        {"1aa", {0x1A, 0x2A}}, // trailing 'a' is 0x61 - 0x37
        {"1aA", {0x1A, 0x0A}},
        {"DEADbeef", {0xDE, 0xAD, 0xBE, 0xEF}},
        {"09", {0x09}},
        {"", {}},
        {" ", {0xF0}},  // 0x20 - 0x30, kept to eight bits
        {"gz", {0x7A}}, // (0x67 - 0x30) << 4 | (0x7A - 0x30) & 0x0F
    };
    for (const auto& c : cases)
    {
        std::string text = c.text;
        std::vector<unsigned char> out(8, 0x5A);
        EXPECT_EQ(StringToHex(text.data(), out.data()), 0);
        std::vector<uint8_t> expected = c.expected;
        expected.resize(8, 0x5A);
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.end()), expected)
            << c.text;
    }
}

TEST(ShellStatus, JudgesSystemResultsWithFixedMessages)
{
    struct Case
    {
        const char* command; // run for real; null means status -1
        ipmi_ret_t cc;
        const char* message;
    };
    const Case cases[] = {
        {"exit 0", 0x00, "run shell success\n"},
        {"exit 3", 0xFF, "run shell fail,exit code: 1\n"},
        {"exit 1", 0xFF, "run shell fail,exit code: 1\n"},
        {"kill -9 $$", 0xFF, "exit code: 0\n"},
        {nullptr, 0xFF, "execute system cmd error\n"},
    };
    for (const auto& c : cases)
    {
        int status = c.command != nullptr ? system(c.command) : -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(oem::shellStatus(status), c.cc) << c.command;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message)
            << c.command;
    }
}

} // namespace
