// dhcp.conf survives a crash at any moment: a child keeps changing the registry and having
// the module rewrite dhcp.conf, and is killed with SIGKILL at a random moment, 200 times.
// After every kill dhcp.conf and its backup each hold one whole document the child
// announced before writing it, never a torn one, and the backup is never older than the
// document before dhcp.conf's.
//
// The agent's desired state survives a crash in the same way: a child records adds and
// deletes as the agent does, through its journal, one to four per command, and folds the
// journal into the document now and then; killed at any moment, the state read back is the
// last one it announced or the one before (50 times).
//
// The child edits records through the exported registry operations and has the module
// rewrite by deleting an interface that is not configured, or one of its own; in the
// batched rounds it makes one to four such changes per durable batch of the host, as the
// agent does for one command, and announces the last document before the batch ends. Records have
// a server half only and no pid file, so no process is started or stopped: the only effects
// are the two file writes.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <functional>
#include <random>

#include "kqAgentDesired.h"
#include "kqHostLinux.h"
#include "kqtest.h"
#include "labutil.h"

namespace {

// An IPv4 server record of random size.
void Fill(KQ_CTRL_DYNAMIC_SERVER_CONF &Server, std::mt19937 &Rng)
{
    auto &v4 = Server.ServerIpv4Conf;
    Server.NetAddrType = KQ_NET_ADDR_IPV4;
    v4.IpRangeNum = 1 + Rng() % KQ_DYNAMIC_MAX_IP_RANGE;
    for (uint32_t i = 0; i < v4.IpRangeNum; ++i)
        v4.IpRange[i] = {kqtest::Ip4("192.0.2.0") + i, kqtest::Ip4("192.0.2.1") + i};
    v4.NetMask = kqtest::Ip4("255.255.255.0");
    v4.LeaseTime = 60 + Rng() % 86400;
}

// The document a rewrite must produce for the registry as it is, without Skip's node.
std::string Expected(const std::string &Skip)
{
    json_object *root = json_object_new_object(), *dhcps = json_object_new_array();
    json_object_object_add(root, "dhcps", dhcps);
    for (const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf : kqtest::Registry()) {
        if (conf->IfName == Skip)
            continue;
        json_object *item = json_object_new_object();
        json_object_array_add(dhcps, item);
        json_object_object_add(item, "ifname", json_object_new_string(conf->IfName));
        json_object_object_add(item, "vpnId", json_object_new_int(static_cast<int32_t>(conf->SecurityZoneId)));
        if (KQCtrl_ConfToJsonDynamicServer(&conf->DynamicServerConf, item) != 0)
            _exit(4);
    }
    const std::string text = json_object_to_json_string(root);
    json_object_put(root);
    return text;
}

[[noreturn]] void RunChild(int AnnounceFd, unsigned Seed, bool Batched)
{
    std::mt19937 rng(Seed);
    for (unsigned change = 0, changes = 0;; ++change) {
        if (Batched && change == changes) {
            change = 0;
            changes = 1 + rng() % 4;
            if (KQ_HostDurableBatchBegin() != 0)
                _exit(6);
        }
        const std::string name = "lan" + std::to_string(rng() % 6);
        KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(name.c_str());
        const unsigned op = rng() % 4;
        if (conf == nullptr) {
            KQ_CTRL_DYNAMIC_SERVICE_CONF added{};
            snprintf(added.IfName, sizeof(added.IfName), "%s", name.c_str());
            snprintf(added.DynamicServerConf.IfName, sizeof(added.IfName), "%s", name.c_str());
            Fill(added.DynamicServerConf, rng);
            if (KQCtrl_InsertDynamicConfListNode(&added) != 0)
                _exit(2);
        } else if (op > 0) {
            Fill(conf->DynamicServerConf, rng);
        }
        const std::string target = conf != nullptr && op == 0 ? name : "none0";
        const bool last = !Batched || change + 1 == changes;
        const size_t hash = std::hash<std::string>()(Expected(target));
        if (last && write(AnnounceFd, &hash, sizeof(hash)) != sizeof(hash))
            _exit(5);
        DhcpItemV2 item = DHCP_ITEM_V2__INIT;
        item.ifname = const_cast<char *>(target.c_str());
        if (KQCtrl_ConfigDynamicDel(&item) != 0)
            _exit(3);
        if (Batched && last && KQ_HostDurableBatchEnd() != 0)
            _exit(7);
    }
}

// Runs Child in a fork and kills it with SIGKILL at a random moment after its first
// announcement, however slow the machine is to start it; returns Previous, then every hash
// the child announced (before each write, the hash of what it is about to write).
std::vector<size_t> KillAtRandom(const std::function<void(int)> &Child, size_t Previous, std::mt19937 &Rng)
{
    std::vector<size_t> hashes{Previous};
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << strerror(errno);
        return hashes;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        Child(fds[1]);
        _exit(9);
    }
    close(fds[1]);
    size_t hash;
    if (read(fds[0], &hash, sizeof(hash)) == sizeof(hash))
        hashes.push_back(hash);
    usleep(Rng() % 40000);
    kill(pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child ended by itself: " << status;
    while (read(fds[0], &hash, sizeof(hash)) == sizeof(hash))
        hashes.push_back(hash);
    close(fds[0]);
    return hashes;
}

size_t HashOf(const std::string &Path)
{
    return lab::ReadFile(Path) ? std::hash<std::string>()(lab::Text(Path)) : 0;  // 0: no such file
}

size_t StateHash(const kqagent::DesiredState &Desired)
{
    std::string state;
    for (const auto &entry : Desired.Entries())
        state += entry.ifname + "\t" + entry.itemJson + "\n";
    return std::hash<std::string>()(state);
}

[[noreturn]] void RunDesiredChild(int AnnounceFd, unsigned Seed, const std::string &Path)
{
    std::mt19937 rng(Seed);
    kqagent::DesiredState desired(Path);
    desired.KeepJournal(true);
    if (!desired.Load())
        _exit(2);
    for (;;) {
        desired.Hold();
        for (unsigned change = 0, changes = 1 + rng() % 4; change < changes; ++change) {
            const std::string name = "lan" + std::to_string(rng() % 8);
            if (rng() % 3 == 0) {
                desired.RecordDelete(name);
                continue;
            }
            const auto parsed = kqagent::ParseRequests(
                R"({"requests":[{"op":"add","item":{"ifname":")" + name +
                R"(","ipv4dhcpitem":{"mode":"server","dhcpserver":{"dhcpiprange":[{"begin":"192.0.2.10","len":10}],)"
                R"("netmask":"255.255.255.0","leasetime":)" + std::to_string(60 + rng() % 100000) + "}}}}]}");
            if (!parsed.Ok())
                _exit(3);
            desired.RecordAdd(parsed.requests[0]);
        }
        const size_t hash = StateHash(desired);
        if (write(AnnounceFd, &hash, sizeof(hash)) != sizeof(hash))
            _exit(4);
        if (desired.Release() != 0)
            _exit(5);
        if (rng() % 8 == 0 && desired.Fold() != 0)
            _exit(6);
    }
}

TEST(PersistCrash, KilledDesiredStateChangesLeaveTheLastAnnouncedState)
{
    LAB_REQUIRE();
    lab::TempDir dir;
    lab::UseHost(dir, R"("logLevel": 4)");
    const std::string path = dir.File("desired.json");
    std::mt19937 rng(20261125);
    size_t previous = StateHash(kqagent::DesiredState(path));
    int caughtBetween = 0, folds = 0;
    for (int round = 0; round < 50 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::vector<size_t> states = KillAtRandom(
            [&](int fd) { RunDesiredChild(fd, 5000u + static_cast<unsigned>(round), path); }, previous, rng);
        kqagent::DesiredState reader(path);
        ASSERT_TRUE(reader.Load()) << reader.Problem();
        const size_t n = states.size(), now = StateHash(reader);
        EXPECT_TRUE(now == states[n - 1] || (n >= 2 && now == states[n - 2])) << "the desired state is no announced one";
        caughtBetween += now != states[n - 1];
        folds += lab::Text(path + ".journal").find('\n') + 1 == lab::Text(path + ".journal").size();
        previous = now;
    }
    // Kills must have landed inside writes, and folds have happened, or this proved little.
    EXPECT_GT(caughtBetween, 0);
    EXPECT_GT(folds, 0);
}

TEST(PersistCrash, KilledRewritesLeaveWholeDocuments)
{
    LAB_REQUIRE();
    lab::TempDir dir;
    lab::UseHost(dir, R"("logLevel": 4)");
    const std::string confPath = dir.File("dhcp.conf"), bakPath = dir.File("dhcp.conf.bak");
    std::mt19937 rng(20240611);
    size_t prevConf = 0, prevBak = 0;
    int caughtBetween = 0, rewritesSeen = 0;
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::vector<size_t> confs =
            KillAtRandom([&](int fd) { RunChild(fd, 1000u + static_cast<unsigned>(round), round % 2 == 1); }, prevConf, rng);
        std::vector<size_t> baks = confs;
        baks[0] = prevBak;

        // A rewrite that completed is never undone, and the one in flight is all or nothing.
        const size_t n = confs.size(), conf = HashOf(confPath), bak = HashOf(bakPath);
        const bool confIsLast = conf == confs[n - 1];
        EXPECT_TRUE(confIsLast || (n >= 2 && conf == confs[n - 2])) << "dhcp.conf is no announced document:\n" << lab::Text(confPath);
        EXPECT_TRUE(bak == baks[n - 1] || (n >= 2 && bak == baks[n - 2])) << "backup is no announced document:\n" << lab::Text(bakPath);
        EXPECT_TRUE(!confIsLast || n < 2 || bak == baks[n - 1]) << "dhcp.conf is newer than its backup";
        caughtBetween += !confIsLast;
        rewritesSeen += conf != prevConf;
        prevConf = conf;
        prevBak = bak;
    }
    // Kills must have landed inside rewrites, or the test proved nothing.
    EXPECT_GT(caughtBetween, 0);
    EXPECT_GT(rewritesSeen, 50);
    // A temporary has a name only between link and rename, and each writer's first write
    // clears what killed ones left, so at most one of each file can still be there.
    for (const char *name : {".dhcp.conf.kqtmp.", ".dhcp.conf.bak.kqtmp."})
        EXPECT_EQ(lab::Sh("test $(ls -A " + dir.Path + " | grep -c '^" + name + "......$') -le 1"), 0) << lab::MustSh("ls -A " + dir.Path);
}

}  // namespace
