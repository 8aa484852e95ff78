// SPDX-License-Identifier: Apache-2.0
// What other modules reach of the inventory store, the BIOS option file
// and the BIOS reset flag but no command does, on the default board.

#include "inventory/tables.hpp"
#include "plugin.hpp"

#include <filesystem>

namespace
{

constexpr const char* eeprom = "/usr/bin/eeprom";
using Store = int (*)(BIOS_DATA_FLAGS, BIOS_DATA_TYPE, int, char*, int);
using Load = int (*)(int, char*, int);

std::string tagged(const std::string& tag, const std::string& payload)
{
    std::string record = tag + payload;
    record.resize(128, '\0');
    return record;
}

TEST(Store, PathsNoCommandTakes)
{
    auto store = pluginSymbol<Store>("eeprom_store_data");
    auto load = pluginSymbol<Load>("get_eeprom_store_data");
    std::string image(0x4000, '\xEE');
    writeFile(eeprom, image);
    std::string data = "payload";

    // An unknown type tags "NONO"; clearing one record clears those 128
    // bytes; an unknown operation does nothing.
    EXPECT_EQ(store(BIOS_DATA_WRITE, static_cast<BIOS_DATA_TYPE>(9), 3,
                    data.data(), 7),
              0);
    image.replace(0x1180, 128, tagged("NONO", data));
    EXPECT_EQ(store(BIOS_DATA_CLEAN_ONE, BIOS_DATA_TYPE_CPU, 5, nullptr, 0), 0);
    image.replace(0x1280, 128, std::string(128, '\0'));
    EXPECT_EQ(store(static_cast<BIOS_DATA_FLAGS>(7), BIOS_DATA_TYPE_CPU, 6,
                    nullptr, 0),
              0);
    EXPECT_EQ(readFile(eeprom), image);

    EXPECT_EQ(store(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, 1, nullptr, 3), -1);
    EXPECT_EQ(store(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, -1, data.data(), 3),
              -1);
    EXPECT_EQ(store(BIOS_DATA_WRITE, BIOS_DATA_TYPE_CPU, 1, data.data(), -1),
              -1);
    EXPECT_EQ(readFile(eeprom), image);

    // A read copies at most the 124-byte payload.
    std::string out(200, 'o');
    EXPECT_EQ(load(3, out.data(), 200), 0);
    EXPECT_EQ(out, tagged("", data).substr(0, 124) + std::string(76, 'o'));
    EXPECT_EQ(load(3, nullptr, 4), -1);
    EXPECT_EQ(load(-1, out.data(), 4), -1);
    EXPECT_EQ(load(3, out.data(), -1), -1);
}

// The set BIOS configuration command writes its twenty options at once;
// the one-option rewriter stays for other callers.
TEST(BiosOptions, RewriterChangesEveryMatchingLineThroughItsCopy)
{
    using Rewrite =
        void (*)(std::string, std::string&, std::string, std::string&);
    auto rewrite = pluginSymbol<Rewrite>("setBiosModuleArgValue");
    const std::string path = "/etc/options-under-test";
    const std::string copy = path + "_tmp";
    std::string module = "Boot";
    std::string value = "9";

    writeFile(path, "Boot Order=1 x\nPower Order=2\nBoot Order=3\nBoot Mode=a");
    rewrite(path, module, "Order", value);
    const std::string rewritten =
        "Boot Order=9 x\nPower Order=2\nBoot Order=9\nBoot Mode=a\n";
    EXPECT_EQ(readFile(path), rewritten);
    EXPECT_EQ(readFile(copy), "<missing>");

    // No match: the file stays, and so does the full copy beside it.
    rewrite(path, module, "Speed", value);
    EXPECT_EQ(readFile(path), rewritten);
    EXPECT_EQ(readFile(copy), rewritten);

    // No file: the copy is still made, empty, and nothing else.
    std::filesystem::remove(path);
    rewrite(path, module, "Order", value);
    EXPECT_EQ(readFile(path), "<missing>");
    EXPECT_EQ(readFile(copy), "");
    std::filesystem::remove(copy);
}

TEST(BiosReset, SetAndClearedByOtherModules)
{
    auto biosReset = pluginSymbol<int (*)(bool)>("BIOS_reset");
    EXPECT_EQ(biosReset(true), 0);
    EXPECT_EQ(readFile("/etc/bios_reset_flag"), "reset");
    EXPECT_EQ(biosReset(false), 0);
    EXPECT_EQ(readFile("/etc/bios_reset_flag"), "noreset");

    std::filesystem::remove("/etc/bios_reset_flag");
    std::filesystem::create_directory("/etc/bios_reset_flag");
    EXPECT_EQ(biosReset(true), -1);
}

} // namespace
