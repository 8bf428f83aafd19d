#include "labutil.h"

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

#include <algorithm>

#include <json-c/json.h>

extern char **environ;

namespace lab {

int Sh(const std::string &Cmd, std::string *Out)
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

bool Alive(pid_t Pid)
{
    waitpid(Pid, nullptr, WNOHANG);
    const std::string stat = Text("/proc/" + std::to_string(Pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return Pid > 0 && paren != std::string::npos && stat.compare(paren, 3, ") Z") != 0;
}

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
    const std::string show = "{ " + InNs(ANs) + "ip -6 addr show dev " + A + "; " + InNs(BNs) + "ip -6 addr show dev " + B + "; }";
    if (!WaitFor([&] { return Sh("test $(" + show + " | grep -c 'scope link') = 2 && ! " + show + " | grep -q tentative") == 0; }))
        throw std::runtime_error(A + " and " + B + " have no usable IPv6 link-local addresses:\n" + MustSh(show));
}

std::vector<pid_t> Procs(const std::string &Needle)
{
    std::string out;
    Sh("pgrep -f -- '" + Needle + "'", &out);  // also finds its own shell, gone once Sh returns
    std::vector<pid_t> found;
    std::istringstream pids(out);
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/ns/net", ec);
    for (pid_t pid; pids >> pid && self != std::filesystem::read_symlink("/proc/1/ns/net", ec);)  // never the machine's
        if (pid != getpid() && pid != getppid() && std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/ns/net", ec) == self && Alive(pid))
            found.push_back(pid);
    return found;
}

void KillAll(const std::string &Needle)
{
    const std::vector<pid_t> pids = Procs(Needle);
    for (pid_t pid : pids)
        kill(pid, SIGKILL);
    WaitFor([&] { return std::none_of(pids.begin(), pids.end(), Alive); }, 2s);
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
        throw std::runtime_error("cannot start " + line + ": " + strerror(err));
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
    for (int signal : {SIGTERM, SIGKILL})
        if (Running() && kill(Pid, signal) == 0)
            WaitFor([&] { return !Running(); }, 2s);
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
        throw std::runtime_error("dnsmasq " + Name + " exited at once:\n" + Conf + Text(Log));
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

}  // namespace lab
