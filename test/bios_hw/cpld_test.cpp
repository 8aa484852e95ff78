// SPDX-License-Identifier: Apache-2.0
// CPLD versions (0x22) through the host, on the default board: the main
// CPLD over I2C, the backplane CPLDs from their version files.

#include "board.hpp"
#include "plugin.hpp"

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr uint8_t cpldBus = 10;
constexpr uint8_t cpld = 0x23;

struct Answer
{
    uint8_t cc;
    Bytes data;
};

TEST(CpldVersion, MainCpldFromItsVersionRegister)
{
    struct Case
    {
        uint8_t reg;
        Bytes data;
    };
    const Case cases[] = {{0x05, {0x05}}, {0x00, {0x00}}, {0xA3, {0xA3}}};
    for (const auto& c : cases)
    {
        board::setI2cRegister(cpldBus, cpld, 0x02, {c.reg});
        auto answer = call(0x3A, 0x22);
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, c.data);
    }
    board::setI2cRegister(cpldBus, cpld, 0x02, {0x05});

    board::setI2cAnswers(cpldBus, cpld, false);
    testing::internal::CaptureStderr();
    auto silent = call(0x3A, 0x22);
    std::string errors = testing::internal::GetCapturedStderr();
    board::setI2cAnswers(cpldBus, cpld, true);
    EXPECT_EQ(silent.cc, 0xFF);
    EXPECT_EQ(silent.data, Bytes{});
    EXPECT_NE(errors.find("cpld  version  fail!\n"), std::string::npos)
        << errors;
}

TEST(CpldVersion, BackplanesFromTheirVersionFiles)
{
    struct Case
    {
        const char* what;
        Bytes request;
        uint8_t cc;
        Bytes data;
    };
    // The board has front backplanes 0 and 1 at v1.2, rear 0 at v2.1.
    const Case cases[] = {
        {"front 0", {0x00, 0x00}, 0x00, {0x12}},
        {"front 1", {0x00, 0x01}, 0x00, {0x12}},
        {"rear 0", {0x01, 0x00}, 0x00, {0x21}},
        {"front 2 absent", {0x00, 0x02}, 0xFF, {}},
        {"rear 1 absent", {0x01, 0x01}, 0xFF, {}},
        {"front 4 does not exist", {0x00, 0x04}, 0xFF, {}},
        {"rear 2 does not exist", {0x01, 0x02}, 0xFF, {}},
        {"group 2 does not exist", {0x02, 0x00}, 0xFF, {}},
        {"group 255", {0xFF, 0xFF}, 0xFF, {}},
        {"one byte", {0x00}, 0xFF, {}},
        {"three bytes", {0x00, 0x00, 0x00}, 0xFF, {}},
        {"many bytes", Bytes(64, 0x00), 0xFF, {}},
    };
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, 0x22, c.request);
        EXPECT_EQ(answer.cc, c.cc) << c.what;
        EXPECT_EQ(answer.data, c.data) << c.what;
    }
}

TEST(CpldVersion, BackplaneVersionFileContents)
{
    struct Case
    {
        std::string content;
        uint8_t version;
    };
    const Case cases[] = {
        {"VERSION_ID=\"v3.4\"\n", 0x34},
        // One whitespace-delimited word, wherever it starts.
        {"\n\t  VERSION_ID=\"v1.5\" trailing words\n", 0x15},
        {"VERSION=\"v1.5\"\nVERSION_ID=\"v1.6\"\n", 0x00},
        {"", 0x00},
        {std::string(5000, 'x') + " VERSION_ID=\"v1.2\"", 0x00},
    };
    const std::string path = "/run/Front_HDD_Backplane2_CPLD.version";
    for (const auto& c : cases)
    {
        writeFile(path, c.content);
        auto answer = call(0x3A, 0x22, {0x00, 0x02});
        EXPECT_EQ(answer.cc, 0x00) << c.content;
        EXPECT_EQ(answer.data, Bytes{c.version}) << c.content;
    }
    std::filesystem::remove(path);
}

TEST(CpldVersion, CpldRegistersAreReadInOneCombinedTransfer)
{
    // Register selection and read in one I2C_RDWR, so that nothing else on
    // the bus can move the register pointer in between.
    struct Case
    {
        uint8_t cmd;
        Bytes request;
        std::vector<std::string> transfers;
    };
    const Case cases[] = {
        {0x22,
         {},
         {"rdwr dev=/dev/i2c-10 msgs=2 m0=w:0x23:1:02 m1=r:0x23:1:05 "
          "result=2"}},
        {0x32,
         {},
         {"rdwr dev=/dev/i2c-10 msgs=2 m0=w:0x23:1:39 m1=r:0x23:1:70 "
          "result=2"}},
        {0x77,
         {0x01},
         {"rdwr dev=/dev/i2c-10 msgs=2 m0=w:0x23:1:02 "
          "m1=r:0x23:1:05 result=2"}},
        {0x22, {0x00, 0x00}, {}},
    };
    const char* transferLog = "/tmp/cpld-transfers.log";
    for (const auto& c : cases)
    {
        std::filesystem::remove(transferLog);
        setenv("I2CSIM_LOG", transferLog, 1);
        call(0x3A, c.cmd, c.request);
        unsetenv("I2CSIM_LOG");
        // One line per transfer, without the process ID.
        std::vector<std::string> transfers;
        std::istringstream text(readFile(transferLog));
        for (std::string line; std::getline(text, line) && line != "<missing>";)
        {
            size_t pid = line.find(" pid=");
            if (pid != std::string::npos)
            {
                line.erase(pid, line.find(' ', pid + 1) - pid);
            }
            transfers.push_back(line);
        }
        EXPECT_EQ(transfers, c.transfers) << std::hex << int{c.cmd};
    }
    std::filesystem::remove(transferLog);
}

} // namespace
