// SPDX-License-Identifier: Apache-2.0

#include "tables.hpp"

unsigned char BIOS_DATA[BIOS_DATA_SIZE] = {};

const pci_slot_entry gPCI_slot[PCI_SLOT_COUNT] = {
    {1, 1, 0}, {2, 2, 0}, {3, 3, 0}, {4, 4, 0},   {5, 5, 0},   {6, 6, 0},
    {7, 7, 0}, {8, 8, 0}, {9, 9, 0}, {10, 10, 0}, {11, 11, 0}, {12, 12, 0},
};
