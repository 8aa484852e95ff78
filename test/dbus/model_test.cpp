// SPDX-License-Identifier: Apache-2.0
// The grammar of a board's object description: values of every type in
// their text form, and the line of an error. What the simulator serves from
// it, and its failure rules, are checked through the bus (sim_test.cpp) and
// by every case file.

#include "model.hpp"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

using namespace dbussim;

TEST(Values, ParseTheirTextAndPrintItStably)
{
    struct Case
    {
        char type;
        std::string text;
        bool ok;
        std::string printed; // formatValue of the result
    };
    const Case cases[] = {
        {'b', "true", true, "true"},
        {'b', "1", false, ""},
        {'y', "255", true, "255"},
        {'y', "256", false, ""},
        {'n', "-32768", true, "-32768"},
        {'q', "-1", false, ""},
        {'i', "-0x10", true, "-16"},
        {'i', "12abc", false, ""},
        {'x', "-9223372036854775808", true, "-9223372036854775808"},
        {'t', "18446744073709551615", true, "18446744073709551615"},
        {'t', "18446744073709551616", false, ""},
        {'d', "-1e3", true, "-1000"},
        {'d', "warm", false, ""},
        {'s', "  bare text with blanks  ", true, "\"bare text with blanks\""},
        {'s', R"("  kept \"blanks\"\t\\ \x01")", true,
         R"("  kept \"blanks\"\t\\ \x01")"},
        {'s', R"("open)", false, ""},
        {'s', R"("\q")", false, ""},
        {'o', "/xyz/openbmc_project", true, "\"/xyz/openbmc_project\""},
        {'g', "a{sv}", true, "\"a{sv}\""},
        {'v', "1", false, ""},
    };
    for (const auto& c : cases)
    {
        Value value;
        std::string error;
        EXPECT_EQ(parseValue(c.type, c.text, value, error), c.ok)
            << c.type << " '" << c.text << "' " << error;
        if (!c.ok)
        {
            EXPECT_FALSE(error.empty()) << c.text;
            continue;
        }
        EXPECT_EQ(value.type, c.type);
        EXPECT_EQ(formatValue(value), c.printed) << c.text;

        // What is printed reads back as the same value.
        Value again;
        ASSERT_TRUE(parseValue(c.type, formatValue(value), again, error))
            << formatValue(value);
        EXPECT_EQ(again, value) << formatValue(value);
    }
}

TEST(Objects, ErrorsNameTheLine)
{
    const std::string head = "service a.b\nobject /a\ninterface a.b\n";
    struct Case
    {
        std::string text;
        std::string error;
    };
    const Case cases[] = {
        {"object /a\n", "1: object outside a service"},
        {"service a.b\ninterface a.b\n", "2: interface outside an object"},
        {"service a.b\nobject /a\nproperty P s x\n",
         "3: property outside an interface"},
        {"service nodots\n", "1: 'service nodots' does not name a service"},
        {"service a.b\nobject a/b\n",
         "2: 'object a/b' does not name an object path"},
        {"service a.b\nobject /a/\n",
         "2: 'object /a/' does not name an object path"},
        {head + "property P z 1\n",
         "4: property P needs a type of b y n q i u x t d s o g, not 'z'"},
        {head + "property P y 300\n",
         "4: property P: '300' is not a value of type y"},
        {head + "method Reset now\n", "4: a method line has only a name"},
        {head + "signal Changed\n", "4: unknown keyword 'signal'"},
    };
    for (const auto& c : cases)
    {
        std::istringstream in(c.text);
        Objects objects;
        std::string error;
        EXPECT_FALSE(parseObjects(in, objects, error)) << c.text;
        EXPECT_EQ(error, c.error) << c.text;
    }
}

} // namespace
