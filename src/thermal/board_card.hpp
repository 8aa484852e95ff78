// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>

/* Record sizes of the board card report. */
constexpr int boardCardNameRecordSize = 16;
constexpr int boardCardValueRecordSize = 5;
constexpr int boardCardThresholdRecordSize = 14;
constexpr int boardCardIdentitySize = 95;
constexpr int boardCardInventorySize = 106;

extern "C"
{
/* One record of the board card report for one sensor of the daemon's
 * table; each increments *counter before it writes a record and puts it in
 * the record's first byte. They return the number of bytes written to out:
 * 16 for the name record, 5 per property read for the readings, 14 for the
 * thresholds. out must have room for that. The D-Bus readers throw
 * oem::DbusError on a failed call and std::bad_variant_access on a value
 * that is not a signed 64-bit integer. */
OEM_EXPORT int getSensorName(const struct ipmid_sensor_info* sensor,
                             uint8_t* out, uint8_t* counter);
OEM_EXPORT int getSensorValue(const struct ipmid_sensor_info* sensor,
                              uint8_t* out, uint8_t* counter);
OEM_EXPORT int getSensorValueInfo(const struct ipmid_sensor_info* sensor,
                                  uint8_t* out, uint8_t* counter);
}
