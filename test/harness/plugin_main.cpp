// SPDX-License-Identifier: Apache-2.0
// Runs the plug-in tests the way the daemon runs the plug-in: loaded through
// the host, then inside a fresh sandbox root of the default board.

#include "plugin.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

void* g_plugin = nullptr;

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::string root = testing_sandbox::create();

    // The tests run in a child so that the parent, still outside the
    // sandbox, can remove it afterwards.
    pid_t child = fork();
    if (child == 0)
    {
        std::string error;
        if (!oemhost::isolate(error))
        {
            fprintf(stderr, "%s\n", error.c_str());
            exit(1);
        }
        // The plug-in builds its bus object when it is loaded: the bus
        // comes first. Its processes end with our PID namespace.
        if (!oemhost::connectBus(testing_sandbox::startBus(root), error))
        {
            fprintf(stderr, "%s\n", error.c_str());
            exit(1);
        }
        g_plugin = oemhost::loadPlugin(OEM_PLUGIN_PATH, error);
        if (g_plugin == nullptr || !oemhost::enterRoot(root, error))
        {
            fprintf(stderr, "%s\n", error.c_str());
            exit(1);
        }
        exit(RUN_ALL_TESTS());
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
