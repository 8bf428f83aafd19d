// Checks of a parsed request file against what the module, dnsmasq and dhcp.conf can hold.
//
// The request parser refuses what is malformed; these checks refuse what is well formed but
// would fail later, half way through an apply (a dnsmasq file the module cannot write, a line
// dnsmasq refuses, a dhcp.conf the loader will not read), and warn about settings that run
// today but do not survive a restart. Used by check, apply and plan alike.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kqAgentRequests.h"

namespace kqagent {

// Limits of the module and of the programs it drives.
constexpr size_t kDnsmasqFileMax = 10240;            // the module's buffer; a file must stay below it
constexpr size_t kDnsmasqLineMax = 1024;             // longest line dnsmasq 2.90 reads as one line
constexpr size_t kDhcpConfMax = size_t{16} << 20;    // the host reads dhcp.conf up to 16 MiB
constexpr size_t kDhcpConfRangeTextMax = 18;         // dhcp.conf readers keep 18 characters of an IPv6 range end

struct CheckLimits {
    size_t dnsmasqFile = kDnsmasqFileMax;
    size_t dnsmasqLine = kDnsmasqLineMax;
    size_t dhcpConf = kDhcpConfMax;
};

struct CheckReport {
    // "request <i>: <path>: <reason>", like the parser's refusals.
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
    bool Ok() const { return errors.empty(); }
};

// `current` is the last accepted add per interface before these requests; it only matters
// for the size of the whole dhcp.conf. With `strict`, warnings are errors.
CheckReport CheckRequests(const std::vector<Request> &requests, const std::vector<Request> &current, bool strict,
                          const CheckLimits &limits = CheckLimits());

// The text of the interface's dnsmasq file as the module writes it for this add (an interface
// without a DNS server given gets the longest default the module could fill in).
std::string DnsmasqFileText(const DhcpItemV2 &item);

// The size of dhcp.conf holding these adds, one interface each, in order.
size_t DhcpConfSize(const std::vector<const DhcpItemV2 *> &items);

}  // namespace kqagent
