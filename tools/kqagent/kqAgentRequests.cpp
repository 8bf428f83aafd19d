#include "kqAgentRequests.h"

#include <json-c/json.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <utility>

#include "kqAgentChecks.h"
#include "kqAgentCommon.h"
#include "kqAgentJson.h"
#include "kqCtrlDynamic.h"

namespace kqagent {

namespace {

// The capacities of the module's records and the request's mode values.
constexpr size_t kMaxPools = KQ_DYNAMIC_MAX_IP_RANGE;
constexpr size_t kMaxDns = KQ_DYNAMIC_MAX_DNS;
constexpr size_t kMaxRelayServers = KQ_DYNAMIC_MAX_RELAY_SERVER;
constexpr uint32_t kModeOff = KQ_DHCP_OFF, kModeRelay = KQ_DHCP_RELAY, kModeServer = KQ_DHCP_SERVER;
constexpr uint32_t kDynDhcp = KQ_IPV6_DHCP, kDynSlaac = KQ_IPV6_SLAAC, kDynBoth = KQ_IPV6_BOTH;

// A refused field: where and why. Thrown inside the builder, caught once per request.
struct Refusal {
    std::string path;
    std::string reason;
};

std::string Quoted(const std::string &text) { return "\"" + text + "\""; }

std::string Join(const std::string &path, const std::string &key)
{
    return path.empty() ? key : path + "." + key;
}

std::string Index(const std::string &path, size_t i) { return path + "[" + std::to_string(i) + "]"; }

const char *TypeName(json_object *value)
{
    switch (json_object_get_type(value)) {
    case json_type_null: return "null";
    case json_type_boolean: return "a boolean";
    case json_type_double: return "a fractional number";
    case json_type_int: return "an integer";
    case json_type_object: return "an object";
    case json_type_array: return "an array";
    case json_type_string: return "a string";
    }
    return "an unknown value";
}

[[noreturn]] void WrongType(json_object *value, const std::string &path, const char *expected)
{
    throw Refusal{path, std::string("expected ") + expected + ", found " + TypeName(value)};
}

// The members of one JSON object, checked against the keys it may have.
class Fields {
public:
    Fields(json_object *object, std::string path, std::initializer_list<const char *> allowed)
        : object_(object), path_(std::move(path))
    {
        if (!json_object_is_type(object, json_type_object))
            WrongType(object, path_.empty() ? "(request)" : path_, "an object");
        json_object_object_foreach(object, key, value) {
            (void)value;
            if (std::none_of(allowed.begin(), allowed.end(),
                             [&](const char *k) { return strcmp(k, key) == 0; })) {
                std::string known;
                for (const char *k : allowed)
                    known += (known.empty() ? "" : ", ") + std::string(k);
                throw Refusal{Join(path_, key), "unknown key (known here: " + known + ")"};
            }
        }
    }

    // The value of key, or null when the key is absent. An explicit JSON null is refused
    // rather than read as absent, so a typo'd value never silently drops a setting.
    json_object *Optional(const char *key) const
    {
        json_object *value = nullptr;
        if (!json_object_object_get_ex(object_, key, &value))
            return nullptr;
        if (value == nullptr)
            throw Refusal{Path(key), "must not be null"};
        return value;
    }

    json_object *Required(const char *key, const std::string &why = "") const
    {
        json_object *value = Optional(key);
        if (value == nullptr)
            throw Refusal{Path(key), why.empty() ? "missing (required)" : "missing (" + why + ")"};
        return value;
    }

    std::string Path(const char *key) const { return Join(path_, key); }
    const std::string &Base() const { return path_; }

private:
    json_object *object_;
    std::string path_;
};

uint32_t ReadUint(json_object *value, const std::string &path, uint64_t min, uint64_t max)
{
    if (!json_object_is_type(value, json_type_int))
        WrongType(value, path, "an integer");
    errno = 0;
    const int64_t number = json_object_get_int64(value);
    if (number < 0 || static_cast<uint64_t>(number) < min || static_cast<uint64_t>(number) > max ||
        (number == INT64_MAX && errno == ERANGE))
        throw Refusal{path, std::string(json_object_to_json_string(value)) + " is out of range " +
                                std::to_string(min) + ".." + std::to_string(max)};
    return static_cast<uint32_t>(number);
}

std::string ReadString(json_object *value, const std::string &path)
{
    if (!json_object_is_type(value, json_type_string))
        WrongType(value, path, "a string");
    return std::string(json_object_get_string(value), json_object_get_string_len(value));
}

uint32_t ReadIpv4(json_object *value, const std::string &path, bool allowZero = false)
{
    const std::string text = ReadString(value, path);
    const auto address = ParseIpv4(text);
    if (!address)
        throw Refusal{path, Quoted(text) + " is not an IPv4 address"};
    if (*address == 0 && !allowZero)
        throw Refusal{path, Quoted(text) + " is not usable here (0.0.0.0)"};
    return *address;
}

std::vector<uint8_t> ReadIpv6(json_object *value, const std::string &path, bool allowUnspecified = false)
{
    const std::string text = ReadString(value, path);
    auto bytes = ParseIpv6(text);
    if (!bytes)
        throw Refusal{path, Quoted(text) + " is not an IPv6 address"};
    if (!allowUnspecified && std::all_of(bytes->begin(), bytes->end(), [](uint8_t b) { return b == 0; }))
        throw Refusal{path, Quoted(text) + " is not usable here (the unspecified address)"};
    return *bytes;
}

size_t ReadArray(json_object *value, const std::string &path, size_t min, size_t max)
{
    if (!json_object_is_type(value, json_type_array))
        WrongType(value, path, "an array");
    const size_t length = json_object_array_length(value);
    if (length < min || length > max)
        throw Refusal{path, "holds " + std::to_string(length) + " entries, allowed " +
                                std::to_string(min) + ".." + std::to_string(max)};
    return length;
}

// A mode given as its number or its name.
uint32_t ReadNamedMode(json_object *value, const std::string &path, int (*fromName)(const std::string &),
                       const char *names)
{
    if (json_object_is_type(value, json_type_string)) {
        const std::string name = ReadString(value, path);
        const int mode = fromName(name);
        if (mode == 0)
            throw Refusal{path, Quoted(name) + " is not a mode (use " + names + ")"};
        return static_cast<uint32_t>(mode);
    }
    if (!json_object_is_type(value, json_type_int))
        WrongType(value, path, (std::string("a mode: ") + names).c_str());
    return ReadUint(value, path, 1, 3);
}

uint32_t ReadDhcpMode(json_object *value, const std::string &path)
{
    return ReadNamedMode(value, path, DhcpModeFromName, "1 \"off\", 2 \"relay\", 3 \"server\"");
}

uint32_t ReadDynamicMode(json_object *value, const std::string &path)
{
    return ReadNamedMode(value, path, DynamicModeFromName, "1 \"dhcp\", 2 \"slaac\", 3 \"both\"");
}

const char *DynamicModeName(uint32_t mode)
{
    return mode == kDynDhcp ? "dhcp" : mode == kDynSlaac ? "slaac" : mode == kDynBoth ? "both" : "?";
}

bool IsContiguousMask(uint32_t mask) { return mask != 0 && ((~mask + 1) & ~mask) == 0; }

}  // namespace

// Builds the message of one request from its JSON object; every buffer the message points
// to is kept in the request's storage.
class RequestBuilder {
public:
    RequestBuilder(Request &request, std::vector<std::string> &notes, size_t index)
        : request_(request), notes_(notes), index_(index)
    {
    }

    void Build(json_object *object)
    {
        Fields fields(object, "", {"op", "item"});
        const std::string op = ReadString(fields.Required("op"), "op");
        if (op == "add")
            request_.op_ = RequestOp::Add;
        else if (op == "delete")
            request_.op_ = RequestOp::Delete;
        else
            throw Refusal{"op", Quoted(op) + " is not an operation (use \"add\" or \"delete\")"};
        request_.item_ = BuildItem(fields.Required("item"), "item");
        request_.json_ = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    }

private:
    template <class T>
    T *New()
    {
        auto object = std::make_shared<T>();
        request_.storage_.push_back(object);
        return object.get();
    }

    template <class T>
    T *NewArray(size_t count)
    {
        if (count == 0)
            return nullptr;
        std::shared_ptr<T[]> array(new T[count]());
        request_.storage_.push_back(array);
        return array.get();
    }

    char *NewString(const std::string &text)
    {
        char *copy = NewArray<char>(text.size() + 1);
        memcpy(copy, text.c_str(), text.size() + 1);
        return copy;
    }

    ProtobufCBinaryData NewBytes(const std::vector<uint8_t> &bytes)
    {
        uint8_t *copy = NewArray<uint8_t>(bytes.size());
        memcpy(copy, bytes.data(), bytes.size());
        return ProtobufCBinaryData{bytes.size(), copy};
    }

    DhcpItemV2 *BuildItem(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"ifname", "ipv4dhcpitem", "ipv6dhcpitem"});
        auto *item = New<DhcpItemV2>();
        dhcp_item_v2__init(item);

        const std::string ifnamePath = fields.Path("ifname");
        const std::string ifname = ReadString(fields.Required("ifname"), ifnamePath);
        if (!IsUsableIfName(ifname))
            throw Refusal{ifnamePath, Quoted(ifname) + " is not a usable interface name (1..15 characters, no "
                                                       "leading '-', none of / : * ? [ ] , \" ' # = \\, blanks "
                                                       "or control characters)"};
        item->ifname = NewString(ifname);

        if (json_object *v4 = fields.Optional("ipv4dhcpitem"))
            item->ipv4dhcpitem = BuildIpv4Item(v4, fields.Path("ipv4dhcpitem"));
        if (json_object *v6 = fields.Optional("ipv6dhcpitem"))
            item->ipv6dhcpitem = BuildIpv6Item(v6, fields.Path("ipv6dhcpitem"));
        return item;
    }

    Ipv4DhcpItem *BuildIpv4Item(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"mode", "dhcpserver", "dhcprelay"});
        auto *item = New<Ipv4DhcpItem>();
        ipv4_dhcp_item__init(item);
        item->mode = ReadDhcpMode(fields.Required("mode"), fields.Path("mode"));
        json_object *server = item->mode == kModeServer ? fields.Required("dhcpserver", "mode is \"server\"")
                                                        : fields.Optional("dhcpserver");
        json_object *relay = item->mode == kModeRelay ? fields.Required("dhcprelay", "mode is \"relay\"")
                                                      : fields.Optional("dhcprelay");
        if (server != nullptr)
            item->dhcpserver = BuildIpv4Server(server, fields.Path("dhcpserver"));
        if (relay != nullptr)
            item->dhcprelay = BuildIpv4Relay(relay, fields.Path("dhcprelay"));
        return item;
    }

    Ipv4DhcpServer *BuildIpv4Server(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"dhcpiprange", "netmask", "dns", "offertime", "gateway", "leasetime"});
        auto *server = New<Ipv4DhcpServer>();
        ipv4_dhcp_server__init(server);

        const std::string rangesPath = fields.Path("dhcpiprange");
        json_object *ranges = fields.Required("dhcpiprange");
        server->n_dhcpiprange = ReadArray(ranges, rangesPath, 1, kMaxPools);
        server->dhcpiprange = NewArray<Range *>(server->n_dhcpiprange);
        for (size_t i = 0; i < server->n_dhcpiprange; ++i)
            server->dhcpiprange[i] = BuildRange(json_object_array_get_idx(ranges, i), Index(rangesPath, i));

        const std::string maskPath = fields.Path("netmask");
        server->netmask = ReadIpv4(fields.Required("netmask"), maskPath, true);
        if (!IsContiguousMask(server->netmask))
            throw Refusal{maskPath, Quoted(FormatIpv4(server->netmask)) + " is not a netmask"};

        if (json_object *dns = fields.Optional("dns")) {
            const std::string dnsPath = fields.Path("dns");
            server->n_dns = ReadArray(dns, dnsPath, 0, kMaxDns);
            server->dns = NewArray<uint32_t>(server->n_dns);
            for (size_t i = 0; i < server->n_dns; ++i)
                server->dns[i] = ReadIpv4(json_object_array_get_idx(dns, i), Index(dnsPath, i));
        }
        if (json_object *offer = fields.Optional("offertime")) {
            server->has_offertime = 1;
            server->offertime = ReadUint(offer, fields.Path("offertime"), 0, UINT32_MAX);
        }
        if (json_object *gateway = fields.Optional("gateway")) {
            server->has_gateway = 1;
            server->gateway = ReadIpv4(gateway, fields.Path("gateway"));
        }
        server->leasetime = ReadUint(fields.Required("leasetime"), fields.Path("leasetime"), 1, UINT32_MAX);
        return server;
    }

    Range *BuildRange(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"begin", "len"});
        auto *range = New<Range>();
        range__init(range);
        range->begin = ReadIpv4(fields.Required("begin"), fields.Path("begin"));
        // The pool must state its size and stay inside the address space.
        range->has_len = 1;
        range->len = ReadUint(fields.Required("len"), fields.Path("len"), 1, (uint64_t{1} << 32) - range->begin);
        return range;
    }

    Ipv4DhcpRelay *BuildIpv4Relay(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"relayserver", "lanip"});
        auto *relay = New<Ipv4DhcpRelay>();
        ipv4_dhcp_relay__init(relay);
        const std::string serversPath = fields.Path("relayserver");
        json_object *servers = fields.Required("relayserver");
        relay->n_relayserver = ReadArray(servers, serversPath, 1, kMaxRelayServers);
        relay->relayserver = NewArray<uint32_t>(relay->n_relayserver);
        for (size_t i = 0; i < relay->n_relayserver; ++i)
            relay->relayserver[i] = ReadIpv4(json_object_array_get_idx(servers, i), Index(serversPath, i));
        relay->lanip = ReadIpv4(fields.Required("lanip"), fields.Path("lanip"));
        return relay;
    }

    Ipv6DhcpItem *BuildIpv6Item(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"mode", "dhcpserver", "dhcprelay"});
        auto *item = New<Ipv6DhcpItem>();
        ipv6_dhcp_item__init(item);
        item->mode = ReadDhcpMode(fields.Required("mode"), fields.Path("mode"));
        const bool serving = item->mode == kModeServer;
        json_object *server = serving ? fields.Required("dhcpserver", "mode is \"server\"")
                                      : fields.Optional("dhcpserver");
        if (server != nullptr)
            item->dhcpserver = BuildIpv6Server(server, fields.Path("dhcpserver"), serving);
        if (json_object *relay = fields.Optional("dhcprelay"))
            item->dhcprelay = BuildIpv6Relay(relay, fields.Path("dhcprelay"));
        if (item->mode == kModeRelay)
            notes_.push_back("request " + std::to_string(index_) + ": " + fields.Path("mode") +
                             ": the module relays IPv4 only; IPv6 relay mode configures nothing");
        return item;
    }

    Ipv6DhcpServer *BuildIpv6Server(json_object *object, const std::string &path, bool serving)
    {
        Fields fields(object, path,
                      {"dhcpiprange", "prefixlength", "dns", "offertime", "leasetime", "prefix",
                       "ipv6dynamicmode", "dnsdynamicmode"});
        auto *server = New<Ipv6DhcpServer>();
        ipv6_dhcp_server__init(server);

        if (json_object *ranges = fields.Optional("dhcpiprange")) {
            const std::string rangesPath = fields.Path("dhcpiprange");
            server->n_dhcpiprange = ReadArray(ranges, rangesPath, 0, kMaxPools);
            server->dhcpiprange = NewArray<Ipv6Range *>(server->n_dhcpiprange);
            for (size_t i = 0; i < server->n_dhcpiprange; ++i)
                server->dhcpiprange[i] = BuildIpv6Range(json_object_array_get_idx(ranges, i), Index(rangesPath, i));
        }
        if (json_object *length = fields.Optional("prefixlength")) {
            server->has_prefixlength = 1;
            server->prefixlength = ReadUint(length, fields.Path("prefixlength"), 1, 128);
        }
        if (json_object *dns = fields.Optional("dns")) {
            const std::string dnsPath = fields.Path("dns");
            server->n_dns = ReadArray(dns, dnsPath, 0, kMaxDns);
            server->dns = NewArray<ProtobufCBinaryData>(server->n_dns);
            for (size_t i = 0; i < server->n_dns; ++i)
                server->dns[i] = NewBytes(ReadIpv6(json_object_array_get_idx(dns, i), Index(dnsPath, i)));
        }
        if (json_object *offer = fields.Optional("offertime")) {
            server->has_offertime = 1;
            server->offertime = ReadUint(offer, fields.Path("offertime"), 0, UINT32_MAX);
        }
        if (json_object *lease = fields.Optional("leasetime")) {
            server->has_leasetime = 1;
            server->leasetime = ReadUint(lease, fields.Path("leasetime"), 0, UINT32_MAX);
        }
        if (json_object *prefix = fields.Optional("prefix")) {
            server->has_prefix = 1;
            server->prefix = NewBytes(ReadIpv6(prefix, fields.Path("prefix")));
        }
        if (json_object *mode = fields.Optional("ipv6dynamicmode")) {
            server->has_ipv6dynamicmode = 1;
            server->ipv6dynamicmode = ReadDynamicMode(mode, fields.Path("ipv6dynamicmode"));
        }
        if (json_object *mode = fields.Optional("dnsdynamicmode")) {
            server->has_dnsdynamicmode = 1;
            server->dnsdynamicmode = ReadDynamicMode(mode, fields.Path("dnsdynamicmode"));
        }
        if (serving)
            CheckIpv6ServerMode(fields, *server);
        return server;
    }

    // The four address/DNS mode pairs the module serves, and what each of them needs to
    // produce a working server.
    void CheckIpv6ServerMode(const Fields &fields, const Ipv6DhcpServer &server)
    {
        fields.Required("ipv6dynamicmode", "mode is \"server\"");
        fields.Required("dnsdynamicmode", "mode is \"server\"");
        const uint32_t address = server.ipv6dynamicmode, dns = server.dnsdynamicmode;
        const KQ_IPV6_ADDR_AUTOCONF_TYPE mode = KQCtrl_DynamicIpv6ModeOf(address, dns);
        const bool stateful = mode == KQ_IPV6_ADDR_AUTOCONF_DHCP, slaac = mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC;
        const bool stateless = mode == KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP;
        const bool both = mode == KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP;
        if (mode == KQ_IPV6_ADDR_AUTOCONF_MAX) {
            throw Refusal{fields.Base(),
                          std::string("ipv6dynamicmode \"") + DynamicModeName(address) + "\" with dnsdynamicmode \"" +
                              DynamicModeName(dns) + "\" is not served; use dhcp+dhcp (stateful DHCPv6), "
                              "slaac+dhcp (stateless DHCPv6), slaac+slaac (SLAAC) or both+slaac (SLAAC and DHCPv6)"};
        }
        const std::string why = std::string("ipv6dynamicmode \"") + DynamicModeName(address) +
                                "\" with dnsdynamicmode \"" + DynamicModeName(dns) + "\"";
        fields.Required("prefixlength", why);
        if ((stateful || both) && server.n_dhcpiprange == 0)
            throw Refusal{fields.Path("dhcpiprange"), "needs at least one range (" + why + ")"};
        if (slaac || stateless)
            fields.Required("prefix", why);
    }

    Ipv6Range *BuildIpv6Range(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"ipv6begin", "ipv6end"});
        auto *range = New<Ipv6Range>();
        ipv6_range__init(range);
        const auto begin = ReadIpv6(fields.Required("ipv6begin"), fields.Path("ipv6begin"));
        const auto end = ReadIpv6(fields.Required("ipv6end"), fields.Path("ipv6end"));
        if (memcmp(begin.data(), end.data(), 16) > 0)
            throw Refusal{path, "ipv6end " + FormatIpv6(end.data()) + " lies before ipv6begin " +
                                    FormatIpv6(begin.data())};
        range->ipv6begin = NewBytes(begin);
        range->ipv6end = NewBytes(end);
        return range;
    }

    Ipv6DhcpRelay *BuildIpv6Relay(json_object *object, const std::string &path)
    {
        Fields fields(object, path, {"relayserver", "lanip"});
        auto *relay = New<Ipv6DhcpRelay>();
        ipv6_dhcp_relay__init(relay);
        const std::string serversPath = fields.Path("relayserver");
        json_object *servers = fields.Required("relayserver");
        relay->n_relayserver = ReadArray(servers, serversPath, 1, kMaxRelayServers);
        relay->relayserver = NewArray<ProtobufCBinaryData>(relay->n_relayserver);
        for (size_t i = 0; i < relay->n_relayserver; ++i)
            relay->relayserver[i] = NewBytes(ReadIpv6(json_object_array_get_idx(servers, i), Index(serversPath, i)));
        relay->lanip = NewBytes(ReadIpv6(fields.Required("lanip"), fields.Path("lanip")));
        return relay;
    }

    Request &request_;
    std::vector<std::string> &notes_;
    size_t index_;
};

int DhcpModeFromName(const std::string &name)
{
    if (name == "off")
        return static_cast<int>(kModeOff);
    if (name == "relay")
        return static_cast<int>(kModeRelay);
    if (name == "server")
        return static_cast<int>(kModeServer);
    return 0;
}

int DynamicModeFromName(const std::string &name)
{
    if (name == "dhcp")
        return static_cast<int>(kDynDhcp);
    if (name == "slaac")
        return static_cast<int>(kDynSlaac);
    if (name == "both")
        return static_cast<int>(kDynBoth);
    return 0;
}

std::string Request::Summary() const
{
    std::string text = std::string(op_ == RequestOp::Add ? "add " : "delete ") + item_->ifname;
    std::vector<std::string> parts;
    auto modeName = [](uint32_t mode) {
        return mode == kModeServer ? "server" : mode == kModeRelay ? "relay" : "off";
    };
    if (item_->ipv4dhcpitem != nullptr)
        parts.push_back(std::string("ipv4 ") + modeName(item_->ipv4dhcpitem->mode));
    if (item_->ipv6dhcpitem != nullptr)
        parts.push_back(std::string("ipv6 ") + modeName(item_->ipv6dhcpitem->mode));
    for (size_t i = 0; i < parts.size(); ++i)
        text += (i == 0 ? " (" : ", ") + parts[i] + (i + 1 == parts.size() ? ")" : "");
    return text;
}

ParsedRequests ParseRequests(const std::string &text)
{
    ParsedRequests parsed;
    json_tokener *tokener = json_tokener_new();
    // Strict: no trailing commas or other leniencies a hand-edited file could slip through.
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_object *root = json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size()) + 1);
    const json_tokener_error status = json_tokener_get_error(tokener);
    const size_t offset = json_tokener_get_parse_end(tokener);
    json_tokener_free(tokener);
    // json-c stops after the first complete value; anything but blanks after it is a fault.
    const size_t rest = text.find_first_not_of(std::string(" \t\r\n\0", 5), std::min(offset, text.size()));
    bool trailing = root != nullptr && status == json_tokener_success && rest != std::string::npos;
    if (root == nullptr && status == json_tokener_success && !trailing) {
        parsed.error = "(file): expected an object, found null";
        return parsed;
    }
    if (root == nullptr || status != json_tokener_success || trailing) {
        const size_t end = trailing ? rest : std::min(offset, text.size());
        const size_t line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(end), '\n');
        const size_t lineStart = text.rfind('\n', end == 0 ? 0 : end - 1);
        const size_t column = end - (lineStart == std::string::npos || end == 0 ? 0 : lineStart + 1) + 1;
        // The strict tokener reads on after a complete document; say so when that is the fault.
        if (!trailing && end > 0 && end < text.size()) {
            json_tokener_error headStatus = json_tokener_success;
            json_object *head = json_tokener_parse_verbose(text.substr(0, end).c_str(), &headStatus);
            trailing = head != nullptr;
            json_object_put(head);
        }
        const size_t before = end == 0 ? std::string::npos : text.find_last_not_of(" \t\r\n", end - 1);
        const bool trailingComma = !trailing && end < text.size() && (text[end] == '}' || text[end] == ']') &&
                                   before != std::string::npos && text[before] == ',';
        parsed.error = "(file): not valid JSON near line " + std::to_string(line) + ", column " +
                       std::to_string(column) + ": " +
                       (trailing        ? "unexpected text after the document"
                        : trailingComma ? "a comma before '" + std::string(1, text[end]) + "' (no trailing commas)"
                                        : json_tokener_error_desc(status));
        json_object_put(root);
        return parsed;
    }
    std::unique_ptr<json_object, int (*)(json_object *)> guard(root, json_object_put);
    // json-c keeps the last of two equal keys; a file that says two things is refused instead.
    if (const std::string duplicate = FindDuplicateKey(text); !duplicate.empty()) {
        const size_t close = duplicate.find(']');
        if (duplicate.compare(0, 9, "requests[") == 0 && close != std::string::npos)
            parsed.error = "request " + duplicate.substr(9, close - 9) + ": " +
                           (duplicate[close + 1] == '.' ? duplicate.substr(close + 2) : "(request)" + duplicate.substr(close + 1));
        else
            parsed.error = duplicate;
        return parsed;
    }

    try {
        Fields top(root, "", {"requests"});
        json_object *requests = top.Required("requests");
        const size_t count = ReadArray(requests, "requests", 1, SIZE_MAX);
        for (size_t i = 0; i < count; ++i) {
            Request request;
            RequestBuilder builder(request, parsed.notes, i);
            try {
                builder.Build(json_object_array_get_idx(requests, i));
            } catch (const Refusal &refusal) {
                parsed.error = "request " + std::to_string(i) + ": " + refusal.path + ": " + refusal.reason;
                break;
            }
            parsed.requests.push_back(std::move(request));
        }
    } catch (const Refusal &refusal) {
        parsed.error = (refusal.path.empty() || refusal.path == "(request)" ? "(file)" : refusal.path) + ": " +
                       refusal.reason;
    }
    if (!parsed.Ok()) {
        parsed.requests.clear();
        parsed.notes.clear();
    }
    return parsed;
}

}  // namespace kqagent
