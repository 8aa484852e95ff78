// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <array>
#include <cstdint>
#include <cstdio>

extern "C"
{
/* Reads the fan-control service's mode file: *mode is 1 when its first word
 * is "auto", else 0. Returns 0, or -1 when the file is missing (then *mode
 * is 1: the service runs in automatic mode until it says otherwise). */
OEM_EXPORT int fan_get_fan_mode(uint8_t* mode);

/* Reads the raw PWM value (0..255) of a channel of hwmon0 into *value.
 * Returns 0, or -1 when the file cannot be opened. */
OEM_EXPORT int fan_get_pwmfile(int channel, uint8_t* value);
}

namespace oem::thermal
{

/* The fan-control parameter file: one line per sensor, six fields (the
 * sensor ID, then five parameters), each "0x" and two upper-case hex digits,
 * separated by ':'. Lines are rewritten in place, so they keep that width. */
constexpr const char* fanParamPath = "/etc/fancontrol_param.conf";

using FanParams = std::array<uint8_t, 6>;

/* Width of a line, newline included, as formatFanParamLine writes it. */
constexpr size_t fanParamLineWidth = 30;

/* Longest line, newline excluded, that is looked at; a longer line is
 * skipped whole and never matches. */
constexpr size_t fanParamLineMax = 49;

enum class FanParamResult
{
    found,
    notFound,
    badWidth, // matched, but the line is not fanParamLineWidth wide
    ioError,
};

/* The line text for these six fields, newline included. */
std::array<char, fanParamLineWidth + 1> formatFanParamLine(const FanParams&);

/* Finds the line of sensor id from the current position of file and reads
 * its fields (missing fields read as 0, fields past the tenth are ignored).
 * A line is matched by its leading hexadecimal number; a last line without
 * its newline is never matched. */
FanParamResult readFanParams(FILE* file, uint8_t id, FanParams& params);

/* Overwrites the line of sensor params[0] in place, leaving every other
 * byte of the file as it was. The file must be open for update at its
 * start. Refuses (badWidth) to rewrite a line that the new text would not
 * exactly replace. */
FanParamResult writeFanParams(FILE* file, const FanParams& params);

} // namespace oem::thermal
