// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/* What bmc-dbus-sim serves and how it is told to fail, without the bus:
 * property values, the board's object description and the failure rules.
 * The formats are described in sim/dbus/README.md. */
namespace dbussim
{

/* A property value of a D-Bus basic type, held in the widest C type of its
 * kind: signed integers (n i x) as int64_t, unsigned ones and booleans
 * (y q u t b) as uint64_t, doubles as double, strings, object paths and
 * signatures (s o g) as std::string. */
struct Value
{
    char type = 's';
    std::variant<int64_t, uint64_t, double, std::string> data;

    bool operator==(const Value&) const = default;
};

/* True for the type codes a property may have: b y n q i u x t d s o g. */
bool isPropertyType(char type);

/* Parses the text of a value of the given type: true/false, decimal or
 * 0x-prefixed integers within the type's range, decimal doubles, and
 * strings either bare (the text as it stands) or double-quoted with
 * escapes. False and a message on anything else. */
bool parseValue(char type, std::string_view text, Value& value,
                std::string& error);

/* The stable text form used in the call record: strings double-quoted with
 * \" \\ \n \t and \xHH escapes, numbers in decimal, booleans as true or
 * false, doubles in their shortest exact form. parseValue reads it back. */
std::string formatValue(const Value& value);
std::string quote(std::string_view text);

struct Interface
{
    std::map<std::string, Value> properties;
    std::set<std::string> methods;
};
using Object = std::map<std::string, Interface>; // by interface name
using Service = std::map<std::string, Object>;   // by object path
using Objects = std::map<std::string, Service>;  // by service name

/* Reads a board's object description (service, object, interface,
 * property and method lines). On the first error returns false with
 * "LINE: message" in error. */
bool parseObjects(std::istream& in, Objects& objects, std::string& error);

/* One line of the failures file: answer calls whose record line matches
 * the glob with the D-Bus error, the next `remaining` times or, when
 * remaining is negative, always. */
struct FailureRule
{
    long remaining = -1;
    std::string errorName;
    std::string message;
    std::string glob;
};

std::optional<FailureRule> parseFailureRule(std::string_view line,
                                            std::string& error);
std::string formatFailureRule(const FailureRule& rule);

/* Finds the first rule in a failures file's text whose glob matches a call's
 * record line. A counted rule is counted down in the text and dropped when
 * it reaches zero; other lines are kept as they are. Lines that are not
 * rules (other than blank lines and # comments) are reported in problems
 * and skipped. */
std::optional<FailureRule> takeFailure(std::string& fileText,
                                       const std::string& record,
                                       std::vector<std::string>& problems);

/* The objects below root (root itself excluded; every object for "/")
 * whose depth below root is at most depth (0: any depth). */
bool isBelow(std::string_view path, std::string_view root, int32_t depth);

} // namespace dbussim
