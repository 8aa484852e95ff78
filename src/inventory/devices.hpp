// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "handler.hpp"

#include <cstdint>

extern "C"
{
/* The slot index of a PCI device in gPCI_slot, or 13 for a device the table
 * does not know. */
OEM_EXPORT int32_t pciDev_get_id(uint8_t bus, uint8_t device);

/* Records a NIC function of a set NIC device request (length bytes at
 * request) in the NIC list of its bus/device pair under /var/ipmi; returns
 * the function's ordinal on that pair (0 for the first), or -1 if the list
 * cannot be written. */
OEM_EXPORT int nicDev_set_list(char* request, int length);

/* 1 if BMC port 0 to 3 reports its link running, 0 if not (and for any
 * other port), -1 if the test cannot be run. */
OEM_EXPORT int get_net_stat(int port);
}
