// Command execution without a shell, bounded killing and the dhclient pid check, against
// real processes.
#include "hostTestUtil.h"

namespace {

using hosttest::Slurp;

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Gone, or a zombie that init has not reaped yet.
bool Gone(pid_t pid)
{
    std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || stat.find(") Z") != std::string::npos;
}

// Shells running "sleep 30" under the names dnsmasq and dhclient (or any program), each
// leading a process group of its own, all killed with their sleeps at the end.
struct Daemons {
    hosttest::TempDir dir{"/run"};
    std::vector<pid_t> started;
    pid_t Start(const std::string &name, std::vector<std::string> args, bool ignoreTerm = false)
    {
        std::string program = name[0] == '/' ? name : dir.path + "/" + name;
        if (name[0] != '/' && access(program.c_str(), F_OK) != 0)
            symlink("/bin/sh", program.c_str());
        if (name[0] != '/')
            args.insert(args.begin(), {"-c", "sleep 30; :", "sh"});  // the rest: $1 ... of the script
        args.insert(args.begin(), program);
        pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            signal(SIGTERM, ignoreTerm ? SIG_IGN : SIG_DFL);  // an ignored signal stays ignored across exec
            std::vector<char *> argv;
            for (std::string &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        usleep(100 * 1000);  // past exec, so /proc shows its command line
        started.push_back(pid);
        return pid;
    }
    ~Daemons()
    {
        for (pid_t pid : started) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

TEST(HostProcess, CommandLineIsSplitAtBlanksAndNeverSeenByAShell)
{
    hosttest::TempDir dir("/run");
    std::string script = dir.path + "/args", out = dir.path + "/out", marker = dir.path + "/marker";
    std::ofstream(script) << "#!/bin/sh\nprintf '[%s]\\n' \"$@\" > " << out << "\n";
    chmod(script.c_str(), 0755);
    const long descriptors = hosttest::OpenDescriptors();
    std::string line = script + "  a;touch\t" + marker + " b|c $(touch${IFS}" + marker + ") 'q r' >x\n";
    EXPECT_EQ(KQ_CmdExec(line.data()), 0);
    EXPECT_EQ(Slurp(out), "[a;touch]\n[" + marker + "]\n[b|c]\n[$(touch${IFS}" + marker + ")]\n['q]\n[r']\n[>x]\n");
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "something ran through a shell";
    struct { const char *line; int result; } cases[] = {
        {"/bin/true", 0}, {"true", 0}, {"/bin/false", -EIO}, {"/bin/sh -c exit${IFS}3", -EIO},
        {"/bin/sh -c kill${IFS}-9${IFS}$$", -EIO}, {"/no/such/program", -ENOENT}, {"kq-no-such-program", -ENOENT},
        {"", -EINVAL}, {" \t ", -EINVAL}};
    for (const auto &c : cases) {
        std::string copy = c.line;
        EXPECT_EQ(KQ_CmdExec(copy.data()), c.result) << c.line;
        EXPECT_EQ(KQ_RTCSystem(c.line), c.result) << c.line;
    }
    EXPECT_EQ(KQ_RTCSystem(nullptr), -EINVAL);
    // "dhclient ... -pf F -nw" returns once F holds something, not as soon as F exists.
    const std::string client = dir.path + "/dhclient", pidFile = dir.path + "/c.pid";
    std::ofstream(client) << "#!/bin/sh\n(: > " << pidFile << "; sleep 0.2; echo 42 > " << pidFile << ") &\n";
    chmod(client.c_str(), 0755);
    EXPECT_EQ(KQ_RTCSystem((client + " -4 eth1 -pf " + pidFile + " -nw").c_str()), 0);
    EXPECT_EQ(Slurp(pidFile), "42\n");
    EXPECT_EQ(hosttest::OpenDescriptors(), descriptors);
}

// A line with the host's zone prefix runs in that zone as `ip netns exec` would run it (its
// network namespace, its /etc/netns files over /etc); any child gets only PATH of our
// environment and no descriptor of ours.
TEST(HostProcess, ZoneCommandRunsInTheZoneAndChildrenInheritNothingOfOurs)
{
    hosttest::TempDir dir("/run");
    ASSERT_EQ(system("ip netns add kqpz && mkdir -p /etc/netns/kqpz && echo 'zone hosts' > /etc/netns/kqpz/hosts"), 0);
    std::string script = dir.path + "/probe", out = dir.path + "/out";
    std::ofstream(script) << "#!/bin/sh\nexec > " << out << "\nreadlink /proc/self/ns/net\nhead -n 1 /etc/hosts\n"
                          << "[ -e /etc/passwd ] && echo 'rest of /etc'\n"
                          << "ls /proc/self/fd | tr '\\n' ' '; echo\nreadlink /proc/self/fd/0\n"
                          << "env | grep -v '^PWD=' | grep -v '^SHLVL=' | grep -v '^_='\n";
    chmod(script.c_str(), 0755);
    setenv("KQ_PROBE_SECRET", "ours", 1);
    int leaked = open("/dev/null", O_RDONLY);  // no O_CLOEXEC: only the host keeps it from children
    const long descriptors = hosttest::OpenDescriptors();
    auto probe = [&](const std::string &ns, const std::string &hosts) {
        struct stat st {};
        stat(ns.c_str(), &st);
        return "net:[" + std::to_string(st.st_ino) + "]\n" + hosts + "\nrest of /etc\n0 1 2 3 \n/dev/null\nPATH=" + getenv("PATH") + "\n";
    };
    for (auto [prefix, expected] : {std::pair{std::string("ip netns exec kqpz "), probe("/run/netns/kqpz", "zone hosts")},
                                    {"", probe("/proc/self/ns/net", Slurp("/etc/hosts").substr(0, Slurp("/etc/hosts").find('\n')))}}) {
        std::string line = prefix + script;
        ASSERT_EQ(KQ_CmdExec(line.data()), 0) << line;
        EXPECT_EQ(Slurp(out), expected) << line;
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "a zone start left our signals blocked";
    unsetenv("KQ_PROBE_SECRET");
    testing::internal::CaptureStderr();
    EXPECT_EQ((std::vector<int>{KQ_RTCSystem("ip netns exec kqnone /bin/true"),  // as from `ip`, which exits 255
                                KQ_RTCSystem("ip netns exec kqpz /no/such/program"), KQ_RTCSystem("ip netns exec kqpz /bin/false"),
                                KQ_RTCSystem("ip netns exec kqpz kq-no-such-program")}),
              (std::vector<int>{-EIO, -EIO, -EIO, -ENOENT}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kqagent: <WARN:host> KQ_RTCSystem: cannot open the network namespace kqnone: No such file or directory\n"
              "kqagent: <WARN:host> KQ_RTCSystem: cannot start the program /no/such/program: No such file or directory\n"
              "kqagent: <WARN:host> KQ_RTCSystem: ip netns exec kqpz /bin/false exited with status 1\n"
              "kqagent: <WARN:host> KQ_RTCSystem: kq-no-such-program: program not found\n");
    EXPECT_EQ(hosttest::OpenDescriptors(), descriptors);
    close(leaked);
    // Clean-up: what is already gone is fine.
    [[maybe_unused]] const int cleanup = system("ip netns del kqpz; rm -rf /etc/netns/kqpz");
}

// Only a dnsmasq or dhclient with a pid file is signalled: SIGTERM, then SIGKILL after a
// bounded wait. Any other pid (a stale pid file) reads as gone at once and nothing is
// signalled. Only the right dhclient passes the pid check.
TEST(HostProcess, KillAndPidCheckTouchOnlyTheRightDaemon)
{
    Daemons d;
    auto notOurChild = [&] {
        EXPECT_EQ(system(("setsid " + d.dir.path + "/dnsmasq -c 'sleep 30; :' sh -x /run/x.pid >/dev/null 2>&1 & echo $! > " +
                          d.dir.path + "/pid").c_str()),
                  0);
        usleep(100 * 1000);
        d.started.push_back(atoi(Slurp(d.dir.path + "/pid").c_str()));
        return d.started.back();
    };
    struct { pid_t pid; double atLeast, below; } stopped[] = {
        {d.Start("dnsmasq", {"-K", "--pid-file=/run/vyr_dhcpd_eth1.pid"}), 0, 1.5},
        {d.Start("dhclient", {"-4", "eth1", "-pf", "/run/eth1_dhclient.pid"}, true), 2.0, 4.0},  // waited for SIGTERM
        {notOurChild(), 0, 1.5}, {d.Start("dnsmasq", {"--pid-file", "/run/y.pid"}), 0, 1.5}};
    testing::internal::CaptureStderr();
    for (const auto &s : stopped) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_KillPid(s.pid), 0);
        EXPECT_GE(Seconds(start), s.atLeast);
        EXPECT_LT(Seconds(start), s.below);
        EXPECT_TRUE(Gone(s.pid)) << s.pid;
        EXPECT_EQ(waitpid(s.pid, nullptr, WNOHANG), -1) << "the child was not reaped";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kqagent: <WARN:host> KQ_KillPid: pid " + std::to_string(stopped[1].pid) + " ignored SIGTERM, sending SIGKILL\n");
    EXPECT_EQ((std::vector<int>{KQ_KillPid(0), KQ_KillPid(-1), KQ_KillPid(-getpgrp())}),
              (std::vector<int>{-EINVAL, -EINVAL, -EINVAL}));
    pid_t gone = d.Start("/bin/true", {});
    waitpid(gone, nullptr, 0);
    const pid_t v6 = d.Start("dhclient", {"-6", "eth9", "-pf", "/var/run/eth9_dhclient6.pid"}),
                v4 = d.Start("dhclient", {"-4", "eth9"}), plain = d.Start("dhclient", {"-v", "eth8"}),
                other = d.Start("/bin/sleep", {"30"}), noPidFile = d.Start("dnsmasq", {"-K", "--conf-file=/run/x.conf"}),
                emptyPidFile = d.Start("dhclient", {"-4", "eth1", "--pid-file="});
    for (pid_t pid : {v4, plain, other, noPidFile, emptyPidFile, gone, getpid(), 1, 4194305, 2147483647}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_KillPid(pid), -ESRCH) << pid;
        EXPECT_LT(Seconds(start), 0.5);
    }
    EXPECT_FALSE(Gone(v4) || Gone(plain) || Gone(other) || Gone(noPidFile) || Gone(emptyPidFile)) << "one was signalled";
    testing::internal::CaptureStderr();
    KQ_KillPid(other);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kqagent: <WARN:host> KQ_KillPid: pid " + std::to_string(other) +
                                                          " is no dnsmasq or dhclient with a pid file (a stale pid file?), not signalled\n");
    struct { pid_t pid; const char *ifName, *tag; BOOL expected; } checks[] = {
        {v6, "eth9", "dhclient6", TRUE}, {v6, "eth9", "dhclient", FALSE}, {v6, "eth1", "dhclient6", FALSE},
        {v6, "eth", "dhclient6", FALSE}, {v4, "eth9", "dhclient", TRUE}, {v4, "eth9", "dhclient6", FALSE},
        {plain, "eth8", "dhclient", TRUE}, {plain, "eth8", "dhclient6", FALSE}, {other, "30", "dhclient", FALSE},
        {v4, "eth9", "dnsmasq", FALSE}, {0, "eth9", "dhclient", FALSE}, {999999999, "eth9", "dhclient", FALSE}};
    for (const auto &c : checks)
        EXPECT_EQ(KQ_IsPIDCorrectInPIDFile(c.pid, c.ifName, c.tag), c.expected) << c.pid << " " << c.ifName << " " << c.tag;
}

// A daemonising dhclient counts as started once its pid file is written, so that a stop
// right after the start finds it; a pid file that never comes ends a bounded wait, and
// without -nw nothing is awaited.
TEST(HostProcess, DaemonisingDhclientStartWaitsForItsPidFile)
{
    hosttest::TempDir dir("/run");
    const std::string dhclient = dir.path + "/dhclient", pidFile = dir.path + "/eth1_dhclient.pid";
    std::ofstream(dhclient) << "#!/bin/sh\n[ \"$5\" = -nw ] || exit 0\n"
                               "( sleep 0.4; [ \"$4\" = " << pidFile << " ] && echo $$ > \"$4\" ) > /dev/null 2>&1 &\n";
    ASSERT_EQ(chmod(dhclient.c_str(), 0755), 0);
    struct { std::string args; double atLeast, below; } cases[] = {
        {" -4 eth1 -pf " + pidFile + " -nw", 0.4, 1.5}, {" -4 eth1 -pf " + pidFile + ".none -nw", 2.0, 3.0},
        {" -4 eth1 -pf " + pidFile + ".none", 0, 1.0}};
    for (const auto &c : cases) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_RTCSystem((dhclient + c.args).c_str()), 0) << c.args;
        EXPECT_GE(Seconds(start), c.atLeast) << c.args;
        EXPECT_LT(Seconds(start), c.below) << c.args;
    }
    EXPECT_NE(Slurp(pidFile), "");
}

// A dry run hands every change to its sink and makes none: no file, no command, no signal.
TEST(HostProcess, DryRunChangesNothingAndReportsEverything)
{
    Daemons daemons;
    const pid_t victim = daemons.Start("dnsmasq", {"--pid-file=/none"});
    const std::string file = daemons.dir.path + "/written", copy = daemons.dir.path + "/copied";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        static std::string seen;
        KQ_HostDryRun([](void *, const char *op, const char *subject, const char *data, size_t len) {
            seen += std::string(op) + "|" + subject + "|" + std::string(data != nullptr ? data : "", len) + "\n";
        }, nullptr);
        std::string command = "/bin/touch " + file;
        const int results[] = {KQ_WriteSyncWithFilePath(file.c_str(), "abc", 3), KQ_HostAppendFile(file.c_str(), "de", 2, 1),
                               KQ_FileCopy("/etc/hostname", copy.c_str()),
                               KQ_CmdExec(command.data()), KQ_RTCSystem(command.c_str()), KQ_KillPid(victim)};
        for (int result : results)
            seen += std::to_string(result) + "\n";
        (void)!write(fds[1], seen.data(), seen.size());
        _exit(0);
    }
    close(fds[1]);
    std::string seen;
    char chunk[4096];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof(chunk))) > 0;)
        seen.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(seen, "write|" + file + "|abc\nappend|" + file + "|de\ncopy|/etc/hostname|" + copy + "\nexec|/bin/touch " + file +
                        "|\nsystem|/bin/touch " + file + "|\nkill|" + std::to_string(victim) + "|\n0\n0\n0\n0\n0\n0\n");
    EXPECT_NE(access(file.c_str(), F_OK), 0);
    EXPECT_NE(access(copy.c_str(), F_OK), 0);
    EXPECT_FALSE(Gone(victim));
}

}  // namespace
