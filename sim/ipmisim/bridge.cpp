// SPDX-License-Identifier: Apache-2.0
// An ipmi_sim module that puts the OEM plug-in behind OpenIPMI's LAN
// simulator, so that a stock ipmitool reaches it over RMCP+.
//
//   loadlib "/path/ipmi-oem-bridge.so" "plugin=PATH root=DIR bus=ADDRESS"
//
// The module loads the plug-in through the host library at init, registers
// with ipmi_sim every (NetFn, command) the plug-in registered, and once
// ipmi_sim has finished its own start-up (its configuration and state files
// live in the real root) it changes root into the sandbox. Requests and
// completion codes are passed through unchanged.

#include "host.hpp"

#include <dlfcn.h>

// OpenIPMI's server headers are plain C without C++ guards.
extern "C"
{
#include <OpenIPMI/lanserv.h>
#include <OpenIPMI/mcserv.h>
#include <OpenIPMI/msg.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace
{

struct Options
{
    std::string plugin;
    std::string root;
    std::string bus;
    std::string overrides; // SLOT=NAME,... for tests
};

Options options;

void log(const std::string& text)
{
    fprintf(stderr, "ipmi-oem-bridge: %s\n", text.c_str());
}

Options parseOptions(const char* text)
{
    Options parsed;
    std::istringstream words(text != nullptr ? text : "");
    for (std::string word; words >> word;)
    {
        auto equals = word.find('=');
        std::string key = word.substr(0, equals);
        std::string value =
            equals == std::string::npos ? "" : word.substr(equals + 1);
        if (key == "plugin")
        {
            parsed.plugin = value;
        }
        else if (key == "root")
        {
            parsed.root = value;
        }
        else if (key == "bus")
        {
            parsed.bus = value;
        }
        else if (key == "override")
        {
            parsed.overrides = value;
        }
        else
        {
            log("ignoring unknown option '" + word + "'");
        }
    }
    return parsed;
}

// Largest answer we hand to ipmi_sim's LAN channel, completion code
// included: one IPMI message.
constexpr size_t maxAnswer = IPMI_SIM_MAX_MSG_LENGTH;
// Channel medium type of an 802.3 LAN channel.
constexpr unsigned lanMedium = 4;

bool registered(uint8_t netfn, uint8_t cmd)
{
    for (const auto& entry : oemhost::registrations())
    {
        if (entry.netfn == netfn && entry.cmd == cmd)
        {
            return true;
        }
    }
    return false;
}

// Builds the response bytes: completion code first, then the data.
std::vector<uint8_t> respond(msg_t* msg)
{
    auto answer = oemhost::dispatch(msg->netfn, msg->cmd, msg->data, msg->len);
    if (answer.data.size() + 1 > maxAnswer)
    {
        log("answer of netfn " + std::to_string(msg->netfn) + " cmd " +
            std::to_string(msg->cmd) + " does not fit in one message");
        return {0xCA}; // cannot return the number of bytes requested
    }
    // Sized once: gcc 12 at -O2 takes an insert into a one-byte vector for
    // an overflow (-Warray-bounds).
    std::vector<uint8_t> bytes(answer.data.size() + 1);
    bytes[0] = answer.cc;
    std::copy(answer.data.begin(), answer.data.end(), bytes.begin() + 1);
    return bytes;
}

// ipmi_sim's command handlers answer into a 36-byte buffer, too small for
// most OEM answers, so the LAN channel's OEM hook answers our commands
// itself, with up to one full IPMI message.
int handleOnChannel(channel_t* chan, msg_t* msg)
{
    if (!registered(msg->netfn, msg->cmd))
    {
        return 0;
    }
    auto bytes = respond(msg);
    rsp_msg_t rsp{};
    rsp.netfn = static_cast<uint8_t>(msg->netfn | 1);
    rsp.cmd = msg->cmd;
    rsp.data_len = static_cast<unsigned short>(bytes.size());
    rsp.data = bytes.data();
    chan->return_rsp(chan, msg, &rsp);
    return 1;
}

// The registration with ipmi_sim's command table stays, for paths that do
// not come through the LAN channel; they get what fits in their buffer.
void handle(lmc_data_t*, msg_t* msg, unsigned char* rdata,
            unsigned int* rdata_len, void*)
{
    auto bytes = respond(msg);
    if (bytes.size() > *rdata_len)
    {
        bytes.assign(1, 0xCA);
    }
    std::copy(bytes.begin(), bytes.end(), rdata);
    *rdata_len = static_cast<unsigned int>(bytes.size());
}

bool installOverrides(void* plugin, const std::string& list)
{
    using Install = int32_t (*)(int, ipmid_callback_t);
    auto install =
        reinterpret_cast<Install>(dlsym(plugin, "regiter_functions"));
    std::istringstream items(list);
    for (std::string item; std::getline(items, item, ',');)
    {
        auto equals = item.find('=');
        if (equals == std::string::npos || install == nullptr)
        {
            log("bad override '" + item + "'");
            return false;
        }
        int slot = static_cast<int>(
            strtol(item.substr(0, equals).c_str(), nullptr, 0));
        auto handler = reinterpret_cast<ipmid_callback_t>(
            dlsym(plugin, item.substr(equals + 1).c_str()));
        if (handler == nullptr || install(slot, handler) != 0)
        {
            log("cannot install override '" + item + "'");
            return false;
        }
    }
    return true;
}

} // namespace

extern "C"
{
__attribute__((visibility("default"))) int
    ipmi_sim_module_print_version(sys_data_t*, char*)
{
    printf("IPMI OEM plug-in bridge\n");
    return 0;
}

__attribute__((visibility("default"))) int
    ipmi_sim_module_init(sys_data_t*, const char* text)
{
    options = parseOptions(text);
    if (options.plugin.empty())
    {
        log("no plugin= option");
        return EINVAL;
    }

    // ipmi_sim may have opened us without RTLD_GLOBAL; the plug-in must
    // find the daemon ABI, so make the host library global.
    if (dlopen("libipmioemhost.so", RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD) ==
        nullptr)
    {
        log(std::string("cannot make the host library global: ") + dlerror());
        return EINVAL;
    }

    std::string error;
    if (!options.bus.empty() && !oemhost::connectBus(options.bus, error))
    {
        log(error);
        return EINVAL;
    }
    void* plugin = oemhost::loadPlugin(options.plugin, error);
    if (plugin == nullptr)
    {
        log(error);
        return EINVAL;
    }
    if (!options.overrides.empty() &&
        !installOverrides(plugin, options.overrides))
    {
        return EINVAL;
    }

    unsigned count = 0;
    for (const auto& entry : oemhost::registrations())
    {
        int rc = ipmi_emu_register_cmd_handler(entry.netfn, entry.cmd, handle,
                                               nullptr);
        if (rc != 0)
        {
            log("ipmi_sim refused netfn " + std::to_string(entry.netfn) +
                " cmd " + std::to_string(entry.cmd) + ": " + strerror(rc));
            continue;
        }
        ++count;
    }
    log("registered " + std::to_string(count) + " commands of " +
        options.plugin);
    return 0;
}

__attribute__((visibility("default"))) int
    ipmi_sim_module_post_init(sys_data_t* sys)
{
    lmc_data_t* bmc = sys->ipmb_addrs[sys->bmc_ipmb];
    channel_t** channels =
        bmc != nullptr ? sys->mc_get_channelset(bmc) : nullptr;
    for (unsigned i = 0; channels != nullptr && i < IPMI_MAX_CHANNELS; ++i)
    {
        channel_t* chan = channels[i];
        if (chan != nullptr && chan->medium_type == lanMedium)
        {
            if (chan->oem.oem_handle_msg != nullptr)
            {
                log("channel " + std::to_string(i) +
                    " already has an OEM handler; leaving it");
                continue;
            }
            chan->oem.oem_handle_msg = handleOnChannel;
        }
    }

    if (options.root.empty())
    {
        return 0;
    }
    std::string error;
    if (!oemhost::enterRoot(options.root, error))
    {
        log(error);
        return EINVAL;
    }
    log("serving from " + options.root);
    return 0;
}
}
