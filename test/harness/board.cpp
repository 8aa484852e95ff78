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
#include <string_view>

#include <gtest/gtest.h>

namespace board
{

namespace
{

constexpr const char* toolsDir = "/var/sim/tools/";
constexpr const char* commandLogPath = "/var/log/sim/commands.log";

std::string busPath(int bus)
{
    return "/dev/i2c-" + std::to_string(bus);
}

// Reads a bus description under the same lock the I2C interposer takes, lets
// change edit it and writes it back if change returns true. Without change
// the file is only read.
std::optional<i2csim::Bus>
    editBus(int bus, const std::function<bool(i2csim::Bus&)>& change = nullptr)
{
    std::string path = busPath(bus);
    int fd = change ? open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)
                    : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
    {
        if (change)
        {
            ADD_FAILURE() << "cannot open " << path;
        }
        return std::nullopt;
    }
    flock(fd, change ? LOCK_EX : LOCK_SH);
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof(chunk))) > 0)
    {
        text.append(chunk, static_cast<size_t>(n));
    }
    auto parsed = i2csim::parse(text);
    if (!parsed.bus)
    {
        ADD_FAILURE() << path << " line " << parsed.errorLine << ": "
                      << parsed.error;
    }
    else if (change && change(*parsed.bus))
    {
        std::string out = i2csim::serialize(*parsed.bus);
        if (ftruncate(fd, 0) != 0 || pwrite(fd, out.data(), out.size(), 0) !=
                                         static_cast<ssize_t>(out.size()))
        {
            ADD_FAILURE() << "cannot write " << path;
        }
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
        line += ' ';
        bool plain = !arg.empty();
        for (char c : arg)
        {
            plain = plain && (isalnum(static_cast<unsigned char>(c)) ||
                              std::string_view("_@%+=:,./-").find(c) !=
                                  std::string_view::npos);
        }
        if (plain)
        {
            line += arg;
            continue;
        }
        line += '"';
        for (char c : arg)
        {
            switch (c)
            {
                case '\\':
                    line += "\\\\";
                    break;
                case '"':
                    line += "\\\"";
                    break;
                case '\n':
                    line += "\\n";
                    break;
                case '\t':
                    line += "\\t";
                    break;
                case '\r':
                    line += "\\r";
                    break;
                default:
                    line += c;
            }
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
    std::string text = readFile(path);
    if (text == "<missing>")
    {
        text.clear();
    }
    std::istringstream in(text);
    std::string out;
    bool found = false;
    for (std::string line; std::getline(in, line);)
    {
        if (line.starts_with(key + "="))
        {
            line = key + "=" + value;
            found = true;
        }
        out += line + "\n";
    }
    if (!found)
    {
        out += key + "=" + value + "\n";
    }
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
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0)
    {
        result.output.append(buffer, n);
    }
    int status = pclose(pipe);
    if (WIFEXITED(status))
    {
        result.status = WEXITSTATUS(status);
    }
    else if (WIFSIGNALED(status))
    {
        result.status = 128 + WTERMSIG(status);
    }
    return result;
}

std::optional<std::vector<uint8_t>> i2cRegister(int bus, uint8_t address,
                                                uint8_t reg)
{
    auto description = editBus(bus);
    if (!description)
    {
        return std::nullopt;
    }
    auto device = description->devices.find(address);
    if (device == description->devices.end())
    {
        return std::nullopt;
    }
    auto found = device->second.registers.find(reg);
    if (found == device->second.registers.end())
    {
        return std::nullopt;
    }
    return found->second.bytes;
}

void setI2cRegister(int bus, uint8_t address, uint8_t reg,
                    const std::vector<uint8_t>& bytes)
{
    editBus(bus, [&](i2csim::Bus& description) {
        auto& r = description.devices[address].registers[reg];
        r.bytes = bytes;
        r.block = bytes.size() != 1;
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
