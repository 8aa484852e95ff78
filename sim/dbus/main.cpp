// SPDX-License-Identifier: Apache-2.0
// bmc-dbus-sim: plays the BMC services that the OEM plug-in calls, on a
// private bus. It owns every service name of the board's description, serves
// its objects' properties and methods and the object mapper, records every
// call it receives and answers with errors where a test asks it to.

#include "model.hpp"

#include <fcntl.h>
#include <getopt.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace
{

using namespace dbussim;

constexpr const char* mapperService = "xyz.openbmc_project.ObjectMapper";
constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";
constexpr const char* mapperInterface = "xyz.openbmc_project.ObjectMapper";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* introspectableInterface =
    "org.freedesktop.DBus.Introspectable";
constexpr const char* controlService = "bmcsim.Control";
constexpr const char* controlInterface = "bmcsim.Control";

constexpr const char* errorUnknownObject =
    "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* errorUnknownInterface =
    "org.freedesktop.DBus.Error.UnknownInterface";
constexpr const char* errorUnknownProperty =
    "org.freedesktop.DBus.Error.UnknownProperty";
constexpr const char* errorUnknownMethod =
    "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* errorInvalidArgs =
    "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* errorNotFound =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";

// Every object also answers these, and the real mapper lists them.
const std::set<std::string> standardInterfaces = {
    introspectableInterface, "org.freedesktop.DBus.Peer", propertiesInterface};

struct Sim
{
    sd_bus* bus = nullptr;
    Objects objects;
    std::string recordPath;
    std::string failuresPath;
};

/* A negative sd-bus result aborts the handling of a call; sd-bus then
 * answers the caller with the errno's D-Bus error. */
struct Failed
{
    int r;
};

int check(int r)
{
    if (r < 0)
    {
        throw Failed{r};
    }
    return r;
}

// ---- message text ---------------------------------------------------------

void formatArguments(sd_bus_message* m, std::string& out);

void formatItem(sd_bus_message* m, char type, const char* contents,
                std::string& out)
{
    if (type == 'a' || type == 'r' || type == 'e' || type == 'v')
    {
        check(sd_bus_message_enter_container(m, type, contents));
        if (type == 'v')
        {
            out += std::string(contents) + " ";
            formatArguments(m, out);
        }
        else
        {
            const char* brackets = type == 'a'   ? "[]"
                                   : type == 'r' ? "()"
                                                 : "{}";
            out += brackets[0];
            formatArguments(m, out);
            out += brackets[1];
        }
        check(sd_bus_message_exit_container(m));
        return;
    }
    union
    {
        int b;
        uint8_t y;
        int16_t n;
        uint16_t q;
        int32_t i;
        uint32_t u;
        int64_t x;
        uint64_t t;
        double d;
        const char* s;
    } v{};
    check(sd_bus_message_read_basic(m, type, &v));
    switch (type)
    {
        case 'b':
            out += v.b ? "true" : "false";
            break;
        case 'y':
            out += std::to_string(v.y);
            break;
        case 'n':
            out += std::to_string(v.n);
            break;
        case 'q':
            out += std::to_string(v.q);
            break;
        case 'i':
            out += std::to_string(v.i);
            break;
        case 'u':
            out += std::to_string(v.u);
            break;
        case 'x':
            out += std::to_string(v.x);
            break;
        case 't':
            out += std::to_string(v.t);
            break;
        case 'd':
            out += formatValue(Value{'d', v.d});
            break;
        case 'h':
            out += "fd";
            break;
        default:
            out += quote(v.s);
    }
}

/* The remaining arguments at the current level, blank-separated. */
void formatArguments(sd_bus_message* m, std::string& out)
{
    bool first = true;
    for (;;)
    {
        char type = 0;
        const char* contents = nullptr;
        if (check(sd_bus_message_peek_type(m, &type, &contents)) == 0)
        {
            return;
        }
        if (!first)
        {
            out += ' ';
        }
        first = false;
        formatItem(m, type, contents, out);
    }
}

std::string orDash(const char* text)
{
    return text != nullptr ? text : "-";
}

/* "SERVICE PATH INTERFACE MEMBER ARG..." of a call, arguments in the text
 * form of formatValue; the message is rewound for its handler. */
std::string recordLine(sd_bus_message* m)
{
    std::string line = orDash(sd_bus_message_get_destination(m)) + " " +
                       orDash(sd_bus_message_get_path(m)) + " " +
                       orDash(sd_bus_message_get_interface(m)) + " " +
                       orDash(sd_bus_message_get_member(m));
    std::string arguments;
    formatArguments(m, arguments);
    if (!arguments.empty())
    {
        line += " " + arguments;
    }
    check(sd_bus_message_rewind(m, true));
    return line;
}

// ---- values on the wire ---------------------------------------------------

void appendValue(sd_bus_message* m, const Value& value)
{
    switch (value.type)
    {
        case 'b':
        {
            int b = std::get<uint64_t>(value.data) != 0;
            check(sd_bus_message_append_basic(m, 'b', &b));
            return;
        }
        case 'y':
        {
            auto y = static_cast<uint8_t>(std::get<uint64_t>(value.data));
            check(sd_bus_message_append_basic(m, 'y', &y));
            return;
        }
        case 'n':
        {
            auto n = static_cast<int16_t>(std::get<int64_t>(value.data));
            check(sd_bus_message_append_basic(m, 'n', &n));
            return;
        }
        case 'q':
        {
            auto q = static_cast<uint16_t>(std::get<uint64_t>(value.data));
            check(sd_bus_message_append_basic(m, 'q', &q));
            return;
        }
        case 'i':
        {
            auto i = static_cast<int32_t>(std::get<int64_t>(value.data));
            check(sd_bus_message_append_basic(m, 'i', &i));
            return;
        }
        case 'u':
        {
            auto u = static_cast<uint32_t>(std::get<uint64_t>(value.data));
            check(sd_bus_message_append_basic(m, 'u', &u));
            return;
        }
        case 'x':
            check(sd_bus_message_append_basic(m, 'x',
                                              &std::get<int64_t>(value.data)));
            return;
        case 't':
            check(sd_bus_message_append_basic(m, 't',
                                              &std::get<uint64_t>(value.data)));
            return;
        case 'd':
            check(sd_bus_message_append_basic(m, 'd',
                                              &std::get<double>(value.data)));
            return;
        default:
            check(sd_bus_message_append_basic(
                m, value.type, std::get<std::string>(value.data).c_str()));
    }
}

void appendVariant(sd_bus_message* m, const Value& value)
{
    const char type[2] = {value.type, '\0'};
    check(sd_bus_message_open_container(m, 'v', type));
    appendValue(m, value);
    check(sd_bus_message_close_container(m));
}

/* Reads a variant of a basic type; false if it holds something else. */
bool readVariant(sd_bus_message* m, Value& value)
{
    char type = 0;
    const char* contents = nullptr;
    if (check(sd_bus_message_peek_type(m, &type, &contents)) == 0 ||
        type != 'v' || strlen(contents) != 1 || !isPropertyType(contents[0]))
    {
        return false;
    }
    check(sd_bus_message_enter_container(m, 'v', contents));
    union
    {
        int b;
        uint8_t y;
        int16_t n;
        uint16_t q;
        int32_t i;
        uint32_t u;
        int64_t x;
        uint64_t t;
        double d;
        const char* s;
    } v{};
    char t = contents[0];
    check(sd_bus_message_read_basic(m, t, &v));
    check(sd_bus_message_exit_container(m));
    value.type = t;
    switch (t)
    {
        case 'b':
            value.data = uint64_t(v.b != 0);
            break;
        case 'y':
            value.data = uint64_t{v.y};
            break;
        case 'n':
            value.data = int64_t{v.n};
            break;
        case 'q':
            value.data = uint64_t{v.q};
            break;
        case 'i':
            value.data = int64_t{v.i};
            break;
        case 'u':
            value.data = uint64_t{v.u};
            break;
        case 'x':
            value.data = v.x;
            break;
        case 't':
            value.data = v.t;
            break;
        case 'd':
            value.data = v.d;
            break;
        default:
            value.data = std::string(v.s);
    }
    return true;
}

std::string readString(sd_bus_message* m)
{
    const char* text = nullptr;
    check(sd_bus_message_read_basic(m, 's', &text));
    return text;
}

int replyError(sd_bus_message* m, const char* name, const std::string& message)
{
    return sd_bus_reply_method_errorf(m, name, "%s", message.c_str());
}

int replyEmpty(sd_bus_message* m)
{
    return sd_bus_reply_method_return(m, nullptr);
}

// ---- the record and the failures file -------------------------------------

void record(const Sim& sim, const std::string& line)
{
    int fd = open(sim.recordPath.c_str(),
                  O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
    {
        fprintf(stderr, "bmc-dbus-sim: cannot record to %s: %s\n",
                sim.recordPath.c_str(), strerror(errno));
        return;
    }
    std::string text = line + "\n";
    if (write(fd, text.data(), text.size()) !=
        static_cast<ssize_t>(text.size()))
    {
        fprintf(stderr, "bmc-dbus-sim: cannot record to %s: %s\n",
                sim.recordPath.c_str(), strerror(errno));
    }
    close(fd);
}

std::optional<FailureRule> injectedFailure(const Sim& sim,
                                           const std::string& line)
{
    std::ifstream in(sim.failuresPath);
    if (!in)
    {
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    std::string before = text.str();
    std::string after = before;
    std::vector<std::string> problems;
    auto rule = takeFailure(after, line, problems);
    for (const auto& problem : problems)
    {
        fprintf(stderr, "bmc-dbus-sim: %s: %s\n", sim.failuresPath.c_str(),
                problem.c_str());
    }
    if (rule && after != before)
    {
        // Whole or not at all, for a test that reads the file back.
        std::string temporary = sim.failuresPath + ".tmp";
        std::ofstream out(temporary, std::ios::trunc);
        out << after;
        out.close();
        if (!out || rename(temporary.c_str(), sim.failuresPath.c_str()) != 0)
        {
            fprintf(stderr, "bmc-dbus-sim: cannot update %s\n",
                    sim.failuresPath.c_str());
        }
    }
    return rule;
}

// ---- objects --------------------------------------------------------------

/* The service a call is for: the well-known name it was sent to, or, when
 * it was sent to our unique name, the first service with the object. */
std::string serviceOf(const Sim& sim, sd_bus_message* m)
{
    std::string destination = orDash(sd_bus_message_get_destination(m));
    if (destination[0] != ':' && destination != "-")
    {
        return destination;
    }
    std::string path = sd_bus_message_get_path(m);
    for (const auto& [name, service] : sim.objects)
    {
        if (service.contains(path))
        {
            return name;
        }
    }
    return destination;
}

Object* findObject(Sim& sim, const std::string& service,
                   const std::string& path)
{
    auto s = sim.objects.find(service);
    if (s == sim.objects.end())
    {
        return nullptr;
    }
    auto o = s->second.find(path);
    return o == s->second.end() ? nullptr : &o->second;
}

/* Finds a property for Get and Set; answers the caller's error if there is
 * none and returns null. */
Value* findProperty(Sim& sim, sd_bus_message* m, const std::string& service,
                    const std::string& path, const std::string& interface,
                    const std::string& property)
{
    Object* object = findObject(sim, service, path);
    if (object == nullptr)
    {
        replyError(m, errorUnknownObject, "Unknown object '" + path + "'.");
        return nullptr;
    }
    auto i = object->find(interface);
    if (i == object->end())
    {
        replyError(m, errorUnknownInterface,
                   "Unknown interface '" + interface + "'.");
        return nullptr;
    }
    auto p = i->second.properties.find(property);
    if (p == i->second.properties.end())
    {
        replyError(m, errorUnknownProperty,
                   "Unknown property '" + property + "'.");
        return nullptr;
    }
    return &p->second;
}

int propertyGet(Sim& sim, sd_bus_message* m, const std::string& service)
{
    std::string interface = readString(m);
    std::string property = readString(m);
    Value* value = findProperty(sim, m, service, sd_bus_message_get_path(m),
                                interface, property);
    if (value == nullptr)
    {
        return 1;
    }
    sd_bus_message* reply = nullptr;
    check(sd_bus_message_new_method_return(m, &reply));
    try
    {
        appendVariant(reply, *value);
        check(sd_bus_send(sim.bus, reply, nullptr));
    }
    catch (...)
    {
        sd_bus_message_unref(reply);
        throw;
    }
    sd_bus_message_unref(reply);
    return 1;
}

int propertySet(Sim& sim, sd_bus_message* m, const std::string& service)
{
    std::string interface = readString(m);
    std::string property = readString(m);
    Value* value = findProperty(sim, m, service, sd_bus_message_get_path(m),
                                interface, property);
    if (value == nullptr)
    {
        return 1;
    }
    Value incoming;
    if (!readVariant(m, incoming) || incoming.type != value->type)
    {
        return replyError(m, errorInvalidArgs,
                          "Incorrect signature when setting property '" +
                              property + "', expected " +
                              std::string(1, value->type) + ".");
    }
    *value = incoming;
    return replyEmpty(m);
}

int propertyGetAll(Sim& sim, sd_bus_message* m, const std::string& service)
{
    std::string interface = readString(m);
    std::string path = sd_bus_message_get_path(m);
    Object* object = findObject(sim, service, path);
    if (object == nullptr)
    {
        return replyError(m, errorUnknownObject,
                          "Unknown object '" + path + "'.");
    }
    if (!interface.empty() && !object->contains(interface) &&
        !standardInterfaces.contains(interface))
    {
        return replyError(m, errorUnknownInterface,
                          "Unknown interface '" + interface + "'.");
    }
    sd_bus_message* reply = nullptr;
    check(sd_bus_message_new_method_return(m, &reply));
    try
    {
        check(sd_bus_message_open_container(reply, 'a', "{sv}"));
        for (const auto& [name, iface] : *object)
        {
            if (!interface.empty() && name != interface)
            {
                continue;
            }
            for (const auto& [property, value] : iface.properties)
            {
                check(sd_bus_message_open_container(reply, 'e', "sv"));
                check(
                    sd_bus_message_append_basic(reply, 's', property.c_str()));
                appendVariant(reply, value);
                check(sd_bus_message_close_container(reply));
            }
        }
        check(sd_bus_message_close_container(reply));
        check(sd_bus_send(sim.bus, reply, nullptr));
    }
    catch (...)
    {
        sd_bus_message_unref(reply);
        throw;
    }
    sd_bus_message_unref(reply);
    return 1;
}

std::string introspection(const Sim& sim, const std::string& service,
                          const std::string& path)
{
    std::string xml =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object "
        "Introspection 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/"
        "introspect.dtd\">\n<node>\n";
    for (const auto& name : standardInterfaces)
    {
        xml += " <interface name=\"" + name + "\"/>\n";
    }
    std::set<std::string> children;
    auto s = sim.objects.find(service);
    if (s != sim.objects.end())
    {
        auto o = s->second.find(path);
        if (o != s->second.end())
        {
            for (const auto& [name, iface] : o->second)
            {
                xml += " <interface name=\"" + name + "\">\n";
                for (const auto& method : iface.methods)
                {
                    xml += "  <method name=\"" + method + "\"/>\n";
                }
                for (const auto& [property, value] : iface.properties)
                {
                    xml += "  <property name=\"" + property + "\" type=\"" +
                           value.type + "\" access=\"readwrite\"/>\n";
                }
                xml += " </interface>\n";
            }
        }
        for (const auto& [other, object] : s->second)
        {
            if (isBelow(other, path, 0))
            {
                size_t start = path == "/" ? 1 : path.size() + 1;
                children.insert(
                    other.substr(start, other.find('/', start) - start));
            }
        }
    }
    if (service == mapperService && path == "/")
    {
        children.insert("xyz");
    }
    for (const auto& child : children)
    {
        xml += " <node name=\"" + child + "\"/>\n";
    }
    return xml + "</node>\n";
}

// ---- the object mapper ----------------------------------------------------

std::vector<std::string> readStrings(sd_bus_message* m)
{
    std::vector<std::string> strings;
    check(sd_bus_message_enter_container(m, 'a', "s"));
    const char* text = nullptr;
    while (check(sd_bus_message_read_basic(m, 's', &text)) > 0)
    {
        strings.emplace_back(text);
    }
    check(sd_bus_message_exit_container(m));
    return strings;
}

/* The object's interfaces, the standard ones included, if it implements
 * one of the wanted ones (any, if none is asked for); else empty. */
std::set<std::string> matchingInterfaces(const Object& object,
                                         const std::vector<std::string>& wanted)
{
    std::set<std::string> all = standardInterfaces;
    for (const auto& entry : object)
    {
        all.insert(entry.first);
    }
    if (wanted.empty())
    {
        return all;
    }
    for (const auto& name : wanted)
    {
        if (all.contains(name))
        {
            return all;
        }
    }
    return {};
}

using ServiceMap = std::map<std::string, std::set<std::string>>;

void appendServiceMap(sd_bus_message* m, const ServiceMap& services)
{
    check(sd_bus_message_open_container(m, 'a', "{sas}"));
    for (const auto& [service, interfaces] : services)
    {
        check(sd_bus_message_open_container(m, 'e', "sas"));
        check(sd_bus_message_append_basic(m, 's', service.c_str()));
        check(sd_bus_message_open_container(m, 'a', "s"));
        for (const auto& interface : interfaces)
        {
            check(sd_bus_message_append_basic(m, 's', interface.c_str()));
        }
        check(sd_bus_message_close_container(m));
        check(sd_bus_message_close_container(m));
    }
    check(sd_bus_message_close_container(m));
}

/* A path the mapper knows: an object's or one of their ancestors. */
bool knownPath(const Sim& sim, const std::string& path)
{
    for (const auto& [name, service] : sim.objects)
    {
        for (const auto& [object, interfaces] : service)
        {
            if (object == path || isBelow(object, path, 0))
            {
                return true;
            }
        }
    }
    return false;
}

int sendReply(Sim& sim, sd_bus_message* reply)
{
    int r = sd_bus_send(sim.bus, reply, nullptr);
    sd_bus_message_unref(reply);
    return check(r);
}

int mapperGetObject(Sim& sim, sd_bus_message* m)
{
    const char* path = nullptr;
    check(sd_bus_message_read_basic(m, 's', &path));
    auto wanted = readStrings(m);
    ServiceMap services;
    for (const auto& [name, service] : sim.objects)
    {
        auto object = service.find(path);
        if (object != service.end())
        {
            auto interfaces = matchingInterfaces(object->second, wanted);
            if (!interfaces.empty())
            {
                services[name] = interfaces;
            }
        }
    }
    if (services.empty())
    {
        return replyError(m, errorNotFound, "The resource is not found.");
    }
    sd_bus_message* reply = nullptr;
    check(sd_bus_message_new_method_return(m, &reply));
    try
    {
        appendServiceMap(reply, services);
    }
    catch (...)
    {
        sd_bus_message_unref(reply);
        throw;
    }
    return sendReply(sim, reply);
}

/* GetSubTree, and GetSubTreePaths with paths only. As the real mapper: a
 * root it knows nothing of is an error, a known one without matches an
 * empty answer. */
int mapperGetSubTree(Sim& sim, sd_bus_message* m, bool pathsOnly)
{
    const char* rootText = nullptr;
    int32_t depth = 0;
    check(sd_bus_message_read(m, "si", &rootText, &depth));
    std::string root = rootText;
    auto wanted = readStrings(m);
    if (root.size() > 1 && root.back() == '/')
    {
        root.pop_back();
    }
    if (root != "/" && !root.empty() && !knownPath(sim, root))
    {
        return replyError(m, errorNotFound, "The resource is not found.");
    }

    std::map<std::string, ServiceMap> tree;
    for (const auto& [name, service] : sim.objects)
    {
        for (const auto& [path, object] : service)
        {
            if (!isBelow(path, root, depth))
            {
                continue;
            }
            auto interfaces = matchingInterfaces(object, wanted);
            if (!interfaces.empty())
            {
                tree[path][name] = interfaces;
            }
        }
    }

    sd_bus_message* reply = nullptr;
    check(sd_bus_message_new_method_return(m, &reply));
    try
    {
        if (pathsOnly)
        {
            check(sd_bus_message_open_container(reply, 'a', "s"));
            for (const auto& entry : tree)
            {
                check(sd_bus_message_append_basic(reply, 's',
                                                  entry.first.c_str()));
            }
        }
        else
        {
            check(sd_bus_message_open_container(reply, 'a', "{sa{sas}}"));
            for (const auto& [path, services] : tree)
            {
                check(sd_bus_message_open_container(reply, 'e', "sa{sas}"));
                check(sd_bus_message_append_basic(reply, 's', path.c_str()));
                appendServiceMap(reply, services);
                check(sd_bus_message_close_container(reply));
            }
        }
        check(sd_bus_message_close_container(reply));
    }
    catch (...)
    {
        sd_bus_message_unref(reply);
        throw;
    }
    return sendReply(sim, reply);
}

// ---- the control interface ------------------------------------------------

bool requestName(Sim& sim, const std::string& name)
{
    int r = sd_bus_request_name(sim.bus, name.c_str(), 0);
    if (r < 0)
    {
        fprintf(stderr, "bmc-dbus-sim: cannot own %s: %s\n", name.c_str(),
                strerror(-r));
        return false;
    }
    return true;
}

/* Test machinery, kept out of the call record: SetProperty creates or
 * replaces a property of any basic type (and owns a new service's name),
 * GetProperty reads one, Remove drops a property, an interface (property
 * "") or an object (interface ""). */
int control(Sim& sim, sd_bus_message* m)
{
    std::string member = sd_bus_message_get_member(m);
    if (member != "SetProperty" && member != "GetProperty" &&
        member != "Remove")
    {
        return replyError(m, errorUnknownMethod,
                          "Unknown method '" + member + "'.");
    }
    const char* fields[4] = {};
    check(sd_bus_message_read(m, "ssss", &fields[0], &fields[1], &fields[2],
                              &fields[3]));
    std::string service = fields[0];
    std::string path = fields[1];
    std::string interface = fields[2];
    std::string property = fields[3];

    if (member == "GetProperty")
    {
        Value* value = findProperty(sim, m, service, path, interface, property);
        if (value == nullptr)
        {
            return 1;
        }
        sd_bus_message* reply = nullptr;
        check(sd_bus_message_new_method_return(m, &reply));
        try
        {
            appendVariant(reply, *value);
        }
        catch (...)
        {
            sd_bus_message_unref(reply);
            throw;
        }
        return sendReply(sim, reply);
    }

    if (member == "Remove")
    {
        Object* object = findObject(sim, service, path);
        if (object == nullptr)
        {
            return replyError(m, errorUnknownObject,
                              "Unknown object '" + path + "'.");
        }
        if (interface.empty())
        {
            sim.objects[service].erase(path);
            return replyEmpty(m);
        }
        auto i = object->find(interface);
        if (i == object->end())
        {
            return replyError(m, errorUnknownInterface,
                              "Unknown interface '" + interface + "'.");
        }
        if (property.empty())
        {
            object->erase(i);
        }
        else if (i->second.properties.erase(property) == 0)
        {
            return replyError(m, errorUnknownProperty,
                              "Unknown property '" + property + "'.");
        }
        return replyEmpty(m);
    }

    Value value;
    if (!readVariant(m, value))
    {
        return replyError(m, errorInvalidArgs,
                          "The value must be a variant of a basic type.");
    }
    if (!sd_bus_service_name_is_valid(service.c_str()) || service[0] == ':' ||
        !sd_bus_object_path_is_valid(path.c_str()) ||
        !sd_bus_interface_name_is_valid(interface.c_str()) ||
        !sd_bus_member_name_is_valid(property.c_str()))
    {
        return replyError(m, errorInvalidArgs,
                          "Invalid service, path, interface or property name.");
    }
    if (!sim.objects.contains(service) && !requestName(sim, service))
    {
        return replyError(m, "org.freedesktop.DBus.Error.Failed",
                          "Cannot own " + service + ".");
    }
    sim.objects[service][path][interface].properties[property] = value;
    return replyEmpty(m);
}

// ---- dispatch -------------------------------------------------------------

int dispatch(Sim& sim, sd_bus_message* m)
{
    std::string interface = orDash(sd_bus_message_get_interface(m));
    std::string member = sd_bus_message_get_member(m);
    std::string path = sd_bus_message_get_path(m);
    if (interface == controlInterface)
    {
        return control(sim, m);
    }

    std::string line = recordLine(m);
    record(sim, line);
    if (auto failure = injectedFailure(sim, line))
    {
        return replyError(m, failure->errorName.c_str(), failure->message);
    }

    std::string service = serviceOf(sim, m);
    if (interface == propertiesInterface)
    {
        if (member == "Get")
            return propertyGet(sim, m, service);
        if (member == "Set")
            return propertySet(sim, m, service);
        if (member == "GetAll")
            return propertyGetAll(sim, m, service);
    }
    else if (interface == introspectableInterface && member == "Introspect")
    {
        return sd_bus_reply_method_return(
            m, "s", introspection(sim, service, path).c_str());
    }
    else if (service == mapperService && path == mapperPath &&
             interface == mapperInterface)
    {
        if (member == "GetObject")
            return mapperGetObject(sim, m);
        if (member == "GetSubTree")
            return mapperGetSubTree(sim, m, false);
        if (member == "GetSubTreePaths")
            return mapperGetSubTree(sim, m, true);
    }
    else if (Object* object = findObject(sim, service, path))
    {
        auto i = object->find(interface);
        if (i != object->end() && i->second.methods.contains(member))
        {
            return replyEmpty(m);
        }
    }
    else if (!(service == mapperService && path == mapperPath))
    {
        return replyError(m, errorUnknownObject,
                          "Unknown object '" + path + "'.");
    }
    return replyError(m, errorUnknownMethod,
                      "Unknown method '" + member + "' or interface '" +
                          interface + "'.");
}

int onCall(sd_bus_message* m, void* userdata, sd_bus_error* error)
{
    if (sd_bus_message_is_method_call(m, nullptr, nullptr) <= 0)
    {
        return 0;
    }
    try
    {
        int r = dispatch(*static_cast<Sim*>(userdata), m);
        return r < 0 ? r : 1;
    }
    catch (const Failed& failed)
    {
        return sd_bus_error_set_errno(error, failed.r);
    }
}

void usage(FILE* out)
{
    fprintf(out,
            "usage: bmc-dbus-sim --address ADDRESS [--root DIR] "
            "[--objects FILE] [--ready-fd FD]\n"
            "\n"
            "  --address ADDRESS  the bus to serve on\n"
            "  --root DIR         sandbox root of the record "
            "(/var/log/sim/dbus-calls.log),\n"
            "                     the failures file (/var/sim/dbus/failures) "
            "and the\n"
            "                     default objects "
            "(/var/sim/dbus/objects.conf)\n"
            "  --objects FILE     the board's object description\n"
            "  --ready-fd FD      write \"READY\" and a line end there once "
            "every name is owned\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::string address;
    std::string root;
    std::string objectsPath;
    int readyFd = -1;

    static const option options[] = {
        {"address", required_argument, nullptr, 'a'},
        {"root", required_argument, nullptr, 'r'},
        {"objects", required_argument, nullptr, 'o'},
        {"ready-fd", required_argument, nullptr, 'f'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int opt; (opt = getopt_long(argc, argv, "h", options, nullptr)) != -1;)
    {
        switch (opt)
        {
            case 'a':
                address = optarg;
                break;
            case 'r':
                root = optarg;
                break;
            case 'o':
                objectsPath = optarg;
                break;
            case 'f':
                readyFd = atoi(optarg);
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (address.empty() || optind != argc)
    {
        usage(stderr);
        return 2;
    }

    Sim sim;
    sim.recordPath = root + "/var/log/sim/dbus-calls.log";
    sim.failuresPath = root + "/var/sim/dbus/failures";
    if (objectsPath.empty())
    {
        objectsPath = root + "/var/sim/dbus/objects.conf";
    }
    std::ifstream in(objectsPath);
    if (!in)
    {
        fprintf(stderr, "bmc-dbus-sim: cannot read %s\n", objectsPath.c_str());
        return 1;
    }
    std::string error;
    if (!parseObjects(in, sim.objects, error))
    {
        fprintf(stderr, "bmc-dbus-sim: %s:%s\n", objectsPath.c_str(),
                error.c_str());
        return 1;
    }

    int r = sd_bus_new(&sim.bus);
    if (r >= 0)
        r = sd_bus_set_address(sim.bus, address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(sim.bus, 1);
    if (r >= 0)
        r = sd_bus_start(sim.bus);
    if (r >= 0)
        r = sd_bus_add_fallback(sim.bus, nullptr, "/", onCall, &sim);
    if (r < 0)
    {
        fprintf(stderr, "bmc-dbus-sim: cannot serve on %s: %s\n",
                address.c_str(), strerror(-r));
        return 1;
    }
    bool owned =
        requestName(sim, mapperService) && requestName(sim, controlService);
    for (const auto& entry : sim.objects)
    {
        owned = owned && requestName(sim, entry.first);
    }
    if (!owned)
    {
        return 1;
    }
    if (readyFd >= 0)
    {
        static const char ready[] = "READY\n";
        if (write(readyFd, ready, sizeof(ready) - 1) < 0)
        {
            fprintf(stderr, "bmc-dbus-sim: cannot report readiness: %s\n",
                    strerror(errno));
        }
        close(readyFd);
    }

    for (;;)
    {
        r = sd_bus_process(sim.bus, nullptr);
        if (r > 0)
        {
            continue;
        }
        if (r == 0)
        {
            r = sd_bus_wait(sim.bus, UINT64_MAX);
        }
        if (r < 0 && r != -EINTR)
        {
            break;
        }
    }
    // The bus went away: nothing left to serve.
    sd_bus_flush_close_unref(sim.bus);
    return r == -ECONNRESET || r == -ENOTCONN ? 0 : 1;
}
