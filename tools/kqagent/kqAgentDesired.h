// The agent's desired state: the last accepted request of every interface, kept in a JSON
// document of its own so that every restart can send the whole configuration again.
//
// Document: {"interfaces":[<item>, ...]}, each <item> a request file's "item" object, in
// the order the interfaces were first added. It is rewritten atomically, and only after
// the module accepted a request. A document that cannot be read is never overwritten:
// the operator's copy is the only one there is.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kqAgentRequests.h"

namespace kqagent {

struct DesiredEntry {
    std::string ifname;    // "" when the entry names none
    std::string itemJson;  // the item as stored, one line
    std::optional<Request> request;  // the add request built from it; empty when unreadable
    std::string problem;   // why the entry cannot be used
};

class DesiredState {
public:
    explicit DesiredState(std::string path) : path_(std::move(path)) {}

    // Reads the document. A missing file is an empty state. Returns false, with `Problem()`
    // naming the file and the fault, when the document cannot be used at all.
    bool Load();
    bool Broken() const { return !problem_.empty(); }
    const std::string &Problem() const { return problem_; }
    const std::string &Path() const { return path_; }

    const std::vector<DesiredEntry> &Entries() const { return entries_; }
    // The usable entry of an interface, or null.
    const DesiredEntry *Find(const std::string &ifname) const;
    // True when some entry, usable or not, names the interface.
    bool Lists(const std::string &ifname) const;

    // Records the accepted add (replacing the interface's entry in place) or delete, and
    // writes the document. Returns 0 or a negative errno (the document is then as before,
    // and so is this object).
    int RecordAdd(const Request &request);
    int RecordDelete(const std::string &ifname);

private:
    int Save(const std::vector<DesiredEntry> &entries);
    std::string path_;
    std::string problem_;
    std::vector<DesiredEntry> entries_;
};

// The "item" of a request, as one line of JSON.
std::string ItemJson(const Request &request);

}  // namespace kqagent
