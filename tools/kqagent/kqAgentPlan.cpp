#include "kqAgentPlan.h"

#include <json-c/json.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>

#include "kqAgentCommon.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

namespace {

// Both halves of an interface as the module would hold them after an add of `item`.
struct Records {
    KQ_CTRL_DYNAMIC_SERVER_CONF server{};
    KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
};

bool Same6(const KQ_IN6_ADDR &a, const KQ_IN6_ADDR &b) { return memcmp(a.In6.U6Addr8, b.In6.U6Addr8, 16) == 0; }
bool Zero6(const KQ_IN6_ADDR &a) { return std::all_of(a.In6.U6Addr8, a.In6.U6Addr8 + 16, [](uint8_t b) { return b == 0; }); }

Records RecordsOf(const DhcpItemV2 &item, const DefaultDns &defaults)
{
    Records records;
    if (KQCtrl_PbToConfDynamicServer(&item, &records.server) < 0)
        records.server = KQ_CTRL_DYNAMIC_SERVER_CONF{};
    if (KQCtrl_PbToConfDynamicRelay(&item, &records.relay) < 0)
        records.relay = KQ_CTRL_DYNAMIC_RELAY_CONF{};
    // The defaults the module fills before it compares.
    KQ_CTRL_DYNAMIC_SERVER_CONF &s = records.server;
    auto &v4 = s.ServerIpv4Conf;
    if (v4.IpRangeNum != 0 && v4.DnsNum == 0 && defaults.ipv4)
        if (const auto address = defaults.ipv4(item.ifname); address && *address != 0) {
            v4.DnsNum = 1;
            v4.Dns[0] = *address;
        }
    auto &v6 = s.ServerIpv6Conf;
    const auto address6 = v6.DhcpConf.Ipv6RangeNum != 0 && v6.DhcpConf.Ipv6DnsNum == 0 && defaults.ipv6
                              ? defaults.ipv6(item.ifname)
                              : std::nullopt;
    KQ_IN6_ADDR dns6{};
    const bool have6 = address6 && address6->size() == 16 && !Zero6(*reinterpret_cast<const KQ_IN6_ADDR *>(address6->data()));
    if (have6)
        memcpy(dns6.In6.U6Addr8, address6->data(), 16);
    auto fillDhcp = [&] { v6.DhcpConf.Ipv6DnsNum = 1, v6.DhcpConf.Ipv6Dns[0] = dns6; };
    auto fillSlaac = [&] { v6.SlaacConf.Ipv6DnsNum = 1, v6.SlaacConf.Ipv6Dns[0] = dns6; };
    const bool slaacBare = !Zero6(v6.SlaacConf.Prefix) && v6.SlaacConf.Ipv6DnsNum == 0;
    if (have6 && v6.DynamicMode == KQ_IPV6_ADDR_AUTOCONF_DHCP)
        fillDhcp();
    else if (have6 && (v6.DynamicMode == KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP ||
                       v6.DynamicMode == KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP) && slaacBare) {
        fillDhcp();
        fillSlaac();
    }
    return records;
}

template <class T, class Eq>
bool SameSet(const T *current, uint32_t currentCount, const T *next, uint32_t nextCount, Eq eq)
{
    if (currentCount != nextCount)
        return false;
    for (uint32_t i = 0; i < nextCount; ++i)
        if (std::none_of(current, current + currentCount, [&](const T &c) { return eq(c, next[i]); }))
            return false;
    return true;
}

// The module's loose IPv6 DNS test: equal counts and one position holding the same address.
bool SameDns6(const KQ_IN6_ADDR *a, uint32_t aCount, const KQ_IN6_ADDR *b, uint32_t bCount)
{
    if (aCount != bCount)
        return false;
    if (aCount == 0)
        return true;
    for (uint32_t j = 0; j < aCount; ++j)
        if (Same6(a[j], b[j]))
            return true;
    return false;
}

// The server fields that differ, in the words of the request file.
std::vector<std::string> ServerDifferences(const KQ_CTRL_DYNAMIC_SERVER_CONF &cur, const KQ_CTRL_DYNAMIC_SERVER_CONF &next)
{
    std::vector<std::string> diffs;
    auto family = [](uint32_t type) {
        return std::string(type == 3 ? "ipv4+ipv6" : type == 1 ? "ipv4" : type == 2 ? "ipv6" : "none");
    };
    if (cur.NetAddrType != next.NetAddrType)
        diffs.push_back("served families " + family(cur.NetAddrType) + " -> " + family(next.NetAddrType));
    if (cur.SecurityZoneId != next.SecurityZoneId)
        diffs.push_back("zone");
    if (next.NetAddrType & 1) {
        const auto &a = cur.ServerIpv4Conf, &b = next.ServerIpv4Conf;
        auto sameRange = [](const KQ_AGENT_IP_RANGE &x, const KQ_AGENT_IP_RANGE &y) {
            return x.StartIp == y.StartIp && x.EndIp == y.EndIp;
        };
        if (!SameSet(a.IpRange, a.IpRangeNum, b.IpRange, b.IpRangeNum, sameRange))
            diffs.push_back("ipv4 dhcpiprange");
        if (a.NetMask != b.NetMask)
            diffs.push_back("ipv4 netmask");
        if (!SameSet(a.Dns, a.DnsNum, b.Dns, b.DnsNum, std::equal_to<uint32_t>()))
            diffs.push_back("ipv4 dns");
        if (a.Gateway != b.Gateway)
            diffs.push_back("ipv4 gateway");
        if (a.LeaseTime != b.LeaseTime)
            diffs.push_back("ipv4 leasetime");
        if (a.OfferTime != b.OfferTime)
            diffs.push_back("ipv4 offertime");
    }
    if (next.NetAddrType & 2) {
        const auto &a = cur.ServerIpv6Conf, &b = next.ServerIpv6Conf;
        if (a.DynamicMode != b.DynamicMode)
            diffs.push_back("ipv6 mode");
        auto sameRange = [](const KQ_AGENT_IPV6_RANGE &x, const KQ_AGENT_IPV6_RANGE &y) {
            return Same6(x.StartIp, y.StartIp) && Same6(x.EndIp, y.EndIp);
        };
        if (!SameSet(a.DhcpConf.Ipv6Range, a.DhcpConf.Ipv6RangeNum, b.DhcpConf.Ipv6Range, b.DhcpConf.Ipv6RangeNum, sameRange))
            diffs.push_back("ipv6 dhcpiprange");
        if (a.DhcpConf.PrefixLength != b.DhcpConf.PrefixLength || a.SlaacConf.PrefixLength != b.SlaacConf.PrefixLength)
            diffs.push_back("ipv6 prefixlength");
        if (!SameDns6(a.DhcpConf.Ipv6Dns, a.DhcpConf.Ipv6DnsNum, b.DhcpConf.Ipv6Dns, b.DhcpConf.Ipv6DnsNum) ||
            !SameDns6(a.SlaacConf.Ipv6Dns, a.SlaacConf.Ipv6DnsNum, b.SlaacConf.Ipv6Dns, b.SlaacConf.Ipv6DnsNum))
            diffs.push_back("ipv6 dns");
        if (a.DhcpConf.Ipv6LeaseTime != b.DhcpConf.Ipv6LeaseTime)
            diffs.push_back("ipv6 leasetime");
        if (!Same6(a.SlaacConf.Prefix, b.SlaacConf.Prefix))
            diffs.push_back("ipv6 prefix");
    }
    return diffs;
}

// The module's relay test: lan ip, count, and every current server among the new ones.
std::vector<std::string> RelayDifferences(const KQ_CTRL_DYNAMIC_RELAY_CONF &cur, const KQ_CTRL_DYNAMIC_RELAY_CONF &next)
{
    std::vector<std::string> diffs;
    const auto &a = cur.RelayConf, &b = next.RelayConf;
    if (a.LanIp != b.LanIp)
        diffs.push_back("lanip");
    bool servers = a.RelayServerNum != b.RelayServerNum;
    for (uint32_t i = 0; !servers && i < a.RelayServerNum; ++i)
        servers = std::find(b.RelayServer, b.RelayServer + b.RelayServerNum, a.RelayServer[i]) == b.RelayServer + b.RelayServerNum;
    if (servers)
        diffs.push_back("relayserver");
    return diffs;
}

std::string Joined(const std::vector<std::string> &parts, const char *separator = ", ")
{
    std::string text;
    for (const auto &part : parts)
        text += (text.empty() ? "" : separator) + part;
    return text;
}

std::string Differ(const std::vector<std::string> &diffs)
{
    return Joined(diffs) + (diffs.size() == 1 ? " differs" : " differ");
}

}  // namespace

std::vector<std::string> PlanLines(const std::vector<Request> &current, const std::vector<Request> &requests,
                                   const DefaultDns &defaults)
{
    // The registry as it would stand: interface -> records, in order of first add.
    std::vector<std::pair<std::string, Records>> registry;
    auto find = [&](const std::string &name) {
        return std::find_if(registry.begin(), registry.end(), [&](const auto &entry) { return entry.first == name; });
    };
    for (const Request &request : current)
        if (find(request.Item().ifname) == registry.end())
            registry.emplace_back(request.Item().ifname, RecordsOf(request.Item(), defaults));
    auto relays = [&] {
        std::vector<std::string> names;
        for (const auto &[name, records] : registry)
            if (records.relay.NetAddrType & 1)
                names.push_back(name);
        return names;
    };

    std::vector<std::string> lines;
    for (size_t i = 0; i < requests.size(); ++i) {
        const Request &request = requests[i];
        const std::string name = request.Item().ifname;
        const std::vector<std::string> relaysBefore = relays();
        auto entry = find(name);
        const bool known = entry != registry.end();
        const Records before = known ? entry->second : Records{};
        std::vector<std::string> words;
        bool reload = true;
        if (request.Op() == RequestOp::Delete) {
            if (!known) {
                words.push_back("not configured; nothing to stop");
            } else {
                if (before.server.NetAddrType != 0)
                    words.push_back("server stop");
                if (before.relay.NetAddrType & 1)
                    words.push_back("relay removed");
                if (words.empty())
                    words.push_back("removed (nothing ran)");
                registry.erase(entry);
            }
        } else {
            const Records next = RecordsOf(request.Item(), defaults);
            const auto &s0 = before.server, &s1 = next.server;
            if (s1.NetAddrType == 0) {
                if (s0.NetAddrType != 0)
                    words.push_back("server stop");
            } else if (!known || s0.NetAddrType == 0) {
                words.push_back("new server");
            } else if (const auto diffs = ServerDifferences(s0, s1); diffs.empty()) {
                words.push_back("server unchanged");
            } else {
                words.push_back("server restart (" + Differ(diffs) + ")");
            }
            const auto &r0 = before.relay, &r1 = next.relay;
            if (r1.NetAddrType & 1) {
                if (!(r0.NetAddrType & 1))
                    words.push_back("new relay");
                else if (const auto diffs = RelayDifferences(r0, r1); diffs.empty() && r0.NetAddrType == r1.NetAddrType) {
                    words.push_back("relay unchanged");
                    reload = false;  // the one case the module leaves the shared relay alone
                } else {
                    words.push_back("relay changed (" + Differ(diffs) + ")");
                }
            } else if (r0.NetAddrType & 1) {
                words.push_back("relay removed");
            }
            if (words.empty())
                words.push_back("nothing to serve");
            Records stored = next;
            // An unchanged server keeps the record the registry already holds.
            if (known && s1.NetAddrType != 0 && s0.NetAddrType != 0 && ServerDifferences(s0, s1).empty())
                stored.server = s0;
            if (known)
                entry->second = stored;
            else
                registry.emplace_back(name, stored);
        }
        lines.push_back("[" + std::to_string(i) + "] " + (request.Op() == RequestOp::Add ? "add " : "delete ") + name +
                        ": " + Joined(words));
        const std::vector<std::string> relaysAfter = relays();
        if (reload && !relaysAfter.empty())
            lines.push_back("    shared relay rebuilt and restarted (" + Joined(relaysAfter) + ")");
        else if (reload && !relaysBefore.empty())
            lines.push_back("    shared relay stopped (no relay interface left)");
    }
    return lines;
}

}  // namespace kqagent
