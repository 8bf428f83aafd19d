#include <gtest/gtest.h>

#include <net/if.h>
#include <unistd.h>

#include <algorithm>

#include "fakehost.h"

using fakehost::HasMessage;
using fakehost::Host;

namespace {

using Texts = std::vector<std::string>;
const std::string kPid4 = "/var/run/eth1_dhclient.pid", kPid6 = "/var/run/eth1_dhclient6.pid";
const std::string kLease4 = "/var/lib/dhclient/dhclient.eth1.leases", kLease6 = "/var/lib/dhclient/dhclient6.eth1.leases";

bool Exists(const std::string &Path) { return fakehost::ReadFile(Path).has_value(); }

// The exported operations, by the name they log under.
enum Op { Enable4, Enable6, RsEnable6, Disable4, Disable6, Rs };
const std::pair<std::string, KQ_ERR_T (*)(const char *, uint32_t)> kOps[] = {
    {"KQCtrl_DynamicClientEnableIpv4", KQCtrl_DynamicClientEnableIpv4}, {"KQCtrl_DynamicClientEnableIpv6", KQCtrl_DynamicClientEnableIpv6},
    {"KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6", KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6},
    {"KQCtrl_DynamicClientDisableIpv4", KQCtrl_DynamicClientDisableIpv4}, {"KQCtrl_DynamicClientDisableIpv6", KQCtrl_DynamicClientDisableIpv6},
    {"KQCtrl_SendOneRsPkt", [](const char *IfName, uint32_t) { return KQCtrl_SendOneRsPkt(IfName); }}};

// "60 00 ..." -> bytes
std::vector<uint8_t> Hex(const char *Text)
{
    std::vector<uint8_t> out;
    for (unsigned byte = 0, n = 0; sscanf(Text, " %2x%n", &byte, &n) == 1; Text += n)
        out.push_back(static_cast<uint8_t>(byte));
    return out;
}
bool Before(const char *First, const char *Second)
{
    const auto &calls = Host().Calls;
    return std::find(calls.begin(), calls.end(), First) < std::find(calls.begin(), calls.end(), Second);
}

class ClientConfig : public fakehost::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        for (const auto &p : {kPid4, kPid6, kLease4, kLease6, kLease4 + ".bak", kLease6 + ".bak"})
            std::remove(p.c_str());
        KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_SLAAC);
    }
};

TEST_F(ClientConfig, RouterSolicitationIsTheFixedPacketToAllRouters)
{
    ASSERT_EQ(KQCtrl_SendOneRsPkt("lo"), 0);
    EXPECT_EQ(Host().SocketsOpened, (std::vector<std::tuple<int32_t, int32_t, int32_t>>{{10, 3, 255}}));
    ASSERT_EQ(Host().Packets.size(), 1u);
    // IPv6 header from :: (which the fixed checksum 7bb8 relies on) to ff02::2, then the ICMPv6 solicitation.
    const auto packet = Hex("60000000 0008 3a ff 00000000000000000000000000000000 ff020000000000000000000000000002 85 00 7bb8 00000000");
    auto addr = Hex("0a00 0000 00000000 ff020000000000000000000000000002");  // AF_INET6, port 0, flow 0, ff02::2, scope id
    const uint32_t scope = if_nametoindex("lo");
    addr.insert(addr.end(), reinterpret_cast<const uint8_t *>(&scope), reinterpret_cast<const uint8_t *>(&scope) + 4);
    const auto &p = Host().Packets[0];
    EXPECT_EQ(std::tie(p.Data, p.Addr, p.Flags, p.AddrLen, Host().SocketsClosed), std::make_tuple(packet, addr, 0, 28, 1));
    EXPECT_TRUE(HasMessage("Send one RS packet successful!\n"));

    // An unknown interface gives scope id 0 and is sent anyway.
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_SendOneRsPkt("nosuchif0"), 0);
    EXPECT_EQ(Host().Packets.at(0).Addr[24], 0);
}

TEST_F(ClientConfig, EachStepAndFailureAsTheHostSeesIt)
{
    const struct { Op Call; uint32_t Zone; const char *FailOp; long Fail; KQ_ERR_T Ret; Texts NsSwitches; size_t Commands; Texts Lines; } cases[] = {
        {Rs, 0, "KQ_SendTo", -ENETUNREACH, -EINVAL, {}, 0, {"Send RS packet failed!\n"}},  // whatever the cause
        {Rs, 0, "KQ_Socket", -EPERM, -EPERM, {}, 0, {"Create RS packet socket failed(1:Operation not permitted)\n"}},
        {Enable4, 5, "KQ_RtcGetNetNsExecCmdPrefix", -ENODEV, -ENODEV, {"switch 5", "back 40"}, 0, {"Get net namespace cmd prefix failed(19:No such device)\n"}},
        {Disable4, 0, "", 0, 0, {"back -1"}, 0, {"Disable ipv4 dhcp client on interface eth1.\n", "Dhcp client service is not exist\n"}},
        // The stop before a start may fail: only logged, the start still runs.
        {Enable4, 7, "KQ_RtcNetNsSaveAndSwitch", -EBADF, 0, {"switch 7", "back -1"}, 1,
         {"Enable ipv4 dhcp client on interface eth1.\n", "Switch to namespace 7 faile, ret = -9.\n", "dhclient ipv4 disable failed\n"}},
        {Disable6, 7, "KQ_RtcRuleConfDel", -ENOENT, 0, {"switch 7", "back 40"}, 0, {"Dhcp v6 proto interface count:0\n",
         "KQ_RtcRuleConfDel failed: No such file or directory\n", "Del dhcp v6 client policy failed\n", "Dhcp client service is not exist\n"}},
        // Failed policy adds and solicitations are only logged.
        {Enable6, 0, "KQ_RtcRuleConfAdd", -EEXIST, 0, {"back -1"}, 1, {"KQ_RtcRuleConfAdd failed: File exists\n", "Add dhcp v6 client policy failed\n"}},
        {RsEnable6, 0, "KQ_SendTo", -ENETDOWN, 0, {"back -1"}, 1, {"Send RS packet for interface eth1 failed.\n"}},
        {RsEnable6, 0, "KQ_RTCSystem", -EIO, -EIO, {"back -1"}, 2, {"Enable dynamic for interface eth1 failed, ret = -5.\n"}},
    };
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Lines.back());
        fakehost::Reset();
        Host().Fail[c.FailOp] = c.Fail;
        EXPECT_EQ(kOps[c.Call].second("eth1", c.Zone), c.Ret);
        EXPECT_EQ(Host().NsSwitches, c.NsSwitches);
        EXPECT_EQ(Host().Commands.size(), c.Commands);
        for (const auto &line : c.Lines)
            EXPECT_TRUE(HasMessage(line)) << line;
        EXPECT_EQ(HasMessage("Enable dynamic for interface eth1 failed, ret = " + std::to_string(c.Ret) + ".\n"),
                  c.Call == RsEnable6 && c.Ret < 0);
    }
}

TEST_F(ClientConfig, StartCommandLines)
{
    const std::string tail4 = "eth1 -pf /var/run/eth1_dhclient.pid -lf /var/lib/dhclient/dhclient.eth1.leases -nw";
    const std::string tail6 = "eth1 -pf /var/run/eth1_dhclient6.pid -lf /var/lib/dhclient/dhclient6.eth1.leases -nw";
    const std::string longPrefix(510, 'x');  // a host prefix filling the buffer: the command is cut at its end
    Host().NetNsPrefix["9"] = longPrefix;
    const struct { bool Ipv6; KQ_IPV6_ADDR_AUTOCONF_TYPE Type; uint32_t Zone; std::string Command; /* empty: none */ } cases[] = {
        {false, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 0, "/sbin/dhclient -4 " + tail4},
        {false, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 5, "ip netns exec vpn5 /sbin/dhclient -4 " + tail4},
        {false, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 9, longPrefix + "/"},
        {true, KQ_IPV6_ADDR_AUTOCONF_DHCP, 0, "/sbin/dhclient -6 " + tail6},
        {true, KQ_IPV6_ADDR_AUTOCONF_DHCP, 3, "ip netns exec vpn3 /sbin/dhclient -6 " + tail6},
        {true, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, 0, "/sbin/dhclient -6 -S " + tail6},
        {true, KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP, 3, "ip netns exec vpn3 /sbin/dhclient -6 -S " + tail6},
        {true, KQ_IPV6_ADDR_AUTOCONF_SLAAC, 3, ""},
        {true, KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP, 3, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Command.substr(0, 60));
        Host().Commands.clear();
        Host().RulesAdded.clear();
        KQCtrl_DynamicClientSetIpv6AutoConfType(c.Type);
        EXPECT_EQ(c.Ipv6 ? KQCtrl_DynamicClientEnableIpv6("eth1", c.Zone) : KQCtrl_DynamicClientEnableIpv4("eth1", c.Zone), 0);
        EXPECT_EQ(Host().Commands, c.Command.empty() ? Texts{} : Texts{c.Command});
        EXPECT_EQ(Host().RulesAdded.size(), c.Ipv6 ? 1u : 0u);  // in every IPv6 mode, SLAAC included
        // Steps that went well report no failure, not even as a trace.
        for (const char *line : {"dhclient ipv4 disable failed\n", "dhclient ipv6 disable failed\n",
                                 "Add dhcp v6 client policy failed\n"})
            EXPECT_FALSE(HasMessage(line)) << line;
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
    EXPECT_TRUE(fakehost::ReadFile(kLease4 + ".bak") == "old lease" && !Exists(kLease4));
    EXPECT_TRUE(HasMessage("dhclient start failed(5:Input/output error), will remove " + kLease4 + " and retry once.\n"));

    // Both attempts fail; no lease file to move, so the rename reports 1 (kept as it stands).
    fakehost::Reset();
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    Host().Fail["KQ_RTCSystem"] = -EIO;
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv6("eth1", 2), -EIO);
    ASSERT_EQ(Host().Commands.size(), 2u);
    Texts startLines;
    for (const auto &l : fakehost::LogTexts())
        if (l.find("[_KQCtrl_DynamicClientEnableIpv6:") != std::string::npos && l.find("dump") == std::string::npos)
            startLines.push_back(l.substr(l.find("] ") + 2));
    EXPECT_EQ(startLines, (Texts{"dhclient6 start failed(5:Input/output error), will remove " + kLease6 + " and retry once.\n",
                                 "rename " + kLease6 + " to " + kLease6 + ".bak failed(1:Operation not permitted), remove it.\n",
                                 Host().Commands[1] + " exec failed(5:Input/output error)\n"}));
}

TEST_F(ClientConfig, StopReadsAndVerifiesThePidFile)
{
    // Real idle processes that look like dhclient started with both pid files, and with the IPv4 one only.
    fakehost::Lookalike client("/sbin/dhclient", {"-pf", kPid4, "-pf", kPid6, "-nw"}), client4("/sbin/dhclient", {"-4", "eth1", "-pf", kPid4});
    const std::string p = std::to_string(client.Pid()), notCorrect = "Dhcp client service is not correct, pid file error!\n";
    const std::string noPid = "pid 0 is invalid(0:Success)\n";
    pid_t gone = 0;
    {
        fakehost::Lookalike dead("/sbin/dhclient", {"-4", "eth1", "-pf", kPid4});
        gone = dead.Pid();
    }
    const struct { bool Ipv6; std::string PidText; bool Correct; long KillFail, KillResult; KQ_ERR_T Ret; bool Killed, PidFileLeft; Texts Lines; } cases[] = {
        {false, p + "\n", true, 0, 0, 0, true, false, {"Pid is " + p + "\n"}},
        {true, p, true, 0, -3, 0, true, false, {}},  // already gone
        {false, p + "\n", false, 0, 0, -ENOENT, false, false, {notCorrect}},
        {true, p + "\n", true, -EPERM, 0, -EPERM, true, true, {"Kill pid " + p + " failed(1:Operation not permitted)\n"}},
        // Nothing read, or no number: pid 0, result the negated errno of the read (0 here).
        {false, "", true, 0, 0, 0, false, true, {noPid}},
        {true, "dhclient\n", true, 0, 0, 0, false, true, {noPid}},
        {false, std::string(32, ' ') + p, true, 0, 0, 0, false, true, {noPid}},  // only the first 32 bytes are read
        // Stale files: the host's word is not enough, nothing is signalled, the file goes, and
        // the client counts as stopped: its process is gone or was never this one.
        {true, std::to_string(client4.Pid()), true, 0, 0, 0, false, false, {}},
        {false, std::to_string(getpid()), true, 0, 0, 0, false, false, {}},
        {false, "4294967297\n", true, 0, 0, 0, false, false, {}},  // wraps to 1
        {false, p + "abc\n", true, 0, 0, 0, false, false, {}},
        {true, "+" + p + "\n", true, 0, 0, 0, false, false, {}},
        {false, std::to_string(gone) + "\n", true, 0, 0, 0, false, false, {}},  // a dhclient that died
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.PidText);
        fakehost::Reset();
        const std::string &pidFile = c.Ipv6 ? kPid6 : kPid4;
        fakehost::WriteFile(pidFile, c.PidText);
        if (c.Correct)
            Host().CorrectPids = {client.Pid(), client4.Pid(), getpid(), 1};
        if (c.KillFail != 0)
            Host().Fail["KQ_KillPid"] = c.KillFail;
        Host().KillResult = c.KillResult;
        Host().Dhcpv6Count = 1;
        EXPECT_EQ(c.Ipv6 ? KQCtrl_DynamicClientDisableIpv6("eth1", 0) : KQCtrl_DynamicClientDisableIpv4("eth1", 0), c.Ret);
        EXPECT_EQ(Host().Killed, c.Killed ? std::vector<pid_t>{client.Pid()} : std::vector<pid_t>{});
        EXPECT_EQ(Exists(pidFile), c.PidFileLeft);
        for (const auto &line : c.Lines)
            EXPECT_TRUE(HasMessage(line)) << line;
        EXPECT_EQ(HasMessage(std::string("Kill dhclient") + (c.Ipv6 ? "6" : "") + " service failed\n"), c.Ret < 0);
        const bool stale = c.Ret == 0 && !c.Killed && !c.PidFileLeft;
        EXPECT_EQ(HasMessage("Pid file " + pidFile + " is stale: it names no dhclient started with it, nothing is signalled\n"),
                  stale);
        if (stale) {
            EXPECT_EQ(fakehost::ErrorLines(), Texts{});
        }
        std::remove(pidFile.c_str());
    }
    EXPECT_TRUE(client.Alive() && client4.Alive());
}

TEST_F(ClientConfig, Dhclient6PolicyRuleAddedOnEnableRemovedWithTheLastInterface)
{
    ASSERT_EQ(KQCtrl_DynamicClientEnableIpv6("eth1", 0), 0);
    ASSERT_EQ(Host().RulesAdded.size(), 1u);
    const auto &add = Host().RulesAdded[0];
    EXPECT_EQ(std::make_tuple(add.Arg1, add.Arg2, add.Arg3), std::make_tuple(uint16_t(0), BOOL(FALSE), BOOL(TRUE)));
    // Zone 2, rule 7: UDP to ports 546 and 547, in on a WAN interface (type 2), out to the host (type 6).
    // Field by field: the record has padding, which no copy has to keep.
    const KQ_CONF_RULE &r = add.Rule;
    const auto &m = r.Match;
    EXPECT_EQ((std::vector<uint64_t>{r.OpType, r.Table, r.Zone, r.VpnId, r.Id, r.TimeStamp, m.DstPortNum,
                                     m.DstPort[0].LowerPort, m.DstPort[0].UpperPort, m.DstPort[1].LowerPort,
                                     m.DstPort[1].UpperPort, m.ProtoNum, m.Proto[0], m.InPortNum, m.InPort[0].Type,
                                     m.InPort[0].Id, m.OutPortNum, m.OutPort[0].Type, m.OutPort[0].Id,
                                     r.Actions.OutputNum, r.Actions.OutputArray[0].Id, r.Actions.OutputArray[0].Type}),
              (std::vector<uint64_t>{KQ_CONF_RULE_OP_TYPE_INSERT, KQ_CONF_RULE_TBL_TYPE_POLICY, 2, 0xFFFFFFFFu, 7, 0, 2,
                                     546, 546, 547, 547, 1, 17, 1, 2, 0, 1, 6, 0, 1, 0, 6}));

    // The host's count of DHCPv6 interfaces, read before the client stops, decides the delete.
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("eth1", 0), 0);
    ASSERT_EQ(Host().RulesDeleted.size(), 1u);
    const auto &d = Host().RulesDeleted[0];
    EXPECT_EQ(std::make_tuple(d.Zone, d.Id, d.Arg3, d.Arg4, d.Arg5), std::make_tuple(uint8_t(2), 7u, 0u, uint16_t(2), BOOL(TRUE)));
    EXPECT_TRUE(Before("KQCtrl_IfmInterfaceGetDhcpv6Count", "KQ_RtcNetNsSwitchToDefault"));
    EXPECT_FALSE(HasMessage("Del dhcp v6 client policy failed\n"));
    fakehost::Reset();
    Host().Dhcpv6Count = 1;
    EXPECT_EQ(KQCtrl_DynamicClientDisableIpv6("eth1", 0), 0);
    EXPECT_TRUE(Host().RulesDeleted.empty() && HasMessage("Dhcp v6 proto interface count:1\n"));
}

TEST_F(ClientConfig, EnableStopsTheRunningClientFirst)
{
    fakehost::Lookalike client("/sbin/dhclient", {"-4", "eth1", "-pf", kPid4, "-nw"});
    fakehost::WriteFile(kPid4, client.PidText());
    Host().CorrectPids = {client.Pid()};
    EXPECT_EQ(KQCtrl_DynamicClientEnableIpv4("eth1", 4), 0);
    EXPECT_EQ(Host().Killed, (std::vector<pid_t>{client.Pid()}));
    EXPECT_TRUE(!Exists(kPid4) && Before("KQ_KillPid", "KQ_RTCSystem"));
    EXPECT_EQ(Host().NsSwitches, (Texts{"switch 4", "back 40"}));
}

TEST_F(ClientConfig, UnusableInterfaceNamesAreRefusedBeforeAnythingRuns)
{
    const struct { const char *Name; KQ_ERR_T Ret; std::string Message; } names[] = {
        {nullptr, -EINVAL, "Interface name (null) is invalid\n"},
        {"", -EINVAL, "Interface name  is invalid\n"},
        {"eth1 -sf", -EINVAL, "Interface name eth1 -sf is invalid\n"},
        {"abcdefghijklmnop", -EOVERFLOW, "Interface name abcdefghijklmnop is overflow\n"},
        {"abcdefghijklmno/q", -EOVERFLOW, "Interface name abcdefghijklmno/q is overflow\n"},  // the length comes first
    };
    KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_DHCP);
    const std::set<std::string> logging = {"KQ_LogTest", "KQ_Log", "KQ_ThreadGetName", "KQ_FlexLogDataReset", "KQ_FlexLogSetFormatData"};
    for (const auto &[opName, op] : kOps) {
        for (const auto &n : names) {
            SCOPED_TRACE(opName + " " + (n.Name ? n.Name : "(null)"));
            if (opName == kOps[Rs].first && n.Name != nullptr)
                continue;  // the solicitation alone refuses only a missing name
            fakehost::Reset();
            EXPECT_EQ(op(n.Name, 1), n.Ret);
            EXPECT_EQ(fakehost::Messages().at(0), n.Message);
            EXPECT_NE(fakehost::LogTexts().at(0).find("[" + opName + ":"), std::string::npos);
            for (const auto &call : Host().Calls)
                EXPECT_TRUE(logging.count(call)) << call;  // nothing but the log line
        }
    }
}

}  // namespace
