#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"
#include "kqtest.h"

using fakehost::Host;
using fakehost::Ip4;

namespace {

using kqtest::ServerMsg;

const std::string kConf = "/etc/vyr_dhcpd_eth1.conf";
const std::string kPid = "/var/run/vyr_dhcpd_eth1.pid";

class ServerConfig : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host().LogTestDump = false;
    }
    static const KQ_CTRL_DYNAMIC_SERVER_CONF *Stored() { return _KQCtrl_GetDynamicServerConfByName("eth1"); }
    static size_t Restarts() { return Host().Commands.size(); }
};

TEST_F(ServerConfig, SameIpv4AgainInAnotherOrderIsNotRestarted)
{
    Host().FirstIpv4["eth1"] = Ip4("192.0.2.1");
    ServerMsg m = ServerMsg::Ipv4();
    m.Pools = {{"192.0.2.100", 10}, {"192.0.2.150", 10}};
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    ASSERT_EQ(Restarts(), 1u);
    // No DNS in the message: the interface's own address serves, before the comparison.
    EXPECT_NE(fakehost::ReadFile(kConf)->find("dhcp-option=eth1,6,192.0.2.1\n"), std::string::npos);
    std::swap(m.Pools[0], m.Pools[1]);
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 1u);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv4service for eth1 is same to current configuration\n"));
    EXPECT_EQ(Stored()->ServerIpv4Conf.IpRange[0].StartIp, Ip4("192.0.2.100"));  // registry untouched

    // As many pools, one of them another: restarted.
    m.Pools[1] = {"192.0.2.160", 10};
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 2u);
}

TEST_F(ServerConfig, Ipv6PoolsCompareWholeAndDnsListsByPosition)
{
    ServerMsg m = ServerMsg::Ipv6(1, 1);
    m.V6Dns = {"2001:db8::a", "2001:db8::b"};
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    m.V6Dns = {"2001:db8::a", "2001:db8::c"};  // position 0 still matches
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 1u);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv6service for eth1 is same to current configuration\n"));
    m.V6Dns = {"2001:db8::b", "2001:db8::a"};
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 2u);
    EXPECT_TRUE(fakehost::HasMessage("Dhcp server dns ipv6 is not same\n"));
    EXPECT_TRUE(kqtest::SameIp6(Stored()->ServerIpv6Conf.DhcpConf.Ipv6Dns[0], "2001:db8::b"));
    m.V6Pools[0].second = "2001:db8:1::1fe";  // the same start, another end
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 3u);
}

TEST_F(ServerConfig, DefaultDnsForBothFamiliesAndUnchangedRepeat)
{
    Host().FirstIpv4["eth1"] = Ip4("192.0.2.1");
    Host().FirstIpv6["eth1"] = fakehost::Ip6("2001:db8:1::1");
    ServerMsg m = ServerMsg::Ipv6(1, 1);
    m.V6Dns.clear();
    ServerMsg v4 = ServerMsg::Ipv4();
    m.V4Mode = 3;
    m.Pools = v4.Pools;
    m.Netmask = v4.Netmask;
    m.Lease = v4.Lease;
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    std::string conf = *fakehost::ReadFile(kConf);
    EXPECT_NE(conf.find("dhcp-option=eth1,6,192.0.2.1\n"), std::string::npos);
    EXPECT_NE(conf.find("dhcp-option=option6:dns-server,[2001:db8:1::1]\n"), std::string::npos);
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Restarts(), 1u);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic ipv4&6 service for eth1 is same to current configuration\n"));
}

TEST_F(ServerConfig, ChangedZoneRestartsInTheNewNamespace)
{
    ServerMsg m = ServerMsg::Ipv4();
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    Host().LanVpnId["eth1"] = 7;
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    ASSERT_EQ(Restarts(), 2u);
    EXPECT_TRUE(fakehost::HasMessage("dynamic SecurityZoneId is not same\n"));
    EXPECT_EQ(Host().Commands[1].rfind("ip netns exec vpn7 /usr/sbin/dnsmasq ", 0), 0u);
    EXPECT_EQ(Stored()->SecurityZoneId, 7u);
}

TEST_F(ServerConfig, ServerModeStopsTheRelayAndRelayModeStopsTheServer)
{
    // Server mode: the shared relay goes; a failure to stop it does not stop the add.
    const std::string relayPid = "/var/run/vyr_dhcpd_relay.pid";
    fakehost::Lookalike relay("/usr/sbin/dnsmasq", {"--pid-file=" + relayPid});
    fakehost::WriteFile(relayPid, relay.PidText());
    Host().Fail["KQ_KillPid"] = -EPERM;
    ServerMsg m = ServerMsg::Ipv4();
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{relay.Pid()});
    EXPECT_TRUE(fakehost::HasMessage("Stop dynamic relay failed\n"));
    EXPECT_EQ(Restarts(), 1u);
    remove(relayPid.c_str());

    // Relay mode: the interface's own server goes, its files with it.
    fakehost::WriteFile(kPid, "4194303\n");  // a pid that cannot exist
    m.V4Mode = 2;
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_FALSE(fakehost::ReadFile(kConf));
    EXPECT_FALSE(fakehost::ReadFile(kPid));
    EXPECT_EQ(Stored()->NetAddrType, 0);
    // A record serving nothing is never short-cut: the stop runs again.
    fakehost::Reset();
    Host().LogTestDump = false;
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(m.Build()), 0);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic service is not exist\n"));
    EXPECT_EQ(Restarts(), 0u);
}

TEST_F(ServerConfig, RefusedAddsAndDeletesChangeNothing)
{
    ServerMsg good = ServerMsg::Ipv4();
    ASSERT_EQ(KQCtrl_ConfigDynamicServerAdd(good.Build()), 0);
    fakehost::WriteFile(kPid, "4194303\n");
    const KQ_CTRL_DYNAMIC_SERVER_CONF before = *Stored();
    const std::string confText = *fakehost::ReadFile(kConf);

    ServerMsg badMask = ServerMsg::Ipv4();
    badMask.Netmask = 0;
    ServerMsg badName = ServerMsg::Ipv4();
    badName.IfName = "eth1/x";
    const std::string failed = "Protobuf to conf for dynamic failed(22:Invalid argument)\n";
    for (const DhcpItemV2 *msg : {badMask.Build(), badName.Build(), (const DhcpItemV2 *)nullptr}) {
        fakehost::Reset();
        Host().LogTestDump = false;
        EXPECT_EQ(KQCtrl_ConfigDynamicServerAdd(msg), -22);
        EXPECT_EQ(KQCtrl_ConfigDynamicServerDel(msg), -22);
        EXPECT_EQ(fakehost::Messages().back(), failed);
        EXPECT_EQ(memcmp(Stored(), &before, sizeof(before)), 0);
        EXPECT_EQ(fakehost::ReadFile(kConf), confText);
        EXPECT_EQ(fakehost::ReadFile(kPid), "4194303\n");
        EXPECT_EQ(Restarts(), 0u);
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
}

}  // namespace
