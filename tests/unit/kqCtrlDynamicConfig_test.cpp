// The registry and the add/delete entry points: insertion order, first-match lookup,
// node removal, both halves in one node, and the fixed step order with
// stop-at-first-failure.
#include <gtest/gtest.h>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"

namespace {

using fakehost::Host;

using kqtest::RegistryNames;

KQ_CTRL_DYNAMIC_SERVICE_CONF Service(const char *IfName, uint32_t Zone)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF conf{};
    snprintf(conf.IfName, sizeof(conf.IfName), "%s", IfName);
    conf.SecurityZoneId = Zone;
    return conf;
}

// A request whose IPv4 part is a relay: accepted by the server side (which only stops the
// interface's server) and handed to the relay side.
struct RelayItem {
    DhcpItemV2 item = DHCP_ITEM_V2__INIT;
    Ipv4DhcpItem v4 = IPV4_DHCP_ITEM__INIT;
    Ipv4DhcpRelay relay = IPV4_DHCP_RELAY__INIT;
    uint32_t servers[5];

    RelayItem(const char *IfName, size_t ServerCount)
    {
        item.ifname = const_cast<char *>(IfName);
        item.ipv4dhcpitem = &v4;
        v4.mode = KQ_DHCP_RELAY;
        v4.dhcprelay = &relay;
        for (size_t i = 0; i < 5; ++i)
            servers[i] = fakehost::Ip4("198.51.100.10") + i;
        relay.n_relayserver = ServerCount;
        relay.relayserver = servers;
        relay.lanip = fakehost::Ip4("192.0.2.1");
    }
};

class RegistryTest : public fakehost::ModuleTest {};

TEST_F(RegistryTest, KeepsInsertionOrderAndFindsTheFirstMatch)
{
    for (auto [name, zone] : {std::pair{"eth1", 1u}, {"eth2", 2u}, {"eth1", 3u}, {"eth3", 4u}}) {
        auto conf = Service(name, zone);
        ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&conf), 0);
    }
    EXPECT_EQ(RegistryNames(), (std::vector<std::string>{"eth1", "eth2", "eth1", "eth3"}));
    ASSERT_NE(_KQCtrl_GetDynamicConfByName("eth1"), nullptr);
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth1")->SecurityZoneId, 1u);
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth"), nullptr);
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth10"), nullptr);

    // Removal takes the first match only; an unknown name changes nothing.
    _KQCtrl_DeleteDynamicConfListNode("eth1");
    EXPECT_EQ(RegistryNames(), (std::vector<std::string>{"eth2", "eth1", "eth3"}));
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth1")->SecurityZoneId, 3u);
    _KQCtrl_DeleteDynamicConfListNode("eth9");
    EXPECT_EQ(RegistryNames().size(), 3u);
    EXPECT_TRUE(Host().Logs.empty());
}

TEST_F(RegistryTest, HalvesShareOneNodePerInterface)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF server{};
    snprintf(server.IfName, sizeof(server.IfName), "lan0");
    server.SecurityZoneId = 7;
    server.NetAddrType = KQ_NET_ADDR_IPV4;
    ASSERT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), 0);

    // The relay side finds the node the server side made and fills its half in place.
    KQ_CTRL_DYNAMIC_RELAY_CONF *relayHalf = _KQCtrl_GetDynamicRelayConfByName("lan0");
    ASSERT_NE(relayHalf, nullptr);
    KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
    snprintf(relay.IfName, sizeof(relay.IfName), "lan0");
    relay.NetAddrType = KQ_NET_ADDR_IPV4;
    relay.RelayConf.RelayServerNum = 1;
    _KQCtrl_UpdateDynamicRelayConfListNode(&relay, relayHalf);

    EXPECT_EQ(RegistryNames(), std::vector<std::string>{"lan0"});
    const KQ_CTRL_DYNAMIC_SERVICE_CONF *service = _KQCtrl_GetDynamicConfByName("lan0");
    EXPECT_EQ(service->SecurityZoneId, 0u);  // the inserters leave the service-level zone 0
    EXPECT_EQ(service->DynamicServerConf.SecurityZoneId, 7u);
    EXPECT_EQ(service->DynamicRelayConf.RelayConf.RelayServerNum, 1u);

    _KQCtrl_DeleteDynamicRelayConfListNode(&relay);
    EXPECT_EQ(service->DynamicRelayConf.NetAddrType, 0);
    EXPECT_EQ(service->DynamicServerConf.NetAddrType, KQ_NET_ADDR_IPV4);
    EXPECT_EQ(RegistryNames(), std::vector<std::string>{"lan0"});
}

TEST_F(RegistryTest, RefusedInsertsLeaveTheListUnchanged)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF server{};
    memset(server.IfName, 'a', sizeof(server.IfName));  // 16 characters, no room for the end
    EXPECT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), -EOVERFLOW);
    KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
    memset(relay.IfName, 'b', sizeof(relay.IfName));
    EXPECT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relay), -EOVERFLOW);
    EXPECT_EQ(fakehost::Messages(), (std::vector<std::string>{
                                        "IfName is overflow\n", "dump flexlog:\nIfName is overflow\n",
                                        "IfName is overflow\n", "dump flexlog:\nIfName is overflow\n"}));

    fakehost::Reset();
    Host().Fail["KQ_AgentMemZeroAlloc"] = 0;
    snprintf(server.IfName, sizeof(server.IfName), "lan0");
    EXPECT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), -ENOMEM);
    snprintf(relay.IfName, sizeof(relay.IfName), "lan0");
    EXPECT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relay), -ENOMEM);
    EXPECT_TRUE(RegistryNames().empty());
    EXPECT_TRUE(fakehost::HasMessage("Apply memory for dynamic conf node failed\n"));
    EXPECT_TRUE(fakehost::HasMessage("Insert dynamic conf node failed(12:Cannot allocate memory)\n"));
    EXPECT_TRUE(fakehost::HasMessage("Insert Dynamic conf node failed(12:Cannot allocate memory)\n"));
}

TEST_F(RegistryTest, AddRunsServerRelayFileAndStopsAtTheFirstFailure)
{
    // Server step refuses: nothing else runs.
    DhcpItemV2 nameless = DHCP_ITEM_V2__INIT;
    nameless.ifname = nullptr;
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(&nameless), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("add dynamic server failed(22:Invalid argument)\n"));
    EXPECT_TRUE(Host().Writes.empty());
    EXPECT_TRUE(RegistryNames().empty());

    // Relay step refuses (five relay servers): reported with the server wording, no file.
    fakehost::Reset();
    RelayItem tooMany("lan0", 5);
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(&tooMany.item), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic relay num 5 is invalid\n"));
    EXPECT_EQ(fakehost::Messages().back(), "dump flexlog:\nadd dynamic server failed(22:Invalid argument)\n");
    EXPECT_TRUE(Host().Writes.empty());

    // File step fails (the relay's own conf is the first write, the backup the second):
    // the list already holds the change, dhcp.conf is not written.
    fakehost::Reset();
    Host().Fail["KQ_WriteSyncWithFilePath"] = -EIO;
    Host().FailOnCall["KQ_WriteSyncWithFilePath"] = 2;
    RelayItem good("lan1", 2);
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(&good.item), -EIO);
    EXPECT_TRUE(fakehost::HasMessage("Update dynamic conf file failed(5:Input/output error)\n"));
    EXPECT_NE(_KQCtrl_GetDynamicRelayConfByName("lan1"), nullptr);
    EXPECT_FALSE(fakehost::ReadFile(Host().DhcpConfPath));

    // All steps succeed: backup written first, then copied over dhcp.conf.
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(&good.item), 0);
    ASSERT_EQ(Host().Copies.size(), 1u);
    EXPECT_EQ(Host().Copies[0], std::make_pair(Host().DhcpConfBakPath, Host().DhcpConfPath));
    EXPECT_EQ(fakehost::ReadFile(Host().DhcpConfPath), fakehost::ReadFile(Host().DhcpConfBakPath));
}

TEST_F(RegistryTest, DeleteRemovesTheNodeOnlyWhenServerAndRelayStepsPass)
{
    RelayItem good("lan0", 1);
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(&good.item), 0);
    auto other = Service("lan1", 0);
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&other), 0);

    // The relay step refuses: the node stays and the file is not rewritten.
    fakehost::Reset();
    RelayItem bad("lan0", 5);
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&bad.item), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("del dynamic relay failed(22:Invalid argument)\n"));
    EXPECT_EQ(RegistryNames(), (std::vector<std::string>{"lan0", "lan1"}));
    EXPECT_TRUE(Host().Writes.empty());

    // A node whose halves were never filled goes too.
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&good.item), 0);
    RelayItem plain("lan1", 1);
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&plain.item), 0);
    EXPECT_TRUE(RegistryNames().empty());
    EXPECT_EQ(fakehost::ReadFile(Host().DhcpConfPath), std::optional<std::string>("{ \"dhcps\": [ ] }"));
    for (const std::string &line : fakehost::Lines())
        EXPECT_EQ(line.find("Update dynamic conf file"), std::string::npos) << line;  // success says nothing

    // A failing server step stops everything.
    fakehost::Reset();
    DhcpItemV2 empty = DHCP_ITEM_V2__INIT;
    empty.ifname = const_cast<char *>("");
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&empty), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("del dynamic server failed(22:Invalid argument)\n"));
    EXPECT_TRUE(Host().Writes.empty());
}

}  // namespace
