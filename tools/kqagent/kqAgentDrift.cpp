#include "kqAgentDrift.h"

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

// Where the interface's own dnsmasq differs from the desired entry, and its relay.
void ServerDrift(const DesiredEntry *desired, const InterfaceFacts &facts, const RelayFacts &relay,
                 std::vector<std::string> &drift)
{
    if (desired == nullptr) {
        if (facts.inDhcpConf)
            drift.push_back("in dhcp.conf but not in the desired state");
        return;
    }
    if (!desired->request) {
        drift.push_back("desired entry cannot be used: " + desired->problem);
        return;
    }
    const DhcpItemV2 &item = desired->request->Item();
    if (!facts.inDhcpConf)
        drift.push_back("not in dhcp.conf");
    const bool v4Server = item.ipv4dhcpitem != nullptr && item.ipv4dhcpitem->mode == KQ_DHCP_SERVER;
    const std::string v6Mode = DesiredIpv6Mode(item);
    if (v4Server || v6Mode != "none") {
        if (!facts.dnsmasqRunning) {
            drift.push_back("dnsmasq is not running");
        } else {
            if (facts.dnsmasqInZone && !*facts.dnsmasqInZone)
                drift.push_back("dnsmasq runs outside the namespace of zone " + std::to_string(facts.zone));
            const bool v4Served = ServesIpv4(facts);
            if (v4Served != v4Server)
                drift.push_back(std::string("IPv4 ") + (v4Served ? "served, desired off" : "not served, desired server"));
            const std::string served = RunningIpv6Mode(facts.dnsmasqConf);
            if (served != v6Mode)
                drift.push_back("IPv6 serves " + served + ", desired " + v6Mode);
        }
    }
    const Ipv4DhcpItem *v4 = item.ipv4dhcpitem;
    if (v4 != nullptr && v4->mode == KQ_DHCP_RELAY && v4->dhcprelay != nullptr) {
        if (!relay.running)
            drift.push_back("relay dnsmasq is not running");
        else if (relay.conf.find("dhcp-relay=" + FormatIpv4(v4->dhcprelay->lanip) + ",") == std::string::npos)
            drift.push_back("not in the shared relay");
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

std::vector<std::string> Drift(const Wanted &wanted, const InterfaceFacts &facts, const RelayFacts &relay)
{
    std::vector<std::string> drift;
    ServerDrift(wanted.entry, facts, relay, drift);
    for (const bool v6 : {false, true}) {
        const DesiredClient *client = wanted.clients[v6];
        // A SLAAC client runs no dhclient of its own.
        if (client != nullptr && !(v6 && client->type == "slaac") && !facts.dhclientRunning[v6])
            drift.push_back(std::string(v6 ? "dhclient6" : "dhclient") + " is not running");
    }
    return drift;
}

}  // namespace kqagent
