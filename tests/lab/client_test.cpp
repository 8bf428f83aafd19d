// The DHCP client operations: real ISC dhclient started and stopped by the module in zone
// 7's namespace ("vpn7"), a dnsmasq server across a veth pair in "kqfar", and the router
// solicitation that server receives.
#include "kqCtrlDynamic.h"
#include "labutil.h"

namespace {

TEST(ClientLab, LeasesStatelessDnsSolicitationAndPidFiles)
{
    LAB_REQUIRE();
    lab::TempDir dir;
    lab::UseHost(dir);
    KQ_HostRuleClear();
    lab::Netns near("vpn7"), far("kqfar");
    // Only the module's solicitation may reach the far side.
    lab::MustSh("ip netns exec vpn7 sysctl -qw net.ipv6.conf.default.router_solicitations=0");
    lab::Veth("vpn7", "wan0", {}, "kqfar", "srv0", {"192.0.2.1/24", "2001:db8:1::1/64"});
    lab::Dnsmasq server("kqfar", dir, "server",
                        "interface=srv0\nbind-interfaces\nport=0\nenable-ra\n"
                        "dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,10m\n"
                        "dhcp-range=2001:db8:1::100,2001:db8:1::1ff,64,10m\n"
                        "dhcp-option=option6:dns-server,[2001:db8:1::53]\n");
    const std::string pid4File = "/var/run/wan0_dhclient.pid", pid6File = "/var/run/wan0_dhclient6.pid";

    // The module's router solicitation reaches the far side, where dnsmasq takes it as one.
    int saved = -1;
    ASSERT_EQ(KQ_RtcNetNsSaveAndSwitch(7, &saved), 0);
    EXPECT_EQ(KQCtrl_SendOneRsPkt("wan0"), 0);
    KQ_RtcNetNsSwitchToDefault(&saved);
    EXPECT_TRUE(lab::WaitFor([&] { return lab::Text(server.Log).find("RTR-SOLICIT(srv0)") != std::string::npos; }, 3s))
        << lab::Text(server.Log);

    // Information only: no lease; the client's script writes the DNS server into the zone's
    // resolv.conf, which `ip netns exec` takes from /etc/netns/<namespace>/.
    const std::string resolvConf = "/etc/netns/vpn7/resolv.conf";
    lab::MustSh("mkdir -p /etc/netns/vpn7 && : >" + resolvConf);
    const size_t logBefore = lab::Text(server.Log).size();
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP);
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6("wan0", 7), 0);
    const pid_t inform = lab::ReadPid(pid6File).value_or(0);
    EXPECT_TRUE(lab::WaitFor([&] { return lab::Text(resolvConf).find("nameserver 2001:db8:1::53") != std::string::npos; }, 20s));
    const std::string log = lab::Text(server.Log).substr(logBefore);
    EXPECT_NE(log.find("DHCPINFORMATION-REQUEST(srv0)"), std::string::npos) << log;
    EXPECT_EQ(log.find("DHCPSOLICIT"), std::string::npos) << log;
    // ISC dhclient 4.4 exits after an information-only exchange ("PRC: Done."), so its pid
    // file is stale: stop removes it and succeeds, as for any client already gone. A client
    // still running is killed. An exited one may linger as a zombie, so "running" means one
    // that still has a command line.
    auto running = [&] { return !lab::Text("/proc/" + std::to_string(inform) + "/cmdline").empty(); };
    lab::WaitFor([&] { return !running(); }, 5s);
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("wan0", 7), 0);
    EXPECT_FALSE(running());
    EXPECT_FALSE(lab::ReadFile(pid6File));

    // A pid file naming another program: disable removes it without killing, enable
    // starts the client all the same.
    lab::Child sleeper("", "/bin/sleep 60");
    lab::WriteFile(pid4File, std::to_string(sleeper.Pid) + "\n");
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4("wan0", 7), 0);
    EXPECT_TRUE(lab::Alive(sleeper.Pid));
    EXPECT_FALSE(lab::ReadFile(pid4File));
    lab::WriteFile(pid4File, std::to_string(sleeper.Pid) + "\n");
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv4("wan0", 7), 0);
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6("wan0", 7), 0);
    EXPECT_EQ(KQ_HostRuleCount(), 1u);
    // Each enable returns once its dhclient has written the pid file.
    const pid_t pid4 = lab::ReadPid(pid4File).value_or(0), pid6 = lab::ReadPid(pid6File).value_or(0);
    ASSERT_TRUE(pid4 > 0 && pid6 > 0 && pid4 != sleeper.Pid);
    const std::string lease4 = "/var/lib/dhclient/dhclient.wan0.leases", lease6 = "/var/lib/dhclient/dhclient6.wan0.leases";
    std::optional<std::string> address4, address6;
    lab::WaitFor([&] { return (address4 = lab::LeaseField(lease4, "fixed-address")) && (address6 = lab::LeaseField(lease6, "iaaddr")); }, 30s);
    EXPECT_TRUE(lab::InRange(address4.value_or(""), "192.0.2.100", "192.0.2.150")) << lab::Text(server.Log);
    EXPECT_TRUE(lab::InRange(address6.value_or(""), "2001:db8:1::100", "2001:db8:1::1ff")) << lab::Text(server.Log);

    // The clients stop independently; the rule goes with the last DHCPv6 client.
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4("wan0", 7), 0);
    EXPECT_FALSE(lab::Alive(pid4));
    EXPECT_FALSE(lab::ReadFile(pid4File));
    EXPECT_TRUE(lab::Alive(pid6));
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("wan0", 7), 0);
    EXPECT_FALSE(lab::Alive(pid6));
    EXPECT_FALSE(lab::ReadFile(pid6File));
    EXPECT_EQ(KQ_HostRuleCount(), 0u);

    EXPECT_TRUE(sleeper.Running());
}

}  // namespace
