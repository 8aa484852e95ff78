// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/* Layout of the EEPROM inventory area: 39 records of 128 bytes from 0x1000,
 * each a four-character tag and a 124-byte payload. */
constexpr long EEPROM_RECORD_BASE = 0x1000;
constexpr int EEPROM_RECORD_SIZE = 128;
constexpr int EEPROM_RECORD_TAG_SIZE = 4;
constexpr int EEPROM_RECORD_PAYLOAD =
    EEPROM_RECORD_SIZE - EEPROM_RECORD_TAG_SIZE;
constexpr int EEPROM_RECORD_COUNT = 39;

/* The system UUID lives in the same EEPROM, after the record area. */
constexpr long EEPROM_UUID_OFFSET = 0x3000;
constexpr int EEPROM_UUID_SIZE = 16;

/* Size of the EEPROM record area: 39 records of 128 bytes. */
constexpr int BIOS_DATA_SIZE = EEPROM_RECORD_COUNT * EEPROM_RECORD_SIZE;

/* In-memory image of the EEPROM record area; kept ready, not yet used. */
extern unsigned char BIOS_DATA[BIOS_DATA_SIZE];

/* What eeprom_store_data does. */
enum BIOS_DATA_FLAGS : int
{
    BIOS_DATA_CLEAN_ALL = 1,
    BIOS_DATA_CLEAN_ONE = 2,
    BIOS_DATA_WRITE = 3,
};

/* The kind of record, which selects its tag; other values tag "NONO". */
enum BIOS_DATA_TYPE : int
{
    BIOS_DATA_TYPE_BIOS = 1,
    BIOS_DATA_TYPE_CPU = 2,
    BIOS_DATA_TYPE_PCI = 3,
    BIOS_DATA_TYPE_NIC = 4,
    BIOS_DATA_TYPE_HDD = 5,
    BIOS_DATA_TYPE_DIMM = 6,
};

/* PCI slot table: a device's key is (bus << 8) | device. */
struct pci_slot_entry
{
    int32_t index;
    uint16_t key;
    uint16_t reserved;
};
constexpr int PCI_SLOT_COUNT = 12;
extern const pci_slot_entry gPCI_slot[PCI_SLOT_COUNT];

/* Slot index that every device missing from gPCI_slot shares. */
constexpr int32_t PCI_SLOT_UNKNOWN = 13;
