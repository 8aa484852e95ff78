// SPDX-License-Identifier: Apache-2.0
// The add-in card registry: card counts (0x43), what the host feeds about a
// card (0x42) and reading a card's data back (0x41), with the exported
// helpers behind them.

#include "board.hpp"
#include "keep_files.hpp"
#include "plugin.hpp"

#include <sys/stat.h>

#include <string>

namespace
{

constexpr uint8_t netfn = 0x3A;
constexpr uint8_t getExCard = 0x41;
constexpr uint8_t setMiddCard = 0x42;
constexpr uint8_t getMiddCard = 0x43;

constexpr const char* exterConf = "/etc/default/external/exterBoard.conf";
constexpr const char* netConf = "/etc/default/external/netBoard.conf";
constexpr const char* middleConf = "/var/hwmon/middleBoard.conf";
constexpr const char* missing = "<missing>";

const Bytes error = {1};

// A threshold record: type, name (up to ten bytes here, zero-padded) and
// the four 24-bit thresholds.
Bytes threshold(uint8_t type, const std::string& name, uint32_t warnLow,
                uint32_t warnHigh, uint32_t critLow, uint32_t critHigh)
{
    Bytes record(24, 0);
    record[1] = type;
    std::copy(name.begin(), name.begin() + std::min<size_t>(name.size(), 10),
              record.begin() + 2);
    size_t at = 12;
    for (uint32_t value : {warnLow, warnHigh, critLow, critHigh})
    {
        record[at++] = static_cast<uint8_t>(value >> 16);
        record[at++] = static_cast<uint8_t>(value >> 8);
        record[at++] = static_cast<uint8_t>(value);
    }
    return record;
}

Bytes reading(uint8_t type, uint32_t value)
{
    return {0, type, static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

// Card c, sub-command s, the unused byte, then the data.
Bytes setRequest(uint8_t card, uint8_t sub, const std::vector<Bytes>& records)
{
    Bytes request = {card, sub, 0};
    for (const auto& record : records)
    {
        request.insert(request.end(), record.begin(), record.end());
    }
    return request;
}

TEST(CardCounts, MiddleCardInfo)
{
    KeepFiles keep{exterConf, netConf, middleConf};
    struct Case
    {
        const char* what;
        std::string exter;
        std::string net;
        std::string middle;
        Bytes request;
        Bytes answer;
    };
    const Case cases[] = {
        {"board",
         "number=2;\n",
         "number=1;\n",
         "number=02;\nCardid=1;\nCardid=2;\n",
         {0, 1},
         {0, 0, 1, 0, 5, 3, 2}},
        {"three middle cards",
         "number=2;\n",
         "number=1;\n",
         "number=03;\nCardid=1;\nCardid=2;\nCardid=5;\n",
         {0, 1},
         {0, 0, 1, 0, 6, 3, 3}},
        {"no files", missing, missing, missing, {0, 1}, {0, 0, 1, 0, 0, 0, 0}},
        {"no number key",
         "count=4;\n",
         "number=1;\n",
         "Cardid=1;\n",
         {0, 1},
         {0, 0, 1, 0, 1, 1, 0}},
        {"counts kept to their low bytes",
         "number=300;\n",
         "number=0;\n",
         "number=02;\n",
         {0, 1},
         {0, 0, 1, 0, 0x2E, 0x2C, 2}},
        {"card id not 0",
         "number=2;\n",
         "number=1;\n",
         "number=00;\n",
         {1, 1},
         error},
        {"sub-command not 1",
         "number=2;\n",
         "number=1;\n",
         "number=00;\n",
         {0, 2},
         error},
        {"empty request",
         "number=2;\n",
         "number=1;\n",
         "number=00;\n",
         {},
         error},
    };
    for (const auto& c : cases)
    {
        putFile(exterConf, c.exter);
        putFile(netConf, c.net);
        putFile(middleConf, c.middle);
        auto answer = call(netfn, getMiddCard, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
    }
}

TEST(CardCounts, CountHelpersAndTheirComplaints)
{
    KeepFiles keep{exterConf, netConf, middleConf};
    struct Case
    {
        const char* helper;
        const char* path;
        std::string content;
        int count;
        std::string complaint;
    };
    const Case cases[] = {
        {"exter_board_conf_init", exterConf, "number=4;\n", 4, ""},
        {"exter_board_conf_init", exterConf, missing, 0,
         "open exterBoard.conf false \xEF\xBC\x81\n"},
        {"net_board_num", netConf, "# cards\nnumber=7;\n", 7, ""},
        {"net_board_num", netConf, missing, 0,
         "open netBoard.conf false \xEF\xBC\x81\n"},
        {"middle_board_num", middleConf, "number=12;\nCardid=3;\n", 12, ""},
        {"middle_board_num", middleConf, "", 0, ""},
        {"middle_board_num", middleConf, missing, 0,
         "open Sorrelind_FanTable false \xEF\xBC\x81\n"},
    };
    for (const auto& c : cases)
    {
        putFile(c.path, c.content);
        auto helper = pluginSymbol<int (*)()>(c.helper);
        testing::internal::CaptureStderr();
        int count = helper();
        std::string complaint = testing::internal::GetCapturedStderr();
        EXPECT_EQ(count, c.count) << c.helper << " " << c.content;
        EXPECT_EQ(complaint, c.complaint) << c.helper << " " << c.content;
    }
}

TEST(MiddleCards, RegisterAndUnregister)
{
    KeepFiles keep{middleConf};
    auto add = pluginSymbol<int (*)(int, int)>("set_middle_card_num");
    auto remove = pluginSymbol<int (*)(int)>("del_middle_card_num");
    const std::string two = "number=02;\nCardid=1;\nCardid=12;\n";
    struct Case
    {
        const char* what;
        std::string before;
        bool registering;
        int card;
        int result;
        std::string after;
    };
    const Case cases[] = {
        {"first card", missing, true, 3, 0, "number=01;\nCardid=3;\n"},
        {"again", "number=01;\nCardid=3;\n", true, 3, 0,
         "number=01;\nCardid=3;\n"},
        {"another", two, true, 7, 0,
         "number=03;\nCardid=1;\nCardid=12;\nCardid=7;\n"},
        {"count 0 starts afresh", "number=00;\nCardid=9;\n", true, 5, 0,
         "number=01;\nCardid=5;\n"},
        {"tenth card", "number=09;\n", true, 200, 0,
         "number=10;\nCardid=200;\n"},
        {"full at 99", "number=99;\n", true, 4, -1, "number=99;\n"},
        {"count line not two digits", "number=5;\nCardid=1;\n", true, 4, -1,
         "number=5;\nCardid=1;\n"},
        {"removing 1 takes 12 along", two, false, 1, 0, "number=01;\n"},
        {"removing 12", two, false, 12, 0, "number=01;\nCardid=1;\n"},
        {"not registered", two, false, 2, 0, two},
        {"no file", missing, false, 2, 0, missing},
    };
    for (const auto& c : cases)
    {
        putFile(middleConf, c.before);
        int result = c.registering ? add(0, c.card) : remove(c.card);
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_EQ(readFile(middleConf), c.after) << c.what;
    }
}

TEST(SetMiddleCard, PresenceStopAndRemoval)
{
    KeepFiles keep{middleConf, "/var/hwmon/hwmon294",
                   "/var/sim/external_hwmon"};
    struct Case
    {
        const char* what;
        Bytes request;
        Bytes answer;
        std::vector<std::string> log;
        std::string middle;
    };
    const Case cases[] = {
        {"card 3 present",
         {3, 7},
         {0, 3, 7},
         {"external_hwmon.sh start hwmon42"},
         "number=03;\nCardid=1;\nCardid=2;\nCardid=3;\n"},
        {"card 3 present again",
         {3, 7},
         {0, 3, 7},
         {"external_hwmon.sh start hwmon42"},
         "number=03;\nCardid=1;\nCardid=2;\nCardid=3;\n"},
        {"card 3 stopped",
         {3, 8},
         {0, 3, 8},
         {"phosphor-read-other --type clean --fruid 202",
          "external_hwmon.sh stop hwmon42"},
         "number=03;\nCardid=1;\nCardid=2;\nCardid=3;\n"},
        {"card 3 removed",
         {3, 9, 0},
         {0, 3, 9},
         {"phosphor-read-other --type clean --fruid 202",
          "external_hwmon.sh stop hwmon42"},
         "number=02;\nCardid=1;\nCardid=2;\n"},
        {"card 255 present",
         {255, 7},
         {0, 255, 7},
         {"external_hwmon.sh start hwmon294"},
         "number=03;\nCardid=1;\nCardid=2;\nCardid=255;\n"},
        {"card 255 removed",
         {255, 9},
         {0, 255, 9},
         {"phosphor-read-other --type clean --fruid 454",
          "external_hwmon.sh stop hwmon294"},
         "number=02;\nCardid=1;\nCardid=2;\n"},
        {"power reports only print",
         {2, 3},
         {0, 2, 3},
         {},
         "number=02;\nCardid=1;\nCardid=2;\n"},
        {"card 0", {0, 7}, error, {}, "number=02;\nCardid=1;\nCardid=2;\n"},
        {"unknown sub-command",
         {2, 0x0A},
         error,
         {},
         "number=02;\nCardid=1;\nCardid=2;\n"},
        {"empty request", {}, error, {}, "number=02;\nCardid=1;\nCardid=2;\n"},
    };
    putFile(middleConf, "number=02;\nCardid=1;\nCardid=2;\n");
    for (const auto& c : cases)
    {
        board::clearCommandLog();
        auto answer = call(netfn, setMiddCard, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
        EXPECT_EQ(board::commandLog(), c.log) << c.what;
        EXPECT_EQ(readFile(middleConf), c.middle) << c.what;
    }
    EXPECT_EQ(readFile("/var/sim/external_hwmon/hwmon42"), "stopped\n");
    // The folder external_hwmon.sh made for the card.
    struct stat st;
    EXPECT_EQ(stat("/var/hwmon/hwmon294", &st), 0);
}

TEST(SetMiddleCard, Diagnostics)
{
    KeepFiles keep{middleConf};
    struct Case
    {
        Bytes request;
        std::string printed;
    };
    const Case cases[] = {
        {{0, 7}, "care id (0) : not  support \n"},
        {{1, 0x0A}, "cmd (0xa): not  support \n"},
        {{1, 2}, "care id (1): power set\n"},
        {{1, 5, 0}, "cmd (0x5): length too short \n"},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStdout();
        call(netfn, setMiddCard, c.request);
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
    }
}

TEST(SetMiddleCard, Thresholds)
{
    const std::string conf40 = "/etc/default/external/hwmon/hwmon40.conf";
    const std::string conf41 = "/etc/default/external/hwmon/hwmon41.conf";
    KeepFiles keep{conf40, conf41};
    const Bytes cpu = threshold(0x10, "CPU", 5000, 85000, 0, 95000);
    const Bytes p12v = threshold(0x20, "P12V", 11400, 12600, 10800, 13200);
    const Bytes i12v = threshold(0x30, "I12V", 0, 6000, 0, 8000);
    const Bytes vr = threshold(0x10, "VR", 1, 2, 3, 16777215);
    const std::string cpuBlock =
        "LABEL_temp1=ExterCard2_CPU\nWARNLO_temp1=5000\nWARNHI_temp1=85000\n"
        "CRITLO_temp1=0\nCRITHI_temp1=95000\n";
    const std::string p12vBlock =
        "LABEL_in1=ExterCard2_P12V\nWARNLO_in1=11400\nWARNHI_in1=12600\n"
        "CRITLO_in1=10800\nCRITHI_in1=13200\n";
    const std::string i12vBlock =
        "LABEL_curr1=ExterCard2_I12V\nWARNLO_curr1=0\nWARNHI_curr1=6000\n"
        "CRITLO_curr1=0\nCRITHI_curr1=8000\n";
    const std::string vrBlock =
        "LABEL_temp2=ExterCard2_VR\nWARNLO_temp2=1\nWARNHI_temp2=2\n"
        "CRITLO_temp2=3\nCRITHI_temp2=16777215\n";

    // A name that fills its ten bytes runs on into the warning-low bytes.
    Bytes longName = threshold(0x10, "ABCDEFGHIJ", 0x4B4C4D, 1, 2, 3);
    // A name byte that would start a new line of the file.
    Bytes newline = threshold(0x20, "A\nB", 1, 2, 3, 4);

    Bytes eleven;
    std::string tenBlocks;
    for (int i = 1; i <= 11; ++i)
    {
        Bytes record = threshold(0x20, "V" + std::to_string(i), i, i, i, i);
        eleven.insert(eleven.end(), record.begin(), record.end());
        if (i <= 10)
        {
            std::string k = "in" + std::to_string(i);
            std::string v = std::to_string(i);
            tenBlocks += "LABEL_" + k + "=ExterCard2_V" + v + "\nWARNLO_" + k +
                         "=" + v + "\nWARNHI_" + k + "=" + v + "\nCRITLO_" + k +
                         "=" + v + "\nCRITHI_" + k + "=" + v + "\n";
        }
    }

    struct Case
    {
        const char* what;
        Bytes request;
        std::string conf;
    };
    const Case cases[] = {
        {"three types", setRequest(2, 6, {cpu, p12v, i12v, vr}),
         cpuBlock + p12vBlock + i12vBlock + vrBlock},
        {"50 data bytes: two records", setRequest(2, 6, {cpu, p12v, {7, 7}}),
         cpuBlock + p12vBlock},
        {"type 0x40 ends the list",
         setRequest(2, 6, {cpu, threshold(0x40, "X", 0, 0, 0, 0), p12v}),
         cpuBlock},
        {"at most ten", setRequest(2, 6, {eleven}), tenBlocks},
        {"long name", setRequest(2, 6, {longName}),
         "LABEL_temp1=ExterCard2_ABCDEFGHIJKL\nWARNLO_temp1=4934733\n"
         "WARNHI_temp1=1\nCRITLO_temp1=2\nCRITHI_temp1=3\n"},
        {"newline in a name", setRequest(2, 6, {newline}),
         "LABEL_in1=ExterCard2_A_B\nWARNLO_in1=1\nWARNHI_in1=2\n"
         "CRITLO_in1=3\nCRITHI_in1=4\n"},
        {"no whole record", setRequest(2, 6, {Bytes(23, 0x10)}), ""},
    };
    for (const auto& c : cases)
    {
        auto answer = call(netfn, setMiddCard, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, (Bytes{0, 2, 6})) << c.what;
        EXPECT_EQ(readFile(conf41), c.conf) << c.what;
    }
    EXPECT_NE(readFile(conf40), readFile(conf41));
    EXPECT_EQ(readFile(conf41 + "_tmp"), missing);
}

TEST(SetMiddleCard, ThresholdsThatCannotBeWritten)
{
    const std::string dir = "/etc/default/external/hwmon";
    KeepFiles keep{dir + "/hwmon40.conf", dir + "/hwmon41.conf",
                   dir + "/hwmon42.conf"};
    const Bytes request =
        setRequest(3, 6, {threshold(0x10, "CPU", 1, 2, 3, 4)});

    // A folder where the file should be: written, but not put in place.
    ASSERT_EQ(mkdir((dir + "/hwmon42.conf").c_str(), 0755), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto answer = call(netfn, setMiddCard, request);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "writeThresholdTohwmon: write  failed.\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cmd (0x6): set  fail  \n");
    EXPECT_EQ(answer.data, error);
    EXPECT_EQ(readFile(dir + "/hwmon42.conf_tmp"), missing);
    rmdir((dir + "/hwmon42.conf").c_str());

    // No folder at all.
    std::filesystem::remove_all(dir);
    testing::internal::CaptureStderr();
    answer = call(netfn, setMiddCard, request);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unable to open file: " + dir + "/hwmon42.conf\n");
    EXPECT_EQ(answer.data, error);
}

TEST(SetMiddleCard, Readings)
{
    const std::string dir = "/var/hwmon/hwmon40/";
    KeepFiles keep{dir + "temp1_input", dir + "temp2_input",
                   dir + "in1_input",   dir + "curr1_input",
                   dir + "in2_input",   "/var/hwmon/hwmon289"};
    struct Case
    {
        const char* what;
        uint8_t card;
        std::vector<Bytes> records;
        std::vector<std::pair<std::string, std::string>> files;
    };
    const Case cases[] = {
        {"each type",
         1,
         {reading(0x10, 47000), reading(0x20, 12060), reading(0x30, 2000),
          reading(0x10, 0xFFFFFF)},
         {{dir + "temp1_input", "47000\n"},
          {dir + "in1_input", "12060\n"},
          {dir + "curr1_input", "2000\n"},
          {dir + "temp2_input", "16777215\n"}}},
        {"another type ends the list",
         1,
         {reading(0x20, 5), reading(0x00, 6), reading(0x20, 7)},
         {{dir + "in1_input", "5\n"}, {dir + "in2_input", missing}}},
        {"a partial record is left out",
         1,
         {reading(0x10, 30000), {0, 0x20, 0, 1}},
         {{dir + "temp1_input", "30000\n"}, {dir + "in1_input", missing}}},
        {"card 250 (hwmon289)",
         250,
         {reading(0x10, 41000)},
         {{"/var/hwmon/hwmon289/temp1_input", "41000\n"}}},
    };
    std::filesystem::create_directories("/var/hwmon/hwmon289");
    for (const auto& c : cases)
    {
        for (const auto& [path, content] : c.files)
        {
            unlink(path.c_str());
        }
        auto answer =
            call(netfn, setMiddCard, setRequest(c.card, 0x11, c.records));
        EXPECT_EQ(answer.data, (Bytes{0, c.card, 0x11})) << c.what;
        for (const auto& [path, content] : c.files)
        {
            EXPECT_EQ(readFile(path), content) << c.what << ": " << path;
        }
    }

    // Eleven records: the eleventh is not written.
    std::vector<Bytes> eleven;
    for (uint32_t i = 1; i <= 11; ++i)
    {
        eleven.push_back(reading(0x10, i));
    }
    std::filesystem::create_directories("/var/hwmon/hwmon289");
    call(netfn, setMiddCard, setRequest(250, 0x11, eleven));
    EXPECT_EQ(readFile("/var/hwmon/hwmon289/temp10_input"), "10\n");
    EXPECT_EQ(readFile("/var/hwmon/hwmon289/temp11_input"), missing);
}

TEST(SetMiddleCard, BoardInformation)
{
    const std::string info40 = "/var/hwmon/hwmon40/boardinfo";
    KeepFiles keep{info40, "/var/hwmon/hwmon289"};
    const std::string before = readFile(info40);
    ASSERT_NE(before, missing);

    Bytes short49(49, 0xAB);
    short49[0] = 1;
    short49[1] = 5;
    board::clearCommandLog();
    auto answer = call(netfn, setMiddCard, short49);
    EXPECT_EQ(answer.data, error);
    EXPECT_EQ(readFile(info40), before);
    EXPECT_TRUE(board::commandLog().empty());

    Bytes request(50, 0);
    request[0] = 1;
    request[1] = 5;
    request[2] = 0xEE;
    for (size_t i = 3; i < request.size(); ++i)
    {
        request[i] = static_cast<uint8_t>(i);
    }
    answer = call(netfn, setMiddCard, request);
    EXPECT_EQ(answer.data, (Bytes{0, 1, 5}));
    EXPECT_EQ(readFile(info40),
              std::string(request.begin() + 3, request.end()));
    EXPECT_EQ(board::commandLog(),
              std::vector<std::string>{"phosphor-read-other --type car "
                                       "--fruid 200 --file "
                                       "/var/hwmon/hwmon40/boardinfo"});

    // Card 250's folder is missing: nothing written, still handed on and
    // answered.
    request[0] = 250;
    board::clearCommandLog();
    testing::internal::CaptureStderr();
    answer = call(netfn, setMiddCard, request);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unable to open file: /var/hwmon/hwmon289/boardinfo\n");
    EXPECT_EQ(answer.data, (Bytes{0, 250, 5}));
    EXPECT_EQ(board::commandLog(),
              std::vector<std::string>{"phosphor-read-other --type car "
                                       "--fruid 449 --file "
                                       "/var/hwmon/hwmon289/boardinfo"});

    // Once the folder is there, the whole board information lands.
    std::filesystem::create_directories("/var/hwmon/hwmon289");
    Bytes large(3 + 4000, 0x5A);
    large[0] = 250;
    large[1] = 5;
    answer = call(netfn, setMiddCard, large);
    EXPECT_EQ(answer.data, (Bytes{0, 250, 5}));
    EXPECT_EQ(readFile("/var/hwmon/hwmon289/boardinfo"),
              std::string(4000, '\x5A'));
}

TEST(GetExCard, CardData)
{
    const std::string info40 = "/var/hwmon/hwmon40/boardinfo";
    const std::string sensors40 = "/var/hwmon/hwmon40/sensorinfo";
    const std::string info42 = "/var/hwmon/hwmon42/boardinfo";
    KeepFiles keep{info40, sensors40, info42, exterConf};
    const std::string fru = readFile(info40);
    const std::string sensors = readFile(sensors40);
    ASSERT_NE(fru, missing);
    ASSERT_EQ(fru[0], 1);
    auto with = [](Bytes head, const std::string& data) {
        head.insert(head.end(), data.begin(), data.end());
        return head;
    };

    struct Case
    {
        const char* what;
        std::string boardinfo42;
        Bytes request;
        Bytes answer;
    };
    const Case cases[] = {
        {"boardinfo", missing, {1, 0x05}, with({0, 1, 5, 0}, fru)},
        {"sensorinfo", missing, {1, 0x11}, with({0, 1, 0x11, 0}, sensors)},
        {"powered", missing, {1, 0x21}, {0, 1, 0x21, 0, 2}},
        {"card 3 not yet read", missing, {3, 0x11}, error},
        {"card 3 without boardinfo", missing, {3, 0x05}, error},
        {"card 3 without power state", missing, {3, 0x21}, error},
        {"card 3 off",
         std::string(1, '\0') + "rest",
         {3, 0x21},
         {0, 3, 0x21, 0, 3}},
        {"card 3 power state unknown", "\x07", {3, 0x21}, error},
        {"card 3 empty boardinfo", "", {3, 0x21}, error},
        {"card 3 empty boardinfo read whole", "", {3, 0x05}, {0, 3, 5, 0}},
        {"card 3 boardinfo unread", "unread\n", {3, 0x05}, error},
        {"card 3 boardinfo short of unread",
         "unre",
         {3, 0x05},
         with({0, 3, 5, 0}, "unre")},
        {"card 0", missing, {0, 0x05}, error},
        {"card 4, above the three", missing, {4, 0x05}, error},
        {"unknown sub-command", missing, {1, 0x06}, error},
        {"empty request", missing, {}, error},
    };
    for (const auto& c : cases)
    {
        putFile(info42, c.boardinfo42);
        auto answer = call(netfn, getExCard, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, c.answer) << c.what;
    }

    // Cards above the count are refused, whatever their files.
    putFile(exterConf, "number=1;\n");
    EXPECT_EQ(call(netfn, getExCard, {3, 0x21}).data, error);
    EXPECT_EQ(call(netfn, getExCard, {2, 0x21}).data,
              (Bytes{0, 2, 0x21, 0, 2}));
}

TEST(GetExCard, Diagnostics)
{
    struct Case
    {
        Bytes request;
        std::string printed;
    };
    const Case cases[] = {
        {{0, 0x05}, "care id (0) : not  support \n"},
        {{9, 0x05}, "care id (9) : not  support \n"},
        {{1, 0x30}, "cmd (0x30): not  support \n"},
        {{3, 0x05},
         " /var/hwmon/hwmon42/boardinfo file cannot open \ncmd (0x5): fail \n"},
        {{3, 0x11}, "cmd (0x11): fail \n"},
    };
    for (const auto& c : cases)
    {
        testing::internal::CaptureStdout();
        call(netfn, getExCard, c.request);
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
    }
}

TEST(GetExCard, FileBoundedByTheResponse)
{
    const std::string sensors40 = "/var/hwmon/hwmon40/sensorinfo";
    KeepFiles keep{sensors40};
    const size_t room = IPMID_RESPONSE_CAPACITY - 4;

    std::string fits(room, '\x11');
    fits[0] = 1;
    writeFile(sensors40, fits);
    auto answer = call(netfn, getExCard, {1, 0x11});
    ASSERT_EQ(answer.data.size(), IPMID_RESPONSE_CAPACITY);
    EXPECT_EQ(std::string(answer.data.begin() + 4, answer.data.end()), fits);

    writeFile(sensors40, fits + "x");
    answer = call(netfn, getExCard, {1, 0x11});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, error);
}

TEST(CardHelpers, FilesAndPowerState)
{
    const std::string dir = "/var/hwmon/hwmon41/";
    KeepFiles keep{dir + "boardinfo", dir + "temp1_input", dir + "in1_input"};
    auto fileInfo =
        pluginSymbol<int (*)(const char*, uint8_t*, int)>("Card_FILE_info");
    auto powerInfo =
        pluginSymbol<int (*)(const char*, uint8_t*, int)>("Card_POWER_info");
    auto writeInfo =
        pluginSymbol<int (*)(const uint8_t*, int, uint8_t, uint8_t)>(
            "writeinfotohwmon");
    auto writeValues = pluginSymbol<int (*)(const uint8_t*, int, uint8_t)>(
        "writevaluetohwmon");
    auto writeThresholds =
        pluginSymbol<int (*)(const uint8_t*, int, uint8_t, int)>(
            "writeThresholdTohwmon");

    const Bytes info = {0, 'a', 'b', 'c'};
    EXPECT_EQ(writeInfo(info.data(), 4, 41, 1), 0);
    EXPECT_EQ(readFile(dir + "boardinfo"), std::string("\0abc", 4));

    uint8_t out[8] = {};
    EXPECT_EQ(fileInfo((dir + "boardinfo").c_str(), out, 4), 0);
    EXPECT_EQ(Bytes(out, out + 4), info);
    EXPECT_EQ(fileInfo((dir + "boardinfo").c_str(), out, 5), -1);
    EXPECT_EQ(fileInfo((dir + "nothing").c_str(), out, 1), -1);
    EXPECT_EQ(powerInfo((dir + "boardinfo").c_str(), out, 1), 0);
    EXPECT_EQ(out[0], 3);
    EXPECT_EQ(powerInfo((dir + "nothing").c_str(), out, 1), -1);

    // Mode 2 cleans the information out.
    EXPECT_EQ(writeInfo(info.data(), 4, 41, 2), 0);
    EXPECT_EQ(readFile(dir + "boardinfo"), "");

    Bytes values = reading(0x20, 3300);
    EXPECT_EQ(writeValues(values.data(), 5, 41), 0);
    EXPECT_EQ(readFile(dir + "in1_input"), "3300\n");
    // Less than a whole record: nothing written.
    values = reading(0x20, 1200);
    EXPECT_EQ(writeValues(values.data(), 4, 41), 0);
    EXPECT_EQ(writeValues(values.data(), -5, 41), 0);
    EXPECT_EQ(readFile(dir + "in1_input"), "3300\n");

    const std::string conf = "/etc/default/external/hwmon/hwmon41.conf";
    KeepFiles keepConf{conf};
    Bytes record = threshold(0x30, "IN", 1, 2, 3, 4);
    EXPECT_EQ(writeThresholds(record.data(), 24, 9, 41), 0);
    EXPECT_EQ(readFile(conf),
              "LABEL_curr1=ExterCard9_IN\nWARNLO_curr1=1\n"
              "WARNHI_curr1=2\nCRITLO_curr1=3\nCRITHI_curr1=4\n");
}

} // namespace
