// The relay half of dhcp.conf: "dhcpRelay" written and read back, and items that no writer
// produced.
#include <gtest/gtest.h>

#include "fakehost.h"

namespace {

using fakehost::Ip4;
using Json = std::unique_ptr<json_object, decltype(&json_object_put)>;

class RelayJsonTest : public fakehost::ModuleTest {};

TEST_F(RelayJsonTest, WriterProducesExactObjectAndReadsBack)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF c{};
    strcpy(c.IfName, "eth2");
    c.SecurityZoneId = 5;  // not part of "dhcpRelay"
    c.NetAddrType = KQ_NET_ADDR_IPV4;
    c.RelayConf = {2, {Ip4("203.0.113.10"), Ip4("203.0.113.11")}, Ip4("198.51.100.1")};
    const std::string head = R"({ "ifname": "eth2", "vpnId": 5, "dhcpRelay": { "lanIp": "198.51.100.1", "relayServer": [ )";
    for (uint32_t num : {2u, 0u}) {
        SCOPED_TRACE(num);
        c.RelayConf.RelayServerNum = num;
        if (num == 0)
            c.RelayConf.RelayServer[0] = c.RelayConf.RelayServer[1] = 0;
        Json item(json_tokener_parse(R"({ "ifname": "eth2", "vpnId": 5 })"), json_object_put);
        ASSERT_EQ(KQCtrl_ConfToJsonDynamicRelay(&c, item.get()), 0);
        EXPECT_EQ(std::string(json_object_to_json_string(item.get())), head + (num ? R"("203.0.113.10", "203.0.113.11" ] } })" : "] } }"));
        KQ_CTRL_DYNAMIC_RELAY_CONF back{};
        ASSERT_EQ(KQCtrl_JsonToConfDynamicRelay(item.get(), &back), 0);
        EXPECT_EQ(memcmp(&back, &c, sizeof(c)), 0);
    }
    // Never more than the record's four servers, whatever the count says; what fits is written.
    c.RelayConf = {5, {Ip4("203.0.113.1"), Ip4("203.0.113.2"), Ip4("203.0.113.3"), Ip4("203.0.113.4")}, Ip4("198.51.100.1")};
    Json item(json_object_new_object(), json_object_put);
    EXPECT_EQ(KQCtrl_ConfToJsonDynamicRelay(&c, item.get()), 0);
    EXPECT_EQ(std::string(json_object_to_json_string(item.get())),
              R"({ "dhcpRelay": { "lanIp": "198.51.100.1", "relayServer": [ "203.0.113.1", "203.0.113.2", "203.0.113.3", "203.0.113.4" ] } })");
    EXPECT_TRUE(fakehost::HasMessage("Relay servers of eth2: 5 entries, only the first 4 written, 1 dropped\n"));
}

TEST_F(RelayJsonTest, ReaderEdgeCases)
{
    const std::string relay = R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1",)";
    const struct {
        std::string Item;
        KQ_ERR_T Result;
        bool Ipv4;
        uint32_t ServerNum;
        std::string Line;
    } rows[] = {
        {R"({"ifname":"eth2"})", 0, false, 0, "dynamic relay is invaild\n"},
        {R"({"ifname":"eth2"})", 0, false, 0, "Not found vaild mode form Json object\n"},
        {R"({"ifname":"eth2","mode":2})", -EINVAL, false, 0, "Get lan ip string from json failed(22:Invalid argument)\n"},
        {R"({"dhcpRelay":{}})", -EINVAL, false, 0, "Not found vaild ifname form Json object(22:Invalid argument)\n"},
        {R"({"ifname":"eth:2"})", -EINVAL, false, 0, "Not found vaild ifname form Json object(22:Invalid argument)\n"},
        {R"({"ifname":"eth2","vpnId":-2147483648})", 0, false, 0, "Not found vaild securityZoneId form Json object, set securityZoneId to default\n"},
        {R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100","relayServer":[]}})", -EINVAL, false, 0, "Get lan ip number failed\n"},
        {relay + R"("relayServer":[]}})", 0, true, 0, "Relay server number is zero\n"},
        {R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1"}})", -EINVAL, true, 0, "relayServer is invaild\n"},
        {relay + R"("relayServer":"203.0.113.1"}})", -EINVAL, true, 0, "relayServer is invaild\n"},
        {relay + R"("relayServer":["203.0.113.1","203.0.113.2","203.0.113.3","203.0.113.4","203.0.113.5"]}})", -EINVAL, true, 0,
         "Relay server number 5 is overflow\n"},
        {relay + R"("relayServer":["203.0.113.1",7]}})", -EINVAL, true, 1, "Get relay server ip number failed\n"},
        {relay + R"("relayServer":[null]}})", -EINVAL, true, 0, "empty relayServerItem\n"},
        {relay + R"("relayServer":[")" + std::string(1 << 20, '1') + "\"]}}", -EINVAL, true, 0, "Get relay server ip number failed\n"},
        {R"({"ifname":"eth2","mode":1,"dhcpRelay":{"lanIp":"198.51.100.1","relayServer":["203.0.113.1","203.0.113.2","203.0.113.3","203.0.113.4"]}})",
         0, true, 4, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.Item.substr(0, 120));
        fakehost::Reset();
        KQ_CTRL_DYNAMIC_RELAY_CONF c{};
        Json doc(json_tokener_parse(row.Item.c_str()), json_object_put);
        EXPECT_EQ(KQCtrl_JsonToConfDynamicRelay(doc.get(), &c), row.Result);
        EXPECT_EQ(c.NetAddrType, row.Ipv4 ? KQ_NET_ADDR_IPV4 : KQ_NET_ADDR_TYPE(0));
        EXPECT_EQ(c.RelayConf.RelayServerNum, row.ServerNum);
        EXPECT_TRUE(row.Line.empty() || fakehost::HasMessage(row.Line)) << testing::PrintToString(fakehost::Messages());
        // A bad name fails before the relay part is read.
        EXPECT_EQ(fakehost::HasMessage("Json to dynamic relay failed\n"), row.Result < 0 && row.Line.find("ifname") == std::string::npos);
    }
}

}  // namespace
