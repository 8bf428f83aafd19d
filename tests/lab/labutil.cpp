#include "labutil.h"

#include <arpa/inet.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <json-c/json.h>

#include "kqHostLinux.h"

extern char **environ;

namespace lab {

namespace {
int Run(const std::string &Cmd, std::string *Out)
{
    FILE *pipe = popen(Cmd.c_str(), "re");
    if (pipe == nullptr)
        return -1;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;)
        if (Out != nullptr)
            Out->append(chunk, n);
    const int status = pclose(pipe);
    return status < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string InNs(const std::string &Ns) { return Ns.empty() ? "" : "ip netns exec " + Ns + " "; }
}  // namespace

int Sh(const std::string &Cmd) { return Run(Cmd, nullptr); }

std::string ShOut(const std::string &Cmd)
{
    std::string out;
    Run(Cmd, &out);
    return out;
}

std::string MustSh(const std::string &Cmd)
{
    std::string out;
    if (const int status = Run("{ " + Cmd + "\n} 2>&1", &out); status != 0)
        throw Error("command failed (status " + std::to_string(status) + "): " + Cmd + "\n" + out);
    return out;
}

std::string Missing(std::initializer_list<const char *> Commands)
{
    std::string missing = geteuid() == 0 ? "" : " root";
    std::vector<const char *> all = {"/usr/sbin/dnsmasq", "/sbin/dhclient", "ip"};
    all.insert(all.end(), Commands);
    for (const char *c : all)
        missing += Sh(std::string("command -v ") + c + " >/dev/null") == 0 ? "" : std::string(" ") + c;
    if (getenv("KQ_ISOLATED") == nullptr || strcmp(getenv("KQ_ISOLATED"), "1") != 0)
        missing += " isolation (run through scripts/isolate --net, as ctest does)";
    return missing;
}

TempDir::TempDir() : Path("/etc/kq-lab-XXXXXX")
{
    if (mkdtemp(Path.data()) == nullptr)
        throw Error("mkdtemp " + Path + ": " + strerror(errno));
    chmod(Path.c_str(), 0755);  // daemons that drop privileges still reach their files
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(Path, ec);
}

void WriteFile(const std::string &Path, const std::string &Text)
{
    std::ofstream out(Path, std::ios::binary | std::ios::trunc);
    if (!(out << Text).flush())
        throw Error("cannot write " + Path);
}

std::optional<std::string> ReadFile(const std::string &Path)
{
    std::ifstream in(Path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Netns::Netns(std::string Name) : Name(std::move(Name))
{
    MustSh("ip netns add " + this->Name + " && ip -n " + this->Name + " link set lo up && " + InNs(this->Name) +
           "sysctl -qw net.ipv6.conf.default.accept_dad=0");
}

Netns::~Netns() { Sh("ip netns pids " + Name + " | xargs -r kill -9; ip netns del " + Name); }

void Veth(const std::string &ANs, const std::string &A, const std::vector<std::string> &AAddrs,
          const std::string &BNs, const std::string &B, const std::vector<std::string> &BAddrs)
{
    auto in = [](const std::string &ns) { return ns.empty() ? std::string() : " netns " + ns; };
    MustSh("ip link add name " + A + in(ANs) + " type veth peer name " + B + in(BNs));
    for (const auto &[ns, ifname, addrs] : {std::tie(ANs, A, AAddrs), std::tie(BNs, B, BAddrs)}) {
        std::string cmd = InNs(ns) + "sysctl -qw net.ipv6.conf." + ifname + ".accept_dad=0";
        for (const std::string &a : addrs)
            cmd += " && " + InNs(ns) + "ip addr add " + a + " dev " + ifname + (a.find(':') != std::string::npos ? " nodad" : "");
        MustSh(cmd + " && " + InNs(ns) + "ip link set " + ifname + " up");
    }
    for (const auto &[ns, ifname] : {std::tie(ANs, A), std::tie(BNs, B)}) {
        const std::string show = InNs(ns) + "ip -6 addr show dev " + ifname;
        if (!WaitFor([&] {
                const std::string out = ShOut(show);
                return out.find("scope link") != std::string::npos && out.find("tentative") == std::string::npos;
            }))
            throw Error(ifname + " has no usable IPv6 link-local address:\n" + ShOut(show));
    }
}

bool WaitFor(const std::function<bool()> &Cond, std::chrono::milliseconds Timeout)
{
    for (auto deadline = std::chrono::steady_clock::now() + Timeout; !Cond(); std::this_thread::sleep_for(50ms))
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    return true;
}

std::optional<pid_t> ReadPid(const std::string &PidFile)
{
    const long pid = atol(Text(PidFile).c_str());
    return pid > 0 ? std::optional<pid_t>(static_cast<pid_t>(pid)) : std::nullopt;
}

bool Alive(pid_t Pid)
{
    waitpid(Pid, nullptr, WNOHANG);  // reaps our own child once it has ended
    const std::string stat = Text("/proc/" + std::to_string(Pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return Pid > 0 && paren != std::string::npos && stat.compare(paren, 3, ") Z") != 0;
}

bool InRange(const std::string &A, const std::string &First, const std::string &Last)
{
    const int family = A.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    unsigned char x[16], lo[16], hi[16];
    const size_t n = family == AF_INET ? 4 : 16;
    return inet_pton(family, A.c_str(), x) == 1 && inet_pton(family, First.c_str(), lo) == 1 &&
           inet_pton(family, Last.c_str(), hi) == 1 && memcmp(lo, x, n) <= 0 && memcmp(x, hi, n) <= 0;
}

std::vector<pid_t> Procs(const std::string &Needle)
{
    std::vector<pid_t> found;
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/ns/net", ec);
    if (self == std::filesystem::read_symlink("/proc/1/ns/net", ec))
        return found;  // never the machine's own namespace
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t pid = atoi(entry.path().filename().c_str());
        std::string cmdline = Text(entry.path() / "cmdline");
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        if (pid > 0 && pid != getpid() && cmdline.find(Needle) != std::string::npos &&
            std::filesystem::read_symlink(entry.path() / "ns/net", ec) == self && Alive(pid))
            found.push_back(pid);
    }
    return found;
}

void KillAll(const std::string &Needle)
{
    const std::vector<pid_t> pids = Procs(Needle);
    for (pid_t pid : pids)
        kill(pid, SIGKILL);
    WaitFor([&] { return std::none_of(pids.begin(), pids.end(), Alive); }, 2s);
}

Sweep::~Sweep()
{
    for (const char *daemon : {"kqagent", "/usr/sbin/dnsmasq", "dhclient"})
        KillAll(daemon);
}

Child::Child(const std::string &Ns, const std::string &Cmd, const std::string &Log)
{
    const std::string line = "exec " + InNs(Ns) + Cmd + " </dev/null" + (Log.empty() ? "" : " >>" + Log + " 2>&1");
    const char *argv[] = {"/bin/sh", "-c", line.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    const int err = posix_spawn(&Pid, argv[0], &actions, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0)
        throw Error("cannot start " + line + ": " + strerror(err));
}

bool Child::Running()
{
    int status = 0;
    if (!Status && waitpid(Pid, &status, WNOHANG) == Pid)
        Status = status;
    return !Status;
}

void Child::Stop()
{
    if (!Running())
        return;
    kill(Pid, SIGTERM);
    if (!WaitFor([&] { return !Running(); }, 2s)) {
        kill(Pid, SIGKILL);
        WaitFor([&] { return !Running(); });
    }
}

Dnsmasq::Dnsmasq(const std::string &Ns, const TempDir &Dir, const std::string &Name, const std::string &Conf)
    : Child(Ns, (WriteFile(Dir.File(Name + ".conf"), Conf), "/usr/sbin/dnsmasq -k --log-dhcp --user=root --conf-file=") +
                    Dir.File(Name + ".conf") + " --log-facility=" + Dir.File(Name + ".log") + " --pid-file=" +
                    Dir.File(Name + ".pid") + " --dhcp-leasefile=" + Dir.File(Name + ".leases"),
            Dir.File(Name + ".log")),
      Log(Dir.File(Name + ".log"))
{
    std::this_thread::sleep_for(300ms);
    if (!Running())
        throw Error("dnsmasq " + Name + " exited at once:\n" + Conf + Text(Log));
}

Dhclient::Dhclient(const std::string &Ns, const std::string &IfName, const TempDir &Dir, const std::string &Mode,
                   const std::string &Script)
    : Child(Ns,
            "/sbin/dhclient " + std::string(Mode == "-4" ? "-4" : "-6") + (Mode == "-S" ? " -S" : "") + " -d -v -pf " +
                Dir.File(IfName + Mode + ".pid") + " -lf " + Dir.File(IfName + Mode + ".leases") +
                (Script.empty() ? "" : " -sf " + Script) + " " + IfName,
            Dir.File(IfName + Mode + ".log")),
      Lease(Dir.File(IfName + Mode + ".leases")), Log(Dir.File(IfName + Mode + ".log"))
{
}

std::optional<std::string> Dhclient::Wait(const std::string &Field, std::chrono::milliseconds Timeout) const
{
    std::optional<std::string> value;
    WaitFor([&] { return (value = LeaseField(Lease, Field)).has_value(); }, Timeout);
    return value;
}

std::optional<std::string> LeaseField(const std::string &LeaseFile, const std::string &Field)
{
    std::optional<std::string> value;
    std::istringstream lines(Text(LeaseFile));
    for (std::string line; std::getline(lines, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        if (line.rfind(Field + " ", 0) == 0)
            value = line.substr(Field.size() + 1, line.find_last_not_of(" ;{") - Field.size());
    }
    return value;
}

void UseHost(const TempDir &Dir, const std::string &Settings)
{
    WriteFile(Dir.File("kqhost.json"), "{\"dhcpConf\": \"" + Dir.File("dhcp.conf") + "\", \"dhcpConfBak\": \"" +
                                           Dir.File("dhcp.conf.bak") + "\", \"logLevel\": 1" +
                                           (Settings.empty() ? "" : ", ") + Settings + "}\n");
    setenv("KQ_HOST_CONFIG", Dir.File("kqhost.json").c_str(), 1);
    KQ_HostReloadConfig();
}

Outcome Kqagent(const TempDir &Dir, const std::string &Args)
{
    const int status = Sh(KQAGENT_PATH " " + Args + " >" + Dir.File("agent.out") + " 2>" + Dir.File("agent.err"));
    return {status, Text(Dir.File("agent.out")), Text(Dir.File("agent.err"))};
}

std::string JsonAt(const std::string &Doc, const std::string &Path)
{
    std::unique_ptr<json_object, int (*)(json_object *)> doc(json_tokener_parse(Doc.c_str()), json_object_put);
    json_object *at = doc.get();
    std::istringstream steps(Path);
    for (std::string step; at != nullptr && std::getline(steps, step, '.');)
        at = json_object_is_type(at, json_type_array) ? json_object_array_get_idx(at, atoi(step.c_str()))
             : json_object_object_get_ex(at, step.c_str(), &at) ? at : nullptr;
    return at == nullptr ? "absent" : json_object_to_json_string_ext(at, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

std::unique_ptr<Child> Serve(const std::string &Agent, const std::string &Log)
{
    auto agent = std::make_unique<Child>("", Agent + " serve", Log);
    if (!WaitFor([&] { return Text(Log).find("kqagent: listening on ") != std::string::npos; }, 30s))
        throw Error("the agent did not start listening:\n" + Text(Log));
    return agent;
}

}  // namespace lab
