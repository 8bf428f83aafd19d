// The relay half of dhcp.conf: "dhcpRelay" of an interface's "dhcps" item, written when the
// file is rewritten and read back at start-up.
#include <errno.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicJson.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

using kq::json::AddMember;
using kq::json::AppendElement;
using kq::json::Member;

using kq::kIpv4TextSize;

constexpr size_t kIfNameSize = KQ_IFNAME_SIZE;

KQ_ERR_T _KQCtrl_JsonToConfDynamicRelay(const json_object *RelayJson, KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *relayConf = &DynamicRelayConf->RelayConf;

    char text[kIpv4TextSize] = {0};
    KQ_ERR_T ret = KQ_JsonSafeGetStr(RelayJson, "lanIp", text, sizeof(text));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get lan ip string from json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    if (KQ_SafeStrGetIp4Addr(text, sizeof(text), &relayConf->LanIp) == nullptr) {
        KQ_LOG(kq::log::Error, "Get lan ip number failed\n");
        return -EINVAL;
    }
    DynamicRelayConf->NetAddrType = static_cast<KQ_NET_ADDR_TYPE>(DynamicRelayConf->NetAddrType | KQ_NET_ADDR_IPV4);

    json_object *servers = Member(RelayJson, "relayServer");
    if (servers == nullptr || json_object_get_type(servers) != json_type_array) {
        KQ_LOG(kq::log::Error, "relayServer is invaild\n");
        return -EINVAL;
    }
    size_t serverNum = json_object_array_length(servers);
    if (serverNum == 0) {
        // A relay in use with nobody to relay to, as the controller may configure it.
        KQ_LOG(kq::log::Notice, "Relay server number is zero\n");
        return 0;
    }
    // RelayServer has room for four: a longer list is refused before any server is stored.
    if (serverNum > KQ_DYNAMIC_MAX_RELAY_SERVER) {
        KQ_LOG(kq::log::Error, "Relay server number %zu is overflow\n", serverNum);
        return -EINVAL;
    }
    for (size_t i = 0; i < serverNum; ++i) {
        json_object *server = json_object_array_get_idx(servers, i);
        if (server == nullptr) {
            KQ_LOG(kq::log::Error, "empty relayServerItem\n");
            return -EINVAL;
        }
        const char *serverText = json_object_get_string(server);
        if (serverText == nullptr) {
            KQ_LOG(kq::log::Error, "relay server ip is invalid\n");
            return -EINVAL;
        }
        if (KQ_SafeStrGetIp4Addr(serverText, strlen(serverText) + 1, &relayConf->RelayServer[i]) == nullptr) {
            KQ_LOG(kq::log::Error, "Get relay server ip number failed\n");
            return -EINVAL;
        }
        // Counted one by one: after a failure the count says how many were parsed.
        ++relayConf->RelayServerNum;
    }
    return 0;
}

}  // namespace

KQ_ERR_T KQCtrl_JsonToConfDynamicRelay(const struct json_object *DynamicJsonObj,
                                       KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    if (DynamicRelayConf == nullptr)
        return -EINVAL;

    KQ_ERR_T ret = KQ_JsonSafeGetStr(DynamicJsonObj, "ifname", DynamicRelayConf->IfName, kIfNameSize);
    // A name no interface can have is as unusable as a missing one.
    if (ret == 0 && !kq::IsUsableIfName(DynamicRelayConf->IfName))
        ret = -EINVAL;
    if (ret < 0) {
        // "form" where the server says "from": both wordings are established.
        KQ_LOG(kq::log::Error, "Not found vaild ifname form Json object(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    int32_t vpnId = 0;
    if (KQ_JsonSafeGetI32(DynamicJsonObj, "vpnId", &vpnId) < 0) {
        KQ_LOG(kq::log::Warning, "Not found vaild securityZoneId form Json object, set securityZoneId to default\n");
        vpnId = 0;
    }
    DynamicRelayConf->SecurityZoneId = static_cast<uint32_t>(vpnId);

    int32_t mode = 0;
    if (KQ_JsonSafeGetI32(DynamicJsonObj, "mode", &mode) < 0)
        KQ_LOG(kq::log::Warning, "Not found vaild mode form Json object\n");

    json_object *relayJson = Member(DynamicJsonObj, "dhcpRelay");
    if (relayJson == nullptr)
        KQ_LOG(kq::log::Warning, "dynamic relay is invaild\n");
    if (mode != KQ_DHCP_RELAY && relayJson == nullptr)
        return 0;

    // An item that says relay but has no "dhcpRelay" fails at "lanIp", on purpose.
    ret = _KQCtrl_JsonToConfDynamicRelay(relayJson, DynamicRelayConf);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Json to dynamic relay failed\n");
    return ret;
}

KQ_ERR_T KQCtrl_ConfToJsonDynamicRelay(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf,
                                       struct json_object *DynamicRelayJson)
{
    if (DynamicRelayConf == nullptr || DynamicRelayJson == nullptr)
        return -EINVAL;
    const KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *relayConf = &DynamicRelayConf->RelayConf;
    // Never read past the four servers the record holds, and never let one such record
    // block the rewrite of dhcp.conf: what fits is written.
    const uint32_t serverNum = kq::EntriesThatFit(__func__, DynamicRelayConf->IfName, "Relay servers",
                                                  relayConf->RelayServerNum, KQ_DYNAMIC_MAX_RELAY_SERVER);

    json_object *relayJson = json_object_new_object();
    if (!AddMember(DynamicRelayJson, "dhcpRelay", relayJson)) {
        KQ_LOG(kq::log::Error, "Can't new dynamicRelay object\n");
        return -ENOMEM;
    }

    char text[kIpv4TextSize];
    if (KQ_SNPrintf(text, sizeof(text), "%u.%u.%u.%u", KQ_IPV4_OCTETS(relayConf->LanIp)) > sizeof(text) - 1) {
        KQ_LOG(kq::log::Error, "lan ip string is overflow\n");
        return -EOVERFLOW;
    }
    if (!AddMember(relayJson, "lanIp", json_object_new_string(text))) {
        KQ_LOG(kq::log::Error, "Can't new lanIp\n");
        return -ENOMEM;
    }

    json_object *serverArray = json_object_new_array();
    if (!AddMember(relayJson, "relayServer", serverArray)) {
        KQ_LOG(kq::log::Error, "Can't new relayServerArr object\n");
        return -ENOMEM;
    }
    for (uint32_t i = 0; i < serverNum; ++i) {
        if (KQ_SNPrintf(text, sizeof(text), "%u.%u.%u.%u", KQ_IPV4_OCTETS(relayConf->RelayServer[i])) >
            sizeof(text) - 1) {
            KQ_LOG(kq::log::Error, "relay server ip string is overflow\n");
            return -EOVERFLOW;
        }
        if (!AppendElement(serverArray, json_object_new_string(text))) {
            KQ_LOG(kq::log::Error, "Can't new relayServerIp\n");
            return -ENOMEM;
        }
    }
    return 0;
}
