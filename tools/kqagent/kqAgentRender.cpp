#include "kqAgentRender.h"

#include <cstdlib>
#include <ctime>

#include "kqAgentJson.h"

namespace kqagent {

namespace {

std::string ProcessLine(const char *what, json_object *process)
{
    const bool running = json_object_get_boolean(Member(process, "running"));
    std::string text = std::string(what) + ": ";
    if (running)
        text += "running, pid " + Field(process, "pid");
    else if (json_object_get_boolean(Member(process, "stale")))
        text += "not running (stale pid file, pid " + (Field(process, "pid").empty() ? "?" : Field(process, "pid")) + ")";
    else
        text += "not running";
    text += " [" + Field(process, "pidFile") + "]";
    if (json_object *supervised = Member(process, "supervision")) {
        const std::string restarts = Field(supervised, "restarts");
        std::string facts = "restarted " + restarts + (restarts == "1" ? " time" : " times");
        if (!Field(supervised, "lastExit").empty())
            facts += ", last exit: " + Field(supervised, "lastExit");
        if (!Field(supervised, "gaveUp").empty())
            facts += "; GAVE UP at " + Field(supervised, "gaveUp");
        text += " (" + facts + ")";
    }
    return text + "\n";
}

std::string Strings(json_object *array)
{
    std::string text;
    for (size_t i = 0; array != nullptr && i < json_object_array_length(array); ++i)
        text += (i ? ", " : "") + std::string(json_object_get_string(json_object_array_get_idx(array, i)));
    return text.empty() ? "-" : text;
}

std::string Ipv4ServerLine(json_object *v4)
{
    std::string pools;
    json_object *ranges = Member(v4, "ipRange");
    for (size_t i = 0; ranges != nullptr && i < json_object_array_length(ranges); ++i) {
        json_object *r = json_object_array_get_idx(ranges, i);
        pools += (i ? ", " : "") + Field(r, "startIp") + "-" + Field(r, "endIp");
    }
    if (ranges == nullptr && !Field(v4, "startIp").empty())
        pools = Field(v4, "startIp") + "-" + Field(v4, "endIp");
    return "  server ipv4: pool " + (pools.empty() ? "-" : pools) + ", netmask " + Field(v4, "netmask") +
           ", gateway " + Field(v4, "gateway") + ", dns " + Strings(Member(v4, "dnsIps")) + ", lease " +
           Field(v4, "leaseTime") + "s\n";
}

std::string Ipv6ServerLine(json_object *v6)
{
    static const char *modes[] = {"SLAAC", "stateless DHCPv6", "stateful DHCPv6", "SLAAC and DHCPv6"};
    const std::string mode = Field(v6, "dynamicMode");
    const int m = mode.empty() ? -1 : std::atoi(mode.c_str());
    std::string text = "  server ipv6: " + std::string(m >= 0 && m <= 3 ? modes[m] : "mode ?");
    json_object *ranges = Member(v6, "ipv6Range");
    if (ranges != nullptr) {
        std::string pools;
        for (size_t i = 0; i < json_object_array_length(ranges); ++i) {
            json_object *r = json_object_array_get_idx(ranges, i);
            pools += (i ? ", " : "") + Field(r, "startIpv6") + "-" + Field(r, "endIpv6");
        }
        text += ", pool " + (pools.empty() ? "-" : pools) + " /" + Field(v6, "prefixlengthdhcp") + ", lease " +
                Field(v6, "leaseTimeIpv6") + "s";
    }
    if (!Field(v6, "prefix").empty())
        text += ", prefix " + Field(v6, "prefix") + "/" + Field(v6, "prefixlengthslaac");
    return text + ", dns " + Strings(Member(v6, "dnsIpv6s")) + "\n";
}

std::string LeaseLines(json_object *leases)
{
    std::string text;
    for (size_t i = 0; i < json_object_array_length(leases); ++i) {
        json_object *lease = json_object_array_get_idx(leases, i);
        text += "    " + Field(lease, "address");
        if (!Field(lease, "hwaddr").empty())
            text += "  " + Field(lease, "hwaddr");
        if (!Field(lease, "iaid").empty())
            text += "  iaid " + Field(lease, "iaid");
        if (!Field(lease, "hostname").empty())
            text += "  " + Field(lease, "hostname");
        if (!Field(lease, "expires").empty()) {
            const time_t when = std::strtoll(Field(lease, "expires").c_str(), nullptr, 10);
            char stamp[32] = "never";
            if (when != 0)
                strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", localtime(&when));
            text += std::string("  expires ") + stamp;
        }
        if (!Field(lease, "expire").empty())
            text += "  expire " + Field(lease, "expire");
        if (!Field(lease, "maxLife").empty())
            text += "  max-life " + Field(lease, "maxLife") + "s";
        text += "\n";
    }
    return text;
}

}  // namespace

std::string RenderPolicyRules(json_object *rules)
{
    std::string text = "policy rules: ";
    const size_t count = json_object_array_length(rules);
    if (count == 0)
        return text + "none\n";
    text += std::to_string(count) + "\n";
    auto list = [](json_object *array, bool typed) {
        std::string out;
        for (size_t i = 0; i < json_object_array_length(array); ++i) {
            json_object *entry = json_object_array_get_idx(array, i);
            out += (i ? "," : "");
            out += typed ? "type " + Field(entry, "type") + "/id " + Field(entry, "id") : json_object_get_string(entry);
        }
        return out.empty() ? std::string("-") : out;
    };
    for (size_t i = 0; i < count; ++i) {
        json_object *rule = json_object_array_get_idx(rules, i);
        text += "  zone " + Field(rule, "zone") + " id " + Field(rule, "id") + ": dst ports " +
                list(Member(rule, "dstPorts"), false) + ", protocols " + list(Member(rule, "protocols"), false) +
                ", in " + list(Member(rule, "inPorts"), true) + ", out " + list(Member(rule, "outPorts"), true) +
                " -> " + list(Member(rule, "outputs"), true) + "\n";
    }
    return text;
}

std::string RenderStatus(json_object *status)
{
    std::string text;
    json_object *agent = Member(status, "agent");
    text += "agent: " + std::string(json_object_get_boolean(Member(agent, "running"))
                                         ? "running, pid " + Field(agent, "pid")
                                         : "not running (this command ran on its own)") + "\n";
    text += "desired state: " + Field(agent, "desiredState");
    if (!Field(agent, "problem").empty())
        text += " (UNREADABLE: " + Field(agent, "problem") + ")";
    text += "\n";
    json_object *conf = Member(status, "dhcpConf");
    text += "dhcp.conf: " + Field(conf, "path");
    if (!json_object_get_boolean(Member(conf, "present")))
        text += " (absent)";
    if (!Field(conf, "error").empty())
        text += " (" + Field(conf, "error") + ")";
    text += "\n";

    json_object *interfaces = Member(status, "interfaces");
    if (json_object_array_length(interfaces) == 0)
        text += "no interfaces configured\n";
    for (size_t i = 0; i < json_object_array_length(interfaces); ++i) {
        json_object *entry = json_object_array_get_idx(interfaces, i);
        text += "\n" + Field(entry, "ifname") + ": zone " + Field(entry, "zone");
        if (!Field(entry, "netns").empty())
            text += " (netns " + Field(entry, "netns") + ")";
        if (!json_object_get_boolean(Member(entry, "lan")))
            text += " (not in the LAN table)";
        text += "\n";
        // An enabled client is desired as much as a served LAN.
        std::string clients;
        for (const char *name : {"dhclient", "dhclient6"})
            if (json_object *wanted = Member(Member(entry, name), "desired"))
                clients += std::string(clients.empty() ? "" : ", ") + name +
                           (Field(wanted, "type").empty() ? "" : " " + Field(wanted, "type")) + " enabled";
        const bool desired = Member(entry, "desired") != nullptr || !clients.empty();
        std::string summary = Member(entry, "desired") != nullptr ? Field(entry, "desiredSummary") : "";
        if (!clients.empty())
            summary += (summary.empty() ? "" : "; ") + clients;
        text += "  desired: " + (desired ? summary : "none") + "\n";
        text += "  serving: " + Field(entry, "servedSummary") + "\n";
        json_object *drift = Member(entry, "drift");
        for (size_t d = 0; d < json_object_array_length(drift); ++d)
            text += "  DRIFT: " + std::string(json_object_get_string(json_object_array_get_idx(drift, d))) + "\n";
        if (desired && json_object_array_length(drift) == 0)
            text += "  runs as desired\n";
        json_object *server = Member(entry, "server");
        json_object *v4 = Member(server, "ipv4");
        json_object *v6 = Member(server, "ipv6");
        if (v4 != nullptr)
            text += Ipv4ServerLine(v4);
        if (v6 != nullptr)
            text += Ipv6ServerLine(v6);
        if (json_object *relay = Member(entry, "relay"))
            text += "  relay: lan ip " + Field(relay, "lanIp") + " -> " + Strings(Member(relay, "relayServer")) + "\n";
        json_object *process = Member(server, "process");
        json_object *leases = Member(server, "leases");
        if (v4 != nullptr || v6 != nullptr || json_object_get_boolean(Member(process, "running"))) {
            text += "  " + ProcessLine("dnsmasq", process);
            json_object *use = Member(server, "poolUse");
            std::string pools;
            for (const char *family : {"ipv4", "ipv6"})
                if (json_object *u = Member(use, family))
                    pools += (pools.empty() ? "" : ", ") + std::string(family) + " " + Field(u, "leases") + "/" +
                             Field(u, "addresses");
            if (!pools.empty())
                text += "  pool use (leases/addresses): " + pools + "\n";
            text += "  leases [" + Field(server, "leaseFile") + "]: " +
                    (json_object_array_length(leases) == 0 ? "none\n" : std::to_string(json_object_array_length(leases)) + "\n");
            text += LeaseLines(leases);
        }
        for (const char *client : {"dhclient", "dhclient6"}) {
            json_object *c = Member(entry, client);
            json_object *cp = Member(c, "process");
            json_object *cl = Member(c, "leases");
            if (!json_object_get_boolean(Member(cp, "running")) && Field(cp, "pid").empty() &&
                json_object_array_length(cl) == 0)
                continue;
            text += "  " + ProcessLine(client, cp);
            text += "  lease [" + Field(c, "leaseFile") + "]: " + (json_object_array_length(cl) == 0 ? "none\n" : "\n");
            text += LeaseLines(cl);
        }
    }

    json_object *stale = Member(status, "stale");
    if (json_object_array_length(stale) > 0) {
        text += "\nstale files (interfaces not configured):\n";
        for (size_t i = 0; i < json_object_array_length(stale); ++i) {
            json_object *entry = json_object_array_get_idx(stale, i);
            text += "  " + Field(entry, "ifname") + ": " + Strings(Member(entry, "files")) + "\n";
        }
    }

    json_object *relay = Member(status, "relay");
    text += "\n" + ProcessLine("relay dnsmasq", Member(relay, "process"));
    for (size_t i = 0; i < json_object_array_length(Member(relay, "lines")); ++i)
        text += "  " + std::string(json_object_get_string(json_object_array_get_idx(Member(relay, "lines"), i))) + "\n";
    text += RenderPolicyRules(Member(status, "policyRules"));
    return text;
}

}  // namespace kqagent
