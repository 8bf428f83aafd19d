// The shared relay: its file in registry order, when it restarts and stops, its pid file.
#include <gtest/gtest.h>

#include "fakehost.h"

using namespace kqtest;
using namespace fakehost;

namespace {

using Texts = std::vector<std::string>;
const std::string kEth1Lines = "dhcp-relay=192.0.2.1,198.51.100.10\ndhcp-relay=192.0.2.1,198.51.100.11\n";
const std::string kEth2Lines = "dhcp-relay=203.0.113.1,198.51.100.20\ndhcp-relay=203.0.113.1,198.51.100.22\ndhcp-relay=203.0.113.1,198.51.100.21\n";

class RelayConfig : public ModuleTest {
protected:
    // What the relay dnsmasq leaves behind once it runs: a process that looks like it, and its pid file.
    void RelayRunning() { WriteFile(kRelayPidPath, Relay.PidText()); }
    std::string KillFailed(const char *Error) const { return "Kill pid " + std::to_string(Relay.Pid()) + " failed(" + Error + ")\n"; }
    Lookalike Relay{"/usr/sbin/dnsmasq", {"-K", "--conf-file=/etc/vyr_dhcpd_relay.conf", "--port=0", "--pid-file=/var/run/vyr_dhcpd_relay.pid", "-z"}};
    RelayMsg Eth1 = RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"});
};

TEST_F(RelayConfig, OneFileForAllRelayInterfacesInRegistryOrder)
{
    // eth2 was registered first (by its server side), so its lines come first.
    KQ_CTRL_DYNAMIC_SERVICE_CONF server{};
    strcpy(server.IfName, "eth2");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&server), 0);
    auto eth2 = RelayItem("eth2", "203.0.113.1", {"198.51.100.20", "198.51.100.22", "198.51.100.21"});
    auto toServer = ModeItem("eth1", KQ_DHCP_SERVER), unknown = RelayItem("eth9", "192.0.2.1", {"198.51.100.10"});
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(Eth1.get()), 0);
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth2.get()), 0);
    EXPECT_EQ(Host().Writes, (std::vector<std::pair<std::string, std::string>>{{kRelayConfPath, kEth1Lines}, {kRelayConfPath, kEth2Lines + kEth1Lines}}));
    EXPECT_EQ(Host().Commands, (Texts{kRelayStartCmd, kRelayStartCmd}));
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});  // the second add restarted it
    EXPECT_EQ(RegistryNames(), (Texts{"eth2", "eth1"}));        // the relay half went into eth2's node

    // eth1 becomes a server: its relay half keeps only the name, the relay goes on for eth2.
    Reset();
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(toServer.get()), 0);
    KQ_CTRL_DYNAMIC_RELAY_CONF cleared{};
    strcpy(cleared.IfName, "eth1");
    EXPECT_EQ(memcmp(_KQCtrl_GetDynamicRelayConfByName("eth1"), &cleared, sizeof(cleared)), 0);
    EXPECT_EQ(ReadFile(kRelayConfPath), kEth2Lines);
    EXPECT_EQ(Host().Commands, Texts{kRelayStartCmd});

    // eth2 deleted: no relay interface is left, so the process and both files go; so does the
    // node's relay half (the node itself goes with the whole interface).
    Reset();
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayDel(eth2.get()), 0);
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_TRUE(Host().Commands.empty() && ErrorLines().empty() && !ReadFile(kRelayPidPath) && !ReadFile(kRelayConfPath));
    EXPECT_EQ(_KQCtrl_GetDynamicRelayConfByName("eth2")->IfName[0], '\0');
    // Deleting an interface the registry does not know still reloads.
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(unknown.get()), 0);
    EXPECT_TRUE(HasMessage("Dynamic Relay is not exist\n"));
}

TEST_F(RelayConfig, RestartsOnlyWhenTheRelayChanged)
{
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(Eth1.get()), 0);
    // The comparison runs one way: every current server among the new ones, so current
    // {A, A} and new {A, B} compare as the same, deliberately. Empty trace: a restart.
    const std::string same = "Dynamic ipv4service for eth1 is same to current configuration\n";
    struct { RelayMsg Msg; std::string Trace; } cases[] = {
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.11", "198.51.100.10"}), same},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.10"}), ""},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"}), same},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10", "198.51.100.10"}), "Dynamic relay lan ip is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10"}), "Dynamic Relay Server Num is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.12"}), ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.Trace);
        Reset();
        RelayRunning();
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(c.Msg.get()), 0);
        EXPECT_EQ(Host().Commands, c.Trace == same ? Texts{} : Texts{kRelayStartCmd});
        EXPECT_EQ(Host().Writes.empty(), c.Trace == same);
        EXPECT_TRUE(c.Trace.empty() || (c.Trace == same ? Lines() == Texts{same} : HasMessage(c.Trace))) << testing::PrintToString(Lines());
    }
    EXPECT_EQ(ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.2,198.51.100.12\n");
}

TEST_F(RelayConfig, FailuresLeaveTheRightThingsBehind)
{
    auto bad = RelayItem("eth1", "192.0.2.1", {});
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(bad.get()), -EINVAL);
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(bad.get()), -EINVAL);
    const std::string num0 = "Dynamic relay num 0 is invalid\n", pb = "Protobuf to dhcp server failed\n", conf = "Protobuf to conf for dynamic failed(22:Invalid argument)\n";
    EXPECT_EQ(ErrorLines(), (Texts{num0, pb, conf, num0, pb, conf}));
    EXPECT_TRUE(RegistryNames().empty());

    const std::string reload = "Relaod dynamic relay failed", restart = "Restart dynamic relay failed", start = "Start dynamic relay failed";
    const struct { const char *Op; long Fail; KQ_ERR_T Result; bool Stored, Killed; Texts Lines; } cases[] = {
        // A node that cannot be allocated skips the reload.
        {"KQ_AgentMemZeroAlloc", 0, -ENOMEM, false, false, {"Apply memory for dynamic conf node failed\n",
         "Insert Dynamic conf node failed(12:Cannot allocate memory)\n", "Insert dynamic conf node failed(12:Cannot allocate memory)\n"}},
        // A failed reload keeps the stored configuration; a text that cannot be built leaves the running relay alone.
        {"KQ_FlexMsgAlloc", -5, -ENOMEM, true, false, {"Apply memory for dhcp relay conf content failed\n", reload + "(12:Cannot allocate memory)\n"}},
        {"KQ_FlexMsgSetFormatData", -5, -EIO, true, false, {"Append dhcp relay conf failed(5:Input/output error)\n",
         "Append dynamic relay conf failed(5:Input/output error)\n", reload + "(5:Input/output error)\n"}},
        // Any executor failure is reported as -EINVAL.
        {"KQ_CmdExec", -5, -EINVAL, true, true, {std::string("cmd:") + kRelayStartCmd + " exec failed\n", start + "(22:Invalid argument)\n",
         restart + "(22:Invalid argument)\n", reload + "(22:Invalid argument)\n"}},
        {"KQ_WriteSyncWithFilePath", -5, -EIO, true, true, {"Write conf file /etc/vyr_dhcpd_relay.conf failed(5:Input/output error)\n",
         start + "(5:Input/output error)\n", restart + "(5:Input/output error)\n", reload + "(5:Input/output error)\n"}},
        // A relay that cannot be stopped is not started a second time.
        {"KQ_KillPid", -5, -EIO, true, true, {KillFailed("5:Input/output error"), "Stop dynamic relay failed\n", restart + "(5:Input/output error)\n",
         reload + "(5:Input/output error)\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Op);
        Reset();
        ClearRegistry();
        RelayRunning();
        Host().Fail[c.Op] = c.Fail;
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(Eth1.get()), c.Result);
        EXPECT_EQ(ErrorLines(), c.Lines);
        EXPECT_EQ(Host().Commands.size(), c.Op == std::string("KQ_CmdExec") ? 1u : 0u);
        EXPECT_EQ(Host().Killed.empty(), !c.Killed);
        const auto *half = _KQCtrl_GetDynamicRelayConfByName("eth1");
        EXPECT_EQ(half ? half->RelayConf.RelayServerNum : 0u, c.Stored ? 2u : 0u);
    }
    // The last relay cannot be stopped: the delete reports it.
    Reset();
    RelayRunning();
    Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(Eth1.get()), -EPERM);
    EXPECT_EQ(ErrorLines(), (Texts{KillFailed("1:Operation not permitted"), "Stop dynamic relay failed(1:Operation not permitted)\n",
                                   reload + "(1:Operation not permitted)\n"}));
}

TEST_F(RelayConfig, LoadStartsTheStoredRelayOrStopsALeftoverOne)
{
    const std::string path = Host().DhcpConfPath;
    WriteFile(path, R"({"dhcps": [null, {"ifname":"eth1","mode":2,"dhcpRelay":{"lanIp":"192.0.2.1","relayServer":["198.51.100.10"]}}]})");
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.10\n");
    EXPECT_EQ(Host().Commands, Texts{kRelayStartCmd});

    Reset();
    WriteFile(path, "{\"dhcps\": [null, null]}");
    RelayRunning();
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(ErrorLines(), (Texts{"dhcp 0 is null\n", "dhcp 1 is null\n"}));
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_TRUE(Host().Commands.empty() && !ReadFile(kRelayPidPath) && !ReadFile(kRelayConfPath));

    // A stop that fails is a warning: the agent's start goes on.
    Reset();
    RelayRunning();
    Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(Host().Logs.back().Level, 3u);
    EXPECT_EQ(Lines().back(), "Stop dynamic relay failed\n");
}

TEST_F(RelayConfig, AppendWritesWhatFitsAndOnlyTheLastAppendDecides)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF conf{};
    strcpy(conf.IfName, "eth1");
    // A record claiming more servers than it holds gives what fits, never a read past its end.
    conf.RelayConf = {5, {Ip4("198.51.100.10"), Ip4("198.51.100.11"), Ip4("198.51.100.12"), Ip4("198.51.100.13")}, Ip4("192.0.2.1")};
    const std::string l11 = "dhcp-relay=192.0.2.1,198.51.100.11\n", l12 = "dhcp-relay=192.0.2.1,198.51.100.12\n";
    const std::string l13 = "dhcp-relay=192.0.2.1,198.51.100.13\n";
    const std::string dropped = "Relay servers of eth1: 5 entries, only the first 4 written, 1 dropped\n";
    const struct { int FailOnCall; KQ_ERR_T Result; std::string Text; Texts Lines; } cases[] = {
        {0, 0, kEth1Lines + l12 + l13, {dropped}},
        {1, 0, l11 + l12 + l13, {dropped}},  // a failed append is overwritten by a later one
        {4, -EIO, kEth1Lines + l12, {dropped, "Append dhcp relay conf failed(5:Input/output error)\n"}},
    };
    for (const auto &c : cases) {
        Reset();
        Host().FailOnCall["KQ_FlexMsgSetFormatData"] = c.FailOnCall;
        KQ_FLEXIBLE_MSG *msg = KQ_FlexMsgAlloc();
        EXPECT_EQ(KQCtrl_DynamicRelayConfAppend(msg, &conf), c.Result);
        EXPECT_EQ(std::string(msg->FlexBuf), c.Text);
        KQ_FlexMsgFree(msg);
        EXPECT_EQ(Lines(), c.Lines);
    }
}

TEST_F(RelayConfig, StopSignalsOnlyTheRelayItsPidFileNames)
{
    Lookalike otherRelay("/usr/sbin/dnsmasq", {"--pid-file=/var/run/vyr_dhcpd_eth1.pid"});
    const std::string p = std::to_string(Relay.Pid()), absent = "Dynamic Relay is not exist\n";
    const std::string stale = "Pid file /var/run/vyr_dhcpd_relay.pid is stale: it names no dnsmasq started with it, nothing is signalled\n";
    const struct { std::optional<std::string> PidText; long KillResult; KQ_ERR_T Result; bool Signalled, FilesRemoved; Texts Lines; } cases[] = {
        // No usable pid (0 or a negative one would signal the agent's own process group): nothing is touched.
        {std::nullopt, 0, 0, false, false, {"Open pid file /var/run/vyr_dhcpd_relay.pid failed(2:No such file or directory)\n", absent}},
        {"", 0, 0, false, false, {absent}},
        {"0\n", 0, 0, false, false, {absent}},
        {"-1\n", 0, 0, false, false, {absent}},
        {"dnsmasq\n", 0, 0, false, false, {absent}},
        {p + "\n", 0, 0, true, true, {"Pid is " + p + "\n"}},
        {p, -3, 0, true, true, {"Pid is " + p + "\n"}},  // already gone
        {p + "\n", -1, -1, true, false, {"Pid is " + p + "\n", "Kill pid " + p + " failed(1:Operation not permitted)\n"}},
        // Stale: the path of a process that is gone, without any signal.
        {"4294967297\n", 0, 0, false, true, {stale}},  // would wrap to 1
        {std::to_string(otherRelay.Pid()), 0, 0, false, true, {stale}},
        {p + "x", 0, 0, false, true, {stale}},
        {"0" + p, 0, 0, false, true, {stale}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.PidText.value_or("(none)"));
        Reset();
        RemoveModuleFiles();
        WriteFile(kRelayConfPath, "conf\n");
        if (c.PidText)
            WriteFile(kRelayPidPath, *c.PidText);
        Host().KillResult = c.KillResult;
        EXPECT_EQ(KQCtrl_DynamicRelayStop(), c.Result);
        EXPECT_EQ(Host().Killed, c.Signalled ? std::vector<pid_t>{Relay.Pid()} : std::vector<pid_t>{});
        EXPECT_EQ(ReadFile(kRelayPidPath).has_value(), c.PidText && !c.FilesRemoved);
        EXPECT_EQ(ReadFile(kRelayConfPath).has_value(), !c.FilesRemoved);
        EXPECT_EQ(Lines(), c.Lines);
        EXPECT_TRUE(c.Signalled || Host().Logs.back().Level == (c.FilesRemoved ? 3u : 1u));  // stale: a warning
    }
}

}  // namespace
