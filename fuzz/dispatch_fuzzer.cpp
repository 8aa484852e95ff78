// SPDX-License-Identifier: Apache-2.0
// Sends arbitrary requests to every command the plug-in registers, through
// the host's dispatch, inside a sandbox of the simulated board.
//
// Input: NETFN CMD PAYLOAD... A registered (NETFN, CMD) pair is used as it
// stands; any other pair is folded onto one of the registrations, so that
// every input reaches a handler and commands registered later are covered
// without a list here. The payload is the request, 0 up to the request
// capacity bytes.
//
// OEM_FUZZ_ROOT names a sandbox root (made by sim/mksandbox) that this
// process enters after loading the plug-in; whatever the plug-in writes,
// spawns, reboots or powers off happens in that sandbox and its namespaces.
// An input that makes a shell create /tmp/oem-injected (fuzz/shell.dict
// holds the syntax for it) is a finding.

#include "host.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

std::vector<oemhost::Registration> commands;

// What fuzz/shell.dict's entries create when a shell runs them.
constexpr const char* injectionMarker = "/tmp/oem-injected";

[[noreturn]] void fail(const std::string& message)
{
    fprintf(stderr, "dispatch-fuzzer: %s\n", message.c_str());
    exit(1);
}

// The bus lives in the sandbox, so the tools run inside it find it at the
// BMC's system bus path.
std::string startBus(const std::string& root)
{
    std::string command = std::string(START_SIM_BUS) + " --sim '" +
                          BMC_DBUS_SIM + "' '" + root + "'";
    FILE* out = popen(command.c_str(), "r");
    char line[512] = "";
    bool read = out != nullptr && fgets(line, sizeof(line), out) != nullptr;
    if (out == nullptr || pclose(out) != 0 || !read)
    {
        fail("cannot start the simulated D-Bus: " + command);
    }
    return "unix:path=" + root + "/run/dbus/system_bus_socket";
}

const oemhost::Registration& pick(uint8_t netfn, uint8_t cmd)
{
    for (const auto& entry : commands)
    {
        if (entry.netfn == netfn && entry.cmd == cmd)
        {
            return entry;
        }
    }
    return commands[((netfn << 8) | cmd) % commands.size()];
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    const char* root = getenv("OEM_FUZZ_ROOT");
    if (root == nullptr || root[0] != '/')
    {
        fail("OEM_FUZZ_ROOT must name a sandbox root by its absolute path "
             "(scripts/fuzz makes one)");
    }
    std::string error;
    // Our own PID namespace: killall, reboot and friends in the sandbox
    // reach only the sandbox's processes. The parent waits here for the
    // fuzzer and exits with its status.
    if (!oemhost::isolate(error))
    {
        fail(error);
    }
    std::string bus = startBus(root);
    if (!oemhost::connectBus(bus, error))
    {
        fail(error);
    }
    const char* plugin = getenv("OEM_FUZZ_PLUGIN");
    if (oemhost::loadPlugin(plugin != nullptr ? plugin : OEM_PLUGIN_PATH,
                            error) == nullptr ||
        !oemhost::enterRoot(root, error))
    {
        fail(error);
    }
    commands = oemhost::registrations();
    if (commands.empty())
    {
        fail("the plug-in registered no command");
    }
    fprintf(stderr, "dispatch-fuzzer: %zu registered commands\n",
            commands.size());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const auto& target = pick(data[0], data[1]);
    size_t length = size - 2;
    if (length > IPMID_REQUEST_CAPACITY)
    {
        length = IPMID_REQUEST_CAPACITY;
    }
    oemhost::dispatch(target.netfn, target.cmd, data + 2, length);

    // We are PID 1 of our namespace: processes that the plug-in's shells
    // left behind end up as our children, and the BMC's init would reap
    // them. No handler is running now, so none of these is still awaited.
    while (waitpid(-1, nullptr, WNOHANG) > 0)
    {}

    // Request bytes must never reach a shell as syntax.
    if (access(injectionMarker, F_OK) == 0)
    {
        fprintf(stderr,
                "dispatch-fuzzer: netfn 0x%02x cmd 0x%02x: request bytes ran "
                "a shell command (%s exists)\n",
                target.netfn, target.cmd, injectionMarker);
        abort();
    }
    return 0;
}
