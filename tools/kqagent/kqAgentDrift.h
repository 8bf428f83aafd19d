// How `kqagent status` judges an interface: what its desired configuration asks for, what
// its dnsmasq serves, in words, and every DRIFT between the two. Facts in, lines out: the
// collector reads the processes and files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kqAgentDesired.h"

namespace kqagent {

// What runs for one interface, as collected.
struct InterfaceFacts {
    std::string ifname;
    uint32_t zone = 0;  // from the LAN table
    bool inDhcpConf = false;
    bool dnsmasqRunning = false;
    std::optional<bool> dnsmasqInZone;  // in the zone's namespace; nullopt when that cannot be told
    std::string dnsmasqConf;            // the running dnsmasq's configuration file
    bool dhclientRunning[2] = {};       // ipv4, ipv6
};

// The shared relay's dnsmasq and its configuration file.
struct RelayFacts {
    bool running = false;
    std::string conf;
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
// the server and relay, then the clients.
std::vector<std::string> Drift(const Wanted &wanted, const InterfaceFacts &facts, const RelayFacts &relay);

}  // namespace kqagent
