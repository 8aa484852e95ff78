// SPDX-License-Identifier: Apache-2.0
// The sensors in alarm at the highest flagged level, for other BMC
// components.

#include "alarm.hpp"

#include "health.hpp"

#include <cstdio>
#include <cstring>

extern "C" void get_sysalarm_detail(char* out, uint8_t nonrecoverable,
                                    uint8_t critical, uint8_t warning)
{
    const char* path = nullptr;
    const char* level = nullptr;
    const char* missing = nullptr;
    if (nonrecoverable == 1)
    {
        path = NONRECOVERABLE_FLAG_FILE;
        level = "Nonrecoverable";
        missing = "nonrecoverlogreport_flag.conf";
    }
    else if (critical == 1)
    {
        path = CRITICAL_FLAG_FILE;
        level = "Critical";
        missing = "logreport_flag.conf";
    }
    else if (warning == 1)
    {
        path = WARNING_FLAG_FILE;
        level = "Warning";
        missing = "warnlogreport_flag.conf";
    }
    if (path == nullptr || out == nullptr)
    {
        return;
    }
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "[%s:%d] %s can not open \n\n", __func__, __LINE__,
                missing);
        return;
    }
    size_t used = strnlen(out, SYSALARM_DETAIL_CAPACITY - 1);
    out[used] = '\0';
    int number = 1;
    char piece[32];
    while (fgets(piece, sizeof(piece), file) != nullptr)
    {
        if (strstr(piece, "=1") == nullptr && strstr(piece, "=2") == nullptr)
        {
            continue;
        }
        *strchr(piece, '=') = '\0';
        fprintf(stderr, "[%s:%d] sensor_name = %s \n\n", __func__, __LINE__,
                piece);
        size_t room = SYSALARM_DETAIL_CAPACITY - used;
        int length =
            snprintf(out + used, room, "%d: %s|%s.\n", number, piece, level);
        if (length < 0 || static_cast<size_t>(length) >= room)
        {
            // Full: keep what fits as whole entries.
            out[used] = '\0';
            break;
        }
        used += static_cast<size_t>(length);
        fprintf(stderr, "[%s:%d] alrm_result=%s \n\n", __func__, __LINE__, out);
        ++number;
    }
    fclose(file);
}
