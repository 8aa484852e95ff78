// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace oem::thermal
{

/* The chassis-intrusion switch: GPIO 332, 1 while the chassis is closed. */
constexpr int intrusionGpio = 332;

/* Read by the thermal service: "0" or "1", whether a high temperature shuts
 * the server down. */
constexpr const char* tempDetectFlagPath = "/etc/flag_tempdetect";

/* The warning LED: a register of the CPLD on bus 10, active low. */
constexpr const char* warnLedBus = "/dev/i2c-10";
constexpr uint16_t warnLedAddress = 0x23;
constexpr uint8_t warnLedRegister = 0x3C;

/* The identify LED scripts: toggle, and state by exit status (non-zero:
 * lit). */
constexpr const char* toggleIdentifyLed = "/usr/bin/toggle_identify_led.sh";
constexpr const char* getIdentifyLed = "/usr/bin/get_identify_led.sh";

} // namespace oem::thermal
