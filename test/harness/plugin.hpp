// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host.hpp"
#include "sandbox.hpp"

#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/* The plug-in under test, loaded through the host before the test program
 * entered its sandbox root. */
extern void* g_plugin;

template <typename T>
T pluginSymbol(const char* name)
{
    void* address = dlsym(g_plugin, name);
    EXPECT_NE(address, nullptr) << name;
    return reinterpret_cast<T>(address);
}

inline oemhost::Answer call(uint8_t netfn, uint8_t cmd,
                            const std::vector<uint8_t>& request = {})
{
    return oemhost::dispatch(netfn, cmd, request.data(), request.size());
}

using testing_sandbox::readFile;
using testing_sandbox::writeFile;
