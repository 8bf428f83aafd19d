#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "fakehost.h"

using fakehost::Host;

namespace {

const std::string kPid4 = "/var/run/eth1_dhclient.pid";
const std::string kPid6 = "/var/run/eth1_dhclient6.pid";
const std::string kLease4 = "/var/lib/dhclient/dhclient.eth1.leases";
const std::string kLease6 = "/var/lib/dhclient/dhclient6.eth1.leases";

bool Exists(const std::string &Path) { return fakehost::ReadFile(Path).has_value(); }

class ClientConfig : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_SLAAC);
    }
    void TearDown() override
    {
        for (const auto &p : {kPid4, kPid6, kLease4, kLease6, kLease4 + ".bak", kLease6 + ".bak"})
            std::remove(p.c_str());
        ModuleTest::TearDown();
    }
};

// One's-complement sum over the IPv6 pseudo-header and the ICMPv6 message.
uint16_t Icmp6Checksum(const std::vector<uint8_t> &Packet)
{
    std::vector<uint8_t> pseudo(Packet.begin() + 8, Packet.begin() + 40);  // source, destination
    uint16_t len = (Packet[4] << 8) | Packet[5];
    pseudo.insert(pseudo.end(), {0, 0, uint8_t(len >> 8), uint8_t(len), 0, 0, 0, Packet[6]});
    pseudo.insert(pseudo.end(), Packet.begin() + 40, Packet.end());
    pseudo[40 + 2] = pseudo[40 + 3] = 0;  // the checksum field itself counts as zero
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < pseudo.size(); i += 2)
        sum += (pseudo[i] << 8) | pseudo[i + 1];
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

TEST_F(ClientConfig, RouterSolicitationIsTheFixedPacketToAllRouters)
{
    ASSERT_EQ(KQCtrl_SendOneRsPkt("lo"), 0);
    ASSERT_EQ(Host().SocketsOpened.size(), 1u);
    EXPECT_EQ(Host().SocketsOpened[0], std::make_tuple(10, 3, 255));
    ASSERT_EQ(Host().Packets.size(), 1u);
    const auto &p = Host().Packets[0];

    std::vector<uint8_t> expected = {0x60, 0, 0, 0, 0x00, 0x08, 58, 255};
    expected.resize(24, 0);  // source ::
    const uint8_t allRouters[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
    expected.insert(expected.end(), allRouters, allRouters + 16);
    expected.insert(expected.end(), {133, 0, 0x7B, 0xB8, 0, 0, 0, 0});
    EXPECT_EQ(p.Data, expected);
    EXPECT_EQ(Icmp6Checksum(p.Data), 0x7BB8);
    EXPECT_EQ(p.Flags, 0);

    ASSERT_EQ(p.AddrLen, 28);
    sockaddr_in6 addr;
    memcpy(&addr, p.Addr.data(), sizeof(addr));
    EXPECT_EQ(addr.sin6_family, 10);
    EXPECT_EQ(addr.sin6_port, 0);
    EXPECT_EQ(addr.sin6_flowinfo, 0u);
    EXPECT_EQ(memcmp(&addr.sin6_addr, allRouters, 16), 0);
    EXPECT_EQ(addr.sin6_scope_id, if_nametoindex("lo"));
    EXPECT_NE(addr.sin6_scope_id, 0u);
    EXPECT_EQ(Host().SocketsClosed, 1);
    EXPECT_TRUE(fakehost::HasMessage("Send one RS packet successful!\n"));
}

TEST_F(ClientConfig, RouterSolicitationFailures)
{
    // Unknown interface: scope id 0, sent anyway; a refused send is -22 whatever the cause.
    Host().Fail["KQ_SendTo"] = -ENETUNREACH;
    EXPECT_EQ(KQCtrl_SendOneRsPkt("nosuchif0"), -EINVAL);
    ASSERT_EQ(Host().Packets.size(), 1u);
    sockaddr_in6 addr;
    memcpy(&addr, Host().Packets[0].Addr.data(), sizeof(addr));
    EXPECT_EQ(addr.sin6_scope_id, 0u);
    EXPECT_EQ(Host().SocketsClosed, 1);
    EXPECT_TRUE(fakehost::HasMessage("Send RS packet failed!\n"));

    fakehost::Reset();
    Host().Fail["KQ_Socket"] = -EPERM;
    EXPECT_EQ(KQCtrl_SendOneRsPkt("lo"), -EPERM);
    EXPECT_TRUE(Host().Packets.empty());
    EXPECT_EQ(Host().SocketsClosed, 0);
    EXPECT_TRUE(fakehost::HasMessage("Create RS packet socket failed(1:Operation not permitted)\n"));

    fakehost::Reset();
    EXPECT_EQ(KQCtrl_SendOneRsPkt(nullptr), -EINVAL);
    EXPECT_TRUE(Host().SocketsOpened.empty());
}

TEST_F(ClientConfig, StartCommandLines)
{
    struct Case {
        bool Ipv6;
        KQ_IPV6_ADDR_AUTOCONF_TYPE Type;
        uint32_t Zone;
        const char *Command;  // nullptr: no client started
    } cases[] = {
        {false, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 0,
         "/sbin/dhclient -4 eth1 -pf /var/run/eth1_dhclient.pid -lf /var/lib/dhclient/dhclient.eth1.leases -nw"},
        {false, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 5,
         "ip netns exec vpn5 /sbin/dhclient -4 eth1 -pf /var/run/eth1_dhclient.pid -lf /var/lib/dhclient/dhclient.eth1.leases -nw"},
        {true, KQ_IPV6_ADDR_AUTOCONF_DHCP, 0,
         "/sbin/dhclient -6 eth1 -pf /var/run/eth1_dhclient6.pid -lf /var/lib/dhclient/dhclient6.eth1.leases -nw"},
        {true, KQ_IPV6_ADDR_AUTOCONF_DHCP, 3,
         "ip netns exec vpn3 /sbin/dhclient -6 eth1 -pf /var/run/eth1_dhclient6.pid -lf /var/lib/dhclient/dhclient6.eth1.leases -nw"},
        {true, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, 0,
         "/sbin/dhclient -6 -S eth1 -pf /var/run/eth1_dhclient6.pid -lf /var/lib/dhclient/dhclient6.eth1.leases -nw"},
        {true, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, 3,
         "ip netns exec vpn3 /sbin/dhclient -6 -S eth1 -pf /var/run/eth1_dhclient6.pid -lf /var/lib/dhclient/dhclient6.eth1.leases -nw"},
        {true, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 3, nullptr},
        {true, KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, 3, nullptr},
    };
    for (const auto &c : cases) {
        fakehost::Reset();
        KQCtrl_DynamicClientSetIpv6AutoConfType(c.Type);
        KQ_ERR_T ret = c.Ipv6 ? KQCtrl_DynamicClientEnableIpv6("eth1", c.Zone)
                              : KQCtrl_DynamicClientEnableIpv4("eth1", c.Zone);
        SCOPED_TRACE(c.Command ? c.Command : "no client");
        EXPECT_EQ(ret, 0);
        EXPECT_EQ(Host().Commands, c.Command ? std::vector<std::string>{c.Command}
                                             : std::vector<std::string>{});
        // IPv6 enable adds the shared rule in every mode, SLAAC included.
        EXPECT_EQ(Host().RulesAdded.size(), c.Ipv6 ? 1u : 0u);
    }
}

TEST_F(ClientConfig, FailedStartRetriesOnceWithoutLeaseFile)
{
    fakehost::WriteFile(kLease4, "old lease");
    fakehost::WriteFile(kLease4 + ".bak", "older lease");
    Host().FailOnCall["KQ_RTCSystem"] = 1;
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv4("eth1", 0), 0);
    ASSERT_EQ(Host().Commands.size(), 2u);
    EXPECT_EQ(Host().Commands[0], Host().Commands[1]);
    EXPECT_EQ(fakehost::ReadFile(kLease4 + ".bak"), "old lease");
    EXPECT_FALSE(Exists(kLease4));
    EXPECT_TRUE(fakehost::HasMessage("dhclient start failed(5:Input/output error), will remove "
                                     "/var/lib/dhclient/dhclient.eth1.leases and retry once.\n"));

    // Both attempts fail; no lease file to move, so the rename reports 1 (kept as it stands).
    fakehost::Reset();
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    Host().Fail["KQ_RTCSystem"] = -EIO;
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv6("eth1", 2), -EIO);
    EXPECT_EQ(Host().Commands.size(), 2u);
    const std::string cmd = Host().Commands[1];
    std::vector<std::string> expected = {
        "dhclient6 start failed(5:Input/output error), will remove " + kLease6 + " and retry once.\n",
        "rename " + kLease6 + " to " + kLease6 + ".bak failed(1:Operation not permitted), remove it.\n",
        cmd + " exec failed(5:Input/output error)\n",
    };
    std::vector<std::string> startLines;
    for (const auto &l : fakehost::LogTexts())
        if (l.find("[_KQCtrl_DynamicClientEnableIpv6:") != std::string::npos && l.find("dump") == std::string::npos)
            startLines.push_back(l.substr(l.find("] ") + 2));
    EXPECT_EQ(startLines, expected);
}

TEST_F(ClientConfig, StopSwitchesIntoTheZoneAndAlwaysBack)
{
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4("eth1", 0), 0);
    EXPECT_EQ(Host().NsSwitches, (std::vector<std::string>{"back -1"}));
    EXPECT_TRUE(fakehost::HasMessage("Dhcp client service is not exist\n"));

    fakehost::Reset();
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("eth1", 7), 0);
    EXPECT_EQ(Host().NsSwitches, (std::vector<std::string>{"switch 7", "back 40"}));

    fakehost::Reset();
    fakehost::WriteFile(kPid4, "1234\n");
    Host().CorrectPids = {1234};
    Host().Fail["KQ_RtcNetNsSaveAndSwitch"] = -EBADF;
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv4("eth1", 7), -EBADF);
    EXPECT_EQ(Host().NsSwitches, (std::vector<std::string>{"switch 7", "back -1"}));
    EXPECT_TRUE(Host().Killed.empty());
    EXPECT_TRUE(fakehost::HasMessage("Switch to namespace 7 faile, ret = -9.\n"));
}

TEST_F(ClientConfig, StopReadsAndVerifiesThePidFile)
{
    // Real idle processes that look like the two clients; "1234" in a row stands for the
    // pid of the row's client.
    fakehost::Lookalike client4("/sbin/dhclient", {"-4", "eth1", "-pf", kPid4, "-nw"});
    fakehost::Lookalike client6("/sbin/dhclient", {"-6", "eth1", "-pf", kPid6, "-nw"});
    struct Case {
        const char *Name;
        bool Ipv6;
        std::string PidText;
        bool Correct;
        long KillFail;  // 0: kill succeeds
        long KillResult;
        KQ_ERR_T Ret;
        bool Killed;
        bool PidFileLeft;
        std::vector<std::string> Lines;  // expected among the messages
    } cases[] = {
        {"killed", false, "1234\n", true, 0, 0, 0, true, false, {"Pid is 1234\n"}},
        {"already gone", true, "1234", true, 0, -3, 0, true, false, {}},
        {"other program", false, "1234\n", false, 0, 0, -ENOENT, false, false,
         {"Dhcp client service is not correct, pid file error!\n", "Kill dhclient service failed\n"}},
        {"kill refused", true, "1234\n", true, -EPERM, 0, -EPERM, true, true,
         {"Kill pid 1234 failed(1:Operation not permitted)\n", "Kill dhclient6 service failed\n"}},
        // Nothing read, or no number: pid 0, result the negated errno of the read (0 here).
        {"empty", false, "", true, 0, 0, 0, false, true, {"pid 0 is invalid(0:Success)\n"}},
        {"zero", false, "0\n", true, 0, 0, 0, false, true, {"pid 0 is invalid(0:Success)\n"}},
        {"text", true, "dhclient\n", true, 0, 0, 0, false, true, {"pid 0 is invalid(0:Success)\n"}},
        // Stale files: the host's word is not enough, nothing is signalled, the file goes.
        {"other client's file", true, std::to_string(client4.Pid()), true, 0, 0, -ENOENT, false, false,
         {"Dhcp client service is not correct, pid file error!\n"}},
        {"agent itself", false, std::to_string(getpid()), true, 0, 0, -ENOENT, false, false, {}},
        {"wraps to 1", false, "4294967297\n", true, 0, 0, -ENOENT, false, false, {}},
        {"trailing text", false, "1234abc\n", true, 0, 0, -ENOENT, false, false, {}},
        {"leading blank", false, " 1234\n", true, 0, 0, -ENOENT, false, false, {}},
        {"plus sign", true, "+1234\n", true, 0, 0, -ENOENT, false, false, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Name);
        fakehost::Reset();
        const pid_t pid = c.Ipv6 ? client6.Pid() : client4.Pid();
        auto sub = [&](std::string text) {
            size_t at = text.find("1234");
            return at == std::string::npos ? text : text.replace(at, 4, std::to_string(pid));
        };
        const std::string &pidFile = c.Ipv6 ? kPid6 : kPid4;
        fakehost::WriteFile(pidFile, sub(c.PidText));
        if (c.Correct)
            Host().CorrectPids = {pid, client4.Pid(), getpid(), 1};
        if (c.KillFail != 0)
            Host().Fail["KQ_KillPid"] = c.KillFail;
        Host().KillResult = c.KillResult;
        Host().Dhcpv6Count = 1;
        KQ_ERR_T ret = c.Ipv6 ? KQCtrl_DynamicClientDisableIpv6("eth1", 0)
                              : KQCtrl_DynamicClientDisableIpv4("eth1", 0);
        EXPECT_EQ(ret, c.Ret);
        EXPECT_EQ(Host().Killed, c.Killed ? std::vector<pid_t>{pid} : std::vector<pid_t>{});
        EXPECT_EQ(Exists(pidFile), c.PidFileLeft);
        for (const auto &line : c.Lines)
            EXPECT_TRUE(fakehost::HasMessage(sub(line))) << line;
        const bool isStale = c.Ret == -ENOENT && c.Correct;
        EXPECT_EQ(fakehost::HasMessage("Pid file " + pidFile +
                                       " is stale: it names no dhclient started with it, nothing is signalled\n"),
                  isStale);
        std::remove(pidFile.c_str());
    }
    EXPECT_TRUE(client4.Alive() && client6.Alive());
}

TEST_F(ClientConfig, Dhclient6PolicyRule)
{
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6("eth1", 0), 0);
    ASSERT_EQ(Host().RulesAdded.size(), 1u);
    const auto &add = Host().RulesAdded[0];
    EXPECT_EQ(add.Arg1, 0);
    EXPECT_EQ(add.Arg2, FALSE);
    EXPECT_EQ(add.Arg3, TRUE);
    KQ_CONF_RULE expected;
    memset(&expected, 0, sizeof(expected));
    expected.Zone = 2;
    expected.VpnId = 0xFFFFFFFFu;
    expected.Id = 7;
    expected.Match.DstPortNum = 2;
    expected.Match.DstPort[0] = {546, 546};
    expected.Match.DstPort[1] = {547, 547};
    expected.Match.ProtoNum = 1;
    expected.Match.Proto[0] = 17;
    expected.Match.InPortNum = 1;
    expected.Match.InPort[0] = {2, 0};
    expected.Match.OutPortNum = 1;
    expected.Match.OutPort[0] = {6, 0};
    expected.Actions.OutputNum = 1;
    expected.Actions.OutputArray[0] = {0, 6};
    const auto &r = add.Rule;
    EXPECT_EQ(std::tie(r.OpType, r.Table, r.Zone, r.VpnId, r.Id, r.TimeStamp),
              std::tie(expected.OpType, expected.Table, expected.Zone, expected.VpnId, expected.Id,
                       expected.TimeStamp));
    EXPECT_EQ(std::tie(r.Match.DstPortNum, r.Match.ProtoNum, r.Match.InPortNum, r.Match.OutPortNum,
                       r.Actions.OutputNum),
              std::tie(expected.Match.DstPortNum, expected.Match.ProtoNum, expected.Match.InPortNum,
                       expected.Match.OutPortNum, expected.Actions.OutputNum));
    for (int i = 0; i < KQ_CONF_RULE_MAX_ITEMS; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(r.Match.DstPort[i].LowerPort, expected.Match.DstPort[i].LowerPort);
        EXPECT_EQ(r.Match.DstPort[i].UpperPort, expected.Match.DstPort[i].UpperPort);
        EXPECT_EQ(r.Match.Proto[i], expected.Match.Proto[i]);
        EXPECT_EQ(std::tie(r.Match.InPort[i].Type, r.Match.InPort[i].Id),
                  std::tie(expected.Match.InPort[i].Type, expected.Match.InPort[i].Id));
        EXPECT_EQ(std::tie(r.Match.OutPort[i].Type, r.Match.OutPort[i].Id),
                  std::tie(expected.Match.OutPort[i].Type, expected.Match.OutPort[i].Id));
        EXPECT_EQ(std::tie(r.Actions.OutputArray[i].Id, r.Actions.OutputArray[i].Type),
                  std::tie(expected.Actions.OutputArray[i].Id, expected.Actions.OutputArray[i].Type));
    }

    // A failed add is only logged.
    fakehost::Reset();
    Host().Fail["KQ_RtcRuleConfAdd"] = -EEXIST;
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv6("eth1", 0), 0);
    EXPECT_TRUE(fakehost::HasMessage("KQ_RtcRuleConfAdd failed: File exists\n"));
    EXPECT_TRUE(fakehost::HasMessage("Add dhcp v6 client policy failed\n"));
}

TEST_F(ClientConfig, DisableIpv6RemovesTheRuleOnlyWhenNoDhcpv6InterfaceRemains)
{
    Host().Dhcpv6Count = 1;
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("eth1", 0), 0);
    EXPECT_TRUE(Host().RulesDeleted.empty());
    EXPECT_TRUE(fakehost::HasMessage("Dhcp v6 proto interface count:1\n"));

    fakehost::Reset();
    Host().Fail["KQ_RtcRuleConfDel"] = -ENOENT;
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("eth1", 0), 0);
    ASSERT_EQ(Host().RulesDeleted.size(), 1u);
    const auto &d = Host().RulesDeleted[0];
    EXPECT_EQ(std::make_tuple(d.Zone, d.Id, d.Arg3, d.Arg4, d.Arg5),
              std::make_tuple(uint8_t(2), 7u, 0u, uint16_t(2), TRUE));
    EXPECT_TRUE(fakehost::HasMessage("KQ_RtcRuleConfDel failed: No such file or directory\n"));
    EXPECT_TRUE(fakehost::HasMessage("Del dhcp v6 client policy failed\n"));
    // The count is read before the client is stopped.
    const auto &calls = Host().Calls;
    auto count = std::find(calls.begin(), calls.end(), "KQCtrl_IfmInterfaceGetDhcpv6Count");
    auto back = std::find(calls.begin(), calls.end(), "KQ_RtcNetNsSwitchToDefault");
    EXPECT_LT(count, back);
}

TEST_F(ClientConfig, EnableStopsTheRunningClientFirst)
{
    fakehost::Lookalike client("/sbin/dhclient", {"-4", "eth1", "-pf", kPid4, "-nw"});
    fakehost::WriteFile(kPid4, client.PidText());
    Host().CorrectPids = {client.Pid()};
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv4("eth1", 4), 0);
    EXPECT_EQ(Host().Killed, (std::vector<pid_t>{client.Pid()}));
    EXPECT_FALSE(Exists(kPid4));
    const auto &calls = Host().Calls;
    EXPECT_LT(std::find(calls.begin(), calls.end(), "KQ_KillPid"),
              std::find(calls.begin(), calls.end(), "KQ_RTCSystem"));
    EXPECT_EQ(Host().NsSwitches, (std::vector<std::string>{"switch 4", "back 40"}));
    EXPECT_EQ(fakehost::Message(0), "Enable ipv4 dhcp client on interface eth1.\n");

    // A failed stop is only logged; the start still runs.
    fakehost::Reset();
    fakehost::WriteFile(kPid4, "4321\n");
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv4("eth1", 0), 0);
    EXPECT_TRUE(fakehost::HasMessage("dhclient ipv4 disable failed\n"));
    EXPECT_EQ(Host().Commands.size(), 1u);
}

TEST_F(ClientConfig, SolicitationThenIpv6Enable)
{
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    Host().Fail["KQ_SendTo"] = -ENETDOWN;
    EXPECT_EQ(KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6("eth1", 0), 0);
    EXPECT_TRUE(fakehost::HasMessage("Send RS packet for interface eth1 failed.\n"));
    EXPECT_EQ(Host().Commands.size(), 1u);

    fakehost::Reset();
    Host().Fail["KQ_RTCSystem"] = -EIO;
    EXPECT_EQ(KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6("eth1", 0), -EIO);
    EXPECT_EQ(Host().Packets.size(), 1u);
    EXPECT_TRUE(fakehost::HasMessage("Enable dynamic for interface eth1 failed, ret = -5.\n"));
}

TEST_F(ClientConfig, UnusableInterfaceNamesAreRefusedBeforeAnythingRuns)
{
    using Op = std::function<KQ_ERR_T(const char *)>;
    const std::vector<std::pair<const char *, Op>> ops = {
        {"KQCtrl_DynamicClientEnableIpv4", [](const char *n) { return KQCtrl_DynamicClientEnableIpv4(n, 1); }},
        {"KQCtrl_DynamicClientEnableIpv6", [](const char *n) { return KQCtrl_DynamicClientEnableIpv6(n, 1); }},
        {"KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6",
         [](const char *n) { return KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(n, 1); }},
        {"KQCtrl_DynamicClientDisableIpv4", [](const char *n) { return KQCtrl_DynamicClientDisableIpv4(n, 1); }},
        {"KQCtrl_DynamicClientDisableIpv6", [](const char *n) { return KQCtrl_DynamicClientDisableIpv6(n, 1); }},
    };
    const struct {
        const char *Name;
        KQ_ERR_T Ret;
        std::string Message;
    } names[] = {
        {nullptr, -EINVAL, "Interface name (null) is invalid\n"},
        {"", -EINVAL, "Interface name  is invalid\n"},
        {"..", -EINVAL, "Interface name .. is invalid\n"},
        {"../etc", -EINVAL, "Interface name ../etc is invalid\n"},
        {"eth1 -sf", -EINVAL, "Interface name eth1 -sf is invalid\n"},
        {"eth1:0", -EINVAL, "Interface name eth1:0 is invalid\n"},
        {"abcdefghijklmnop", -EOVERFLOW, "Interface name abcdefghijklmnop is overflow\n"},
        {"abcdefghijklmno/q", -EOVERFLOW, "Interface name abcdefghijklmno/q is overflow\n"},
    };
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    for (const auto &[opName, op] : ops) {
        for (const auto &n : names) {
            SCOPED_TRACE(std::string(opName) + " " + (n.Name ? n.Name : "(null)"));
            fakehost::Reset();
            EXPECT_EQ(op(n.Name), n.Ret);
            EXPECT_EQ(fakehost::Messages().at(0), n.Message);
            EXPECT_NE(fakehost::LogTexts().at(0).find(std::string("[") + opName + ":"), std::string::npos);
            EXPECT_TRUE(Host().Commands.empty());
            EXPECT_TRUE(Host().NsSwitches.empty());
            EXPECT_TRUE(Host().Packets.empty());
            EXPECT_TRUE(Host().RulesAdded.empty() && Host().RulesDeleted.empty());
            EXPECT_EQ(fakehost::CallCount("KQCtrl_IfmInterfaceGetDhcpv6Count"), 0);
        }
    }
}

}  // namespace
