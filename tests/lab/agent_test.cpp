// kqagent as an appliance and a user run it: under `kqagent serve` a restart loses nothing,
// a start after a reboot restores every interface (zone, IPv6 mode and relay-only ones
// included) from dhcp.conf and the desired state, and concurrent commands are serialised;
// on its own it refuses, plans, reports, deletes and loads as it says.
//
//   zone 7 (netns vpn7)   lan1 192.0.2.1, 2001:db8:1::1 --- c1 in "ag-c1"    IPv4 + stateful DHCPv6
//   zone 0                lan2 2001:db8:2::1 --- c2 in "ag-c2"                DHCPv6 and SLAAC
//   zone 0                rl3 198.51.100.129 --- c3 in "ag-c3"               relay only, towards
//                         up0 198.51.100.1 --- srv0 198.51.100.2 in "ag-srv" (a lab dnsmasq)
#include <signal.h>

#include "labutil.h"

namespace {

std::string Replace(std::string Text, const std::string &From, const std::string &To)
{
    return Text.replace(Text.find(From), From.size(), To);
}

const char *kLans = R"({"requests":[
  {"op":"add","item":{"ifname":"lan1",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}},
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::1000","ipv6end":"2001:db8:1::1fff"}],
      "prefixlength":64,"dns":["2001:db8:1::1"],"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}}}},
  {"op":"add","item":{"ifname":"lan2",
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:2::100","ipv6end":"2001:db8:2::1ff"}],
      "prefixlength":64,"leasetime":3600,"ipv6dynamicmode":"both","dnsdynamicmode":"slaac"}}}},
  {"op":"add","item":{"ifname":"rl3",
    "ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["198.51.100.2"],"lanip":"198.51.100.129"}}}}]})";

// Each interface of `status --json` with its drift.
std::string Drift(const lab::TempDir &Dir)
{
    const std::string status = lab::Kqagent(Dir, "status --json").Out;
    std::string drift;
    for (int i = 0; i < 4; ++i)
        drift += lab::JsonAt(status, "interfaces." + std::to_string(i) + ".ifname") + " " +
                 lab::JsonAt(status, "interfaces." + std::to_string(i) + ".drift") + "\n";
    return drift;
}

TEST(AgentLab, RestartsLoseNothingAndRebootsRestoreEverything)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns zone("vpn7"), c1("ag-c1"), c2("ag-c2"), c3("ag-c3"), server("ag-srv");
    lab::Veth("vpn7", "lan1", {"192.0.2.1/24", "2001:db8:1::1/64"}, "ag-c1", "c1");
    lab::Veth("", "lan2", {"2001:db8:2::1/64"}, "ag-c2", "c2");
    lab::Veth("", "rl3", {"198.51.100.129/25"}, "ag-c3", "c3");
    lab::Veth("", "up0", {"198.51.100.1/25"}, "ag-srv", "srv0", {"198.51.100.2/25"});
    lab::MustSh("ip -n ag-srv route add 198.51.100.128/25 via 198.51.100.1");
    lab::Dnsmasq remote("ag-srv", dir, "remote",
                        "port=0\ninterface=srv0\ndhcp-authoritative\ndhcp-range=198.51.100.200,198.51.100.220,255.255.255.128,10m\n");
    const std::string lans = R"("logLevel": 3, "lans": [{"ifname": "lan1", "vpnId": 7}, {"ifname": "lan2", "vpnId": 0}, {"ifname": "rl3", "vpnId": 0}])";
    lab::UseHost(dir, lans);
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.0.log"));
    lab::WriteFile(dir.File("lans.json"), kLans);
    const lab::Outcome applied = lab::Kqagent(dir, "apply " + dir.File("lans.json"));
    ASSERT_EQ(applied.Status, 0) << applied.Out << applied.Err;

    // The agent ends; every service it started keeps serving.
    const std::optional<pid_t> lan1 = lab::ReadPid("/var/run/vyr_dhcpd_lan1.pid");
    ASSERT_TRUE(lan1 && lab::Alive(*lan1));
    agent->Stop();
    EXPECT_EQ(agent->Status, std::optional<int>(0));
    EXPECT_TRUE(lab::Alive(*lan1));

    // A reboot: no dnsmasq of the appliance survives it, and the next start restores all.
    auto reboot = [&](int round) {
        agent->Stop();
        lab::KillAll("/usr/sbin/dnsmasq");
        lab::Sh("ip netns pids vpn7 | xargs -r kill -9");
        agent = lab::Serve(KQAGENT_PATH, dir.File("serve." + std::to_string(round) + ".log"));
    };
    reboot(1);
    const std::string whole = "\"lan1\" []\n\"lan2\" []\n\"rl3\" []\nabsent absent\n";
    EXPECT_EQ(Drift(dir), whole);
    std::string address;
    {
        lab::Dhclient v4a("ag-c1", "c1", dir, "-4"), v6a("ag-c1", "c1", dir, "-6"), v6b("ag-c2", "c2", dir, "-6"),
            relayed("ag-c3", "c3", dir, "-4");
        const struct {
            const lab::Dhclient &Client;
            const char *Field, *First, *Last;
        } leases[] = {
            {v4a, "fixed-address", "192.0.2.100", "192.0.2.119"},
            {v6a, "iaaddr", "2001:db8:1::1000", "2001:db8:1::1fff"},
            {v6b, "iaaddr", "2001:db8:2::100", "2001:db8:2::1ff"},
            {relayed, "fixed-address", "198.51.100.200", "198.51.100.220"},
        };
        for (const auto &l : leases) {
            const std::string got = l.Client.Wait(l.Field).value_or("none");
            EXPECT_TRUE(lab::InRange(got, l.First, l.Last)) << l.Client.Lease << ": " << got;
        }
        address = v4a.Wait("fixed-address").value_or("none");
    }

    // A desired state that cannot be read: the start says so and what it could not
    // reconcile, dhcp.conf is still restored, and nothing overwrites the operator's file.
    const std::string desired = dir.File("desired.json"), good = lab::Text(desired), broken = good.substr(0, good.size() / 2);
    lab::WriteFile(desired, broken);
    reboot(2);
    const std::string log = lab::Text(dir.File("serve.2.log"));
    EXPECT_TRUE(lab::Has(log, "kqagent: desired state " + desired + ": not valid JSON ("));
    EXPECT_TRUE(lab::Has(log, "kqagent: could not reconcile every interface (" + desired + ": not valid JSON"));
    EXPECT_TRUE(lab::Has(log, "lan2: dnsmasq running, pid "));
    const lab::Outcome refused = lab::Kqagent(dir, "apply " + dir.File("lans.json"));
    EXPECT_EQ(refused.Status, 1);
    EXPECT_TRUE(lab::Has(refused.Err, "kqagent: nothing applied; repair or move that file"));
    EXPECT_EQ(lab::Text(desired), broken);
    EXPECT_NE(Drift(dir), whole);  // nothing to compare with but dhcp.conf

    // Repaired and re-read (SIGHUP): the difference is applied and lan1 is whole again.
    lab::WriteFile(desired, good);
    kill(agent->Pid, SIGHUP);
    EXPECT_TRUE(lab::WaitFor([&] { return Drift(dir) == whole; }, 20s)) << Drift(dir) << lab::Text(dir.File("serve.2.log"));

    // kqagent on its own, as a user runs it, against what the lab holds: refusals and a dry
    // run touch nothing, status tells the real processes and leases, then the reads.
    agent->Stop();
    const std::string dhcpConf = dir.File("dhcp.conf"), confFile = "/etc/vyr_dhcpd_lan1.conf";
    const std::string item = R"({"op":"add","item":{"ifname":"lan1",
      "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}}}})";
    const std::optional<pid_t> pid = lab::ReadPid("/var/run/vyr_dhcpd_lan1.pid");
    ASSERT_TRUE(pid && lab::Alive(*pid));
    const std::string confText = lab::Text(confFile), persisted = lab::Text(dhcpConf);
    lab::WriteFile(dir.File("bad.json"), "{\"requests\":[" + Replace(item, "3600", "600") + "," +
                                             Replace(item, "\"leasetime\"", "\"leastime\"") + "]}");
    const lab::Outcome bad = lab::Kqagent(dir, "apply " + dir.File("bad.json"));
    EXPECT_EQ(bad.Status, 2);
    EXPECT_EQ(bad.Err, "kqagent: " + dir.File("bad.json") +
                           ": request 1: item.ipv4dhcpitem.dhcpserver.leastime: unknown key (known here: "
                           "dhcpiprange, netmask, dns, offertime, gateway, leasetime)\nkqagent: nothing applied\n");
    EXPECT_EQ(bad.Out, "");
    lab::WriteFile(dir.File("longer.json"), "{\"requests\":[" + Replace(item, "3600", "7200") + "]}");
    const lab::Outcome longer = lab::Kqagent(dir, "apply --dry-run " + dir.File("longer.json"));
    EXPECT_EQ(longer.Status, 0);
    EXPECT_TRUE(lab::Has(longer.Out, "\n[0] add lan1: server restart (served families ipv4+ipv6 -> ipv4, ipv4 leasetime differ)\n"));
    EXPECT_EQ(longer.Err, "");  // the module's reader traces stay out of a plan
    EXPECT_EQ(lab::Text(confFile), confText);
    EXPECT_EQ(lab::Text(dhcpConf), persisted);
    EXPECT_EQ(lab::ReadPid("/var/run/vyr_dhcpd_lan1.pid"), pid);

    const lab::Outcome shown = lab::Kqagent(dir, "status --json");
    ASSERT_EQ(shown.Status, 0) << shown.Err;
    const std::vector<std::pair<std::string, std::string>> facts = {
        {"dhcpConf.path", "\"" + dhcpConf + "\""}, {"interfaces.0.ifname", "\"lan1\""}, {"interfaces.0.zone", "7"},
        {"interfaces.0.netns", "\"vpn7\""}, {"interfaces.0.server.process.running", "true"},
        {"interfaces.0.server.process.pid", std::to_string(*pid)}, {"interfaces.0.server.poolUse.ipv4.leases", "1"},
        {"interfaces.0.server.poolUse.ipv4.addresses", "20"}, {"interfaces.0.dhclient.process.running", "false"},
        {"interfaces.3", "absent"}};
    for (const auto &[path, value] : facts)
        EXPECT_EQ(lab::JsonAt(shown.Out, path), value) << path << "\n" << shown.Out;
    EXPECT_TRUE(lab::Has(shown.Out, "\"address\":\"" + address + "\""));

    // The module's own refusal (dhcp.conf cannot be written) names the request and the code.
    lab::UseHost(dir, lans + R"(, "dhcpConf": "/proc/kq-nowhere/dhcp.conf")");
    lab::WriteFile(dir.File("server.json"), "{\"requests\":[" + item + "]}");
    const lab::Outcome failed = lab::Kqagent(dir, "apply " + dir.File("server.json"));
    EXPECT_EQ(failed.Status, 1);
    EXPECT_TRUE(lab::Has(failed.Err, "kqagent: request 0: add of lan1 failed (E"));
    EXPECT_TRUE(lab::Has(failed.Err, "kqagent: request 0: {\"op\":\"add\",\"item\":{\"ifname\":\"lan1\""));
    // With that dhcp.conf (and the desired state beside it) lan1 is not configured: the
    // dnsmasq the refused add started in place of the running one is stopped, not left.
    EXPECT_TRUE(lab::Has(failed.Err, "kqagent: lan1: stopped the dnsmasq the refused request had started (lan1 is not configured)\n"));
    EXPECT_FALSE(lab::Alive(*pid));
    lab::UseHost(dir, lans);

    // An add refused because lan9's dnsmasq cannot start leaves no file of lan9 and is not
    // listed; a delete removes the server with its files, and its lease file is stale.
    // Then load and status on what an operator may find in dhcp.conf.
    lab::WriteFile(dir.File("lan9.json"), "{\"requests\":[" + Replace(item, "lan1", "lan9") + "]}");
    lab::WriteFile(dir.File("delete.json"), R"({"requests":[{"op":"delete","item":{"ifname":"lan1"}},)"
                                            R"({"op":"delete","item":{"ifname":"lan2"}},{"op":"delete","item":{"ifname":"rl3"}}]})");
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
        // The refused requests above went part of the way (the module does not undo): lan1's
        // dnsmasq is gone and the server adds stopped the relay. Status says so, and exits 3.
        {nullptr, "status", 3,
         {"\nlan1: zone 7 (netns vpn7)\n", "  DRIFT: dnsmasq is not running\n",
          "  DRIFT: relay dnsmasq is not running\n"}, "\nlan9: zone"},
        {nullptr, "apply " + dir.File("delete.json"), 0, {"[0] delete lan1"}, "kqagent:"},
        {nullptr, "status", 0, {"no interfaces configured\n", "stale files (interfaces not configured):\n  lan1: /etc/vyr_dhcpd_lan1.leases\n"}, "lan1: zone"},
        // A dhcp.conf named on the command line is restored as it stands, the module's way.
        {R"({ "dhcps": [ ] })", "load " + dhcpConf, 0,
         {"dhcp.conf at " + dhcpConf + " holds no interfaces; nothing to restore\nloaded " + dhcpConf + "\n"}, ""},
        {nullptr, "load " + dir.File("none.conf"), 1,
         {"kqagent: dhcp.conf at " + dir.File("none.conf") + " is missing; nothing to restore\n"}, ""},
        {R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, "dhcpIpv4Se)", "load " + dhcpConf, 1,
         {"kqagent: dhcp.conf at " + dhcpConf + " is not a document; its backup " + dhcpConf + ".bak is intact: kqagent load " +
          dhcpConf + ".bak\n"}, "vaild"},
        // lan1 turned relay: the leases its server handed out are not the relay's.
        {R"({ "dhcps": [ { "ifname": "lan1", "vpnId": 0, "dhcpRelay": { "lanIp": "192.0.2.1", "relayServer": [ "203.0.113.2" ] } } ] })",
         "status", 3, {"  DRIFT: in dhcp.conf but not in the desired state\n  relay: lan ip 192.0.2.1 -> 203.0.113.2\n\n"}, address},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.Args);
        if (step.Conf != nullptr)
            lab::WriteFile(dhcpConf, step.Conf);
        const lab::Outcome run = lab::Kqagent(dir, step.Args);
        EXPECT_EQ(run.Status, step.Status) << run.Out << run.Err;
        for (const std::string &piece : step.Has)
            EXPECT_TRUE(lab::Has(run.Out + run.Err, piece));
        EXPECT_TRUE(step.HasNot.empty() || !lab::Has(run.Out + run.Err, step.HasNot)) << run.Out + run.Err;
    }
    EXPECT_FALSE(lab::ReadFile("/etc/vyr_dhcpd_lan9.conf"));
    EXPECT_FALSE(lab::Alive(*pid));
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_lan1.pid"));
    EXPECT_FALSE(lab::ReadFile(confFile));
}

// The README's example on interfaces that cannot serve anyone: status says why, in what a
// client sees, and exits 3, through the agent as on its own; given their addresses the same
// LANs run as desired (exit 0) and a real client is served. A pool outside the interface's
// own subnet and an interface that went away each name their cause.
TEST(AgentLab, StatusTellsWhatKeepsClientsFromBeingServed)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::Netns c1("hl-c1");
    lab::Veth("", "lan1", {}, "hl-c1", "c1");
    lab::Veth("", "lan2", {}, "", "lan2p");
    lab::Veth("", "lan3", {"203.0.113.1/25"}, "", "lan3p");
    lab::UseHost(dir, R"("logLevel": 3)");
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.log"));
    const char *readme = R"({
  "requests": [
    { "op": "add",
      "item": { "ifname": "lan1",
        "ipv4dhcpitem": { "mode": "server",
          "dhcpserver": { "dhcpiprange": [ { "begin": "192.0.2.100", "len": 50 } ],
                          "netmask": "255.255.255.0", "gateway": "192.0.2.1",
                          "dns": [ "192.0.2.1" ], "leasetime": 3600, "offertime": 60 } },
        "ipv6dhcpitem": { "mode": "server",
          "dhcpserver": { "dhcpiprange": [ { "ipv6begin": "2001:db8:1::100", "ipv6end": "2001:db8:1::1ff" } ],
                          "prefixlength": 64, "dns": [ "2001:db8:1::1" ], "leasetime": 3600,
                          "ipv6dynamicmode": "dhcp", "dnsdynamicmode": "dhcp" } } } },
    { "op": "add",
      "item": { "ifname": "lan2",
        "ipv4dhcpitem": { "mode": "relay",
          "dhcprelay": { "relayserver": [ "203.0.113.2" ], "lanip": "198.51.100.1" } } } },
    { "op": "delete", "item": { "ifname": "lan3" } }
  ]
})";
    lab::WriteFile(dir.File("readme.json"), readme);
    const lab::Outcome applied = lab::Kqagent(dir, "apply " + dir.File("readme.json"));
    ASSERT_EQ(applied.Status, 0) << applied.Out << applied.Err;

    const std::string noAnswer = ": clients get no answer\n";
    const lab::Outcome bare = lab::Kqagent(dir, "status");
    EXPECT_EQ(bare.Status, 3) << bare.Out << bare.Err;
    EXPECT_TRUE(lab::Has(bare.Out, "\n  serving: ipv4 server, ipv6 stateful DHCPv6, in the namespace of zone 0\n"
                                   "  DRIFT: lan1 holds no IPv4 address in 192.0.2.0/24" + noAnswer +
                                   "  DRIFT: lan1 holds no IPv6 address in 2001:db8:1::/64: clients get no IPv6 address\n"
                                   "  server ipv4: "));
    EXPECT_TRUE(lab::Has(bare.Out, "  DRIFT: lan2 does not hold its relay address 198.51.100.1" + noAnswer));
    EXPECT_FALSE(lab::Has(bare.Out, "runs as desired"));
    const lab::Outcome json = lab::Kqagent(dir, "status --json");
    EXPECT_EQ(json.Status, 3);
    EXPECT_EQ(lab::JsonAt(json.Out, "interfaces.0.causes.0.code"), "\"no-ipv4-address\"") << json.Out;
    EXPECT_EQ(lab::JsonAt(json.Out, "interfaces.0.causes.1.code"), "\"no-ipv6-address\"");
    EXPECT_EQ(lab::JsonAt(json.Out, "interfaces.0.causes.2"), "absent");
    EXPECT_EQ(lab::JsonAt(json.Out, "interfaces.0.link.up"), "true");
    // What the real dnsmasq holds: DHCPv4, DHCPv6 and its router advertisements.
    for (const char *socket : {"dhcpv4", "dhcpv6", "icmpv6"})
        EXPECT_EQ(lab::JsonAt(json.Out, std::string("interfaces.0.server.process.sockets.") + socket), "true") << socket;
    EXPECT_EQ(lab::JsonAt(json.Out, "interfaces.1.causes.0.code"), "\"no-relay-address\"");
    EXPECT_EQ(lab::JsonAt(json.Out, "relay.process.sockets.dhcpv4"), "true");

    // Given their addresses, the same LANs run as desired, and a client is served.
    lab::MustSh("ip addr add 192.0.2.1/24 dev lan1 && ip addr add 2001:db8:1::1/64 dev lan1 && "
                "ip addr add 198.51.100.1/24 dev lan2");
    const lab::Outcome whole = lab::Kqagent(dir, "status");
    EXPECT_EQ(whole.Status, 0) << whole.Out << whole.Err;
    EXPECT_TRUE(lab::Has(whole.Out, "\n  serving: ipv4 server, ipv6 stateful DHCPv6, in the namespace of zone 0\n  runs as desired\n"));
    EXPECT_TRUE(lab::Has(whole.Out, "\n  desired: ipv4 relay, zone 0\n  serving: no dnsmasq of its own\n  runs as desired\n"));
    {
        lab::Dhclient client("hl-c1", "c1", dir, "-4");
        const std::string got = client.Wait("fixed-address").value_or("none");
        EXPECT_TRUE(lab::InRange(got, "192.0.2.100", "192.0.2.149")) << got;
    }

    // lan3 holds 203.0.113.1/25: a pool in the upper half of the /24 is never served.
    lab::WriteFile(dir.File("lan3.json"), R"({"requests":[{"op":"add","item":{"ifname":"lan3",)"
                                          R"("ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"203.0.113.200","len":10}],)"
                                          R"("netmask":"255.255.255.0","leasetime":600}}}}]})");
    const lab::Outcome added = lab::Kqagent(dir, "apply " + dir.File("lan3.json"));
    ASSERT_EQ(added.Status, 0) << added.Out << added.Err;
    const lab::Outcome outside = lab::Kqagent(dir, "status lan3");
    EXPECT_EQ(outside.Status, 3);
    EXPECT_TRUE(lab::Has(outside.Out, "\n  DRIFT: pool 203.0.113.200-203.0.113.209 lies outside the subnets of lan3 (203.0.113.0/25)" +
                                          noAnswer));
    EXPECT_EQ(lab::Kqagent(dir, "status lan1 lan2").Status, 0);  // only the interfaces named are judged

    // lan1 goes away under its dnsmasq.
    lab::MustSh("ip link del lan1");
    const lab::Outcome gone = lab::Kqagent(dir, "status lan1");
    EXPECT_EQ(gone.Status, 3);
    EXPECT_TRUE(lab::Has(gone.Out, "\n  DRIFT: lan1 does not exist in the namespace of zone 0" + noAnswer));
    agent->Stop();
    const lab::Outcome alone = lab::Kqagent(dir, "status lan1");  // the same without an agent
    EXPECT_EQ(alone.Status, 3);
    EXPECT_TRUE(lab::Has(alone.Out, "\n  DRIFT: lan1 does not exist in the namespace of zone 0" + noAnswer));
}

// Commands at once, first through a running agent, then each on its own: none is lost from
// dhcp.conf or the desired state, and no interface gets a second dnsmasq.
TEST(AgentLab, ConcurrentAppliesWithAndWithoutAnAgent)
{
    LAB_REQUIRE();
    lab::Sweep sweep;
    lab::TempDir dir;
    lab::UseHost(dir, R"("logLevel": 3)");
    std::string scripts[2];
    for (int i = 0; i < 10; ++i) {
        const std::string ifname = "k" + std::to_string(i), net = "198.51.100.";
        lab::MustSh("ip link add " + ifname + " type veth peer name " + ifname + "p && ip link set " + ifname + "p up && ip link set " +
                    ifname + " up && ip addr add " + net + std::to_string(16 * i + 1) + "/29 dev " + ifname);
        lab::WriteFile(dir.File(ifname + ".json"), R"({"requests":[{"op":"add","item":{"ifname":")" + ifname +
                                                       R"(","ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":")" +
                                                       net + std::to_string(16 * i + 2) +
                                                       R"(","len":4}],"netmask":"255.255.255.248","leasetime":600}}}}]})");
        scripts[i % 2] += KQAGENT_PATH " apply " + dir.File(ifname + ".json") + " >" + dir.File(ifname + ".out") + " 2>&1 & ";
    }
    auto agent = lab::Serve(KQAGENT_PATH, dir.File("serve.log"));
    lab::Sh(scripts[0] + "wait");
    agent->Stop();
    EXPECT_EQ(agent->Status, std::optional<int>(0));
    lab::Sh(scripts[1] + "wait");
    for (int i = 0; i < 10; ++i) {
        const std::string ifname = "k" + std::to_string(i);
        EXPECT_TRUE(lab::Has(lab::Text(dir.File(ifname + ".out")), ": ok\n"));
        EXPECT_TRUE(lab::Has(lab::Text(dir.File("dhcp.conf")), "\"" + ifname + "\""));
        EXPECT_TRUE(lab::Has(lab::Text(dir.File("desired.json")), "\"" + ifname + "\""));
        EXPECT_EQ(lab::Procs("--pid-file=/var/run/vyr_dhcpd_" + ifname + ".pid").size(), 1u) << ifname;
    }
}

}  // namespace
