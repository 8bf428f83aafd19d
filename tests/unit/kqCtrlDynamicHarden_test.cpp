// Bad input that the services or the load would read as something else: interface names,
// items that exceed their arrays, and a dhcp.conf past what the load reads.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json-c/json.h>

#include "fakehost.h"
#include "kqCtrlDynamicIfName.h"
#include "kqCtrlDynamicInternal.h"
#include "kqtest.h"

using fakehost::Host;
using kqtest::ServerMsg;

namespace {

class Harden : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakehost::Reset();
        fakehost::ClearRegistry();
        Host().LogTestDump = false;
        std::remove(Host().DhcpConfPath.c_str());
    }
    void TearDown() override
    {
        fakehost::ClearRegistry();
        for (const char *path : {"/etc/vyr_dhcpd_eth1.conf", "/etc/vyr_dhcpd_eth2.conf", "/etc/vyr_dhcpd_eth3.conf"})
            std::remove(path);
        std::remove(Host().DhcpConfPath.c_str());
        std::remove(Host().DhcpConfBakPath.c_str());
    }
};

json_object *Parsed(const std::string &Text)
{
    json_object *doc = json_tokener_parse(Text.c_str());
    EXPECT_NE(doc, nullptr) << Text;
    return doc;
}

TEST_F(Harden, NamesTheServicesWouldMisreadAreRefusedOnEveryPath)
{
    struct Row {
        const char *Name;
        bool Usable;
    } rows[] = {
        {"eth1", true}, {"br-lan", true}, {"eth0.100", true}, {"wl_0+", true}, {"e-", true},
        // dnsmasq wildcards and separators, dhclient options.
        {"e*", false}, {"*", false}, {"eth?", false}, {"eth[1]", false}, {"a,b", false}, {"a\"b", false},
        {"a'b", false}, {"a#b", false}, {"a=b", false}, {"a\\b", false}, {"-d", false}, {"-", false},
        // Names the kernel refuses itself.
        {"a b", false}, {"a\tb", false}, {"a/b", false}, {"a:b", false}, {"..", false}, {"", false},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.Name);
        EXPECT_EQ(KQCtrl_DynamicIfNameUsable(r.Name), r.Usable ? TRUE : FALSE);

        fakehost::Reset();
        ServerMsg server = ServerMsg::Ipv4();
        server.IfName = r.Name;
        KQ_CTRL_DYNAMIC_SERVER_CONF serverConf{};
        EXPECT_EQ(KQCtrl_PbToConfDynamicServer(server.Build(), &serverConf), r.Usable ? 0 : -EINVAL);
        kqtest::RelayMsg relay = kqtest::RelayItem(r.Name, "192.0.2.1", {"198.51.100.10"});
        KQ_CTRL_DYNAMIC_RELAY_CONF relayConf{};
        EXPECT_EQ(KQCtrl_PbToConfDynamicRelay(relay.get(), &relayConf), r.Usable ? 0 : -EINVAL);
        EXPECT_EQ(fakehost::HasMessage("Dhcp protobuf ifname is invalid\n"), !r.Usable);

        json_object *item = json_object_new_object();
        json_object_object_add(item, "ifname", json_object_new_string(r.Name));
        serverConf = {};
        EXPECT_EQ(KQCtrl_JsonToConfDynamicServer(item, &serverConf), r.Usable ? 0 : -EINVAL);
        relayConf = {};
        EXPECT_EQ(KQCtrl_JsonToConfDynamicRelay(item, &relayConf), r.Usable ? 0 : -EINVAL);
        json_object_put(item);
        EXPECT_EQ(fakehost::HasMessage("Not found vaild ifname from Json object(22:Invalid argument)\n"), !r.Usable);
        EXPECT_EQ(fakehost::HasMessage("Not found vaild ifname form Json object(22:Invalid argument)\n"), !r.Usable);

        // The client refuses before it runs anything: no dhclient option from a name.
        if (!r.Usable) {
            fakehost::Reset();
            Host().LogTestDump = false;
            KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
            EXPECT_EQ(KQCtrl_DynamicClientEnableIpv4(r.Name, 0), -EINVAL);
            EXPECT_EQ(KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(r.Name, 0), -EINVAL);
            EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6(r.Name, 0), -EINVAL);
            EXPECT_TRUE(Host().Commands.empty());
            EXPECT_TRUE(Host().Packets.empty());
            EXPECT_EQ(fakehost::Messages(), std::vector<std::string>(3, "Interface name " + std::string(r.Name) +
                                                                            " is invalid\n"));
            KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_SLAAC);
        }
    }
}

// One item loaded with 65 pools (its count kept at 65, as the reader must) used to make
// every later rewrite of dhcp.conf fail.
TEST_F(Harden, OversizedItemIsWrittenAsFarAsItFitsAndBlocksNothing)
{
    std::string ranges;
    for (int i = 0; i < 65; ++i)
        ranges += std::string(i ? "," : "") + R"({"startIp": "192.0.2.)" + std::to_string(10 + i) +
                  R"(", "endIp": "192.0.2.)" + std::to_string(10 + i) + R"("})";
    fakehost::WriteFile(Host().DhcpConfPath,
                        R"({"dhcps": [{"ifname": "eth1", "vpnId": 0, "dhcpIpv4Server": {"ipRange": [)" + ranges +
                            R"(], "netmask": "255.255.255.0", "gateway": "192.0.2.1", "dnsIps": ["192.0.2.1"],
                            "leaseTime": 600}},
                            {"ifname": "eth2", "vpnId": 0, "dhcpIpv4Server": {"ipRange": [{"startIp":
                            "198.51.100.10", "endIp": "198.51.100.20"}], "netmask": "255.255.255.0",
                            "gateway": "198.51.100.1", "dnsIps": ["198.51.100.1"], "leaseTime": 600}}]})");
    ASSERT_EQ(KQCtrl_LoadDynamicServiceConf(Host().DhcpConfPath.c_str()), 0);
    ASSERT_EQ(_KQCtrl_GetDynamicServerConfByName("eth1")->ServerIpv4Conf.IpRangeNum, 65u);
    const std::string dropped = "Ip ranges of eth1: 65 entries, only the first 64 written, 1 dropped\n";
    EXPECT_TRUE(fakehost::HasMessage(dropped));
    auto dnsmasqConf = fakehost::ReadFile("/etc/vyr_dhcpd_eth1.conf");
    ASSERT_TRUE(dnsmasqConf);
    size_t lines = 0;
    for (size_t at = dnsmasqConf->find("dhcp-range=eth1,"); at != std::string::npos;
         at = dnsmasqConf->find("dhcp-range=eth1,", at + 1))
        ++lines;
    EXPECT_EQ(lines, 64u);

    // Another interface's add goes through, and dhcp.conf carries what fits of eth1.
    fakehost::Reset();
    ServerMsg eth3 = ServerMsg::Ipv4();
    eth3.IfName = "eth3";
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth3.Build()), 0);
    EXPECT_TRUE(fakehost::HasMessage(dropped));
    auto text = fakehost::ReadFile(Host().DhcpConfPath);
    ASSERT_TRUE(text);
    json_object *doc = Parsed(*text);
    json_object *dhcps = nullptr, *server = nullptr, *written = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(doc, "dhcps", &dhcps));
    ASSERT_EQ(json_object_array_length(dhcps), 3u);
    ASSERT_TRUE(json_object_object_get_ex(json_object_array_get_idx(dhcps, 0), "dhcpIpv4Server", &server));
    ASSERT_TRUE(json_object_object_get_ex(server, "ipRange", &written));
    EXPECT_EQ(json_object_array_length(written), 64u);
    json_object_put(doc);
}

// What the writer writes, the load must read: an add that could take dhcp.conf past the
// 16 MiB the load reads is refused before anything is touched.
TEST_F(Harden, AddThatCouldOutgrowTheLoadLimitIsRefusedUntouched)
{
    // The largest item the records allow.
    KQ_CTRL_DYNAMIC_SERVICE_CONF big{};
    auto &v4 = big.DynamicServerConf.ServerIpv4Conf;
    auto &v6 = big.DynamicServerConf.ServerIpv6Conf;
    big.DynamicServerConf.NetAddrType = KQ_NET_ADDR_IPV46;
    v4.IpRangeNum = v4.DnsNum = 64;
    v4.NetMask = v4.Gateway = 0xFFFFFFFFu;
    for (auto &range : v4.IpRange)
        range = {0xFFFFFFFEu, 0xFFFFFFFFu};
    for (auto &dns : v4.Dns)
        dns = 0xFFFFFFFFu;
    v4.LeaseTime = 0xFFFFFFFFu;
    v6.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP;
    v6.DhcpConf.Ipv6RangeNum = v6.DhcpConf.Ipv6DnsNum = v6.SlaacConf.Ipv6DnsNum = 64;
    v6.DhcpConf.PrefixLength = v6.SlaacConf.PrefixLength = 0xFFFFFFFFu;
    const KQ_IN6_ADDR longest = fakehost::Ip6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe");
    for (auto &range : v6.DhcpConf.Ipv6Range)
        range = {longest, longest};
    for (auto &dns : v6.DhcpConf.Ipv6Dns)
        dns = longest;
    for (auto &dns : v6.SlaacConf.Ipv6Dns)
        dns = longest;
    v6.SlaacConf.Prefix = longest;
    big.DynamicRelayConf.NetAddrType = KQ_NET_ADDR_IPV4;
    big.DynamicRelayConf.RelayConf.RelayServerNum = 4;
    big.DynamicRelayConf.RelayConf.LanIp = 0xFFFFFFFFu;

    // One item stays well inside the bound the add counts with (32 KiB).
    strcpy(big.IfName, "abcdefghijklmno");
    json_object *item = json_object_new_object();
    ASSERT_EQ(KQCtrl_ConfToJsonDynamicServer(&big.DynamicServerConf, item), 0);
    ASSERT_EQ(KQCtrl_ConfToJsonDynamicRelay(&big.DynamicRelayConf, item), 0);
    const size_t itemLen = strlen(json_object_to_json_string(item)) + 64;  // with name, zone, separators
    json_object_put(item);
    EXPECT_LT(itemLen, 32u << 10);

    // Enough IPv4 servers (whose text needs no host call) to come within one item of the limit.
    KQ_CTRL_DYNAMIC_SERVICE_CONF filler{};
    filler.DynamicServerConf = big.DynamicServerConf;
    filler.DynamicServerConf.NetAddrType = KQ_NET_ADDR_IPV4;
    strcpy(filler.IfName, "abcdefghijklmno");
    item = json_object_new_object();
    ASSERT_EQ(KQCtrl_ConfToJsonDynamicServer(&filler.DynamicServerConf, item), 0);
    const size_t fillerLen = strlen(json_object_to_json_string(item)) + 40;
    json_object_put(item);
    const size_t count = ((16u << 20) - (32u << 10)) / fillerLen + 1;
    for (size_t i = 0; i < count; ++i) {
        snprintf(filler.IfName, sizeof(filler.IfName), "%015zu", i);
        strcpy(filler.DynamicServerConf.IfName, filler.IfName);
        ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&filler), 0);
    }
    fakehost::Reset();
    Host().LogTestDump = false;
    ServerMsg eth1 = ServerMsg::Ipv4();
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(eth1.Build()), -EOVERFLOW);
    ASSERT_EQ(fakehost::Messages().size(), 1u);
    EXPECT_NE(fakehost::Message(0).find("another item could take it past 16777216, the most the start-up load "
                                        "reads. Add refused, nothing changed(75:Value too large for defined data type)\n"),
              std::string::npos)
        << fakehost::Message(0);
    EXPECT_TRUE(Host().Commands.empty());
    EXPECT_TRUE(Host().Writes.empty());
    EXPECT_EQ(_KQCtrl_GetDynamicServerConfByName("eth1"), nullptr);
}

}  // namespace
