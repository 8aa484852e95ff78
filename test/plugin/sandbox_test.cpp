// SPDX-License-Identifier: Apache-2.0
// What the sandbox root promises the handlers: physical memory at the BMC's
// addresses, busybox tools, stand-ins that win over busybox's applets, and a
// process table of its own.

#include "plugin.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

namespace
{

std::string shell(const std::string& command)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[256];
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr)
    {
        output += buffer;
    }
    if (pipe != nullptr)
    {
        pclose(pipe);
    }
    return output;
}

TEST(Sandbox, PhysicalMemoryMapsAtTheHostExportArea)
{
    int fd = open("/dev/mem", O_RDWR | O_SYNC);
    ASSERT_GE(fd, 0);
    void* area = mmap(nullptr, 0x10000, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                      0x9FFF0000);
    ASSERT_NE(area, MAP_FAILED);
    static_cast<volatile uint8_t*>(area)[0x10] = 0xA5;
    munmap(area, 0x10000);

    uint8_t byte = 0;
    EXPECT_EQ(pread(fd, &byte, 1, 0x9FFF0010), 1);
    EXPECT_EQ(byte, 0xA5);
    close(fd);

    // busybox devmem reads and writes the same file.
    EXPECT_EQ(shell("devmem 0x9fff0010 8"), "0xA5\n");
    shell("devmem 0x1e6e2070 32 0x00c0ffee");
    EXPECT_EQ(shell("devmem 0x1e6e2070 32"), "0x00C0FFEE\n");
}

TEST(Sandbox, StandInsWinOverBusyboxAppletsAndLogTheirCommandLine)
{
    unlink("/var/log/sim/commands.log");
    writeFile("/var/sim/tools/halt.out", "halting\n");
    writeFile("/var/sim/tools/halt.status", "4\n");
    EXPECT_EQ(shell("halt -f now; echo status=$?"), "halting\nstatus=4\n");
    EXPECT_EQ(shell("reboot"), "");
    EXPECT_EQ(readFile("/var/log/sim/commands.log"), "halt -f now\nreboot\n");
    unlink("/var/sim/tools/halt.out");
    unlink("/var/sim/tools/halt.status");
}

TEST(Sandbox, SeesOnlyItsOwnProcesses)
{
    // We are PID 1 of the sandbox; the simulated bus (dbus-daemon and
    // bmc-dbus-sim), a shell and ps are the only others.
    EXPECT_EQ(getpid(), 1);
    std::string processes = shell("ps -o pid= | wc -l");
    EXPECT_LE(std::stoi(processes), 6) << shell("ps");
}

} // namespace
