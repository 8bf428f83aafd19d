// The server half of dhcp.conf: the writer's exact objects, the reader's edge cases, the
// deliberate asymmetries between the two, and documents that no writer produced.
#include <memory>

#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqCtrlDynamicJson.h"
#include "kqCtrlDynamicUtil.h"

using fakehost::Ip4;
using fakehost::Ip6;

namespace {

using Conf = KQ_CTRL_DYNAMIC_SERVER_CONF;
using Json = std::unique_ptr<json_object, decltype(&json_object_put)>;

Json Parse(const std::string &Text)
{
    Json doc(json_tokener_parse(Text.c_str()), json_object_put);
    if (!doc)
        ADD_FAILURE() << "not JSON: " << Text;
    return doc;
}

// The record of eth1 in the document example: IPv4 pools and a stateful DHCPv6 server.
Conf Eth1()
{
    Conf c{};
    strcpy(c.IfName, "eth1");
    c.NetAddrType = KQ_NET_ADDR_IPV46;
    auto &v4 = c.ServerIpv4Conf;
    v4.IpRangeNum = 1;
    v4.IpRange[0] = {Ip4("192.0.2.100"), Ip4("192.0.2.200")};
    v4.NetMask = Ip4("255.255.255.0");
    v4.Gateway = Ip4("192.0.2.1");
    v4.DnsNum = 2;
    v4.Dns[0] = Ip4("192.0.2.1");
    v4.Dns[1] = Ip4("192.0.2.2");
    v4.LeaseTime = 86400;
    v4.OfferTime = 30;  // never persisted
    auto &v6 = c.ServerIpv6Conf;
    v6.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_DHCP;
    v6.DhcpConf.Ipv6RangeNum = 1;
    v6.DhcpConf.Ipv6Range[0] = {Ip6("2001:db8:1::100"), Ip6("2001:db8:1::1ff")};
    v6.DhcpConf.PrefixLength = 64;
    v6.DhcpConf.Ipv6DnsNum = 1;
    v6.DhcpConf.Ipv6Dns[0] = Ip6("2001:db8:1::1");
    v6.DhcpConf.Ipv6LeaseTime = 86400;
    v6.SlaacConf.Prefix = Ip6("2001:db8:1::");
    v6.SlaacConf.PrefixLength = 64;
    return c;
}

std::string Write(const Conf &C, KQ_ERR_T Expected = 0)
{
    Json item(json_object_new_object(), json_object_put);
    EXPECT_EQ(KQCtrl_ConfToJsonDynamicServer(&C, item.get()), Expected);
    return json_object_to_json_string(item.get());
}

KQ_ERR_T Read(const std::string &Text, Conf *C)
{
    *C = Conf{};
    return KQCtrl_JsonToConfDynamicServer(Parse(Text).get(), C);
}

// What a reader left in the record, in one line.
std::string Summary(const Conf &C)
{
    const auto &v4 = C.ServerIpv4Conf;
    const auto &v6 = C.ServerIpv6Conf;
    char text[160];
    snprintf(text, sizeof(text), "%s type %d zone %u | v4 %u/%u/%u mask %x | v6 %u/%u/%u | slaac %s/%u/%u", C.IfName, C.NetAddrType,
             C.SecurityZoneId, v4.IpRangeNum, v4.DnsNum, v4.LeaseTime, v4.NetMask, v6.DhcpConf.Ipv6RangeNum, v6.DhcpConf.Ipv6DnsNum,
             v6.DhcpConf.Ipv6LeaseTime, KQ_Ipv6AddrZero(&v6.SlaacConf.Prefix) ? "-" : "prefix", v6.SlaacConf.PrefixLength,
             v6.SlaacConf.Ipv6DnsNum);
    return text;
}

const char kEth1Ipv4[] = "\"dhcpIpv4Server\": { \"ipRange\": [ { \"startIp\": \"192.0.2.100\", \"endIp\": \"192.0.2.200\" } ], "
                         "\"netmask\": \"255.255.255.0\", \"gateway\": \"192.0.2.1\", \"dnsIps\": [ \"192.0.2.1\", \"192.0.2.2\" ], "
                         "\"leaseTime\": 86400 }";

TEST(ServerJson, WriterProducesExactObjects)
{
    const std::string pool = "\"ipv6Range\": [ { \"startIpv6\": \"2001:db8:1::100\", \"endIpv6\": \"2001:db8:1::1ff\" } ], \"prefixlengthdhcp\": 64, ";
    const std::string slaac = "\"prefix\": \"2001:db8:1::\", \"prefixlengthslaac\": 64";
    struct Row {
        uint32_t Mode, SlaacDnsNum;
        std::string Ipv6;
    } rows[] = {
        {2, 1, "{ \"dynamicMode\": 2, " + pool + "\"dnsIpv6s\": [ \"2001:db8:1::1\" ], \"leaseTimeIpv6\": 86400 }"},
        {0, 0, "{ \"dynamicMode\": 0, " + slaac + " }"},
        {0, 1, "{ \"dynamicMode\": 0, " + slaac + ", \"dnsIpv6s\": [ \"2001:db8:1::53\" ] }"},
        // Combined modes: a non-empty SLAAC list takes the DHCPv6 list's place, an empty one leaves it.
        {1, 1, "{ \"dynamicMode\": 1, " + pool + "\"dnsIpv6s\": [ \"2001:db8:1::53\" ], \"leaseTimeIpv6\": 86400, " + slaac + " }"},
        {3, 0, "{ \"dynamicMode\": 3, " + pool + "\"dnsIpv6s\": [ \"2001:db8:1::1\" ], \"leaseTimeIpv6\": 86400, " + slaac + " }"},
        {4, 1, "{ \"dynamicMode\": 4 }"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.Mode);
        Conf c = Eth1();
        c.ServerIpv6Conf.DynamicMode = static_cast<KQ_IPV6_ADDR_AUTOCONF_TYPE>(row.Mode);
        c.ServerIpv6Conf.SlaacConf.Ipv6DnsNum = row.SlaacDnsNum;
        c.ServerIpv6Conf.SlaacConf.Ipv6Dns[0] = Ip6("2001:db8:1::53");
        fakehost::Reset();
        EXPECT_EQ(Write(c), std::string("{ ") + kEth1Ipv4 + ", \"dhcpIpv6Server\": " + row.Ipv6 + " }");
        EXPECT_TRUE(fakehost::Messages().empty()) << ::testing::PrintToString(fakehost::Messages());
    }

    // What is not configured is left out.
    Conf c = Eth1();
    c.NetAddrType = static_cast<KQ_NET_ADDR_TYPE>(0);
    EXPECT_EQ(Write(c), "{ }");
    c.NetAddrType = KQ_NET_ADDR_IPV4;
    c.ServerIpv4Conf.IpRangeNum = c.ServerIpv4Conf.DnsNum = c.ServerIpv4Conf.Gateway = 0;
    c.ServerIpv4Conf.NetMask = Ip4("255.255.255.255");
    EXPECT_EQ(Write(c), "{ \"dhcpIpv4Server\": { \"ipRange\": [ ], \"netmask\": \"255.255.255.255\", \"gateway\": \"0.0.0.0\", \"leaseTime\": 86400 } }");

    // Failures are logged up the chain.
    fakehost::Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;  // one character too long
    EXPECT_NE(Write(Eth1(), -EOVERFLOW).find("\"ipv6Range\": [ { } ]"), std::string::npos);
    EXPECT_EQ(fakehost::Lines(), (std::vector<std::string>{"Ipv6 string is overflow\n", "conf to json for dhcp mode server failed\n",
                                                           "conf to json for dynamic server failed\n"}));

    // The same from the DNS list (the range's two addresses are written first).
    fakehost::Reset();
    fakehost::Host().FailOnCall["KQ_SafeStrFormatIp6Addr"] = 3;
    fakehost::Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
    EXPECT_NE(Write(Eth1(), -EOVERFLOW).find("\"dnsIpv6s\": [ ]"), std::string::npos);
    EXPECT_EQ(fakehost::Lines(), (std::vector<std::string>{"Ipv6 string is overflow\n", "conf to json for dhcp mode server failed\n",
                                                           "conf to json for dynamic server failed\n"}));

    // A count past its array (only a refused list in dhcp.conf leaves one) is never read
    // past: what fits is written, with a warning, and the document goes on.
    fakehost::Reset();
    c = Eth1();
    c.ServerIpv4Conf.IpRangeNum = 65;
    c.ServerIpv4Conf.IpRange[63].StartIp = Ip4("192.0.2.63");
    c.ServerIpv6Conf.DhcpConf.Ipv6DnsNum = 70;
    std::string text = Write(c);
    EXPECT_NE(text.find("{ \"startIp\": \"192.0.2.63\", \"endIp\": \"0.0.0.0\" } ]"), std::string::npos) << text;
    EXPECT_EQ(fakehost::Lines(), (std::vector<std::string>{"Ip ranges of eth1: 65 entries, only the first 64 written, 1 dropped\n",
                                                           "Dhcpv6 dns servers of eth1: 70 entries, only the first 64 written, 6 dropped\n"}));
}

// One row per case no writer produced: the item, the result, the record left, a line logged.
TEST(ServerJson, ReaderEdgeCases)
{
    const std::string v4 = R"({"ifname":"eth1","dhcpIpv4Server":{"netmask":"255.255.255.0","gateway":"192.0.2.1","leaseTime":600,)";
    const std::string range = R"("ipRange":[{"startIp":"192.0.2.10","endIp":"192.0.2.20"}])";
    const std::string v6 = R"({"ifname":"eth1","dhcpIpv6Server":{)";
    const std::string dhcp6 = v6 + R"("dynamicMode":2,"prefixlengthdhcp":64,"leaseTimeIpv6":60,"ipv6Range":[{"startIpv6":")";
    auto list = [](int n, const std::string &Element) {
        std::string s = "[";
        for (int i = 0; i < n; ++i)
            s += (i ? "," : "") + Element;
        return s + "]";
    };
    const std::string nameless = "Not found vaild ifname from Json object(22:Invalid argument)\n";
    const std::string tooLarge = "(75:Value too large for defined data type)\n";
    struct Row {
        std::string Item;
        KQ_ERR_T Result;
        std::string Record, Line;  // "" : not checked
    } rows[] = {
        {R"({"ifname":"eth1"})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0",
         "Not found vaild securityZoneId from Json object, set securityZoneId to default\n"},
        {R"({"vpnId":1})", -EINVAL, "", nameless},
        {R"({"ifname":"eth0123456789abcd"})", -EOVERFLOW, "", "Not found vaild ifname from Json object" + tooLarge},
        {R"({"ifname":"eth 1"})", -EINVAL, "", nameless},
        {R"({"ifname":"eth1","vpnId":"7","mode":3})", 0, "eth1 type 0 zone 7 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0",
         "dynamic ipv4 Server is invaild\n"},
        {R"({"ifname":"eth1","vpnId":2147483647})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0",
         "Not found vaild securityZoneId from Json object, set securityZoneId to default\n"},
        // json-c reads text without digits as 0 and reports no error.
        {R"({"ifname":"eth1","vpnId":"seven"})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0", ""},
        {R"({"ifname":"eth1","dhcpIpv4Server":{"netmask":"",)" + range + "}}", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0",
         "Not found vaild mode from Json object\n"},
        {v4.substr(0, v4.find("\"leaseTime")) + range + ",\"dnsIps\":[\"192.0.2.53\"]}}", 0, "", "Json to dynamic ipv4 server failed\n"},
        {v6 + R"("dynamicMode":2,"leaseTimeIpv6":60,"ipv6Range":[]}})", 0, "", "Json to stateful dhcp ipv6 server failed\n"},
        {R"({"ifname":"eth1","dhcpIpv4Server":{}})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0", "Json to dynamic ipv4 server failed\n"},
        {R"({"ifname":"eth1","dhcpIpv4Server":{"netmask":"x",)" + range + "}}", 0, "eth1 type 1 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0", "Get netmask ip number failed\n"},
        {v4 + "\"ipRange\":" + list(65, R"({"startIp":"192.0.2.1","endIp":"192.0.2.2"})") + "}}", 0,
         "eth1 type 1 zone 0 | v4 65/0/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "Ip range number in dhcp.conf is overflow\n"},
        {v4 + "\"ipRange\":[]}}", 0, "eth1 type 1 zone 0 | v4 0/0/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "Ip range in dhcp.conf is empty\n"},
        {v4 + "\"ipRange\":{}}}", 0, "eth1 type 1 zone 0 | v4 0/0/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "invalid dhcp.conf, ipRange is not array\n"},
        {v4 + "\"ipRange\":[null]}}", 0, "eth1 type 1 zone 0 | v4 1/0/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "dhcp ip range [0] is null\n"},
        {v4 + R"("ipRange":[{"startIp":"192.0.2.1","endIp":"192.0.2"}]}})", 0, "eth1 type 1 zone 0 | v4 1/0/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "Get end ip number failed\n"},
        {v4 + range + ",\"dnsIps\":" + list(65, "\"192.0.2.53\"") + "}}", 0, "eth1 type 1 zone 0 | v4 1/0/600 mask ffffff00 | v6 0/0/0 | slaac -/0/0", ""},
        {v4 + range + ",\"dnsIps\":{}}}", 0, "eth1 type 1 zone 0 | v4 1/0/600 mask ffffff00 | v6 0/0/0 | slaac -/0/0", ""},
        {v4 + range + "}}", 0, "eth1 type 1 zone 0 | v4 1/1/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "Get ipv4 dns from json failed(22:Invalid argument)\n"},
        {v4 + range + ",\"dnsIps\":[5]}}", 0, "eth1 type 1 zone 0 | v4 1/1/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "Get dns ip number failed\n"},
        {v4 + range + ",\"dnsIps\":[\"192.000.002.0000053\"]}}", 0, "eth1 type 1 zone 0 | v4 1/1/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "dns ip [0] is overflow\n"},
        {v4 + range + ",\"dnsIps\":[\"192.0.2.1\",null]}}", 0, "eth1 type 1 zone 0 | v4 1/2/0 mask ffffff00 | v6 0/0/0 | slaac -/0/0", "dns ip [1] is null\n"},
        {dhcp6 + R"(2001:db8:abcd::1001","endIpv6":"2001:db8::2"}]}})", 0, "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 1/0/60 | slaac -/0/0", "Get start ipv6 string from json failed" + tooLarge},
        {dhcp6 + R"(2001:db8:::1","endIpv6":"2001:db8::2"}]}})", 0, "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 1/0/60 | slaac -/0/0", "Get ip number failed\n"},
        {v6 + R"("dynamicMode":3,"prefixlengthdhcp":64,"leaseTimeIpv6":60,"ipv6Range":[{"startIpv6":"2001:db8:::1","endIpv6":"2001:db8::2"}],"prefix":"2001:db8::","prefixlengthslaac":64}})",
         0, "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 1/0/60 | slaac -/0/0", "Json to stateless dhcp ipv6 server failed\n"},
        {v6 + R"("dynamicMode":0,"prefixlengthslaac":0,"prefix":"2001:db8::"}})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0", ""},
        {v6 + R"("dynamicMode":0,"prefixlengthslaac":64,"prefix":"2001:db8:::"}})", 0, "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/64/0", "Json to slaac ipv6 server failed\n"},
        {v6 + R"("dynamicMode":0,"prefixlengthslaac":64,"prefix":"2001:db8:::"}})", 0, "", "Json to dynamic ipv6 server failed\n"},
        {v6 + R"("dynamicMode":2,"prefixlengthdhcp":64,"ipv6Range":[{"startIpv6":"2001:db8::1","endIpv6":"2001:db8::2"}]}})", 0, "", "Json to stateful dhcp ipv6 server failed\n"},
        {v6 + R"("dynamicMode":0,"prefixlengthslaac":64,"prefix":")" + std::string(60, 'f') + R"(","dnsIpv6s":["2001:db8::53"]}})", 0,
         "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/64/1", ""},
        {v6 + R"("dynamicMode":7,"prefixlengthdhcp":64}})", 0, "eth1 type 0 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/0/0", "Json to dhcp ipv6 server failed\n"},
        {v6 + R"("dynamicMode":7,"prefixlengthdhcp":64}})", 0, "", "Json to dynamic ipv6 server failed\n"},
        {v6 + R"("prefixlengthdhcp":64,"leaseTimeIpv6":60,"startIpv6":"2001:db8::10","endIpv6":"2001:db8::20","dnsIpv6":"2001:db8::53"}})", 0,
         "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 1/1/60 | slaac -/0/0", ""},
        {v6 + R"("dynamicMode":0,"prefixlengthslaac":64,"dnsIpv6s":[")" + std::string(50, '1') + "\"]}}", 0, "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 0/0/0 | slaac -/64/1", "dns ipv6 [0] is overflow\n"},
        // The older "dhcpServer" object serves both families and wins over the newer ones.
        {R"({"ifname":"eth1","mode":3,"dhcpServer":{"netmask":"255.255.255.0","startIp":"192.0.2.10","endIp":"192.0.2.20","gateway":"192.0.2.1",
            "dns":"192.0.2.53","leaseTime":600,"prefixlengthdhcp":64,"leaseTimeIpv6":700,"startIpv6":"2001:db8::10","endIpv6":"2001:db8::20",
            "dnsIpv6":"2001:db8::53"},"dhcpIpv4Server":{"netmask":"255.0.0.0"}})", 0,
         "eth1 type 3 zone 0 | v4 1/1/600 mask ffffff00 | v6 1/1/700 | slaac -/0/0", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.Item);
        fakehost::Reset();
        Conf c;
        EXPECT_EQ(Read(row.Item, &c), row.Result);
        if (!row.Record.empty()) {
            EXPECT_EQ(Summary(c), row.Record);
        }

        if (!row.Line.empty()) {
            EXPECT_TRUE(fakehost::HasMessage(row.Line)) << ::testing::PrintToString(fakehost::Messages());
        }
        EXPECT_FALSE(fakehost::HasMessage("dynamic ipv4 Server is invaild\n") && row.Item.find("dhcpServer") != std::string::npos);
        EXPECT_EQ(fakehost::HasMessage("Not found vaild mode from Json object\n"), row.Result == 0 && row.Item.find("\"mode\"") == std::string::npos);
    }
    // A SLAAC entry without prefix length serves nothing, and is no failure either.
    fakehost::Reset();
    Conf c;
    EXPECT_EQ(Read(v6 + R"("dynamicMode":0,"prefixlengthslaac":0}})", &c), 0);
    EXPECT_EQ(fakehost::ErrorLines(), std::vector<std::string>{});

    // The integer getter stores 0 also when it fails, and says 0 when it does not.
    Json doc = Parse(R"({"n":5})");
    int32_t value = 7;
    EXPECT_EQ(KQ_JsonSafeGetI32(doc.get(), "missing", &value), -EINVAL);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(KQ_JsonSafeGetI32(doc.get(), "n", &value), 0);
    EXPECT_EQ(value, 5);
}

TEST(ServerJson, OneDnsKeyFillsBothIpv6ListsAndEachReaderLogsAsItself)
{
    for (int mode : {1, 3}) {
        SCOPED_TRACE(mode);
        fakehost::Reset();
        Conf c;
        ASSERT_EQ(Read(R"({"ifname":"eth1","dhcpIpv6Server":{"dynamicMode":)" + std::to_string(mode) +
                           R"(,"ipv6Range":[{"startIpv6":"2001:db8::10","endIpv6":"2001:db8::20"}],"prefixlengthdhcp":64,)"
                           R"("dnsIpv6s":["2001:db8::53","2001:db8::54"],"leaseTimeIpv6":60,"prefix":"2001:db8::","prefixlengthslaac":64}})",
                       &c),
                  0);
        EXPECT_EQ(Summary(c), "eth1 type 2 zone 0 | v4 0/0/0 mask 0 | v6 1/2/60 | slaac prefix/64/2");
        EXPECT_EQ(c.ServerIpv6Conf.DynamicMode, KQ_IPV6_ADDR_AUTOCONF_SLAAC);  // not stored, on purpose
        EXPECT_EQ(memcmp(c.ServerIpv6Conf.DhcpConf.Ipv6Dns, c.ServerIpv6Conf.SlaacConf.Ipv6Dns, 2 * sizeof(KQ_IN6_ADDR)), 0);
        for (const std::string &line : fakehost::Lines())
            EXPECT_EQ(line.find("failed"), std::string::npos) << line;
    }

    // The three DNS readers share one body but log under their own names.
    struct Row {
        const char *Item, *Function, *Line;
    } rows[] = {
        {R"({"ifname":"eth1","dhcpIpv4Server":{"netmask":"255.0.0.0","startIp":"192.0.2.1","endIp":"192.0.2.9","gateway":"192.0.2.1","dns":"x"}})",
         "_KQCtrl_JsonToConfDynamicIpv4ServerDns", "Get dns ip number failed\n"},
        {R"({"ifname":"eth1","dhcpIpv6Server":{"dynamicMode":2,"prefixlengthdhcp":64,"leaseTimeIpv6":1,"startIpv6":"2001:db8::1","endIpv6":"2001:db8::2","dnsIpv6s":[null]}})",
         "_KQCtrl_JsonToConfDhcpIpv6ServerDns", "dns ipv6 [0] is null\n"},
        {R"({"ifname":"eth1","dhcpIpv6Server":{"dynamicMode":0,"prefixlengthslaac":64,"dnsIpv6":"2001:db8::x"}})", "_KQCtrl_JsonToConfSlaacServerDns",
         "Get dns ipv6 number failed\n"},
        {R"({"ifname":"eth1","dhcpIpv6Server":{"dynamicMode":0,"prefixlengthslaac":64,"dnsIpv6":"2001:db8::x"}})", "_KQCtrl_JsonToConfSlaacServer",
         "Get ipv6 dns from json failed(22:Invalid argument)\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.Function);
        fakehost::Reset();
        Conf c;
        Read(row.Item, &c);
        bool found = false;
        for (const auto &line : fakehost::LogTexts())
            found |= line.find(std::string("[") + row.Function + ":") != std::string::npos && line.find(row.Line) != std::string::npos;
        EXPECT_TRUE(found) << ::testing::PrintToString(fakehost::LogTexts());
    }
}

TEST(ServerJson, RoundTripsAndTheirKnownAsymmetries)
{
    // Everything written comes back, except the mode (left at the caller's zero) and the
    // offer time (not persisted).
    fakehost::Reset();
    Conf written = Eth1(), read{};
    ASSERT_EQ(Read("{ \"ifname\": \"eth1\", " + Write(written).substr(2), &read), 0);
    Conf expected = written;
    expected.ServerIpv4Conf.OfferTime = 0;
    expected.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_SLAAC;
    expected.ServerIpv6Conf.SlaacConf = KQ_SLAAC_IPV6_SERVER_CONF{};  // mode 2 writes no SLAAC part
    EXPECT_EQ(memcmp(&read, &expected, sizeof(read)), 0);
    for (const std::string &line : fakehost::Lines())
        EXPECT_EQ(line.find("failed"), std::string::npos) << line;  // a good document reads without complaint

    // No IPv4 DNS is written without "dnsIps", and the IPv4 part then fails to read back; a
    // range address of more than 18 characters is written but refused on reading.
    written.ServerIpv4Conf.DnsNum = 0;
    written.ServerIpv6Conf.DhcpConf.Ipv6Range[0].StartIp = Ip6("2001:db8:5678:9abc::100");
    std::string text = Write(written);
    EXPECT_NE(text.find("\"2001:db8:5678:9abc::100\""), std::string::npos);
    EXPECT_EQ(Read("{ \"ifname\": \"eth1\", " + text.substr(2), &read), 0);
    for (const char *line : {"Get ipv4 dns from json failed(22:Invalid argument)\n", "Json to dynamic ipv4 server failed\n",
                             "Get start ipv6 string from json failed(75:Value too large for defined data type)\n",
                             "Json to stateful dhcp ipv6 server failed\n"})
        EXPECT_TRUE(fakehost::HasMessage(line)) << line;
}

}  // namespace
