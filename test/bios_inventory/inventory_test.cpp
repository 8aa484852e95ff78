// SPDX-License-Identifier: Apache-2.0
// The device inventory commands through the host: the records they leave in
// the EEPROM, the FRU update command lines they run and what the get
// commands answer.

#include "sandbox_files.hpp"

#include <filesystem>

namespace
{

using namespace bios_test;
using Bytes = std::vector<uint8_t>;

constexpr const char* boardEeprom = "/sys/bus/i2c/devices/5-0050/eeprom";

Bytes record(const std::string& tag, const Bytes& payload)
{
    Bytes bytes = bytesOf(tag);
    bytes.insert(bytes.end(), payload.begin(),
                 payload.begin() +
                     static_cast<long>(std::min<size_t>(payload.size(), 124)));
    bytes.resize(128, 0);
    return bytes;
}

// A request of length bytes that starts with head and counts on from 0xA0.
Bytes request(Bytes head, size_t length)
{
    for (size_t i = head.size(); i < length; ++i)
    {
        head.push_back(static_cast<uint8_t>(0xA0 + i));
    }
    return head;
}

void setUpTools()
{
    standIn("/usr/sbin/up_pci_frulist.sh");
    clearCommandLog();
}

TEST(InventorySet, StoresTheWholeRequestAndRunsTheFruUpdate)
{
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        int record;
        const char* tag;
        std::string command;
    };
    Bytes dimmRequest = request({4}, 19);
    const Case cases[] = {
        {"cpu", 0x01, request({2}, 6), 3, "CPUs", "cpu /usr/bin/eeprom 2 3"},
        {"cpu, long request", 0x01, request({0}, 130), 1, "CPUs",
         "cpu /usr/bin/eeprom 0 1"},
        {"dimm", 0x03, dimmRequest, 35, "DIMs", "dim /usr/bin/eeprom 4 35"},
        {"dimm past the record area", 0x03, request({8}, 6), 39, "DIMs",
         "dim /usr/bin/eeprom 8 39"},
        {"pci in the slot table", 0x09, request({0, 5}, 6), 7, "PCIs",
         "pci /usr/bin/eeprom 5 7"},
        {"pci of slot 12", 0x09, request({0, 12}, 6), 14, "PCIs",
         "pci /usr/bin/eeprom 12 14"},
        {"pci not in the slot table", 0x09, request({1, 0}, 20), 15, "PCIs",
         "pci /usr/bin/eeprom 13 15"},
        {"pci of bus 0 device 0", 0x09, request({0, 0}, 6), 15, "PCIs",
         "pci /usr/bin/eeprom 13 15"},
        {"disk", 0x16, request({2, 1}, 40), 17, "HDDs",
         "hdd /usr/bin/eeprom 2 17"},
        {"disk of kind 8", 0x16, request({2, 8}, 40), 21, "HDDs",
         "hdd /usr/bin/eeprom 6 21"},
    };
    for (const auto& c : cases)
    {
        blankEeprom();
        setUpTools();
        auto answer = call(0x3A, c.cmd, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{0x00}) << c.what;
        EXPECT_EQ(recordAt(c.record), record(c.tag, c.request)) << c.what;
        EXPECT_EQ(loggedCommands(), "up_pci_frulist.sh " + c.command + "\n")
            << c.what;
        // Nothing else in the record area changed.
        std::string area = readFile(eepromFile).substr(0x1000, 0x2000);
        size_t offset = 128 * static_cast<size_t>(c.record);
        area.erase(offset, 128);
        EXPECT_EQ(difference(area, std::string(0x2000 - 128, '\0')), "same")
            << c.what;
    }
}

TEST(InventorySet, RefusesRequestsShorterThanSixBytes)
{
    const uint8_t commands[] = {0x01, 0x03, 0x09, 0x16, 0x27};
    for (uint8_t cmd : commands)
    {
        for (size_t length : {0, 1, 5})
        {
            blankEeprom();
            setUpTools();
            writeFile("/etc/all_dimm_size", "");
            auto answer = call(0x3A, cmd, request({1, 1}, length));
            EXPECT_EQ(answer.cc, 0x00);
            EXPECT_EQ(answer.data, Bytes{0x01}) << int(cmd) << " " << length;
            EXPECT_EQ(
                difference(readFile(eepromFile), std::string(0x4000, '\0')),
                "same");
            EXPECT_EQ(readFile("/etc/all_dimm_size"), "");
            EXPECT_EQ(loggedCommands(), "");
        }
    }
}

TEST(InventorySet, AFailedStoreStillAnswersSuccess)
{
    unlink(eepromFile);
    setUpTools();
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x01, request({1}, 10));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " /usr/bin/eeprom file cannot open \n");
    EXPECT_EQ(answer.data, Bytes{0x00});
    EXPECT_EQ(loggedCommands(), "up_pci_frulist.sh cpu /usr/bin/eeprom 1 2\n");
}

TEST(InventoryGet, AnswersTheStoredPayloadBehindItsHeader)
{
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        int record;
        size_t size;
    };
    const Case cases[] = {
        {"cpu", 0x02, {1}, 2, 71},
        {"cpu of an empty request", 0x02, {}, 1, 71},
        {"dimm", 0x04, {3, 9, 9}, 34, 55},
        {"dimm past the record area", 0x04, {8}, 39, 55},
        {"pci", 0x0A, {0, 3}, 5, 16},
        {"pci not in the slot table", 0x0A, {1, 0}, 15, 16},
        {"pci of bus 0 only", 0x0A, {0}, 15, 16},
        {"disk", 0x17, {2}, 17, 72},
        {"disk 4 reads kind 8 disk 0", 0x17, {4}, 19, 72},
        {"nic", 0x28, {0, 12}, 14, 40},
        {"nic not in the slot table", 0x28, {7, 7}, 15, 40},
    };
    blankEeprom();
    // Every record holds its own pattern.
    for (int r = 0; r < 40; ++r)
    {
        Bytes bytes = bytesOf("TAG!");
        for (int i = 0; i < 124; ++i)
        {
            bytes.push_back(static_cast<uint8_t>(r * 3 + i));
        }
        putBytes(eepromFile, 0x1000 + 128 * static_cast<size_t>(r), bytes);
    }
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, c.cmd, c.request);
        Bytes expected = {0x00, 0x01};
        Bytes stored = recordAt(c.record);
        expected.insert(expected.end(), stored.begin() + 4,
                        stored.begin() + 4 + static_cast<long>(c.size));
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, expected) << c.what;
    }

    // No EEPROM: the header and zeros.
    unlink(eepromFile);
    testing::internal::CaptureStderr();
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, c.cmd, c.request);
        Bytes expected = {0x00, 0x01};
        expected.resize(2 + c.size, 0);
        EXPECT_EQ(answer.data, expected) << c.what;
    }
    testing::internal::GetCapturedStderr();
}

TEST(InventoryGet, OverlappingRecordsAnswerTheLastWriter)
{
    blankEeprom();
    setUpTools();
    // CPU 14 and every PCI device outside the slot table share record 15.
    Bytes cpu = request({14}, 20);
    ASSERT_EQ(call(0x3A, 0x01, cpu).data, Bytes{0x00});
    Bytes expected = {0x00, 0x01};
    expected.insert(expected.end(), cpu.begin(), cpu.begin() + 16);
    EXPECT_EQ(call(0x3A, 0x0A, {0x01, 0x00}).data, expected);

    Bytes pci = request({0x02, 0x00}, 8);
    ASSERT_EQ(call(0x3A, 0x09, pci).data, Bytes{0x00});
    expected = {0x00, 0x01};
    expected.insert(expected.end(), pci.begin(), pci.end());
    expected.resize(2 + 71, 0);
    EXPECT_EQ(call(0x3A, 0x02, {14}).data, expected);

    // A kind 8 disk is read back by asking for disk number + 4.
    Bytes disk = request({1, 8}, 10);
    ASSERT_EQ(call(0x3A, 0x16, disk).data, Bytes{0x00});
    expected = {0x00, 0x01};
    expected.insert(expected.end(), disk.begin(), disk.end());
    expected.resize(2 + 72, 0);
    EXPECT_EQ(call(0x3A, 0x17, {5}).data, expected);
    Bytes empty(2 + 72, 0);
    empty[1] = 0x01;
    EXPECT_EQ(call(0x3A, 0x17, {1}).data, empty);
}

TEST(DimmSize, SetDimmAppendsTheSizeTextAndGetSumsIt)
{
    blankEeprom();
    setUpTools();
    writeFile("/etc/all_dimm_size", "");
    EXPECT_EQ(call(0x3A, 0x83).data, bytesOf("0"));

    auto dimm = [](uint8_t number, const std::string& size) {
        Bytes r = request({number}, 11);
        r.insert(r.end(), size.begin(), size.end());
        return r;
    };
    EXPECT_EQ(call(0x3A, 0x03, dimm(0, "16384")).data, Bytes{0x00});
    Bytes padded = dimm(1, "8192");
    padded.resize(24, 0);
    EXPECT_EQ(call(0x3A, 0x03, padded).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x03, dimm(2, "123456789")).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x03, request({3}, 6)).data, Bytes{0x00});
    EXPECT_EQ(readFile("/etc/all_dimm_size"), "16384\n8192\n12345678\n\n");
    EXPECT_EQ(loggedCommands(), "up_pci_frulist.sh dim /usr/bin/eeprom 0 31\n"
                                "up_pci_frulist.sh dim /usr/bin/eeprom 1 32\n"
                                "up_pci_frulist.sh dim /usr/bin/eeprom 2 33\n"
                                "up_pci_frulist.sh dim /usr/bin/eeprom 3 34\n");

    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x83);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "dimm size is 12370254\n");
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, bytesOf("12370254"));

    const std::pair<std::string, std::string> sums[] = {
        {"4096\n-96\n", "4000"},
        {"32\nabc\n 8 GB\n", "40"},
        {"7", "7"},
        {"\n\n", "0"},
    };
    for (const auto& [content, sum] : sums)
    {
        writeFile("/etc/all_dimm_size", content);
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(0x3A, 0x83).data, bytesOf(sum)) << content;
        testing::internal::GetCapturedStderr();
    }

    unlink("/etc/all_dimm_size");
    answer = call(0x3A, 0x83, {1, 2, 3});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0x01});
}

TEST(DimmSize, AnUnwritableSizeFileFailsAfterTheRecordIsStored)
{
    blankEeprom();
    setUpTools();
    std::filesystem::remove_all("/etc/all_dimm_size");
    std::filesystem::create_directories("/etc/all_dimm_size");
    Bytes dimm = request({5}, 19);
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(0x3A, 0x03, dimm).data, Bytes{0x01});
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(recordAt(36), record("DIMs", dimm));
    EXPECT_EQ(loggedCommands(), "");
    std::filesystem::remove_all("/etc/all_dimm_size");
}

class BoardNic : public testing::Test
{
  protected:
    void SetUp() override
    {
        writeFile(boardEeprom, std::string(1024, '\xEE'));
        standIn("/sbin/ifconfig",
                "eth0      Link encap:Ethernet\n"
                "          UP BROADCAST RUNNING MULTICAST  MTU:1500\n");
        clearCommandLog();
    }
};

TEST_F(BoardNic, SetStoresThirteenBytesAtTheBoardOffset)
{
    struct Case
    {
        const char* what;
        uint8_t cmd;
        size_t offset;
        Bytes request;
        uint8_t result;
        Bytes stored; // the 13 bytes at offset afterwards
    };
    Bytes nic = request({3}, 13);
    Bytes longer = request({15}, 20);
    Bytes kept(13, 0xEE);
    const Case cases[] = {
        {"onboard", 0x12, 400, nic, 0x00, nic},
        {"offboard", 0x14, 528, nic, 0x00, nic},
        {"port 15", 0x12, 400, longer, 0x00,
         Bytes(longer.begin(), longer.begin() + 13)},
        {"short request",
         0x14,
         528,
         {2, 0x11},
         0x00,
         {2, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"empty request", 0x12, 400, {}, 0x00, Bytes(13, 0)},
        {"port 16", 0x12, 400, request({16}, 13), 0x01, kept},
        {"port 255", 0x14, 528, request({255}, 13), 0x01, kept},
    };
    for (const auto& c : cases)
    {
        SetUp();
        auto answer = call(0x3A, c.cmd, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{c.result}) << c.what;
        std::string expected(1024, '\xEE');
        expected.replace(c.offset, 13,
                         std::string(c.stored.begin(), c.stored.end()));
        EXPECT_EQ(readFile(boardEeprom), expected) << c.what;
    }

    unlink(boardEeprom);
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(0x3A, 0x12, nic).data, Bytes{0x01});
    EXPECT_EQ(call(0x3A, 0x14, nic).data, Bytes{0x01});
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(std::filesystem::exists(boardEeprom));
}

TEST_F(BoardNic, GetAnswersTheStoredPortWithItsLinkState)
{
    Bytes stored = request({3}, 20); // byte 13 is the stored link state
    putBytes(boardEeprom, 400, stored);
    Bytes other = request({7}, 20);
    putBytes(boardEeprom, 528, other);

    auto found = [](const Bytes& bytes, uint8_t link) {
        Bytes answer = {0x00, 0x01};
        answer.insert(answer.end(), bytes.begin() + 1, bytes.begin() + 13);
        answer.push_back(link);
        return answer;
    };
    struct Case
    {
        const char* what;
        uint8_t cmd;
        Bytes request;
        bool running;
        Bytes answer;
        std::string commands;
    };
    const Case cases[] = {
        {"onboard, link up",
         0x13,
         {3},
         true,
         found(stored, 1),
         "ifconfig eth3\n"},
        {"onboard, link down",
         0x13,
         {3, 0xFF},
         false,
         found(stored, 0),
         "ifconfig eth3\n"},
        {"offboard above port 3", 0x15, {7}, true, found(other, 0), ""},
        {"another port", 0x13, {2}, true, {0x00, 0x00}, ""},
        {"port of the other record", 0x13, {7}, true, {0x00, 0x00}, ""},
        {"empty request asks for port 0", 0x15, {}, true, {0x00, 0x00}, ""},
    };
    for (const auto& c : cases)
    {
        standIn("/sbin/ifconfig", c.running
                                      ? "eth  UP BROADCAST RUNNING MULTICAST\n"
                                      : "eth  UP BROADCAST MULTICAST\n");
        clearCommandLog();
        auto answer = call(0x3A, c.cmd, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
        EXPECT_EQ(loggedCommands(), c.commands) << c.what;
    }

    // A set followed by a get, port 0.
    Bytes nic = request({0}, 13);
    ASSERT_EQ(call(0x3A, 0x14, nic).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x15, {0}).data, found(request({0}, 13), 1));

    unlink(boardEeprom);
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x3A, 0x13, {3}).data, (Bytes{0x00, 0x00}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "read error\n");
}

class NicDevice : public testing::Test
{
  protected:
    void SetUp() override
    {
        blankEeprom();
        setUpTools();
        std::filesystem::remove_all("/var/ipmi");
    }

    // A NIC function on bus 0 device 2: its PCI address, two identifiers
    // and six bytes of NIC data.
    static Bytes function(uint8_t fn, uint16_t first = 0x8086,
                          uint16_t second = 0x1533, uint8_t data = 0x10)
    {
        Bytes r = {0x00,
                   0x02,
                   0x03,
                   0x00,
                   fn,
                   static_cast<uint8_t>(first >> 8),
                   static_cast<uint8_t>(first),
                   static_cast<uint8_t>(second >> 8),
                   static_cast<uint8_t>(second),
                   0xC9,
                   0xCA,
                   0xCB,
                   0xCC};
        for (uint8_t i = 0; i < 6; ++i)
        {
            r.push_back(static_cast<uint8_t>(data + i));
        }
        return r;
    }
    static std::string dataOf(uint8_t data)
    {
        std::string bytes;
        for (uint8_t i = 0; i < 6; ++i)
        {
            bytes += static_cast<char>(data + i);
        }
        return bytes;
    }
    static std::string list()
    {
        return readFile("/var/ipmi/nicDev.list00:02");
    }
    static std::string device()
    {
        return readFile("/var/ipmi/nic00:02");
    }
};

TEST_F(NicDevice, CountsTheFunctionsOfOneCard)
{
    struct Step
    {
        const char* what;
        Bytes request;
        uint8_t result;
        std::string list;
        std::string device;
    };
    const std::string line0 = "00:02--03:00:0,8086,1533,00;\n";
    const std::string line1 = "00:02--03:00:1,8086,1533,01;\n";
    const std::string line2 = "00:02--03:00:2,8086,1533,02;\n";
    const std::string line3 = "00:02--03:00:3,8086,1533,03;\n";
    const std::string line4 = "00:02--03:00:4,8086,1533,04;\n";
    const std::string all = dataOf(0x10) + '\x01' + dataOf(0x20) + '\x02' +
                            dataOf(0x30) + '\x03' + dataOf(0x40);
    const Step steps[] = {
        {"first function", function(0, 0x8086, 0x1533, 0x10), 0x00, line0,
         dataOf(0x10)},
        {"second", function(1, 0x8086, 0x1533, 0x20), 0x00, line0 + line1,
         dataOf(0x10) + '\x01' + dataOf(0x20)},
        {"third", function(2, 0x8086, 0x1533, 0x30), 0x00,
         line0 + line1 + line2,
         dataOf(0x10) + '\x01' + dataOf(0x20) + '\x02' + dataOf(0x30)},
        {"fourth", function(3, 0x8086, 0x1533, 0x40), 0x00,
         line0 + line1 + line2 + line3, all},
        {"a fifth is refused", function(4, 0x8086, 0x1533, 0x50), 0x01,
         line0 + line1 + line2 + line3 + line4, all},
        {"a function seen before starts afresh",
         function(0, 0x8086, 0x1533, 0x60), 0x00, line0, dataOf(0x60)},
        {"another card starts afresh", function(1, 0x14E4, 0x1533, 0x70), 0x00,
         "00:02--03:00:1,14e4,1533,00;\n", dataOf(0x70)},
    };
    for (const auto& s : steps)
    {
        auto answer = call(0x3A, 0x27, s.request);
        EXPECT_EQ(answer.cc, 0x00) << s.what;
        EXPECT_EQ(answer.data, Bytes{s.result}) << s.what;
        EXPECT_EQ(list(), s.list) << s.what;
        EXPECT_EQ(device(), s.device) << s.what;
    }
    // Each accepted request was stored and reported; the refused one was
    // not.
    EXPECT_EQ(recordAt(4), record("NICs", function(1, 0x14E4, 0x1533, 0x70)));
    std::string log = loggedCommands();
    std::string line = "up_pci_frulist.sh nic /usr/bin/eeprom 2 4\n";
    EXPECT_EQ(log, line + line + line + line + line + line);

    Bytes expected = {0x00, 0x01};
    Bytes last = function(1, 0x14E4, 0x1533, 0x70);
    expected.insert(expected.end(), last.begin(), last.end());
    expected.resize(42, 0);
    EXPECT_EQ(call(0x3A, 0x28, {0x00, 0x02}).data, expected);
}

TEST_F(NicDevice, AShortRequestReadsZerosForTheMissingFields)
{
    Bytes six = {0x00, 0x05, 0x01, 0x02, 0x03, 0x80};
    EXPECT_EQ(call(0x3A, 0x27, six).data, Bytes{0x00});
    EXPECT_EQ(readFile("/var/ipmi/nicDev.list00:05"),
              "00:05--01:02:3,8000,0000,00;\n");
    EXPECT_EQ(readFile("/var/ipmi/nic00:05"), std::string(6, '\0'));
    EXPECT_EQ(recordAt(7), record("NICs", six));
}

TEST_F(NicDevice, AnUnreadableListStartsAfresh)
{
    std::filesystem::create_directories("/var/ipmi");
    writeFile("/var/ipmi/nicDev.list00:02", "garbage\n");
    writeFile("/var/ipmi/nic00:02", "old");
    EXPECT_EQ(call(0x3A, 0x27, function(1)).data, Bytes{0x00});
    EXPECT_EQ(list(), "00:02--03:00:1,8086,1533,00;\n");
    EXPECT_EQ(device(), dataOf(0x10));
}

TEST_F(NicDevice, AListThatCannotBeWrittenFails)
{
    std::filesystem::create_directories("/var/ipmi/nicDev.list00:02");
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(0x3A, 0x27, function(0)).data, Bytes{0x01});
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(recordAt(4), Bytes(128, 0));
    EXPECT_EQ(loggedCommands(), "");
}

} // namespace
