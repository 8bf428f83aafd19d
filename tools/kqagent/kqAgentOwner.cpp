// The agent owns what it runs: at start it rebuilds the module's registry from the desired
// state and keeps every service that runs as configured, starting only the others; after
// every change it records what runs, so that the next start can tell the two apart.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "kqAgentCommands.h"
#include "kqAgentCommon.h"
#include "kqAgentMessages.h"
#include "kqAgentProcess.h"
#include "kqCtrlDynamic.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

bool ServesSomething(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) { return conf.DynamicServerConf.NetAddrType != 0; }
bool RelayActive(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) { return (conf.DynamicRelayConf.NetAddrType & KQ_NET_ADDR_IPV4) != 0; }

// The zone the module gives an interface's server: its LAN's, else 0.
uint32_t LanZone(const std::string &ifname)
{
    KQ_CONF_LAN lan{};
    return KQ_RtcNetioLanGetByName(ifname.c_str(), &lan) == 0 ? lan.CommConf.VpnId : 0;
}

// What an interface's registry record was built for: the desired item and its zone.
std::string WantedOf(const DesiredEntry &entry)
{
    return Fingerprint(entry.itemJson + "\nzone " + std::to_string(LanZone(entry.ifname)));
}

uint64_t Inode(const std::string &path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_ino) : 0;
}

// The inode of a zone's network namespace (zone 0: the agent's own), 0 when it has none.
uint64_t ZoneNetns(uint32_t zone)
{
    if (zone == 0)
        return Inode("/proc/self/ns/net");
    char name[64] = {};
    if (KQ_HostNetnsName(zone, name, sizeof(name)) < 0)
        return 0;
    return Inode(std::string("/run/netns/") + name);
}

std::string ClientKey(const std::string &ifname, bool ipv6) { return std::string(ipv6 ? "ipv6 " : "ipv4 ") + ifname; }

// The shared relay's configuration text, built by the module from every relay interface of
// the registry, as it does after a relay change.
std::optional<std::string> RelayText()
{
    std::unique_ptr<KQ_FLEXIBLE_MSG, void (*)(KQ_FLEXIBLE_MSG *)> content(KQ_FlexMsgAlloc(), KQ_FlexMsgFree);
    if (!content)
        return std::nullopt;
    KQ_DYNAMIC_FOR_EACH_CONF(conf)
    {
        if (RelayActive(*conf) && KQCtrl_DynamicRelayConfAppend(content.get(), &conf->DynamicRelayConf) < 0)
            return std::nullopt;
    }
    return std::string(content->FlexBuf != nullptr ? content->FlexBuf : "");
}

std::string ConfFileOf(const Service &service)
{
    return service.kind == ServiceKind::Server  ? ServerConfFile(service.ifname)
           : service.kind == ServiceKind::Relay ? std::string(KQ_DYNAMIC_RELAY_CONF_PATH)
                                                : std::string();
}

std::string ConfFingerprint(const Service &service)
{
    const std::string file = ConfFileOf(service);
    if (file.empty())
        return "";
    const auto text = ReadTextFile(file);
    return text ? Fingerprint(*text) : "none";
}

}  // namespace

std::string Service::PidFile() const
{
    switch (kind) {
    case ServiceKind::Server:
        return ServerPidFile(ifname);
    case ServiceKind::Relay:
        return KQ_DYNAMIC_RELAY_PID_PATH;
    case ServiceKind::Client4:
        return ClientPidFile(ifname, false);
    case ServiceKind::Client6:
        return ClientPidFile(ifname, true);
    }
    return "";
}

const char *Service::Program() const
{
    return kind == ServiceKind::Server || kind == ServiceKind::Relay ? "dnsmasq" : "dhclient";
}

std::string Service::Name() const
{
    switch (kind) {
    case ServiceKind::Server:
        return ifname + " dnsmasq";
    case ServiceKind::Relay:
        return "relay dnsmasq";
    case ServiceKind::Client4:
        return ifname + " dhclient";
    case ServiceKind::Client6:
        return ifname + " dhclient6";
    }
    return "";
}

bool Agent::RelayWanted(const std::set<std::string> *only) const
{
    auto note = [&](const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) {
        if (RelayActive(conf))
            relayLans_.insert(conf.IfName);
        else
            relayLans_.erase(conf.IfName);
    };
    if (only == nullptr || !relayLansKnown_) {
        relayLans_.clear();
        KQ_DYNAMIC_FOR_EACH_CONF(conf)
        note(*conf);
        relayLansKnown_ = true;
    } else {
        for (const auto &ifname : *only)
            if (const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(ifname.c_str()))
                note(*conf);
            else
                relayLans_.erase(ifname);
    }
    return !relayLans_.empty();
}

std::vector<Service> Agent::Wanted(const std::set<std::string> *only) const
{
    std::vector<Service> wanted;
    auto server = [&](const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf) {
        if (ServesSomething(conf))
            wanted.push_back(Service{ServiceKind::Server, conf.IfName});
    };
    auto client = [&](const DesiredClient &client) {
        // A SLAAC client runs no dhclient: the module only installs the policy rule.
        if (!(client.ipv6 && client.type == "slaac"))
            wanted.push_back(Service{client.ipv6 ? ServiceKind::Client6 : ServiceKind::Client4, client.ifname});
    };
    if (only == nullptr) {
        KQ_DYNAMIC_FOR_EACH_CONF(conf)
        server(*conf);
    } else {
        for (const auto &ifname : *only)
            if (const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(ifname.c_str()))
                server(*conf);
    }
    if (RelayWanted(only))
        wanted.push_back(Service{ServiceKind::Relay, ""});
    if (only == nullptr) {
        for (const auto &entry : desired_.Clients())
            if (entry.client)
                client(*entry.client);
    } else {
        for (const auto &ifname : *only)
            for (const bool ipv6 : {false, true})
                if (const DesiredClient *found = desired_.FindClient(ifname, ipv6))
                    client(*found);
    }
    return wanted;
}

int Agent::EnableClient(const DesiredClient &client)
{
    if (!client.ipv6)
        return KQCtrl_DynamicClientEnableIpv4(client.ifname.c_str(), client.zone);
    static const std::map<std::string, KQ_IPV6_ADDR_AUTOCONF_TYPE> types = {
        {"stateful", KQ_IPV6_ADDR_AUTOCONF_DHCP},
        {"stateless", KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP},
        {"slaac", KQ_IPV6_ADDR_AUTOCONF_SLAAC}};
    const auto type = types.find(client.type);
    KQCtrl_DynamicClientSetIpv6AutoConfType(type != types.end() ? type->second : KQ_IPV6_ADDR_AUTOCONF_DHCP);
    if (!client.rs)
        return KQCtrl_DynamicClientEnableIpv6(client.ifname.c_str(), client.zone);
    // The solicitation leaves from the zone's namespace, where the interface lives.
    std::ostringstream ignored;
    return InZone(client.zone, ignored, [&] {
        return KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(client.ifname.c_str(), client.zone);
    });
}

int Agent::StartService(const Service &service)
{
    // A pid file whose process has gone says nothing any more; the module would only warn about it.
    if (ProcessOf(service.PidFile(), service.Program()).Stale())
        unlink(service.PidFile().c_str());
    switch (service.kind) {
    case ServiceKind::Server: {
        KQ_CTRL_DYNAMIC_SERVICE_CONF *conf = _KQCtrl_GetDynamicConfByName(service.ifname.c_str());
        return conf != nullptr ? KQCtrl_DynamicServerRestart(&conf->DynamicServerConf) : -ENOENT;
    }
    case ServiceKind::Relay: {
        const auto text = RelayText();
        return text ? KQCtrl_DynamicRelayRestart(text->c_str()) : -ENOMEM;
    }
    case ServiceKind::Client4:
    case ServiceKind::Client6: {
        const DesiredClient *client = desired_.FindClient(service.ifname, service.kind == ServiceKind::Client6);
        return client != nullptr ? EnableClient(*client) : -ENOENT;
    }
    }
    return -EINVAL;
}

bool Agent::RunsAsRecorded(const Service &service, const ProcessRecord *record, uint32_t zone) const
{
    if (record == nullptr)
        return false;
    const Process process = ProcessOf(service.PidFile(), service.Program());
    // The very process that was recorded (a pid can be reused), in its zone's namespace,
    // with the configuration file it was started with.
    return process.running && process.pid == record->pid && process.startTime == record->startTime &&
           process.netns != 0 && process.netns == ZoneNetns(zone) && ConfFingerprint(service) == record->conf;
}

void Agent::RecordServices(const std::set<std::string> *only)
{
    if (!desired_.Exists() || desired_.Broken())
        return;  // nothing to tell a start from: it restores dhcp.conf as it stands
    auto processRecord = [](const Service &service) -> std::optional<ProcessRecord> {
        const Process process = ProcessOf(service.PidFile(), service.Program());
        if (!process.running)
            return std::nullopt;
        return ProcessRecord{process.pid, process.startTime, ConfFingerprint(service)};
    };
    auto record = [&](const DesiredEntry &entry) {
        const KQ_CTRL_DYNAMIC_SERVICE_CONF *conf =
            entry.request ? _KQCtrl_GetDynamicConfByName(entry.ifname.c_str()) : nullptr;
        if (conf == nullptr || converted_.count(entry.ifname) != 0)
            return;
        InterfaceRecord record{WantedOf(entry), EncodeRecord(*conf), std::nullopt};
        if (ServesSomething(*conf))
            record.server = processRecord(Service{ServiceKind::Server, entry.ifname});
        services_.SetInterface(entry.ifname, std::move(record));
    };
    if (only == nullptr) {
        services_.ClearInterfaces();
        for (const auto &entry : desired_.Entries())
            record(entry);
    } else {
        for (const auto &ifname : *only) {
            services_.EraseInterface(ifname);
            if (const DesiredEntry *entry = desired_.Find(ifname))
                record(*entry);
        }
    }
    services_.relay = RelayWanted(only) ? processRecord(Service{ServiceKind::Relay, ""}) : std::nullopt;
    std::map<std::string, ClientRecord> clients;
    for (const auto &entry : desired_.Clients()) {
        if (!entry.client)
            continue;
        const std::string key = ClientKey(entry.client->ifname, entry.client->ipv6);
        if (only != nullptr && only->count(entry.client->ifname) == 0) {
            if (const auto kept = services_.clients.find(key); kept != services_.clients.end())
                clients.insert(*kept);
            continue;
        }
        const Service service{entry.client->ipv6 ? ServiceKind::Client6 : ServiceKind::Client4, entry.client->ifname};
        if (const auto process = processRecord(service))
            clients[key] = ClientRecord{Fingerprint(entry.client->Json()), *process};
    }
    services_.clients = std::move(clients);
    if (deferServicesSave)
        deferServicesSave();
    else
        SaveServices();
}

void Agent::SaveServices()
{
    // Losing this file costs restarts at the next start, never configuration.
    if (const int saved = services_.Save(); saved < 0)
        std::cerr << "kqagent: " << services_.Path() << " could not be written (" << ErrnoName(saved)
                  << "); the next start restarts what it cannot recognise" << std::endl;
}

std::vector<const DesiredEntry *> Agent::RestoreRegistry(std::ostream &err)
{
    std::vector<const DesiredEntry *> pending;
    for (const auto &entry : desired_.Entries()) {
        if (!entry.request)
            continue;
        const auto record = services_.Interfaces().find(entry.ifname);
        std::optional<KQ_CTRL_DYNAMIC_SERVICE_CONF> conf;
        if (record != services_.Interfaces().end() && record->second.wanted == WantedOf(entry))
            conf = DecodeRecord(record->second.registry);
        if (!conf || entry.ifname != conf->IfName) {
            pending.push_back(&entry);
            continue;
        }
        const KQ_ERR_T result = KQCtrl_InsertDynamicConfListNode(&*conf);
        if (result < 0) {
            err << "kqagent: " << entry.ifname << ": restoring its record failed (" << ErrnoName(result) << ")\n";
            pending.push_back(&entry);
        }
    }
    return pending;
}

int Agent::Startup(std::ostream &out, std::ostream &err)
{
    const std::string confPath = KQ_AgentPathDhcpConf();
    desired_.Load();
    if (desired_.Unfollowed() > 0)
        err << "kqagent: note: " << desired_.UnfollowedNote() << "\n";
    if (daemon_)
        FoldDesired(err);  // the document whole and current again, as it is left at a stop
    if (!desired_.Exists() || desired_.Broken()) {
        // No desired state to restore from (an agent that never ran, an upgrade from one
        // that kept none, or a file the operator must repair): the module's own restore of
        // dhcp.conf, when there is one.
        int status = kExitOk;
        if (desired_.Broken())
            err << "kqagent: desired state " << desired_.Problem() << "; dhcp.conf is restored, nothing is sent again\n";
        if (access(confPath.c_str(), F_OK) == 0) {
            status = LoadFrom(confPath, out, err);
            // Without a desired state an apply would record only its own interfaces, and the
            // module's next write of dhcp.conf replaces its backup: both wait for the operator.
            std::vector<std::string> names;
            KQ_DYNAMIC_FOR_EACH_CONF(conf)
                names.push_back(conf->IfName);
            const std::string backup = BackupOf(confPath);
            const auto backupText = ReadTextFile(backup);
            if (!desired_.Broken() && !names.empty()) {
                std::string listed;
                for (const auto &name : names)
                    listed += (listed.empty() ? "" : ", ") + name;
                partialRefused_ = "the desired state " + desired_.Path() + " is missing, and " + confPath + " holds " +
                                  listed + " (running as restored from it)";
            } else if (status != kExitOk && names.empty() && backupText && IsDhcpConfDocument(*backupText)) {
                partialRefused_ = confPath + " could not be read, and its backup " + backup + " is the only good copy";
            }
            if (!partialRefused_.empty())
                err << "kqagent: " << partialRefused_ << "; applies are refused until the whole configuration is sent "
                    << "with 'kqagent apply --replace FILE'\n";
        } else if (desired_.Broken()) {
            status = kExitFailed;
        }
        if (desired_.Broken()) {
            err << "kqagent: could not reconcile every interface (" << desired_.Problem() << ")\n";
            status = kExitFailed;
        }
        return status;
    }

    services_.Load();
    std::set<Service> started;
    std::vector<std::string> unreconciled;
    size_t added = 0;
    for (const DesiredEntry *entry : RestoreRegistry(err)) {
        // No record of this module build for this item: the module's own add, which starts
        // its services and rewrites dhcp.conf.
        const KQ_ERR_T result = KQCtrl_ConfigDynamicAdd(&entry->request->Item());
        if (result < 0) {
            unreconciled.push_back(entry->ifname + " (refused by the module: " + ErrnoName(result) + ")");
            continue;
        }
        ++added;
        started.insert(Service{ServiceKind::Server, entry->ifname});
        started.insert(Service{ServiceKind::Relay, ""});  // every add rebuilds it
    }
    for (const auto &entry : desired_.Entries())
        if (!entry.request)
            unreconciled.push_back((entry.ifname.empty() ? "an entry" : entry.ifname) + " (" + entry.problem + ")");
    for (const auto &entry : desired_.Clients())
        if (!entry.client)
            unreconciled.push_back("a client (" + entry.problem + ")");

    size_t kept = 0, restarted = 0;
    for (const Service &service : Wanted()) {
        if (started.count(service) != 0)
            continue;
        const ProcessRecord *record = nullptr;
        uint32_t zone = 0;
        bool current = true;
        switch (service.kind) {
        case ServiceKind::Server: {
            const auto it = services_.Interfaces().find(service.ifname);
            record = it != services_.Interfaces().end() && it->second.server ? &*it->second.server : nullptr;
            zone = _KQCtrl_GetDynamicConfByName(service.ifname.c_str())->DynamicServerConf.SecurityZoneId;
            break;
        }
        case ServiceKind::Relay: {
            record = services_.relay ? &*services_.relay : nullptr;
            // The relay serves what the registry says only when its file holds the module's text for it.
            const auto text = RelayText();
            current = text && ReadTextFile(KQ_DYNAMIC_RELAY_CONF_PATH) == *text;
            break;
        }
        case ServiceKind::Client4:
        case ServiceKind::Client6: {
            const bool v6 = service.kind == ServiceKind::Client6;
            const DesiredClient *client = desired_.FindClient(service.ifname, v6);
            const auto it = services_.clients.find(ClientKey(service.ifname, v6));
            record = it != services_.clients.end() ? &it->second.process : nullptr;
            current = it != services_.clients.end() && it->second.wanted == Fingerprint(client->Json());
            zone = client->zone;
            break;
        }
        }
        if (current && RunsAsRecorded(service, record, zone)) {
            ++kept;
            continue;
        }
        ++restarted;
        const int result = StartService(service);
        if (result < 0)
            err << "kqagent: " << service.Name() << ": start failed (" << ErrnoName(result) << ")\n";
    }
    // The policy rule of the DHCPv6 clients lives in the host's table: a SLAAC client has no
    // dhclient to restart, so its enable runs again (it only stops and adds the rule).
    for (const auto &entry : desired_.Clients())
        if (entry.client && entry.client->ipv6 && entry.client->type == "slaac")
            EnableClient(*entry.client);

    for (const auto &what : unreconciled)
        err << "kqagent: could not reconcile " << what << "\n";
    RecordServices();
    out << "services: " << kept << " kept running, " << restarted << " started";
    if (added != 0)
        out << "; " << added << " interface(s) added again through the module";
    out << "\n";
    int status = unreconciled.empty() ? kExitOk : kExitFailed;
    if (ReportRunning(out, err) != kExitOk)
        status = kExitFailed;
    return status;
}

int Agent::LoadFrom(const std::string &confPath, std::ostream &out, std::ostream &err)
{
    int status = kExitOk;
    // The readers report every optional key an item lacks ("Not found vaild mode from Json
    // object", "dynamic relay is invaild") as a warning: trace, for an operator.
    const uint32_t level = KQ_HostLogLevel();
    if (level >= 3)
        KQ_HostSetLogLevel(4);
    const KQ_ERR_T result = KQCtrl_LoadDynamicServiceConf(confPath.c_str());
    KQ_HostSetLogLevel(level);
    if (result < 0) {
        const LoadOutcome outcome = DescribeLoadFailure(confPath, BackupOf(confPath), result);
        if (outcome.failed) {
            err << "kqagent: " << outcome.text << "\n";
            status = kExitFailed;
        } else {
            out << outcome.text << "\n";
        }
    }
    std::vector<std::string> unreconciled;
    for (const auto &entry : desired_.Entries()) {
        if (!entry.request) {
            unreconciled.push_back((entry.ifname.empty() ? "an entry" : entry.ifname) + " (" + entry.problem + ")");
            continue;
        }
        const KQ_ERR_T added = KQCtrl_ConfigDynamicAdd(&entry.request->Item());
        if (added < 0)
            unreconciled.push_back(entry.ifname + " (refused by the module: " + ErrnoName(added) + ")");
    }
    for (const auto &what : unreconciled)
        err << "kqagent: could not reconcile " << what << "\n";
    if (!unreconciled.empty())
        status = kExitFailed;
    KQ_DYNAMIC_FOR_EACH_CONF(conf)
    {
        if (desired_.Exists() && !desired_.Broken() && !desired_.Lists(conf->IfName))
            out << conf->IfName << ": restored from " << confPath << " but not in the desired state; left as restored\n";
    }
    RecordServices();
    if (ReportRunning(out, err) != kExitOk)
        status = kExitFailed;
    return status;
}

int Agent::RebuildRegistry(std::ostream &err)
{
    if (!desired_.Load()) {
        err << "kqagent: desired state " << desired_.Problem() << "\n";
        return kExitFailed;
    }
    services_.Load();
    for (const DesiredEntry *entry : RestoreRegistry(err)) {
        // No record to take: the module's converters give the record without its defaults
        // (a DNS server taken from the interface), which the module's change detection then
        // fills in at this interface's next add.
        KQ_CTRL_DYNAMIC_SERVICE_CONF conf{};
        const DhcpItemV2 &item = entry->request->Item();
        KQ_ERR_T result = KQCtrl_PbToConfDynamicServer(&item, &conf.DynamicServerConf);
        if (result >= 0)
            result = KQCtrl_PbToConfDynamicRelay(&item, &conf.DynamicRelayConf);
        if (result < 0) {
            err << "kqagent: warning: " << desired_.Path() << ": " << entry->ifname << " is refused by the module ("
                << ErrnoName(result) << "); left out of this run\n";
            continue;
        }
        snprintf(conf.IfName, sizeof(conf.IfName), "%s", item.ifname);
        converted_.insert(entry->ifname);
        result = KQCtrl_InsertDynamicConfListNode(&conf);
        if (result < 0) {
            err << "kqagent: restoring " << entry->ifname << " failed: " << ErrnoName(result) << "\n";
            return kExitFailed;
        }
    }
    for (const auto &entry : desired_.Entries())
        if (!entry.request)
            err << "kqagent: warning: " << desired_.Path() << ": " << entry.problem << "; "
                << (entry.ifname.empty() ? "this entry" : entry.ifname) << " is left out of this run\n";
    return kExitOk;
}

}  // namespace kqagent
