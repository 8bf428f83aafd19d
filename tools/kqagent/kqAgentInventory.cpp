#include "kqAgentInventory.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <string.h>

#include "kqAgentCommon.h"
#include "kqAgentJson.h"

namespace kqagent {

namespace {

// The files of a folder named as path names its interface's file, by interface name:
// path is one of the module's files for the interface named "\x01".
void Collect(const std::string &path, std::map<std::string, std::vector<std::string>> &files)
{
    const size_t slash = path.rfind('/'), mark = path.find('\x01');
    const std::string folder = path.substr(0, slash), prefix = path.substr(slash + 1, mark - slash - 1),
                      suffix = path.substr(mark + 1);
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr)
        return;
    while (const dirent *entry = readdir(dir)) {
        const std::string file = entry->d_name;
        if (file.size() <= prefix.size() + suffix.size() || file.compare(0, prefix.size(), prefix) != 0 ||
            file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        const std::string name = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
        if (name != "relay" && IsUsableIfName(name))
            files[name].push_back(folder + "/" + file);
    }
    closedir(dir);
}

constexpr double kJsonExact = 9007199254740992.0;  // 2^53

json_object *Use(size_t leases, double addresses)
{
    json_object *use = json_object_new_object();
    json_object_object_add(use, "leases", json_object_new_int64(static_cast<int64_t>(leases)));
    json_object_object_add(use, "addresses",
                           json_object_new_int64(static_cast<int64_t>(addresses < kJsonExact ? addresses : kJsonExact)));
    return use;
}

// Size of an inclusive IPv6 range, as a double (exact up to 2^53).
double Span6(const std::string &begin, const std::string &end)
{
    const auto a = ParseIpv6(begin), b = ParseIpv6(end);
    if (!a || !b)
        return 0;
    double size = 0;
    int borrow = 0;
    double scale = 1;
    for (int i = 15; i >= 0; --i) {
        int digit = (*b)[i] - (*a)[i] - borrow;
        borrow = digit < 0;
        if (digit < 0)
            digit += 256;
        size += digit * scale;
        scale *= 256;
    }
    return borrow ? 0 : size + 1;
}

}  // namespace

std::map<std::string, std::vector<std::string>> InterfaceFiles()
{
    std::map<std::string, std::vector<std::string>> files;
    const std::string mark = "\x01";
    for (const std::string &path : {ServerConfFile(mark), ServerLeaseFile(mark), ServerPidFile(mark),
                                    ClientPidFile(mark, false), ClientPidFile(mark, true),
                                    ClientLeaseFile(mark, false), ClientLeaseFile(mark, true)})
        Collect(path, files);
    return files;
}

json_object *PoolUse(json_object *ipv4Server, json_object *ipv6Server, json_object *leases)
{
    size_t leases4 = 0, leases6 = 0;
    for (size_t i = 0; leases != nullptr && i < json_object_array_length(leases); ++i)
        ++(Field(json_object_array_get_idx(leases, i), "address").find(':') == std::string::npos ? leases4 : leases6);
    json_object *use = json_object_new_object();
    if (ipv4Server != nullptr) {
        double addresses = 0;
        json_object *ranges = Member(ipv4Server, "ipRange");
        for (size_t i = 0; ranges != nullptr && i < json_object_array_length(ranges); ++i) {
            json_object *range = json_object_array_get_idx(ranges, i);
            const auto begin = ParseIpv4(Field(range, "startIp")), end = ParseIpv4(Field(range, "endIp"));
            if (begin && end && *end >= *begin)
                addresses += double(*end - *begin) + 1;
        }
        if (addresses > 0)
            json_object_object_add(use, "ipv4", Use(leases4, addresses));
    }
    if (ipv6Server != nullptr) {
        double addresses = 0;
        json_object *ranges = Member(ipv6Server, "ipv6Range");
        for (size_t i = 0; ranges != nullptr && i < json_object_array_length(ranges); ++i) {
            json_object *range = json_object_array_get_idx(ranges, i);
            addresses += Span6(Field(range, "startIpv6"), Field(range, "endIpv6"));
        }
        if (addresses > 0)
            json_object_object_add(use, "ipv6", Use(leases6, addresses));
    }
    return use;
}

}  // namespace kqagent
