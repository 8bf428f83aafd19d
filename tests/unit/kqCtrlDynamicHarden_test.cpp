// Bad input that the services or the load would read as something else: interface names,
// items that exceed their arrays, and a dhcp.conf past what the load reads.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include "fakehost.h"
#include "kqCtrlDynamicIfName.h"

using fakehost::Host;
using kqtest::ServerMsg;

namespace {

class Harden : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host().LogTestDump = false;
    }
};

TEST_F(Harden, NamesTheServicesWouldMisreadAreRefusedByConvertersAndReaders)
{
    const char *usable[] = {"eth1", "br-lan", "eth0.100", "wl_0+", "e-", "e"};
    // dnsmasq wildcards and separators, dhclient options, and names the kernel refuses itself.
    const char *refused[] = {"e*", "*", "eth?", "eth[1]", "a,b", "a\"b", "a'b", "a#b", "a=b", "a\\b", "-d", "-",
                             "a b", "a\tb", "a/b", "a:b", "..", ""};
    for (bool ok : {true, false})
        for (const char *name : ok ? std::vector<const char *>(std::begin(usable), std::end(usable))
                                   : std::vector<const char *>(std::begin(refused), std::end(refused))) {
            SCOPED_TRACE(name);
            EXPECT_EQ(KQCtrl_DynamicIfNameUsable(name), ok ? TRUE : FALSE);
            fakehost::Reset();
            ServerMsg server = ServerMsg::Ipv4();
            server.IfName = name;
            KQ_CTRL_DYNAMIC_SERVER_CONF serverConf{};
            EXPECT_EQ(KQCtrl_PbToConfDynamicServer(server.Build(), &serverConf), ok ? 0 : -EINVAL);
            kqtest::RelayMsg relay = kqtest::RelayItem(name, "192.0.2.1", {"198.51.100.10"});
            KQ_CTRL_DYNAMIC_RELAY_CONF relayConf{};
            EXPECT_EQ(KQCtrl_PbToConfDynamicRelay(relay.get(), &relayConf), ok ? 0 : -EINVAL);
            EXPECT_EQ(fakehost::HasMessage("Dhcp protobuf ifname is invalid\n"), !ok);

            json_object *item = json_object_new_object();
            json_object_object_add(item, "ifname", json_object_new_string(name));
            serverConf = {};
            EXPECT_EQ(KQCtrl_JsonToConfDynamicServer(item, &serverConf), ok ? 0 : -EINVAL);
            relayConf = {};
            EXPECT_EQ(KQCtrl_JsonToConfDynamicRelay(item, &relayConf), ok ? 0 : -EINVAL);
            json_object_put(item);
            EXPECT_EQ(fakehost::HasMessage("Not found vaild ifname from Json object(22:Invalid argument)\n"), !ok);
            EXPECT_EQ(fakehost::HasMessage("Not found vaild ifname form Json object(22:Invalid argument)\n"), !ok);
        }
}

// One item loaded with 65 pools (its count kept at 65, as the reader must) is written as far
// as it fits, and blocks no later rewrite of dhcp.conf.
TEST_F(Harden, OversizedItemIsWrittenAsFarAsItFitsAndBlocksNothing)
{
    std::string ranges;
    for (int i = 0; i < 65; ++i)
        ranges += std::string(i ? "," : "") + R"({"startIp": "192.0.2.)" + std::to_string(10 + i) + R"(", "endIp": "192.0.2.)" +
                  std::to_string(10 + i) + R"("})";
    fakehost::WriteFile(Host().DhcpConfPath, R"({"dhcps": [{"ifname": "eth1", "vpnId": 0, "dhcpIpv4Server": {"ipRange": [)" + ranges +
                                                 R"(], "netmask": "255.255.255.0", "gateway": "192.0.2.1", "dnsIps": ["192.0.2.1"], "leaseTime": 600}}]})");
    ASSERT_EQ(KQCtrl_LoadDynamicServiceConf(Host().DhcpConfPath.c_str()), 0);
    ASSERT_EQ(_KQCtrl_GetDynamicServerConfByName("eth1")->ServerIpv4Conf.IpRangeNum, 65u);
    const std::string dropped = "Ip ranges of eth1: 65 entries, only the first 64 written, 1 dropped\n";
    EXPECT_TRUE(fakehost::HasMessage(dropped));
    // The reader keeps the count but no pool past the array: 64 empty lines.
    auto count = [](const std::string &Text, const std::string &What) {
        size_t n = 0;
        for (size_t at = Text.find(What); at != std::string::npos; at = Text.find(What, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count(fakehost::ReadFile("/etc/vyr_dhcpd_eth1.conf").value_or(""), "dhcp-range=eth1,0.0.0.0,0.0.0.0,0\n"), 64u);

    fakehost::Reset();
    ServerMsg eth3 = ServerMsg::Ipv4();
    eth3.IfName = "eth3";
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth3.Build()), 0);
    EXPECT_TRUE(fakehost::HasMessage(dropped));
    std::string text = fakehost::ReadFile(Host().DhcpConfPath).value_or("");
    EXPECT_EQ(count(text, "{ \"startIp\": \"0.0.0.0\", \"endIp\": \"0.0.0.0\" }"), 64u);
    EXPECT_NE(text.find("\"ifname\": \"eth3\""), std::string::npos);
}

// What the writer writes, the load must read: an add that could take dhcp.conf past the
// 16 MiB the load reads is refused before anything is touched.
TEST_F(Harden, AddThatCouldOutgrowTheLoadLimitIsRefusedUntouched)
{
    // Enough of the largest IPv4 items the records allow (whose text needs no host call) to
    // come within one item of the limit.
    KQ_CTRL_DYNAMIC_SERVICE_CONF filler{};
    auto &v4 = filler.DynamicServerConf.ServerIpv4Conf;
    filler.DynamicServerConf.NetAddrType = KQ_NET_ADDR_IPV4;
    v4.IpRangeNum = v4.DnsNum = 64;
    v4.NetMask = v4.Gateway = v4.LeaseTime = 0xFFFFFFFFu;
    for (auto &range : v4.IpRange)
        range = {0xFFFFFFFEu, 0xFFFFFFFFu};
    for (auto &dns : v4.Dns)
        dns = 0xFFFFFFFFu;
    json_object *item = json_object_new_object();
    ASSERT_EQ(KQCtrl_ConfToJsonDynamicServer(&filler.DynamicServerConf, item), 0);
    const size_t fillerLen = strlen(json_object_to_json_string(item)) + 40;  // with name, zone, separators
    json_object_put(item);
    const size_t count = ((16u << 20) - (32u << 10)) / fillerLen + 1;
    for (size_t i = 0; i < count; ++i) {
        snprintf(filler.IfName, sizeof(filler.IfName), "%015zu", i);
        ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&filler), 0);
    }
    fakehost::Reset();
    Host().LogTestDump = false;
    ServerMsg eth1 = ServerMsg::Ipv4();
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(eth1.Build()), -EOVERFLOW);
    ASSERT_EQ(fakehost::Messages().size(), 1u);
    EXPECT_NE(fakehost::Message(0).find("another item could take it past 16777216, the most the start-up load reads. Add "
                                        "refused, nothing changed(75:Value too large for defined data type)\n"),
              std::string::npos) << fakehost::Message(0);
    EXPECT_TRUE(Host().Commands.empty() && Host().Writes.empty());
    EXPECT_EQ(_KQCtrl_GetDynamicServerConfByName("eth1"), nullptr);
}

}  // namespace
