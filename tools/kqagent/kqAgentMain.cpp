// kqagent: a small host agent around the dynamic module. It reads requests written as JSON,
// turns them into DhcpItemV2 messages and calls the module; it also drives the DHCP client
// operations and shows what is configured and running.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
#include "kqAgentMessages.h"
#include "kqAgentPlan.h"
#include "kqAgentRequests.h"
#include "kqAgentStatus.h"
#include "kqCtrlDynamic.h"
#include "kqHostLinux.h"

namespace {

using namespace kqagent;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the module or the system refused
constexpr int kExitUsage = 2;   // bad command line or bad request file

const char *kUsage =
    "usage: kqagent [--config FILE] [-v|-q] COMMAND [ARGS]\n"
    "       kqagent --version\n"
    "\n"
    "Configure the DHCP servers, relay and clients of this appliance through the dynamic module.\n"
    "\n"
    "commands:\n"
    "  apply FILE [--dry-run]  check a request file, then add/delete each interface's DHCP setup in order\n"
    "  check FILE [--strict]   only check a request file (nothing is applied)\n"
    "  plan FILE               what apply would do per interface: new, unchanged, restart, stop (nothing is touched)\n"
    "  load [PATH]             restore every server and the relay from dhcp.conf (restarts their dnsmasq)\n"
    "  client enable|disable ipv4|ipv6 IFNAME [--zone N] [--type slaac|stateless|stateful] [--rs]\n"
    "                          start or stop dhclient on an interface\n"
    "  rs IFNAME [--zone N]    send one router solicitation\n"
    "  status [--json] [IFNAME...]\n"
    "                          configuration, processes, leases and policy rules\n"
    "  help [COMMAND]          this text, or a command's own\n"
    "\n"
    "options:\n"
    "  --config FILE   host settings file (default: $KQ_HOST_CONFIG; without one, built-in defaults)\n"
    "  -v, --verbose   also show the module's trace and notice lines (default: its warnings and errors)\n"
    "  -q, --quiet     show only the module's error lines\n"
    "  --version       print kqagent's version\n"
    "\n"
    "exit status: 0 done, 1 refused by the module or the system, 2 bad command line or request file\n";

const std::map<std::string, std::string> kCommandHelp = {
    {"apply",
     "usage: kqagent apply FILE [--load] [--dry-run] [--strict]\n"
     "\n"
     "Checks the whole request file first: an unknown key, a wrong type, a bad address, a number out of\n"
     "range or a missing field is reported with the request index and field path, and nothing is applied.\n"
     "Then each request is handed to the module in file order; the first refusal stops the run.\n"
     "\n"
     "Each kqagent run is a new process, so the module's registry starts empty. Before applying, the\n"
     "registry is restored from dhcp.conf with the module's own readers, without touching any process,\n"
     "so that an unchanged interface is left running and the shared relay keeps every relay interface.\n"
     "  --load      restore with the module's start-up load instead (restarts every dnsmasq it restores)\n"
     "  --dry-run   print the plan (see 'kqagent help plan') and stop; nothing is touched\n"
     "  --strict    treat warnings (settings a restart would lose) as errors\n"
     "\n"
     "File format: {\"requests\":[{\"op\":\"add\"|\"delete\",\"item\":{DhcpItemV2 fields}}, ...]}; see the kqagent section of README.md.\n"},
    {"check",
     "usage: kqagent check FILE [--strict]\n"
     "\n"
     "Checks a request file exactly as apply does and applies nothing. Besides the form of each request:\n"
     "an add must name ipv4dhcpitem or ipv6dhcpitem; pools must not overlap and must lie in the subnet of\n"
     "the netmask, with the gateway; the JSON must be strict (no trailing commas, no key given twice); the\n"
     "interface's dnsmasq file must stay below 10240 bytes and each of its lines within 1024 characters; and\n"
     "dhcp.conf must stay within the 16 MiB its loader reads. Settings that run but that dhcp.conf cannot\n"
     "hold across a restart are warnings.\n"
     "  --strict   treat those warnings as errors\n"},
    {"plan",
     "usage: kqagent plan FILE [--strict]\n"
     "\n"
     "Checks the request file as check does, then prints per request what the module would do, judged\n"
     "against the configuration dhcp.conf holds: new server, server unchanged, server restart (with the\n"
     "fields that differ), server stop, new/changed/removed relay, and when the shared relay is rebuilt.\n"
     "Nothing is started, stopped or written.\n"},
    {"load",
     "usage: kqagent load [PATH]\n"
     "\n"
     "Runs the module's start-up load on PATH (default: the host's dhcp.conf): every interface's server\n"
     "dnsmasq is restarted and the shared relay is started once, as when the agent starts.\n"},
    {"client",
     "usage: kqagent client enable|disable ipv4|ipv6 IFNAME [--zone N] [--type T] [--rs]\n"
     "\n"
     "enable stops any dhclient of the interface and starts a fresh one in the zone's namespace;\n"
     "disable stops it. For ipv6 the module also adds the DHCPv6 policy rule (enable) or removes it\n"
     "when no interface counts as a DHCPv6 client any more (disable).\n"
     "  --zone N   security zone (VPN id) of the interface (default: its LAN's zone, else 0)\n"
     "  --type T   ipv6 enable only: stateful (dhclient -6, the default), stateless (dhclient -6 -S)\n"
     "             or slaac (no dhclient; only the policy rule)\n"
     "  --rs       ipv6 enable only: send one router solicitation first\n"
     "The policy rule table lives in this process's memory; it is printed after an ipv6 command.\n"},
    {"rs",
     "usage: kqagent rs IFNAME [--zone N]\n"
     "\n"
     "Sends one ICMPv6 router solicitation out of IFNAME, inside the zone's network namespace.\n"},
    {"status",
     "usage: kqagent status [--json] [IFNAME...]\n"
     "\n"
     "Per interface: the server and relay settings of dhcp.conf, the zone from the LAN table, whether\n"
     "its dnsmasq and dhclient run (pid files confirmed through /proc/<pid>/cmdline) and its leases;\n"
     "then the shared relay and the policy rule table of this process.\n"
     "  --json   print the same as one JSON document\n"},
};

struct Options {
    bool verbose = false;
    bool quiet = false;
};

#ifndef KQ_VERSION
#define KQ_VERSION "unknown"
#endif

int Usage(const std::string &problem, const std::string &command = "")
{
    std::cerr << "kqagent: " << problem << "\n";
    std::cerr << "try 'kqagent help" << (command.empty() ? "" : " " + command) << "'\n";
    return kExitUsage;
}

bool WantsHelp(const std::vector<std::string> &args)
{
    for (const auto &arg : args)
        if (arg == "-h" || arg == "--help")
            return true;
    return false;
}

int Help(const std::string &command)
{
    if (command.empty()) {
        std::cout << kUsage;
        return kExitOk;
    }
    const auto it = kCommandHelp.find(command);
    if (it == kCommandHelp.end())
        return Usage("no such command: " + command);
    std::cout << it->second;
    return kExitOk;
}

std::optional<uint32_t> ParseZone(const std::string &text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10)
        return std::nullopt;
    const unsigned long long value = std::stoull(text);
    if (value > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

std::optional<ParsedRequests> ReadRequestFile(const std::string &path)
{
    const auto text = ReadTextFile(path);
    if (!text) {
        std::cerr << "kqagent: cannot read " << path << ": " << strerror(errno) << "\n";
        return std::nullopt;
    }
    ParsedRequests parsed = ParseRequests(*text);
    if (!parsed.Ok()) {
        std::cerr << "kqagent: " << path << ": " << parsed.error << "\n";
        std::cerr << "kqagent: nothing applied\n";
        return std::nullopt;
    }
    for (const auto &note : parsed.notes)
        std::cerr << "kqagent: note: " << path << ": " << note << "\n";
    return parsed;
}

// Runs fn with the module's log lines kept back unless the user asked for them: the
// dhcp.conf readers report every optional object an item lacks, which is noise here.
template <class Fn>
auto Quietly(const Options &options, Fn fn)
{
    if (options.verbose)
        return fn();
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && devnull >= 0)
        dup2(devnull, STDERR_FILENO);
    auto result = fn();
    fflush(stderr);
    if (saved >= 0) {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    if (devnull >= 0)
        close(devnull);
    return result;
}

// The request file, parsed and checked against what the module, dnsmasq and dhcp.conf can hold.
// Prints the refusal or the warnings; nullopt means: nothing may be applied (exit 2).
std::optional<ParsedRequests> CheckedRequests(const Options &options, const std::string &path, bool strict,
                                              std::vector<Request> *current = nullptr)
{
    auto parsed = ReadRequestFile(path);
    if (!parsed)
        return std::nullopt;
    std::vector<std::string> problems;
    std::vector<Request> configured = Quietly(options, [&] { return CurrentConfiguration(problems); });
    const CheckReport report = CheckRequests(parsed->requests, configured, strict);
    for (const auto &warning : report.warnings)
        std::cerr << "kqagent: warning: " << path << ": " << warning << "\n";
    if (!report.Ok()) {
        for (const auto &error : report.errors)
            std::cerr << "kqagent: " << path << ": " << error << "\n";
        std::cerr << "kqagent: nothing applied\n";
        return std::nullopt;
    }
    if (current != nullptr) {
        for (const auto &problem : problems)
            std::cerr << "kqagent: note: " << KQ_AgentPathDhcpConf() << ": " << problem << "\n";
        *current = std::move(configured);
    }
    return parsed;
}

// The module's default DNS server for an interface: its first address, read as the module does.
DefaultDns HostDefaultDns()
{
    DefaultDns defaults;
    defaults.ipv4 = [](const std::string &ifname) -> std::optional<uint32_t> {
        uint32_t address = 0;
        uint8_t length = 0;
        if (KQ_RtcNetioInterfaceGetFirstIpv4(ifname.c_str(), &address, &length) < 0 || address == 0)
            return std::nullopt;
        return address;
    };
    defaults.ipv6 = [](const std::string &ifname) -> std::optional<std::vector<uint8_t>> {
        KQ_IN6_ADDR address{};
        uint8_t length = 0;
        if (KQ_RtcNetioInterfaceGetFirstIpv6(ifname.c_str(), &address, &length) < 0)
            return std::nullopt;
        return std::vector<uint8_t>(address.In6.U6Addr8, address.In6.U6Addr8 + 16);
    };
    return defaults;
}

void PrintPlan(const Options &options, const std::vector<Request> &current, const std::vector<Request> &requests)
{
    const auto lines = Quietly(options, [&] { return PlanLines(current, requests, HostDefaultDns()); });
    for (const auto &line : lines)
        std::cout << line << "\n";
}

// Fills this process's registry from dhcp.conf through the module's own readers, without
// starting or stopping anything, so that a new kqagent process sees what an agent that had
// kept running would hold. Two gaps of the start-up path are closed on purpose: the zone
// comes from the LAN table (as an add sets it) and the IPv6 mode from "dynamicMode".
int RestoreRegistry(const Options &options, size_t &restored)
{
    restored = 0;
    const std::string path = KQ_AgentPathDhcpConf();
    const auto text = ReadTextFile(path);
    if (!text)
        return 0;  // nothing persisted yet
    json_object *root = json_tokener_parse(text->c_str());
    std::unique_ptr<json_object, int (*)(json_object *)> guard(root, json_object_put);
    json_object *items = nullptr;
    if (root == nullptr || !json_object_object_get_ex(root, "dhcps", &items) ||
        !json_object_is_type(items, json_type_array)) {
        std::cerr << "kqagent: " << DescribeLoadFailure(path, BackupOf(path), -EINVAL).text << "; nothing applied\n";
        return -EINVAL;
    }
    for (size_t i = 0; i < json_object_array_length(items); ++i) {
        json_object *item = json_object_array_get_idx(items, i);
        KQ_CTRL_DYNAMIC_SERVICE_CONF conf{};
        const auto [serverResult, relayResult] = Quietly(options, [&] {
            return std::pair{KQCtrl_JsonToConfDynamicServer(item, &conf.DynamicServerConf),
                             KQCtrl_JsonToConfDynamicRelay(item, &conf.DynamicRelayConf)};
        });
        if (serverResult < 0 || relayResult < 0) {
            std::cerr << "kqagent: warning: " << path << ": dhcps[" << i << "] cannot be read back ("
                      << ErrnoName(serverResult < 0 ? serverResult : relayResult) << "); its "
                      << (serverResult < 0 ? "server and relay are" : "relay is") << " not restored\n";
            if (serverResult < 0)
                continue;
            conf.DynamicRelayConf = KQ_CTRL_DYNAMIC_RELAY_CONF{};
        }
        memcpy(conf.IfName, conf.DynamicServerConf.IfName, sizeof(conf.IfName));
        if (conf.IfName[0] == '\0') {
            std::cerr << "kqagent: warning: " << path << ": dhcps[" << i << "] names no interface; not restored\n";
            continue;
        }
        if (_KQCtrl_GetDynamicConfByName(conf.IfName) != nullptr)
            continue;
        KQ_CONF_LAN lan{};
        const uint32_t zone = KQ_RtcNetioLanGetByName(conf.IfName, &lan) == 0 ? lan.CommConf.VpnId : 0;
        conf.DynamicServerConf.SecurityZoneId = zone;
        if (conf.DynamicRelayConf.IfName[0] != '\0')
            conf.DynamicRelayConf.SecurityZoneId = zone;
        json_object *v6 = nullptr, *mode = nullptr;
        if (json_object_object_get_ex(item, "dhcpIpv6Server", &v6) && json_object_object_get_ex(v6, "dynamicMode", &mode) &&
            json_object_is_type(mode, json_type_int) && json_object_get_int(mode) >= 0 &&
            json_object_get_int(mode) < KQ_IPV6_ADDR_AUTOCONF_MAX)
            conf.DynamicServerConf.ServerIpv6Conf.DynamicMode =
                static_cast<KQ_IPV6_ADDR_AUTOCONF_TYPE>(json_object_get_int(mode));
        const KQ_ERR_T result = KQCtrl_InsertDynamicConfListNode(&conf);
        if (result < 0) {
            std::cerr << "kqagent: restoring " << conf.IfName << " failed: " << ErrnoName(result) << "\n";
            return result;
        }
        ++restored;
    }
    return 0;
}

// FILE plus the flags a command allows; false after printing the usage problem.
bool FileAndFlags(const std::vector<std::string> &args, const std::string &command,
                  const std::map<std::string, bool *> &flags, std::string &file, int &status)
{
    for (const auto &arg : args) {
        const auto it = flags.find(arg);
        if (it != flags.end()) {
            *it->second = true;
        } else if (!arg.empty() && arg[0] == '-') {
            status = Usage(command + ": unknown option " + arg, command);
            return false;
        } else if (file.empty()) {
            file = arg;
        } else {
            status = Usage(command + " takes one request file", command);
            return false;
        }
    }
    if (file.empty()) {
        status = Usage(command + " needs a request file", command);
        return false;
    }
    return true;
}

int CmdCheck(const Options &options, const std::vector<std::string> &args)
{
    std::string file;
    bool strict = false;
    int status = kExitUsage;
    if (!FileAndFlags(args, "check", {{"--strict", &strict}}, file, status))
        return status;
    const auto parsed = CheckedRequests(options, file, strict);
    if (!parsed)
        return kExitUsage;
    std::cout << file << ": " << parsed->requests.size() << " request(s), all valid\n";
    for (size_t i = 0; i < parsed->requests.size(); ++i)
        std::cout << "  [" << i << "] " << parsed->requests[i].Summary() << "\n";
    return kExitOk;
}

int CmdPlan(const Options &options, const std::vector<std::string> &args)
{
    std::string file;
    bool strict = false;
    int status = kExitUsage;
    if (!FileAndFlags(args, "plan", {{"--strict", &strict}}, file, status))
        return status;
    std::vector<Request> current;
    const auto parsed = CheckedRequests(options, file, strict, &current);
    if (!parsed)
        return kExitUsage;
    std::cout << file << ": " << parsed->requests.size() << " request(s), all valid; against "
              << current.size() << " configured interface(s), apply would:\n";
    PrintPlan(options, current, parsed->requests);
    return kExitOk;
}

int CmdApply(const Options &options, const std::vector<std::string> &args)
{
    std::string file;
    bool startupLoad = false, dryRun = false, strict = false;
    int status = kExitUsage;
    if (!FileAndFlags(args, "apply", {{"--load", &startupLoad}, {"--dry-run", &dryRun}, {"--strict", &strict}}, file,
                      status))
        return status;
    std::vector<Request> current;
    const auto parsed = CheckedRequests(options, file, strict, &current);
    if (!parsed)
        return kExitUsage;
    const auto &requests = parsed->requests;
    std::cout << file << ": " << requests.size() << " request(s), all valid\n";
    if (dryRun) {
        std::cout << "dry run: nothing is touched; against " << current.size()
                  << " configured interface(s), apply would:\n";
        PrintPlan(options, current, requests);
        return kExitOk;
    }

    const std::string confPath = KQ_AgentPathDhcpConf();
    if (access(confPath.c_str(), F_OK) == 0) {
        if (startupLoad) {
            std::cout << "loading " << confPath << " (restarts every restored dnsmasq)\n";
            const KQ_ERR_T result = KQCtrl_LoadDynamicServiceConf(confPath.c_str());
            if (result < 0) {
                const LoadOutcome outcome = DescribeLoadFailure(confPath, BackupOf(confPath), result);
                if (outcome.failed) {
                    std::cerr << "kqagent: " << outcome.text << "; nothing applied\n";
                    return kExitFailed;
                }
            }
        } else {
            size_t restored = 0;
            if (RestoreRegistry(options, restored) < 0)
                return kExitFailed;
            std::cout << "restored " << restored << " interface(s) from " << confPath << " (no process touched)\n";
        }
    }

    for (size_t i = 0; i < requests.size(); ++i) {
        const Request &request = requests[i];
        std::cout << "[" << i << "] " << request.Summary() << ": " << std::flush;
        const KQ_ERR_T result = request.Op() == RequestOp::Add ? KQCtrl_ConfigDynamicAdd(&request.Item())
                                                              : KQCtrl_ConfigDynamicDel(&request.Item());
        if (result < 0) {
            std::cout << "refused\n";
            const std::string ifname = request.Item().ifname;
            std::cerr << "kqagent: request " << i << ": " << DescribeRefusal(request.Op(), ifname, result) << "\n";
            if (request.Op() == RequestOp::Add) {
                const std::string removed = RemoveLeftoverServerFile(ifname);
                if (!removed.empty())
                    std::cerr << "kqagent: removed " << removed << ", left behind by the failed start (" << ifname
                              << " is not configured)\n";
            }
            std::cerr << "kqagent: request " << i << ": " << request.Json() << "\n";
            if (i + 1 < requests.size())
                std::cerr << "kqagent: stopped; request(s) " << i + 1 << ".." << requests.size() - 1 << " not applied\n";
            return kExitFailed;
        }
        std::cout << "ok\n";
    }
    return kExitOk;
}

int CmdLoad(const Options &options, const std::vector<std::string> &args)
{
    if (args.size() > 1)
        return Usage("load takes at most one path", "load");
    const std::string path = args.empty() ? KQ_AgentPathDhcpConf() : args[0];
    // The readers report at warning level every optional key an item lacks ("Not found vaild
    // mode from Json object", "dynamic relay is invaild"): trace, for an operator.
    if (!options.verbose)
        KQ_HostSetLogLevel(4);
    const KQ_ERR_T result = KQCtrl_LoadDynamicServiceConf(path.c_str());
    if (result < 0) {
        const LoadOutcome outcome = DescribeLoadFailure(path, BackupOf(path), result);
        if (!outcome.failed) {
            std::cout << outcome.text << "\n";
            return kExitOk;
        }
        std::cerr << "kqagent: " << outcome.text << "\n";
        return kExitFailed;
    }
    std::cout << "loaded " << path << "\n";
    return kExitOk;
}

// The zone of an interface: --zone when given, else its LAN's, else 0.
std::optional<uint32_t> ZoneOf(const std::string &ifname, const std::optional<std::string> &given)
{
    if (given)
        return ParseZone(*given);
    KQ_CONF_LAN lan{};
    return KQ_RtcNetioLanGetByName(ifname.c_str(), &lan) == 0 ? lan.CommConf.VpnId : 0;
}

// Runs fn with the calling thread inside the zone's namespace (zone 0: where we are).
template <class Fn>
KQ_ERR_T InZone(uint32_t zone, Fn fn)
{
    int saved = -1;
    if (zone != 0) {
        const KQ_ERR_T result = KQ_RtcNetNsSaveAndSwitch(zone, &saved);
        if (result < 0) {
            std::cerr << "kqagent: cannot enter the namespace of zone " << zone << ": " << ErrnoName(result) << "\n";
            KQ_RtcNetNsSwitchToDefault(&saved);
            return result;
        }
    }
    const KQ_ERR_T result = fn();
    KQ_RtcNetNsSwitchToDefault(&saved);
    return result;
}

int CmdClient(const std::vector<std::string> &args)
{
    std::vector<std::string> positional;
    std::optional<std::string> zoneText, type;
    bool rs = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--zone" || args[i] == "--type") {
            if (i + 1 >= args.size())
                return Usage("client: " + args[i] + " needs a value", "client");
            (args[i] == "--zone" ? zoneText : type) = args[++i];
        } else if (args[i] == "--rs") {
            rs = true;
        } else if (!args[i].empty() && args[i][0] == '-') {
            return Usage("client: unknown option " + args[i], "client");
        } else {
            positional.push_back(args[i]);
        }
    }
    if (positional.size() != 3)
        return Usage("client needs: enable|disable ipv4|ipv6 IFNAME", "client");
    const std::string &action = positional[0], &family = positional[1], &ifname = positional[2];
    if (action != "enable" && action != "disable")
        return Usage("client: \"" + action + "\" is neither enable nor disable", "client");
    if (family != "ipv4" && family != "ipv6")
        return Usage("client: \"" + family + "\" is neither ipv4 nor ipv6", "client");
    if (!IsUsableIfName(ifname))
        return Usage("client: \"" + ifname + "\" is not a usable interface name", "client");
    const auto zone = ZoneOf(ifname, zoneText);
    if (!zone)
        return Usage("client: --zone needs a number from 0 to 4294967295", "client");
    const bool v6 = family == "ipv6", enable = action == "enable";
    if ((type || rs) && !(v6 && enable))
        return Usage("client: --type and --rs go with 'enable ipv6' only", "client");

    KQ_ERR_T result = 0;
    if (v6 && enable) {
        static const std::map<std::string, KQ_IPV6_ADDR_AUTOCONF_TYPE> types = {
            {"stateful", KQ_IPV6_ADDR_AUTOCONF_DHCP},
            {"stateless", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP},
            {"slaac", KQ_IPV6_ADDR_AUTOCONF_SLAAC}};
        const auto it = types.find(type.value_or("stateful"));
        if (it == types.end())
            return Usage("client: --type is slaac, stateless or stateful", "client");
        KQCtrl_DynamicClientSetIpv6AutoConfType(it->second);
        // The solicitation leaves from the zone's namespace, where the interface lives.
        result = rs ? InZone(*zone, [&] { return KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(ifname.c_str(), *zone); })
                    : KQCtrl_DynamicClientEnableIpv6(ifname.c_str(), *zone);
    } else if (v6) {
        result = KQCtrl_DynamicClientDisableIpv6(ifname.c_str(), *zone);
    } else {
        result = enable ? KQCtrl_DynamicClientEnableIpv4(ifname.c_str(), *zone)
                        : KQCtrl_DynamicClientDisableIpv4(ifname.c_str(), *zone);
    }
    if (v6) {
        json_object *rules = PolicyRulesJson();
        std::cout << RenderPolicyRules(rules);
        json_object_put(rules);
    }
    if (result < 0) {
        std::cerr << "kqagent: client " << action << " " << family << " " << ifname << " failed: " << ErrnoName(result)
                  << " " << strerror(-result) << "\n";
        return kExitFailed;
    }
    std::cout << "client " << action << " " << family << " " << ifname << " (zone " << *zone << "): ok\n";
    return kExitOk;
}

int CmdRs(const std::vector<std::string> &args)
{
    std::optional<std::string> zoneText;
    std::string ifname;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--zone") {
            if (i + 1 >= args.size())
                return Usage("rs: --zone needs a value", "rs");
            zoneText = args[++i];
        } else if (!args[i].empty() && args[i][0] == '-') {
            return Usage("rs: unknown option " + args[i], "rs");
        } else if (ifname.empty()) {
            ifname = args[i];
        } else {
            return Usage("rs takes one interface", "rs");
        }
    }
    if (!IsUsableIfName(ifname))
        return Usage(ifname.empty() ? "rs needs an interface" : "rs: \"" + ifname + "\" is not a usable interface name", "rs");
    const auto zone = ZoneOf(ifname, zoneText);
    if (!zone)
        return Usage("rs: --zone needs a number from 0 to 4294967295", "rs");
    const KQ_ERR_T result = InZone(*zone, [&] { return KQCtrl_SendOneRsPkt(ifname.c_str()); });
    if (result < 0) {
        std::cerr << "kqagent: router solicitation on " << ifname << " failed: " << ErrnoName(result) << " "
                  << strerror(-result) << "\n";
        return kExitFailed;
    }
    std::cout << "router solicitation sent on " << ifname << " (zone " << *zone << ")\n";
    return kExitOk;
}

int CmdStatus(const std::vector<std::string> &args)
{
    bool json = false;
    std::vector<std::string> only;
    for (const auto &arg : args) {
        if (arg == "--json")
            json = true;
        else if (!arg.empty() && arg[0] == '-')
            return Usage("status: unknown option " + arg, "status");
        else
            only.push_back(arg);
    }
    json_object *status = CollectStatus(only);
    if (json)
        std::cout << json_object_to_json_string_ext(status, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE) << "\n";
    else
        std::cout << RenderStatus(status);
    json_object_put(status);
    return kExitOk;
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    size_t next = 0;
    for (; next < args.size(); ++next) {
        const std::string &arg = args[next];
        if (arg == "--config") {
            if (next + 1 >= args.size())
                return Usage("--config needs a file");
            if (access(args[next + 1].c_str(), R_OK) != 0)
                return Usage("--config: cannot read " + args[next + 1]);
            setenv("KQ_HOST_CONFIG", args[++next].c_str(), 1);
            KQ_HostReloadConfig();
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "-h" || arg == "--help") {
            return Help("");
        } else if (arg == "--version") {
            std::cout << "kqagent " << KQ_VERSION << "\n";
            return kExitOk;
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage("unknown option " + arg);
        } else {
            break;
        }
    }
    if (next >= args.size()) {
        std::cerr << kUsage;
        return kExitUsage;
    }
    // Operators see the module's warnings and errors; its traces and notices with -v.
    KQ_HostSetLogLevel(options.verbose ? 1 : options.quiet ? 4 : 3);

    const std::string command = args[next];
    const std::vector<std::string> rest(args.begin() + static_cast<long>(next) + 1, args.end());
    if (command == "help")
        return Help(rest.empty() ? "" : rest[0]);
    if (kCommandHelp.count(command) != 0 && WantsHelp(rest))
        return Help(command);
    if (command == "apply")
        return CmdApply(options, rest);
    if (command == "check")
        return CmdCheck(options, rest);
    if (command == "plan")
        return CmdPlan(options, rest);
    if (command == "load")
        return CmdLoad(options, rest);
    if (command == "client")
        return CmdClient(rest);
    if (command == "rs")
        return CmdRs(rest);
    if (command == "status")
        return CmdStatus(rest);
    return Usage("no such command: " + command);
}
