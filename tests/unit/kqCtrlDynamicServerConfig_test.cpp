// Server add and delete: when an unchanged request is short-cut, what a change restarts, and
// that a refused request changes nothing.
#include <gtest/gtest.h>

#include "fakehost.h"

using fakehost::Host;
using fakehost::Ip4;
using kqtest::ServerMsg;

namespace {

const std::string kConf = "/etc/vyr_dhcpd_eth1.conf";
const std::string kPid = "/var/run/vyr_dhcpd_eth1.pid";

class ServerConfig : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host().LogTestDump = false;
    }
    // Adds M and tells whether dnsmasq was started again.
    static bool Restarted(ServerMsg &M)
    {
        size_t before = Host().Commands.size();
        EXPECT_EQ(KQCtrl_ConfigDynamicServerAdd(M.Build()), 0);
        return Host().Commands.size() > before;
    }
    static const KQ_CTRL_DYNAMIC_SERVER_CONF *Stored() { return _KQCtrl_GetDynamicServerConfByName("eth1"); }
};

TEST_F(ServerConfig, UnchangedRequestsAreShortCutAndChangesRestart)
{
    // IPv4: pools compare as a set; the interface address serves as DNS before the comparison.
    Host().FirstIpv4["eth1"] = Ip4("192.0.2.1");
    ServerMsg m = ServerMsg::Ipv4();
    m.Pools = {{"192.0.2.100", 10}, {"192.0.2.150", 10}};
    ASSERT_TRUE(Restarted(m));
    EXPECT_NE(fakehost::ReadFile(kConf)->find("dhcp-option=eth1,6,192.0.2.1\n"), std::string::npos);
    EXPECT_EQ(fakehost::ErrorLines(), std::vector<std::string>{});  // no relay to stop is no failure
    std::swap(m.Pools[0], m.Pools[1]);
    EXPECT_FALSE(Restarted(m));
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv4service for eth1 is same to current configuration\n"));
    EXPECT_EQ(Stored()->ServerIpv4Conf.IpRange[0].StartIp, Ip4("192.0.2.100"));  // registry untouched
    m.Dns = {Ip4("192.0.2.1"), Ip4("192.0.2.53")};  // one DNS server more
    EXPECT_TRUE(Restarted(m));
    m.Pools[1] = {"192.0.2.100", 20};  // the same start, another end
    EXPECT_TRUE(Restarted(m));
    Host().LanVpnId["eth1"] = 7;
    EXPECT_TRUE(Restarted(m));
    EXPECT_TRUE(fakehost::HasMessage("dynamic SecurityZoneId is not same\n"));
    EXPECT_EQ(Host().Commands.back().rfind("ip netns exec vpn7 /usr/sbin/dnsmasq ", 0), 0u);
    EXPECT_EQ(Stored()->SecurityZoneId, 7u);

    // IPv6: pools compare whole, DNS lists by position.
    fakehost::ClearRegistry();
    ServerMsg v6 = ServerMsg::Ipv6(1, 1);
    v6.V6Dns = {"2001:db8::a", "2001:db8::b"};
    ASSERT_TRUE(Restarted(v6));
    v6.V6Dns = {"2001:db8::a", "2001:db8::c"};  // position 0 still matches
    EXPECT_FALSE(Restarted(v6));
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv6service for eth1 is same to current configuration\n"));
    v6.V6Dns = {"2001:db8::b", "2001:db8::a"};
    EXPECT_TRUE(Restarted(v6));
    EXPECT_TRUE(fakehost::HasMessage("Dhcp server dns ipv6 is not same\n"));
    EXPECT_TRUE(kqtest::SameIp6(Stored()->ServerIpv6Conf.DhcpConf.Ipv6Dns[0], "2001:db8::b"));
    v6.V6Pools[0].second = "2001:db8:1::1fe";  // the same start, another end
    EXPECT_TRUE(Restarted(v6));
    v6.PrefixLen = 48;
    EXPECT_TRUE(Restarted(v6));

    // Both families without DNS: each takes the interface's own address.
    fakehost::ClearRegistry();
    Host().LanVpnId.clear();
    Host().FirstIpv6["eth1"] = fakehost::Ip6("2001:db8:1::1");
    ServerMsg both = ServerMsg::DualStack(1, 1);
    both.V6Dns.clear();
    ASSERT_TRUE(Restarted(both));
    EXPECT_NE(fakehost::ReadFile(kConf)->find("dhcp-option=eth1,6,192.0.2.1\n"), std::string::npos);
    EXPECT_NE(fakehost::ReadFile(kConf)->find("dhcp-option=option6:dns-server,[2001:db8:1::1]\n"), std::string::npos);
    EXPECT_FALSE(Restarted(both));
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv4&6 service for eth1 is same to current configuration\n"));

    // IPv6 without DNS in the other modes: the list the mode hands out takes the interface's
    // address when the request has DHCPv6 pools (stateless: the DHCPv6 list; combined: the
    // SLAAC list). A SLAAC request keeps no pools, so it never does.
    for (auto [addr, dns, pools, takes] : {std::tuple{KQ_IPV6_SLAAC, KQ_IPV6_DHCP, true, true}, {KQ_IPV6_BOTH, KQ_IPV6_SLAAC, true, true},
                                           {KQ_IPV6_SLAAC, KQ_IPV6_SLAAC, true, false}, {KQ_IPV6_SLAAC, KQ_IPV6_DHCP, false, false}}) {
        SCOPED_TRACE(std::to_string(addr) + "/" + std::to_string(dns) + (pools ? " with pools" : ""));
        fakehost::ClearRegistry();
        ServerMsg m6 = ServerMsg::Ipv6(addr, dns);
        if (!pools)
            m6.V6Pools.clear();
        m6.V6Dns.clear();
        ASSERT_TRUE(Restarted(m6));
        EXPECT_EQ(fakehost::ReadFile(kConf)->find("dhcp-option=option6:dns-server,[2001:db8:1::1]\n") != std::string::npos, takes);
    }
}

TEST_F(ServerConfig, ServerModeStopsTheRelayAndRelayModeStopsTheServer)
{
    // Server mode: the shared relay goes; a failure to stop it does not stop the add.
    fakehost::Lookalike relay("/usr/sbin/dnsmasq", {std::string("--pid-file=") + kqtest::kRelayPidPath});
    fakehost::WriteFile(kqtest::kRelayPidPath, relay.PidText());
    Host().Fail["KQ_KillPid"] = -EPERM;
    ServerMsg m = ServerMsg::Ipv4();
    ASSERT_TRUE(Restarted(m));
    EXPECT_EQ(fakehost::ReadFile(kConf)->find(",6,"), std::string::npos);  // no DNS, no interface address
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{relay.Pid()});
    EXPECT_TRUE(fakehost::HasMessage("Stop dynamic relay failed\n"));
    remove(kqtest::kRelayPidPath);

    // Relay mode: the interface's own server goes, its files with it; a record serving
    // nothing is never short-cut, so the stop runs again.
    fakehost::WriteFile(kPid, "4194303\n");  // a pid that cannot exist
    m.V4Mode = 2;
    EXPECT_FALSE(Restarted(m));
    EXPECT_FALSE(fakehost::ReadFile(kConf));
    EXPECT_FALSE(fakehost::ReadFile(kPid));
    EXPECT_EQ(Stored()->NetAddrType, 0);
    fakehost::Reset();
    Host().LogTestDump = false;
    EXPECT_FALSE(Restarted(m));
    EXPECT_TRUE(fakehost::HasMessage("Dynamic service is not exist\n"));
}

TEST_F(ServerConfig, RefusedAddsAndDeletesChangeNothing)
{
    ServerMsg good = ServerMsg::Ipv4();
    ASSERT_TRUE(Restarted(good));
    fakehost::WriteFile(kPid, "4194303\n");
    const KQ_CTRL_DYNAMIC_SERVER_CONF before = *Stored();
    const std::string confText = *fakehost::ReadFile(kConf);

    ServerMsg badMask = ServerMsg::Ipv4(), badName = ServerMsg::Ipv4();
    badMask.Netmask = 0;
    badName.IfName = "eth1/x";
    for (const DhcpItemV2 *msg : {badMask.Build(), badName.Build(), (const DhcpItemV2 *)nullptr}) {
        fakehost::Reset();
        Host().LogTestDump = false;
        EXPECT_EQ(KQCtrl_ConfigDynamicServerAdd(msg), -22);
        EXPECT_EQ(KQCtrl_ConfigDynamicServerDel(msg), -22);
        EXPECT_EQ(fakehost::Messages().back(), "Protobuf to conf for dynamic failed(22:Invalid argument)\n");
        EXPECT_EQ(memcmp(Stored(), &before, sizeof(before)), 0);
        EXPECT_EQ(fakehost::ReadFile(kConf), confText);
        EXPECT_EQ(fakehost::ReadFile(kPid), "4194303\n");
        EXPECT_TRUE(Host().Commands.empty());
    }

    // A failed restart keeps the old record.
    Host().Fail["KQ_CmdExec"] = -1;
    good.Lease = 60;
    EXPECT_EQ(KQCtrl_ConfigDynamicServerAdd(good.Build()), -22);
    EXPECT_EQ(fakehost::Messages().back(), "Deal with dynamic service failed(22:Invalid argument)\n");
    EXPECT_EQ(memcmp(Stored(), &before, sizeof(before)), 0);

    // Delete stops the server and leaves the registry to the entry point.
    fakehost::WriteFile(kPid, "4194303\n");
    EXPECT_EQ(KQCtrl_ConfigDynamicServerDel(good.Build()), 0);
    EXPECT_FALSE(fakehost::ReadFile(kPid));
    EXPECT_FALSE(fakehost::ReadFile(kConf));
    EXPECT_EQ(memcmp(Stored(), &before, sizeof(before)), 0);

    // A new interface whose node cannot be allocated: the add says so and registers nothing.
    fakehost::ClearRegistry();
    fakehost::Reset();
    Host().LogTestDump = false;
    Host().FailOnCall["KQ_AgentMemZeroAlloc"] = 2;  // the conf text's buffer, then the node
    EXPECT_EQ(KQCtrl_ConfigDynamicServerAdd(good.Build()), -ENOMEM);
    EXPECT_EQ(fakehost::Messages().back(), "Insert dynamic conf node failed(12:Cannot allocate memory)\n");
    EXPECT_EQ(Stored(), nullptr);
}

}  // namespace
