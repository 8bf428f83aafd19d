#include "kqAgentServices.h"

#include <dlfcn.h>
#include <errno.h>
#include <json-c/json.h>

#include <cstring>
#include <memory>

#include "kqAgentCommon.h"
#include "kqAgentProcess.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

using JsonPtr = std::unique_ptr<json_object, int (*)(json_object *)>;

json_object *ProcessJson(const ProcessRecord &record)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "pid", json_object_new_int64(record.pid));
    json_object_object_add(object, "start", json_object_new_int64(static_cast<int64_t>(record.startTime)));
    json_object_object_add(object, "conf", json_object_new_string(record.conf.c_str()));
    return object;
}

std::string Field(json_object *object, const char *key)
{
    json_object *value = nullptr;
    return json_object_object_get_ex(object, key, &value) && json_object_is_type(value, json_type_string)
               ? json_object_get_string(value)
               : "";
}

std::optional<ProcessRecord> ReadProcess(json_object *object)
{
    json_object *pid = nullptr, *start = nullptr;
    if (!json_object_is_type(object, json_type_object) || !json_object_object_get_ex(object, "pid", &pid) ||
        !json_object_object_get_ex(object, "start", &start) || !json_object_is_type(pid, json_type_int) ||
        !json_object_is_type(start, json_type_int))
        return std::nullopt;
    return ProcessRecord{static_cast<pid_t>(json_object_get_int64(pid)), static_cast<uint64_t>(json_object_get_int64(start)),
                         Field(object, "conf")};
}

json_object *Member(json_object *object, const char *key)
{
    json_object *value = nullptr;
    return json_object_object_get_ex(object, key, &value) ? value : nullptr;
}

}  // namespace

const std::string &ModuleBuild()
{
    // A module of another build may lay its records out differently or write other files
    // for the same record: nothing recorded by it is taken over.
    static const std::string build = [] {
        Dl_info info{};
        std::string file;
        if (dladdr(reinterpret_cast<void *>(&KQCtrl_ConfigDynamicAdd), &info) != 0 && info.dli_fname != nullptr)
            file = ReadTextFile(info.dli_fname).value_or("");
        return Fingerprint(file) + "/" + std::to_string(sizeof(KQ_CTRL_DYNAMIC_SERVICE_CONF));
    }();
    return build;
}

std::string EncodeRecord(const KQ_CTRL_DYNAMIC_SERVICE_CONF &conf)
{
    // Most of a record is empty arrays: a run of zero bytes is written "z<count>.".
    const auto *bytes = reinterpret_cast<const unsigned char *>(&conf);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < sizeof(conf);) {
        size_t run = 0;
        while (i + run < sizeof(conf) && bytes[i + run] == 0)
            ++run;
        if (run >= 3) {
            text += "z" + std::to_string(run) + ".";
            i += run;
            continue;
        }
        text += hex[bytes[i] >> 4];
        text += hex[bytes[i] & 15];
        ++i;
    }
    return text;
}

std::optional<KQ_CTRL_DYNAMIC_SERVICE_CONF> DecodeRecord(const std::string &text)
{
    KQ_CTRL_DYNAMIC_SERVICE_CONF conf;
    memset(&conf, 0, sizeof(conf));
    auto *bytes = reinterpret_cast<unsigned char *>(&conf);
    size_t at = 0;
    auto nibble = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; };
    for (size_t i = 0; i < text.size();) {
        if (text[i] == 'z') {
            const size_t dot = text.find('.', i);
            if (dot == std::string::npos || dot == i + 1 || dot - i > 8 ||
                text.find_first_not_of("0123456789", i + 1) != dot)
                return std::nullopt;
            const size_t run = std::stoul(text.substr(i + 1, dot - i - 1));
            if (run > sizeof(conf) - at)
                return std::nullopt;
            at += run;  // already zero
            i = dot + 1;
            continue;
        }
        if (i + 1 >= text.size() || at >= sizeof(conf) || nibble(text[i]) < 0 || nibble(text[i + 1]) < 0)
            return std::nullopt;
        bytes[at++] = static_cast<unsigned char>(nibble(text[i]) << 4 | nibble(text[i + 1]));
        i += 2;
    }
    if (at != sizeof(conf) || conf.IfName[sizeof(conf.IfName) - 1] != '\0')
        return std::nullopt;
    return conf;
}

void ServiceStore::SetInterface(const std::string &ifname, InterfaceRecord record)
{
    interfaces_[ifname] = std::move(record);
    changed_.insert(ifname);
}

void ServiceStore::EraseInterface(const std::string &ifname)
{
    if (interfaces_.erase(ifname) != 0)
        changed_.insert(ifname);
}

void ServiceStore::ClearInterfaces()
{
    interfaces_.clear();
    allChanged_ = true;
}

bool ServiceStore::Load()
{
    ClearInterfaces();
    relay.reset();
    clients.clear();
    saved_.clear();
    const auto text = ReadTextFile(path_);
    if (!text)
        return true;
    saved_ = *text;
    JsonPtr root(json_tokener_parse(text->c_str()), json_object_put);
    if (!root || !json_object_is_type(root.get(), json_type_object))
        return false;
    if (Field(root.get(), "build") != ModuleBuild())
        return true;  // another module's records: none of them applies
    json_object *list = Member(root.get(), "interfaces");
    for (size_t i = 0; json_object_is_type(list, json_type_array) && i < json_object_array_length(list); ++i) {
        json_object *entry = json_object_array_get_idx(list, i);
        const std::string ifname = Field(entry, "ifname");
        if (ifname.empty())
            continue;
        InterfaceRecord record{Field(entry, "wanted"), Field(entry, "registry"), ReadProcess(Member(entry, "process"))};
        interfaces_[ifname] = std::move(record);
    }
    relay = ReadProcess(Member(root.get(), "relay"));
    list = Member(root.get(), "clients");
    for (size_t i = 0; json_object_is_type(list, json_type_array) && i < json_object_array_length(list); ++i) {
        json_object *entry = json_object_array_get_idx(list, i);
        const auto process = ReadProcess(Member(entry, "process"));
        if (!Field(entry, "key").empty() && process)
            clients[Field(entry, "key")] = ClientRecord{Field(entry, "wanted"), *process};
    }
    return true;
}

std::string ServiceStore::Text()
{
    // One interface per line, like the desired state.
    std::string text = "{\"build\":\"" + ModuleBuild() + "\",\n\"interfaces\":[";
    text.reserve(saved_.size() + 64);
    if (allChanged_) {
        for (auto printed = printed_.begin(); printed != printed_.end();)
            printed = interfaces_.count(printed->first) != 0 ? std::next(printed) : printed_.erase(printed);
    } else {
        for (const auto &ifname : changed_)
            if (interfaces_.count(ifname) == 0)
                printed_.erase(ifname);
    }
    bool first = true;
    auto printed = printed_.begin();
    for (const auto &[ifname, record] : interfaces_) {
        // Both maps hold the same names in the same order, but for those added since.
        if (printed == printed_.end() || printed->first != ifname)
            printed = printed_.emplace_hint(printed, ifname, Printed{});
        Printed &kept = printed->second;
        ++printed;
        if (kept.line.empty() || ((allChanged_ || changed_.count(ifname) != 0) && !(kept.record == record))) {
            JsonPtr entry(json_object_new_object(), json_object_put);
            json_object_object_add(entry.get(), "ifname", json_object_new_string(ifname.c_str()));
            json_object_object_add(entry.get(), "wanted", json_object_new_string(record.wanted.c_str()));
            json_object_object_add(entry.get(), "registry", json_object_new_string(record.registry.c_str()));
            if (record.server)
                json_object_object_add(entry.get(), "process", ProcessJson(*record.server));
            kept = {record, json_object_to_json_string_ext(entry.get(), JSON_C_TO_STRING_PLAIN)};
        }
        text += first ? "\n" : ",\n";
        text += kept.line;
        first = false;
    }
    changed_.clear();
    allChanged_ = false;
    text += "],\n\"clients\":[";
    first = true;
    for (const auto &[key, record] : clients) {
        JsonPtr entry(json_object_new_object(), json_object_put);
        json_object_object_add(entry.get(), "key", json_object_new_string(key.c_str()));
        json_object_object_add(entry.get(), "wanted", json_object_new_string(record.wanted.c_str()));
        json_object_object_add(entry.get(), "process", ProcessJson(record.process));
        text += std::string(first ? "\n" : ",\n") + json_object_to_json_string_ext(entry.get(), JSON_C_TO_STRING_PLAIN);
        first = false;
    }
    text += "]";
    if (relay) {
        JsonPtr process(ProcessJson(*relay), json_object_put);
        text += ",\n\"relay\":" + std::string(json_object_to_json_string_ext(process.get(), JSON_C_TO_STRING_PLAIN));
    }
    return text + "}\n";
}

int ServiceStore::Save()
{
    const std::string text = Text();
    if (text == saved_)
        return 0;
    const int32_t written = KQ_HostWriteFile(path_.c_str(), text.c_str(), text.size(), 0);
    if (written < 0)
        return static_cast<int>(written);
    saved_ = text;
    return 0;
}

}  // namespace kqagent
