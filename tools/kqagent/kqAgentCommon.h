// Small helpers shared by the parts of kqagent.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace kqagent {

// "EINVAL (-22)" for a negative errno result; "error <r>" for anything without a name.
std::string ErrnoName(int result);

// True for a name the module accepts (kqCtrlDynamicIfName.h) of 1..15 characters.
bool IsUsableIfName(const std::string &name);

// Dotted-quad text <-> the host-order number the messages carry (first octet most
// significant). Only the strict four-part form is accepted.
std::optional<uint32_t> ParseIpv4(const std::string &text);
std::string FormatIpv4(uint32_t address);

// IPv6 text <-> 16 bytes in network order.
std::optional<std::vector<uint8_t>> ParseIpv6(const std::string &text);
std::string FormatIpv6(const uint8_t *bytes);

// The module's files of an interface (the formats in kqCtrlDynamic.h).
std::string ServerConfFile(const std::string &ifname);
std::string ServerLeaseFile(const std::string &ifname);
std::string ServerPidFile(const std::string &ifname);
std::string ClientPidFile(const std::string &ifname, bool v6);
std::string ClientLeaseFile(const std::string &ifname, bool v6);

// Runs fn with the calling thread inside the zone's namespace (zone 0: where it is), and
// back; a namespace that cannot be entered is said on err and its result returned.
int InZone(uint32_t zone, std::ostream &err, const std::function<int()> &fn);

// Text from a client made safe for one log line: control characters (bytes below 0x20 and
// 0x7f) as \n, \r, \t or \xHH, and '\' as \\, so that no client can end a line or write
// one that looks like the agent's own.
std::string EscapeForLog(const std::string &text);

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> ReadTextFile(const std::string &path);

}  // namespace kqagent
