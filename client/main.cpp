// SPDX-License-Identifier: Apache-2.0
// ipmi-oem: the OEM commands by name, with checked arguments and decoded
// answers, out of band (RMCP+), in band (/dev/ipmi0) or on a simulated board.

#include "codec.hpp"
#include "description.hpp"
#include "reference.hpp"
#include "transport.hpp"

#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace oemclient;

namespace
{

// What the user asked for goes here. With --root, the plug-in runs in this
// process and prints diagnostics on standard output too, so standard output
// then points at standard error and this at the real standard output.
FILE* out = stdout;

void separateOutputFromDiagnostics()
{
    fflush(stdout);
    int fd = dup(STDOUT_FILENO);
    FILE* stream = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (stream != nullptr && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0)
    {
        out = stream;
    }
}

void usage(FILE* stream)
{
    fprintf(
        stream,
        "usage: ipmi-oem [CONNECTION] [--json] NAME [ARG...]\n"
        "       ipmi-oem [CONNECTION] [--json] raw NETFN CMD [BYTE...]\n"
        "       ipmi-oem list\n"
        "       ipmi-oem help [NAME]\n"
        "       ipmi-oem [CONNECTION] reference   (Markdown; with a "
        "connection,\n"
        "                                         the examples' answers)\n"
        "\n"
        "CONNECTION, as ipmitool takes it:\n"
        "  -I lanplus -H HOST [-p PORT] -U USER (-P PASSWORD | -E) [-C SUITE]\n"
        "             [-L USER|OPERATOR|ADMINISTRATOR]\n"
        "                     IPMI 2.0 over the network (cipher suite 3 by "
        "default)\n"
        "  -I open [-d N]     the server's IPMI driver, /dev/ipmiN "
        "(the default)\n"
        "  --root DIR [--bus ADDRESS] [--plugin PATH]\n"
        "                     the plug-in through the host library, on the "
        "simulated\n"
        "                     board in DIR (D-Bus: ADDRESS, else DIR's "
        "running bus)\n"
        "\n"
        "Arguments fill the request's fields in order, or NAME=VALUE; numbers "
        "are\n"
        "decimal, 0x hexadecimal or a value's name; bytes are hexadecimal. "
        "`ipmi-oem\n"
        "help NAME` shows a command's fields. Exit status: 0 done, 1 the "
        "command or\n"
        "the connection failed, 2 bad arguments (nothing was sent).\n");
}

struct Options
{
    Connection connection;
    bool connectionGiven = false;
    bool json = false;
    std::vector<std::string> args;
};

// Returns 0 on success, else the exit status.
int parseOptions(int argc, char** argv, Options& o)
{
    static const option longOptions[] = {
        {"root", required_argument, nullptr, 'r'},
        {"bus", required_argument, nullptr, 'b'},
        {"plugin", required_argument, nullptr, 'x'},
        {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Connection& c = o.connection;
    for (int opt; (opt = getopt_long(argc, argv, "+I:H:p:U:P:EC:L:d:h",
                                     longOptions, nullptr)) != -1;)
    {
        o.connectionGiven |= opt != 'j' && opt != 'h';
        switch (opt)
        {
            case 'I':
                c.interface = optarg;
                break;
            case 'H':
                c.host = optarg;
                break;
            case 'p':
                c.port = optarg;
                break;
            case 'U':
                c.user = optarg;
                break;
            case 'P':
                c.password = optarg;
                break;
            case 'E':
                c.password =
                    getenv("IPMI_PASSWORD") ? getenv("IPMI_PASSWORD") : "";
                break;
            case 'C':
                c.cipherSuite = static_cast<unsigned>(atoi(optarg));
                break;
            case 'L':
                c.privilege = optarg;
                break;
            case 'd':
                c.device = std::string("/dev/ipmi") + optarg;
                break;
            case 'r':
                c.root = optarg;
                break;
            case 'b':
                c.bus = optarg;
                break;
            case 'x':
                c.plugin = optarg;
                break;
            case 'j':
                o.json = true;
                break;
            case 'h':
                usage(stdout);
                exit(0);
            default:
                usage(stderr);
                return 2;
        }
    }
    for (int i = optind; i < argc; ++i)
    {
        if (strcmp(argv[i], "--json") == 0)
        {
            o.json = true;
        }
        else
        {
            o.args.emplace_back(argv[i]);
        }
    }
    if (c.interface.empty())
    {
        c.interface = !c.root.empty()   ? "host"
                      : !c.host.empty() ? "lanplus"
                                        : "open";
    }
    if (c.interface == "host" && c.root.empty())
    {
        fprintf(stderr, "ipmi-oem: --root DIR names the simulated board\n");
        return 2;
    }
    if (c.interface == "lanplus" && c.host.empty())
    {
        fprintf(stderr, "ipmi-oem: -I lanplus needs -H HOST\n");
        return 2;
    }
    if (c.interface != "lanplus" && c.interface != "open" &&
        c.interface != "host")
    {
        fprintf(stderr, "ipmi-oem: interface %s: use lanplus or open\n",
                c.interface.c_str());
        return 2;
    }
    return 0;
}

std::unique_ptr<Transport> open(const Connection& c)
{
    if (c.interface == "host")
    {
        separateOutputFromDiagnostics();
    }
    return connect(c);
}

int runList(const Description& d)
{
    for (const auto& c : d.commands)
    {
        fprintf(out, "%-28s 0x%02x 0x%02x  %s\n", c.name.c_str(), c.netfn,
                c.cmd, c.effect.c_str());
    }
    return 0;
}

int runHelp(const Description& d, const std::vector<std::string>& args)
{
    if (args.size() < 2)
    {
        usage(out);
        return 0;
    }
    const Command* c = d.find(args[1]);
    if (c == nullptr)
    {
        fprintf(stderr, "ipmi-oem: no command %s (ipmi-oem list)\n",
                args[1].c_str());
        return 2;
    }
    fputs(commandSection(d, *c, {}).c_str(), out);
    return 0;
}

// One exchange as JSON, and the failure it means (empty: none).
nlohmann::ordered_json exchangeJson(const Description& d, const Command& c,
                                    const Request& request, const Reply& reply,
                                    std::string& failure, Decoded& decoded)
{
    failure.clear();
    if (reply.cc != 0)
    {
        failure = d.codeMeaning(c, reply.cc);
    }
    else
    {
        decoded = decodeAnswer(c, request, reply.data);
        failure = decoded.layout == nullptr
                      ? "the answer (" + std::to_string(reply.data.size()) +
                            " bytes) fits none of the command's layouts"
                      : decoded.failure;
    }
    char id[8];
    nlohmann::ordered_json j;
    j["command"] = c.name;
    snprintf(id, sizeof(id), "0x%02x", c.netfn);
    j["netfn"] = id;
    snprintf(id, sizeof(id), "0x%02x", c.cmd);
    j["cmd"] = id;
    j["request"] = hexString(request.data);
    j["completion_code"] = reply.cc;
    j["answer"] = hexString(reply.data);
    if (decoded.layout != nullptr)
    {
        j["layout"] = decoded.layout - c.answer.data();
    }
    j["fields"] = formatJson(decoded.values);
    if (!failure.empty())
    {
        j["failure"] = failure;
    }
    if (!decoded.note.empty())
    {
        j["note"] = decoded.note;
    }
    return j;
}

int runReference(const Description& d, const Options& o)
{
    std::unique_ptr<Transport> transport;
    if (o.connectionGiven)
    {
        transport = open(o.connection);
    }
    auto runs = runExamples(d, transport.get());
    if (!o.json)
    {
        fputs(referenceMarkdown(d, runs).c_str(), out);
        return 0;
    }
    auto list = nlohmann::ordered_json::array();
    for (const auto& c : d.commands)
    {
        for (const auto& run : runs[c.name])
        {
            std::string failure;
            Decoded decoded;
            auto j =
                exchangeJson(d, c, run.request, run.reply.value_or(Reply{}),
                             failure, decoded);
            j["arguments"] = run.arguments;
            list.push_back(j);
        }
    }
    fprintf(out, "%s\n", list.dump(1).c_str());
    return 0;
}

bool parseByte(const std::string& word, uint8_t& byte)
{
    char* end = nullptr;
    unsigned long n = strtoul(word.c_str(), &end, 0);
    if (word.empty() || *end != '\0' || n > 0xFF || word[0] == '-')
    {
        return false;
    }
    byte = static_cast<uint8_t>(n);
    return true;
}

int runRaw(const Options& o)
{
    std::vector<uint8_t> bytes(o.args.size() - 1);
    for (size_t i = 1; i < o.args.size(); ++i)
    {
        if (!parseByte(o.args[i], bytes[i - 1]))
        {
            fprintf(stderr, "ipmi-oem: invalid byte '%s'\n", o.args[i].c_str());
            return 2;
        }
    }
    if (bytes.size() < 2)
    {
        fprintf(stderr, "ipmi-oem: raw needs NETFN and CMD\n");
        return 2;
    }
    auto transport = open(o.connection);
    std::vector<uint8_t> data(bytes.begin() + 2, bytes.end());
    Reply reply = transport->send(bytes[0], bytes[1], data);
    if (o.json)
    {
        nlohmann::ordered_json j = {{"completion_code", reply.cc},
                                    {"answer", hexString(reply.data)}};
        fprintf(out, "%s\n", j.dump(2).c_str());
    }
    else if (reply.cc == 0)
    {
        fputs(ipmitoolBytes(reply.data).c_str(), out);
    }
    else
    {
        fprintf(stderr, "ipmi-oem: completion code 0x%02x: %s\n", reply.cc,
                builtinDescription().completionCodes.contains(reply.cc)
                    ? builtinDescription().completionCodes.at(reply.cc).c_str()
                    : "Unknown");
    }
    return reply.cc == 0 ? 0 : 1;
}

int runCommand(const Description& d, const Command& c, const Options& o)
{
    Request request;
    try
    {
        request = encodeRequest(c, {o.args.begin() + 1, o.args.end()});
    }
    catch (const ArgumentError& e)
    {
        fprintf(stderr, "ipmi-oem %s: %s\nusage: %s\n", c.name.c_str(),
                e.what(), usageLine(c).c_str());
        return 2;
    }
    auto transport = open(o.connection);
    Reply reply = transport->send(c.netfn, c.cmd, request.data);

    Decoded decoded;
    std::string failure;
    auto j = exchangeJson(d, c, request, reply, failure, decoded);
    if (o.json)
    {
        fprintf(out, "%s\n", j.dump(2).c_str());
    }
    else if (!failure.empty())
    {
        if (reply.cc != 0)
        {
            fprintf(stderr, "%s: completion code 0x%02x: %s\n", c.name.c_str(),
                    reply.cc, failure.c_str());
        }
        else
        {
            fprintf(stderr, "%s: %s\n", c.name.c_str(), failure.c_str());
            fprintf(stderr, "answer:%s", ipmitoolBytes(reply.data).c_str());
        }
    }
    else if (!decoded.note.empty())
    {
        fprintf(out, "%s\n", decoded.note.c_str());
    }
    else
    {
        fputs(formatText(decoded.values).c_str(), out);
    }
    return failure.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (int status = parseOptions(argc, argv, o); status != 0)
    {
        return status;
    }
    if (o.args.empty())
    {
        usage(stderr);
        return 2;
    }
    try
    {
        const Description& d = builtinDescription();
        const std::string& name = o.args[0];
        int status = 0;
        if (name == "list")
        {
            status = runList(d);
        }
        else if (name == "help")
        {
            status = runHelp(d, o.args);
        }
        else if (name == "reference")
        {
            status = runReference(d, o);
        }
        else if (name == "raw")
        {
            status = runRaw(o);
        }
        else if (const Command* c = d.find(name))
        {
            status = runCommand(d, *c, o);
        }
        else
        {
            fprintf(stderr, "ipmi-oem: no command %s (ipmi-oem list)\n",
                    name.c_str());
            status = 2;
        }
        fflush(out);
        return status;
    }
    catch (const TransportError& e)
    {
        fprintf(stderr, "ipmi-oem: %s\n", e.what());
    }
    catch (const ArgumentError& e)
    {
        fprintf(stderr, "ipmi-oem: %s\n", e.what());
        return 2;
    }
    catch (const DescriptionError& e)
    {
        fprintf(stderr, "ipmi-oem: the built-in description: %s\n", e.what());
    }
    return 1;
}
