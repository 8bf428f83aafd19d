// The module answers with a number; these say what happened, per command, in the operator's
// terms, looking at the files where the number alone cannot tell.
#pragma once

#include <string>

#include "kqAgentRequests.h"

namespace kqagent {

struct LoadOutcome {
    bool failed;       // false: nothing was wrong, there was just nothing to restore
    std::string text;  // one line, without "kqagent: "
};

// What a load of dhcp.conf at `path` that returned `result` (< 0) means; `backup` is the
// copy the module writes beside it.
LoadOutcome DescribeLoadFailure(const std::string &path, const std::string &backup, int result);

// The backup the module keeps beside dhcp.conf at `path`: the host's when `path` is the host's
// dhcp.conf, else "<path>.bak".
std::string BackupOf(const std::string &path);

// True for a text the module's loader accepts as a document: JSON with a "dhcps" array.
bool IsDhcpConfDocument(const std::string &text);

// Why an add or delete of `ifname` was refused with `result`, as far as the number tells.
std::string DescribeRefusal(RequestOp op, const std::string &ifname, int result);

// After a refused add of an interface that is not configured: the dnsmasq file that the
// module's failed start leaves behind is removed, so nothing suggests the interface is served.
// Returns the path removed, or "".
std::string RemoveLeftoverServerFile(const std::string &ifname);

}  // namespace kqagent
