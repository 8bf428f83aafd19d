#include "kqAgentStatus.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <cstdlib>
#include <set>
#include <sstream>

#include "kqAgentCommon.h"
#include "kqAgentDrift.h"
#include "kqAgentHealth.h"
#include "kqAgentInventory.h"
#include "kqAgentJson.h"
#include "kqAgentLeases.h"
#include "kqAgentProcess.h"
#include "kqAgentVerbs.h"
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

json_object *Ref(json_object *object) { return object == nullptr ? nullptr : json_object_get(object); }

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

// Owns a temporary JSON value for one expression.
struct Json {
    explicit Json(json_object *object) : object_(object) {}
    ~Json() { json_object_put(object_); }
    operator json_object *() const { return object_; }
    json_object *object_;
};

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

json_object *LinkJson(const std::optional<LinkFacts> &link)
{
    if (!link)
        return nullptr;
    json_object *facts = json_object_new_object();
    json_object_object_add(facts, "exists", json_object_new_boolean(link->exists));
    json_object_object_add(facts, "up", json_object_new_boolean(link->up));
    json_object *addresses = json_object_new_array();
    for (const auto &address : link->addresses)
        json_object_array_add(addresses, Str(address));
    json_object_object_add(facts, "addresses", addresses);
    return facts;
}

void AddSockets(json_object *process, const std::optional<DnsmasqSockets> &sockets)
{
    if (!sockets)
        return;
    json_object *held = json_object_new_object();
    json_object_object_add(held, "dhcpv4", json_object_new_boolean(sockets->dhcpv4));
    json_object_object_add(held, "dhcpv6", json_object_new_boolean(sockets->dhcpv6));
    json_object_object_add(held, "icmpv6", json_object_new_boolean(sockets->icmpv6));
    json_object_object_add(process, "sockets", held);
}

long PidOf(json_object *process) { return std::strtol(Field(process, "pid").c_str(), nullptr, 10); }

}  // namespace

int StatusExit(json_object *status)
{
    if (!Field(Member(status, "agent"), "problem").empty())
        return kExitDrift;
    json_object *interfaces = Member(status, "interfaces");
    for (size_t i = 0; i < json_object_array_length(interfaces); ++i)
        if (json_object_array_length(Member(json_object_array_get_idx(interfaces, i), "drift")) > 0)
            return kExitDrift;
    return kExitOk;
}

long RunningDnsmasq(const std::string &pidFile)
{
    // Asked several times per command: its start time and namespace are not needed here.
    const Process process = ProcessOf(pidFile, "dnsmasq", Facts::Running);
    return process.running ? process.pid : 0;
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
    RelayFacts relayFacts;
    relayFacts.conf = ReadTextFile(kRelayConfFile).value_or("");
    const long relayPid = RunningDnsmasq(kRelayPidFile);
    relayFacts.running = relayPid > 0;
    HealthReader health;
    if (relayFacts.running)
        relayFacts.sockets = health.Sockets(static_cast<pid_t>(relayPid));

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
        Wanted wanted;
        for (const auto &candidate : desired.Entries())
            if (candidate.ifname == ifname && (wanted.entry == nullptr || candidate.request))
                wanted.entry = &candidate;
        json_object_object_add(entry, "desired", wanted.entry != nullptr ? DesiredJson(*wanted.entry) : nullptr);
        json_object *process = Member(server, "process");
        InterfaceFacts facts;
        facts.ifname = ifname;
        facts.zone = isLan ? lan.CommConf.VpnId : 0;
        facts.inDhcpConf = item != nullptr;
        facts.dnsmasqRunning = json_object_get_boolean(Member(process, "running"));
        if (facts.dnsmasqRunning) {
            facts.dnsmasqInZone = InZoneNamespace(PidOf(process), facts.zone);
            facts.dnsmasqConf = ReadTextFile(ServerConfFile(ifname)).value_or("");
            facts.sockets = health.Sockets(static_cast<pid_t>(PidOf(process)));
            AddSockets(process, facts.sockets);
        }
        // Only a LAN the agent serves is looked for in its namespaces.
        if (wanted.entry != nullptr && wanted.entry->request) {
            facts.link = health.Link(facts.zone, ifname);
            facts.relayLink = facts.zone == 0 ? facts.link : health.Link(0, ifname);
            json_object_object_add(entry, "link", LinkJson(facts.link));
            if (facts.zone != 0)
                json_object_object_add(entry, "relayLink", LinkJson(facts.relayLink));
        }
        json_object *clients[2] = {};
        for (const bool v6 : {false, true}) {
            clients[v6] = ClientJson(ifname, v6);
            facts.dhclientRunning[v6] = json_object_get_boolean(Member(Member(clients[v6], "process"), "running"));
            wanted.clients[v6] = desired.FindClient(ifname, v6);
            if (wanted.clients[v6] != nullptr)
                json_object_object_add(clients[v6], "desired", json_tokener_parse(wanted.clients[v6]->Json().c_str()));
            AddSupervision(Member(clients[v6], "process"), supervision,
                           Service{v6 ? ServiceKind::Client6 : ServiceKind::Client4, ifname});
        }
        if (wanted.entry != nullptr)
            json_object_object_add(entry, "desiredSummary", Str(DesiredSummary(*wanted.entry, facts.zone)));
        json_object_object_add(entry, "servedSummary", Str(ServedSummary(facts)));
        json_object *drift = json_object_new_array(), *causes = json_object_new_array();
        for (const auto &cause : Drift(wanted, facts, relayFacts)) {
            json_object_array_add(drift, Str(cause.text));
            json_object *told = json_object_new_object();
            json_object_object_add(told, "code", Str(cause.code));
            json_object_object_add(told, "text", Str(cause.text));
            json_object_array_add(causes, told);
        }
        json_object_object_add(entry, "drift", drift);
        json_object_object_add(entry, "causes", causes);
        AddSupervision(process, supervision, Service{ServiceKind::Server, ifname});
        json_object_object_add(entry, "dhclient", clients[0]);
        json_object_object_add(entry, "dhclient6", clients[1]);
        json_object_array_add(interfaces, entry);
    }
    json_object_object_add(status, "interfaces", interfaces);
    json_object_object_add(status, "stale", stale);

    json_object *relay = json_object_new_object();
    json_object_object_add(relay, "process", DnsmasqProcess(kRelayPidFile));
    AddSockets(Member(relay, "process"), relayFacts.sockets);
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

}  // namespace kqagent
