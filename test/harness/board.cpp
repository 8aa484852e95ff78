// SPDX-License-Identifier: Apache-2.0

#include "board.hpp"

#include "busfile.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

namespace board
{

namespace
{

constexpr const char* toolsDir = "/var/sim/tools/";
constexpr const char* commandLogPath = "/var/log/sim/commands.log";

// Reads a bus description under the lock the I2C interposer takes and, if
// change returns true, writes it back.
std::optional<i2csim::Bus>
    editBus(int bus, const std::function<bool(i2csim::Bus&)>& change = nullptr)
{
    std::string path = "/dev/i2c-" + std::to_string(bus);
    int fd = open(path.c_str(),
                  change ? O_RDWR | O_CREAT | O_CLOEXEC : O_RDONLY | O_CLOEXEC,
                  0644);
    if (fd < 0)
    {
        EXPECT_FALSE(change) << "cannot open " << path;
        return std::nullopt;
    }
    flock(fd, change ? LOCK_EX : LOCK_SH);
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = read(fd, chunk, sizeof(chunk))) > 0;)
    {
        text.append(chunk, static_cast<size_t>(n));
    }
    auto parsed = i2csim::parse(text);
    EXPECT_TRUE(parsed.bus)
        << path << " line " << parsed.errorLine << ": " << parsed.error;
    if (parsed.bus && change && change(*parsed.bus))
    {
        std::string out = i2csim::serialize(*parsed.bus);
        EXPECT_TRUE(ftruncate(fd, 0) == 0 &&
                    pwrite(fd, out.data(), out.size(), 0) ==
                        static_cast<ssize_t>(out.size()))
            << path;
    }
    close(fd);
    return parsed.bus;
}

} // namespace

void setToolOutput(const std::string& tool, const std::string& output)
{
    writeFile(toolsDir + tool + ".out", output);
}

void setToolStatus(const std::string& tool, int status)
{
    writeFile(toolsDir + tool + ".status", std::to_string(status) + "\n");
}

void resetTool(const std::string& tool)
{
    unlink((toolsDir + tool + ".out").c_str());
    unlink((toolsDir + tool + ".status").c_str());
}

std::vector<std::string> commandLog()
{
    std::vector<std::string> lines;
    std::ifstream in(commandLogPath);
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

void clearCommandLog()
{
    unlink(commandLogPath);
}

std::string logLine(const std::vector<std::string>& argv)
{
    std::string line;
    for (size_t i = 0; i < argv.size(); ++i)
    {
        const std::string& arg = argv[i];
        if (i == 0)
        {
            line = std::filesystem::path(arg).filename().string();
            continue;
        }
        bool plain = !arg.empty();
        for (char c : arg)
        {
            plain = plain &&
                    (isalnum(static_cast<unsigned char>(c)) ||
                     std::string("_@%+=:,./-").find(c) != std::string::npos);
        }
        if (plain)
        {
            line += " " + arg;
            continue;
        }
        line += " \"";
        for (char c : arg)
        {
            const char* escaped = c == '\\'   ? "\\\\"
                                  : c == '"'  ? "\\\""
                                  : c == '\n' ? "\\n"
                                  : c == '\t' ? "\\t"
                                  : c == '\r' ? "\\r"
                                              : nullptr;
            line +=
                escaped != nullptr ? std::string(escaped) : std::string(1, c);
        }
        line += '"';
    }
    return line;
}

std::string state(const std::string& path, const std::string& key)
{
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
    {
        if (line.starts_with(key + "="))
        {
            return line.substr(key.size() + 1);
        }
    }
    return "";
}

void setState(const std::string& path, const std::string& key,
              const std::string& value)
{
    std::istringstream in(readFile(path) == "<missing>" ? "" : readFile(path));
    std::string out;
    bool found = false;
    for (std::string line; std::getline(in, line);)
    {
        found = found || line.starts_with(key + "=");
        out += (line.starts_with(key + "=") ? key + "=" + value : line) + "\n";
    }
    out += found ? "" : key + "=" + value + "\n";
    // Replaced whole, as the stand-ins do, so that a tool never reads half.
    writeFile(path + ".new", out);
    std::filesystem::rename(path + ".new", path);
}

Run run(const std::string& command)
{
    Run result{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
    {
        ADD_FAILURE() << "cannot run " << command;
        return result;
    }
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
    {
        result.output.append(buffer, n);
    }
    int status = pclose(pipe);
    result.status = WIFEXITED(status)     ? WEXITSTATUS(status)
                    : WIFSIGNALED(status) ? 128 + WTERMSIG(status)
                                          : -1;
    return result;
}

std::optional<std::vector<uint8_t>> i2cRegister(int bus, uint8_t address,
                                                uint8_t reg)
{
    auto description = editBus(bus);
    if (!description || !description->devices.contains(address) ||
        !description->devices[address].registers.contains(reg))
    {
        return std::nullopt;
    }
    return description->devices[address].registers[reg].bytes;
}

void setI2cRegister(int bus, uint8_t address, uint8_t reg,
                    const std::vector<uint8_t>& bytes)
{
    editBus(bus, [&](i2csim::Bus& description) {
        description.devices[address].registers[reg] = {bytes,
                                                       bytes.size() != 1};
        return true;
    });
}

void setI2cAnswers(int bus, uint8_t address, bool answers)
{
    editBus(bus, [&](i2csim::Bus& description) {
        description.devices[address].noAnswer = !answers;
        return true;
    });
}

void failI2cTransfers(int bus, uint8_t address, unsigned count)
{
    editBus(bus, [&](i2csim::Bus& description) {
        description.devices[address].failCount = count;
        return true;
    });
}

} // namespace board
