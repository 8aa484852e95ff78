// SPDX-License-Identifier: Apache-2.0
// hwmon lookup by device-tree full name against the board's sysfs, and the
// version-field and byte readers.

#include "plugin.hpp"

#include <filesystem>

namespace
{

namespace fs = std::filesystem;
using Find = int (*)(const char*, int*);

constexpr const char* cachePath = "/var/log/hwmonfullname";

// The default board's hwmon devices, in number order.
constexpr const char* boardCache =
    "OF_FULLNAME=/ahb/apb/pwm-tacho-controller@1e786000,hwmonid=0;\n"
    "OF_FULLNAME=/ahb/apb/adc@1e6e9000,hwmonid=1;\n"
    "OF_FULLNAME=/ahb/apb/i2c@1e78a000/i2c-bus@400/tmp75@48,hwmonid=2;\n"
    "OF_FULLNAME=/ahb/apb/i2c@1e78a000/i2c-bus@340/asp2500@58,hwmonid=3;\n"
    "OF_FULLNAME=/ahb/apb/i2c@1e78a000/i2c-bus@340/asp2500@59,hwmonid=4;\n";

class Hwmon : public testing::Test
{
  protected:
    void SetUp() override
    {
        fs::remove(cachePath);
        fs::remove_all("/sys/class/hwmon.saved");
        fs::copy("/sys/class/hwmon", "/sys/class/hwmon.saved",
                 fs::copy_options::recursive);
    }
    void TearDown() override
    {
        fs::remove_all("/sys/class/hwmon");
        fs::rename("/sys/class/hwmon.saved", "/sys/class/hwmon");
        fs::remove(cachePath);
    }
    int find(const char* name, int& id)
    {
        testing::internal::CaptureStderr();
        int rc = pluginSymbol<Find>("findhwmonid_OF_FULLNAME")(name, &id);
        log = testing::internal::GetCapturedStderr();
        return rc;
    }
    std::string log;
};

TEST_F(Hwmon, FirstLookupBuildsTheCacheAndLaterOnesUseIt)
{
    int id = -7;
    EXPECT_EQ(find("tmp75@48", id), 0);
    EXPECT_EQ(id, 2);
    EXPECT_EQ(readFile(cachePath), boardCache);
    EXPECT_NE(log.find("[findhwmonid_OF_FULLNAME:86] find: tmp75@48=2 \n\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("[findhwmonid_OF_FULLNAME:82] file_of_fullname: "
                       "/ahb/apb/adc@1e6e9000 id:1 \n\n"),
              std::string::npos)
        << log;

    // sysfs changes are not seen while the cache exists.
    fs::remove_all("/sys/class/hwmon/hwmon2");
    id = -7;
    EXPECT_EQ(find("tmp75@48", id), 0);
    EXPECT_EQ(id, 2);
}

TEST_F(Hwmon, MatchesTheLowestNumberedFullNameThatContainsTheName)
{
    struct Case
    {
        const char* name;
        int rc;
        int id;
    };
    const Case cases[] = {
        {"/ahb/apb/", 0, 0}, // in all three: the first wins
        {"adc", 0, 1},       // substring, not the whole name
        {"i2c-bus@400", 0, 2}, {"/ahb/apb/adc@1e6e9000", 0, 1},
        {"fan@0", -1, 42},   // no match leaves id alone
        {"hwmonid", -1, 42}, // only the full name is searched
    };
    for (const auto& c : cases)
    {
        int id = 42;
        EXPECT_EQ(find(c.name, id), c.rc) << c.name;
        EXPECT_EQ(id, c.id) << c.name;
    }
}

TEST_F(Hwmon, DeviceWithoutFullNameGivesALineWithAnEmptyName)
{
    writeFile("/sys/class/hwmon/hwmon5/uevent", "OF_NAME=lm75\n");
    int id = 42;
    EXPECT_EQ(find("lm75", id), -1);
    EXPECT_EQ(id, 42);
    EXPECT_EQ(readFile(cachePath), std::string(boardCache) + ",hwmonid=5;\n");
}

TEST_F(Hwmon, EmptyHwmonClassGivesAnEmptyCache)
{
    fs::remove_all("/sys/class/hwmon");
    fs::create_directory("/sys/class/hwmon");
    int id = 42;
    EXPECT_EQ(find("tmp75", id), -1);
    EXPECT_EQ(id, 42);
    EXPECT_EQ(readFile(cachePath), "");
}

TEST_F(Hwmon, CacheThatCannotBeCreatedFailsTheLookup)
{
    fs::rename("/var/log", "/var/log.saved");
    writeFile("/var/log", "not a folder");
    int id = 42;
    int rc = find("tmp75", id);
    fs::remove("/var/log");
    fs::rename("/var/log.saved", "/var/log");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(id, 42);
    EXPECT_EQ(pluginSymbol<int (*)()>("hwmonid_OF_FULLNAME")(), 0);
}

TEST(ReadFwVer, CopiesAFieldOfAGivenLine)
{
    auto readFwVer =
        pluginSymbol<int (*)(const char*, char*, int, int, int)>("read_fw_ver");
    writeFile("/tmp/versions", "BMC  v1.02\nBIOS v3.04.05\n");
    writeFile("/tmp/one-line", "CPLD 0x07\n");
    struct Case
    {
        const char* path;
        int line;
        int start;
        int length;
        std::string expected;
        const char* logged;
    };
    const Case cases[] = {
        {"/tmp/versions", 1, 6, 4, "1.02", "version id = BMC  v1.02\n\n"},
        {"/tmp/versions", 2, 6, 7, "3.04.05", "version id = BIOS v3.04.05\n\n"},
        {"/tmp/versions", 9, 0, 4, "BIOS", nullptr}, // short file: last line
        {"/tmp/one-line", 2, 5, 4, "0x07", nullptr},
        {"/tmp/versions", 0, 0, 4, std::string(4, '\0'), "version id = \n"},
    };
    for (const auto& c : cases)
    {
        char out[16];
        memset(out, '#', sizeof(out));
        testing::internal::CaptureStderr();
        EXPECT_EQ(readFwVer(c.path, out, c.line, c.start, c.length), 0);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::string(out, c.expected.size()), c.expected);
        EXPECT_EQ(out[c.expected.size()], '#') << "copied too much";
        if (c.logged != nullptr)
        {
            EXPECT_EQ(log, c.logged);
        }
    }

    char out[4] = "ok";
    testing::internal::CaptureStderr();
    EXPECT_EQ(readFwVer("/tmp/none", out, 1, 0, 2), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/tmp/none file cannot open \n");
    EXPECT_STREQ(out, "ok");
}

TEST(LocalBusRead, ReadsOneByteAtAnOffset)
{
    auto localBusRead =
        pluginSymbol<int (*)(const char*, long, uint8_t*)>("local_bus_read");
    writeFile("/tmp/regs", std::string("\x10\x20\x30\x40", 4));
    uint8_t value = 0;
    EXPECT_EQ(localBusRead("/tmp/regs", 2, &value), 0);
    EXPECT_EQ(value, 0x30);

    testing::internal::CaptureStderr();
    EXPECT_EQ(localBusRead("/tmp/regs", -1, &value), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Fseek err ret = -1");

    testing::internal::CaptureStderr();
    EXPECT_LT(localBusRead("/tmp/none", 0, &value), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/tmp/none file cannot open \n");
    EXPECT_EQ(value, 0x30);
}

} // namespace
