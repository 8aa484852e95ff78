// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/* Fan number N (1..7) drives PWM channel sensorFAN_pwm[N - 1]. Fan 7 is wired
 * to channel 8: the board has no channel 7. */
extern const uint8_t sensorFAN_pwm[8];

/* Number of external plus network cards, refreshed by the card commands. */
extern int32_t exter_board_number;
