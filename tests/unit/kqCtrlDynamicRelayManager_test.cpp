#include <gtest/gtest.h>

#include <cstring>

#include <unistd.h>

#include "fakehost.h"

using namespace kqtest;

namespace {

using fakehost::ErrorLines;
using fakehost::Lines;

class RelayManager : public fakehost::ModuleTest {
protected:
    static KQ_CTRL_DYNAMIC_RELAY_CONF Relay(const char *LanIp, std::vector<const char *> Servers)
    {
        KQ_CTRL_DYNAMIC_RELAY_CONF conf;
        memset(&conf, 0, sizeof(conf));
        strcpy(conf.IfName, "eth1");
        conf.NetAddrType = KQ_NET_ADDR_IPV4;
        conf.RelayConf.LanIp = fakehost::Ip4(LanIp);
        for (const char *s : Servers)
            conf.RelayConf.RelayServer[conf.RelayConf.RelayServerNum++] = fakehost::Ip4(s);
        return conf;
    }

    static std::string Append(KQ_CTRL_DYNAMIC_RELAY_CONF Conf, KQ_ERR_T *Result)
    {
        KQ_FLEXIBLE_MSG *msg = KQ_FlexMsgAlloc();
        *Result = KQCtrl_DynamicRelayConfAppend(msg, &Conf);
        std::string text = msg->FlexBuf;
        KQ_FlexMsgFree(msg);
        return text;
    }
};

TEST_F(RelayManager, AppendWritesOneLinePerServerAndOnlyTheLastAppendDecides)
{
    KQ_ERR_T ret = 1;
    EXPECT_EQ(Append(Relay("192.0.2.1", {"198.51.100.10", "198.51.100.11"}), &ret),
              "dhcp-relay=192.0.2.1,198.51.100.10\ndhcp-relay=192.0.2.1,198.51.100.11\n");
    EXPECT_EQ(ret, 0);

    EXPECT_EQ(Append(Relay("192.0.2.1", {}), &ret), "");
    EXPECT_EQ(ret, 0);

    // A failed first append is overwritten by the successful second one.
    fakehost::Reset();
    fakehost::Host().FailOnCall["KQ_FlexMsgSetFormatData"] = 1;
    EXPECT_EQ(Append(Relay("192.0.2.1", {"198.51.100.10", "198.51.100.11"}), &ret),
              "dhcp-relay=192.0.2.1,198.51.100.11\n");
    EXPECT_EQ(ret, 0);
    EXPECT_TRUE(Lines().empty());

    fakehost::Reset();
    fakehost::Host().FailOnCall["KQ_FlexMsgSetFormatData"] = 2;
    Append(Relay("192.0.2.1", {"198.51.100.10", "198.51.100.11"}), &ret);
    EXPECT_EQ(ret, -EIO);
    EXPECT_EQ(Lines(), std::vector<std::string>{"Append dhcp relay conf failed(5:Input/output error)\n"});

    // A record claiming more servers than it holds gives what fits, never a read past its end.
    fakehost::Reset();
    auto bad = Relay("192.0.2.1", {"198.51.100.10", "198.51.100.11", "198.51.100.12", "198.51.100.13"});
    bad.RelayConf.RelayServerNum = 5;
    EXPECT_EQ(Append(bad, &ret), "dhcp-relay=192.0.2.1,198.51.100.10\ndhcp-relay=192.0.2.1,198.51.100.11\n"
                                 "dhcp-relay=192.0.2.1,198.51.100.12\ndhcp-relay=192.0.2.1,198.51.100.13\n");
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(Lines(), std::vector<std::string>{"Relay servers of eth1: 5 entries, only the first 4 written, 1 dropped\n"});
}

TEST_F(RelayManager, StopWithoutUsablePidFileKillsNothingAndKeepsConf)
{
    struct Case {
        const char *Name;
        std::optional<std::string> PidText;
    };
    // 0 or a negative pid would signal the agent's own process group.
    const Case cases[] = {{"no pid file", std::nullopt}, {"empty", ""}, {"zero", "0\n"},
                          {"negative", "-1\n"}, {"not a number", "dnsmasq\n"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Name);
        fakehost::Reset();
        fakehost::RemoveModuleFiles();
        fakehost::WriteFile(kRelayConfPath, "dhcp-relay=192.0.2.1,198.51.100.10\n");
        if (c.PidText)
            fakehost::WriteFile(kRelayPidPath, *c.PidText);
        EXPECT_EQ(KQCtrl_DynamicRelayStop(), 0);
        EXPECT_TRUE(fakehost::Host().Killed.empty());
        EXPECT_EQ(fakehost::ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.10\n");
        ASSERT_FALSE(Lines().empty());
        EXPECT_EQ(Lines().back(), "Dynamic Relay is not exist\n");
        EXPECT_EQ(fakehost::Host().Logs.back().Level, 1u);
    }
}

TEST_F(RelayManager, StopKillsRecordedPidAndRemovesBothFiles)
{
    // "P" stands for the pid of a process that looks like the relay dnsmasq.
    fakehost::Lookalike relay("/usr/sbin/dnsmasq", {"-K", "--conf-file=/etc/vyr_dhcpd_relay.conf", "--port=0",
                                                    "--pid-file=/var/run/vyr_dhcpd_relay.pid", "-z"});
    fakehost::Lookalike otherRelay("/usr/sbin/dnsmasq", {"--pid-file=/var/run/vyr_dhcpd_eth1.pid"});
    const std::string p = std::to_string(relay.Pid());
    const std::string stale =
        "Pid file /var/run/vyr_dhcpd_relay.pid is stale: it names no dnsmasq started with it, nothing is signalled\n";
    struct Case {
        std::string PidText;
        long KillResult;
        KQ_ERR_T Result;
        bool Signalled, FilesRemoved;
        std::vector<std::string> Lines;
    };
    const Case cases[] = {
        {p + "\n", 0, 0, true, true, {"Pid is " + p + "\n"}},
        {p, -3, 0, true, true, {"Pid is " + p + "\n"}},  // already gone
        {p + "\n", -1, -1, true, false, {"Pid is " + p + "\n", "Kill pid " + p + " failed(1:Operation not permitted)\n"}},
        // Stale: the path of a process that is gone, without any signal.
        {"1\n", 0, 0, false, true, {stale}},
        {"4294967297\n", 0, 0, false, true, {stale}},  // would wrap to 1
        {std::to_string(getpid()) + "\n", 0, 0, false, true, {stale}},
        {std::to_string(otherRelay.Pid()), 0, 0, false, true, {stale}},
        {p + "x\n", 0, 0, false, true, {stale}},
        {p + "\n\n", 0, 0, false, true, {stale}},
        {"0" + p, 0, 0, false, true, {stale}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.PidText);
        fakehost::Reset();
        fakehost::WriteFile(kRelayConfPath, "dhcp-relay=192.0.2.1,198.51.100.10\n");
        fakehost::WriteFile(kRelayPidPath, c.PidText);
        fakehost::Host().KillResult = c.KillResult;
        EXPECT_EQ(KQCtrl_DynamicRelayStop(), c.Result);
        EXPECT_EQ(fakehost::Host().Killed, c.Signalled ? std::vector<pid_t>{relay.Pid()} : std::vector<pid_t>{});
        EXPECT_EQ(fakehost::ReadFile(kRelayPidPath).has_value(), !c.FilesRemoved);
        EXPECT_EQ(fakehost::ReadFile(kRelayConfPath).has_value(), !c.FilesRemoved);
        EXPECT_EQ(Lines(), c.Lines);
        EXPECT_TRUE(c.Signalled || fakehost::Host().Logs.back().Level == 3u);
    }
}

}  // namespace
