// SPDX-License-Identifier: Apache-2.0

#include "dbus.hpp"

#include "sandbox.hpp"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace testing_dbus
{
namespace
{

constexpr const char* controlService = "bmcsim.Control";
constexpr const char* controlPath = "/bmcsim";
constexpr const char* controlInterface = "bmcsim.Control";

} // namespace

const oem::Bus& bus()
{
    static std::unique_ptr<oem::Bus> connection = [] {
        sd_bus* raw = nullptr;
        int r = sd_bus_new(&raw);
        if (r >= 0)
            r = sd_bus_set_address(raw, busAddress);
        if (r >= 0)
            r = sd_bus_set_bus_client(raw, 1);
        if (r >= 0)
            r = sd_bus_start(raw);
        if (r < 0)
        {
            fprintf(stderr, "cannot connect to %s: %s\n", busAddress,
                    strerror(-r));
            abort();
        }
        auto owned = std::make_unique<oem::Bus>(raw);
        sd_bus_unref(raw);
        return owned;
    }();
    return *connection;
}

std::vector<std::string> calls()
{
    std::vector<std::string> lines;
    std::ifstream in(callRecordPath);
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

void clearCalls()
{
    testing_sandbox::writeFile(callRecordPath, "");
}

void failCall(const std::string& glob, const std::string& errorName,
              const std::string& message, unsigned times)
{
    std::string quoted = "\"";
    for (char c : message)
    {
        if (c == '\n')
        {
            quoted += "\\n";
            continue;
        }
        if (c == '"' || c == '\\')
        {
            quoted += '\\';
        }
        quoted += c;
    }
    quoted += '"';
    std::ofstream out(failuresPath, std::ios::app);
    out << (times == 0 ? std::string("*") : std::to_string(times)) << ' '
        << errorName << ' ' << quoted << ' ' << glob << '\n';
}

void clearFailures()
{
    testing_sandbox::writeFile(failuresPath, "");
}

void setProperty(const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& property,
                 const oem::Value& value)
{
    bus().callMethod(controlService, controlPath, controlInterface,
                     "SetProperty", service, path, interface, property, value);
}

oem::Value getProperty(const std::string& service, const std::string& path,
                       const std::string& interface,
                       const std::string& property)
{
    oem::Message reply =
        bus().callMethod(controlService, controlPath, controlInterface,
                         "GetProperty", service, path, interface, property);
    return reply.readVariant();
}

void remove(const std::string& service, const std::string& path,
            const std::string& interface, const std::string& property)
{
    bus().callMethod(controlService, controlPath, controlInterface, "Remove",
                     service, path, interface, property);
}

} // namespace testing_dbus
