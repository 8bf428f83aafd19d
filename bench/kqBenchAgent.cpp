// The agent end to end, with real dnsmasq: `kqagent serve` bringing up N LANs from nothing
// through one apply, changing one of them, and restoring all N after a reboot, each against
// the floor of the same N dnsmasq started bare; and an agent restart with every service
// running.
//
// Bring-up: no desired state, dhcp.conf or services.json, nothing running; the agent
// started and READY, then one apply of N IPv4 servers sent through its control socket,
// timed until the answer has come and every LAN's dnsmasq has its DHCP socket bound. Then,
// with the same agent, one change at a time through the socket, each timed until its
// answer, with the agent's CPU time for it: an add of LAN N (a LAN beyond the size, with
// its own veth), a lease change of LAN 0, and the delete of LAN N, each kChanges times.
//
// Restore: the agent and every dnsmasq gone and their pid files removed, while the
// desired state, services.json, dhcp.conf and the dnsmasq files stay (what a reboot
// leaves). Timed from starting `kqagent serve` until every LAN's dnsmasq has its DHCP
// socket bound (port 67 in /proc/net/udp of its namespace), and until the agent reports
// READY through sd_notify. Floor: the same N dnsmasq command lines started one after
// another straight from the right namespace (setns, posix_spawn, wait), timed the same
// way. Both are watched by a second thread that reads /proc/net/udp at a period of a
// two-hundredth of the time elapsed, so the watching costs both the same and adds at most
// half a percent.
//
// Restart: with all N running under the agent, SIGTERM it and start it again; timed until
// READY and until its control socket answers a command; the dnsmasq pids (and start
// times) before and after tell how many were restarted.
//
// Every other LAN lives in the zone namespace "vpn1"; one veth pair per LAN, made once.
// Each size has its own settings, desired state and dhcp.conf, made once through
// `kqagent apply` of one file with N IPv4 servers. Rounds are interleaved (restore and
// floor in turn, the order swapped every round); each figure is a median, with the
// 1-minute load average taken just before each sample. The ratio held to the target is
// the median of each round's restore over the floor taken beside it.
//
// The growth exponent of a figure between two sizes is log(figure ratio) / log(size ratio).
// KQ_BENCH_PERF=PREFIX records the agent during the first round's changes of each size
// (perf record -g -p, PREFIX.<N>.data), to tell where a change's CPU goes.
//
//   kqbench_agent [--rounds R] [--sizes 50,200,1000,2000] [--restart-rounds R] [--out results.json]
//                 [--agent PATH] [--phase restore|restart|all]
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifndef KQ_BENCH_AGENT
#define KQ_BENCH_AGENT "kqagent"
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kDir[] = "/etc/kqbench-agent";  // settings, desired state, dhcp.conf: on the /etc filesystem
constexpr char kRunDir[] = "/run/kqbench-agent";
constexpr char kZone[] = "vpn1";
constexpr unsigned kZoneId = 1;

std::string g_agent = KQ_BENCH_AGENT;

std::string IfName(size_t i) { return "lan" + std::to_string(i); }
bool InZone(size_t i) { return i % 2 == 1; }
std::string PidFile(size_t i) { return "/var/run/vyr_dhcpd_" + IfName(i) + ".pid"; }
std::string SizeDir(size_t n) { return std::string(kDir) + "/" + std::to_string(n); }
std::string HostConfig(size_t n) { return SizeDir(n) + "/host.json"; }
std::string SocketPath(size_t n) { return std::string(kRunDir) + "/agent" + std::to_string(n) + ".sock"; }
std::string NotifyPath() { return std::string(kRunDir) + "/notify.sock"; }

pid_t g_agentPid = -1;  // the agent that runs, if one does
void StopAll();

// Nothing may outlive the run: an agent or a dnsmasq left behind would outlive the
// isolation's mounts too, and write to the machine's own /etc.
[[noreturn]] void Die(const std::string &what)
{
    fprintf(stderr, "kqbench_agent: %s\n", what.c_str());
    if (g_agentPid > 0) {
        kill(g_agentPid, SIGKILL);
        waitpid(g_agentPid, nullptr, 0);
        g_agentPid = -1;
    }
    StopAll();
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

void WriteText(const std::string &path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
    out.close();
    if (!out)
        Die("cannot write " + path);
}

double MsSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

double Load1()
{
    double load[1] = {0};
    getloadavg(load, 1);
    return load[0];
}

pid_t PidOf(size_t i) { return static_cast<pid_t>(atol(ReadText(PidFile(i)).c_str())); }

// Field 22 of /proc/<pid>/stat, after the command name (which may hold blanks).
unsigned long long StartTime(pid_t pid)
{
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    size_t at = stat.rfind(')');
    if (at == std::string::npos)
        return 0;
    for (int field = 3; field < 22 && at != std::string::npos; ++field)
        at = stat.find(' ', at + 1);
    return at == std::string::npos ? 0 : strtoull(stat.c_str() + at + 1, nullptr, 10);
}

size_t g_maxN = 0;  // LANs made; a smaller size must not find the others' dnsmasq running

// Every LAN's dnsmasq killed and gone, pid files removed. Only while no agent runs: an
// agent would start them again.
void StopAll()
{
    const size_t n = g_maxN;
    std::vector<int> pidfds;
    for (size_t i = 0; i < n; ++i) {
        const pid_t pid = PidOf(i);
        if (pid > 0) {
            const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
            if (pidfd >= 0 && kill(pid, SIGKILL) == 0)
                pidfds.push_back(pidfd);
            else if (pidfd >= 0)
                close(pidfd);
        }
        unlink(PidFile(i).c_str());
    }
    for (int pidfd : pidfds) {
        pollfd p = {pidfd, POLLIN, 0};
        poll(&p, 1, 5000);
        close(pidfd);
    }
}

// /proc/net/udp of this namespace and of the zone, opened once; the file keeps the
// namespace it was opened in and is read again from its start.
int g_ownNs = -1, g_zoneNs = -1, g_ownUdp = -1, g_zoneUdp = -1;

void EnterNs(int fd)
{
    if (setns(fd, CLONE_NEWNET) != 0)
        Die(std::string("setns failed: ") + strerror(errno));
}

size_t Port67Sockets(int fd)
{
    static thread_local std::string text;
    text.clear();
    char buffer[65536];
    if (lseek(fd, 0, SEEK_SET) != 0)
        Die("cannot rewind /proc/net/udp");
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got <= 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
    }
    size_t count = 0;
    // Each line: "  sl  local_address rem_address ...", the local port in hex after a colon.
    for (size_t at = text.find('\n'); at != std::string::npos && at + 1 < text.size();) {
        const size_t end = text.find('\n', at + 1);
        const std::string_view line(text.data() + at + 1, (end == std::string::npos ? text.size() : end) - at - 1);
        const size_t colon = line.find(':');  // after the slot number
        const size_t local = line.find_first_not_of(' ', colon + 1);
        if (colon != std::string::npos && local != std::string::npos && line.compare(local + 8, 5, ":0043") == 0)
            ++count;
        at = end;
    }
    return count;
}

// Polls until the N LANs' dnsmasq all listen, each in its own namespace, with a period of a
// two-hundredth of the time elapsed (at least 1 ms). Returns the time from t0 in ms.
double WaitListening(size_t n, Clock::time_point t0, const std::atomic<bool> *failed = nullptr)
{
    const size_t inZone = n / 2, outside = n - inZone;
    // Generous: a machine shared with builds can take 150 ms and more per dnsmasq start.
    const auto limit = std::chrono::seconds(60) + std::chrono::milliseconds(500) * n;
    for (;;) {
        const size_t here = Port67Sockets(g_ownUdp), zone = Port67Sockets(g_zoneUdp);
        if (here >= outside && zone >= inZone)
            return MsSince(t0);
        if (Clock::now() - t0 > limit || (failed != nullptr && *failed))
            Die("dnsmasq not listening: " + std::to_string(here) + "/" + std::to_string(outside) + " here, " +
                std::to_string(zone) + "/" + std::to_string(inZone) + " in the zone");
        const double elapsed = MsSince(t0);
        usleep(static_cast<useconds_t>(std::max(1000.0, elapsed * 1000 / 200)));
    }
}

// ---- The agent ----------------------------------------------------------------------

int g_notify = -1;  // where the agent's sd_notify messages arrive

void OpenNotifySocket()
{
    g_notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", NotifyPath().c_str());
    unlink(address.sun_path);
    if (g_notify < 0 || bind(g_notify, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        Die("cannot bind " + NotifyPath());
}

void DrainNotify()
{
    char buffer[4096];
    while (recv(g_notify, buffer, sizeof(buffer), MSG_DONTWAIT) > 0) {
    }
}

// Waits for READY=1 from the agent; its time from t0 in ms.
double WaitReady(pid_t agent, Clock::time_point t0, double limitMs)
{
    char buffer[4096];
    for (;;) {
        pollfd p = {g_notify, POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            const ssize_t got = recv(g_notify, buffer, sizeof(buffer) - 1, MSG_DONTWAIT);
            if (got > 0) {
                buffer[got] = '\0';
                if (strstr(buffer, "READY=1") != nullptr)
                    return MsSince(t0);
            }
        }
        int status = 0;
        if (waitpid(agent, &status, WNOHANG) == agent) {
            g_agentPid = -1;  // reaped already
            Die("the agent ended before it was ready (status " + std::to_string(status) + ")");
        }
        if (MsSince(t0) > limitMs)
            Die("the agent was not ready within " + std::to_string(static_cast<long>(limitMs)) + " ms");
    }
}

struct Agent {
    pid_t pid = -1;
    size_t n = 0;
    std::string out, err;
};

Agent StartAgent(size_t n, const std::string &tag)
{
    Agent agent;
    agent.n = n;
    agent.out = std::string(kRunDir) + "/" + tag + ".out";
    agent.err = std::string(kRunDir) + "/" + tag + ".err";
    const char *path = getenv("PATH");
    std::string envPath = std::string("PATH=") + (path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    std::string envConfig = "KQ_HOST_CONFIG=" + HostConfig(n);
    std::string envNotify = "NOTIFY_SOCKET=" + NotifyPath();
    char *envp[] = {envPath.data(), envConfig.data(), envNotify.data(), nullptr};
    std::string program = g_agent, serve = "serve";
    char *argv[] = {program.data(), serve.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, agent.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, agent.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    const int err = posix_spawn(&agent.pid, argv[0], &actions, nullptr, argv, envp);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0)
        Die("cannot start " + g_agent + ": " + strerror(err));
    g_agentPid = agent.pid;
    return agent;
}

// The agent's own CPU time so far (its children excluded), in ms: the scheduler's
// nanoseconds of each of its threads, finer than the clock ticks of /proc/PID/stat.
double AgentCpuMs(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    double ms = 0;
    if (DIR *d = opendir(tasks.c_str())) {
        while (const dirent *e = readdir(d))
            if (e->d_name[0] != '.')
                ms += strtod(ReadText(tasks + "/" + e->d_name + "/schedstat").c_str(), nullptr) / 1e6;
        closedir(d);
    }
    return ms;
}

// What the agent handed to write() so far, in bytes ("wchar" of /proc/PID/io): unlike its
// CPU time on a shared machine, the same for the same work.
double AgentWrittenBytes(pid_t pid)
{
    const std::string io = ReadText("/proc/" + std::to_string(pid) + "/io");
    const size_t at = io.find("wchar: ");
    return at == std::string::npos ? 0 : strtod(io.c_str() + at + 7, nullptr);
}

// SIGTERM and wait; the time it took in ms.
double StopAgent(Agent &agent)
{
    const auto t0 = Clock::now();
    kill(agent.pid, SIGTERM);
    int status = 0;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, agent.pid, 0));
    pollfd p = {pidfd, POLLIN, 0};
    if (pidfd < 0 || poll(&p, 1, 30000) != 1)
        Die("the agent did not end within 30 s of SIGTERM");
    close(pidfd);
    if (waitpid(agent.pid, &status, 0) != agent.pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        Die("the agent ended with status " + std::to_string(status) + "; see " + agent.err);
    agent.pid = -1;
    g_agentPid = -1;
    return MsSince(t0);
}

// "services: K kept running, S started" from the agent's stdout.
bool ServicesLine(const Agent &agent, long &kept, long &started)
{
    const std::string text = ReadText(agent.out);
    const size_t at = text.find("services: ");
    return at != std::string::npos && sscanf(text.c_str() + at, "services: %ld kept running, %ld started", &kept, &started) == 2;
}

// Text as a JSON string, quotes included.
std::string Quoted(const std::string &text)
{
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        if (c == '\n')
            quoted += "\\n";
        else
            quoted += c;
    }
    return quoted + "\"";
}

// One command through the control socket, as the kqagent commands send theirs; its answer
// line, "" when there is none.
std::string Command(size_t n, const std::vector<std::string> &argv, const std::string &fileText)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", SocketPath(n).c_str());
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        if (fd >= 0)
            close(fd);
        return "";
    }
    std::string line = "{\"argv\":[";
    for (size_t i = 0; i < argv.size(); ++i)
        line += (i ? "," : "") + Quoted(argv[i]);
    line += "],\"fileText\":" + Quoted(fileText) + ",\"logLevel\":3}\n";
    bool answered = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    shutdown(fd, SHUT_WR);
    std::string answer;
    char buffer[4096];
    for (ssize_t got; answered && (got = read(fd, buffer, sizeof(buffer))) > 0;)
        answer.append(buffer, static_cast<size_t>(got));
    close(fd);
    return answered ? answer : "";
}

// True when the agent answers. The command is one the agent does not know: its answer (a
// usage error) costs the agent nothing, so the time is the socket's, not a command's.
bool AskAgent(size_t n)
{
    return Command(n, {"ping"}, "").find("\"exit\"") != std::string::npos;
}

// An apply through the agent; dies unless it answers with exit 0.
void Apply(size_t n, const std::string &what, const std::string &text)
{
    const std::string answer = Command(n, {"apply", SizeDir(n) + "/" + what + ".json"}, text);
    if (answer.find("\"exit\":0") == std::string::npos && answer.find("\"exit\": 0") == std::string::npos)
        Die(what + " at " + std::to_string(n) + " LANs failed: " + answer);
}

// ---- Set-up -------------------------------------------------------------------------

std::string AddRequest(size_t i, unsigned lease = 86400)
{
    return "{ \"op\": \"add\", \"item\": { \"ifname\": \"" + IfName(i) +
           "\", \"ipv4dhcpitem\": { \"mode\": \"server\", \"dhcpserver\": { \"dhcpiprange\": [ { \"begin\": "
           "\"192.0.2.100\", \"len\": 100 } ], \"netmask\": \"255.255.255.0\", \"gateway\": \"192.0.2.1\", "
           "\"dns\": [ \"192.0.2.53\", \"198.51.100.53\" ], \"leasetime\": " + std::to_string(lease) + " } } } }";
}

std::string RequestFile(size_t n)
{
    std::string text = "{ \"requests\": [\n";
    for (size_t i = 0; i < n; ++i)
        text += std::string(i ? ",\n" : "") + AddRequest(i);
    return text + "\n] }\n";
}

std::string OneRequest(const std::string &request) { return "{ \"requests\": [ " + request + " ] }\n"; }

void WriteSettings(size_t n)
{
    MustRun("mkdir -p " + SizeDir(n));
    std::string lans;
    for (size_t i = 0; i <= n; ++i)  // LAN N: the one a change adds and deletes
        lans += std::string(i ? ", " : "") + "{ \"ifname\": \"" + IfName(i) + "\", \"vpnId\": " +
                std::to_string(InZone(i) ? kZoneId : 0) + " }";
    WriteText(HostConfig(n), "{ \"dhcpConf\": \"" + SizeDir(n) + "/dhcp.conf\", \"dhcpConfBak\": \"" + SizeDir(n) +
                                 "/dhcp.conf.bak\", \"controlSocket\": \"" + SocketPath(n) + "\", \"netns\": { \"" +
                                 std::to_string(kZoneId) + "\": \"" + kZone + "\" }, \"lans\": [" + lans + "] }\n");
}

void MakeLans(size_t maxN)
{
    const auto t0 = Clock::now();
    MustRun(std::string("ip netns add ") + kZone);
    for (bool zone : {false, true}) {
        const std::string batch = std::string(kRunDir) + "/links.batch";
        std::ofstream out(batch);
        for (size_t i = 0; i < maxN; ++i) {
            if (zone != InZone(i))
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
    g_ownUdp = open("/proc/thread-self/net/udp", O_RDONLY | O_CLOEXEC);
    EnterNs(g_zoneNs);
    g_zoneUdp = open("/proc/thread-self/net/udp", O_RDONLY | O_CLOEXEC);
    EnterNs(g_ownNs);
    if (g_ownUdp < 0 || g_zoneUdp < 0)
        Die("cannot open /proc/net/udp");
    printf("%zu veth pairs in %.1f s\n", maxN, MsSince(t0) / 1000);
}

// ---- Measurements -------------------------------------------------------------------

struct Sample {
    double ms = 0, readyMs = 0, cpuMs = 0, load = 0;
};

// A reboot: nothing runs, no pid files; the agent starts from its files.
Sample Restore(size_t n)
{
    StopAll();
    DrainNotify();
    Sample s;
    s.load = Load1();
    const auto t0 = Clock::now();
    Agent agent = StartAgent(n, "restore" + std::to_string(n));
    s.ms = WaitListening(n, t0);
    s.readyMs = WaitReady(agent.pid, t0, 60000 + 500.0 * static_cast<double>(n));
    s.cpuMs = AgentCpuMs(agent.pid);
    long kept = -1, started = -1;
    if (!ServicesLine(agent, kept, started) || kept != 0 || started != static_cast<long>(n))
        Die("restore of " + std::to_string(n) + ": the agent reports " + std::to_string(kept) + " kept, " +
            std::to_string(started) + " started; see " + agent.out);
    StopAgent(agent);
    return s;
}

// The same N dnsmasq command lines as the module's, started straight from their namespace:
// no agent, no module, no ip.
Sample Floor(size_t n)
{
    StopAll();
    const char *agentPath = getenv("PATH");
    // The environment the reference host gives its children: PATH alone.
    std::string path = std::string("PATH=") + (agentPath != nullptr ? agentPath : "");
    Sample s;
    s.load = Load1();
    std::atomic<bool> failed{false};
    std::atomic<double> cpuMs{0};
    const auto t0 = Clock::now();
    std::thread starter([&] {
        char *envp[] = {path.data(), nullptr};
        for (size_t i = 0; i < n && !failed; ++i) {
            const std::string name = IfName(i);
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
            // setns changes this thread's namespace only; the child is made in it.
            if (InZone(i))
                EnterNs(g_zoneNs);
            pid_t pid = -1;
            const int err = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp);
            if (InZone(i))
                EnterNs(g_ownNs);
            posix_spawn_file_actions_destroy(&actions);
            int status = 0;
            if (err != 0 || waitpid(pid, &status, 0) != pid || status != 0) {
                fprintf(stderr, "kqbench_agent: bare dnsmasq of %s failed\n", name.c_str());
                failed = true;
            }
        }
        timespec cpu{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        cpuMs = cpu.tv_sec * 1e3 + cpu.tv_nsec / 1e6;
    });
    s.ms = WaitListening(n, t0, &failed);
    starter.join();
    if (failed)
        Die("the floor of " + std::to_string(n) + " failed");
    s.cpuMs = cpuMs;
    s.readyMs = s.ms;
    return s;
}

struct Change {
    double wallMs = 0, cpuMs = 0;
};

struct BringUp {
    Sample sample;                          // ms: until answered and all listening; cpuMs: the agent's
    std::map<std::string, std::vector<Change>> changes;  // "add", "lease", "delete"
    // All the changes' agent CPU, what the agent did between them and just after included
    // (reaping, services.json, timers), per change: the medians above see only each
    // answer's own window.
    double allChangesCpuMs = 0;
    double writtenKbPerChange = 0;  // bytes the agent wrote over all changes, per change
};

constexpr size_t kChanges = 15;

// From nothing: no state files, nothing running. One apply of N adds through a fresh agent,
// then kChanges of each change through the same agent; the agent is stopped at the end,
// its dnsmasq left running.
BringUp BringUpAndChange(size_t n, bool profile)
{
    StopAll();
    for (const char *file : {"desired.json", "services.json", "dhcp.conf", "dhcp.conf.bak"})
        unlink((SizeDir(n) + "/" + file).c_str());
    DrainNotify();
    Agent agent = StartAgent(n, "bringup" + std::to_string(n));
    WaitReady(agent.pid, Clock::now(), 60000);
    BringUp result;
    result.sample.load = Load1();
    const std::string requests = RequestFile(n);
    const double cpu0 = AgentCpuMs(agent.pid);
    const auto t0 = Clock::now();
    std::atomic<double> answeredMs{0};
    std::thread apply([&] {
        Apply(n, "requests", requests);
        answeredMs = MsSince(t0);
    });
    const double listening = WaitListening(n, t0);
    apply.join();
    result.sample.ms = std::max(listening, answeredMs.load());
    result.sample.readyMs = answeredMs;
    result.sample.cpuMs = AgentCpuMs(agent.pid) - cpu0;

    const char *perfPrefix = getenv("KQ_BENCH_PERF");
    pid_t perf = -1;
    if (profile && perfPrefix != nullptr && perfPrefix[0] != '\0') {
        const std::string out = std::string(perfPrefix) + "." + std::to_string(n) + ".data", pid = std::to_string(agent.pid);
        const char *argv[] = {"perf", "record", "-q", "--no-inherit", "-F", "4000", "-g", "-p", pid.c_str(), "-o", out.c_str(), nullptr};
        if (posix_spawnp(&perf, "perf", nullptr, nullptr, const_cast<char **>(argv), environ) != 0)
            Die("cannot start perf");
        usleep(500000);  // perf attached
    }
    const std::string add = OneRequest(AddRequest(n)),
                      del = OneRequest("{ \"op\": \"delete\", \"item\": { \"ifname\": \"" + IfName(n) + "\" } }");
    const double all0 = AgentCpuMs(agent.pid), written0 = AgentWrittenBytes(agent.pid);
    for (size_t k = 0; k < kChanges; ++k) {
        const std::string lease = OneRequest(AddRequest(0, k % 2 == 0 ? 43200 : 86400));
        for (const auto &[what, text] : {std::pair{"add", &add}, {"lease", &lease}, {"delete", &del}}) {
            const double cpu = AgentCpuMs(agent.pid);
            const auto c0 = Clock::now();
            Apply(n, what, *text);
            result.changes[what].push_back({MsSince(c0), AgentCpuMs(agent.pid) - cpu});
        }
    }
    usleep(1500000);  // what the agent defers after a change is done
    result.allChangesCpuMs = (AgentCpuMs(agent.pid) - all0) / (3 * kChanges);
    result.writtenKbPerChange = (AgentWrittenBytes(agent.pid) - written0) / 1024 / (3 * kChanges);
    if (perf > 0) {
        kill(perf, SIGINT);
        waitpid(perf, nullptr, 0);
    }
    StopAgent(agent);
    return result;
}

struct RestartSample {
    double stopMs = 0, readyMs = 0, answerMs = 0, cpuMs = 0, load = 0;
    long kept = -1, started = -1, restarted = 0;
};

struct Running {
    pid_t pid;
    unsigned long long start;
};

std::vector<Running> Snapshot(size_t n)
{
    std::vector<Running> all;
    for (size_t i = 0; i < n; ++i) {
        const pid_t pid = PidOf(i);
        all.push_back({pid, pid > 0 ? StartTime(pid) : 0});
    }
    return all;
}

// The agent runs with every service; SIGTERM, start again, and count what it replaced.
RestartSample Restart(Agent &agent)
{
    const size_t n = agent.n;
    RestartSample s;
    const std::vector<Running> before = Snapshot(n);
    s.load = Load1();
    s.stopMs = StopAgent(agent);
    DrainNotify();
    const auto t0 = Clock::now();
    agent = StartAgent(n, "restart" + std::to_string(n));
    s.readyMs = WaitReady(agent.pid, t0, 60000 + 500.0 * static_cast<double>(n));
    while (!AskAgent(n)) {
        if (MsSince(t0) > 60000 + 500.0 * static_cast<double>(n))
            Die("the restarted agent does not answer on " + SocketPath(n));
        usleep(1000);
    }
    s.answerMs = MsSince(t0);
    s.cpuMs = AgentCpuMs(agent.pid);
    ServicesLine(agent, s.kept, s.started);
    const std::vector<Running> after = Snapshot(n);
    for (size_t i = 0; i < n; ++i)
        s.restarted += before[i].pid != after[i].pid || before[i].start != after[i].start || after[i].pid <= 0;
    return s;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : (v[(v.size() - 1) / 2] + v[v.size() / 2]) / 2;
}

template <typename T, typename F>
double MedianOf(const std::vector<T> &samples, F field)
{
    std::vector<double> v;
    for (const T &s : samples)
        v.push_back(field(s));
    return Median(v);
}

template <typename T>
std::pair<double, double> LoadRange(const std::vector<T> &samples)
{
    double low = 1e9, high = 0;
    for (const T &s : samples)
        low = std::min(low, s.load), high = std::max(high, s.load);
    return {samples.empty() ? 0 : low, high};
}

std::vector<size_t> ParseSizes(const char *text)
{
    std::vector<size_t> sizes;
    std::istringstream list(text);
    for (std::string n; std::getline(list, n, ',');)
        if (atoi(n.c_str()) > 0)
            sizes.push_back(static_cast<size_t>(atoi(n.c_str())));
    return sizes;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *isolated = getenv("KQ_ISOLATED");
    if (isolated == nullptr || isolated[0] != '1') {
        fprintf(stderr, "%s writes /etc and /run: run it through scripts/isolate --net (scripts/bench does)\n", argv[0]);
        return 2;
    }
    size_t rounds = 3, restartRounds = 5;
    std::vector<size_t> sizes = {50, 200, 1000, 2000};
    std::string outPath, phase = "all";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        if (key == "--rounds")
            rounds = static_cast<size_t>(atoi(argv[i + 1]));
        else if (key == "--restart-rounds")
            restartRounds = static_cast<size_t>(atoi(argv[i + 1]));
        else if (key == "--sizes")
            sizes = ParseSizes(argv[i + 1]);
        else if (key == "--out")
            outPath = argv[i + 1];
        else if (key == "--agent")
            g_agent = argv[i + 1];
        else if (key == "--phase")
            phase = argv[i + 1];
        else
            Die("unknown option " + key);
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);  // progress lines as they come, also into a file
    if (sizes.empty() || access(g_agent.c_str(), X_OK) != 0)
        Die("no sizes, or no agent at " + g_agent);
    const bool restores = phase != "restart", restarts = phase != "restore";
    const size_t maxN = *std::max_element(sizes.begin(), sizes.end());
    g_maxN = maxN + 1;  // and the LAN that the changes add and delete
    MustRun(std::string("mkdir -p ") + kDir + " " + kRunDir);
    OpenNotifySocket();
    printf("load average at the start: %.2f\n", Load1());
    MakeLans(maxN + 1);
    for (size_t n : sizes)
        WriteSettings(n);

    // Rounds interleaved: bring-up (with the changes), restore and floor of each size in
    // turn, the floor first in every other round. The first bring-up of a size writes the
    // dnsmasq files that the floor starts.
    std::map<size_t, std::vector<Sample>> bringupSamples, restoreSamples, floorSamples;
    std::map<size_t, std::map<std::string, std::vector<Change>>> changeSamples;
    std::map<size_t, std::vector<double>> allChangesSamples, writtenSamples;
    const size_t measured = restores ? rounds : 0;
    for (size_t round = 0; round < measured; ++round) {
        std::vector<size_t> order = sizes;
        if (round % 2 == 1)
            std::reverse(order.begin(), order.end());
        for (size_t n : order) {
            if (round % 2 == 1)
                floorSamples[n].push_back(Floor(n));
            BringUp up = BringUpAndChange(n, round == 0);
            bringupSamples[n].push_back(up.sample);
            for (auto &[what, changes] : up.changes)
                changeSamples[n][what].insert(changeSamples[n][what].end(), changes.begin(), changes.end());
            allChangesSamples[n].push_back(up.allChangesCpuMs);
            writtenSamples[n].push_back(up.writtenKbPerChange);
            restoreSamples[n].push_back(Restore(n));
            if (round % 2 == 0)
                floorSamples[n].push_back(Floor(n));
            auto cpu = [&](const char *what) { return MedianOf(up.changes[what], [](const Change &c) { return c.cpuMs; }); };
            printf("round %zu, %zu LANs: bring-up %.1f ms (agent CPU %.1f), restore %.1f ms (ready %.1f), floor %.1f ms; "
                   "change CPU add / lease / delete %.2f / %.2f / %.2f ms, all changes %.2f ms and %.1f KB written each; "
                   "load %.2f\n",
                   round + 1, n, up.sample.ms, up.sample.cpuMs, restoreSamples[n].back().ms,
                   restoreSamples[n].back().readyMs, floorSamples[n].back().ms, cpu("add"), cpu("lease"), cpu("delete"),
                   up.allChangesCpuMs, up.writtenKbPerChange, Load1());
            fflush(stdout);
        }
    }
    if (!restores)
        BringUpAndChange(maxN, false);  // the restarts' configuration
    StopAll();

    std::vector<RestartSample> restartSamples;
    if (restarts) {
        // Every service running under the agent, as after any start.
        DrainNotify();
        Agent agent = StartAgent(maxN, "running" + std::to_string(maxN));
        WaitListening(maxN, Clock::now());
        WaitReady(agent.pid, Clock::now(), 60000 + 500.0 * static_cast<double>(maxN));
        for (size_t round = 0; round < restartRounds; ++round) {
            restartSamples.push_back(Restart(agent));
            const RestartSample &s = restartSamples.back();
            printf("restart %zu at %zu LANs (agent pid %d): stop %.1f ms, ready %.1f ms, answer %.1f ms, agent CPU %.1f ms, "
                   "%ld kept / %ld started by its count, %ld dnsmasq replaced, load %.2f\n",
                   round + 1, maxN, static_cast<int>(agent.pid), s.stopMs, s.readyMs, s.answerMs, s.cpuMs, s.kept, s.started, s.restarted, s.load);
            fflush(stdout);
        }
        StopAgent(agent);
        StopAll();
    }

    std::ostringstream json;
    json << "{ \"rounds\": " << rounds << ", \"restart_rounds\": " << restartRounds << ", \"sizes\": {";
    std::map<size_t, std::map<std::string, double>> figures;  // per size, for the exponents
    if (restores) {
        printf("\n%6s %10s %10s %10s %9s %9s %10s %10s %24s %24s %12s\n", "LANs", "bring-up", "restore", "floor",
               "up/floor", "rest/fl", "up CPU", "rest CPU", "change wall ms", "change agent CPU ms", "load");
        printf("%6s %10s %10s %10s %9s %9s %10s %10s %24s %24s\n", "", "ms", "ms", "ms", "per round", "per round", "ms",
               "ms", "add / lease / delete", "add / lease / delete");
        bool first = true;
        for (size_t n : sizes) {
            const auto &u = bringupSamples[n], &r = restoreSamples[n], &f = floorSamples[n];
            // Each round's figure against the floor taken beside it: the machine's load
            // moves both alike within a round, and far more from one round to the next.
            auto perRound = [&](const std::vector<Sample> &v) {
                std::vector<double> ratios;
                for (size_t k = 0; k < v.size() && k < f.size(); ++k)
                    ratios.push_back(v[k].ms / f[k].ms);
                return Median(ratios);
            };
            auto &fig = figures[n];
            fig["bringup_ms"] = MedianOf(u, [](const Sample &s) { return s.ms; });
            fig["bringup_answer_ms"] = MedianOf(u, [](const Sample &s) { return s.readyMs; });
            fig["restore_ms"] = MedianOf(r, [](const Sample &s) { return s.ms; });
            fig["ready_ms"] = MedianOf(r, [](const Sample &s) { return s.readyMs; });
            fig["floor_ms"] = MedianOf(f, [](const Sample &s) { return s.ms; });
            fig["bringup_ratio_per_round"] = perRound(u);
            fig["ratio_per_round"] = perRound(r);
            fig["bringup_cpu_ms"] = MedianOf(u, [](const Sample &s) { return s.cpuMs; });
            fig["agent_cpu_ms"] = MedianOf(r, [](const Sample &s) { return s.cpuMs; });
            fig["floor_cpu_ms"] = MedianOf(f, [](const Sample &s) { return s.cpuMs; });
            for (const char *what : {"add", "lease", "delete"}) {
                fig[std::string(what) + "_wall_ms"] = MedianOf(changeSamples[n][what], [](const Change &c) { return c.wallMs; });
                fig[std::string(what) + "_cpu_ms"] = MedianOf(changeSamples[n][what], [](const Change &c) { return c.cpuMs; });
            }
            fig["changes_cpu_ms"] = Median(allChangesSamples[n]);
            fig["changes_written_kb"] = Median(writtenSamples[n]);
            std::vector<Sample> all = u;
            all.insert(all.end(), r.begin(), r.end());
            all.insert(all.end(), f.begin(), f.end());
            const auto [low, high] = LoadRange(all);
            fig["load_min"] = low;
            fig["load_max"] = high;
            char wall[64], cpu[64];
            snprintf(wall, sizeof(wall), "%.1f / %.1f / %.1f", fig["add_wall_ms"], fig["lease_wall_ms"], fig["delete_wall_ms"]);
            snprintf(cpu, sizeof(cpu), "%.2f / %.2f / %.2f", fig["add_cpu_ms"], fig["lease_cpu_ms"], fig["delete_cpu_ms"]);
            printf("%6zu %10.1f %10.1f %10.1f %9.3f %9.3f %10.1f %10.1f %24s %24s %5.2f-%5.2f\n", n, fig["bringup_ms"],
                   fig["restore_ms"], fig["floor_ms"], fig["bringup_ratio_per_round"], fig["ratio_per_round"],
                   fig["bringup_cpu_ms"], fig["agent_cpu_ms"], wall, cpu, low, high);
            json << (first ? "" : ", ") << "\"" << n << "\": {";
            for (const auto &[key, value] : fig)
                json << " \"" << key << "\": " << value << ",";
            auto list = [&](const char *key, const std::vector<double> &v) {
                json << " \"" << key << "\": [";
                for (size_t k = 0; k < v.size(); ++k)
                    json << (k ? ", " : "") << v[k];
                json << "]";
            };
            std::vector<double> ups, restoresMs, floors, loads;
            for (const Sample &s : u)
                ups.push_back(s.ms);
            for (const Sample &s : r)
                restoresMs.push_back(s.ms);
            for (const Sample &s : f)
                floors.push_back(s.ms);
            for (const Sample &s : all)
                loads.push_back(s.load);
            list("bringup_samples", ups);
            json << ",";
            list("restore_samples", restoresMs);
            json << ",";
            list("floor_samples", floors);
            json << ",";
            list("loads", loads);
            json << " }";
            first = false;
        }
        // Growth: figure ~ N^k between consecutive sizes.
        std::vector<size_t> bySize = sizes;
        std::sort(bySize.begin(), bySize.end());
        printf("\ngrowth exponents (figure ~ N^k) between consecutive sizes\n%12s %9s %9s %9s %9s %9s %9s %9s\n", "sizes",
               "bring-up", "restore", "floor", "up CPU", "add CPU", "lease CPU", "del CPU");
        json << "}, \"growth\": {";
        for (size_t k = 1; k < bySize.size(); ++k) {
            const size_t a = bySize[k - 1], b = bySize[k];
            auto exponent = [&](const char *key) {
                const double x = figures[a][key], y = figures[b][key];
                return x > 0 && y > 0 ? std::log(y / x) / std::log(static_cast<double>(b) / static_cast<double>(a)) : 0.0;
            };
            printf("%5zu-%-6zu %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f\n", a, b, exponent("bringup_ms"),
                   exponent("restore_ms"), exponent("floor_ms"), exponent("bringup_cpu_ms"), exponent("add_cpu_ms"),
                   exponent("lease_cpu_ms"), exponent("delete_cpu_ms"));
            json << (k > 1 ? ", " : "") << "\"" << a << "-" << b << "\": { \"bringup_ms\": " << exponent("bringup_ms")
                 << ", \"restore_ms\": " << exponent("restore_ms") << ", \"floor_ms\": " << exponent("floor_ms")
                 << ", \"add_cpu_ms\": " << exponent("add_cpu_ms") << ", \"lease_cpu_ms\": " << exponent("lease_cpu_ms")
                 << ", \"delete_cpu_ms\": " << exponent("delete_cpu_ms") << " }";
        }
    }
    json << "}";
    if (restarts && !restartSamples.empty()) {
        long worst = 0, kept = maxN, started = 0;
        for (const RestartSample &s : restartSamples) {
            worst = std::max(worst, s.restarted);
            kept = std::min(kept, s.kept);
            started = std::max(started, s.started);
        }
        const double ready = MedianOf(restartSamples, [](const RestartSample &s) { return s.readyMs; });
        const double answer = MedianOf(restartSamples, [](const RestartSample &s) { return s.answerMs; });
        const double stop = MedianOf(restartSamples, [](const RestartSample &s) { return s.stopMs; });
        const double cpu = MedianOf(restartSamples, [](const RestartSample &s) { return s.cpuMs; });
        const auto [low, high] = LoadRange(restartSamples);
        printf("\nrestart at %zu LANs (%zu rounds): stop %.1f ms, ready %.1f ms, answer %.1f ms, agent CPU %.1f ms; "
               "dnsmasq replaced: at most %ld; agent's count: at least %ld kept, at most %ld started; load %.2f-%.2f\n",
               maxN, restartSamples.size(), stop, ready, answer, cpu, worst, kept, started, low, high);
        json << ", \"restart\": { \"lans\": " << maxN << ", \"stop_ms\": " << stop << ", \"ready_ms\": " << ready
             << ", \"answer_ms\": " << answer << ", \"agent_cpu_ms\": " << cpu << ", \"restarted_max\": " << worst
             << ", \"kept_min\": " << kept << ", \"started_max\": " << started << ", \"load_min\": " << low
             << ", \"load_max\": " << high << ", \"ready_samples\": [";
        for (size_t k = 0; k < restartSamples.size(); ++k)
            json << (k ? ", " : "") << restartSamples[k].readyMs;
        json << "] }";
    }
    json << " }\n";
    if (!outPath.empty())
        std::ofstream(outPath) << json.str();
    // No dnsmasq may outlive the run: it would keep the namespaces alive.
    StopAll();
    system((std::string("ip netns del ") + kZone).c_str());
    return 0;
}
