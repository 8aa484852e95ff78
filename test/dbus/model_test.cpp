// SPDX-License-Identifier: Apache-2.0
// The simulator's model without a bus: property values in their text form,
// the board's object description and the failure rules.

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

TEST(Objects, DescriptionBuildsServicesObjectsAndInterfaces)
{
    std::istringstream in(R"(# comment
service xyz.openbmc_project.Settings

object /xyz/openbmc_project/control/host0/restriction_mode
  interface xyz.openbmc_project.Control.Security.RestrictionMode
    property RestrictionMode s xyz.openbmc_project.Control.Security.RestrictionMode.Modes.None
service org.openbmc.control.FanMode
object /org/openbmc/control/fanmode
interface org.openbmc.control.FanMode
property setPwm i 40
method Apply
service xyz.openbmc_project.Settings
object /xyz/openbmc_project/control/host0/power_cap
interface xyz.openbmc_project.Control.Power.Cap
property PowerCapEnable b false
)");
    Objects objects;
    std::string error;
    ASSERT_TRUE(parseObjects(in, objects, error)) << error;
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects["xyz.openbmc_project.Settings"].size(), 2u);
    const auto& fanMode =
        objects["org.openbmc.control.FanMode"]["/org/openbmc/control/fanmode"]
               ["org.openbmc.control.FanMode"];
    EXPECT_EQ(fanMode.properties.at("setPwm"), (Value{'i', int64_t{40}}));
    EXPECT_EQ(fanMode.methods, std::set<std::string>{"Apply"});
    EXPECT_EQ(objects["xyz.openbmc_project.Settings"]
                     ["/xyz/openbmc_project/control/host0/restriction_mode"]
                     ["xyz.openbmc_project.Control.Security.RestrictionMode"]
                         .properties.at("RestrictionMode"),
              (Value{'s', std::string("xyz.openbmc_project.Control.Security."
                                      "RestrictionMode.Modes.None")}));
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

TEST(Failures, RulesParseAndPrint)
{
    struct Case
    {
        std::string line;
        bool ok;
        FailureRule rule;
    };
    const Case cases[] = {
        {R"(* org.freedesktop.DBus.Error.Failed "" * Get *)",
         true,
         {-1, "org.freedesktop.DBus.Error.Failed", "", "* Get *"}},
        {R"(  3  a.b.C "say \"no\"" svc /p i M "x" )",
         true,
         {3, "a.b.C", "say \"no\"", "svc /p i M \"x\""}},
        {R"(0 a.b.C "m" *)", false, {}},
        {R"(two a.b.C "m" *)", false, {}},
        {R"(* a.b.C m *)", false, {}},
        {R"(* a.b.C "m")", false, {}},
    };
    for (const auto& c : cases)
    {
        std::string error;
        auto rule = parseFailureRule(c.line, error);
        ASSERT_EQ(rule.has_value(), c.ok) << c.line << " " << error;
        if (!c.ok)
        {
            EXPECT_FALSE(error.empty());
            continue;
        }
        EXPECT_EQ(rule->remaining, c.rule.remaining) << c.line;
        EXPECT_EQ(rule->errorName, c.rule.errorName) << c.line;
        EXPECT_EQ(rule->message, c.rule.message) << c.line;
        EXPECT_EQ(rule->glob, c.rule.glob) << c.line;
        auto again = parseFailureRule(formatFailureRule(*rule), error);
        ASSERT_TRUE(again.has_value()) << formatFailureRule(*rule);
        EXPECT_EQ(again->message, rule->message);
        EXPECT_EQ(again->glob, rule->glob);
    }
}

TEST(Failures, FirstMatchingRuleIsTakenAndCountedDown)
{
    const std::string get =
        R"(org.openbmc.control.bussysctl /org/openbmc/control/bussysctl )"
        R"(org.freedesktop.DBus.Properties Get "i" "LedStatus")";
    const std::string set =
        R"(org.openbmc.control.bussysctl /org/openbmc/control/bussysctl )"
        R"(org.freedesktop.DBus.Properties Set "i" "LedStatus" s "true")";
    std::string file = "# LED faults\n"
                       "not a rule\n"
                       "2 a.b.First \"one\" * Get *\n"
                       "* a.b.Second \"two\" *LedStatus*\n";
    std::vector<std::string> problems;

    auto taken = takeFailure(file, get, problems);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->errorName, "a.b.First");
    EXPECT_EQ(problems.size(), 1u);
    EXPECT_EQ(file, "# LED faults\n"
                    "not a rule\n"
                    "1 a.b.First \"one\" * Get *\n"
                    "* a.b.Second \"two\" *LedStatus*\n");

    taken = takeFailure(file, set, problems);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->errorName, "a.b.Second");

    taken = takeFailure(file, get, problems);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->errorName, "a.b.First");
    EXPECT_EQ(file, "# LED faults\n"
                    "not a rule\n"
                    "* a.b.Second \"two\" *LedStatus*\n");

    taken = takeFailure(file, get, problems);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->errorName, "a.b.Second"); // never used up

    std::string before = file;
    EXPECT_FALSE(takeFailure(file, "svc /p i Other", problems));
    EXPECT_EQ(file, before);
}

} // namespace
