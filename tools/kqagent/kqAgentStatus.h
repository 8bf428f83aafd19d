// `kqagent status`: what is configured (dhcp.conf, the LAN table), what runs (pid files
// confirmed through /proc), what was handed out (lease files) and the policy rules.
#pragma once

#include <json-c/json.h>

#include <string>
#include <vector>

#include <map>

#include "kqAgentDesired.h"
#include "kqAgentServices.h"

namespace kqagent {

// The whole status as a JSON document (the caller releases it with json_object_put).
// With names given, only those interfaces are listed. Each interface shows its desired
// configuration beside what runs, and "drift" lists where the two differ.
// A process the agent supervises carries "supervision" {restarts, lastExit?, gaveUp?}.
json_object *CollectStatus(const std::vector<std::string> &onlyInterfaces, const DesiredState &desired,
                           bool fromAgent, const std::map<Service, Supervision> &supervision);

// The pid of the dnsmasq that owns pidFile (confirmed through /proc), 0 when none runs.
long RunningDnsmasq(const std::string &pidFile);

// The same document as text for people.
std::string RenderStatus(json_object *status);

// The policy rule table of this process, as JSON array / one line per rule.
json_object *PolicyRulesJson();
std::string RenderPolicyRules(json_object *rules);

// Lease files, parsed (exposed for the lab test and the status view).
// dnsmasq: one object per lease: address, expires, hwaddr (IPv4) or iaid (IPv6), hostname,
// clientId. dhclient: the addresses of the newest lease block with their expiry text.
json_object *ParseDnsmasqLeases(const std::string &text);
json_object *ParseDhclientLeases(const std::string &text, bool ipv6);

}  // namespace kqagent
