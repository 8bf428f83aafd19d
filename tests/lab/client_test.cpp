// The DHCP client operations against the reference host: real ISC dhclient started and
// stopped by the module inside zone 7's namespace ("vpn7"), a dnsmasq server on the far
// side of a veth pair, and the router solicitation seen on the wire.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "kqCtrlDynamic.h"
#include "kqHostLinux.h"
#include "labutil.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kZone = 7;
const std::string kNearNs = "vpn7";
const std::string kFarNs = "kqfar";
const std::string kIf = "wan0";
const std::string kServerIf = "srv0";
const std::string kPid4 = "/var/run/wan0_dhclient.pid";
const std::string kPid6 = "/var/run/wan0_dhclient6.pid";
const std::string kLease4 = "/var/lib/dhclient/dhclient.wan0.leases";
const std::string kLease6 = "/var/lib/dhclient/dhclient6.wan0.leases";

const char kServerConf[] =
    "interface=srv0\n"
    "bind-interfaces\n"
    "port=0\n"
    "dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,10m\n"
    "dhcp-range=2001:db8:1::100,2001:db8:1::1ff,64,10m\n"
    "dhcp-option=option6:dns-server,[2001:db8:1::53]\n";

// Zone 7's namespace with the client end, and a server namespace across a veth pair.
class ClientLab : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_REQUIRE_PREREQUISITES();
        dir = std::make_unique<lab::TempDir>();
        // The appliance provides the lease folder; the module only names files in it.
        lab::MustSh("mkdir -p /var/lib/dhclient");
        near = std::make_unique<lab::Netns>(kNearNs);
        far = std::make_unique<lab::Netns>(kFarNs);
        lab::DisableDad(kNearNs, "default");
        lab::DisableDad(kFarNs, "default");
        // Only the module's solicitation may reach the far side.
        near->MustSh("sysctl -qw net.ipv6.conf.default.router_solicitations=0");
        lab::VethPair(kNearNs, kIf, kFarNs, kServerIf);
        near->MustSh("sysctl -qw net.ipv6.conf." + kIf + ".router_solicitations=0");
        lab::AddAddr(kFarNs, kServerIf, "192.0.2.1/24");
        lab::AddAddr(kFarNs, kServerIf, "2001:db8:1::1/64");
        ASSERT_TRUE(lab::WaitIpv6Ready(kNearNs, kIf));
        ASSERT_TRUE(lab::WaitIpv6Ready(kFarNs, kServerIf));
        host = std::make_unique<lab::HostConfig>(*dir);
        KQ_HostRuleClear();
    }
    void TearDown() override
    {
        if (!dir)
            return;  // skipped: nothing was made
        // The namespaces' destruction kills any dhclient the module left running.
        server.reset();
        far.reset();
        near.reset();
        host.reset();
        lab::Sh("rm -rf /var/lib/dhclient /etc/netns /var/run/wan0_dhclient.pid /var/run/wan0_dhclient6.pid");
        dir.reset();
    }
    void StartServer() { server = std::make_unique<lab::Dnsmasq>(kFarNs, *dir, "server", kServerConf); }

    // The pid that the module's dhclient wrote, once it has.
    pid_t WaitPid(const std::string &PidFile)
    {
        pid_t pid = 0;
        lab::WaitFor([&] { pid = lab::ReadPidFile(PidFile).value_or(0); return pid > 0; }, 5s);
        return pid;
    }

    std::unique_ptr<lab::TempDir> dir;
    std::unique_ptr<lab::Netns> near, far;
    std::unique_ptr<lab::HostConfig> host;
    std::unique_ptr<lab::Dnsmasq> server;
};

TEST_F(ClientLab, Ipv4AndIpv6ClientsGetLeasesAndStopIndependently)
{
    StartServer();
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv4(kIf.c_str(), kZone), 0);
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6(kIf.c_str(), kZone), 0);
    EXPECT_EQ(KQ_HostRuleCount(), 1u);

    pid_t pid4 = WaitPid(kPid4), pid6 = WaitPid(kPid6);
    ASSERT_GT(pid4, 0);
    ASSERT_GT(pid6, 0);
    std::string address4 = lab::WaitLeaseField(kLease4, "fixed-address").value_or("");
    EXPECT_TRUE(lab::AddrInRange(address4, "192.0.2.100", "192.0.2.150")) << address4 << "\n" << server->Log();
    std::string address6 = lab::WaitLeaseField(kLease6, "iaaddr").value_or("");
    EXPECT_TRUE(lab::AddrInRange(address6, "2001:db8:1::100", "2001:db8:1::1ff")) << address6 << "\n" << server->Log();

    // Stopping the IPv4 client leaves the IPv6 one alone.
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4(kIf.c_str(), kZone), 0);
    EXPECT_FALSE(lab::ProcessAlive(pid4));
    EXPECT_FALSE(lab::ReadFile(kPid4).has_value());
    EXPECT_TRUE(lab::ProcessAlive(pid6));

    // No other DHCPv6 interface: the rule goes with the last client.
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6(kIf.c_str(), kZone), 0);
    EXPECT_FALSE(lab::ProcessAlive(pid6));
    EXPECT_FALSE(lab::ReadFile(kPid6).has_value());
    EXPECT_EQ(KQ_HostRuleCount(), 0u);
}

TEST_F(ClientLab, StatelessIpv6ClientGetsTheDnsOption)
{
    // Information-only dhclient keeps no lease; its script writes the DNS server into the
    // zone's resolv.conf, which `ip netns exec` takes from /etc/netns/<namespace>/.
    const std::string resolvConf = "/etc/netns/" + kNearNs + "/resolv.conf";
    lab::MustSh("mkdir -p /etc/netns/" + kNearNs);
    lab::WriteFile(resolvConf, "");
    StartServer();
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP);
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6(kIf.c_str(), kZone), 0);
    pid_t pid6 = WaitPid(kPid6);
    ASSERT_GT(pid6, 0);
    EXPECT_TRUE(lab::WaitFor(
        [&] { return lab::ReadFile(resolvConf).value_or("").find("nameserver 2001:db8:1::53") != std::string::npos; },
        20s))
        << server->Log();
    std::string serverLog = server->Log();
    EXPECT_NE(serverLog.find("DHCPINFORMATION-REQUEST(srv0)"), std::string::npos) << serverLog;
    EXPECT_EQ(serverLog.find("DHCPSOLICIT"), std::string::npos) << serverLog;
    EXPECT_FALSE(lab::LeaseField(kLease6, "iaaddr").has_value());

    // ISC dhclient 4.4 ends an information-only exchange by exiting ("PRC: Done."), so the
    // pid file it leaves is stale: stop removes it and reports -ENOENT. A client still
    // running is killed as usual. An exited client may linger as a zombie (empty cmdline)
    // until it is reaped, so "running" means a process that still has its command line.
    auto liveClient = [](pid_t pid) {
        return !lab::ReadFile("/proc/" + std::to_string(pid) + "/cmdline").value_or("").empty();
    };
    lab::WaitFor([&] { return !liveClient(pid6); }, 5s);
    bool running = liveClient(pid6);
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6(kIf.c_str(), kZone), running ? 0 : -ENOENT);
    EXPECT_FALSE(liveClient(pid6));
    EXPECT_FALSE(lab::ReadFile(kPid6).has_value());
}

// A raw ICMPv6 socket inside a named namespace, receiving router solicitations only.
int OpenRsListener(const std::string &Ns, const std::string &IfName)
{
    int self = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int target = open(("/run/netns/" + Ns).c_str(), O_RDONLY | O_CLOEXEC);
    int sock = -1;
    if (self >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0) {
        sock = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
        icmp6_filter filter;
        ICMP6_FILTER_SETBLOCKALL(&filter);
        ICMP6_FILTER_SETPASS(ND_ROUTER_SOLICIT, &filter);
        ipv6_mreq group{};
        inet_pton(AF_INET6, "ff02::2", &group.ipv6mr_multiaddr);
        group.ipv6mr_interface = if_nametoindex(IfName.c_str());
        int on = 1;
        if (sock >= 0 &&
            (setsockopt(sock, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter)) != 0 ||
             setsockopt(sock, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof(group)) != 0 ||
             setsockopt(sock, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof(on)) != 0)) {
            close(sock);
            sock = -1;
        }
        if (setns(self, CLONE_NEWNET) != 0)
            abort();  // the test thread must never stay in the wrong namespace
    }
    if (self >= 0)
        close(self);
    if (target >= 0)
        close(target);
    return sock;
}

TEST_F(ClientLab, RouterSolicitationArrivesOnTheFarSide)
{
    int listener = OpenRsListener(kFarNs, kServerIf);
    ASSERT_GE(listener, 0) << strerror(errno);

    int saved = -1;
    ASSERT_EQ(KQ_RtcNetNsSaveAndSwitch(kZone, &saved), 0);
    KQ_ERR_T ret = KQCtrl_SendOneRsPkt(kIf.c_str());
    KQ_RtcNetNsSwitchToDefault(&saved);
    ASSERT_EQ(ret, 0);

    // The first solicitation from the unspecified address is ours: the kernel's own carry
    // the link-local source (and are switched off on this link anyway).
    uint8_t payload[64];
    ssize_t n = -1;
    int hopLimit = -1;
    sockaddr_in6 from{};
    auto deadline = std::chrono::steady_clock::now() + 3s;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd pfd = {listener, POLLIN, 0};
        if (poll(&pfd, 1, 100) != 1)
            continue;
        alignas(cmsghdr) char control[64];
        iovec iov = {payload, sizeof(payload)};
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof(from);
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        n = recvmsg(listener, &msg, 0);
        for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c))
            if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT)
                memcpy(&hopLimit, CMSG_DATA(c), sizeof(hopLimit));
        if (n >= 0 && IN6_IS_ADDR_UNSPECIFIED(&from.sin6_addr))
            break;
        n = -1;
    }
    close(listener);
    ASSERT_EQ(n, 8) << "no router solicitation from :: within 3 s";  // 8: no options
    // A raw ICMPv6 socket only gets messages whose checksum the kernel has verified.
    const uint8_t expected[8] = {133, 0, 0x7B, 0xB8, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(payload, expected, 8), 0);
    EXPECT_EQ(hopLimit, 255);
}

TEST_F(ClientLab, PidFileOfAnotherProgramIsRemovedWithoutKilling)
{
    lab::Child sleeper("", {"/bin/sleep", "30"});
    lab::WriteFile(kPid4, std::to_string(sleeper.Pid()) + "\n");
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4(kIf.c_str(), kZone), -ENOENT);
    EXPECT_TRUE(sleeper.Running());
    EXPECT_FALSE(lab::ReadFile(kPid4).has_value());

    // The same stale file met by an enable: the sleeper survives and the client starts.
    lab::WriteFile(kPid4, std::to_string(sleeper.Pid()) + "\n");
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv4(kIf.c_str(), kZone), 0);
    EXPECT_TRUE(sleeper.Running());

    // The enable returns once dhclient has written its pid file, so a disable right after
    // it always finds and stops the client.
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(KQCtrl_DynamicClientEnableIpv4(kIf.c_str(), kZone), 0);
        pid_t pid = lab::ReadPidFile(kPid4).value_or(0);
        ASSERT_GT(pid, 0);
        EXPECT_NE(pid, sleeper.Pid());
        EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4(kIf.c_str(), kZone), 0);
        EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(pid); }, 3s));
        EXPECT_FALSE(lab::ReadFile(kPid4).has_value());
    }
    EXPECT_TRUE(sleeper.Running());
}

}  // namespace
