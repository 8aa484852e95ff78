// SPDX-License-Identifier: Apache-2.0
// The simulated BMC D-Bus from inside a sandbox, through the plug-in's own
// D-Bus layer on the host's connection: the object mapper, properties of
// every type, named errors and injected failures.

#include "oem/dbus.hpp"
#include "plugin.hpp"

#include <signal.h>

#include <chrono>
#include <thread>

namespace
{

using oem::Value;

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
constexpr const char* failures = "/var/sim/dbus/failures";

const oem::Bus& bus()
{
    static const oem::Bus connection(ipmid_get_sd_bus_connection());
    return connection;
}

// The simulator's state behind the plug-in's back (neither recorded nor
// failed): bmcsim.Control, sim/dbus/README.md.
template <typename... Args>
oem::Message control(const char* method, const Args&... args)
{
    return bus().callMethod("bmcsim.Control", "/bmcsim", "bmcsim.Control",
                            method, args...);
}

void setProperty(const char* service, const std::string& path,
                 const char* interface, const char* property, const Value& v)
{
    control("SetProperty", service, path, interface, property, v);
}

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
    setProperty("xyz.openbmc_project.Aaa", modePath, modeInterface,
                "RestrictionMode", std::string("shadow"));
    EXPECT_EQ(bus().getService(modeInterface, modePath),
              "xyz.openbmc_project.Aaa");
    EXPECT_EQ(bus().getObject(modePath, {}).at("xyz.openbmc_project.Settings"),
              (std::vector<std::string>{"org.freedesktop.DBus.Introspectable",
                                        "org.freedesktop.DBus.Peer",
                                        "org.freedesktop.DBus.Properties",
                                        modeInterface}));
    control("Remove", "xyz.openbmc_project.Aaa", modePath, "", "");
    EXPECT_EQ(errorOf([] { bus().getService(fanPwm, modePath); }), notFound);

    // Objects by path, whoever serves them; a part of the path selects.
    setProperty(scratch, fan(9), fanPwm, "Target", uint64_t{1});
    setProperty(scratch, std::string(sensors) + "/aaa/PWM0", fanPwm, "Target",
                uint64_t{2});
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
    control("Remove", scratch, fan(9), "", "");
    control("Remove", scratch, std::string(sensors) + "/aaa/PWM0", "", "");

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
        setProperty(scratch, "/s", scratch, "P", value);
        EXPECT_EQ(bus().getProperty(scratch, "/s", scratch, "P"), value)
            << value.index();
        bus().setProperty(scratch, "/s", scratch, "P", value);
        EXPECT_EQ(
            control("GetProperty", scratch, "/s", scratch, "P").readVariant(),
            value)
            << value.index();
    }
    control("Remove", scratch, "/s", "", "");
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

// A handler may make a bus object of the daemon's connection for one call;
// its end must leave the daemon's connection open.
TEST(SimBus, ABusObjectHoldsAReferenceOfItsOwn)
{
    {
        oem::Bus once(ipmid_get_sd_bus_connection());
        once.getProperty(led, ledPath, ledInterface, "LedStatus");
    }
    EXPECT_EQ(bus().getProperty(led, ledPath, ledInterface, "LedStatus"),
              Value{std::string("false")});
}

// A service that answers late (stopped here for 300 ms) is waited for.
TEST(SimBus, ASlowServiceIsWaitedFor)
{
    pid_t sim = std::stoi(readFile("/run/dbus/bmc-dbus-sim.pid"));
    ASSERT_EQ(kill(sim, SIGSTOP), 0);
    std::thread wake([sim] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        kill(sim, SIGCONT);
    });
    std::string got;
    try
    {
        got = std::get<std::string>(
            bus().getProperty(led, ledPath, ledInterface, "LedStatus"));
    }
    catch (const std::exception& e)
    {
        got = e.what();
    }
    wake.join();
    EXPECT_EQ(got, "false");
}

// The simulator's failure rules and call record themselves are checked
// through busctl (board/standins.cases).
TEST(SimBus, AnInjectedFailureArrivesWithItsNameAndMessage)
{
    writeFile(failures, "1 org.freedesktop.DBus.Error.NoReply \"LED "
                        "\\\"controller\\\" asleep\" * Get *\n");
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
}

} // namespace
