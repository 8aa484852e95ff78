// SPDX-License-Identifier: Apache-2.0
// The host's reader of the board's sensor table description.

#include "host.hpp"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using oemhost::SensorRecord;
using Lines = std::vector<std::string>;

constexpr const char* value = "xyz.openbmc_project.Sensor.Value";

TEST(SensorTable, Parse)
{
    struct Case
    {
        const char* what;
        std::string text;
        std::vector<SensorRecord> records;
        Lines errors;
    };
    const SensorRecord inlet = {1,
                                1,
                                "/xyz/openbmc_project/sensors/temperature/I",
                                value,
                                {{value, "Value"}}};
    const Case cases[] = {
        {"one sensor",
         "1 1 /xyz/openbmc_project/sensors/temperature/I "
         "xyz.openbmc_project.Sensor.Value "
         "xyz.openbmc_project.Sensor.Value:Value\n",
         {inlet},
         {}},
        {"comments, blanks, hex and order by number",
         "# table\n\n  0x30 4 /f xyz.openbmc_project.Sensor.Value\n"
         "1\t1 /xyz/openbmc_project/sensors/temperature/I "
         "xyz.openbmc_project.Sensor.Value "
         "xyz.openbmc_project.Sensor.Value:Value",
         {inlet, {0x30, 4, "/f", value, {}}},
         {}},
        {"properties ordered by interface, then name, once each",
         "255 0xff /p i b.x:Z a.y:B b.x:A b.x:Z\n",
         {{255, 255, "/p", "i", {{"a.y", "B"}, {"b.x", "A"}, {"b.x", "Z"}}}},
         {}},
        {"lines that cannot be read",
         "1 1 /p\n"
         "256 1 /p i\n"
         "-1 1 /p i\n"
         "2 x /p i\n"
         "3 1 p i\n"
         "4 1 /p i Value\n"
         "5 1 /p i :Value\n"
         "6 1 /p i a:\n"
         "7 1 /p i a:b\n"
         "7 2 /q i\n",
         {{7, 1, "/p", "i", {{"a", "b"}}}},
         {"1: want NUMBER TYPE PATH INTERFACE [INTERFACE:PROPERTY...]",
          "2: bad sensor number '256'", "3: bad sensor number '-1'",
          "4: bad sensor type 'x'", "5: bad object path 'p'",
          "6: bad property 'Value' (want INTERFACE:PROPERTY)",
          "7: bad property ':Value' (want INTERFACE:PROPERTY)",
          "8: bad property 'a:' (want INTERFACE:PROPERTY)",
          "10: sensor number 7 given twice"}},
        {"nothing", "", {}, {}},
    };
    for (const auto& c : cases)
    {
        std::istringstream in(c.text);
        Lines errors;
        EXPECT_EQ(oemhost::parseSensorTable(in, errors), c.records) << c.what;
        EXPECT_EQ(errors, c.errors) << c.what;
    }
}

} // namespace
