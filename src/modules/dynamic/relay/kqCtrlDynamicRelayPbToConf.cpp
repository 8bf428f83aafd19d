// The relay half of an interface's configuration, read from the controller's DhcpItemV2.
// Only the IPv4 relay exists: the IPv6 part of the message is never looked at.
#include <errno.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

KQ_ERR_T _KQCtrl_PbToConfDynamicIpv4Relay(const Ipv4DhcpRelay *RelayPb,
                                          KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    if (RelayPb == nullptr) {
        KQ_LOG(kq::log::Error, "Dynamic relay protobuf is null\n");
        return -EINVAL;
    }

    // Checked before anything is stored: RelayServer has room for four servers only.
    size_t serverNum = RelayPb->n_relayserver;
    if (serverNum == 0 || serverNum > KQ_DYNAMIC_MAX_RELAY_SERVER) {
        KQ_LOG(kq::log::Error, "Dynamic relay num %zu is invalid\n", serverNum);
        return -EINVAL;
    }

    KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *relayConf = &DynamicRelayConf->RelayConf;
    DynamicRelayConf->NetAddrType = KQ_NET_ADDR_IPV4;
    relayConf->RelayServerNum = static_cast<uint32_t>(serverNum);
    for (size_t i = 0; i < serverNum; ++i) {
        if (RelayPb->relayserver[i] == 0) {
            KQ_LOG(kq::log::Error, "Dynamic relay server [%zu] is invalid\n", i);
            return -EINVAL;
        }
        relayConf->RelayServer[i] = RelayPb->relayserver[i];
    }

    if (RelayPb->lanip == 0) {
        KQ_LOG(kq::log::Error, "Dynamic relay lan ip is invalid\n");
        return -EINVAL;
    }
    relayConf->LanIp = RelayPb->lanip;
    return 0;
}

}  // namespace

KQ_ERR_T KQCtrl_PbToConfDynamicRelay(const DhcpItemV2 *DhcpPb, KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    const char *ifName = DhcpPb != nullptr ? DhcpPb->ifname : nullptr;
    bool hasName = ifName != nullptr && ifName[0] != '\0';

    // A name that does not fit is reported as an overflow before the name rule is applied.
    if (hasName && KQ_SafeStrCopy(DynamicRelayConf->IfName, sizeof(DynamicRelayConf->IfName), ifName) >=
                       sizeof(DynamicRelayConf->IfName)) {
        KQ_LOG(kq::log::Error, "dhcp ifname %s is overflow\n", ifName);
        return -EOVERFLOW;
    }
    // The name ends up in the relay's dnsmasq file and command line: refuse what no
    // interface can be called.
    if (!hasName || !kq::IsUsableIfName(ifName)) {
        KQ_LOG(kq::log::Error, "Dhcp protobuf ifname is invalid\n");
        return -EINVAL;
    }

    // An interface outside the LAN table still converts, in zone 0.
    KQ_CONF_LAN lan;
    memset(&lan, 0, sizeof(lan));
    DynamicRelayConf->SecurityZoneId =
        KQ_RtcNetioLanGetByName(DynamicRelayConf->IfName, &lan) < 0 ? 0 : lan.CommConf.VpnId;

    // Any other mode leaves only name and zone: that is how an interface leaves relay mode.
    const Ipv4DhcpItem *ipv4Item = DhcpPb->ipv4dhcpitem;
    if (ipv4Item == nullptr || ipv4Item->mode != KQ_DHCP_RELAY)
        return 0;

    KQ_ERR_T ret = _KQCtrl_PbToConfDynamicIpv4Relay(ipv4Item->dhcprelay, DynamicRelayConf);
    if (ret < 0) {
        // "server" in this relay line is kept as it stands: hosts match on the text.
        KQ_LOG(kq::log::Error, "Protobuf to dhcp server failed\n");
        return ret;
    }
    return 0;
}
