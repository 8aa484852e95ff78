// SPDX-License-Identifier: Apache-2.0

#include "model.hpp"

#include <fnmatch.h>
#include <systemd/sd-bus.h>

#include <charconv>
#include <cstdio>
#include <limits>
#include <sstream>

namespace dbussim
{
namespace
{

constexpr std::string_view blanks = " \t\r";

std::string_view trim(std::string_view text)
{
    auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
    {
        return {};
    }
    auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

/* Splits off the first blank-separated word. */
std::string_view nextWord(std::string_view& text)
{
    text = trim(text);
    auto end = text.find_first_of(blanks);
    std::string_view word = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{}
                                         : trim(text.substr(end));
    return word;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/* Reads a double-quoted string at the start of text; text is left after
 * the closing quote. */
std::optional<std::string> unquote(std::string_view& text, std::string& error)
{
    std::string out;
    size_t i = 1;
    for (; i < text.size() && text[i] != '"'; ++i)
    {
        char c = text[i];
        if (c != '\\')
        {
            out += c;
            continue;
        }
        if (++i == text.size())
        {
            break;
        }
        switch (text[i])
        {
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case '"':
            case '\\':
                out += text[i];
                break;
            case 'x':
            {
                int high = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
                int low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
                if (high < 0 || low < 0 || (high == 0 && low == 0))
                {
                    error = "\\x wants two hex digits, not 00";
                    return std::nullopt;
                }
                out += static_cast<char>(high * 16 + low);
                i += 2;
                break;
            }
            default:
                error = std::string("unknown escape \\") + text[i];
                return std::nullopt;
        }
    }
    if (i >= text.size())
    {
        error = "unterminated string";
        return std::nullopt;
    }
    text.remove_prefix(i + 1);
    return out;
}

template <typename T>
bool parseInteger(std::string_view text, T& value)
{
    int base = 10;
    bool negative = !text.empty() && text[0] == '-';
    std::string_view digits = negative ? text.substr(1) : text;
    if (digits.size() > 2 && digits[0] == '0' &&
        (digits[1] == 'x' || digits[1] == 'X'))
    {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty() || digits[0] == '-' || digits[0] == '+')
    {
        return false;
    }
    if (negative)
    {
        if constexpr (std::is_unsigned_v<T>)
        {
            return false;
        }
        // Parse the magnitude as unsigned so that the minimum fits.
        uint64_t magnitude = 0;
        auto [end, ec] = std::from_chars(
            digits.data(), digits.data() + digits.size(), magnitude, base);
        if (ec != std::errc{} || end != digits.data() + digits.size() ||
            magnitude > uint64_t(std::numeric_limits<T>::max()) + 1)
        {
            return false;
        }
        value = static_cast<T>(-static_cast<int64_t>(magnitude - 1) - 1);
        return true;
    }
    auto [end, ec] = std::from_chars(
        digits.data(), digits.data() + digits.size(), value, base);
    return ec == std::errc{} && end == digits.data() + digits.size();
}

template <typename T>
bool integer(char type, std::string_view text, Value& out, std::string& error)
{
    T value{};
    if (!parseInteger(text, value))
    {
        error = "'" + std::string(text) + "' is not a value of type " + type;
        return false;
    }
    out.type = type;
    if constexpr (std::is_signed_v<T>)
    {
        out.data = int64_t{value};
    }
    else
    {
        out.data = uint64_t{value};
    }
    return true;
}

} // namespace

bool isPropertyType(char type)
{
    return type != '\0' &&
           std::string_view("bynqiuxtdsog").find(type) != std::string::npos;
}

bool parseValue(char type, std::string_view text, Value& out,
                std::string& error)
{
    text = trim(text);
    switch (type)
    {
        case 'b':
            if (text == "true" || text == "false")
            {
                out.type = 'b';
                out.data = uint64_t{text == "true"};
                return true;
            }
            error =
                "a boolean is true or false, not '" + std::string(text) + "'";
            return false;
        case 'y':
            return integer<uint8_t>(type, text, out, error);
        case 'n':
            return integer<int16_t>(type, text, out, error);
        case 'q':
            return integer<uint16_t>(type, text, out, error);
        case 'i':
            return integer<int32_t>(type, text, out, error);
        case 'u':
            return integer<uint32_t>(type, text, out, error);
        case 'x':
            return integer<int64_t>(type, text, out, error);
        case 't':
            return integer<uint64_t>(type, text, out, error);
        case 'd':
        {
            double value = 0;
            auto [end, ec] =
                std::from_chars(text.data(), text.data() + text.size(), value);
            if (text.empty() || ec != std::errc{} ||
                end != text.data() + text.size())
            {
                error = "'" + std::string(text) + "' is not a double";
                return false;
            }
            out.type = 'd';
            out.data = value;
            return true;
        }
        case 's':
        case 'o':
        case 'g':
        {
            std::string value(text);
            if (!text.empty() && text[0] == '"')
            {
                auto unquoted = unquote(text, error);
                if (!unquoted)
                {
                    return false;
                }
                if (!trim(text).empty())
                {
                    error = "text after the closing quote";
                    return false;
                }
                value = *unquoted;
            }
            if (type == 'o' && !sd_bus_object_path_is_valid(value.c_str()))
            {
                error = "'" + value + "' is not an object path";
                return false;
            }
            if (type == 'g' && value.find_first_not_of("ybnqiuxtdsogvha(){}") !=
                                   std::string::npos)
            {
                error = "'" + value + "' is not a signature";
                return false;
            }
            out.type = type;
            out.data = std::move(value);
            return true;
        }
        default:
            error = std::string("unsupported type '") + type + "'";
            return false;
    }
}

std::string quote(std::string_view text)
{
    std::string out = "\"";
    for (char c : text)
    {
        switch (c)
        {
            case '"':
            case '\\':
                out += '\\';
                out += c;
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
                {
                    char hex[5];
                    snprintf(hex, sizeof(hex), "\\x%02x",
                             static_cast<unsigned char>(c));
                    out += hex;
                }
                else
                {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string formatValue(const Value& value)
{
    if (value.type == 'b')
    {
        return std::get<uint64_t>(value.data) != 0 ? "true" : "false";
    }
    if (const auto* s = std::get_if<std::string>(&value.data))
    {
        return quote(*s);
    }
    if (const auto* d = std::get_if<double>(&value.data))
    {
        char text[32];
        auto [end, ec] = std::to_chars(text, text + sizeof(text), *d);
        return std::string(text, end);
    }
    if (const auto* i = std::get_if<int64_t>(&value.data))
    {
        return std::to_string(*i);
    }
    return std::to_string(std::get<uint64_t>(value.data));
}

bool parseObjects(std::istream& in, Objects& objects, std::string& error)
{
    Service* service = nullptr;
    Object* object = nullptr;
    Interface* interface = nullptr;
    int number = 0;
    auto fail = [&](const std::string& message) {
        error = std::to_string(number) + ": " + message;
        return false;
    };

    for (std::string line; std::getline(in, line);)
    {
        ++number;
        std::string_view rest = trim(line);
        if (rest.empty() || rest[0] == '#')
        {
            continue;
        }
        std::string keyword(nextWord(rest));
        std::string name(nextWord(rest));
        if (name.empty())
        {
            return fail(keyword + " needs a name");
        }

        if (keyword == "service")
        {
            if (!rest.empty() || !sd_bus_service_name_is_valid(name.c_str()) ||
                name[0] == ':')
            {
                return fail("'" + line + "' does not name a service");
            }
            service = &objects[name];
            object = nullptr;
            interface = nullptr;
        }
        else if (keyword == "object")
        {
            if (service == nullptr)
            {
                return fail("object outside a service");
            }
            if (!rest.empty() || !sd_bus_object_path_is_valid(name.c_str()))
            {
                return fail("'" + line + "' does not name an object path");
            }
            object = &(*service)[name];
            interface = nullptr;
        }
        else if (keyword == "interface")
        {
            if (object == nullptr)
            {
                return fail("interface outside an object");
            }
            if (!rest.empty() || !sd_bus_interface_name_is_valid(name.c_str()))
            {
                return fail("'" + line + "' does not name an interface");
            }
            interface = &(*object)[name];
        }
        else if (keyword == "property" || keyword == "method")
        {
            if (interface == nullptr)
            {
                return fail(keyword + " outside an interface");
            }
            if (!sd_bus_member_name_is_valid(name.c_str()))
            {
                return fail("'" + name + "' is not a member name");
            }
            if (keyword == "method")
            {
                if (!rest.empty())
                {
                    return fail("a method line has only a name");
                }
                interface->methods.insert(name);
                continue;
            }
            std::string type(nextWord(rest));
            if (type.size() != 1 || !isPropertyType(type[0]))
            {
                return fail("property " + name + " needs a type of " +
                            "b y n q i u x t d s o g, not '" + type + "'");
            }
            std::string message;
            Value value;
            if (!parseValue(type[0], rest, value, message))
            {
                return fail("property " + name + ": " + message);
            }
            interface->properties[name] = std::move(value);
        }
        else
        {
            return fail("unknown keyword '" + keyword + "'");
        }
    }
    return true;
}

std::optional<FailureRule> parseFailureRule(std::string_view line,
                                            std::string& error)
{
    FailureRule rule;
    std::string_view rest = line;
    std::string_view count = nextWord(rest);
    if (count != "*")
    {
        long n = 0;
        auto [end, ec] =
            std::from_chars(count.data(), count.data() + count.size(), n);
        if (count.empty() || ec != std::errc{} ||
            end != count.data() + count.size() || n <= 0)
        {
            error = "the count is * or a positive number, not '" +
                    std::string(count) + "'";
            return std::nullopt;
        }
        rule.remaining = n;
    }
    rule.errorName = nextWord(rest);
    if (!sd_bus_interface_name_is_valid(rule.errorName.c_str()))
    {
        error = "'" + rule.errorName + "' is not a D-Bus error name";
        return std::nullopt;
    }
    if (rest.empty() || rest[0] != '"')
    {
        error = "the error message comes in double quotes";
        return std::nullopt;
    }
    auto message = unquote(rest, error);
    if (!message)
    {
        return std::nullopt;
    }
    rule.message = *message;
    rule.glob = trim(rest);
    if (rule.glob.empty())
    {
        error = "no call pattern";
        return std::nullopt;
    }
    return rule;
}

std::string formatFailureRule(const FailureRule& rule)
{
    std::string count =
        rule.remaining < 0 ? "*" : std::to_string(rule.remaining);
    return count + " " + rule.errorName + " " + quote(rule.message) + " " +
           rule.glob;
}

std::optional<FailureRule> takeFailure(std::string& fileText,
                                       const std::string& record,
                                       std::vector<std::string>& problems)
{
    std::istringstream in(fileText);
    std::string kept;
    std::optional<FailureRule> taken;
    for (std::string line; std::getline(in, line);)
    {
        std::string_view text = trim(line);
        if (!taken && !text.empty() && text[0] != '#')
        {
            std::string error;
            auto rule = parseFailureRule(text, error);
            if (!rule)
            {
                problems.push_back("'" + line + "': " + error);
            }
            else if (fnmatch(rule->glob.c_str(), record.c_str(), 0) == 0)
            {
                taken = rule;
                if (rule->remaining > 0 && --rule->remaining == 0)
                {
                    continue; // used up
                }
                if (rule->remaining > 0)
                {
                    line = formatFailureRule(*rule);
                }
            }
        }
        kept += line + "\n";
    }
    if (taken)
    {
        fileText = kept;
    }
    return taken;
}

bool isBelow(std::string_view path, std::string_view root, int32_t depth)
{
    std::string_view below;
    if (root == "/" || root.empty())
    {
        if (path == "/")
        {
            return false;
        }
        below = path.substr(1);
    }
    else
    {
        if (root.back() == '/')
        {
            root.remove_suffix(1);
        }
        if (path.size() <= root.size() + 1 || !path.starts_with(root) ||
            path[root.size()] != '/')
        {
            return false;
        }
        below = path.substr(root.size() + 1);
    }
    if (depth <= 0)
    {
        return true;
    }
    int32_t levels = 1;
    for (char c : below)
    {
        levels += c == '/' ? 1 : 0;
    }
    return levels <= depth;
}

} // namespace dbussim
