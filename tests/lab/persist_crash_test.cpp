// dhcp.conf survives a crash at any moment: a child process keeps changing the registry
// and rewriting dhcp.conf through the reference host's file operations, and is killed with
// SIGKILL at a random moment, 200 times. After every kill dhcp.conf and its backup each
// hold one whole document that the child announced, never a torn one.
//
// How the child rewrites: it changes records through the exported registry operations
// (KQCtrl_InsertDynamicConfListNode, and _KQCtrl_GetDynamicConfByName to edit in place)
// and triggers the module's own rewrite with KQCtrl_ConfigDynamicDel, either of an
// interface that is not configured or of one of its own interfaces (which also removes
// that node). Every record has a server half (IPv4 with up to 64 pools and DNS servers,
// IPv6 in any mode) and an empty relay half, so the delete stops no server (no pid file)
// and the relay reload finds no relay interface: no dnsmasq is started, and the only
// effects are the two file writes. Before each rewrite the child builds the expected
// document from the registry with the exported writers and sends its hash to the parent.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kqtest.h"
#include "labutil.h"

namespace {

constexpr int kRounds = 200;
constexpr int kInterfaces = 6;
constexpr uint64_t kMissing = 0;  // hash used for "no such file"

uint64_t Hash(const std::string &Text)
{
    uint64_t h = 1469598103934665603ull;  // FNV-1a
    for (unsigned char c : Text)
        h = (h ^ c) * 1099511628211ull;
    return h == kMissing ? 1 : h;
}

using kqtest::Ip6;

// A server record of random size and IPv6 mode, in documentation addresses.
void FillServer(KQ_CTRL_DYNAMIC_SERVER_CONF &Server, std::mt19937 &Rng)
{
    Server.NetAddrType = KQ_NET_ADDR_IPV46;
    auto &v4 = Server.ServerIpv4Conf;
    v4.IpRangeNum = 1 + Rng() % KQ_DYNAMIC_MAX_IP_RANGE;
    for (uint32_t i = 0; i < v4.IpRangeNum; ++i)
        v4.IpRange[i] = {0xC0000200u + i, 0xC0000200u + i + 1};  // 192.0.2.x
    v4.NetMask = 0xFFFFFF00u;
    v4.Gateway = 0xC0000201u;
    v4.DnsNum = 1 + Rng() % KQ_DYNAMIC_MAX_DNS;
    for (uint32_t i = 0; i < v4.DnsNum; ++i)
        v4.Dns[i] = 0xC6336400u + i;  // 198.51.100.x
    v4.LeaseTime = 60 + Rng() % 86400;
    auto &v6 = Server.ServerIpv6Conf;
    v6.DynamicMode = static_cast<KQ_IPV6_ADDR_AUTOCONF_TYPE>(Rng() % 4);
    v6.DhcpConf.Ipv6RangeNum = 1 + Rng() % KQ_DYNAMIC_MAX_IP_RANGE;
    for (uint32_t i = 0; i < v6.DhcpConf.Ipv6RangeNum; ++i)
        v6.DhcpConf.Ipv6Range[i] = {Ip6("2001:db8:1::" + std::to_string(100 + i)), Ip6("2001:db8:1::ffff")};
    v6.DhcpConf.PrefixLength = 64;
    v6.DhcpConf.Ipv6DnsNum = Rng() % 8;
    for (uint32_t i = 0; i < v6.DhcpConf.Ipv6DnsNum; ++i)
        v6.DhcpConf.Ipv6Dns[i] = Ip6("2001:db8:53::" + std::to_string(i + 1));
    v6.DhcpConf.Ipv6LeaseTime = 3600;
    v6.SlaacConf.Prefix = Ip6("2001:db8:1::");
    v6.SlaacConf.PrefixLength = 64;
    v6.SlaacConf.Ipv6DnsNum = Rng() % 3;
    for (uint32_t i = 0; i < v6.SlaacConf.Ipv6DnsNum; ++i)
        v6.SlaacConf.Ipv6Dns[i] = Ip6("2001:db8:54::" + std::to_string(i + 1));
}

// The document the rewrite must produce for the registry as it is, without Skip's node.
std::string ExpectedDocument(const char *Skip)
{
    json_object *root = json_object_new_object();
    json_object *dhcps = json_object_new_array();
    json_object_object_add(root, "dhcps", dhcps);
    for (const KQ_CTRL_DYNAMIC_SERVICE_CONF *node : kqtest::Registry()) {
        const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf = *node;
        if ((Skip != nullptr && strcmp(conf.IfName, Skip) == 0) ||
            (conf.DynamicServerConf.NetAddrType == 0 && conf.DynamicRelayConf.NetAddrType == 0))
            continue;
        json_object *item = json_object_new_object();
        json_object_array_add(dhcps, item);
        json_object_object_add(item, "ifname", json_object_new_string(conf.IfName));
        json_object_object_add(item, "vpnId", json_object_new_int(static_cast<int32_t>(conf.SecurityZoneId)));
        if (conf.DynamicServerConf.NetAddrType != 0 && KQCtrl_ConfToJsonDynamicServer(&conf.DynamicServerConf, item) != 0)
            _exit(4);
    }
    std::string text = json_object_to_json_string(root);
    json_object_put(root);
    return text;
}

[[noreturn]] void RunChild(int AnnounceFd, unsigned Seed)
{
    std::mt19937 rng(Seed);
    for (int step = 0; step < 1000000; ++step) {
        std::string name = "lan" + std::to_string(rng() % kInterfaces);
        KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(name.c_str());
        unsigned op = rng() % 4;
        bool deleting = false;
        if (conf == nullptr) {
            KQ_CTRL_DYNAMIC_SERVICE_CONF added{};
            snprintf(added.IfName, sizeof(added.IfName), "%s", name.c_str());
            snprintf(added.DynamicServerConf.IfName, sizeof(added.IfName), "%s", name.c_str());
            FillServer(added.DynamicServerConf, rng);
            if (KQCtrl_InsertDynamicConfListNode(&added) != 0)
                _exit(2);
        } else if (op == 0) {
            deleting = true;
        } else if (op == 1) {
            conf->DynamicServerConf.NetAddrType = static_cast<KQ_NET_ADDR_TYPE>(rng() % 4);  // 0: left out
        } else {
            FillServer(conf->DynamicServerConf, rng);
        }

        std::string doc = ExpectedDocument(deleting ? name.c_str() : nullptr);
        uint64_t h = Hash(doc);
        if (write(AnnounceFd, &h, sizeof(h)) != sizeof(h))
            _exit(5);

        DhcpItemV2 item = DHCP_ITEM_V2__INIT;
        std::string target = deleting ? name : "none0";
        item.ifname = target.data();
        if (KQCtrl_ConfigDynamicDel(&item) != 0)
            _exit(3);
    }
    _exit(0);
}

uint64_t FileHash(const std::string &Path, std::string *Text)
{
    std::optional<std::string> text = lab::ReadFile(Path);
    if (!text)
        return kMissing;
    *Text = *text;
    return Hash(*text);
}

// Temporaries of one target (".<name>.kqtmp." and six characters) left in Dir.
int CountLeftovers(const std::string &Dir, const std::string &Name)
{
    const std::string prefix = "." + Name + ".kqtmp.";
    int n = 0;
    if (DIR *d = opendir(Dir.c_str())) {
        while (dirent *e = readdir(d))
            n += strlen(e->d_name) == prefix.size() + 6 && strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0;
        closedir(d);
    }
    return n;
}

TEST(PersistCrash, KilledRewritesLeaveWholeDocuments)
{
    LAB_REQUIRE_PREREQUISITES();
    lab::TempDir dir("kq-persist-");
    lab::HostSettings settings;
    settings.logLevel = 4;
    lab::HostConfig host(dir, settings);
    const std::string confPath = dir.File("dhcp.conf"), bakPath = dir.File("dhcp.conf.bak");

    std::mt19937 rng(20240611);
    uint64_t prevConf = kMissing, prevBak = kMissing;
    int caughtBetween = 0, documents = 0, rewritesSeen = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(fds[0]);
            RunChild(fds[1], 1000u + static_cast<unsigned>(round));
        }
        close(fds[1]);
        // Kill at a random moment after the child's first rewrite began, however slow the
        // machine is to start it.
        std::vector<uint64_t> announced;
        uint64_t h;
        if (read(fds[0], &h, sizeof(h)) == sizeof(h))
            announced.push_back(h);
        usleep(rng() % 40000);
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the child stopped by itself with status " << status;

        while (read(fds[0], &h, sizeof(h)) == sizeof(h))
            announced.push_back(h);
        close(fds[0]);
        documents += static_cast<int>(announced.size());

        std::vector<uint64_t> confs{prevConf}, baks{prevBak};
        confs.insert(confs.end(), announced.begin(), announced.end());
        baks.insert(baks.end(), announced.begin(), announced.end());

        std::string confText, bakText;
        uint64_t conf = FileHash(confPath, &confText), bak = FileHash(bakPath, &bakText);
        // A rewrite that completed is never undone, and the one in flight is all or nothing.
        size_t n = confs.size();
        bool confIsLast = conf == confs[n - 1];
        EXPECT_TRUE(confIsLast || (n >= 2 && conf == confs[n - 2])) << "dhcp.conf is no announced document:\n" << confText;
        EXPECT_TRUE(bak == baks[n - 1] || (n >= 2 && bak == baks[n - 2])) << "backup is no announced document:\n" << bakText;
        if (confIsLast && n >= 2) {
            EXPECT_EQ(bak, baks[n - 1]) << "dhcp.conf is newer than its backup";
        }
        if (conf != kMissing) {
            json_object *doc = json_tokener_parse(confText.c_str());
            json_object *dhcps = nullptr;
            EXPECT_TRUE(doc != nullptr && json_object_object_get_ex(doc, "dhcps", &dhcps) &&
                        json_object_get_type(dhcps) == json_type_array);
            json_object_put(doc);
        }
        if (testing::Test::HasFailure())
            return;
        caughtBetween += !confIsLast;
        rewritesSeen += conf != prevConf;
        prevConf = conf;
        prevBak = bak;
    }
    // Kills must have landed inside rewrites, or the test proved nothing.
    EXPECT_GT(caughtBetween, 0);
    EXPECT_GT(rewritesSeen, kRounds / 4);
    // A temporary has a name only between link and rename, and each writer's first write
    // clears what killed ones left, so at most the last killed write of each file can still
    // have one there.
    const int confTemps = CountLeftovers(dir.Path(), "dhcp.conf"), bakTemps = CountLeftovers(dir.Path(), "dhcp.conf.bak");
    EXPECT_LE(confTemps, 1);
    EXPECT_LE(bakTemps, 1);
    std::printf("%d documents announced, %d kills inside a rewrite, %d + %d temporary files left by killed writes\n",
                documents, caughtBetween, confTemps, bakTemps);
}

}  // namespace
