// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sandbox.hpp"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

/* Setting up and inspecting the simulated board from a test that runs inside
 * its sandbox root (sim/boards/default/README.md says what is where,
 * sim/tools/README.md how the tool stand-ins behave). Failures to reach the
 * board are reported as test failures. */
namespace board
{

using testing_sandbox::readFile;
using testing_sandbox::writeFile;

/* What a tool stand-in prints and the status it exits with, from the next
 * call on until resetTool. tool is the name it is called by ("ethtool",
 * "clean_fruid.sh"). A non-zero status makes the tool fail without acting. */
void setToolOutput(const std::string& tool, const std::string& output);
void setToolStatus(const std::string& tool, int status);
void resetTool(const std::string& tool);

/* The command log: one line per tool call, in call order. */
std::vector<std::string> commandLog();
void clearCommandLog();

/* The line the command log holds for a call with these arguments (argv[0]
 * may be a path; the log keeps its file name). */
std::string logLine(const std::vector<std::string>& argv);

/* A value of a stand-in's KEY=VALUE state file (/var/sim/net/eth1,
 * /var/sim/mem, ...); empty if the file or key is missing. setState adds
 * the key if needed and leaves the other lines as they are. */
std::string state(const std::string& path, const std::string& key);
void setState(const std::string& path, const std::string& key,
              const std::string& value);

/* Runs a command line through the sandbox's /bin/sh. status is the exit
 * status, or 128 + the signal that ended the shell. */
struct Run
{
    int status;
    std::string output;

    bool operator==(const Run&) const = default;
};
Run run(const std::string& command);

inline std::ostream& operator<<(std::ostream& out, const Run& result)
{
    return out << "status " << result.status << ", output \"" << result.output
               << "\"";
}

/* The bytes of a register of a simulated I2C device (/dev/i2c-BUS), or none
 * if the bus, device or register is not described. */
std::optional<std::vector<uint8_t>> i2cRegister(int bus, uint8_t address,
                                                uint8_t reg);

/* Describes a register: one byte makes a byte register, any other number a
 * block register (as PMBus block and word registers are). Adds the bus file
 * and the device if needed. */
void setI2cRegister(int bus, uint8_t address, uint8_t reg,
                    const std::vector<uint8_t>& bytes);

/* Makes a device stop answering (every transfer to it fails with ENXIO), or
 * answer again. */
void setI2cAnswers(int bus, uint8_t address, bool answers);

/* Makes the next count transfers to a device fail, then it answers again. */
void failI2cTransfers(int bus, uint8_t address, unsigned count);

} // namespace board
