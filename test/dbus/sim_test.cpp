// SPDX-License-Identifier: Apache-2.0
// The simulated BMC D-Bus from inside a sandbox, through the plug-in's own
// D-Bus layer: the object mapper, properties of every type, named errors,
// the call record, injected failures and the busctl of the sandbox.

#include "dbus.hpp"
#include "plugin.hpp"

#include <sys/wait.h>

#include <cstdlib>

namespace
{

using oem::Value;
using testing_dbus::bus;

constexpr const char* fanPwm = "xyz.openbmc_project.Control.FanPwm";
constexpr const char* sensors = "/xyz/openbmc_project/sensors";
constexpr const char* led = "org.openbmc.control.bussysctl";
constexpr const char* ledPath = "/org/openbmc/control/bussysctl";
constexpr const char* ledInterface = "org.openbmc.control.bussysctlMachine";
constexpr const char* modePath =
    "/xyz/openbmc_project/control/host0/restriction_mode";
constexpr const char* modeInterface =
    "xyz.openbmc_project.Control.Security.RestrictionMode";
constexpr const char* scratch = "xyz.openbmc_project.Scratch";
constexpr const char* notFound =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";

/* The D-Bus error name a call throws, or "" if it does not throw. */
template <typename Call>
std::string errorOf(Call call)
{
    try
    {
        call();
    }
    catch (const oem::DbusError& e)
    {
        return e.name();
    }
    return "";
}

std::string fan(int n)
{
    return std::string(sensors) + "/fan_tach/FAN" + std::to_string(n);
}

TEST(SimBus, MapperFindsServicesAndObjectsInNameOrder)
{
    // A second service on the restriction-mode object: the first in name
    // order wins, as with the daemon's getService.
    testing_dbus::setProperty("xyz.openbmc_project.Aaa", modePath,
                              modeInterface, "RestrictionMode",
                              std::string("shadow"));
    EXPECT_EQ(bus().getService(modeInterface, modePath),
              "xyz.openbmc_project.Aaa");
    EXPECT_EQ(bus().getObject(modePath, {}).at("xyz.openbmc_project.Settings"),
              (std::vector<std::string>{"org.freedesktop.DBus.Introspectable",
                                        "org.freedesktop.DBus.Peer",
                                        "org.freedesktop.DBus.Properties",
                                        modeInterface}));
    testing_dbus::remove("xyz.openbmc_project.Aaa", modePath);
    EXPECT_EQ(errorOf([] { bus().getService(fanPwm, modePath); }), notFound);

    // Objects by path, whoever serves them; a part of the path selects.
    testing_dbus::setProperty(scratch, fan(9), fanPwm, "Target", uint64_t{1});
    testing_dbus::setProperty(scratch, std::string(sensors) + "/aaa/PWM0",
                              fanPwm, "Target", uint64_t{2});
    std::vector<std::string> paths;
    for (const auto& [path, services] :
         bus().getAllDbusObjects(sensors, fanPwm))
    {
        paths.push_back(path + " " + services.begin()->first);
    }
    const std::string hwmon = " xyz.openbmc_project.Hwmon-1644477290.Hwmon1";
    EXPECT_EQ(paths, (std::vector<std::string>{
                         std::string(sensors) + "/aaa/PWM0 " + scratch,
                         fan(1) + hwmon, fan(2) + hwmon, fan(3) + hwmon,
                         fan(4) + hwmon, fan(5) + hwmon, fan(6) + hwmon,
                         fan(7) + hwmon, fan(9) + " " + scratch}));
    EXPECT_EQ(bus().getAllDbusObjects(sensors, fanPwm, "FAN9").size(), 1u);
    testing_dbus::remove(scratch, fan(9));
    testing_dbus::remove(scratch, std::string(sensors) + "/aaa/PWM0");

    // The fans are two levels below the root; depth 0 is any depth.
    EXPECT_EQ(bus().getSubTree(sensors, {fanPwm}, 1).size(), 0u);
    EXPECT_EQ(bus().getSubTree(sensors, {fanPwm}, 2).size(), 7u);
    EXPECT_EQ(bus().getSubTree("/", {fanPwm}).size(), 7u);
    EXPECT_EQ(errorOf([] { bus().getSubTree("/xyz/nothing", {fanPwm}); }),
              notFound);
}

TEST(SimBus, PropertiesKeepEveryBasicTypeBothWays)
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
        testing_dbus::setProperty(scratch, "/s", scratch, "P", value);
        EXPECT_EQ(bus().getProperty(scratch, "/s", scratch, "P"), value)
            << value.index();
        bus().setProperty(scratch, "/s", scratch, "P", value);
        EXPECT_EQ(testing_dbus::getProperty(scratch, "/s", scratch, "P"), value)
            << value.index();
    }
    testing_dbus::remove(scratch, "/s");
}

TEST(SimBus, MissingPiecesAndWrongTypesAreNamedErrors)
{
    const std::string e = "org.freedesktop.DBus.Error.";
    auto get = [](const char* service, const char* path, const char* iface,
                  const char* property) {
        return errorOf(
            [&] { bus().getProperty(service, path, iface, property); });
    };
    EXPECT_EQ(get("x.Nobody", ledPath, ledInterface, "LedStatus"),
              e + "ServiceUnknown");
    EXPECT_EQ(get(led, "/nothing", ledInterface, "LedStatus"),
              e + "UnknownObject");
    EXPECT_EQ(get(led, ledPath, "x.Nothing", "LedStatus"),
              e + "UnknownInterface");
    EXPECT_EQ(get(led, ledPath, ledInterface, "Nothing"),
              e + "UnknownProperty");
    // A value of another type than the property's is refused.
    EXPECT_EQ(errorOf([] {
                  bus().setProperty(led, ledPath, ledInterface, "LedStatus",
                                    Value{true});
              }),
              e + "InvalidArgs");
    EXPECT_EQ(bus().getProperty(led, ledPath, ledInterface, "LedStatus"),
              Value{std::string("false")});
    // A reply read as another type, or past its end.
    auto introspect = [] {
        return bus().callMethod(
            led, ledPath, "org.freedesktop.DBus.Introspectable", "Introspect");
    };
    EXPECT_NE(introspect().read<std::string>().find(
                  "<property name=\"LedStatus\" type=\"s\""),
              std::string::npos);
    EXPECT_EQ(errorOf([&] { introspect().read<uint32_t>(); }),
              e + "InvalidArgs");
    EXPECT_EQ(errorOf([&] {
                  auto reply = introspect();
                  reply.read<std::string>();
                  reply.read<std::string>();
              }),
              e + "InvalidArgs");
    try
    {
        oem::Bus(nullptr).getProperty(led, ledPath, ledInterface, "LedStatus");
        ADD_FAILURE() << "a null bus answered";
    }
    catch (const oem::DbusError& error)
    {
        EXPECT_EQ(error.operation(), "sd_bus_message_new_method_call");
    }
}

TEST(SimBus, CallsAreRecordedAndFailedOnRequest)
{
    testing_dbus::clearCalls();
    testing_dbus::failCall("* Get \"*\" \"LedStatus\"",
                           "org.freedesktop.DBus.Error.NoReply",
                           "LED \"controller\" asleep", 1);
    try
    {
        bus().getProperty(led, ledPath, ledInterface, "LedStatus");
        ADD_FAILURE() << "the injected failure did not come";
    }
    catch (const oem::DbusError& e)
    {
        EXPECT_STREQ(e.what(), "sd_bus_call: org.freedesktop.DBus.Error."
                               "NoReply: LED \"controller\" asleep");
    }
    EXPECT_EQ(readFile(testing_dbus::failuresPath), ""); // used up
    bus().getProperty(led, ledPath, ledInterface, "LedStatus");
    bus().setProperty("org.openbmc.control.FanMode",
                      "/org/openbmc/control/fanmode",
                      "org.openbmc.control.FanMode", "setPwm", int32_t{-1});
    bus().getSubTree(sensors, {fanPwm, "x.y"}, 2);
    testing_dbus::failCall("xyz.openbmc_project.Software.BMC.Updater *",
                           "xyz.openbmc_project.Common.Error.NotAllowed");
    for (int i = 0; i < 2; ++i) // a rule without a count stays
    {
        EXPECT_EQ(errorOf([] {
                      bus().callMethod(
                          "xyz.openbmc_project.Software.BMC.Updater",
                          "/xyz/openbmc_project/software",
                          "xyz.openbmc_project.Common.FactoryReset", "Reset");
                  }),
                  "xyz.openbmc_project.Common.Error.NotAllowed");
    }
    testing_dbus::clearFailures();
    const std::string ledGet =
        "org.openbmc.control.bussysctl /org/openbmc/control/bussysctl "
        "org.freedesktop.DBus.Properties Get "
        "\"org.openbmc.control.bussysctlMachine\" \"LedStatus\"";
    const std::string reset = "xyz.openbmc_project.Software.BMC.Updater "
                              "/xyz/openbmc_project/software "
                              "xyz.openbmc_project.Common.FactoryReset Reset";
    EXPECT_EQ(testing_dbus::calls(),
              (std::vector<std::string>{
                  ledGet, ledGet,
                  "org.openbmc.control.FanMode /org/openbmc/control/fanmode "
                  "org.freedesktop.DBus.Properties Set "
                  "\"org.openbmc.control.FanMode\" \"setPwm\" i -1",
                  "xyz.openbmc_project.ObjectMapper "
                  "/xyz/openbmc_project/object_mapper "
                  "xyz.openbmc_project.ObjectMapper GetSubTree "
                  "\"/xyz/openbmc_project/sensors\" 2 "
                  "[\"xyz.openbmc_project.Control.FanPwm\" \"x.y\"]",
                  reset, reset}));
    testing_dbus::setProperty(
        "org.openbmc.control.FanMode", "/org/openbmc/control/fanmode",
        "org.openbmc.control.FanMode", "setPwm", int32_t{40});
}

TEST(SimBus, BusctlInTheSandboxIsLoggedAndReallySets)
{
    unlink("/var/log/sim/commands.log");
    const std::string modes =
        "xyz.openbmc_project.Control.Security.RestrictionMode.Modes.";
    const std::string set = "busctl set-property xyz.openbmc_project.Settings "
                            "/xyz/openbmc_project/control/host0/"
                            "restriction_mode " +
                            std::string(modeInterface) + " RestrictionMode ";
    // The plug-in's own line, blanks and all; then a type the property does
    // not have, and a set the simulator is told to fail: both refused.
    EXPECT_EQ(system((" " + set + " s " + modes + "Provisioning ").c_str()), 0);
    EXPECT_NE(system((set + "i 3 2>/dev/null").c_str()), 0);
    testing_dbus::failCall("* Set *", "org.freedesktop.DBus.Error.Failed");
    EXPECT_NE(system((set + "s x 2>/dev/null").c_str()), 0);
    testing_dbus::clearFailures();
    EXPECT_EQ(testing_dbus::getProperty("xyz.openbmc_project.Settings",
                                        modePath, modeInterface,
                                        "RestrictionMode"),
              Value{modes + "Provisioning"});
    EXPECT_EQ(readFile("/var/log/sim/commands.log"),
              set + "s " + modes + "Provisioning\n" + set + "i 3\n" + set +
                  "s x\n");
    testing_dbus::setProperty("xyz.openbmc_project.Settings", modePath,
                              modeInterface, "RestrictionMode", modes + "None");
}

} // namespace
