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
        {"18446744073709552616", {}},  // 2^64 + 1000: no wrap into a pid
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
    EXPECT_EQ(running.args, (Args{"/usr/sbin/dnsmasq", "-c", "read line", "sh", "--pid-file=" + file}));  // a shell lookalike
    const Process asked = ProcessOf(file, "dnsmasq", Facts::Running);
    EXPECT_TRUE(asked.running && asked.pid == dnsmasq.Pid());
    EXPECT_FALSE(ProcessOf(file, "dhclient").running);
    EXPECT_EQ(ProcessAt(dnsmasq.Pid())->startTime, running.startTime);
    // A child that has ended but is not reaped yet runs no more; neither does its pid once reaped.
    const pid_t zombie = fork();
    if (zombie == 0)
        _exit(0);
    ASSERT_GT(zombie, 0);
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, zombie, &ended, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(ProcessAt(zombie).has_value());
    ASSERT_EQ(waitpid(zombie, nullptr, 0), zombie);
    EXPECT_FALSE(ProcessAt(zombie).has_value());
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
                               "6g" + text.substr(2), "g6" + text.substr(2), "z" + std::to_string(sizeof(conf) + 1) + ".", "z." + text};
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
        unlink((path + ".journal").c_str());
        ModuleTest::TearDown();
    }
};

// Each save prints again only the interfaces whose record changed: what is read back is
// still exactly the last records saved, through changes, removals and additions.
TEST_F(AgentDesired, ServiceRecordsReadBackAsLastSaved)
{
    ServiceStore store(path);
    store.SetInterface("lan1", {"w1", "r1", ProcessRecord{11, 1, "c1"}});
    store.SetInterface("lan2", {"w2", "r2", std::nullopt});
    store.SetInterface("lan3", {"w3", "r3", ProcessRecord{13, 3, "c3"}});
    ASSERT_EQ(store.Save(), 0);
    store.SetInterface("lan2", {"w2", "r2", ProcessRecord{12, 2, "c2"}});
    store.SetInterface("lan1", {"w1", "r1b", ProcessRecord{11, 1, "c1"}});
    store.EraseInterface("lan3");
    store.SetInterface("lan0", {"w0", "r0", std::nullopt});
    ASSERT_EQ(store.Save(), 0);
    ServiceStore again(path);
    ASSERT_TRUE(again.Load());
    EXPECT_EQ(again.Interfaces(), store.Interfaces());
    EXPECT_EQ(again.Interfaces().at("lan1").registry, "r1b");
    store.SetInterface("lan3", {"w3", "r3", ProcessRecord{13, 3, "c3"}});
    ASSERT_EQ(store.Save(), 0);
    ASSERT_TRUE(again.Load());
    EXPECT_EQ(again.Interfaces(), store.Interfaces());
    // A store read back prints every line from what it read, then only the changed ones.
    again.EraseInterface("lan0");
    again.SetInterface("lan2", {"w2", "r2", std::nullopt});
    ASSERT_EQ(again.Save(), 0);
    ASSERT_TRUE(store.Load());
    EXPECT_EQ(store.Interfaces(), again.Interfaces());
    EXPECT_EQ(store.Interfaces().size(), 3u);
    EXPECT_FALSE(store.Interfaces().at("lan2").server.has_value());
}

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

std::string Item(const std::string &ifname, int lease)
{
    return "{\"ifname\":\"" + ifname + "\",\"ipv4dhcpitem\":{\"mode\":\"server\",\"dhcpserver\":{\"dhcpiprange\":"
           "[{\"begin\":\"192.0.2.100\",\"len\":10}],\"netmask\":\"255.255.255.0\",\"leasetime\":" +
           std::to_string(lease) + "}}}";
}

Request Add(const std::string &ifname, int lease)
{
    ParsedRequests parsed = ParseRequests("{\"requests\":[{\"op\":\"add\",\"item\":" + Item(ifname, lease) + "}]}");
    EXPECT_TRUE(parsed.Ok()) << parsed.error;
    return parsed.requests.at(0);
}

// Each entry's interface and lease time, in order, and whether Find gives that very entry.
std::vector<std::string> Listed(const DesiredState &desired)
{
    std::vector<std::string> listed;
    for (const auto &entry : desired.Entries()) {
        const size_t at = entry.itemJson.find("\"leasetime\":");
        listed.push_back(entry.ifname + " " + entry.itemJson.substr(at + 12, entry.itemJson.find('}', at) - at - 12) +
                         (desired.Find(entry.ifname) == &entry ? "" : " (not found)"));
    }
    return listed;
}

// What a fresh reader of the desired state lists.
std::vector<std::string> ListedByReader(const std::string &path)
{
    DesiredState reader(path);
    EXPECT_TRUE(reader.Load()) << reader.Problem();
    return Listed(reader);
}

TEST_F(AgentDesired, ARequestChangesItsOwnEntryAndAHeldCommandIsWrittenOnceOrNotAtAll)
{
    fakehost::WriteFile(path, "{\"interfaces\":[" + Item("lan0", 1) + "," + Item("lan1", 1) + "," + Item("lan2", 1) + "]}");
    DesiredState desired(path);
    ASSERT_TRUE(desired.Load());
    ASSERT_EQ(desired.RecordAdd(Add("lan1", 2)), 0);  // in place
    ASSERT_EQ(desired.RecordAdd(Add("lan3", 1)), 0);  // at the end
    ASSERT_EQ(desired.RecordDelete("lan0"), 0);
    ASSERT_EQ(desired.RecordDelete("lan9"), 0);       // not listed: nothing written
    EXPECT_EQ(Listed(desired), (Args{"lan1 2", "lan2 1", "lan3 1"}));
    EXPECT_FALSE(desired.Lists("lan0"));
    EXPECT_EQ(desired.Find("lan0"), nullptr);
    EXPECT_EQ(fakehost::CallCount("KQ_WriteSyncWithFilePath"), 3);
    const std::string written = fakehost::ReadFile(path).value_or("");
    EXPECT_EQ(written, "{\"interfaces\":[\n  " + Item("lan1", 2) + ",\n  " + Item("lan2", 1) + ",\n  " + Item("lan3", 1) + "\n]}\n");

    // Held: nothing is written until Release, which writes once.
    desired.Hold();
    ASSERT_EQ(desired.RecordAdd(Add("lan4", 1)), 0);
    ASSERT_EQ(desired.RecordDelete("lan2"), 0);
    ASSERT_EQ(desired.RecordAdd(Add("lan3", 5)), 0);
    EXPECT_EQ(fakehost::CallCount("KQ_WriteSyncWithFilePath"), 3);
    EXPECT_EQ(fakehost::ReadFile(path), written);
    ASSERT_EQ(desired.Release(), 0);
    EXPECT_EQ(fakehost::CallCount("KQ_WriteSyncWithFilePath"), 4);
    const Args held = {"lan1 2", "lan3 5", "lan4 1"};
    EXPECT_EQ(Listed(desired), held);
    EXPECT_EQ(ListedByReader(path), held);

    // A write that fails takes back everything since Hold, or the one request.
    const std::string before = fakehost::ReadFile(path).value_or("");
    fakehost::Host().Fail["KQ_WriteSyncWithFilePath"] = -ENOSPC;
    desired.Hold();
    ASSERT_EQ(desired.RecordDelete("lan1"), 0);
    ASSERT_EQ(desired.RecordAdd(Add("lan3", 6)), 0);
    ASSERT_EQ(desired.RecordAdd(Add("lan5", 1)), 0);
    ASSERT_EQ(desired.RecordDelete("lan4"), 0);
    EXPECT_EQ(desired.Release(), -ENOSPC);
    EXPECT_EQ(Listed(desired), held);
    EXPECT_EQ(desired.RecordAdd(Add("lan1", 7)), -ENOSPC);
    EXPECT_EQ(desired.RecordDelete("lan3"), -ENOSPC);
    EXPECT_EQ(Listed(desired), held);
    EXPECT_FALSE(desired.Lists("lan5"));
    EXPECT_EQ(fakehost::ReadFile(path), before);
    fakehost::Host().Fail.clear();

    // An interface listed twice (a hand-edited file): the add replaces both, in the first's place.
    fakehost::WriteFile(path, "{\"interfaces\":[" + Item("lan0", 1) + "," + Item("lan1", 1) + "," + Item("lan0", 3) + "]}");
    ASSERT_TRUE(desired.Load());
    EXPECT_EQ(Listed(desired), (Args{"lan0 1", "lan1 1", "lan0 3 (not found)"}));
    ASSERT_EQ(desired.RecordAdd(Add("lan0", 4)), 0);
    EXPECT_EQ(Listed(desired), (Args{"lan0 4", "lan1 1"}));
    ASSERT_EQ(desired.RecordAdd(Add("lan1", 4)), 0);
    EXPECT_EQ(Listed(desired), (Args{"lan0 4", "lan1 4"}));
}

// Through the agent a change is one journal line; a reader takes the document and the
// journal together, and a fold leaves the document whole and the journal started afresh.
TEST_F(AgentDesired, TheAgentsChangesGoToTheJournalUntilAFold)
{
    const std::string journal = path + ".journal";
    auto document = [](const Args &items) {
        std::string text = "{\"interfaces\":[";
        for (size_t i = 0; i < items.size(); ++i)
            text += (i == 0 ? "\n  " : ",\n  ") + items[i];
        return text + "\n]}\n";
    };
    auto header = [](const std::string &text) { return "{\"journal\":1,\"after\":\"" + Fingerprint(text) + "\"}\n"; };
    fakehost::WriteFile(path, "{\"interfaces\":[" + Item("lan0", 1) + "," + Item("lan1", 1) + "]}");
    DesiredState desired(path);
    desired.KeepJournal(true);
    ASSERT_TRUE(desired.Load());
    // No journal yet: the document whole, and a journal after it.
    ASSERT_EQ(desired.RecordAdd(Add("lan2", 1)), 0);
    const std::string first = document({Item("lan0", 1), Item("lan1", 1), Item("lan2", 1)});
    EXPECT_EQ(fakehost::ReadFile(path), first);
    EXPECT_EQ(fakehost::ReadFile(journal), header(first));
    // Then a line per change, one append per held command; the document stays.
    ASSERT_EQ(desired.RecordAdd(Add("lan0", 2)), 0);
    desired.Hold();
    ASSERT_EQ(desired.RecordDelete("lan1"), 0);
    ASSERT_EQ(desired.RecordAdd(Add("lan1", 3)), 0);
    ASSERT_EQ(desired.RecordDelete("lan9"), 0);
    ASSERT_EQ(desired.Release(), 0);
    EXPECT_EQ(fakehost::ReadFile(path), first);
    EXPECT_EQ(fakehost::ReadFile(journal), header(first) + "[{\"add\":" + Item("lan0", 2) + "}]\n[{\"delete\":\"lan1\"},{\"add\":" +
                                               Item("lan1", 3) + "}]\n");
    EXPECT_EQ(fakehost::CallCount("KQ_HostAppendFile"), 2);
    const Args now = {"lan0 2", "lan2 1", "lan1 3"};
    EXPECT_EQ(Listed(desired), now);
    EXPECT_EQ(ListedByReader(path), now);

    // A failed append takes the whole write instead.
    fakehost::Host().Fail["KQ_HostAppendFile"] = -EIO;
    ASSERT_EQ(desired.RecordDelete("lan2"), 0);
    fakehost::Host().Fail.clear();
    const std::string second = document({Item("lan0", 2), Item("lan1", 3)});
    EXPECT_EQ(fakehost::ReadFile(path), second);
    EXPECT_EQ(fakehost::ReadFile(journal), header(second));

    // The fold at a stop; with nothing in the journal, nothing is written.
    ASSERT_EQ(desired.RecordAdd(Add("lan1", 4)), 0);
    const int writes = fakehost::CallCount("KQ_WriteSyncWithFilePath");
    ASSERT_EQ(desired.Fold(), 0);
    const std::string third = document({Item("lan0", 2), Item("lan1", 4)});
    EXPECT_EQ(fakehost::ReadFile(path), third);
    EXPECT_EQ(fakehost::ReadFile(journal), header(third));
    ASSERT_EQ(desired.Fold(), 0);
    EXPECT_EQ(fakehost::CallCount("KQ_WriteSyncWithFilePath"), writes + 2);
    EXPECT_EQ(ListedByReader(path), (Args{"lan0 2", "lan1 4"}));

    // Changes that net to the document's own text: only the journal starts afresh.
    ASSERT_EQ(desired.RecordDelete("lan1"), 0);
    ASSERT_EQ(desired.RecordAdd(Add("lan1", 4)), 0);
    ASSERT_EQ(desired.Fold(), 0);
    EXPECT_EQ(fakehost::CallCount("KQ_WriteSyncWithFilePath"), writes + 3);
    EXPECT_EQ(fakehost::ReadFile(journal), header(third));

    // A command on its own keeps the document current, and the journal empty after it.
    DesiredState command(path);
    ASSERT_TRUE(command.Load());
    ASSERT_EQ(command.RecordAdd(Add("lan5", 1)), 0);
    const std::string fourth = document({Item("lan0", 2), Item("lan1", 4), Item("lan5", 1)});
    EXPECT_EQ(fakehost::ReadFile(path), fourth);
    EXPECT_EQ(fakehost::ReadFile(journal), header(fourth));
}

// What a crash or a hand leaves in the journal: a cut last line is left out and the next
// change folds; a journal after another text adds nothing; anything else is unreadable.
TEST_F(AgentDesired, AJournalIsTakenUpToItsLastWholeChange)
{
    const std::string journal = path + ".journal", doc = "{\"interfaces\":[" + Item("lan0", 1) + "]}",
                      head = "{\"journal\":1,\"after\":\"" + Fingerprint(doc) + "\"}\n",
                      add = "[{\"add\":" + Item("lan1", 1) + "}]\n";
    const struct {
        std::string Journal;
        Args Listed;
        std::string Problem;  // "": the load succeeds
        size_t Unfollowed;
    } cases[] = {
        {head + add, {"lan0 1", "lan1 1"}, "", 0},
        {head + add + "[{\"delete\":\"lan0\"},{\"add\":" + Item("lan2", 1), {"lan0 1", "lan1 1"}, "", 0},
        {head + add + "[{\"delete\":\"lan0\"}]x\n", {"lan0 1", "lan1 1"}, "", 0},
        {head + add + std::string(40, '\0'), {"lan0 1", "lan1 1"}, "", 0},
        {head + "[{\"delete\":\"lan0\"},{\"delete\":\"lan9\"}]\n", {}, "", 0},
        {"{\"journal\":1,\"after\":\"0123456789abcdef\"}\n" + add + add, {"lan0 1"}, "", 2},
        {head + "[{\"delete\":7}]\n" + add, {}, ": line 2: not a change of the desired state", 0},
        {head + "[{\"add\":{},\"delete\":\"lan0\"}]\n" + add, {}, ": line 2: not a change of the desired state", 0},
        {head + "{\"delete\":\"lan0\"}\n" + add, {}, ": line 2: not a change of the desired state", 0},
        {head + "[]\n" + add, {}, ": line 2: not a change of the desired state", 0},
        {"{\"after\":7}\n" + add, {}, ": line 1: not the start of a desired-state journal", 0},
        {"", {}, ": line 1: not the start of a desired-state journal", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.Journal));
        fakehost::WriteFile(path, doc);
        fakehost::WriteFile(journal, c.Journal);
        DesiredState desired(path);
        desired.KeepJournal(true);
        EXPECT_EQ(desired.Load(), c.Problem.empty());
        EXPECT_EQ(desired.Problem(), c.Problem.empty() ? "" : journal + c.Problem);
        EXPECT_EQ(desired.Unfollowed(), c.Unfollowed);
        if (!c.Problem.empty()) {
            EXPECT_EQ(desired.RecordAdd(Add("lan2", 1)), -EIO);
            EXPECT_EQ(fakehost::ReadFile(journal), c.Journal);  // never overwritten
            continue;
        }
        EXPECT_EQ(Listed(desired), c.Listed);
        // The next change goes on a whole journal, else folds.
        const bool whole = c.Journal.back() == '\n' && c.Journal.find("]x") == std::string::npos && c.Unfollowed == 0;
        const int appends = fakehost::CallCount("KQ_HostAppendFile");
        ASSERT_EQ(desired.RecordAdd(Add("lan2", 1)), 0);
        EXPECT_EQ(fakehost::CallCount("KQ_HostAppendFile"), appends + (whole ? 1 : 0));
        Args expected = c.Listed;
        expected.push_back("lan2 1");
        EXPECT_EQ(ListedByReader(path), expected);
    }
    EXPECT_EQ(DesiredState(path).UnfollowedNote(), journal + " follows an earlier text of " + path + ": its 0 change(s) are left "
                                                       "out (a rewrite cut short holds them, a document written by hand since does not)");
}

}  // namespace
