// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>
#include <string>
#include <string_view>

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

/* Replaces the file at path whole with content. The bytes go to path +
 * "_tmp", reach the disk and are renamed over path, so that a reset or a
 * failing write leaves the old file or the new one, never an empty, cut or
 * mixed one; the new file keeps the old one's permissions. On failure path
 * is untouched and the temporary is gone. closed, when
 * given, tells whether the temporary closed cleanly (for the callers that
 * report it). */
enum class WriteResult
{
    done,
    notOpened,  // the temporary could not be created
    notWritten, // writing, syncing, closing or renaming it failed
};
WriteResult replaceFile(const std::string& path, std::string_view content,
                        bool* closed = nullptr);

enum class ReadResult
{
    ok,
    missing,
    failed,
};

/* Reads a whole file into content. A file that is there but cannot be read
 * is a failure, not an empty file. */
ReadResult readFile(const std::string& path, std::string& content);

/* strtol and strtoul as the BMC's C library runs them, with a 32-bit long,
 * whatever long is where this runs: text past the 32-bit range gives the
 * same number everywhere (the nearest end of the range; strtoul takes a
 * minus sign as negation modulo 2^32). end as for strtol. */
int32_t strtol32(const char* text, char** end, int base);
uint32_t strtoul32(const char* text, char** end, int base);

} // namespace oem
