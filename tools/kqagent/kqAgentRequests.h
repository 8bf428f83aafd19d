// Request files of kqagent: JSON text -> validated DhcpItemV2 messages.
//
// The whole file is checked before anything is built for the module, so a file with one bad
// request applies nothing. Every refusal names the request, the field path and the reason.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kqDhcp.pb-c.h"

namespace kqagent {

enum class RequestOp { Add, Delete };

// One request and the message it built. The message's strings, bytes, arrays and
// sub-messages are owned by the request (shared storage: copies stay valid).
class Request {
public:
    RequestOp Op() const { return op_; }
    const DhcpItemV2 &Item() const { return *item_; }
    // A one-line summary for progress output: "add lan1 (ipv4 server, ipv6 server)".
    std::string Summary() const;
    // The request as it stood in the file, on one line.
    const std::string &Json() const { return json_; }

private:
    friend class RequestBuilder;
    RequestOp op_ = RequestOp::Add;
    DhcpItemV2 *item_ = nullptr;
    std::string json_;
    std::vector<std::shared_ptr<void>> storage_;
};

struct ParsedRequests {
    std::vector<Request> requests;
    std::vector<std::string> notes;  // accepted, but worth telling the user
    std::string error;               // empty when the whole file is valid
    bool Ok() const { return error.empty(); }
};

// Parses and validates a request file's text. On any fault `error` holds one message of
// the form "request <i>: <path>: <reason>" (or "<path>: <reason>" for the file itself) and
// `requests` is empty.
ParsedRequests ParseRequests(const std::string &text);

// The mode names accepted beside the numbers.
int DhcpModeFromName(const std::string &name);     // "off" 1, "relay" 2, "server" 3; 0 unknown
int DynamicModeFromName(const std::string &name);  // "dhcp" 1, "slaac" 2, "both" 3; 0 unknown

}  // namespace kqagent
