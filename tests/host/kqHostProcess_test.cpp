// Command execution without a shell, bounded killing and the dhclient pid check, against
// real processes.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hostTestUtil.h"
#include "kqHostLinux.h"

extern char **environ;

namespace {

using hosttest::Slurp;

// Scratch folders of these tests live under /run.
struct TempDir : hosttest::TempDir {
    TempDir() : hosttest::TempDir("/run") {}
};

// Starts argv; with ownGroup the child leads a process group of its own, so that it and
// whatever it starts can be killed together.
pid_t Spawn(std::vector<std::string> argv, bool ignoreTerm = false, bool ownGroup = false)
{
    std::vector<char *> args;
    for (std::string &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    // An ignored signal stays ignored across exec: that is how the child ignores SIGTERM.
    struct sigaction ign = {}, old = {};
    ign.sa_handler = SIG_IGN;
    if (ignoreTerm)
        sigaction(SIGTERM, &ign, &old);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    if (ownGroup) {
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    }
    pid_t pid = -1;
    int err = posix_spawn(&pid, args[0], nullptr, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (ignoreTerm)
        sigaction(SIGTERM, &old, nullptr);
    return err == 0 ? pid : -1;
}

// Gone, or a zombie that init has not reaped yet.
bool Gone(pid_t pid)
{
    std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.compare(paren, 3, ") Z") == 0);
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

TEST(HostProcess, CommandLineIsSplitAtBlanksAndNeverSeenByAShell)
{
    TempDir dir;
    std::string script = dir.path + "/args", out = dir.path + "/out", marker = dir.path + "/marker";
    std::ofstream(script) << "#!/bin/sh\nprintf '[%s]\\n' \"$@\" > " << out << "\nexit \"${EXIT:-0}\"\n";
    chmod(script.c_str(), 0755);

    std::string line = script + "  a;touch\t" + marker + " b|c $(touch${IFS}" + marker + ") 'q r' >x\n";
    EXPECT_EQ(KQ_CmdExec(line.data()), 0);
    EXPECT_EQ(Slurp(out), "[a;touch]\n[" + marker + "]\n[b|c]\n[$(touch${IFS}" + marker +
                              ")]\n['q]\n[r']\n[>x]\n");
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "something ran through a shell";

    struct {
        const char *line;
        int result;
    } cases[] = {
        {"/bin/true", 0},           {"true", 0},  // found in PATH
        {"/bin/false", -EIO},       {"/bin/sh -c exit${IFS}3", -EIO},
        {"/bin/sh -c kill${IFS}-9${IFS}$$", -EIO},  // killed by a signal
        {"/no/such/program", -ENOENT}, {"kq-no-such-program", -ENOENT},
        {"", -EINVAL},              {" \t ", -EINVAL},
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
    TempDir dir;
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
    struct {
        std::string prefix, ns, hosts;
    } cases[] = {{"ip netns exec kqpz ", nsOf("/run/netns/kqpz"), "zone hosts"},
                 {"", nsOf("/proc/self/ns/net"), hosts}};
    for (const auto &c : cases) {
        std::string line = c.prefix + script;
        ASSERT_EQ(KQ_CmdExec(line.data()), 0) << line;
        EXPECT_EQ(Slurp(out), c.ns + "\n" + c.hosts + "\n0 1 2 3 \n/dev/null\nPATH=" + getenv("PATH") + "\n")
            << line;
    }
    close(leaked);
    unsetenv("KQ_PROBE_SECRET");

    struct {
        const char *line;
        int result;
    } failures[] = {
        {"ip netns exec kqnone /bin/true", -EIO},  // no such zone: as from `ip`, which exits 255
        {"ip netns exec kqpz /no/such/program", -EIO},
        {"ip netns exec kqpz /bin/false", -EIO},
        {"ip netns exec kqpz kq-no-such-program", -ENOENT},
    };
    for (const auto &f : failures)
        EXPECT_EQ(KQ_RTCSystem(f.line), f.result) << f.line;
    system("ip netns del kqpz; rm -rf /etc/netns/kqpz");
}

TEST(HostProcess, KillPidTerminatesThenForcesAndRefusesNonsense)
{
    // Shells under the names dnsmasq and dhclient, each in a process group of its own so
    // that it and its sleep can be cleaned up together.
    TempDir dir;
    const std::string dnsmasq = dir.path + "/dnsmasq", dhclient = dir.path + "/dhclient";
    ASSERT_EQ(symlink("/bin/sh", dnsmasq.c_str()), 0);
    ASSERT_EQ(symlink("/bin/sh", dhclient.c_str()), 0);
    auto daemon = [&](const std::string &program, std::vector<std::string> args, bool ignoreTerm = false) {
        std::vector<std::string> argv = {program, "-c", "sleep 30; :", "sh"};
        argv.insert(argv.end(), args.begin(), args.end());
        return Spawn(argv, ignoreTerm, true);
    };
    auto cleanUp = [](pid_t pid) {
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, WNOHANG);
    };

    auto start = std::chrono::steady_clock::now();
    pid_t polite = daemon(dnsmasq, {"-K", "--pid-file=/run/vyr_dhcpd_eth1.pid"});
    ASSERT_GT(polite, 0);
    usleep(100 * 1000);
    EXPECT_EQ(KQ_KillPid(polite), 0);
    EXPECT_LT(Seconds(start), 1.5);
    EXPECT_EQ(waitpid(polite, nullptr, WNOHANG), -1) << "the child was not reaped";
    cleanUp(polite);

    start = std::chrono::steady_clock::now();
    pid_t stubborn = daemon(dhclient, {"-4", "eth1", "-pf", "/run/eth1_dhclient.pid"}, true);
    ASSERT_GT(stubborn, 0);
    usleep(100 * 1000);
    EXPECT_EQ(KQ_KillPid(stubborn), 0);
    EXPECT_GE(Seconds(start), 2.0);  // waited for SIGTERM first
    EXPECT_LT(Seconds(start), 4.0);
    EXPECT_TRUE(Gone(stubborn));
    cleanUp(stubborn);

    // A daemon that is not our child.
    std::string pidFile = dir.path + "/daemon.pid";
    ASSERT_EQ(system(("setsid " + dnsmasq + " -c 'sleep 30; :' sh --pid-file=/run/x.pid >/dev/null 2>&1 & echo $! > " +
                      pidFile).c_str()), 0);
    pid_t orphan = atoi(Slurp(pidFile).c_str());
    ASSERT_GT(orphan, 0);
    usleep(100 * 1000);
    EXPECT_EQ(KQ_KillPid(orphan), 0);
    EXPECT_TRUE(Gone(orphan));
    cleanUp(orphan);

    pid_t gone = Spawn({"/bin/true"});
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    EXPECT_EQ(KQ_KillPid(gone), -3);
    EXPECT_EQ(KQ_KillPid(0), -EINVAL);
    EXPECT_EQ(KQ_KillPid(-1), -EINVAL);
    EXPECT_EQ(KQ_KillPid(-getpgrp()), -EINVAL);

    // Pids that a stale pid file can name: answered as gone, and nothing is signalled.
    pid_t unrelated = Spawn({"/bin/sleep", "30"});
    pid_t noPidFile = daemon(dnsmasq, {"-K", "--conf-file=/run/x.conf"});
    pid_t emptyPidFile = daemon(dhclient, {"-4", "eth1", "--pid-file="});
    usleep(100 * 1000);
    for (pid_t pid : {unrelated, noPidFile, emptyPidFile, getpid(), 1, 4194305, 2147483647}) {
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(KQ_KillPid(pid), -3) << pid;
        EXPECT_LT(Seconds(start), 0.5);
    }
    for (pid_t pid : {unrelated, noPidFile, emptyPidFile}) {
        EXPECT_FALSE(Gone(pid)) << pid;
        cleanUp(pid);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

// A daemonising dhclient counts as started once its pid file is written, so that a stop
// right after the start finds it.
TEST(HostProcess, DaemonisingDhclientStartWaitsForItsPidFile)
{
    TempDir dir;
    const std::string dhclient = dir.path + "/dhclient", pidFile = dir.path + "/eth1_dhclient.pid";
    // Goes to the background at once, as -nw does, and writes the pid file a little later.
    std::ofstream(dhclient) << "#!/bin/sh\n[ \"$5\" = -nw ] || exit 3\n"
                               "( sleep 0.4; echo $$ > \"$4\" ) > /dev/null 2>&1 &\nexit 0\n";
    ASSERT_EQ(chmod(dhclient.c_str(), 0755), 0);

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KQ_RTCSystem((dhclient + " -4 eth1 -pf " + pidFile + " -nw").c_str()), 0);
    EXPECT_GE(Seconds(start), 0.4);
    EXPECT_LT(Seconds(start), 1.5);
    EXPECT_NE(Slurp(pidFile), "");

    // A pid file that never comes: a bounded wait, then the start still counts.
    std::ofstream(dhclient) << "#!/bin/sh\nexit 0\n";
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(KQ_RTCSystem((dhclient + " -4 eth1 -pf " + pidFile + ".none -nw").c_str()), 0);
    EXPECT_GE(Seconds(start), 2.0);
    EXPECT_LT(Seconds(start), 3.0);

    // Without -nw nothing is awaited.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(KQ_RTCSystem((dhclient + " -4 eth1 -pf " + pidFile + ".none").c_str()), 0);
    EXPECT_LT(Seconds(start), 1.0);
}

TEST(HostProcess, PidCheckRecognisesOnlyTheRightDhclient)
{
    TempDir dir;
    std::string fake = dir.path + "/dhclient";  // a shell under the name dhclient
    ASSERT_EQ(symlink("/bin/sh", fake.c_str()), 0);
    auto client = [&](std::vector<std::string> args) {
        std::vector<std::string> argv = {fake, "-c", "sleep 30; :"};
        argv.insert(argv.end(), args.begin(), args.end());  // $0 $1 ... of the script
        return Spawn(argv, false, true);
    };
    pid_t v6 = client({"-6", "eth9", "-pf", "/var/run/eth9_dhclient6.pid"});
    pid_t v4 = client({"-4", "eth9"});
    pid_t plain = client({"-v", "eth8"});
    pid_t other = Spawn({"/bin/sleep", "30"});
    usleep(100 * 1000);

    struct {
        pid_t pid;
        const char *ifName, *tag;
        BOOL expected;
    } cases[] = {
        {v6, "eth9", "dhclient6", TRUE},  {v6, "eth9", "dhclient", FALSE},
        {v6, "eth1", "dhclient6", FALSE}, {v6, "eth", "dhclient6", FALSE},
        {v4, "eth9", "dhclient", TRUE},   {v4, "eth9", "dhclient6", FALSE},
        {plain, "eth8", "dhclient", TRUE}, {plain, "eth8", "dhclient6", FALSE},
        {other, "30", "dhclient", FALSE}, {v4, "eth9", "dnsmasq", FALSE},
        {0, "eth9", "dhclient", FALSE},   {999999999, "eth9", "dhclient", FALSE},
    };
    for (const auto &c : cases)
        EXPECT_EQ(KQ_IsPIDCorrectInPIDFile(c.pid, c.ifName, c.tag), c.expected)
            << c.pid << " " << c.ifName << " " << c.tag;
    for (pid_t pid : {v6, v4, plain, other}) {
        kill(-pid, SIGKILL);  // the shell and its sleep (other: no group of its own)
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

}  // namespace
