// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>

/* The alarm flag files the event side of the BMC keeps, one sensor=value
 * line per sensor; =1 or =2 is an asserted alarm. */
constexpr const char* NONRECOVERABLE_FLAG_FILE =
    "/etc/nonrecoverlogreport_flag.conf";
constexpr const char* CRITICAL_FLAG_FILE = "/etc/logreport_flag.conf";
constexpr const char* WARNING_FLAG_FILE = "/etc/warnlogreport_flag.conf";

extern "C"
{
/* Fills the six health flags (true: healthy or present) from the alarm
 * flag files and a PMBus probe of each supply; flags are preset by the
 * caller. 1 if at least one flag file could be opened, else 0. */
OEM_EXPORT int get_sys_health_status(bool* psu1, bool* psu2, bool* fan,
                                     bool* psu1_ac, bool* psu2_ac, bool* temp);
/* Sets each level (preset to 0 by the caller) to 1 when it holds; returns
 * what get_sys_health_status returned. */
OEM_EXPORT int get_health_level_num(uint8_t* nonrecoverable, uint8_t* critical,
                                    uint8_t* warning);
OEM_EXPORT int get_mem_status(void);
OEM_EXPORT int get_network_status(void);
OEM_EXPORT int get_BIOS_status(void);
}
