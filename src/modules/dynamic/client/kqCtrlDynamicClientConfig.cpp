// The DHCP client side: one hand-built router solicitation, the dhclient processes of
// both families with their pid and lease files, and the exported enable and disable
// operations with the shared dhclient6 policy rule.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip6.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

// ---- Router solicitation --------------------------------------------------------------

constexpr size_t kRsBufferSize = 128;
constexpr size_t kRsPacketLen = sizeof(struct ip6_hdr) + sizeof(struct icmp6_hdr);
static_assert(kRsPacketLen == 48);
static_assert(sizeof(struct sockaddr_in6) == 28);

// The ICMPv6 checksum of exactly this solicitation over the pseudo-header
// (::, ff02::2, length 8, next header 58). Fixed on purpose: it is valid only because the
// source address stays unspecified, so any change to the packet must recompute it.
constexpr uint16_t kRsChecksum = 0x7BB8;

const char kAllRoutersText[] = "ff02::2";

// ---- dhclient processes ---------------------------------------------------------------

KQ_IPV6_ADDR_AUTOCONF_TYPE s_Ipv6AutoConfType = KQ_IPV6_ADDR_AUTOCONF_SLAAC;

constexpr size_t kCommandSize = 512;
constexpr size_t kPidFileSize = 50;
constexpr size_t kLeaseFileSize = 64;
constexpr size_t kPidTextSize = 32;

const char kDhclient4Command[] = "/sbin/dhclient -4 %s -pf %s -lf %s -nw";
const char kDhclient6StatefulCommand[] = "/sbin/dhclient -6 %s -pf %s -lf %s -nw";
const char kDhclient6StatelessCommand[] = "/sbin/dhclient -6 -S %s -pf %s -lf %s -nw";

// What differs between the IPv4 and the IPv6 client: the names the start and stop log
// under, the program tag of the pid file (also what the host checks a pid against), and
// the lease file.
struct DhclientFamily {
    const char *StartName;
    const char *StopName;
    const char *Tag;
    const char *LeaseFormat;
};

constexpr DhclientFamily kDhclientIpv4 = {
    "_KQCtrl_DynamicClientEnableIpv4", "_KQCtrl_DynamicClientDisableIpv4", "dhclient",
    KQ_DYNAMIC_CLIENT4_LEASE_FMT};
constexpr DhclientFamily kDhclientIpv6 = {
    "_KQCtrl_DynamicClientEnableIpv6", "_KQCtrl_DynamicClientDisableIpv6", "dhclient6",
    KQ_DYNAMIC_CLIENT6_LEASE_FMT};

void DhclientPidFile(const char *IfName, const char *DynamicStr, char *PidFile)
{
    // Cannot be cut: names reaching here are at most 15 characters.
    (void)KQ_SNPrintf(PidFile, kPidFileSize, KQ_DYNAMIC_CLIENT_PID_FMT, IfName, DynamicStr);
}

// Runs the client's command once more after a failed start, with the lease file set
// aside: a damaged lease file is the usual reason dhclient refuses to start.
KQ_ERR_T RetryDhclientStart(const DhclientFamily &Family, const char *Command,
                            const char *LeaseFile)
{
    char backupFile[kLeaseFileSize] = {0};
    (void)KQ_SNPrintf(backupFile, sizeof(backupFile), "%s.bak", LeaseFile);
    (void)remove(backupFile);
    int renamed = rename(LeaseFile, backupFile);
    if (renamed != 0) {
        // Reports the negated rename result (1 and the text of error 1), not errno:
        // deliberate, hosts match on this line as it stands.
        KQ_LOG_AS(Family.StartName, kq::log::Error, "rename %s to %s failed(%d:%s), remove it.\n",
                  LeaseFile, backupFile, KQ_ERR_ARGS(renamed));
        (void)remove(LeaseFile);
    }
    int ret = KQ_RTCSystem(Command);
    if (ret < 0)
        KQ_LOG_AS(Family.StartName, kq::log::Error, "%s exec failed(%d:%s)\n", Command,
                  KQ_ERR_ARGS(ret));
    return ret;
}

// The start of either client: the zone's namespace prefix, then the command.
KQ_ERR_T StartDhclient(const DhclientFamily &Family, const char *CommandFormat,
                       const char *IfName, uint32_t SecurityZoneId)
{
    char command[kCommandSize] = {0};
    char pidFile[kPidFileSize] = {0};
    char leaseFile[kLeaseFileSize] = {0};

    KQ_ERR_T prefixLen = KQ_RtcGetNetNsExecCmdPrefix(SecurityZoneId, command, sizeof(command));
    if (prefixLen < 0) {
        KQ_LOG_AS(Family.StartName, kq::log::Error, "Get net namespace cmd prefix failed(%d:%s)\n",
                  KQ_ERR_ARGS(prefixLen));
        return prefixLen;
    }
    // A host that claims more than the buffer holds cannot move the command past its end.
    size_t commandLen = static_cast<size_t>(prefixLen) < sizeof(command) - 1
                            ? static_cast<size_t>(prefixLen)
                            : sizeof(command) - 1;

    DhclientPidFile(IfName, Family.Tag, pidFile);
    (void)KQ_SNPrintf(leaseFile, sizeof(leaseFile), Family.LeaseFormat, IfName);
    // An over-long line is cut by the formatting; with names of at most 15 characters only
    // an extreme host prefix could do that.
    (void)KQ_SNPrintf(command + commandLen, sizeof(command) - commandLen, CommandFormat, IfName,
                      pidFile, leaseFile);

    int ret = KQ_RTCSystem(command);
    if (ret >= 0)
        return ret;
    KQ_LOG_AS(Family.StartName, kq::log::Error,
              "%s start failed(%d:%s), will remove %s and retry once.\n", Family.Tag,
              KQ_ERR_ARGS(ret), leaseFile);
    return RetryDhclientStart(Family, command, leaseFile);
}

// *StrictText tells whether the whole text is a pid the stop may go on to check.
KQ_ERR_T _KQCtrl_GetDynamicClientPID(const char *PidFile, pid_t *Pid, bool *StrictText)
{
    kq::File file(PidFile, "re");
    if (!file) {
        KQ_ERR_T ret = -errno;
        KQ_LOG(kq::log::Trace, "Open pid file %s failed(%d:%s)\n", PidFile, KQ_ERR_ARGS(ret));
        return ret;
    }
    // One byte more than is read, so the text always ends.
    char pidText[kPidTextSize + 1] = {0};
    // Only the read's own error may count, not one left over from earlier calls.
    errno = 0;
    size_t len = fread(pidText, 1, kPidTextSize, file.get());
    if (len == 0)
        return -errno;
    *Pid = atoi(pidText);
    *StrictText = kq::IsStrictPidText(pidText, len);
    return 0;
}

KQ_ERR_T _KQCtrl_KillDynamicClientPid(const char *IfName, const char *DynamicStr)
{
    char pidFile[kPidFileSize] = {0};
    DhclientPidFile(IfName, DynamicStr, pidFile);

    pid_t pid = 0;
    bool strictText = false;
    if (_KQCtrl_GetDynamicClientPID(pidFile, &pid, &strictText) < 0) {
        KQ_LOG(kq::log::Trace, "Dhcp client service is not exist\n");
        return 0;
    }
    if (pid == 0) {
        KQ_ERR_T ret = -errno;
        KQ_LOG(kq::log::Error, "pid %d is invalid(%d:%s)\n", pid, KQ_ERR_ARGS(ret));
        return ret;
    }
    KQ_LOG(kq::log::Trace, "Pid is %d\n", pid);

    // A stale pid may have been reused by another program: never kill on the file alone.
    // A stale file (its dhclient is gone, or the pid is someone else's now) is a client
    // that no longer runs: nothing to stop, and the file goes. A negative pid is left to
    // the host's check alone.
    if (pid > 0 && !kq::PidFileNamesItsProcess(__func__, pidFile, pid, strictText, "dhclient")) {
        (void)remove(pidFile);
        return 0;
    }
    if (!KQ_IsPIDCorrectInPIDFile(pid, IfName, DynamicStr)) {
        (void)remove(pidFile);
        KQ_LOG(kq::log::Error, "Dhcp client service is not correct, pid file error!\n");
        return -ENOENT;
    }

    KQ_ERR_T ret = KQ_KillPid(pid);
    if (ret == -ESRCH)  // already gone
        ret = 0;
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Kill pid %d failed(%d:%s)\n", pid, KQ_ERR_ARGS(ret));
        return ret;
    }
    (void)remove(pidFile);
    return ret;
}

// The stop of either client, inside the zone's namespace; the guard switches the thread
// back on every path, also in zone 0 where no switch was made.
KQ_ERR_T StopDhclient(const DhclientFamily &Family, const char *IfName, uint32_t SecurityZoneId)
{
    kq::SavedNamespace savedNamespace;
    if (SecurityZoneId != 0) {
        KQ_ERR_T ret = KQ_RtcNetNsSaveAndSwitch(SecurityZoneId, savedNamespace.out());
        if (ret < 0) {
            KQ_LOG_AS(Family.StopName, kq::log::Error, "Switch to namespace %d faile, ret = %d.\n",
                      static_cast<int>(SecurityZoneId), ret);
            return ret;
        }
    }
    KQ_ERR_T ret = _KQCtrl_KillDynamicClientPid(IfName, Family.Tag);
    if (ret < 0)
        KQ_LOG_AS(Family.StopName, kq::log::Error, "Kill %s service failed\n", Family.Tag);
    return ret;
}

KQ_ERR_T _KQCtrl_DynamicClientEnableIpv4(const char *IfName, uint32_t SecurityZoneId)
{
    return StartDhclient(kDhclientIpv4, kDhclient4Command, IfName, SecurityZoneId);
}

KQ_ERR_T _KQCtrl_DynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId)
{
    // Plain SLAAC (and any other mode) needs no DHCPv6 client at all.
    const char *commandFormat = nullptr;
    if (s_Ipv6AutoConfType == KQ_IPV6_ADDR_AUTOCONF_DHCP)
        commandFormat = kDhclient6StatefulCommand;
    else if (s_Ipv6AutoConfType == KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP)
        commandFormat = kDhclient6StatelessCommand;
    else
        return 0;
    return StartDhclient(kDhclientIpv6, commandFormat, IfName, SecurityZoneId);
}

KQ_ERR_T _KQCtrl_DynamicClientDisableIpv4(const char *IfName, uint32_t SecurityZoneId)
{
    return StopDhclient(kDhclientIpv4, IfName, SecurityZoneId);
}

KQ_ERR_T _KQCtrl_DynamicClientDisableIpv6(const char *IfName, uint32_t SecurityZoneId)
{
    return StopDhclient(kDhclientIpv6, IfName, SecurityZoneId);
}

// ---- dhclient6 policy rule ------------------------------------------------------------

// Zone 2, rule 7: the one rule shared by every interface with a DHCPv6 client.
constexpr uint8_t kDhclient6RuleZone = 2;
constexpr uint32_t kDhclient6RuleId = 7;

KQ_ERR_T _KQCtrl_AddDhclient6Policy(void)
{
    KQ_CONF_RULE rule;
    memset(&rule, 0, sizeof(rule));
    rule.OpType = KQ_CONF_RULE_OP_TYPE_INSERT;
    rule.Table = KQ_CONF_RULE_TBL_TYPE_POLICY;
    rule.Zone = kDhclient6RuleZone;
    rule.VpnId = 0xFFFFFFFFu;
    rule.Id = kDhclient6RuleId;
    rule.TimeStamp = 0;
    // UDP to the DHCPv6 client and server ports, arriving on a WAN interface, for the host.
    rule.Match.DstPortNum = 2;
    rule.Match.DstPort[0].LowerPort = 546;
    rule.Match.DstPort[0].UpperPort = 546;
    rule.Match.DstPort[1].LowerPort = 547;
    rule.Match.DstPort[1].UpperPort = 547;
    rule.Match.ProtoNum = 1;
    rule.Match.Proto[0] = IPPROTO_UDP;
    rule.Match.InPortNum = 1;
    rule.Match.InPort[0].Type = KQ_CONF_DP_IF_TYPE_WAN;
    rule.Match.InPort[0].Id = 0;
    rule.Match.OutPortNum = 1;
    rule.Match.OutPort[0].Type = KQ_CONF_DP_IF_TYPE_LOCAL;
    rule.Match.OutPort[0].Id = 0;
    rule.Actions.OutputNum = 1;
    rule.Actions.OutputArray[0].Id = 0;
    rule.Actions.OutputArray[0].Type = KQ_CONF_DP_IF_TYPE_LOCAL;

    KQ_ERR_T ret = KQ_RtcRuleConfAdd(&rule, 0, FALSE, TRUE);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "KQ_RtcRuleConfAdd failed: %s\n", strerror(-ret));
    return ret;
}

KQ_ERR_T _KQCtrl_DelDhclient6Policy(void)
{
    KQ_ERR_T ret = KQ_RtcRuleConfDel(kDhclient6RuleZone, kDhclient6RuleId, 0, 2, TRUE);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "KQ_RtcRuleConfDel failed: %s\n", strerror(-ret));
    return ret;
}

// ---- Interface names ------------------------------------------------------------------

// The name goes into pid and lease file names and onto a dhclient command line, so one
// that no interface can have is refused before anything runs; the length comes first.
KQ_ERR_T CheckClientIfName(const char *FunctionName, const char *IfName)
{
    if (IfName == nullptr) {
        KQ_LOG_AS(FunctionName, kq::log::Error, "Interface name %s is invalid\n", "(null)");
        return -EINVAL;
    }
    if (strnlen(IfName, IF_NAMESIZE) >= IF_NAMESIZE) {
        KQ_LOG_AS(FunctionName, kq::log::Error, "Interface name %s is overflow\n", IfName);
        return -EOVERFLOW;
    }
    if (!kq::IsUsableIfName(IfName)) {
        KQ_LOG_AS(FunctionName, kq::log::Error, "Interface name %s is invalid\n", IfName);
        return -EINVAL;
    }
    return 0;
}

}  // namespace

// ---- Exported operations --------------------------------------------------------------

KQ_ERR_T KQCtrl_SendOneRsPkt(const char *IfName)
{
    // The name only selects the outgoing interface (an unknown one gives scope id 0 and the
    // send is tried anyway); only a missing name is refused, as if_nametoindex needs one.
    if (IfName == nullptr) {
        KQ_LOG(kq::log::Error, "Interface name %s is invalid\n", "(null)");
        return -EINVAL;
    }

    unsigned char packet[kRsBufferSize];
    memset(packet, 0, sizeof(packet));

    kq::HostSocket sock;
    KQ_ERR_T ret = KQ_Socket(AF_INET6, SOCK_RAW, IPPROTO_RAW, sock.out());
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Create RS packet socket failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    // IPPROTO_RAW: the kernel sends the IPv6 header below as it stands.
    struct in6_addr allRouters;
    (void)inet_pton(AF_INET6, kAllRoutersText, &allRouters);

    struct ip6_hdr ip6Header;
    memset(&ip6Header, 0, sizeof(ip6Header));
    ip6Header.ip6_flow = htonl(6u << 28);  // version 6, class 0, label 0
    ip6Header.ip6_plen = htons(sizeof(struct icmp6_hdr));
    ip6Header.ip6_nxt = IPPROTO_ICMPV6;
    ip6Header.ip6_hlim = 255;
    ip6Header.ip6_dst = allRouters;  // source stays ::, which the fixed checksum relies on

    struct icmp6_hdr icmp6Header;
    memset(&icmp6Header, 0, sizeof(icmp6Header));
    icmp6Header.icmp6_type = ND_ROUTER_SOLICIT;
    icmp6Header.icmp6_code = 0;
    icmp6Header.icmp6_cksum = htons(kRsChecksum);

    memcpy(packet, &ip6Header, sizeof(ip6Header));
    memcpy(packet + sizeof(ip6Header), &icmp6Header, sizeof(icmp6Header));

    struct sockaddr_in6 destination;
    memset(&destination, 0, sizeof(destination));
    destination.sin6_family = AF_INET6;
    destination.sin6_addr = allRouters;
    destination.sin6_scope_id = if_nametoindex(IfName);

    KQ_LEN_ERR_T sent = KQ_SendTo(sock.get(), packet, kRsPacketLen, 0,
                                  reinterpret_cast<const struct sockaddr *>(&destination),
                                  sizeof(destination));
    if (sent < 0) {
        KQ_LOG(kq::log::Error, "Send RS packet failed!\n");
        return -EINVAL;
    }
    KQ_LOG(kq::log::Notice, "Send one RS packet successful!\n");
    return 0;
}

void KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_TYPE Ipv6AutoConfType)
{
    s_Ipv6AutoConfType = Ipv6AutoConfType;
}

KQ_ERR_T KQCtrl_DynamicClientEnableIpv4(const char *IfName, uint32_t SecurityZoneId)
{
    KQ_ERR_T ret = CheckClientIfName(__func__, IfName);
    if (ret < 0)
        return ret;
    KQ_LOG(kq::log::Notice, "Enable ipv4 dhcp client on interface %s.\n", IfName);
    // Stopping first makes a second enable a restart rather than a second client.
    if (_KQCtrl_DynamicClientDisableIpv4(IfName, SecurityZoneId) < 0)
        KQ_LOG(kq::log::Trace, "dhclient ipv4 disable failed\n");
    return _KQCtrl_DynamicClientEnableIpv4(IfName, SecurityZoneId);
}

KQ_ERR_T KQCtrl_DynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId)
{
    KQ_ERR_T ret = CheckClientIfName(__func__, IfName);
    if (ret < 0)
        return ret;
    KQ_LOG(kq::log::Notice, "Enable ipv6 dhcp client on interface %s.\n", IfName);
    if (_KQCtrl_DynamicClientDisableIpv6(IfName, SecurityZoneId) < 0)
        KQ_LOG(kq::log::Trace, "dhclient ipv6 disable failed\n");
    // Added on every enable, whatever the mode; a duplicate is the host's to handle.
    if (_KQCtrl_AddDhclient6Policy() < 0)
        KQ_LOG(kq::log::Warning, "Add dhcp v6 client policy failed\n");
    return _KQCtrl_DynamicClientEnableIpv6(IfName, SecurityZoneId);
}

KQ_ERR_T KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId)
{
    KQ_ERR_T ret = CheckClientIfName(__func__, IfName);
    if (ret < 0)
        return ret;
    // A lost solicitation only delays the first advertisement; the client still starts.
    if (KQCtrl_SendOneRsPkt(IfName) < 0)
        KQ_LOG(kq::log::Error, "Send RS packet for interface %s failed.\n", IfName);
    ret = KQCtrl_DynamicClientEnableIpv6(IfName, SecurityZoneId);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Enable dynamic for interface %s failed, ret = %d.\n", IfName, ret);
    return ret;
}

KQ_ERR_T KQCtrl_DynamicClientDisableIpv4(const char *IfName, uint32_t SecurityZoneId)
{
    KQ_ERR_T ret = CheckClientIfName(__func__, IfName);
    if (ret < 0)
        return ret;
    KQ_LOG(kq::log::Notice, "Disable ipv4 dhcp client on interface %s.\n", IfName);
    return _KQCtrl_DynamicClientDisableIpv4(IfName, SecurityZoneId);
}

KQ_ERR_T KQCtrl_DynamicClientDisableIpv6(const char *IfName, uint32_t SecurityZoneId)
{
    KQ_ERR_T ret = CheckClientIfName(__func__, IfName);
    if (ret < 0)
        return ret;
    KQ_LOG(kq::log::Notice, "Disable ipv6 dhcp client on interface %s.\n", IfName);
    // The host's count decides, read once and before this interface's client stops.
    uint32_t dhcpv6Count = KQCtrl_IfmInterfaceGetDhcpv6Count();
    KQ_LOG(kq::log::Trace, "Dhcp v6 proto interface count:%u\n", dhcpv6Count);
    if (dhcpv6Count == 0 && _KQCtrl_DelDhclient6Policy() < 0)
        KQ_LOG(kq::log::Warning, "Del dhcp v6 client policy failed\n");
    return _KQCtrl_DynamicClientDisableIpv6(IfName, SecurityZoneId);
}
