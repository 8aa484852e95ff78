// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

/* The plug-in's own thin layer over sd-bus: method calls, properties and the
 * object mapper, which is all the handlers need from the BMC's services.
 *
 * Errors: every failure is thrown as oem::DbusError: a call that cannot be
 * built, a call that fails or is answered with a D-Bus error, a reply that
 * cannot be read. A handler that owes its caller a completion code or a
 * status byte catches it; one that lets it escape gets the daemon's generic
 * failure (0xFF). A value of another type than the handler expects is the
 * handler's std::get throwing std::bad_variant_access. */
namespace oem
{

/* A property value of one of the D-Bus basic types the handlers read and
 * write. Object paths and signatures are read as strings. */
using Value = std::variant<bool, uint8_t, int16_t, uint16_t, int32_t, uint32_t,
                           int64_t, uint64_t, double, std::string>;

/* Service name to its interfaces (GetObject), and object path to that map
 * (GetSubTree), both ordered by name as the mapper sorts them. */
using ServiceMap = std::map<std::string, std::vector<std::string>>;
using ObjectTree = std::map<std::string, ServiceMap>;

/* How long a call waits for its reply, in microseconds. */
constexpr uint64_t dbusTimeout = 5'000'000;

constexpr const char* mapperService = "xyz.openbmc_project.ObjectMapper";
constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";
constexpr const char* mapperInterface = "xyz.openbmc_project.ObjectMapper";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

class DbusError : public std::runtime_error
{
  public:
    /* operation: the sd-bus step that failed ("sd_bus_call", ...);
     * errnoValue: positive errno; name and message: the D-Bus error, as the
     * peer sent it or as sd-bus names the errno of a local failure. */
    DbusError(const std::string& operation, int errnoValue,
              const std::string& name, const std::string& message);

    const std::string& operation() const
    {
        return op;
    }
    int errnoValue() const
    {
        return errnum;
    }
    const std::string& name() const
    {
        return errorName;
    }

  private:
    std::string op;
    int errnum;
    std::string errorName;
};

/* One reference to an sd-bus message: a call being built or a reply being
 * read. */
class Message
{
  public:
    Message() = default;
    /* Takes over the caller's reference. */
    explicit Message(sd_bus_message* message) : msg(message) {}
    ~Message()
    {
        sd_bus_message_unref(msg);
    }
    Message(Message&& other) noexcept : msg(other.msg)
    {
        other.msg = nullptr;
    }
    Message& operator=(Message&& other) noexcept;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    sd_bus_message* get() const
    {
        return msg;
    }

    /* Appends arguments: the alternatives of Value with their own D-Bus
     * types, const char* as a string, std::vector<std::string> as "as" and
     * a Value itself as a variant ("v"). */
    template <typename... Args>
    Message& append(const Args&... args)
    {
        (appendOne(args), ...);
        return *this;
    }

    /* Reads the next argument, which must have the D-Bus type of T (one of
     * the alternatives of Value; a string also reads an object path or a
     * signature). */
    template <typename T>
    T read()
    {
        Value value = readBasic(typeOf<T>());
        return std::get<T>(value);
    }

    /* Reads the next argument, a variant of a basic type. */
    Value readVariant();

  private:
    template <typename T>
    static constexpr char typeOf()
    {
        if constexpr (std::is_same_v<T, bool>)
            return 'b';
        else if constexpr (std::is_same_v<T, uint8_t>)
            return 'y';
        else if constexpr (std::is_same_v<T, int16_t>)
            return 'n';
        else if constexpr (std::is_same_v<T, uint16_t>)
            return 'q';
        else if constexpr (std::is_same_v<T, int32_t>)
            return 'i';
        else if constexpr (std::is_same_v<T, uint32_t>)
            return 'u';
        else if constexpr (std::is_same_v<T, int64_t>)
            return 'x';
        else if constexpr (std::is_same_v<T, uint64_t>)
            return 't';
        else if constexpr (std::is_same_v<T, double>)
            return 'd';
        else
        {
            static_assert(std::is_same_v<T, std::string>,
                          "not a type of oem::Value");
            return 's';
        }
    }

    template <typename T>
    void appendOne(const T& arg)
    {
        if constexpr (std::is_same_v<T, Value>)
        {
            appendVariant(arg);
        }
        else if constexpr (std::is_same_v<T, std::vector<std::string>>)
        {
            appendStrings(arg);
        }
        else if constexpr (std::is_convertible_v<T, const char*> ||
                           std::is_same_v<T, std::string>)
        {
            appendBasic(Value{std::string(arg)});
        }
        else
        {
            appendBasic(Value{std::in_place_type<T>, arg});
        }
    }

    void appendBasic(const Value& value);
    void appendVariant(const Value& value);
    void appendStrings(const std::vector<std::string>& strings);
    Value readBasic(char type);

    sd_bus_message* msg = nullptr;
};

/* The plug-in's bus object: the daemon's connection with a reference of its
 * own, released when the plug-in is unloaded. A null connection gives a
 * null bus, and calls through it fail. */
class Bus
{
  public:
    explicit Bus(sd_bus* connection) :
        bus(connection != nullptr ? sd_bus_ref(connection) : nullptr)
    {}
    ~Bus()
    {
        sd_bus_unref(bus);
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    sd_bus* get() const
    {
        return bus;
    }

    /* A method call to be filled with append() and sent with call(). */
    Message newMethodCall(const std::string& service, const std::string& path,
                          const std::string& interface,
                          const std::string& method) const;

    /* Sends a call and waits for its reply; an error reply throws. */
    Message call(Message& method, uint64_t timeout = dbusTimeout) const;

    template <typename... Args>
    Message callMethod(const std::string& service, const std::string& path,
                       const std::string& interface, const std::string& method,
                       const Args&... args) const
    {
        Message m = newMethodCall(service, path, interface, method);
        m.append(args...);
        return call(m);
    }

    /* org.freedesktop.DBus.Properties Get and Set. */
    Value getProperty(const std::string& service, const std::string& path,
                      const std::string& interface, const std::string& property,
                      uint64_t timeout = dbusTimeout) const;
    void setProperty(const std::string& service, const std::string& path,
                     const std::string& interface, const std::string& property,
                     const Value& value, uint64_t timeout = dbusTimeout) const;

    /* The mapper's GetObject: the services that serve path with one of the
     * interfaces (any interface if the list is empty). */
    ServiceMap getObject(const std::string& path,
                         const std::vector<std::string>& interfaces) const;

    /* The first service, in name order, that serves interface at path; as
     * the daemon's ipmi::getService. */
    std::string getService(const std::string& interface,
                           const std::string& path) const;

    /* The mapper's GetSubTree: the objects below root (depth 0: any depth)
     * that implement one of the interfaces. */
    ObjectTree getSubTree(const std::string& root,
                          const std::vector<std::string>& interfaces,
                          int32_t depth = 0) const;

    /* The objects below root that implement interface and whose path
     * contains match (every object if match is empty); as the daemon's
     * ipmi::getAllDbusObjects. */
    ObjectTree getAllDbusObjects(const std::string& root,
                                 const std::string& interface,
                                 const std::string& match = "") const;

  private:
    sd_bus* bus;
};

} // namespace oem

extern oem::Bus dbus;
