// SPDX-License-Identifier: Apache-2.0
// The fan-control parameter file: finding a sensor's line, reading its
// fields and rewriting it in place.

#include "thermal/fans.hpp"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace
{

using oem::thermal::FanParamResult;
using oem::thermal::FanParams;
using enum FanParamResult;

// An anonymous file holding text, at its start.
FILE* fileOf(const std::string& text)
{
    FILE* file = tmpfile();
    fwrite(text.data(), 1, text.size(), file);
    rewind(file);
    return file;
}

std::string contents(FILE* file)
{
    std::string text(4096, '\0');
    rewind(file);
    text.resize(fread(text.data(), 1, text.size(), file));
    fclose(file);
    return text;
}

const std::string line1 = "0x01:0x0A:0x02:0x00:0x1E:0x14\n";
const std::string line5 = "0x05:0x08:0x02:0x00:0x32:0x14\n";
const std::string new5 = "0x05:0xAB:0x00:0xFF:0x7F:0x01\n";
// Too long to be one of the service's lines, with what looks like the line
// of sensor 5 past the 49th character.
const std::string longLine = "0x09:" + std::string(44, 'A') + line5;

TEST(FanParamFile, RewritesOnlyAMatchedLineOfTheFixedWidth)
{
    const struct
    {
        std::string before;
        FanParamResult result;
        std::string after;
    } cases[] = {
        {line1 + line5 + line1, found, line1 + new5 + line1},
        {line5 + line1 + line5, found, new5 + line1 + line5},
        {"\n# sensors\n" + line5, found, "\n# sensors\n" + new5},
        {"0x5:0x08:0x02:0x00:0x32:0x140\n", found, new5},
        {line1 + line5.substr(0, 29), notFound, ""},
        {"0x105:0x08:0x02:0x00:0x32:0x1\n", notFound, ""},
        {longLine + line1, notFound, ""},
        {"0x05:0x08:0x02:0x00:0x32:0x14:0x00:0x00:0x00:0x00:0x00\n", notFound,
         ""},
        {"", notFound, ""},
        {"0x5:0x8:0x2:0x0:0x32:0x14\n", badWidth, ""},
        {"0x05:0x08:0x02:0x00:0x32:0x14\r\n", badWidth, ""},
    };
    for (const auto& c : cases)
    {
        FILE* file = fileOf(c.before);
        EXPECT_EQ(oem::thermal::writeFanParams(
                      file, {0x05, 0xAB, 0x00, 0xFF, 0x7F, 0x01}),
                  c.result)
            << c.before;
        EXPECT_EQ(contents(file), c.result == found ? c.after : c.before)
            << c.before;
    }
}

TEST(FanParamFile, ReadsTheFieldsOfTheMatchedLine)
{
    const struct
    {
        std::string text;
        uint8_t id;
        FanParamResult result;
        FanParams params;
    } cases[] = {
        {line1 + line5, 5, found, {0x05, 0x08, 0x02, 0x00, 0x32, 0x14}},
        {"9:a:b:c:d:ef\n", 9, found, {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0xEF}},
        {"0x07::0x03\n", 7, found, {0x07, 0, 0x03, 0, 0, 0}},
        {"8:1:2:3:4:5:6:7:8:9:a:b\n", 8, found, {8, 1, 2, 3, 4, 5}},
        {"0x0A:0x1FF:2:3:4:5\n", 10, found, {0x0A, 0xFF, 2, 3, 4, 5}},
        {"\n" + line1, 0, notFound, {}},
        {line1 + line5.substr(0, 29), 5, notFound, {}},
        {longLine + line1, 5, notFound, {}},
    };
    for (const auto& c : cases)
    {
        FILE* file = fileOf(c.text);
        FanParams params{};
        EXPECT_EQ(oem::thermal::readFanParams(file, c.id, params), c.result)
            << c.text;
        EXPECT_EQ(params, c.params) << c.text;
        EXPECT_EQ(contents(file), c.text);
    }
}

} // namespace
