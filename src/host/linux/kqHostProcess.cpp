// Processes of the reference host: command lines run without a shell, bounded killing,
// and the check that a pid from a dhclient pid file still is that dhclient.
#include <dirent.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <fcntl.h>
#include <signal.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kqHostInternal.h"

namespace {

constexpr const char *kFallbackPath = "/usr/sbin:/sbin:/usr/bin:/bin";
constexpr auto kTermWait = std::chrono::seconds(2);
constexpr auto kKillWait = std::chrono::seconds(1);
constexpr auto kPoll = std::chrono::milliseconds(10);
constexpr auto kPidFileWait = std::chrono::seconds(2);

std::vector<std::string> SplitAtBlanks(const char *line)
{
    std::vector<std::string> words;
    std::string word;
    for (const char *p = line;; p++) {
        bool blank = *p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\0';
        if (!blank) {
            word += *p;
            continue;
        }
        if (!word.empty())
            words.push_back(std::move(word));
        word.clear();
        if (*p == '\0')
            return words;
    }
}

bool IsExecutableFile(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The program to start: a name with '/' as it is, else the first match in PATH, then in
// the system folders (an agent started with a short PATH still finds `ip`).
std::string ResolveProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    const char *env = getenv("PATH");
    std::string dirs = std::string(env != nullptr ? env : "") + ":" + kFallbackPath;
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos)
            end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        if (!dir.empty() && IsExecutableFile(dir + "/" + name))
            return dir + "/" + name;
        start = end + 1;
    }
    return "";
}

// dhclient -nw goes to the background before it writes its pid file, and the stop finds
// the client only through that file: a stop right after the start would find nothing and
// leave the client running. So a start of "dhclient ... -nw ... -pf FILE" returns only
// once FILE holds something, or after kPidFileWait with a warning.
void WaitForDaemonPidFile(const char *caller, const std::vector<std::string> &words)
{
    std::string pidFile;
    bool daemon = false, dhclient = false;
    for (size_t i = 0; i < words.size(); i++) {
        size_t slash = words[i].rfind('/');
        if (!dhclient) {
            dhclient = words[i].compare(slash == std::string::npos ? 0 : slash + 1, std::string::npos, "dhclient") == 0;
            continue;
        }
        if (words[i] == "-nw")
            daemon = true;
        else if (words[i] == "-pf" && i + 1 < words.size())
            pidFile = words[++i];
    }
    if (!daemon || pidFile.empty())
        return;
    auto deadline = std::chrono::steady_clock::now() + kPidFileWait;
    struct stat st;
    while (stat(pidFile.c_str(), &st) != 0 || st.st_size == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kqhost::Log(3, "%s: dhclient did not write its pid file %s within %lld ms; a stop now may miss it\n",
                        caller, pidFile.c_str(),
                        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(kPidFileWait).count()));
            return;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

class SpawnSetup {
public:
    SpawnSetup()
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attr);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
};

// What a child gets as its environment: the search path and nothing else of the agent's,
// so no variable of ours reaches the daemons it leaves behind.
struct ChildEnv {
    ChildEnv()
    {
        const char *path = getenv("PATH");
        pathVar = std::string("PATH=") + (path != nullptr && path[0] != '\0' ? path : kFallbackPath);
        envp[0] = pathVar.data();
    }
    std::string pathVar;
    char *envp[2] = {nullptr, nullptr};
};

// The child starts clean: stdin from /dev/null, no inherited descriptors beyond the
// standard three, default signal handling, nothing blocked. Daemons it leaves behind
// then hold nothing of ours.
int StartPlain(const std::string &program, char **argv, char **envp, pid_t &pid)
{
    SpawnSetup setup;
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    posix_spawnattr_setsigdefault(&setup.attr, &all);
    posix_spawnattr_setsigmask(&setup.attr, &none);
    posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    return posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attr, argv, envp);
}

// The namespace of a line that starts with the host's own prefix, "ip netns exec <name> ";
// "" for any other line.
std::string NetnsOfPrefix(const std::vector<std::string> &words)
{
    if (words.size() < 5 || words[0] != "ip" || words[1] != "netns" || words[2] != "exec" ||
        !kqhost::IsUsableName(words[3]))
        return "";
    return words[3];
}

// Why a child could not get as far as exec: the step and its errno, through a pipe that
// the exec closes.
struct ChildFailure {
    int step;
    int err;
};
const char *const kChildSteps[] = {"open the network namespace", "enter the network namespace",
                                   "unshare the mount namespace", "make / a slave mount",
                                   "mount /sys", "start the program"};

__attribute__((no_sanitize("address"))) [[noreturn]] void ChildFail(int pipeFd, int step)
{
    ChildFailure f = {step, errno};
    ssize_t ignored = write(pipeFd, &f, sizeof(f));
    (void)ignored;
    _exit(127);
}

// What the child of StartInNetns needs, prepared by the parent: the child shares the
// parent's memory and may only make system calls.
struct NetnsChild {
    int nsFd;
    int nullFd;
    int pipeFd;
    unsigned long sysFlags;
    long openMax;
    const char *netns;
    const char *program;
    char **argv;
    char **envp;
    const std::vector<std::pair<std::string, std::string>> *binds;
};

// Runs on its own stack in the parent's memory until execve (CLONE_VM | CLONE_VFORK): no
// allocation, no locks, nothing the parent could see half-done. Left out of the address
// sanitizer, whose stack bookkeeping would land in the parent's shadow memory.
__attribute__((no_sanitize("address"))) int NetnsChildMain(void *arg)
{
    const NetnsChild &c = *static_cast<const NetnsChild *>(arg);
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig)
        sigaction(sig, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (setns(c.nsFd, CLONE_NEWNET) != 0)
        ChildFail(c.pipeFd, 1);
    if (unshare(CLONE_NEWNS) != 0)
        ChildFail(c.pipeFd, 2);
    if (mount("", "/", "none", MS_SLAVE | MS_REC, nullptr) != 0)
        ChildFail(c.pipeFd, 3);
    // The /sys of this network namespace; a read-only one cannot be shadowed read-write.
    unsigned long flags = umount2("/sys", MNT_DETACH) == 0 ? 0 : c.sysFlags;
    if (mount(c.netns, "/sys", "sysfs", flags, nullptr) != 0)
        ChildFail(c.pipeFd, 4);
    for (const auto &bind : *c.binds)
        (void)mount(bind.first.c_str(), bind.second.c_str(), "none", MS_BIND, nullptr);  // as ip: best effort
    if (dup2(c.nullFd, STDIN_FILENO) < 0 || (c.pipeFd > 3 && close_range(3, c.pipeFd - 1, 0) != 0) ||
        close_range(c.pipeFd + 1, ~0U, 0) != 0) {
        for (long fd = 3; fd < c.openMax; ++fd)
            if (fd != c.pipeFd)
                close(static_cast<int>(fd));
    }
    execve(c.program, c.argv, c.envp);
    ChildFail(c.pipeFd, 5);
}

// Starts program inside network namespace netns as `ip netns exec` would, without running
// `ip`: the child enters the namespace, takes a mount namespace of its own with /sys
// describing the network namespace and the files of /etc/netns/<name> bound over those of
// /etc, then execs. Half the time of executing `ip` for every start. The child borrows the
// parent's memory until it execs, as posix_spawn's does, instead of a fork's copy of every
// mapping (a fork cost the agent about 2 ms of CPU per zone start). A failure the child
// meets is logged here and -EIO (as from `ip`, which exits 255 then).
int StartInNetns(const char *caller, const std::string &netns, const std::string &program, char **argv,
                 char **envp, pid_t &pid)
{
    std::vector<std::pair<std::string, std::string>> binds;
    const std::string etcDir = "/etc/netns/" + netns;
    if (DIR *dir = opendir(etcDir.c_str())) {
        while (const dirent *e = readdir(dir))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                binds.emplace_back(etcDir + "/" + e->d_name, std::string("/etc/") + e->d_name);
        closedir(dir);
    }
    const std::string nsPath = "/run/netns/" + netns;
    int nsFd = open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (nsFd < 0) {
        kqhost::Log(3, "%s: cannot %s %s: %s\n", caller, kChildSteps[0], netns.c_str(), strerror(errno));
        return -EIO;
    }
    int nullFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int pipeFds[2] = {-1, -1};
    if (nullFd < 0 || pipe2(pipeFds, O_CLOEXEC) != 0) {
        int err = errno;
        close(nsFd);
        if (nullFd >= 0)
            close(nullFd);
        return -err;
    }
    struct statvfs sys;
    const unsigned long sysFlags = statvfs("/sys", &sys) == 0 && (sys.f_flag & ST_RDONLY) ? MS_RDONLY : 0;
    NetnsChild child = {nsFd,          nullFd, pipeFds[1], sysFlags, sysconf(_SC_OPEN_MAX), netns.c_str(),
                        program.c_str(), argv, envp,       &binds};
    // The parent waits in clone until the child has exec'd or died, so one stack per
    // thread is enough.
    alignas(64) static thread_local char stack[32 * 1024];

    // Signals stay blocked across the clone, so no handler of ours runs in the child before
    // it has put every disposition back to the default.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pid = clone(NetnsChildMain, stack + sizeof(stack), CLONE_VM | CLONE_VFORK | SIGCHLD, &child);
    int cloneErr = errno;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    close(nsFd);
    close(nullFd);
    close(pipeFds[1]);
    if (pid < 0) {
        close(pipeFds[0]);
        return -cloneErr;
    }
    ChildFailure failure = {0, 0};
    ssize_t got;
    do
        got = read(pipeFds[0], &failure, sizeof(failure));
    while (got < 0 && errno == EINTR);
    close(pipeFds[0]);
    if (got <= 0)
        return 0;  // exec closed the pipe: the program runs
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    const int step = failure.step >= 0 && failure.step < 6 ? failure.step : 5;
    kqhost::Log(3, "%s: cannot %s %s: %s\n", caller, kChildSteps[step], step == 5 ? program.c_str() : netns.c_str(),
                strerror(failure.err));
    return -EIO;
}

// Runs the line and waits for the process it started.
int RunCommand(const char *caller, const char *line) noexcept
try {
    if (line == nullptr)
        return -EINVAL;
    std::vector<std::string> words = SplitAtBlanks(line);
    if (words.empty()) {
        kqhost::Log(3, "%s: empty command line\n", caller);
        return -EINVAL;
    }
    const std::string netns = NetnsOfPrefix(words);
    const size_t first = netns.empty() ? 0 : 4;
    std::string program = ResolveProgram(words[first]);
    if (program.empty()) {
        kqhost::Log(3, "%s: %s: program not found\n", caller, words[first].c_str());
        return -ENOENT;
    }
    std::vector<char *> argv;
    for (size_t i = first; i < words.size(); ++i)
        argv.push_back(words[i].data());
    argv.push_back(nullptr);

    ChildEnv env;
    pid_t pid = -1;
    if (!netns.empty()) {
        int ret = StartInNetns(caller, netns, program, argv.data(), env.envp, pid);
        if (ret < 0)
            return ret;
    } else if (int err = StartPlain(program, argv.data(), env.envp, pid); err != 0) {
        kqhost::Log(3, "%s: cannot start %s: %s\n", caller, program.c_str(), strerror(err));
        return -err;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            int ret = -errno;
            kqhost::Log(3, "%s: cannot wait for %s (pid %d): %s\n", caller, program.c_str(), pid,
                        strerror(errno));
            return ret;
        }
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        WaitForDaemonPidFile(caller, words);
        return 0;
    }
    if (WIFEXITED(status))
        kqhost::Log(3, "%s: %s exited with status %d\n", caller, line, WEXITSTATUS(status));
    else
        kqhost::Log(3, "%s: %s ended by signal %d\n", caller, line, WTERMSIG(status));
    return -EIO;
} catch (const std::bad_alloc &) {
    return -ENOMEM;
}

// Gone: no such process, or a zombie that is not ours to reap.
bool Gone(pid_t pid)
{
    int status;
    pid_t reaped = waitpid(pid, &status, WNOHANG);
    if (reaped == pid)
        return true;
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return true;
    std::string stat;
    if (kqhost::ReadSmallFile(("/proc/" + std::to_string(pid) + "/stat").c_str(), 4096, stat) < 0)
        return true;
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z' && reaped < 0;
}

// The old way, for kernels without pidfd_open: look every kPoll.
bool PollGone(pid_t pid, std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        if (Gone(pid))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(kPoll);
    }
}

// Waits up to limit for pid to go: a pidfd becomes readable the moment the process exits,
// so a stop costs the process's own exit time, not a polling step.
bool WaitGone(pid_t pid, std::chrono::steady_clock::duration limit)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0)
        return errno == ESRCH ? true : PollGone(pid, deadline);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p = {pidfd, POLLIN, 0};
        int n = poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) + 1 : 0);
        if (n < 0 && errno == EINTR)
            continue;
        close(pidfd);
        if (n < 0)
            return PollGone(pid, deadline);
        // Exited, or still there at the deadline; reaped when it is our child.
        return Gone(pid);
    }
}

std::vector<std::string> ReadCmdline(pid_t pid)
{
    std::string raw;
    std::vector<std::string> args;
    if (kqhost::ReadSmallFile(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), 1 << 20, raw) < 0)
        return args;
    size_t start = 0;
    while (start < raw.size()) {
        size_t end = raw.find('\0', start);
        if (end == std::string::npos)
            end = raw.size();
        args.push_back(raw.substr(start, end - start));
        start = end + 1;
    }
    return args;
}

// Whether KQ_KillPid may signal Pid. Pids reach it from pid files, which go stale: a
// dnsmasq or dhclient that died leaves its pid to whoever gets it next, and a damaged
// text can name init or the agent itself. Only a process that runs dnsmasq or dhclient
// (base name of its first argument) with a pid file among its arguments is signalled.
bool IsDaemonWithPidFile(pid_t pid)
{
    std::string pidMax;
    long max = kqhost::ReadSmallFile("/proc/sys/kernel/pid_max", 64, pidMax) == 0 ? atol(pidMax.c_str()) : 0;
    if (pid < 2 || pid == getpid() || (max > 0 && pid > max))
        return false;
    std::vector<std::string> args = ReadCmdline(pid);
    if (args.empty())
        return false;
    size_t slash = args[0].rfind('/');
    std::string program = slash == std::string::npos ? args[0] : args[0].substr(slash + 1);
    if (program != "dnsmasq" && program != "dhclient")
        return false;
    for (size_t i = 1; i < args.size(); i++) {
        const std::string &arg = args[i];
        if ((arg == "-pf" || arg == "-x" || arg == "--pid-file") && i + 1 < args.size())
            return true;
        if (arg.rfind("--pid-file=", 0) == 0 && arg.size() > sizeof("--pid-file=") - 1)
            return true;
    }
    return false;
}

// -ESRCH, the answer for a process that does not exist, with one warning, for a pid that
// is not ours to signal; 0 otherwise.
KQ_ERR_T RefuseStalePid(pid_t pid) noexcept
try {
    if (IsDaemonWithPidFile(pid))
        return 0;
    kqhost::Log(3, "KQ_KillPid: pid %d is no dnsmasq or dhclient with a pid file (a stale pid file?), "
                   "not signalled\n", pid);
    return -ESRCH;
} catch (const std::bad_alloc &) {
    return -ENOMEM;
}

}  // namespace

extern "C" {

int32_t KQ_CmdExec(char *Command)
{
    if (kqhost::DryRunTakes("exec", Command))
        return 0;
    return RunCommand("KQ_CmdExec", Command);
}

int KQ_RTCSystem(const char *Command)
{
    if (kqhost::DryRunTakes("system", Command))
        return 0;
    return RunCommand("KQ_RTCSystem", Command);
}

KQ_ERR_T KQ_KillPid(const pid_t Pid)
{
    if (Pid <= 0)
        return -EINVAL;
    char pidText[16];
    snprintf(pidText, sizeof(pidText), "%d", static_cast<int>(Pid));
    if (kqhost::DryRunTakes("kill", pidText))
        return 0;
    KQ_ERR_T refused = RefuseStalePid(Pid);
    if (refused < 0)
        return refused;
    if (kill(Pid, SIGTERM) != 0)
        return -errno;
    try {
        if (WaitGone(Pid, kTermWait))
            return 0;
        kqhost::Log(3, "KQ_KillPid: pid %d ignored SIGTERM, sending SIGKILL\n", Pid);
        if (kill(Pid, SIGKILL) != 0)
            return errno == ESRCH ? 0 : -errno;
        if (WaitGone(Pid, kKillWait))
            return 0;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    kqhost::Log(4, "KQ_KillPid: pid %d is still there after SIGKILL\n", Pid);
    return -ETIMEDOUT;
}

BOOL KQ_IsPIDCorrectInPIDFile(pid_t Pid, const char *IfName, const char *DynamicStr)
{
    if (Pid <= 0 || IfName == nullptr || DynamicStr == nullptr)
        return FALSE;
    bool wantV6 = strcmp(DynamicStr, "dhclient6") == 0;
    if (!wantV6 && strcmp(DynamicStr, "dhclient") != 0)
        return FALSE;
    try {
        std::vector<std::string> args = ReadCmdline(Pid);
        if (args.empty())
            return FALSE;
        size_t slash = args[0].rfind('/');
        std::string program = slash == std::string::npos ? args[0] : args[0].substr(slash + 1);
        if (program != "dhclient")
            return FALSE;
        bool hasIf = false, has4 = false, has6 = false;
        for (size_t i = 1; i < args.size(); i++) {
            hasIf = hasIf || args[i] == IfName;
            has4 = has4 || args[i] == "-4";
            has6 = has6 || args[i] == "-6";
        }
        if (!hasIf)
            return FALSE;
        return (wantV6 ? has6 : (has4 || !has6)) ? TRUE : FALSE;
    } catch (const std::bad_alloc &) {
        return FALSE;
    }
}

}  // extern "C"
