// SPDX-License-Identifier: Apache-2.0
// The fan-control parameter file: finding a sensor's line and rewriting it
// in place.

#include "thermal/fans.hpp"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace
{

using oem::thermal::FanParamResult;
using oem::thermal::FanParams;

// An anonymous file holding text, positioned at its start.
struct TempFile
{
    explicit TempFile(const std::string& text) : file(tmpfile())
    {
        EXPECT_NE(file, nullptr);
        fwrite(text.data(), 1, text.size(), file);
        rewind(file);
    }
    ~TempFile()
    {
        fclose(file);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    std::string contents() const
    {
        std::string text;
        rewind(file);
        int c = 0;
        while ((c = getc(file)) != EOF)
        {
            text.push_back(static_cast<char>(c));
        }
        return text;
    }

    FILE* file;
};

const std::string line1 = "0x01:0x0A:0x02:0x00:0x1E:0x14\n";
const std::string line2 = "0x02:0x0C:0x03:0x01:0x46:0x1E\n";
const std::string line5 = "0x05:0x08:0x02:0x00:0x32:0x14\n";
const std::string line6 = "0x06:0x06:0x01:0x00:0x28:0x14\n";
const std::string new5 = "0x05:0xAB:0x00:0xFF:0x7F:0x01\n";
const FanParams set5 = {0x05, 0xAB, 0x00, 0xFF, 0x7F, 0x01};

// The head of a line too long to be one of the service's, with what looks
// like the line of sensor 5 past the 49th character.
const std::string longLine =
    "0x09:" + std::string(44, 'A') + "0x05:0x08:0x02:0x00:0x32:0x14\n";

TEST(FanParamFile, FormatIsFixedWidthUpperCase)
{
    auto text = oem::thermal::formatFanParamLine(set5);
    EXPECT_EQ(std::string(text.data()), new5);
    EXPECT_EQ(std::string(oem::thermal::formatFanParamLine({}).data()),
              "0x00:0x00:0x00:0x00:0x00:0x00\n");
}

TEST(FanParamFile, RewritesOnlyTheMatchedLine)
{
    struct Case
    {
        const char* what;
        std::string before;
        FanParamResult result;
        std::string after;
    };
    const Case cases[] = {
        {"third line", line1 + line2 + line5 + line6, FanParamResult::found,
         line1 + line2 + new5 + line6},
        {"first line", line5 + line1, FanParamResult::found, new5 + line1},
        {"last line", line1 + line5, FanParamResult::found, line1 + new5},
        {"only the first of two", line5 + line1 + line5, FanParamResult::found,
         new5 + line1 + line5},
        {"key compared as a number", "0x5:0x08:0x02:0x00:0x32:0x140\n",
         FanParamResult::found, new5},
        {"after blank and comment lines", "\n# sensors\n" + line5,
         FanParamResult::found, "\n# sensors\n" + new5},
        {"last line without newline", line1 + line5.substr(0, 29),
         FanParamResult::notFound, line1 + line5.substr(0, 29)},
        {"not there", line1 + line2 + line6, FanParamResult::notFound,
         line1 + line2 + line6},
        {"empty file", "", FanParamResult::notFound, ""},
        {"0x105 is not 0x05", "0x105:0x08:0x02:0x00:0x32:0x1\n",
         FanParamResult::notFound, "0x105:0x08:0x02:0x00:0x32:0x1\n"},
        {"tail of a long line", longLine + line1, FanParamResult::notFound,
         longLine + line1},
        {"long line of the sensor",
         "0x05:0x08:0x02:0x00:0x32:0x14:0x00:0x00:0x00:0x00:0x00\n" + line1,
         FanParamResult::notFound,
         "0x05:0x08:0x02:0x00:0x32:0x14:0x00:0x00:0x00:0x00:0x00\n" + line1},
        {"narrow line", line1 + "0x5:0x8:0x2:0x0:0x32:0x14\n" + line6,
         FanParamResult::badWidth,
         line1 + "0x5:0x8:0x2:0x0:0x32:0x14\n" + line6},
        {"CRLF line", "0x05:0x08:0x02:0x00:0x32:0x14\r\n" + line1,
         FanParamResult::badWidth, "0x05:0x08:0x02:0x00:0x32:0x14\r\n" + line1},
    };
    for (const auto& c : cases)
    {
        TempFile file(c.before);
        EXPECT_EQ(oem::thermal::writeFanParams(file.file, set5), c.result)
            << c.what;
        EXPECT_EQ(file.contents(), c.after) << c.what;
    }
}

TEST(FanParamFile, ReadsTheFieldsOfTheMatchedLine)
{
    struct Case
    {
        const char* what;
        std::string text;
        uint8_t id;
        FanParamResult result;
        FanParams params;
    };
    const Case cases[] = {
        {"second line",
         line1 + line2 + line5,
         2,
         FanParamResult::found,
         {0x02, 0x0C, 0x03, 0x01, 0x46, 0x1E}},
        {"fields without prefix, lower case",
         "9:a:b:c:d:ef\n",
         9,
         FanParamResult::found,
         {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0xEF}},
        {"missing fields read as 0",
         "0x07:0x01\n",
         7,
         FanParamResult::found,
         {0x07, 0x01, 0, 0, 0, 0}},
        {"empty field",
         "0x07::0x03:0x04:0x05:0x06\n",
         7,
         FanParamResult::found,
         {0x07, 0, 0x03, 0x04, 0x05, 0x06}},
        {"more than ten fields",
         "0x08:1:2:3:4:5:6:7:8:9:a:b:c\n",
         8,
         FanParamResult::found,
         {0x08, 1, 2, 3, 4, 5}},
        {"low byte of a wide field",
         "0x0A:0x1FF:0x2:0x3:0x4:0x5\n",
         10,
         FanParamResult::found,
         {0x0A, 0xFF, 2, 3, 4, 5}},
        {"blank line is not sensor 0",
         "\n" + line1,
         0,
         FanParamResult::notFound,
         {}},
        {"last line without newline",
         line1 + line2.substr(0, 29),
         2,
         FanParamResult::notFound,
         {}},
        {"tail of a long line",
         longLine + line1,
         5,
         FanParamResult::notFound,
         {}},
    };
    for (const auto& c : cases)
    {
        TempFile file(c.text);
        FanParams params{};
        EXPECT_EQ(oem::thermal::readFanParams(file.file, c.id, params),
                  c.result)
            << c.what;
        EXPECT_EQ(params, c.params) << c.what;
        EXPECT_EQ(file.contents(), c.text) << c.what;
    }
}

} // namespace
