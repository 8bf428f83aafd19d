#include "kqAgentChecks.h"

#include <string.h>

#include <algorithm>
#include <set>

#include "kqAgentCommon.h"
#include "kqAgentMessages.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

namespace {

const std::string kServer4 = "item.ipv4dhcpitem.dhcpserver";
const std::string kServer6 = "item.ipv6dhcpitem.dhcpserver";

std::string Index(const std::string &path, size_t i) { return path + "[" + std::to_string(i) + "]"; }

const Ipv4DhcpServer *Server4(const DhcpItemV2 &item)
{
    const Ipv4DhcpItem *v4 = item.ipv4dhcpitem;
    return v4 != nullptr && v4->mode == KQ_DHCP_SERVER ? v4->dhcpserver : nullptr;
}

const Ipv6DhcpServer *Server6(const DhcpItemV2 &item)
{
    const Ipv6DhcpItem *v6 = item.ipv6dhcpitem;
    return v6 != nullptr && v6->mode == KQ_DHCP_SERVER ? v6->dhcpserver : nullptr;
}

uint32_t EndOf(const Range &range)
{
    const uint64_t end = uint64_t{range.begin} + (range.has_len && range.len > 0 ? range.len - 1 : 0);
    return end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
}

std::string Span(uint32_t begin, uint32_t end) { return FormatIpv4(begin) + "-" + FormatIpv4(end); }

int PrefixLength(uint32_t mask) { return __builtin_popcount(mask); }

std::string Subnet(uint32_t address, uint32_t mask) { return FormatIpv4(address & mask) + "/" + std::to_string(PrefixLength(mask)); }

bool AllHexDigits(const std::string &name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) { return isxdigit(c) != 0; });
}

class Checker {
public:
    Checker(size_t index, const DhcpItemV2 &item, CheckReport &report)
        : prefix_("request " + std::to_string(index) + ": "), item_(item), report_(report)
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
        const Ipv4DhcpServer *s4 = Server4(item_);
        const Ipv6DhcpServer *s6 = Server6(item_);
        if ((s4 != nullptr || s6 != nullptr) && AllHexDigits(name))
            Error("item.ifname", "\"" + name + "\" is made only of hexadecimal digits, which dnsmasq reads as an "
                                 "address in its dhcp-range= line, so its dnsmasq would not start; give the interface "
                                 "another name");
        if (s4 != nullptr)
            Ipv4(*s4);
        if (s6 != nullptr)
            Ipv6(*s6);
    }

private:
    void Error(const std::string &path, const std::string &reason) { report_.errors.push_back(prefix_ + path + ": " + reason); }

    // Every pool lies in one subnet: the gateway's when one is given (it is the interface's
    // own address), else the first pool's.
    void Ipv4(const Ipv4DhcpServer &s4)
    {
        const std::string pools = kServer4 + ".dhcpiprange";
        const uint32_t mask = s4.netmask;
        if (s4.n_dhcpiprange == 0)
            return;
        const uint32_t base = s4.has_gateway ? s4.gateway : s4.dhcpiprange[0]->begin;
        const std::string whose = s4.has_gateway ? "the gateway " + FormatIpv4(s4.gateway) : Index("dhcpiprange", 0);
        for (size_t i = 0; i < s4.n_dhcpiprange; ++i) {
            const Range &range = *s4.dhcpiprange[i];
            const uint32_t end = EndOf(range);
            if ((range.begin & mask) != (base & mask) || (end & mask) != (base & mask)) {
                Error(Index(pools, i), "pool " + Span(range.begin, end) + " lies outside " + Subnet(base, mask) +
                                           ", the subnet of " + whose + " with netmask " + FormatIpv4(mask));
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
    }

    std::string prefix_;
    const DhcpItemV2 &item_;
    CheckReport &report_;
};

// "a.b.c.d/len" texts of the interface that lie in the subnet of `address`/`length`.
bool HoldsAddressIn(const std::vector<std::string> &addresses, const uint8_t *address, size_t size, int length)
{
    for (const auto &text : addresses) {
        const std::string host = text.substr(0, text.find('/'));
        std::vector<uint8_t> bytes;
        if (size == 4) {
            const auto v4 = ParseIpv4(host);
            if (!v4)
                continue;
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes.push_back(static_cast<uint8_t>(*v4 >> shift));
        } else if (const auto v6 = ParseIpv6(host)) {
            bytes = *v6;
        }
        if (bytes.size() != size)
            continue;
        bool same = true;
        for (int bit = 0; bit < length && same; ++bit)
            same = ((bytes[bit / 8] ^ address[bit / 8]) & (0x80 >> (bit % 8))) == 0;
        if (same)
            return true;
    }
    return false;
}

// The addresses of one family: IPv6 ones hold a colon.
std::string Listed(const std::vector<std::string> &addresses, bool ipv6)
{
    std::string text;
    for (const auto &address : addresses)
        if ((address.find(':') != std::string::npos) == ipv6)
            text += (text.empty() ? "" : ", ") + address;
    return text.empty() ? "none" : text;
}

}  // namespace

CheckReport CheckRequests(const std::vector<Request> &requests)
{
    CheckReport report;
    for (size_t i = 0; i < requests.size(); ++i)
        if (requests[i].Op() == RequestOp::Add)
            Checker(i, requests[i].Item(), report).Add();
    return report;
}

void JudgeDryRun(const std::vector<Request> &requests, const std::vector<DryStep> &steps, bool strict,
                 const std::string &dhcpConfBackup, CheckReport &report, const CheckLimits &limits)
{
    auto warn = [&](const std::string &text) { (strict ? report.errors : report.warnings).push_back(text); };
    for (size_t i = 0; i < steps.size() && i < requests.size(); ++i) {
        const DryStep &step = steps[i];
        const DhcpItemV2 &item = requests[i].Item();
        const std::string prefix = "request " + std::to_string(i) + ": ", name = item.ifname;
        if (step.result < 0) {
            std::string text = prefix + "item: the module refuses it: " + DescribeRefusal(requests[i].Op(), name, step.result);
            for (const auto &error : step.errors)
                text += "\n    module: " + error;
            report.errors.push_back(text);
            break;
        }
        for (const DryEffect &effect : step.effects) {
            if (effect.op != "write")
                continue;
            if (effect.subject == dhcpConfBackup && effect.data.size() > limits.dhcpConf)
                report.errors.push_back(prefix + "item: dhcp.conf would grow to " + std::to_string(effect.data.size()) +
                                        " bytes, over the " + std::to_string(limits.dhcpConf) +
                                        " its loader reads, so a program without the desired state could not restore it");
            if (effect.subject.rfind("/etc/vyr_dhcpd_", 0) != 0)
                continue;
            size_t at = 0, longest = 0;
            while (at < effect.data.size()) {
                const size_t end = std::min(effect.data.find('\n', at), effect.data.size());
                longest = std::max(longest, end - at);
                at = end + 1;
            }
            if (longest > limits.dnsmasqLine)
                report.errors.push_back(prefix + "item: makes a line of " + std::to_string(longest) + " characters in " +
                                        effect.subject + "; dnsmasq reads at most " + std::to_string(limits.dnsmasqLine) +
                                        " (give fewer entries)");
        }
        const std::string where = name + (step.zone != 0 ? " (zone " + std::to_string(step.zone) + ")" : "");
        if (!step.link) {
            if (!step.lookProblem.empty())
                report.notes.push_back(prefix + "did not look at " + where + ": " + step.lookProblem);
            continue;
        }
        const LinkFacts &facts = *step.link;
        if (!facts.exists) {
            warn(prefix + "item.ifname: " + where + " does not exist on this machine; its dnsmasq would serve no one");
            continue;
        }
        if (!facts.up)
            warn(prefix + "item.ifname: " + where + " is down; clients get no answer until it is up");
        if (const Ipv4DhcpServer *s4 = Server4(item); s4 != nullptr && s4->n_dhcpiprange > 0) {
            const uint32_t base = s4->has_gateway ? s4->gateway : s4->dhcpiprange[0]->begin;
            const uint8_t bytes[4] = {static_cast<uint8_t>(base >> 24), static_cast<uint8_t>(base >> 16),
                                      static_cast<uint8_t>(base >> 8), static_cast<uint8_t>(base)};
            if (!HoldsAddressIn(facts.addresses, bytes, 4, PrefixLength(s4->netmask)))
                warn(prefix + kServer4 + ": " + where + " holds no IPv4 address in " + Subnet(base, s4->netmask) +
                     " (its addresses: " + Listed(facts.addresses, false) + "): clients get no answer");
        }
        if (const Ipv6DhcpServer *s6 = Server6(item); s6 != nullptr) {
            const bool slaac = s6->has_prefix && s6->prefix.len == 16;
            const uint8_t *base = s6->n_dhcpiprange > 0 && s6->dhcpiprange[0]->ipv6begin.len == 16 ? s6->dhcpiprange[0]->ipv6begin.data
                                  : slaac                                                         ? s6->prefix.data
                                                                                                  : nullptr;
            const int length = s6->has_prefixlength && s6->prefixlength <= 128 ? static_cast<int>(s6->prefixlength) : 64;
            if (base != nullptr && !HoldsAddressIn(facts.addresses, base, 16, length)) {
                uint8_t network[16] = {};
                for (int bit = 0; bit < length; ++bit)
                    network[bit / 8] |= base[bit / 8] & (0x80 >> (bit % 8));
                warn(prefix + kServer6 + ": " + where + " holds no IPv6 address in " + FormatIpv6(network) + "/" +
                     std::to_string(length) + " (its addresses: " + Listed(facts.addresses, true) + "): clients get no answer");
            }
        }
    }
}

}  // namespace kqagent
