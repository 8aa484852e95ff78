// SPDX-License-Identifier: Apache-2.0
// The simulated BMC D-Bus from inside a sandbox, through the plug-in's own
// D-Bus layer: what the default board serves, the object mapper, properties,
// the call record, injected failures and the busctl of the sandbox.

#include "dbus.hpp"
#include "plugin.hpp"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

namespace
{

using oem::DbusError;
using oem::Value;
using testing_dbus::bus;

constexpr const char* properties = "org.freedesktop.DBus.Properties";
constexpr const char* fanPwm = "xyz.openbmc_project.Control.FanPwm";
constexpr const char* sensors = "/xyz/openbmc_project/sensors";
constexpr const char* fanService =
    "xyz.openbmc_project.Hwmon-1644477290.Hwmon1";
constexpr const char* ledService = "org.openbmc.control.bussysctl";
constexpr const char* ledPath = "/org/openbmc/control/bussysctl";
constexpr const char* ledInterface = "org.openbmc.control.bussysctlMachine";
constexpr const char* modeService = "xyz.openbmc_project.Settings";
constexpr const char* modePath =
    "/xyz/openbmc_project/control/host0/restriction_mode";
constexpr const char* modeInterface =
    "xyz.openbmc_project.Control.Security.RestrictionMode";
constexpr const char* fanModeService = "org.openbmc.control.FanMode";
constexpr const char* fanModePath = "/org/openbmc/control/fanmode";
constexpr const char* scratchService = "xyz.openbmc_project.Scratch";
constexpr const char* scratchPath = "/xyz/openbmc_project/scratch";
constexpr const char* scratchInterface = "xyz.openbmc_project.Scratch";

std::string fan(int n)
{
    return std::string(sensors) + "/fan_tach/FAN" + std::to_string(n);
}

std::vector<std::string> keys(const oem::ObjectTree& tree)
{
    std::vector<std::string> paths;
    for (const auto& entry : tree)
    {
        paths.push_back(entry.first);
    }
    return paths;
}

/* The D-Bus error name a call throws, or "" if it does not throw. */
template <typename Call>
std::string errorOf(Call call)
{
    try
    {
        call();
    }
    catch (const DbusError& e)
    {
        return e.name();
    }
    return "";
}

int shell(const std::string& command)
{
    int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SimBus : public testing::Test
{
  protected:
    void SetUp() override
    {
        testing_dbus::clearFailures();
        testing_dbus::clearCalls();
    }
    void TearDown() override
    {
        testing_dbus::clearFailures();
    }
};

TEST_F(SimBus, DefaultBoardServesWhatThePluginCalls)
{
    const std::string inventory = "/xyz/openbmc_project/inventory/system";
    const std::string asset = "xyz.openbmc_project.Inventory.Decorator.Asset";
    const std::string inventoryService =
        "xyz.openbmc_project.Inventory.Manager";
    struct Case
    {
        std::string service, path, interface, property;
        Value expected;
    };
    const Case cases[] = {
        {ledService, ledPath, ledInterface, "LedStatus", std::string("false")},
        {modeService, modePath, modeInterface, "RestrictionMode",
         std::string(
             "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.None")},
        {fanModeService, fanModePath, fanModeService, "setFanmode",
         std::string("stand")},
        {fanModeService, fanModePath, fanModeService, "setPwm", int32_t{40}},
        {fanService, fan(7), fanPwm, "Target", uint64_t{102}},
        {"xyz.openbmc_project.Hwmon-2953416418.Hwmon1",
         std::string(sensors) + "/temperature/Inlet_Temp",
         "xyz.openbmc_project.Sensor.Value", "Value", int64_t{27500}},
        {"xyz.openbmc_project.Hwmon-2953416418.Hwmon1",
         std::string(sensors) + "/temperature/Inlet_Temp",
         "xyz.openbmc_project.Sensor.Threshold.Warning", "WarningHigh",
         int64_t{40000}},
        {inventoryService, inventory, asset, "Manufacturer",
         std::string("TALVEX")},
        {inventoryService, inventory + "/chassis/motherboard", asset,
         "SerialNumber", std::string("TVXMB20010800042")},
        {inventoryService, inventory + "/chassis/motherboard",
         "xyz.openbmc_project.Inventory.Decorator.Revision", "Version",
         std::string("A01")},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(bus().getProperty(c.service, c.path, c.interface, c.property),
                  c.expected)
            << c.path << " " << c.property;
    }
    EXPECT_EQ(errorOf([] {
                  bus().callMethod("xyz.openbmc_project.Software.BMC.Updater",
                                   "/xyz/openbmc_project/software",
                                   "xyz.openbmc_project.Common.FactoryReset",
                                   "Reset");
              }),
              "");
}

TEST_F(SimBus, MapperFindsServicesByInterface)
{
    // A second service on the restriction-mode object: the first in name
    // order wins, as with the daemon's getService.
    testing_dbus::setProperty("xyz.openbmc_project.Aaa", modePath,
                              modeInterface, "RestrictionMode",
                              std::string("shadow"));
    struct Case
    {
        std::string interface, path, service, error;
    };
    const std::string notFound =
        "xyz.openbmc_project.Common.Error.ResourceNotFound";
    const Case cases[] = {
        {modeInterface, modePath, "xyz.openbmc_project.Aaa", ""},
        {"xyz.openbmc_project.Sensor.Value",
         std::string(sensors) + "/voltage/P12V",
         "xyz.openbmc_project.Hwmon-2953416418.Hwmon1", ""},
        {ledInterface, ledPath, ledService, ""},
        {properties, ledPath, ledService, ""}, // the standard ones count
        {fanPwm, modePath, "", notFound},
        {modeInterface, "/xyz/openbmc_project/control/host1", "", notFound},
    };
    for (const auto& c : cases)
    {
        std::string service;
        EXPECT_EQ(
            errorOf([&] { service = bus().getService(c.interface, c.path); }),
            c.error)
            << c.path;
        EXPECT_EQ(service, c.service) << c.path;
    }

    auto services = bus().getObject(modePath, {});
    ASSERT_EQ(services.size(), 2u);
    EXPECT_EQ(services[modeService],
              (std::vector<std::string>{"org.freedesktop.DBus.Introspectable",
                                        "org.freedesktop.DBus.Peer", properties,
                                        modeInterface}));
    testing_dbus::remove("xyz.openbmc_project.Aaa", modePath);
    EXPECT_EQ(bus().getService(modeInterface, modePath), modeService);
}

TEST_F(SimBus, MapperListsFanTargetsInPathOrder)
{
    std::vector<std::string> seven;
    for (int n = 1; n <= 7; ++n)
    {
        seven.push_back(fan(n));
    }
    EXPECT_EQ(keys(bus().getAllDbusObjects(sensors, fanPwm)), seven);

    // Added in another order and by another service: sorted all the same.
    const std::string extra[] = {fan(9), std::string(sensors) + "/aaa/PWM0",
                                 fan(8)};
    for (const auto& path : extra)
    {
        testing_dbus::setProperty(scratchService, path, fanPwm, "Target",
                                  uint64_t{300});
    }
    auto tree = bus().getAllDbusObjects(sensors, fanPwm);
    std::vector<std::string> all = seven;
    all.insert(all.begin(), extra[1]);
    all.push_back(fan(8));
    all.push_back(fan(9));
    EXPECT_EQ(keys(tree), all);
    EXPECT_EQ(tree[fan(8)].begin()->first, scratchService);
    EXPECT_EQ(tree[fan(1)].begin()->first, fanService);

    EXPECT_EQ(keys(bus().getAllDbusObjects(sensors, fanPwm, "FAN9")),
              std::vector<std::string>{fan(9)});
    for (const auto& path : extra)
    {
        testing_dbus::remove(scratchService, path);
    }
}

TEST_F(SimBus, MapperSubTreeHonoursRootAndDepth)
{
    const std::string notFound =
        "xyz.openbmc_project.Common.Error.ResourceNotFound";
    struct Case
    {
        std::string root;
        int32_t depth;
        size_t objects;
        std::string error;
    };
    const Case cases[] = {
        {sensors, 0, 7, ""},
        {std::string(sensors) + "/", 0, 7, ""},
        {sensors, 1, 0, ""}, // the fans are two levels down
        {sensors, 2, 7, ""},
        {"/", 0, 7, ""},
        {std::string(sensors) + "/fan_tach/FAN1", 0, 0, ""},
        {"/xyz/openbmc_project/nothing", 0, 0, notFound},
    };
    for (const auto& c : cases)
    {
        oem::ObjectTree tree;
        EXPECT_EQ(errorOf([&] {
                      tree = bus().getSubTree(c.root, {fanPwm}, c.depth);
                  }),
                  c.error)
            << c.root << " " << c.depth;
        EXPECT_EQ(tree.size(), c.objects) << c.root << " " << c.depth;
    }
}

TEST_F(SimBus, PropertiesKeepEveryBasicType)
{
    const Value values[] = {
        true,
        uint8_t{200},
        int16_t{-300},
        uint16_t{60000},
        int32_t{-70000},
        uint32_t{4000000000},
        int64_t{-5},
        uint64_t{1} << 63,
        36.625,
        std::string("blink \"quoted\"\n"),
    };
    for (const auto& value : values)
    {
        testing_dbus::setProperty(scratchService, scratchPath, scratchInterface,
                                  "Prop", value);
        EXPECT_EQ(bus().getProperty(scratchService, scratchPath,
                                    scratchInterface, "Prop"),
                  value)
            << value.index();

        // Set through the layer, read back behind the plug-in's back.
        Value other = std::visit(
            [](auto v) -> Value {
                using T = decltype(v);
                if constexpr (std::is_same_v<T, std::string>)
                    return v + "!";
                else if constexpr (std::is_same_v<T, bool>)
                    return !v;
                else
                    return static_cast<T>(v / 2);
            },
            value);
        bus().setProperty(scratchService, scratchPath, scratchInterface, "Prop",
                          other);
        EXPECT_EQ(testing_dbus::getProperty(scratchService, scratchPath,
                                            scratchInterface, "Prop"),
                  other)
            << value.index();
    }
    testing_dbus::remove(scratchService, scratchPath);
}

TEST_F(SimBus, MissingPiecesAndWrongTypesAreNamedErrors)
{
    struct Case
    {
        std::string service, path, interface, property, error;
    };
    const Case cases[] = {
        {"xyz.openbmc_project.Nobody", ledPath, ledInterface, "LedStatus",
         "org.freedesktop.DBus.Error.ServiceUnknown"},
        {ledService, "/org/openbmc/control/nothing", ledInterface, "LedStatus",
         "org.freedesktop.DBus.Error.UnknownObject"},
        {ledService, ledPath, "org.openbmc.control.Nothing", "LedStatus",
         "org.freedesktop.DBus.Error.UnknownInterface"},
        {ledService, ledPath, ledInterface, "Nothing",
         "org.freedesktop.DBus.Error.UnknownProperty"},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(errorOf([&] {
                      bus().getProperty(c.service, c.path, c.interface,
                                        c.property);
                  }),
                  c.error)
            << c.service << " " << c.path << " " << c.property;
    }

    // A value of another type than the property's is refused unchanged.
    EXPECT_EQ(errorOf([] {
                  bus().setProperty(ledService, ledPath, ledInterface,
                                    "LedStatus", Value{true});
              }),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(bus().getProperty(ledService, ledPath, ledInterface, "LedStatus"),
              Value{std::string("false")});

    oem::Bus none(nullptr);
    try
    {
        none.getProperty(ledService, ledPath, ledInterface, "LedStatus");
        ADD_FAILURE() << "a null bus answered";
    }
    catch (const DbusError& e)
    {
        EXPECT_EQ(e.operation(), "sd_bus_message_new_method_call");
    }
}

TEST_F(SimBus, MethodRepliesReadAsTheirType)
{
    auto introspect = [] {
        return bus().callMethod(ledService, ledPath,
                                "org.freedesktop.DBus.Introspectable",
                                "Introspect");
    };
    std::string xml = introspect().read<std::string>();
    EXPECT_NE(xml.find("<interface name=\"org.openbmc.control."
                       "bussysctlMachine\">\n"
                       "  <property name=\"LedStatus\" type=\"s\""),
              std::string::npos)
        << xml;
    EXPECT_EQ(errorOf([&] { introspect().read<uint32_t>(); }),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(errorOf([&] {
                  auto reply = introspect();
                  reply.read<std::string>();
                  reply.read<std::string>();
              }),
              "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(SimBus, RecordsEveryCallOnOneLine)
{
    bus().getProperty(ledService, ledPath, ledInterface, "LedStatus");
    bus().setProperty(ledService, ledPath, ledInterface, "LedStatus",
                      Value{std::string("bl\"ink\n")});
    bus().setProperty(fanModeService, fanModePath, fanModeService, "setPwm",
                      Value{int32_t{-1}});
    bus().getSubTree(sensors, {fanPwm, "x.y"}, 2);
    bus().callMethod("xyz.openbmc_project.Software.BMC.Updater",
                     "/xyz/openbmc_project/software",
                     "xyz.openbmc_project.Common.FactoryReset", "Reset");
    // The test's own steering is not recorded.
    testing_dbus::setProperty(ledService, ledPath, ledInterface, "LedStatus",
                              std::string("false"));
    testing_dbus::getProperty(ledService, ledPath, ledInterface, "LedStatus");

    EXPECT_EQ(
        testing_dbus::calls(),
        (std::vector<std::string>{
            "org.openbmc.control.bussysctl /org/openbmc/control/bussysctl "
            "org.freedesktop.DBus.Properties Get "
            "\"org.openbmc.control.bussysctlMachine\" \"LedStatus\"",
            "org.openbmc.control.bussysctl /org/openbmc/control/bussysctl "
            "org.freedesktop.DBus.Properties Set "
            "\"org.openbmc.control.bussysctlMachine\" \"LedStatus\" "
            "s \"bl\\\"ink\\n\"",
            "org.openbmc.control.FanMode /org/openbmc/control/fanmode "
            "org.freedesktop.DBus.Properties Set "
            "\"org.openbmc.control.FanMode\" \"setPwm\" i -1",
            "xyz.openbmc_project.ObjectMapper "
            "/xyz/openbmc_project/object_mapper "
            "xyz.openbmc_project.ObjectMapper GetSubTree "
            "\"/xyz/openbmc_project/sensors\" 2 "
            "[\"xyz.openbmc_project.Control.FanPwm\" \"x.y\"]",
            "xyz.openbmc_project.Software.BMC.Updater "
            "/xyz/openbmc_project/software "
            "xyz.openbmc_project.Common.FactoryReset Reset",
        }));
    testing_dbus::clearCalls();
    EXPECT_EQ(testing_dbus::calls(), std::vector<std::string>{});
}

TEST_F(SimBus, InjectedFailuresAnswerMatchingCalls)
{
    auto getLed = [] {
        return bus().getProperty(ledService, ledPath, ledInterface,
                                 "LedStatus");
    };
    testing_dbus::failCall("* Get \"*\" \"LedStatus\"",
                           "org.freedesktop.DBus.Error.NoReply",
                           "LED \"controller\" asleep", 2);
    testing_dbus::failCall("xyz.openbmc_project.Software.BMC.Updater *",
                           "xyz.openbmc_project.Common.Error.NotAllowed");

    for (int i = 0; i < 2; ++i)
    {
        try
        {
            getLed();
            ADD_FAILURE() << "call " << i << " was answered";
        }
        catch (const DbusError& e)
        {
            EXPECT_EQ(e.name(), "org.freedesktop.DBus.Error.NoReply");
            EXPECT_STREQ(e.what(), "sd_bus_call: "
                                   "org.freedesktop.DBus.Error.NoReply: "
                                   "LED \"controller\" asleep");
        }
    }
    EXPECT_EQ(getLed(), Value{std::string("false")}); // used up
    // Rules that do not match leave a call alone; a rule without a count
    // stays.
    bus().setProperty(ledService, ledPath, ledInterface, "LedStatus",
                      Value{std::string("true")});
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(errorOf([] {
                      bus().callMethod(
                          "xyz.openbmc_project.Software.BMC.Updater",
                          "/xyz/openbmc_project/software",
                          "xyz.openbmc_project.Common.FactoryReset", "Reset");
                  }),
                  "xyz.openbmc_project.Common.Error.NotAllowed");
    }
    EXPECT_EQ(readFile(testing_dbus::failuresPath),
              "* xyz.openbmc_project.Common.Error.NotAllowed "
              "\"Injected failure\" xyz.openbmc_project.Software.BMC.Updater "
              "*\n");
    // Failed calls are recorded as well.
    EXPECT_EQ(testing_dbus::calls().size(), 7u);
    bus().setProperty(ledService, ledPath, ledInterface, "LedStatus",
                      Value{std::string("false")});
}

TEST_F(SimBus, BusctlInTheSandboxIsLoggedAndReallySets)
{
    unlink("/var/log/sim/commands.log");
    struct Case
    {
        std::string command;
        int status;
        std::string logged;
        std::string service, path, interface, property;
        Value after;
    };
    const std::string modes =
        "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";
    const Case cases[] = {
        // The plug-in's own command lines, blanks and all.
        {" busctl set-property  org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
         "setFanmode s stand ",
         0,
         "busctl set-property org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
         "setFanmode s stand",
         fanModeService, fanModePath, fanModeService, "setFanmode",
         std::string("stand")},
        {"busctl set-property  org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode  "
         "setPwm i 55 ",
         0,
         "busctl set-property org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
         "setPwm i 55",
         fanModeService, fanModePath, fanModeService, "setPwm", int32_t{55}},
        {"busctl set-property  xyz.openbmc_project.Settings "
         "/xyz/openbmc_project/control/host0/restriction_mode "
         "xyz.openbmc_project.Control.Security.RestrictionMode  "
         "RestrictionMode s " +
             modes + "Provisioning ",
         0,
         "busctl set-property xyz.openbmc_project.Settings "
         "/xyz/openbmc_project/control/host0/restriction_mode "
         "xyz.openbmc_project.Control.Security.RestrictionMode "
         "RestrictionMode s " +
             modes + "Provisioning",
         modeService, modePath, modeInterface, "RestrictionMode",
         modes + "Provisioning"},
        // A type the property does not have: refused, and busctl fails.
        {"busctl set-property org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
         "setPwm s 60 2>/dev/null",
         1,
         "busctl set-property org.openbmc.control.FanMode "
         "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
         "setPwm s 60",
         fanModeService, fanModePath, fanModeService, "setPwm", int32_t{55}},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(shell(c.command), c.status) << c.command;
        EXPECT_EQ(testing_dbus::getProperty(c.service, c.path, c.interface,
                                            c.property),
                  c.after)
            << c.command;
    }
    std::string log;
    for (const auto& c : cases)
    {
        log += c.logged + "\n";
    }
    EXPECT_EQ(readFile("/var/log/sim/commands.log"), log);

    // The simulator saw the sets, and can fail busctl as anyone.
    auto record = testing_dbus::calls();
    ASSERT_EQ(record.size(), 4u);
    EXPECT_EQ(record[1], "org.openbmc.control.FanMode "
                         "/org/openbmc/control/fanmode "
                         "org.freedesktop.DBus.Properties Set "
                         "\"org.openbmc.control.FanMode\" \"setPwm\" i 55");
    testing_dbus::failCall("*\"setPwm\" i *",
                           "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(shell("busctl set-property org.openbmc.control.FanMode "
                    "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
                    "setPwm i 70 2>/dev/null"),
              1);
    EXPECT_EQ(testing_dbus::getProperty(fanModeService, fanModePath,
                                        fanModeService, "setPwm"),
              Value{int32_t{55}});

    testing_dbus::setProperty(modeService, modePath, modeInterface,
                              "RestrictionMode", modes + "None");
    testing_dbus::setProperty(fanModeService, fanModePath, fanModeService,
                              "setPwm", int32_t{40});
}

} // namespace
