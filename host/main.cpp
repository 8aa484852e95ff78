// SPDX-License-Identifier: Apache-2.0
// ipmi-oem-host: loads the OEM provider as the IPMI host daemon does and
// answers requests from the command line, optionally inside a sandbox root.

#include "host.hpp"

#include <dlfcn.h>
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#ifndef OEM_PLUGIN_BUILD_PATH
#define OEM_PLUGIN_BUILD_PATH ""
#endif
#ifndef OEM_PLUGIN_INSTALL_PATH
#define OEM_PLUGIN_INSTALL_PATH "/usr/lib/ipmid-providers/libipmioem.so.0"
#endif

namespace
{

// Answers are printed here; standard output itself is pointed at standard
// error while the plug-in runs, because some of its diagnostics are printed
// on standard output and must not mix with the answer bytes.
FILE* answers = stdout;

void separateAnswersFromDiagnostics()
{
    fflush(stdout);
    int fd = dup(STDOUT_FILENO);
    FILE* stream = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (stream == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    {
        return;
    }
    answers = stream;
}

void usage(FILE* out)
{
    fprintf(
        out,
        "usage: ipmi-oem-host [OPTIONS] raw NETFN CMD [BYTE...]\n"
        "       ipmi-oem-host [OPTIONS] list\n"
        "       ipmi-oem-host [OPTIONS] --batch < requests\n"
        "\n"
        "  --plugin PATH         provider to load (default: the build's,\n"
        "                        else " OEM_PLUGIN_INSTALL_PATH ")\n"
        "  --root DIR            chroot into DIR after loading\n"
        "  --bus ADDRESS         D-Bus address handed to the provider\n"
        "  --override SLOT=NAME  install the provider's exported handler\n"
        "                        NAME in override slot SLOT\n"
        "  --batch               one request per line on standard input\n"
        "                        (NETFN CMD BYTE...), one answer per\n"
        "                        line (CC BYTE...) on standard output\n"
        "\n"
        "Numbers are decimal or 0x-prefixed hex, as ipmitool takes them.\n");
}

// ipmitool's rule: strtoul with base 0, the whole word, 0..255.
std::optional<uint8_t> parseByte(const std::string& word)
{
    if (word.empty())
    {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(word.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || value > 0xFF || word[0] == '-')
    {
        return std::nullopt;
    }
    return static_cast<uint8_t>(value);
}

bool parseRequest(const std::vector<std::string>& words, uint8_t& netfn,
                  uint8_t& cmd, std::vector<uint8_t>& data, std::string& error)
{
    if (words.size() < 2)
    {
        error = "a request needs NETFN and CMD";
        return false;
    }
    for (size_t i = 0; i < words.size(); ++i)
    {
        auto value = parseByte(words[i]);
        if (!value)
        {
            error = "invalid byte '" + words[i] + "'";
            return false;
        }
        if (i == 0)
        {
            netfn = *value;
        }
        else if (i == 1)
        {
            cmd = *value;
        }
        else
        {
            data.push_back(*value);
        }
    }
    return true;
}

std::string defaultPlugin()
{
    const char* built = OEM_PLUGIN_BUILD_PATH;
    if (built[0] != '\0' && access(built, R_OK) == 0)
    {
        return built;
    }
    return OEM_PLUGIN_INSTALL_PATH;
}

int runRaw(uint8_t netfn, uint8_t cmd, const std::vector<uint8_t>& data)
{
    auto answer = oemhost::dispatch(netfn, cmd, data.data(), data.size());
    if (answer.cc != 0)
    {
        fprintf(stderr,
                "Unable to send RAW command (channel=0x0 netfn=0x%x lun=0x0 "
                "cmd=0x%x rsp=0x%x): %s\n",
                netfn, cmd, answer.cc,
                oemhost::completionCodeText(answer.cc).c_str());
    }
    if (answer.cc == 0 || !answer.data.empty())
    {
        for (size_t i = 0; i < answer.data.size(); ++i)
        {
            if (i % 16 == 0 && i != 0)
            {
                fprintf(answers, "\n");
            }
            fprintf(answers, " %02x", answer.data[i]);
        }
        fprintf(answers, "\n");
    }
    fflush(answers);
    return answer.cc == 0 ? 0 : 1;
}

int runBatch()
{
    int status = 0;
    std::string line;
    while (std::getline(std::cin, line))
    {
        std::istringstream words(line);
        std::vector<std::string> tokens;
        for (std::string word; words >> word;)
        {
            tokens.push_back(word);
        }
        if (tokens.empty() || tokens[0][0] == '#')
        {
            continue;
        }
        uint8_t netfn = 0;
        uint8_t cmd = 0;
        std::vector<uint8_t> data;
        std::string error;
        if (!parseRequest(tokens, netfn, cmd, data, error))
        {
            fprintf(answers, "error: %s\n", error.c_str());
            fflush(answers);
            status = 1;
            continue;
        }
        auto answer = oemhost::dispatch(netfn, cmd, data.data(), data.size());
        // Whatever the plug-in printed belongs to this request: out before
        // its answer line.
        fflush(stdout);
        fprintf(answers, "%02x", answer.cc);
        for (uint8_t byte : answer.data)
        {
            fprintf(answers, " %02x", byte);
        }
        fprintf(answers, "\n");
        fflush(answers);
    }
    return status;
}

bool installOverride(void* plugin, const std::string& spec, std::string& error)
{
    auto equals = spec.find('=');
    if (equals == std::string::npos)
    {
        error = "--override wants SLOT=NAME, not '" + spec + "'";
        return false;
    }
    auto slot = parseByte(spec.substr(0, equals));
    std::string name = spec.substr(equals + 1);
    if (!slot)
    {
        error = "invalid override slot in '" + spec + "'";
        return false;
    }
    using Register = int32_t (*)(int, ipmid_callback_t);
    auto install =
        reinterpret_cast<Register>(dlsym(plugin, "regiter_functions"));
    auto handler =
        reinterpret_cast<ipmid_callback_t>(dlsym(plugin, name.c_str()));
    if (install == nullptr || handler == nullptr)
    {
        error = "the provider exports no " +
                std::string(install == nullptr ? "regiter_functions" : name);
        return false;
    }
    if (install(*slot, handler) != 0)
    {
        error = "the provider refused override '" + spec + "'";
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    std::string plugin = defaultPlugin();
    std::string root;
    std::string busAddress;
    std::vector<std::string> overrides;
    bool batch = false;

    static const option options[] = {
        {"plugin", required_argument, nullptr, 'p'},
        {"root", required_argument, nullptr, 'r'},
        {"bus", required_argument, nullptr, 'b'},
        {"override", required_argument, nullptr, 'o'},
        {"batch", no_argument, nullptr, 'B'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int opt;
         (opt = getopt_long(argc, argv, "+h", options, nullptr)) != -1;)
    {
        switch (opt)
        {
            case 'p':
                plugin = optarg;
                break;
            case 'r':
                root = optarg;
                break;
            case 'b':
                busAddress = optarg;
                break;
            case 'o':
                overrides.emplace_back(optarg);
                break;
            case 'B':
                batch = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    std::vector<std::string> args(argv + optind, argv + argc);

    enum class Mode
    {
        raw,
        list,
        lines
    } mode;
    uint8_t netfn = 0;
    uint8_t cmd = 0;
    std::vector<uint8_t> data;
    std::string error;
    if (batch && args.empty())
    {
        mode = Mode::lines;
    }
    else if (!batch && args.size() == 1 && args[0] == "list")
    {
        mode = Mode::list;
    }
    else if (!batch && !args.empty() && args[0] == "raw")
    {
        mode = Mode::raw;
        if (!parseRequest({args.begin() + 1, args.end()}, netfn, cmd, data,
                          error))
        {
            fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
            return 2;
        }
    }
    else
    {
        usage(stderr);
        return 2;
    }

    separateAnswersFromDiagnostics();

    // Namespaces first (they take a fork), then everything from the real
    // root: the D-Bus connection, the provider and all it links. Only then
    // the sandbox.
    if (!root.empty() && mode != Mode::list && !oemhost::isolate(error))
    {
        fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
        return 1;
    }
    if (!busAddress.empty() && !oemhost::connectBus(busAddress, error))
    {
        fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
        return 1;
    }
    void* handle = oemhost::loadPlugin(plugin, error);
    if (handle == nullptr)
    {
        fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
        return 1;
    }
    for (const auto& spec : overrides)
    {
        if (!installOverride(handle, spec, error))
        {
            fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
            return 1;
        }
    }

    if (mode == Mode::list)
    {
        for (const auto& entry : oemhost::registrations())
        {
            fprintf(answers, "0x%02x 0x%02x 0x%02x %s\n", entry.netfn,
                    entry.cmd, entry.privilege,
                    oemhost::handlerName(entry.handler).c_str());
        }
        return 0;
    }

    if (!root.empty() && !oemhost::enterRoot(root, error))
    {
        fprintf(stderr, "ipmi-oem-host: %s\n", error.c_str());
        return 1;
    }
    return mode == Mode::raw ? runRaw(netfn, cmd, data) : runBatch();
}
