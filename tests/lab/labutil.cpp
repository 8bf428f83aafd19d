// Lab test utilities: see labutil.h.
#include "labutil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include <json-c/json.h>

#include "kqHostLinux.h"

extern char **environ;

namespace lab {
namespace {

int DecodeStatus(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

// Runs /bin/sh -c cmd; with out non-null, its stdout is collected there.
int RunShell(const std::string &cmd, std::string *out)
{
    if (out == nullptr) {
        const char *argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
        pid_t pid;
        if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ) != 0)
            return -1;
        int status = 0;
        while (waitpid(pid, &status, 0) < 0)
            if (errno != EINTR)
                return -1;
        return DecodeStatus(status);
    }
    FILE *pipe = popen(cmd.c_str(), "re");
    if (pipe == nullptr)
        return -1;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        out->append(chunk, n);
    int status = pclose(pipe);
    return status < 0 ? -1 : DecodeStatus(status);
}

std::vector<std::string> Words(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    std::string w;
    while (in >> w)
        words.push_back(w);
    return words;
}

struct NsId {
    dev_t dev;
    ino_t ino;
    bool operator<(const NsId &o) const { return dev != o.dev ? dev < o.dev : ino < o.ino; }
    bool operator==(const NsId &o) const { return dev == o.dev && ino == o.ino; }
};

std::optional<NsId> NsOf(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return NsId{st.st_dev, st.st_ino};
}

// The network namespaces this test owns; empty when it is not isolated.
std::set<NsId> OwnedNamespaces()
{
    std::set<NsId> owned;
    const char *isolated = getenv("KQ_ISOLATED");
    if (isolated == nullptr || strcmp(isolated, "1") != 0)
        return owned;
    std::optional<NsId> init = NsOf("/proc/1/ns/net");
    if (std::optional<NsId> self = NsOf("/proc/self/ns/net"))
        owned.insert(*self);
    // /run is a tmpfs private to this isolate, so every name in /run/netns is ours.
    if (DIR *dir = opendir("/run/netns")) {
        while (struct dirent *e = readdir(dir)) {
            if (e->d_name[0] == '.')
                continue;
            if (std::optional<NsId> ns = NsOf(std::string("/run/netns/") + e->d_name))
                owned.insert(*ns);
        }
        closedir(dir);
    }
    // Whatever happens, never the machine's own namespace.
    if (init)
        owned.erase(*init);
    return owned;
}

void Reap(pid_t pid)
{
    int status;
    waitpid(pid, &status, WNOHANG);
}

}  // namespace

// ---- Shell ---------------------------------------------------------------------------

int Sh(const std::string &cmd)
{
    return RunShell(cmd, nullptr);
}

std::string ShOut(const std::string &cmd)
{
    std::string out;
    RunShell(cmd, &out);
    return out;
}

std::string MustSh(const std::string &cmd)
{
    std::string out;
    int status = RunShell("{ " + cmd + "\n} 2>&1", &out);
    if (status != 0)
        throw Error("command failed (status " + std::to_string(status) + "): " + cmd + "\n" + out);
    return out;
}

std::string Quote(const std::string &text)
{
    std::string q = "'";
    for (char c : text) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

std::string InNs(const std::string &ns)
{
    return ns.empty() ? "" : "ip netns exec " + Quote(ns) + " ";
}

// ---- Prerequisites -------------------------------------------------------------------

std::string MissingLabPrerequisites()
{
    std::vector<std::string> missing;
    if (geteuid() != 0)
        missing.push_back("root");
    if (access("/usr/sbin/dnsmasq", X_OK) != 0)
        missing.push_back("/usr/sbin/dnsmasq (package dnsmasq-base)");
    if (access("/sbin/dhclient", X_OK) != 0)
        missing.push_back("/sbin/dhclient (package isc-dhcp-client)");
    if (Sh("command -v ip >/dev/null 2>&1 || test -x /usr/sbin/ip || test -x /sbin/ip") != 0)
        missing.push_back("ip (package iproute2)");
    const char *isolated = getenv("KQ_ISOLATED");
    if (isolated == nullptr || strcmp(isolated, "1") != 0)
        missing.push_back("isolation (run through scripts/isolate --net, as ctest does)");
    std::string text;
    for (const std::string &m : missing)
        text += (text.empty() ? "" : ", ") + m;
    return text;
}

bool InCi()
{
    const char *ci = getenv("CI");
    return ci != nullptr && strcmp(ci, "true") == 0;
}

// ---- Files ---------------------------------------------------------------------------

TempDir::TempDir(const std::string &prefix, const std::string &base)
{
    std::string pattern = base + "/" + prefix + "XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw Error("mkdtemp " + pattern + ": " + strerror(errno));
    // Daemons that drop privileges still reach their files here.
    chmod(pattern.c_str(), 0755);
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out)
        throw Error("cannot write " + path);
}

std::optional<std::string> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// ---- Namespaces and links ------------------------------------------------------------

Netns::Netns(std::string name) : name_(std::move(name))
{
    lab::MustSh("ip netns add " + Quote(name_));
    try {
        lab::MustSh("ip -n " + Quote(name_) + " link set lo up");
    } catch (...) {
        lab::Sh("ip netns del " + Quote(name_));
        throw;
    }
}

Netns::~Netns()
{
    std::string q = Quote(name_);
    lab::Sh("ip netns pids " + q + " 2>/dev/null | xargs -r kill -9");
    WaitFor([&] { return lab::ShOut("ip netns pids " + q + " 2>/dev/null").empty(); },
            std::chrono::seconds(2));
    if (lab::Sh("ip netns del " + q) != 0)
        fprintf(stderr, "lab: could not delete network namespace %s\n", name_.c_str());
}

int Netns::Sh(const std::string &cmd) const
{
    return lab::Sh(InNs(name_) + "sh -c " + Quote(cmd));
}

std::string Netns::ShOut(const std::string &cmd) const
{
    return lab::ShOut(InNs(name_) + "sh -c " + Quote(cmd));
}

std::string Netns::MustSh(const std::string &cmd) const
{
    return lab::MustSh(InNs(name_) + "sh -c " + Quote(cmd));
}

namespace {
std::string IpIn(const std::string &ns)
{
    return ns.empty() ? "ip " : "ip -n " + Quote(ns) + " ";
}
std::string NetnsArg(const std::string &ns)
{
    return ns.empty() ? "" : " netns " + Quote(ns);
}
}  // namespace

void VethPair(const std::string &aNs, const std::string &aIf, const std::string &bNs,
              const std::string &bIf)
{
    MustSh("ip link add name " + Quote(aIf) + NetnsArg(aNs) + " type veth peer name " +
           Quote(bIf) + NetnsArg(bNs));
    LinkUp(aNs, aIf);
    LinkUp(bNs, bIf);
}

void AddAddr(const std::string &ns, const std::string &ifname, const std::string &cidr)
{
    bool v6 = cidr.find(':') != std::string::npos;
    MustSh(IpIn(ns) + "addr add " + Quote(cidr) + " dev " + Quote(ifname) + (v6 ? " nodad" : ""));
}

void LinkUp(const std::string &ns, const std::string &ifname)
{
    MustSh(IpIn(ns) + "link set " + Quote(ifname) + " up");
}

void DisableDad(const std::string &ns, const std::string &ifname)
{
    MustSh(InNs(ns) + "sysctl -qw net.ipv6.conf.default.accept_dad=0 " +
           Quote("net.ipv6.conf." + ifname + ".accept_dad=0"));
}

bool WaitIpv6Ready(const std::string &ns, const std::string &ifname, std::chrono::milliseconds timeout)
{
    return WaitFor(
        [&] {
            bool linkLocal = false;
            for (const IfAddr &a : Addresses(ns, ifname)) {
                if (a.family != AF_INET6)
                    continue;
                if (a.tentative)
                    return false;
                linkLocal = linkLocal || a.scope == "link";
            }
            return linkLocal;
        },
        timeout);
}

std::vector<IfAddr> Addresses(const std::string &ns, const std::string &ifname)
{
    std::vector<IfAddr> result;
    std::istringstream lines(ShOut(IpIn(ns) + "-o addr show dev " + Quote(ifname) + " 2>/dev/null"));
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> w = Words(line);
        for (size_t i = 0; i + 1 < w.size(); i++) {
            if (w[i] != "inet" && w[i] != "inet6")
                continue;
            IfAddr a{w[i] == "inet" ? AF_INET : AF_INET6, w[i + 1], w[i] == "inet" ? 32 : 128, false, ""};
            size_t slash = a.address.find('/');
            if (slash != std::string::npos) {
                a.prefixLen = atoi(a.address.c_str() + slash + 1);
                a.address.resize(slash);
            }
            for (size_t j = i + 2; j < w.size(); j++) {
                if (w[j] == "scope" && j + 1 < w.size())
                    a.scope = w[j + 1];
                if (w[j] == "tentative" || w[j] == "dadfailed")
                    a.tentative = true;
            }
            result.push_back(a);
            break;
        }
    }
    return result;
}

bool AddrInRange(const std::string &a, const std::string &first, const std::string &last)
{
    int family = a.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    unsigned char x[16], lo[16], hi[16];
    if (inet_pton(family, a.c_str(), x) != 1 || inet_pton(family, first.c_str(), lo) != 1 ||
        inet_pton(family, last.c_str(), hi) != 1)
        return false;
    size_t n = family == AF_INET ? 4 : 16;
    return memcmp(lo, x, n) <= 0 && memcmp(x, hi, n) <= 0;
}

// ---- Waiting and processes -----------------------------------------------------------

bool WaitFor(const std::function<bool()> &cond, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::optional<pid_t> ReadPidFile(const std::string &path)
{
    std::optional<std::string> text = ReadFile(path);
    if (!text)
        return std::nullopt;
    char *end = nullptr;
    long pid = strtol(text->c_str(), &end, 10);
    if (end == text->c_str() || pid <= 0 || pid > INT32_MAX)
        return std::nullopt;
    return static_cast<pid_t>(pid);
}

bool ProcessAlive(pid_t pid)
{
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM))
        return false;
    std::optional<std::string> stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    if (!stat)
        return false;
    size_t paren = stat->rfind(')');
    return paren == std::string::npos || paren + 2 >= stat->size() || (*stat)[paren + 2] != 'Z';
}

int KillAll(const char *comm)
{
    std::set<NsId> owned = OwnedNamespaces();
    std::vector<pid_t> killed;
    if (DIR *proc = opendir("/proc")) {
        while (struct dirent *e = readdir(proc)) {
            char *end = nullptr;
            long pid = strtol(e->d_name, &end, 10);
            if (*end != '\0' || pid <= 0 || pid == getpid())
                continue;
            std::string dir = std::string("/proc/") + e->d_name;
            std::optional<std::string> name = ReadFile(dir + "/comm");
            if (!name || (name->empty() ? "" : name->substr(0, name->size() - 1)) != comm)
                continue;
            std::optional<NsId> ns = NsOf(dir + "/ns/net");
            if (!ns || owned.count(*ns) == 0)
                continue;
            if (kill(static_cast<pid_t>(pid), SIGKILL) == 0)
                killed.push_back(static_cast<pid_t>(pid));
        }
        closedir(proc);
    }
    WaitFor(
        [&] {
            bool any = false;
            for (pid_t pid : killed) {
                Reap(pid);
                any = any || ProcessAlive(pid);
            }
            return !any;
        },
        std::chrono::seconds(2));
    return static_cast<int>(killed.size());
}

Child::Child(const std::string &ns, const std::vector<std::string> &argv, const std::string &logFile)
{
    std::vector<std::string> words;
    if (!ns.empty())
        words = {"ip", "netns", "exec", ns};
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char *> args;
    for (std::string &w : words)
        args.push_back(w.data());
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (!logFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    int err = posix_spawnp(&pid_, args[0], &actions, &attr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        pid_ = -1;
        std::string line;
        for (const std::string &w : words)
            line += (line.empty() ? "" : " ") + w;
        throw Error("cannot start " + line + ": " + strerror(err));
    }
}

Child::~Child()
{
    Stop();
}

bool Child::Running()
{
    if (pid_ <= 0 || status_)
        return false;
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_ || (r < 0 && errno == ECHILD)) {
        status_ = r == pid_ ? status : -1;
        return false;
    }
    return true;
}

void Child::Stop()
{
    if (!Running())
        return;
    kill(pid_, SIGTERM);
    if (!WaitFor([&] { return !Running(); }, std::chrono::seconds(2))) {
        kill(pid_, SIGKILL);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        status_ = status;
    }
}

Dnsmasq::Dnsmasq(const std::string &ns, const TempDir &dir, const std::string &name,
                 const std::string &confText)
    : confPath_(dir.File(name + ".conf")), logPath_(dir.File(name + ".log"))
{
    WriteFile(confPath_, confText);
    child_ = std::make_unique<Child>(
        ns,
        std::vector<std::string>{"/usr/sbin/dnsmasq", "-k", "--conf-file=" + confPath_,
                                 "--log-facility=" + logPath_, "--log-dhcp", "--user=root",
                                 "--pid-file=" + dir.File(name + ".pid"),
                                 "--dhcp-leasefile=" + dir.File(name + ".leases")},
        logPath_);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    if (!child_->Running())
        throw Error("dnsmasq " + name + " exited at once; its configuration:\n" + confText +
                    "its log:\n" + Log());
}

std::string Dnsmasq::Log() const
{
    return ReadFile(logPath_).value_or("");
}

Dhclient::Dhclient(const std::string &ns, const std::string &ifname, Mode mode, const TempDir &dir,
                   const std::string &script)
{
    std::string tag = mode == Mode::V4 ? "dhclient" : "dhclient6";
    pidFile_ = dir.File(ifname + "." + tag + ".pid");
    leaseFile_ = dir.File(ifname + "." + tag + ".leases");
    logFile_ = dir.File(ifname + "." + tag + ".log");
    std::vector<std::string> argv = {"/sbin/dhclient", mode == Mode::V4 ? "-4" : "-6"};
    if (mode == Mode::V6Stateless)
        argv.push_back("-S");
    for (const char *a : {"-d", "-v", "-pf"})
        argv.push_back(a);
    argv.push_back(pidFile_);
    argv.push_back("-lf");
    argv.push_back(leaseFile_);
    if (!script.empty()) {
        argv.push_back("-sf");
        argv.push_back(script);
    }
    argv.push_back(ifname);
    child_ = std::make_unique<Child>(ns, argv, logFile_);
}

std::optional<std::string> LeaseField(const std::string &leaseFile, const std::string &field)
{
    std::optional<std::string> text = ReadFile(leaseFile);
    if (!text)
        return std::nullopt;
    std::optional<std::string> value;
    std::istringstream lines(*text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line.compare(start, field.size(), field) != 0)
            continue;
        size_t after = start + field.size();
        if (after >= line.size() || (line[after] != ' ' && line[after] != '\t'))
            continue;
        std::string v = line.substr(after);
        size_t first = v.find_first_not_of(" \t");
        size_t last = v.find_last_not_of(" \t;{");
        value = first == std::string::npos || last < first ? "" : v.substr(first, last - first + 1);
    }
    return value;
}

// ---- Reference host settings ---------------------------------------------------------

HostConfig::HostConfig(const TempDir &dir, HostSettings settings)
    : dir_(dir.Path()), path_(dir.File("kqhost.json")), settings_(std::move(settings))
{
    if (const char *before = getenv("KQ_HOST_CONFIG"))
        previous_ = before;
    Apply();
}

HostConfig::~HostConfig()
{
    if (previous_)
        setenv("KQ_HOST_CONFIG", previous_->c_str(), 1);
    else
        unsetenv("KQ_HOST_CONFIG");
    KQ_HostReloadConfig();
}

void HostConfig::Update(HostSettings settings)
{
    settings_ = std::move(settings);
    Apply();
}

void HostConfig::Apply()
{
    if (settings_.dhcpConf.empty())
        settings_.dhcpConf = dir_ + "/dhcp.conf";
    if (settings_.dhcpConfBak.empty())
        settings_.dhcpConfBak = dir_ + "/dhcp.conf.bak";
    json_object *doc = json_object_new_object();
    json_object_object_add(doc, "dhcpConf", json_object_new_string(settings_.dhcpConf.c_str()));
    json_object_object_add(doc, "dhcpConfBak", json_object_new_string(settings_.dhcpConfBak.c_str()));
    json_object *lans = json_object_new_array();
    for (const auto &[ifname, vpnId] : settings_.lans) {
        json_object *lan = json_object_new_object();
        json_object_object_add(lan, "ifname", json_object_new_string(ifname.c_str()));
        json_object_object_add(lan, "vpnId", json_object_new_int64(vpnId));
        json_object_array_add(lans, lan);
    }
    json_object_object_add(doc, "lans", lans);
    json_object *netns = json_object_new_object();
    for (const auto &[vpnId, name] : settings_.netns)
        json_object_object_add(netns, std::to_string(vpnId).c_str(), json_object_new_string(name.c_str()));
    json_object_object_add(doc, "netns", netns);
    json_object_object_add(doc, "logLevel", json_object_new_int(settings_.logLevel));
    json_object_object_add(doc, "logTo", json_object_new_string(settings_.logTo.c_str()));
    json_object *v6 = json_object_new_array();
    for (const std::string &ifname : settings_.dhcpv6Interfaces)
        json_object_array_add(v6, json_object_new_string(ifname.c_str()));
    json_object_object_add(doc, "dhcpv6Interfaces", v6);
    std::string text = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PRETTY);
    json_object_put(doc);
    WriteFile(path_, text + "\n");
    setenv("KQ_HOST_CONFIG", path_.c_str(), 1);
    KQ_HostReloadConfig();
}

std::map<pid_t, std::string> OwnDnsmasq()
{
    std::map<pid_t, std::string> found;
    char self[PATH_MAX] = {0};
    if (readlink("/proc/self/ns/net", self, sizeof(self) - 1) < 0)
        return found;
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (struct dirent *e = readdir(proc)) {
        pid_t pid = atoi(e->d_name);
        std::string base = std::string("/proc/") + e->d_name;
        char ns[PATH_MAX] = {0};
        if (pid <= 0 || readlink((base + "/ns/net").c_str(), ns, sizeof(ns) - 1) < 0 || strcmp(ns, self) != 0)
            continue;
        std::string cmdline = ReadFile(base + "/cmdline").value_or("");
        for (char &c : cmdline)
            if (c == '\0')
                c = ' ';
        if (cmdline.rfind("/usr/sbin/dnsmasq ", 0) == 0 && ProcessAlive(pid))
            found[pid] = cmdline;
    }
    closedir(proc);
    return found;
}

bool WaitIpv4InRange(const std::string &ns, const std::string &ifname, const std::string &first,
                     const std::string &last, std::chrono::milliseconds timeout)
{
    return WaitFor(
        [&] {
            for (const auto &a : Addresses(ns, ifname))
                if (a.family == AF_INET && AddrInRange(a.address, first, last))
                    return true;
            return false;
        },
        timeout);
}

std::optional<std::string> WaitLeaseField(const std::string &leaseFile, const std::string &field,
                                          std::chrono::milliseconds timeout)
{
    std::optional<std::string> value;
    WaitFor([&] { return (value = LeaseField(leaseFile, field)).has_value(); }, timeout);
    return value;
}

}  // namespace lab
