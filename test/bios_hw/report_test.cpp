// SPDX-License-Identifier: Apache-2.0
// The version report (0x77), riser presence (0x32) and the host export area
// (0x33) through the host, on the default board.

#include "board.hpp"
#include "memory.hpp"
#include "plugin.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr uint8_t cpldBus = 10;
constexpr uint8_t cpld = 0x23;

Bytes bytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

// The version fields as read_fw_ver copies them from the board's files:
// the quoted value from its first character on, closing quote and line
// feed included.
const std::string bmcField = "2.8.0-v1.02-20200108\"\n";
const std::string biosField = "1.05.20200108\"\n";

TEST(VersionReport, SelectorOneReportsBmcBiosAndCpld)
{
    struct Case
    {
        const char* what;
        Bytes request;
        std::optional<uint8_t> cpldVersion; // none: the CPLD does not answer
        const char* osRelease;              // null: the board's
        std::string text;
    };
    const Case cases[] = {
        {"CPLD 0x03 reads 003",
         {0x01},
         0x03,
         nullptr,
         "BMC: " + bmcField + " BIOS: " + biosField + " CPLD: 003\n"},
        {"CPLD 0x0C reads 0012",
         {0x01},
         0x0C,
         nullptr,
         "BMC: " + bmcField + " BIOS: " + biosField + " CPLD: 0012\n"},
        {"CPLD 0xFF reads 00255",
         {0x01, 0x07, 0x07},
         0xFF,
         nullptr,
         "BMC: " + bmcField + " BIOS: " + biosField + " CPLD: 00255\n"},
        {"CPLD 0 falls back to the version file",
         {0x01},
         0x00,
         nullptr,
         "BMC: " + bmcField + " BIOS: " + biosField + " CPLD: v0.5\n"},
        {"silent CPLD falls back to the version file",
         {0x01},
         std::nullopt,
         nullptr,
         "BMC: " + bmcField + " BIOS: " + biosField + " CPLD: v0.5\n"},
        {"short os-release: its last line",
         {0x01},
         0x05,
         "ID=x\nVERSION_ID=\"9.9\"\n",
         "BMC: 9.9\"\n BIOS: " + biosField + " CPLD: 005\n"},
        {"long BMC version: 32 characters of it",
         {0x01},
         0x05,
         "a\nb\nc\nVERSION_ID=\"0123456789abcdef0123456789ABCDEF-tail\"\n",
         "BMC: 0123456789abcdef0123456789ABCDEF BIOS: " + biosField +
             " CPLD: 005\n"},
    };
    std::string osRelease = readFile("/etc/os-release");
    for (const auto& c : cases)
    {
        if (c.cpldVersion)
        {
            board::setI2cRegister(cpldBus, cpld, 0x02, {*c.cpldVersion});
        }
        board::setI2cAnswers(cpldBus, cpld, c.cpldVersion.has_value());
        writeFile("/etc/os-release", c.osRelease ? c.osRelease : osRelease);
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x77, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, bytesOf(c.text)) << c.what;
        EXPECT_NE(errors.find("ipmi_vel_oem_get_sw_hw_version \xEF\xBC\x9A " +
                              c.text + "\n"),
                  std::string::npos)
            << c.what << ": " << errors;
    }
    writeFile("/etc/os-release", osRelease);
    board::setI2cAnswers(cpldBus, cpld, true);
    board::setI2cRegister(cpldBus, cpld, 0x02, {0x05});
}

TEST(VersionReport, MissingFilesLeaveTheirFieldsEmpty)
{
    std::filesystem::rename("/etc/os-release", "/etc/os-release.away");
    std::filesystem::rename("/etc/bios-release", "/etc/bios-release.away");
    testing::internal::CaptureStderr();
    auto answer = call(0x3A, 0x77, {0x01});
    std::string errors = testing::internal::GetCapturedStderr();
    std::filesystem::rename("/etc/os-release.away", "/etc/os-release");
    std::filesystem::rename("/etc/bios-release.away", "/etc/bios-release");
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, bytesOf("BMC:  BIOS:  CPLD: 005\n"));
    EXPECT_NE(errors.find("/etc/os-release file cannot open \n"),
              std::string::npos);
    EXPECT_NE(errors.find("/etc/bios-release file cannot open \n"),
              std::string::npos);
}

TEST(VersionReport, OtherSelectorsAnswerOneByte)
{
    struct Case
    {
        Bytes request;
        uint8_t status;
        const char* message;
    };
    const Case cases[] = {
        {{0x02}, 0x01, "Expander Versions\r\n"},
        {{0x02, 0x01}, 0x01, "Expander Versions\r\n"},
        {{0x00}, 0x02, "unsupport command\r\n"},
        {{0x03}, 0x02, "unsupport command\r\n"},
        {{0xFF}, 0x02, "unsupport command\r\n"},
        {{}, 0x02, "unsupport command\r\n"},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x77, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, Bytes{c.status});
        EXPECT_EQ(errors, c.message);
    }
}

TEST(Riser, ReportsPresenceFromTheActiveLowRegister)
{
    struct Case
    {
        uint8_t reg;
        Bytes request;
        Bytes data;
    };
    const Case cases[] = {
        {0xFF, {}, {0x00, 0}},     {0x7E, {}, {0x00, 1}},
        {0x0F, {}, {0x00, 2}},     {0x00, {}, {0x00, 3}},
        {0x70, {0x01}, {0x00, 1}}, {0x8F, {1, 2, 3, 4}, {0x00, 2}},
    };
    for (const auto& c : cases)
    {
        board::setI2cRegister(cpldBus, cpld, 0x39, {c.reg});
        auto answer = call(0x3A, 0x32, c.request);
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, c.data) << std::hex << int{c.reg};
        // Read only.
        EXPECT_EQ(board::i2cRegister(cpldBus, cpld, 0x39), Bytes{c.reg});
    }
    board::setI2cRegister(cpldBus, cpld, 0x39, {0x70});
}

TEST(Riser, SilentCpldAnswersFailure)
{
    board::setI2cAnswers(cpldBus, cpld, false);
    auto answer = call(0x3A, 0x32);
    board::setI2cAnswers(cpldBus, cpld, true);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0x01});
}

constexpr uint64_t exportArea = 0x9FFF0000;
constexpr const char* exportCopy = "/var/vga-exp";

// What the board's setup leaves in the export area.
const std::string boardExport = "ORVANE host export v1\n"
                                "BIOS 1.05.20200108\n"
                                "POST complete, no errors\n"
                                "Boot device: NVMe0 (UEFI)\n"
                                "Memory: 256 GiB\n";

// The host's side: a header with magic and length, then the data.
void hostExports(const std::string& magic, uint32_t length,
                 const std::string& data)
{
    Bytes header(8, 0xEE);
    header.insert(header.end(), magic.begin(), magic.end());
    header.push_back(static_cast<uint8_t>(length >> 24));
    header.push_back(static_cast<uint8_t>(length >> 16));
    header.push_back(static_cast<uint8_t>(length >> 8));
    header.push_back(static_cast<uint8_t>(length));
    memory::write(exportArea, header);
    memory::write(exportArea + 16, bytesOf(data));
}

// count bytes of a recognisable pattern.
std::string pattern(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i)
    {
        text += static_cast<char>('A' + i % 26);
    }
    return text;
}

Bytes page(uint8_t marker, const std::string& data)
{
    Bytes bytes{0x00, marker};
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

TEST(Explorer, PagesOutTheBoardsExport)
{
    std::filesystem::remove(exportCopy);
    ASSERT_EQ(boardExport.size(), 108U);
    testing::internal::CaptureStderr();
    auto first = call(0x3A, 0x33, {0x00});
    std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(first.cc, 0x00);
    EXPECT_EQ(first.data, page(0xFE, boardExport.substr(0, 61)));
    EXPECT_NE(errors.find("VGA_datalen : 0x6c "), std::string::npos);
    EXPECT_EQ(readFile(exportCopy), boardExport);

    auto second = call(0x3A, 0x33, {0x01});
    EXPECT_EQ(second.cc, 0x00);
    EXPECT_EQ(second.data, page(0x01, boardExport.substr(61)));

    auto beyond = call(0x3A, 0x33, {0x02});
    EXPECT_EQ(beyond.cc, 0x00);
    EXPECT_EQ(beyond.data, (Bytes{0x00, 0xFF}));

    // The BMC only reads the area.
    EXPECT_EQ(memory::read(exportArea + 8, 8),
              (Bytes{'o', 'r', 'v', 0x40, 0, 0, 0, 108}));
}

TEST(Explorer, PageBoundaries)
{
    struct Case
    {
        const char* what;
        uint32_t length;
        uint8_t pageNumber;
        Bytes data; // of that page, after page 0
        size_t copySize;
    };
    const std::string text = pattern(200);
    const Case cases[] = {
        {"61 bytes fit page 0", 61, 0, page(0x00, text.substr(0, 61)), 61},
        {"62 bytes: page 0 full", 62, 0, page(0xFE, text.substr(0, 61)), 62},
        {"62 bytes: one on page 1", 62, 1, page(0x01, text.substr(61, 1)), 62},
        {"122 bytes: page 1 is the last", 122, 1,
         page(0x01, text.substr(61, 61)), 122},
        {"122 bytes: nothing on page 2", 122, 2, {0x00, 0xFF}, 122},
        {"123 bytes: page 1 has more", 123, 1, page(0xFE, text.substr(61, 61)),
         123},
        {"123 bytes: page 2 has one", 123, 2, page(0x02, text.substr(122, 1)),
         123},
        {"0 bytes: empty page 0", 0, 0, {0x00, 0x00}, 0},
        {"0 bytes: nothing on page 1", 0, 1, {0x00, 0xFF}, 0},
        {"200 bytes: page 255 is past the end", 200, 255, {0x00, 0xFF}, 200},
    };
    for (const auto& c : cases)
    {
        hostExports("orv@", c.length, text);
        auto first = call(0x3A, 0x33, {0x00});
        EXPECT_EQ(first.cc, 0x00) << c.what;
        EXPECT_EQ(readFile(exportCopy), text.substr(0, c.copySize)) << c.what;
        auto answer =
            c.pageNumber == 0 ? first : call(0x3A, 0x33, {c.pageNumber});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
    }
    hostExports("orv@", static_cast<uint32_t>(boardExport.size()), boardExport);
}

TEST(Explorer, LengthBoundedByTheArea)
{
    // The header claims more than the 64 KiB area holds past its header.
    hostExports("orv@", 0xFFFFFFFF, "start of a long export");
    memory::write(exportArea + 65535, {'Z'});
    testing::internal::CaptureStderr();
    auto first = call(0x3A, 0x33, {0x00});
    std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(first.cc, 0x00);
    ASSERT_EQ(first.data.size(), 63U);
    EXPECT_EQ(first.data[1], 0xFE);
    EXPECT_NE(errors.find("VGA_datalen : 0xffffffff "), std::string::npos);
    std::string copy = readFile(exportCopy);
    ASSERT_EQ(copy.size(), 65520U);
    EXPECT_EQ(copy.substr(0, 22), "start of a long export");
    EXPECT_EQ(copy.back(), 'Z');
    // The last page a one-byte page number reaches still has more.
    auto last = call(0x3A, 0x33, {0xFF});
    EXPECT_EQ(last.cc, 0x00);
    ASSERT_EQ(last.data.size(), 63U);
    EXPECT_EQ(last.data[1], 0xFE);

    memory::write(exportArea + 65535, {0});
    hostExports("orv@", static_cast<uint32_t>(boardExport.size()), boardExport);
}

TEST(Explorer, NotReadyLeavesTheCopyAlone)
{
    struct Case
    {
        const char* what;
        std::string magic;
    };
    const Case cases[] = {
        {"host still writing", "star"},
        {"nothing exported", std::string(4, '\0')},
        {"wrong case", "ORV@"},
        {"almost ready", "orvA"},
    };
    for (const auto& c : cases)
    {
        writeFile(exportCopy, "previous export");
        hostExports(c.magic, 10, "new export");
        auto answer = call(0x3A, 0x33, {0x00});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{0x01}) << c.what;
        EXPECT_EQ(readFile(exportCopy), "previous export") << c.what;
    }
    hostExports("orv@", static_cast<uint32_t>(boardExport.size()), boardExport);
}

TEST(Explorer, FailuresAnswerOne)
{
    // No page number: nothing is fetched or replaced.
    writeFile(exportCopy, "previous export");
    auto empty = call(0x3A, 0x33);
    EXPECT_EQ(empty.cc, 0x00);
    EXPECT_EQ(empty.data, Bytes{0x01});
    EXPECT_EQ(readFile(exportCopy), "previous export");

    // A later page before any page 0.
    std::filesystem::remove(exportCopy);
    testing::internal::CaptureStdout();
    auto later = call(0x3A, 0x33, {0x01});
    std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(later.cc, 0x00);
    EXPECT_EQ(later.data, Bytes{0x01});
    EXPECT_EQ(output, " /var/vga-exp file cannot open \n");

    // The copy cannot be written: the previous one stays whole.
    writeFile(exportCopy, "previous export");
    std::filesystem::create_directory("/var/vga-exp_tmp");
    testing::internal::CaptureStdout();
    auto blocked = call(0x3A, 0x33, {0x00});
    output = testing::internal::GetCapturedStdout();
    std::filesystem::remove("/var/vga-exp_tmp");
    EXPECT_EQ(blocked.cc, 0x00);
    EXPECT_EQ(blocked.data, Bytes{0x01});
    EXPECT_EQ(output, " /var/vga-exp file cannot open \n");
    EXPECT_EQ(readFile(exportCopy), "previous export");

    // No physical memory device.
    std::filesystem::rename("/dev/mem", "/dev/mem.away");
    auto noMemory = call(0x3A, 0x33, {0x00});
    std::filesystem::rename("/dev/mem.away", "/dev/mem");
    EXPECT_EQ(noMemory.cc, 0x00);
    EXPECT_EQ(noMemory.data, Bytes{0x01});
    EXPECT_EQ(readFile(exportCopy), "previous export");
}

TEST(Explorer, UnmappableMemoryReturnsSilently)
{
    // A device that opens but cannot be mapped: the handler returns without
    // touching the response, so the length stays the request's.
    struct Case
    {
        const char* what;
        Bytes request;
    };
    const Case cases[] = {
        {"page 0", {0x00}},
        {"page 0 with extra bytes", {0x00, 0x11, 0x22}},
    };
    std::filesystem::rename("/dev/mem", "/dev/mem.away");
    ASSERT_EQ(mkfifo("/dev/mem", 0600), 0);
    writeFile(exportCopy, "previous export");
    for (const auto& c : cases)
    {
        testing::internal::CaptureStderr();
        auto answer = call(0x3A, 0x33, c.request);
        std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes(c.request.size(), 0x00)) << c.what;
        EXPECT_EQ(errors, "can't map flash  via /dev/mem\n") << c.what;
    }
    // A memory file too short to hold the area counts as unmappable too.
    unlink("/dev/mem");
    writeFile("/dev/mem", "short");
    testing::internal::CaptureStderr();
    auto shortFile = call(0x3A, 0x33, {0x00});
    std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(shortFile.cc, 0x00);
    EXPECT_EQ(shortFile.data, Bytes{0x00});
    EXPECT_EQ(errors, "can't map flash  via /dev/mem\n");

    std::filesystem::remove("/dev/mem");
    std::filesystem::rename("/dev/mem.away", "/dev/mem");
    EXPECT_EQ(readFile(exportCopy), "previous export");
}

} // namespace
