// Lab helpers: real dnsmasq, ISC dhclient and kqagent in network namespaces that the test
// makes inside its own isolated one (scripts/isolate --net, as ctest runs it). A set-up
// step that cannot go on throws std::runtime_error with the command and its output:
// GoogleTest fails the test with that text, and every RAII object made so far cleans up.
#pragma once

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kqHostLinux.h"

using namespace std::chrono_literals;

namespace lab {

// Runs Cmd through /bin/sh; returns its exit status (128 + signal), its stdout in *Out.
int Sh(const std::string &Cmd, std::string *Out = nullptr);

// Cmd's stdout and stderr; throws unless it exits 0.
inline std::string MustSh(const std::string &Cmd)
{
    std::string out;
    if (const int status = Sh("{ " + Cmd + "\n} 2>&1", &out); status != 0)
        throw std::runtime_error("command failed (status " + std::to_string(status) + "): " + Cmd + "\n" + out);
    return out;
}

inline std::string InNs(const std::string &Ns) { return Ns.empty() ? "" : "ip netns exec " + Ns + " "; }

// What this machine lacks for the lab (dnsmasq, dhclient, ip, the isolation, which needs
// root, and the extra commands named), "" when nothing.
inline std::string Missing(const std::string &Commands = "")
{
    std::string missing;
    Sh("for c in /usr/sbin/dnsmasq /sbin/dhclient ip " + Commands + "; do command -v $c >/dev/null || printf ' %s' $c; done", &missing);
    const char *isolated = getenv("KQ_ISOLATED");
    return missing + (isolated != nullptr && std::string(isolated) == "1" ? "" : " isolation (run through scripts/isolate --net, as ctest does)");
}

// First statement of a lab test: a lab that cannot run fails the test under CI=true and
// skips it elsewhere, never silently.
#define LAB_REQUIRE(Commands)                                                                   \
    if (const std::string labMissing_ = ::lab::Missing(Commands); !labMissing_.empty()) {       \
        if (getenv("CI") != nullptr && std::string(getenv("CI")) == "true")                     \
            GTEST_FAIL() << "lab prerequisites missing under CI: " << labMissing_;              \
        GTEST_SKIP() << "lab prerequisites missing: " << labMissing_;                           \
    }

// Whether Text holds Piece, saying which and showing Text: EXPECT_TRUE(lab::Has(out, "...")).
inline ::testing::AssertionResult Has(const std::string &Text, const std::string &Piece)
{
    const bool found = Text.find(Piece) != std::string::npos;
    return (found ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << '"' << Piece << (found ? "\" in:\n" : "\" not in:\n") << Text;
}

inline bool WaitFor(const std::function<bool()> &Cond, std::chrono::milliseconds Timeout = 10s)
{
    for (auto deadline = std::chrono::steady_clock::now() + Timeout; !Cond(); std::this_thread::sleep_for(50ms))
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    return true;
}

// A fresh folder under /etc (an overlay of the isolation), removed with all it holds.
struct TempDir {
    TempDir()
    {
        if (mkdtemp(Path.data()) == nullptr)
            throw std::runtime_error("mkdtemp " + Path + ": " + strerror(errno));
        chmod(Path.c_str(), 0755);  // daemons that drop privileges still reach their files
    }
    ~TempDir() { std::error_code ec; std::filesystem::remove_all(Path, ec); }
    TempDir(const TempDir &) = delete;
    std::string File(const std::string &Name) const { return Path + "/" + Name; }
    std::string Path = "/etc/kq-lab-XXXXXX";
};

inline void WriteFile(const std::string &Path, const std::string &Text)
{
    std::ofstream out(Path, std::ios::binary | std::ios::trunc);
    if (!(out << Text).flush())
        throw std::runtime_error("cannot write " + Path);
}

inline std::optional<std::string> ReadFile(const std::string &Path)
{
    std::ifstream in(Path, std::ios::binary);
    std::ostringstream text;
    if (!in)
        return std::nullopt;
    text << in.rdbuf();
    return text.str();
}

inline std::string Text(const std::string &Path) { return ReadFile(Path).value_or(""); }

// Text with every From replaced by To (no patterns: <regex> doubles a test's compile time).
inline std::string Replaced(std::string Text, const std::string &From, const std::string &To)
{
    for (size_t at = Text.find(From); at != std::string::npos; at = Text.find(From, at + To.size()))
        Text.replace(at, From.size(), To);
    return Text;
}

inline std::optional<pid_t> ReadPid(const std::string &PidFile)
{
    const long pid = atol(Text(PidFile).c_str());
    return pid > 0 ? std::optional<pid_t>(static_cast<pid_t>(pid)) : std::nullopt;
}

// Whether Pid exists and is no zombie (reaping our own child once it has ended).
bool Alive(pid_t Pid);

// Whether address text A (IPv4 or IPv6) lies within [First, Last].
inline bool InRange(const std::string &A, const std::string &First, const std::string &Last)
{
    const int family = A.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    unsigned char x[16], lo[16], hi[16];
    const size_t n = family == AF_INET ? 4 : 16;
    return inet_pton(family, A.c_str(), x) == 1 && inet_pton(family, First.c_str(), lo) == 1 &&
           inet_pton(family, Last.c_str(), hi) == 1 && memcmp(lo, x, n) <= 0 && memcmp(x, hi, n) <= 0;
}

// A named network namespace with lo up and duplicate address detection off, so addresses
// are usable at once. Its processes are killed and it is deleted on destruction.
struct Netns {
    explicit Netns(const std::string &Name) : Name(Name)
    {
        MustSh("ip netns add " + Name + " && ip -n " + Name + " link set lo up && " + InNs(Name) +
               "sysctl -qw net.ipv6.conf.default.accept_dad=0");
    }
    ~Netns() { Sh("ip netns pids " + Name + " | xargs -r kill -9; ip netns del " + Name); }
    Netns(const Netns &) = delete;
    std::string Name;
};

// A veth pair, up, each end in its namespace ("" = the test's own) with its addresses
// (CIDR); returns once both ends have a usable IPv6 link-local address.
void Veth(const std::string &ANs, const std::string &A, const std::vector<std::string> &AAddrs,
          const std::string &BNs, const std::string &B, const std::vector<std::string> &BAddrs = {});

// Live processes of the test's own network namespace whose command line holds Needle.
std::vector<pid_t> Procs(const std::string &Needle);
void KillAll(const std::string &Needle);  // SIGKILLs Procs(Needle) and waits until they are gone

// Daemons that leave the test's control (the relay, agents, their clients) go, however the
// test ends.
struct Sweep {
    ~Sweep()
    {
        for (const char *daemon : {KQAGENT_PATH " ", "/usr/sbin/dnsmasq ", "dhclient "})
            KillAll(daemon);
    }
};

// A child running command line Cmd (no quoting) inside Ns ("" = the test's own), output
// appended to Log. Stop (and destruction) sends SIGTERM, then SIGKILL after 2 s, and reaps it.
struct Child {
    Child(const std::string &Ns, const std::string &Cmd, const std::string &Log = "");
    ~Child() { Stop(); }
    Child(const Child &) = delete;
    bool Running();
    void Stop();
    pid_t Pid = -1;
    std::optional<int> Status;  // as from waitpid, once ended
};

// dnsmasq in the foreground inside Ns with configuration Conf, logging to <dir>/<name>.log.
struct Dnsmasq : Child {
    Dnsmasq(const std::string &Ns, const TempDir &Dir, const std::string &Name, const std::string &Conf);
    std::string Log;
};

// The value of the last "<field> value;" line of a dhclient lease file.
inline std::optional<std::string> LeaseField(const std::string &LeaseFile, const std::string &Field)
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

// ISC dhclient in the foreground on IfName inside Ns; Mode is "-4", "-6" or "-S"
// (information only). Its lease and log files are in Dir; the default script configures
// the address it gets.
struct Dhclient : Child {
    Dhclient(const std::string &Ns, const std::string &IfName, const TempDir &Dir, const std::string &Mode,
             const std::string &Script = "")
        : Child(Ns,
                "/sbin/dhclient " + std::string(Mode == "-4" ? "-4" : "-6") + (Mode == "-S" ? " -S" : "") + " -d -v -pf " +
                    Dir.File(IfName + Mode + ".pid") + " -lf " + Dir.File(IfName + Mode + ".leases") +
                    (Script.empty() ? "" : " -sf " + Script) + " " + IfName,
                Dir.File(IfName + Mode + ".log")),
          Lease(Dir.File(IfName + Mode + ".leases")), Log(Dir.File(IfName + Mode + ".log"))
    {
    }
    // The lease's Field once it is there.
    std::optional<std::string> Wait(const std::string &Field, std::chrono::milliseconds Timeout = 30s) const
    {
        std::optional<std::string> value;
        WaitFor([&] { return (value = LeaseField(Lease, Field)).has_value(); }, Timeout);
        return value;
    }
    std::string Lease, Log;
};

// Points the reference host at <dir>/kqhost.json: dhcp.conf in Dir, every log line, then
// Settings (more JSON members; a repeated key takes the later value).
inline void UseHost(const TempDir &Dir, const std::string &Settings = "")
{
    WriteFile(Dir.File("kqhost.json"), "{\"dhcpConf\": \"" + Dir.File("dhcp.conf") + "\", \"dhcpConfBak\": \"" +
                                           Dir.File("dhcp.conf.bak") + "\", \"logLevel\": 1" +
                                           (Settings.empty() ? "" : ", ") + Settings + "}\n");
    setenv("KQ_HOST_CONFIG", Dir.File("kqhost.json").c_str(), 1);
    KQ_HostReloadConfig();
}

// The built kqagent run as a user runs it.
struct Outcome {
    int Status;
    std::string Out, Err;
};
inline Outcome Kqagent(const TempDir &Dir, const std::string &Args)
{
    const int status = Sh(KQAGENT_PATH " " + Args + " >" + Dir.File("agent.out") + " 2>" + Dir.File("agent.err"));
    return {status, Text(Dir.File("agent.out")), Text(Dir.File("agent.err"))};
}

// `<Agent> serve` as a child, returned once it listens; throws with its log otherwise.
inline std::unique_ptr<Child> Serve(const std::string &Agent, const std::string &Log)
{
    auto agent = std::make_unique<Child>("", Agent + " serve", Log);
    if (!WaitFor([&] { return Has(Text(Log), "kqagent: listening on "); }, 30s))
        throw std::runtime_error("the agent did not start listening:\n" + Text(Log));
    return agent;
}

// The JSON text at a dotted path ("interfaces.0.zone") of document Doc, "absent" if none.
std::string JsonAt(const std::string &Doc, const std::string &Path);

}  // namespace lab
