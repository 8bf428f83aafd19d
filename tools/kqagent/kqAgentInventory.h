// Files the module and dhclient leave per interface, and how full each server's pools are:
// the parts of `kqagent status` that judge rather than list.
#pragma once

#include <json-c/json.h>

#include <map>
#include <string>
#include <vector>

namespace kqagent {

// Every per-interface file of the module's servers and of dhclient, by interface name
// (the shared relay's files are not per interface and are left out).
std::map<std::string, std::vector<std::string>> InterfaceFiles();

// {"ipv4": {"leases": n, "addresses": m}, "ipv6": {...}} for a server's dhcp.conf objects and
// its parsed dnsmasq leases; a family without a server or without pools is left out.
// Addresses beyond 2^53 are capped there (JSON numbers).
json_object *PoolUse(json_object *ipv4Server, json_object *ipv6Server, json_object *leases);

}  // namespace kqagent
