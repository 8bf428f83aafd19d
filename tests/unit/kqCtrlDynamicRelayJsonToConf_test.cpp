// The relay half of dhcp.conf: "dhcpRelay" written and read back, and items that no writer
// produced.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "fakehost.h"

namespace {

using fakehost::Ip4;

struct JsonPut {
    void operator()(json_object *Obj) const { json_object_put(Obj); }
};
using Json = std::unique_ptr<json_object, JsonPut>;

class RelayJsonTest : public fakehost::ModuleTest {
protected:
    static KQ_ERR_T Read(const std::string &Text, KQ_CTRL_DYNAMIC_RELAY_CONF *Conf)
    {
        *Conf = KQ_CTRL_DYNAMIC_RELAY_CONF{};
        Json doc(json_tokener_parse(Text.c_str()));
        EXPECT_TRUE(doc) << Text;
        return KQCtrl_JsonToConfDynamicRelay(doc.get(), Conf);
    }
};

TEST_F(RelayJsonTest, WriterProducesExactObjectAndReadsBack)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF c{};
    strcpy(c.IfName, "eth2");
    c.SecurityZoneId = 5;  // not part of "dhcpRelay"
    c.NetAddrType = KQ_NET_ADDR_IPV4;
    c.RelayConf = {2, {Ip4("203.0.113.10"), Ip4("203.0.113.11")}, Ip4("198.51.100.1")};
    for (uint32_t num : {2u, 0u}) {
        SCOPED_TRACE(num);
        c.RelayConf.RelayServerNum = num;
        if (num == 0)
            c.RelayConf.RelayServer[0] = c.RelayConf.RelayServer[1] = 0;
        Json item(json_tokener_parse("{ \"ifname\": \"eth2\", \"vpnId\": 5 }"));
        ASSERT_EQ(KQCtrl_ConfToJsonDynamicRelay(&c, item.get()), 0);
        EXPECT_EQ(std::string(json_object_to_json_string(item.get())),
                  num == 2 ? "{ \"ifname\": \"eth2\", \"vpnId\": 5, \"dhcpRelay\": { \"lanIp\": \"198.51.100.1\", "
                             "\"relayServer\": [ \"203.0.113.10\", \"203.0.113.11\" ] } }"
                           : "{ \"ifname\": \"eth2\", \"vpnId\": 5, \"dhcpRelay\": { \"lanIp\": \"198.51.100.1\", "
                             "\"relayServer\": [ ] } }");
        KQ_CTRL_DYNAMIC_RELAY_CONF back{};
        ASSERT_EQ(KQCtrl_JsonToConfDynamicRelay(item.get(), &back), 0);
        EXPECT_EQ(memcmp(&back, &c, sizeof(c)), 0);
    }

    // Never more than the record's four servers, whatever the count says; what fits is written.
    fakehost::Reset();
    c.RelayConf.RelayServerNum = 5;
    Json item(json_object_new_object());
    EXPECT_EQ(KQCtrl_ConfToJsonDynamicRelay(&c, item.get()), 0);
    json_object *relay = nullptr, *servers = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(item.get(), "dhcpRelay", &relay));
    ASSERT_TRUE(json_object_object_get_ex(relay, "relayServer", &servers));
    EXPECT_EQ(json_object_array_length(servers), 4u);
    EXPECT_TRUE(fakehost::HasMessage("Relay servers of eth2: 5 entries, only the first 4 written, 1 dropped\n"));
}

TEST_F(RelayJsonTest, ReaderEdgeCases)
{
    struct Row {
        const char *Name;
        std::string Item;
        KQ_ERR_T Result;
        KQ_NET_ADDR_TYPE NetAddrType;
        uint32_t ServerNum;
        std::string Line;
    } rows[] = {
        {"no relay, no mode", R"({"ifname":"eth2"})", 0, KQ_NET_ADDR_TYPE(0), 0, "dynamic relay is invaild\n"},
        {"mode relay without object", R"({"ifname":"eth2","mode":2})", -EINVAL, KQ_NET_ADDR_TYPE(0), 0,
         "Get lan ip string from json failed(22:Invalid argument)\n"},
        {"no name", R"({"dhcpRelay":{}})", -EINVAL, KQ_NET_ADDR_TYPE(0), 0,
         "Not found vaild ifname form Json object(22:Invalid argument)\n"},
        {"unusable name", R"({"ifname":"eth:2"})", -EINVAL, KQ_NET_ADDR_TYPE(0), 0,
         "Not found vaild ifname form Json object(22:Invalid argument)\n"},
        {"bad zone", R"({"ifname":"eth2","vpnId":-2147483648})", 0, KQ_NET_ADDR_TYPE(0), 0,
         "Not found vaild securityZoneId form Json object, set securityZoneId to default\n"},
        {"no mode", R"({"ifname":"eth2"})", 0, KQ_NET_ADDR_TYPE(0), 0, "Not found vaild mode form Json object\n"},
        {"bad lan ip", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100","relayServer":[]}})", -EINVAL,
         KQ_NET_ADDR_TYPE(0), 0, "Get lan ip number failed\n"},
        {"no servers", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":[]}})", 0,
         KQ_NET_ADDR_IPV4, 0, "Relay server number is zero\n"},
        {"servers missing", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1"}})", -EINVAL, KQ_NET_ADDR_IPV4, 0,
         "relayServer is invaild\n"},
        {"servers not array", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":"203.0.113.1"}})",
         -EINVAL, KQ_NET_ADDR_IPV4, 0, "relayServer is invaild\n"},
        {"five servers", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":["203.0.113.1",)"
                         R"("203.0.113.2","203.0.113.3","203.0.113.4","203.0.113.5"]}})",
         -EINVAL, KQ_NET_ADDR_IPV4, 0, "Relay server number 5 is overflow\n"},
        {"second server bad", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":["203.0.113.1",7]}})",
         -EINVAL, KQ_NET_ADDR_IPV4, 1, "Get relay server ip number failed\n"},
        {"null server", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":[null]}})", -EINVAL,
         KQ_NET_ADDR_IPV4, 0, "empty relayServerItem\n"},
        {"long server text", R"({"ifname":"eth2","dhcpRelay":{"lanIp":"198.51.100.1","relayServer":[")" +
                                 std::string(1 << 20, '1') + "\"]}}",
         -EINVAL, KQ_NET_ADDR_IPV4, 0, "Get relay server ip number failed\n"},
        {"four servers", R"({"ifname":"eth2","mode":1,"dhcpRelay":{"lanIp":"198.51.100.1","relayServer":["203.0.113.1",)"
                         R"("203.0.113.2","203.0.113.3","203.0.113.4"]}})",
         0, KQ_NET_ADDR_IPV4, 4, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.Name);
        fakehost::Reset();
        KQ_CTRL_DYNAMIC_RELAY_CONF c;
        EXPECT_EQ(Read(row.Item, &c), row.Result);
        EXPECT_EQ(c.NetAddrType, row.NetAddrType);
        EXPECT_EQ(c.RelayConf.RelayServerNum, row.ServerNum);
        if (!row.Line.empty()) {
            EXPECT_TRUE(fakehost::HasMessage(row.Line)) << ::testing::PrintToString(fakehost::Messages());
        }
        if (row.Result < 0 && std::string(row.Name).find("name") == std::string::npos) {
            EXPECT_TRUE(fakehost::HasMessage("Json to dynamic relay failed\n"));
        }
    }
}

}  // namespace
