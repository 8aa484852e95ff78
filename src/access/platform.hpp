// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace oem::access
{

/* Reads /sys/class/gpio/gpioN/value (up to 15 characters, a decimal number)
 * and keeps its low byte; 0, or -1 if the file cannot be opened or holds no
 * number. Does not export the line. */
int readGpio(int gpio, uint8_t* value);

} // namespace oem::access
