// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

/* The ways to reach the plug-in: out of band over IPMI 2.0 (RMCP+) and in
 * band through the server's IPMI driver, both through libfreeipmi, and
 * straight through the host library on a simulated board. */
namespace oemclient
{

struct Reply
{
    uint8_t cc = 0;
    std::vector<uint8_t> data;
};

struct TransportError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

struct Connection
{
    std::string interface; // lanplus, open, host
    std::string host;
    std::string port;
    std::string user;
    std::string password;
    unsigned cipherSuite = 3;
    std::string privilege = "ADMINISTRATOR";
    std::string device; // in band: the driver's device, /dev/ipmi0
    std::string root;   // host: the sandbox root
    std::string bus;    // host: D-Bus address; default the sandbox's bus
    std::string plugin; // host: the provider to load
};

class Transport
{
  public:
    virtual ~Transport() = default;
    virtual Reply send(uint8_t netfn, uint8_t cmd,
                       const std::vector<uint8_t>& data) = 0;
};

/* Opens the connection (for lanplus: the session). The host interface moves
 * the process into namespaces of its own and into the sandbox root first,
 * so it must be opened before anything else runs; only the child process
 * returns from it, the parent exits with the child's status. */
std::unique_ptr<Transport> connect(const Connection& connection);

} // namespace oemclient
