#include "kqAgentPlan.h"

#include <string.h>

#include <algorithm>

#include "kqAgentCommon.h"
#include "kqAgentMessages.h"

namespace kqagent {

namespace {

bool Same6(const KQ_IN6_ADDR &a, const KQ_IN6_ADDR &b) { return memcmp(a.In6.U6Addr8, b.In6.U6Addr8, 16) == 0; }

template <class T, class Eq>
bool SameList(const T *a, uint32_t aCount, const T *b, uint32_t bCount, Eq eq)
{
    return aCount == bCount && std::equal(a, a + aCount, b, eq);
}

bool SameRange4(const KQ_AGENT_IP_RANGE &x, const KQ_AGENT_IP_RANGE &y) { return x.StartIp == y.StartIp && x.EndIp == y.EndIp; }
bool SameRange6(const KQ_AGENT_IPV6_RANGE &x, const KQ_AGENT_IPV6_RANGE &y)
{
    return Same6(x.StartIp, y.StartIp) && Same6(x.EndIp, y.EndIp);
}

std::string Joined(const std::vector<std::string> &parts, const char *separator = ", ")
{
    std::string text;
    for (const auto &part : parts)
        text += (text.empty() ? "" : separator) + part;
    return text;
}

std::string Differ(const std::vector<std::string> &changes)
{
    if (changes.empty())
        return "same settings";
    return Joined(changes) + (changes.size() == 1 ? " differs" : " differ");
}

bool Has(const DryStep &step, const char *op, const std::string &subject)
{
    return std::any_of(step.effects.begin(), step.effects.end(),
                       [&](const DryEffect &e) { return e.op == op && e.subject == subject; });
}

// A program started with this file as its configuration.
bool Starts(const DryStep &step, const std::string &confFile)
{
    const std::string option = "--conf-file=" + confFile + " ";
    return std::any_of(step.effects.begin(), step.effects.end(),
                       [&](const DryEffect &e) { return e.op == "exec" && e.subject.find(option) != std::string::npos; });
}

bool IsDnsmasqFile(const std::string &path)
{
    return path == KQ_DYNAMIC_RELAY_CONF_PATH ||
           (path.rfind("/etc/vyr_dhcpd_", 0) == 0 && path.size() > 5 && path.compare(path.size() - 5, 5, ".conf") == 0);
}

std::vector<std::string> Words(const Request &request, const DryStep &step)
{
    const std::string name = request.Item().ifname;
    const bool started = Starts(step, ServerConfFile(name));
    const bool stopped = Has(step, "remove", ServerPidFile(name)) || Has(step, "remove", ServerConfFile(name));
    std::vector<std::string> words;
    if (request.Op() == RequestOp::Delete) {
        if (!step.known)
            return {"not configured; nothing to stop"};
        if (stopped)
            words.push_back("server stop");
        if (step.relayBefore)
            words.push_back("relay removed");
        if (words.empty())
            words.push_back("removed (nothing ran)");
        return words;
    }
    if (started)
        words.push_back(!step.serverBefore ? "new server"
                        : stopped          ? "server restart (" + Differ(step.serverChanges) + ")"
                                           : "server start (" + Differ(step.serverChanges) + "; its dnsmasq did not run)");
    else if (stopped)
        words.push_back("server stop");
    else if (step.serverAfter)
        words.push_back("server unchanged");
    if (step.relayAfter && !step.relayBefore)
        words.push_back("new relay");
    else if (step.relayAfter)
        words.push_back(step.relayChanges.empty() ? "relay unchanged" : "relay changed (" + Differ(step.relayChanges) + ")");
    else if (step.relayBefore)
        words.push_back("relay removed");
    if (words.empty())
        words.push_back("nothing to serve");
    return words;
}

}  // namespace

std::vector<std::string> ServerChanges(const KQ_CTRL_DYNAMIC_SERVER_CONF &before, const KQ_CTRL_DYNAMIC_SERVER_CONF &after)
{
    std::vector<std::string> changes;
    auto family = [](uint32_t type) {
        return std::string(type == 3 ? "ipv4+ipv6" : type == 1 ? "ipv4" : type == 2 ? "ipv6" : "none");
    };
    if (before.NetAddrType != after.NetAddrType)
        changes.push_back("served families " + family(before.NetAddrType) + " -> " + family(after.NetAddrType));
    if (before.SecurityZoneId != after.SecurityZoneId)
        changes.push_back("zone " + std::to_string(before.SecurityZoneId) + " -> " + std::to_string(after.SecurityZoneId));
    if (before.NetAddrType & after.NetAddrType & 1) {
        const auto &a = before.ServerIpv4Conf, &b = after.ServerIpv4Conf;
        if (!SameList(a.IpRange, a.IpRangeNum, b.IpRange, b.IpRangeNum, SameRange4))
            changes.push_back("ipv4 dhcpiprange");
        if (a.NetMask != b.NetMask)
            changes.push_back("ipv4 netmask");
        if (!SameList(a.Dns, a.DnsNum, b.Dns, b.DnsNum, std::equal_to<uint32_t>()))
            changes.push_back("ipv4 dns");
        if (a.Gateway != b.Gateway)
            changes.push_back("ipv4 gateway");
        if (a.LeaseTime != b.LeaseTime)
            changes.push_back("ipv4 leasetime");
        if (a.OfferTime != b.OfferTime)
            changes.push_back("ipv4 offertime");
    }
    if (before.NetAddrType & after.NetAddrType & 2) {
        const auto &a = before.ServerIpv6Conf, &b = after.ServerIpv6Conf;
        if (a.DynamicMode != b.DynamicMode)
            changes.push_back("ipv6 mode");
        if (!SameList(a.DhcpConf.Ipv6Range, a.DhcpConf.Ipv6RangeNum, b.DhcpConf.Ipv6Range, b.DhcpConf.Ipv6RangeNum, SameRange6))
            changes.push_back("ipv6 dhcpiprange");
        if (a.DhcpConf.PrefixLength != b.DhcpConf.PrefixLength || a.SlaacConf.PrefixLength != b.SlaacConf.PrefixLength)
            changes.push_back("ipv6 prefixlength");
        if (!SameList(a.DhcpConf.Ipv6Dns, a.DhcpConf.Ipv6DnsNum, b.DhcpConf.Ipv6Dns, b.DhcpConf.Ipv6DnsNum, Same6) ||
            !SameList(a.SlaacConf.Ipv6Dns, a.SlaacConf.Ipv6DnsNum, b.SlaacConf.Ipv6Dns, b.SlaacConf.Ipv6DnsNum, Same6))
            changes.push_back("ipv6 dns");
        if (a.DhcpConf.Ipv6LeaseTime != b.DhcpConf.Ipv6LeaseTime)
            changes.push_back("ipv6 leasetime");
        if (!Same6(a.SlaacConf.Prefix, b.SlaacConf.Prefix))
            changes.push_back("ipv6 prefix");
    }
    return changes;
}

std::vector<std::string> RelayChanges(const KQ_CTRL_DYNAMIC_RELAY_CONF &before, const KQ_CTRL_DYNAMIC_RELAY_CONF &after)
{
    std::vector<std::string> changes;
    const auto &a = before.RelayConf, &b = after.RelayConf;
    if (a.LanIp != b.LanIp)
        changes.push_back("lanip");
    if (!SameList(a.RelayServer, a.RelayServerNum, b.RelayServer, b.RelayServerNum, std::equal_to<uint32_t>()))
        changes.push_back("relayserver");
    return changes;
}

std::vector<std::string> PlanLines(const std::vector<Request> &requests, const std::vector<DryStep> &steps, bool verbose)
{
    std::vector<std::string> lines;
    for (size_t i = 0; i < steps.size() && i < requests.size(); ++i) {
        const Request &request = requests[i];
        const DryStep &step = steps[i];
        const std::string name = request.Item().ifname;
        const std::string head = "[" + std::to_string(i) + "] " + (request.Op() == RequestOp::Add ? "add " : "delete ") + name + ": ";
        if (step.result < 0) {
            lines.push_back(head + "refused: " + DescribeRefusal(request.Op(), name, step.result));
            for (const auto &error : step.errors)
                lines.push_back("    module: " + error);
            if (i + 1 < requests.size())
                lines.push_back("    apply stops here; request(s) " + std::to_string(i + 1) + ".." +
                                std::to_string(requests.size() - 1) + " would not be applied");
            break;
        }
        lines.push_back(head + Joined(Words(request, step)));
        if (Starts(step, KQ_DYNAMIC_RELAY_CONF_PATH))
            lines.push_back("    shared relay rebuilt and restarted (" + Joined(step.relays) + ")");
        else if (std::any_of(step.effects.begin(), step.effects.end(),
                             [](const DryEffect &e) { return e.op == "kill" || (e.op == "remove" && e.subject == KQ_DYNAMIC_RELAY_PID_PATH); }))
            lines.push_back("    shared relay stopped (no relay interface left)");
        if (!verbose)
            continue;
        for (const DryEffect &effect : step.effects) {
            if (effect.op != "write" || !IsDnsmasqFile(effect.subject))
                continue;
            lines.push_back("    " + effect.subject + ":");
            size_t at = 0;
            while (at < effect.data.size()) {
                const size_t end = std::min(effect.data.find('\n', at), effect.data.size());
                lines.push_back("      " + effect.data.substr(at, end - at));
                at = end + 1;
            }
        }
    }
    return lines;
}

}  // namespace kqagent
