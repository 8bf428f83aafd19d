// The server half of a DhcpItemV2 request: validated and copied into a zero-filled
// KQ_CTRL_DYNAMIC_SERVER_CONF. Stops at the first fault; the caller discards the record.
#include <errno.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

// The record's arrays: a message holding more entries than these is refused, never
// truncated and never allowed to write past the array.
constexpr size_t kMaxIpRanges = KQ_DYNAMIC_MAX_IP_RANGE;
constexpr size_t kMaxDns = KQ_DYNAMIC_MAX_DNS;

// The DNS list of a DHCPv6 or SLAAC part; both parts read the same message field. The
// caller has checked the count against the array. Each instance logs as its own caller.
KQ_ERR_T Ipv6DnsFromPb(const char *Caller, const Ipv6DhcpServer *Ipv6DhcpServerPb, KQ_IN6_ADDR *Ipv6Dns,
                       uint32_t *Ipv6DnsNum)
{
    for (size_t i = 0; i < Ipv6DhcpServerPb->n_dns; ++i) {
        const ProtobufCBinaryData *dns = &Ipv6DhcpServerPb->dns[i];
        if (dns->data == nullptr || dns->len == 0) {
            KQ_LOG_AS(Caller, kq::log::Error, "Dhcp Ipv6Dns is invalid\n");
            return -EINVAL;
        }
        KQ_ERR_T ret = KQ_GetIpv6AddrFromIpv6Pb(dns, &Ipv6Dns[i]);
        if (ret < 0) {
            KQ_LOG_AS(Caller, kq::log::Error,
                      "Trans Ipv6Dns protobuf to ipv6 addr for conn reply src ipv6 addr failed\n");
            return ret;
        }
    }
    *Ipv6DnsNum = static_cast<uint32_t>(Ipv6DhcpServerPb->n_dns);
    return 0;
}

}  // namespace

static KQ_ERR_T _KQCtrl_PbToConfDynamicServerIpv4(const Ipv4DhcpServer *Ipv4DhcpServerPb,
                                                  KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (Ipv4DhcpServerPb == nullptr) {
        KQ_LOG(kq::log::Error, "Dhcp server protobuf is null\n");
        return -EINVAL;
    }
    if (Ipv4DhcpServerPb->n_dhcpiprange == 0 || Ipv4DhcpServerPb->dhcpiprange == nullptr ||
        Ipv4DhcpServerPb->n_dhcpiprange > kMaxIpRanges || Ipv4DhcpServerPb->netmask == 0 ||
        Ipv4DhcpServerPb->leasetime == 0) {
        KQ_LOG(kq::log::Error, "dhcp server v2 param is invalid\n");
        return -EINVAL;
    }

    KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &DynamicServerConf->ServerIpv4Conf;
    DynamicServerConf->NetAddrType = KQ_NET_ADDR_IPV4;
    for (size_t i = 0; i < Ipv4DhcpServerPb->n_dhcpiprange; ++i) {
        if (Ipv4DhcpServerPb->dhcpiprange[i] == nullptr) {
            KQ_LOG(kq::log::Error, "dhcp ip range is null\n");
            return -EINVAL;
        }
        KQ_PbToConfIpRange(Ipv4DhcpServerPb->dhcpiprange[i], &ipv4->IpRange[i]);
    }
    ipv4->IpRangeNum = static_cast<uint32_t>(Ipv4DhcpServerPb->n_dhcpiprange);
    ipv4->NetMask = Ipv4DhcpServerPb->netmask;

    if (Ipv4DhcpServerPb->n_dns > kMaxDns) {
        KQ_LOG(kq::log::Error, "dhcp server dns is invalid\n");
        return -EINVAL;
    }
    if (Ipv4DhcpServerPb->n_dns != 0) {
        for (size_t i = 0; i < Ipv4DhcpServerPb->n_dns; ++i) {
            if (Ipv4DhcpServerPb->dns[i] == 0) {
                KQ_LOG(kq::log::Error, "dhcp server dns is invalid\n");
                return -EINVAL;
            }
            ipv4->Dns[i] = Ipv4DhcpServerPb->dns[i];
        }
        ipv4->DnsNum = static_cast<uint32_t>(Ipv4DhcpServerPb->n_dns);
    }

    if (Ipv4DhcpServerPb->has_gateway) {
        if (Ipv4DhcpServerPb->gateway == 0) {
            KQ_LOG(kq::log::Error, "dhcp server gateway is invalid\n");
            return -EINVAL;
        }
        ipv4->Gateway = Ipv4DhcpServerPb->gateway;
    }
    ipv4->LeaseTime = Ipv4DhcpServerPb->leasetime;
    if (Ipv4DhcpServerPb->has_offertime)
        ipv4->OfferTime = Ipv4DhcpServerPb->offertime;
    return 0;
}

static KQ_ERR_T _KQCtrl_PbToConfDhcpServerIpv6(const Ipv6DhcpServer *Ipv6DhcpServerPb,
                                               KQ_DHCP_IPV6_SERVER_CONF *DhcpServerConf)
{
    if (Ipv6DhcpServerPb == nullptr) {
        KQ_LOG(kq::log::Error, "Dhcp server protobuf is null\n");
        return -EINVAL;
    }
    // Too many pools or DNS servers for the record. The IPv6 converter has no messages of
    // its own for these, so it reuses the server's wording for a malformed pool set (the
    // range messages would claim a missing range) and its own DNS wording.
    if (Ipv6DhcpServerPb->n_dhcpiprange > kMaxIpRanges) {
        KQ_LOG(kq::log::Error, "dhcp server v2 param is invalid\n");
        return -EINVAL;
    }
    for (size_t i = 0; i < Ipv6DhcpServerPb->n_dhcpiprange; ++i) {
        const Ipv6Range *range = Ipv6DhcpServerPb->dhcpiprange[i];
        if (range == nullptr) {
            KQ_LOG(kq::log::Error, "dhcp ipv6 range is null\n");
            return -EINVAL;
        }
        KQ_ERR_T ret = KQ_GetIpv6AddrFromIpv6Pb(&range->ipv6begin, &DhcpServerConf->Ipv6Range[i].StartIp);
        if (ret >= 0)
            ret = KQ_GetIpv6AddrFromIpv6Pb(&range->ipv6end, &DhcpServerConf->Ipv6Range[i].EndIp);
        if (ret < 0) {
            // The end address reports with the start address's wording on purpose: one
            // message covers the whole pool.
            KQ_LOG(kq::log::Error, "Trans start ipv6 protobuf to ipv6 addr for conn reply src ipv6 addr failed\n");
            return ret;
        }
    }
    DhcpServerConf->Ipv6RangeNum = static_cast<uint32_t>(Ipv6DhcpServerPb->n_dhcpiprange);
    if (Ipv6DhcpServerPb->has_prefixlength)
        DhcpServerConf->PrefixLength = Ipv6DhcpServerPb->prefixlength;

    if (Ipv6DhcpServerPb->n_dns > kMaxDns) {
        KQ_LOG(kq::log::Error, "Dhcp Ipv6Dns is invalid\n");
        return -EINVAL;
    }
    KQ_ERR_T ret = Ipv6DnsFromPb(__func__, Ipv6DhcpServerPb, DhcpServerConf->Ipv6Dns,
                                 &DhcpServerConf->Ipv6DnsNum);
    if (ret < 0)
        return ret;
    if (Ipv6DhcpServerPb->has_leasetime)
        DhcpServerConf->Ipv6LeaseTime = Ipv6DhcpServerPb->leasetime;
    return 0;
}

static KQ_ERR_T _KQ_PbToConfSlaacServerIpv6(const Ipv6DhcpServer *Ipv6DhcpServerPb,
                                            KQ_SLAAC_IPV6_SERVER_CONF *SlaacServerConf)
{
    if (Ipv6DhcpServerPb == nullptr) {
        KQ_LOG(kq::log::Error, "Slaac protobuf is null\n");
        return -EINVAL;
    }
    if (Ipv6DhcpServerPb->has_prefix) {
        KQ_ERR_T ret = KQ_GetIpv6AddrFromIpv6Pb(&Ipv6DhcpServerPb->prefix, &SlaacServerConf->Prefix);
        if (ret < 0) {
            KQ_LOG(kq::log::Error,
                   "Trans ipv6 prefix protobuf to ipv6 prefix for conn reply src ipv6 addr failed\n");
            return ret;
        }
    }
    if (Ipv6DhcpServerPb->has_prefixlength)
        SlaacServerConf->PrefixLength = Ipv6DhcpServerPb->prefixlength;

    // Same DNS list and same wording as the DHCPv6 part (see there).
    if (Ipv6DhcpServerPb->n_dns > kMaxDns) {
        KQ_LOG(kq::log::Error, "Dhcp Ipv6Dns is invalid\n");
        return -EINVAL;
    }
    return Ipv6DnsFromPb(__func__, Ipv6DhcpServerPb, SlaacServerConf->Ipv6Dns, &SlaacServerConf->Ipv6DnsNum);
}

static KQ_ERR_T _KQCtrl_PbToConfDynamicServerIpv6(const Ipv6DhcpServer *Ipv6DhcpServerPb,
                                                  KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (Ipv6DhcpServerPb == nullptr) {
        KQ_LOG(kq::log::Error, "Dynamic server protobuf is null\n");
        return -EINVAL;
    }
    DynamicServerConf->NetAddrType =
        static_cast<KQ_NET_ADDR_TYPE>(DynamicServerConf->NetAddrType | KQ_NET_ADDR_IPV6);

    uint32_t addrMode = Ipv6DhcpServerPb->has_ipv6dynamicmode ? Ipv6DhcpServerPb->ipv6dynamicmode : 0;
    uint32_t dnsMode = Ipv6DhcpServerPb->has_dnsdynamicmode ? Ipv6DhcpServerPb->dnsdynamicmode : 0;
    const KQ_IPV6_ADDR_AUTOCONF_TYPE mode = KQCtrl_DynamicIpv6ModeOf(addrMode, dnsMode);
    if (mode == KQ_IPV6_ADDR_AUTOCONF_MAX) {
        KQ_LOG(kq::log::Error, "Dynamic server ipv6 and dns mode error\n");
        return -EINVAL;
    }

    KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &DynamicServerConf->ServerIpv6Conf;
    ipv6->DynamicMode = mode;
    KQ_ERR_T ret = 0;
    switch (ipv6->DynamicMode) {
    case KQ_IPV6_ADDR_AUTOCONF_DHCP:
        ret = _KQCtrl_PbToConfDhcpServerIpv6(Ipv6DhcpServerPb, &ipv6->DhcpConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "Protobuf to dhcp failed\n");
        break;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC:
        ret = _KQ_PbToConfSlaacServerIpv6(Ipv6DhcpServerPb, &ipv6->SlaacConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "Protobuf to slaac failed\n");
        break;
    default:  // stateless DHCPv6, SLAAC with DHCPv6: both parts from the same message
        ret = _KQCtrl_PbToConfDhcpServerIpv6(Ipv6DhcpServerPb, &ipv6->DhcpConf);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Protobuf to dhcp server failed\n");
            break;
        }
        ret = _KQ_PbToConfSlaacServerIpv6(Ipv6DhcpServerPb, &ipv6->SlaacConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "Protobuf to slaac server failed\n");
        break;
    }
    return ret < 0 ? ret : 0;
}

KQ_ERR_T KQCtrl_PbToConfDynamicServer(const DhcpItemV2 *DhcpPb, KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DhcpPb == nullptr || DhcpPb->ifname == nullptr || DhcpPb->ifname[0] == '\0') {
        KQ_LOG(kq::log::Error, "Dhcp protobuf ifname is invalid\n");
        return -EINVAL;
    }
    if (KQ_SafeStrCopy(DynamicServerConf->IfName, sizeof(DynamicServerConf->IfName), DhcpPb->ifname) >=
        sizeof(DynamicServerConf->IfName)) {
        KQ_LOG(kq::log::Error, "dhcp ifname %s is overflow\n", DhcpPb->ifname);
        return -EOVERFLOW;
    }
    // The name becomes part of file names, the dnsmasq configuration and a command line.
    if (!kq::IsUsableIfName(DynamicServerConf->IfName)) {
        KQ_LOG(kq::log::Error, "Dhcp protobuf ifname is invalid\n");
        return -EINVAL;
    }

    KQ_CONF_LAN lan;
    memset(&lan, 0, sizeof(lan));
    DynamicServerConf->SecurityZoneId =
        KQ_RtcNetioLanGetByName(DynamicServerConf->IfName, &lan) < 0 ? 0 : lan.CommConf.VpnId;

    const Ipv4DhcpItem *ipv4Item = DhcpPb->ipv4dhcpitem;
    if (ipv4Item != nullptr && ipv4Item->mode == KQ_DHCP_SERVER && ipv4Item->dhcpserver != nullptr) {
        KQ_ERR_T ret = _KQCtrl_PbToConfDynamicServerIpv4(ipv4Item->dhcpserver, DynamicServerConf);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic Server Ipv4 failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
    }

    // A server-mode IPv6 item without its server message is refused by the IPv6 converter.
    const Ipv6DhcpItem *ipv6Item = DhcpPb->ipv6dhcpitem;
    if (ipv6Item == nullptr || ipv6Item->mode != KQ_DHCP_SERVER)
        return 0;
    KQ_ERR_T ret = _KQCtrl_PbToConfDynamicServerIpv6(ipv6Item->dhcpserver, DynamicServerConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic Server Ipv6 failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}
