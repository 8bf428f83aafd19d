// End to end, with real dnsmasq: N LANs (every other one in a zone) from the first request
// to every dnsmasq listening, a restore of the same N from dhcp.conf with nothing running,
// and beside them the floor: the same N dnsmasq started bare, one after another, with the
// same files and command lines in the same namespaces. Rounds are interleaved, so the
// three see the same machine; each figure is the median over the rounds. Also the memory
// of 100 dnsmasq started by the module against 100 started bare (PSS), and what the
// module's daemons inherit (descriptors, environment) against the bare ones.
//
// Needs its own network namespace (scripts/isolate --net): it makes the zone "vpn1" and a
// veth pair per LAN, in the LAN's zone and, for zone LANs, here too: dhcp.conf keeps no
// zone, so a restore starts every dnsmasq here (zone 0).
//
//   kqbench_e2e [--rounds R] [--sizes 1,10,50,100] [--out results.json]
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kqBenchRequests.h"
#include "kqCtrlDynamicInternal.h"

namespace {

using kqbench::Request;
using Clock = std::chrono::steady_clock;

constexpr char kDir[] = "/etc/kqbench";  // dhcp.conf on the same filesystem as /etc
constexpr char kZone[] = "vpn1";
constexpr uint32_t kZoneId = 1;
constexpr auto kListenLimit = std::chrono::seconds(20);

std::string IfName(size_t i) { return "lan" + std::to_string(i); }
bool InZone(size_t i) { return i % 2 == 1; }
std::string PidFile(size_t i) { return "/var/run/vyr_dhcpd_" + IfName(i) + ".pid"; }

[[noreturn]] void Die(const std::string &what)
{
    fprintf(stderr, "kqbench_e2e: %s\n", what.c_str());
    exit(2);
}

void MustRun(const std::string &line)
{
    if (system(line.c_str()) != 0)
        Die("failed: " + line);
}

std::string ReadText(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

pid_t PidOf(size_t i)
{
    return static_cast<pid_t>(atol(ReadText(PidFile(i)).c_str()));
}

std::vector<std::unique_ptr<Request>> g_requests;

Request &RequestAt(size_t i)
{
    while (g_requests.size() <= i)
        g_requests.push_back(std::make_unique<Request>(IfName(g_requests.size()).c_str(), Request::Ipv4Only));
    return *g_requests[i];
}

// Every dnsmasq of LANs 0..N-1 killed and gone, pid files removed, registry empty.
void StopAll(size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        pid_t pid = PidOf(i);
        if (pid <= 0)
            continue;
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        kill(pid, SIGKILL);
        if (pidfd >= 0) {
            pollfd p = {pidfd, POLLIN, 0};
            poll(&p, 1, 5000);
            close(pidfd);
        }
        unlink(PidFile(i).c_str());
    }
    kqbench::EmptyRegistry();
}

// DHCP sockets (UDP port 67) bound in the namespace of the calling thread.
size_t Port67Sockets()
{
    std::ifstream in("/proc/thread-self/net/udp");
    std::string line;
    size_t count = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string slot, local;
        fields >> slot >> local;
        count += local.size() > 5 && local.compare(local.size() - 5, 5, ":0043") == 0;
    }
    return count;
}

int g_ownNs = -1, g_zoneNs = -1;

void EnterNs(int fd)
{
    if (setns(fd, CLONE_NEWNET) != 0)
        Die("setns failed");
}

// Waits until the N LANs' dnsmasq all listen: each binds port 67 on its interface, in the
// zone or here (restored ones: all here).
void WaitListening(size_t n, bool zones)
{
    const size_t inZone = zones ? n / 2 : 0, outside = n - inZone;
    const auto deadline = Clock::now() + kListenLimit;
    for (;;) {
        size_t here = Port67Sockets();
        EnterNs(g_zoneNs);
        size_t zone = Port67Sockets();
        EnterNs(g_ownNs);
        if (here >= outside && zone >= inZone)
            return;
        if (Clock::now() > deadline)
            Die("dnsmasq not listening: " + std::to_string(here) + "/" + std::to_string(outside) + " here, " +
                std::to_string(zone) + "/" + std::to_string(inZone) + " in the zone");
        usleep(1000);
    }
}

struct Sample {
    double wallMs = 0, cpuMs = 0;  // cpu: this process (module and host), children excluded
};

double CpuMs()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

template <typename F>
Sample Time(size_t n, bool zones, F &&work)
{
    Sample s;
    const auto t0 = Clock::now();
    const double c0 = CpuMs();
    work();
    s.cpuMs = CpuMs() - c0;
    WaitListening(n, zones);
    s.wallMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    return s;
}

Sample BringUp(size_t n)
{
    return Time(n, true, [&] {
        for (size_t i = 0; i < n; ++i) {
            KQ_ERR_T ret = KQCtrl_ConfigDynamicAdd(RequestAt(i).get());
            if (ret != 0)
                Die("add of " + IfName(i) + " failed: " + std::to_string(ret));
        }
    });
}

Sample Restore(size_t n)
{
    const std::string conf = std::string(kDir) + "/dhcp.conf";
    return Time(n, false, [&] {
        KQ_ERR_T ret = KQCtrl_LoadDynamicServiceConf(conf.c_str());
        if (ret != 0)
            Die("load failed: " + std::to_string(ret));
    });
}

// The same dnsmasq command line as the module's, started straight from its namespace: no
// agent, no module, no ip.
Sample Floor(size_t n)
{
    // The environment the reference host gives its children: the agent's PATH alone.
    const char *agentPath = getenv("PATH");
    std::string path = std::string("PATH=") + (agentPath != nullptr ? agentPath : "");
    char *envp[] = {path.data(), nullptr};
    return Time(n, true, [&] {
        for (size_t i = 0; i < n; ++i) {
            std::string name = IfName(i);
            std::vector<std::string> words = {"/usr/sbin/dnsmasq", "-K", "--conf-file=/etc/vyr_dhcpd_" + name + ".conf",
                                              "--dhcp-leasefile=/etc/vyr_dhcpd_" + name + ".leases", "--port=0",
                                              "--pid-file=/var/run/vyr_dhcpd_" + name + ".pid", "-z"};
            std::vector<char *> argv;
            for (std::string &w : words)
                argv.push_back(w.data());
            argv.push_back(nullptr);
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
            posix_spawn_file_actions_addclosefrom_np(&actions, 3);
            if (InZone(i))
                EnterNs(g_zoneNs);
            pid_t pid = -1;
            int err = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp);
            if (InZone(i))
                EnterNs(g_ownNs);
            posix_spawn_file_actions_destroy(&actions);
            int status = 0;
            if (err != 0 || waitpid(pid, &status, 0) != pid || status != 0)
                Die("bare dnsmasq of " + name + " failed");
        }
    });
}

// What the N running dnsmasq hold: PSS in kB, descriptors and environment bytes in all.
struct Footprint {
    long pssKb = 0, fds = 0, environBytes = 0;
};

Footprint Measure(size_t n)
{
    Footprint f;
    for (size_t i = 0; i < n; ++i) {
        std::string proc = "/proc/" + std::to_string(PidOf(i));
        std::istringstream rollup(ReadText(proc + "/smaps_rollup"));
        std::string key;
        long value;
        while (rollup >> key) {
            if (key == "Pss:" && rollup >> value)
                f.pssKb += value;
        }
        if (DIR *d = opendir((proc + "/fd").c_str())) {
            while (const dirent *e = readdir(d))
                f.fds += e->d_name[0] != '.';
            closedir(d);
        }
        f.environBytes += static_cast<long>(ReadText(proc + "/environ").size());
    }
    return f;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : (v[(v.size() - 1) / 2] + v[v.size() / 2]) / 2;
}

void SetUp(size_t maxN)
{
    std::string lans;
    for (size_t i = 0; i < maxN; ++i)
        lans += std::string(i ? ", " : "") + "{ \"ifname\": \"" + IfName(i) + "\", \"vpnId\": " +
                std::to_string(InZone(i) ? kZoneId : 0) + " }";
    kqbench::WriteHostSettings(kDir, lans);
    MustRun(std::string("ip netns add ") + kZone);
    for (bool zone : {false, true}) {
        const std::string batch = std::string(kDir) + "/links.batch";
        std::ofstream out(batch);
        for (size_t i = 0; i < maxN; ++i) {
            if (zone && !InZone(i))
                continue;
            out << "link add " << IfName(i) << " type veth peer name " << IfName(i) << "p\n"
                << "addr add 192.0.2.1/24 dev " << IfName(i) << "\n"
                << "link set " << IfName(i) << "p up\n"
                << "link set " << IfName(i) << " up\n";
        }
        out.close();
        MustRun(std::string("ip ") + (zone ? std::string("-n ") + kZone + " " : "") + "-batch " + batch);
    }
    g_ownNs = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    g_zoneNs = open((std::string("/run/netns/") + kZone).c_str(), O_RDONLY | O_CLOEXEC);
    if (g_ownNs < 0 || g_zoneNs < 0)
        Die("cannot open the namespaces");
}

}  // namespace

int main(int argc, char **argv)
{
    kqbench::RequireIsolation(argv[0]);
    size_t rounds = 5;
    std::vector<size_t> sizes = {1, 10, 50, 100};
    std::string outPath;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string key = argv[i];
        if (key == "--rounds")
            rounds = static_cast<size_t>(atoi(argv[i + 1]));
        else if (key == "--out")
            outPath = argv[i + 1];
        else if (key == "--sizes") {
            sizes.clear();
            std::istringstream list(argv[i + 1]);
            for (std::string n; std::getline(list, n, ',');)
                sizes.push_back(static_cast<size_t>(atoi(n.c_str())));
        } else
            Die("unknown option " + key);
    }
    const size_t maxN = *std::max_element(sizes.begin(), sizes.end());
    SetUp(maxN);

    std::map<size_t, std::map<std::string, std::vector<Sample>>> samples;
    Footprint moduleFp, bareFp;
    for (size_t round = 0; round < rounds; ++round) {
        // Sizes in turn, the order reversed every other round; the floor before the module's
        // runs in one round and after them in the next.
        std::vector<size_t> order = sizes;
        if (round % 2 == 1)
            std::reverse(order.begin(), order.end());
        for (size_t n : order) {
            auto &s = samples[n];
            if (round % 2 == 0) {
                s["bringup"].push_back(BringUp(n));
                if (n == maxN && round == 0)
                    moduleFp = Measure(n);
                StopAll(n);
                s["restore"].push_back(Restore(n));
                StopAll(n);
                s["floor"].push_back(Floor(n));
                if (n == maxN && round == 0)
                    bareFp = Measure(n);
                StopAll(n);
            } else {
                // The floor needs the dnsmasq files of this size: the module writes them.
                s["bringup"].push_back(BringUp(n));
                StopAll(n);
                s["floor"].push_back(Floor(n));
                StopAll(n);
                s["restore"].push_back(Restore(n));
                StopAll(n);
            }
        }
    }

    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    printf("%zu rounds, load average now %.2f %.2f %.2f\n", rounds, load[0], load[1], load[2]);
    printf("%6s %16s %16s %16s %10s %10s %14s %14s\n", "LANs", "bring-up ms", "restore ms", "floor ms",
           "up/floor", "rest/floor", "up CPU ms", "restore CPU ms");
    std::ostringstream json;
    json << "{ \"rounds\": " << rounds << ", \"load\": [" << load[0] << ", " << load[1] << ", " << load[2]
         << "], \"sizes\": {";
    for (size_t k = 0; k < sizes.size(); ++k) {
        size_t n = sizes[k];
        auto med = [&](const char *kind, bool cpu) {
            std::vector<double> v;
            for (const Sample &x : samples[n][kind])
                v.push_back(cpu ? x.cpuMs : x.wallMs);
            return Median(v);
        };
        double up = med("bringup", false), rest = med("restore", false), floor = med("floor", false);
        printf("%6zu %16.1f %16.1f %16.1f %10.2f %10.2f %14.1f %14.1f\n", n, up, rest, floor, up / floor,
               rest / floor, med("bringup", true), med("restore", true));
        json << (k ? ", " : "") << "\"" << n << "\": { \"bringup_ms\": " << up << ", \"restore_ms\": " << rest
             << ", \"floor_ms\": " << floor << ", \"bringup_cpu_ms\": " << med("bringup", true)
             << ", \"restore_cpu_ms\": " << med("restore", true) << " }";
    }
    printf("%zu dnsmasq: PSS %.1f MB started by the module, %.1f MB started bare; descriptors %ld vs %ld; "
           "environment %ld vs %ld bytes\n",
           maxN, moduleFp.pssKb / 1024.0, bareFp.pssKb / 1024.0, moduleFp.fds, bareFp.fds, moduleFp.environBytes,
           bareFp.environBytes);
    json << "}, \"footprint\": { \"dnsmasq\": " << maxN << ", \"pss_kb_module\": " << moduleFp.pssKb
         << ", \"pss_kb_bare\": " << bareFp.pssKb << ", \"fds_module\": " << moduleFp.fds
         << ", \"fds_bare\": " << bareFp.fds << ", \"environ_bytes_module\": " << moduleFp.environBytes
         << ", \"environ_bytes_bare\": " << bareFp.environBytes << " } }\n";
    if (!outPath.empty())
        std::ofstream(outPath) << json.str();
    // No dnsmasq may outlive the run: it would keep the namespaces alive.
    StopAll(maxN);
    system((std::string("ip netns del ") + kZone).c_str());
    return 0;
}
