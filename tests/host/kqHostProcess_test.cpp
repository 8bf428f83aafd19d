// Command execution without a shell, bounded killing and the dhclient pid check, against
// real processes.
#include "hostTestUtil.h"

extern char **environ;

namespace {

using hosttest::Slurp;

// Starts argv; with ignoreTerm the child ignores SIGTERM (an ignored signal stays ignored
// across exec). The child leads a process group of its own, so that it and whatever it
// starts can be killed together.
pid_t Spawn(std::vector<std::string> argv, bool ignoreTerm = false)
{
    std::vector<char *> args;
    for (std::string &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    struct sigaction ign = {}, old = {};
    ign.sa_handler = ignoreTerm ? SIG_IGN : SIG_DFL;
    sigaction(SIGTERM, &ign, &old);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    int err = posix_spawn(&pid, args[0], nullptr, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    sigaction(SIGTERM, &old, nullptr);
    usleep(100 * 1000);  // past exec, so /proc shows its command line
    return err == 0 ? pid : -1;
}

void Reap(pid_t pid)
{
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Gone, or a zombie that init has not reaped yet.
bool Gone(pid_t pid)
{
    std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || stat.find(") Z") != std::string::npos;
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

TEST(HostProcess, CommandLineIsSplitAtBlanksAndNeverSeenByAShell)
{
    hosttest::TempDir dir("/run");
    std::string script = dir.path + "/args", out = dir.path + "/out", marker = dir.path + "/marker";
    std::ofstream(script) << "#!/bin/sh\nprintf '[%s]\\n' \"$@\" > " << out << "\n";
    chmod(script.c_str(), 0755);
    std::string line = script + "  a;touch\t" + marker + " b|c $(touch${IFS}" + marker + ") 'q r' >x\n";
    EXPECT_EQ(KQ_CmdExec(line.data()), 0);
    EXPECT_EQ(Slurp(out), "[a;touch]\n[" + marker + "]\n[b|c]\n[$(touch${IFS}" + marker + ")]\n['q]\n[r']\n[>x]\n");
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "something ran through a shell";

    struct { const char *line; int result; } cases[] = {
        {"/bin/true", 0}, {"true", 0}, {"/bin/false", -EIO}, {"/bin/sh -c exit${IFS}3", -EIO},
        {"/bin/sh -c kill${IFS}-9${IFS}$$", -EIO}, {"/no/such/program", -ENOENT}, {"kq-no-such-program", -ENOENT},
        {"", -EINVAL}, {" \t ", -EINVAL},
    };
    for (const auto &c : cases) {
        std::string copy = c.line;
        EXPECT_EQ(KQ_CmdExec(copy.data()), c.result) << c.line;
        EXPECT_EQ(KQ_RTCSystem(c.line), c.result) << c.line;
    }
    EXPECT_EQ(KQ_RTCSystem(nullptr), -EINVAL);
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
                          << "ls /proc/self/fd | tr '\\n' ' '; echo\nreadlink /proc/self/fd/0\n"
                          << "env | grep -v '^PWD=' | grep -v '^SHLVL=' | grep -v '^_='\n";
    chmod(script.c_str(), 0755);
    setenv("KQ_PROBE_SECRET", "ours", 1);
    int leaked = open("/dev/null", O_RDONLY);  // no O_CLOEXEC: only the host keeps it from children
    auto nsOf = [](const std::string &path) {
        struct stat st {};
        stat(path.c_str(), &st);
        return "net:[" + std::to_string(st.st_ino) + "]";
    };
    const std::string hosts = Slurp("/etc/hosts").substr(0, Slurp("/etc/hosts").find('\n'));
    struct { std::string prefix, ns, hosts; } cases[] = {
        {"ip netns exec kqpz ", nsOf("/run/netns/kqpz"), "zone hosts"}, {"", nsOf("/proc/self/ns/net"), hosts}};
    for (const auto &c : cases) {
        std::string line = c.prefix + script;
        ASSERT_EQ(KQ_CmdExec(line.data()), 0) << line;
        EXPECT_EQ(Slurp(out), c.ns + "\n" + c.hosts + "\n0 1 2 3 \n/dev/null\nPATH=" + getenv("PATH") + "\n") << line;
    }
    close(leaked);
    unsetenv("KQ_PROBE_SECRET");
    struct { const char *line; int result; } failures[] = {
        {"ip netns exec kqnone /bin/true", -EIO},  // no such zone: as from `ip`, which exits 255
        {"ip netns exec kqpz /no/such/program", -EIO}, {"ip netns exec kqpz /bin/false", -EIO},
        {"ip netns exec kqpz kq-no-such-program", -ENOENT},
    };
    for (const auto &f : failures)
        EXPECT_EQ(KQ_RTCSystem(f.line), f.result) << f.line;
    system("ip netns del kqpz; rm -rf /etc/netns/kqpz");
}

// Only a dnsmasq or dhclient with a pid file is signalled: SIGTERM, then SIGKILL after a
// bounded wait. Any other pid (a stale pid file) reads as gone and nothing is signalled.
TEST(HostProcess, KillPidTerminatesThenForcesAndSpares)
{
    hosttest::TempDir dir("/run");
    const std::string dnsmasq = dir.path + "/dnsmasq", dhclient = dir.path + "/dhclient", pidFile = dir.path + "/pid";
    ASSERT_EQ(symlink("/bin/sh", dnsmasq.c_str()), 0);
    ASSERT_EQ(symlink("/bin/sh", dhclient.c_str()), 0);
    auto daemon = [](const std::string &program, std::vector<std::string> args, bool ignoreTerm = false) {
        args.insert(args.begin(), {program, "-c", "sleep 30; :", "sh"});
        return Spawn(args, ignoreTerm);
    };
    ASSERT_EQ(system(("setsid " + dnsmasq + " -c 'sleep 30; :' sh --pid-file=/run/x.pid >/dev/null 2>&1 & echo $! > " +
                      pidFile).c_str()), 0);  // not our child
    struct { pid_t pid; double atLeast, below; } stopped[] = {
        {daemon(dnsmasq, {"-K", "--pid-file=/run/vyr_dhcpd_eth1.pid"}), 0, 1.5},
        {daemon(dhclient, {"-4", "eth1", "-pf", "/run/eth1_dhclient.pid"}, true), 2.0, 4.0},  // waited for SIGTERM
        {atoi(Slurp(pidFile).c_str()), 0, 1.5},
    };
    for (const auto &s : stopped) {
        ASSERT_GT(s.pid, 0);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_KillPid(s.pid), 0);
        EXPECT_GE(Seconds(start), s.atLeast);
        EXPECT_LT(Seconds(start), s.below);
        EXPECT_TRUE(Gone(s.pid)) << s.pid;
        EXPECT_EQ(waitpid(s.pid, nullptr, WNOHANG), -1) << "the child was not reaped";
        Reap(s.pid);
    }
    pid_t gone = Spawn({"/bin/true"});
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    for (pid_t pid : {0, -1, -getpgrp()})
        EXPECT_EQ(KQ_KillPid(pid), -EINVAL) << pid;
    std::vector<pid_t> spared = {Spawn({"/bin/sleep", "30"}), daemon(dnsmasq, {"-K", "--conf-file=/run/x.conf"}),
                                 daemon(dhclient, {"-4", "eth1", "--pid-file="})};
    for (pid_t pid : {spared[0], spared[1], spared[2], gone, getpid(), 1, 4194305, 2147483647}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_KillPid(pid), -ESRCH) << pid;
        EXPECT_LT(Seconds(start), 0.5);
    }
    for (pid_t pid : spared) {
        EXPECT_FALSE(Gone(pid)) << pid;
        Reap(pid);
    }
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

TEST(HostProcess, PidCheckRecognisesOnlyTheRightDhclient)
{
    hosttest::TempDir dir("/run");
    std::string fake = dir.path + "/dhclient";  // a shell under the name dhclient
    ASSERT_EQ(symlink("/bin/sh", fake.c_str()), 0);
    auto client = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {fake, "-c", "sleep 30; :"});  // $0 $1 ... of the script
        return Spawn(args);
    };
    pid_t v6 = client({"-6", "eth9", "-pf", "/var/run/eth9_dhclient6.pid"}), v4 = client({"-4", "eth9"}),
          plain = client({"-v", "eth8"}), other = Spawn({"/bin/sleep", "30"});
    struct { pid_t pid; const char *ifName, *tag; BOOL expected; } cases[] = {
        {v6, "eth9", "dhclient6", TRUE}, {v6, "eth9", "dhclient", FALSE}, {v6, "eth1", "dhclient6", FALSE},
        {v6, "eth", "dhclient6", FALSE}, {v4, "eth9", "dhclient", TRUE}, {v4, "eth9", "dhclient6", FALSE},
        {plain, "eth8", "dhclient", TRUE}, {plain, "eth8", "dhclient6", FALSE}, {other, "30", "dhclient", FALSE},
        {v4, "eth9", "dnsmasq", FALSE}, {0, "eth9", "dhclient", FALSE}, {999999999, "eth9", "dhclient", FALSE},
    };
    for (const auto &c : cases)
        EXPECT_EQ(KQ_IsPIDCorrectInPIDFile(c.pid, c.ifName, c.tag), c.expected) << c.pid << " " << c.ifName << " " << c.tag;
    for (pid_t pid : {v6, v4, plain, other})
        Reap(pid);
}

}  // namespace
