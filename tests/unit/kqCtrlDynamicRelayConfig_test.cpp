// The shared relay: its file in registry order, when it restarts and stops, its pid file.
#include <gtest/gtest.h>

#include <unistd.h>

#include "fakehost.h"

using namespace kqtest;
using fakehost::ErrorLines;
using fakehost::Host;
using fakehost::Lines;
using fakehost::ReadFile;

namespace {

using Texts = std::vector<std::string>;

const char kEth1Lines[] = "dhcp-relay=192.0.2.1,198.51.100.10\ndhcp-relay=192.0.2.1,198.51.100.11\n";
const std::string kEth2Lines = "dhcp-relay=203.0.113.1,198.51.100.20\ndhcp-relay=203.0.113.1,198.51.100.22\n"
                               "dhcp-relay=203.0.113.1,198.51.100.21\n";

class RelayConfig : public fakehost::ModuleTest {
protected:
    static RelayMsg Eth1() { return RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"}); }
    static RelayMsg Eth2() { return RelayItem("eth2", "203.0.113.1", {"198.51.100.20", "198.51.100.22", "198.51.100.21"}); }
    // What the relay dnsmasq leaves behind once it runs: a process that looks like it, and its pid file.
    void RelayRunning() { fakehost::WriteFile(kRelayPidPath, Relay.PidText()); }
    std::string KillFailed(const char *Error) const { return "Kill pid " + std::to_string(Relay.Pid()) + " failed(" + Error + ")\n"; }

    fakehost::Lookalike Relay{"/usr/sbin/dnsmasq", {"-K", "--conf-file=/etc/vyr_dhcpd_relay.conf", "--port=0",
                                                     "--pid-file=/var/run/vyr_dhcpd_relay.pid", "-z"}};
};

TEST_F(RelayConfig, OneFileInRegistryOrderRewrittenOnlyOnChange)
{
    // eth2 was registered first (by its server side), so its lines come first.
    KQ_CTRL_DYNAMIC_SERVICE_CONF eth2{};
    strcpy(eth2.IfName, "eth2");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&eth2), 0);
    auto eth1 = Eth1(), second = Eth2();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), 0);
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(second.get()), 0);
    EXPECT_EQ(Host().Writes, (std::vector<std::pair<std::string, std::string>>{{kRelayConfPath, kEth1Lines}, {kRelayConfPath, kEth2Lines + kEth1Lines}}));
    EXPECT_EQ(Host().Commands, (Texts{kRelayStartCmd, kRelayStartCmd}));
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});  // the second add restarted it
    EXPECT_EQ(RegistryNames(), (Texts{"eth2", "eth1"}));        // the relay half went into eth2's node

    // The comparison runs one way: every current server among the new ones, so current
    // {A, A} and new {A, B} compare as the same, deliberately. Empty trace: a restart.
    struct {
        RelayMsg Msg;
        std::string Trace;
    } cases[] = {
        {Eth1(), "Dynamic ipv4service for eth1 is same to current configuration\n"},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.11", "198.51.100.10"}), "Dynamic ipv4service for eth1 is same to current configuration\n"},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.10"}), ""},
        {RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"}), "Dynamic ipv4service for eth1 is same to current configuration\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10", "198.51.100.10"}), "Dynamic relay lan ip is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10"}), "Dynamic Relay Server Num is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.12"}), ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.Trace);
        fakehost::Reset();
        RelayRunning();
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(c.Msg.get()), 0);
        const bool same = c.Trace.find("same to") != std::string::npos;
        EXPECT_EQ(Host().Commands, same ? Texts{} : Texts{kRelayStartCmd});
        EXPECT_EQ(Host().Writes.empty(), same);
        EXPECT_TRUE(c.Trace.empty() || (same ? Lines() == Texts{c.Trace} : fakehost::HasMessage(c.Trace))) << testing::PrintToString(Lines());
    }
    EXPECT_EQ(ReadFile(kRelayConfPath), kEth2Lines + "dhcp-relay=192.0.2.2,198.51.100.12\n");
}

TEST_F(RelayConfig, LeavingRelayModeClearsTheHalfAndTheLastStopsTheRelay)
{
    auto eth1 = Eth1(), eth2 = Eth2(), server = ModeItem("eth1", KQ_DHCP_SERVER);
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), 0);
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth2.get()), 0);
    // eth1 becomes a server: its relay half keeps only the name, the relay goes on for eth2.
    fakehost::Reset();
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(server.get()), 0);
    KQ_CTRL_DYNAMIC_RELAY_CONF expected{};
    strcpy(expected.IfName, "eth1");
    EXPECT_EQ(memcmp(_KQCtrl_GetDynamicRelayConfByName("eth1"), &expected, sizeof(expected)), 0);
    EXPECT_EQ(ReadFile(kRelayConfPath), kEth2Lines);
    EXPECT_EQ(Host().Commands, Texts{kRelayStartCmd});

    // eth2 deleted: no relay interface is left, so the process and both files go.
    fakehost::Reset();
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayDel(eth2.get()), 0);
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_TRUE(Host().Commands.empty() && ErrorLines().empty());
    EXPECT_FALSE(ReadFile(kRelayPidPath) || ReadFile(kRelayConfPath));
    EXPECT_EQ(_KQCtrl_GetDynamicRelayConfByName("eth2")->IfName[0], '\0');  // the node goes with the whole interface

    // Deleting an interface the registry does not know still reloads.
    fakehost::Reset();
    auto unknown = RelayItem("eth9", "192.0.2.1", {"198.51.100.10"});
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(unknown.get()), 0);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic Relay is not exist\n"));
}

TEST_F(RelayConfig, FailuresLeaveTheRightThingsBehind)
{
    auto bad = RelayItem("eth1", "192.0.2.1", {}), eth1 = Eth1();
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(bad.get()), -EINVAL);
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(bad.get()), -EINVAL);
    const Texts refused = {"Dynamic relay num 0 is invalid\n", "Protobuf to dhcp server failed\n",
                           "Protobuf to conf for dynamic failed(22:Invalid argument)\n"};
    Texts twice = refused;
    twice.insert(twice.end(), refused.begin(), refused.end());
    EXPECT_EQ(ErrorLines(), twice);
    EXPECT_TRUE(RegistryNames().empty());

    const std::string reload = "Relaod dynamic relay failed", restart = "Restart dynamic relay failed";
    const struct {
        const char *Op;
        long Fail;
        KQ_ERR_T Result;
        bool Stored, Killed;
        Texts Lines;
    } cases[] = {
        // A node that cannot be allocated skips the reload.
        {"KQ_AgentMemZeroAlloc", 0, -ENOMEM, false, false, {"Apply memory for dynamic conf node failed\n", "Insert Dynamic conf node failed(12:Cannot allocate memory)\n",
                                           "Insert dynamic conf node failed(12:Cannot allocate memory)\n"}},
        // A failed reload keeps the stored configuration; a text that cannot be built leaves the running relay alone.
        {"KQ_FlexMsgAlloc", -5, -ENOMEM, true, false, {"Apply memory for dhcp relay conf content failed\n", reload + "(12:Cannot allocate memory)\n"}},
        {"KQ_FlexMsgSetFormatData", -5, -EIO, true, false, {"Append dhcp relay conf failed(5:Input/output error)\n", "Append dynamic relay conf failed(5:Input/output error)\n",
                                           reload + "(5:Input/output error)\n"}},
        // Any executor failure is reported as -EINVAL.
        {"KQ_CmdExec", -5, -EINVAL, true, true, {std::string("cmd:") + kRelayStartCmd + " exec failed\n", "Start dynamic relay failed(22:Invalid argument)\n",
                                 restart + "(22:Invalid argument)\n", reload + "(22:Invalid argument)\n"}},
        {"KQ_WriteSyncWithFilePath", -5, -EIO, true, true, {"Write conf file /etc/vyr_dhcpd_relay.conf failed(5:Input/output error)\n",
                                            "Start dynamic relay failed(5:Input/output error)\n", restart + "(5:Input/output error)\n", reload + "(5:Input/output error)\n"}},
        // A relay that cannot be stopped is not started a second time.
        {"KQ_KillPid", -5, -EIO, true, true, {KillFailed("5:Input/output error"), "Stop dynamic relay failed\n", restart + "(5:Input/output error)\n", reload + "(5:Input/output error)\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Op);
        fakehost::Reset();
        fakehost::ClearRegistry();
        fakehost::RemoveModuleFiles();
        RelayRunning();
        Host().Fail[c.Op] = c.Fail;
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), c.Result);
        EXPECT_EQ(ErrorLines(), c.Lines);
        EXPECT_EQ(Host().Commands.size(), c.Op == std::string("KQ_CmdExec") ? 1u : 0u);
        EXPECT_EQ(Host().Killed.empty(), !c.Killed);
        const auto *half = _KQCtrl_GetDynamicRelayConfByName("eth1");
        EXPECT_EQ(half ? half->RelayConf.RelayServerNum : 0u, c.Stored ? 2u : 0u);
    }

    // The last relay cannot be stopped: the delete reports it.
    fakehost::Reset();
    RelayRunning();
    Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(eth1.get()), -EPERM);
    EXPECT_EQ(ErrorLines(), (Texts{KillFailed("1:Operation not permitted"), "Stop dynamic relay failed(1:Operation not permitted)\n",
                                   reload + "(1:Operation not permitted)\n"}));
}

TEST_F(RelayConfig, LoadStartsTheStoredRelayOrStopsALeftoverOne)
{
    const std::string path = Host().DhcpConfPath;
    fakehost::WriteFile(path, R"({"dhcps": [null, {"ifname":"eth1","mode":2,"dhcpRelay":{"lanIp":"192.0.2.1","relayServer":["198.51.100.10"]}}]})");
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.1,198.51.100.10\n");
    EXPECT_EQ(Host().Commands, Texts{kRelayStartCmd});

    fakehost::Reset();
    fakehost::WriteFile(path, "{\"dhcps\": [null, null]}");
    RelayRunning();
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(ErrorLines(), (Texts{"dhcp 0 is null\n", "dhcp 1 is null\n"}));
    EXPECT_EQ(Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_FALSE(ReadFile(kRelayPidPath) || ReadFile(kRelayConfPath));
    EXPECT_TRUE(Host().Commands.empty());

    // A stop that fails is a warning: the agent's start goes on.
    fakehost::Reset();
    RelayRunning();
    Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(Host().Logs.back().Level, 3u);
    EXPECT_EQ(Lines().back(), "Stop dynamic relay failed\n");
}

TEST_F(RelayConfig, AppendWritesOneLinePerServerAndOnlyTheLastAppendDecides)
{
    const std::string l10 = "dhcp-relay=192.0.2.1,198.51.100.10\n", l11 = "dhcp-relay=192.0.2.1,198.51.100.11\n";
    const struct {
        uint32_t Servers;
        int FailOnCall;
        std::string Text;
        KQ_ERR_T Result;
        Texts Lines;
    } cases[] = {
        {2, 0, l10 + l11, 0, {}},
        {0, 0, "", 0, {}},
        {2, 1, l11, 0, {}},  // a failed first append is overwritten by the successful second one
        {2, 2, l10, -EIO, {"Append dhcp relay conf failed(5:Input/output error)\n"}},
        // A record claiming more servers than it holds gives what fits, never a read past its end.
        {5, 0, l10 + l11 + "dhcp-relay=192.0.2.1,198.51.100.12\ndhcp-relay=192.0.2.1,198.51.100.13\n", 0,
         {"Relay servers of eth1: 5 entries, only the first 4 written, 1 dropped\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Text);
        fakehost::Reset();
        if (c.FailOnCall)
            Host().FailOnCall["KQ_FlexMsgSetFormatData"] = c.FailOnCall;
        KQ_CTRL_DYNAMIC_RELAY_CONF conf{};
        strcpy(conf.IfName, "eth1");
        conf.NetAddrType = KQ_NET_ADDR_IPV4;
        conf.RelayConf = {c.Servers, {Ip4("198.51.100.10"), Ip4("198.51.100.11"), Ip4("198.51.100.12"), Ip4("198.51.100.13")}, Ip4("192.0.2.1")};
        KQ_FLEXIBLE_MSG *msg = KQ_FlexMsgAlloc();
        EXPECT_EQ(KQCtrl_DynamicRelayConfAppend(msg, &conf), c.Result);
        EXPECT_EQ(std::string(msg->FlexBuf), c.Text);
        KQ_FlexMsgFree(msg);
        EXPECT_EQ(Lines(), c.Lines);
    }
}

TEST_F(RelayConfig, StopSignalsOnlyTheRelayItsPidFileNames)
{
    fakehost::Lookalike otherRelay("/usr/sbin/dnsmasq", {"--pid-file=/var/run/vyr_dhcpd_eth1.pid"});
    const std::string p = std::to_string(Relay.Pid()), conf = "dhcp-relay=192.0.2.1,198.51.100.10\n";
    const std::string stale = "Pid file /var/run/vyr_dhcpd_relay.pid is stale: it names no dnsmasq started with it, nothing is signalled\n";
    const Texts absent = {"Dynamic Relay is not exist\n"};
    const struct {
        std::optional<std::string> PidText;
        long KillResult;
        KQ_ERR_T Result;
        bool Signalled, FilesRemoved;
        Texts Lines;
    } cases[] = {
        // No usable pid (0 or a negative one would signal the agent's own process group): nothing is touched.
        {std::nullopt, 0, 0, false, false, {"Open pid file /var/run/vyr_dhcpd_relay.pid failed(2:No such file or directory)\n", absent[0]}},
        {"", 0, 0, false, false, absent},
        {"0\n", 0, 0, false, false, absent},
        {"-1\n", 0, 0, false, false, absent},
        {"dnsmasq\n", 0, 0, false, false, absent},
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
        SCOPED_TRACE(c.PidText.value_or("(none)"));
        fakehost::Reset();
        fakehost::RemoveModuleFiles();
        fakehost::WriteFile(kRelayConfPath, conf);
        if (c.PidText)
            fakehost::WriteFile(kRelayPidPath, *c.PidText);
        Host().KillResult = c.KillResult;
        EXPECT_EQ(KQCtrl_DynamicRelayStop(), c.Result);
        EXPECT_EQ(Host().Killed, c.Signalled ? std::vector<pid_t>{Relay.Pid()} : std::vector<pid_t>{});
        EXPECT_EQ(ReadFile(kRelayPidPath).has_value(), c.PidText && !c.FilesRemoved);
        EXPECT_EQ(ReadFile(kRelayConfPath).has_value(), !c.FilesRemoved);
        EXPECT_EQ(Lines(), c.Lines);
        if (!c.Signalled)
            EXPECT_EQ(Host().Logs.back().Level, c.FilesRemoved ? 3u : 1u);
    }
}

}  // namespace
