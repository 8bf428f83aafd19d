// An agent restart: one kqagent process configures a server and a relay and ends, leaving
// its dnsmasq processes running as after a crash; a fresh kqagent process runs the start-up
// load, which restarts every dnsmasq from dhcp.conf, and clients get their addresses again.
//
//   client netns "rs-cli"  c0 --veth-- lan0 192.0.2.1, 2001:db8:1::1   appliance (the isolated
//   client netns "rs-rcli" c1 --veth-- rl1  203.0.113.1                default namespace)
//                                      rs0  198.51.100.1
//                                       |
//   server netns "rs-srv"  srv0 198.51.100.2 (lab dnsmasq with the pool of rl1's LAN)
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>

#include "labutil.h"

#ifndef KQAGENT_PATH
#error "KQAGENT_PATH names the built kqagent"
#endif

namespace {

using namespace std::chrono_literals;

constexpr char kServerPid[] = "/var/run/vyr_dhcpd_lan0.pid";
constexpr char kServerConf[] = "/etc/vyr_dhcpd_lan0.conf";
constexpr char kRelayPid[] = "/var/run/vyr_dhcpd_relay.pid";
constexpr char kRelayConf[] = "/etc/vyr_dhcpd_relay.conf";

const char *kRequests = R"({"requests":[
  {"op":"add","item":{"ifname":"lan0",
    "ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.100","len":20}],
      "netmask":"255.255.255.0","gateway":"192.0.2.1","dns":["192.0.2.1"],"leasetime":3600}},
    "ipv6dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"ipv6begin":"2001:db8:1::100","ipv6end":"2001:db8:1::1ff"}],
      "prefixlength":64,"dns":["2001:db8:1::1"],"leasetime":3600,"ipv6dynamicmode":"dhcp","dnsdynamicmode":"dhcp"}}}},
  {"op":"add","item":{"ifname":"rl1",
    "ipv4dhcpitem":{"mode":"relay","dhcprelay":{"relayserver":["198.51.100.2"],"lanip":"203.0.113.1"}}}}]})";

int Agent(const lab::TempDir &Dir, const std::string &Args)
{
    return lab::Sh(std::string(KQAGENT_PATH) + " " + Args + " >>" + Dir.File("agent.log") + " 2>&1");
}

// Every dnsmasq and dhclient of this test goes, whatever way the test ends.
struct ProcessSweep {
    ~ProcessSweep()
    {
        lab::KillAll("dnsmasq");
        lab::KillAll("dhclient");
    }
};

TEST(RestoreLab, FreshAgentRestartsEveryDnsmasqFromDhcpConf)
{
    LAB_REQUIRE_PREREQUISITES();
    ProcessSweep sweep;
    lab::TempDir dir("kq-restore-");
    lab::MustSh("ip link set lo up");
    lab::Netns client("rs-cli"), relayClient("rs-rcli"), remoteNs("rs-srv");
    for (const lab::Netns *ns : {&client, &relayClient, &remoteNs})
        ns->MustSh("ip link set lo up");

    lab::VethPair("", "lan0", client.Name(), "c0");
    lab::DisableDad("", "lan0");
    lab::DisableDad(client.Name(), "c0");
    lab::AddAddr("", "lan0", "192.0.2.1/24");
    lab::AddAddr("", "lan0", "2001:db8:1::1/64");
    ASSERT_TRUE(lab::WaitIpv6Ready("", "lan0"));
    ASSERT_TRUE(lab::WaitIpv6Ready(client.Name(), "c0"));

    lab::VethPair("", "rs0", remoteNs.Name(), "srv0");
    lab::AddAddr("", "rs0", "198.51.100.1/24");
    lab::AddAddr(remoteNs.Name(), "srv0", "198.51.100.2/24");
    remoteNs.MustSh("ip route add 203.0.113.0/24 via 198.51.100.1");
    lab::VethPair("", "rl1", relayClient.Name(), "c1");
    lab::AddAddr("", "rl1", "203.0.113.1/24");
    lab::Dnsmasq remote(remoteNs.Name(), dir, "remote",
                        "port=0\ninterface=srv0\ndhcp-authoritative\n"
                        "dhcp-range=203.0.113.100,203.0.113.150,255.255.255.0,10m\n");

    // Zone 0: dhcp.conf does not keep the zone, so the restored server runs in zone 0
    // whatever zone it had; starting there makes both runs comparable.
    lab::HostConfig host(dir, lab::HostSettings{.lans = {{"lan0", 0}, {"rl1", 0}}});

    // The first agent configures and ends; its dnsmasq processes stay, as after a crash.
    lab::WriteFile(dir.File("requests.json"), kRequests);
    ASSERT_EQ(Agent(dir, "apply " + dir.File("requests.json")), 0) << lab::ReadFile(dir.File("agent.log")).value_or("");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kServerPid) && lab::ReadPidFile(kRelayPid); }, 5s));
    const pid_t oldServer = *lab::ReadPidFile(kServerPid), oldRelay = *lab::ReadPidFile(kRelayPid);
    ASSERT_EQ(lab::OwnDnsmasq().size(), 2u);
    const auto serverConf = lab::ReadFile(kServerConf), relayConf = lab::ReadFile(kRelayConf);

    // A fresh agent restores from dhcp.conf: new processes, the old ones gone, one each.
    ASSERT_EQ(Agent(dir, "load"), 0) << lab::ReadFile(dir.File("agent.log")).value_or("");
    std::optional<pid_t> newServer, newRelay;
    ASSERT_TRUE(lab::WaitFor(
        [&] {
            newServer = lab::ReadPidFile(kServerPid);
            newRelay = lab::ReadPidFile(kRelayPid);
            return newServer && newRelay && *newServer != oldServer && *newRelay != oldRelay &&
                   lab::ProcessAlive(*newServer) && lab::ProcessAlive(*newRelay);
        },
        5s))
        << lab::ReadFile(dir.File("agent.log")).value_or("");
    EXPECT_FALSE(lab::ProcessAlive(oldServer));
    EXPECT_FALSE(lab::ProcessAlive(oldRelay));
    const std::map<pid_t, std::string> running = lab::OwnDnsmasq();
    ASSERT_EQ(running.size(), 2u);
    EXPECT_NE(running.at(*newServer).find(kServerConf), std::string::npos);
    EXPECT_NE(running.at(*newRelay).find(kRelayConf), std::string::npos);
    EXPECT_EQ(lab::ReadFile(kRelayConf), relayConf);
    // dhcp.conf keeps "dynamicMode" but the load does not read it back: the restored record is
    // in SLAAC mode with only a DHCPv6 part, which serves no IPv6 at all. The IPv4 half is whole.
    ASSERT_TRUE(serverConf);
    const size_t v6Lines = serverConf->find("dhcp-range=2001:db8:1::100, 2001:db8:1::1ff, 64, 3600\n");
    ASSERT_NE(v6Lines, std::string::npos) << *serverConf;
    EXPECT_EQ(lab::ReadFile(kServerConf), serverConf->substr(0, v6Lines));

    // Clients obtain their addresses from the restored server and through the restored relay.
    {
        lab::Dhclient dh(client.Name(), "c0", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(lab::WaitIpv4InRange(client.Name(), "c0", "192.0.2.100", "192.0.2.119"))
            << lab::ReadFile(dh.LogFile()).value_or("") << lab::ReadFile("/var/log/morvaxel.log").value_or("");
    }
    {
        lab::Dhclient dh(relayClient.Name(), "c1", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(lab::WaitIpv4InRange(relayClient.Name(), "c1", "203.0.113.100", "203.0.113.150"))
            << lab::ReadFile(dh.LogFile()).value_or("") << "\nremote log:\n" << remote.Log();
    }
}

}  // namespace
