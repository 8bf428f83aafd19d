#include "kqAgentDesired.h"

#include <errno.h>
#include <json-c/json.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "kqAgentCommon.h"
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
DesiredEntry ReadEntry(json_object *item, size_t index)
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
        entry.problem = "interfaces[" + std::to_string(index) + "]" + (where.empty() || where[0] != '.' ? ": " : "") + where;
        return entry;
    }
    entry.request = std::move(parsed.requests[0]);
    return entry;
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
    held_ = false;
    exists_ = false;
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
        if (errno == ENOENT)
            return true;  // nothing accepted yet
        exists_ = true;
        problem_ = path_ + ": cannot be read: " + strerror(errno);
        return false;
    }
    exists_ = true;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        problem_ = path_ + ": cannot be read: " + strerror(errno);
        return false;
    }
    json_tokener *tokener = json_tokener_new();
    const std::string body = text.str();
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
        DesiredEntry entry = ReadEntry(json_object_array_get_idx(items, i), i);
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
    const int result = Save(entries_, next);
    if (result == 0)
        clients_ = std::move(next);
    return result;
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
    const int result = Save(entries_, next);
    if (result == 0)
        clients_ = std::move(next);
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

int DesiredState::RecordAdd(const Request &request)
{
    if (Broken())
        return -EIO;
    // The accepted request replaces the interface's entry in place, also one that could not
    // be read: the module now runs what this request says.
    DesiredEntry entry{request.Item().ifname, ItemJson(request), request, ""};
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
        return Commit(std::move(undo));
    }
    const auto it = first_.find(entry.ifname);
    if (it == first_.end()) {
        first_.emplace(entry.ifname, entries_.size());
        entries_.push_back(std::move(entry));
        return Commit(Undo{Undo::Kind::Appended, entries_.size() - 1, {}});
    }
    Undo undo{Undo::Kind::Replaced, it->second, {}};
    undo.entries.push_back(std::move(entries_[it->second]));
    entries_[it->second] = std::move(entry);
    return Commit(std::move(undo));
}

int DesiredState::RecordDelete(const std::string &ifname)
{
    if (Broken())
        return -EIO;
    if (!Lists(ifname))
        return 0;
    if (repeated_) {
        std::vector<DesiredEntry> next;
        for (const auto &entry : entries_)
            if (entry.ifname != ifname)
                next.push_back(entry);
        Undo undo{Undo::Kind::Whole, 0, std::move(entries_)};
        entries_ = std::move(next);
        Index();
        return Commit(std::move(undo));
    }
    const size_t at = first_[ifname];
    Undo undo{Undo::Kind::Erased, at, {}};
    undo.entries.push_back(std::move(entries_[at]));
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    first_.erase(ifname);
    for (size_t i = at; i < entries_.size(); ++i)
        first_[entries_[i].ifname] = i;
    return Commit(std::move(undo));
}

int DesiredState::Commit(Undo undo)
{
    undo_.push_back(std::move(undo));
    return held_ ? 0 : SaveOrRollback();
}

int DesiredState::SaveOrRollback()
{
    const int result = Save(entries_, clients_);
    if (result < 0)
        Rollback();
    undo_.clear();
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

int DesiredState::Save(const std::vector<DesiredEntry> &entries, const std::vector<DesiredClientEntry> &clients)
{
    // One item per line: readable, and a diff shows which interface changed. Entries that
    // could not be read are kept as they were.
    size_t size = 64;
    for (const auto &entry : entries)
        size += entry.itemJson.size() + 4;
    for (const auto &client : clients)
        size += client.json.size() + 4;
    std::string text;
    text.reserve(size);
    text += "{\"interfaces\":[";
    for (size_t i = 0; i < entries.size(); ++i)
        text.append(i == 0 ? "\n  " : ",\n  ").append(entries[i].itemJson);
    text += "\n]";
    if (!clients.empty()) {
        text += ",\"clients\":[";
        for (size_t i = 0; i < clients.size(); ++i)
            text.append(i == 0 ? "\n  " : ",\n  ").append(clients[i].json);
        text += "\n]";
    }
    text += "}\n";
    // Durable: after a power cut this document is the only whole copy of the configuration.
    const int32_t written = KQ_HostWriteFile(path_.c_str(), text.c_str(), text.size(), 1);
    if (written < 0)
        return static_cast<int>(written);
    exists_ = true;
    return 0;
}

}  // namespace kqagent
