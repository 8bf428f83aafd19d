// dhcp.conf as the registry rewrites it: the whole document, what is left out, and what a
// failed write leaves on disk.
#include <gtest/gtest.h>

#include <string>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"
#include "kqtest.h"

namespace {

using fakehost::Ip4;
using fakehost::Ip6;

// The document example (eth1: IPv4 pools and a stateful DHCPv6 server; eth2: a relay) in
// documentation addresses, exactly as json-c prints it.
const char kExampleDocument[] =
    "{ \"dhcps\": [ { \"ifname\": \"eth1\", \"vpnId\": 0, "
    "\"dhcpIpv4Server\": { \"ipRange\": [ { \"startIp\": \"192.0.2.100\", \"endIp\": \"192.0.2.200\" } ], "
    "\"netmask\": \"255.255.255.0\", \"gateway\": \"192.0.2.1\", \"dnsIps\": [ \"192.0.2.1\", \"192.0.2.2\" ], "
    "\"leaseTime\": 86400 }, "
    "\"dhcpIpv6Server\": { \"dynamicMode\": 2, \"ipv6Range\": [ { \"startIpv6\": \"2001:db8:1::100\", "
    "\"endIpv6\": \"2001:db8:1::1ff\" } ], \"prefixlengthdhcp\": 64, \"dnsIpv6s\": [ \"2001:db8:1::1\" ], "
    "\"leaseTimeIpv6\": 86400 } }, "
    "{ \"ifname\": \"eth2\", \"vpnId\": 0, \"dhcpRelay\": { \"lanIp\": \"198.51.100.1\", "
    "\"relayServer\": [ \"203.0.113.10\", \"203.0.113.11\" ] } } ] }";

class PersistTest : public fakehost::ModuleTest {
protected:
    static std::string DhcpConf() { return fakehost::ReadFile(fakehost::Host().DhcpConfPath).value_or("<missing>"); }
    static std::string DhcpConfBak() { return fakehost::ReadFile(fakehost::Host().DhcpConfBakPath).value_or("<missing>"); }

    static void InsertExample()
    {
        KQ_CTRL_DYNAMIC_SERVER_CONF server{};
        strcpy(server.IfName, "eth1");
        server.SecurityZoneId = 3;  // the half's own zone is not persisted
        server.NetAddrType = KQ_NET_ADDR_IPV46;
        auto &v4 = server.ServerIpv4Conf;
        v4.IpRangeNum = 1;
        v4.IpRange[0] = {Ip4("192.0.2.100"), Ip4("192.0.2.200")};
        v4.NetMask = Ip4("255.255.255.0");
        v4.Gateway = Ip4("192.0.2.1");
        v4.DnsNum = 2;
        v4.Dns[0] = Ip4("192.0.2.1");
        v4.Dns[1] = Ip4("192.0.2.2");
        v4.LeaseTime = 86400;
        auto &dhcp = server.ServerIpv6Conf.DhcpConf;
        server.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_DHCP;
        dhcp.Ipv6RangeNum = 1;
        dhcp.Ipv6Range[0] = {Ip6("2001:db8:1::100"), Ip6("2001:db8:1::1ff")};
        dhcp.PrefixLength = 64;
        dhcp.Ipv6DnsNum = 1;
        dhcp.Ipv6Dns[0] = Ip6("2001:db8:1::1");
        dhcp.Ipv6LeaseTime = 86400;
        ASSERT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), 0);

        // An interface whose server was switched off: in the list, not in the file.
        KQ_CTRL_DYNAMIC_SERVER_CONF off{};
        strcpy(off.IfName, "eth9");
        ASSERT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&off), 0);

        KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
        strcpy(relay.IfName, "eth2");
        relay.SecurityZoneId = 4;
        relay.NetAddrType = KQ_NET_ADDR_IPV4;
        relay.RelayConf = {2, {Ip4("203.0.113.10"), Ip4("203.0.113.11")}, Ip4("198.51.100.1")};
        ASSERT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relay), 0);
    }
};

TEST_F(PersistTest, RegistryIsWrittenAsTheExampleDocument)
{
    InsertExample();
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), kExampleDocument);
    EXPECT_EQ(DhcpConfBak(), kExampleDocument);
    // Backup first, then copied over the live file.
    ASSERT_EQ(fakehost::Host().Writes.size(), 1u);
    EXPECT_EQ(fakehost::Host().Writes[0].first, fakehost::Host().DhcpConfBakPath);
    ASSERT_EQ(fakehost::Host().Copies.size(), 1u);
    EXPECT_EQ(fakehost::Host().Copies[0],
              std::make_pair(fakehost::Host().DhcpConfBakPath, fakehost::Host().DhcpConfPath));
    EXPECT_TRUE(fakehost::Messages().empty());
}

TEST_F(PersistTest, EmptyRegistryAndSwitchedOffInterfacesWriteAnEmptyArray)
{
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), "{ \"dhcps\": [ ] }");

    KQ_CTRL_DYNAMIC_SERVICE_CONF both{};
    strcpy(both.IfName, "eth5");
    strcpy(both.DynamicRelayConf.IfName, "eth5");  // a name alone does not count
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&both), 0);
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), "{ \"dhcps\": [ ] }");
}

TEST_F(PersistTest, FailedWritesLeaveTheFilesAsTheyWere)
{
    fakehost::WriteFile(fakehost::Host().DhcpConfPath, "previous");
    fakehost::WriteFile(fakehost::Host().DhcpConfBakPath, "previous backup");
    InsertExample();

    fakehost::Host().Fail["KQ_WriteSyncWithFilePath"] = -EIO;
    EXPECT_EQ(_KQCtrl_UpdateDynamicConfFile(), -EIO);
    EXPECT_TRUE(fakehost::HasMessage("Write /etc/kqagent/dhcp.conf.bak failed(5:Input/output error)\n"));
    EXPECT_TRUE(fakehost::Host().Copies.empty());
    EXPECT_EQ(DhcpConf(), "previous");

    fakehost::Reset();
    fakehost::Host().Fail["KQ_FileCopy"] = -ENOSPC;
    EXPECT_EQ(_KQCtrl_UpdateDynamicConfFile(), -ENOSPC);
    EXPECT_TRUE(fakehost::HasMessage("file copy /etc/kqagent/dhcp.conf.bak failed(28:No space left on device)\n"));
    EXPECT_EQ(DhcpConf(), "previous");
    EXPECT_EQ(DhcpConfBak(), kExampleDocument);

    // A half that does not convert abandons the whole document before anything is written.
    fakehost::Reset();
    fakehost::Host().Fail["KQ_SafeStrFormatIp6Addr"] = 99;  // an IPv6 text that does not fit
    EXPECT_EQ(_KQCtrl_UpdateDynamicConfFile(), -EOVERFLOW);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic conf to json failed(75:Value too large for defined data type)\n"));
    EXPECT_TRUE(fakehost::Host().Writes.empty());
}

// Through the entry point, with the server and relay sides converting the requests.
TEST_F(PersistTest, EndToEndAddWritesTheExampleDocument)
{
    fakehost::Host().LanVpnId["eth1"] = 3;
    fakehost::Host().LanVpnId["eth2"] = 4;

    kqtest::ServerMsg eth1 = kqtest::ServerMsg::DualStack(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    eth1.Pools = {{"192.0.2.100", 101}};
    eth1.Lease = 86400;
    eth1.Dns = {Ip4("192.0.2.1"), Ip4("192.0.2.2")};
    eth1.Gateway = Ip4("192.0.2.1");
    eth1.V6Lease = 86400;
    eth1.V6Dns = {"2001:db8:1::1"};
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth1.Build()), 0) << ::testing::PrintToString(fakehost::Messages());
    kqtest::RelayMsg eth2 = kqtest::RelayItem("eth2", "198.51.100.1", {"203.0.113.10", "203.0.113.11"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth2.get()), 0) << ::testing::PrintToString(fakehost::Messages());

    EXPECT_EQ(DhcpConf(), kExampleDocument);

    // Deleting an interface that was never added still rewrites the file unchanged.
    DhcpItemV2 unknown = DHCP_ITEM_V2__INIT;
    unknown.ifname = const_cast<char *>("eth7");
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&unknown), 0);
    EXPECT_EQ(DhcpConf(), kExampleDocument);
}

}  // namespace
