#include "kqAgentDrift.h"

#include <bit>
#include <cstdlib>
#include <sstream>

#include "kqAgentCommon.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

namespace {

const char *kIpv6ModeNames[] = {"SLAAC", "stateless DHCPv6", "stateful DHCPv6", "SLAAC and DHCPv6"};

// The IPv6 service a desired item asks for, by the pair of dynamic modes.
std::string DesiredIpv6Mode(const DhcpItemV2 &item)
{
    const Ipv6DhcpItem *v6 = item.ipv6dhcpitem;
    if (v6 == nullptr || v6->mode != KQ_DHCP_SERVER || v6->dhcpserver == nullptr)
        return "none";
    const uint32_t address = v6->dhcpserver->ipv6dynamicmode, dns = v6->dhcpserver->dnsdynamicmode;
    if (address == KQ_IPV6_DHCP && dns == KQ_IPV6_DHCP)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_DHCP];
    if (address == KQ_IPV6_SLAAC && dns == KQ_IPV6_DHCP)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP];
    if (address == KQ_IPV6_SLAAC && dns == KQ_IPV6_SLAAC)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_SLAAC];
    if (address == KQ_IPV6_BOTH)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP];
    return "none";
}

// The IPv6 service a dnsmasq configuration file of the module gives, from its range lines.
std::string RunningIpv6Mode(const std::string &conf)
{
    if (conf.find(", ra-stateless\n") != std::string::npos)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP];
    if (conf.find(", ra-only\n") != std::string::npos)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_SLAAC];
    if (conf.find(", slaac\n") != std::string::npos)
        return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP];
    std::istringstream lines(conf);
    std::string line;
    while (std::getline(lines, line))
        if (line.rfind("dhcp-range=", 0) == 0 && line.find(':') != std::string::npos)
            return kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_DHCP];
    return "none";
}

bool ServesIpv4(const InterfaceFacts &facts)
{
    return facts.dnsmasqConf.find("dhcp-range=" + facts.ifname + ",") != std::string::npos;
}

// An address of an interface as the kernel lists it: "192.0.2.1/24" or "2001:db8:1::1/64".
struct Held {
    std::vector<uint8_t> bytes;  // 4 or 16, network order
    unsigned prefixLength = 0;
};

std::optional<Held> ParseHeld(const std::string &text)
{
    const size_t slash = text.find('/');
    if (slash == std::string::npos)
        return std::nullopt;
    Held held;
    const std::string address = text.substr(0, slash);
    if (const auto v4 = ParseIpv4(address))
        held.bytes = {uint8_t(*v4 >> 24), uint8_t(*v4 >> 16), uint8_t(*v4 >> 8), uint8_t(*v4)};
    else if (const auto v6 = ParseIpv6(address))
        held.bytes = *v6;
    else
        return std::nullopt;
    held.prefixLength = static_cast<unsigned>(std::strtoul(text.c_str() + slash + 1, nullptr, 10));
    return held;
}

// Whether a and b (of one family) agree in their first prefixLength bits.
bool SameNet(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b, unsigned prefixLength)
{
    if (a.size() != b.size() || prefixLength > a.size() * 8)
        return false;
    for (unsigned bit = 0; bit < prefixLength; ++bit) {
        const uint8_t mask = uint8_t(0x80u >> (bit % 8));
        if ((a[bit / 8] & mask) != (b[bit / 8] & mask))
            return false;
    }
    return true;
}

std::vector<uint8_t> Ipv4Bytes(uint32_t address)
{
    return {uint8_t(address >> 24), uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)};
}

// "a/p, b/q" of the addresses of one family (4 or 16 bytes) the interface holds.
std::string HeldOfFamily(const LinkFacts &link, size_t size)
{
    std::string text;
    for (const auto &address : link.addresses)
        if (const auto held = ParseHeld(address); held && held->bytes.size() == size)
            text += (text.empty() ? "" : ", ") + address;
    return text;
}

// The prefix (address with its host part cleared) in text, "192.0.2.0/24".
std::string PrefixText(std::vector<uint8_t> bytes, unsigned prefixLength)
{
    for (unsigned bit = prefixLength; bit < bytes.size() * 8; ++bit)
        bytes[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
    const std::string address = bytes.size() == 4 ? FormatIpv4(uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 |
                                                                uint32_t(bytes[2]) << 8 | bytes[3])
                                                   : FormatIpv6(bytes.data());
    return address + "/" + std::to_string(prefixLength);
}

// dnsmasq serves a pool only through an address of the interface whose own subnet holds the
// whole pool; without one, a client's request goes unanswered ("no address range available").
void Ipv4AddressDrift(const std::string &ifname, const Ipv4DhcpServer &server, const LinkFacts &link,
                      std::vector<Cause> &drift)
{
    if (server.n_dhcpiprange == 0)
        return;
    const unsigned maskLength = static_cast<unsigned>(std::popcount(server.netmask));
    const std::vector<uint8_t> first = Ipv4Bytes(server.dhcpiprange[0]->begin);
    std::vector<Held> held;
    bool inSubnet = false;
    for (const auto &address : link.addresses)
        if (auto parsed = ParseHeld(address); parsed && parsed->bytes.size() == 4) {
            inSubnet = inSubnet || SameNet(parsed->bytes, first, maskLength);
            held.push_back(std::move(*parsed));
        }
    if (!inSubnet) {
        const std::string others = HeldOfFamily(link, 4);
        drift.push_back({"no-ipv4-address", ifname + " holds no IPv4 address in " + PrefixText(first, maskLength) +
                                                (others.empty() ? "" : " (it holds " + others + ")") +
                                                ": clients get no answer"});
        return;
    }
    std::vector<std::string> outside;
    for (size_t i = 0; i < server.n_dhcpiprange; ++i) {
        const uint32_t begin = server.dhcpiprange[i]->begin;
        const uint32_t end = begin + (server.dhcpiprange[i]->has_len ? server.dhcpiprange[i]->len : 1) - 1;
        bool served = false;
        for (const auto &address : held)
            served = served || (SameNet(address.bytes, Ipv4Bytes(begin), address.prefixLength) &&
                                SameNet(address.bytes, Ipv4Bytes(end), address.prefixLength));
        if (!served)
            outside.push_back(FormatIpv4(begin) + "-" + FormatIpv4(end));
    }
    std::string subnets;
    for (const auto &address : held)
        subnets += (subnets.empty() ? "" : ", ") + PrefixText(address.bytes, address.prefixLength);
    for (const auto &pool : outside)
        drift.push_back({"pool-outside-subnet", "pool " + pool + " lies outside the subnets of " + ifname + " (" + subnets +
                                                    "): " + (outside.size() == server.n_dhcpiprange
                                                                 ? "clients get no answer"
                                                                 : "clients get no address from it")});
}

// The prefix an IPv6 server hands out from: its first DHCPv6 range's, or its SLAAC prefix.
void Ipv6AddressDrift(const std::string &ifname, const Ipv6DhcpServer &server, const LinkFacts &link,
                      std::vector<Cause> &drift)
{
    std::vector<uint8_t> prefix;
    if (server.n_dhcpiprange > 0 && server.dhcpiprange[0]->ipv6begin.len == 16)
        prefix.assign(server.dhcpiprange[0]->ipv6begin.data, server.dhcpiprange[0]->ipv6begin.data + 16);
    else if (server.has_prefix && server.prefix.len == 16)
        prefix.assign(server.prefix.data, server.prefix.data + 16);
    if (prefix.empty() || !server.has_prefixlength)
        return;
    for (const auto &address : link.addresses)
        if (const auto held = ParseHeld(address); held && SameNet(held->bytes, prefix, server.prefixlength))
            return;
    const std::string others = HeldOfFamily(link, 16);
    drift.push_back({"no-ipv6-address", ifname + " holds no IPv6 address in " + PrefixText(prefix, server.prefixlength) +
                                            (others.empty() ? "" : " (it holds " + others + ")") +
                                            ": clients get no IPv6 address"});
}

// Whether the interface can be reached where its service runs; false once a cause is told.
bool LinkDrift(const std::string &ifname, uint32_t zone, const std::optional<LinkFacts> &link, std::vector<Cause> &drift)
{
    if (!link)
        return false;
    if (!link->exists) {
        drift.push_back({"no-interface", ifname + " does not exist in the namespace of zone " + std::to_string(zone) +
                                             ": clients get no answer"});
        return false;
    }
    if (!link->up) {
        drift.push_back({"interface-down", ifname + " is down: clients get no answer"});
        return false;
    }
    return true;
}

// Where the interface's own dnsmasq differs from the desired entry, and its relay.
void ServerDrift(const DesiredEntry *desired, const InterfaceFacts &facts, const RelayFacts &relay,
                 std::vector<Cause> &drift)
{
    if (desired == nullptr) {
        if (facts.inDhcpConf)
            drift.push_back({"not-desired", "in dhcp.conf but not in the desired state"});
        return;
    }
    if (!desired->request) {
        drift.push_back({"unusable-entry", "desired entry cannot be used: " + desired->problem});
        return;
    }
    const DhcpItemV2 &item = desired->request->Item();
    if (!facts.inDhcpConf)
        drift.push_back({"not-in-dhcp-conf", "not in dhcp.conf"});
    const bool v4Server = item.ipv4dhcpitem != nullptr && item.ipv4dhcpitem->mode == KQ_DHCP_SERVER &&
                          item.ipv4dhcpitem->dhcpserver != nullptr;
    const std::string v6Mode = DesiredIpv6Mode(item);
    if (v4Server || v6Mode != "none") {
        bool v4Served = false;
        std::string v6Served = "none";
        if (!facts.dnsmasqRunning) {
            drift.push_back({"dnsmasq-not-running", "dnsmasq is not running"});
        } else {
            if (facts.dnsmasqInZone && !*facts.dnsmasqInZone)
                drift.push_back({"dnsmasq-outside-zone", "dnsmasq runs outside the namespace of zone " + std::to_string(facts.zone)});
            v4Served = ServesIpv4(facts);
            if (v4Served != v4Server)
                drift.push_back({"ipv4-differs", std::string("IPv4 ") + (v4Served ? "served, desired off" : "not served, desired server")});
            v6Served = RunningIpv6Mode(facts.dnsmasqConf);
            if (v6Served != v6Mode)
                drift.push_back({"ipv6-differs", "IPv6 serves " + v6Served + ", desired " + v6Mode});
        }
        if (LinkDrift(facts.ifname, facts.zone, facts.link, drift)) {
            if (v4Server)
                Ipv4AddressDrift(facts.ifname, *item.ipv4dhcpitem->dhcpserver, *facts.link, drift);
            if (v6Mode != "none")
                Ipv6AddressDrift(facts.ifname, *item.ipv6dhcpitem->dhcpserver, *facts.link, drift);
        }
        // Only what its file asks of it: a family it does not serve is told above.
        if (facts.dnsmasqRunning && facts.sockets) {
            const std::string owner = facts.ifname + "'s dnsmasq holds no ";
            if (v4Server && v4Served && !facts.sockets->dhcpv4)
                drift.push_back({"no-dhcpv4-socket", owner + "DHCPv4 socket (UDP 67): clients get no answer"});
            if (v6Mode != "none" && v6Served == v6Mode) {
                if (v6Mode != kIpv6ModeNames[KQ_IPV6_ADDR_AUTOCONF_SLAAC] && !facts.sockets->dhcpv6)
                    drift.push_back({"no-dhcpv6-socket", owner + "DHCPv6 socket (UDP 547): clients get no DHCPv6 answer"});
                if (facts.dnsmasqConf.find("\nenable-ra\n") != std::string::npos && !facts.sockets->icmpv6)
                    drift.push_back({"no-icmpv6-socket", owner + "ICMPv6 socket: clients get no router advertisement"});
            }
        }
    }
    const Ipv4DhcpItem *v4 = item.ipv4dhcpitem;
    if (v4 != nullptr && v4->mode == KQ_DHCP_RELAY && v4->dhcprelay != nullptr) {
        const std::string lanIp = FormatIpv4(v4->dhcprelay->lanip);
        if (!relay.running)
            drift.push_back({"relay-not-running", "relay dnsmasq is not running"});
        else if (relay.conf.find("dhcp-relay=" + lanIp + ",") == std::string::npos)
            drift.push_back({"not-in-relay", "not in the shared relay"});
        else if (relay.sockets && !relay.sockets->dhcpv4)
            drift.push_back({"no-relay-socket", "the relay dnsmasq holds no DHCPv4 socket (UDP 67): clients get no answer"});
        if (LinkDrift(facts.ifname, 0, facts.relayLink, drift)) {
            bool holds = false;
            for (const auto &address : facts.relayLink->addresses)
                holds = holds || address.rfind(lanIp + "/", 0) == 0;
            if (!holds)
                drift.push_back({"no-relay-address", facts.ifname + " does not hold its relay address " + lanIp +
                                                         ": clients get no answer"});
        }
    }
}

}  // namespace

std::string DesiredSummary(const DesiredEntry &entry, uint32_t zone)
{
    if (!entry.request)
        return "unusable entry";
    const DhcpItemV2 &item = entry.request->Item();
    std::string text;
    if (item.ipv4dhcpitem != nullptr) {
        const uint32_t mode = item.ipv4dhcpitem->mode;
        text += mode == KQ_DHCP_SERVER ? "ipv4 server" : mode == KQ_DHCP_RELAY ? "ipv4 relay" : "ipv4 off";
    }
    const std::string v6 = DesiredIpv6Mode(item);
    if (v6 != "none")
        text += (text.empty() ? "" : ", ") + std::string("ipv6 ") + v6;
    return (text.empty() ? "nothing served" : text) + ", zone " + std::to_string(zone);
}

std::string ServedSummary(const InterfaceFacts &facts)
{
    if (!facts.dnsmasqRunning)
        return "no dnsmasq of its own";
    std::string text = ServesIpv4(facts) ? "ipv4 server" : "";
    const std::string v6 = RunningIpv6Mode(facts.dnsmasqConf);
    if (v6 != "none")
        text += (text.empty() ? "" : ", ") + std::string("ipv6 ") + v6;
    const std::string zone = std::to_string(facts.zone);
    text += (text.empty() ? "" : ", ") + std::string(!facts.dnsmasqInZone ? "namespace unknown"
                                                     : *facts.dnsmasqInZone ? "in the namespace of zone " + zone
                                                                            : "outside the namespace of zone " + zone);
    return text;
}

std::vector<Cause> Drift(const Wanted &wanted, const InterfaceFacts &facts, const RelayFacts &relay)
{
    std::vector<Cause> drift;
    ServerDrift(wanted.entry, facts, relay, drift);
    for (const bool v6 : {false, true}) {
        const DesiredClient *client = wanted.clients[v6];
        // A SLAAC client runs no dhclient of its own.
        if (client != nullptr && !(v6 && client->type == "slaac") && !facts.dhclientRunning[v6])
            drift.push_back({v6 ? "dhclient6-not-running" : "dhclient-not-running",
                             std::string(v6 ? "dhclient6" : "dhclient") + " is not running"});
    }
    return drift;
}

}  // namespace kqagent
