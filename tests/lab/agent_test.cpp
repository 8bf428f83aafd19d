// `kqagent serve` as an appliance runs it: a restart loses nothing, a start after a reboot
// restores every interface (zone, IPv6 mode and relay-only ones included) from dhcp.conf and
// the desired state, and concurrent commands are serialised.
//
//   zone 7 (netns vpn7)   lan1 192.0.2.1, 2001:db8:1::1 --- c1 in "ag-c1"    IPv4 + stateful DHCPv6
//   zone 0                lan2 203.0.113.1, 2001:db8:2::1 --- c2 in "ag-c2"  IPv4 + DHCPv6 and SLAAC
//   zone 0                rl3 198.51.100.129 --- c3 in "ag-c3"               relay only, towards
//                         up0 198.51.100.1 --- srv0 198.51.100.2 in "ag-srv" (a lab dnsmasq)
#include <signal.h>

#include "labutil.h"

namespace {

const char *kLans = R"({"requests":[
  {"op":"add","item":{"ifname":"lan1",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}},
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::1000","ipv6end":"2001:db8:1::1fff"}],
      "prefixlength":64,"dns":["2001:db8:1::1"],"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}}}},
  {"op":"add","item":{"ifname":"lan2",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"203.0.113.100","len":20}],
      "netmask":"255.255.255.0","leasetime":3600}},
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
    lab::Veth("", "lan2", {"203.0.113.1/24", "2001:db8:2::1/64"}, "ag-c2", "c2");
    lab::Veth("", "rl3", {"198.51.100.129/25"}, "ag-c3", "c3");
    lab::Veth("", "up0", {"198.51.100.1/25"}, "ag-srv", "srv0", {"198.51.100.2/25"});
    lab::MustSh("ip -n ag-srv route add 198.51.100.128/25 via 198.51.100.1");
    lab::Dnsmasq remote("ag-srv", dir, "remote",
                        "port=0\ninterface=srv0\ndhcp-authoritative\ndhcp-range=198.51.100.200,198.51.100.220,255.255.255.128,10m\n");
    lab::UseHost(dir, R"("lans": [{"ifname": "lan1", "vpnId": 7}, {"ifname": "lan2", "vpnId": 0}, {"ifname": "rl3", "vpnId": 0}],
                        "logLevel": 3)");
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
    for (const char *file : {"dhcp.conf", "desired.json"})
        for (const char *ifname : {"\"lan1\"", "\"lan2\"", "\"rl3\""})
            EXPECT_TRUE(lab::Has(lab::Text(dir.File(file)), ifname));
    const std::string whole = "\"lan1\" []\n\"lan2\" []\n\"rl3\" []\nabsent absent\n";
    EXPECT_EQ(Drift(dir), whole);
    {
        lab::Dhclient v4a("ag-c1", "c1", dir, "-4"), v6a("ag-c1", "c1", dir, "-6"), v4b("ag-c2", "c2", dir, "-4"),
            v6b("ag-c2", "c2", dir, "-6"), relayed("ag-c3", "c3", dir, "-4");
        const struct {
            const lab::Dhclient &Client;
            const char *Field, *First, *Last;
        } leases[] = {
            {v4a, "fixed-address", "192.0.2.100", "192.0.2.119"},
            {v6a, "iaaddr", "2001:db8:1::1000", "2001:db8:1::1fff"},
            {v4b, "fixed-address", "203.0.113.100", "203.0.113.119"},
            {v6b, "iaaddr", "2001:db8:2::100", "2001:db8:2::1ff"},
            {relayed, "fixed-address", "198.51.100.200", "198.51.100.220"},
        };
        for (const auto &l : leases) {
            const std::string address = l.Client.Wait(l.Field).value_or("none");
            EXPECT_TRUE(lab::InRange(address, l.First, l.Last)) << l.Client.Lease << ": " << address;
        }
        if (HasFailure())
            FAIL() << lab::Text(dir.File("serve.1.log")) << lab::Text("/var/log/morvaxel.log") << lab::Text(remote.Log);
    }

    // A desired state that cannot be read: the start says so and what it could not
    // reconcile, dhcp.conf is still restored, and nothing overwrites the operator's file.
    const std::string desired = dir.File("desired.json"), good = lab::Text(desired);
    const std::string broken = good.substr(0, good.size() / 2);
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
