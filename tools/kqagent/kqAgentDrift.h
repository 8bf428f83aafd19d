// How `kqagent status` judges an interface: what its desired configuration asks for, what
// its dnsmasq serves, in words, and every DRIFT between the two, down to whether a client on
// the LAN can be served at all (the interface, its addresses, the sockets its dnsmasq holds).
// Facts in, causes out: the collector reads the processes, files and namespaces.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kqAgentDesired.h"

namespace kqagent {

// An interface as the namespace it should be in shows it.
struct LinkFacts {
    bool exists = false;
    bool up = false;                     // administratively up
    std::vector<std::string> addresses;  // "192.0.2.1/24", "2001:db8:1::1/64": IPv4 and non-link-local IPv6
};

// The DHCP sockets a dnsmasq holds itself (its own file descriptors), by what they serve.
struct DnsmasqSockets {
    bool dhcpv4 = false;  // UDP 67
    bool dhcpv6 = false;  // UDP 547
    bool icmpv6 = false;  // raw ICMPv6: router advertisements
};

// What runs for one interface, as collected.
struct InterfaceFacts {
    std::string ifname;
    uint32_t zone = 0;  // from the LAN table
    bool inDhcpConf = false;
    bool dnsmasqRunning = false;
    std::optional<bool> dnsmasqInZone;  // in the zone's namespace; nullopt when that cannot be told
    std::string dnsmasqConf;            // the running dnsmasq's configuration file
    bool dhclientRunning[2] = {};       // ipv4, ipv6
    std::optional<LinkFacts> link;       // in its zone's namespace; nullopt when that cannot be read
    std::optional<LinkFacts> relayLink;  // in the agent's namespace, where the shared relay runs
    std::optional<DnsmasqSockets> sockets;  // of its running dnsmasq; nullopt when they cannot be read
};

// The shared relay's dnsmasq and its configuration file.
struct RelayFacts {
    bool running = false;
    std::string conf;
    std::optional<DnsmasqSockets> sockets;
};

// One DRIFT: a stable code for programs ("no-ipv4-address") and the line people read.
struct Cause {
    std::string code;
    std::string text;
    bool operator==(const Cause &other) const = default;
};

// What the interface's desired state holds (null: nothing), its clients by family.
struct Wanted {
    const DesiredEntry *entry = nullptr;
    const DesiredClient *clients[2] = {};  // ipv4, ipv6
};

// "ipv4 server, ipv6 stateful DHCPv6, zone 7": what a desired entry asks for.
std::string DesiredSummary(const DesiredEntry &entry, uint32_t zone);

// The same words for what the interface's dnsmasq serves, and where it runs.
std::string ServedSummary(const InterfaceFacts &facts);

// Every difference between what is wanted and what runs, in the order status shows them:
// the server and relay, what keeps clients from being served, then the clients.
std::vector<Cause> Drift(const Wanted &wanted, const InterfaceFacts &facts, const RelayFacts &relay);

}  // namespace kqagent
