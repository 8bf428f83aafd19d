// Proves the lab recipe: namespaces joined by a veth pair, a bare dnsmasq in one, ISC
// dhclient in the other, and everything gone afterwards.
#include <arpa/inet.h>

#include "kqHostLinux.h"
#include "labutil.h"

using namespace std::chrono_literals;

namespace {

std::optional<std::string> PoolAddress(const std::string &ns, const std::string &ifname)
{
    for (const lab::IfAddr &a : lab::Addresses(ns, ifname))
        if (a.family == AF_INET && lab::AddrInRange(a.address, "192.0.2.100", "192.0.2.150"))
            return a.address + "/" + std::to_string(a.prefixLen);
    return std::nullopt;
}

TEST(LabUtil, Dhcpv4ClientGetsPoolAddressAndNothingIsLeftBehind)
{
    LAB_REQUIRE_PREREQUISITES();
    {
        lab::TempDir dir;
        lab::Netns server("lab-server"), client("lab-client");
        lab::VethPair(server.Name(), "srv0", client.Name(), "cli0");
        lab::AddAddr(server.Name(), "srv0", "192.0.2.1/24");
        lab::Dnsmasq dnsmasq(server.Name(), dir, "smoke",
                             "port=0\ninterface=srv0\nbind-interfaces\n"
                             "dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,1h\n");
        lab::Dhclient dhclient(client.Name(), "cli0", lab::Dhclient::Mode::V4, dir);

        // dhclient's script sets the address before dhclient writes the lease: wait for both.
        std::optional<std::string> got, leased;
        lab::WaitFor(
            [&] {
                got = PoolAddress(client.Name(), "cli0");
                leased = lab::LeaseField(dhclient.LeaseFile(), "fixed-address");
                return got && leased;
            },
            20s);
        ASSERT_TRUE(got && leased) << "dhclient:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
                                   << "dnsmasq:\n" << dnsmasq.Log();
        EXPECT_EQ(got->substr(got->find('/')), "/24");
        EXPECT_EQ(*leased + "/24", *got);
        EXPECT_EQ(lab::LeaseField(dhclient.LeaseFile(), "option dhcp-server-identifier"), "192.0.2.1");
        EXPECT_TRUE(lab::ProcessAlive(dnsmasq.Pid()));
        EXPECT_EQ(lab::ReadPidFile(dir.File("smoke.pid")), dnsmasq.Pid());

        // A daemon that is nobody's child, in a namespace of ours, is found and killed.
        server.MustSh("/usr/sbin/dnsmasq --port=0 --pid-file=" + dir.File("stray.pid") +
                      " --dhcp-leasefile=" + dir.File("stray.leases") + " --conf-file=/dev/null");
        std::optional<pid_t> stray = lab::ReadPidFile(dir.File("stray.pid"));
        ASSERT_TRUE(stray);
        EXPECT_EQ(lab::KillAll("dnsmasq"), 2);
        EXPECT_FALSE(lab::ProcessAlive(*stray));
        EXPECT_FALSE(lab::ProcessAlive(dnsmasq.Pid()));
    }
    EXPECT_EQ(lab::ShOut("ip netns list"), "");
    EXPECT_EQ(lab::KillAll("dhclient") + lab::KillAll("dnsmasq"), 0);
}

TEST(LabUtil, Dhcpv6ClientGetsPoolAddress)
{
    LAB_REQUIRE_PREREQUISITES();
    lab::TempDir dir;
    lab::Netns server("lab-server6"), client("lab-client6");
    lab::DisableDad(server.Name(), "default");
    lab::DisableDad(client.Name(), "default");
    lab::VethPair(server.Name(), "srv0", client.Name(), "cli0");
    lab::AddAddr(server.Name(), "srv0", "2001:db8:1::1/64");
    ASSERT_TRUE(lab::WaitIpv6Ready(server.Name(), "srv0"));
    ASSERT_TRUE(lab::WaitIpv6Ready(client.Name(), "cli0"));
    lab::Dnsmasq dnsmasq(server.Name(), dir, "smoke6",
                         "port=0\ninterface=srv0\nbind-interfaces\n"
                         "dhcp-range=2001:db8:1::100,2001:db8:1::1ff,64,1h\n");
    lab::Dhclient dhclient(client.Name(), "cli0", lab::Dhclient::Mode::V6, dir);

    std::optional<std::string> leased;
    lab::WaitFor([&] { return (leased = lab::LeaseField(dhclient.LeaseFile(), "iaaddr")).has_value(); }, 20s);
    ASSERT_TRUE(leased) << "dhclient:\n" << lab::ReadFile(dhclient.LogFile()).value_or("")
                        << "dnsmasq:\n" << dnsmasq.Log();
    EXPECT_TRUE(lab::AddrInRange(*leased, "2001:db8:1::100", "2001:db8:1::1ff")) << *leased;
    EXPECT_TRUE(lab::WaitFor(
        [&] {
            for (const lab::IfAddr &a : lab::Addresses(client.Name(), "cli0"))
                if (a.family == AF_INET6 && a.address == *leased && a.scope == "global")
                    return true;
            return false;
        },
        5s));
    EXPECT_EQ(lab::ReadPidFile(dhclient.PidFile()), dhclient.Pid());
}

TEST(LabUtil, SetUpFailuresThrowWithTheirOutput)
{
    LAB_REQUIRE_PREREQUISITES();
    lab::TempDir dir;
    lab::Netns ns("lab-bad");
    try {
        lab::Dnsmasq bad(ns.Name(), dir, "bad", "no-such-option=1\n");
        ADD_FAILURE() << "a bad dnsmasq configuration was accepted";
    } catch (const lab::Error &e) {
        std::string what = e.what();
        EXPECT_NE(what.find("no-such-option=1\n"), std::string::npos) << what;
        EXPECT_NE(what.find("bad option at line 1 of " + dir.File("bad.conf")), std::string::npos) << what;
    }
    try {
        lab::MustSh("echo out; echo err >&2; exit 3");
        ADD_FAILURE() << "a failing command passed";
    } catch (const lab::Error &e) {
        EXPECT_STREQ(e.what(), "command failed (status 3): echo out; echo err >&2; exit 3\nout\nerr\n");
    }
}

TEST(LabUtil, HostConfigReachesTheReferenceHost)
{
    LAB_REQUIRE_PREREQUISITES();
    lab::TempDir dir;
    {
        lab::HostConfig config(dir, {.lans = {{"eth1", 5}}, .netns = {{5, "zone5"}}});
        EXPECT_EQ(std::string(KQ_AgentPathDhcpConf()), dir.File("dhcp.conf"));
        EXPECT_EQ(std::string(KQ_AgentPathDhcpConfbak()), dir.File("dhcp.conf.bak"));
        KQ_CONF_LAN lan{};
        ASSERT_EQ(KQ_RtcNetioLanGetByName("eth1", &lan), 0);
        EXPECT_EQ(lan.CommConf.VpnId, 5u);
        char prefix[64];
        EXPECT_EQ(KQ_RtcGetNetNsExecCmdPrefix(5, prefix, sizeof(prefix)), 20);
        EXPECT_STREQ(prefix, "ip netns exec zone5 ");
        config.Update({.dhcpv6Interfaces = {"eth2", "eth3"}});
        EXPECT_EQ(KQCtrl_IfmInterfaceGetDhcpv6Count(), 2u);
        EXPECT_EQ(KQ_RtcNetioLanGetByName("eth1", &lan), -ENODEV);
    }
    EXPECT_STREQ(KQ_AgentPathDhcpConf(), "/etc/kqagent/dhcp.conf");
    EXPECT_EQ(KQCtrl_IfmInterfaceGetDhcpv6Count(), 0u);
}

}  // namespace
