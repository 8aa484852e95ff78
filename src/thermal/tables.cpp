// SPDX-License-Identifier: Apache-2.0

#include "tables.hpp"

const uint8_t sensorFAN_pwm[8] = {1, 2, 3, 4, 5, 6, 8, 0};

int32_t exter_board_number = 0;
