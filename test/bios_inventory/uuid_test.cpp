// SPDX-License-Identifier: Apache-2.0
// The system UUID in the EEPROM and the BMC UUID from the image, through the
// host.

#include "sandbox_files.hpp"

#include <optional>

namespace
{

using namespace bios_test;
using Bytes = std::vector<uint8_t>;

const Bytes ordered = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                       0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

Bytes uuidText(const std::string& text, bool terminated = true)
{
    Bytes r = bytesOf(text);
    if (terminated)
    {
        r.push_back(0);
    }
    return r;
}

// The EEPROM around the UUID, so that a write that strays shows.
std::string uuidArea()
{
    return readFile(eepromFile).substr(0x2FF0, 0x30);
}

TEST(SystemUuid, IsStoredInTextOrderAndReadBack)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t result;
        Bytes stored;
    };
    const Bytes before(16, 0xA5);
    std::string upper = "00112233445566778899AABBCCDDEEFF";
    std::string lower = "00112233445566778899aabbccddeeff";
    Bytes tail = uuidText(upper + "junk", false);
    tail.insert(tail.begin() + 32, 0); // the NUL ends the text
    std::string long288 = upper + std::string(256, '7');
    const Case cases[] = {
        {"upper case", uuidText(upper), 0x00, ordered},
        {"lower case", uuidText(lower), 0x00, ordered},
        {"no NUL after 32 characters", uuidText(upper, false), 0x00, ordered},
        {"bytes after the NUL are not counted", tail, 0x00, ordered},
        {"288 characters count as 32", uuidText(long288), 0x00, ordered},
        {"colon reads as A", uuidText("::" + upper.substr(2)), 0x00,
         [] {
             Bytes b = ordered;
             b[0] = 0xAA;
             return b;
         }()},
        {"31 characters", uuidText(upper.substr(0, 31)), 0x01, before},
        {"33 characters", uuidText(upper + "0"), 0x01, before},
        {"an early NUL", uuidText(upper.substr(0, 10) + '\0' + upper), 0x01,
         before},
        {"empty", {}, 0x01, before},
    };
    for (const auto& c : cases)
    {
        blankEeprom();
        putBytes(eepromFile, 0x3000, before);
        putBytes(eepromFile, 0x2FFF, {0x11});
        putBytes(eepromFile, 0x3010, {0x22});
        std::string expectedArea = uuidArea();
        expectedArea.replace(0x10, 16,
                             std::string(c.stored.begin(), c.stored.end()));

        auto answer = call(0x3A, 0x50, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{c.result}) << c.what;
        EXPECT_EQ(uuidArea(), expectedArea) << c.what;

        answer = call(0x3A, 0x49, {0x01});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.stored) << c.what;
    }
}

TEST(SystemUuid, AnswersFailureWithoutAReadableEeprom)
{
    unlink(eepromFile);
    testing::internal::CaptureStderr();
    auto set = call(0x3A, 0x50, uuidText("00112233445566778899AABBCCDDEEFF"));
    auto get = call(0x3A, 0x49);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " /usr/bin/eeprom file cannot open \n"
              " /usr/bin/eeprom file cannot open \n");
    EXPECT_EQ(set.cc, 0x00);
    EXPECT_EQ(set.data, Bytes{0x01});
    EXPECT_EQ(get.cc, 0x00);
    EXPECT_EQ(get.data, Bytes{0x01});
    EXPECT_EQ(readFile(eepromFile), "<missing>");

    // Too short to hold the whole UUID.
    blankEeprom(0x3008);
    get = call(0x3A, 0x49);
    EXPECT_EQ(get.cc, 0x00);
    EXPECT_EQ(get.data, Bytes{0x01});
}

TEST(BmcUuid, AnswersTheSixteenBytesOfTheImageUuid)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> file;
        uint8_t cc;
        Bytes answer;
    };
    const Bytes canonical = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0,
                             0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    const Case cases[] = {
        {"canonical form", "12345678-9abc-def0-1234-56789abcdef0\n", 0x00,
         canonical},
        {"upper case, no line end", "12345678-9ABC-DEF0-1234-56789ABCDEF0",
         0x00, canonical},
        {"without hyphens", "00112233445566778899aabbccddeeff\n", 0x00,
         ordered},
        {"only the first 36 characters",
         "00112233445566778899aabbccddeeff0123456789\n", 0x00, ordered},
        {"short",
         "0011\n",
         0x00,
         {0x00, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"empty", "", 0x00, Bytes(16, 0)},
        {"missing", std::nullopt, 0x01, {0x01}},
    };
    for (const auto& c : cases)
    {
        unlink("/etc/bmc-uuid");
        if (c.file)
        {
            writeFile("/etc/bmc-uuid", *c.file);
        }
        auto answer = call(0x3A, 0x53, {0x00});
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
    }
}

} // namespace
