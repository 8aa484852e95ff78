// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "difference.hpp"
#include "plugin.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

/* Files and stand-ins the BIOS and inventory tests set up in the sandbox. */
namespace bios_test
{

constexpr const char* eepromFile = "/usr/bin/eeprom";
constexpr const char* commandLog = "/var/log/sim/commands.log";

/* A blank EEPROM image of size bytes. */
inline void blankEeprom(size_t size = 0x4000,
                        const std::string& path = eepromFile)
{
    writeFile(path, std::string(size, '\0'));
}

inline std::vector<uint8_t> fileBytes(const std::string& path, size_t offset,
                                      size_t count)
{
    std::string content = readFile(path);
    std::vector<uint8_t> bytes;
    for (size_t i = offset; i < offset + count && i < content.size(); ++i)
    {
        bytes.push_back(static_cast<uint8_t>(content[i]));
    }
    return bytes;
}

/* The 128 bytes of inventory record number record. */
inline std::vector<uint8_t> recordAt(int record)
{
    return fileBytes(eepromFile, 0x1000 + 128 * static_cast<size_t>(record),
                     128);
}

inline void putBytes(const std::string& path, size_t offset,
                     const std::vector<uint8_t>& bytes)
{
    std::string content = readFile(path);
    content.replace(offset, bytes.size(),
                    std::string(bytes.begin(), bytes.end()));
    writeFile(path, content);
}

inline std::vector<uint8_t> bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

/* Replaces the tool at path by a script that logs its name and arguments
 * to the command log, prints output and exits with status. */
inline void standIn(const std::string& path, const std::string& output = "",
                    int status = 0)
{
    unlink(path.c_str());
    std::string script =
        "#!/bin/sh\necho \"${0##*/} $*\" >>" + std::string(commandLog) + "\n";
    if (!output.empty())
    {
        script += "printf '%s' '" + output + "'\n";
    }
    script += "exit " + std::to_string(status) + "\n";
    writeFile(path, script);
    chmod(path.c_str(), 0755);
}

inline void clearCommandLog()
{
    unlink(commandLog);
}

inline std::string loggedCommands()
{
    std::string log = readFile(commandLog);
    return log == "<missing>" ? "" : log;
}

} // namespace bios_test
