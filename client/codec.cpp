// SPDX-License-Identifier: Apache-2.0
#include "codec.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>

namespace oemclient
{

namespace
{

bool holds(const std::optional<Condition>& when,
           const std::map<std::string, uint64_t>& numbers)
{
    if (!when)
    {
        return true;
    }
    auto value = numbers.find(when->field);
    return value != numbers.end() &&
           std::find(when->values.begin(), when->values.end(), value->second) !=
               when->values.end();
}

std::string hexNumber(uint64_t n)
{
    char buf[24];
    snprintf(buf, sizeof(buf), "0x%02llx", static_cast<unsigned long long>(n));
    return buf;
}

// Labels match without regard to case, blanks, dashes and underscores, so
// that "psu1", "PSU-1" and "PSU 1" all name "PSU 1".
std::string squeeze(const std::string& s)
{
    std::string out;
    for (char c : s)
    {
        if (c != ' ' && c != '-' && c != '_')
        {
            out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
    }
    return out;
}

std::string allowedValues(const Field& f)
{
    std::string out;
    for (const auto& [n, name] : f.values)
    {
        out += (out.empty() ? "" : ", ") +
               (f.hex ? hexNumber(n) : std::to_string(n)) + " (" + name + ")";
    }
    return out;
}

uint64_t parseNumber(const Field& f, const std::string& arg)
{
    const std::string wanted = squeeze(arg);
    for (const auto& [n, name] : f.values)
    {
        if (!wanted.empty() && squeeze(name) == wanted)
        {
            return n;
        }
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(arg.c_str(), &end, 0);
    if (arg.empty() || *end != '\0' || errno != 0 || arg[0] == '-' ||
        arg[0] == '+' || isspace(static_cast<unsigned char>(arg[0])))
    {
        throw ArgumentError(
            f.name + ": '" + arg + "' is not a number" +
            (f.values.empty() ? "" : " or one of " + allowedValues(f)));
    }
    uint64_t low = f.min.value_or(0);
    uint64_t high = std::min(f.max.value_or(UINT64_MAX), f.maxNumber());
    if (n < low || n > high)
    {
        throw ArgumentError(f.name + ": " + arg + " is out of range (" +
                            std::to_string(low) + " to " +
                            std::to_string(high) + ")");
    }
    if (!f.values.empty() && !f.values.contains(n) && !f.min && !f.max)
    {
        throw ArgumentError(f.name + ": " + arg + " is not one of " +
                            allowedValues(f));
    }
    return n;
}

void putNumber(std::vector<uint8_t>& out, Type type, uint64_t n)
{
    auto byte = [&](int shift) {
        out.push_back(static_cast<uint8_t>(n >> shift));
    };
    switch (type)
    {
        case Type::u16le:
            byte(0), byte(8);
            break;
        case Type::u16be:
            byte(8), byte(0);
            break;
        case Type::u24be:
            byte(16), byte(8), byte(0);
            break;
        case Type::u32le:
            byte(0), byte(8), byte(16), byte(24);
            break;
        case Type::u32be:
            byte(24), byte(16), byte(8), byte(0);
            break;
        default:
            byte(0);
            break;
    }
}

uint64_t getNumber(Type type, const uint8_t* p)
{
    switch (type)
    {
        case Type::u16le:
            return p[0] | p[1] << 8;
        case Type::u16be:
            return p[0] << 8 | p[1];
        case Type::u24be:
            return p[0] << 16 | p[1] << 8 | p[2];
        case Type::u32le:
            return p[0] | p[1] << 8 | p[2] << 16 | uint64_t{p[3]} << 24;
        case Type::u32be:
            return uint64_t{p[0]} << 24 | p[1] << 16 | p[2] << 8 | p[3];
        default:
            return p[0];
    }
}

void checkLength(const Field& f, size_t length, const char* unit)
{
    if ((f.min && length < *f.min) || (f.max && length > *f.max))
    {
        throw ArgumentError(f.name + ": " + std::to_string(length) + " " +
                            unit + ", not " +
                            std::to_string(f.min.value_or(0)) + " to " +
                            std::to_string(f.max.value_or(length)));
    }
}

void checkCharset(const Field& f, const std::string& arg)
{
    for (char c : arg)
    {
        auto u = static_cast<unsigned char>(c);
        bool ok = f.charset == "digits" ? isdigit(u) != 0
                  : f.charset == "name"
                      ? isalnum(u) || c == '.' || c == '-' || c == '_'
                  : f.charset == "address"
                      ? isxdigit(u) || c == '.' || c == ':' || c == '/'
                      : u >= 0x20 && u < 0x7F;
        if (!ok)
        {
            throw ArgumentError(f.name + ": '" + arg +
                                "' holds a character not allowed here");
        }
    }
}

std::vector<uint8_t> parseBytes(const Field& f, const std::string& arg)
{
    std::string digits;
    size_t from = arg.rfind("0x", 0) == 0 || arg.rfind("0X", 0) == 0 ? 2 : 0;
    for (size_t i = from; i < arg.size(); ++i)
    {
        char c = arg[i];
        if (c == ':' || c == '-' || c == '.')
        {
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(c)))
        {
            throw ArgumentError(f.name + ": '" + arg +
                                "' is not hexadecimal bytes");
        }
        digits += c;
    }
    if (digits.size() % 2 != 0)
    {
        throw ArgumentError(f.name + ": '" + arg +
                            "' has an odd number of hexadecimal digits");
    }
    std::vector<uint8_t> out;
    for (size_t i = 0; i < digits.size(); i += 2)
    {
        out.push_back(static_cast<uint8_t>(
            strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return out;
}

void encodeValue(const Field& f, const std::string& arg, Request& request,
                 std::vector<uint8_t>& out)
{
    switch (f.type)
    {
        case Type::text:
        case Type::cstring:
        {
            checkCharset(f, arg);
            size_t limit = f.type == Type::text && f.size ? f.size : SIZE_MAX;
            if (arg.size() > limit)
            {
                throw ArgumentError(f.name + ": longer than " +
                                    std::to_string(limit) + " characters");
            }
            checkLength(f, arg.size(), "characters");
            out.insert(out.end(), arg.begin(), arg.end());
            if (f.type == Type::cstring)
            {
                out.push_back(0);
            }
            else
            {
                out.resize(out.size() + (f.size ? f.size - arg.size() : 0), 0);
            }
            break;
        }
        case Type::hextext:
        {
            std::string digits;
            for (char c : arg)
            {
                if (c != '-')
                {
                    digits += c;
                }
            }
            if (digits.size() != f.size ||
                !std::all_of(digits.begin(), digits.end(), [](char c) {
                    return isxdigit(static_cast<unsigned char>(c)) != 0;
                }))
            {
                throw ArgumentError(f.name + ": '" + arg + "' is not " +
                                    std::to_string(f.size) +
                                    " hexadecimal digits");
            }
            out.insert(out.end(), digits.begin(), digits.end());
            out.push_back(0);
            break;
        }
        case Type::bytes:
        case Type::uuid:
        {
            auto bytes = parseBytes(f, arg);
            if (f.size != 0 && bytes.size() != f.size)
            {
                throw ArgumentError(f.name + ": " +
                                    std::to_string(bytes.size()) +
                                    " bytes, not " + std::to_string(f.size));
            }
            checkLength(f, bytes.size(), "bytes");
            out.insert(out.end(), bytes.begin(), bytes.end());
            break;
        }
        default:
        {
            uint64_t n = parseNumber(f, arg);
            request.numbers[f.name] = n;
            putNumber(out, f.type, n);
            break;
        }
    }
}

void encodeRecord(const Field& f, const std::string& arg, Request& request,
                  std::vector<uint8_t>& out)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma; (comma = arg.find(',', start)) != std::string::npos;
         start = comma + 1)
    {
        parts.push_back(arg.substr(start, comma - start));
    }
    parts.push_back(arg.substr(start));
    size_t wanted =
        std::count_if(f.record.begin(), f.record.end(),
                      [](const Field& r) { return r.takesArgument(); });
    if (parts.size() != wanted)
    {
        std::string names;
        for (const auto& r : f.record)
        {
            if (r.takesArgument())
            {
                names += (names.empty() ? "" : ",") + r.name;
            }
        }
        throw ArgumentError(f.name + ": '" + arg + "' is not " + names);
    }
    size_t part = 0;
    for (const auto& r : f.record)
    {
        if (r.type == Type::constant)
        {
            out.insert(out.end(), r.constant.begin(), r.constant.end());
        }
        else if (r.type == Type::reserved)
        {
            out.resize(out.size() + r.size, 0);
        }
        else
        {
            try
            {
                encodeValue(r, parts[part++], request, out);
            }
            catch (const ArgumentError& e)
            {
                throw ArgumentError(f.name + ": " + e.what());
            }
        }
    }
}

// Texts end at their first zero byte; trailing line ends and blanks are
// the tools' habit, not part of the value.
std::string cleanText(const uint8_t* p, size_t n)
{
    std::string s(reinterpret_cast<const char*>(p), std::find(p, p + n, 0) - p);
    while (!s.empty() &&
           (s.back() == '\n' || s.back() == '\r' || s.back() == ' '))
    {
        s.pop_back();
    }
    return s;
}

// Decodes fields from data[pos..end); false if they do not account for
// exactly those bytes.
bool decodeFields(const std::vector<Field>& fields,
                  const std::map<std::string, uint64_t>& numbers,
                  const uint8_t* data, size_t end, size_t& pos,
                  std::vector<Value>& values)
{
    for (const auto& f : fields)
    {
        if (!holds(f.when, numbers))
        {
            continue;
        }
        size_t left = end - pos;
        size_t width = f.width();
        if (width == 0)
        {
            width = left; // the rest
            if (f.type == Type::records && left % f.recordWidth() != 0)
            {
                return false;
            }
            if ((f.min && left < *f.min) ||
                (f.max && f.type != Type::records && left > *f.max))
            {
                return false;
            }
        }
        if (width > left)
        {
            return false;
        }
        const uint8_t* p = data + pos;
        Value v;
        v.field = &f;
        switch (f.type)
        {
            case Type::constant:
                if (!std::equal(f.constant.begin(), f.constant.end(), p))
                {
                    return false;
                }
                break;
            case Type::reserved:
                break;
            case Type::text:
            case Type::cstring:
            case Type::hextext:
                v.text = cleanText(p, width);
                break;
            case Type::bytes:
            case Type::uuid:
                v.bytes.assign(p, p + width);
                break;
            case Type::records:
                for (size_t at = pos; at < pos + width;)
                {
                    std::vector<Value> record;
                    if (!decodeFields(f.record, numbers, data,
                                      at + f.recordWidth(), at, record))
                    {
                        return false;
                    }
                    v.records.push_back(std::move(record));
                }
                break;
            default:
                v.number = getNumber(f.type, p);
                break;
        }
        pos += width;
        if (f.type != Type::constant && f.type != Type::reserved)
        {
            values.push_back(std::move(v));
        }
    }
    return pos == end;
}

std::string uuidText(const std::vector<uint8_t>& b)
{
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size(); ++i)
    {
        if (i == 4 || i == 6 || i == 8 || i == 10)
        {
            s += '-';
        }
        snprintf(buf, sizeof(buf), "%02x", b[i]);
        s += buf;
    }
    return s;
}

std::string numberText(const Field& f, uint64_t n)
{
    std::string digits = f.hex ? hexNumber(n) : std::to_string(n);
    if (f.type == Type::flags)
    {
        std::string set;
        for (const auto& [bit, name] : f.bits)
        {
            if (n >> bit & 1)
            {
                set += (set.empty() ? "" : ", ") + name;
            }
        }
        return (set.empty() ? std::string("none") : set) + " (" + hexNumber(n) +
               ")";
    }
    std::string name = label(f, n);
    if (!name.empty())
    {
        return name + " (" + digits + ")";
    }
    return f.unit.empty() ? digits : digits + " " + f.unit;
}

std::string printable(const std::vector<uint8_t>& bytes, size_t from, size_t n)
{
    std::string s;
    for (size_t i = from; i < from + n && i < bytes.size(); ++i)
    {
        s += isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    }
    return s;
}

std::string valueText(const Value& v, const std::string& indent)
{
    const Field& f = *v.field;
    switch (f.type)
    {
        case Type::text:
        case Type::cstring:
        case Type::hextext:
        {
            std::string s;
            for (char c : v.text)
            {
                s += c;
                if (c == '\n')
                {
                    s += indent;
                }
            }
            return s;
        }
        case Type::uuid:
            return uuidText(v.bytes);
        case Type::bytes:
        {
            if (v.bytes.size() <= 16)
            {
                return hexString(v.bytes);
            }
            std::string s;
            for (size_t i = 0; i < v.bytes.size(); i += 16)
            {
                std::vector<uint8_t> line(
                    v.bytes.begin() + static_cast<long>(i),
                    v.bytes.begin() +
                        static_cast<long>(std::min(i + 16, v.bytes.size())));
                char offset[24];
                snprintf(offset, sizeof(offset), "%04zx  ", i);
                std::string hex = hexString(line);
                hex.resize(48, ' ');
                s += "\n" + indent + offset + hex + " |" +
                     printable(v.bytes, i, 16) + "|";
            }
            return s;
        }
        case Type::records:
        {
            std::string s;
            for (const auto& record : v.records)
            {
                s += "\n" + indent + "-";
                for (size_t i = 0; i < record.size(); ++i)
                {
                    s += std::string(i ? "," : "") + " " +
                         record[i].field->name + ": " +
                         valueText(record[i], indent + "  ");
                }
            }
            return v.records.empty() ? "none" : s;
        }
        default:
            return numberText(f, v.number);
    }
}

nlohmann::ordered_json valueJson(const Value& v)
{
    const Field& f = *v.field;
    switch (f.type)
    {
        case Type::text:
        case Type::cstring:
        case Type::hextext:
            return v.text;
        case Type::uuid:
            return uuidText(v.bytes);
        case Type::bytes:
            return hexString(v.bytes);
        case Type::records:
        {
            auto list = nlohmann::ordered_json::array();
            for (const auto& record : v.records)
            {
                list.push_back(formatJson(record));
            }
            return list;
        }
        case Type::flags:
        {
            auto bits = nlohmann::ordered_json::object();
            for (const auto& [bit, name] : f.bits)
            {
                bits[name] = (v.number >> bit & 1) != 0;
            }
            return bits;
        }
        default:
        {
            std::string name = label(f, v.number);
            if (!name.empty())
            {
                return name;
            }
            return v.number;
        }
    }
}

} // namespace

Request encodeRequest(const Command& command,
                      const std::vector<std::string>& arguments)
{
    std::map<std::string, std::string> named;
    std::vector<std::string> positional;
    for (const auto& arg : arguments)
    {
        auto equals = arg.find('=');
        bool isNamed = equals != std::string::npos &&
                       std::any_of(command.request.begin(),
                                   command.request.end(), [&](const Field& f) {
                                       return f.takesArgument() &&
                                              f.name == arg.substr(0, equals);
                                   });
        if (!isNamed)
        {
            positional.push_back(arg);
        }
        else if (!named.emplace(arg.substr(0, equals), arg.substr(equals + 1))
                      .second)
        {
            throw ArgumentError(arg.substr(0, equals) + ": given twice");
        }
    }

    Request request;
    size_t next = 0;
    std::set<std::string> used;
    for (size_t i = 0; i < command.request.size(); ++i)
    {
        const Field& f = command.request[i];
        if (!holds(f.when, request.numbers))
        {
            continue;
        }
        // An optional tail is sent whole or not at all.
        if (f.optional && (i == 0 || !command.request[i - 1].optional))
        {
            bool anyGiven =
                next < positional.size() ||
                std::any_of(command.request.begin() + static_cast<long>(i),
                            command.request.end(), [&](const Field& rest) {
                                return named.contains(rest.name);
                            });
            if (!anyGiven)
            {
                break;
            }
        }
        if (f.type == Type::constant)
        {
            request.data.insert(request.data.end(), f.constant.begin(),
                                f.constant.end());
            continue;
        }
        if (f.type == Type::reserved)
        {
            request.data.resize(request.data.size() + f.size, 0);
            continue;
        }
        if (f.type == Type::records)
        {
            size_t count = positional.size() - next;
            if (f.max && count > *f.max)
            {
                throw ArgumentError(f.name + ": at most " +
                                    std::to_string(*f.max) + " records");
            }
            for (; next < positional.size(); ++next)
            {
                encodeRecord(f, positional[next], request, request.data);
            }
            continue;
        }
        std::string arg;
        if (auto n = named.find(f.name); n != named.end())
        {
            arg = n->second;
            used.insert(f.name);
        }
        else if (next < positional.size())
        {
            arg = positional[next++];
        }
        else if (f.defaultArgument)
        {
            arg = *f.defaultArgument;
        }
        else
        {
            throw ArgumentError("missing " + f.name + " (" + typeName(f) + ")");
        }
        encodeValue(f, arg, request, request.data);
    }
    for (const auto& [name, value] : named)
    {
        if (!used.contains(name))
        {
            throw ArgumentError(name + ": does not apply to this request");
        }
    }
    if (next < positional.size())
    {
        throw ArgumentError("too many arguments, from '" + positional[next] +
                            "' on");
    }
    return request;
}

Decoded decodeAnswer(const Command& command, const Request& request,
                     const std::vector<uint8_t>& answer)
{
    Decoded decoded;
    for (const auto& layout : command.answer)
    {
        if (!holds(layout.when, request.numbers))
        {
            continue;
        }
        if (layout.match)
        {
            if (*layout.match == answer)
            {
                decoded.layout = &layout;
                decoded.failure = layout.failure;
                decoded.note = layout.note;
                return decoded;
            }
            continue;
        }
        std::vector<Value> values;
        size_t pos = 0;
        if (decodeFields(layout.fields, request.numbers, answer.data(),
                         answer.size(), pos, values))
        {
            decoded.layout = &layout;
            decoded.values = std::move(values);
            for (const auto& v : decoded.values)
            {
                const Field& f = *v.field;
                if (f.status &&
                    std::find(f.ok.begin(), f.ok.end(), v.number) == f.ok.end())
                {
                    std::string name = label(f, v.number);
                    decoded.failure =
                        name.empty() ? f.name + " " + std::to_string(v.number)
                                     : name;
                }
            }
            return decoded;
        }
    }
    return decoded;
}

std::string label(const Field& field, uint64_t number)
{
    auto found = field.values.find(number);
    return found == field.values.end() ? std::string() : found->second;
}

std::string formatText(const std::vector<Value>& values)
{
    size_t width = 0;
    for (const auto& v : values)
    {
        width = std::max(width, v.field->name.size());
    }
    std::string out;
    for (const auto& v : values)
    {
        std::string name = v.field->name;
        name.resize(width, ' ');
        std::string value = valueText(v, std::string(width + 3, ' '));
        out += name + (value.starts_with('\n') ? " :" : " : ") + value + "\n";
    }
    return out;
}

nlohmann::ordered_json formatJson(const std::vector<Value>& values)
{
    auto object = nlohmann::ordered_json::object();
    for (const auto& v : values)
    {
        object[v.field->name] = valueJson(v);
    }
    return object;
}

std::string hexString(const std::vector<uint8_t>& bytes)
{
    std::string s;
    char buf[4];
    for (uint8_t b : bytes)
    {
        snprintf(buf, sizeof(buf), s.empty() ? "%02x" : " %02x", b);
        s += buf;
    }
    return s;
}

std::string ipmitoolBytes(const std::vector<uint8_t>& bytes)
{
    std::string s;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        if (i % 16 == 0 && i != 0)
        {
            s += "\n";
        }
        snprintf(buf, sizeof(buf), " %02x", bytes[i]);
        s += buf;
    }
    return s + "\n";
}

} // namespace oemclient
