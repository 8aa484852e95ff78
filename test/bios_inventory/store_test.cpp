// SPDX-License-Identifier: Apache-2.0
// The EEPROM record store on an EEPROM image in a temporary folder.

#include "difference.hpp"
#include "globals.hpp"
#include "inventory/eeprom.hpp"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

class Store : public testing::Test
{
  protected:
    void SetUp() override
    {
        char dir[] = "/tmp/eeprom-store-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        folder = dir;
        eeprom_path = folder + "/eeprom";
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder);
    }

    // An image of size bytes of fill, so that untouched bytes show.
    void image(size_t size, char fill = '\xEE')
    {
        std::ofstream(eeprom_path, std::ios::binary) << std::string(size, fill);
    }
    std::string content()
    {
        std::ifstream in(eeprom_path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string folder;
};

std::string record(const std::string& tag, const std::string& payload)
{
    std::string bytes = tag + payload.substr(0, 124);
    bytes.resize(128, '\0');
    return bytes;
}

TEST_F(Store, WritesTaggedZeroPaddedRecordsOnlyWhereTheyFit)
{
    struct Case
    {
        const char* what;
        size_t size;
        BIOS_DATA_TYPE type;
        int record;
        std::string data;
        int result;
        std::string expectedRecord; // at the record's offset, if written
    };
    std::string ten = "0123456789";
    std::string long200(200, 'x');
    long200[123] = 'L';
    long200[124] = 'N'; // past the payload
    const Case cases[] = {
        {"cpu record", 0x4000, BIOS_DATA_TYPE_CPU, 1, ten, 0,
         record("CPUs", ten)},
        {"bios", 0x4000, BIOS_DATA_TYPE_BIOS, 0, ten, 0, record("BIOS", ten)},
        {"pci", 0x4000, BIOS_DATA_TYPE_PCI, 2, ten, 0, record("PCIs", ten)},
        {"nic", 0x4000, BIOS_DATA_TYPE_NIC, 15, ten, 0, record("NICs", ten)},
        {"hdd", 0x4000, BIOS_DATA_TYPE_HDD, 19, ten, 0, record("HDDs", ten)},
        {"dimm", 0x4000, BIOS_DATA_TYPE_DIMM, 38, ten, 0, record("DIMs", ten)},
        {"unknown type", 0x4000, static_cast<BIOS_DATA_TYPE>(9), 3, ten, 0,
         record("NONO", ten)},
        {"only 124 bytes kept", 0x4000, BIOS_DATA_TYPE_CPU, 1, long200, 0,
         record("CPUs", long200)},
        {"past the record area", 0x4000, BIOS_DATA_TYPE_DIMM, 39, ten, 0,
         record("DIMs", ten)},
        {"past the UUID", 0x4000, BIOS_DATA_TYPE_DIMM, 65, ten, 0,
         record("DIMs", ten)},
        // The store does not arbitrate: DIMM record 64 lands on the UUID.
        {"onto the UUID", 0x4000, BIOS_DATA_TYPE_DIMM, 64, ten, 0,
         record("DIMs", ten)},
        {"file of 4096 bytes", 0x1000, BIOS_DATA_TYPE_BIOS, 0, ten, -1, ""},
        {"empty file", 0, BIOS_DATA_TYPE_BIOS, 0, ten, -1, ""},
        {"offset plus length is the size", 0x1000 + 200, BIOS_DATA_TYPE_BIOS, 0,
         long200, -1, ""},
        {"offset plus length one below", 0x1000 + 201, BIOS_DATA_TYPE_BIOS, 0,
         long200, 0, record("BIOS", long200)},
        {"record would grow the file", 0x1000 + 127, BIOS_DATA_TYPE_BIOS, 0,
         ten, -1, ""},
        {"record ends the file", 0x1000 + 128, BIOS_DATA_TYPE_BIOS, 0, ten, 0,
         record("BIOS", ten)},
        {"negative record", 0x4000, BIOS_DATA_TYPE_BIOS, -1, ten, -1, ""},
    };
    for (const auto& c : cases)
    {
        image(c.size);
        std::string before = content();
        std::string data = c.data;
        testing::internal::CaptureStderr();
        EXPECT_EQ(eeprom_store_data(BIOS_DATA_WRITE, c.type, c.record,
                                    data.data(), static_cast<int>(data.size())),
                  c.result)
            << c.what;
        std::string messages = testing::internal::GetCapturedStderr();

        std::string expected = before;
        if (c.result == 0)
        {
            expected.replace(0x1000 + 128 * static_cast<size_t>(c.record), 128,
                             c.expectedRecord);
            EXPECT_EQ(messages, "") << c.what;
        }
        else
        {
            EXPECT_NE(messages, "") << c.what;
        }
        EXPECT_EQ(bios_test::difference(content(), expected), "same") << c.what;
    }
}

TEST_F(Store, ExplainsWhyAWriteIsRefused)
{
    std::string data = "abc";
    testing::internal::CaptureStderr();
    EXPECT_EQ(eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, 1,
                                data.data(), 3),
              -1);
    image(0x1000);
    EXPECT_EQ(eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, 1,
                                data.data(), 3),
              -1);
    EXPECT_EQ(eeprom_store_data(BIOS_DATA_CLEAN_ONE, BIOS_DATA_TYPE_CPU, 1,
                                nullptr, 0),
              -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " " + eeprom_path + " file cannot open \n " + eeprom_path +
                  " The file is too small, the storage address is 0x1080, and "
                  "the required write length is 3.\n " +
                  eeprom_path +
                  " The file is too small, the storage address is 0x1080\n");

    image(0x4000);
    EXPECT_EQ(
        eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, 1, nullptr, 3),
        -1);
}

TEST_F(Store, ClearsOneRecordOrTheWholeAreaAndNothingElse)
{
    struct Case
    {
        const char* what;
        size_t size;
        BIOS_DATA_FLAGS flags;
        int record;
        int result;
        size_t clearedFrom;
        size_t clearedTo;
    };
    const Case cases[] = {
        {"whole area", 0x4000, BIOS_DATA_CLEAN_ALL, 0, 0, 0x1000, 0x2380},
        {"one record", 0x4000, BIOS_DATA_CLEAN_ONE, 5, 0, 0x1280, 0x1300},
        {"whole area in a short file", 0x2000, BIOS_DATA_CLEAN_ALL, 0, 0,
         0x1000, 0x2000},
        {"last record cut by the end", 0x1040, BIOS_DATA_CLEAN_ONE, 0, 0,
         0x1000, 0x1040},
        {"other flags do nothing", 0x4000, static_cast<BIOS_DATA_FLAGS>(7), 0,
         0, 0, 0},
        {"offset at the end", 0x1000, BIOS_DATA_CLEAN_ALL, 0, -1, 0, 0},
        // Record numbers past the area are not arbitrated: 64 is the UUID.
        {"record 64 is the UUID", 0x4000, BIOS_DATA_CLEAN_ONE, 64, 0, 0x3000,
         0x3080},
        {"a span over the UUID", 0x4000, BIOS_DATA_CLEAN_ALL, 30, 0, 0x1F00,
         0x3280},
    };
    for (const auto& c : cases)
    {
        image(c.size);
        std::string expected = content();
        std::fill(expected.begin() + static_cast<long>(c.clearedFrom),
                  expected.begin() + static_cast<long>(c.clearedTo), '\0');
        testing::internal::CaptureStderr();
        EXPECT_EQ(eeprom_store_data(c.flags, BIOS_DATA_TYPE_CPU, c.record,
                                    nullptr, 0),
                  c.result)
            << c.what;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(bios_test::difference(content(), expected), "same") << c.what;
    }

    image(0x4000);
    std::string expected = content();
    std::fill(expected.begin() + 0x1000, expected.begin() + 0x2380, '\0');
    EXPECT_EQ(eeprom_bios_data_clean(), 0);
    EXPECT_EQ(bios_test::difference(content(), expected), "same");

    std::filesystem::remove(eeprom_path);
    testing::internal::CaptureStderr();
    EXPECT_EQ(eeprom_bios_data_clean(), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(std::filesystem::exists(eeprom_path));
}

TEST_F(Store, ReadsThePayloadOfARecord)
{
    image(0x1000 + 128 * 2 + 10, '\0');
    std::string payload(124, '\0');
    for (size_t i = 0; i < payload.size(); ++i)
    {
        payload[i] = static_cast<char>(i + 1);
    }
    ASSERT_EQ(eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_PCI, 1,
                                payload.data(), 124),
              0);

    struct Case
    {
        int record;
        int length;
        int result;
        size_t copied;
    };
    const Case cases[] = {
        {1, 16, 0, 16}, {1, 124, 0, 124}, {1, 200, 0, 124},
        {1, 0, 0, 0},   {0, 71, 0, 71},   {2, 40, 0, 40},
        {3, 40, -1, 0}, {-1, 4, -1, 0},   {1, -1, -1, 0},
    };
    for (const auto& c : cases)
    {
        std::string out(256, '\x5A');
        testing::internal::CaptureStderr();
        EXPECT_EQ(get_eeprom_store_data(c.record, out.data(), c.length),
                  c.result)
            << c.record << " " << c.length;
        testing::internal::GetCapturedStderr();
        std::string expected(256, '\x5A');
        if (c.record == 1)
        {
            expected.replace(0, c.copied, payload.substr(0, c.copied));
        }
        else
        {
            // Never written, or cut short by the end of the file.
            std::fill_n(expected.begin(), c.copied, '\0');
        }
        EXPECT_EQ(out, expected) << c.record << " " << c.length;
    }
    EXPECT_EQ(get_eeprom_store_data(1, nullptr, 4), -1);
}

} // namespace
