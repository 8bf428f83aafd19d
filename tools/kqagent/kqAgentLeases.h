// The lease files of dnsmasq and dhclient, read into JSON for `kqagent status`.
#pragma once

#include <json-c/json.h>

#include <string>

namespace kqagent {

// dnsmasq: one object per lease: address, expires, hwaddr (IPv4) or iaid (IPv6), hostname,
// clientId (the last two when given). The caller releases the array.
json_object *ParseDnsmasqLeases(const std::string &text);

// dhclient: the addresses of the newest lease block: IPv4 with its expire text, IPv6 with
// starts and maxLife.
json_object *ParseDhclientLeases(const std::string &text, bool ipv6);

}  // namespace kqagent
