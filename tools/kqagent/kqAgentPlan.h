// What an apply would do, as the module itself decides it: the requests are run through the
// real module in a dry run (kqAgentDryRun.h), and each step's effects (files written,
// programs started, processes signalled) are read back here into one line per request: new,
// unchanged, restart (and which settings changed), stop, relay rebuilt, or the refusal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kqAgentDrift.h"
#include "kqAgentRequests.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

// One thing the module did through its host or libc during a dry run: "write" (subject the
// path, data the bytes), "copy" (subject the source, data the target), "exec", "system",
// "kill" (host), "signal" (subject the pid, data the signal) and "remove" (libc).
struct DryEffect {
    std::string op, subject, data;
    bool operator==(const DryEffect &) const = default;
};

// One request's run through the module.
struct DryStep {
    int result = 0;
    std::vector<DryEffect> effects;
    std::vector<std::string> errors;  // the module's warning and error lines
    bool known = false;               // the interface was configured before this request
    bool serverBefore = false, serverAfter = false, relayBefore = false, relayAfter = false;
    std::vector<std::string> serverChanges, relayChanges;  // record fields that changed
    std::vector<std::string> relays;                       // relay interfaces afterwards
    uint32_t zone = 0;                                     // the server's zone afterwards
    std::optional<LinkFacts> link;                         // the interface in the zone's namespace
    std::string lookProblem;                               // why there is no link when one was asked for
};

// The fields of two registry records that differ, in the words of the request file.
std::vector<std::string> ServerChanges(const KQ_CTRL_DYNAMIC_SERVER_CONF &before, const KQ_CTRL_DYNAMIC_SERVER_CONF &after);
std::vector<std::string> RelayChanges(const KQ_CTRL_DYNAMIC_RELAY_CONF &before, const KQ_CTRL_DYNAMIC_RELAY_CONF &after);

// One line per request that ran ("[0] add lan1: server restart (ipv4 leasetime differs)"),
// an indented line when the shared relay is rebuilt or stopped, the module's own lines under
// a refusal, and with `verbose` the text of every dnsmasq file written. Steps end at the
// first refusal, as an apply does.
std::vector<std::string> PlanLines(const std::vector<Request> &requests, const std::vector<DryStep> &steps, bool verbose);

}  // namespace kqagent
