// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/* Size of the EEPROM record area: 39 records of 128 bytes. */
constexpr int BIOS_DATA_SIZE = 39 * 128;

/* In-memory image of the EEPROM record area; kept ready, not yet used. */
extern unsigned char BIOS_DATA[BIOS_DATA_SIZE];

/* PCI slot table: a device's key is (bus << 8) | device. */
struct pci_slot_entry
{
    int32_t index;
    uint16_t key;
    uint16_t reserved;
};
constexpr int PCI_SLOT_COUNT = 12;
extern const pci_slot_entry gPCI_slot[PCI_SLOT_COUNT];
