// The server side of an add or delete, and of the start-up load: convert, compare with
// what the registry holds, restart or stop the interface's dnsmasq only on a change, and
// keep the registry's server half in step.
#include <errno.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

// TRUE when every entry of New is found among Current's (order and repeats do not count).
template <typename T, typename Equal>
bool IsSubset(const T *Current, uint32_t CurrentNum, const T *New, uint32_t NewNum, Equal Eq)
{
    for (uint32_t i = 0; i < NewNum; ++i) {
        bool found = false;
        for (uint32_t j = 0; j < CurrentNum && !found; ++j)
            found = Eq(Current[j], New[i]);
        if (!found)
            return false;
    }
    return true;
}

// The IPv6 DNS test, deliberately positional and lenient: the lists count as the same as
// soon as one position holds the same address in both. Hosts rely on a reordered or
// partly changed list not restarting the server, so it must not become a set test.
bool IsIpv6DnsSame(const KQ_IN6_ADDR *Current, const KQ_IN6_ADDR *New, uint32_t DnsNum)
{
    if (DnsNum == 0)
        return true;
    for (uint32_t j = 0; j < DnsNum; ++j)
        if (KQ_Ipv6AddrEqual(&Current[j], &New[j]))
            return true;
    return false;
}

// The default DNS is needed where the record has pools but no DNS server.
void SetDefaultDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DynamicServerConf->ServerIpv4Conf.IpRangeNum != 0 && DynamicServerConf->ServerIpv4Conf.DnsNum == 0)
        _KQCtrl_SetDefaultDynamicIpv4ServerDns(DynamicServerConf);
    const KQ_DHCP_IPV6_SERVER_CONF *dhcp = &DynamicServerConf->ServerIpv6Conf.DhcpConf;
    if (dhcp->Ipv6RangeNum != 0 && dhcp->Ipv6DnsNum == 0)
        _KQCtrl_SetDefaultDynamicIpv6ServerDns(DynamicServerConf);
}

}  // namespace

// ---- Comparisons (current record first, new record second) ----------------------------

static BOOL _KQCtrl_IsDynamicIpv4ServerConfSame(const KQ_DYNAMIC_IPV4_SERVER_CONF *Current,
                                                const KQ_DYNAMIC_IPV4_SERVER_CONF *New)
{
    if (Current->IpRangeNum != New->IpRangeNum) {
        KQ_LOG(kq::log::Trace, "dynamic server IpRangeNum is not same\n");
        return FALSE;
    }
    if (Current->DnsNum != New->DnsNum) {
        KQ_LOG(kq::log::Trace, "Dynamic server DnsNum is not same\n");
        return FALSE;
    }
    if (!IsSubset(Current->IpRange, Current->IpRangeNum, New->IpRange, New->IpRangeNum,
                  [](const KQ_AGENT_IP_RANGE &A, const KQ_AGENT_IP_RANGE &B) {
                      return A.StartIp == B.StartIp && A.EndIp == B.EndIp;
                  })) {
        KQ_LOG(kq::log::Trace, "dynamic server IpRange is not same\n");
        return FALSE;
    }
    if (Current->NetMask != New->NetMask) {
        KQ_LOG(kq::log::Trace, "dynamic server netmask ip is not same\n");
        return FALSE;
    }
    if (!IsSubset(Current->Dns, Current->DnsNum, New->Dns, New->DnsNum,
                  [](uint32_t A, uint32_t B) { return A == B; })) {
        KQ_LOG(kq::log::Trace, "dynamic server dns ip is not same\n");
        return FALSE;
    }
    if (Current->Gateway != New->Gateway) {
        KQ_LOG(kq::log::Trace, "dynamic server Gateway ip is not same\n");
        return FALSE;
    }
    if (Current->LeaseTime != New->LeaseTime) {
        KQ_LOG(kq::log::Trace, "dynamic server LeaseTime is not same\n");
        return FALSE;
    }
    if (Current->OfferTime != New->OfferTime) {
        KQ_LOG(kq::log::Trace, "dynamic server OfferTime is not same\n");
        return FALSE;
    }
    return TRUE;
}

static BOOL _KQCtrl_IsDhcpIpv6ServerConfSame(const KQ_DHCP_IPV6_SERVER_CONF *Current,
                                             const KQ_DHCP_IPV6_SERVER_CONF *New)
{
    if (Current->Ipv6RangeNum != New->Ipv6RangeNum) {
        KQ_LOG(kq::log::Trace, "Dhcp server Ipv6RangeNum is not same\n");
        return FALSE;
    }
    if (Current->Ipv6DnsNum != New->Ipv6DnsNum) {
        KQ_LOG(kq::log::Trace, "Dhcp server Ipv6DnsNum is not same\n");
        return FALSE;
    }
    if (!IsSubset(Current->Ipv6Range, Current->Ipv6RangeNum, New->Ipv6Range, New->Ipv6RangeNum,
                  [](const KQ_AGENT_IPV6_RANGE &A, const KQ_AGENT_IPV6_RANGE &B) {
                      return KQ_Ipv6AddrEqual(&A.StartIp, &B.StartIp) && KQ_Ipv6AddrEqual(&A.EndIp, &B.EndIp);
                  })) {
        KQ_LOG(kq::log::Trace, "Dhcp server Ipv6Range is not same\n");
        return FALSE;
    }
    if (Current->PrefixLength != New->PrefixLength) {
        KQ_LOG(kq::log::Trace, "Dhcp server PrefixLength is not same\n");
        return FALSE;
    }
    if (!IsIpv6DnsSame(Current->Ipv6Dns, New->Ipv6Dns, New->Ipv6DnsNum)) {
        KQ_LOG(kq::log::Trace, "Dhcp server dns ipv6 is not same\n");
        return FALSE;
    }
    if (Current->Ipv6LeaseTime != New->Ipv6LeaseTime) {
        KQ_LOG(kq::log::Trace, "Dhcp server Ipv6LeaseTime is not same\n");
        return FALSE;
    }
    return TRUE;
}

static BOOL _KQCtrl_IsSlaacIpv6ServerConfSame(const KQ_SLAAC_IPV6_SERVER_CONF *Current,
                                              const KQ_SLAAC_IPV6_SERVER_CONF *New)
{
    if (!KQ_Ipv6AddrEqual(&Current->Prefix, &New->Prefix)) {
        KQ_LOG(kq::log::Trace, "slaac server Prefix is not same\n");
        return FALSE;
    }
    if (Current->Ipv6DnsNum != New->Ipv6DnsNum) {
        KQ_LOG(kq::log::Trace, "slaac server Ipv6DnsNum is not same\n");
        return FALSE;
    }
    if (Current->PrefixLength != New->PrefixLength) {
        KQ_LOG(kq::log::Trace, "slaac server PrefixLength is not same\n");
        return FALSE;
    }
    if (!IsIpv6DnsSame(Current->Ipv6Dns, New->Ipv6Dns, New->Ipv6DnsNum)) {
        KQ_LOG(kq::log::Trace, "slaac server dns ipv6 is not same\n");
        return FALSE;
    }
    return TRUE;
}

static BOOL _KQCtrl_IsDynamicIpv4ConfSame(const KQ_CTRL_DYNAMIC_SERVER_CONF *Current,
                                          const KQ_CTRL_DYNAMIC_SERVER_CONF *New)
{
    if (Current->SecurityZoneId != New->SecurityZoneId) {
        KQ_LOG(kq::log::Trace, "dynamic SecurityZoneId is not same\n");
        return FALSE;
    }
    return _KQCtrl_IsDynamicIpv4ServerConfSame(&Current->ServerIpv4Conf, &New->ServerIpv4Conf);
}

static BOOL _KQCtrl_IsDynamicIpv6ConfSame(const KQ_CTRL_DYNAMIC_SERVER_CONF *Current,
                                          const KQ_CTRL_DYNAMIC_SERVER_CONF *New)
{
    if (Current->SecurityZoneId != New->SecurityZoneId) {
        KQ_LOG(kq::log::Trace, "dynamic SecurityZoneId is not same\n");
        return FALSE;
    }
    if (Current->ServerIpv6Conf.DynamicMode != New->ServerIpv6Conf.DynamicMode)
        return FALSE;
    // Both parts are compared whatever the mode.
    BOOL dhcpSame = _KQCtrl_IsDhcpIpv6ServerConfSame(&Current->ServerIpv6Conf.DhcpConf, &New->ServerIpv6Conf.DhcpConf);
    if (!dhcpSame)
        return FALSE;
    return _KQCtrl_IsSlaacIpv6ServerConfSame(&Current->ServerIpv6Conf.SlaacConf, &New->ServerIpv6Conf.SlaacConf);
}

// ---- Default DNS: the interface's own first address -----------------------------------

void _KQCtrl_SetDefaultDynamicIpv4ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    uint32_t ip = 0;
    uint8_t maskLen = 0;
    (void)KQ_RtcNetioInterfaceGetFirstIpv4(DynamicServerConf->IfName, &ip, &maskLen);
    if (ip == 0)
        return;
    DynamicServerConf->ServerIpv4Conf.DnsNum = 1;
    DynamicServerConf->ServerIpv4Conf.Dns[0] = ip;
}

const KQ_CTRL_DYNAMIC_SERVER_CONF *_KQCtrl_FitDynamicServerConf(const char *Caller,
                                                                const KQ_CTRL_DYNAMIC_SERVER_CONF *Conf,
                                                                KQ_CTRL_DYNAMIC_SERVER_CONF *Fitted)
{
    const KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &Conf->ServerIpv4Conf;
    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &Conf->ServerIpv6Conf;
    if (ipv4->IpRangeNum <= KQ_DYNAMIC_MAX_IP_RANGE && ipv4->DnsNum <= KQ_DYNAMIC_MAX_DNS &&
        ipv6->DhcpConf.Ipv6RangeNum <= KQ_DYNAMIC_MAX_IP_RANGE && ipv6->DhcpConf.Ipv6DnsNum <= KQ_DYNAMIC_MAX_DNS &&
        ipv6->SlaacConf.Ipv6DnsNum <= KQ_DYNAMIC_MAX_DNS)
        return Conf;
    memcpy(Fitted, Conf, sizeof(*Fitted));
    const char *ifName = Conf->IfName;
    KQ_DYNAMIC_IPV4_SERVER_CONF *fitted4 = &Fitted->ServerIpv4Conf;
    KQ_DYNAMIC_IPV6_SERVER_CONF *fitted6 = &Fitted->ServerIpv6Conf;
    fitted4->IpRangeNum = kq::EntriesThatFit(Caller, ifName, "Ip ranges", ipv4->IpRangeNum, KQ_DYNAMIC_MAX_IP_RANGE);
    fitted4->DnsNum = kq::EntriesThatFit(Caller, ifName, "Dns servers", ipv4->DnsNum, KQ_DYNAMIC_MAX_DNS);
    fitted6->DhcpConf.Ipv6RangeNum = kq::EntriesThatFit(Caller, ifName, "Ipv6 ranges", ipv6->DhcpConf.Ipv6RangeNum,
                                                        KQ_DYNAMIC_MAX_IP_RANGE);
    fitted6->DhcpConf.Ipv6DnsNum = kq::EntriesThatFit(Caller, ifName, "Dhcpv6 dns servers",
                                                      ipv6->DhcpConf.Ipv6DnsNum, KQ_DYNAMIC_MAX_DNS);
    fitted6->SlaacConf.Ipv6DnsNum = kq::EntriesThatFit(Caller, ifName, "Slaac dns servers",
                                                       ipv6->SlaacConf.Ipv6DnsNum, KQ_DYNAMIC_MAX_DNS);
    return Fitted;
}

static void SetDefaultIpv6Dns(const char *IfName, uint32_t *Ipv6DnsNum, KQ_IN6_ADDR *Ipv6Dns)
{
    KQ_IN6_ADDR ip;
    memset(&ip, 0, sizeof(ip));
    uint8_t prefixLen = 0;
    (void)KQ_RtcNetioInterfaceGetFirstIpv6(IfName, &ip, &prefixLen);
    if (KQ_Ipv6AddrZero(&ip))
        return;
    *Ipv6DnsNum = 1;
    KQ_Ipv6AddrCopy(&Ipv6Dns[0], &ip);
}

static void _KQCtrl_SetDefaultDhcpIpv6ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    KQ_DHCP_IPV6_SERVER_CONF *dhcp = &DynamicServerConf->ServerIpv6Conf.DhcpConf;
    SetDefaultIpv6Dns(DynamicServerConf->IfName, &dhcp->Ipv6DnsNum, dhcp->Ipv6Dns);
}

static void _KQCtrl_SetDefaultSlaacServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    KQ_SLAAC_IPV6_SERVER_CONF *slaac = &DynamicServerConf->ServerIpv6Conf.SlaacConf;
    SetDefaultIpv6Dns(DynamicServerConf->IfName, &slaac->Ipv6DnsNum, slaac->Ipv6Dns);
}

void _KQCtrl_SetDefaultDynamicIpv6ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &DynamicServerConf->ServerIpv6Conf;
    bool dhcpNeedsDns = ipv6->DhcpConf.Ipv6RangeNum != 0 && ipv6->DhcpConf.Ipv6DnsNum == 0;
    bool slaacNeedsDns = !KQ_Ipv6AddrZero(&ipv6->SlaacConf.Prefix) && ipv6->SlaacConf.Ipv6DnsNum == 0;
    switch (ipv6->DynamicMode) {
    case KQ_IPV6_ADDR_AUTOCONF_DHCP:
        if (dhcpNeedsDns)
            _KQCtrl_SetDefaultDhcpIpv6ServerDns(DynamicServerConf);
        break;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC:
        if (slaacNeedsDns)
            _KQCtrl_SetDefaultSlaacServerDns(DynamicServerConf);
        break;
    case KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP:
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP:
        if (dhcpNeedsDns && slaacNeedsDns) {
            _KQCtrl_SetDefaultDhcpIpv6ServerDns(DynamicServerConf);
            _KQCtrl_SetDefaultSlaacServerDns(DynamicServerConf);
        }
        break;
    default:
        break;
    }
}

// ---- Add and delete -------------------------------------------------------------------

KQ_ERR_T KQCtrl_ConfigDynamicServerAdd(const DhcpItemV2 *DhcpPb)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF newConf;
    memset(&newConf, 0, sizeof(newConf));
    KQ_ERR_T ret = KQCtrl_PbToConfDynamicServer(DhcpPb, &newConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    // The interface's IPv4 mode decides which other service has to go; failures here do
    // not stop the add.
    const Ipv4DhcpItem *ipv4Item = DhcpPb->ipv4dhcpitem;
    if (ipv4Item != nullptr && ipv4Item->mode == KQ_DHCP_RELAY) {
        if (KQCtrl_DynamicServerStop(&newConf) < 0)
            KQ_LOG(kq::log::Error, "Stop dynamic server failed\n");
    } else if (ipv4Item != nullptr && ipv4Item->mode == KQ_DHCP_SERVER) {
        if (KQCtrl_DynamicRelayStop() < 0)
            KQ_LOG(kq::log::Error, "Stop dynamic relay failed\n");
    }

    // Before the comparison, so that a repeated message without DNS compares as unchanged.
    SetDefaultDns(&newConf);

    KQ_CTRL_DYNAMIC_SERVER_CONF *current = _KQCtrl_GetDynamicServerConfByName(newConf.IfName);
    // A record serving nothing (type 0) is never short-cut.
    if (current != nullptr && current->NetAddrType == newConf.NetAddrType) {
        if (newConf.NetAddrType == KQ_NET_ADDR_IPV46 && _KQCtrl_IsDynamicIpv4ConfSame(current, &newConf) &&
            _KQCtrl_IsDynamicIpv6ConfSame(current, &newConf)) {
            KQ_LOG(kq::log::Trace, "Dynamic ipv4&6 service for %s is same to current configuration\n", newConf.IfName);
            return 0;
        }
        if (newConf.NetAddrType == KQ_NET_ADDR_IPV4 && _KQCtrl_IsDynamicIpv4ConfSame(current, &newConf)) {
            KQ_LOG(kq::log::Trace, "Dynamic ipv4service for %s is same to current configuration\n", newConf.IfName);
            return 0;
        }
        if (newConf.NetAddrType == KQ_NET_ADDR_IPV6 && _KQCtrl_IsDynamicIpv6ConfSame(current, &newConf)) {
            KQ_LOG(kq::log::Trace, "Dynamic ipv6service for %s is same to current configuration\n", newConf.IfName);
            return 0;
        }
    }

    ret = newConf.NetAddrType == 0 ? KQCtrl_DynamicServerStop(&newConf) : KQCtrl_DynamicServerRestart(&newConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Deal with dynamic service failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    if (current == nullptr) {
        ret = _KQCtrl_InsertDynamicServerConfListNode(&newConf);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Insert dynamic conf node failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
    } else {
        _KQCtrl_UpdateDynamicServerConfListNode(&newConf, current);
    }
    return 0;
}

KQ_ERR_T KQCtrl_ConfigDynamicServerDel(const DhcpItemV2 *DhcpPb)
{
    KQ_CTRL_DYNAMIC_SERVER_CONF conf;
    memset(&conf, 0, sizeof(conf));
    KQ_ERR_T ret = KQCtrl_PbToConfDynamicServer(DhcpPb, &conf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = KQCtrl_DynamicServerStop(&conf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Stop dynamic service failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

// ---- Start-up load --------------------------------------------------------------------

KQ_ERR_T KQCtrl_LoadDynamicServerConf(const char *DynamicConfPath)
{
    kq::ConfText text(DynamicConfPath);
    if (text.get() == nullptr) {
        KQ_LOG(kq::log::Error, "invalid dhcp.conf\n");
        return -EINVAL;
    }
    KQ_LOG(kq::log::Notice, "agent dhcp.conf = %s \n", text.get());

    kq::JsonDoc root(json_tokener_parse(text.get()));
    if (!root) {
        KQ_LOG(kq::log::Error, "invalid dynamic conf, not json\n");
        return -EINVAL;
    }
    json_object *dhcps = nullptr;
    if (!json_object_object_get_ex(root.get(), "dhcps", &dhcps) ||
        json_object_get_type(dhcps) != json_type_array) {
        KQ_LOG(kq::log::Error, "invalid dhcp.conf, not complete dhcp type is invaild\n");
        return -EINVAL;
    }
    size_t count = json_object_array_length(dhcps);
    if (count == 0) {
        KQ_LOG(kq::log::Error, "empty dhcp.conf\n");
        return -ENOENT;
    }

    // One bad entry does not keep the others from being restored.
    for (size_t i = 0; i < count; ++i) {
        json_object *entry = json_object_array_get_idx(dhcps, i);
        if (entry == nullptr) {
            KQ_LOG(kq::log::Warning, "dynamic %zu is null\n", i);
            continue;
        }
        KQ_CTRL_DYNAMIC_SERVER_CONF conf;
        memset(&conf, 0, sizeof(conf));
        if (KQCtrl_JsonToConfDynamicServer(entry, &conf) < 0) {
            KQ_LOG(kq::log::Warning, "Json to conf dynamic failed\n");
            continue;
        }
        SetDefaultDns(&conf);
        if (conf.NetAddrType != 0 && KQCtrl_DynamicServerRestart(&conf) < 0)
            KQ_LOG(kq::log::Warning, "restart dynamic failed\n");
        // A second entry for the same interface has been restarted but is not stored.
        if (_KQCtrl_GetDynamicServerConfByName(conf.IfName) == nullptr &&
            _KQCtrl_InsertDynamicServerConfListNode(&conf) < 0)
            KQ_LOG(kq::log::Warning, "Insert dynamic server conf node to list failed\n");
    }
    return 0;
}
