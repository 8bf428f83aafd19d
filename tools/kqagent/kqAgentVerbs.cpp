#include "kqAgentVerbs.h"

namespace kqagent {

namespace {

// Fields: name, synopsis, summary, help; options; positional arguments (least, most), the
// problems when there are fewer or more; traits; the function that runs the verb.
const Verb kVerbs[] = {
    {"serve", "serve",
     "run as the host agent: restore everything, then take commands (see 'help serve')",
     "usage: kqagent serve\n"
     "\n"
     "The long-running host agent, the one process that calls the module. At start it rebuilds the\n"
     "module's registry from the desired state, keeps every dnsmasq and dhclient that runs as configured\n"
     "and starts the others (without a desired state: the module's start-up load of dhcp.conf, when there\n"
     "is one). Then it takes kqagent commands on its control socket (\"controlSocket\", default\n"
     "/run/kqagent/kqagent.sock; root only), one at a time, and supervises every service: one that dies\n"
     "is started again after 0.5, 1, 2 and 4 s, and given up at its fifth death in a row ('kqagent load'\n"
     "starts it again). Each restart and give-up is one line on its stderr and shows in status.\n"
     "  SIGHUP            re-read the desired state and apply the difference\n"
     "  SIGTERM, SIGINT   end the agent; every dnsmasq and dhclient keeps running\n"
     "Readiness is reported to systemd (Type=notify): systemctl start kqagent (kqagent.service). When its\n"
     "stderr is the journal, every line carries its syslog priority (journalctl -p err shows the errors).\n"
     "See kqagent(8) and, for the settings, kqagent.conf(5).\n",
     {}, 0, 0, nullptr, "serve takes no arguments", kVerbLocal, RunServe},
    {"apply", "apply FILE [--dry-run] [--replace]",
     "check a request file, then add/delete each interface's DHCP setup in order",
     "usage: kqagent apply FILE [--dry-run] [--replace] [--strict]\n"
     "\n"
     "Checks each request on its own first (the form of each field, pools in one subnet and apart, names\n"
     "dnsmasq misreads); a refusal names the request index, the field path and the reason, and nothing is\n"
     "applied. Then each request is handed to the module in file order; the first refusal stops the run,\n"
     "and whatever the refused request started is stopped again. Run plan first to see every refusal the\n"
     "module would make before anything changes. Each accepted request is recorded in the desired state\n"
     "(\"desiredState\", default desired.json beside dhcp.conf), which every start of the agent sends to\n"
     "the module again. Exits 1 when an added interface's dnsmasq does not run afterwards.\n"
     "  --dry-run   print the plan (see 'kqagent help plan') and stop; nothing is touched\n"
     "  --replace   the file is the whole configuration: every configured interface it does not add is\n"
     "              deleted afterwards. Needed when the desired state was lost while dhcp.conf still\n"
     "              holds interfaces, or dhcp.conf is unreadable while its backup is the only good copy:\n"
     "              the agent then refuses any other apply, which would record only some interfaces\n"
     "  --strict    with --dry-run, treat the plan's warnings as errors\n"
     "\n"
     "File format: {\"requests\":[{\"op\":\"add\"|\"delete\",\"item\":{DhcpItemV2 fields}}, ...]}; see REQUEST FILES\n"
     "in kqagent(8).\n",
     {{"--dry-run", false}, {"--replace", false}, {"--strict", false}}, 1, 1, "apply needs a request file",
     "apply takes one request file", kVerbReadsFile | kVerbChanges, RunApply},
    {"check", "check FILE [--strict]",
     "check a request file against the module and this machine (any user; nothing is touched)",
     "usage: kqagent check FILE [--strict]\n"
     "\n"
     "Checks a request file and applies nothing; any user may run it, and it needs no agent. Besides the\n"
     "form of each request (an add must name ipv4dhcpitem or ipv6dhcpitem; pools must not overlap and\n"
     "must lie in one subnet, the gateway's when there is one; the JSON must be strict, no key given\n"
     "twice; no name dnsmasq reads as an address), the requests run through the module itself in a dry\n"
     "run, as if nothing were configured: a request the module refuses is an error, and so is a dnsmasq\n"
     "line longer than dnsmasq reads or a dhcp.conf larger than its loader reads. Then it looks at this\n"
     "machine: an interface that does not exist, is down, or holds no address in its pools' subnet or\n"
     "IPv6 prefix is a warning naming its addresses (other zones' namespaces need root to be looked at).\n"
     "Exit 0: valid; 2: refused.\n"
     "  --strict   treat the warnings as errors\n",
     {{"--strict", false}}, 1, 1, "check needs a request file", "check takes one request file",
     kVerbReadsFile | kVerbLocal, RunCheck},
    {"plan", "plan FILE",
     "what apply would do per interface: new, unchanged, restart, stop (nothing is touched)",
     "usage: kqagent plan FILE [--strict]    (kqagent -v plan FILE: with each dnsmasq file)\n"
     "\n"
     "Checks the request file as check does, then runs it through the module in a dry run against what\n"
     "is configured now (the module decides; nothing is started, stopped or written), and prints per\n"
     "request what the module did there: new server, server unchanged, server restart (with the settings\n"
     "that differ), server stop, new/changed/removed relay, when the shared relay is rebuilt, and the\n"
     "refusal where the module refuses (an apply stops there). With -v, the text of every dnsmasq file\n"
     "the module would write. Exit 0: apply would succeed; 2: a request would be refused.\n",
     {{"--strict", false}}, 1, 1, "plan needs a request file", "plan takes one request file",
     kVerbReadsFile | kVerbReadsRegistry, RunPlan},
    {"load", "load [PATH]",
     "start every service that does not run, and report what runs",
     "usage: kqagent load [PATH]\n"
     "\n"
     "Through a running agent: every service that does not run (each LAN's dnsmasq, the shared relay,\n"
     "each enabled dhclient) is started from the agent's own records, also one its supervision gave up\n"
     "(PATH is refused). Without an agent: what an agent does at start; with PATH, the module's start-up\n"
     "load of that dhcp.conf (its backup, say), then every interface of the desired state sent again.\n"
     "Either way each interface's dnsmasq is checked through its pid file and /proc, and the exit status\n"
     "is 1 when one does not run.\n",
     {}, 0, 1, nullptr, "load takes at most one path", 0, RunLoad},
    {"client", "client enable|disable ipv4|ipv6 IFNAME [--zone N] [--type slaac|stateless|stateful] [--rs]",
     "start or stop dhclient on an interface",
     "usage: kqagent client enable|disable ipv4|ipv6 IFNAME [--zone N] [--type T] [--rs]\n"
     "\n"
     "enable stops any dhclient of the interface and starts a fresh one in the zone's namespace;\n"
     "disable stops it. For ipv6 the module also adds the DHCPv6 policy rule (enable) or removes it\n"
     "when no interface counts as a DHCPv6 client any more (disable). An enabled client is kept in\n"
     "the desired state: every start of the agent starts it again, and the agent restarts it when it\n"
     "dies; a disabled one is never restarted.\n"
     "  --zone N   security zone (VPN id) of the interface (default: its LAN's zone, else 0)\n"
     "  --type T   ipv6 enable only: stateful (dhclient -6, the default), stateless (dhclient -6 -S)\n"
     "             or slaac (no dhclient; only the policy rule)\n"
     "  --rs       ipv6 enable only: send one router solicitation first\n"
     "The policy rule table is kept beside the control socket; it is printed after an ipv6 command.\n",
     {{"--zone", true}, {"--type", true}, {"--rs", false}}, 3, 3, "client needs: enable|disable ipv4|ipv6 IFNAME",
     "client needs: enable|disable ipv4|ipv6 IFNAME", kVerbChanges, RunClient},
    {"rs", "rs IFNAME [--zone N]",
     "send one router solicitation",
     "usage: kqagent rs IFNAME [--zone N]\n"
     "\n"
     "Sends one ICMPv6 router solicitation out of IFNAME, inside the zone's network namespace.\n",
     {{"--zone", true}}, 1, 1, "rs needs an interface", "rs takes one interface", 0, RunRs},
    {"status", "status [--json] [IFNAME...]",
     "configuration, processes, leases and policy rules",
     "usage: kqagent status [--json] [IFNAME...]\n"
     "\n"
     "Per interface: its desired configuration and any DRIFT from it (a dnsmasq that does not run, runs\n"
     "outside its zone's namespace or serves another IPv6 mode; an interface missing from dhcp.conf or\n"
     "from the shared relay), then whether a client can be served at all, each cause with what a client\n"
     "sees: the interface exists in its zone's namespace and is up, holds an IPv4 address whose subnet\n"
     "holds its pools and an IPv6 address in its DHCPv6 range's or SLAAC prefix, its dnsmasq holds its\n"
     "DHCPv4, DHCPv6 and ICMPv6 (router advertisement) sockets, a relay interface holds its LAN address.\n"
     "\"runs as desired\" only when all of it holds. Then the server and relay settings of dhcp.conf, the\n"
     "zone from the LAN table, whether its dnsmasq and dhclient run (pid files confirmed through\n"
     "/proc/<pid>/cmdline) and its leases; then the shared relay and the policy rule table of the agent\n"
     "(or of this process).\n"
     "  --json   print the same as one JSON document (per interface \"causes\": [{code, text}])\n"
     "\n"
     "exit status: 0 everything shown runs as desired; 3 something drifts (or the desired state cannot\n"
     "             be read); 1 the agent cannot be asked or the command fails; 2 bad command line\n",
     {{"--json", false}}, 0, kAnyCount, nullptr, nullptr, 0, RunStatus},
    {"help", "help [COMMAND]", "this text, or a command's own",
     "usage: kqagent help [COMMAND]\n"
     "\n"
     "Without COMMAND: the commands, the options and the exit status. With COMMAND: what it does, its\n"
     "options and arguments (the same as kqagent COMMAND --help). The manual pages say the rest:\n"
     "kqagent(8) for the commands, request files, desired state, control socket, signals and files;\n"
     "kqagent.conf(5) for the settings file.\n",
     {}, 0, kAnyCount, nullptr, nullptr, kVerbLocal, RunHelp},
};

const char *kUsageHead =
    "usage: kqagent [--config FILE] [-v|-q] COMMAND [ARGS]\n"
    "       kqagent --version\n"
    "\n"
    "Configure the DHCP servers, relay and clients of this appliance through the dynamic module.\n"
    "\n"
    "commands:\n";

const char *kUsageTail =
    "\n"
    "options:\n"
    "  --config FILE   host settings file (default: $KQ_HOST_CONFIG; without one, built-in defaults)\n"
    "  -v, --verbose   also show the module's trace and notice lines (default: its warnings and errors)\n"
    "  -q, --quiet     show only the module's error lines\n"
    "  --version       print kqagent's version\n"
    "\n"
    "Every command but serve and help goes through the running agent when there is one; otherwise it\n"
    "runs in this process under the agent's lock, with the registry rebuilt from the desired state.\n"
    "\n"
    "exit status: 0 done, 1 refused by the module or the system, or a service not running,\n"
    "             2 bad command line or request file, 3 status: something does not run as desired\n"
    "\n"
    "See kqagent(8), and kqagent.conf(5) for the settings file.\n";

// The usage's command list: summaries start in this column, under a synopsis too long for it.
constexpr size_t kSummaryColumn = 26;

const VerbOption *FindOption(const Verb &verb, const std::string &name)
{
    for (const auto &option : verb.options)
        if (name == option.name)
            return &option;
    return nullptr;
}

}  // namespace

int Usage(std::ostream &err, const std::string &problem, const std::string &command)
{
    err << "kqagent: " << problem << "\n";
    err << "try 'kqagent help" << (command.empty() ? "" : " " + command) << "'\n";
    return kExitUsage;
}

std::optional<std::string> Invocation::Value(const std::string &option) const
{
    const auto it = values.find(option);
    return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
}

const Verb *FindVerb(const std::string &name)
{
    for (const Verb &verb : kVerbs)
        if (name == verb.name)
            return &verb;
    return nullptr;
}

int ParseInvocation(const std::vector<std::string> &argv, Invocation &invocation, std::ostream &err)
{
    if (argv.empty())
        return Usage(err, "no command");
    invocation = Invocation{FindVerb(argv[0])};
    if (invocation.verb == nullptr)
        return Usage(err, "no such command: " + argv[0]);
    const Verb &verb = *invocation.verb;
    const std::string name = verb.name, helpName = verb.help != nullptr ? name : "";
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string &arg = argv[i];
        const VerbOption *option = FindOption(verb, arg);
        // A verb without options takes every argument as it is (load's PATH may start with '-').
        if (option == nullptr && !verb.options.empty() && !arg.empty() && arg[0] == '-')
            return Usage(err, name + ": unknown option " + arg, helpName);
        if (option == nullptr)
            invocation.args.push_back(arg);
        else if (!option->takesValue)
            invocation.flags.insert(arg);
        else if (i + 1 < argv.size())
            invocation.values[arg] = argv[++i];
        else
            return Usage(err, name + ": " + arg + " needs a value", helpName);
    }
    const size_t count = invocation.args.size();
    if (count < verb.minArgs)
        return Usage(err, verb.tooFew, helpName);
    if (count > verb.maxArgs)
        return Usage(err, verb.tooMany, helpName);
    return kExitOk;
}

std::string UsageText()
{
    std::string text = kUsageHead;
    for (const Verb &verb : kVerbs) {
        std::string line = std::string("  ") + verb.synopsis;
        line += line.size() + 2 <= kSummaryColumn ? std::string(kSummaryColumn - line.size(), ' ')
                                                  : "\n" + std::string(kSummaryColumn, ' ');
        text += line + verb.summary + "\n";
    }
    return text + kUsageTail;
}

int RunHelp(const VerbCall &call)
{
    const auto &args = call.invocation.args;
    if (args.empty()) {
        call.out << UsageText();
        return kExitOk;
    }
    const Verb *verb = FindVerb(args[0]);
    if (verb == nullptr || verb->help == nullptr)
        return Usage(call.err, "no such command: " + args[0]);
    call.out << verb->help;
    return kExitOk;
}

}  // namespace kqagent
