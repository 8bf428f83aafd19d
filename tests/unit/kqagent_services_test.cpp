// What the agent decides about the services it owns without a real host: which pid file
// names a running service, how a restart is paced and told, what the record a restart
// takes over holds, and how enabled clients are kept in the desired state.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "fakehost.h"
#include "kqAgentDesired.h"
#include "kqAgentProcess.h"
#include "kqAgentServices.h"
#include "kqAgentSupervisor.h"

namespace {

using namespace kqagent;
using Args = std::vector<std::string>;

TEST(AgentProcess, OnlyAWholeDecimalPidWithinPidMaxCounts)
{
    const struct { const char *Text; std::optional<pid_t> Pid; } cases[] = {
        {"4242\n", 4242}, {"4242", 4242}, {"2", 2}, {"4194304", 4194304},
        {"1", {}}, {"0", {}}, {"", {}}, {"\n", {}}, {"+42", {}}, {" 42", {}}, {"42 ", {}}, {"42abc", {}},
        {"042", {}}, {"42\n\n", {}}, {"4194305", {}}, {"4294967297", {}}, {"12345678901", {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(StrictPid(c.Text, 4194304), c.Pid) << '"' << c.Text << '"';
}

TEST(AgentProcess, AProcessIsTheServiceOnlyWithItsProgramAndPidFile)
{
    const std::string pid = "/var/run/vyr_dhcpd_lan1.pid";
    const struct { Args Cmdline; const char *Program; bool Is; } cases[] = {
        {{"/usr/sbin/dnsmasq", "-K", "--pid-file=" + pid, "-z"}, "dnsmasq", true},
        {{"dhclient", "-4", "wan0", "-pf", pid}, "dhclient", true},
        {{"/usr/sbin/dnsmasq", "--pid-file=" + pid + ".old"}, "dnsmasq", false},
        {{"/usr/sbin/dnsmasq", "--conf-file=/etc/x.conf"}, "dnsmasq", false},
        {{"/bin/sleep", pid}, "dnsmasq", false},
        {{"/usr/bin/dnsmasq-helper", pid}, "dnsmasq", false},
        {{pid}, "dnsmasq", false},
        {{}, "dnsmasq", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(StartedWith(c.Cmdline, c.Program, pid), c.Is) << (c.Cmdline.empty() ? "" : c.Cmdline.back());

    // A real process, then the same pid file once it has gone.
    const std::string file = "/tmp/kq-unit-" + std::to_string(getpid()) + ".pid";
    fakehost::Lookalike dnsmasq("/usr/sbin/dnsmasq", {"--pid-file=" + file});
    fakehost::WriteFile(file, dnsmasq.PidText());
    const Process running = ProcessOf(file, "dnsmasq");
    EXPECT_TRUE(running.running && running.pid == dnsmasq.Pid() && running.startTime > 0 && running.netns > 0);
    EXPECT_FALSE(ProcessOf(file, "dhclient").running);
    EXPECT_EQ(ProcessAt(dnsmasq.Pid())->startTime, running.startTime);
    fakehost::WriteFile(file, "+" + dnsmasq.PidText());
    EXPECT_TRUE(ProcessOf(file, "dnsmasq").Stale());
    unlink(file.c_str());
    EXPECT_FALSE(ProcessOf(file, "dnsmasq").pidFileExists);
}

TEST(AgentSupervisor, RestartsArePacedAndToldAsTheyEnded)
{
    const RestartPolicy policy;
    EXPECT_EQ((std::vector<long>{policy.Delay(1).count(), policy.Delay(2).count(), policy.Delay(3).count(),
                                 policy.Delay(4).count()}),
              (std::vector<long>{500, 1000, 2000, 4000}));
    EXPECT_EQ(policy.giveUpAfter, 5u);
    EXPECT_EQ(ExitText(CLD_EXITED, 3), "exit status 3");
    EXPECT_EQ(ExitText(CLD_KILLED, SIGKILL), "killed by signal 9 (KILL)");
    EXPECT_EQ(ExitText(CLD_DUMPED, SIGSEGV), "dumped core on signal 11 (SEGV)");
}

TEST(AgentServices, ARegistryRecordComesBackByteForByteAndNothingElseDoes)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF conf;
    memset(&conf, 0, sizeof(conf));
    snprintf(conf.IfName, sizeof(conf.IfName), "lan1");
    conf.DynamicServerConf.SecurityZoneId = 7;
    conf.DynamicServerConf.ServerIpv4Conf.DnsNum = 1;
    conf.DynamicServerConf.ServerIpv4Conf.Dns[0] = 0xC0000201;
    const std::string text = EncodeRecord(conf);
    EXPECT_LT(text.size(), 400u);  // mostly empty arrays
    const auto back = DecodeRecord(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(memcmp(&*back, &conf, sizeof(conf)), 0);
    const std::string bad[] = {"", text.substr(0, text.size() - 4), text + "00", text + "z1.", "zz" + text,
                               "6g" + text.substr(2), "z" + std::to_string(sizeof(conf) + 1) + ".", "z." + text};
    for (const auto &b : bad)
        EXPECT_FALSE(DecodeRecord(b)) << b.substr(0, 40);
    conf.IfName[15] = 'x';  // a name without its end is never taken
    EXPECT_FALSE(DecodeRecord(EncodeRecord(conf)));
}

class AgentDesired : public fakehost::ModuleTest {
protected:
    std::string path = "/tmp/kq-unit-desired-" + std::to_string(getpid()) + ".json";
    void TearDown() override
    {
        unlink(path.c_str());
        ModuleTest::TearDown();
    }
};

TEST_F(AgentDesired, ClientsAreKeptBesideTheInterfacesAndBadEntriesAreNamed)
{
    fakehost::WriteFile(path, R"({"interfaces":[],"clients":[{"ifname":"wan0","family":"ipv4","zone":0},
        {"ifname":"wan0","family":"ipv6","zone":3,"type":"stateless","rs":true},
        {"ifname":"wan1","family":"ipv6","zone":0},
        {"ifname":"wan0","family":"ipv4","zone":1},
        {"ifname":"-x","family":"ipv4"},
        {"ifname":"wan2","family":"ipv4","type":"slaac"},
        {"ifname":"wan3","family":"ipv5"}]})");
    DesiredState desired(path);
    ASSERT_TRUE(desired.Load());
    std::vector<std::string> problems;
    for (const auto &entry : desired.Clients())
        problems.push_back(entry.problem);
    EXPECT_EQ(problems, (std::vector<std::string>{"", "", "clients[2]: \"type\" is stateful, stateless or slaac",
                                                  "clients[3]: ipv4 wan0 is listed twice",
                                                  "clients[4]: \"ifname\" is missing or not a usable interface name",
                                                  "clients[5]: \"type\" and \"rs\" go with ipv6 only",
                                                  "clients[6]: \"family\" is unknown or of the wrong type"}));
    EXPECT_EQ(*desired.FindClient("wan0", true), (DesiredClient{"wan0", true, 3, "stateless", true}));

    // An enable replaces its entry in place, a disable removes it; unusable entries stay as written.
    ASSERT_EQ(desired.RecordClientEnable(DesiredClient{"wan0", false, 5, "", false}), 0);
    ASSERT_EQ(desired.RecordClientDisable("wan0", true), 0);
    ASSERT_EQ(desired.RecordClientEnable(DesiredClient{"wan9", true, 0, "slaac", false}), 0);
    const std::string text = fakehost::ReadFile(path).value_or("");
    EXPECT_EQ(text.substr(0, text.find("{\"ifname\":\"wan1\"")),
              "{\"interfaces\":[\n]," "\"clients\":[\n  {\"ifname\":\"wan0\",\"family\":\"ipv4\",\"zone\":5},\n  ");
    EXPECT_NE(text.find("{\"ifname\":\"wan9\",\"family\":\"ipv6\",\"zone\":0,\"type\":\"slaac\",\"rs\":false}\n]}\n"),
              std::string::npos);
    DesiredState again(path);
    ASSERT_TRUE(again.Load());
    EXPECT_EQ(again.Clients().size(), 7u);

    fakehost::WriteFile(path, R"({"interfaces":[],"clients":{}})");
    EXPECT_FALSE(again.Load());
    EXPECT_EQ(again.Problem(), path + ": \"clients\" is not an array");
    EXPECT_EQ(again.RecordClientEnable(DesiredClient{"wan0", false, 0, "", false}), -EIO);
}

}  // namespace
