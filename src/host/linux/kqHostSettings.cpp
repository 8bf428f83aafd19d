// Settings of the reference host: one JSON file named by KQ_HOST_CONFIG, read on first use
// and again on KQ_HostReloadConfig. A bad value never stops the host: it gets a line on
// stderr and the key (or the one bad entry) falls back to its default. An unknown key is
// different: most likely a misspelt one ("lan" for "lans"), whose default would quietly
// change what runs where, so it is kept as an error for the program to refuse on.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <json-c/json.h>

#include "kqHostInternal.h"

namespace kqhost {
namespace {

constexpr const char *kDefaultDhcpConf = "/etc/kqagent/dhcp.conf";
constexpr const char *kDefaultDhcpConfBak = "/etc/kqagent/dhcp.conf.bak";
constexpr const char *kDesiredStateName = "desired.json";  // beside dhcp.conf unless set
constexpr const char *kDefaultControlSocket = "/run/kqagent/kqagent.sock";
constexpr uint32_t kDefaultLogLevel = 2;
constexpr size_t kMaxSettingsFile = 1 << 20;
constexpr int64_t kDefaultControlMemory = int64_t{128} << 20;
constexpr int64_t kMinControlMemory = int64_t{64} << 10;
constexpr int64_t kMaxControlMemory = int64_t{1} << 40;

constexpr const char *kKnownKeys = "\"dhcpConf\", \"dhcpConfBak\", \"desiredState\", \"controlSocket\", "
                                   "\"controlMemory\", \"lans\", \"netns\", \"logLevel\", \"logTo\", "
                                   "\"dhcpv6Interfaces\"";
constexpr const char *kKnownLanKeys = "\"ifname\", \"vpnId\"";

struct LanEntry {
    std::string ifName;
    uint32_t vpnId;
};

struct Settings {
    std::string source;  // the file read, "" for none
    std::string dhcpConf = kDefaultDhcpConf;
    std::string dhcpConfBak = kDefaultDhcpConfBak;
    std::string desiredState;  // "" = beside dhcpConf
    std::string controlSocket = kDefaultControlSocket;
    int64_t controlMemory = kDefaultControlMemory;
    std::vector<LanEntry> lans;
    std::unordered_map<std::string, uint32_t> lanVpnIds;  // "lans" by name: a lookup per start
    std::map<uint32_t, std::string> netns;
    uint32_t logLevel = kDefaultLogLevel;
    bool toSyslog = false;
    std::vector<std::string> dhcpv6Interfaces;
    std::string errors;  // "<file>: <problem>\n" per unknown key
};

std::mutex sg_Lock;
bool sg_Loaded = false;
Settings sg_Settings;
// Hot paths (every log statement) read these without the lock.
std::atomic<uint32_t> sg_LogLevel{kDefaultLogLevel};
std::atomic<bool> sg_ToSyslog{false};
// The path texts handed out by KQ_AgentPathDhcpConf*: stable storage, so a pointer a
// caller kept across a reload still reads a whole, current path.
char sg_DhcpConfPath[PATH_MAX];
char sg_DhcpConfBakPath[PATH_MAX];
char sg_DesiredStatePath[PATH_MAX];
char sg_ControlSocketPath[PATH_MAX];
std::string sg_Errors;  // what KQ_HostConfigError hands out, stable until the next reload

void Complain(const std::string &source, const char *format, ...) __attribute__((format(printf, 2, 3)));
void Complain(const std::string &source, const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fprintf(stderr, "%skqhost: %s: %s\n", kqhost::JournalPrefix(LOG_WARNING).c_str(), source.c_str(), text);
}

bool ReadPath(const std::string &src, const char *key, json_object *value, std::string &out)
{
    if (!json_object_is_type(value, json_type_string)) {
        Complain(src, "\"%s\" must be a text; using \"%s\"", key, out.c_str());
        return false;
    }
    const char *text = json_object_get_string(value);
    size_t len = strlen(text);
    if (len == 0 || len >= PATH_MAX) {
        Complain(src, "\"%s\" must be a path of 1 to %d characters; using \"%s\"", key,
                 PATH_MAX - 1, out.c_str());
        return false;
    }
    out = text;
    return true;
}

// A JSON integer within [min, max], or nothing.
std::optional<int64_t> ReadInt(json_object *value, int64_t min, int64_t max)
{
    if (!json_object_is_type(value, json_type_int))
        return std::nullopt;
    errno = 0;
    int64_t number = json_object_get_int64(value);
    if (errno != 0 || number < min || number > max)
        return std::nullopt;
    return number;
}

void ReadLans(const std::string &src, json_object *value, Settings &s)
{
    if (!json_object_is_type(value, json_type_array)) {
        Complain(src, "\"lans\" must be an array of {\"ifname\", \"vpnId\"}; using none");
        return;
    }
    size_t count = json_object_array_length(value);
    for (size_t i = 0; i < count; i++) {
        json_object *entry = json_object_array_get_idx(value, i);
        json_object *ifName = nullptr, *vpnId = nullptr;
        if (json_object_is_type(entry, json_type_object)) {
            json_object_object_foreach(entry, key, unused)
            {
                (void)unused;
                if (strcmp(key, "ifname") != 0 && strcmp(key, "vpnId") != 0)
                    s.errors += src + ": \"lans\"[" + std::to_string(i) + "]: unknown key \"" + key +
                                "\" (known keys: " + kKnownLanKeys + ")\n";
            }
        }
        if (!json_object_is_type(entry, json_type_object) ||
            !json_object_object_get_ex(entry, "ifname", &ifName) ||
            !json_object_object_get_ex(entry, "vpnId", &vpnId)) {
            Complain(src, "\"lans\"[%zu] must be an object with \"ifname\" and \"vpnId\"; dropped", i);
            continue;
        }
        std::optional<int64_t> id = ReadInt(vpnId, 0, UINT32_MAX);
        if (!json_object_is_type(ifName, json_type_string) ||
            !IsUsableName(json_object_get_string(ifName)) || !id) {
            Complain(src,
                     "\"lans\"[%zu] needs an interface name (1 to 15 characters) and a "
                     "vpnId from 0 to 4294967295; dropped", i);
            continue;
        }
        std::string name = json_object_get_string(ifName);
        if (!s.lanVpnIds.emplace(name, static_cast<uint32_t>(*id)).second) {
            Complain(src, "\"lans\"[%zu]: interface %s is listed twice; dropped", i, name.c_str());
            continue;
        }
        s.lans.push_back({name, static_cast<uint32_t>(*id)});
    }
}

void ReadNetns(const std::string &src, json_object *value, Settings &s)
{
    if (!json_object_is_type(value, json_type_object)) {
        Complain(src, "\"netns\" must be an object of VPN id -> namespace name; using vpn<id>");
        return;
    }
    json_object_object_foreach(value, key, name)
    {
        char *end = nullptr;
        errno = 0;
        unsigned long long id = strtoull(key, &end, 10);
        bool idOk = key[0] >= '0' && key[0] <= '9' && *end == '\0' && errno == 0 && id <= UINT32_MAX;
        if (!idOk || id == 0) {
            Complain(src, "\"netns\" key \"%s\" must be a VPN id from 1 to 4294967295; dropped", key);
            continue;
        }
        if (!json_object_is_type(name, json_type_string) || !IsUsableName(json_object_get_string(name))) {
            Complain(src, "\"netns\" \"%s\" must be a namespace name (1 to 15 characters); dropped", key);
            continue;
        }
        s.netns[static_cast<uint32_t>(id)] = json_object_get_string(name);
    }
}

void ReadDhcpv6Interfaces(const std::string &src, json_object *value, Settings &s)
{
    if (!json_object_is_type(value, json_type_array)) {
        Complain(src, "\"dhcpv6Interfaces\" must be an array of interface names; using none");
        return;
    }
    size_t count = json_object_array_length(value);
    for (size_t i = 0; i < count; i++) {
        json_object *entry = json_object_array_get_idx(value, i);
        if (!json_object_is_type(entry, json_type_string) || !IsUsableName(json_object_get_string(entry))) {
            Complain(src, "\"dhcpv6Interfaces\"[%zu] must be an interface name; dropped", i);
            continue;
        }
        s.dhcpv6Interfaces.emplace_back(json_object_get_string(entry));
    }
}

void ReadDocument(const std::string &src, json_object *doc, Settings &s)
{
    json_object_object_foreach(doc, key, value)
    {
        std::string k = key;
        if (k == "dhcpConf") {
            ReadPath(src, key, value, s.dhcpConf);
        } else if (k == "dhcpConfBak") {
            ReadPath(src, key, value, s.dhcpConfBak);
        } else if (k == "desiredState") {
            ReadPath(src, key, value, s.desiredState);
        } else if (k == "controlSocket") {
            // A Unix socket address holds at most 107 characters.
            std::string path = s.controlSocket;
            if (ReadPath(src, key, value, path)) {
                if (path.size() < 108 && path[0] == '/')
                    s.controlSocket = path;
                else
                    Complain(src, "\"controlSocket\" must be an absolute path of at most 107 characters; using \"%s\"",
                             s.controlSocket.c_str());
            }
        } else if (k == "controlMemory") {
            std::optional<int64_t> bytes = ReadInt(value, kMinControlMemory, kMaxControlMemory);
            if (bytes)
                s.controlMemory = *bytes;
            else
                Complain(src, "\"controlMemory\" must be a number of bytes from %lld to %lld; using %lld",
                         static_cast<long long>(kMinControlMemory), static_cast<long long>(kMaxControlMemory),
                         static_cast<long long>(kDefaultControlMemory));
        } else if (k == "lans") {
            ReadLans(src, value, s);
        } else if (k == "netns") {
            ReadNetns(src, value, s);
        } else if (k == "logLevel") {
            std::optional<int64_t> level = ReadInt(value, 1, 4);
            if (level)
                s.logLevel = static_cast<uint32_t>(*level);
            else
                Complain(src, "\"logLevel\" must be a number from 1 to 4; using %u", kDefaultLogLevel);
        } else if (k == "logTo") {
            const char *to = json_object_is_type(value, json_type_string) ? json_object_get_string(value) : "";
            if (strcmp(to, "stderr") == 0 || strcmp(to, "syslog") == 0)
                s.toSyslog = strcmp(to, "syslog") == 0;
            else
                Complain(src, "\"logTo\" must be \"stderr\" or \"syslog\"; using \"stderr\"");
        } else if (k == "dhcpv6Interfaces") {
            ReadDhcpv6Interfaces(src, value, s);
        } else {
            s.errors += src + ": unknown key \"" + k + "\" (known keys: " + kKnownKeys + ")\n";
        }
    }
}

Settings LoadFile();

Settings Load()
{
    try {
        return LoadFile();
    } catch (const std::bad_alloc &) {
        fprintf(stderr, "%skqhost: out of memory while reading the settings; using the defaults\n",
                kqhost::JournalPrefix(LOG_WARNING).c_str());
        return Settings();
    }
}

Settings LoadFile()
{
    Settings s;
    const char *path = getenv("KQ_HOST_CONFIG");
    if (path == nullptr || path[0] == '\0')
        return s;
    std::string src = path;
    std::string text;
    int ret = ReadSmallFile(path, kMaxSettingsFile, text);
    if (ret < 0) {
        Complain(src, "cannot read the settings (%s); using the defaults", strerror(-ret));
        return s;
    }
    s.source = src;
    json_tokener *tok = json_tokener_new();
    if (tok == nullptr) {
        Complain(src, "out of memory; using the defaults");
        return s;
    }
    json_object *doc = json_tokener_parse_ex(tok, text.c_str(), static_cast<int>(text.size()));
    enum json_tokener_error err = json_tokener_get_error(tok);
    if (doc != nullptr && err == json_tokener_success && tok->char_offset < static_cast<int>(text.size())) {
        // Only white space may follow the document.
        for (size_t i = tok->char_offset; i < text.size(); i++)
            if (text[i] != ' ' && text[i] != '\n' && text[i] != '\t' && text[i] != '\r')
                err = json_tokener_error_parse_unexpected;
    }
    if (doc == nullptr || err != json_tokener_success) {
        Complain(src, "not valid JSON (%s); using the defaults",
                 doc == nullptr && err == json_tokener_continue ? "unexpected end of file"
                                                                : json_tokener_error_desc(err));
    } else if (!json_object_is_type(doc, json_type_object)) {
        Complain(src, "the settings must be a JSON object; using the defaults");
    } else {
        ReadDocument(src, doc, s);
    }
    json_object_put(doc);
    json_tokener_free(tok);
    return s;
}

void Publish(Settings &&s)
{
    sg_Settings = std::move(s);
    snprintf(sg_DhcpConfPath, sizeof(sg_DhcpConfPath), "%s", sg_Settings.dhcpConf.c_str());
    snprintf(sg_DhcpConfBakPath, sizeof(sg_DhcpConfBakPath), "%s", sg_Settings.dhcpConfBak.c_str());
    std::string desired = sg_Settings.desiredState;
    if (desired.empty()) {
        const size_t slash = sg_Settings.dhcpConf.rfind('/');
        desired = (slash == std::string::npos ? std::string() : sg_Settings.dhcpConf.substr(0, slash + 1)) +
                  kDesiredStateName;
    }
    snprintf(sg_DesiredStatePath, sizeof(sg_DesiredStatePath), "%s", desired.c_str());
    snprintf(sg_ControlSocketPath, sizeof(sg_ControlSocketPath), "%s", sg_Settings.controlSocket.c_str());
    sg_LogLevel = sg_Settings.logLevel;
    sg_ToSyslog = sg_Settings.toSyslog;
    sg_Errors = sg_Settings.errors;
    sg_Loaded = true;
}

// The settings, loaded on first use; call with sg_Lock held.
const Settings &Locked()
{
    if (!sg_Loaded)
        Publish(Load());
    return sg_Settings;
}

void EnsureLoaded()
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
}

}  // namespace

bool IsUsableName(const std::string &name)
{
    // Names end up in dnsmasq lines and on command lines ("ip netns exec <name>", dhclient
    // arguments): besides what the kernel refuses, nothing those read as an option, a
    // wildcard or a separator.
    if (name.empty() || name.size() > 15 || name == "." || name == ".." || name[0] == '-')
        return false;
    for (unsigned char c : name)
        if (c <= ' ' || c == 0x7F || std::string_view("/:*?[],\"'#=\\").find(c) != std::string_view::npos)
            return false;
    return true;
}

uint32_t LogLevel()
{
    static std::once_flag once;
    std::call_once(once, EnsureLoaded);
    return sg_LogLevel;
}

bool LogToSyslog()
{
    LogLevel();
    return sg_ToSyslog;
}

std::optional<uint32_t> LanVpnId(const char *ifName)
{
    if (ifName == nullptr)
        return std::nullopt;
    std::lock_guard<std::mutex> lock(sg_Lock);
    const Settings &s = Locked();
    auto it = s.lanVpnIds.find(ifName);
    if (it == s.lanVpnIds.end())
        return std::nullopt;
    return it->second;
}

std::string NetnsName(uint32_t vpnId)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    const Settings &s = Locked();
    auto it = s.netns.find(vpnId);
    return it != s.netns.end() ? it->second : "vpn" + std::to_string(vpnId);
}

uint32_t Dhcpv6InterfaceCount()
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    return static_cast<uint32_t>(Locked().dhcpv6Interfaces.size());
}

}  // namespace kqhost

using namespace kqhost;

extern "C" {

void KQ_HostReloadConfig(void)
{
    Settings fresh = Load();
    std::lock_guard<std::mutex> lock(sg_Lock);
    Publish(std::move(fresh));
}

const char *KQ_HostConfigPath(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    return Locked().source.c_str();
}

const char *KQ_HostConfigError(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
    return sg_Errors.c_str();
}

size_t KQ_HostControlMemory(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    return static_cast<size_t>(Locked().controlMemory);
}

const char *KQ_AgentPathDhcpConf(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
    return sg_DhcpConfPath;
}

const char *KQ_AgentPathDhcpConfbak(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
    return sg_DhcpConfBakPath;
}

const char *KQ_HostDesiredStatePath(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
    return sg_DesiredStatePath;
}

const char *KQ_HostControlSocketPath(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    Locked();
    return sg_ControlSocketPath;
}

uint32_t KQCtrl_IfmInterfaceGetDhcpv6Count(void)
{
    return Dhcpv6InterfaceCount();
}

size_t KQ_HostLanCount(void)
{
    std::lock_guard<std::mutex> lock(sg_Lock);
    return Locked().lans.size();
}

KQ_ERR_T KQ_HostLanAt(size_t Index, KQ_CONF_LAN *Lan)
{
    if (Lan == nullptr)
        return -EINVAL;
    std::lock_guard<std::mutex> lock(sg_Lock);
    const Settings &s = Locked();
    if (Index >= s.lans.size())
        return -ERANGE;
    memset(Lan, 0, sizeof(*Lan));
    snprintf(Lan->IfName, sizeof(Lan->IfName), "%s", s.lans[Index].ifName.c_str());
    Lan->CommConf.VpnId = s.lans[Index].vpnId;
    return 0;
}

KQ_ERR_T KQ_HostNetnsName(uint32_t VpnId, char *Buf, size_t Size)
{
    if (VpnId == 0 || Buf == nullptr || Size == 0)
        return -EINVAL;
    std::string name = NetnsName(VpnId);
    if (name.size() >= Size) {
        Buf[0] = '\0';
        return -EOVERFLOW;
    }
    memcpy(Buf, name.c_str(), name.size() + 1);
    return static_cast<KQ_ERR_T>(name.size());
}

uint32_t KQ_HostLogLevel(void)
{
    return LogLevel();
}

void KQ_HostSetLogLevel(uint32_t Level)
{
    LogLevel();
    if (Level >= 1 && Level <= 4)
        sg_LogLevel = Level;
}

}  // extern "C"
