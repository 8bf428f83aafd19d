#include "kqAgentHealth.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "kqAgentCommon.h"
#include "kqHostLinux.h"

namespace kqagent {

namespace {

unsigned PrefixLength(const sockaddr *netmask)
{
    if (netmask == nullptr)
        return 0;
    const auto *bytes = netmask->sa_family == AF_INET
                            ? reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in *>(netmask)->sin_addr)
                            : reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in6 *>(netmask)->sin6_addr);
    const size_t size = netmask->sa_family == AF_INET ? 4 : 16;
    unsigned length = 0;
    for (size_t i = 0; i < size; ++i)
        length += static_cast<unsigned>(std::popcount(bytes[i]));
    return length;
}

// Every interface of the calling thread's network namespace with its addresses; link-local
// IPv6 addresses are left out, as no pool or prefix is ever served from them.
std::optional<std::map<std::string, LinkFacts>> ReadLinks()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return std::nullopt;
    std::map<std::string, LinkFacts> links;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        LinkFacts &link = links[entry->ifa_name];
        link.exists = true;
        link.up = (entry->ifa_flags & IFF_UP) != 0;
        if (entry->ifa_addr == nullptr)
            continue;
        char text[INET6_ADDRSTRLEN] = {};
        if (entry->ifa_addr->sa_family == AF_INET) {
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr, text, sizeof(text));
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            const in6_addr &address = reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr)->sin6_addr;
            if (IN6_IS_ADDR_LINKLOCAL(&address))
                continue;
            inet_ntop(AF_INET6, &address, text, sizeof(text));
        } else {
            continue;
        }
        link.addresses.push_back(std::string(text) + "/" + std::to_string(PrefixLength(entry->ifa_netmask)));
    }
    freeifaddrs(list);
    return links;
}

// The links of a zone's namespace, read from a thread of its own that enters it, so that
// this process stays where it is. A zone whose namespace does not exist holds no interface.
std::optional<std::map<std::string, LinkFacts>> ReadZoneLinks(uint32_t zone)
{
    if (zone == 0)
        return ReadLinks();
    char name[64] = {};
    if (KQ_HostNetnsName(zone, name, sizeof(name)) < 0)
        return std::nullopt;
    const int fd = open((std::string("/run/netns/") + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? std::optional<std::map<std::string, LinkFacts>>(std::map<std::string, LinkFacts>{})
                               : std::nullopt;
    std::optional<std::map<std::string, LinkFacts>> links;
    std::thread reader([&] {
        if (setns(fd, CLONE_NEWNET) == 0)
            links = ReadLinks();
    });
    reader.join();
    close(fd);
    return links;
}

uint64_t NetnsOf(pid_t pid)
{
    struct stat info {};
    return stat(("/proc/" + std::to_string(pid) + "/ns/net").c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_ino) : 0;
}

}  // namespace

std::optional<LinkFacts> HealthReader::Link(uint32_t zone, const std::string &ifname)
{
    auto found = links_.find(zone);
    if (found == links_.end())
        found = links_.emplace(zone, ReadZoneLinks(zone)).first;
    if (!found->second)
        return std::nullopt;
    const auto link = found->second->find(ifname);
    return link != found->second->end() ? link->second : LinkFacts{};
}

std::optional<DnsmasqSockets> HealthReader::Sockets(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const uint64_t netns = NetnsOf(pid);
    if (netns == 0)
        return std::nullopt;
    auto known = socketsByNetns_.find(netns);
    if (known == socketsByNetns_.end()) {
        // /proc/<pid>/net lists every socket of the process's namespace: once per namespace.
        std::map<uint64_t, Socket> sockets;
        const struct { const char *table; unsigned port; Socket kind; } wanted[] = {
            {"udp", 67, Socket::Dhcpv4}, {"udp6", 547, Socket::Dhcpv6}, {"raw6", IPPROTO_ICMPV6, Socket::Icmpv6}};
        for (const auto &w : wanted) {
            const auto text = ReadTextFile(proc + "/net/" + w.table);
            if (!text)
                return std::nullopt;
            std::istringstream lines(*text);
            std::string line;
            std::getline(lines, line);  // the heading
            while (std::getline(lines, line)) {
                // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode
                std::istringstream fields(line);
                std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout;
                uint64_t inode = 0;
                if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode))
                    continue;
                const size_t colon = local.rfind(':');
                if (colon != std::string::npos && std::strtoul(local.c_str() + colon + 1, nullptr, 16) == w.port)
                    sockets[inode] = w.kind;
            }
        }
        known = socketsByNetns_.emplace(netns, std::move(sockets)).first;
    }
    DIR *fds = opendir((proc + "/fd").c_str());
    if (fds == nullptr)
        return std::nullopt;
    DnsmasqSockets held;
    while (const dirent *fd = readdir(fds)) {
        char target[64] = {};
        const std::string path = proc + "/fd/" + fd->d_name;
        if (readlink(path.c_str(), target, sizeof(target) - 1) <= 0 || std::strncmp(target, "socket:[", 8) != 0)
            continue;
        const auto socket = known->second.find(std::strtoull(target + 8, nullptr, 10));
        if (socket == known->second.end())
            continue;
        held.dhcpv4 = held.dhcpv4 || socket->second == Socket::Dhcpv4;
        held.dhcpv6 = held.dhcpv6 || socket->second == Socket::Dhcpv6;
        held.icmpv6 = held.icmpv6 || socket->second == Socket::Icmpv6;
    }
    closedir(fds);
    return held;
}

}  // namespace kqagent
