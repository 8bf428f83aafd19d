// The module's own servers: dnsmasq started through the reference host in zone 7's
// namespace, and real clients across a veth pair getting what each mode promises.
#include "kqtest.h"
#include "labutil.h"

namespace {

using kqtest::Ip4;
using kqtest::ServerMsg;

TEST(ServerLab, EveryModeLeasesAndTheProcessRulesHold)
{
    LAB_REQUIRE();
    lab::TempDir dir;
    lab::UseHost(dir, R"("lans": [{"ifname": "lan0", "vpnId": 7}])");
    lab::Netns zone("vpn7"), cli("lab-cli"), other("lab-cli2");
    lab::Veth("vpn7", "lan0", {"192.0.2.1/24", "2001:db8:1::1/64"}, "lab-cli", "cli0");
    lab::Veth("vpn7", "lan9", {"192.0.2.254/24"}, "lab-cli2", "cli9");
    const std::string pidFile = "/var/run/vyr_dhcpd_lan0.pid", confFile = "/etc/vyr_dhcpd_lan0.conf";
    auto serverLog = [] { return lab::Text("/var/log/morvaxel.log"); };

    // Stale pid files naming an unrelated program: it survives, and the server starts (the
    // add stops the shared relay first).
    lab::Child unrelated("", "/bin/sleep 60");
    lab::WriteFile(pidFile, std::to_string(unrelated.Pid) + "\n");
    lab::WriteFile("/var/run/vyr_dhcpd_relay.pid", std::to_string(unrelated.Pid) + "\n");
    ServerMsg m = ServerMsg::DualStack(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    m.IfName = "lan0";
    m.Pools = {{"192.0.2.100", 51}};
    m.Gateway = Ip4("192.0.2.1");
    m.Dns = {Ip4("198.51.100.53")};
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0) << serverLog();
    const std::optional<pid_t> pid = lab::ReadPid(pidFile);
    ASSERT_TRUE(pid && *pid != unrelated.Pid) << serverLog();
    EXPECT_EQ(lab::MustSh("ip netns identify " + std::to_string(*pid)), "vpn7\n");
    EXPECT_TRUE(unrelated.Running());
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_relay.pid"));

    // IPv4 and stateful DHCPv6 on lan0 only: nothing answers on lan9 of the same zone.
    lab::Dhclient unserved("lab-cli2", "cli9", dir, "-4");
    {
        lab::Dhclient v4("lab-cli", "cli0", dir, "-4"), v6("lab-cli", "cli0", dir, "-6");
        const std::string address = v4.Wait("fixed-address").value_or("none");
        EXPECT_TRUE(lab::InRange(address, "192.0.2.100", "192.0.2.150")) << address << lab::Text(v4.Log) << serverLog();
        EXPECT_EQ(lab::LeaseField(v4.Lease, "option routers"), "192.0.2.1");
        EXPECT_EQ(lab::LeaseField(v4.Lease, "option subnet-mask"), "255.255.255.0");
        EXPECT_EQ(lab::LeaseField(v4.Lease, "option domain-name-servers"), "198.51.100.53");
        const std::string address6 = v6.Wait("iaaddr").value_or("none");
        EXPECT_TRUE(lab::InRange(address6, "2001:db8:1::100", "2001:db8:1::1ff")) << address6 << lab::Text(v6.Log);
        EXPECT_EQ(lab::LeaseField(v6.Lease, "option dhcp6.name-servers"), "2001:db8::53");
    }

    // The same request again, and a refused one, leave process and files as they were.
    const std::string confText = lab::Text(confFile), persisted = lab::Text(dir.File("dhcp.conf"));
    ServerMsg bad = m;
    bad.Netmask = 0;
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(bad.Build()), -22);
    EXPECT_EQ(lab::ReadPid(pidFile), pid);
    EXPECT_TRUE(lab::Alive(*pid));
    EXPECT_EQ(lab::Text(confFile), confText);
    EXPECT_EQ(lab::Text(dir.File("dhcp.conf")), persisted);
    EXPECT_FALSE(lab::LeaseField(unserved.Lease, "fixed-address")) << serverLog();

    // SLAAC: the client's kernel builds an address in the advertised prefix.
    m.AddrMode = m.DnsMode = KQ_IPV6_SLAAC;
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    // Without the DHCPv6 address, and soliciting at once.
    lab::MustSh("ip -n lab-cli -6 addr flush dev cli0 scope global && ip -n lab-cli link set cli0 down && ip -n lab-cli link set cli0 up");
    EXPECT_TRUE(lab::WaitFor(
        [] { return lab::Sh("ip -n lab-cli -6 -o addr show dev cli0 scope global | grep -q 'inet6 2001:db8:1:.*/64 '") == 0; },
        20s))
        << lab::MustSh("ip -n lab-cli -6 addr show dev cli0") << serverLog();

    // Stateless: addresses by SLAAC, DNS by an information request, which leaves no lease:
    // the client's script reports the DNS it got.
    m.DnsMode = KQ_IPV6_DHCP;
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    const std::string script = dir.File("inform.sh"), report = dir.File("inform.txt");
    lab::WriteFile(script, "#!/bin/sh\n[ -n \"$new_dhcp6_name_servers\" ] && echo \"dns $new_dhcp6_name_servers\" >>" + report + "\n");
    chmod(script.c_str(), 0755);
    {
        lab::Dhclient inform("lab-cli", "cli0", dir, "-S", script);
        EXPECT_TRUE(lab::WaitFor([&] { return !lab::Text(report).empty(); }, 20s)) << lab::Text(inform.Log) << serverLog();
        EXPECT_EQ(lab::Text(report), "dns 2001:db8::53\n");
    }

    // Delete stops the server and removes its files; the unrelated program lives on.
    const std::optional<pid_t> last = lab::ReadPid(pidFile);
    ASSERT_TRUE(last);
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(m.Build()), 0);
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::Alive(*last); }, 5s));
    EXPECT_FALSE(lab::ReadFile(pidFile));
    EXPECT_FALSE(lab::ReadFile(confFile));
    EXPECT_TRUE(unrelated.Running());
}

}  // namespace
