// Requests to server records: every refusal with its code and lines in order, and what each
// accepted mode fills.
#include <functional>

#include <gtest/gtest.h>

#include "fakehost.h"

using fakehost::Host;
using fakehost::Ip4;
using kqtest::ServerMsg;

namespace {

using Lines = std::vector<std::string>;

TEST(ServerPbToConf, RefusalsGiveTheirCodeAndLinesInOrder)
{
    const std::string v4 = "Protobuf to conf for dynamic Server Ipv4 failed(22:Invalid argument)\n";
    const std::string v6 = "Protobuf to conf for dynamic Server Ipv6 failed(22:Invalid argument)\n";
    const std::string name = "Dhcp protobuf ifname is invalid\n", param = "dhcp server v2 param is invalid\n";
    const std::string toDhcp = "Protobuf to dhcp failed\n", toSlaac = "Protobuf to slaac failed\n";
    const std::string modes = "Dynamic server ipv6 and dns mode error\n";
    struct Row {
        const char *Name;
        std::function<void(ServerMsg &)> Change;
        int Result;
        Lines Expected;
    };
    const Row rows[] = {
        {"null ifname", [](ServerMsg &m) { m.IfName.reset(); }, -22, {name}},
        {"empty ifname", [](ServerMsg &m) { m.IfName = ""; }, -22, {name}},
        {"16 characters", [](ServerMsg &m) { m.IfName = "eth1234567890123"; }, -75, {"dhcp ifname eth1234567890123 is overflow\n"}},
        {"slash", [](ServerMsg &m) { m.IfName = "a/b"; }, -22, {name}},
        {"no pools", [](ServerMsg &m) { m.Pools.clear(); }, -22, {param, v4}},
        {"zero mask", [](ServerMsg &m) { m.Netmask = 0; }, -22, {param, v4}},
        {"zero lease", [](ServerMsg &m) { m.Lease = 0; }, -22, {param, v4}},
        {"65 pools", [](ServerMsg &m) { m.Pools.assign(65, {"192.0.2.1", 1}); }, -22, {param, v4}},
        {"absent pool", [](ServerMsg &m) { m.Pools.push_back({"192.0.2.1", 1}); m.NullPoolAt = 1; }, -22, {"dhcp ip range is null\n", v4}},
        {"zero dns", [](ServerMsg &m) { m.Dns = {Ip4("192.0.2.53"), 0}; }, -22, {"dhcp server dns is invalid\n", v4}},
        {"65 dns", [](ServerMsg &m) { m.Dns.assign(65, Ip4("192.0.2.53")); }, -22, {"dhcp server dns is invalid\n", v4}},
        {"zero gateway", [](ServerMsg &m) { m.Gateway = 0; }, -22, {"dhcp server gateway is invalid\n", v4}},
        {"v6 server absent", [](ServerMsg &m) { m.V6Mode = 3; m.V6Server = false; }, -22, {"Dynamic server protobuf is null\n", v6}},
        {"v6 modes 1,2", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 2); }, -22, {modes, v6}},
        {"v6 modes 3,3", [](ServerMsg &m) { m = ServerMsg::Ipv6(3, 3); }, -22, {modes, v6}},
        {"v6 modes absent", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.AddrMode.reset(); m.DnsMode.reset(); }, -22, {modes, v6}},
        {"v6 absent pool", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.NullV6PoolAt = 0; }, -22, {"dhcp ipv6 range is null\n", toDhcp, v6}},
        {"v6 short pool end", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Pools[0].second = "short"; }, -22,
         {"Trans start ipv6 protobuf to ipv6 addr for conn reply src ipv6 addr failed\n", toDhcp, v6}},
        {"v6 65 pools", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Pools.assign(65, m.V6Pools[0]); }, -22, {param, toDhcp, v6}},
        {"v6 empty dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(1, 1); m.V6Dns.push_back(nullptr); }, -22, {"Dhcp Ipv6Dns is invalid\n", toDhcp, v6}},
        {"v6 short dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.V6Dns = {"short"}; }, -22,
         {"Trans Ipv6Dns protobuf to ipv6 addr for conn reply src ipv6 addr failed\n", toSlaac, v6}},
        {"v6 65 dns", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.V6Dns.assign(65, "2001:db8::53"); }, -22, {"Dhcp Ipv6Dns is invalid\n", toSlaac, v6}},
        {"v6 short prefix", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 2); m.Prefix = "short"; }, -22,
         {"Trans ipv6 prefix protobuf to ipv6 prefix for conn reply src ipv6 addr failed\n", toSlaac, v6}},
        {"stateless dhcp part", [](ServerMsg &m) { m = ServerMsg::Ipv6(2, 1); m.NullV6PoolAt = 0; }, -22,
         {"dhcp ipv6 range is null\n", "Protobuf to dhcp server failed\n", v6}},
        {"both slaac part", [](ServerMsg &m) { m = ServerMsg::Ipv6(3, 2); m.Prefix = "short"; }, -22,
         {"Trans ipv6 prefix protobuf to ipv6 prefix for conn reply src ipv6 addr failed\n", "Protobuf to slaac server failed\n", v6}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        fakehost::Reset();
        Host().LogTestDump = false;
        ServerMsg m = ServerMsg::Ipv4();
        row.Change(m);
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        EXPECT_EQ(KQCtrl_PbToConfDynamicServer(m.Build(), &conf), row.Result);
        EXPECT_EQ(fakehost::Messages(), row.Expected);
    }
    fakehost::Reset();
    Host().LogTestDump = false;
    KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
    EXPECT_EQ(KQCtrl_PbToConfDynamicServer(nullptr, &conf), -22);
    EXPECT_EQ(fakehost::Messages(), Lines{name});
}

TEST(ServerPbToConf, ModePairsFillTheirPartsAndOtherModesOnlyTheName)
{
    fakehost::Reset();
    struct Row { uint32_t Addr, Dns; KQ_IPV6_ADDR_AUTOCONF_TYPE Mode; uint32_t Ranges, SlaacLength; };
    for (const Row &row : {Row{1, 1, KQ_IPV6_ADDR_AUTOCONF_DHCP, 1, 0}, Row{2, 2, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 0, 64},
                           Row{2, 1, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, 1, 64}, Row{3, 2, KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, 1, 64}}) {
        ServerMsg m = ServerMsg::Ipv6(row.Addr, row.Dns);
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        ASSERT_EQ(KQCtrl_PbToConfDynamicServer(m.Build(), &conf), 0);
        EXPECT_EQ(conf.NetAddrType, KQ_NET_ADDR_IPV6);
        EXPECT_EQ(conf.ServerIpv6Conf.DynamicMode, row.Mode);
        EXPECT_EQ(conf.ServerIpv6Conf.DhcpConf.Ipv6RangeNum, row.Ranges);
        EXPECT_EQ(conf.ServerIpv6Conf.SlaacConf.PrefixLength, row.SlaacLength);
    }
    // Both families in server mode, on a LAN of zone 7.
    Host().LanVpnId["eth1"] = 7;
    ServerMsg both = ServerMsg::DualStack(2, 1);
    KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
    ASSERT_EQ(KQCtrl_PbToConfDynamicServer(both.Build(), &conf), 0);
    EXPECT_EQ(conf.NetAddrType, KQ_NET_ADDR_IPV46);
    EXPECT_EQ(conf.SecurityZoneId, 7u);
    EXPECT_EQ(conf.ServerIpv4Conf.IpRange[0].EndIp, Ip4("192.0.2.199"));
    EXPECT_TRUE(kqtest::SameIp6(conf.ServerIpv6Conf.SlaacConf.Ipv6Dns[0], "2001:db8::53"));

    // Relay mode, and server mode without its message (skipped silently): name and zone only.
    ServerMsg relay = ServerMsg::Ipv4(), noServer = ServerMsg::Ipv4();
    relay.V4Mode = 2;
    noServer.V4Server = false;
    Host().LanVpnId.clear();
    for (ServerMsg *m : {&relay, &noServer}) {
        KQ_CTRL_DYNAMIC_SERVER_CONF got{}, expected{};
        ASSERT_EQ(KQCtrl_PbToConfDynamicServer(m->Build(), &got), 0);
        strcpy(expected.IfName, "eth1");
        EXPECT_EQ(memcmp(&got, &expected, sizeof(got)), 0);
    }
    EXPECT_TRUE(fakehost::Messages().empty());
}

}  // namespace
