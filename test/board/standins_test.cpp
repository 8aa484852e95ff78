// SPDX-License-Identifier: Apache-2.0
// The platform tool stand-ins of the default board, run through the sandbox
// shell as the plug-in runs them: what they log, how a test steers them and
// the state they keep between calls.

#include "board.hpp"
#include "plugin.hpp"

#include <cstdio>
#include <cstring>

namespace
{

using board::commandLog;
using board::run;
using Lines = std::vector<std::string>;

class StandIns : public testing::Test
{
  protected:
    void SetUp() override
    {
        board::clearCommandLog();
    }
};

TEST_F(StandIns, LogEachCallOnOneLineQuotingArgumentsThatNeedIt)
{
    struct Case
    {
        const char* command;
        Lines argv;
        const char* line;
    };
    const Case cases[] = {
        {"/usr/sbin/clean_fruid.sh ", {"clean_fruid.sh"}, "clean_fruid.sh"},
        {"/usr/sbin/up_pci_frulist.sh  cpu /usr/bin/eeprom 0 1",
         {"/usr/sbin/up_pci_frulist.sh", "cpu", "/usr/bin/eeprom", "0", "1"},
         "up_pci_frulist.sh cpu /usr/bin/eeprom 0 1"},
        {"phosphor-read-other --file '/var/a b' ''",
         {"phosphor-read-other", "--file", "/var/a b", ""},
         R"(phosphor-read-other --file "/var/a b" "")"},
        {R"(phosphor-read-other 'a"b' 'c\d')",
         {"phosphor-read-other", "a\"b", "c\\d"},
         R"(phosphor-read-other "a\"b" "c\\d")"},
        {R"cmd(phosphor-read-other "$(printf 'x\ny\tz\r')")cmd",
         {"phosphor-read-other", "x\ny\tz\r"},
         R"(phosphor-read-other "x\ny\tz\r")"},
        {"phosphor-read-other '$(id);`id`|&*' \"it's\"",
         {"phosphor-read-other", "$(id);`id`|&*", "it's"},
         R"(phosphor-read-other "$(id);`id`|&*" "it's")"},
        {"external_hwmon.sh start hwmon40",
         {"external_hwmon.sh", "start", "hwmon40"},
         "external_hwmon.sh start hwmon40"},
        {"reboot", {"reboot"}, "reboot"},
    };
    for (const auto& c : cases)
    {
        board::clearCommandLog();
        run(c.command);
        EXPECT_EQ(commandLog(), Lines{c.line}) << c.command;
        EXPECT_EQ(board::logLine(c.argv), c.line) << c.command;
    }
}

TEST_F(StandIns, PrintTheOutputAndExitWithTheStatusATestSets)
{
    struct Case
    {
        const char* tool;
        const char* command;
    };
    const Case cases[] = {
        {"clean_fruid.sh", "/usr/sbin/clean_fruid.sh"},
        {"ethtool", "ethtool eth0"},
        {"ifconfig", "ifconfig eth0"},
        {"iptables", "iptables -L -n --line-number"},
        {"systemctl", "systemctl restart obmc-allow-list.service"},
        {"ncsi-netlink", "ncsi-netlink --info -x 2"},
        {"get_identify_led.sh", "/usr/bin/get_identify_led.sh"},
        {"top", "top"},
        {"devmem", "devmem 0x1e6e2180"},
    };
    for (const auto& c : cases)
    {
        board::setToolOutput(c.tool, "canned answer\n");
        board::setToolStatus(c.tool, 3);
        auto result = run(std::string(c.command) + "; echo status=$?");
        EXPECT_EQ(result.output, "canned answer\nstatus=3\n") << c.tool;
        board::resetTool(c.tool);
    }

    // The status alone: a tool that prints nothing by itself.
    board::setToolStatus("cpld_mem_up.sh", 255);
    EXPECT_EQ(run("cpld_mem_up.sh /var/cpld_upfile").status, 255);
    board::resetTool("cpld_mem_up.sh");
    EXPECT_EQ(run("cpld_mem_up.sh /var/cpld_upfile").status, 0);
}

TEST_F(StandIns, FailingByStatusLeavesTheirStateAloneAndCannedOutputDoesNot)
{
    board::setToolStatus("ifconfig", 1);
    EXPECT_EQ(run("ifconfig eth1 down").status, 1);
    EXPECT_EQ(board::state("/var/sim/net/eth1", "up"), "yes");
    board::resetTool("ifconfig");

    board::setToolStatus("iptables", 4);
    run("iptables -A INPUT -p tcp --dport 22 -j DROP");
    EXPECT_EQ(board::readFile("/var/sim/iptables"), "");
    board::resetTool("iptables");

    board::setToolOutput("ifconfig", "");
    EXPECT_EQ(run("ifconfig eth1 down"), (board::Run{0, ""}));
    EXPECT_EQ(board::state("/var/sim/net/eth1", "up"), "no");
    board::resetTool("ifconfig");
    run("ifconfig eth1 up");

    EXPECT_EQ(commandLog(),
              (Lines{"ifconfig eth1 down",
                     "iptables -A INPUT -p tcp --dport 22 -j DROP",
                     "ifconfig eth1 down", "ifconfig eth1 up"}));
}

TEST_F(StandIns, IptablesListsTheRulesItWasGivenUntilTheyAreDeleted)
{
    // The firewall calls of the SSH switch, exactly as the plug-in runs them.
    const char* forbid = "iptables -A INPUT -p tcp --dport 22 -j DROP";
    const char* allow =
        "dptssh=`iptables -L -n --line-number | grep DROP | grep dpt:22 | "
        "awk -F' ' '{print $1}'` && iptables -D INPUT $dptssh";

    EXPECT_EQ(run("iptables -A INPUT -s 10.0.0.5 -j ACCEPT").status, 0);
    EXPECT_EQ(run(forbid).status, 0);
    EXPECT_EQ(run("iptables -L -n --line-number").output,
              "Chain INPUT (policy ACCEPT)\n"
              "num  target     prot opt source               destination\n"
              "1    ACCEPT     all  --  10.0.0.5             0.0.0.0/0\n"
              "2    DROP       tcp  --  0.0.0.0/0            0.0.0.0/0      "
              "      tcp dpt:22\n"
              "\n"
              "Chain FORWARD (policy ACCEPT)\n"
              "num  target     prot opt source               destination\n"
              "\n"
              "Chain OUTPUT (policy ACCEPT)\n"
              "num  target     prot opt source               destination\n");

    EXPECT_EQ(run(allow).status, 0);
    EXPECT_EQ(run("iptables -S INPUT").output,
              "-P INPUT ACCEPT\n-A INPUT -s 10.0.0.5 -j ACCEPT\n");
    // With no DROP rule left the deletion has no number and fails.
    EXPECT_EQ(run(allow).status, 2);
    EXPECT_EQ(run("iptables -D INPUT 2").status, 1);
    EXPECT_EQ(run("iptables -D INPUT -p tcp --dport 22 -j DROP").status, 1);

    EXPECT_EQ(run("iptables -I INPUT -p udp --sport 623 -j DROP").status, 0);
    EXPECT_EQ(run("iptables -L INPUT").output,
              "Chain INPUT (policy ACCEPT)\n"
              "target     prot opt source               destination\n"
              "DROP       udp  --  anywhere             anywhere             "
              "udp spt:asf-rmcp\n"
              "ACCEPT     all  --  10.0.0.5             anywhere\n");

    EXPECT_EQ(run("iptables -F").status, 0);
    EXPECT_EQ(run("iptables -S").output,
              "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n");
    EXPECT_EQ(run("iptables -A NOCHAIN -j DROP").status, 1);
    EXPECT_EQ(run("iptables -X").status, 2);
}

TEST_F(StandIns, InterfacesKeepTheirAdministrativeStateAndLinkSettings)
{
    auto running = [](const char* iface) {
        return run(std::string("ifconfig ") + iface + " | grep RUNNING")
                       .output.empty()
                   ? 0
                   : 1;
    };
    auto line = [](const std::string& text, const std::string& start) {
        auto at = text.find(start);
        return at == std::string::npos
                   ? std::string("<none>")
                   : text.substr(at, text.find('\n', at) - at);
    };

    EXPECT_EQ(running("eth1"), 1);
    EXPECT_EQ(run("ethtool eth1 | grep detected").output,
              "\tLink detected: yes\n");

    EXPECT_EQ(run("ifconfig eth1 down").status, 0);
    EXPECT_EQ(running("eth1"), 0);
    auto settings = run("ethtool eth1").output;
    EXPECT_EQ(line(settings, "Speed"), "Speed: Unknown!");
    EXPECT_EQ(line(settings, "Link detected"), "Link detected: no");
    EXPECT_EQ(line(run("ifconfig").output, "eth1"), "<none>");
    EXPECT_NE(line(run("ifconfig -a").output, "eth1"), "<none>");

    EXPECT_EQ(run("ifconfig eth1 up").status, 0);
    EXPECT_EQ(run("ethtool -s eth1 speed 1000").status, 0);
    EXPECT_EQ(run("ethtool -s eth1 duplex half").status, 0);
    settings = run("ethtool eth1").output;
    EXPECT_EQ(line(settings, "Speed"), "Speed: 1000Mb/s");
    EXPECT_EQ(line(settings, "Duplex"), "Duplex: Half");
    EXPECT_EQ(line(settings, "Auto-negotiation"), "Auto-negotiation: on");
    EXPECT_EQ(run("ethtool -s eth1 speed fast").status, 1);
    EXPECT_EQ(board::state("/var/sim/net/eth1", "speed"), "1000");

    // A cable pulled: the port stays up but has no link.
    board::setState("/var/sim/net/eth1", "link", "no");
    EXPECT_EQ(running("eth1"), 0);
    EXPECT_EQ(run("ethtool eth1 | grep detected").output,
              "\tLink detected: no\n");
    board::setState("/var/sim/net/eth1", "link", "yes");

    EXPECT_EQ(run("ifconfig  eth0  |  grep  'inet addr:'  | awk '{print $2}'"
                  " | awk -F: '{print $2}'")
                  .output,
              "192.168.0.10\n");
    EXPECT_EQ(run("ifconfig eth2 | grep RUNNING"), (board::Run{1, ""}));
    EXPECT_EQ(run("ethtool eth2").status, 75);
}

TEST_F(StandIns, ServicesLedAndSidebandKeepTheirState)
{
    struct Case
    {
        const char* command;
        int status;
        const char* output;
    };
    const Case cases[] = {
        {"systemctl restart obmc-allow-list.service", 0, ""},
        {"systemctl is-active obmc-allow-list", 0, "active\n"},
        {"systemctl stop obmc-allow-list.service", 0, ""},
        {"systemctl is-active obmc-allow-list.service", 3, "inactive\n"},
        {"systemctl restart org.open_power.Software.Host.Updater.service", 0,
         ""},
        {"systemctl restart no-such.service", 5, ""},
        {"systemctl restart ../etc/passwd", 1, ""},
        {"/usr/bin/get_identify_led.sh", 0, ""},
        {"/usr/bin/toggle_identify_led.sh", 0, ""},
        {"/usr/bin/get_identify_led.sh", 1, ""},
        {"/usr/bin/toggle_identify_led.sh", 0, ""},
        {"/usr/bin/get_identify_led.sh", 0, ""},
        {"ncsi-netlink --info -x 2 | grep -c Active", 0, "1\n"},
        {"ncsi-netlink --info -x 3", 1, ""},
        {"external_hwmon.sh start hwmon77 && ls -d /var/hwmon/hwmon77", 0,
         "/var/hwmon/hwmon77\n"},
        {"cat /var/sim/external_hwmon/hwmon77", 0, "running\n"},
        {"external_hwmon.sh stop hwmon77; cat /var/sim/external_hwmon/hwmon77",
         0, "stopped\n"},
        {"external_hwmon.sh start ../../etc", 1, ""},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(run(c.command), (board::Run{c.status, c.output}))
            << c.command;
    }
    EXPECT_EQ(board::readFile("/var/sim/identify-led"), "off\n");

    board::setState("/var/sim/ncsi", "active", "no");
    EXPECT_EQ(run("ncsi-netlink --info -x 2 | grep -c Active").output, "0\n");
    board::setState("/var/sim/ncsi", "active", "yes");
}

TEST_F(StandIns, TopShowsTheMemoryFiguresUntilKilled)
{
    board::setState("/var/sim/mem", "used", "400000");
    FILE* top = popen("top", "r");
    ASSERT_NE(top, nullptr);
    char line[128] = "";
    ASSERT_NE(fgets(line, sizeof(line), top), nullptr);
    EXPECT_STREQ(line, "Mem: 400000K used, 311296K free, 1024K shrd, "
                       "8192K buff, 94208K cached\n");

    // The fields the health check takes from that line.
    std::string fields;
    for (int field : {2, 4, 6, 8, 10})
    {
        fields += run("echo '" + std::string(line, strlen(line) - 1) +
                      "'| awk '{print $" + std::to_string(field) +
                      "}' | awk -FK '{print $1}'")
                      .output;
    }
    EXPECT_EQ(fields, "400000\n311296\n1024\n8192\n94208\n");

    // Without the kill this would wait for ever.
    EXPECT_EQ(run("killall top").status, 0);
    pclose(top);
    EXPECT_EQ(run("ps -o comm | grep -c -e top -e sleep").output, "0\n");
    EXPECT_EQ(run("top -n 2 -d 0 | grep -c Mem").output, "2\n");
    EXPECT_EQ(commandLog(), (Lines{"top", "killall top", "top -n 2 -d 0"}));
    board::setState("/var/sim/mem", "used", "98304");
}

} // namespace
