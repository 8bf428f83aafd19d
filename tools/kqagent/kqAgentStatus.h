// `kqagent status`: what is configured (dhcp.conf, the LAN table, the desired state), what
// runs (pid files confirmed through /proc), what was handed out (lease files) and the
// policy rules, collected as one JSON document. kqAgentDrift.cpp judges it, kqAgentRender.cpp
// turns it into text.
#pragma once

#include <json-c/json.h>

#include <map>
#include <string>
#include <vector>

#include "kqAgentDesired.h"
#include "kqAgentServices.h"

namespace kqagent {

// The whole status as a JSON document (the caller releases it with json_object_put).
// With names given, only those interfaces are listed. Each interface shows its desired
// configuration beside what runs, and "drift" lists where the two differ.
// A process the agent supervises carries "supervision" {restarts, lastExit?, gaveUp?}.
json_object *CollectStatus(const std::vector<std::string> &onlyInterfaces, const DesiredState &desired,
                           bool fromAgent, const std::map<Service, Supervision> &supervision);

// What status exits with for that document: kExitDrift when an interface drifts or the
// desired state cannot be read (nothing can be judged against it), else kExitOk.
int StatusExit(json_object *status);

// The pid of the dnsmasq that owns pidFile (confirmed through /proc), 0 when none runs.
long RunningDnsmasq(const std::string &pidFile);

// The policy rule table of this process, as a JSON array.
json_object *PolicyRulesJson();

}  // namespace kqagent
