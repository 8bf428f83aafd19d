// The shared DHCP relay with a real dnsmasq relaying for real dhclients to a remote
// dnsmasq server, all inside the test's own network namespaces:
//
//   client netns "rlcli1" (cl1) --veth-- rl1 192.0.2.1      appliance (the isolated default
//   client netns "rlcli2" (cl2) --veth-- rl2 203.0.113.1    namespace, where the module
//                                         rs0 198.51.100.1   runs the relay dnsmasq)
//                                          |
//   server netns "rlsrv"  srv0 198.51.100.2 (dnsmasq with pools for both client LANs)
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "kqCtrlDynamic.h"
#include "labutil.h"

namespace {

constexpr char kRelayConf[] = "/etc/vyr_dhcpd_relay.conf";
constexpr char kRelayPid[] = "/var/run/vyr_dhcpd_relay.pid";

uint32_t Ip4(const char *Text)
{
    unsigned a, b, c, d;
    if (sscanf(Text, "%u.%u.%u.%u", &a, &b, &c, &d) != 4)
        throw lab::Error(std::string("bad address ") + Text);
    return (a << 24) | (b << 16) | (c << 8) | d;
}

// A relay-mode request for one LAN interface.
struct RelayRequest {
    std::string IfName;
    std::vector<uint32_t> Servers;
    DhcpItemV2 Msg = DHCP_ITEM_V2__INIT;
    Ipv4DhcpItem Ipv4 = IPV4_DHCP_ITEM__INIT;
    Ipv4DhcpRelay Relay = IPV4_DHCP_RELAY__INIT;

    RelayRequest(const char *Name, const char *LanIp, std::vector<const char *> ServerIps) : IfName(Name)
    {
        for (const char *s : ServerIps)
            Servers.push_back(Ip4(s));
        Ipv4.mode = KQ_DHCP_RELAY;
        Relay.lanip = Ip4(LanIp);
    }
    RelayRequest(const RelayRequest &) = delete;
    const DhcpItemV2 *get()
    {
        Msg.ifname = IfName.data();
        Msg.ipv4dhcpitem = &Ipv4;
        Ipv4.dhcprelay = &Relay;
        Relay.n_relayserver = Servers.size();
        Relay.relayserver = Servers.data();
        return &Msg;
    }
};

// Relay dnsmasq processes in this test's own network namespace.
std::vector<pid_t> RelayProcesses()
{
    std::vector<pid_t> found;
    char self[PATH_MAX] = {0};
    if (readlink("/proc/self/ns/net", self, sizeof(self) - 1) < 0)
        return found;
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (struct dirent *e = readdir(proc)) {
        pid_t pid = atoi(e->d_name);
        if (pid <= 0)
            continue;
        std::string base = std::string("/proc/") + e->d_name;
        char ns[PATH_MAX] = {0};
        if (readlink((base + "/ns/net").c_str(), ns, sizeof(ns) - 1) < 0 || strcmp(ns, self) != 0)
            continue;
        std::string cmdline = lab::ReadFile(base + "/cmdline").value_or("");
        for (char &c : cmdline)
            if (c == '\0')
                c = ' ';
        if (cmdline.rfind("/usr/sbin/dnsmasq ", 0) == 0 && cmdline.find(kRelayConf) != std::string::npos &&
            lab::ProcessAlive(pid))
            found.push_back(pid);
    }
    closedir(proc);
    return found;
}

// The relay dnsmasq puts itself in the background, outside any Child: it must not outlive
// the test, also when the test fails half-way.
struct RelayReaper {
    ~RelayReaper()
    {
        (void)KQCtrl_DynamicRelayStop();
        lab::KillAll("dnsmasq");
    }
};

// Waits for a global address of family IPv4 in [first, last] on ifname inside ns.
bool WaitLease(const std::string &Ns, const std::string &IfName, const char *First, const char *Last)
{
    return lab::WaitFor(
        [&] {
            for (const auto &a : lab::Addresses(Ns, IfName))
                if (a.family == AF_INET && lab::AddrInRange(a.address, First, Last))
                    return true;
            return false;
        },
        std::chrono::seconds(20));
}

TEST(RelayLab, ClientsGetRemoteLeasesThroughOneSharedRelay)
{
    LAB_REQUIRE_PREREQUISITES();

    lab::TempDir dir("kq-relay-");
    lab::HostConfig host(dir);
    RelayReaper reaper;

    lab::MustSh("ip link set lo up");
    lab::Netns server("rlsrv"), client1("rlcli1"), client2("rlcli2");
    for (const lab::Netns *ns : {&server, &client1, &client2})
        ns->MustSh("ip link set lo up");

    lab::VethPair("", "rs0", server.Name(), "srv0");
    lab::AddAddr("", "rs0", "198.51.100.1/24");
    lab::AddAddr(server.Name(), "srv0", "198.51.100.2/24");
    // The remote server answers the relay's LAN address (giaddr) through the appliance.
    server.MustSh("ip route add 192.0.2.0/24 via 198.51.100.1");
    server.MustSh("ip route add 203.0.113.0/24 via 198.51.100.1");

    lab::VethPair("", "rl1", client1.Name(), "cl1");
    lab::AddAddr("", "rl1", "192.0.2.1/24");
    lab::VethPair("", "rl2", client2.Name(), "cl2");
    lab::AddAddr("", "rl2", "203.0.113.1/24");

    lab::Dnsmasq remote(server.Name(), dir, "remote",
                        "port=0\n"
                        "interface=srv0\n"
                        "dhcp-authoritative\n"
                        "dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,10m\n"
                        "dhcp-range=203.0.113.100,203.0.113.150,255.255.255.0,10m\n");

    // First relay interface: the module starts the shared relay.
    RelayRequest lan1("rl1", "192.0.2.1", {"198.51.100.2"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(lan1.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConf), "dhcp-relay=192.0.2.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPid).has_value(); }, std::chrono::seconds(5)));

    {
        lab::Dhclient dhclient(client1.Name(), "cl1", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(WaitLease(client1.Name(), "cl1", "192.0.2.100", "192.0.2.150"))
            << "dhclient log:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
            << "\nremote log:\n" << remote.Log();
    }

    // Second relay interface: same process role, one pid file, both lines in one conf.
    RelayRequest lan2("rl2", "203.0.113.1", {"198.51.100.2"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(lan2.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConf),
              "dhcp-relay=192.0.2.1,198.51.100.2\ndhcp-relay=203.0.113.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPid).has_value(); }, std::chrono::seconds(5)));
    std::optional<pid_t> relayPid = lab::ReadPidFile(kRelayPid);
    ASSERT_TRUE(relayPid.has_value());
    EXPECT_EQ(RelayProcesses(), std::vector<pid_t>{*relayPid});

    {
        lab::Dhclient dhclient(client2.Name(), "cl2", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(WaitLease(client2.Name(), "cl2", "203.0.113.100", "203.0.113.150"))
            << "dhclient log:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
            << "\nremote log:\n" << remote.Log();
    }

    // Removing rl2 keeps the relay for rl1; removing rl1, the last, stops it.
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan2.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConf), "dhcp-relay=192.0.2.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPid).has_value(); }, std::chrono::seconds(5)));
    relayPid = lab::ReadPidFile(kRelayPid);

    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan1.get()), 0);
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(*relayPid); }, std::chrono::seconds(5)));
    EXPECT_TRUE(RelayProcesses().empty());
    EXPECT_FALSE(lab::ReadFile(kRelayPid).has_value());
    EXPECT_FALSE(lab::ReadFile(kRelayConf).has_value());
}

}  // namespace
