// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstdint>

/* The card registry. Card c (1..255) is published as hwmon device c + 39 and
 * FRU c + 199. */
constexpr int cardHwmonOffset = 39;
constexpr int cardFruOffset = 199;

constexpr const char* EXTER_BOARD_CONF =
    "/etc/default/external/exterBoard.conf";
constexpr const char* NET_BOARD_CONF = "/etc/default/external/netBoard.conf";
constexpr const char* MIDDLE_BOARD_CONF = "/var/hwmon/middleBoard.conf";

/* One threshold record of the host: type, ten name bytes and four 24-bit
 * big-endian thresholds (warning low, warning high, critical low, critical
 * high). */
constexpr int cardThresholdRecordSize = 24;
/* One reading record: type and a 24-bit big-endian reading. */
constexpr int cardReadingRecordSize = 5;
constexpr int cardMaxRecords = 10;

constexpr uint8_t cardSensorTemperature = 0x10;
constexpr uint8_t cardSensorVoltage = 0x20;
constexpr uint8_t cardSensorCurrent = 0x30;

extern "C"
{
/* The "number" value of the middle-card file, the external-board file and
 * the network-board file; 0 if the file or the key is missing. */
OEM_EXPORT int middle_board_num(void);
OEM_EXPORT int exter_board_conf_init(void);
OEM_EXPORT int net_board_num(void);

/* Registers a middle card (the first argument is not used) and unregisters
 * one. 0, or -1 if the file cannot be written or already counts 99 cards.
 * Unregistering drops every card line that contains "Cardid=<card>". */
OEM_EXPORT int set_middle_card_num(int unused, int card);
OEM_EXPORT int del_middle_card_num(int card);

/* Rewrites the hwmon threshold configuration of hwmon device hwmon from the
 * threshold records in records (length bytes); 0, or -1 if it cannot be
 * written. */
OEM_EXPORT int writeThresholdTohwmon(const uint8_t* records, int length,
                                     uint8_t card, int hwmon);
/* Writes the readings of the reading records into the hwmon device's input
 * files; always 0. */
OEM_EXPORT int writevaluetohwmon(const uint8_t* records, int length,
                                 uint8_t hwmon);
/* Stores length bytes as the hwmon device's boardinfo, or empties it when
 * mode is 2; always 0. */
OEM_EXPORT int writeinfotohwmon(const uint8_t* data, int length, uint8_t hwmon,
                                uint8_t mode);

/* The power state of a card from the first byte of its boardinfo file: 2
 * for a powered card (1), 3 for one that is off (0); 0, or -1 for any other
 * byte or a missing file. */
OEM_EXPORT int Card_POWER_info(const char* path, uint8_t* out, int length);
/* Reads exactly length bytes of a card data file into out; 0, or -1 if the
 * file is missing, shorter, or not yet written by its service (it begins
 * with "unread"). */
OEM_EXPORT int Card_FILE_info(const char* path, uint8_t* out, int length);
}

namespace oem::cards
{

/* The helpers above for any hwmon index: card IDs up to 255 give indexes
 * past what the exported 8-bit forms carry. */
int writeValues(const uint8_t* records, int length, int hwmon);
int writeInfo(const uint8_t* data, int length, int hwmon, uint8_t mode);

} // namespace oem::cards
