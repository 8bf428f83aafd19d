// The shared DHCP relay with a real dnsmasq relaying for real dhclients to a remote
// dnsmasq server, all inside the test's own network namespaces:
//
//   client netns "rlcli1" (cl1) --veth-- rl1 192.0.2.1      appliance (the isolated default
//   client netns "rlcli2" (cl2) --veth-- rl2 203.0.113.1    namespace, where the module
//                                         rs0 198.51.100.1   runs the relay dnsmasq)
//                                          |
//   server netns "rlsrv"  srv0 198.51.100.2 (dnsmasq with pools for both client LANs)
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <string>
#include <vector>

#include "kqtest.h"
#include "labutil.h"

namespace {

using kqtest::kRelayConfPath;
using kqtest::kRelayPidPath;

// The relay dnsmasq processes in this test's own network namespace.
std::vector<pid_t> RelayProcesses()
{
    std::vector<pid_t> found;
    for (const auto &[pid, cmdline] : lab::OwnDnsmasq())
        if (cmdline.find(kRelayConfPath) != std::string::npos)
            found.push_back(pid);
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
    kqtest::RelayMsg lan1 = kqtest::RelayItem("rl1", "192.0.2.1", {"198.51.100.2"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(lan1.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPidPath).has_value(); }, std::chrono::seconds(5)));

    {
        lab::Dhclient dhclient(client1.Name(), "cl1", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(lab::WaitIpv4InRange(client1.Name(), "cl1", "192.0.2.100", "192.0.2.150"))
            << "dhclient log:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
            << "\nremote log:\n" << remote.Log();
    }

    // Second relay interface: same process role, one pid file, both lines in one conf.
    kqtest::RelayMsg lan2 = kqtest::RelayItem("rl2", "203.0.113.1", {"198.51.100.2"});
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(lan2.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConfPath),
              "dhcp-relay=192.0.2.1,198.51.100.2\ndhcp-relay=203.0.113.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPidPath).has_value(); }, std::chrono::seconds(5)));
    std::optional<pid_t> relayPid = lab::ReadPidFile(kRelayPidPath);
    ASSERT_TRUE(relayPid.has_value());
    EXPECT_EQ(RelayProcesses(), std::vector<pid_t>{*relayPid});

    {
        lab::Dhclient dhclient(client2.Name(), "cl2", lab::Dhclient::Mode::V4, dir);
        EXPECT_TRUE(lab::WaitIpv4InRange(client2.Name(), "cl2", "203.0.113.100", "203.0.113.150"))
            << "dhclient log:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
            << "\nremote log:\n" << remote.Log();
    }

    // Removing rl2 keeps the relay for rl1; removing rl1, the last, stops it.
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan2.get()), 0);
    EXPECT_EQ(lab::ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPidFile(kRelayPidPath).has_value(); }, std::chrono::seconds(5)));
    relayPid = lab::ReadPidFile(kRelayPidPath);

    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan1.get()), 0);
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(*relayPid); }, std::chrono::seconds(5)));
    EXPECT_TRUE(RelayProcesses().empty());
    EXPECT_FALSE(lab::ReadFile(kRelayPidPath).has_value());
    EXPECT_FALSE(lab::ReadFile(kRelayConfPath).has_value());
}

}  // namespace
