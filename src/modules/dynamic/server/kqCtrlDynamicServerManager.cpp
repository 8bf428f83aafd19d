// The per-interface dnsmasq that serves DHCP and router advertisements: the text of its
// configuration file, and starting, stopping and restarting the process.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

using kq::kCmdSize;
using kq::kConfPathSize;
using kq::kIpv6TextSize;
using kq::kPidPathSize;
using kq::kPidTextSize;

constexpr size_t confContentMaxLen = 10240;

// Appends one formatted piece at *Len with the room that is left. Once the text has
// reached the limit nothing more is written (the pointer would leave the buffer); the
// length stays at or past the limit, which the caller reports as an overflow.
#define KQ_CONF_APPEND(Content, Len, Fmt, ...)                                                    \
    do {                                                                                           \
        if (*(Len) < confContentMaxLen)                                                            \
            *(Len) += KQ_SNPrintf((Content) + *(Len), confContentMaxLen - *(Len), Fmt, ##__VA_ARGS__); \
    } while (0)

// One IPv6 address as text; a text that does not fit is an overflow.
KQ_ERR_T FormatIpv6(const char *Caller, const KQ_IN6_ADDR *Addr, char (&Text)[kIpv6TextSize])
{
    memset(Text, 0, sizeof(Text));
    if (KQ_SafeStrFormatIp6Addr(Text, sizeof(Text), Addr) > sizeof(Text) - 1) {
        KQ_LOG_AS(Caller, kq::log::Warning, "Ipv6 string is overflow\n");
        return -EOVERFLOW;
    }
    return 0;
}

// "dhcp-option=option6:dns-server,[a],[b]\n", shared by the four IPv6 modes.
KQ_ERR_T AppendIpv6DnsLine(const char *Caller, uint32_t DnsNum, const KQ_IN6_ADDR *Dns, char *Content,
                           size_t *Len)
{
    KQ_CONF_APPEND(Content, Len, "dhcp-option=option6:dns-server");
    for (uint32_t i = 0; i < DnsNum; ++i) {
        char dnsText[kIpv6TextSize];
        KQ_ERR_T ret = FormatIpv6(Caller, &Dns[i], dnsText);
        if (ret < 0)
            return ret;
        KQ_CONF_APPEND(Content, Len, ",[%s]", dnsText);
    }
    KQ_CONF_APPEND(Content, Len, "\n");
    return 0;
}

void AppendRouterAdvertisement(const char *IfName, char *Content, size_t *Len)
{
    KQ_CONF_APPEND(Content, Len, "enable-ra\n");
    KQ_CONF_APPEND(Content, Len, "ra-param=%s,10\n", IfName);
}

}  // namespace

KQ_ERR_T _KQCtrl_GetDynamicServerConfPath(const char *IfName, char *ConfPath, size_t Size)
{
    if (KQ_SNPrintf(ConfPath, Size, KQ_DYNAMIC_SERVER_CONF_FMT, IfName) >= Size) {
        KQ_LOG(kq::log::Error, "dhcp conf path is overflow\n");
        return -EOVERFLOW;
    }
    return 0;
}

// ---- IPv6 blocks ----------------------------------------------------------------------

static KQ_ERR_T _KQ_SetStatefulDhcpConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf, char *FileContent,
                                        size_t *FileLen)
{
    const KQ_DHCP_IPV6_SERVER_CONF *dhcp = &DynamicServerConf->ServerIpv6Conf.DhcpConf;
    size_t len = *FileLen;
    for (uint32_t i = 0; i < dhcp->Ipv6RangeNum; ++i) {
        char startText[kIpv6TextSize];
        char endText[kIpv6TextSize];
        KQ_ERR_T ret = FormatIpv6(__func__, &dhcp->Ipv6Range[i].StartIp, startText);
        if (ret < 0)
            return ret;
        ret = FormatIpv6(__func__, &dhcp->Ipv6Range[i].EndIp, endText);
        if (ret < 0)
            return ret;
        // Comma plus blank and no interface tag, unlike the IPv4 lines: kept as it is.
        KQ_CONF_APPEND(FileContent, &len, "dhcp-range=%s, %s, %u, %u\n", startText, endText,
                       dhcp->PrefixLength, dhcp->Ipv6LeaseTime);
    }
    if (dhcp->Ipv6RangeNum != 0)
        AppendRouterAdvertisement(DynamicServerConf->IfName, FileContent, &len);
    if (dhcp->Ipv6DnsNum != 0) {
        KQ_ERR_T ret = AppendIpv6DnsLine(__func__, dhcp->Ipv6DnsNum, dhcp->Ipv6Dns, FileContent, &len);
        if (ret < 0)
            return ret;
    }
    *FileLen = len;
    return 0;
}

static KQ_ERR_T _KQ_SetStatelessDhcpConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf, char *FileContent,
                                         size_t *FileLen)
{
    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &DynamicServerConf->ServerIpv6Conf;
    size_t len = *FileLen;
    char prefixText[kIpv6TextSize];
    KQ_ERR_T ret = FormatIpv6(__func__, &ipv6->SlaacConf.Prefix, prefixText);
    if (ret < 0)
        return ret;
    KQ_CONF_APPEND(FileContent, &len, "dhcp-range=%s, ra-stateless\n", prefixText);
    if (ipv6->SlaacConf.PrefixLength != 0)
        AppendRouterAdvertisement(DynamicServerConf->IfName, FileContent, &len);
    // Stateless DHCPv6 hands out the DHCPv6 part's DNS list.
    if (ipv6->DhcpConf.Ipv6DnsNum != 0) {
        ret = AppendIpv6DnsLine(__func__, ipv6->DhcpConf.Ipv6DnsNum, ipv6->DhcpConf.Ipv6Dns, FileContent, &len);
        if (ret < 0)
            return ret;
    }
    *FileLen = len;
    return 0;
}

static KQ_ERR_T _KQ_SetSlaacConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf, char *FileContent,
                                 size_t *FileLen)
{
    const KQ_SLAAC_IPV6_SERVER_CONF *slaac = &DynamicServerConf->ServerIpv6Conf.SlaacConf;
    size_t len = *FileLen;
    char prefixText[kIpv6TextSize];
    KQ_ERR_T ret = FormatIpv6(__func__, &slaac->Prefix, prefixText);
    if (ret < 0)
        return ret;
    KQ_CONF_APPEND(FileContent, &len, "dhcp-range=%s, ra-only\n", prefixText);
    if (slaac->PrefixLength != 0)
        AppendRouterAdvertisement(DynamicServerConf->IfName, FileContent, &len);
    if (slaac->Ipv6DnsNum != 0) {
        ret = AppendIpv6DnsLine(__func__, slaac->Ipv6DnsNum, slaac->Ipv6Dns, FileContent, &len);
        if (ret < 0)
            return ret;
    }
    *FileLen = len;
    return 0;
}

static KQ_ERR_T _KQ_SetDhcpAndSlaacConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf, char *FileContent,
                                        size_t *FileLen)
{
    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &DynamicServerConf->ServerIpv6Conf;
    size_t len = *FileLen;
    for (uint32_t i = 0; i < ipv6->DhcpConf.Ipv6RangeNum; ++i) {
        char startText[kIpv6TextSize];
        char endText[kIpv6TextSize];
        KQ_ERR_T ret = FormatIpv6(__func__, &ipv6->DhcpConf.Ipv6Range[i].StartIp, startText);
        if (ret < 0)
            return ret;
        ret = FormatIpv6(__func__, &ipv6->DhcpConf.Ipv6Range[i].EndIp, endText);
        if (ret < 0)
            return ret;
        KQ_CONF_APPEND(FileContent, &len, "dhcp-range=%s, %s, slaac\n", startText, endText);
    }
    if (ipv6->DhcpConf.Ipv6RangeNum != 0)
        AppendRouterAdvertisement(DynamicServerConf->IfName, FileContent, &len);
    // With SLAAC in force the DNS list is the SLAAC part's.
    if (ipv6->SlaacConf.Ipv6DnsNum != 0) {
        KQ_ERR_T ret =
            AppendIpv6DnsLine(__func__, ipv6->SlaacConf.Ipv6DnsNum, ipv6->SlaacConf.Ipv6Dns, FileContent, &len);
        if (ret < 0)
            return ret;
    }
    *FileLen = len;
    return 0;
}

// ---- The whole file -------------------------------------------------------------------

KQ_ERR_T _KQCtrl_SetDynamicServerConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf, const char *ConfPath)
{
    // A refused dhcp.conf list leaves its length in the count, and the load still restarts
    // the record: the file gets the entries that fit, never a read past the arrays.
    KQ_CTRL_DYNAMIC_SERVER_CONF fitted;
    DynamicServerConf = _KQCtrl_FitDynamicServerConf(__func__, DynamicServerConf, &fitted);
    kq::HostBuffer buffer(confContentMaxLen);
    if (!buffer) {
        KQ_LOG(kq::log::Error, "Apply memory failed\n");
        return -ENOMEM;
    }
    char *content = buffer.get();
    size_t len = 0;
    const char *ifName = DynamicServerConf->IfName;
    const KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &DynamicServerConf->ServerIpv4Conf;

    KQ_CONF_APPEND(content, &len, "interface=%s\n", ifName);
    for (uint32_t i = 0; i < ipv4->IpRangeNum; ++i)
        KQ_CONF_APPEND(content, &len, "dhcp-range=%s,%u.%u.%u.%u,%u.%u.%u.%u,%u\n", ifName,
                       KQ_IPV4_OCTETS(ipv4->IpRange[i].StartIp), KQ_IPV4_OCTETS(ipv4->IpRange[i].EndIp),
                       ipv4->LeaseTime);
    if (ipv4->Gateway != 0 && ipv4->NetMask != 0)
        KQ_CONF_APPEND(content, &len, "dhcp-option=%s,3,%u.%u.%u.%u\ndhcp-option=%s,1,%u.%u.%u.%u\n", ifName,
                       KQ_IPV4_OCTETS(ipv4->Gateway), ifName, KQ_IPV4_OCTETS(ipv4->NetMask));
    // One option-6 line per server, by design.
    for (uint32_t i = 0; i < ipv4->DnsNum; ++i)
        KQ_CONF_APPEND(content, &len, "dhcp-option=%s,6,%u.%u.%u.%u\n", ifName, KQ_IPV4_OCTETS(ipv4->Dns[i]));
    KQ_CONF_APPEND(content, &len, "log-facility=/var/log/morvaxel.log\n");

    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &DynamicServerConf->ServerIpv6Conf;
    KQ_ERR_T ret = 0;
    switch (ipv6->DynamicMode) {
    case KQ_IPV6_ADDR_AUTOCONF_DHCP:
        ret = _KQ_SetStatefulDhcpConf(DynamicServerConf, content, &len);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Set stateful dhcpv6 mode conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
        break;
    case KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP:
        if (KQ_Ipv6AddrZero(&ipv6->SlaacConf.Prefix))
            break;
        ret = _KQ_SetStatelessDhcpConf(DynamicServerConf, content, &len);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Set stateless dhcpv6 mode conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
        break;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC:
        // Also the path of every IPv4-only record, whose prefix is zero.
        if (KQ_Ipv6AddrZero(&ipv6->SlaacConf.Prefix))
            break;
        ret = _KQ_SetSlaacConf(DynamicServerConf, content, &len);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Set slaac mode conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
        break;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP:
        ret = _KQ_SetDhcpAndSlaacConf(DynamicServerConf, content, &len);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Set dhcpv6 and slaac mode conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
        break;
    default:
        KQ_LOG(kq::log::Error, "Dynamic server mode error(%d:%s)\n", KQ_ERR_ARGS(-EINVAL));
        return -EINVAL;
    }

    // Overflow is judged once, here: the appends above never write past the buffer.
    if (len >= confContentMaxLen) {
        KQ_LOG(kq::log::Error, "dhcp server conf is overflow\n");
        return -EOVERFLOW;
    }
    ret = KQ_WriteSyncWithFilePath(ConfPath, content, len);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Write conf file %s failed(%d:%s)\n", ConfPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

// ---- Pid and configuration files ------------------------------------------------------

static bool _KQ_GetDynamicServerPidPath(const char *IfName, char (&PidPath)[kPidPathSize])
{
    memset(PidPath, 0, sizeof(PidPath));
    if (KQ_SNPrintf(PidPath, sizeof(PidPath), KQ_DYNAMIC_SERVER_PID_FMT, IfName) >= sizeof(PidPath)) {
        KQ_LOG(kq::log::Error, "pid file name is overflow\n");
        return false;
    }
    return true;
}

// *StrictText tells whether the whole text is a pid the stop may go on to check.
static KQ_ERR_T _KQCtrl_GetDynamicServerPid(const char *IfName, pid_t *Pid, bool *StrictText)
{
    char pidPath[kPidPathSize];
    if (!_KQ_GetDynamicServerPidPath(IfName, pidPath))
        return -EOVERFLOW;
    kq::File pidFile(pidPath, "re");
    if (!pidFile) {
        KQ_ERR_T ret = -errno;
        KQ_LOG(kq::log::Trace, "Open pid file %s failed(%d:%s)\n", pidPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    // One byte beyond what is read keeps the text terminated for atoi.
    char pidText[kPidTextSize + 1] = {0};
    size_t len = fread(pidText, 1, kPidTextSize, pidFile.get());
    if (len == 0)
        return -EINVAL;
    *Pid = atoi(pidText);
    *StrictText = kq::IsStrictPidText(pidText, len);
    return 0;
}

static KQ_ERR_T _KQCtrl_RemoveDynamicServerPidFile(const char *IfName)
{
    char pidPath[kPidPathSize];
    if (!_KQ_GetDynamicServerPidPath(IfName, pidPath))
        return -EOVERFLOW;
    (void)remove(pidPath);
    return 0;
}

static KQ_ERR_T _KQCtrl_RemoveDynamicServerConfFile(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DynamicServerConf == nullptr) {
        KQ_LOG(kq::log::Error, "The mode is dynamic server, but input conf is null\n");
        return -EINVAL;
    }
    char confPath[kConfPathSize] = {0};
    KQ_ERR_T ret = _KQCtrl_GetDynamicServerConfPath(DynamicServerConf->IfName, confPath, sizeof(confPath));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get dynamic server conf path failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    if (access(confPath, F_OK) != 0)
        return 0;
    if (remove(confPath) != 0) {
        ret = -errno;
        KQ_LOG(kq::log::Error, "Remove conf file %s failed(%d:%s)\n", confPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

// ---- Process control ------------------------------------------------------------------

KQ_ERR_T KQCtrl_DynamicServerStart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DynamicServerConf == nullptr) {
        KQ_LOG(kq::log::Error, "The mode is dynamic server, but input conf is null\n");
        return -EINVAL;
    }
    char confPath[kConfPathSize] = {0};
    char cmd[kCmdSize] = {0};
    size_t cmdLen = 0;

    KQ_ERR_T ret = _KQCtrl_GetDynamicServerConfPath(DynamicServerConf->IfName, confPath, sizeof(confPath));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get dynamic service conf path failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = _KQCtrl_SetDynamicServerConf(DynamicServerConf, confPath);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Set dynamic service conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    // Zone 0 is the default namespace: no prefix.
    if (DynamicServerConf->SecurityZoneId != 0) {
        ret = KQ_RtcGetNetNsExecCmdPrefix(DynamicServerConf->SecurityZoneId, cmd, sizeof(cmd));
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Get netns cmd prefix failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
        cmdLen = static_cast<size_t>(ret);
    }
    // -K authoritative, --port=0 no DNS service, -z bind only to the configured interface.
    if (cmdLen < sizeof(cmd))
        cmdLen += KQ_SNPrintf(cmd + cmdLen, sizeof(cmd) - cmdLen,
                              "/usr/sbin/dnsmasq -K --conf-file=%s --dhcp-leasefile=" KQ_DYNAMIC_SERVER_LEASE_FMT
                              " --port=0 --pid-file=" KQ_DYNAMIC_SERVER_PID_FMT " -z",
                              confPath, DynamicServerConf->IfName, DynamicServerConf->IfName);
    if (cmdLen > sizeof(cmd) - 1) {
        KQ_LOG(kq::log::Error, "Start dynamic service cmd is overflow\n");
        return -EOVERFLOW;
    }
    ret = KQ_CmdExec(cmd);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "cmd:%s exec failed\n", cmd);
        return -EINVAL;
    }
    return ret;
}

KQ_ERR_T KQCtrl_DynamicServerStop(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DynamicServerConf == nullptr) {
        KQ_LOG(kq::log::Error, "The mode is dynamic server, but input conf is null\n");
        return -EINVAL;
    }
    pid_t pid = 0;
    bool strictText = false;
    // No readable pid file means no server; its files are deliberately left in place.
    // A pid of 0 or below counts the same: kill() would signal our own process group.
    if (_KQCtrl_GetDynamicServerPid(DynamicServerConf->IfName, &pid, &strictText) < 0 || pid <= 0) {
        KQ_LOG(kq::log::Trace, "Dynamic service is not exist\n");
        return 0;
    }
    // A stale pid file (the dnsmasq died and its pid went to someone else) gets no signal
    // and is cleaned up like one whose process is already gone.
    char pidPath[kPidPathSize];
    if (_KQ_GetDynamicServerPidPath(DynamicServerConf->IfName, pidPath) &&
        kq::PidFileNamesItsProcess(__func__, pidPath, pid, strictText, "dnsmasq")) {
        KQ_LOG(kq::log::Trace, "Pid is %d\n", pid);
        // ESRCH: the process is already gone, which is what we wanted.
        if (kill(pid, SIGKILL) != 0 && errno != ESRCH) {
            KQ_ERR_T ret = -errno;
            KQ_LOG(kq::log::Error, "Kill pid %d failed(%d:%s)\n", pid, KQ_ERR_ARGS(ret));
            return ret;
        }
    }
    KQ_ERR_T ret = _KQCtrl_RemoveDynamicServerPidFile(DynamicServerConf->IfName);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Remove dynamic service pid file by ifname %s failed(%d:%s)\n",
               DynamicServerConf->IfName, KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = _KQCtrl_RemoveDynamicServerConfFile(DynamicServerConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Remove dynamic server conf file by ifname %s failed(%d:%s)\n",
               DynamicServerConf->IfName, KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T KQCtrl_DynamicServerRestart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (KQCtrl_DynamicServerStop(DynamicServerConf) < 0)
        KQ_LOG(kq::log::Error, "Stop dynamic service failed\n");
    KQ_ERR_T ret = KQCtrl_DynamicServerStart(DynamicServerConf);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Start dynamic service failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}
