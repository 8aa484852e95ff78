// SPDX-License-Identifier: Apache-2.0
// One host process answering a long stream of requests spread over every
// command the plug-in registers: what it holds (descriptors, threads,
// resident memory, processes) must not grow with the number of requests.
//
// OEM_SOAK_REQUESTS sets how many requests follow the warm-up (default
// 2000, enough to see a descriptor or process leak; scripts/soak runs
// 100,000).

#include "plugin.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

struct Usage
{
    size_t descriptors = 0;
    size_t threads = 0;
    size_t rssKiB = 0;
    size_t processes = 0;
};

size_t countEntries(const char* dir, bool numericOnly)
{
    size_t count = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored))
    {
        std::string name = entry.path().filename();
        count += !numericOnly ||
                 name.find_first_not_of("0123456789") == std::string::npos;
    }
    return count;
}

size_t statusField(const std::string& key)
{
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
    {
        if (line.rfind(key + ":", 0) == 0)
        {
            return std::stoul(line.substr(key.size() + 1));
        }
    }
    return 0;
}

Usage usage()
{
    Usage now;
    // The descriptor of the listing itself is counted every time alike.
    now.descriptors = countEntries("/proc/self/fd", false);
    now.threads = statusField("Threads");
    now.rssKiB = statusField("VmRSS");
    // Our PID namespace: us, the D-Bus simulator and whatever the plug-in
    // started and left running.
    now.processes = countEntries("/proc", true);
    return now;
}

void reapOrphans()
{
    // We are PID 1 of the namespace, so processes that the plug-in's
    // shells leave behind become ours, as they would become init's on the
    // BMC; init reaps them, and so do we, between requests only.
    while (waitpid(-1, nullptr, WNOHANG) > 0)
    {}
}

// Detached workers (the CPLD update's) and processes they started end on
// their own; give them time before counting.
Usage settle(const Usage& baseline)
{
    Usage now = usage();
    for (int i = 0; i < 300 && (now.threads > baseline.threads ||
                                now.processes > baseline.processes);
         ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        reapOrphans();
        now = usage();
    }
    return now;
}

std::string describe(const Usage& u)
{
    return std::to_string(u.descriptors) + " descriptors, " +
           std::to_string(u.threads) + " threads, " + std::to_string(u.rssKiB) +
           " KiB resident, " + std::to_string(u.processes) + " processes";
}

// Requests of the lengths that commands take and around them, with a
// selector-like first byte half of the time, so that both the accepting
// and the refusing paths of every command are walked.
std::vector<uint8_t> nextRequest(std::mt19937& engine)
{
    static constexpr size_t lengths[] = {0, 1,  2,  3,  4,  5,  6,   8,
                                         9, 16, 17, 20, 32, 64, 128, 255};
    std::vector<uint8_t> request(lengths[engine() % std::size(lengths)]);
    for (auto& byte : request)
    {
        byte = static_cast<uint8_t>(engine());
    }
    if (!request.empty() && engine() % 2 == 0)
    {
        request[0] = static_cast<uint8_t>(engine() % 4);
    }
    return request;
}

size_t numberFromEnvironment(const char* name, size_t fallback)
{
    const char* text = getenv(name);
    return text != nullptr ? std::strtoul(text, nullptr, 10) : fallback;
}

} // namespace

TEST(Soak, RequestsLeaveNothingBehind)
{
    const auto commands = oemhost::registrations();
    ASSERT_FALSE(commands.empty());
    // The plug-in's diagnostics on standard output would bury the report;
    // its standard error (and the sanitizers' reports) stays.
    fflush(stdout);
    int report = dup(STDOUT_FILENO);
    int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(report, 0);
    ASSERT_GE(quiet, 0);
    dup2(quiet, STDOUT_FILENO);
    close(quiet);
    std::mt19937 engine{20261121};
    std::map<uint8_t, size_t> codes;
    auto send = [&](size_t i) {
        const auto& target = commands[i % commands.size()];
        auto answer = call(target.netfn, target.cmd, nextRequest(engine));
        ++codes[answer.cc];
        reapOrphans();
    };

    // Warm-up: every command a few times, so that caches, the bus
    // connection's buffers and the allocator's pools reach their size.
    const size_t warmUp = commands.size() * 4;
    for (size_t i = 0; i < warmUp; ++i)
    {
        send(i);
    }
    Usage before = settle(usage());
    codes.clear();

    const size_t count = numberFromEnvironment("OEM_SOAK_REQUESTS", 2000);
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < count; ++i)
    {
        send(warmUp + i);
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
            .count();
    Usage after = settle(before);
    fflush(stdout);
    dup2(report, STDOUT_FILENO);
    close(report);

    printf("soak: %zu requests over %zu commands in %.1f s (%.0f/s)\n", count,
           commands.size(), seconds, count / seconds);
    printf("soak: after warm-up: %s\n", describe(before).c_str());
    printf("soak: at the end:    %s\n", describe(after).c_str());
    printf("soak: completion codes:");
    for (auto [cc, n] : codes)
    {
        printf(" 0x%02x x%zu", cc, n);
    }
    printf("\n");

    // Descriptors, threads and processes are counted exactly; resident
    // memory may move by what the allocator keeps in its free lists. A run
    // under a tool that keeps its own books in the process (memcheck) sets
    // a wider margin and judges leaks by the tool's report instead.
    const size_t rssMarginKiB =
        numberFromEnvironment("OEM_SOAK_RSS_MARGIN_KIB", 8 * 1024);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.processes, before.processes);
    EXPECT_LE(after.rssKiB, before.rssKiB + rssMarginKiB)
        << "resident memory grew by " << (after.rssKiB - before.rssKiB)
        << " KiB over " << count << " requests";
}
