// The relay side of the registry: applying one interface's relay configuration, deciding
// whether it changed, rebuilding the shared relay from every relay interface, and the
// start-up load of the relay halves from dhcp.conf.
#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

bool IsRelayActive(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf)
{
    return (DynamicRelayConf->NetAddrType & KQ_NET_ADDR_IPV4) != 0;
}

// The relay text when at least one relay interface contributed; a message that was never
// appended to may have no text buffer yet.
const char *RelayText(const kq::FlexMsg &Content)
{
    return Content.get()->FlexBuf != nullptr ? Content.get()->FlexBuf : "";
}

// Every current server must appear among the new ones. The test runs one way only, so
// with equal counts current {A, A} and new {A, B} compare as the same: kept as it is,
// since a relay restart is what that difference would cost.
BOOL _KQCtrl_IsDynamicRelayConfSame(const KQ_CTRL_DYNAMIC_RELAY_CONF *CurrentConf,
                                    const KQ_CTRL_DYNAMIC_RELAY_CONF *NewConf)
{
    const KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *current = &CurrentConf->RelayConf;
    const KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *next = &NewConf->RelayConf;
    if (current->LanIp != next->LanIp) {
        KQ_LOG(kq::log::Trace, "Dynamic relay lan ip is not same\n");
        return FALSE;
    }
    if (current->RelayServerNum != next->RelayServerNum) {
        KQ_LOG(kq::log::Trace, "Dynamic Relay Server Num is not same\n");
        return FALSE;
    }
    for (uint32_t i = 0; i < current->RelayServerNum && i < KQ_DYNAMIC_MAX_RELAY_SERVER; ++i) {
        bool found = false;
        for (uint32_t j = 0; j < next->RelayServerNum && j < KQ_DYNAMIC_MAX_RELAY_SERVER && !found; ++j)
            found = current->RelayServer[i] == next->RelayServer[j];
        if (!found)
            return FALSE;
    }
    return TRUE;
}

// Renders every active relay interface, in registry order, into one text and restarts the
// shared relay with it; stops the relay when no interface is in relay mode any more.
KQ_ERR_T _KQCtrl_ReloadDynamicRelay(void)
{
    kq::FlexMsg content;
    if (!content) {
        KQ_LOG(kq::log::Error, "Apply memory for dhcp relay conf content failed\n");
        return -ENOMEM;
    }

    unsigned relayNum = 0;
    // Without a relay interface anywhere, walking every record would find none.
    if (_KQCtrl_DynamicRelayCount() != 0) {
        KQ_DYNAMIC_FOR_EACH_CONF(conf) {
            KQ_CTRL_DYNAMIC_RELAY_CONF *relayConf = &conf->DynamicRelayConf;
            if (!IsRelayActive(relayConf))
                continue;
            ++relayNum;
            KQ_ERR_T ret = KQCtrl_DynamicRelayConfAppend(content.get(), relayConf);
            if (ret < 0) {
                // The running relay is left as it was.
                KQ_LOG(kq::log::Error, "Append dynamic relay conf failed(%d:%s)\n", KQ_ERR_ARGS(ret));
                return ret;
            }
        }
    }

    if (relayNum == 0) {
        KQ_ERR_T ret = KQCtrl_DynamicRelayStop();
        if (ret < 0)
            KQ_LOG(kq::log::Error, "Stop dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    KQ_ERR_T ret = KQCtrl_DynamicRelayRestart(RelayText(content));
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Restart dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

}  // namespace

KQ_ERR_T KQCtrl_ConfigDynamicRelayAdd(const DhcpItemV2 *DhcpPb)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF newConf;
    memset(&newConf, 0, sizeof(newConf));
    KQ_ERR_T ret = KQCtrl_PbToConfDynamicRelay(DhcpPb, &newConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    KQ_CTRL_DYNAMIC_RELAY_CONF *currentConf = _KQCtrl_GetDynamicRelayConfByName(DhcpPb->ifname);
    if (currentConf != nullptr) {
        // A non-relay item never compares as the same: it overwrites the relay half and
        // reloads, which also brings back a relay that a server add has just stopped.
        if (currentConf->NetAddrType == KQ_NET_ADDR_IPV4 && newConf.NetAddrType == KQ_NET_ADDR_IPV4 &&
            _KQCtrl_IsDynamicRelayConfSame(currentConf, &newConf)) {
            KQ_LOG(kq::log::Trace, "Dynamic ipv4service for %s is same to current configuration\n",
                   DhcpPb->ifname);
            return 0;
        }
        _KQCtrl_UpdateDynamicRelayConfListNode(&newConf, currentConf);
    } else {
        ret = _KQCtrl_InsertDynamicRelayConfListNode(&newConf);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Insert dynamic conf node failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
    }

    ret = _KQCtrl_ReloadDynamicRelay();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Relaod dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T KQCtrl_ConfigDynamicRelayDel(const DhcpItemV2 *DhcpPb)
{
    KQ_CTRL_DYNAMIC_RELAY_CONF delConf;
    memset(&delConf, 0, sizeof(delConf));
    KQ_ERR_T ret = KQCtrl_PbToConfDynamicRelay(DhcpPb, &delConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Protobuf to conf for dynamic failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    _KQCtrl_DeleteDynamicRelayConfListNode(&delConf);

    ret = _KQCtrl_ReloadDynamicRelay();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Relaod dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

// Restores the relay at start-up. Bad items are skipped one by one; only a document that
// cannot be used at all, or a failed allocation, fails the load. A failed start or stop is
// a warning, so the agent's start goes on.
//
// A "relayServer" array of more than four entries is refused by the JSON reader with
// -EINVAL ("Relay server number %zu is overflow"), before any server is stored: the record
// holds four, and relaying to a silently shortened list would hide the mistake. Such an
// item is then skipped here like any other bad item.
KQ_ERR_T KQCtrl_LoadDynamicRelayConf(const char *DynamicConfPath)
{
    kq::ConfText confText(DynamicConfPath);
    if (confText.get() == nullptr) {
        KQ_LOG(kq::log::Error, "invalid dhcp.conf\n");
        return -EINVAL;
    }
    KQ_LOG(kq::log::Notice, "agent dhcp.conf = %s \n", confText.get());

    kq::JsonDoc root(json_tokener_parse(confText.get()));
    if (!root) {
        KQ_LOG(kq::log::Error, "invalid dhcp conf, not json\n");
        return -EINVAL;
    }

    json_object *dhcps = nullptr;
    if (!json_object_object_get_ex(root.get(), "dhcps", &dhcps) || json_object_get_type(dhcps) != json_type_array) {
        KQ_LOG(kq::log::Error, "invalid dhcp.conf, not complete dynamic type is invaild\n");
        return -EINVAL;
    }

    size_t itemNum = json_object_array_length(dhcps);
    if (itemNum == 0) {
        KQ_LOG(kq::log::Error, "empty dhcp.conf\n");
        return -ENOENT;
    }
    kq::FlexMsg content;
    if (!content) {
        KQ_LOG(kq::log::Error, "Apply memory for dynamic relay content failed\n");
        return -ENOMEM;
    }

    unsigned relayNum = 0;
    for (size_t i = 0; i < itemNum; ++i) {
        const json_object *item = json_object_array_get_idx(dhcps, i);
        if (item == nullptr) {
            KQ_LOG(kq::log::Error, "dhcp %zu is null\n", i);
            continue;
        }

        KQ_CTRL_DYNAMIC_RELAY_CONF relayConf;
        memset(&relayConf, 0, sizeof(relayConf));
        if (KQCtrl_JsonToConfDynamicRelay(item, &relayConf) < 0) {
            KQ_LOG(kq::log::Error, "Json to conf dynamic failed\n");
            continue;
        }

        if (IsRelayActive(&relayConf)) {
            if (KQCtrl_DynamicRelayConfAppend(content.get(), &relayConf) < 0) {
                // Neither start nor stop with a partial text; the load itself still succeeds.
                KQ_LOG(kq::log::Error, "Append dynamic relay conf failed\n");
                return 0;
            }
            ++relayNum;
        }

        // An interface the server load already registered keeps its (empty) relay half;
        // its lines are in the relay text all the same.
        if (_KQCtrl_GetDynamicRelayConfByName(relayConf.IfName) == nullptr &&
            _KQCtrl_InsertDynamicRelayConfListNode(&relayConf) < 0)
            KQ_LOG(kq::log::Error, "Insert dynamic relay conf node to list failed\n");
    }

    if (relayNum > 0) {
        if (KQCtrl_DynamicRelayRestart(RelayText(content)) < 0)
            KQ_LOG(kq::log::Warning, "Restart dynamic relay failed\n");
    } else if (KQCtrl_DynamicRelayStop() < 0) {
        KQ_LOG(kq::log::Warning, "Stop dynamic relay failed\n");
    }
    return 0;
}
