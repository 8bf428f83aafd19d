// kqagent driven as a user drives it: the built binary, request files, a real client, and
// what `status` says checked against the lab's processes and leases.
#include "labutil.h"

namespace {

std::string Replace(std::string Text, const std::string &From, const std::string &To)
{
    return Text.replace(Text.find(From), From.size(), To);
}

TEST(KqAgentLab, ApplyRefuseStatusDeleteAndLoad)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns zone("vpn7"), client("kqa-client");
    lab::Veth("vpn7", "lan1", {"192.0.2.1/24"}, "kqa-client", "c1");
    const std::string lans = R"("lans": [{"ifname": "lan1", "vpnId": 7}])";
    lab::UseHost(dir, lans);
    const std::string dhcpConf = dir.File("dhcp.conf"), confFile = "/etc/vyr_dhcpd_lan1.conf";
    const std::string item = R"({"op":"add","item":{"ifname":"lan1",
      "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}}}})";
    const std::string request = "{\"requests\":[" + item + "]}";
    auto apply = [&](const std::string &name, const std::string &text, const std::string &options = "") {
        lab::WriteFile(dir.File(name), text);
        return lab::Kqagent(dir, "apply " + options + dir.File(name));
    };

    // Applied: the zone's dnsmasq starts and a real client gets an address from the pool.
    const lab::Outcome applied = apply("server.json", request);
    ASSERT_EQ(applied.Status, 0) << applied.Out << applied.Err;
    EXPECT_TRUE(lab::Has(applied.Out, "[0] add lan1 (ipv4 server): ok\n"));
    const std::optional<pid_t> pid = lab::ReadPid("/var/run/vyr_dhcpd_lan1.pid");
    ASSERT_TRUE(pid && lab::Alive(*pid));
    const std::string confText = lab::Text(confFile), persisted = lab::Text(dhcpConf);
    lab::Dhclient dhclient("kqa-client", "c1", dir, "-4");
    const std::string address = dhclient.Wait("fixed-address").value_or("none");
    ASSERT_TRUE(lab::InRange(address, "192.0.2.100", "192.0.2.119")) << address;
    ASSERT_TRUE(lab::WaitFor([&] { return lab::Has(lab::Text("/etc/vyr_dhcpd_lan1.leases"), address); }));

    // A refused file (request 0 alone would apply) and a dry run touch nothing.
    const lab::Outcome refused = apply("bad.json", "{\"requests\":[" + Replace(item, "3600", "600") + "," +
                                                       Replace(item, "\"leasetime\"", "\"leastime\"") + "]}");
    EXPECT_EQ(refused.Status, 2);
    EXPECT_EQ(refused.Err, "kqagent: " + dir.File("bad.json") +
                               ": request 1: item.ipv4dhcpitem.dhcpserver.leastime: unknown key (known here: "
                               "dhcpiprange, netmask, dns, offertime, gateway, leasetime)\nkqagent: nothing applied\n");
    EXPECT_EQ(refused.Out, "");
    const lab::Outcome longer = apply("longer.json", Replace(request, "3600", "7200"), "--dry-run ");
    EXPECT_EQ(longer.Status, 0);
    EXPECT_TRUE(lab::Has(longer.Out, "\n[0] add lan1: server restart (ipv4 leasetime differs)\n"));
    EXPECT_EQ(longer.Err, "");  // the module's reader traces stay out of a plan
    EXPECT_EQ(lab::Text(confFile), confText);
    EXPECT_EQ(lab::Text(dhcpConf), persisted);
    EXPECT_EQ(lab::ReadPid("/var/run/vyr_dhcpd_lan1.pid"), pid);

    // status --json tells what the lab really holds.
    const lab::Outcome shown = lab::Kqagent(dir, "status --json");
    ASSERT_EQ(shown.Status, 0) << shown.Err;
    const std::vector<std::pair<std::string, std::string>> facts = {
        {"dhcpConf.path", "\"" + dhcpConf + "\""}, {"interfaces.0.ifname", "\"lan1\""}, {"interfaces.0.zone", "7"},
        {"interfaces.0.netns", "\"vpn7\""}, {"interfaces.1", "absent"}, {"interfaces.0.server.process.running", "true"},
        {"interfaces.0.server.process.pid", std::to_string(*pid)}, {"interfaces.0.server.leases.0.address", "\"" + address + "\""},
        {"interfaces.0.server.leases.1", "absent"}, {"interfaces.0.server.poolUse.ipv4.leases", "1"},
        {"interfaces.0.server.poolUse.ipv4.addresses", "20"}, {"interfaces.0.dhclient.process.running", "false"},
        {"relay.process.running", "false"}};
    for (const auto &[path, value] : facts)
        EXPECT_EQ(lab::JsonAt(shown.Out, path), value) << path << "\n" << shown.Out;

    // The module's own refusal (dhcp.conf cannot be written) names the request and the code.
    lab::UseHost(dir, lans + R"(, "dhcpConf": "/proc/kq-nowhere/dhcp.conf")");
    const lab::Outcome failed = lab::Kqagent(dir, "apply " + dir.File("server.json"));
    EXPECT_EQ(failed.Status, 1);
    EXPECT_TRUE(lab::Has(failed.Err, "kqagent: request 0: add of lan1 failed (E"));
    EXPECT_TRUE(lab::Has(failed.Err, "kqagent: request 0: {\"op\":\"add\",\"item\":{\"ifname\":\"lan1\""));
    lab::UseHost(dir, lans);

    // An add refused because lan9's dnsmasq cannot start leaves no file of lan9 and is not
    // listed; a delete removes the server with its files, and its lease file is stale.
    // Then load and status on what an operator may find in dhcp.conf.
    lab::WriteFile(dir.File("lan9.json"), Replace(request, "lan1", "lan9"));
    lab::WriteFile(dir.File("delete.json"), R"({"requests":[{"op":"delete","item":{"ifname":"lan1"}}]})");
    const struct {
        const char *Conf;  // written to dhcp.conf first unless null
        std::string Args;
        int Status;
        std::vector<std::string> Has;
        std::string HasNot;  // "": anything else may be said
    } steps[] = {
        {nullptr, "apply " + dir.File("lan9.json"), 1,
         {"kqagent: request 0: add of lan9 refused (EINVAL (-22) Invalid argument): ",
          "kqagent: removed /etc/vyr_dhcpd_lan9.conf, left behind by the failed start (lan9 is not configured)\n"}, ": ok"},
        {nullptr, "status", 0, {"\nlan1: zone 7 (netns vpn7)\n"}, "\nlan9: zone"},
        {nullptr, "apply " + dir.File("delete.json"), 0, {"[0] delete lan1"}, "kqagent:"},
        {nullptr, "status", 0, {"no interfaces configured\n", "stale files (interfaces not configured):\n  lan1: /etc/vyr_dhcpd_lan1.leases\n"}, "lan1: zone"},
        {R"({ "dhcps": [ ] })", "load", 0,
         {"dhcp.conf at " + dhcpConf + " holds no interfaces; nothing to restore\nloaded " + dhcpConf + "\n"}, ""},
        {nullptr, "load " + dir.File("none.conf"), 1,
         {"kqagent: dhcp.conf at " + dir.File("none.conf") + " is missing; nothing to restore\n"}, ""},
        {R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, "dhcpIpv4Se)", "load", 1,
         {"kqagent: dhcp.conf at " + dhcpConf + " is not a document; its backup " + dhcpConf + ".bak is intact: kqagent load " +
          dhcpConf + ".bak\n"}, "vaild"},
        // lan1 turned relay: the leases its server handed out are not the relay's.
        {R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, "dhcpRelay": { "lanIp": "192.0.2.1", "relayServer": [ "203.0.113.2" ] } } ] })",
         "status", 0, {"  DRIFT: in dhcp.conf but not in the desired state\n  relay: lan ip 192.0.2.1 -> 203.0.113.2\n\n"}, address},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.Args);
        if (step.Conf != nullptr)
            lab::WriteFile(dhcpConf, step.Conf);
        const lab::Outcome run = lab::Kqagent(dir, step.Args);
        EXPECT_EQ(run.Status, step.Status);
        for (const std::string &piece : step.Has)
            EXPECT_TRUE(lab::Has(run.Out + run.Err, piece));
        EXPECT_TRUE(step.HasNot.empty() || !lab::Has(run.Out + run.Err, step.HasNot)) << run.Out + run.Err;
    }
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lan9.conf"));
    EXPECT_FALSE(lab::Alive(*pid));
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_lan1.pid"));
    EXPECT_FALSE(lab::ReadFile(confFile));
}

}  // namespace
