// SPDX-License-Identifier: Apache-2.0
// faultscope: libfiu failure points that fire only for the plug-in's own
// calls. Preloaded after libfiu's POSIX preload, it enables the points named
// in FAULTSCOPE through an external callback that lets a call fail only
// while a frame of the plug-in is on the stack, so the host's own reading
// of requests and printing of answers never fails. Each point fails its
// Nth such call, or every one with N = 0.
//
//   FAULTSCOPE="NAME N ERRNO[;NAME N ERRNO...]"   e.g. "posix/io/rw/read 1 5"
//   FAULTSCOPE_REPORT=PATH   at exit, "NAME CALLS" lines: how many calls of
//                            each point the plug-in made (PATH as the
//                            process sees it, so inside the sandbox)

#include <dlfcn.h>
#include <execinfo.h>
#include <fiu-control.h>
#include <fiu.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum
{
    maxPoints = 32,
    maxFrames = 64
};

struct point
{
    char name[64];
    long nth;
    long calls;
};

static struct point points[maxPoints];
static int pointCount;

// Whether the plug-in made the call: a frame of the plug-in is on the
// stack, and the simulated I2C bus (which the plug-in reaches through
// ioctl) is not the one calling.
static int fromPlugin(void)
{
    void* frames[maxFrames];
    int n = backtrace(frames, maxFrames);
    for (int i = 1; i < n; ++i)
    {
        Dl_info info;
        if (dladdr(frames[i], &info) == 0 || info.dli_fname == NULL)
        {
            continue;
        }
        if (strstr(info.dli_fname, "libi2csim") != NULL)
        {
            return 0;
        }
        if (strstr(info.dli_fname, "libipmioem") != NULL)
        {
            return 1;
        }
    }
    return 0;
}

static int decide(const char* name, int* failnum, void** failinfo,
                  unsigned int* flags)
{
    (void)failnum;
    (void)failinfo;
    (void)flags;
    for (int i = 0; i < pointCount; ++i)
    {
        if (strcmp(points[i].name, name) == 0)
        {
            if (!fromPlugin())
            {
                return 0;
            }
            ++points[i].calls;
            return points[i].nth == 0 || points[i].calls == points[i].nth;
        }
    }
    return 0;
}

static void report(void)
{
    const char* path = getenv("FAULTSCOPE_REPORT");
    FILE* file = path != NULL ? fopen(path, "w") : NULL;
    if (file == NULL)
    {
        return;
    }
    for (int i = 0; i < pointCount; ++i)
    {
        fprintf(file, "%s %ld\n", points[i].name, points[i].calls);
    }
    fclose(file);
}

__attribute__((constructor)) static void setUp(void)
{
    const char* spec = getenv("FAULTSCOPE");
    if (spec == NULL)
    {
        return;
    }
    // Loads the unwinder now, while its library can still be found.
    void* frames[4];
    backtrace(frames, 4);
    fiu_init(0);
    char* copy = strdup(spec);
    char* saved = NULL;
    for (char* item = strtok_r(copy, ";", &saved);
         item != NULL && pointCount < maxPoints;
         item = strtok_r(NULL, ";", &saved))
    {
        struct point* p = &points[pointCount];
        long error = 0;
        if (sscanf(item, "%63s %ld %ld", p->name, &p->nth, &error) != 3)
        {
            fprintf(stderr, "faultscope: bad point '%s'\n", item);
            exit(2);
        }
        ++pointCount;
        fiu_enable_external(p->name, 1, (void*)error, 0, decide);
    }
    free(copy);
    atexit(report);
    // The sandbox's shells and tools cannot load it from there.
    unsetenv("LD_PRELOAD");
}
