// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

namespace oem
{

/* The plug-in's bus object: the daemon's connection with a reference of its
 * own, released when the plug-in is unloaded. A null connection gives a
 * null bus, and calls through it fail. */
class Bus
{
  public:
    explicit Bus(sd_bus* connection) :
        bus(connection != nullptr ? sd_bus_ref(connection) : nullptr)
    {}
    ~Bus()
    {
        sd_bus_unref(bus);
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    sd_bus* get() const
    {
        return bus;
    }

  private:
    sd_bus* bus;
};

} // namespace oem

extern oem::Bus dbus;
