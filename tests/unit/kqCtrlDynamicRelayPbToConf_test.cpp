#include <gtest/gtest.h>

#include "fakehost.h"

using namespace kqtest;
using fakehost::Lines;

namespace {

TEST(RelayPbToConf, RefusesBadItemsInFixedOrderWithExactLines)
{
    auto zeroSecond = RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"}), noRelay = RelayItem("eth1", "192.0.2.1", {"198.51.100.10"});
    zeroSecond.Servers[1] = 0;
    noRelay.HasRelay = false;
    auto named = [](const char *name) { return RelayItem(name, "192.0.2.1", {"198.51.100.10"}); };
    const std::string badName = "Dhcp protobuf ifname is invalid\n", fail = "Protobuf to dhcp server failed\n";
    enum Shape { Whole, NullMessage, NullName };
    struct {
        RelayMsg Msg;
        Shape Form;
        KQ_ERR_T Result;
        std::vector<std::string> Lines;
    } cases[] = {
        {named("eth1"), NullMessage, -EINVAL, {badName}},
        {named("eth1"), NullName, -EINVAL, {badName}},
        {named("eth0123456789abc"), Whole, -EOVERFLOW, {"dhcp ifname eth0123456789abc is overflow\n"}},
        {named("eth/123456789abc"), Whole, -EOVERFLOW, {"dhcp ifname eth/123456789abc is overflow\n"}},  // the length comes first
        {named("eth/1"), Whole, -EINVAL, {badName}},
        {std::move(noRelay), Whole, -EINVAL, {"Dynamic relay protobuf is null\n", fail}},
        {RelayItem("eth1", "192.0.2.1", {}), Whole, -EINVAL, {"Dynamic relay num 0 is invalid\n", fail}},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4", "198.51.100.5"}), Whole, -EINVAL,
         {"Dynamic relay num 5 is invalid\n", fail}},
        {std::move(zeroSecond), Whole, -EINVAL, {"Dynamic relay server [1] is invalid\n", fail}},
        {RelayItem("eth1", "0.0.0.0", {"198.51.100.10"}), Whole, -EINVAL, {"Dynamic relay lan ip is invalid\n", fail}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.Msg.IfName + " " + std::to_string(c.Form) + " " + std::to_string(c.Msg.Servers.size()));
        fakehost::Reset();
        KQ_CTRL_DYNAMIC_RELAY_CONF conf{};
        const DhcpItemV2 *msg = c.Msg.get();
        if (c.Form == NullName)
            c.Msg.Msg.ifname = nullptr;
        EXPECT_EQ(KQCtrl_PbToConfDynamicRelay(c.Form == NullMessage ? nullptr : msg, &conf), c.Result);
        EXPECT_EQ(Lines(), c.Lines);
        for (const auto &l : fakehost::Host().Logs)
            EXPECT_EQ(l.Level, 4u);
    }
}

TEST(RelayPbToConf, CopiesRelayItemsAsReceivedAndOthersAsNameAndZone)
{
    fakehost::Reset();
    fakehost::Host().LanVpnId["eth0123456789ab"] = 7;
    auto item = RelayItem("eth0123456789ab", "192.0.2.1", {"198.51.100.10", "198.51.100.20", "198.51.100.10", "198.51.100.30"});
    KQ_CTRL_DYNAMIC_RELAY_CONF conf{}, expected{};
    strcpy(expected.IfName, "eth0123456789ab");
    expected.SecurityZoneId = 7;
    expected.NetAddrType = KQ_NET_ADDR_IPV4;
    expected.RelayConf = {4, {0xC633640Au, 0xC6336414u, 0xC633640Au, 0xC633641Eu}, 0xC0000201u};
    ASSERT_EQ(KQCtrl_PbToConfDynamicRelay(item.get(), &conf), 0);
    EXPECT_EQ(memcmp(&conf, &expected, sizeof(conf)), 0);

    // A relay block in a non-relay item is ignored, even an invalid one; an unknown LAN has zone 0.
    RelayMsg absent = ModeItem("eth2", KQ_DHCP_RELAY);
    absent.HasIpv4 = false;
    RelayMsg items[] = {std::move(absent), ModeItem("eth2", KQ_DHCP_OFF), ModeItem("eth2", KQ_DHCP_SERVER)};
    expected = {};
    strcpy(expected.IfName, "eth2");
    for (auto &other : items) {
        SCOPED_TRACE(other.Mode);
        other.HasRelay = true;
        conf = {};
        ASSERT_EQ(KQCtrl_PbToConfDynamicRelay(other.get(), &conf), 0);
        EXPECT_EQ(memcmp(&conf, &expected, sizeof(expected)), 0);
    }
    EXPECT_TRUE(Lines().empty());
}

}  // namespace
