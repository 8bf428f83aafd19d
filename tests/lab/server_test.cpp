// The server side end to end: the module starts real dnsmasq (through the reference host)
// in the LAN's zone namespace, and ISC dhclient in a peer namespace gets what it promises.
#include <arpa/inet.h>
#include <sys/stat.h>

#include <thread>

#include "kqtest.h"
#include "kqHostLinux.h"
#include "labutil.h"

using namespace std::chrono_literals;
using kqtest::Ip4;

namespace {

using kqtest::ServerMsg;

const std::string kPidFile = "/var/run/vyr_dhcpd_lan0.pid";
const std::string kConfFile = "/etc/vyr_dhcpd_lan0.conf";

class ServerLab : public ::testing::Test {
protected:
    void SetUp() override
    {
        LAB_REQUIRE_PREREQUISITES();
        Dir = std::make_unique<lab::TempDir>();
        Config = std::make_unique<lab::HostConfig>(*Dir, lab::HostSettings{.lans = {{"lan0", 7}}});
        Zone = std::make_unique<lab::Netns>("vpn7");  // zone 7's namespace by the default rule
        Client = std::make_unique<lab::Netns>("lab-cli");
        lab::VethPair("vpn7", "lan0", "lab-cli", "cli0");
        lab::DisableDad("vpn7", "lan0");
        lab::DisableDad("lab-cli", "cli0");
        lab::AddAddr("vpn7", "lan0", "192.0.2.1/24");
        lab::AddAddr("vpn7", "lan0", "2001:db8:1::1/64");
        ASSERT_TRUE(lab::WaitIpv6Ready("vpn7", "lan0"));
        ASSERT_TRUE(lab::WaitIpv6Ready("lab-cli", "cli0"));
    }
    void TearDown() override
    {
        // Whatever a failed test left running goes with the namespaces; the registry
        // node goes here.
        ServerMsg del;
        del.IfName = "lan0";
        if (Zone)
            (void)KQCtrl_ConfigDynamicDel(del.Build());
    }

    // What dnsmasq wrote to its log, for failure messages.
    static std::string ServerLog() { return lab::ReadFile("/var/log/morvaxel.log").value_or("<no log>"); }

    static bool RunsInZone(pid_t Pid)
    {
        struct stat inZone{}, ofPid{};
        return stat("/run/netns/vpn7", &inZone) == 0 &&
               stat(("/proc/" + std::to_string(Pid) + "/ns/net").c_str(), &ofPid) == 0 &&
               inZone.st_ino == ofPid.st_ino;
    }

    std::unique_ptr<lab::TempDir> Dir;
    std::unique_ptr<lab::HostConfig> Config;
    std::unique_ptr<lab::Netns> Zone, Client;
};

TEST_F(ServerLab, Ipv4InZoneLeasesRepeatsRefusesAndDeletes)
{
    ServerMsg m = ServerMsg::Ipv4();
    m.IfName = "lan0";
    m.Pools = {{"192.0.2.100", 51}};
    m.Gateway = Ip4("192.0.2.1");
    m.Dns = {Ip4("198.51.100.53")};
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    std::optional<pid_t> pid = lab::ReadPidFile(kPidFile);
    ASSERT_TRUE(pid) << ServerLog();
    EXPECT_TRUE(RunsInZone(*pid));

    {
        lab::Dhclient dh("lab-cli", "cli0", lab::Dhclient::Mode::V4, *Dir);
        std::optional<std::string> address = lab::WaitLeaseField(dh.LeaseFile(), "fixed-address");
        ASSERT_TRUE(address) << lab::ReadFile(dh.LogFile()).value_or("") << ServerLog();
        EXPECT_TRUE(lab::AddrInRange(*address, "192.0.2.100", "192.0.2.150")) << *address;
        EXPECT_EQ(lab::LeaseField(dh.LeaseFile(), "option routers"), "192.0.2.1");
        EXPECT_EQ(lab::LeaseField(dh.LeaseFile(), "option subnet-mask"), "255.255.255.0");
        EXPECT_EQ(lab::LeaseField(dh.LeaseFile(), "option domain-name-servers"), "198.51.100.53");
    }

    // The same request again leaves the running server alone.
    const std::optional<std::string> confText = lab::ReadFile(kConfFile);
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    EXPECT_EQ(lab::ReadPidFile(kPidFile), pid);
    EXPECT_TRUE(lab::ProcessAlive(*pid));

    // A refused request changes nothing either.
    ServerMsg bad = m;
    bad.Netmask = 0;
    EXPECT_EQ(KQCtrl_ConfigDynamicAdd(bad.Build()), -22);
    EXPECT_EQ(lab::ReadPidFile(kPidFile), pid);
    EXPECT_TRUE(lab::ProcessAlive(*pid));
    EXPECT_EQ(lab::ReadFile(kConfFile), confText);

    // Delete stops the process and removes its pid and configuration files.
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(m.Build()), 0);
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(*pid); }, 5s));
    EXPECT_FALSE(lab::ReadFile(kPidFile));
    EXPECT_FALSE(lab::ReadFile(kConfFile));
}

TEST_F(ServerLab, Ipv6StatefulSlaacAndStateless)
{
    ServerMsg m = ServerMsg::Ipv6(KQ_IPV6_DHCP, KQ_IPV6_DHCP);
    m.IfName = "lan0";
    m.V6Lease = 3600;
    {
        ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
        lab::Dhclient dh("lab-cli", "cli0", lab::Dhclient::Mode::V6, *Dir);
        std::optional<std::string> address = lab::WaitLeaseField(dh.LeaseFile(), "iaaddr");
        ASSERT_TRUE(address) << lab::ReadFile(dh.LogFile()).value_or("") << ServerLog();
        EXPECT_TRUE(lab::AddrInRange(*address, "2001:db8:1::100", "2001:db8:1::1ff")) << *address;
        EXPECT_EQ(lab::LeaseField(dh.LeaseFile(), "option dhcp6.name-servers"), "2001:db8::53");
    }

    // SLAAC: the client's kernel builds an address in the advertised prefix.
    m.AddrMode = m.DnsMode = KQ_IPV6_SLAAC;
    Client->MustSh("ip -6 addr flush dev cli0 scope global");
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    Client->MustSh("ip link set cli0 down && ip link set cli0 up");  // solicit at once
    auto slaacAddress = [&] {
        for (const lab::IfAddr &a : lab::Addresses("lab-cli", "cli0"))
            if (a.family == AF_INET6 && a.scope == "global" && a.prefixLen == 64 &&
                lab::AddrInRange(a.address, "2001:db8:1::", "2001:db8:1::ffff:ffff:ffff:ffff"))
                return true;
        return false;
    };
    EXPECT_TRUE(lab::WaitFor(slaacAddress, 20s)) << Client->ShOut("ip -6 addr show dev cli0") << ServerLog();

    // Stateless: addresses by SLAAC, DNS by DHCPv6 information request.
    m.DnsMode = KQ_IPV6_DHCP;
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    // An information request leaves no lease: the client's script reports the DNS it got.
    const std::string script = Dir->File("inform.sh"), report = Dir->File("inform.txt");
    lab::WriteFile(script, "#!/bin/sh\n[ -n \"$new_dhcp6_name_servers\" ] && echo \"dns $new_dhcp6_name_servers\" >> " + report + "\n");
    chmod(script.c_str(), 0755);
    lab::Dhclient dh("lab-cli", "cli0", lab::Dhclient::Mode::V6Stateless, *Dir, script);
    bool informed = lab::WaitFor(
        [&] { return lab::ReadFile(report).value_or("").find("dns ") != std::string::npos; }, 20s);
    ASSERT_TRUE(informed) << lab::ReadFile(dh.LogFile()).value_or("") << ServerLog();
    EXPECT_NE(lab::ReadFile(report)->find("dns 2001:db8::53\n"), std::string::npos) << *lab::ReadFile(report);
}

// A name dnsmasq would read as a wildcard is refused; the server of lan0 answers on lan0
// only, never on a second, unconfigured interface of the same zone.
TEST_F(ServerLab, WildcardNameIsRefusedAndAnotherInterfaceGetsNoAnswer)
{
    lab::Netns other("lab-cli2");
    lab::VethPair("vpn7", "lan9", "lab-cli2", "cli9");
    lab::AddAddr("vpn7", "lan9", "192.0.2.254/24");
    ServerMsg m = ServerMsg::Ipv4();
    m.Pools = {{"192.0.2.100", 51}};
    for (const char *name : {"lan*", "*", "l?n9", "lan[09]", "-lan0", "lan0,lan9"}) {
        m.IfName = name;
        EXPECT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), -22) << name;
        EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_" + std::string(name) + ".pid")) << name;
    }
    m.IfName = "lan0";
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);

    lab::Dhclient served("lab-cli", "cli0", lab::Dhclient::Mode::V4, *Dir);
    lab::Dhclient unserved("lab-cli2", "cli9", lab::Dhclient::Mode::V4, *Dir);
    ASSERT_TRUE(lab::WaitLeaseField(served.LeaseFile(), "fixed-address")) << ServerLog();
    // The served client's lease took a few exchanges; give the other one as long again.
    std::this_thread::sleep_for(3s);
    EXPECT_FALSE(lab::LeaseField(unserved.LeaseFile(), "fixed-address")) << ServerLog();
}

// A pid file whose process died and whose pid now belongs to an unrelated program: the
// program survives and the service starts all the same.
TEST_F(ServerLab, ReusedPidInStalePidFilesIsNeverSignalled)
{
    lab::Child unrelated("", {"/bin/sleep", "60"});
    const std::string text = std::to_string(unrelated.Pid()) + "\n";
    lab::WriteFile(kPidFile, text);
    lab::WriteFile("/var/run/vyr_dhcpd_relay.pid", text);  // a server add stops the relay
    ServerMsg m = ServerMsg::Ipv4();
    m.IfName = "lan0";
    ASSERT_EQ(KQCtrl_ConfigDynamicAdd(m.Build()), 0);
    EXPECT_TRUE(unrelated.Running());
    std::optional<pid_t> pid = lab::ReadPidFile(kPidFile);
    ASSERT_TRUE(pid) << ServerLog();
    EXPECT_NE(*pid, unrelated.Pid());
    EXPECT_TRUE(RunsInZone(*pid));
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_relay.pid"));

    // The delete stops the new server and still leaves the unrelated program alone.
    ASSERT_EQ(KQCtrl_ConfigDynamicDel(m.Build()), 0);
    EXPECT_TRUE(lab::WaitFor([&] { return !lab::ProcessAlive(*pid); }, 5s));
    EXPECT_TRUE(unrelated.Running());
}

}  // namespace
