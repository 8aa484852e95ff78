// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>

extern "C"
{
/* Runs command through the shell and copies the first line of its output,
 * newline removed, into output (at most size - 1 characters). Returns -1 if
 * the shell cannot be started, else 0 whatever the command's exit status. A
 * command that prints nothing leaves output untouched. */
OEM_EXPORT int system_ctrl(char* command, char* output, int size);

/* Hexadecimal text to bytes, length / 2 bytes; ':' to '?' count as A to F. */
OEM_EXPORT void asc2hex(const char* text, int length, char* out);

/* Hexadecimal text to bytes; a trailing odd character is stored as its own
 * unmasked value. */
OEM_EXPORT int StringToHex(char* text, unsigned char* out);

OEM_EXPORT uint8_t readb(const volatile void* address);
OEM_EXPORT void writeb(uint8_t value, volatile void* address);

OEM_EXPORT int reset_bmc(int delay_ms);
}

namespace oem
{

/* Judges the status that system() returned for handlers whose completion
 * code reports the outcome of a shell command: 0x00 on success, else 0xFF.
 * The numbers it prints for a failed command are fixed, not the command's
 * exit code; management tools match on these lines. */
ipmi_ret_t shellStatus(int status);

} // namespace oem
