// Utilities for lab tests: real dnsmasq and ISC dhclient in network namespaces that the
// test creates inside its own isolated network namespace (scripts/isolate --net).
//
// Failure style: a set-up step that cannot go on (a command that fails, a namespace that
// cannot be made, a process that cannot start) throws lab::Error, whose text holds the
// command and its output. GoogleTest reports an exception that leaves a TEST body as a
// failure of that test with this text, and every RAII object made so far is destroyed on
// the way out, so nothing is left behind. Queries (Sh, ShOut, WaitFor, ReadPidFile, ...)
// never throw; they return what they found.
//
// Everything here may be used from several test processes at the same time: names of
// namespaces, interfaces and files live inside the test's own isolate namespaces.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lab {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- Shell (tests may use one; the module never does) -------------------------------

// Runs cmd through /bin/sh -c; returns its exit status (128 + signal when killed, -1 when
// it could not be run). Output goes to the test's own stdout/stderr.
int Sh(const std::string &cmd);
// Runs cmd through /bin/sh -c and returns what it wrote to stdout (stderr passes through).
std::string ShOut(const std::string &cmd);
// Runs cmd; on a non-zero status throws Error with the command, status and its output
// (stdout and stderr together). Returns that output on success.
std::string MustSh(const std::string &cmd);
// Quotes text for /bin/sh: 'text' with embedded quotes escaped.
std::string Quote(const std::string &text);
// "ip netns exec <ns> " for a named namespace, "" for the current one (ns "").
std::string InNs(const std::string &ns);

// ---- Prerequisites ------------------------------------------------------------------

// Empty when the lab can run here (root, /usr/sbin/dnsmasq, /sbin/dhclient, ip, and
// KQ_ISOLATED=1 from scripts/isolate); otherwise what is missing.
std::string MissingLabPrerequisites();
// True when env CI is "true".
bool InCi();

// First statement of a lab TEST body: skips the test with the reason when the lab cannot
// run here, or fails it when CI=true (a lab test never skips silently under CI).
#define LAB_REQUIRE_PREREQUISITES()                                                       \
    do {                                                                                  \
        const std::string labMissing_ = ::lab::MissingLabPrerequisites();                 \
        if (!labMissing_.empty()) {                                                       \
            if (::lab::InCi())                                                            \
                GTEST_FAIL() << "lab prerequisites missing under CI: " << labMissing_;    \
            else                                                                          \
                GTEST_SKIP() << "lab prerequisites missing: " << labMissing_;             \
        }                                                                                 \
    } while (0)

// ---- Temporary folders --------------------------------------------------------------

// A fresh folder <base>/<prefix>XXXXXX, removed with everything in it on destruction.
// The default base /etc is an overlay inside scripts/isolate, so even a crash leaves
// nothing on the machine.
class TempDir {
public:
    explicit TempDir(const std::string &prefix = "kq-lab-", const std::string &base = "/etc");
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &Path() const { return path_; }
    // Path() + "/" + name.
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Writes text to path (created or truncated); throws Error on failure.
void WriteFile(const std::string &path, const std::string &text);
// The whole file, or nullopt when it cannot be read.
std::optional<std::string> ReadFile(const std::string &path);

// ---- Network namespaces and links ---------------------------------------------------

// `ip netns add <name>` on construction. On destruction every process inside is killed
// (SIGKILL) and the namespace deleted, which also removes its interfaces.
class Netns {
public:
    explicit Netns(std::string name);
    ~Netns();
    Netns(const Netns &) = delete;
    Netns &operator=(const Netns &) = delete;
    const std::string &Name() const { return name_; }
    // Runs cmd inside the namespace (through the shell); see Sh / ShOut / MustSh.
    int Sh(const std::string &cmd) const;
    std::string ShOut(const std::string &cmd) const;
    std::string MustSh(const std::string &cmd) const;

private:
    std::string name_;
};

// A veth pair a_if <-> b_if with each end moved into its namespace ("" = the current
// one). Both ends are set up; the pair vanishes with either namespace.
void VethPair(const std::string &aNs, const std::string &aIf, const std::string &bNs,
              const std::string &bIf);
// `ip addr add <cidr> dev <ifname>` inside ns ("" = current). IPv6 addresses are added
// with nodad so that they are usable at once.
void AddAddr(const std::string &ns, const std::string &ifname, const std::string &cidr);
// `ip link set <ifname> up` inside ns.
void LinkUp(const std::string &ns, const std::string &ifname);
// accept_dad=0 for ifname (and for "default", so later links inherit it) inside ns.
void DisableDad(const std::string &ns, const std::string &ifname);
// Waits until ifname inside ns has an IPv6 link-local address and none is tentative.
bool WaitIpv6Ready(const std::string &ns, const std::string &ifname,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

// One address of an interface, from `ip -o addr show dev X`.
struct IfAddr {
    int family;           // AF_INET or AF_INET6
    std::string address;  // without prefix length
    int prefixLen;
    bool tentative;
    std::string scope;    // "global", "link", "host"
};
std::vector<IfAddr> Addresses(const std::string &ns, const std::string &ifname);
// True when a (dotted IPv4 or IPv6 text) lies within [first, last], same family.
bool AddrInRange(const std::string &a, const std::string &first, const std::string &last);

// ---- Waiting and processes ----------------------------------------------------------

// Polls cond every 50 ms until it is true (returns true) or timeout passes (false).
bool WaitFor(const std::function<bool()> &cond, std::chrono::milliseconds timeout);
// The first number in a pid file, or nullopt when missing, empty or not a number > 0.
std::optional<pid_t> ReadPidFile(const std::string &path);
// True when pid exists and is not a zombie.
bool ProcessAlive(pid_t pid);
// SIGKILLs every process named comm (as in /proc/<pid>/comm) whose network namespace is
// one this test owns: the test's own isolated namespace (only when KQ_ISOLATED=1 and it
// is not init's) or a namespace under /run/netns (a private tmpfs inside isolate). Never
// touches the machine's processes. Reaps our own children. Returns how many it killed.
int KillAll(const char *comm);

// The live dnsmasq processes in this test's own network namespace, by pid, with their
// command lines (arguments joined by blanks).
std::map<pid_t, std::string> OwnDnsmasq();
// Waits until ifname inside ns has an IPv4 address in [first, last].
bool WaitIpv4InRange(const std::string &ns, const std::string &ifname, const std::string &first,
                     const std::string &last, std::chrono::milliseconds timeout = std::chrono::seconds(30));

// A child process started with argv inside ns ("" = current), stdout and stderr going to
// logFile (appended; "" = inherited). The destructor sends SIGTERM, waits up to 2 s, then
// SIGKILL, and reaps it. Stop() does the same earlier.
class Child {
public:
    Child(const std::string &ns, const std::vector<std::string> &argv,
          const std::string &logFile = "");
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    pid_t Pid() const { return pid_; }
    // True while the child runs (reaps it when it has exited).
    bool Running();
    // Exit status once it has ended (as from waitpid), nullopt while it runs.
    std::optional<int> Status() const { return status_; }
    void Stop();

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// dnsmasq in the foreground (-k) inside ns with a configuration given as text, written to
// <dir>/<name>.conf. The command line adds --log-dhcp, --user=root, --log-facility=
// <dir>/<name>.log (Log() reads it), --pid-file=<dir>/<name>.pid and --dhcp-leasefile=
// <dir>/<name>.leases, so the text must not set those. Throws Error when it exits within
// the first 300 ms (a bad configuration), with the configuration and its log.
class Dnsmasq {
public:
    Dnsmasq(const std::string &ns, const TempDir &dir, const std::string &name,
            const std::string &confText);
    pid_t Pid() const { return child_->Pid(); }
    std::string Log() const;
    const std::string &ConfPath() const { return confPath_; }

private:
    std::string confPath_, logPath_;
    std::unique_ptr<Child> child_;
};

// ISC dhclient on ifname inside ns, in the foreground (-d) as our own child:
//   dhclient -4|-6 [-S] -d -v -pf <dir>/<ifname>.dhclient[6].pid
//            -lf <dir>/<ifname>.dhclient[6].leases [-sf <script>] <ifname>
// The default script (/sbin/dhclient-script) configures the address it gets, which is
// what a test checks with Addresses(); it does so before dhclient writes the lease file,
// so a test that reads both waits for both. Killed and reaped on destruction.
class Dhclient {
public:
    enum class Mode { V4, V6, V6Stateless };
    Dhclient(const std::string &ns, const std::string &ifname, Mode mode, const TempDir &dir,
             const std::string &script = "");
    const std::string &LeaseFile() const { return leaseFile_; }
    const std::string &PidFile() const { return pidFile_; }
    const std::string &LogFile() const { return logFile_; }
    pid_t Pid() const { return child_->Pid(); }
    bool Running() { return child_->Running(); }

private:
    std::string leaseFile_, pidFile_, logFile_;
    std::unique_ptr<Child> child_;
};

// The value of the last "<field> value;" statement in a dhclient lease file ("fixed-address",
// "iaaddr", "option domain-name-servers", ...), without the ';', or nullopt.
std::optional<std::string> LeaseField(const std::string &leaseFile, const std::string &field);

// Waits up to timeout for LeaseField(leaseFile, field) and returns it.
std::optional<std::string> WaitLeaseField(const std::string &leaseFile, const std::string &field,
                                          std::chrono::milliseconds timeout = std::chrono::seconds(20));

// ---- Settings of the reference host -------------------------------------------------

struct HostSettings {
    std::string dhcpConf;     // "" = <dir>/dhcp.conf
    std::string dhcpConfBak;  // "" = <dir>/dhcp.conf.bak
    std::vector<std::pair<std::string, uint32_t>> lans;  // ifname -> VPN id
    std::map<uint32_t, std::string> netns;               // VPN id -> namespace name
    int logLevel = 1;                                    // everything, for test output
    std::string logTo = "stderr";
    std::vector<std::string> dhcpv6Interfaces;
};

// Writes the settings as <dir>/kqhost.json, sets KQ_HOST_CONFIG to it and reloads the
// reference host's settings. Update() rewrites and reloads. The destructor restores the
// variable as it was (usually unset) and reloads.
class HostConfig {
public:
    HostConfig(const TempDir &dir, HostSettings settings = {});
    ~HostConfig();
    HostConfig(const HostConfig &) = delete;
    HostConfig &operator=(const HostConfig &) = delete;
    void Update(HostSettings settings);
    const HostSettings &Settings() const { return settings_; }
    const std::string &Path() const { return path_; }

private:
    void Apply();
    std::string dir_, path_;
    std::optional<std::string> previous_;
    HostSettings settings_;
};

}  // namespace lab
