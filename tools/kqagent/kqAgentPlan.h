// What an apply would do, worked out without touching anything: per request, whether the
// interface's dnsmasq is new, unchanged, restarted (and why) or stopped, and whether the shared
// relay is rebuilt. Decided as the module decides, from the last accepted add per interface.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kqAgentRequests.h"

namespace kqagent {

// The DNS server the module fills in for a server without one: the interface's first address.
struct DefaultDns {
    std::function<std::optional<uint32_t>(const std::string &ifname)> ipv4;
    std::function<std::optional<std::vector<uint8_t>>(const std::string &ifname)> ipv6;
};

// One line per request ("[0] add lan1: server restart (ipv4 leasetime differs)"), followed by
// an indented line when the shared relay is rebuilt or stopped. `current` holds the last
// accepted add of each configured interface, in the order they were first added.
std::vector<std::string> PlanLines(const std::vector<Request> &current, const std::vector<Request> &requests,
                                   const DefaultDns &defaults);

}  // namespace kqagent
