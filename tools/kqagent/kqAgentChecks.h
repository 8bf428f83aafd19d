// Checks of a parsed request file: what the request parser cannot see in one field (pools
// in one subnet and apart, names dnsmasq misreads), and, after a dry run through the module,
// what the module's output and the machine say (lines dnsmasq cannot read, a dhcp.conf too
// big for its loader, an interface that is missing, down or without an address in its pools'
// subnet). The module's own refusals come from the dry run itself.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kqAgentPlan.h"
#include "kqAgentRequests.h"

namespace kqagent {

constexpr size_t kDnsmasqLineMax = 1024;           // longest line dnsmasq 2.90 reads as one line
constexpr size_t kDhcpConfMax = size_t{16} << 20;  // the host reads dhcp.conf up to 16 MiB

struct CheckLimits {
    size_t dnsmasqLine = kDnsmasqLineMax;
    size_t dhcpConf = kDhcpConfMax;
};

struct CheckReport {
    // "request <i>: <path>: <reason>", like the parser's refusals.
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
    std::vector<std::string> notes;  // what could not be looked at
    bool Ok() const { return errors.empty(); }
};

// The requests on their own; cheap, for every apply.
CheckReport CheckRequests(const std::vector<Request> &requests);

// The dry run's steps: refusals, the files the module wrote, and the interfaces as the
// machine has them. With `strict`, warnings are errors.
void JudgeDryRun(const std::vector<Request> &requests, const std::vector<DryStep> &steps, bool strict,
                 const std::string &dhcpConfBackup, CheckReport &report, const CheckLimits &limits = CheckLimits());

}  // namespace kqagent
