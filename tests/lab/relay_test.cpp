// The shared relay: the module's dnsmasq in the appliance's own namespace relays for real
// clients on two LANs to a remote dnsmasq server.
//
//   "rlcli1" cl1 --- rl1 192.0.2.1     appliance     rs0 198.51.100.1 --- srv0 198.51.100.2 "rlsrv"
//   "rlcli2" cl2 --- rl2 203.0.113.1
#include "kqtest.h"
#include "labutil.h"

namespace {

using kqtest::kRelayConfPath;
using kqtest::kRelayPidPath;

TEST(RelayLab, ClientsGetRemoteLeasesThroughOneSharedRelay)
{
    LAB_REQUIRE();
    lab::Sweep sweep;  // the relay puts itself in the background
    lab::TempDir dir;
    lab::UseHost(dir);
    lab::Netns server("rlsrv"), client1("rlcli1"), client2("rlcli2");
    lab::Veth("", "rs0", {"198.51.100.1/24"}, "rlsrv", "srv0", {"198.51.100.2/24"});
    // The remote server answers the relay's LAN address (giaddr) through the appliance.
    lab::MustSh("ip -n rlsrv route add 192.0.2.0/24 via 198.51.100.1 && ip -n rlsrv route add 203.0.113.0/24 via 198.51.100.1");
    lab::Veth("", "rl1", {"192.0.2.1/24"}, "rlcli1", "cl1");
    lab::Veth("", "rl2", {"203.0.113.1/24"}, "rlcli2", "cl2");
    lab::Dnsmasq remote("rlsrv", dir, "remote",
                        "port=0\ninterface=srv0\ndhcp-authoritative\n"
                        "dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,10m\n"
                        "dhcp-range=203.0.113.100,203.0.113.150,255.255.255.0,10m\n");

    // Each relay interface added: one relay process, all lines in one file, and a lease
    // from the remote pool of that LAN.
    kqtest::RelayMsg lan1 = kqtest::RelayItem("rl1", "192.0.2.1", {"198.51.100.2"});
    kqtest::RelayMsg lan2 = kqtest::RelayItem("rl2", "203.0.113.1", {"198.51.100.2"});
    const struct {
        kqtest::RelayMsg *Item;
        const char *Ns, *IfName, *Conf, *First, *Last;
    } steps[] = {
        {&lan1, "rlcli1", "cl1", "dhcp-relay=192.0.2.1,198.51.100.2\n", "192.0.2.100", "192.0.2.150"},
        {&lan2, "rlcli2", "cl2", "dhcp-relay=192.0.2.1,198.51.100.2\ndhcp-relay=203.0.113.1,198.51.100.2\n",
         "203.0.113.100", "203.0.113.150"},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.IfName);
        ASSERT_EQ(KQCtrl_ConfigDynamicAdd(s.Item->get()), 0);
        EXPECT_EQ(lab::Text(kRelayConfPath), s.Conf);
        ASSERT_TRUE(lab::WaitFor([] { return lab::ReadPid(kRelayPidPath).has_value(); }, 5s));
        EXPECT_EQ(lab::Procs(kRelayConfPath), std::vector<pid_t>{*lab::ReadPid(kRelayPidPath)});
        lab::Dhclient client(s.Ns, s.IfName, dir, "-4");
        const std::string address = client.Wait("fixed-address").value_or("none");
        EXPECT_TRUE(lab::InRange(address, s.First, s.Last)) << address << lab::Text(client.Log) << lab::Text(remote.Log);
    }

    // Removing rl2 keeps the relay for rl1; removing rl1, the last, stops it.
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan2.get()), 0);
    EXPECT_EQ(lab::Text(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.2\n");
    ASSERT_TRUE(lab::WaitFor([] { return lab::Procs(kRelayConfPath).size() == 1; }, 5s));
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(lan1.get()), 0);
    EXPECT_TRUE(lab::WaitFor([] { return lab::Procs(kRelayConfPath).empty(); }, 5s));
    EXPECT_FALSE(lab::ReadFile(kRelayPidPath));
    EXPECT_FALSE(lab::ReadFile(kRelayConfPath));
}

}  // namespace
