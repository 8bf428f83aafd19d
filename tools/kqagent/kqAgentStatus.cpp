#include "kqAgentStatus.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <cstdlib>
#include <ctime>
#include <set>
#include <sstream>

#include "kqAgentCommon.h"
#include "kqAgentInventory.h"
#include "kqAgentProcess.h"
#include "kqCtrlDynamic.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

const char *kRelayPidFile = KQ_DYNAMIC_RELAY_PID_PATH;
const char *kRelayConfFile = KQ_DYNAMIC_RELAY_CONF_PATH;

json_object *Str(const std::string &text) { return json_object_new_string(text.c_str()); }

bool HasArg(const std::vector<std::string> &args, const std::string &arg)
{
    return std::find(args.begin() + 1, args.end(), arg) != args.end();
}

// A process known only through its pid file; `matches` adds what the program's own
// arguments must show beyond the pid file (a pid file can outlive its process or name a
// reused pid).
json_object *ProcessJson(const std::string &pidFile, const char *program,
                         const std::function<bool(const std::vector<std::string> &)> &matches)
{
    const Process found = ProcessOf(pidFile, program);
    const bool running = found.running && matches(found.args);
    json_object *process = json_object_new_object();
    json_object_object_add(process, "pidFile", Str(pidFile));
    json_object_object_add(process, "pid", found.pid > 0 ? json_object_new_int64(found.pid) : nullptr);
    json_object_object_add(process, "running", json_object_new_boolean(running));
    if (!running && found.pidFileExists)
        json_object_object_add(process, "stale", json_object_new_boolean(true));
    if (running)
        json_object_object_add(process, "cmdline", Str(found.CommandLine()));
    return process;
}

json_object *DnsmasqProcess(const std::string &pidFile)
{
    return ProcessJson(pidFile, "dnsmasq", [](const std::vector<std::string> &) { return true; });
}

json_object *DhclientProcess(const std::string &ifname, bool v6)
{
    return ProcessJson(ClientPidFile(ifname, v6), "dhclient", [&](const std::vector<std::string> &args) {
        return HasArg(args, ifname) && HasArg(args, "-6") == v6;
    });
}

json_object *LeasesOf(const std::string &path, json_object *(*parse)(const std::string &))
{
    const auto text = ReadTextFile(path);
    return text ? parse(*text) : json_object_new_array();
}

json_object *Dhclient4Leases(const std::string &text) { return ParseDhclientLeases(text, false); }
json_object *Dhclient6Leases(const std::string &text) { return ParseDhclientLeases(text, true); }

json_object *ClientJson(const std::string &ifname, bool v6)
{
    json_object *client = json_object_new_object();
    json_object_object_add(client, "process", DhclientProcess(ifname, v6));
    json_object_object_add(client, "leaseFile", Str(ClientLeaseFile(ifname, v6)));
    json_object_object_add(client, "leases", LeasesOf(ClientLeaseFile(ifname, v6), v6 ? Dhclient6Leases : Dhclient4Leases));
    return client;
}

// The text after `key` up to the next ';' within text[from, to), or "".
std::string Statement(const std::string &text, const std::string &key, size_t from = 0, size_t to = std::string::npos)
{
    const size_t at = text.find(key, from);
    if (at == std::string::npos || at >= to)
        return "";
    const size_t start = text.find_first_not_of(" \t", at + key.size());
    const size_t end = text.find_first_of(";{\n", start);
    if (start == std::string::npos || end == std::string::npos)
        return "";
    std::string value = text.substr(start, end - start);
    while (!value.empty() && value.back() == ' ')
        value.pop_back();
    return value;
}

std::string Field(json_object *object, const char *key)
{
    json_object *value = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &value) || value == nullptr)
        return "";
    return json_object_get_string(value);
}

json_object *Member(json_object *object, const char *key)
{
    json_object *value = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &value))
        return nullptr;
    return value;
}

json_object *Ref(json_object *object) { return object == nullptr ? nullptr : json_object_get(object); }

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

// True when pid runs in the network namespace of zone (0: the one this process runs in).
std::optional<bool> InZoneNamespace(long pid, uint32_t zone)
{
    char name[64] = {};
    std::string expected = "/proc/self/ns/net";
    if (zone != 0) {
        if (KQ_HostNetnsName(zone, name, sizeof(name)) < 0)
            return std::nullopt;
        expected = std::string("/run/netns/") + name;
    }
    struct stat want {}, have {};
    if (stat(expected.c_str(), &want) != 0 || stat(("/proc/" + std::to_string(pid) + "/ns/net").c_str(), &have) != 0)
        return std::nullopt;
    return want.st_dev == have.st_dev && want.st_ino == have.st_ino;
}

json_object *DesiredJson(const DesiredEntry &entry)
{
    return json_tokener_parse(entry.itemJson.c_str());
}

// "ipv4 server, ipv6 stateful DHCPv6, zone 7": what the desired item asks for, in words.
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

// The same words for what the interface's dnsmasq really serves, and where it runs.
std::string ServedSummary(const std::string &ifname, json_object *serverProcess, uint32_t zone)
{
    if (!json_object_get_boolean(Member(serverProcess, "running")))
        return "no dnsmasq of its own";
    const std::string conf = ReadTextFile(ServerConfFile(ifname)).value_or("");
    std::string text = conf.find("dhcp-range=" + ifname + ",") != std::string::npos ? "ipv4 server" : "";
    const std::string v6 = RunningIpv6Mode(conf);
    if (v6 != "none")
        text += (text.empty() ? "" : ", ") + std::string("ipv6 ") + v6;
    const auto inZone = InZoneNamespace(std::strtol(Field(serverProcess, "pid").c_str(), nullptr, 10), zone);
    text += (text.empty() ? "" : ", ") + std::string(!inZone ? "namespace unknown"
                                                     : *inZone ? "in the namespace of zone " + std::to_string(zone)
                                                               : "outside the namespace of zone " + std::to_string(zone));
    return text;
}

// Where what runs differs from what the desired state asks for.
json_object *Drift(const std::string &ifname, const DesiredEntry *desired, bool inDhcpConf, uint32_t zone,
                   json_object *serverProcess, const std::string &relayLines, bool relayRunning)
{
    json_object *drift = json_object_new_array();
    auto add = [&](const std::string &text) { json_object_array_add(drift, Str(text)); };
    if (desired == nullptr) {
        if (inDhcpConf)
            add("in dhcp.conf but not in the desired state");
        return drift;
    }
    if (!desired->request) {
        add("desired entry cannot be used: " + desired->problem);
        return drift;
    }
    const DhcpItemV2 &item = desired->request->Item();
    if (!inDhcpConf)
        add("not in dhcp.conf");
    const bool v4Server = item.ipv4dhcpitem != nullptr && item.ipv4dhcpitem->mode == KQ_DHCP_SERVER;
    const std::string v6Mode = DesiredIpv6Mode(item);
    if (v4Server || v6Mode != "none") {
        const bool running = json_object_get_boolean(Member(serverProcess, "running"));
        if (!running) {
            add("dnsmasq is not running");
        } else {
            const long pid = std::strtol(Field(serverProcess, "pid").c_str(), nullptr, 10);
            const auto inZone = InZoneNamespace(pid, zone);
            if (inZone && !*inZone)
                add("dnsmasq runs outside the namespace of zone " + std::to_string(zone));
            const std::string conf = ReadTextFile(ServerConfFile(ifname)).value_or("");
            const bool v4Served = conf.find("dhcp-range=" + ifname + ",") != std::string::npos;
            if (v4Served != v4Server)
                add(std::string("IPv4 ") + (v4Served ? "served, desired off" : "not served, desired server"));
            const std::string served = RunningIpv6Mode(conf);
            if (served != v6Mode)
                add("IPv6 serves " + served + ", desired " + v6Mode);
        }
    }
    if (item.ipv4dhcpitem != nullptr && item.ipv4dhcpitem->mode == KQ_DHCP_RELAY && item.ipv4dhcpitem->dhcprelay != nullptr) {
        if (!relayRunning)
            add("relay dnsmasq is not running");
        else if (relayLines.find("dhcp-relay=" + FormatIpv4(item.ipv4dhcpitem->dhcprelay->lanip) + ",") == std::string::npos)
            add("not in the shared relay");
    }
    return drift;
}

// Owns a temporary JSON value for one expression.
struct Json {
    explicit Json(json_object *object) : object_(object) {}
    ~Json() { json_object_put(object_); }
    operator json_object *() const { return object_; }
    json_object *object_;
};

}  // namespace

long RunningDnsmasq(const std::string &pidFile)
{
    const Process process = ProcessOf(pidFile, "dnsmasq");
    return process.running ? process.pid : 0;
}

json_object *ParseDnsmasqLeases(const std::string &text)
{
    json_object *leases = json_object_new_array();
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string expires, id, address, hostname, clientId;
        if (!(fields >> expires >> id) || expires == "duid" || !(fields >> address))
            continue;
        fields >> hostname >> clientId;
        const bool v6 = address.find(':') != std::string::npos;
        json_object *lease = json_object_new_object();
        json_object_object_add(lease, "address", Str(address));
        json_object_object_add(lease, "expires", json_object_new_int64(std::strtoll(expires.c_str(), nullptr, 10)));
        json_object_object_add(lease, v6 ? "iaid" : "hwaddr", Str(id));
        if (!hostname.empty() && hostname != "*")
            json_object_object_add(lease, "hostname", Str(hostname));
        if (!clientId.empty() && clientId != "*")
            json_object_object_add(lease, "clientId", Str(clientId));
        json_object_array_add(leases, lease);
    }
    return leases;
}

json_object *ParseDhclientLeases(const std::string &text, bool ipv6)
{
    json_object *leases = json_object_new_array();
    // dhclient appends a block per lease it gets; the newest one is the last.
    const std::string opener = ipv6 ? "lease6 {" : "lease {";
    const size_t block = text.rfind(opener);
    if (block == std::string::npos)
        return leases;
    const std::string newest = text.substr(block);
    if (!ipv6) {
        const std::string address = Statement(newest, "fixed-address ");
        if (!address.empty()) {
            json_object *lease = json_object_new_object();
            json_object_object_add(lease, "address", Str(address));
            const std::string expire = Statement(newest, "expire ");
            if (!expire.empty())
                json_object_object_add(lease, "expire", Str(expire));
            json_object_array_add(leases, lease);
        }
        return leases;
    }
    for (size_t at = newest.find("iaaddr "); at != std::string::npos; at = newest.find("iaaddr ", at + 1)) {
        const size_t close = newest.find('}', at);
        json_object *lease = json_object_new_object();
        json_object_object_add(lease, "address", Str(Statement(newest, "iaaddr ", at, close)));
        const std::string starts = Statement(newest, "starts ", at, close);
        const std::string maxLife = Statement(newest, "max-life ", at, close);
        if (!starts.empty())
            json_object_object_add(lease, "starts", json_object_new_int64(std::strtoll(starts.c_str(), nullptr, 10)));
        if (!maxLife.empty())
            json_object_object_add(lease, "maxLife", json_object_new_int64(std::strtoll(maxLife.c_str(), nullptr, 10)));
        json_object_array_add(leases, lease);
    }
    return leases;
}

json_object *PolicyRulesJson()
{
    json_object *rules = json_object_new_array();
    for (size_t i = 0; i < KQ_HostRuleCount(); ++i) {
        const KQ_CONF_RULE *rule = KQ_HostRuleAt(i);
        if (rule == nullptr)
            break;
        json_object *item = json_object_new_object();
        json_object_object_add(item, "zone", json_object_new_int(rule->Zone));
        json_object_object_add(item, "id", json_object_new_int64(rule->Id));
        json_object_object_add(item, "table", json_object_new_int(rule->Table));
        json_object_object_add(item, "vpnId", json_object_new_int64(rule->VpnId));
        json_object *ports = json_object_new_array();
        for (unsigned p = 0; p < rule->Match.DstPortNum && p < KQ_CONF_RULE_MAX_ITEMS; ++p) {
            const auto &range = rule->Match.DstPort[p];
            json_object_array_add(ports, Str(range.LowerPort == range.UpperPort
                                                 ? std::to_string(range.LowerPort)
                                                 : std::to_string(range.LowerPort) + "-" + std::to_string(range.UpperPort)));
        }
        json_object_object_add(item, "dstPorts", ports);
        json_object *protos = json_object_new_array();
        for (unsigned p = 0; p < rule->Match.ProtoNum && p < KQ_CONF_RULE_MAX_ITEMS; ++p)
            json_object_array_add(protos, json_object_new_int(rule->Match.Proto[p]));
        json_object_object_add(item, "protocols", protos);
        auto ports2json = [](const KQ_CONF_RULE_IF *list, unsigned count) {
            json_object *array = json_object_new_array();
            for (unsigned p = 0; p < count && p < KQ_CONF_RULE_MAX_ITEMS; ++p) {
                json_object *port = json_object_new_object();
                json_object_object_add(port, "type", json_object_new_int(list[p].Type));
                json_object_object_add(port, "id", json_object_new_int64(list[p].Id));
                json_object_array_add(array, port);
            }
            return array;
        };
        json_object_object_add(item, "inPorts", ports2json(rule->Match.InPort, rule->Match.InPortNum));
        json_object_object_add(item, "outPorts", ports2json(rule->Match.OutPort, rule->Match.OutPortNum));
        json_object *outputs = json_object_new_array();
        for (unsigned p = 0; p < rule->Actions.OutputNum && p < KQ_CONF_RULE_MAX_ITEMS; ++p) {
            json_object *output = json_object_new_object();
            json_object_object_add(output, "type", json_object_new_int(rule->Actions.OutputArray[p].Type));
            json_object_object_add(output, "id", json_object_new_int64(rule->Actions.OutputArray[p].Id));
            json_object_array_add(outputs, output);
        }
        json_object_object_add(item, "outputs", outputs);
        json_object_array_add(rules, item);
    }
    return rules;
}

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

namespace {

void AddSupervision(json_object *process, const std::map<Service, Supervision> &supervision, const Service &service)
{
    const auto it = supervision.find(service);
    if (it == supervision.end())
        return;
    json_object *facts = json_object_new_object();
    json_object_object_add(facts, "restarts", json_object_new_int64(it->second.restarts));
    if (!it->second.lastExit.empty())
        json_object_object_add(facts, "lastExit", Str(it->second.lastExit));
    if (!it->second.gaveUp.empty())
        json_object_object_add(facts, "gaveUp", Str(it->second.gaveUp));
    json_object_object_add(process, "supervision", facts);
}

}  // namespace

json_object *CollectStatus(const std::vector<std::string> &onlyInterfaces, const DesiredState &desired, bool fromAgent,
                           const std::map<Service, Supervision> &supervision)
{
    json_object *status = json_object_new_object();
    json_object *agent = json_object_new_object();
    json_object_object_add(agent, "running", json_object_new_boolean(fromAgent));
    if (fromAgent)
        json_object_object_add(agent, "pid", json_object_new_int64(getpid()));
    json_object_object_add(agent, "desiredState", Str(desired.Path()));
    if (desired.Broken())
        json_object_object_add(agent, "problem", Str(desired.Problem()));
    json_object_object_add(status, "agent", agent);
    const std::string relayText = ReadTextFile(kRelayConfFile).value_or("");
    const bool relayRunning = RunningDnsmasq(kRelayPidFile) > 0;

    // What dhcp.conf says, item by item.
    const std::string confPath = KQ_AgentPathDhcpConf();
    json_object *conf = json_object_new_object();
    json_object_object_add(conf, "path", Str(confPath));
    json_object *document = nullptr;
    if (const auto text = ReadTextFile(confPath)) {
        document = json_tokener_parse(text->c_str());
        json_object_object_add(conf, "present", json_object_new_boolean(true));
        if (document == nullptr || !json_object_is_type(Member(document, "dhcps"), json_type_array))
            json_object_object_add(conf, "error", Str("not a document with a \"dhcps\" array"));
    } else {
        json_object_object_add(conf, "present", json_object_new_boolean(false));
    }
    json_object_object_add(status, "dhcpConf", conf);
    json_object *items = json_object_is_type(Member(document, "dhcps"), json_type_array) ? Member(document, "dhcps") : nullptr;

    std::set<std::string> names;
    std::vector<std::string> order;  // dhcp.conf order first, then the others sorted
    auto note = [&](const std::string &name) {
        if (!name.empty() && names.insert(name).second)
            order.push_back(name);
    };
    for (const auto &entry : desired.Entries())
        note(entry.ifname);
    for (const auto &entry : desired.Clients())
        if (entry.client)
            note(entry.client->ifname);
    for (size_t i = 0; items != nullptr && i < json_object_array_length(items); ++i)
        note(Field(json_object_array_get_idx(items, i), "ifname"));
    // Configured: desired, in dhcp.conf, or a running dhclient (the client side keeps no other record).
    // The files of any other interface are leftovers, shown once as stale.
    json_object *stale = json_object_new_array();
    for (const auto &[name, files] : InterfaceFiles()) {
        if (names.count(name) != 0)
            continue;
        if (json_object_get_boolean(Member(Json(DhclientProcess(name, false)), "running")) ||
            json_object_get_boolean(Member(Json(DhclientProcess(name, true)), "running"))) {
            note(name);
            continue;
        }
        if (!onlyInterfaces.empty() &&
            std::find(onlyInterfaces.begin(), onlyInterfaces.end(), name) == onlyInterfaces.end())
            continue;
        json_object *entry = json_object_new_object();
        json_object_object_add(entry, "ifname", Str(name));
        json_object *list = json_object_new_array();
        for (const auto &file : files)
            json_object_array_add(list, Str(file));
        json_object_object_add(entry, "files", list);
        json_object_array_add(stale, entry);
    }

    json_object *interfaces = json_object_new_array();
    for (const auto &ifname : order) {
        if (!onlyInterfaces.empty() &&
            std::find(onlyInterfaces.begin(), onlyInterfaces.end(), ifname) == onlyInterfaces.end())
            continue;
        json_object *item = nullptr;
        for (size_t i = 0; items != nullptr && i < json_object_array_length(items); ++i) {
            if (Field(json_object_array_get_idx(items, i), "ifname") == ifname) {
                item = json_object_array_get_idx(items, i);
                break;
            }
        }
        json_object *entry = json_object_new_object();
        json_object_object_add(entry, "ifname", Str(ifname));
        KQ_CONF_LAN lan{};
        const bool isLan = KQ_RtcNetioLanGetByName(ifname.c_str(), &lan) == 0;
        json_object_object_add(entry, "lan", json_object_new_boolean(isLan));
        json_object_object_add(entry, "zone", json_object_new_int64(isLan ? lan.CommConf.VpnId : 0));
        char netns[64] = {};
        if (isLan && lan.CommConf.VpnId != 0 && KQ_HostNetnsName(lan.CommConf.VpnId, netns, sizeof(netns)) >= 0)
            json_object_object_add(entry, "netns", Str(netns));
        json_object_object_add(entry, "inDhcpConf", json_object_new_boolean(item != nullptr));

        json_object *server = json_object_new_object();
        json_object *legacy = Member(item, "dhcpServer");
        json_object_object_add(server, "ipv4", Ref(legacy ? legacy : Member(item, "dhcpIpv4Server")));
        json_object_object_add(server, "ipv6", Ref(legacy ? legacy : Member(item, "dhcpIpv6Server")));
        json_object_object_add(server, "process", DnsmasqProcess(ServerPidFile(ifname)));
        json_object *v4 = Member(server, "ipv4"), *v6 = Member(server, "ipv6");
        // A relay interface hands out nothing itself: the leases of an earlier server are not its.
        json_object *leases = v4 != nullptr || v6 != nullptr ? LeasesOf(ServerLeaseFile(ifname), ParseDnsmasqLeases)
                                                             : json_object_new_array();
        json_object_object_add(server, "leaseFile", Str(ServerLeaseFile(ifname)));
        json_object_object_add(server, "leases", leases);
        json_object_object_add(server, "poolUse", PoolUse(v4, v6, leases));
        json_object_object_add(entry, "server", server);
        json_object_object_add(entry, "relay", Ref(Member(item, "dhcpRelay")));
        const DesiredEntry *wanted = nullptr;
        for (const auto &candidate : desired.Entries())
            if (candidate.ifname == ifname && (wanted == nullptr || candidate.request))
                wanted = &candidate;
        json_object_object_add(entry, "desired", wanted != nullptr ? DesiredJson(*wanted) : nullptr);
        const uint32_t zone = isLan ? lan.CommConf.VpnId : 0;
        if (wanted != nullptr)
            json_object_object_add(entry, "desiredSummary", Str(DesiredSummary(*wanted, zone)));
        json_object_object_add(entry, "servedSummary", Str(ServedSummary(ifname, Member(server, "process"), zone)));
        json_object_object_add(entry, "drift",
                               Drift(ifname, wanted, item != nullptr, isLan ? lan.CommConf.VpnId : 0,
                                     Member(server, "process"), relayText, relayRunning));
        AddSupervision(Member(server, "process"), supervision, Service{ServiceKind::Server, ifname});
        json_object *drift = Member(entry, "drift");
        for (const bool v6 : {false, true}) {
            json_object *client = ClientJson(ifname, v6);
            AddSupervision(Member(client, "process"), supervision, Service{v6 ? ServiceKind::Client6 : ServiceKind::Client4, ifname});
            const DesiredClient *wantedClient = desired.FindClient(ifname, v6);
            if (wantedClient != nullptr) {
                json_object_object_add(client, "desired", json_tokener_parse(wantedClient->Json().c_str()));
                // A SLAAC client runs no dhclient of its own.
                if (!(v6 && wantedClient->type == "slaac") && !json_object_get_boolean(Member(Member(client, "process"), "running")))
                    json_object_array_add(drift, Str(std::string(v6 ? "dhclient6" : "dhclient") + " is not running"));
            }
            json_object_object_add(entry, v6 ? "dhclient6" : "dhclient", client);
        }
        json_object_array_add(interfaces, entry);
    }
    json_object_object_add(status, "interfaces", interfaces);
    json_object_object_add(status, "stale", stale);

    json_object *relay = json_object_new_object();
    json_object_object_add(relay, "process", DnsmasqProcess(kRelayPidFile));
    AddSupervision(Member(relay, "process"), supervision, Service{ServiceKind::Relay, ""});
    json_object_object_add(relay, "confFile", Str(kRelayConfFile));
    json_object *lines = json_object_new_array();
    if (const auto text = ReadTextFile(kRelayConfFile)) {
        std::istringstream in(*text);
        std::string line;
        while (std::getline(in, line))
            if (!line.empty())
                json_object_array_add(lines, Str(line));
    }
    json_object_object_add(relay, "lines", lines);
    json_object_object_add(status, "relay", relay);
    json_object_object_add(status, "policyRules", PolicyRulesJson());
    json_object_put(document);
    return status;
}

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
        text += "  desired: " + (Member(entry, "desired") != nullptr ? Field(entry, "desiredSummary") : "none") + "\n";
        text += "  serving: " + Field(entry, "servedSummary") + "\n";
        json_object *drift = Member(entry, "drift");
        for (size_t d = 0; d < json_object_array_length(drift); ++d)
            text += "  DRIFT: " + std::string(json_object_get_string(json_object_array_get_idx(drift, d))) + "\n";
        if (Member(entry, "desired") != nullptr && json_object_array_length(drift) == 0)
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
