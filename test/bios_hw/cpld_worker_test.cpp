// SPDX-License-Identifier: Apache-2.0
// The CPLD update (0x84) through the host, on the default board: each
// request answers at once and leaves the update to a worker thread of its
// own. Run under ThreadSanitizer by scripts/tsan-cpld.

#include "board.hpp"
#include "plugin.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

namespace
{

using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

constexpr const char* cpldState = "/var/sim/cpld";
constexpr const char* hold = "/var/sim/cpld/hold";
constexpr const char* image = "/var/cpld_upfile";

// The update workers of this process, by the name they give their thread.
size_t workers()
{
    size_t count = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task"))
    {
        count += readFile(task.path() / "comm") == "cpld-update\n";
    }
    return count;
}

// Tools still held by the test (get_cpld_update.exe while /var/sim/cpld/hold
// exists).
size_t heldTools()
{
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(cpldState))
    {
        count += entry.path().filename().string().starts_with("running.");
    }
    return count;
}

// Waits for what a worker does on its own time; fails after a generous
// minute rather than hanging the suite.
bool eventually(const std::function<bool()>& done)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

TEST(CpldUpdate, AnswersAtOnceAndUpdatesOnAWorker)
{
    fs::create_directories(cpldState);
    writeFile(hold, "");
    writeFile(image, "CPLD image 1.3");
    board::clearCommandLog();

    struct Case
    {
        const char* what;
        Bytes request;
    };
    // Only the first byte of the text counts; a zero byte ends the text.
    const Case cases[] = {
        {"M7R", {0x01}},
        {"other platform", {0x02, 0x01}},
        {"no platform", {0x00, 0x01}},
        {"empty request", {}},
        {"unknown platform", {0x41, 0x42, 0x43}},
    };
    testing::internal::CaptureStderr();
    for (const auto& c : cases)
    {
        auto answer = call(0x3A, 0x84, c.request);
        EXPECT_EQ(answer.cc, 0x00) << c.what;
        EXPECT_EQ(answer.data, Bytes{0x00}) << c.what;
    }

    // Every request has been answered while all the preparation tools are
    // still running: nobody waited for them.
    EXPECT_TRUE(eventually([] { return heldTools() == 5; }))
        << heldTools() << " tools running";
    EXPECT_EQ(workers(), 5U);
    auto log = board::commandLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), "get_cpld_update.exe"), 5);
    EXPECT_EQ(
        std::count(log.begin(), log.end(), "cpld_mem_up.sh /var/cpld_upfile"),
        0);

    fs::remove(hold);
    bool ended = eventually([] { return workers() == 0; });
    std::string errors = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended) << workers() << " workers still running";

    log = board::commandLog();
    EXPECT_EQ(log.size(), 6U);
    EXPECT_EQ(std::count(log.begin(), log.end(), "get_cpld_update.exe"), 5);
    // Programmed only after the preparation tool has finished.
    EXPECT_EQ(log.back(), "cpld_mem_up.sh /var/cpld_upfile");
    EXPECT_EQ(readFile("/var/sim/cpld/programmed"), "CPLD image 1.3");
    EXPECT_EQ(heldTools(), 0U);

    auto lines = [&](const std::string& line) {
        size_t count = 0;
        for (size_t at = errors.find(line); at != std::string::npos;
             at = errors.find(line, at + 1))
        {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(lines("oem update cpld process for M7R[0x1].\n"), 1U) << errors;
    EXPECT_EQ(lines("oem update cpld process for XXX[0x2].\n"), 1U) << errors;
    EXPECT_EQ(lines("oem update cpld process for"), 2U) << errors;
    fs::remove(image);
}

TEST(CpldUpdate, MissingImageLeavesTheCpldAlone)
{
    fs::remove(image);
    fs::remove("/var/sim/cpld/programmed");
    board::clearCommandLog();
    auto answer = call(0x3A, 0x84, {0x01});
    EXPECT_EQ(answer.cc, 0x00);
    EXPECT_EQ(answer.data, Bytes{0x00});
    // Its thread has started, and then ends on its own.
    ASSERT_TRUE(eventually([] { return workers() == 1; }));
    ASSERT_TRUE(eventually([] { return workers() == 0; }));
    EXPECT_EQ(board::commandLog(),
              (std::vector<std::string>{"get_cpld_update.exe",
                                        "cpld_mem_up.sh /var/cpld_upfile"}));
    EXPECT_FALSE(fs::exists("/var/sim/cpld/programmed"));
}

} // namespace
