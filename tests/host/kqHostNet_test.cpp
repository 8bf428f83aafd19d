// Namespaces, interface addresses, rules and sockets of the reference host, in a network
// namespace the test creates inside its own isolated one.
#include "hostTestUtil.h"

namespace {

ino_t Netns(const char *path = "/proc/thread-self/ns/net")
{
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

template <int Family, typename Addr>
std::string Text(const Addr &addr, uint8_t len)
{
    char text[INET6_ADDRSTRLEN];
    return std::string(inet_ntop(Family, &addr, text, sizeof(text))) + "/" + std::to_string(len);
}

// A namespace "kqzone" for VPN 7 holding lan0 (global and link-local IPv6, two IPv4
// addresses); in the test's own namespace, link0 with only a link-local IPv6 address.
class HostNet : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(system("ip netns add kqzone && ip link add lan0 netns kqzone type veth peer name link0 && "
                         "ip -n kqzone link set lan0 up && ip link set link0 up && "
                         "ip -n kqzone addr add 192.0.2.5/24 dev lan0 && ip -n kqzone addr add 198.51.100.7/25 dev lan0 && "
                         "ip -n kqzone addr add 2001:db8::5/64 dev lan0 nodad"), 0);
        std::ofstream("/etc/kq-host-net.json") << R"({"lans": [{"ifname": "lan0", "vpnId": 7}, {"ifname": "lan9", "vpnId": 9}],
                                                     "netns": {"7": "kqzone"}})";
        setenv("KQ_HOST_CONFIG", "/etc/kq-host-net.json", 1);
        KQ_HostReloadConfig();
    }
    void TearDown() override
    {
        // Deleting the pair first: a namespace's interfaces go asynchronously after
        // "ip netns del", and the next SetUp would find link0 still there.
        // Clean-up: what is already gone is fine.
        [[maybe_unused]] const int cleanup = system("ip link del link0; ip netns del kqzone; rm /etc/kq-host-net.json");
        unsetenv("KQ_HOST_CONFIG");
        KQ_HostReloadConfig();
    }
};

TEST_F(HostNet, PrefixAndSwitchFollowTheSettings)
{
    struct { uint32_t vpnId; size_t size; int result; const char *prefix; } prefixes[] = {
        {0, 64, 0, ""}, {7, 64, 21, "ip netns exec kqzone "}, {42, 64, 20, "ip netns exec vpn42 "},
        {7, 21, -EOVERFLOW, ""}, {7, 22, 21, "ip netns exec kqzone "}};
    for (const auto &p : prefixes) {
        char buf[64] = "?";
        EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(p.vpnId, buf, p.size), p.result) << p.vpnId << " " << p.size;
        EXPECT_STREQ(buf, p.prefix);
    }
    const ino_t own = Netns(), zone = Netns("/run/netns/kqzone");
    const long descriptors = hosttest::OpenDescriptors();
    int saved = -1;
    ASSERT_EQ(KQ_RtcNetNsSaveAndSwitch(7, &saved), 0);
    EXPECT_EQ(Netns(), zone);
    int again = saved;
    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(7, &again), -EBUSY);
    EXPECT_TRUE(again == saved && saved >= 0);
    EXPECT_EQ(KQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(Netns(), own);
    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(42, &saved), -ENOENT);  // no /run/netns/vpn42
    EXPECT_EQ(KQ_RtcNetNsSaveAndSwitch(0, &saved), 0);
    EXPECT_EQ(saved, -1);
    EXPECT_EQ(KQ_RtcNetNsSwitchToDefault(&saved), 0);
    EXPECT_EQ(Netns(), own);
    EXPECT_EQ(hosttest::OpenDescriptors(), descriptors);
}

TEST_F(HostNet, AddressesAreReadInTheLansNamespace)
{
    KQ_CONF_LAN lan{};
    ASSERT_EQ(KQ_RtcNetioLanGetByName("lan0", &lan), 0);
    EXPECT_EQ(std::string(lan.IfName) + " " + std::to_string(lan.CommConf.VpnId), "lan0 7");
    EXPECT_EQ(KQ_RtcNetioLanGetByName("eth5", &lan), -ENODEV);
    uint32_t ip = 1;
    uint8_t len = 1;
    KQ_IN6_ADDR ip6;
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("lan0", &ip, &len), 0);
    EXPECT_EQ(Text<AF_INET>(htonl(ip), len), "192.0.2.5/24");
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv6("lan0", &ip6, &len), 0);
    EXPECT_EQ(Text<AF_INET6>(ip6, len), "2001:db8::5/64");
    // link0 is no LAN: read where we are; it has only a link-local address (which the
    // kernel adds shortly after the link comes up).
    for (int i = 0; i < 60 && KQ_RtcNetioInterfaceGetFirstIpv6("link0", &ip6, &len) != 0; i++)
        usleep(50 * 1000);
    EXPECT_EQ(Text<AF_INET6>(ip6, len).substr(0, 6) + std::to_string(len), "fe80::64");
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("link0", &ip, &len), -EADDRNOTAVAIL);
    EXPECT_EQ(ip, 0u);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv4("nosuch0", &ip, &len), -ENODEV);
    EXPECT_EQ(KQ_RtcNetioInterfaceGetFirstIpv6("lan9", &ip6, &len), -ENOENT);  // vpn9 missing
    EXPECT_EQ(Netns(), Netns("/proc/self/ns/net")) << "left in another namespace";
}

TEST(HostRules, AddReplacesByZoneAndIdDelNeedsAMatch)
{
    KQ_HostRuleClear();
    KQ_CONF_RULE rule{};
    rule.Id = 7;
    for (auto [zone, port] : {std::pair{2, 2}, {2, 1}, {3, 1}}) {
        rule.Zone = zone;
        rule.Match.DstPortNum = port;
        ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    }
    ASSERT_EQ(KQ_HostRuleCount(), 2u);
    EXPECT_EQ(KQ_HostRuleAt(0)->Zone * 10 + KQ_HostRuleAt(0)->Match.DstPortNum, 21);
    EXPECT_EQ(KQ_HostRuleAt(2), nullptr);
    EXPECT_EQ(KQ_RtcRuleConfDel(2, 7, 0, 2, TRUE), 0);
    EXPECT_EQ(KQ_RtcRuleConfDel(2, 7, 0, 2, TRUE), -ENOENT);
    ASSERT_EQ(KQ_HostRuleCount(), 1u);
    EXPECT_EQ(KQ_HostRuleAt(0)->Zone, 3);
    EXPECT_EQ(KQ_RtcRuleConfAdd(nullptr, 0, FALSE, TRUE), -EINVAL);
    KQ_HostRuleClear();
}

// The table kept in a file outlives the process that wrote it; one of another layout is not read.
TEST(HostRules, AKeptTableIsReadBackByTheNextProcess)
{
    hosttest::TempDir dir("/run");
    const std::string file = dir.path + "/rules";
    KQ_HostRuleClear();
    ASSERT_EQ(KQ_HostRuleKeepIn(file.c_str()), 0);  // none yet
    KQ_CONF_RULE rule{};
    rule.Zone = 2;
    rule.Id = 7;
    rule.Match.DstPortNum = 2;
    ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    rule.Id = 8;
    ASSERT_EQ(KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE), 0);
    ASSERT_EQ(KQ_RtcRuleConfDel(2, 8, 0, 2, TRUE), 0);
    KQ_HostRuleClear();  // as a new process starts
    ASSERT_EQ(KQ_HostRuleKeepIn(file.c_str()), 0);
    ASSERT_EQ(KQ_HostRuleCount(), 1u);
    EXPECT_EQ(std::make_tuple(KQ_HostRuleAt(0)->Zone, KQ_HostRuleAt(0)->Id, KQ_HostRuleAt(0)->Match.DstPortNum),
              std::make_tuple(uint8_t(2), 7u, uint8_t(2)));
    KQ_HostRuleClear();
    std::ofstream(file, std::ios::binary) << "kqrules1" << std::string(4, '\x01') << std::string(64, '\0');
    EXPECT_EQ(KQ_HostRuleKeepIn(file.c_str()), 0);
    EXPECT_EQ(KQ_HostRuleCount(), 0u);
    EXPECT_EQ(KQ_HostRuleKeepIn(""), -EINVAL);
    KQ_HostRuleClear();
}

// The module closes its sockets through the host.
TEST(HostSockets, CloseAndErrorCheck)
{
    KQ_SOCKET sock = socket(AF_INET6, SOCK_DGRAM, 0);
    EXPECT_EQ((std::vector<bool>{KQ_SocketIsErr(sock) != 0, KQ_SocketIsErr(KQ_INVALID_SOCKET) != 0}),
              (std::vector<bool>{false, true}));
    EXPECT_EQ((std::vector<int>{KQ_SocketClose(sock), KQ_SocketClose(sock)}), (std::vector<int>{0, -EBADF}));
    EXPECT_EQ(KQ_Socket(AF_INET6, SOCK_DGRAM, 0, nullptr), -EINVAL);
}

}  // namespace
