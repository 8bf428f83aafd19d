// Namespaces, interface addresses, rules and sockets of the reference host, in a network
// namespace the test creates inside its own isolated one.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kqHostLinux.h"

namespace {

ino_t NetnsInode(const char *path)
{
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

ino_t OwnNetns()
{
    return NetnsInode("/proc/thread-self/ns/net");
}

std::string Ip6Text(const KQ_IN6_ADDR &a)
{
    char text[50];
    KQ_SafeStrFormatIp6Addr(text, sizeof(text), &a);
    return text;
}

std::string Ip4Text(uint32_t ip)
{
    return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 255) + "." +
           std::to_string((ip >> 8) & 255) + "." + std::to_string(ip & 255);
}

// A namespace "kqzone" for VPN 7 holding lan0 (global and link-local IPv6, two IPv4
// addresses); in the test's own namespace, link0 with only a link-local IPv6 address.
class HostNet : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(system("ip netns add kqzone && "
                         "ip link add lan0 netns kqzone type veth peer name link0 && "
                         "ip -n kqzone link set lan0 up && ip link set link0 up && "
                         "ip -n kqzone addr add 192.0.2.5/24 dev lan0 && "
                         "ip -n kqzone addr add 198.51.100.7/25 dev lan0 && "
                         "ip -n kqzone addr add 2001:db8::5/64 dev lan0 nodad"),
                  0);
        config = "/etc/kq-host-net.json";
        std::ofstream(config) << R"({"lans": [{"ifname": "lan0", "vpnId": 7}, {"ifname": "lan9", "vpnId": 9}],
                                    "netns": {"7": "kqzone"}})";
        setenv("KQ_HOST_CONFIG", config.c_str(), 1);
        KQ_HostReloadConfig();
    }
    void TearDown() override
    {
        system("ip netns del kqzone");
        unlink(config.c_str());
        unsetenv("KQ_HOST_CONFIG");
        KQ_HostReloadConfig();
    }
    std::string config;
};

TEST_F(HostNet, PrefixAndSwitchFollowTheSettings)
{
    char buf[64];
    EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(0, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(7, buf, sizeof(buf)), 21);
    EXPECT_STREQ(buf, "ip netns exec kqzone ");
    EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(42, buf, sizeof(buf)), 20);
    EXPECT_STREQ(buf, "ip netns exec vpn42 ");
    EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(7, buf, 21), -EOVERFLOW);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(7, buf, 22), 21);

    ino_t own = OwnNetns(), zone = NetnsInode("/run/netns/kqzone");
    ASSERT_NE(own, zone);
    int saved = -1;
    ASSERT_EQ(KQ_RtcNetNsSaveAndSwitch(7, &saved), 0);
    EXPECT_GE(saved, 0);
    EXPECT_EQ(OwnNetns(), zone);
    int again = saved;
    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(7, &again), -EBUSY);
    EXPECT_EQ(again, saved);
    EXPECT_EQ(KQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(OwnNetns(), own);

    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(42, &saved), -ENOENT);  // no /run/netns/vpn42
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(0, &saved), 0);
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(KQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(OwnNetns(), own);
}

TEST_F(HostNet, AddressesAreReadInTheLansNamespace)
{
    KQ_CONF_LAN lan{};
    ASSERT_EQ(KQ_RtcNetioLanGetByName("lan0", &lan), 0);
    EXPECT_STREQ(lan.IfName, "lan0");
    EXPECT_EQ(lan.CommConf.VpnId, 7u);
    EXPECT_EQ(KQ_RtcNetioLanGetByName("eth5", &lan), -ENODEV);

    ino_t own = OwnNetns();
    uint32_t ip = 1;
    uint8_t len = 1;
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("lan0", &ip, &len), 0);
    EXPECT_EQ(Ip4Text(ip) + "/" + std::to_string(len), "192.0.2.5/24");
    KQ_IN6_ADDR ip6;
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv6("lan0", &ip6, &len), 0);
    EXPECT_EQ(Ip6Text(ip6) + "/" + std::to_string(len), "2001:db8::5/64");
    EXPECT_EQ(OwnNetns(), own);

    // link0 is no LAN: read where we are; it has only a link-local address (which the
    // kernel adds shortly after the link comes up).
    for (int i = 0; i < 60 && KQ_RtcNetioInterfaceGetFirstIpv6("link0", &ip6, &len) != 0; i++)
        usleep(50 * 1000);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv6("link0", &ip6, &len), 0);
    EXPECT_EQ(Ip6Text(ip6).substr(0, 6), "fe80::");
    EXPECT_EQ(len, 64);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("link0", &ip, &len), -EADDRNOTAVAIL);
    EXPECT_EQ(ip, 0u);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("nosuch0", &ip, &len), -ENODEV);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv6("lan9", &ip6, &len), -ENOENT);  // vpn9 missing
    EXPECT_EQ(OwnNetns(), own);
}

TEST(HostRules, AddReplacesByZoneAndIdDelNeedsAMatch)
{
    KQ_HostRuleClear();
    KQ_CONF_RULE rule{};
    rule.Zone = 2;
    rule.Id = 7;
    rule.Match.DstPortNum = 2;
    ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    rule.Match.DstPortNum = 1;
    ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    rule.Zone = 3;
    ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    ASSERT_EQ(KQ_HostRuleCount(), 2u);
    EXPECT_EQ(KQ_HostRuleAt(0)->Zone, 2);
    EXPECT_EQ(KQ_HostRuleAt(0)->Match.DstPortNum, 1);
    EXPECT_EQ(KQ_HostRuleAt(2), nullptr);
    EXPECT_EQ(KQ_RtcRuleConfDel(2, 7, 0, 2, TRUE), 0);
    EXPECT_EQ(KQ_RtcRuleConfDel(2, 7, 0, 2, TRUE), -ENOENT);
    ASSERT_EQ(KQ_HostRuleCount(), 1u);
    EXPECT_EQ(KQ_HostRuleAt(0)->Zone, 3);
    EXPECT_EQ(KQ_RtcRuleConfAdd(nullptr, 0, FALSE, TRUE), -EINVAL);
    KQ_HostRuleClear();
}

TEST(HostSockets, SendAndCloseThroughTheSystem)
{
    KQ_SOCKET rx = KQ_INVALID_SOCKET, tx = KQ_INVALID_SOCKET;
    ASSERT_EQ(KQ_Socket(AF_INET6, SOCK_DGRAM, 0, &rx), 0);
    ASSERT_EQ(KQ_Socket(AF_INET6, SOCK_DGRAM, 0, &tx), 0);
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    socklen_t alen = sizeof(addr);
    ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    getsockname(rx, reinterpret_cast<sockaddr *>(&addr), &alen);
    EXPECT_EQ(KQ_SendTo(tx, "hello", 5, 0, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 5);
    char got[8] = {};
    EXPECT_EQ(recv(rx, got, sizeof(got), 0), 5);
    EXPECT_STREQ(got, "hello");
    EXPECT_EQ(KQ_SendTo(tx, "x", 1, 0, reinterpret_cast<sockaddr *>(&addr), 3), -EINVAL);
    EXPECT_FALSE(KQ_SocketIsErr(tx));
    EXPECT_EQ(KQ_SocketClose(tx), 0);
    EXPECT_EQ(KQ_SocketClose(rx), 0);
    EXPECT_EQ(KQ_SocketClose(rx), -EBADF);
    EXPECT_TRUE(KQ_SocketIsErr(KQ_INVALID_SOCKET));
    KQ_SOCKET bad = 0;
    EXPECT_EQ(KQ_Socket(4242, SOCK_DGRAM, 0, &bad), -EAFNOSUPPORT);
    EXPECT_TRUE(KQ_SocketIsErr(bad));
}

}  // namespace
