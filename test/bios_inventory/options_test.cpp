// SPDX-License-Identifier: Apache-2.0
// BIOS setup options through the host: set rewrites the working file, get
// reads the file handed on to the BIOS, and the copy flag joins them.

#include "sandbox_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>

namespace
{

using namespace bios_test;
using Bytes = std::vector<uint8_t>;
using Values = std::array<std::string, 20>;

constexpr const char* working = "/etc/default/obmc/current_bios_configure";
constexpr const char* future = "/etc/default/obmc/future_bios_configure";

// An option file in the board's manner: several tokens per line, in any
// order around the module word, with lines that are not options.
std::string optionFile(const Values& v)
{
    return "[BIOS]\n"
           "BIOS Language=" +
           v[0] + " COM0ConsoleRedirection=" + v[1] +
           " COM1ConsoleRedirection=" + v[2] +
           "\n"
           "SriovSupport=" +
           v[3] + " Svm_mode=" + v[4] + " BIOS Above4gDecode=" + v[5] +
           "\n"
           "# not an option line: Language=5\n"
           "BIOS UsbMassDriverSupport=" +
           v[6] + " WakeSystemFromRTC=" + v[7] +
           "\n"
           "BIOS PlatfromFirstErrorHandle=" +
           v[8] + " SMBIOSEventLog=" + v[9] + " LogSystemBootEvent=" + v[10] +
           "\n"
           "BIOS CorePerformanceBoost=" +
           v[11] + " GlobalCstateControl=" + v[12] +
           " L1StreamHWPrefetcher=" + v[13] +
           "\n"
           "BIOS L2StreamHWPrefetcher=" +
           v[14] + " IOMMU=" + v[15] + " ACSEnable=" + v[16] +
           "\n"
           "BIOS FRB2Timer=" +
           v[17] + " OSWatchdogTimer=" + v[18] + " SELComponents=" + v[19] +
           "\n";
}

Values filled(const std::string& text)
{
    Values v;
    v.fill(text);
    return v;
}

// The board's defaults.
const Values defaults = {"0", "1", "0", "1", "1", "1", "1", "0", "1", "1",
                         "1", "1", "1", "1", "1", "2", "1", "0", "0", "1"};

Bytes bytesOfValues(const Values& v)
{
    Bytes bytes;
    for (const auto& text : v)
    {
        bytes.push_back(static_cast<uint8_t>(std::stoi(text)));
    }
    return bytes;
}

Bytes setRequest(uint8_t copy, std::initializer_list<uint8_t> options)
{
    Bytes r(options);
    r.insert(r.begin(), copy);
    return r;
}

TEST(BiosOptionsGet, AnswersTwentyBytesFromTheFileHandedOn)
{
    struct Case
    {
        const char* what;
        std::string future;
        Bytes answer;
    };
    Bytes onlyTwo(20, 0);
    onlyTwo[0] = 1;
    onlyTwo[15] = 2;
    Bytes quirks(20, 0);
    quirks[0] = 12;
    quirks[1] = 0;
    quirks[2] = 0xFF;
    quirks[19] = 9;
    const Case cases[] = {
        {"board defaults", optionFile(defaults), bytesOfValues(defaults)},
        {"two keys in one line", "BIOS Language=1 IOMMU=2", onlyTwo},
        {"values as numbers, low 8 bits",
         "BIOS Language=12abc COM0ConsoleRedirection=256\n"
         "BIOS COM1ConsoleRedirection=-1 SriovSupport= 7\n" // empty value

         "Svm_mode=3\n"
         "SELComponents=265 BIOS\n",
         quirks},
        {"empty file", "", Bytes(20, 0)},
        {"the module word is needed", "Language=1 IOMMU=2\n", Bytes(20, 0)},
    };
    for (const auto& c : cases)
    {
        writeFile(future, c.future);
        for (const Bytes& request : {Bytes{}, Bytes(30, 0x01)})
        {
            auto answer = call(0x3A, 0x71, request);
            EXPECT_EQ(answer.cc, 0x00) << c.what;
            EXPECT_EQ(answer.data, c.answer) << c.what;
        }
    }

    unlink(future);
    auto answer = call(0x3A, 0x71);
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes(20, 0));
}

TEST(BiosOptionsSet, RewritesTheWorkingFileAndCopiesItOnRequest)
{
    struct Case
    {
        const char* what;
        Bytes request;
        Values written;
    };
    Values com0Zero = defaults;
    com0Zero[0] = "0";
    com0Zero[1] = "0";
    Values emptyLanguage = filled("1");
    emptyLanguage[0] = "";
    const Case cases[] = {
        {"all 1", setRequest(0, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}),
         filled("1")},
        {"COM0 5 after Language 0",
         setRequest(
             0, {0, 5, 0, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 2, 1, 0, 0, 1}),
         com0Zero},
        {"Language 7 leaves it empty",
         setRequest(
             0, {7, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}),
         emptyLanguage},
        {"a short request counts as zeros",
         {0, 1},
         [] {
             Values v = filled("0");
             v[0] = "1";
             return v;
         }()},
    };
    for (const auto& c : cases)
    {
        writeFile(working, optionFile(defaults));
        writeFile(future, optionFile(defaults));
        for (uint8_t copy : {0, 2, 1})
        {
            Bytes request = c.request;
            request[0] = copy;
            auto answer = call(0x3A, 0x72, request);
            EXPECT_EQ(answer.cc, 0x00) << c.what;
            EXPECT_EQ(answer.data, Bytes{0x00}) << c.what;
            EXPECT_EQ(readFile(working), optionFile(c.written)) << c.what;
            EXPECT_FALSE(std::filesystem::exists(std::string(working) + "_tmp"))
                << c.what;
            if (copy == 1)
            {
                EXPECT_EQ(readFile(future), optionFile(c.written)) << c.what;
            }
            else
            {
                // Not handed on yet: get still answers the old values.
                EXPECT_EQ(readFile(future), optionFile(defaults)) << c.what;
                EXPECT_EQ(call(0x3A, 0x71).data, bytesOfValues(defaults))
                    << c.what;
            }
        }
    }
}

TEST(BiosOptionsSet, ACopyCarriesEarlierChangesAndTheWholeFile)
{
    std::string extra = "# provisioned by the image\n";
    writeFile(working, extra + optionFile(defaults));
    writeFile(future, "old\n");
    call(0x3A, 0x72, setRequest(0, {2, 2, 2, 2, 2, 2, 2, 2, 2, 2,
                                    2, 2, 2, 2, 2, 2, 2, 2, 2, 2}));
    EXPECT_EQ(readFile(future), "old\n");
    // Bytes above 2 change nothing but the first option's text.
    call(0x3A, 0x72, setRequest(1, {3, 3, 3, 3, 3, 3, 3, 3, 3, 3,
                                    3, 3, 3, 3, 3, 3, 3, 3, 3, 3}));
    EXPECT_EQ(readFile(future), extra + optionFile(filled("")));
    EXPECT_EQ(readFile(future), readFile(working));
}

TEST(BiosOptionsSet, AFileWithoutTheKeysIsLeftAsItWas)
{
    std::string content = "[BIOS]\nBIOS nothing here\nLanguage=1";
    writeFile(working, content);
    struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, working, old, 0), 0);
    writeFile(future, optionFile(defaults));

    auto answer =
        call(0x3A, 0x72, setRequest(0, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                        1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(answer.data, Bytes{0x00});
    EXPECT_EQ(readFile(working), content);
    struct stat status = {};
    ASSERT_EQ(stat(working, &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000000000);
    // The copy made for the rewrite stays behind, line ends completed.
    EXPECT_EQ(readFile(std::string(working) + "_tmp"), content + "\n");
    EXPECT_EQ(readFile(future), optionFile(defaults));
    unlink((std::string(working) + "_tmp").c_str());
}

TEST(BiosOptionsSet, AMissingWorkingFileChangesNothing)
{
    unlink(working);
    writeFile(future, optionFile(defaults));
    for (uint8_t copy : {0, 1})
    {
        auto answer =
            call(0x3A, 0x72, setRequest(copy, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                               1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
        EXPECT_EQ(answer.cc, 0x00);
        EXPECT_EQ(answer.data, Bytes{0x00});
        EXPECT_EQ(readFile(working), "<missing>");
        EXPECT_EQ(readFile(std::string(working) + "_tmp"), "");
        EXPECT_EQ(readFile(future), optionFile(defaults));
    }
    unlink((std::string(working) + "_tmp").c_str());
}

} // namespace
