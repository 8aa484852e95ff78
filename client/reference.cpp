// SPDX-License-Identifier: Apache-2.0
#include "reference.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace oemclient
{

namespace
{

std::string hex2(uint64_t n)
{
    char buf[24];
    snprintf(buf, sizeof(buf), "0x%02llx", static_cast<unsigned long long>(n));
    return buf;
}

// Table cells hold no bar and no line end.
std::string cell(std::string s)
{
    std::string out;
    for (char c : s)
    {
        if (c == '|')
        {
            out += "\\|";
        }
        else
        {
            out += c == '\n' ? ' ' : c;
        }
    }
    return out;
}

std::string typeText(const Field& f)
{
    std::string size = f.size ? "[" + std::to_string(f.size) + "]" : "";
    switch (f.type)
    {
        case Type::u8:
            return "u8";
        case Type::u16le:
            return "u16 LE";
        case Type::u16be:
            return "u16 BE";
        case Type::u24be:
            return "u24 BE";
        case Type::u32le:
            return "u32 LE";
        case Type::u32be:
            return "u32 BE";
        case Type::constant:
            return "`" + hexString(f.constant) + "`";
        case Type::reserved:
            return "zeros" + size;
        case Type::text:
            return "text" + size;
        case Type::cstring:
            return "text, then 00";
        case Type::hextext:
            return "hex text" + size + ", then 00";
        case Type::bytes:
            return "bytes" + size;
        case Type::uuid:
            return "UUID[16]";
        case Type::flags:
            return "flags";
        case Type::records:
            return std::to_string(f.recordWidth()) + "-byte records";
    }
    return "";
}

std::string numberName(const Field& f, uint64_t n)
{
    return f.hex ? hex2(n) : std::to_string(n);
}

// "selector is 0", numbers written as the request field shows them.
std::string conditionText(const Condition& c, const Command& command)
{
    const Field* subject = nullptr;
    for (const auto& f : command.request)
    {
        subject = f.name == c.field ? &f : subject;
    }
    std::string values;
    for (uint64_t n : c.values)
    {
        values += (values.empty() ? "" : " or ") +
                  (subject && subject->hex ? hex2(n) : std::to_string(n));
    }
    return c.field + " is " + values;
}

std::string meaning(const Field& f, const Command& command)
{
    std::vector<std::string> parts;
    if (!f.about.empty())
    {
        parts.push_back(f.about);
    }
    if (!f.values.empty())
    {
        std::string v;
        for (const auto& [n, name] : f.values)
        {
            v += (v.empty() ? "" : ", ") + numberName(f, n) + " = " + name;
        }
        parts.push_back(v);
    }
    for (const auto& [bit, name] : f.bits)
    {
        parts.push_back("bit " + std::to_string(bit) + ": " + name);
    }
    if (f.isNumber() && (f.min || f.max))
    {
        parts.push_back(numberName(f, f.min.value_or(0)) + " to " +
                        numberName(f, f.max.value_or(f.maxNumber())));
    }
    else if (!f.isNumber() && f.max)
    {
        std::string unit = f.type == Type::bytes     ? " bytes"
                           : f.type == Type::records ? " records"
                                                     : " characters";
        parts.push_back(f.min ? std::to_string(*f.min) + " to " +
                                    std::to_string(*f.max) + unit
                              : "at most " + std::to_string(*f.max) + unit);
    }
    if (!f.unit.empty())
    {
        parts.push_back("in " + f.unit);
    }
    if (f.defaultArgument)
    {
        parts.push_back("default " + *f.defaultArgument);
    }
    if (f.status)
    {
        std::string ok;
        for (uint64_t n : f.ok)
        {
            ok += (ok.empty() ? "" : ", ") + numberName(f, n);
        }
        parts.push_back("any other value than " + ok + ": the command failed");
    }
    if (f.when)
    {
        parts.push_back("only when " + conditionText(*f.when, command));
    }
    if (f.optional)
    {
        parts.push_back("optional");
    }
    std::string out;
    for (const auto& p : parts)
    {
        out += (out.empty() ? "" : "; ") + p;
    }
    return cell(out);
}

bool overlap(const Field& before, const Field& f)
{
    if (!before.when)
    {
        return true;
    }
    if (!f.when || before.when->field != f.when->field)
    {
        return false;
    }
    return std::any_of(before.when->values.begin(), before.when->values.end(),
                       [&](uint64_t v) {
                           return std::find(f.when->values.begin(),
                                            f.when->values.end(),
                                            v) != f.when->values.end();
                       });
}

// Byte positions: a field starts after the earlier ones that are sent with
// it; after one of variable width the positions are no longer fixed.
std::string fieldTable(const std::vector<Field>& fields, std::string& records,
                       const Command& command)
{
    std::string out = "| Byte | Field | Type | Meaning |\n|---|---|---|---|\n";
    for (size_t i = 0; i < fields.size(); ++i)
    {
        const Field& f = fields[i];
        std::optional<size_t> start = 0;
        for (size_t j = 0; j < i && start; ++j)
        {
            if (overlap(fields[j], f))
            {
                size_t w = fields[j].width();
                start = w == 0 ? std::nullopt : std::optional(*start + w);
            }
        }
        std::string at = "…";
        if (start)
        {
            size_t w = f.width();
            at = std::to_string(*start);
            if (w == 0)
            {
                at += "…";
            }
            else if (w > 1)
            {
                at += "–" + std::to_string(*start + w - 1);
            }
        }
        out += "| " + at + " | " + f.name + " | " + cell(typeText(f)) + " | " +
               meaning(f, command) + " |\n";
        if (f.type == Type::records)
        {
            records += "\nEach record of " + f.name + " (" +
                       std::to_string(f.recordWidth()) + " bytes):\n\n" +
                       fieldTable(f.record, records, command);
        }
    }
    return out;
}

std::string ipmitoolLine(const Command& c, const Request& r)
{
    std::string line = "ipmitool raw " + hex2(c.netfn) + " " + hex2(c.cmd);
    for (uint8_t b : r.data)
    {
        line += " " + hex2(b);
    }
    return line;
}

std::string quoted(const std::string& arg)
{
    bool plain =
        !arg.empty() && std::all_of(arg.begin(), arg.end(), [](char ch) {
            return isalnum(static_cast<unsigned char>(ch)) ||
                   std::string("._-/:,=").find(ch) != std::string::npos;
        });
    return plain ? arg : "'" + arg + "'";
}

std::string exampleText(const Description& d, const Command& c,
                        const ExampleRun& run)
{
    std::string out = "    $ ipmi-oem " + c.name;
    for (const auto& arg : run.arguments)
    {
        out += " " + quoted(arg);
    }
    out += "\n";
    if (!run.reply)
    {
        return out + "    $ " + ipmitoolLine(c, run.request) + "\n";
    }
    const Reply& reply = *run.reply;
    if (reply.cc != 0)
    {
        out += "    " + c.name + ": completion code " + hex2(reply.cc) + ": " +
               d.codeMeaning(c, reply.cc) + "\n";
    }
    else
    {
        Decoded decoded = decodeAnswer(c, run.request, reply.data);
        std::string text = decoded.layout == nullptr
                               ? "(the answer fits no layout)\n"
                           : !decoded.failure.empty() ? decoded.failure + "\n"
                           : !decoded.note.empty()    ? decoded.note + "\n"
                                                   : formatText(decoded.values);
        for (size_t start = 0; start < text.size();)
        {
            size_t end = text.find('\n', start);
            out += "    " + text.substr(start, end - start) + "\n";
            start = end + 1;
        }
    }
    out += "    $ " + ipmitoolLine(c, run.request) + "\n";
    if (reply.cc != 0)
    {
        char line[160];
        snprintf(
            line, sizeof(line),
            "    Unable to send RAW command (channel=0x0 netfn=0x%x lun=0x0 "
            "cmd=0x%x rsp=0x%x): %s\n",
            c.netfn, c.cmd, reply.cc, d.codeMeaning(c, reply.cc).c_str());
        return out + line;
    }
    std::string bytes = ipmitoolBytes(reply.data);
    for (size_t start = 0; start < bytes.size();)
    {
        size_t end = bytes.find('\n', start);
        out += "    " + bytes.substr(start, end - start) + "\n";
        start = end + 1;
    }
    return out;
}

std::string anchor(const Command& c)
{
    std::string a;
    for (char ch : c.name)
    {
        a += static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    }
    return a;
}

} // namespace

std::map<std::string, std::vector<ExampleRun>>
    runExamples(const Description& description, Transport* transport)
{
    std::map<std::string, std::vector<ExampleRun>> runs;
    for (const auto& c : description.commands)
    {
        for (const auto& args : c.examples)
        {
            ExampleRun run{args, encodeRequest(c, args), std::nullopt};
            if (transport != nullptr)
            {
                run.reply = transport->send(c.netfn, c.cmd, run.request.data);
            }
            runs[c.name].push_back(std::move(run));
        }
    }
    return runs;
}

std::string usageLine(const Command& c)
{
    std::string line = "ipmi-oem [CONNECTION] [--json] " + c.name;
    for (const auto& f : c.request)
    {
        if (!f.takesArgument())
        {
            continue;
        }
        std::string name = f.name;
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char ch) { return toupper(ch); });
        if (f.type == Type::records)
        {
            name += "...";
        }
        bool optional = f.optional || f.defaultArgument || f.when;
        line += optional ? " [" + name + "]" : " " + name;
    }
    return line;
}

std::string commandSection(const Description& d, const Command& c,
                           const std::vector<ExampleRun>& runs)
{
    std::string out = "### " + c.name + "\n\nNetFn " + hex2(c.netfn) +
                      ", command " + hex2(c.cmd) + ". " + c.effect + "\n\n" +
                      "    " + usageLine(c) + "\n\n";
    std::string records;
    if (c.request.empty())
    {
        out += "Request: no data.\n\n";
    }
    else
    {
        out +=
            "Request:\n\n" + fieldTable(c.request, records, c) + records + "\n";
    }
    for (const auto& layout : c.answer)
    {
        records.clear();
        std::string when =
            layout.when ? " when " + conditionText(*layout.when, c) : "";
        if (layout.match)
        {
            out += "Answer `" + hexString(*layout.match) + "`" + when + ": " +
                   (layout.failure.empty() ? layout.note
                                           : "fails: " + layout.failure) +
                   ".\n\n";
            continue;
        }
        if (layout.fields.empty())
        {
            out += "Answer" + when + ": no data.\n\n";
            continue;
        }
        size_t length = layout.minimumLength();
        out += "Answer" + when + " (" + (layout.variable() ? "at least " : "") +
               std::to_string(length) + (length == 1 ? " byte" : " bytes") +
               "):\n\n" + fieldTable(layout.fields, records, c) + records +
               "\n";
    }
    if (!c.codes.empty())
    {
        out +=
            "Completion codes besides 0x00:\n\n| Code | Meaning |\n|---|---|\n";
        for (const auto& [code, text] : c.codes)
        {
            out += "| " + hex2(code) + " | " + cell(text) + " |\n";
        }
        out += "\n";
    }
    if (!c.notes.empty())
    {
        out += c.notes + "\n\n";
    }
    for (const auto& run : runs)
    {
        out += "Example:\n\n" + exampleText(d, c, run) + "\n";
    }
    return out;
}

std::string referenceMarkdown(
    const Description& d,
    const std::map<std::string, std::vector<ExampleRun>>& runs)
{
    std::string out =
        "<!-- SPDX-License-Identifier: Apache-2.0 -->\n"
        "<!-- Generated from client/commands.json by client/gen-reference; "
        "do not edit. -->\n"
        "# OEM IPMI commands\n\n"
        "Every OEM command of the plug-in: what it does, its request and "
        "answer bytes, its completion codes, and an example as `ipmi-oem` and "
        "`ipmitool raw` send it, with the answer the simulated default board "
        "gives (`./bmc-sim up`).\n\n"
        "Conventions: byte positions count from the first data byte after "
        "the command byte; the completion code is not counted. `u16 LE` is "
        "a 16-bit number least significant byte first, `BE` most "
        "significant first. `text[N]` is N bytes of text, zero-padded; "
        "`text` without a size runs to the end of the answer. A `const` "
        "is sent and answered exactly so. Where a command answers in more "
        "than one form, each form is listed; an answer that says the "
        "command failed comes with completion code 0x00 all the same, and "
        "`ipmi-oem` then prints its meaning and exits with status 1.\n\n";
    for (const auto& g : d.groups)
    {
        out += "- [" + g.title + "](#" + g.id + ")\n";
    }
    for (const auto& g : d.groups)
    {
        out += "\n<a id=\"" + g.id + "\"></a>\n\n## " + g.title + "\n\n" +
               g.about +
               "\n\n| Command | NetFn | Cmd | Effect |\n"
               "|---|---|---|---|\n";
        for (const auto& c : d.commands)
        {
            if (c.group == g.id)
            {
                out += "| [" + c.name + "](#" + anchor(c) + ") | " +
                       hex2(c.netfn) + " | " + hex2(c.cmd) + " | " +
                       cell(c.effect) + " |\n";
            }
        }
        for (const auto& c : d.commands)
        {
            if (c.group == g.id)
            {
                auto found = runs.find(c.name);
                out += "\n" + commandSection(d, c,
                                             found == runs.end()
                                                 ? std::vector<ExampleRun>{}
                                                 : found->second);
            }
        }
    }
    while (out.size() > 1 && out[out.size() - 1] == '\n' &&
           out[out.size() - 2] == '\n')
    {
        out.pop_back();
    }
    return out;
}

} // namespace oemclient
