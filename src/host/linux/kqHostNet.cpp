// Network namespaces, LAN and interface look-ups, and sockets of the reference host.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <string>

#include "kqHostInternal.h"

namespace {

// The calling thread's namespace, not the process's: the agent may switch one thread.
constexpr const char *kOwnNetns = "/proc/thread-self/ns/net";

// Stays in (or enters) the namespace of an interface's LAN for its lifetime.
class LanNamespace {
public:
    explicit LanNamespace(const char *ifName)
    {
        std::optional<uint32_t> vpnId = kqhost::LanVpnId(ifName);
        if (vpnId && *vpnId != 0)
            result_ = KQ_RtcNetNsSaveAndSwitch(*vpnId, &saved_);
    }
    ~LanNamespace() { KQ_RtcNetNsSwitchToDefault(&saved_); }
    LanNamespace(const LanNamespace &) = delete;
    LanNamespace &operator=(const LanNamespace &) = delete;
    KQ_ERR_T Result() const { return result_; }

private:
    int saved_ = -1;
    KQ_ERR_T result_ = 0;
};

class IfAddrs {
public:
    IfAddrs() { result_ = getifaddrs(&list_) == 0 ? 0 : -errno; }
    ~IfAddrs()
    {
        if (list_ != nullptr)
            freeifaddrs(list_);
    }
    IfAddrs(const IfAddrs &) = delete;
    IfAddrs &operator=(const IfAddrs &) = delete;
    int Result() const { return result_; }
    struct ifaddrs *begin() const { return list_; }

private:
    struct ifaddrs *list_ = nullptr;
    int result_;
};

uint8_t PrefixLen(const uint8_t *mask, size_t bytes)
{
    uint8_t bits = 0;
    for (size_t i = 0; i < bytes; i++)
        bits = static_cast<uint8_t>(bits + __builtin_popcount(mask[i]));
    return bits;
}

bool IsLinkLocal(const in6_addr &a)
{
    return a.s6_addr[0] == 0xfe && (a.s6_addr[1] & 0xc0) == 0x80;
}

template <typename Out>
KQ_ERR_T FirstAddress(const char *ifName, int family, Out take)
{
    if (ifName == nullptr)
        return -EINVAL;
    LanNamespace ns(ifName);
    if (ns.Result() < 0)
        return ns.Result();
    if (if_nametoindex(ifName) == 0)
        return -ENODEV;
    IfAddrs list;
    if (list.Result() < 0)
        return list.Result();
    // IPv6: a global address wins over a link-local one, which is taken only when the
    // interface has nothing else; IPv4: the first (the primary) address.
    const struct ifaddrs *best = nullptr;
    for (const struct ifaddrs *a = list.begin(); a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != family || strcmp(a->ifa_name, ifName) != 0)
            continue;
        if (family == AF_INET6) {
            const in6_addr &ip = reinterpret_cast<const sockaddr_in6 *>(a->ifa_addr)->sin6_addr;
            if (!IsLinkLocal(ip)) {
                best = a;
                break;
            }
            if (best == nullptr)
                best = a;
            continue;
        }
        best = a;
        break;
    }
    if (best == nullptr)
        return -EADDRNOTAVAIL;
    take(*best);
    return 0;
}

}  // namespace

extern "C" {

KQ_ERR_T KQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buf, size_t Size)
{
    if (Buf == nullptr || Size == 0)
        return -EINVAL;
    Buf[0] = '\0';
    if (VpnId == 0)
        return 0;
    try {
        std::string prefix = "ip netns exec " + kqhost::NetnsName(VpnId) + " ";
        if (prefix.size() >= Size)
            return -EOVERFLOW;
        memcpy(Buf, prefix.c_str(), prefix.size() + 1);
        return static_cast<KQ_ERR_T>(prefix.size());
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

KQ_ERR_T KQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedFd)
{
    if (SavedFd == nullptr)
        return -EINVAL;
    if (*SavedFd >= 0)
        return -EBUSY;
    *SavedFd = -1;
    if (VpnId == 0)
        return 0;
    std::string path;
    try {
        path = "/run/netns/" + kqhost::NetnsName(VpnId);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    int own = open(kOwnNetns, O_RDONLY | O_CLOEXEC);
    if (own < 0)
        return -errno;
    int target = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0) {
        int ret = -errno;
        close(own);
        kqhost::Log(3, "KQ_RtcNetNsSaveAndSwitch: cannot open %s: %s\n", path.c_str(), strerror(-ret));
        return ret;
    }
    int ret = setns(target, CLONE_NEWNET) == 0 ? 0 : -errno;
    close(target);
    if (ret < 0) {
        close(own);
        kqhost::Log(3, "KQ_RtcNetNsSaveAndSwitch: cannot enter %s: %s\n", path.c_str(), strerror(-ret));
        return ret;
    }
    *SavedFd = own;
    return 0;
}

KQ_ERR_T KQ_RtcNetNsSwitchToDefault(int *SavedFd)
{
    if (SavedFd == nullptr)
        return -EINVAL;
    if (*SavedFd < 0)
        return 0;
    int ret = setns(*SavedFd, CLONE_NEWNET) == 0 ? 0 : -errno;
    if (ret < 0)
        kqhost::Log(4, "KQ_RtcNetNsSwitchToDefault: cannot go back: %s\n", strerror(-ret));
    // The handle is released either way: the caller never retries.
    close(*SavedFd);
    *SavedFd = -1;
    return ret;
}

KQ_ERR_T KQ_RtcNetioLanGetByName(const char *IfName, KQ_CONF_LAN *Lan)
{
    if (IfName == nullptr || Lan == nullptr)
        return -EINVAL;
    std::optional<uint32_t> vpnId;
    try {
        vpnId = kqhost::LanVpnId(IfName);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    if (!vpnId)
        return -ENODEV;
    memset(Lan, 0, sizeof(*Lan));
    snprintf(Lan->IfName, sizeof(Lan->IfName), "%s", IfName);
    Lan->CommConf.VpnId = *vpnId;
    return 0;
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv4(const char *IfName, uint32_t *Ip, uint8_t *MaskLen)
{
    if (Ip == nullptr || MaskLen == nullptr)
        return -EINVAL;
    *Ip = 0;
    *MaskLen = 0;
    try {
        return FirstAddress(IfName, AF_INET, [&](const struct ifaddrs &a) {
            *Ip = ntohl(reinterpret_cast<const sockaddr_in *>(a.ifa_addr)->sin_addr.s_addr);
            if (a.ifa_netmask != nullptr)
                *MaskLen = PrefixLen(
                    reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in *>(a.ifa_netmask)->sin_addr), 4);
        });
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

KQ_ERR_T KQ_RtcNetioInterfaceGetFirstIpv6(const char *IfName, KQ_IN6_ADDR *Ip, uint8_t *PrefixLen)
{
    if (Ip == nullptr || PrefixLen == nullptr)
        return -EINVAL;
    memset(Ip, 0, sizeof(*Ip));
    *PrefixLen = 0;
    try {
        return FirstAddress(IfName, AF_INET6, [&](const struct ifaddrs &a) {
            memcpy(Ip->In6.U6Addr8, &reinterpret_cast<const sockaddr_in6 *>(a.ifa_addr)->sin6_addr, 16);
            if (a.ifa_netmask != nullptr)
                *PrefixLen = ::PrefixLen(
                    reinterpret_cast<const sockaddr_in6 *>(a.ifa_netmask)->sin6_addr.s6_addr, 16);
        });
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

KQ_ERR_T KQ_Socket(int32_t Family, int32_t Type, int32_t Protocol, KQ_SOCKET *Sock)
{
    if (Sock == nullptr)
        return -EINVAL;
    *Sock = socket(Family, Type | SOCK_CLOEXEC, Protocol);
    return *Sock >= 0 ? 0 : -errno;
}

KQ_LEN_ERR_T KQ_SendTo(KQ_SOCKET Sock, const void *Data, size_t Len, int32_t Flags,
                       const struct sockaddr *To, int32_t ToLen)
{
    if (ToLen < 0)
        return -EINVAL;
    if (kqhost::DryRunTakes("send", "", static_cast<const char *>(Data), Len))
        return static_cast<KQ_LEN_ERR_T>(Len);
    ssize_t sent = sendto(Sock, Data, Len, Flags | MSG_NOSIGNAL, To, static_cast<socklen_t>(ToLen));
    return sent >= 0 ? sent : -errno;
}

BOOL KQ_SocketIsErr(KQ_SOCKET Sock)
{
    return Sock < 0 ? TRUE : FALSE;
}

KQ_ERR_T KQ_SocketClose(KQ_SOCKET Sock)
{
    if (Sock < 0)
        return -EBADF;
    return close(Sock) == 0 ? 0 : -errno;
}

}  // extern "C"
