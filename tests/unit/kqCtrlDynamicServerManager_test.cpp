// The dnsmasq side of a server: the conf file byte for byte, its start line, and the stop
// that only ever signals the interface's own dnsmasq.
#include <functional>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakehost.h"

using fakehost::Host;
using fakehost::Ip4;
using fakehost::Ip6;

namespace {

using Lines = std::vector<std::string>;
const std::string kConf = "/etc/vyr_dhcpd_eth1.conf";
const std::string kPid = "/var/run/vyr_dhcpd_eth1.pid";
const std::string kHead = "interface=eth1\n", kLogLine = "log-facility=/var/log/morvaxel.log\n";

class ServerManager : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Fresh();
        strcpy(Conf.IfName, "eth1");
    }
    static void Fresh()
    {
        fakehost::Reset();
        Host().LogTestDump = false;
    }
    static std::string Written() { return fakehost::ReadFile(kConf).value_or("<no file>"); }
    KQ_CTRL_DYNAMIC_SERVER_CONF Conf{};
};

TEST_F(ServerManager, ConfFileForIpv4AndEachIpv6ModeUnderItsGuards)
{
    auto &v4 = Conf.ServerIpv4Conf;
    v4.IpRangeNum = 1;
    v4.IpRange[0] = {Ip4("192.0.2.100"), Ip4("192.0.2.200")};
    v4.LeaseTime = 86400;
    v4.Gateway = Ip4("192.0.2.1");
    v4.NetMask = Ip4("255.255.255.0");
    v4.DnsNum = 1;
    v4.Dns[0] = Ip4("198.51.100.53");
    auto &slaac = Conf.ServerIpv6Conf.SlaacConf;
    slaac.Prefix = Ip6("2001:db8:1::");
    slaac.PrefixLength = 64;
    slaac.Ipv6DnsNum = 1;
    slaac.Ipv6Dns[0] = Ip6("2001:db8::53");
    ASSERT_EQ(_KQCtrl_SetDynamicServerConf(&Conf, kConf.c_str()), 0);
    EXPECT_EQ(Written(), kHead + "dhcp-range=eth1,192.0.2.100,192.0.2.200,86400\ndhcp-option=eth1,3,192.0.2.1\n"
                                 "dhcp-option=eth1,1,255.255.255.0\ndhcp-option=eth1,6,198.51.100.53\n" + kLogLine +
                                 "dhcp-range=2001:db8:1::, ra-only\nenable-ra\nra-param=eth1,10\n"
                                 "dhcp-option=option6:dns-server,[2001:db8::53]\n");

    struct Row {
        const char *Name;
        KQ_IPV6_ADDR_AUTOCONF_TYPE Mode;
        bool Prefix, PrefixLength, Ranges;
        std::string Block;
        uint32_t DhcpDnsNum = 2;
    };
    const std::string dhcpDns = "dhcp-option=option6:dns-server,[2001:db8::53],[2001:db8::54]\n";
    const std::string slaacDns = "dhcp-option=option6:dns-server,[2001:db8::35]\n", ra = "enable-ra\nra-param=eth1,10\n";
    const Row rows[] = {
        {"stateful", KQ_IPV6_ADDR_AUTOCONF_DHCP, true, true, true,
         "dhcp-range=2001:db8:1::100, 2001:db8:1::1ff, 64, 7200\ndhcp-range=2001:db8:2::100, 2001:db8:2::1ff, 64, 7200\n" + ra + dhcpDns},
        {"stateful no ranges", KQ_IPV6_ADDR_AUTOCONF_DHCP, true, true, false, dhcpDns},
        {"stateless", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, true, true, true, "dhcp-range=2001:db8:1::, ra-stateless\n" + ra + dhcpDns},
        {"stateless no length", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, true, false, true, "dhcp-range=2001:db8:1::, ra-stateless\n" + dhcpDns},
        {"stateless one dns", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, true, true, true,
         "dhcp-range=2001:db8:1::, ra-stateless\n" + ra + "dhcp-option=option6:dns-server,[2001:db8::53]\n", 1},
        {"stateless zero prefix", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, false, true, true, ""},
        {"slaac", KQ_IPV6_ADDR_AUTOCONF_SLAAC, true, true, true, "dhcp-range=2001:db8:1::, ra-only\n" + ra + slaacDns},
        {"slaac no length", KQ_IPV6_ADDR_AUTOCONF_SLAAC, true, false, true, "dhcp-range=2001:db8:1::, ra-only\n" + slaacDns},
        {"slaac zero prefix", KQ_IPV6_ADDR_AUTOCONF_SLAAC, false, true, true, ""},
        {"both", KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, true, true, true,
         "dhcp-range=2001:db8:1::100, 2001:db8:1::1ff, slaac\ndhcp-range=2001:db8:2::100, 2001:db8:2::1ff, slaac\n" + ra + slaacDns},
        {"both no ranges", KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, false, true, false, slaacDns},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        strcpy(conf.IfName, "eth1");
        auto &v6 = conf.ServerIpv6Conf;
        v6.DynamicMode = row.Mode;
        v6.DhcpConf.Ipv6RangeNum = row.Ranges ? 2 : 0;
        v6.DhcpConf.Ipv6Range[0] = {Ip6("2001:db8:1::100"), Ip6("2001:db8:1::1ff")};
        v6.DhcpConf.Ipv6Range[1] = {Ip6("2001:db8:2::100"), Ip6("2001:db8:2::1ff")};
        v6.DhcpConf.PrefixLength = 64;
        v6.DhcpConf.Ipv6LeaseTime = 7200;
        v6.DhcpConf.Ipv6DnsNum = row.DhcpDnsNum;
        v6.DhcpConf.Ipv6Dns[0] = Ip6("2001:db8::53");
        v6.DhcpConf.Ipv6Dns[1] = Ip6("2001:db8::54");
        v6.SlaacConf.Prefix = row.Prefix ? Ip6("2001:db8:1::") : KQ_IN6_ADDR{};
        v6.SlaacConf.PrefixLength = row.PrefixLength ? 64 : 0;
        v6.SlaacConf.Ipv6DnsNum = 1;
        v6.SlaacConf.Ipv6Dns[0] = Ip6("2001:db8::35");
        ASSERT_EQ(_KQCtrl_SetDynamicServerConf(&conf, kConf.c_str()), 0);
        EXPECT_EQ(Written(), kHead + kLogLine + row.Block);
    }
}

TEST_F(ServerManager, WriterFailuresWriteNothing)
{
    fakehost::WriteFile(kConf, "old\n");
    struct Row {
        const char *Name;
        std::function<void(KQ_CTRL_DYNAMIC_SERVER_CONF &)> Setup;
        int Result;
        Lines Expected;
    };
    const Row rows[] = {
        {"mode 4", [](auto &c) { c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_MAX; }, -22,
         {"Dynamic server mode error(22:Invalid argument)\n"}},
        {"ipv6 text overflow",
         [](auto &c) {
             c.ServerIpv6Conf.SlaacConf.Prefix = Ip6("2001:db8::");
             Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
         },
         -75, {"Ipv6 string is overflow\n", "Set slaac mode conf failed(75:Value too large for defined data type)\n"}},
        {"stateful mode, range text overflow",
         [](auto &c) {
             c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_DHCP;
             c.ServerIpv6Conf.DhcpConf.Ipv6RangeNum = 1;
             Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
         },
         -75, {"Ipv6 string is overflow\n", "Set stateful dhcpv6 mode conf failed(75:Value too large for defined data type)\n"}},
        {"stateful mode, dns text overflow",
         [](auto &c) {
             c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_DHCP;
             c.ServerIpv6Conf.DhcpConf.Ipv6DnsNum = 1;
             Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
         },
         -75, {"Ipv6 string is overflow\n", "Set stateful dhcpv6 mode conf failed(75:Value too large for defined data type)\n"}},
        {"stateless mode, prefix text overflow",
         [](auto &c) {
             c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP;
             c.ServerIpv6Conf.SlaacConf.Prefix = Ip6("2001:db8::");
             Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
         },
         -75, {"Ipv6 string is overflow\n", "Set stateless dhcpv6 mode conf failed(75:Value too large for defined data type)\n"}},
        {"combined mode, dns text overflow",
         [](auto &c) {
             c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP;
             c.ServerIpv6Conf.SlaacConf.Ipv6DnsNum = 1;
             Host().Fail["KQ_SafeStrFormatIp6Addr"] = 50;
         },
         -75, {"Ipv6 string is overflow\n", "Set dhcpv6 and slaac mode conf failed(75:Value too large for defined data type)\n"}},
        {"buffer", [](auto &) { Host().Fail["KQ_AgentMemZeroAlloc"] = 0; }, -12, {"Apply memory failed\n"}},
        {"too long",  // 64 IPv4 pools and 64 long DHCPv6 ranges and DNS servers pass 10240 bytes
         [](auto &c) {
             c.ServerIpv4Conf.IpRangeNum = 64;
             for (auto &r : c.ServerIpv4Conf.IpRange)
                 r = {Ip4("198.51.100.100"), Ip4("198.51.100.200")};
             auto &d = c.ServerIpv6Conf.DhcpConf;
             c.ServerIpv6Conf.DynamicMode = KQ_IPV6_ADDR_AUTOCONF_DHCP;
             d.Ipv6RangeNum = d.Ipv6DnsNum = 64;
             for (int i = 0; i < 64; ++i) {
                 d.Ipv6Range[i] = {Ip6("2001:db8:1111:2222:3333:4444:5555:6666"), Ip6("2001:db8:1111:2222:3333:4444:5555:7777")};
                 d.Ipv6Dns[i] = Ip6("2001:db8:1111:2222:3333:4444:5555:8888");
             }
         },
         -75, {"dhcp server conf is overflow\n"}},
        {"write", [](auto &) { Host().Fail["KQ_WriteSyncWithFilePath"] = -EIO; }, -5,
         {"Write conf file /etc/vyr_dhcpd_eth1.conf failed(5:Input/output error)\n"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.Name);
        Fresh();
        KQ_CTRL_DYNAMIC_SERVER_CONF conf{};
        strcpy(conf.IfName, "eth1");
        row.Setup(conf);
        EXPECT_EQ(_KQCtrl_SetDynamicServerConf(&conf, kConf.c_str()), row.Result);
        EXPECT_EQ(fakehost::Messages(), row.Expected);
        EXPECT_EQ(Written(), "old\n");
        EXPECT_EQ(Host().LiveAllocations, 0);
    }
}

TEST_F(ServerManager, StartLineWithZonePrefixAndItsLimit)
{
    const std::string dnsmasq = "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_eth1.conf "
                                "--dhcp-leasefile=/etc/vyr_dhcpd_eth1.leases --port=0 --pid-file=/var/run/vyr_dhcpd_eth1.pid -z";
    ASSERT_EQ(KQCtrl_DynamicServerStart(&Conf), 0);
    Conf.SecurityZoneId = 7;
    ASSERT_EQ(KQCtrl_DynamicServerStart(&Conf), 0);
    Host().NetNsPrefix["8"] = "";  // a zone the host keeps in the default namespace
    Conf.SecurityZoneId = 8;
    ASSERT_EQ(KQCtrl_DynamicServerStart(&Conf), 0);
    Conf.SecurityZoneId = 7;
    EXPECT_EQ(Host().Commands, (Lines{dnsmasq, "ip netns exec vpn7 " + dnsmasq, dnsmasq}));
    EXPECT_EQ(fakehost::CallCount("KQ_RtcGetNetNsExecCmdPrefix"), 2);  // zone 0 asks for no prefix
    EXPECT_EQ(Written(), kHead + kLogLine);

    for (size_t total : {511u, 512u}) {  // a prefix that brings the line to 511 (fits) and 512 bytes
        Fresh();
        Host().NetNsPrefix["7"] = std::string(total - dnsmasq.size(), 'p');
        EXPECT_EQ(KQCtrl_DynamicServerStart(&Conf), total == 511 ? 0 : -75);
        EXPECT_EQ(Host().Commands.size(), total == 511 ? 1u : 0u);
    }
    EXPECT_EQ(fakehost::Messages(), Lines{"Start dynamic service cmd is overflow\n"});

    Fresh();
    Host().Fail["KQ_RtcGetNetNsExecCmdPrefix"] = -ENOENT;
    EXPECT_EQ(KQCtrl_DynamicServerStart(&Conf), -ENOENT);
    Host().Fail.clear();
    Host().Fail["KQ_CmdExec"] = -1;
    EXPECT_EQ(KQCtrl_DynamicServerRestart(&Conf), -22);  // not the executor's own value
    EXPECT_EQ(fakehost::Messages(), (Lines{"Get netns cmd prefix failed(2:No such file or directory)\n",
                                           "Open pid file /var/run/vyr_dhcpd_eth1.pid failed(2:No such file or directory)\n",
                                           "Dynamic service is not exist\n", "cmd:ip netns exec vpn7 " + dnsmasq + " exec failed\n",
                                           "Start dynamic service failed(22:Invalid argument)\n"}));
}

TEST_F(ServerManager, StopKillsOnlyTheInterfacesOwnDnsmasqAndRemovesItsFiles)
{
    // No pid file, and pid texts that must never reach kill(): files stay.
    fakehost::WriteFile(kConf, "conf\n");
    for (const char *text : {(const char *)nullptr, "", "0\n", "junk", "-5\n"}) {
        if (text != nullptr)
            fakehost::WriteFile(kPid, text);
        Fresh();
        EXPECT_EQ(KQCtrl_DynamicServerStop(&Conf), 0);
        EXPECT_TRUE(fakehost::HasMessage("Dynamic service is not exist\n"));
        EXPECT_EQ(Written(), "conf\n");
    }

    // Stale pid files: a process that is gone, a text that is no strict pid (4294967297
    // would wrap to init), the agent itself, another interface's dnsmasq, an unrelated
    // program. Nothing is signalled; the files go as for a process that is gone.
    fakehost::Lookalike other("/usr/sbin/dnsmasq", {"--pid-file=/var/run/vyr_dhcpd_eth2.pid"});
    fakehost::Lookalike unrelated("/usr/bin/sleep", {"--pid-file=/var/run/vyr_dhcpd_eth1.pid"});
    for (const std::string &text : {std::string("4194303\n"), std::string("4294967297\n"), std::string("1\n"),
                                    std::to_string(getpid()), other.PidText(), unrelated.PidText()}) {
        SCOPED_TRACE(text);
        fakehost::WriteFile(kPid, text);
        fakehost::WriteFile(kConf, "conf\n");
        Fresh();
        EXPECT_EQ(KQCtrl_DynamicServerStop(&Conf), 0);
        EXPECT_EQ(fakehost::Messages(),
                  Lines{"Pid file /var/run/vyr_dhcpd_eth1.pid is stale: it names no dnsmasq started with it, nothing is signalled\n"});
        EXPECT_EQ(Host().Logs.back().Level, 3u);
        EXPECT_FALSE(fakehost::ReadFile(kConf) || fakehost::ReadFile(kPid));
    }
    EXPECT_TRUE(other.Alive() && unrelated.Alive());

    fakehost::Lookalike server("/usr/sbin/dnsmasq",
                               {"-K", "--conf-file=/etc/vyr_dhcpd_eth1.conf", "--pid-file=/var/run/vyr_dhcpd_eth1.pid", "-z"});
    fakehost::WriteFile(kPid, server.PidText());
    fakehost::WriteFile(kConf, "conf\n");
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_DynamicServerStop(&Conf), 0);
    EXPECT_TRUE(fakehost::HasMessage("Pid is " + std::to_string(server.Pid()) + "\n"));
    for (int i = 0; i < 100 && server.Alive(); ++i)
        usleep(10000);  // SIGKILL takes effect asynchronously
    EXPECT_FALSE(server.Alive());
    EXPECT_FALSE(fakehost::ReadFile(kConf) || fakehost::ReadFile(kPid));
}

}  // namespace
