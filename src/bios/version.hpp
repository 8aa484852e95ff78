// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>
#include <string>

extern "C"
{
/* Sets (true) or clears (false) the one-shot BIOS reset flag; 0, or -1 if
 * the flag file cannot be written. */
OEM_EXPORT int BIOS_reset(bool reset);

/* 1 if the BIOS reset flag was set, which consumes it; else 0. */
OEM_EXPORT int get_BIOS_reset(void);
}

namespace oem::bios
{

/* Longest version text recorded. */
constexpr size_t maxVersionLength = 127;

/* The version a set version request of length bytes records: the short
 * form's text, the long form's composed text, or nothing for a long form
 * whose flag is not 1. */
std::string requestedVersion(const uint8_t* request, uint32_t length);

/* Whether a version can go into the one-line, double-quoted version files
 * unchanged. */
bool recordableVersion(const std::string& version);

} // namespace oem::bios
