#include "kqAgentLeases.h"

#include <cstdlib>
#include <sstream>

namespace kqagent {

namespace {

json_object *Str(const std::string &text) { return json_object_new_string(text.c_str()); }

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

}  // namespace

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

}  // namespace kqagent
