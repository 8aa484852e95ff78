// SPDX-License-Identifier: Apache-2.0

#include "sandbox.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testing_sandbox
{

std::string create(const std::string& board)
{
    char dir[] = "/tmp/oem-sandbox-XXXXXX";
    if (mkdtemp(dir) == nullptr)
    {
        perror("mkdtemp");
        abort();
    }
    std::string cmd = std::string(MKSANDBOX) + " --force ";
    if (!board.empty())
    {
        cmd += "--board '" + board + "' ";
    }
    cmd += std::string(dir) + " >/dev/null";
    if (system(cmd.c_str()) != 0)
    {
        fprintf(stderr, "cannot create a sandbox: %s\n", cmd.c_str());
        abort();
    }
    return dir;
}

std::string startBus(const std::string& root)
{
    std::string command = std::string(START_SIM_BUS) + " --sim '" +
                          BMC_DBUS_SIM + "' '" + root + "'";
    FILE* out = popen(command.c_str(), "r");
    char line[512] = "";
    bool read = out != nullptr && fgets(line, sizeof(line), out) != nullptr;
    if (out == nullptr || pclose(out) != 0 || !read)
    {
        fprintf(stderr, "cannot start the simulated D-Bus: %s\n",
                command.c_str());
        abort();
    }
    return std::string(line, strcspn(line, "\n"));
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        return "<missing>";
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& content)
{
    auto parent = std::filesystem::path(path).parent_path();
    if (!parent.empty())
    {
        std::filesystem::create_directories(parent);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

} // namespace testing_sandbox
