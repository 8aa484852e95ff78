// SPDX-License-Identifier: Apache-2.0
// The BIOS version and the BIOS reset flag through the host.

#include "sandbox_files.hpp"

#include <filesystem>
#include <optional>

namespace
{

using namespace bios_test;
using Bytes = std::vector<uint8_t>;

constexpr const char* resetFlag = "/etc/bios_reset_flag";
constexpr const char* versionFile = "/etc/default/obmc/bios-version";
constexpr const char* releaseFile = "/etc/bios-release";
constexpr const char* updaterRestart =
    "systemctl restart org.open_power.Software.Host.Updater.service\n";

TEST(BiosReset, IsSetOnceAndConsumedByTheFirstReader)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> flag;
        uint8_t set;
        std::string after;
    };
    const Case cases[] = {
        {"reset", "reset", 0x01, "noreset"},
        {"with a line end", "reset\n", 0x01, "noreset"},
        {"begins with reset", "resetting", 0x01, "noreset"},
        {"noreset", "noreset", 0x00, "noreset"},
        {"capital letter", "Reset", 0x00, "Reset"},
        {"leading space", " reset", 0x00, " reset"},
        {"empty", "", 0x00, ""},
        {"missing", std::nullopt, 0x00, "<missing>"},
    };
    for (const auto& c : cases)
    {
        unlink(resetFlag);
        if (c.flag)
        {
            writeFile(resetFlag, *c.flag);
        }
        auto answer = call(0x3A, 0x68, {0x01});
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, (Bytes{0x00, c.set})) << c.what;
        EXPECT_EQ(readFile(resetFlag), c.after) << c.what;
        EXPECT_EQ(call(0x3A, 0x68).data, (Bytes{0x00, 0x00})) << c.what;
    }
}

TEST(BiosReset, OtherModulesSetAndClearTheFlag)
{
    auto biosReset = pluginSymbol<int (*)(bool)>("BIOS_reset");
    auto getBiosReset = pluginSymbol<int (*)()>("get_BIOS_reset");
    EXPECT_EQ(biosReset(true), 0);
    EXPECT_EQ(readFile(resetFlag), "reset");
    EXPECT_EQ(biosReset(false), 0);
    EXPECT_EQ(readFile(resetFlag), "noreset");
    EXPECT_EQ(call(0x3A, 0x68).data, (Bytes{0x00, 0x00}));
    EXPECT_EQ(biosReset(true), 0);
    EXPECT_EQ(getBiosReset(), 1);
    EXPECT_EQ(getBiosReset(), 0);

    std::filesystem::remove(resetFlag);
    std::filesystem::create_directory(resetFlag);
    EXPECT_EQ(biosReset(true), -1);
    std::filesystem::remove(resetFlag);
}

class BiosVersion : public testing::Test
{
  protected:
    void SetUp() override
    {
        blankEeprom();
        // Inventory of the previous boot, and the system UUID.
        putBytes(eepromFile, 0x1000, bytesOf("BIOSold version"));
        putBytes(eepromFile, 0x1080, bytesOf("CPUs\x01\x02\x03"));
        putBytes(eepromFile, 0x2300, bytesOf("DIMs\x07"));
        putBytes(eepromFile, 0x2380, bytesOf("DIMs\x08"));
        putBytes(eepromFile, 0x3000, Bytes(16, 0x5A));
        standIn("/usr/sbin/clean_fruid.sh");
        standIn("/bin/systemctl");
        clearCommandLog();
        writeFile("/etc/all_dimm_size", "16384\n16384\n");
        writeFile("/var/ipmi/nicDev.list00:02", "x\n");
        writeFile(versionFile, "old\n");
        writeFile(releaseFile, "VERSION_ID=\"old\"\n");
    }

    // The EEPROM after a set version that recorded version: only record 0
    // and whatever lies outside the record area.
    static std::string eepromWith(const std::string& version)
    {
        std::string image(0x4000, '\0');
        std::string release = "VERSION_ID=\"" + version + "\"";
        image.replace(0x1000, 4, "BIOS");
        image.replace(0x1004, std::min<size_t>(release.size(), 124),
                      release.substr(0, 124));
        image.replace(0x2380, 5, "DIMs\x08");
        image.replace(0x3000, 16, std::string(16, '\x5A'));
        return image;
    }

    static Bytes shortForm(const std::string& text)
    {
        Bytes r = bytesOf(text);
        r.push_back(0);
        return r;
    }
};

Bytes longForm(const std::string& version, uint32_t flag,
               const std::string& second, const std::string& third)
{
    Bytes r(76, 0);
    std::copy(version.begin(), version.end(), r.begin());
    r[32] = static_cast<uint8_t>(flag);
    r[33] = static_cast<uint8_t>(flag >> 8);
    r[36] = 1;    // 1
    r[38] = 0x34; // 0x1234
    r[39] = 0x12;
    std::copy(second.begin(), second.end(), r.begin() + 40);
    r[72] = 0xFF; // 65535
    r[73] = 0xFF;
    r[74] = 9;
    r.insert(r.end(), third.begin(), third.end());
    r.push_back(0);
    return r;
}

TEST_F(BiosVersion, RecordsTheVersionAfterClearingTheInventory)
{
    struct Case
    {
        const char* what;
        Bytes request;
        std::string version;
    };
    const Case cases[] = {
        {"short form", shortForm("2.10.1234567890"), "2.10.1234567890"},
        {"long form", longForm("3.1", 1, "AMI", "R"),
         "3.1.FT.1.4660.AMI.65535.9.R"},
        {"long form with flag 2", longForm("3.1", 2, "AMI", "R"), ""},
        {"a long version",
         longForm(std::string(32, 'v'), 1, "s", std::string(100, 't')),
         (std::string(32, 'v') + ".FT.1.4660.s.65535.9." +
          std::string(100, 't'))
             .substr(0, 127)},
    };
    for (const auto& c : cases)
    {
        SetUp();
        testing::internal::CaptureStdout();
        auto answer = call(0x3A, 0x20, c.request);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "file is now closed file is now closed ")
            << c.what;
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{0x00}) << c.what;

        EXPECT_EQ(readFile(versionFile), c.version + "\n") << c.what;
        EXPECT_EQ(readFile(releaseFile), "VERSION_ID=\"" + c.version + "\"\n")
            << c.what;
        EXPECT_EQ(readFile("/etc/all_dimm_size"), "") << c.what;
        EXPECT_FALSE(std::filesystem::exists("/var/ipmi")) << c.what;
        EXPECT_FALSE(
            std::filesystem::exists(std::string(versionFile) + "_tmp"));
        EXPECT_FALSE(
            std::filesystem::exists(std::string(releaseFile) + "_tmp"));
        EXPECT_EQ(difference(readFile(eepromFile), eepromWith(c.version)),
                  "same")
            << c.what;
        EXPECT_EQ(loggedCommands(),
                  std::string("clean_fruid.sh \nclean_fruid.sh \n") +
                      updaterRestart)
            << c.what;

        // Read back whole, however long.
        testing::internal::CaptureStdout();
        answer = call(0x3A, 0x21);
        testing::internal::GetCapturedStdout();
        Bytes expected = {0x00};
        expected.insert(expected.end(), c.version.begin(), c.version.end());
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, expected) << c.what;
    }
}

TEST_F(BiosVersion, TheSecondCleanUpNeedsTheDaemonState)
{
    std::filesystem::remove_all("/var/ipmi");
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x3A, 0x20, shortForm("1.0")).data, Bytes{0x00});
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(loggedCommands(),
              std::string("clean_fruid.sh \n") + updaterRestart);
}

TEST_F(BiosVersion, RefusesAVersionThatWouldBreakItsFilesBeforeClearing)
{
    std::string before = readFile(eepromFile);
    for (const char* text : {"1.0\nVERSION_ID=x", "1\"0", "$(reboot)"})
    {
        auto answer = call(0x3A, 0x20, shortForm(text));
        EXPECT_EQ(answer.cc, 0x00) << text;
        EXPECT_EQ(answer.data, Bytes{0x01}) << text;
        EXPECT_EQ(difference(readFile(eepromFile), before), "same") << text;
        EXPECT_EQ(readFile(versionFile), "old\n") << text;
        EXPECT_EQ(readFile("/etc/all_dimm_size"), "16384\n16384\n") << text;
        EXPECT_EQ(loggedCommands(), "") << text;
    }
}

TEST_F(BiosVersion, FailsWhenAFileCannotBeWrittenWithTheInventoryCleared)
{
    struct Case
    {
        const char* what;
        std::string blocked; // made a folder
        std::string version;
        std::string release;
    };
    const Case cases[] = {
        {"size file", "/etc/all_dimm_size", "old\n", "VERSION_ID=\"old\"\n"},
        {"version file", versionFile, "<missing>", "VERSION_ID=\"old\"\n"},
        {"release file", releaseFile, "1.0\n", "<missing>"},
    };
    for (const auto& c : cases)
    {
        SetUp();
        std::filesystem::remove_all(c.blocked);
        std::filesystem::create_directories(c.blocked + "/keep");
        testing::internal::CaptureStdout();
        auto answer = call(0x3A, 0x20, shortForm("1.0"));
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{0x01}) << c.what;
        // Cleared before the failure, and not undone.
        EXPECT_EQ(recordAt(0), Bytes(128, 0)) << c.what;
        EXPECT_EQ(loggedCommands(), "clean_fruid.sh \nclean_fruid.sh \n")
            << c.what;
        if (c.blocked != versionFile)
        {
            EXPECT_EQ(readFile(versionFile), c.version) << c.what;
        }
        if (c.blocked != releaseFile)
        {
            EXPECT_EQ(readFile(releaseFile), c.release) << c.what;
        }
        EXPECT_FALSE(
            std::filesystem::exists(std::string(versionFile) + "_tmp"));
        EXPECT_FALSE(
            std::filesystem::exists(std::string(releaseFile) + "_tmp"));
        std::filesystem::remove_all(c.blocked);
    }
}

// regression: a version the EEPROM could not record was answered as
// recorded
TEST_F(BiosVersion, FailsWhenTheEepromCannotRecordIt)
{
    ASSERT_EQ(truncate(eepromFile, 0x1010), 0);
    testing::internal::CaptureStdout();
    auto answer = call(0x3A, 0x20, shortForm("1.0"));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(answer.data, Bytes{0x01});
    EXPECT_EQ(readFile(versionFile), "1.0\n");
    // The host firmware updater is not told of a version half recorded.
    EXPECT_EQ(loggedCommands(), "clean_fruid.sh \nclean_fruid.sh \n");
}

TEST(BiosVersionGet, AnswersTheFirstLineWithoutItsLastCharacter)
{
    struct Case
    {
        const char* what;
        std::optional<std::string> file;
        Bytes answer;
        std::string printed;
    };
    const std::string read = "read file first line.file is now closed ";
    Bytes longest = {0x00};
    longest.insert(longest.end(), 127, 'x');
    const Case cases[] = {
        {"a version", "1.05.20200108\n",
         bytesOf(std::string("\0", 1) + "1.05.20200108"), read},
        {"first line only", "first\nsecond\n",
         bytesOf(std::string("\0", 1) + "first"), read},
        {"no line end loses a character", "abc",
         bytesOf(std::string("\0", 1) + "ab"), read},
        {"an empty line", "\n", {0x00}, read},
        {"an empty file", "", {0x30}, "read failed."},
        {"missing", std::nullopt, {0x01}, "file cannot open "},
        {"a long line is cut", std::string(300, 'x') + "\n", longest, read},
    };
    for (const auto& c : cases)
    {
        unlink(versionFile);
        if (c.file)
        {
            writeFile(versionFile, *c.file);
        }
        testing::internal::CaptureStdout();
        auto answer = call(0x3A, 0x21, {0x01, 0x02});
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.what;
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
    }
}

} // namespace
