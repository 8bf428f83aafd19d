// `kqagent status` as text for people, from the document the collector builds.
#pragma once

#include <json-c/json.h>

#include <string>

namespace kqagent {

// The whole status document (see CollectStatus).
std::string RenderStatus(json_object *status);

// The policy rule table (see PolicyRulesJson): a count, then one line per rule.
std::string RenderPolicyRules(json_object *rules);

}  // namespace kqagent
