#include <gtest/gtest.h>

#include <cstring>

#include "fakehost.h"
#include "kqtest.h"

using kqtest::RelayMsg;
using fakehost::Lines;
using kqtest::ModeItem;
using kqtest::RelayItem;

namespace {

class RelayPbToConf : public fakehost::ModuleTest {
protected:
    KQ_CTRL_DYNAMIC_RELAY_CONF Conf{};
};

TEST_F(RelayPbToConf, RefusesBadItemsInFixedOrderWithExactLines)
{
    enum Shape { Whole, NullMessage, NullName };
    struct Case {
        const char *Name;
        RelayMsg Msg;
        Shape Form;
        KQ_ERR_T Result;
        std::vector<std::string> Lines;
    };
    auto withName = [](const char *name) { return RelayItem(name, "192.0.2.1", {"198.51.100.10"}); };
    auto zeroSecond = RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"});
    zeroSecond.Servers[1] = 0;
    auto noRelay = RelayItem("eth1", "192.0.2.1", {"198.51.100.10"});
    noRelay.HasRelay = false;
    const std::string invalidName = "Dhcp protobuf ifname is invalid\n";
    const std::string fail = "Protobuf to dhcp server failed\n";

    Case cases[] = {
        {"null message", withName("eth1"), NullMessage, -22, {invalidName}},
        {"null name", withName("eth1"), NullName, -22, {invalidName}},
        {"empty name", withName(""), Whole, -22, {invalidName}},
        {"16-char name", withName("eth0123456789abc"), Whole, -75, {"dhcp ifname eth0123456789abc is overflow\n"}},
        // The length check comes before the name rule.
        {"16-char bad name", withName("eth/123456789abc"), Whole, -75, {"dhcp ifname eth/123456789abc is overflow\n"}},
        {"slash", withName("eth/1"), Whole, -22, {invalidName}},
        {"dot-dot", withName(".."), Whole, -22, {invalidName}},
        {"blank", withName("eth 1"), Whole, -22, {invalidName}},
        {"no relay message", std::move(noRelay), Whole, -22, {"Dynamic relay protobuf is null\n", fail}},
        {"no server", RelayItem("eth1", "192.0.2.1", {}), Whole, -22, {"Dynamic relay num 0 is invalid\n", fail}},
        {"five servers",
         RelayItem("eth1", "192.0.2.1",
                   {"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4", "198.51.100.5"}),
         Whole, -22, {"Dynamic relay num 5 is invalid\n", fail}},
        {"zero server at 1", std::move(zeroSecond), Whole, -22, {"Dynamic relay server [1] is invalid\n", fail}},
        {"zero lan ip", RelayItem("eth1", "0.0.0.0", {"198.51.100.10"}), Whole, -22,
         {"Dynamic relay lan ip is invalid\n", fail}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.Name);
        fakehost::Reset();
        memset(&Conf, 0, sizeof(Conf));
        const DhcpItemV2 *msg = c.Msg.get();
        if (c.Form == NullName)
            c.Msg.Msg.ifname = nullptr;
        EXPECT_EQ(KQCtrl_PbToConfDynamicRelay(c.Form == NullMessage ? nullptr : msg, &Conf), c.Result);
        EXPECT_EQ(Lines(), c.Lines);
        for (const auto &l : fakehost::Host().Logs)
            EXPECT_EQ(l.Level, 4u);
    }
}

TEST_F(RelayPbToConf, CopiesRelayServersAsReceivedWithZoneOfLan)
{
    fakehost::Host().LanVpnId["eth0123456789ab"] = 7;
    auto item = RelayItem("eth0123456789ab", "192.0.2.1",
                          {"198.51.100.10", "198.51.100.20", "198.51.100.10", "198.51.100.30"});
    ASSERT_EQ(KQCtrl_PbToConfDynamicRelay(item.get(), &Conf), 0);
    EXPECT_STREQ(Conf.IfName, "eth0123456789ab");
    EXPECT_EQ(Conf.SecurityZoneId, 7u);
    EXPECT_EQ(Conf.NetAddrType, KQ_NET_ADDR_IPV4);
    EXPECT_EQ(Conf.RelayConf.RelayServerNum, 4u);
    EXPECT_EQ(Conf.RelayConf.LanIp, 0xC0000201u);
    const uint32_t expected[4] = {0xC633640Au, 0xC6336414u, 0xC633640Au, 0xC633641Eu};
    EXPECT_EQ(memcmp(Conf.RelayConf.RelayServer, expected, sizeof(expected)), 0);
    EXPECT_TRUE(Lines().empty());
}

TEST_F(RelayPbToConf, NonRelayItemsKeepOnlyNameAndZone)
{
    RelayMsg absent = ModeItem("eth2", KQ_DHCP_RELAY);
    absent.HasIpv4 = false;
    RelayMsg items[] = {std::move(absent), ModeItem("eth2", KQ_DHCP_OFF), ModeItem("eth2", KQ_DHCP_SERVER)};
    for (auto &item : items) {
        SCOPED_TRACE(item.Mode);
        // A relay block in a non-relay item is ignored, even an invalid one.
        item.HasRelay = true;
        memset(&Conf, 0, sizeof(Conf));
        ASSERT_EQ(KQCtrl_PbToConfDynamicRelay(item.get(), &Conf), 0);
        KQ_CTRL_DYNAMIC_RELAY_CONF expected;
        memset(&expected, 0, sizeof(expected));
        strcpy(expected.IfName, "eth2");  // unknown LAN: zone 0
        EXPECT_EQ(memcmp(&Conf, &expected, sizeof(expected)), 0);
    }
    EXPECT_TRUE(Lines().empty());
}

}  // namespace
