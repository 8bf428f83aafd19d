// The agent's record of what it runs, so that a restarted agent keeps every service that
// still runs as configured and starts only the others.
//
// Per interface it keeps the module's registry record (the bytes the module itself built
// from the accepted request, default DNS servers included) together with a fingerprint of
// the desired item and zone it was built for; per service the process the module started
// (pid and start time) and a fingerprint of the configuration file it started with. A start
// takes a registry record only when it was made by the same module build for the same item
// and zone, and keeps a process only when it is that very process, in its zone's namespace,
// with its configuration file unchanged. Everything else goes through the module again.
//
// Document (beside the desired state, "services.json"): {"build": "...", "interfaces":
// [{"ifname", "wanted", "registry", "process"?}], "relay": <process>?, "clients":
// [{"key", "wanted", "process"}]}, a process being {"pid", "start", "conf"}. Rewritten
// atomically, not synced: losing it costs restarts, never configuration.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <optional>
#include <string>
#include <tuple>

#include "kqCtrlDynamic.h"

namespace kqagent {

// A service the agent is responsible for: an interface's dnsmasq, the shared relay, or an
// enabled dhclient.
enum class ServiceKind { Server, Relay, Client4, Client6 };
struct Service {
    ServiceKind kind;
    std::string ifname;  // "" for the relay
    std::string PidFile() const;
    const char *Program() const;  // "dnsmasq" or "dhclient"
    // "lan1 dnsmasq", "relay dnsmasq", "wan0 dhclient6": for log lines and status.
    std::string Name() const;
    bool operator<(const Service &other) const { return std::tie(kind, ifname) < std::tie(other.kind, other.ifname); }
    bool operator==(const Service &other) const = default;
};

// What the daemon's supervision knows of a service, for status.
struct Supervision {
    unsigned restarts = 0;
    std::string lastExit;  // "" when it never died under this agent
    std::string gaveUp;    // when it was given up ("" while it is supervised)
};

struct ProcessRecord {
    pid_t pid = 0;
    uint64_t startTime = 0;
    std::string conf;  // fingerprint of its configuration file ("" for dhclient)
    bool operator==(const ProcessRecord &other) const = default;
};

struct InterfaceRecord {
    std::string wanted;    // fingerprint of the desired item and zone
    std::string registry;  // the registry record, encoded
    std::optional<ProcessRecord> server;
    bool operator==(const InterfaceRecord &other) const = default;
};

struct ClientRecord {
    std::string wanted;
    ProcessRecord process;
};

class ServiceStore {
public:
    explicit ServiceStore(std::string path) : path_(std::move(path)) {}

    // Reads the document; a missing, unreadable or foreign one (another module build) is an
    // empty store. Returns false only when a document was there but could not be used.
    bool Load();
    // Writes the document when it changed since the last Load or Save; 0 or a negative errno.
    int Save();

    const std::string &Path() const { return path_; }
    const std::map<std::string, InterfaceRecord> &Interfaces() const { return interfaces_; }
    // Changes go through these, so that a save looks again only at what changed.
    void SetInterface(const std::string &ifname, InterfaceRecord record);
    void EraseInterface(const std::string &ifname);
    void ClearInterfaces();
    std::optional<ProcessRecord> relay;
    std::map<std::string, ClientRecord> clients;  // by "ipv4 IFNAME" / "ipv6 IFNAME"

private:
    std::string Text();
    std::string path_;
    std::map<std::string, InterfaceRecord> interfaces_;
    std::string saved_;  // the text last read or written
    // Each interface's line as last printed, with the record it was printed from: one
    // change prints one line again, not every interface's.
    struct Printed {
        InterfaceRecord record;
        std::string line;
    };
    std::map<std::string, Printed> printed_;
    std::set<std::string> changed_;  // interfaces set or erased since the last printing
    bool allChanged_ = true;
};

// This module build: the loaded module file's fingerprint and the registry record's size.
const std::string &ModuleBuild();

// A registry record as text (hexadecimal, zero runs shortened) and back.
std::string EncodeRecord(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf);
std::optional<KQ_CTRL_DYNAMIC_SERVICE_CONF> DecodeRecord(const std::string &text);

}  // namespace kqagent
