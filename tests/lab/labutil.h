// Lab helpers: real dnsmasq, ISC dhclient and kqagent in network namespaces that the test
// makes inside its own isolated one (scripts/isolate --net, as ctest runs it). A set-up
// step that cannot go on throws lab::Error with the command and its output: GoogleTest
// fails the test with that text, and every RAII object made so far cleans up on the way out.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace lab {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

int Sh(const std::string &Cmd);              // exit status through /bin/sh (128 + signal when killed)
std::string ShOut(const std::string &Cmd);   // what it wrote to stdout
std::string MustSh(const std::string &Cmd);  // stdout and stderr; throws Error unless it exits 0

// What this machine lacks for the lab (root, dnsmasq, dhclient, ip, the isolation, and the
// extra commands named), "" when nothing.
std::string Missing(std::initializer_list<const char *> Commands);
inline bool InCi() { return getenv("CI") != nullptr && strcmp(getenv("CI"), "true") == 0; }

// First statement of a lab test: a lab that cannot run fails the test under CI=true and
// skips it elsewhere, never silently.
#define LAB_REQUIRE(...)                                                                          \
    if (const std::string labMissing_ = ::lab::Missing({__VA_ARGS__}); !labMissing_.empty()) {    \
        if (::lab::InCi())                                                                        \
            GTEST_FAIL() << "lab prerequisites missing under CI: " << labMissing_;                \
        GTEST_SKIP() << "lab prerequisites missing: " << labMissing_;                             \
    }

// A fresh folder under /etc (an overlay of the isolation), removed with all it holds.
struct TempDir {
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    std::string File(const std::string &Name) const { return Path + "/" + Name; }
    std::string Path;
};

void WriteFile(const std::string &Path, const std::string &Text);  // throws Error on failure
std::optional<std::string> ReadFile(const std::string &Path);
inline std::string Text(const std::string &Path) { return ReadFile(Path).value_or(""); }

// A named network namespace with lo up and duplicate address detection off, so addresses
// are usable at once. Its processes are killed and it is deleted on destruction.
struct Netns {
    explicit Netns(std::string Name);
    ~Netns();
    Netns(const Netns &) = delete;
    std::string Name;
};

// A veth pair, up, each end in its namespace ("" = the test's own) with its addresses
// (CIDR); returns once both ends have a usable IPv6 link-local address.
void Veth(const std::string &ANs, const std::string &A, const std::vector<std::string> &AAddrs,
          const std::string &BNs, const std::string &B, const std::vector<std::string> &BAddrs = {});

bool WaitFor(const std::function<bool()> &Cond, std::chrono::milliseconds Timeout = 10s);
std::optional<pid_t> ReadPid(const std::string &PidFile);
bool Alive(pid_t Pid);  // exists and is no zombie
// Address text A (IPv4 or IPv6) within [First, Last].
bool InRange(const std::string &A, const std::string &First, const std::string &Last);
// Live processes of the test's own network namespace whose command line holds Needle.
std::vector<pid_t> Procs(const std::string &Needle);
void KillAll(const std::string &Needle);  // SIGKILLs Procs(Needle) and waits until they are gone

// Daemons that leave the test's control (daemonising relays, agents, their clients) go,
// however the test ends.
struct Sweep {
    ~Sweep();
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

// ISC dhclient in the foreground on IfName inside Ns; Mode is "-4", "-6" or "-S"
// (information only). Its lease and log files are in Dir; the default script configures
// the address it gets.
struct Dhclient : Child {
    Dhclient(const std::string &Ns, const std::string &IfName, const TempDir &Dir, const std::string &Mode,
             const std::string &Script = "");
    // Value of the last "<field> value;" of the lease file, once there.
    std::optional<std::string> Wait(const std::string &Field, std::chrono::milliseconds Timeout = 30s) const;
    std::string Lease, Log;
};
std::optional<std::string> LeaseField(const std::string &LeaseFile, const std::string &Field);

// Points the reference host at <dir>/kqhost.json: dhcp.conf in Dir, every log line, then
// Settings (more JSON members; a repeated key takes the later value).
void UseHost(const TempDir &Dir, const std::string &Settings = "");

// The built kqagent run as a user runs it.
struct Outcome {
    int Status;
    std::string Out, Err;
};
Outcome Kqagent(const TempDir &Dir, const std::string &Args);
// The JSON text at a dotted path ("interfaces.0.zone") of document Doc, "absent" if none.
std::string JsonAt(const std::string &Doc, const std::string &Path);
// `<Agent> serve` as a child, returned once it listens; throws Error with its log otherwise.
std::unique_ptr<Child> Serve(const std::string &Agent, const std::string &Log);

}  // namespace lab
