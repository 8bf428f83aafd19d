// Shared pieces of the reference host's source files. Not exported from libkqhost.so.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kqHostLinux.h"

#pragma GCC visibility push(hidden)

namespace kqhost {

// ---- Settings (kqHostSettings.cpp) ----
uint32_t LogLevel();
bool LogToSyslog();
// "<N>" for syslog priority N when stderr is the journal (its lines then carry their
// priority, as sd-daemon.h's SD_ERR and friends), "" otherwise.
std::string JournalPrefix(int priority);
// VPN id of a LAN listed in the settings.
std::optional<uint32_t> LanVpnId(const char *ifName);
// Namespace name for a non-zero VPN id.
std::string NetnsName(uint32_t vpnId);
uint32_t Dhcpv6InterfaceCount();
// True for a name a Linux interface or network namespace can have that no command line or
// dnsmasq line reads as something else: 1..15 characters, no leading '-', not "." or "..",
// none of / : * ? [ ] , " ' # = \ and no white space or control character.
bool IsUsableName(const std::string &name);

// ---- The host's own log lines (kqHostLog.cpp), through the same sink as the module's ----
void Log(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// ---- Dry run (kqHostDryRun.cpp) ----
// True when a dry run is on: the effect went to its sink and must not happen.
bool DryRunTakes(const char *op, const char *subject, const char *data = nullptr, size_t len = 0);

// ---- Files (kqHostFiles.cpp) ----
// Reads a whole file of at most maxSize bytes; -errno on failure (-EFBIG above maxSize).
int ReadSmallFile(const char *path, size_t maxSize, std::string &out);

}  // namespace kqhost

#pragma GCC visibility pop
