#include <functional>

#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqtest.h"

using fakehost::Host;
using fakehost::Ip4;

namespace {

using kqtest::ServerMsg;

class ServerPbToConf : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host().LogTestDump = false;  // one line per message
    }
};

const std::string kV4Failed = "Protobuf to conf for dynamic Server Ipv4 failed(22:Invalid argument)\n";
const std::string kV6Failed = "Protobuf to conf for dynamic Server Ipv6 failed(22:Invalid argument)\n";

TEST_F(ServerPbToConf, RefusalsGiveTheirCodeAndMessagesInOrder)
{
    struct Row {
        const char *Name;
        std::function<void(ServerMsg &)> Change;
        int Result;
        std::vector<std::string> Messages;
    };
    const std::vector<Row> rows = {
        {"null ifname", [](ServerMsg &m) { m.IfName.reset(); }, -22, {"Dhcp protobuf ifname is invalid\n"}},
        {"empty ifname", [](ServerMsg &m) { m.IfName = ""; }, -22, {"Dhcp protobuf ifname is invalid\n"}},
        {"16 characters", [](ServerMsg &m) { m.IfName = "eth1234567890123"; }, -75,
         {"dhcp ifname eth1234567890123 is overflow\n"}},
        {"slash", [](ServerMsg &m) { m.IfName = "a/b"; }, -22, {"Dhcp protobuf ifname is invalid\n"}},
        {"blank", [](ServerMsg &m) { m.IfName = "eth 1"; }, -22, {"Dhcp protobuf ifname is invalid\n"}},
        {"dot dot", [](ServerMsg &m) { m.IfName = ".."; }, -22, {"Dhcp protobuf ifname is invalid\n"}},
        {"no pools", [](ServerMsg &m) { m.Pools.clear(); }, -22, {"dhcp server v2 param is invalid\n", kV4Failed}},
        {"zero mask", [](ServerMsg &m) { m.Netmask = 0; }, -22, {"dhcp server v2 param is invalid\n", kV4Failed}},
        {"zero lease", [](ServerMsg &m) { m.Lease = 0; }, -22, {"dhcp server v2 param is invalid\n", kV4Failed}},
        {"65 pools", [](ServerMsg &m) { m.Pools.assign(65, {"192.0.2.1", 1}); }, -22,
         {"dhcp server v2 param is invalid\n", kV4Failed}},
        {"absent pool", [](ServerMsg &m) { m.Pools.push_back({"192.0.2.1", 1}); m.NullPoolAt = 1; }, -22,
         {"dhcp ip range is null\n", kV4Failed}},
        {"zero dns", [](ServerMsg &m) { m.Dns = {Ip4("192.0.2.53"), 0}; }, -22,
         {"dhcp server dns is invalid\n", kV4Failed}},
        {"65 dns", [](ServerMsg &m) { m.Dns.assign(65, Ip4("192.0.2.53")); }, -22,
         {"dhcp server dns is invalid\n", kV4Failed}},
        {"zero gateway", [](ServerMsg &m) { m.Gateway = 0; }, -22, {"dhcp server gateway is invalid\n", kV4Failed}},
        {"v6 server absent", [](ServerMsg &m) { m.V6Mode = 3; m.V6Server = false; }, -22,
         {"Dynamic server protobuf is null\n", kV6Failed}},
        {"v6 modes 1,2", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 2); }, -22,
         {"Dynamic server ipv6 and dns mode error\n", kV6Failed}},
        {"v6 modes 3,3", [](ServerMsg &m) { m = ServerMsg::Ipv6(3, 3); }, -22,
         {"Dynamic server ipv6 and dns mode error\n", kV6Failed}},
        {"v6 modes absent", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.AddrMode.reset(); m.DnsMode.reset(); },
         -22, {"Dynamic server ipv6 and dns mode error\n", kV6Failed}},
        {"v6 absent pool", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.NullV6PoolAt = 0; }, -22,
         {"dhcp ipv6 range is null\n", "Protobuf to dhcp failed\n", kV6Failed}},
        {"v6 short pool end", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Pools[0].second = "short"; }, -22,
         {"Trans start ipv6 protobuf to ipv6 addr for conn reply src ipv6 addr failed\n",
          "Protobuf to dhcp failed\n", kV6Failed}},
        {"v6 65 pools", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Pools.assign(65, m.V6Pools[0]); }, -22,
         {"dhcp server v2 param is invalid\n", "Protobuf to dhcp failed\n", kV6Failed}},
        {"v6 empty dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Dns.push_back(nullptr); }, -22,
         {"Dhcp Ipv6Dns is invalid\n", "Protobuf to dhcp failed\n", kV6Failed}},
        {"v6 short dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.V6Dns = {"short"}; }, -22,
         {"Trans Ipv6Dns protobuf to ipv6 addr for conn reply src ipv6 addr failed\n",
          "Protobuf to slaac failed\n", kV6Failed}},
        {"v6 65 dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.V6Dns.assign(65, "2001:db8::53"); }, -22,
         {"Dhcp Ipv6Dns is invalid\n", "Protobuf to slaac failed\n", kV6Failed}},
        {"v6 short prefix", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.Prefix = "short"; }, -22,
         {"Trans ipv6 prefix protobuf to ipv6 prefix for conn reply src ipv6 addr failed\n",
          "Protobuf to slaac failed\n", kV6Failed}},
        {"stateless dhcp part", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 1); m.NullV6PoolAt = 0; }, -22,
         {"dhcp ipv6 range is null\n", "Protobuf to dhcp server failed\n", kV6Failed}},
        {"both slaac part", [](ServerMsg &m) { m = ServerMsg::Ipv6(3, 2); m.Prefix = "short"; }, -22,
         {"Trans ipv6 prefix protobuf to ipv6 prefix for conn reply src ipv6 addr failed\n",
          "Protobuf to slaac server failed\n", kV6Failed}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        fakehost::Reset();
        Host().LogTestDump = false;
        ServerMsg m = ServerMsg::Ipv4();
        row.Change(m);
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        EXPECT_EQ(KQCtrl_PbToConfDynamicServer(m.Build(), &conf), row.Result);
        EXPECT_EQ(fakehost::Messages(), row.Messages);
    }
    fakehost::Reset();
    Host().LogTestDump = false;
    KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
    EXPECT_EQ(KQCtrl_PbToConfDynamicServer(nullptr, &conf), -22);
    EXPECT_EQ(fakehost::Messages(), std::vector<std::string>{"Dhcp protobuf ifname is invalid\n"});
}

TEST_F(ServerPbToConf, ModePairsAndPartsTheyFill)
{
    struct Row { uint32_t Addr, Dns; KQ_IPV6_ADDR_AUTOCONF_TYPE Mode; bool Dhcp, Slaac; };
    for (const Row &row : {Row{1, 1, KQ_IPV6_ADDR_AUTOCONF_DHCP, true, false},
                           Row{2, 2, KQ_IPV6_ADDR_AUTOCONF_SLAAC, false, true},
                           Row{2, 1, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, true, true},
                           Row{3, 2, KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, true, true}}) {
        ServerMsg m = ServerMsg::Ipv6(row.Addr, row.Dns);
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        ASSERT_EQ(KQCtrl_PbToConfDynamicServer(m.Build(), &conf), 0);
        EXPECT_EQ(conf.NetAddrType, KQ_NET_ADDR_IPV6);
        EXPECT_EQ(conf.ServerIpv6Conf.DynamicMode, row.Mode);
        EXPECT_EQ(conf.ServerIpv6Conf.DhcpConf.Ipv6RangeNum, row.Dhcp ? 1u : 0u);
        EXPECT_EQ(conf.ServerIpv6Conf.SlaacConf.PrefixLength, row.Slaac ? 64u : 0u);
    }
    // Both families in server mode, on a LAN of zone 7.
    Host().LanVpnId["eth1"] = 7;
    ServerMsg both = ServerMsg::Ipv6(2, 1);
    ServerMsg v4 = ServerMsg::Ipv4();
    both.V4Mode = 3;
    both.Pools = v4.Pools;
    both.Netmask = v4.Netmask;
    both.Lease = v4.Lease;
    KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
    ASSERT_EQ(KQCtrl_PbToConfDynamicServer(both.Build(), &conf), 0);
    EXPECT_EQ(conf.NetAddrType, KQ_NET_ADDR_IPV46);
    EXPECT_EQ(conf.SecurityZoneId, 7u);
    EXPECT_EQ(conf.ServerIpv4Conf.IpRange[0].EndIp, Ip4("192.0.2.199"));
    EXPECT_TRUE(kqtest::SameIp6(conf.ServerIpv6Conf.SlaacConf.Ipv6Dns[0], "2001:db8::53"));
}

TEST_F(ServerPbToConf, NonServerModesLeaveOnlyNameAndZone)
{
    ServerMsg relay = ServerMsg::Ipv4();
    relay.V4Mode = 2;
    ServerMsg noServer = ServerMsg::Ipv4();
    noServer.V4Server = false;  // server mode without its message: skipped silently
    for (ServerMsg *m : {&relay, &noServer}) {
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        ASSERT_EQ(KQCtrl_PbToConfDynamicServer(m->Build(), &conf), 0);
        KQ_CTRL_DYNAMIC_SERVER_CONF expected{};
        strcpy(expected.IfName, "eth1");
        EXPECT_EQ(memcmp(&conf, &expected, sizeof(conf)), 0);
    }
    EXPECT_TRUE(fakehost::Messages().empty());
}

}  // namespace
