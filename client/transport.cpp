// SPDX-License-Identifier: Apache-2.0
#include "transport.hpp"

#include "host.hpp"

#include <freeipmi/freeipmi.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#ifndef OEM_PLUGIN_BUILD_PATH
#define OEM_PLUGIN_BUILD_PATH ""
#endif
#ifndef OEM_PLUGIN_INSTALL_PATH
#define OEM_PLUGIN_INSTALL_PATH "/usr/lib/ipmid-providers/libipmioem.so.0"
#endif

namespace oemclient
{

namespace
{

class FreeIpmi : public Transport
{
  public:
    FreeIpmi() : ctx(ipmi_ctx_create())
    {
        if (ctx == nullptr)
        {
            throw TransportError("cannot create an IPMI context");
        }
    }
    ~FreeIpmi() override
    {
        ipmi_ctx_close(ctx);
        ipmi_ctx_destroy(ctx);
    }
    FreeIpmi(const FreeIpmi&) = delete;
    FreeIpmi& operator=(const FreeIpmi&) = delete;

    void openLan(const Connection& c)
    {
        static const std::array<std::pair<const char*, uint8_t>, 3> levels{{
            {"USER", IPMI_PRIVILEGE_LEVEL_USER},
            {"OPERATOR", IPMI_PRIVILEGE_LEVEL_OPERATOR},
            {"ADMINISTRATOR", IPMI_PRIVILEGE_LEVEL_ADMIN},
        }};
        auto level = std::find_if(levels.begin(), levels.end(), [&](auto& l) {
            return c.privilege == l.first;
        });
        if (level == levels.end())
        {
            throw TransportError("unknown privilege level " + c.privilege);
        }
        std::string host = c.port.empty() ? c.host : c.host + ":" + c.port;
        // ipmitool names the privilege it wants in the Open Session request;
        // some BMCs (OpenIPMI's simulator among them) need that.
        if (ipmi_ctx_open_outofband_2_0(
                ctx, host.c_str(), c.user.c_str(), c.password.c_str(), nullptr,
                0, level->second, static_cast<uint8_t>(c.cipherSuite), 0, 0,
                IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_OPEN_SESSION_PRIVILEGE,
                IPMI_FLAGS_DEFAULT) < 0)
        {
            throw TransportError("cannot open an IPMI 2.0 session with " +
                                 host + ": " + ipmi_ctx_errormsg(ctx));
        }
    }

    void openInband(const Connection& c)
    {
        if (ipmi_ctx_open_inband(ctx, IPMI_DEVICE_OPENIPMI, 0, 0, 0,
                                 c.device.empty() ? nullptr : c.device.c_str(),
                                 0, IPMI_FLAGS_DEFAULT) < 0)
        {
            throw TransportError(
                "cannot open the IPMI driver (" +
                (c.device.empty() ? std::string("/dev/ipmi0") : c.device) +
                "): " + ipmi_ctx_errormsg(ctx));
        }
    }

    Reply send(uint8_t netfn, uint8_t cmd,
               const std::vector<uint8_t>& data) override
    {
        // libfreeipmi's raw layout: the command byte, then the data; the
        // answer repeats the command byte before the completion code.
        std::vector<uint8_t> request{cmd};
        request.insert(request.end(), data.begin(), data.end());
        std::vector<uint8_t> answer(1024);
        int n =
            ipmi_cmd_raw(ctx, 0, netfn, request.data(),
                         static_cast<unsigned>(request.size()), answer.data(),
                         static_cast<unsigned>(answer.size()));
        if (n < 0)
        {
            throw TransportError(std::string("request failed: ") +
                                 ipmi_ctx_errormsg(ctx));
        }
        if (n < 2)
        {
            throw TransportError("answer without a completion code");
        }
        return {answer[1], {answer.begin() + 2, answer.begin() + n}};
    }

  private:
    ipmi_ctx_t ctx;
};

class Host : public Transport
{
  public:
    Reply send(uint8_t netfn, uint8_t cmd,
               const std::vector<uint8_t>& data) override
    {
        auto answer = oemhost::dispatch(netfn, cmd, data.data(), data.size());
        return {answer.cc, std::move(answer.data)};
    }
};

std::string defaultPlugin()
{
    const char* built = OEM_PLUGIN_BUILD_PATH;
    if (built[0] != '\0' && access(built, R_OK) == 0)
    {
        return built;
    }
    return OEM_PLUGIN_INSTALL_PATH;
}

std::unique_ptr<Transport> openHost(const Connection& c)
{
    std::string error;
    // Namespaces first (they take a fork), then everything from the real
    // root: the D-Bus connection, the provider and all it links.
    if (!oemhost::isolate(error))
    {
        throw TransportError(error);
    }
    std::string bus = c.bus;
    std::string socket = c.root + "/run/dbus/system_bus_socket";
    if (bus.empty() && access(socket.c_str(), F_OK) == 0)
    {
        bus = "unix:path=" + socket;
    }
    if (!bus.empty() && !oemhost::connectBus(bus, error))
    {
        throw TransportError(error);
    }
    if (oemhost::loadPlugin(c.plugin.empty() ? defaultPlugin() : c.plugin,
                            error) == nullptr ||
        !oemhost::enterRoot(c.root, error))
    {
        throw TransportError(error);
    }
    return std::make_unique<Host>();
}

} // namespace

std::unique_ptr<Transport> connect(const Connection& c)
{
    if (c.interface == "host")
    {
        return openHost(c);
    }
    auto transport = std::make_unique<FreeIpmi>();
    if (c.interface == "lanplus")
    {
        transport->openLan(c);
    }
    else if (c.interface == "open")
    {
        transport->openInband(c);
    }
    else
    {
        throw TransportError("unknown interface " + c.interface +
                             " (lanplus or open)");
    }
    return transport;
}

} // namespace oemclient
