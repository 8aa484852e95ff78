// SPDX-License-Identifier: Apache-2.0

#include "host.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace oemhost
{
namespace
{

// Function-local so that registrations made by a provider's static
// initializer find it constructed, whatever the load order.
std::vector<Registration>& table()
{
    static std::vector<Registration> entries;
    return entries;
}

sd_bus* hostBus = nullptr;
bool isolated = false;
pid_t isolatedChild = 0;

void forwardSignal(int signal)
{
    if (isolatedChild > 0)
    {
        kill(isolatedChild, signal);
    }
}

bool writeFile(const char* path, const std::string& text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
    {
        return false;
    }
    bool ok = write(fd, text.data(), text.size()) ==
              static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

} // namespace

const std::vector<Registration>& registrations()
{
    return table();
}

Answer dispatch(ipmi_netfn_t netfn, ipmi_cmd_t cmd, const uint8_t* request,
                size_t length)
{
    const Registration* target = nullptr;
    for (const auto& entry : table())
    {
        if (entry.netfn == netfn && entry.cmd == cmd)
        {
            target = &entry;
            break;
        }
    }
    if (target == nullptr)
    {
        return {IPMI_CC_INVALID, {}};
    }
    if (length > IPMID_REQUEST_CAPACITY)
    {
        fprintf(stderr,
                "ipmi-oem-host: request of %zu bytes exceeds the %u-byte "
                "capacity\n",
                length, IPMID_REQUEST_CAPACITY);
        return {IPMI_CC_REQ_DATA_LEN_INVALID, {}};
    }

    // As the daemon passes them: the request is a heap buffer of exactly
    // its length (no buffer at all when it is empty), so that
    // AddressSanitizer sees a handler that reads past it; the response is
    // zero-filled and exactly as large as the daemon's.
    std::vector<uint8_t> in(request, request + length);
    std::vector<uint8_t> out(IPMID_RESPONSE_CAPACITY, 0);
    uint32_t dataLen = static_cast<uint32_t>(length);
    uint8_t cc = IPMI_CC_UNSPECIFIED_ERROR;
    try
    {
        cc = target->handler(netfn, cmd, in.data(), out.data(), &dataLen,
                             target->context);
    }
    catch (const std::exception& e)
    {
        fprintf(stderr,
                "ipmi-oem-host: handler of netfn 0x%02x cmd 0x%02x threw: "
                "%s\n",
                netfn, cmd, e.what());
        return {IPMI_CC_UNSPECIFIED_ERROR, {}};
    }
    catch (...)
    {
        fprintf(stderr,
                "ipmi-oem-host: handler of netfn 0x%02x cmd 0x%02x threw an "
                "unknown exception\n",
                netfn, cmd);
        return {IPMI_CC_UNSPECIFIED_ERROR, {}};
    }
    if (dataLen > IPMID_RESPONSE_CAPACITY)
    {
        fprintf(stderr,
                "ipmi-oem-host: handler of netfn 0x%02x cmd 0x%02x returned "
                "%u bytes, more than the %u-byte capacity\n",
                netfn, cmd, dataLen, IPMID_RESPONSE_CAPACITY);
        return {IPMI_CC_UNSPECIFIED_ERROR, {}};
    }
    out.resize(dataLen);
    return {cc, std::move(out)};
}

bool connectBus(const std::string& address, std::string& error)
{
    sd_bus* bus = nullptr;
    int rc = sd_bus_new(&bus);
    if (rc >= 0)
    {
        rc = sd_bus_set_address(bus, address.c_str());
    }
    if (rc >= 0)
    {
        rc = sd_bus_set_bus_client(bus, 1);
    }
    if (rc >= 0)
    {
        rc = sd_bus_start(bus);
    }
    if (rc >= 0)
    {
        // Finish authenticating now: sd_bus_start only begins it, and the
        // bus daemon drops a connection still unauthenticated after 30 s,
        // which a simulator idle that long before its first D-Bus request
        // would otherwise find closed.
        const char* unique = nullptr;
        rc = sd_bus_get_unique_name(bus, &unique);
    }
    if (rc < 0)
    {
        error = "cannot connect to D-Bus at " + address + ": " + strerror(-rc);
        sd_bus_unref(bus);
        return false;
    }
    setBus(bus);
    sd_bus_unref(bus);
    return true;
}

void setBus(sd_bus* bus)
{
    if (bus != nullptr)
    {
        sd_bus_ref(bus);
    }
    sd_bus_unref(hostBus);
    hostBus = bus;
}

void* loadPlugin(const std::string& path, std::string& error)
{
    void* handle = dlopen(path.c_str(), RTLD_NOW);
    if (handle == nullptr)
    {
        const char* message = dlerror();
        error = message != nullptr ? message : "cannot load " + path;
    }
    return handle;
}

namespace
{
bool enterUserNamespace(int extraFlags, std::string& error)
{
    if (geteuid() == 0)
    {
        if (extraFlags != 0 && unshare(extraFlags) != 0)
        {
            error = std::string("cannot create namespaces: ") + strerror(errno);
            return false;
        }
        return true;
    }
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | extraFlags) != 0)
    {
        error =
            std::string("cannot enter a user namespace: ") + strerror(errno);
        return false;
    }
    writeFile("/proc/self/setgroups", "deny");
    if (!writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
    {
        error = "cannot map our user into the user namespace";
        return false;
    }
    return true;
}
} // namespace

bool isolate(std::string& error)
{
    if (!enterUserNamespace(CLONE_NEWNS | CLONE_NEWPID, error))
    {
        return false;
    }
    fflush(nullptr);
    pid_t child = fork();
    if (child < 0)
    {
        error = std::string("cannot fork: ") + strerror(errno);
        return false;
    }
    if (child == 0)
    {
        isolated = true;
        return true;
    }

    // Ctrl-C and friends go to the child, which as PID 1 of its namespace
    // would otherwise ignore them.
    isolatedChild = child;
    struct sigaction action = {};
    action.sa_handler = forwardSignal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    {
        sigaction(sig, &action, nullptr);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
    {}
    if (WIFSIGNALED(status))
    {
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

bool enterRoot(const std::string& dir, std::string& error)
{
    if (isolated)
    {
        // Keep our mounts to ourselves, and give the sandbox the /proc of
        // our PID namespace.
        std::string proc = dir + "/proc";
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("proc", proc.c_str(), "proc",
                  MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        {
            error = "cannot mount " + proc + ": " + strerror(errno);
            return false;
        }
    }
    else if (!enterUserNamespace(0, error))
    {
        return false;
    }
    if (chroot(dir.c_str()) != 0 || chdir("/") != 0)
    {
        error = "cannot change root to " + dir + ": " + strerror(errno);
        return false;
    }
    return true;
}

namespace
{

// ipmitool's rule for a byte: decimal or 0x hex, the whole word, 0..255.
bool parseSensorByte(const std::string& word, uint8_t& value)
{
    if (word.empty() || word[0] == '-' || word[0] == '+')
    {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long number = strtoul(word.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number > 0xFF)
    {
        return false;
    }
    value = static_cast<uint8_t>(number);
    return true;
}

// What ipmid_sensor_table() last handed out; it points into these.
struct SensorTableStore
{
    std::vector<SensorRecord> records;
    std::vector<std::vector<ipmid_sensor_property>> properties;
    std::vector<ipmid_sensor_info> infos;
};

SensorTableStore& sensorTableStore()
{
    static SensorTableStore store;
    return store;
}

} // namespace

std::vector<SensorRecord> parseSensorTable(std::istream& in,
                                           std::vector<std::string>& errors)
{
    std::map<uint8_t, SensorRecord> byNumber;
    std::string line;
    for (int lineNumber = 1; std::getline(in, line); ++lineNumber)
    {
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string word; words >> word;)
        {
            fields.push_back(word);
        }
        if (fields.empty() || fields[0][0] == '#')
        {
            continue;
        }
        auto fail = [&](const std::string& message) {
            errors.push_back(std::to_string(lineNumber) + ": " + message);
        };
        if (fields.size() < 4)
        {
            fail("want NUMBER TYPE PATH INTERFACE [INTERFACE:PROPERTY...]");
            continue;
        }
        SensorRecord record{};
        if (!parseSensorByte(fields[0], record.number))
        {
            fail("bad sensor number '" + fields[0] + "'");
            continue;
        }
        if (!parseSensorByte(fields[1], record.type))
        {
            fail("bad sensor type '" + fields[1] + "'");
            continue;
        }
        if (fields[2][0] != '/')
        {
            fail("bad object path '" + fields[2] + "'");
            continue;
        }
        if (byNumber.contains(record.number))
        {
            fail("sensor number " + fields[0] + " given twice");
            continue;
        }
        record.path = fields[2];
        record.interface = fields[3];
        std::set<std::pair<std::string, std::string>> properties;
        bool good = true;
        for (size_t i = 4; i < fields.size(); ++i)
        {
            auto colon = fields[i].find(':');
            if (colon == 0 || colon == std::string::npos ||
                colon + 1 == fields[i].size())
            {
                fail("bad property '" + fields[i] +
                     "' (want INTERFACE:PROPERTY)");
                good = false;
                break;
            }
            properties.emplace(fields[i].substr(0, colon),
                               fields[i].substr(colon + 1));
        }
        if (!good)
        {
            continue;
        }
        record.properties.assign(properties.begin(), properties.end());
        byNumber.emplace(record.number, std::move(record));
    }
    std::vector<SensorRecord> records;
    records.reserve(byNumber.size());
    for (auto& [number, record] : byNumber)
    {
        records.push_back(std::move(record));
    }
    return records;
}

std::string completionCodeText(uint8_t cc)
{
    switch (cc)
    {
        case 0x00:
            return "Command completed normally";
        case 0xC0:
            return "Node busy";
        case 0xC1:
            return "Invalid command";
        case 0xC2:
            return "Invalid command on LUN";
        case 0xC3:
            return "Timeout";
        case 0xC4:
            return "Out of space";
        case 0xC5:
            return "Reservation cancelled or invalid";
        case 0xC6:
            return "Request data truncated";
        case 0xC7:
            return "Request data length invalid";
        case 0xC8:
            return "Request data field length limit exceeded";
        case 0xC9:
            return "Parameter out of range";
        case 0xCA:
            return "Cannot return number of requested data bytes";
        case 0xCB:
            return "Requested sensor, data, or record not found";
        case 0xCC:
            return "Invalid data field in request";
        case 0xCD:
            return "Command illegal for specified sensor or record type";
        case 0xCE:
            return "Command response could not be provided";
        case 0xCF:
            return "Cannot execute duplicated request";
        case 0xD0:
            return "SDR Repository in update mode";
        case 0xD1:
            return "Device firmeware in update mode";
        case 0xD2:
            return "BMC initialization in progress";
        case 0xD3:
            return "Destination unavailable";
        case 0xD4:
            return "Insufficient privilege level";
        case 0xD5:
            return "Command not supported in present state";
        case 0xD6:
            return "Cannot execute command, command disabled";
        case 0xFF:
            return "Unspecified error";
        default:
        {
            char text[32];
            snprintf(text, sizeof(text), "Unknown (0x%02X)", cc);
            return text;
        }
    }
}

std::string handlerName(ipmid_callback_t handler)
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(handler), &info) != 0 &&
        info.dli_sname != nullptr &&
        info.dli_saddr == reinterpret_cast<void*>(handler))
    {
        return info.dli_sname;
    }
    char text[32];
    snprintf(text, sizeof(text), "%p", reinterpret_cast<void*>(handler));
    return text;
}

} // namespace oemhost

// C++ linkage, as the daemon defines them (see ipmid-abi.h).
__attribute__((visibility("default"))) void
    ipmi_register_callback(ipmi_netfn_t netfn, ipmi_cmd_t cmd,
                           ipmi_context_t context, ipmid_callback_t handler,
                           enum CommandPrivilege priv)
{
    oemhost::table().push_back({netfn, cmd, context, handler, priv});
}

__attribute__((visibility("default"))) sd_bus* ipmid_get_sd_bus_connection(void)
{
    return oemhost::hostBus;
}

extern "C"
{
__attribute__((visibility("default"))) const struct ipmid_sensor_info*
    ipmid_sensor_table(size_t* count)
{
    auto& store = oemhost::sensorTableStore();
    store = {};
    std::ifstream in(oemhost::sensorTablePath);
    if (in)
    {
        std::vector<std::string> errors;
        store.records = oemhost::parseSensorTable(in, errors);
        for (const auto& error : errors)
        {
            fprintf(stderr, "ipmi-oem-host: %s:%s\n", oemhost::sensorTablePath,
                    error.c_str());
        }
    }
    for (const auto& record : store.records)
    {
        auto& properties = store.properties.emplace_back();
        for (const auto& [interface, property] : record.properties)
        {
            properties.push_back({interface.c_str(), property.c_str()});
        }
        store.infos.push_back({record.number, record.type, record.path.c_str(),
                               record.interface.c_str(), properties.data(),
                               properties.size()});
    }
    if (count != nullptr)
    {
        *count = store.infos.size();
    }
    return store.infos.data();
}
}
