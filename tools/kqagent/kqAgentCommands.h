// The commands of kqagent, executed in one place whether they arrive through the control
// socket of a running agent or run in a kqagent process of their own.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <functional>
#include <map>
#include <optional>
#include <set>

#include "kqAgentDesired.h"
#include "kqAgentServices.h"
#include "kqAgentVerbs.h"

namespace kqagent {

struct CommandResult {
    int exit = kExitOk;
    std::string out, err;
};

// A command as the user typed it, with the request file's text read by the user's own
// process (the agent may not see the same folder, or the same file permissions).
struct Command {
    std::vector<std::string> argv;  // command name first
    std::string fileText;           // apply / check / plan: the request file
    int logLevel = 0;               // 0: the agent's own
};

// The one owner of the module in a process: its registry, the desired state and the
// policy rules of the reference host live here. Not thread-safe by design: the module is
// called from one thread, one call at a time.
class Agent {
public:
    explicit Agent(bool daemon);

    // The start of an agent. With a desired state: the registry rebuilt from it (records of
    // the module's own where they still fit, the module's add for the rest), every service
    // that runs as configured kept and every other one started through the module; without
    // one: the module's start-up load of dhcp.conf, when there is one. Reports what it kept
    // and started; kExitFailed when an interface is not reconciled or a service does not run.
    int Startup(std::ostream &out, std::ostream &err);

    // `load PATH`: the module's start-up load of PATH, then every desired interface sent
    // again, so that what that restore cannot rebuild (zones, IPv6 modes, relay-only
    // interfaces) is restarted whole by change detection.
    int LoadFrom(const std::string &confPath, std::ostream &out, std::ostream &err);

    // For a kqagent process of its own: the registry rebuilt from the desired state without
    // touching any process.
    int RebuildRegistry(std::ostream &err);

    // SIGHUP: reads the desired state again and applies the difference.
    int Reload(std::ostream &out, std::ostream &err);

    // The command line parsed against the verb table, then run by its verb.
    CommandResult Execute(const Command &command);

    // The verbs the agent runs (see kqAgentVerbs.h).
    int Apply(const VerbCall &call);
    int Plan(const VerbCall &call);
    int Load(const VerbCall &call);
    int Status(const VerbCall &call);
    int Client(const VerbCall &call);

    const DesiredState &Desired() const { return desired_; }

    // Every service the registry and the desired clients call for; with `only`, those of
    // these interfaces, and the shared relay.
    std::vector<Service> Wanted(const std::set<std::string> *only = nullptr) const;
    // Starts (or restarts) one service through the module's own operation.
    int StartService(const Service &service);
    // Records what runs now, so that the next start can keep it; call after every change.
    // `only`: the interfaces a change touched (their servers and clients) and the shared
    // relay are looked at again, the other records stand; nullptr: everything.
    void RecordServices(const std::set<std::string> *only = nullptr);
    // Writes services.json when what it records changed.
    void SaveServices();
    // Writes the desired state whole when its journal holds changes (at the agent's stop).
    void FoldDesired(std::ostream &err);
    // Set by the daemon: services.json is then written a moment after a change, once for a
    // burst of changes, and at the latest when the agent stops. Unset: at once.
    std::function<void()> deferServicesSave;
    // The interfaces the last command touched; nullptr when it may have touched any.
    const std::set<std::string> *Touched() const { return touchedAll_ ? nullptr : &touched_; }

    // Supervision facts shown by status, filled in by the daemon.
    std::map<Service, Supervision> supervision;
    // Called for `load` through the agent: every given-up service is supervised again.
    std::function<void()> resumeServices;

private:
    // Stops what a refused add left running that nothing records, or brings back the
    // interface's configured dnsmasq when the refused request had replaced it.
    struct ServerSnapshot {
        bool configured;                  // in the registry
        std::optional<std::string> file;  // its dnsmasq file
        long pid;                         // its dnsmasq, 0 when none runs
    };
    void CleanUpRefusedAdd(const std::string &ifname, const ServerSnapshot &before, std::ostream &err);
    // The configured interfaces that `requests` does not add, for apply --replace.
    std::vector<std::string> NotAddedBy(const std::vector<Request> &requests) const;

    // apply's requests in order, each recorded when the module accepted it; the first
    // refusal stops them (kExitFailed, after saying why).
    int ApplyEach(const std::vector<Request> &requests, std::vector<std::string> &added, std::ostream &out,
                  std::ostream &err);
    int ReportRunning(std::ostream &out, std::ostream &err);
    // The registry from the desired state; returns the entries that need the module's add.
    std::vector<const DesiredEntry *> RestoreRegistry(std::ostream &err);
    bool RunsAsRecorded(const Service &service, const ProcessRecord *record, uint32_t zone) const;
    int EnableClient(const DesiredClient &client);
    bool daemon_;
    DesiredState desired_;
    ServiceStore services_;
    // Interfaces whose registry record came from the converters alone (no record of the
    // module's to take): not recorded until the module itself has added them again.
    std::set<std::string> converted_;
    // What the running command touched, so that recording and supervision after it look at
    // those interfaces only: a change costs the same whatever the number of LANs.
    std::set<std::string> touched_;
    bool touchedAll_ = true;
    // The interfaces whose relay half is on, kept up to date for the interfaces in hand
    // (whether the shared relay is wanted would otherwise walk every record each change).
    bool RelayWanted(const std::set<std::string> *only) const;
    mutable std::set<std::string> relayLans_;
    mutable bool relayLansKnown_ = false;
    // Why an apply that does not declare itself the whole configuration is refused: the
    // desired state is gone while the registry holds interfaces, or dhcp.conf is unreadable
    // and its backup is the only good copy. Empty: applies are fine.
    std::string partialRefused_;
};

}  // namespace kqagent
