#include "kqAgentDesired.h"

#include <errno.h>
#include <json-c/json.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "kqAgentCommon.h"
#include "kqAgentProcess.h"
#include "kqHost.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

using JsonPtr = std::unique_ptr<json_object, int (*)(json_object *)>;

std::string Plain(json_object *object)
{
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// An entry through the same checks as a request file, so that what the module gets at
// start-up is exactly what it accepted before.
DesiredEntry ReadEntry(json_object *item, const std::string &at)
{
    DesiredEntry entry;
    entry.itemJson = Plain(item);
    json_object *name = nullptr;
    if (json_object_is_type(item, json_type_object) && json_object_object_get_ex(item, "ifname", &name) &&
        json_object_is_type(name, json_type_string))
        entry.ifname = json_object_get_string(name);
    ParsedRequests parsed = ParseRequests("{\"requests\":[{\"op\":\"add\",\"item\":" + entry.itemJson + "}]}");
    if (!parsed.Ok()) {
        // "request 0: item.x: why" -> "interfaces[i].x: why"
        std::string where = parsed.error;
        const std::string prefix = "request 0: item";
        if (where.compare(0, prefix.size(), prefix) == 0)
            where = where.substr(prefix.size());
        entry.problem = at + (where.empty() || where[0] != '.' ? ": " : "") + where;
        return entry;
    }
    entry.request = std::move(parsed.requests[0]);
    return entry;
}

// The whole file into text: 0, or a negative errno (-ENOENT: there is none).
int ReadWhole(const std::string &path, std::string &text)
{
    std::optional<std::string> read = ReadTextFile(path);
    if (!read)
        return -(errno != 0 ? errno : EIO);
    text = std::move(*read);
    return 0;
}

// One JSON value that is all of text, else null.
JsonPtr ParseWhole(std::string_view text)
{
    json_tokener *tokener = json_tokener_new();
    JsonPtr value(tokener == nullptr ? nullptr : json_tokener_parse_ex(tokener, text.data(), static_cast<int>(text.size())),
                  json_object_put);
    if (tokener != nullptr && (json_tokener_get_error(tokener) != json_tokener_success ||
                               json_tokener_get_parse_end(tokener) != text.size()))
        value.reset();
    json_tokener_free(tokener);
    return value;
}

std::string JsonString(const std::string &text)
{
    JsonPtr value(json_object_new_string(text.c_str()), json_object_put);
    return Plain(value.get());
}

DesiredClientEntry ReadClient(json_object *object, size_t index)
{
    DesiredClientEntry entry;
    entry.json = Plain(object);
    const std::string where = "clients[" + std::to_string(index) + "]";
    auto fail = [&](const std::string &why) {
        entry.problem = where + ": " + why;
        return entry;
    };
    if (!json_object_is_type(object, json_type_object))
        return fail("not an object");
    DesiredClient client;
    json_object_object_foreach(object, key, value)
    {
        const std::string name = key;
        if (name == "ifname" && json_object_is_type(value, json_type_string))
            client.ifname = json_object_get_string(value);
        else if (name == "family" && json_object_is_type(value, json_type_string) &&
                 (std::string(json_object_get_string(value)) == "ipv4" || std::string(json_object_get_string(value)) == "ipv6"))
            client.ipv6 = std::string(json_object_get_string(value)) == "ipv6";
        else if (name == "zone" && json_object_is_type(value, json_type_int) && json_object_get_int64(value) >= 0 &&
                 json_object_get_int64(value) <= UINT32_MAX)
            client.zone = static_cast<uint32_t>(json_object_get_int64(value));
        else if (name == "type" && json_object_is_type(value, json_type_string))
            client.type = json_object_get_string(value);
        else if (name == "rs" && json_object_is_type(value, json_type_boolean))
            client.rs = json_object_get_boolean(value);
        else
            return fail("\"" + name + "\" is unknown or of the wrong type");
    }
    json_object *family = nullptr;
    if (!IsUsableIfName(client.ifname))
        return fail("\"ifname\" is missing or not a usable interface name");
    if (!json_object_object_get_ex(object, "family", &family))
        return fail("\"family\" is missing");
    if (client.ipv6 ? client.type != "stateful" && client.type != "stateless" && client.type != "slaac"
                    : !client.type.empty() || client.rs)
        return fail(client.ipv6 ? "\"type\" is stateful, stateless or slaac" : "\"type\" and \"rs\" go with ipv6 only");
    entry.client = client;
    return entry;
}

}  // namespace

std::optional<uint32_t> ParseZone(const std::string &text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10)
        return std::nullopt;
    const unsigned long long value = std::stoull(text);
    if (value > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

std::string DesiredClient::Json() const
{
    JsonPtr object(json_object_new_object(), json_object_put);
    json_object_object_add(object.get(), "ifname", json_object_new_string(ifname.c_str()));
    json_object_object_add(object.get(), "family", json_object_new_string(Family().c_str()));
    json_object_object_add(object.get(), "zone", json_object_new_int64(zone));
    if (ipv6) {
        json_object_object_add(object.get(), "type", json_object_new_string(type.c_str()));
        json_object_object_add(object.get(), "rs", json_object_new_boolean(rs));
    }
    return Plain(object.get());
}

std::string ItemJson(const Request &request)
{
    JsonPtr whole(json_tokener_parse(request.Json().c_str()), json_object_put);
    json_object *item = nullptr;
    if (!whole || !json_object_object_get_ex(whole.get(), "item", &item))
        return "{}";
    return Plain(item);
}

bool DesiredState::Load()
{
    problem_.clear();
    entries_.clear();
    clients_.clear();
    first_.clear();
    repeated_ = false;
    undo_.clear();
    pending_.clear();
    held_ = false;
    exists_ = false;
    written_.clear();
    writtenSize_ = journalSize_ = journalChanges_ = unfollowed_ = 0;
    journalThere_ = journalOpen_ = false;
    // The journal first: a fold between the two reads then shows as a journal that follows
    // another text, whose changes the document read after it holds.
    std::string journal, body;
    const int journalRead = ReadWhole(JournalPath(), journal);
    journalThere_ = journalRead != -ENOENT;
    const int read = ReadWhole(path_, body);
    if (read == -ENOENT)
        return true;  // nothing accepted yet; a journal there follows no document
    exists_ = true;
    if (read < 0) {
        problem_ = path_ + ": cannot be read: " + strerror(-read);
        return false;
    }
    json_tokener *tokener = json_tokener_new();
    JsonPtr root(json_tokener_parse_ex(tokener, body.c_str(), static_cast<int>(body.size()) + 1), json_object_put);
    const json_tokener_error status = json_tokener_get_error(tokener);
    json_tokener_free(tokener);
    json_object *items = nullptr;
    if (!root || status != json_tokener_success) {
        problem_ = path_ + ": not valid JSON (" +
                   std::string(status != json_tokener_success ? json_tokener_error_desc(status) : "empty document") + ")";
        return false;
    }
    if (!json_object_object_get_ex(root.get(), "interfaces", &items) || !json_object_is_type(items, json_type_array)) {
        problem_ = path_ + ": not a desired-state document (no \"interfaces\" array)";
        return false;
    }
    for (size_t i = 0; i < json_object_array_length(items); ++i) {
        DesiredEntry entry = ReadEntry(json_object_array_get_idx(items, i), "interfaces[" + std::to_string(i) + "]");
        if (entry.request && Find(entry.ifname) != nullptr)
            entry = DesiredEntry{entry.ifname, entry.itemJson, std::nullopt,
                                 "interfaces[" + std::to_string(i) + "]: " + entry.ifname + " is listed twice"};
        entries_.push_back(std::move(entry));
        repeated_ = !first_.emplace(entries_.back().ifname, entries_.size() - 1).second || repeated_;
    }
    json_object *clients = nullptr;
    if (json_object_object_get_ex(root.get(), "clients", &clients)) {
        if (!json_object_is_type(clients, json_type_array)) {
            problem_ = path_ + ": \"clients\" is not an array";
            entries_.clear();
            Index();
            return false;
        }
        for (size_t i = 0; i < json_object_array_length(clients); ++i) {
            DesiredClientEntry entry = ReadClient(json_object_array_get_idx(clients, i), i);
            if (entry.client && FindClient(entry.client->ifname, entry.client->ipv6) != nullptr) {
                entry.problem = "clients[" + std::to_string(i) + "]: " + entry.client->Family() + " " +
                                entry.client->ifname + " is listed twice";
                entry.client.reset();
            }
            clients_.push_back(std::move(entry));
        }
    }
    written_ = Fingerprint(body);
    writtenSize_ = body.size();
    if (journalRead < 0 && journalThere_) {
        problem_ = JournalPath() + ": cannot be read: " + strerror(-journalRead);
    } else if (Replay(journal)) {
        return true;
    }
    entries_.clear();
    clients_.clear();
    Index();
    return false;
}

bool DesiredState::Replay(const std::string &journal)
{
    if (!journalThere_)
        return true;
    const std::string name = JournalPath();
    const size_t headerEnd = journal.find('\n');
    JsonPtr header = ParseWhole(std::string_view(journal).substr(0, headerEnd));
    json_object *after = nullptr;
    if (headerEnd == std::string::npos || !header || !json_object_object_get_ex(header.get(), "after", &after) ||
        !json_object_is_type(after, json_type_string)) {
        problem_ = name + ": line 1: not the start of a desired-state journal";
        return false;
    }
    const bool follows = written_ == json_object_get_string(after);
    size_t line = 2, at = headerEnd + 1, changes = 0;
    for (; at < journal.size(); ++line) {
        const size_t end = journal.find('\n', at);
        if (end == std::string::npos)
            break;  // cut short
        // A command's changes are one line: all of them, or none when the line is cut.
        JsonPtr command = ParseWhole(std::string_view(journal).substr(at, end - at));
        const size_t count = command && json_object_is_type(command.get(), json_type_array)
                                 ? json_object_array_length(command.get())
                                 : 0;
        bool whole = count > 0;
        for (size_t i = 0; i < count && whole; ++i) {
            json_object *change = json_object_array_get_idx(command.get(), i), *value = nullptr;
            whole = json_object_is_type(change, json_type_object) && json_object_object_length(change) == 1 &&
                    ((json_object_object_get_ex(change, "add", &value) && json_object_is_type(value, json_type_object)) ||
                     (json_object_object_get_ex(change, "delete", &value) && json_object_is_type(value, json_type_string)));
        }
        if (!whole) {
            if (end + 1 == journal.size())
                break;  // the last line, cut short and ended by chance
            if (follows) {
                problem_ = name + ": line " + std::to_string(line) + ": not a change of the desired state";
                return false;
            }
        }
        for (size_t i = 0; whole && follows && i < count; ++i) {
            json_object *change = json_object_array_get_idx(command.get(), i), *value = nullptr;
            if (json_object_object_get_ex(change, "add", &value))
                ApplyAdd(ReadEntry(value, name + " line " + std::to_string(line) + ": item"));
            else if (json_object_object_get_ex(change, "delete", &value))
                ApplyDelete(json_object_get_string(value));
        }
        changes += whole ? count : 0;
        at = end + 1;
    }
    if (!follows) {
        unfollowed_ = changes;
        return true;
    }
    journalOpen_ = at == journal.size();
    journalSize_ = journal.size();
    journalChanges_ = changes;
    return true;
}

const DesiredClient *DesiredState::FindClient(const std::string &ifname, bool ipv6) const
{
    for (const auto &entry : clients_)
        if (entry.client && entry.client->ifname == ifname && entry.client->ipv6 == ipv6)
            return &*entry.client;
    return nullptr;
}

int DesiredState::RecordClientEnable(const DesiredClient &client)
{
    if (Broken())
        return -EIO;
    const DesiredClient *current = FindClient(client.ifname, client.ipv6);
    if (current != nullptr && *current == client)
        return 0;
    std::vector<DesiredClientEntry> next;
    bool placed = false;
    for (const auto &entry : clients_) {
        const bool same = entry.client && entry.client->ifname == client.ifname && entry.client->ipv6 == client.ipv6;
        if (!same)
            next.push_back(entry);
        else if (!placed)
            next.push_back(DesiredClientEntry{client.Json(), client, ""});
        placed = placed || same;
    }
    if (!placed)
        next.push_back(DesiredClientEntry{client.Json(), client, ""});
    return ReplaceClients(std::move(next));
}

int DesiredState::RecordClientDisable(const std::string &ifname, bool ipv6)
{
    if (Broken())
        return -EIO;
    std::vector<DesiredClientEntry> next;
    for (const auto &entry : clients_)
        if (!(entry.client && entry.client->ifname == ifname && entry.client->ipv6 == ipv6))
            next.push_back(entry);
    if (next.size() == clients_.size())
        return 0;
    return ReplaceClients(std::move(next));
}

int DesiredState::ReplaceClients(std::vector<DesiredClientEntry> next)
{
    std::swap(clients_, next);
    const int result = WriteWhole();
    if (result < 0)
        std::swap(clients_, next);
    return result;
}

void DesiredState::Index()
{
    first_.clear();
    repeated_ = false;
    for (size_t i = 0; i < entries_.size(); ++i)
        repeated_ = !first_.emplace(entries_[i].ifname, i).second || repeated_;
}

const DesiredEntry *DesiredState::Find(const std::string &ifname) const
{
    if (repeated_) {
        for (const auto &entry : entries_)
            if (entry.request && entry.ifname == ifname)
                return &entry;
        return nullptr;
    }
    const auto it = first_.find(ifname);
    return it != first_.end() && entries_[it->second].request ? &entries_[it->second] : nullptr;
}

bool DesiredState::Lists(const std::string &ifname) const
{
    return first_.count(ifname) != 0;
}

DesiredState::Undo DesiredState::ApplyAdd(DesiredEntry entry)
{
    // The entry replaces the interface's entry in place, also one that could not be read.
    if (repeated_) {
        std::vector<DesiredEntry> next;
        bool placed = false;
        for (const auto &current : entries_) {
            if (current.ifname != entry.ifname)
                next.push_back(current);
            else if (!placed)
                next.push_back(entry);
            placed = placed || current.ifname == entry.ifname;
        }
        if (!placed)
            next.push_back(entry);
        Undo undo{Undo::Kind::Whole, 0, std::move(entries_)};
        entries_ = std::move(next);
        Index();
        return undo;
    }
    const auto it = first_.find(entry.ifname);
    if (it == first_.end()) {
        first_.emplace(entry.ifname, entries_.size());
        entries_.push_back(std::move(entry));
        return Undo{Undo::Kind::Appended, entries_.size() - 1, {}};
    }
    Undo undo{Undo::Kind::Replaced, it->second, {}};
    undo.entries.push_back(std::move(entries_[it->second]));
    entries_[it->second] = std::move(entry);
    return undo;
}

std::optional<DesiredState::Undo> DesiredState::ApplyDelete(const std::string &ifname)
{
    if (!Lists(ifname))
        return std::nullopt;
    if (repeated_) {
        std::vector<DesiredEntry> next;
        for (const auto &entry : entries_)
            if (entry.ifname != ifname)
                next.push_back(entry);
        Undo undo{Undo::Kind::Whole, 0, std::move(entries_)};
        entries_ = std::move(next);
        Index();
        return undo;
    }
    const size_t at = first_[ifname];
    Undo undo{Undo::Kind::Erased, at, {}};
    undo.entries.push_back(std::move(entries_[at]));
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    first_.erase(ifname);
    for (size_t i = at; i < entries_.size(); ++i)
        first_[entries_[i].ifname] = i;
    return undo;
}

int DesiredState::RecordAdd(const Request &request)
{
    if (Broken())
        return -EIO;
    // The module now runs what this request says.
    DesiredEntry entry{request.Item().ifname, ItemJson(request), request, ""};
    pending_.append(pending_.empty() ? "{\"add\":" : ",{\"add\":").append(entry.itemJson).append("}");
    return Commit(ApplyAdd(std::move(entry)));
}

int DesiredState::RecordDelete(const std::string &ifname)
{
    if (Broken())
        return -EIO;
    std::optional<Undo> undo = ApplyDelete(ifname);
    if (!undo)
        return 0;
    pending_.append(pending_.empty() ? "{\"delete\":" : ",{\"delete\":").append(JsonString(ifname)).append("}");
    return Commit(std::move(*undo));
}

int DesiredState::Commit(Undo undo)
{
    undo_.push_back(std::move(undo));
    return held_ ? 0 : SaveOrRollback();
}

int DesiredState::SaveOrRollback()
{
    // A journal longer than the document would cost each reader more than a fold costs now.
    constexpr size_t kJournalFloor = 64 * 1024;
    int result = -ENOENT;
    const std::string line = "[" + pending_ + "]\n";
    if (keepJournal_ && journalOpen_ && journalSize_ + line.size() <= std::max(kJournalFloor, writtenSize_)) {
        result = KQ_HostAppendFile(JournalPath().c_str(), line.data(), line.size(), 1);
        if (result == 0) {
            journalSize_ += line.size();
            journalChanges_ += undo_.size();
        }
        journalOpen_ = result == 0;
    }
    if (result < 0)
        result = WriteWhole();
    if (result < 0)
        Rollback();
    undo_.clear();
    pending_.clear();
    return result;
}

void DesiredState::Rollback()
{
    for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo) {
        switch (undo->kind) {
        case Undo::Kind::Replaced:
            entries_[undo->at] = std::move(undo->entries[0]);
            break;
        case Undo::Kind::Appended:
            entries_.pop_back();
            break;
        case Undo::Kind::Erased:
            entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(undo->at), std::move(undo->entries[0]));
            break;
        case Undo::Kind::Whole:
            entries_ = std::move(undo->entries);
            break;
        }
    }
    undo_.clear();
    pending_.clear();
    Index();
}

void DesiredState::Hold()
{
    held_ = true;
}

int DesiredState::Release()
{
    held_ = false;
    return undo_.empty() ? 0 : SaveOrRollback();
}

std::string DesiredState::Text() const
{
    // One item per line: readable, and a diff shows which interface changed. Entries that
    // could not be read are kept as they were.
    size_t size = 64;
    for (const auto &entry : entries_)
        size += entry.itemJson.size() + 4;
    for (const auto &client : clients_)
        size += client.json.size() + 4;
    std::string text;
    text.reserve(size);
    text += "{\"interfaces\":[";
    for (size_t i = 0; i < entries_.size(); ++i)
        text.append(i == 0 ? "\n  " : ",\n  ").append(entries_[i].itemJson);
    text += "\n]";
    if (!clients_.empty()) {
        text += ",\"clients\":[";
        for (size_t i = 0; i < clients_.size(); ++i)
            text.append(i == 0 ? "\n  " : ",\n  ").append(clients_[i].json);
        text += "\n]";
    }
    text += "}\n";
    return text;
}

int DesiredState::WriteWhole()
{
    const std::string text = Text();
    const std::string fingerprint = Fingerprint(text);
    const bool rewrite = !exists_ || fingerprint != written_;
    if (rewrite) {
        // Durable: after a power cut this document is the only whole copy of the configuration.
        const int32_t written = KQ_HostWriteFile(path_.c_str(), text.c_str(), text.size(), 1);
        if (written < 0)
            return static_cast<int>(written);
        exists_ = true;
        written_ = fingerprint;
        writtenSize_ = text.size();
    }
    if (!keepJournal_ && !journalThere_)
        return 0;
    const std::string header = "{\"journal\":1,\"after\":\"" + fingerprint + "\"}\n";
    const int32_t started = KQ_HostWriteFile(JournalPath().c_str(), header.c_str(), header.size(), 1);
    if (started < 0) {
        journalOpen_ = false;
        // A rewritten document leaves the old journal following another text: it adds
        // nothing. The same text again would take its changes once more.
        return rewrite || journalChanges_ == 0 ? 0 : static_cast<int>(started);
    }
    journalThere_ = journalOpen_ = true;
    journalSize_ = header.size();
    journalChanges_ = unfollowed_ = 0;
    return 0;
}

std::string DesiredState::UnfollowedNote() const
{
    return JournalPath() + " follows an earlier text of " + path_ + ": its " + std::to_string(unfollowed_) +
           " change(s) are left out (a rewrite cut short holds them, a document written by hand since does not)";
}

int DesiredState::Fold()
{
    if (Broken() || !exists_ || (journalChanges_ == 0 && (journalOpen_ || !journalThere_)))
        return 0;
    return WriteWhole();
}

}  // namespace kqagent
