// The agent's watch over every service it is responsible for: each LAN's dnsmasq, the
// shared relay and each enabled dhclient. A service that dies is started again through the
// module's own operations, the first time after half a second, then after a delay that
// doubles; after five deaths in a row (a service that ran for a minute starts a new row) it
// is given up and says so, until `kqagent load` or a change of that service.
//
// dnsmasq and dhclient put themselves in the background, so they are not the agent's
// children: each is watched through a pidfd. The agent is their subreaper, so for the ones
// started under it the exit status is known too.
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>

#include "kqAgentCommands.h"

namespace kqagent {

struct RestartPolicy {
    std::chrono::milliseconds firstDelay{500};
    unsigned giveUpAfter = 5;                 // deaths in a row
    std::chrono::seconds stableAfter{60};     // a run this long ends a row
    // A start that succeeded but whose process has not written its pid file yet (a dhclient
    // under load) is looked at again after this long before it counts as a failure.
    std::chrono::milliseconds lateStart{3000};
    // The delay before restart `death` of a row (1 for the first death): firstDelay doubled
    // for each earlier one.
    std::chrono::milliseconds Delay(unsigned death) const
    {
        return firstDelay * (1u << (death > 1 ? std::min(death - 1, 16u) : 0u));
    }
};

class Supervisor {
public:
    Supervisor(Agent &agent, sd_event *event, RestartPolicy policy = {});
    ~Supervisor();
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;

    // Brings the watches in line with what the agent wants and what runs now. Called after
    // the start and after every command: a process the module replaced is watched in its
    // place, one that does not run is restarted, one no longer wanted is left alone.
    // `only`: the interfaces the command touched; the other watches stand as they are.
    void Sync(const std::set<std::string> *only = nullptr);
    // Every given-up service is supervised again (`kqagent load`).
    void Resume();
    // SIGCHLD: the agent's exited children are reaped a moment later, all at once, and the
    // exit of watched ones is kept.
    void ChildExited();

private:
    struct Watch {
        Supervisor *owner = nullptr;
        Service service;
        pid_t pid = 0;
        uint64_t startTime = 0;
        int pidfd = -1;
        sd_event_source *exitSource = nullptr;
        sd_event_source *timer = nullptr;
        unsigned deathsInRow = 0;
        std::chrono::steady_clock::time_point since;  // running since (or first seen)
        pid_t diedPid = 0;
        bool gaveUp = false;
        bool probing = false;  // the timer looks again before anything is started
    };
    void Follow(Watch &watch, pid_t pid, uint64_t startTime);
    void Unfollow(Watch &watch);
    void Release(int pidfd);
    void ReapMiddle(pid_t daemon);
    static int OnReleasedExit(sd_event_source *source, int fd, uint32_t events, void *data);
    void Died(Watch &watch, const std::string &how);
    void Restart(Watch &watch);
    void Probe(Watch &watch);
    static int OnExit(sd_event_source *source, int fd, uint32_t events, void *data);
    static int OnTimer(sd_event_source *source, uint64_t usec, void *data);
    static int OnReapTimer(sd_event_source *source, uint64_t usec, void *data);
    void Reap();

    Agent &agent_;
    sd_event *event_;
    RestartPolicy policy_;
    std::map<Service, Watch> watches_;
    std::map<pid_t, std::string> exits_;  // reaped before their pidfd told
    std::set<pid_t> followed_;            // the pids of the watches with a pidfd
    sd_event_source *reapTimer_ = nullptr;
    std::map<int, sd_event_source *> released_;  // pidfds of processes no longer watched
};

}  // namespace kqagent
