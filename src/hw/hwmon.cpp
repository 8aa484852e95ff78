// SPDX-License-Identifier: Apache-2.0
// hwmon devices are numbered in probe order, which changes between boots, so
// we find them by the device-tree full name in their uevent file, through a
// small cache file built on first use.

#include "hwmon.hpp"

#include "oem/utils.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{
constexpr const char* hwmonCache = "/var/log/hwmonfullname";
constexpr int versionLineSize = 70;
} // namespace

int hwmonid_OF_FULLNAME(void)
{
    FILE* cache = fopen(hwmonCache, "w+");
    if (cache == nullptr)
    {
        return -1;
    }

    // The tab between "wc" and "-l" has always been there; the shell does
    // not mind.
    char countCmd[] = "ls /sys/class/hwmon/ | wc\t-l";
    char output[256] = {};
    system_ctrl(countCmd, output, sizeof(output));
    long count = strtol(output, nullptr, 10);

    for (long n = 0; n < count; ++n)
    {
        char cmd[96];
        snprintf(cmd, sizeof(cmd),
                 "grep -r OF_FULLNAME /sys/class/hwmon/hwmon%ld/uevent", n);
        memset(output, 0, sizeof(output));
        system_ctrl(cmd, output, sizeof(output));
        fprintf(cache, "%s,hwmonid=%ld;\n", output, n);
    }
    fclose(cache);
    return 0;
}

int findhwmonid_OF_FULLNAME(const char* name, int* id)
{
    FILE* cache = fopen(hwmonCache, "r");
    if (cache == nullptr)
    {
        hwmonid_OF_FULLNAME();
        cache = fopen(hwmonCache, "r");
        if (cache == nullptr)
        {
            return -1;
        }
    }

    // The full name is kept across lines: a line that does not parse shows
    // the previous name in the log, and cannot match where that one did not.
    char fullName[128] = {};
    while (!feof(cache))
    {
        char line[128] = {};
        if (fgets(line, sizeof(line), cache) == nullptr)
        {
            line[0] = '\0';
        }
        int number = -1;
        sscanf(line, "OF_FULLNAME=%127[^,],hwmonid=%d;", fullName, &number);
        fprintf(stderr, "[%s:%d] file_of_fullname: %s id:%d \n\n",
                "findhwmonid_OF_FULLNAME", 82, fullName, number);
        if (strstr(fullName, name) != nullptr)
        {
            *id = number;
            fprintf(stderr, "[%s:%d] find: %s=%d \n\n",
                    "findhwmonid_OF_FULLNAME", 86, name, number);
            fclose(cache);
            return 0;
        }
    }
    fclose(cache);
    return -1;
}

int read_fw_ver(const char* path, char* out, int line, int start, int length)
{
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "%s file cannot open \n", path);
        return -1;
    }
    // A short file leaves its last line in the buffer.
    char buffer[versionLineSize] = {};
    for (int i = 0; i < line; ++i)
    {
        if (fgets(buffer, sizeof(buffer), file) == nullptr)
        {
            break;
        }
    }
    fclose(file);
    fprintf(stderr, "version id = %s\n", buffer);

    // Callers keep start + length within the line buffer; clamp anyway so
    // that a bad caller cannot read past it.
    if (start >= 0 && start < versionLineSize && length > 0)
    {
        int count = std::min(length, versionLineSize - start);
        memcpy(out, buffer + start, static_cast<size_t>(count));
    }
    return 0;
}

int local_bus_read(const char* path, long offset, uint8_t* out)
{
    int fd = open(path, O_RDONLY);
    if (fd < 0)
    {
        fprintf(stderr, "%s file cannot open \n", path);
        return fd;
    }
    off_t pos = lseek(fd, offset, SEEK_SET);
    if (pos < 0)
    {
        fprintf(stderr, "Fseek err ret = %d", static_cast<int>(pos));
        close(fd);
        return static_cast<int>(pos);
    }
    // Past the end nothing is read and out keeps its value.
    [[maybe_unused]] ssize_t count = read(fd, out, 1);
    close(fd);
    return 0;
}
