// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstddef>
#include <cstdint>

extern "C"
{
/* Reads the riser presence register of the main CPLD; 0 and the byte in
 * value, or the negative i2c_read result. */
OEM_EXPORT int RISER_detect(uint8_t* value);
}

namespace oem::bios
{

/* The host export area in physical memory: a 16-byte header, then the
 * data. */
constexpr uint64_t exportAreaAddress = 0x9FFF0000;
constexpr size_t exportAreaSize = 65536;
constexpr size_t exportHeaderSize = 16;

/* Data bytes per page of the get explorer command. */
constexpr size_t explorerPageSize = 61;

/* Riser presence (bit 0 riser 1, bit 1 riser 2) from the active-low
 * presence register. */
uint8_t riserPresence(uint8_t reg);

/* What the export header says, for a copy of the area. */
enum class ExportState
{
    ready,
    writing,
    none,
};
ExportState exportState(const uint8_t* area);

/* The data length the header announces, bounded by what the area holds. */
size_t exportLength(const uint8_t* area);

} // namespace oem::bios
