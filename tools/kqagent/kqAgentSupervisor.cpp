#include "kqAgentSupervisor.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <iostream>

#include "kqAgentCommon.h"
#include "kqAgentJournal.h"
#include "kqAgentProcess.h"

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

namespace kqagent {

namespace {

int PidfdOpen(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

std::string Now()
{
    const time_t now = time(nullptr);
    char text[32] = "";
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", localtime(&now));
    return text;
}

}  // namespace

Supervisor::Supervisor(Agent &agent, sd_event *event, RestartPolicy policy) : agent_(agent), event_(event), policy_(policy)
{
}

Supervisor::~Supervisor()
{
    sd_event_source_disable_unref(reapTimer_);
    for (auto &[pidfd, source] : released_) {
        sd_event_source_disable_unref(source);
        close(pidfd);
    }
    for (auto &[service, watch] : watches_) {
        Unfollow(watch);
        sd_event_source_disable_unref(watch.timer);
    }
}

void Supervisor::Follow(Watch &watch, pid_t pid, uint64_t startTime)
{
    Unfollow(watch);
    sd_event_source_disable_unref(watch.timer);
    watch.timer = nullptr;
    watch.pid = pid;
    watch.startTime = startTime;
    watch.since = std::chrono::steady_clock::now();
    watch.pidfd = PidfdOpen(pid);
    if (watch.pidfd >= 0)
        followed_.insert(pid);
    ReapMiddle(pid);
    if (watch.pidfd < 0) {
        // Gone between the look and the watch: that is a death like any other.
        Died(watch, "ended (exit status unknown)");
        return;
    }
    if (sd_event_add_io(event_, &watch.exitSource, watch.pidfd, EPOLLIN, OnExit, &watch) < 0) {
        std::cerr << "kqagent: " << watch.service.Name() << ": cannot watch pid " << pid << ": " << strerror(errno)
                  << "; it is checked again after the next command" << std::endl;
        close(watch.pidfd);
        watch.pidfd = -1;
        followed_.erase(pid);
        watch.pid = 0;
    }
}

void Supervisor::Unfollow(Watch &watch)
{
    watch.exitSource = sd_event_source_disable_unref(watch.exitSource);
    if (watch.pidfd >= 0) {
        followed_.erase(watch.pid);
        Release(watch.pidfd);
    }
    watch.pidfd = -1;
}

// A process that is no longer watched (the module replaced or stopped it, or it is not
// wanted any more) is reaped through its pidfd when it ends, which costs nothing like the
// sweep over every child.
void Supervisor::Release(int pidfd)
{
    siginfo_t info{};
    const int waited = waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG);
    if (waited != 0 || info.si_pid != 0) {
        close(pidfd);  // reaped, or not a child of this agent (found running at start)
        return;
    }
    sd_event_source *source = nullptr;
    if (sd_event_add_io(event_, &source, pidfd, EPOLLIN, OnReleasedExit, this) < 0) {
        close(pidfd);  // the sweep reaps it
        return;
    }
    released_[pidfd] = source;
}

int Supervisor::OnReleasedExit(sd_event_source *source, int fd, uint32_t, void *data)
{
    auto &self = *static_cast<Supervisor *>(data);
    siginfo_t info{};
    (void)waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(fd), &info, WEXITED | WNOHANG);
    sd_event_source_disable_unref(source);
    close(fd);
    self.released_.erase(fd);
    return 0;
}

void Supervisor::Sync(const std::set<std::string> *only)
{
    std::set<Service> wanted;
    for (const Service &service : agent_.Wanted(only))
        wanted.insert(service);
    auto drop = [&](std::map<Service, Watch>::iterator it) {
        // Deleted or disabled: never restarted again.
        Unfollow(it->second);
        sd_event_source_disable_unref(it->second.timer);
        agent_.supervision.erase(it->first);
        return watches_.erase(it);
    };
    if (only == nullptr) {
        for (auto it = watches_.begin(); it != watches_.end();)
            it = wanted.count(it->first) != 0 ? std::next(it) : drop(it);
    } else {
        // Only the touched interfaces' watches and the relay's can have changed.
        std::vector<Service> scope{{ServiceKind::Relay, ""}};
        for (const auto &ifname : *only)
            for (const ServiceKind kind : {ServiceKind::Server, ServiceKind::Client4, ServiceKind::Client6})
                scope.push_back(Service{kind, ifname});
        for (const Service &service : scope)
            if (const auto it = watches_.find(service); it != watches_.end() && wanted.count(service) == 0)
                drop(it);
    }
    for (const Service &service : wanted) {
        auto [it, fresh] = watches_.try_emplace(service);
        Watch &watch = it->second;
        if (fresh) {
            watch.owner = this;
            watch.service = service;
            watch.since = std::chrono::steady_clock::now();
            agent_.supervision[service];
        }
        const Process process = ProcessOf(service.PidFile(), service.Program());
        if (process.running) {
            if (watch.pidfd < 0 || watch.pid != process.pid || watch.startTime != process.startTime) {
                // Started by a command (or found at start): a new row begins.
                watch.deathsInRow = 0;
                watch.gaveUp = false;
                agent_.supervision[service].gaveUp.clear();
                Follow(watch, process.pid, process.startTime);
            }
            continue;
        }
        if (watch.gaveUp || watch.timer != nullptr)
            continue;
        // Wanted but not running: a command may have just started it (a dhclient writes its pid
        // file when it is ready), so it is looked at again before it counts as dead.
        Unfollow(watch);
        watch.diedPid = process.pid;
        watch.pid = 0;
        watch.probing = true;
        const uint64_t delay = static_cast<uint64_t>(std::chrono::microseconds(policy_.lateStart).count());
        if (sd_event_add_time_relative(event_, &watch.timer, CLOCK_MONOTONIC, delay, 0, OnTimer, &watch) < 0) {
            watch.timer = nullptr;
            watch.probing = false;
            Died(watch, process.pidFileExists ? "not running (stale pid file)" : "not running");
        }
    }
}

void Supervisor::Resume()
{
    for (auto &[service, watch] : watches_) {
        if (!watch.gaveUp)
            continue;
        watch.gaveUp = false;
        watch.deathsInRow = 0;
        agent_.supervision[service].gaveUp.clear();
    }
}

// A waitid for any child walks every child in the kernel, and the agent is the parent of
// every dnsmasq. So what the pidfds and ReapMiddle leave is reaped a second after the first
// SIGCHLD, all at once, not at every signal: a burst of commands costs one walk.
void Supervisor::ChildExited()
{
    constexpr uint64_t kReapDelayUsec = 1000 * 1000;
    if (reapTimer_ != nullptr)
        return;
    if (sd_event_add_time_relative(event_, &reapTimer_, CLOCK_MONOTONIC, kReapDelayUsec, 0, OnReapTimer, this) < 0) {
        reapTimer_ = nullptr;
        Reap();
    }
}

// A daemon that puts itself in the background leaves its middle process to the agent, its
// subreaper, as a zombie; that one almost always has the pid just before the daemon's. It is
// reaped here by pid, which is cheap, when it is a zombie child no watch stands for; the
// sweep after SIGCHLD then finds nothing left to walk for.
void Supervisor::ReapMiddle(pid_t daemon)
{
    const pid_t middle = daemon - 1;
    siginfo_t info{};
    if (middle <= 1 || followed_.count(middle) != 0 ||
        waitid(P_PID, static_cast<id_t>(middle), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != middle)
        return;
    (void)waitid(P_PID, static_cast<id_t>(middle), &info, WEXITED | WNOHANG);
}

int Supervisor::OnReapTimer(sd_event_source *, uint64_t, void *data)
{
    auto &self = *static_cast<Supervisor *>(data);
    self.reapTimer_ = sd_event_source_disable_unref(self.reapTimer_);
    self.Reap();
    return 0;
}

void Supervisor::Reap()
{
    for (;;) {
        siginfo_t info{};
        if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG) != 0 || info.si_pid == 0)
            return;
        if (followed_.count(info.si_pid) != 0)
            exits_[info.si_pid] = ExitText(info.si_code, info.si_status);
    }
}

int Supervisor::OnExit(sd_event_source *, int fd, uint32_t, void *data)
{
    auto &watch = *static_cast<Watch *>(data);
    Supervisor &self = *watch.owner;
    // Only a child of this agent tells how it ended; one it found running at start does not.
    std::string how = "ended (exit status unknown)";
    siginfo_t info{};
    if (waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(fd), &info, WEXITED | WNOHANG) == 0 && info.si_pid != 0) {
        how = ExitText(info.si_code, info.si_status);
    } else if (const auto it = self.exits_.find(watch.pid); it != self.exits_.end()) {
        how = it->second;
    }
    self.exits_.erase(watch.pid);
    watch.diedPid = watch.pid;
    self.Unfollow(watch);
    watch.pid = 0;
    self.Died(watch, how);
    return 0;
}

void Supervisor::Died(Watch &watch, const std::string &how)
{
    Supervision &facts = agent_.supervision[watch.service];
    facts.lastExit = how;
    const auto now = std::chrono::steady_clock::now();
    if (now - watch.since >= policy_.stableAfter)
        watch.deathsInRow = 0;
    ++watch.deathsInRow;
    const std::string who = watch.service.Name() + (watch.diedPid > 0 ? " (pid " + std::to_string(watch.diedPid) + ")" : "");
    if (watch.deathsInRow >= policy_.giveUpAfter) {
        watch.gaveUp = true;
        facts.gaveUp = Now();
        std::cerr << "kqagent: " << who << ": " << how << "; gave up after " << watch.deathsInRow
                  << " failures in a row ('kqagent load' starts it again)" << std::endl;
        return;
    }
    const uint64_t delay = static_cast<uint64_t>(std::chrono::microseconds(policy_.Delay(watch.deathsInRow)).count());
    if (sd_event_add_time_relative(event_, &watch.timer, CLOCK_MONOTONIC, delay, 0, OnTimer, &watch) < 0) {
        std::cerr << "kqagent: " << who << ": " << how << "; cannot schedule its restart: " << strerror(errno) << std::endl;
        watch.timer = nullptr;
        return;
    }
    watch.since = now;
}

int Supervisor::OnTimer(sd_event_source *, uint64_t, void *data)
{
    auto &watch = *static_cast<Watch *>(data);
    if (watch.probing)
        watch.owner->Probe(watch);
    else
        watch.owner->Restart(watch);
    return 0;
}

void Supervisor::Probe(Watch &watch)
{
    watch.timer = sd_event_source_disable_unref(watch.timer);
    watch.probing = false;
    const std::set<std::string> only{watch.service.ifname};
    const Process process = ProcessOf(watch.service.PidFile(), watch.service.Program());
    if (process.running) {
        const unsigned row = watch.deathsInRow;
        Follow(watch, process.pid, process.startTime);
        watch.deathsInRow = row;
        agent_.RecordServices(&only);
        return;
    }
    Died(watch, process.pidFileExists ? "not running (stale pid file)" : "not running");
}

void Supervisor::Restart(Watch &watch)
{
    watch.timer = sd_event_source_disable_unref(watch.timer);
    const Service service = watch.service;
    const std::set<std::string> only{service.ifname};
    Supervision &facts = agent_.supervision[service];
    const std::string who = service.Name() + (watch.diedPid > 0 ? " (pid " + std::to_string(watch.diedPid) + ")" : "");
    // One that came up late meanwhile (its pid file written after the last look) is taken
    // over, never started a second time.
    if (const Process late = ProcessOf(service.PidFile(), service.Program()); late.running) {
        const unsigned row = watch.deathsInRow;
        Follow(watch, late.pid, late.startTime);
        watch.deathsInRow = row;
        agent_.RecordServices(&only);
        return;
    }
    const int result = agent_.StartService(service);
    ++facts.restarts;
    const Process process = ProcessOf(service.PidFile(), service.Program());
    if (result >= 0 && !process.running) {
        // Started, but not (yet) running under its pid file: look again before counting it.
        std::cerr << Priority::Warning << "kqagent: " << who << ": " << facts.lastExit << "; restarted (restart " << facts.restarts
                  << "), waiting for its pid file" << std::endl;
        watch.probing = true;
        const uint64_t delay = static_cast<uint64_t>(std::chrono::microseconds(policy_.lateStart).count());
        if (sd_event_add_time_relative(event_, &watch.timer, CLOCK_MONOTONIC, delay, 0, OnTimer, &watch) >= 0)
            return;
        watch.timer = nullptr;
        watch.probing = false;
    }
    if (result >= 0 && process.running) {
        std::cerr << Priority::Warning << "kqagent: " << who << ": " << facts.lastExit << "; restarted, pid " << process.pid << " (restart "
                  << facts.restarts << ")" << std::endl;
        watch.diedPid = 0;
        const unsigned row = watch.deathsInRow;
        Follow(watch, process.pid, process.startTime);
        watch.deathsInRow = row;  // a quick death after this restart continues the row
        agent_.RecordServices(&only);
        return;
    }
    std::cerr << "kqagent: " << who << ": " << facts.lastExit << "; restart " << facts.restarts << " failed"
              << (result < 0 ? " (" + ErrnoName(result) + ")" : " (it does not run)") << std::endl;
    Died(watch, result < 0 ? "did not start (" + ErrnoName(result) + ")" : "did not start");
}

}  // namespace kqagent
