// kqagent: the host agent around the dynamic module. `kqagent serve` is the long-running
// agent that owns the module; every other command reaches it through its control socket,
// or, when no agent runs, executes in this process under the agent's lock.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kqAgentCommands.h"
#include "kqAgentCommon.h"
#include "kqAgentControl.h"
#include "kqHostLinux.h"

#ifndef KQ_VERSION
#define KQ_VERSION "unknown"
#endif

namespace {

using namespace kqagent;

const char *kUsage =
    "usage: kqagent [--config FILE] [-v|-q] COMMAND [ARGS]\n"
    "       kqagent --version\n"
    "\n"
    "Configure the DHCP servers, relay and clients of this appliance through the dynamic module.\n"
    "\n"
    "commands:\n"
    "  serve                   run as the host agent: restore everything, then take commands (see 'help serve')\n"
    "  apply FILE [--dry-run]  check a request file, then add/delete each interface's DHCP setup in order\n"
    "  check FILE [--strict]   only check a request file (nothing is applied)\n"
    "  plan FILE               what apply would do per interface: new, unchanged, restart, stop (nothing is touched)\n"
    "  load [PATH]             restore every server and the relay, and report what runs\n"
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
    "Every command but serve and help goes through the running agent when there is one; otherwise it\n"
    "runs in this process under the agent's lock, with the registry rebuilt from the desired state.\n"
    "\n"
    "exit status: 0 done, 1 refused by the module or the system, or a service not running,\n"
    "             2 bad command line or request file\n";

const std::map<std::string, std::string> kCommandHelp = {
    {"serve",
     "usage: kqagent serve\n"
     "\n"
     "The long-running host agent, the one process that calls the module. At start it runs the module's\n"
     "start-up load of dhcp.conf, then sends every interface of the desired state again, so that zones,\n"
     "IPv6 modes and relay-only interfaces are whole after every restart; it reports per interface\n"
     "whether its dnsmasq runs. Then it takes kqagent commands on its control socket (\"controlSocket\",\n"
     "default /run/kqagent/kqagent.sock; root only), one at a time.\n"
     "  SIGHUP            re-read the desired state and apply the difference\n"
     "  SIGTERM, SIGINT   end the agent; every dnsmasq and dhclient keeps running\n"
     "Readiness is reported to systemd (Type=notify); see tools/kqagent/kqagent.service.\n"},
    {"apply",
     "usage: kqagent apply FILE [--dry-run] [--strict]\n"
     "\n"
     "Checks the whole request file first, as check does; a refusal names the request index, the field\n"
     "path and the reason, and nothing is applied. Then each request is handed to the module in file\n"
     "order; the first refusal stops the run. Each accepted request is recorded in the desired state\n"
     "(\"desiredState\", default desired.json beside dhcp.conf), which every start of the agent sends to\n"
     "the module again. Exits 1 when an added interface's dnsmasq does not run afterwards.\n"
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
     "against the desired state: new server, server unchanged, server restart (with the fields that\n"
     "differ), server stop, new/changed/removed relay, and when the shared relay is rebuilt.\n"
     "Nothing is started, stopped or written.\n"},
    {"load",
     "usage: kqagent load [PATH]\n"
     "\n"
     "Without a running agent: what an agent does at start, on PATH (default: the host's dhcp.conf): the\n"
     "module's start-up load, then every interface of the desired state sent again. Through a running\n"
     "agent: every server and the shared relay whose dnsmasq does not run is restarted from the agent's\n"
     "own records (PATH is refused). Either way each interface's dnsmasq is checked through its pid file\n"
     "and /proc, and the exit status is 1 when one does not run.\n"},
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
     "The policy rule table lives in the agent's memory; it is printed after an ipv6 command.\n"},
    {"rs",
     "usage: kqagent rs IFNAME [--zone N]\n"
     "\n"
     "Sends one ICMPv6 router solicitation out of IFNAME, inside the zone's network namespace.\n"},
    {"status",
     "usage: kqagent status [--json] [IFNAME...]\n"
     "\n"
     "Per interface: its desired configuration and any DRIFT from it (a dnsmasq that does not run, runs\n"
     "outside its zone's namespace or serves another IPv6 mode; an interface missing from dhcp.conf or\n"
     "from the shared relay), the server and relay settings of dhcp.conf, the zone from the LAN table,\n"
     "whether its dnsmasq and dhclient run (pid files confirmed through /proc/<pid>/cmdline) and its\n"
     "leases; then the shared relay and the policy rule table of the agent (or of this process).\n"
     "  --json   print the same as one JSON document\n"},
};

struct Options {
    bool verbose = false;
    bool quiet = false;
};

int Help(const std::string &command)
{
    if (command.empty()) {
        std::cout << kUsage;
        return kExitOk;
    }
    const auto it = kCommandHelp.find(command);
    if (it == kCommandHelp.end())
        return Usage(std::cerr, "no such command: " + command);
    std::cout << it->second;
    return kExitOk;
}

bool WantsHelp(const std::vector<std::string> &args)
{
    for (const auto &arg : args)
        if (arg == "-h" || arg == "--help")
            return true;
    return false;
}

int Print(const CommandResult &result)
{
    std::cout << result.out << std::flush;
    std::cerr << result.err << std::flush;
    return result.exit;
}

// Through the running agent, else here under the agent's lock, so that two kqagent
// processes never call the module at the same time.
int Run(Command command)
{
    const std::string file = CommandFileArgument(command.argv);
    if (!file.empty()) {
        errno = 0;
        const auto text = ReadTextFile(file);
        if (!text) {
            std::cerr << "kqagent: cannot read " << file << ": " << strerror(errno ? errno : EIO) << "\n";
            return kExitUsage;
        }
        command.fileText = *text;
    }
    const std::string socketPath = KQ_HostControlSocketPath();
    AgentLock lock(socketPath);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
        CommandResult answer;
        std::string problem;
        const AskOutcome asked = AskAgent(socketPath, command, answer, problem);
        if (asked == AskOutcome::Answered)
            return Print(answer);
        if (asked == AskOutcome::Failed) {
            std::cerr << "kqagent: " << problem << "\n";
            return kExitFailed;
        }
        const int taken = lock.TryLock();
        if (taken < 0) {
            std::cerr << "kqagent: " << lock.Path() << ": " << strerror(-taken) << "\n";
            return kExitFailed;
        }
        if (taken == 1)
            break;
        // Another kqagent command, or an agent that is starting and will listen soon.
        if (std::chrono::steady_clock::now() > deadline) {
            std::cerr << "kqagent: " << lock.Path() << " is held by another kqagent process; nothing done\n";
            return kExitFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Agent agent(false);
    // A change records what runs for the next start: it needs the registry the agent would have.
    const bool changes = !command.argv.empty() && (command.argv[0] == "apply" || command.argv[0] == "client");
    if (changes && agent.RebuildRegistry(std::cerr) != kExitOk) {
        std::cerr << "kqagent: nothing applied\n";
        return kExitFailed;
    }
    return Print(agent.Execute(command));
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
                return Usage(std::cerr, "--config needs a file");
            if (access(args[next + 1].c_str(), R_OK) != 0)
                return Usage(std::cerr, "--config: cannot read " + args[next + 1]);
            setenv("KQ_HOST_CONFIG", args[++next].c_str(), 1);
            KQ_HostReloadConfig();
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "--version") {
            std::cout << "kqagent " << KQ_VERSION << "\n";
            return kExitOk;
        } else if (arg == "-h" || arg == "--help") {
            return Help("");
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage(std::cerr, "unknown option " + arg);
        } else {
            break;
        }
    }
    if (next >= args.size()) {
        std::cerr << kUsage;
        return kExitUsage;
    }
    // Operators see the module's warnings and errors; its traces and notices with -v.
    const int logLevel = options.verbose ? 1 : options.quiet ? 4 : 3;
    KQ_HostSetLogLevel(static_cast<uint32_t>(logLevel));

    const std::string command = args[next];
    const std::vector<std::string> rest(args.begin() + static_cast<long>(next) + 1, args.end());
    if (command == "help")
        return Help(rest.empty() ? "" : rest[0]);
    if (kCommandHelp.count(command) != 0 && WantsHelp(rest))
        return Help(command);
    if (command == "serve") {
        if (!rest.empty())
            return Usage(std::cerr, "serve takes no arguments", "serve");
        return Serve();
    }
    if (kCommandHelp.count(command) == 0)
        return Usage(std::cerr, "no such command: " + command);
    Command run;
    run.argv.push_back(command);
    run.argv.insert(run.argv.end(), rest.begin(), rest.end());
    run.logLevel = logLevel;
    return Run(std::move(run));
}
