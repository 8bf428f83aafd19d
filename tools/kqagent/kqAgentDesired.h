// The agent's desired state: the last accepted request of every interface, kept in a JSON
// document of its own so that every restart can send the whole configuration again.
//
// Document: {"interfaces":[<item>, ...],"clients":[<client>, ...]}, each <item> a request
// file's "item" object, in the order the interfaces were first added, each <client>
// {"ifname":..., "family":"ipv4"|"ipv6", "zone":N} with, for ipv6, "type" and "rs". It is rewritten atomically, and only after
// the module accepted a request. A document that cannot be read is never overwritten:
// the operator's copy is the only one there is.
//
// Through the agent a command's changes of interfaces are appended to a journal beside the
// document ("<document>.journal") instead: one line, synced, where a rewrite of thousands
// of items would cost more than the change. Its first line names the document it follows
// by the fingerprint of its text ({"journal":1,"after":"<fingerprint>"}), each other line
// is one command's changes, [{"add":<item>} or {"delete":"<ifname>"}, ...], so that a
// line cut short takes none of them. The document is rewritten whole ("folded") when
// the journal grows past it, when a client changes, when the agent starts with changes in
// the journal and when it stops; the journal then starts afresh after it. A journal that
// follows another text than the document's (a document written by hand, or one folded
// while the journal was read) adds nothing; a last line cut short (a write that never
// returned) is left out and the next change folds.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kqAgentRequests.h"

namespace kqagent {

struct DesiredEntry {
    std::string ifname;    // "" when the entry names none
    std::string itemJson;  // the item as stored, one line
    std::optional<Request> request;  // the add request built from it; empty when unreadable
    std::string problem;   // why the entry cannot be used
};

// A DHCP client the operator enabled: `kqagent client enable ipv4|ipv6 IFNAME`, with the zone
// it was enabled in and, for IPv6, the address configuration type and whether a router
// solicitation goes first.
struct DesiredClient {
    std::string ifname;
    bool ipv6 = false;
    uint32_t zone = 0;
    std::string type;  // ipv6: "stateful", "stateless" or "slaac"; ipv4: ""
    bool rs = false;

    std::string Family() const { return ipv6 ? "ipv6" : "ipv4"; }
    // One line of JSON, as the document keeps it.
    std::string Json() const;
    bool operator==(const DesiredClient &other) const = default;
};

struct DesiredClientEntry {
    std::string json;                     // as stored
    std::optional<DesiredClient> client;  // empty when unreadable
    std::string problem;
};

class DesiredState {
public:
    explicit DesiredState(std::string path) : path_(std::move(path)) {}

    // Reads the document. A missing file is an empty state. Returns false, with `Problem()`
    // naming the file and the fault, when the document cannot be used at all.
    bool Load();
    // True when the last Load found a document (readable or not).
    bool Exists() const { return exists_; }
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
    // and so is this object). Between Hold and Release they change this object only, and
    // Release writes the document once for all of them: 0, or a negative errno with the
    // document and this object as they were at Hold.
    int RecordAdd(const Request &request);
    int RecordDelete(const std::string &ifname);
    void Hold();
    int Release();

    // On: interfaces' changes go to the journal (see above); off: each rewrites the document.
    void KeepJournal(bool keep) { keepJournal_ = keep; }
    // Rewrites the document when the journal holds changes or cannot take more, and starts
    // the journal afresh; 0 or a negative errno (the journal then stays as it was). Never
    // creates a document that is not there.
    int Fold();
    std::string JournalPath() const { return path_ + ".journal"; }
    // How many changes the last Load found in a journal that follows another document.
    size_t Unfollowed() const { return unfollowed_; }
    // Says so, for the log.
    std::string UnfollowedNote() const;

    const std::vector<DesiredClientEntry> &Clients() const { return clients_; }
    // The enabled client of an interface and family, or null.
    const DesiredClient *FindClient(const std::string &ifname, bool ipv6) const;
    // Records an enable (replacing the entry of the same interface and family in place) or
    // a disable, and writes the document; 0 or a negative errno as above.
    int RecordClientEnable(const DesiredClient &client);
    int RecordClientDisable(const std::string &ifname, bool ipv6);

private:
    // How to take back one change of entries_.
    struct Undo {
        enum class Kind { Replaced, Appended, Erased, Whole } kind;
        size_t at = 0;
        std::vector<DesiredEntry> entries;  // Replaced, Erased: the entry before; Whole: all of them
    };
    Undo ApplyAdd(DesiredEntry entry);
    std::optional<Undo> ApplyDelete(const std::string &ifname);  // nullopt: not listed
    // Takes the journal's changes when it follows the document; false when it cannot be read.
    bool Replay(const std::string &journal);
    std::string Text() const;
    // The document whole from this object, then a fresh journal after it.
    int WriteWhole();
    int ReplaceClients(std::vector<DesiredClientEntry> next);
    int Commit(Undo undo);
    void Rollback();
    // Writes the changes since the last write; a failed write takes back every one of them.
    int SaveOrRollback();
    void Index();
    std::string path_;
    std::string problem_;
    bool exists_ = false;
    std::vector<DesiredEntry> entries_;
    // Each interface's first entry, so that one request costs the same whatever the number
    // of interfaces; a document that lists an interface twice (written by hand) is searched.
    std::unordered_map<std::string, size_t> first_;
    bool repeated_ = false;
    bool held_ = false;
    std::vector<Undo> undo_;  // the changes since Hold, or the one being written
    std::string pending_;     // their changes, as the journal writes them
    std::vector<DesiredClientEntry> clients_;

    bool keepJournal_ = false;
    std::string written_;      // fingerprint of the document's text on disk
    size_t writtenSize_ = 0;
    bool journalThere_ = false;  // a journal file is there
    bool journalOpen_ = false;   // it follows the document and ends with a whole line
    size_t journalSize_ = 0;
    size_t journalChanges_ = 0;
    size_t unfollowed_ = 0;
};

// The zone text of a command line or document: 0..4294967295, digits only.
std::optional<uint32_t> ParseZone(const std::string &text);

// The "item" of a request, as one line of JSON.
std::string ItemJson(const Request &request);

}  // namespace kqagent
