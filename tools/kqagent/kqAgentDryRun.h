// The module's own answer to "what would these requests do": they run through the real
// module in a forked child whose host changes nothing (KQ_HostDryRun) and whose kill() and
// remove() only record, with the agent's registry as it stands. The agent, its registry and
// the machine are untouched, whoever runs it: as a normal user the child simply cannot
// look into other zones' namespaces.
#pragma once

#include <string>
#include <vector>

#include "kqAgentPlan.h"

namespace kqagent {

struct DryRunReport {
    std::vector<DryStep> steps;  // one per request, up to the first refusal
    std::string problem;         // the dry run itself failed; steps are then empty
};

// With `lookAtInterfaces`, each served interface is looked at in its zone after its add.
DryRunReport DryRun(const std::vector<Request> &requests, bool lookAtInterfaces);

}  // namespace kqagent
