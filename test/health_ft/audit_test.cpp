// SPDX-License-Identifier: Apache-2.0
// Paging through the power and login audit logs through the host, on the
// default board's logs and on logs written for a case.

#include "board.hpp"
#include "plugin.hpp"

#include <unistd.h>

#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr const char* powerLog = "/usr/share/www/power_aduit.log";
constexpr const char* loginLog = "/usr/share/www/login_aduit.log";

/* A record's answer: its text, then zeros up to 160 bytes. */
Bytes answerOf(const std::string& text)
{
    Bytes bytes(text.begin(), text.end());
    bytes.resize(160, 0);
    return bytes;
}

std::string lines(int count)
{
    std::string text;
    for (int i = 1; i <= count; ++i)
    {
        text += "2020-01-09 10:00:00 bmc webserver[812]: INFO 10.0.0.1 "
                "user:admin Event " +
                std::to_string(i) + "\n";
    }
    return text;
}

class AuditLog : public testing::Test
{
  protected:
    void SetUp() override
    {
        power = readFile(powerLog);
        login = readFile(loginLog);
    }
    void TearDown() override
    {
        writeFile(powerLog, power);
        writeFile(loginLog, login);
    }

    std::string power;
    std::string login;
};

TEST_F(AuditLog, BoardLogsCountAndPage)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
    };
    const Case cases[] = {
        {"power count", {1, 0}, 0x00, {3}},
        {"login count", {2, 0}, 0x00, {4}},
        {"first power record",
         {1, 1},
         0x00,
         answerOf("1|2020-01-08 08:00:12|192.168.0.20|admin|Power On\n \n")},
        {"last power record",
         {1, 3},
         0x00,
         answerOf("3|2020-01-08 17:30:05|192.168.0.21|operator|Graceful "
                  "Shutdown\n \n")},
        {"second login record",
         {2, 2},
         0x00,
         answerOf("2|2020-01-08 09:40:02|192.168.0.33|root|Login failed: "
                  "wrong password\n \n")},
        {"power record past the end", {1, 4}, 0xC9, {}},
        {"login record past the end", {2, 5}, 0xC9, {}},
        {"index 200", {1, 200}, 0xC9, {}},
        {"index 201", {1, 201}, 0xC9, {}},
        {"index 255", {2, 255}, 0xC9, {}},
        {"type 0", {0, 1}, 0xC9, {}},
        {"type 3", {3, 0}, 0xC9, {}},
        {"type 0xFF", {0xFF, 1}, 0xC9, {}},
        {"no bytes", {}, 0xC7, {}},
        {"one byte", {1}, 0xC7, {}},
        {"three bytes", {1, 1, 0}, 0xC7, {}},
        {"a long request", Bytes(300, 1), 0xC7, {}},
    };
    for (const auto& c : cases)
    {
        auto answer = call(0x30, 0xB1, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
    }
    // The logs are only read.
    EXPECT_EQ(readFile(powerLog), power);
    EXPECT_EQ(readFile(loginLog), login);
}

TEST_F(AuditLog, ErrorsSayWhichSelectorIsWrong)
{
    struct Case
    {
        Bytes request;
        std::string log;
    };
    const Case cases[] = {
        {{1}, "Invalid data_len\n "},
        {{4, 1}, "Error Record Type Selector\n"},
        {{1, 201}, "Error Power Record Index Selector\n"},
        {{2, 201}, "Error Login Record Index Selector\n"},
        {{1, 9}, "Record Index Selector Out of range\r\n"},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStderr();
        call(0x30, 0xB1, c.request);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.log)
            << testing::PrintToString(c.request);
    }
}

TEST_F(AuditLog, MissingLogCountsZeroAndHasNoRecords)
{
    unlink(loginLog);
    auto answer = call(0x30, 0xB1, {2, 0});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0});
    testing::internal::CaptureStderr();
    answer = call(0x30, 0xB1, {2, 1});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "file /usr/share/www/login_aduit.log open error\r\n");
    EXPECT_EQ(answer.cc, 0xC9);
    EXPECT_EQ(answer.data, Bytes{});
    // The power log is another file.
    EXPECT_EQ(call(0x30, 0xB1, {1, 0}).data, Bytes{3});
    EXPECT_EQ(readFile(loginLog), "<missing>");
}

TEST_F(AuditLog, CountWrapsAndRecordsPast200CannotBeRead)
{
    writeFile(powerLog, lines(300));
    auto answer = call(0x30, 0xB1, {1, 0});
    EXPECT_EQ(answer.data, Bytes{300 % 256});
    answer = call(0x30, 0xB1, {1, 200});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(
        answer.data,
        answerOf("200|2020-01-09 10:00:00|10.0.0.1|admin|Event 200\n \n"));
    EXPECT_EQ(call(0x30, 0xB1, {1, 201}).cc, 0xC9);

    writeFile(powerLog, lines(256));
    EXPECT_EQ(call(0x30, 0xB1, {1, 0}).data, Bytes{0});
}

TEST_F(AuditLog, OddRecordsAnswerWhatTheyHold)
{
    // 158 characters make a piece: a longer line is several records.
    std::string longField(400, 'x');
    std::string longLine = "d t h p l ip user:name " + longField + "\n";
    std::string manyFields;
    for (int i = 0; i < 30; ++i)
    {
        manyFields += "f" + std::to_string(i) + " ";
    }
    writeFile(powerLog, "d t h p l 10.0.0.9 user:admin\n"
                        "only three fields\n"
                        "\n" +
                            manyFields + "\n" + longLine +
                            "after the long line\n");
    struct Case
    {
        const char* what;
        uint8_t index;
        Bytes data;
    };
    const std::string longText = "6|" + std::string(158, 'x');
    const Case cases[] = {
        {"exactly seven fields", 1, answerOf("1|d t|10.0.0.9|admin\n|\n")},
        {"three fields", 2, answerOf("2|only three|||\n")},
        {"an empty line", 3, answerOf("3|\n |||\n")},
        {"thirty fields", 4,
         answerOf("4|f0 f1|f5||f7 f8 f9 f10 f11 f12 f13 f14 f15 f16 f17 f18 "
                  "f19 \n")},
        {"a long line's first piece", 5,
         answerOf("5|d t|ip|name|" + std::string(135, 'x') + " \n")},
        // A text longer than the answer is cut to it, zero and all.
        {"its second piece", 6, Bytes(longText.begin(), longText.end())},
        {"its last piece", 7,
         answerOf("7|" + std::string(107, 'x') + "\n |||\n")},
        {"the line after", 8, answerOf("8|after the|||\n")},
    };
    for (const auto& c : cases)
    {
        auto answer = call(0x30, 0xB1, {1, c.index});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
    }
    EXPECT_EQ(call(0x30, 0xB1, {1, 0}).data, Bytes{8});
    EXPECT_EQ(call(0x30, 0xB1, {1, 9}).cc, 0xC9);
}

} // namespace
