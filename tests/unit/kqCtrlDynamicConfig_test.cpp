// The registry, the add and delete entry points with their fixed step order, and dhcp.conf
// as the registry rewrites it.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>

#include "fakehost.h"

using fakehost::Host;
using fakehost::Ip4;
using fakehost::Ip6;
using kqtest::RegistryNames;

namespace {

using Names = std::vector<std::string>;

// The document example in documentation addresses (eth1: IPv4 pools and a stateful DHCPv6
// server; eth2: a relay), exactly as json-c prints it.
const char kExampleDocument[] =
    "{ \"dhcps\": [ { \"ifname\": \"eth1\", \"vpnId\": 0, \"dhcpIpv4Server\": { \"ipRange\": [ { \"startIp\": \"192.0.2.100\", "
    "\"endIp\": \"192.0.2.200\" } ], \"netmask\": \"255.255.255.0\", \"gateway\": \"192.0.2.1\", \"dnsIps\": [ \"192.0.2.1\", "
    "\"192.0.2.2\" ], \"leaseTime\": 86400 }, \"dhcpIpv6Server\": { \"dynamicMode\": 2, \"ipv6Range\": [ { \"startIpv6\": "
    "\"2001:db8:1::100\", \"endIpv6\": \"2001:db8:1::1ff\" } ], \"prefixlengthdhcp\": 64, \"dnsIpv6s\": [ \"2001:db8:1::1\" ], "
    "\"leaseTimeIpv6\": 86400 } }, { \"ifname\": \"eth2\", \"vpnId\": 0, \"dhcpRelay\": { \"lanIp\": \"198.51.100.1\", "
    "\"relayServer\": [ \"203.0.113.10\", \"203.0.113.11\" ] } } ] }";

KQ_CTRL_DYNAMIC_SERVICE_CONF Service(const char *IfName, uint32_t Zone)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF conf{};
    snprintf(conf.IfName, sizeof(conf.IfName), "%s", IfName);
    conf.SecurityZoneId = Zone;
    return conf;
}

std::string DhcpConf() { return fakehost::ReadFile(Host().DhcpConfPath).value_or("<missing>"); }

// The example's eth1 and eth2 added through the entry point, in zones the file leaves out.
void AddExample()
{
    Host().LanVpnId = {{"eth1", 3}, {"eth2", 4}};
    kqtest::ServerMsg eth1 = kqtest::ServerMsg::DualStack(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    eth1.Pools = {{"192.0.2.100", 101}};
    eth1.Lease = eth1.V6Lease.emplace(86400);
    eth1.Dns = {Ip4("192.0.2.1"), Ip4("192.0.2.2")};
    eth1.Gateway = Ip4("192.0.2.1");
    eth1.V6Dns = {"2001:db8:1::1"};
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth1.Build()), 0) << ::testing::PrintToString(fakehost::Messages());
    kqtest::RelayMsg eth2 = kqtest::RelayItem("eth2", "198.51.100.1", {"203.0.113.10", "203.0.113.11"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(eth2.get()), 0) << ::testing::PrintToString(fakehost::Messages());
}

class RegistryTest : public fakehost::ModuleTest {};

// Leaves non-zero bytes in the stack where the next call's locals will be.
__attribute__((noinline)) void DirtyStack()
{
    volatile unsigned char junk[64 << 10];
    for (auto &byte : junk)
        byte = 0xa5;
}

TEST_F(RegistryTest, KeepsInsertionOrderAndHalvesShareOneNode)
{
    for (auto [name, zone] : {std::pair{"eth1", 1u}, {"eth2", 2u}, {"eth1", 3u}, {"eth3", 4u}}) {
        auto conf = Service(name, zone);
        ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&conf), 0);
    }
    EXPECT_EQ(RegistryNames(), (Names{"eth1", "eth2", "eth1", "eth3"}));
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth1")->SecurityZoneId, 1u);
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth"), nullptr);
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth10"), nullptr);
    _KQCtrl_DeleteDynamicConfListNode("eth1");  // the first match only
    _KQCtrl_DeleteDynamicConfListNode("eth9");
    EXPECT_EQ(RegistryNames(), (Names{"eth2", "eth1", "eth3"}));
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth1")->SecurityZoneId, 3u);
    EXPECT_TRUE(Host().Logs.empty());

    // The relay side finds the node the server side made and fills its half in place.
    KQ_CTRL_DYNAMIC_SERVER_CONF server{};
    strcpy(server.IfName, "lan0");
    server.SecurityZoneId = 7;
    server.NetAddrType = KQ_NET_ADDR_IPV4;
    ASSERT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), 0);
    KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
    strcpy(relay.IfName, "lan0");
    relay.NetAddrType = KQ_NET_ADDR_IPV4;
    relay.RelayConf.RelayServerNum = 1;
    _KQCtrl_UpdateDynamicRelayConfListNode(&relay, _KQCtrl_GetDynamicRelayConfByName("lan0"));
    const KQ_CTRL_DYNAMIC_SERVICE_CONF *service = _KQCtrl_GetDynamicConfByName("lan0");
    EXPECT_EQ(service->SecurityZoneId, 0u);  // the inserters leave the service-level zone 0
    EXPECT_EQ(service->DynamicServerConf.SecurityZoneId, 7u);
    EXPECT_EQ(service->DynamicRelayConf.RelayConf.RelayServerNum, 1u);
    _KQCtrl_DeleteDynamicRelayConfListNode(&relay);
    EXPECT_EQ(service->DynamicRelayConf.NetAddrType, 0);
    EXPECT_EQ(service->DynamicServerConf.NetAddrType, KQ_NET_ADDR_IPV4);
    EXPECT_EQ(RegistryNames(), (Names{"eth2", "eth1", "eth3", "lan0"}));

    // A relay half inserted on its own makes a record whose every other byte is zero, as
    // dhcp.conf and the agent's records print it, whatever the stack held before.
    DirtyStack();
    KQ_CTRL_DYNAMIC_RELAY_CONF relayOnly{};
    strcpy(relayOnly.IfName, "rl9");
    relayOnly.NetAddrType = KQ_NET_ADDR_IPV4;
    ASSERT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relayOnly), 0);
    KQ_CTRL_DYNAMIC_SERVICE_CONF expected{};
    strcpy(expected.IfName, "rl9");
    expected.DynamicRelayConf = relayOnly;
    EXPECT_EQ(memcmp(_KQCtrl_GetDynamicConfByName("rl9"), &expected, sizeof(expected)), 0);
    _KQCtrl_DeleteDynamicConfListNode("rl9");

    // Refused inserts leave the list as it was.
    memset(server.IfName, 'a', sizeof(server.IfName));  // no room for the end
    memset(relay.IfName, 'b', sizeof(relay.IfName));
    fakehost::Reset();
    EXPECT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), -EOVERFLOW);
    EXPECT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relay), -EOVERFLOW);
    EXPECT_EQ(fakehost::Lines(), Names(2, "IfName is overflow\n"));
    fakehost::Reset();
    Host().Fail["KQ_AgentMemZeroAlloc"] = 0;
    Host().LogTestDump = false;
    strcpy(server.IfName, "lan1");
    strcpy(relay.IfName, "lan1");
    EXPECT_EQ(_KQCtrl_InsertDynamicServerConfListNode(&server), -ENOMEM);
    EXPECT_EQ(_KQCtrl_InsertDynamicRelayConfListNode(&relay), -ENOMEM);
    EXPECT_EQ(fakehost::Messages(), (Names{"Apply memory for dynamic conf node failed\n",
                                           "Insert dynamic conf node failed(12:Cannot allocate memory)\n",
                                           "Apply memory for dynamic conf node failed\n",
                                           "Insert Dynamic conf node failed(12:Cannot allocate memory)\n"}));
    EXPECT_EQ(RegistryNames().size(), 4u);
}

TEST_F(RegistryTest, AddAndDeleteRunTheirStepsInOrderAndStopAtTheFirstFailure)
{
    // Server step refuses: nothing else runs.
    DhcpItemV2 nameless = DHCP_ITEM_V2__INIT;
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(&nameless), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("add dynamic server failed(22:Invalid argument)\n"));
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&nameless), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("del dynamic server failed(22:Invalid argument)\n"));
    EXPECT_TRUE(Host().Writes.empty() && RegistryNames().empty());

    // Relay step refuses (five relay servers): reported with the server wording, no file.
    fakehost::Reset();
    kqtest::RelayMsg tooMany = kqtest::RelayItem("lan0", "192.0.2.1", {"198.51.100.10", "198.51.100.11", "198.51.100.12",
                                                                      "198.51.100.13", "198.51.100.14"});
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(tooMany.get()), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic relay num 5 is invalid\n"));
    EXPECT_EQ(fakehost::Messages().back(), "dump flexlog:\nadd dynamic server failed(22:Invalid argument)\n");
    EXPECT_TRUE(Host().Writes.empty());

    // File step fails (the relay's own conf is the first write, the backup the second): the
    // list already holds the change, dhcp.conf is not written.
    fakehost::Reset();
    Host().Fail["KQ_WriteSyncWithFilePath"] = -EIO;
    Host().FailOnCall["KQ_WriteSyncWithFilePath"] = 2;
    kqtest::RelayMsg good = kqtest::RelayItem("lan0", "192.0.2.1", {"198.51.100.10"});
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(good.get()), -EIO);
    EXPECT_TRUE(fakehost::HasMessage("Update dynamic conf file failed(5:Input/output error)\n"));
    EXPECT_NE(_KQCtrl_GetDynamicRelayConfByName("lan0"), nullptr);
    EXPECT_FALSE(fakehost::ReadFile(Host().DhcpConfPath));

    // Delete: a refused relay step keeps the node and the file.
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(good.get()), 0);
    auto other = Service("lan1", 0);
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&other), 0);
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(tooMany.get()), -EINVAL);
    EXPECT_TRUE(fakehost::HasMessage("del dynamic relay failed(22:Invalid argument)\n"));
    EXPECT_EQ(RegistryNames(), (Names{"lan0", "lan1"}));
    EXPECT_TRUE(Host().Writes.empty());
    // Passing steps remove the node, one whose halves were never filled too; success is silent.
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(good.get()), 0);
    kqtest::RelayMsg plain = kqtest::RelayItem("lan1", "192.0.2.1", {"198.51.100.10"});
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(plain.get()), 0);
    EXPECT_TRUE(RegistryNames().empty());
    EXPECT_EQ(DhcpConf(), "{ \"dhcps\": [ ] }");
    for (const std::string &line : fakehost::Lines())
        EXPECT_EQ(line.find("Update dynamic conf file"), std::string::npos) << line;
}

TEST_F(RegistryTest, DhcpConfIsTheRegistryWrittenBackupFirst)
{
    // Switched-off interfaces are left out, a bare name does not count.
    KQ_CTRL_DYNAMIC_SERVICE_CONF off = Service("eth5", 0);
    strcpy(off.DynamicRelayConf.IfName, "eth5");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&off), 0);
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), "{ \"dhcps\": [ ] }");

    fakehost::ClearRegistry();
    AddExample();
    EXPECT_EQ(DhcpConf(), kExampleDocument);
    fakehost::Reset();
    DhcpItemV2 unknown = DHCP_ITEM_V2__INIT;  // never added: the file is rewritten unchanged
    unknown.ifname = const_cast<char *>("eth7");
    EXPECT_EQ(KQCtrl_ConfigDynamicDel(&unknown), 0);
    EXPECT_EQ(DhcpConf(), kExampleDocument);
    EXPECT_EQ(Host().Writes, (std::vector<std::pair<std::string, std::string>>{
                                 {kqtest::kRelayConfPath, "dhcp-relay=198.51.100.1,203.0.113.10\ndhcp-relay=198.51.100.1,203.0.113.11\n"},
                                 {Host().DhcpConfBakPath, kExampleDocument}}));
    EXPECT_EQ(Host().Copies, (std::vector<std::pair<std::string, std::string>>{{Host().DhcpConfBakPath, Host().DhcpConfPath}}));
    EXPECT_TRUE(fakehost::ErrorLines().empty()) << ::testing::PrintToString(fakehost::Messages());

    // Failed writes leave the live file as it was.
    fakehost::WriteFile(Host().DhcpConfPath, "previous");
    fakehost::WriteFile(Host().DhcpConfBakPath, "previous backup");
    struct Row {
        const char *Op;
        long Result;
        std::string Line, Backup;
    } rows[] = {
        {"KQ_WriteSyncWithFilePath", -EIO, "Write /etc/kqagent/dhcp.conf.bak failed(5:Input/output error)\n", "previous backup"},
        {"KQ_FileCopy", -ENOSPC, "file copy /etc/kqagent/dhcp.conf.bak failed(28:No space left on device)\n", kExampleDocument},
        // A half that does not convert abandons the whole document before anything is written
        // (eth1 changed, so it is printed again).
        {"KQ_SafeStrFormatIp6Addr", 99, "Dynamic conf to json failed(75:Value too large for defined data type)\n", kExampleDocument},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Op);
        fakehost::Reset();
        if (row.Result == 99)
            _KQCtrl_GetDynamicConfByName("eth1")->DynamicServerConf.ServerIpv6Conf.DhcpConf.Ipv6LeaseTime = 3600;
        Host().Fail[row.Op] = row.Result;
        EXPECT_EQ(_KQCtrl_UpdateDynamicConfFile(), row.Result == 99 ? -EOVERFLOW : row.Result);
        EXPECT_TRUE(fakehost::HasMessage(row.Line));
        EXPECT_EQ(DhcpConf(), "previous");
        EXPECT_EQ(fakehost::ReadFile(Host().DhcpConfBakPath), row.Backup);
    }
}

// dhcp.conf as json-c prints the whole document built from the registry: what every
// rewrite wrote before it kept the texts of unchanged items.
std::string PrintedFromRegistry()
{
    json_object *root = json_object_new_object();
    json_object *dhcps = json_object_new_array();
    json_object_object_add(root, "dhcps", dhcps);
    KQ_DYNAMIC_FOR_EACH_CONF(conf) {
        if (conf->DynamicServerConf.NetAddrType == 0 && conf->DynamicRelayConf.NetAddrType == 0)
            continue;
        json_object *item = json_object_new_object();
        json_object_array_add(dhcps, item);
        json_object_object_add(item, "ifname", json_object_new_string(conf->IfName));
        json_object_object_add(item, "vpnId", json_object_new_int(static_cast<int32_t>(conf->SecurityZoneId)));
        if (conf->DynamicServerConf.NetAddrType != 0) {
            EXPECT_EQ(KQCtrl_ConfToJsonDynamicServer(&conf->DynamicServerConf, item), 0);
        }
        if (conf->DynamicRelayConf.NetAddrType != 0) {
            EXPECT_EQ(KQCtrl_ConfToJsonDynamicRelay(&conf->DynamicRelayConf, item), 0);
        }
    }
    std::string text = json_object_to_json_string(root);
    json_object_put(root);
    return text;
}

// What a rewrite shows the host besides pure text formatting, which an unchanged item no
// longer needs.
std::vector<std::string> VisibleCalls()
{
    std::vector<std::string> calls = Host().Calls;
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const std::string &op) { return op == "KQ_SNPrintf" || op == "KQ_SafeStrFormatIp6Addr"; }),
                calls.end());
    return calls;
}

TEST_F(RegistryTest, EveryRewriteIsTheWholeDocumentAsPrintedFromTheRegistry)
{
    const std::map<std::string, uint32_t> zones = {{"lan1", 1}, {"lan2", 0}, {"lan3", 2}, {"lan4", 0}};
    kqtest::ServerMsg dual = kqtest::ServerMsg::DualStack(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    dual.IfName = "lan1";
    kqtest::ServerMsg slaac = kqtest::ServerMsg::Ipv6(KQ_IPV6_SLAAC, KQ_IPV6_SLAAC);
    slaac.IfName = "lan3";
    kqtest::ServerMsg v4 = kqtest::ServerMsg::Ipv4();
    v4.IfName = "lan4";
    kqtest::RelayMsg relay = kqtest::RelayItem("lan2", "198.51.100.1", {"203.0.113.10"});
    kqtest::RelayMsg relay4 = kqtest::RelayItem("lan4", "198.51.100.4", {"203.0.113.11"});
    kqtest::ServerMsg changed = dual;
    changed.Lease = 600;
    kqtest::ServerMsg changedBack = dual;
    struct Step {
        const char *What;
        bool Add;
        const DhcpItemV2 *Item;
    } steps[] = {
        {"add lan1", true, dual.Build()},        {"add lan2 (relay)", true, relay.get()},
        {"add lan3", true, slaac.Build()},       {"add lan4", true, v4.Build()},
        {"lan4 relays too", true, relay4.get()}, {"lan1 changes", true, changed.Build()},
        {"lan1 again", true, changed.Build()},   {"delete lan2", false, relay.get()},
        {"lan1 back", true, changedBack.Build()}, {"delete lan1", false, dual.Build()},
        {"add lan1 again", true, dual.Build()},  {"delete lan4", false, relay4.get()},
        {"delete lan3", false, slaac.Build()},   {"delete lan1", false, dual.Build()},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.What);
        fakehost::Reset();
        Host().LanVpnId = zones;
        ASSERT_EQ(step.Add ? KQCtrl_ConfigDynamicAdd(step.Item) : KQCtrl_ConfigDynamicDel(step.Item), 0)
            << ::testing::PrintToString(fakehost::Messages());
        const std::string written = DhcpConf();
        ASSERT_EQ(written, PrintedFromRegistry());
        EXPECT_EQ(fakehost::ReadFile(Host().DhcpConfBakPath), written);
    }
    EXPECT_EQ(RegistryNames(), (Names{}));
    EXPECT_EQ(DhcpConf(), "{ \"dhcps\": [ ] }");

    // A record changed behind the entry points is printed again; the same rewrite twice
    // shows the host the same calls, files and lines.
    AddExample();
    _KQCtrl_GetDynamicConfByName("eth2")->DynamicRelayConf.RelayConf.LanIp = Ip4("198.51.100.9");
    fakehost::Reset();
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), PrintedFromRegistry());
    EXPECT_NE(DhcpConf().find("\"lanIp\": \"198.51.100.9\""), std::string::npos);
    const std::vector<std::string> calls = VisibleCalls();
    const auto writes = Host().Writes;
    fakehost::Reset();
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(VisibleCalls(), calls);
    EXPECT_EQ(Host().Writes, writes);
    EXPECT_TRUE(Host().Logs.empty());

    // A record taken out and put back under the same name (a host rebuilding its registry)
    // is printed from what was put back, and so is each of two records of one name.
    KQ_CTRL_DYNAMIC_SERVICE_CONF eth2 = *_KQCtrl_GetDynamicConfByName("eth2");
    _KQCtrl_DeleteDynamicConfListNode("eth2");
    eth2.DynamicRelayConf.RelayConf.LanIp = Ip4("198.51.100.7");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&eth2), 0);
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_NE(DhcpConf().find("\"lanIp\": \"198.51.100.7\""), std::string::npos);
    eth2.DynamicRelayConf.RelayConf.LanIp = Ip4("198.51.100.8");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&eth2), 0);
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
    EXPECT_EQ(DhcpConf(), PrintedFromRegistry());
    EXPECT_NE(DhcpConf().find("\"lanIp\": \"198.51.100.7\""), std::string::npos);
    EXPECT_NE(DhcpConf().find("\"lanIp\": \"198.51.100.8\""), std::string::npos);
    EXPECT_EQ(RegistryNames(), (Names{"eth1", "eth2", "eth2"}));
}

TEST_F(RegistryTest, AnItemWhosePrintingLogsLogsAtEveryRewrite)
{
    // A list longer than its array (as a refused dhcp.conf leaves it) is written as far as
    // it fits, with a warning each time the document is written.
    AddExample();
    KQ_CTRL_DYNAMIC_SERVICE_CONF *eth1 = _KQCtrl_GetDynamicConfByName("eth1");
    eth1->DynamicServerConf.ServerIpv4Conf.DnsNum = KQ_DYNAMIC_MAX_DNS + 1;
    std::vector<std::string> first;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        fakehost::Reset();
        ASSERT_EQ(_KQCtrl_UpdateDynamicConfFile(), 0);
        const std::vector<std::string> lines = fakehost::Lines();
        if (round == 0)
            first = lines;
        EXPECT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines, first);
        EXPECT_EQ(DhcpConf(), PrintedFromRegistry());
    }
}

}  // namespace
