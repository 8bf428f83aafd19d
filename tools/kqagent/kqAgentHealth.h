// What status reads to tell whether a LAN can be served at all: its interface as the zone's
// network namespace shows it, and the DHCP sockets its dnsmasq holds. Read once per namespace
// and kept for one status, so that a thousand LANs cost one look at each namespace.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kqAgentDrift.h"

namespace kqagent {

class HealthReader {
public:
    // The interface in the namespace of zone (0: the agent's own); nullopt when that
    // namespace cannot be looked into (no privilege for it, say).
    std::optional<LinkFacts> Link(uint32_t zone, const std::string &ifname);

    // The DHCP sockets among the process's own file descriptors; nullopt when they cannot be read.
    std::optional<DnsmasqSockets> Sockets(pid_t pid);

private:
    using Links = std::map<std::string, LinkFacts>;
    enum class Socket { Dhcpv4, Dhcpv6, Icmpv6 };
    std::map<uint32_t, std::optional<Links>> links_;                  // by zone
    std::map<uint64_t, std::map<uint64_t, Socket>> socketsByNetns_;  // socket inode -> kind, by namespace inode
};

}  // namespace kqagent
