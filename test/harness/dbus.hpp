// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/dbus.hpp"

#include <string>
#include <vector>

/* The simulated BMC D-Bus of a test's sandbox (sim/dbus/README.md), which
 * the harness starts before it loads the plug-in: tests read what was
 * called and steer the simulator. Everything here runs inside the
 * sandbox. */
namespace testing_dbus
{

constexpr const char* busAddress = "unix:path=/run/dbus/system_bus_socket";
constexpr const char* callRecordPath = "/var/log/sim/dbus-calls.log";
constexpr const char* failuresPath = "/var/sim/dbus/failures";

/* A connection of the test's own to the simulated bus. */
const oem::Bus& bus();

/* The calls the simulator has received, in order, one line each:
 * "SERVICE PATH INTERFACE MEMBER ARG..." (for example
 * `org.openbmc.control.bussysctl /org/openbmc/control/bussysctl
 * org.freedesktop.DBus.Properties Get "org.openbmc.control.bussysctlMachine"
 * "LedStatus"`). */
std::vector<std::string> calls();
void clearCalls();

/* Answers the calls whose record line matches glob (fnmatch: * and ? match
 * blanks and slashes too, [ opens a set) with a D-Bus error: the next
 * `times` matching calls, or every one when times is 0. Rules are tried in
 * the order they were added. */
void failCall(const std::string& glob, const std::string& errorName,
              const std::string& message = "Injected failure",
              unsigned times = 0);
void clearFailures();

/* The simulator's state, behind the plug-in's back: these calls are neither
 * recorded nor failed. setProperty creates the service, object, interface
 * or property if it is missing and takes the value's type. */
void setProperty(const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& property,
                 const oem::Value& value);
oem::Value getProperty(const std::string& service, const std::string& path,
                       const std::string& interface,
                       const std::string& property);

/* Removes a property, an interface (property "") or a whole object
 * (interface ""). */
void remove(const std::string& service, const std::string& path,
            const std::string& interface = "",
            const std::string& property = "");

} // namespace testing_dbus
