// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

namespace bios_test
{

/* "same", or where two images first differ: a readable failure message for
 * EEPROM-sized comparisons. */
inline std::string difference(const std::string& actual,
                              const std::string& expected)
{
    if (actual == expected)
    {
        return "same";
    }
    size_t at = 0;
    while (at < actual.size() && at < expected.size() &&
           actual[at] == expected[at])
    {
        ++at;
    }
    char text[96];
    snprintf(text, sizeof(text), "first difference at 0x%zx, sizes %zu/%zu", at,
             actual.size(), expected.size());
    return text;
}

} // namespace bios_test
