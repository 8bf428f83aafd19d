#include "kqAgentChecks.h"

#include <json-c/json.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "kqAgentCommon.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

namespace {

constexpr uint32_t kModeServer = KQ_DHCP_SERVER;
// An interface without a DNS server gets its own first address from the module; the longest
// such texts, so that a size check never passes a file the module then cannot write.
const char *kLongestIpv4 = "255.255.255.255";
const char *kLongestIpv6 = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";

const std::string kServer4 = "item.ipv4dhcpitem.dhcpserver";
const std::string kServer6 = "item.ipv6dhcpitem.dhcpserver";

std::string Index(const std::string &path, size_t i) { return path + "[" + std::to_string(i) + "]"; }

const Ipv4DhcpServer *Server4(const DhcpItemV2 &item)
{
    const Ipv4DhcpItem *v4 = item.ipv4dhcpitem;
    return v4 != nullptr && v4->mode == kModeServer ? v4->dhcpserver : nullptr;
}

const Ipv6DhcpServer *Server6(const DhcpItemV2 &item)
{
    const Ipv6DhcpItem *v6 = item.ipv6dhcpitem;
    return v6 != nullptr && v6->mode == kModeServer ? v6->dhcpserver : nullptr;
}

// The module's IPv6 mode for an address/DNS mode pair (the parser only lets served pairs by).
KQ_IPV6_ADDR_AUTOCONF_TYPE AutoconfOf(const Ipv6DhcpServer &server)
{
    return KQCtrl_DynamicIpv6ModeOf(server.ipv6dynamicmode, server.dnsdynamicmode);
}

uint32_t EndOf(const Range &range)
{
    const uint64_t end = uint64_t{range.begin} + (range.has_len && range.len > 0 ? range.len - 1 : 0);
    return end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
}

std::string Span(uint32_t begin, uint32_t end) { return FormatIpv4(begin) + "-" + FormatIpv4(end); }

int PrefixLength(uint32_t mask) { return __builtin_popcount(mask); }

std::string Subnet(uint32_t address, uint32_t mask)
{
    return FormatIpv4(address & mask) + "/" + std::to_string(PrefixLength(mask));
}

bool IsZero(const ProtobufCBinaryData &bytes)
{
    return std::all_of(bytes.data, bytes.data + bytes.len, [](uint8_t b) { return b == 0; });
}

// One line of the dnsmasq file and the request field it comes from.
struct Line {
    std::string text;  // without the line end
    std::string path;
};

std::vector<Line> DnsmasqLines(const DhcpItemV2 &item)
{
    std::vector<Line> lines;
    const std::string name = item.ifname;
    lines.push_back({"interface=" + name, "item.ifname"});
    if (const Ipv4DhcpServer *s4 = Server4(item)) {
        for (size_t i = 0; i < s4->n_dhcpiprange; ++i)
            lines.push_back({"dhcp-range=" + name + "," + FormatIpv4(s4->dhcpiprange[i]->begin) + "," +
                                 FormatIpv4(EndOf(*s4->dhcpiprange[i])) + "," + std::to_string(s4->leasetime),
                             Index(kServer4 + ".dhcpiprange", i)});
        if (s4->has_gateway && s4->gateway != 0 && s4->netmask != 0) {
            lines.push_back({"dhcp-option=" + name + ",3," + FormatIpv4(s4->gateway), kServer4 + ".gateway"});
            lines.push_back({"dhcp-option=" + name + ",1," + FormatIpv4(s4->netmask), kServer4 + ".netmask"});
        }
        for (size_t i = 0; i < s4->n_dns; ++i)
            lines.push_back({"dhcp-option=" + name + ",6," + FormatIpv4(s4->dns[i]), Index(kServer4 + ".dns", i)});
        if (s4->n_dns == 0 && s4->n_dhcpiprange > 0)
            lines.push_back({"dhcp-option=" + name + ",6," + kLongestIpv4, kServer4 + ".dns"});
    }
    lines.push_back({"log-facility=/var/log/morvaxel.log", "item"});
    const Ipv6DhcpServer *s6 = Server6(item);
    if (s6 == nullptr)
        return lines;
    const KQ_IPV6_ADDR_AUTOCONF_TYPE mode = AutoconfOf(*s6);
    const bool hasPrefix = s6->has_prefix && !IsZero(s6->prefix);
    const std::string prefix = hasPrefix ? FormatIpv6(s6->prefix.data) : "";
    const bool ranged = mode == KQ_IPV6_ADDR_AUTOCONF_DHCP || mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP;
    if (!ranged && !hasPrefix)
        return lines;  // stateless and SLAAC without a prefix write no IPv6 block
    bool ra = false;
    if (ranged) {
        for (size_t i = 0; i < s6->n_dhcpiprange; ++i) {
            const std::string range = FormatIpv6(s6->dhcpiprange[i]->ipv6begin.data) + ", " +
                                      FormatIpv6(s6->dhcpiprange[i]->ipv6end.data);
            lines.push_back({"dhcp-range=" + range +
                                 (mode == KQ_IPV6_ADDR_AUTOCONF_DHCP
                                      ? ", " + std::to_string(s6->has_prefixlength ? s6->prefixlength : 0) + ", " +
                                            std::to_string(s6->has_leasetime ? s6->leasetime : 0)
                                      : std::string(", slaac")),
                             Index(kServer6 + ".dhcpiprange", i)});
        }
        ra = s6->n_dhcpiprange > 0;
    } else {
        lines.push_back({"dhcp-range=" + prefix +
                             (mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC ? ", ra-only" : ", ra-stateless"),
                         kServer6 + ".prefix"});
        ra = s6->has_prefixlength && s6->prefixlength != 0;
    }
    if (ra) {
        lines.push_back({"enable-ra", kServer6});
        lines.push_back({"ra-param=" + name + ",10", kServer6});
    }
    std::string dns;
    for (size_t i = 0; i < s6->n_dns; ++i)
        dns += ",[" + FormatIpv6(s6->dns[i].data) + "]";
    // The module fills a default only where it has pools (DHCPv6) or a prefix (SLAAC) to serve.
    const bool defaulted = s6->n_dns == 0 && (mode == KQ_IPV6_ADDR_AUTOCONF_DHCP ? s6->n_dhcpiprange > 0
                                              : mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC ? hasPrefix
                                                                                   : s6->n_dhcpiprange > 0 && hasPrefix);
    if (defaulted)
        dns = std::string(",[") + kLongestIpv6 + "]";
    if (!dns.empty())
        lines.push_back({"dhcp-option=option6:dns-server" + dns, kServer6 + ".dns"});
    return lines;
}

// The dhcp.conf item the module writes for this add, without the array's separators.
size_t DhcpConfItemSize(const DhcpItemV2 &item)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF server{};
    KQ_CTRL_DYNAMIC_RELAY_CONF relay{};
    if (KQCtrl_PbToConfDynamicServer(&item, &server) < 0)
        server = KQ_CTRL_DYNAMIC_SERVER_CONF{};
    if (KQCtrl_PbToConfDynamicRelay(&item, &relay) < 0)
        relay = KQ_CTRL_DYNAMIC_RELAY_CONF{};
    if (server.NetAddrType == 0 && relay.NetAddrType == 0)
        return 0;  // not written at all
    auto &v4 = server.ServerIpv4Conf;
    if (v4.IpRangeNum > 0 && v4.DnsNum == 0) {
        v4.DnsNum = 1;
        v4.Dns[0] = UINT32_MAX;
    }
    std::unique_ptr<json_object, int (*)(json_object *)> object(json_object_new_object(), json_object_put);
    json_object_object_add(object.get(), "ifname", json_object_new_string(item.ifname));
    json_object_object_add(object.get(), "vpnId", json_object_new_int(0));
    if (server.NetAddrType != 0)
        KQCtrl_ConfToJsonDynamicServer(&server, object.get());
    if (relay.NetAddrType != 0)
        KQCtrl_ConfToJsonDynamicRelay(&relay, object.get());
    return strlen(json_object_to_json_string(object.get()));
}

// The document around n items of the given total size, as json-c prints it:
// `{ "dhcps": [ ITEM, ITEM ] }`, or `{ "dhcps": [ ] }` when empty.
size_t DocumentSize(size_t count, size_t itemBytes)
{
    return count == 0 ? 16 : 13 + itemBytes + 2 * (count - 1) + 4;
}

class Checker {
public:
    Checker(size_t index, const DhcpItemV2 &item, CheckReport &report, bool strict, const CheckLimits &limits)
        : prefix_("request " + std::to_string(index) + ": "), item_(item), report_(report), strict_(strict), limits_(limits)
    {
    }

    void Add()
    {
        const std::string name = item_.ifname;
        if (item_.ipv4dhcpitem == nullptr && item_.ipv6dhcpitem == nullptr) {
            Error("item", "an add with neither ipv4dhcpitem nor ipv6dhcpitem would remove " + name +
                              "'s DHCP service; to remove it, use {\"op\":\"delete\",\"item\":{\"ifname\":\"" + name +
                              "\"}}");
            return;
        }
        if (const Ipv4DhcpServer *s4 = Server4(item_))
            Ipv4(*s4);
        if (const Ipv6DhcpServer *s6 = Server6(item_))
            Ipv6(*s6);
        Dnsmasq();
    }

private:
    void Error(const std::string &path, const std::string &reason) { report_.errors.push_back(prefix_ + path + ": " + reason); }

    void Warning(const std::string &path, const std::string &reason)
    {
        (strict_ ? report_.errors : report_.warnings).push_back(prefix_ + path + ": " + reason);
    }

    void Ipv4(const Ipv4DhcpServer &s4)
    {
        const std::string pools = kServer4 + ".dhcpiprange";
        const uint32_t mask = s4.netmask;
        if (s4.n_dhcpiprange == 0)
            return;
        const uint32_t first = s4.dhcpiprange[0]->begin;
        if (s4.has_gateway && (s4.gateway & mask) != (first & mask))
            Error(kServer4 + ".gateway", "gateway " + FormatIpv4(s4.gateway) + " lies outside the subnet " +
                                             Subnet(first, mask) + " of the pools (netmask " + FormatIpv4(mask) + ")");
        for (size_t i = 0; i < s4.n_dhcpiprange; ++i) {
            const Range &range = *s4.dhcpiprange[i];
            const uint32_t end = EndOf(range);
            if ((range.begin & mask) != (first & mask) || (end & mask) != (first & mask)) {
                Error(Index(pools, i), "pool " + Span(range.begin, end) + " lies outside the subnet " +
                                           Subnet(first, mask) + " of netmask " + FormatIpv4(mask) +
                                           (i == 0 ? "" : " and " + Index("dhcpiprange", 0)));
                continue;
            }
            for (size_t j = 0; j < i; ++j) {
                const Range &other = *s4.dhcpiprange[j];
                if (range.begin <= EndOf(other) && other.begin <= end) {
                    Error(Index(pools, i), "pool " + Span(range.begin, end) + " overlaps " + Index("dhcpiprange", j) +
                                               " (" + Span(other.begin, EndOf(other)) + ")");
                    break;
                }
            }
        }
    }

    void Ipv6(const Ipv6DhcpServer &s6)
    {
        const std::string pools = kServer6 + ".dhcpiprange";
        const KQ_IPV6_ADDR_AUTOCONF_TYPE mode = AutoconfOf(s6);
        for (size_t i = 0; i < s6.n_dhcpiprange; ++i) {
            const Ipv6Range &range = *s6.dhcpiprange[i];
            for (size_t j = 0; j < i; ++j) {
                const Ipv6Range &other = *s6.dhcpiprange[j];
                if (memcmp(range.ipv6begin.data, other.ipv6end.data, 16) <= 0 &&
                    memcmp(other.ipv6begin.data, range.ipv6end.data, 16) <= 0) {
                    Error(Index(pools, i), "pool " + FormatIpv6(range.ipv6begin.data) + "-" +
                                               FormatIpv6(range.ipv6end.data) + " overlaps " + Index("dhcpiprange", j) +
                                               " (" + FormatIpv6(other.ipv6begin.data) + "-" +
                                               FormatIpv6(other.ipv6end.data) + ")");
                    break;
                }
            }
        }
        if (mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC)
            return;  // the DHCPv6 keys below are not written for SLAAC
        const std::string lost = "a restart would lose " + std::string(item_.ifname) + "'s IPv6 service";
        for (size_t i = 0; i < s6.n_dhcpiprange; ++i) {
            for (const char *end : {"ipv6begin", "ipv6end"}) {
                const Ipv6Range &range = *s6.dhcpiprange[i];
                const std::string text = FormatIpv6((strcmp(end, "ipv6begin") == 0 ? range.ipv6begin : range.ipv6end).data);
                if (text.size() > kDhcpConfRangeTextMax) {
                    Warning(Index(pools, i) + "." + end,
                            "\"" + text + "\" is " + std::to_string(text.size()) +
                                " characters; dhcp.conf keeps range addresses of at most 18 (write it shorter, e.g. "
                                "with more zero groups), so " + lost);
                    return;
                }
            }
        }
        if (s6.has_leasetime && (s6.leasetime == 2147483647u || s6.leasetime == 2147483648u)) {
            Warning(kServer6 + ".leasetime", std::to_string(s6.leasetime) +
                                                 " is stored in dhcp.conf as a number its reader refuses, so " + lost);
            return;
        }
        if (s6.n_dhcpiprange == 0)
            Warning(pools, "without a range dhcp.conf holds an empty range list, which its reader refuses, so " + lost);
    }

    void Dnsmasq()
    {
        const std::vector<Line> lines = DnsmasqLines(item_);
        size_t size = 0;
        for (const Line &line : lines) {
            size += line.text.size() + 1;
            if (line.text.size() > limits_.dnsmasqLine)
                Error(line.path, "makes a dnsmasq line of " + std::to_string(line.text.size()) +
                                     " characters; dnsmasq reads at most " + std::to_string(limits_.dnsmasqLine) +
                                     " (give fewer entries)");
        }
        if (size >= limits_.dnsmasqFile)
            Error("item", "the dnsmasq file of " + std::string(item_.ifname) + " would be " + std::to_string(size) +
                              " bytes; the module writes at most " + std::to_string(limits_.dnsmasqFile - 1) +
                              " (give fewer pools or DNS servers)");
    }

    std::string prefix_;
    const DhcpItemV2 &item_;
    CheckReport &report_;
    bool strict_;
    const CheckLimits &limits_;
};

}  // namespace

std::string DnsmasqFileText(const DhcpItemV2 &item)
{
    std::string text;
    for (const Line &line : DnsmasqLines(item))
        text += line.text + "\n";
    return text;
}

size_t DhcpConfSize(const std::vector<const DhcpItemV2 *> &items)
{
    size_t count = 0, bytes = 0;
    for (const DhcpItemV2 *item : items) {
        const size_t size = DhcpConfItemSize(*item);
        count += size > 0;
        bytes += size;
    }
    return DocumentSize(count, bytes);
}

CheckReport CheckRequests(const std::vector<Request> &requests, const std::vector<Request> &current, bool strict,
                          const CheckLimits &limits)
{
    CheckReport report;
    // Interfaces as dhcp.conf would list them after each request: name -> size of its item.
    std::map<std::string, size_t> items;
    size_t count = 0, bytes = 0;
    auto set = [&](const std::string &name, size_t size) {
        const auto it = items.find(name);
        if (it != items.end()) {
            count -= it->second > 0;
            bytes -= it->second;
            items.erase(it);
        }
        if (size > 0) {
            items[name] = size;
            ++count;
            bytes += size;
        }
    };
    for (const Request &request : current)
        set(request.Item().ifname, DhcpConfItemSize(request.Item()));
    bool tooBig = false;
    for (size_t i = 0; i < requests.size(); ++i) {
        const Request &request = requests[i];
        const DhcpItemV2 &item = request.Item();
        if (request.Op() == RequestOp::Delete) {
            set(item.ifname, 0);
            continue;
        }
        Checker(i, item, report, strict, limits).Add();
        set(item.ifname, DhcpConfItemSize(item));
        const size_t size = DocumentSize(count, bytes);
        if (!tooBig && size > limits.dhcpConf) {
            tooBig = true;
            report.errors.push_back("request " + std::to_string(i) + ": item: dhcp.conf would grow to " +
                                    std::to_string(size) + " bytes (" + std::to_string(count) +
                                    " interfaces), over the " + std::to_string(limits.dhcpConf) +
                                    " the loader reads at start-up, so nothing would be restored after a restart");
        }
    }
    return report;
}

}  // namespace kqagent
