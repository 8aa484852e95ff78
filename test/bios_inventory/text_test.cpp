// SPDX-License-Identifier: Apache-2.0
// Option lines, option files and the version texts of set version requests.

#include "bios/options.hpp"
#include "bios/version.hpp"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using oem::bios::optionLineValue;
using oem::bios::replaceOptionValue;

TEST(OptionLine, FindsTheValueOfAKeyInALineOfTheModule)
{
    struct Case
    {
        std::string line;
        std::string key;
        std::optional<std::string> value;
    };
    const Case cases[] = {
        {"BIOS Language=1 IOMMU=2", "Language", "1"},
        {"BIOS Language=1 IOMMU=2", "IOMMU", "2"},
        {"Language=0 BIOS", "Language", "0"},     // any order
        {"IOMMU=2 xBIOSx", "IOMMU", "2"},         // module as a substring
        {"Language=1", "Language", std::nullopt}, // no module word
        {"BIOS Language 1", "Language", std::nullopt},
        {"BIOS Language=", "Language", ""}, // empty value
        {"BIOS Language= IOMMU=2", "Language", ""},
        {"BIOS Language=12abc", "Language", "12abc"},
        {"BIOS Language=1\tIOMMU=2", "Language", "1\tIOMMU=2"}, // only spaces
        {"BIOS Language=1 Language=2", "Language", "1"},        // first wins
        {"BIOS ACSEnable=1", "Enable", "1"}, // a plain substring match
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(optionLineValue(c.line, "BIOS", c.key), c.value) << c.line;
    }
}

TEST(OptionLine, ReplacesTheValueAndKeepsTheRestOfTheLine)
{
    struct Case
    {
        std::string line;
        std::string key;
        std::string value;
        std::optional<std::string> replaced;
    };
    const Case cases[] = {
        {"BIOS Language=0 COM0ConsoleRedirection=1", "Language", "2",
         "BIOS Language=2 COM0ConsoleRedirection=1"},
        {"BIOS Language=0 COM0ConsoleRedirection=1", "COM0ConsoleRedirection",
         "0", "BIOS Language=0 COM0ConsoleRedirection=0"},
        {"BIOS Language=123  tail", "Language", "", "BIOS Language=  tail"},
        {"BIOS Language=", "Language", "1", "BIOS Language=1"},
        {"BIOS Language=0 Language=0", "Language", "1",
         "BIOS Language=1 Language=0"},
        {"Language=0", "Language", "1", std::nullopt},
        {"BIOS IOMMU=1", "Language", "1", std::nullopt},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(replaceOptionValue(c.line, "BIOS", c.key, c.value),
                  c.replaced)
            << c.line;
    }
}

TEST(OptionLine, ReadsTheValueAsAByte)
{
    const std::pair<std::string, uint8_t> cases[] = {
        {"0", 0},   {"1", 1},     {"2", 2},    {"12abc", 12}, {"", 0},
        {"abc", 0}, {"256", 0},   {"257", 1},  {"-1", 0xFF},  {" 7", 7},
        {"+3", 3},  {"255", 255}, {"0x10", 0},
    };
    for (const auto& [text, byte] : cases)
    {
        EXPECT_EQ(oem::bios::optionByte(text), byte) << text;
    }
}

TEST(OptionTexts, MapsEachByteAndCarriesTheTextOnForOthers)
{
    using Request = std::array<uint8_t, 21>;
    auto request = [](std::initializer_list<std::pair<int, uint8_t>> set) {
        Request r{};
        r.fill(1);
        for (auto [at, value] : set)
        {
            r[static_cast<size_t>(at)] = value;
        }
        return r;
    };
    struct Case
    {
        const char* what;
        Request request;
        std::vector<std::pair<int, std::string>> texts; // index, text
    };
    const Case cases[] = {
        {"0, 1 and 2 as text",
         request({{1, 0}, {4, 2}, {20, 2}}),
         {{0, "0"}, {1, "1"}, {3, "2"}, {19, "2"}}},
        {"an unknown first byte writes nothing after the =",
         request({{1, 7}}),
         {{0, ""}, {1, "1"}}},
        {"an unknown byte repeats the text before",
         request({{3, 1}, {4, 9}}),
         {{2, "1"}, {3, "1"}, {4, "1"}}},
        {"carried over several options",
         request({{5, 2}, {6, 3}, {7, 200}, {8, 0}}),
         {{4, "2"}, {5, "2"}, {6, "2"}, {7, "0"}}},
        {"COM0 follows Language when not 0 or 1",
         request({{1, 0}, {2, 5}}),
         {{0, "0"}, {1, "0"}}},
        {"COM0 2 with Language 1 writes 1",
         request({{1, 1}, {2, 2}}),
         {{1, "1"}}},
        {"COM0 2 with Language 2 writes 2",
         request({{1, 2}, {2, 2}}),
         {{1, "2"}}},
        {"COM0 9 with Language 2 writes 2",
         request({{1, 2}, {2, 9}}),
         {{1, "2"}}},
        {"COM0 0 with Language 2", request({{1, 2}, {2, 0}}), {{1, "0"}}},
        {"COM0 unknown after an unknown Language",
         request({{1, 4}, {2, 4}}),
         {{0, ""}, {1, ""}, {2, "1"}}},
        {"COM1 2 is its own byte", request({{1, 0}, {3, 2}}), {{2, "2"}}},
    };
    for (const auto& c : cases)
    {
        auto texts = oem::bios::optionTexts(c.request);
        for (const auto& [index, text] : c.texts)
        {
            EXPECT_EQ(texts[static_cast<size_t>(index)], text)
                << c.what << ", option " << index;
        }
    }
}

std::vector<uint8_t> longForm(const std::string& version, uint32_t flag,
                              std::array<uint16_t, 4> numbers,
                              const std::string& second,
                              const std::string& third)
{
    std::vector<uint8_t> request(76, 0);
    std::copy(version.begin(), version.end(), request.begin());
    for (int i = 0; i < 4; ++i)
    {
        request[32 + static_cast<size_t>(i)] =
            static_cast<uint8_t>(flag >> (8 * i));
    }
    const size_t at[] = {36, 38, 72, 74};
    for (size_t i = 0; i < 4; ++i)
    {
        request[at[i]] = static_cast<uint8_t>(numbers[i]);
        request[at[i] + 1] = static_cast<uint8_t>(numbers[i] >> 8);
    }
    std::copy(second.begin(), second.end(), request.begin() + 40);
    request.insert(request.end(), third.begin(), third.end());
    request.push_back(0);
    return request;
}

TEST(RequestedVersion, TakesTheShortOrTheComposedLongForm)
{
    auto bytes = [](const std::string& text) {
        return std::vector<uint8_t>(text.begin(), text.end());
    };
    std::string x32(32, 'x');
    struct Case
    {
        const char* what;
        std::vector<uint8_t> request;
        std::string version;
    };
    std::vector<uint8_t> wrapped = bytes("4.5");
    wrapped.resize(260, 'y'); // length 260 counts as 4
    wrapped[3] = 0;
    std::vector<uint8_t> wrappedLong = longForm("A", 1, {1, 2, 3, 4}, "B", "");
    wrappedLong.resize(256 + 40, 0); // counts as 40: long form
    std::vector<uint8_t> cutLong = longForm("V", 1, {7, 8, 9, 10}, "S", "T");
    cutLong.resize(38); // the second number and beyond are missing
    const Case cases[] = {
        {"short form", bytes(std::string("2.10.1234567890") + '\0'),
         "2.10.1234567890"},
        {"short form without its NUL", bytes("1.0"), "1.0"},
        {"32 characters fill the short form", bytes(x32), x32},
        {"empty request", {}, ""},
        {"long form", longForm("1.2", 1, {3, 65535, 0, 7}, "abc", "tail"),
         "1.2.FT.3.65535.abc.0.7.tail"},
        {"long form with flag 2", longForm("1.2", 2, {3, 4, 5, 6}, "a", "b"),
         ""},
        {"long form with flag 0x101",
         longForm("1.2", 0x101, {3, 4, 5, 6}, "a", "b"), ""},
        {"length 260 is the short form", wrapped, "4.5"},
        {"length 296 is the long form", wrappedLong, "A.FT.1.2.B.3.4."},
        {"a cut long form reads zeros", cutLong, "V.FT.7.0..0.0."},
        {"texts end with their fields", longForm(x32, 1, {0, 0, 0, 0}, x32, ""),
         x32 + ".FT.0.0." + x32 + ".0.0."},
        {"bounded to 127 characters",
         longForm("v", 1, {0, 0, 0, 0}, "s", std::string(150, 'z')),
         ("v.FT.0.0.s.0.0." + std::string(150, 'z')).substr(0, 127)},
        {"277 bytes count as 21: the short form",
         longForm("v", 1, {0, 0, 0, 0}, "s", std::string(200, 'z')), "v"},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(
            oem::bios::requestedVersion(
                c.request.data(), static_cast<uint32_t>(c.request.size())),
            c.version)
            << c.what;
    }
}

TEST(RequestedVersion, RefusesWhatWouldBreakTheVersionFiles)
{
    const std::pair<std::string, bool> cases[] = {
        {"2.10.1234567890", true},
        {"", true},
        {"V1.0 (2023/01/01) #5 +x", true},
        {"\xC3\xA9t\xC3\xA9", true},
        {"1.0\n2.0", false},
        {"1.0\r", false},
        {"1\t0", false},
        {"a\"b", false},
        {"a\\b", false},
        {"$(reboot)", false},
        {"`reboot`", false},
        {"x\x7F", false},
    };
    for (const auto& [version, accepted] : cases)
    {
        EXPECT_EQ(oem::bios::recordableVersion(version), accepted) << version;
    }
}

class OptionFile : public testing::Test
{
  protected:
    void SetUp() override
    {
        char dir[] = "/tmp/bios-options-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        folder = dir;
        path = folder + "/current";
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder);
    }
    static void write(const std::string& file, const std::string& text)
    {
        std::ofstream(file, std::ios::binary) << text;
    }
    static std::string read(const std::string& file)
    {
        std::ifstream in(file, std::ios::binary);
        if (!in)
        {
            return "<missing>";
        }
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    void set(const std::string& key, std::string value)
    {
        std::string module = "BIOS";
        setBiosModuleArgValue(path, module, key, value);
    }

    std::string folder;
    std::string path;
};

TEST_F(OptionFile, RewritesEveryMatchingLineThroughATemporaryFile)
{
    struct Case
    {
        const char* what;
        std::string before;
        std::string key;
        std::string value;
        std::string after;
        std::string leftover; // the "_tmp" file afterwards
    };
    const Case cases[] = {
        {"one token", "[BIOS]\nBIOS Language=0 COM0ConsoleRedirection=1\n",
         "Language", "2", "[BIOS]\nBIOS Language=2 COM0ConsoleRedirection=1\n",
         "<missing>"},
        {"every matching line",
         "BIOS IOMMU=0\nother IOMMU=0\nBIOS a IOMMU=1 b\n", "IOMMU", "2",
         "BIOS IOMMU=2\nother IOMMU=0\nBIOS a IOMMU=2 b\n", "<missing>"},
        {"a last line gets its line end", "x\nBIOS SELComponents=1",
         "SELComponents", "0", "x\nBIOS SELComponents=0\n", "<missing>"},
        {"empty value", "BIOS Language=1 IOMMU=2\n", "Language", "",
         "BIOS Language= IOMMU=2\n", "<missing>"},
        {"no match leaves the file and a copy",
         "BIOS IOMMU=1\nLanguage=1\nlast", "Language", "2",
         "BIOS IOMMU=1\nLanguage=1\nlast", "BIOS IOMMU=1\nLanguage=1\nlast\n"},
    };
    for (const auto& c : cases)
    {
        std::filesystem::remove(path + "_tmp");
        write(path, c.before);
        set(c.key, c.value);
        EXPECT_EQ(read(path), c.after) << c.what;
        EXPECT_EQ(read(path + "_tmp"), c.leftover) << c.what;
    }
}

TEST_F(OptionFile, AnUnchangedFileKeepsItsInode)
{
    write(path, "BIOS IOMMU=1\n");
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    set("Language", "1");
    struct stat after = {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);

    set("IOMMU", "0");
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);
}

TEST_F(OptionFile, AMissingFileLeavesAnEmptyCopyOnly)
{
    set("Language", "1");
    EXPECT_EQ(read(path), "<missing>");
    EXPECT_EQ(read(path + "_tmp"), "");

    // Nowhere to put the copy: nothing happens.
    path = folder + "/no/such/folder/current";
    set("Language", "1");
    EXPECT_FALSE(std::filesystem::exists(folder + "/no"));
}

TEST_F(OptionFile, ReadsTheFirstMatchingLine)
{
    write(path, "Language=5\nBIOS IOMMU=2\nBIOS Language=1 IOMMU=0\n"
                "BIOS Language=3\nBIOS SELComponents=7");
    struct Case
    {
        std::string key;
        int result;
        std::string value;
    };
    const Case cases[] = {
        {"Language", 0, "1"},
        {"IOMMU", 0, "2"},
        {"SELComponents", 0, "7"},
        {"ACSEnable", 1, "unchanged"},
    };
    for (const auto& c : cases)
    {
        std::string value = "unchanged";
        EXPECT_EQ(getBiosModuleArgValue(path, "BIOS", c.key, value), c.result)
            << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    std::string value = "unchanged";
    EXPECT_EQ(
        getBiosModuleArgValue(folder + "/missing", "BIOS", "IOMMU", value), 1);
    EXPECT_EQ(value, "unchanged");
}

} // namespace
