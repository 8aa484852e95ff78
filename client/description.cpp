// SPDX-License-Identifier: Apache-2.0
#include "description.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <set>

// The description's text, embedded by the build (see meson.build).
extern const char oemCommandsJson[];

namespace oemclient
{

namespace
{

using nlohmann::json;

const std::map<std::string, Type, std::less<>> typeNames = {
    {"u8", Type::u8},           {"u16le", Type::u16le},
    {"u16be", Type::u16be},     {"u24be", Type::u24be},
    {"u32le", Type::u32le},     {"u32be", Type::u32be},
    {"const", Type::constant},  {"reserved", Type::reserved},
    {"text", Type::text},       {"cstring", Type::cstring},
    {"hextext", Type::hextext}, {"bytes", Type::bytes},
    {"uuid", Type::uuid},       {"flags", Type::flags},
    {"records", Type::records},
};

[[noreturn]] void fail(const std::string& where, const std::string& what)
{
    throw DescriptionError(where + ": " + what);
}

// Every key must be known, so that a misspelt one cannot silently mean
// nothing.
void checkKeys(const json& object, const std::set<std::string>& known,
               const std::string& where)
{
    if (!object.is_object())
    {
        fail(where, "not an object");
    }
    for (const auto& item : object.items())
    {
        if (!known.contains(item.key()))
        {
            fail(where, "unknown key \"" + item.key() + "\"");
        }
    }
}

std::string text(const json& object, const char* key, const std::string& where,
                 bool required = false)
{
    if (!object.contains(key))
    {
        if (required)
        {
            fail(where, std::string("needs \"") + key + "\"");
        }
        return {};
    }
    if (!object[key].is_string())
    {
        fail(where, std::string("\"") + key + "\" is not a string");
    }
    return object[key].get<std::string>();
}

// Numbers are written as JSON numbers or as "0x.." strings.
uint64_t number(const json& value, const std::string& where)
{
    if (value.is_number_unsigned())
    {
        return value.get<uint64_t>();
    }
    if (value.is_string())
    {
        const std::string& s = value.get_ref<const std::string&>();
        char* end = nullptr;
        uint64_t n = strtoull(s.c_str(), &end, 0);
        if (!s.empty() && *end == '\0' && s[0] != '-')
        {
            return n;
        }
    }
    fail(where, "not a number: " + value.dump());
}

std::vector<uint8_t> hexBytes(const std::string& s, const std::string& where)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : s)
    {
        if (c == ' ')
        {
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(c)))
        {
            fail(where, "not hexadecimal bytes: \"" + s + "\"");
        }
        digits += c;
    }
    if (digits.size() % 2 != 0)
    {
        fail(where, "odd number of hexadecimal digits: \"" + s + "\"");
    }
    for (size_t i = 0; i < digits.size(); i += 2)
    {
        out.push_back(static_cast<uint8_t>(
            strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return out;
}

Condition condition(const json& object, const std::string& where)
{
    if (!object.is_object() || object.size() != 1)
    {
        fail(where, "\"when\" names exactly one field");
    }
    Condition c;
    c.field = object.begin().key();
    const json& values = object.begin().value();
    if (values.is_array())
    {
        for (const auto& v : values)
        {
            c.values.push_back(number(v, where));
        }
    }
    else
    {
        c.values.push_back(number(values, where));
    }
    return c;
}

Field field(const json& object, const std::string& parent)
{
    std::string where = parent + " field " + text(object, "name", parent, true);
    checkKeys(object,
              {"name", "type", "about", "unit", "size", "value", "values",
               "bits", "range", "min", "max", "default", "charset", "record",
               "when", "optional", "hex", "status", "ok"},
              where);
    Field f;
    f.name = text(object, "name", where, true);
    auto type = typeNames.find(text(object, "type", where, true));
    if (type == typeNames.end())
    {
        fail(where, "unknown type \"" + text(object, "type", where) + "\"");
    }
    f.type = type->second;
    f.about = text(object, "about", where);
    f.unit = text(object, "unit", where);
    f.charset = text(object, "charset", where);
    if (!f.charset.empty() && f.charset != "digits" && f.charset != "name" &&
        f.charset != "address")
    {
        fail(where, "unknown charset \"" + f.charset + "\"");
    }
    if (object.contains("size"))
    {
        f.size = number(object["size"], where);
    }
    if (object.contains("value"))
    {
        f.constant = hexBytes(text(object, "value", where), where);
    }
    if (object.contains("values"))
    {
        for (const auto& item : object["values"].items())
        {
            f.values[number(json(item.key()), where)] =
                item.value().get<std::string>();
        }
    }
    if (object.contains("bits"))
    {
        for (const auto& item : object["bits"].items())
        {
            f.bits[static_cast<unsigned>(number(json(item.key()), where))] =
                item.value().get<std::string>();
        }
    }
    if (object.contains("range"))
    {
        const json& range = object["range"];
        if (!range.is_array() || range.size() != 2)
        {
            fail(where, "\"range\" is [MIN, MAX]");
        }
        f.min = number(range[0], where);
        f.max = number(range[1], where);
    }
    if (object.contains("min"))
    {
        f.min = number(object["min"], where);
    }
    if (object.contains("max"))
    {
        f.max = number(object["max"], where);
    }
    if (object.contains("default"))
    {
        f.defaultArgument = text(object, "default", where);
    }
    if (object.contains("when"))
    {
        f.when = condition(object["when"], where);
    }
    f.optional = object.value("optional", false);
    f.hex = object.value("hex", false);
    f.status = object.value("status", false);
    if (object.contains("ok"))
    {
        f.ok.clear();
        for (const auto& v : object["ok"])
        {
            f.ok.push_back(number(v, where));
        }
    }
    if (object.contains("record"))
    {
        for (const auto& r : object["record"])
        {
            f.record.push_back(field(r, where));
        }
    }

    // The sizes that the types fix, and the ones they need.
    switch (f.type)
    {
        case Type::constant:
            if (f.constant.empty())
            {
                fail(where, "a constant needs its \"value\"");
            }
            f.size = f.constant.size();
            break;
        case Type::reserved:
        case Type::hextext:
            if (f.size == 0)
            {
                fail(where, "needs a \"size\"");
            }
            break;
        case Type::uuid:
            f.size = 16;
            break;
        case Type::records:
            if (f.record.empty() || f.recordWidth() == 0)
            {
                fail(where, "records need fixed-width \"record\" fields");
            }
            break;
        case Type::flags:
            if (f.bits.empty())
            {
                fail(where, "flags need their \"bits\"");
            }
            break;
        default:
            break;
    }
    if (f.isNumber())
    {
        f.size = f.width();
    }
    if (f.max && f.isNumber() && *f.max > f.maxNumber())
    {
        fail(where, "range beyond the type");
    }
    return f;
}

// A variable-width field can only come last; a condition may only look at
// request fields that come before.
void checkFields(const std::vector<Field>& fields,
                 const std::vector<Field>& request, bool isRequest,
                 const std::string& where)
{
    std::set<std::string> seen;
    for (size_t i = 0; i < fields.size(); ++i)
    {
        const Field& f = fields[i];
        if (!seen.insert(f.name).second)
        {
            fail(where, "two fields named " + f.name);
        }
        if (f.width() == 0 && i + 1 != fields.size() && !f.when)
        {
            fail(where, f.name + " has no fixed width but is not last");
        }
        if (f.when)
        {
            const auto& scope = isRequest ? fields : request;
            auto end =
                isRequest ? scope.begin() + static_cast<long>(i) : scope.end();
            if (std::none_of(scope.begin(), end, [&](const Field& r) {
                    return r.name == f.when->field && r.isNumber();
                }))
            {
                fail(where,
                     f.name + " depends on an unknown field " + f.when->field);
            }
        }
        if (isRequest && i > 0 && fields[i - 1].optional && !f.optional)
        {
            fail(where, f.name + " follows an optional field");
        }
    }
}

Command command(const json& object, const std::set<std::string>& groups)
{
    std::string where = "command " + text(object, "name", "command", true);
    checkKeys(object,
              {"name", "netfn", "cmd", "group", "effect", "request", "answer",
               "codes", "notes", "examples"},
              where);
    Command c;
    c.name = text(object, "name", where, true);
    c.group = text(object, "group", where, true);
    if (!groups.contains(c.group))
    {
        fail(where, "unknown group \"" + c.group + "\"");
    }
    c.effect = text(object, "effect", where, true);
    c.notes = text(object, "notes", where);
    uint64_t netfn = number(object.at("netfn"), where);
    uint64_t cmd = number(object.at("cmd"), where);
    if (netfn > 0x3F || cmd > 0xFF)
    {
        fail(where, "NetFn or command out of range");
    }
    c.netfn = static_cast<uint8_t>(netfn);
    c.cmd = static_cast<uint8_t>(cmd);
    for (const auto& f : object.at("request"))
    {
        c.request.push_back(field(f, where + " request"));
    }
    checkFields(c.request, c.request, true, where + " request");
    for (const auto& l : object.at("answer"))
    {
        std::string at = where + " answer";
        checkKeys(l, {"when", "match", "failure", "note", "fields"}, at);
        Layout layout;
        if (l.contains("when"))
        {
            layout.when = condition(l["when"], at);
        }
        if (l.contains("match"))
        {
            layout.match = hexBytes(text(l, "match", at), at);
        }
        layout.failure = text(l, "failure", at);
        layout.note = text(l, "note", at);
        if (l.contains("fields"))
        {
            for (const auto& f : l["fields"])
            {
                layout.fields.push_back(field(f, at));
            }
        }
        if (layout.match.has_value() == l.contains("fields"))
        {
            fail(at, "a layout has either \"match\" or \"fields\"");
        }
        checkFields(layout.fields, c.request, false, at);
        c.answer.push_back(std::move(layout));
    }
    if (c.answer.empty())
    {
        fail(where, "no answer layout");
    }
    if (object.contains("codes"))
    {
        for (const auto& item : object["codes"].items())
        {
            c.codes[static_cast<uint8_t>(number(json(item.key()), where))] =
                item.value().get<std::string>();
        }
    }
    for (const auto& example : object.at("examples"))
    {
        c.examples.push_back(example.get<std::vector<std::string>>());
    }
    return c;
}

} // namespace

bool Field::isNumber() const
{
    switch (type)
    {
        case Type::u8:
        case Type::u16le:
        case Type::u16be:
        case Type::u24be:
        case Type::u32le:
        case Type::u32be:
        case Type::flags:
            return true;
        default:
            return false;
    }
}

bool Field::takesArgument() const
{
    return type != Type::constant && type != Type::reserved;
}

size_t Field::width() const
{
    switch (type)
    {
        case Type::u8:
        case Type::flags:
            return 1;
        case Type::u16le:
        case Type::u16be:
            return 2;
        case Type::u24be:
            return 3;
        case Type::u32le:
        case Type::u32be:
            return 4;
        case Type::cstring:
        case Type::records:
            return 0;
        case Type::hextext:
            return size + 1;
        default:
            return size;
    }
}

size_t Field::recordWidth() const
{
    size_t total = 0;
    for (const auto& f : record)
    {
        if (f.width() == 0)
        {
            return 0;
        }
        total += f.width();
    }
    return total;
}

uint64_t Field::maxNumber() const
{
    size_t w = width();
    return w >= 8 ? UINT64_MAX : (uint64_t{1} << (8 * w)) - 1;
}

size_t Layout::minimumLength() const
{
    if (match)
    {
        return match->size();
    }
    size_t total = 0;
    for (const auto& f : fields)
    {
        total += f.width();
    }
    return total;
}

bool Layout::variable() const
{
    return std::any_of(fields.begin(), fields.end(),
                       [](const Field& f) { return f.width() == 0; });
}

const Command* Description::find(std::string_view name) const
{
    for (const auto& c : commands)
    {
        if (c.name == name)
        {
            return &c;
        }
    }
    return nullptr;
}

std::string Description::codeMeaning(const Command& command, uint8_t code) const
{
    if (auto own = command.codes.find(code); own != command.codes.end())
    {
        return own->second;
    }
    if (auto generic = completionCodes.find(code);
        generic != completionCodes.end())
    {
        return generic->second;
    }
    return "Unknown (0x" + std::string(1, "0123456789abcdef"[code >> 4]) +
           std::string(1, "0123456789abcdef"[code & 15]) + ")";
}

Description parseDescription(std::string_view text)
{
    json root;
    try
    {
        root = json::parse(text);
    }
    catch (const json::exception& e)
    {
        throw DescriptionError(e.what());
    }
    try
    {
        checkKeys(root, {"about", "completion_codes", "groups", "commands"},
                  "description");
        Description d;
        d.about = root.value("about", "");
        for (const auto& item : root.at("completion_codes").items())
        {
            d.completionCodes[static_cast<uint8_t>(
                number(json(item.key()), "completion_codes"))] =
                item.value().get<std::string>();
        }
        std::set<std::string> groupIds;
        for (const auto& g : root.at("groups"))
        {
            checkKeys(g, {"id", "title", "about"}, "group");
            d.groups.push_back(
                {g.at("id"), g.at("title"), g.value("about", "")});
            groupIds.insert(d.groups.back().id);
        }
        std::set<std::pair<uint8_t, uint8_t>> pairs;
        for (const auto& c : root.at("commands"))
        {
            d.commands.push_back(command(c, groupIds));
            const Command& added = d.commands.back();
            if (!pairs.insert({added.netfn, added.cmd}).second ||
                std::count_if(d.commands.begin(), d.commands.end(),
                              [&](const Command& other) {
                                  return other.name == added.name;
                              }) != 1)
            {
                fail("command " + added.name, "described twice");
            }
        }
        return d;
    }
    catch (const json::exception& e)
    {
        throw DescriptionError(e.what());
    }
}

const Description& builtinDescription()
{
    static const Description description = parseDescription(oemCommandsJson);
    return description;
}

std::string typeName(const Field& field)
{
    for (const auto& [name, type] : typeNames)
    {
        if (type == field.type)
        {
            return name;
        }
    }
    return "?";
}

} // namespace oemclient
