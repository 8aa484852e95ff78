// SPDX-License-Identifier: Apache-2.0

#include "dbus.hpp"

#include <cerrno>
#include <cstring>
#include <utility>

namespace oem
{
namespace
{

std::string describe(const std::string& operation, const std::string& name,
                     const std::string& message)
{
    std::string text = operation + ": " + name;
    if (!message.empty())
    {
        text += ": " + message;
    }
    return text;
}

/* Throws for a negative sd-bus return value; the error, if the step filled
 * one, names the failure, else the errno does. */
void check(int r, const char* operation, sd_bus_error* error = nullptr)
{
    if (r >= 0)
    {
        return;
    }
    sd_bus_error local = SD_BUS_ERROR_NULL;
    if (error == nullptr || !sd_bus_error_is_set(error))
    {
        sd_bus_error_set_errno(&local, r);
        error = &local;
    }
    std::string name = error->name != nullptr ? error->name : "";
    std::string message = error->message != nullptr ? error->message : "";
    sd_bus_error_free(&local);
    throw DbusError(operation, -r, name, message);
}

void checkBus(sd_bus* bus)
{
    if (bus == nullptr)
    {
        throw DbusError("sd_bus_message_new_method_call", ENOTCONN,
                        "org.freedesktop.DBus.Error.Disconnected",
                        "no D-Bus connection");
    }
}

std::vector<std::string> readStrings(sd_bus_message* m)
{
    std::vector<std::string> strings;
    check(sd_bus_message_enter_container(m, 'a', "s"),
          "sd_bus_message_enter_container array");
    const char* text = nullptr;
    int r = 0;
    while ((r = sd_bus_message_read_basic(m, 's', &text)) > 0)
    {
        strings.emplace_back(text);
    }
    check(r, "sd_bus_message_read_basic string");
    check(sd_bus_message_exit_container(m),
          "sd_bus_message_exit_container array");
    return strings;
}

/* Reads a{sas}, which both mapper calls answer per object. */
ServiceMap readServiceMap(sd_bus_message* m)
{
    ServiceMap services;
    check(sd_bus_message_enter_container(m, 'a', "{sas}"),
          "sd_bus_message_enter_container array");
    int r = 0;
    while ((r = sd_bus_message_enter_container(m, 'e', "sas")) > 0)
    {
        const char* service = nullptr;
        check(sd_bus_message_read_basic(m, 's', &service),
              "sd_bus_message_read_basic string");
        services[service] = readStrings(m);
        check(sd_bus_message_exit_container(m),
              "sd_bus_message_exit_container dict entry");
    }
    check(r, "sd_bus_message_enter_container dict entry");
    check(sd_bus_message_exit_container(m),
          "sd_bus_message_exit_container array");
    return services;
}

} // namespace

DbusError::DbusError(const std::string& operation, int errnoValue,
                     const std::string& name, const std::string& message) :
    std::runtime_error(describe(operation, name, message)),
    op(operation), errnum(errnoValue), errorName(name)
{}

Message& Message::operator=(Message&& other) noexcept
{
    if (this != &other)
    {
        sd_bus_message_unref(msg);
        msg = std::exchange(other.msg, nullptr);
    }
    return *this;
}

void Message::appendBasic(const Value& value)
{
    int r = std::visit(
        [this](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>)
            {
                return sd_bus_message_append_basic(msg, 's', v.c_str());
            }
            else if constexpr (std::is_same_v<T, bool>)
            {
                int b = v ? 1 : 0; // sd-bus wants booleans as int
                return sd_bus_message_append_basic(msg, 'b', &b);
            }
            else
            {
                return sd_bus_message_append_basic(msg, typeOf<T>(), &v);
            }
        },
        value);
    check(r, "sd_bus_message_append_basic");
}

void Message::appendVariant(const Value& value)
{
    const char type[2] = {
        std::visit(
            [](const auto& v) { return typeOf<std::decay_t<decltype(v)>>(); },
            value),
        '\0'};
    check(sd_bus_message_open_container(msg, 'v', type),
          "sd_bus_message_open_container variant");
    appendBasic(value);
    check(sd_bus_message_close_container(msg),
          "sd_bus_message_close_container variant");
}

void Message::appendStrings(const std::vector<std::string>& strings)
{
    check(sd_bus_message_open_container(msg, 'a', "s"),
          "sd_bus_message_open_container array");
    for (const auto& s : strings)
    {
        check(sd_bus_message_append_basic(msg, 's', s.c_str()),
              "sd_bus_message_append_basic");
    }
    check(sd_bus_message_close_container(msg),
          "sd_bus_message_close_container array");
}

Value Message::readBasic(char type)
{
    char actual = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(msg, &actual, &contents);
    check(r, "sd_bus_message_peek_type");
    if (r == 0)
    {
        throw DbusError("sd_bus_message_read_basic", ENXIO,
                        "org.freedesktop.DBus.Error.InvalidArgs",
                        "the reply has no more arguments");
    }
    // Paths and signatures are strings to the handlers.
    if (type == 's' && (actual == 'o' || actual == 'g'))
    {
        type = actual;
    }
    if (actual != type)
    {
        throw DbusError("sd_bus_message_read_basic", ENXIO,
                        "org.freedesktop.DBus.Error.InvalidArgs",
                        std::string("expected type '") + type + "', got '" +
                            actual + "'");
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
    check(sd_bus_message_read_basic(msg, type, &v),
          "sd_bus_message_read_basic");
    switch (type)
    {
        case 'b':
            return Value{v.b != 0};
        case 'y':
            return Value{v.y};
        case 'n':
            return Value{v.n};
        case 'q':
            return Value{v.q};
        case 'i':
            return Value{v.i};
        case 'u':
            return Value{v.u};
        case 'x':
            return Value{v.x};
        case 't':
            return Value{v.t};
        case 'd':
            return Value{v.d};
        default:
            return Value{std::string(v.s)};
    }
}

Value Message::readVariant()
{
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(msg, &type, &contents);
    check(r, "sd_bus_message_peek_type");
    static const std::string basic = "bynqiuxtdsog";
    if (r == 0 || type != 'v' || strlen(contents) != 1 ||
        basic.find(contents[0]) == std::string::npos)
    {
        throw DbusError("sd_bus_message_enter_container variant", ENXIO,
                        "org.freedesktop.DBus.Error.InvalidArgs",
                        std::string("not a variant of a basic type: '") +
                            (r == 0 ? "" : contents) + "'");
    }
    check(sd_bus_message_enter_container(msg, 'v', contents),
          "sd_bus_message_enter_container variant");
    Value value = readBasic(contents[0]);
    check(sd_bus_message_exit_container(msg),
          "sd_bus_message_exit_container variant");
    return value;
}

Message Bus::newMethodCall(const std::string& service, const std::string& path,
                           const std::string& interface,
                           const std::string& method) const
{
    checkBus(bus);
    sd_bus_message* m = nullptr;
    check(sd_bus_message_new_method_call(bus, &m, service.c_str(), path.c_str(),
                                         interface.c_str(), method.c_str()),
          "sd_bus_message_new_method_call");
    return Message(m);
}

Message Bus::call(Message& method, uint64_t timeout) const
{
    checkBus(bus);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(bus, method.get(), timeout, &error, &reply);
    try
    {
        check(r, "sd_bus_call", &error);
    }
    catch (...)
    {
        sd_bus_error_free(&error);
        throw;
    }
    sd_bus_error_free(&error);
    return Message(reply);
}

Value Bus::getProperty(const std::string& service, const std::string& path,
                       const std::string& interface,
                       const std::string& property, uint64_t timeout) const
{
    Message m = newMethodCall(service, path, propertiesInterface, "Get");
    m.append(interface, property);
    Message reply = call(m, timeout);
    return reply.readVariant();
}

void Bus::setProperty(const std::string& service, const std::string& path,
                      const std::string& interface, const std::string& property,
                      const Value& value, uint64_t timeout) const
{
    Message m = newMethodCall(service, path, propertiesInterface, "Set");
    m.append(interface, property, value);
    call(m, timeout);
}

ServiceMap Bus::getObject(const std::string& path,
                          const std::vector<std::string>& interfaces) const
{
    Message reply = callMethod(mapperService, mapperPath, mapperInterface,
                               "GetObject", path, interfaces);
    return readServiceMap(reply.get());
}

std::string Bus::getService(const std::string& interface,
                            const std::string& path) const
{
    ServiceMap services = getObject(path, {interface});
    if (services.empty())
    {
        throw DbusError("GetObject", ENOENT,
                        "xyz.openbmc_project.Common.Error.ResourceNotFound",
                        "no service serves " + interface + " at " + path);
    }
    return services.begin()->first;
}

ObjectTree Bus::getSubTree(const std::string& root,
                           const std::vector<std::string>& interfaces,
                           int32_t depth) const
{
    Message reply = callMethod(mapperService, mapperPath, mapperInterface,
                               "GetSubTree", root, depth, interfaces);
    sd_bus_message* m = reply.get();
    ObjectTree tree;
    check(sd_bus_message_enter_container(m, 'a', "{sa{sas}}"),
          "sd_bus_message_enter_container array");
    int r = 0;
    while ((r = sd_bus_message_enter_container(m, 'e', "sa{sas}")) > 0)
    {
        const char* path = nullptr;
        check(sd_bus_message_read_basic(m, 's', &path),
              "sd_bus_message_read_basic string");
        tree[path] = readServiceMap(m);
        check(sd_bus_message_exit_container(m),
              "sd_bus_message_exit_container dict entry");
    }
    check(r, "sd_bus_message_enter_container dict entry");
    check(sd_bus_message_exit_container(m),
          "sd_bus_message_exit_container array");
    return tree;
}

ObjectTree Bus::getAllDbusObjects(const std::string& root,
                                  const std::string& interface,
                                  const std::string& match) const
{
    ObjectTree tree = getSubTree(root, {interface});
    std::erase_if(tree, [&match](const auto& entry) {
        return entry.first.find(match) == std::string::npos;
    });
    return tree;
}

} // namespace oem
