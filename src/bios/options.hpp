// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

extern "C"
{
/* The value of key in the first line of the file at path that holds module
 * and "key=": the text after "=" up to the next space or the line end.
 * Returns 0 with value set, or 1 (value untouched) if the file cannot be
 * read or no line matches. */
OEM_EXPORT int getBiosModuleArgValue(std::string path,
                                     const std::string& module,
                                     const std::string& key,
                                     std::string& value);

/* Replaces the value of key in every line of the file at path that holds
 * module and "key=", through path + "_tmp" and a rename. When no line
 * matches the file is left as it was, and so is the "_tmp" copy. */
OEM_EXPORT void setBiosModuleArgValue(std::string path, std::string& module,
                                      std::string key, std::string& value);
}

namespace oem::bios
{

constexpr int optionCount = 20;

/* The option keys in the order of their bytes on the wire. */
extern const std::array<const char*, optionCount> optionKeys;

/* The value of key in one line, if the line holds module and "key=". */
std::optional<std::string> optionLineValue(const std::string& line,
                                           const std::string& module,
                                           const std::string& key);

/* The line with the value of key replaced, if the line holds module and
 * "key=". */
std::optional<std::string> replaceOptionValue(const std::string& line,
                                              const std::string& module,
                                              const std::string& key,
                                              const std::string& value);

/* An option's byte on the wire: its decimal text, low 8 bits. */
uint8_t optionByte(const std::string& text);

/* The texts a set request (copy flag, then one byte per option) writes for
 * each option. */
std::array<std::string, optionCount>
    optionTexts(const std::array<uint8_t, optionCount + 1>& request);

} // namespace oem::bios
