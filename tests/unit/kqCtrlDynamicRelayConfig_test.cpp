#include <gtest/gtest.h>

#include <cstring>

#include "fakehost.h"
#include "kqCtrlDynamicInternal.h"

using namespace kqtest;

namespace {

using fakehost::ErrorLines;
using fakehost::Lines;

using Write = std::pair<std::string, std::string>;

const char kEth1Lines[] = "dhcp-relay=192.0.2.1,198.51.100.10\ndhcp-relay=192.0.2.1,198.51.100.11\n";
const char kEth2Lines[] =
    "dhcp-relay=203.0.113.1,198.51.100.20\ndhcp-relay=203.0.113.1,198.51.100.22\n"
    "dhcp-relay=203.0.113.1,198.51.100.21\n";

class RelayConfig : public fakehost::ModuleTest {
protected:
    static RelayMsg Eth1() { return RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"}); }
    static RelayMsg Eth2()
    {
        return RelayItem("eth2", "203.0.113.1", {"198.51.100.20", "198.51.100.22", "198.51.100.21"});
    }

    // What the relay dnsmasq leaves behind once it runs: a process that looks like it, and
    // its pid file.
    void RelayRunning() { fakehost::WriteFile(kRelayPidPath, Relay.PidText()); }
    std::string KillFailed(const char *Error) const
    {
        return "Kill pid " + std::to_string(Relay.Pid()) + " failed(" + Error + ")\n";
    }

    fakehost::Lookalike Relay{"/usr/sbin/dnsmasq", {"-K", "--conf-file=/etc/vyr_dhcpd_relay.conf", "--port=0",
                                                     "--pid-file=/var/run/vyr_dhcpd_relay.pid", "-z"}};
    long Live = 0;
};

TEST_F(RelayConfig, TwoRelayInterfacesShareOneFileInRegistryOrder)
{
    // eth2 was registered first (by its server side), so its lines come first.
    KQ_CTRL_DYNAMIC_SERVICE_CONF eth2;
    memset(&eth2, 0, sizeof(eth2));
    strcpy(eth2.IfName, "eth2");
    ASSERT_EQ(KQCtrl_InsertDynamicConfListNode(&eth2), 0);

    auto eth1 = Eth1();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), 0);
    RelayRunning();
    auto second = Eth2();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(second.get()), 0);

    EXPECT_EQ(fakehost::Host().Writes,
              (std::vector<Write>{{kRelayConfPath, kEth1Lines}, {kRelayConfPath, std::string(kEth2Lines) + kEth1Lines}}));
    EXPECT_EQ(fakehost::ReadFile(kRelayConfPath), std::string(kEth2Lines) + kEth1Lines);
    EXPECT_EQ(fakehost::Host().Commands, (std::vector<std::string>{kRelayStartCmd, kRelayStartCmd}));
    EXPECT_EQ(fakehost::Host().Killed, std::vector<pid_t>{Relay.Pid()});  // the second add restarted it

    // One node per interface: the relay half went into the node that already existed.
    KQ_LIST_HEAD *head = KQCtrl_GetDynamiclistHead();
    EXPECT_EQ(head->next->next->next, head);
}

TEST_F(RelayConfig, UnchangedRelayNeitherWritesNorRestarts)
{
    auto eth1 = Eth1();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), 0);
    RelayRunning();

    auto swapped = RelayItem("eth1", "192.0.2.1", {"198.51.100.11", "198.51.100.10"});
    // The comparison runs one way: every current server is among the new ones.
    auto duplicated = RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.11"});
    RelayMsg unchanged[] = {Eth1(), std::move(swapped)};
    for (auto &item : unchanged) {
        fakehost::Reset();
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(item.get()), 0);
        EXPECT_TRUE(fakehost::Host().Writes.empty());
        EXPECT_TRUE(fakehost::Host().Commands.empty());
        EXPECT_TRUE(fakehost::Host().Killed.empty());
        EXPECT_EQ(Lines(), std::vector<std::string>{"Dynamic ipv4service for eth1 is same to current configuration\n"});
    }

    // Current {A, A} and new {A, B} compare as the same, deliberately.
    fakehost::Reset();
    auto twice = RelayItem("eth1", "192.0.2.1", {"198.51.100.10", "198.51.100.10"});
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(twice.get()), 0);
    RelayRunning();
    fakehost::Reset();
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(duplicated.get()), 0);
    EXPECT_TRUE(fakehost::Host().Commands.empty());

    // A changed LAN address, server count or server restarts with the new text.
    struct Change {
        RelayMsg Msg;
        std::string Trace;
    };
    Change changes[] = {
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10", "198.51.100.10"}), "Dynamic relay lan ip is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.10"}), "Dynamic Relay Server Num is not same\n"},
        {RelayItem("eth1", "192.0.2.2", {"198.51.100.12"}), ""},
    };
    for (auto &c : changes) {
        fakehost::Reset();
        RelayRunning();
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(c.Msg.get()), 0);
        EXPECT_EQ(fakehost::Host().Commands, std::vector<std::string>{kRelayStartCmd});
        EXPECT_TRUE(c.Trace.empty() || fakehost::HasMessage(c.Trace)) << c.Trace;
    }
    EXPECT_EQ(fakehost::ReadFile(kRelayConfPath), "dhcp-relay=192.0.2.2,198.51.100.12\n");
}

TEST_F(RelayConfig, LeavingRelayModeClearsHalfAndStopsWithTheLast)
{
    auto eth1 = Eth1();
    auto eth2 = Eth2();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), 0);
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth2.get()), 0);

    // eth1 becomes a server: its relay half keeps only the name, the relay goes on for eth2.
    fakehost::Reset();
    RelayRunning();
    auto server = ModeItem("eth1", KQ_DHCP_SERVER);
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayAdd(server.get()), 0);
    const KQ_CTRL_DYNAMIC_RELAY_CONF *half = _KQCtrl_GetDynamicRelayConfByName("eth1");
    ASSERT_NE(half, nullptr);
    EXPECT_EQ(half->NetAddrType, 0);
    EXPECT_EQ(half->RelayConf.RelayServerNum, 0u);
    EXPECT_EQ(fakehost::ReadFile(kRelayConfPath), kEth2Lines);
    EXPECT_EQ(fakehost::Host().Commands, std::vector<std::string>{kRelayStartCmd});

    // eth2 deleted: no relay interface is left, so the process and both files go.
    fakehost::Reset();
    RelayRunning();
    ASSERT_EQ(KQCtrl_ConfigDynamicRelayDel(eth2.get()), 0);
    EXPECT_EQ(fakehost::Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_TRUE(fakehost::Host().Commands.empty());
    EXPECT_FALSE(fakehost::ReadFile(kRelayPidPath).has_value());
    EXPECT_FALSE(fakehost::ReadFile(kRelayConfPath).has_value());
    half = _KQCtrl_GetDynamicRelayConfByName("eth2");
    ASSERT_NE(half, nullptr);  // the node itself goes with the whole interface
    EXPECT_EQ(half->IfName[0], '\0');

    // Deleting an interface the registry does not know still reloads.
    fakehost::Reset();
    auto unknown = Eth1();
    unknown.IfName = "eth9";
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(unknown.get()), 0);
    EXPECT_TRUE(fakehost::HasMessage("Dynamic Relay is not exist\n"));
}

TEST_F(RelayConfig, FailuresLeaveTheRightThingsBehind)
{
    auto bad = Eth1();
    bad.Servers.clear();
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(bad.get()), -22);
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(bad.get()), -22);
    EXPECT_EQ(ErrorLines(), (std::vector<std::string>{
                                "Dynamic relay num 0 is invalid\n", "Protobuf to dhcp server failed\n",
                                "Protobuf to conf for dynamic failed(22:Invalid argument)\n",
                                "Dynamic relay num 0 is invalid\n", "Protobuf to dhcp server failed\n",
                                "Protobuf to conf for dynamic failed(22:Invalid argument)\n"}));
    EXPECT_EQ(_KQCtrl_GetDynamicConfByName("eth1"), nullptr);

    // A node that cannot be allocated skips the reload.
    fakehost::Reset();
    fakehost::Host().Fail["KQ_AgentMemZeroAlloc"] = 0;
    auto eth1 = Eth1();
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), -12);
    EXPECT_EQ(ErrorLines(), (std::vector<std::string>{"Apply memory for dynamic conf node failed\n",
                                                      "Insert Dynamic conf node failed(12:Cannot allocate memory)\n",
                                                      "Insert dynamic conf node failed(12:Cannot allocate memory)\n"}));
    EXPECT_TRUE(fakehost::Host().Commands.empty());

    // A failed reload keeps the stored configuration; the running relay is left alone.
    struct Case {
        const char *Op;
        KQ_ERR_T Result;
        std::vector<std::string> Lines;
    };
    const Case cases[] = {
        {"KQ_FlexMsgAlloc", -12,
         {"Apply memory for dhcp relay conf content failed\n",
          "Relaod dynamic relay failed(12:Cannot allocate memory)\n"}},
        {"KQ_FlexMsgSetFormatData", -5,
         {"Append dhcp relay conf failed(5:Input/output error)\n",
          "Append dynamic relay conf failed(5:Input/output error)\n",
          "Relaod dynamic relay failed(5:Input/output error)\n"}},
        // Any executor failure is reported as -EINVAL.
        {"KQ_CmdExec", -22,
         {std::string("cmd:") + kRelayStartCmd + " exec failed\n", "Start dynamic relay failed(22:Invalid argument)\n",
          "Restart dynamic relay failed(22:Invalid argument)\n", "Relaod dynamic relay failed(22:Invalid argument)\n"}},
        {"KQ_WriteSyncWithFilePath", -5,
         {"Write conf file /etc/vyr_dhcpd_relay.conf failed(5:Input/output error)\n",
          "Start dynamic relay failed(5:Input/output error)\n", "Restart dynamic relay failed(5:Input/output error)\n",
          "Relaod dynamic relay failed(5:Input/output error)\n"}},
        // A relay that cannot be stopped is not started a second time.
        {"KQ_KillPid", -5,
         {KillFailed("5:Input/output error"), "Stop dynamic relay failed\n",
          "Restart dynamic relay failed(5:Input/output error)\n", "Relaod dynamic relay failed(5:Input/output error)\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Op);
        fakehost::Reset();
        fakehost::ClearRegistry();
        fakehost::RemoveModuleFiles();
        RelayRunning();
        fakehost::Host().Fail[c.Op] = -5;
        EXPECT_EQ(KQCtrl_ConfigDynamicRelayAdd(eth1.get()), c.Result);
        EXPECT_EQ(ErrorLines(), c.Lines);
        EXPECT_TRUE(std::string(c.Op) == "KQ_CmdExec" || fakehost::Host().Commands.empty());
        // A text that cannot be built leaves the running relay alone.
        EXPECT_EQ(fakehost::Host().Killed.empty(), std::string(c.Op).rfind("KQ_FlexMsg", 0) == 0);
        const KQ_CTRL_DYNAMIC_RELAY_CONF *half = _KQCtrl_GetDynamicRelayConfByName("eth1");
        ASSERT_NE(half, nullptr);
        EXPECT_EQ(half->RelayConf.RelayServerNum, 2u);
    }

    // The last relay cannot be stopped: the delete reports it.
    fakehost::Reset();
    RelayRunning();
    fakehost::Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_ConfigDynamicRelayDel(eth1.get()), -EPERM);
    EXPECT_EQ(ErrorLines(), (std::vector<std::string>{KillFailed("1:Operation not permitted"),
                                                      "Stop dynamic relay failed(1:Operation not permitted)\n",
                                                      "Relaod dynamic relay failed(1:Operation not permitted)\n"}));
}

TEST_F(RelayConfig, LoadWithoutRelayStopsLeftoverRelay)
{
    const std::string path = fakehost::Host().DhcpConfPath;
    fakehost::WriteFile(path, "{\"dhcps\": [null, null]}");
    fakehost::WriteFile(kRelayConfPath, kEth1Lines);
    RelayRunning();
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    EXPECT_EQ(ErrorLines(), (std::vector<std::string>{"dhcp 0 is null\n", "dhcp 1 is null\n"}));
    EXPECT_EQ(fakehost::Host().Killed, std::vector<pid_t>{Relay.Pid()});
    EXPECT_FALSE(fakehost::ReadFile(kRelayPidPath).has_value());
    EXPECT_FALSE(fakehost::ReadFile(kRelayConfPath).has_value());
    EXPECT_TRUE(fakehost::Host().Commands.empty());

    // A stop that fails is a warning: the agent's start goes on.
    fakehost::Reset();
    RelayRunning();
    fakehost::Host().Fail["KQ_KillPid"] = -EPERM;
    EXPECT_EQ(KQCtrl_LoadDynamicRelayConf(path.c_str()), 0);
    ASSERT_FALSE(fakehost::Host().Logs.empty());
    EXPECT_EQ(fakehost::Host().Logs.back().Level, 3u);
    EXPECT_EQ(Lines().back(), "Stop dynamic relay failed\n");
}

}  // namespace
