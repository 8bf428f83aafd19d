#include "kqAgentCommands.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <optional>
#include <sstream>

#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
#include "kqAgentDryRun.h"
#include "kqAgentMessages.h"
#include "kqAgentPlan.h"
#include "kqAgentProcess.h"
#include "kqAgentRender.h"
#include "kqAgentStatus.h"
#include "kqCtrlDynamic.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

std::string Failure(int result) { return ErrnoName(result) + " " + strerror(-result); }

// The zone of an interface: --zone when given, else its LAN's, else 0.
std::optional<uint32_t> ZoneOf(const std::string &ifname, const std::optional<std::string> &given)
{
    if (given)
        return ParseZone(*given);
    KQ_CONF_LAN lan{};
    return KQ_RtcNetioLanGetByName(ifname.c_str(), &lan) == 0 ? lan.CommConf.VpnId : 0;
}

std::optional<ParsedRequests> ParseRequestText(const std::string &path, const std::string &text, std::ostream &err)
{
    ParsedRequests parsed = ParseRequests(text);
    if (!parsed.Ok()) {
        err << "kqagent: " << path << ": " << parsed.error << "\n";
        err << "kqagent: nothing applied\n";
        return std::nullopt;
    }
    for (const auto &note : parsed.notes)
        err << "kqagent: note: " << path << ": " << note << "\n";
    return parsed;
}

template <class Fn>
void ForEachNode(Fn fn)
{
    KQ_DYNAMIC_FOR_EACH_CONF(conf)
        fn(*conf);
}

bool RelayActive(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) { return (conf.DynamicRelayConf.NetAddrType & KQ_NET_ADDR_IPV4) != 0; }

const char *kRelayPidFile = KQ_DYNAMIC_RELAY_PID_PATH;

// The agent's record of what it runs, beside the desired state.
std::string ServicesPath()
{
    const std::string desired = KQ_HostDesiredStatePath();
    const size_t slash = desired.rfind('/');
    return (slash == std::string::npos ? std::string() : desired.substr(0, slash + 1)) + "services.json";
}

}  // namespace

Agent::Agent(bool daemon) : daemon_(daemon), desired_(KQ_HostDesiredStatePath()), services_(ServicesPath())
{
    // The policy rules of the DHCPv6 clients outlive the agent, as a data path's table
    // would: beside the control socket, under /run, so that a reboot clears them.
    const std::string socket = KQ_HostControlSocketPath();
    const std::string rules = socket.substr(0, socket.rfind('/') + 1) + "policy-rules";
    if (const KQ_ERR_T result = KQ_HostRuleKeepIn(rules.c_str()); result < 0)
        std::cerr << "kqagent: " << rules << ": " << ErrnoName(result) << "; the policy rules start empty" << std::endl;
    // A command on its own leaves the document whole and current; the agent keeps a journal.
    desired_.KeepJournal(daemon);
}

void Agent::FoldDesired(std::ostream &err)
{
    if (const int folded = desired_.Fold(); folded < 0)
        err << "kqagent: warning: " << desired_.Path() << " could not be rewritten (" << ErrnoName(folded) << "); "
            << desired_.JournalPath() << " keeps the changes since\n";
}

int Agent::ReportRunning(std::ostream &out, std::ostream &err)
{
    int status = kExitOk;
    bool relayWanted = false;
    ForEachNode([&](KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) {
        const std::string ifname = conf.IfName;
        if (RelayActive(conf)) {
            relayWanted = true;
            out << ifname << ": relay interface (lan ip " << FormatIpv4(conf.DynamicRelayConf.RelayConf.LanIp) << ")\n";
        }
        if (conf.DynamicServerConf.NetAddrType == 0)
            return;
        const long pid = RunningDnsmasq(ServerPidFile(ifname));
        if (pid > 0) {
            out << ifname << ": dnsmasq running, pid " << pid << " (zone " << conf.DynamicServerConf.SecurityZoneId << ")\n";
        } else {
            err << "kqagent: " << ifname << ": dnsmasq is not running (zone " << conf.DynamicServerConf.SecurityZoneId
                << "; see its log in /var/log/morvaxel.log)\n";
            status = kExitFailed;
        }
    });
    if (relayWanted) {
        const long pid = RunningDnsmasq(kRelayPidFile);
        if (pid > 0) {
            out << "relay: dnsmasq running, pid " << pid << "\n";
        } else {
            err << "kqagent: relay: dnsmasq is not running\n";
            status = kExitFailed;
        }
    }
    return status;
}

int Agent::Reload(std::ostream &out, std::ostream &err)
{
    DesiredState fresh(KQ_HostDesiredStatePath());
    fresh.KeepJournal(daemon_);
    if (!fresh.Load()) {
        err << "kqagent: reload: desired state " << fresh.Problem() << "; nothing changed\n";
        desired_ = std::move(fresh);  // never written while it stays unreadable
        return kExitFailed;
    }
    int status = kExitOk;
    for (const auto &entry : fresh.Entries()) {
        if (!entry.request) {
            err << "kqagent: reload: could not reconcile " << (entry.ifname.empty() ? "an entry" : entry.ifname) << " ("
                << entry.problem << ")\n";
            status = kExitFailed;
            continue;
        }
        const DesiredEntry *before = desired_.Find(entry.ifname);
        if (before != nullptr && before->itemJson == entry.itemJson)
            continue;
        const KQ_ERR_T result = KQCtrl_ConfigDynamicAdd(&entry.request->Item());
        out << "reload: add " << entry.ifname << ": " << (result < 0 ? "refused " + ErrnoName(result) : "ok") << "\n";
        if (result < 0)
            status = kExitFailed;
    }
    for (const auto &entry : desired_.Entries()) {
        // An entry that is still there but cannot be read now is not a delete.
        if (!entry.request || fresh.Lists(entry.ifname))
            continue;
        // Only the name matters to a delete.
        DhcpItemV2 item = DHCP_ITEM_V2__INIT;
        std::string name = entry.ifname;
        item.ifname = name.data();
        const KQ_ERR_T result = KQCtrl_ConfigDynamicDel(&item);
        out << "reload: delete " << entry.ifname << ": " << (result < 0 ? "refused " + ErrnoName(result) : "ok") << "\n";
        if (result < 0)
            status = kExitFailed;
    }
    // Clients: enable what is new or changed, disable what is gone.
    for (const auto &entry : fresh.Clients()) {
        if (!entry.client) {
            err << "kqagent: reload: could not reconcile a client (" << entry.problem << ")\n";
            status = kExitFailed;
            continue;
        }
        const DesiredClient *before = desired_.FindClient(entry.client->ifname, entry.client->ipv6);
        if (before != nullptr && *before == *entry.client)
            continue;
        const KQ_ERR_T result = EnableClient(*entry.client);
        out << "reload: client enable " << entry.client->Family() << " " << entry.client->ifname << ": "
            << (result < 0 ? "refused " + ErrnoName(result) : "ok") << "\n";
        if (result < 0)
            status = kExitFailed;
    }
    for (const auto &entry : desired_.Clients()) {
        if (!entry.client || fresh.FindClient(entry.client->ifname, entry.client->ipv6) != nullptr)
            continue;
        const char *ifname = entry.client->ifname.c_str();
        const KQ_ERR_T result = entry.client->ipv6 ? KQCtrl_DynamicClientDisableIpv6(ifname, entry.client->zone)
                                                   : KQCtrl_DynamicClientDisableIpv4(ifname, entry.client->zone);
        out << "reload: client disable " << entry.client->Family() << " " << ifname << ": "
            << (result < 0 ? "refused " + ErrnoName(result) : "ok") << "\n";
        if (result < 0)
            status = kExitFailed;
    }
    if (fresh.Unfollowed() > 0)
        err << "kqagent: reload: note: " << fresh.UnfollowedNote() << "\n";
    desired_ = std::move(fresh);
    RecordServices();
    return status;
}

// The request file parsed and each request checked on its own; prints the refusal.
// nullopt: nothing may be applied (exit 2).
std::optional<ParsedRequests> CheckedRequests(const std::string &file, const std::string &text, std::ostream &err)
{
    auto parsed = ParseRequestText(file, text, err);
    if (!parsed)
        return std::nullopt;
    const CheckReport report = CheckRequests(parsed->requests);
    if (!report.Ok()) {
        for (const auto &error : report.errors)
            err << "kqagent: " << file << ": " << error << "\n";
        err << "kqagent: nothing applied\n";
        return std::nullopt;
    }
    return parsed;
}

namespace {

// The dry run's verdict on the file; prints its notes, warnings and errors.
bool Judged(const std::string &file, const std::vector<Request> &requests, const DryRunReport &dry, bool strict,
            std::ostream &err)
{
    CheckReport report;
    JudgeDryRun(requests, dry.steps, strict, KQ_AgentPathDhcpConfbak(), report);
    for (const auto &note : report.notes)
        err << "kqagent: note: " << file << ": " << note << "\n";
    for (const auto &warning : report.warnings)
        err << "kqagent: warning: " << file << ": " << warning << "\n";
    for (const auto &error : report.errors)
        err << "kqagent: " << file << ": " << error << "\n";
    return report.Ok();
}

size_t ConfiguredCount()
{
    size_t count = 0;
    ForEachNode([&](KQ_CTRL_DYNAMIC_SERVICE_CONF &) { ++count; });
    return count;
}

}  // namespace

int RunCheck(const VerbCall &call)
{
    const std::string &file = call.invocation.args[0];
    std::ostream &out = call.out, &err = call.err;
    const auto parsed = CheckedRequests(file, call.fileText, err);
    if (!parsed)
        return kExitUsage;
    const DryRunReport dry = DryRun(parsed->requests, true);
    if (!dry.problem.empty()) {
        err << "kqagent: " << dry.problem << "\n";
        return kExitFailed;
    }
    if (!Judged(file, parsed->requests, dry, call.invocation.Has("--strict"), err))
        return kExitUsage;
    out << file << ": " << parsed->requests.size() << " request(s), all valid\n";
    for (size_t i = 0; i < parsed->requests.size(); ++i)
        out << "  [" << i << "] " << parsed->requests[i].Summary() << "\n";
    return kExitOk;
}

int Agent::Plan(const VerbCall &call)
{
    touchedAll_ = false;  // a dry run touches nothing
    const std::string &file = call.invocation.args[0];
    const bool dryRun = call.invocation.Has("--dry-run");
    std::ostream &out = call.out, &err = call.err;
    const auto parsed = CheckedRequests(file, call.fileText, err);
    if (!parsed)
        return kExitUsage;
    const DryRunReport dry = DryRun(parsed->requests, true);
    if (!dry.problem.empty()) {
        err << "kqagent: " << dry.problem << "\n";
        return kExitFailed;
    }
    const bool ok = Judged(file, parsed->requests, dry, call.invocation.Has("--strict"), err);
    out << file << ": " << parsed->requests.size() << " request(s)" << (dryRun ? "\ndry run: nothing is touched" : "")
        << "; against " << ConfiguredCount() << " configured interface(s), the module would:\n";
    for (const auto &line : PlanLines(parsed->requests, dry.steps, KQ_HostLogLevel() <= 1))
        out << line << "\n";
    return ok ? kExitOk : kExitUsage;
}

std::vector<std::string> Agent::NotAddedBy(const std::vector<Request> &requests) const
{
    std::set<std::string> added;
    for (const Request &request : requests)
        if (request.Op() == RequestOp::Add)
            added.insert(request.Item().ifname);
    std::vector<std::string> names;
    ForEachNode([&](KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) {
        if (added.count(conf.IfName) == 0)
            names.push_back(conf.IfName);
    });
    for (const auto &entry : desired_.Entries())
        if (added.count(entry.ifname) == 0 && std::find(names.begin(), names.end(), entry.ifname) == names.end())
            names.push_back(entry.ifname);
    return names;
}

void Agent::CleanUpRefusedAdd(const std::string &ifname, const ServerSnapshot &before, std::ostream &err)
{
    const std::string pidFile = ServerPidFile(ifname), confFile = ServerConfFile(ifname);
    if (before.configured) {
        // What runs must be the configured server, not the refused one nor none: the desired
        // add again puts the module's registry back, and its record starts the dnsmasq. When
        // that add fails too (dhcp.conf cannot be written, say), the registry record it left
        // still starts the dnsmasq: the LAN is served while the operator fixes the cause.
        if (ReadTextFile(confFile) == before.file && RunningDnsmasq(pidFile) == before.pid)
            return;
        const DesiredEntry *entry = desired_.Find(ifname);
        const KQ_ERR_T added = entry != nullptr && entry->request ? KQCtrl_ConfigDynamicAdd(&entry->request->Item()) : 0;
        const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(ifname.c_str());
        const bool serves = conf != nullptr && conf->DynamicServerConf.NetAddrType != 0;
        KQ_ERR_T restarted = 0;
        if (serves && (RunningDnsmasq(pidFile) == 0 || ReadTextFile(confFile) != before.file))
            restarted = KQCtrl_DynamicServerRestart(&conf->DynamicServerConf);
        err << "kqagent: " << ifname << ": ";
        if (restarted < 0 || (!serves && added < 0))
            err << "could not bring back its configured dnsmasq: " << Failure(restarted < 0 ? restarted : added) << "\n";
        else
            err << "its configured dnsmasq runs again (the refused request had stopped or replaced it)"
                << (added < 0 ? "; adding its desired settings again failed too: " + Failure(added) : std::string()) << "\n";
        return;
    }
    // Not configured before: whatever the refused add left in the registry, running or on disk goes.
    const Process started = ProcessOf(pidFile, "dnsmasq");
    if (_KQCtrl_GetDynamicConfByName(ifname.c_str()) != nullptr) {
        DhcpItemV2 item = DHCP_ITEM_V2__INIT;
        std::string name = ifname;
        item.ifname = name.data();
        (void)KQCtrl_ConfigDynamicDel(&item);
    }
    if (ProcessOf(pidFile, "dnsmasq").running && KQ_KillPid(static_cast<pid_t>(started.pid)) < 0) {
        err << "kqagent: " << ifname << ": its dnsmasq (pid " << started.pid << ") runs without configuration and could "
            << "not be stopped\n";
        return;
    }
    if (started.running) {
        (void)unlink(pidFile.c_str());
        err << "kqagent: " << ifname << ": stopped the dnsmasq the refused request had started (" << ifname
            << " is not configured)\n";
    }
    const std::string removed = RemoveLeftoverServerFile(ifname);
    if (!removed.empty())
        err << "kqagent: removed " << removed << ", left behind by the failed start (" << ifname << " is not configured)\n";
}

int Agent::ApplyEach(const std::vector<Request> &requests, std::vector<std::string> &added, std::ostream &out,
                     std::ostream &err)
{
    for (size_t i = 0; i < requests.size(); ++i) {
        const Request &request = requests[i];
        out << "[" << i << "] " << request.Summary() << ": " << std::flush;
        const bool add = request.Op() == RequestOp::Add;
        const std::string ifname = request.Item().ifname;
        touched_.insert(ifname);
        const ServerSnapshot before{_KQCtrl_GetDynamicConfByName(ifname.c_str()) != nullptr, ReadTextFile(ServerConfFile(ifname)),
                                    RunningDnsmasq(ServerPidFile(ifname))};
        const KQ_ERR_T result = add ? KQCtrl_ConfigDynamicAdd(&request.Item()) : KQCtrl_ConfigDynamicDel(&request.Item());
        const int recorded = result < 0 ? 0 : add ? desired_.RecordAdd(request) : desired_.RecordDelete(ifname);
        if (result < 0 || recorded < 0) {
            out << "refused\n";
            if (result < 0) {
                err << "kqagent: request " << i << ": " << DescribeRefusal(request.Op(), ifname, result) << "\n";
                if (add)
                    CleanUpRefusedAdd(ifname, before, err);
            } else
                err << "kqagent: request " << i << " applied, but " << desired_.Path()
                    << " could not be written: " << Failure(recorded) << "; a restart would not restore it\n";
            err << "kqagent: request " << i << ": " << request.Json() << "\n";
            if (i + 1 < requests.size())
                err << "kqagent: stopped; request(s) " << i + 1 << ".." << requests.size() - 1 << " not applied\n";
            return kExitFailed;
        }
        out << "ok\n";
        converted_.erase(ifname);
        if (add)
            added.push_back(ifname);
    }
    return kExitOk;
}

int Agent::Apply(const VerbCall &call)
{
    touchedAll_ = false;  // ApplyEach names every interface it touches
    if (call.invocation.Has("--dry-run"))
        return Plan(call);
    const std::string &file = call.invocation.args[0];
    std::ostream &out = call.out, &err = call.err;
    const auto parsed = CheckedRequests(file, call.fileText, err);
    if (!parsed)
        return kExitUsage;
    const bool replace = call.invocation.Has("--replace");
    if (!daemon_)
        desired_.Load();
    if (desired_.Broken()) {
        // Applying now would leave a change nobody can restore after a restart.
        err << "kqagent: desired state " << desired_.Problem() << "\n";
        err << "kqagent: nothing applied; repair or move that file, then reload the agent (SIGHUP) or run the "
               "command again\n";
        return kExitFailed;
    }
    if (!partialRefused_.empty() && !replace) {
        err << "kqagent: " << partialRefused_ << "\n";
        err << "kqagent: nothing applied: this apply would record only its own interfaces, and the next start "
               "would lose the others; send the whole configuration with 'kqagent apply --replace FILE'\n";
        return kExitFailed;
    }
    // The whole configuration: the requests, then a delete of every other interface.
    std::vector<Request> requests = parsed->requests;
    if (replace)
        for (const std::string &name : NotAddedBy(requests)) {
            // Configured names hold no character JSON would have to escape.
            ParsedRequests deletion = ParseRequests(R"({"requests":[{"op":"delete","item":{"ifname":")" + name + R"("}}]})");
            if (deletion.Ok())
                requests.push_back(deletion.requests[0]);
        }
    out << file << ": " << parsed->requests.size() << " request(s), all valid"
        << (requests.size() > parsed->requests.size()
                ? "; --replace deletes " + std::to_string(requests.size() - parsed->requests.size()) + " other interface(s)"
                : "")
        << "\n";

    std::vector<std::string> added;
    // Whatever was applied, also before a refusal, is recorded and supervised.
    struct Changed {
        Agent &agent;
        ~Changed() { agent.RecordServices(&agent.touched_); }
    } changed{*this};
    // The agent answers once, after the whole apply: its durable writes (dhcp.conf and its
    // backup after every request, the desired state) are made durable together just before
    // the answer, not once per file and request.
    const bool batched = daemon_ && KQ_HostDurableBatchBegin() == 0;
    if (batched)
        desired_.Hold();
    int status = ApplyEach(requests, added, out, err);
    if (batched) {
        const int recorded = desired_.Release();
        const KQ_ERR_T durable = KQ_HostDurableBatchEnd();
        if (recorded < 0)
            err << "kqagent: request(s) applied, but " << desired_.Path() << " could not be written: " << Failure(recorded)
                << "; a restart would not restore them\n";
        if (durable < 0)
            err << "kqagent: request(s) applied, but " << KQ_AgentPathDhcpConf()
                << " or its backup could not be written: " << Failure(durable) << "; the previous one stays"
                << (recorded < 0 ? "" : ", and the desired state holds the change, so a restart restores it") << "\n";
        if (recorded < 0 || durable < 0)
            status = kExitFailed;
    }
    if (status != kExitOk)
        return status;
    if (replace)
        partialRefused_.clear();
    // An unchanged configuration is left alone by the module, also when its dnsmasq has
    // gone meanwhile (a reboot without the agent): say so instead of a bare "ok".
    for (const auto &ifname : added) {
        const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(ifname.c_str());
        if (conf != nullptr && conf->DynamicServerConf.NetAddrType != 0 && RunningDnsmasq(ServerPidFile(ifname)) <= 0) {
            err << "kqagent: " << ifname << ": configured, but its dnsmasq is not running"
                << (daemon_ ? "" : " (after a reboot: start the agent, or run 'kqagent load')") << "\n";
            status = kExitFailed;
        }
    }
    return status;
}

int Agent::Load(const VerbCall &call)
{
    const std::vector<std::string> &args = call.invocation.args;
    std::ostream &out = call.out, &err = call.err;
    const std::string confPath = KQ_AgentPathDhcpConf();
    if (!daemon_) {
        // A path names a dhcp.conf to restore from (its backup, say); without one, what an
        // agent does at start.
        const int status = args.empty() ? Startup(out, err) : (desired_.Load(), LoadFrom(args[0], out, err));
        const std::string what = args.empty() ? "the desired state" : args[0];
        out << "loaded " << (args.empty() && !desired_.Exists() ? confPath : what)
            << (status == kExitOk ? "" : " (with problems, see above)") << "\n";
        return status;
    }
    if (!args.empty() && args[0] != confPath)
        return Usage(err, "load: the running agent restores from its own state; PATH needs a stopped agent", "load");
    // The registry of a running agent is whole: start from it whatever does not run, also
    // what its supervision gave up.
    for (const Service &service : Wanted()) {
        if (ProcessOf(service.PidFile(), service.Program()).running)
            continue;
        const int result = StartService(service);
        if (result < 0)
            err << "kqagent: " << service.Name() << ": restart failed: " << Failure(result) << "\n";
    }
    if (resumeServices)
        resumeServices();
    RecordServices();
    const int status = ReportRunning(out, err);
    out << "loaded " << confPath << (status == kExitOk ? "" : " (with problems, see above)") << "\n";
    return status;
}

int Agent::Status(const VerbCall &call)
{
    if (!daemon_)
        desired_.Load();
    json_object *status = CollectStatus(call.invocation.args, desired_, daemon_, supervision);
    std::ostream &out = call.out;
    if (call.invocation.Has("--json"))
        out << json_object_to_json_string_ext(status, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE) << "\n";
    else
        out << RenderStatus(status);
    const int exit = StatusExit(status);
    json_object_put(status);
    return exit;
}

namespace {

}  // namespace

int RunRs(const VerbCall &call)
{
    const std::string &ifname = call.invocation.args[0];
    std::ostream &out = call.out, &err = call.err;
    if (!IsUsableIfName(ifname))
        return Usage(err, ifname.empty() ? "rs needs an interface" : "rs: \"" + ifname + "\" is not a usable interface name", "rs");
    const auto zone = ZoneOf(ifname, call.invocation.Value("--zone"));
    if (!zone)
        return Usage(err, "rs: --zone needs a number from 0 to 4294967295", "rs");
    const KQ_ERR_T result = InZone(*zone, err, [&] { return KQCtrl_SendOneRsPkt(ifname.c_str()); });
    if (result < 0) {
        err << "kqagent: router solicitation on " << ifname << " failed: " << Failure(result) << "\n";
        return kExitFailed;
    }
    out << "router solicitation sent on " << ifname << " (zone " << *zone << ")\n";
    return kExitOk;
}

int Agent::Client(const VerbCall &call)
{
    const Invocation &invocation = call.invocation;
    const std::string &action = invocation.args[0], &family = invocation.args[1], &ifname = invocation.args[2];
    const std::optional<std::string> type = invocation.Value("--type");
    const bool rs = invocation.Has("--rs");
    std::ostream &out = call.out, &err = call.err;
    if (action != "enable" && action != "disable")
        return Usage(err, "client: \"" + action + "\" is neither enable nor disable", "client");
    if (family != "ipv4" && family != "ipv6")
        return Usage(err, "client: \"" + family + "\" is neither ipv4 nor ipv6", "client");
    if (!IsUsableIfName(ifname))
        return Usage(err, "client: \"" + ifname + "\" is not a usable interface name", "client");
    const auto zone = ZoneOf(ifname, invocation.Value("--zone"));
    if (!zone)
        return Usage(err, "client: --zone needs a number from 0 to 4294967295", "client");
    const bool v6 = family == "ipv6", enable = action == "enable";
    if ((type || rs) && !(v6 && enable))
        return Usage(err, "client: --type and --rs go with 'enable ipv6' only", "client");
    const DesiredClient client{ifname, v6, *zone, v6 ? type.value_or("stateful") : "", rs};
    if (v6 && enable && client.type != "stateful" && client.type != "stateless" && client.type != "slaac")
        return Usage(err, "client: --type is slaac, stateless or stateful", "client");
    if (!daemon_)
        desired_.Load();
    if (desired_.Broken()) {
        // Enabling now would leave a client nobody restarts after a reboot.
        err << "kqagent: desired state " << desired_.Problem() << "\n";
        err << "kqagent: nothing done; repair or move that file, then reload the agent (SIGHUP) or run the command again\n";
        return kExitFailed;
    }
    if (!partialRefused_.empty()) {
        err << "kqagent: " << partialRefused_ << "\n";
        err << "kqagent: nothing done: the desired state would record this client alone, and the next start would "
               "lose every interface; first send the whole configuration with 'kqagent apply --replace FILE'\n";
        return kExitFailed;
    }

    KQ_ERR_T result = 0;
    if (enable)
        result = EnableClient(client);
    else
        result = v6 ? KQCtrl_DynamicClientDisableIpv6(ifname.c_str(), *zone) : KQCtrl_DynamicClientDisableIpv4(ifname.c_str(), *zone);
    const int recorded = result < 0 ? 0 : enable ? desired_.RecordClientEnable(client) : desired_.RecordClientDisable(ifname, v6);
    touched_.insert(ifname);
    touchedAll_ = false;
    RecordServices(&touched_);
    if (v6) {
        json_object *rules = PolicyRulesJson();
        out << RenderPolicyRules(rules);
        json_object_put(rules);
    }
    if (result < 0) {
        err << "kqagent: client " << action << " " << family << " " << ifname << " failed: " << Failure(result) << "\n";
        return kExitFailed;
    }
    if (recorded < 0) {
        err << "kqagent: client " << action << " " << family << " " << ifname << " done, but " << desired_.Path()
            << " could not be written: " << Failure(recorded) << "; a restart would not "
            << (enable ? "restore it" : "know it is disabled") << "\n";
        return kExitFailed;
    }
    out << "client " << action << " " << family << " " << ifname << " (zone " << *zone << "): ok\n";
    return kExitOk;
}

CommandResult Agent::Execute(const Command &command)
{
    CommandResult result;
    std::ostringstream out, err;
    const uint32_t savedLevel = KQ_HostLogLevel();
    if (command.logLevel != 0)
        KQ_HostSetLogLevel(static_cast<uint32_t>(command.logLevel));
    touched_.clear();
    touchedAll_ = true;
    Invocation invocation;
    const Verb *verb = command.argv.empty() ? nullptr : FindVerb(command.argv[0]);
    if (verb != nullptr && verb->Is(kVerbLocal))  // serve and help never reach an agent
        result.exit = Usage(err, "no such command: " + command.argv[0]);
    else if ((result.exit = ParseInvocation(command.argv, invocation, err)) == kExitOk)
        result.exit = verb->run(VerbCall{invocation, command.fileText, out, err, this});
    KQ_HostSetLogLevel(savedLevel);
    result.out = out.str();
    result.err = err.str();
    return result;
}

int RunApply(const VerbCall &call) { return call.agent->Apply(call); }
int RunPlan(const VerbCall &call) { return call.agent->Plan(call); }
int RunLoad(const VerbCall &call) { return call.agent->Load(call); }
int RunClient(const VerbCall &call) { return call.agent->Client(call); }
int RunStatus(const VerbCall &call) { return call.agent->Status(call); }

}  // namespace kqagent
