// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ipmid-abi.h"

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <utility>
#include <vector>

/* The host side of the daemon ABI: it collects the registrations a provider
 * makes while it is loaded and dispatches requests to them the way the IPMI
 * host daemon does. Used by ipmi-oem-host, the ipmi_sim bridge and the
 * tests. */
namespace oemhost
{

struct Registration
{
    ipmi_netfn_t netfn;
    ipmi_cmd_t cmd;
    ipmi_context_t context;
    ipmid_callback_t handler;
    int privilege;
};

/* Every ipmi_register_callback call so far, in call order. */
const std::vector<Registration>& registrations();

struct Answer
{
    uint8_t cc;
    std::vector<uint8_t> data;
};

/* Hands one request to the handler registered for (netfn, cmd):
 * - an unregistered pair answers 0xC1;
 * - the request is passed in a heap buffer of exactly its length (a null
 *   pointer when it is empty), the length is preset to the request length,
 *   the response buffer has IPMID_RESPONSE_CAPACITY zero-filled bytes, and
 *   exactly as many bytes as the handler stored in the length are kept;
 * - a request longer than IPMID_REQUEST_CAPACITY answers 0xC7 without a
 *   call;
 * - an exception escaping the handler answers 0xFF and is reported on
 *   standard error, and so is a response length beyond the capacity. */
Answer dispatch(ipmi_netfn_t netfn, ipmi_cmd_t cmd, const uint8_t* request,
                size_t length);

/* The connection ipmid_get_sd_bus_connection() hands out; none by default.
 * Connects to the bus at a D-Bus address (for example
 * "unix:path=/tmp/sim/bus"); false and a message on failure. */
bool connectBus(const std::string& address, std::string& error);
void setBus(sd_bus* bus);

/* Opens a provider the way the daemon does (dlopen with RTLD_NOW), which
 * runs its static initializer and so its registrations. Returns the handle,
 * or null with the loader's message in error. */
void* loadPlugin(const std::string& path, std::string& error);

/* Moves the process into namespaces of its own before it enters a sandbox
 * root: a user namespace where it is not root already, a mount namespace
 * and a PID namespace. The calling process stays behind, waits for its child
 * (which continues as PID 1 of the new namespace) and exits with the child's
 * status; only the child returns. Must be called before any D-Bus
 * connection is made (sd-bus connections do not survive a fork) and before
 * threads are started. */
bool isolate(std::string& error);

/* Makes dir the root directory of the process. Everything the process needs
 * from the real root must be loaded before. After isolate(), the sandbox
 * gets a /proc of its own PID namespace, so that tools such as killall see
 * only the sandbox's processes; without isolate() it gets none, and without
 * root privileges the process first enters a user namespace of its own. */
bool enterRoot(const std::string& dir, std::string& error);

/* The daemon's sensor table as the host hands it out through
 * ipmid_sensor_table(): read from sensorTablePath (relative to the current
 * root, so the sandbox's once the host entered it) on every call, so that
 * a change to the file counts from the next request on. No file: an empty
 * table. */
constexpr const char* sensorTablePath = "/var/sim/ipmid/sensors";

struct SensorRecord
{
    uint8_t number;
    uint8_t type;
    std::string path;
    std::string interface;
    /* (interface, property), ordered. */
    std::vector<std::pair<std::string, std::string>> properties;

    bool operator==(const SensorRecord&) const = default;
};

/* Reads a sensor table description: one sensor a line,
 *   NUMBER TYPE PATH INTERFACE [PROPERTY-INTERFACE:PROPERTY...]
 * numbers decimal or 0x hex (0..255), blank lines and # comments ignored.
 * Returns the records ordered by sensor number, each one's properties
 * ordered by interface, then name, as the daemon's maps hold them. A line
 * that cannot be read is left out and described in errors as
 * "LINE: message". */
std::vector<SensorRecord> parseSensorTable(std::istream& in,
                                           std::vector<std::string>& errors);

/* The name of a completion code, as ipmitool prints it. */
std::string completionCodeText(uint8_t cc);

/* The exported name of a handler, or its address in hex. */
std::string handlerName(ipmid_callback_t handler);

} // namespace oemhost
