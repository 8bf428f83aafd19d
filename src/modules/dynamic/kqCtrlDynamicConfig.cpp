// The add and delete entry points, and the dhcp.conf rewrite and start-up load.
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <type_traits>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicJson.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

// Layout facts that the host agent and dhcp.conf rely on.
static_assert(sizeof(KQ_IN6_ADDR) == 16);
static_assert(sizeof(KQ_ERR_T) == 4 && std::is_signed_v<KQ_ERR_T>);
static_assert(sizeof(BOOL) == 4);
static_assert(sizeof(KQ_DHCP_MODE) == 4 && sizeof(KQ_NET_ADDR_TYPE) == 4 &&
              sizeof(KQ_IPV6_ADDR_AUTOCONF_TYPE) == 4 && sizeof(KQ_DYNAMIC_MODE) == 4);
static_assert(sizeof(((KQ_DYNAMIC_IPV4_SERVER_CONF *)nullptr)->IpRangeNum) == 4);
static_assert(sizeof(((KQ_DYNAMIC_IPV4_SERVER_CONF *)nullptr)->DnsNum) == 4);
static_assert(sizeof(((KQ_DHCP_IPV6_SERVER_CONF *)nullptr)->Ipv6RangeNum) == 4);
static_assert(sizeof(((KQ_DHCP_IPV6_SERVER_CONF *)nullptr)->Ipv6DnsNum) == 4);
static_assert(sizeof(((KQ_SLAAC_IPV6_SERVER_CONF *)nullptr)->Ipv6DnsNum) == 4);
static_assert(sizeof(((KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF *)nullptr)->RelayServerNum) == 4);
static_assert(std::extent_v<decltype(KQ_DYNAMIC_IPV4_SERVER_CONF::IpRange)> == 64);
static_assert(std::extent_v<decltype(KQ_DYNAMIC_IPV4_SERVER_CONF::Dns)> == 64);
static_assert(std::extent_v<decltype(KQ_DHCP_IPV6_SERVER_CONF::Ipv6Range)> == 64);
static_assert(std::extent_v<decltype(KQ_DHCP_IPV6_SERVER_CONF::Ipv6Dns)> == 64);
static_assert(std::extent_v<decltype(KQ_SLAAC_IPV6_SERVER_CONF::Ipv6Dns)> == 64);
static_assert(std::extent_v<decltype(KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF::RelayServer)> == 4);
static_assert(std::extent_v<decltype(KQ_CTRL_DYNAMIC_SERVICE_CONF::IfName)> == 16);
static_assert(KQ_DHCP_OFF == 1 && KQ_DHCP_RELAY == 2 && KQ_DHCP_SERVER == 3);
static_assert(KQ_NET_ADDR_IPV4 == 1 && KQ_NET_ADDR_IPV6 == 2 && KQ_NET_ADDR_IPV46 == 3);
static_assert(KQ_IPV6_ADDR_AUTOCONF_SLAAC == 0 && KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP == 1 &&
              KQ_IPV6_ADDR_AUTOCONF_DHCP == 2 && KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP == 3 &&
              KQ_IPV6_ADDR_AUTOCONF_MAX == 4);
static_assert(KQ_IPV6_DHCP == 1 && KQ_IPV6_SLAAC == 2 && KQ_IPV6_BOTH == 3);

// ---- dhcp.conf size ------------------------------------------------------------------

// The most the start-up load reads of dhcp.conf (the host reads no larger file), and a
// bound on what one item adds to it: 15-character names, 64 of every list with the
// longest address texts, json-c's printing, with room to spare.
constexpr size_t kDhcpConfMaxLen = 16u << 20;
constexpr size_t kDhcpConfItemMaxLen = 32u << 10;

static KQ_ERR_T _KQCtrl_RenderDynamicConf(printbuf *Out);

// The last document this module rendered: its length and how many registry items it was
// rendered from. Every item added since can take at most kDhcpConfItemMaxLen more.
struct DhcpConfMeasure {
    bool Known = false;
    size_t Len = 0;
    size_t Items = 0;
};
static DhcpConfMeasure s_LastDhcpConf;

// An add is refused before it touches anything when the rewrite that ends it could write
// a dhcp.conf that the next start-up would refuse to load. Up to some 500 interfaces the
// bound per item settles it; beyond, the last rendered document's length and the bound for
// every item since do, and only when those cannot the document is measured again.
static KQ_ERR_T _KQCtrl_CheckDynamicConfRoom(void)
{
    const size_t items = _KQCtrl_DynamicConfCount() + 1;  // with the one being added
    if (items <= kDhcpConfMaxLen / kDhcpConfItemMaxLen - 1)
        return 0;
    const size_t grown = items > s_LastDhcpConf.Items ? items - s_LastDhcpConf.Items : 1;
    if (s_LastDhcpConf.Known && s_LastDhcpConf.Len + grown * kDhcpConfItemMaxLen <= kDhcpConfMaxLen)
        return 0;
    kq::PrintBuf doc;
    if (!doc || _KQCtrl_RenderDynamicConf(doc.get()) < 0)
        return 0;  // the rewrite itself will fail and say why
    const size_t len = static_cast<size_t>(doc.get()->bpos);
    s_LastDhcpConf = {true, len, items - 1};
    if (len + kDhcpConfItemMaxLen <= kDhcpConfMaxLen)
        return 0;
    KQ_LOG(kq::log::Error,
           "dhcp.conf holds %zu bytes; another item could take it past %zu, the most the start-up load reads. "
           "Add refused, nothing changed(%d:%s)\n",
           len, kDhcpConfMaxLen, KQ_ERR_ARGS(-EOVERFLOW));
    return -EOVERFLOW;
}

// A change touches one interface, yet dhcp.conf is always the whole document. So each
// item's printed text is kept beside its registry record, behind a copy of the record it
// was printed from, and printed again only when the record differs from that copy. Only
// records the registry handed out since the last rendering are compared: the others
// cannot have changed, and comparing thousands of them would cost more than the change.
// An item whose printing logged a line (a list cut to its array, an address too long) is
// not kept: its line comes again with every rewrite.

// ---- Entry points -------------------------------------------------------------------

KQ_ERR_T KQCtrl_ConfigDynamicAdd(const DhcpItemV2 *DhcpPb)
{
    KQ_ERR_T ret = _KQCtrl_CheckDynamicConfRoom();
    if (ret < 0)
        return ret;
    ret = KQCtrl_ConfigDynamicServerAdd(DhcpPb);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "add dynamic server failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = KQCtrl_ConfigDynamicRelayAdd(DhcpPb);
    if (ret < 0) {
        // The relay failure reuses the server wording on purpose: hosts match on it.
        KQ_LOG(kq::log::Error, "add dynamic server failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = _KQCtrl_UpdateDynamicConfFile();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Update dynamic conf file failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T KQCtrl_ConfigDynamicDel(const DhcpItemV2 *DhcpPb)
{
    KQ_ERR_T ret = KQCtrl_ConfigDynamicServerDel(DhcpPb);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "del dynamic server failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = KQCtrl_ConfigDynamicRelayDel(DhcpPb);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "del dynamic relay failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    if (DhcpPb != nullptr && DhcpPb->ifname != nullptr)
        _KQCtrl_DeleteDynamicConfListNode(DhcpPb->ifname);
    ret = _KQCtrl_UpdateDynamicConfFile();
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Update dynamic conf file failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

// ---- dhcp.conf ----------------------------------------------------------------------

// One record's item of the document into Item.
static KQ_ERR_T _KQCtrl_BuildDynamicConfItem(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf, json_object *Item)
{
    if (!kq::json::AddMember(Item, "ifname", json_object_new_string(Conf->IfName))) {
        KQ_LOG(kq::log::Error, "Can't new ifname\n");
        return -ENOMEM;
    }
    // The service-level zone, which the add paths leave 0: the halves' own zones are
    // deliberately not persisted, so a restored configuration runs in zone 0.
    if (!kq::json::AddMember(Item, "vpnId", json_object_new_int(static_cast<int32_t>(Conf->SecurityZoneId)))) {
        KQ_LOG(kq::log::Error, "Can't new securityZoneId\n");
        return -ENOMEM;
    }
    if (Conf->DynamicServerConf.NetAddrType != 0) {
        KQ_ERR_T ret = KQCtrl_ConfToJsonDynamicServer(&Conf->DynamicServerConf, Item);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Dynamic conf to json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
    }
    if (Conf->DynamicRelayConf.NetAddrType != 0) {
        KQ_ERR_T ret = KQCtrl_ConfToJsonDynamicRelay(&Conf->DynamicRelayConf, Item);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "Dynamic conf to json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
            return ret;
        }
    }
    return 0;
}


static bool _KQCtrl_AppendText(printbuf *Out, const char *Text, size_t Len)
{
    // The document cannot outgrow what an int counts: the rewrite refuses it long before.
    return Len <= kDhcpConfMaxLen && static_cast<size_t>(Out->bpos) <= kDhcpConfMaxLen &&
           printbuf_memappend(Out, Text, static_cast<int>(Len)) >= 0;
}

// Appends the item text of Conf to Out: the kept one when its record is unchanged, else
// printed now and kept in its place.
static KQ_ERR_T _KQCtrl_AppendDynamicConfItem(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf, printbuf *Out)
{
    constexpr size_t recordLen = sizeof(*Conf);
    json_object *kept = _KQCtrl_DynamicConfItemText(Conf);
    if (kept != nullptr && static_cast<size_t>(json_object_get_string_len(kept)) >= recordLen &&
        (!_KQCtrl_DynamicConfHandedOut(Conf) || memcmp(json_object_get_string(kept), Conf, recordLen) == 0)) {
        if (!_KQCtrl_AppendText(Out, json_object_get_string(kept) + recordLen,
                                static_cast<size_t>(json_object_get_string_len(kept)) - recordLen)) {
            KQ_LOG(kq::log::Error, "new object failed.\n");
            return -ENOMEM;
        }
        return 0;
    }
    // Whatever happens next, the kept text is not this record's.
    _KQCtrl_SetDynamicConfItemText(Conf, nullptr);

    kq::JsonDoc item(json_object_new_object());
    if (!item) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    const uint64_t statements = kq::log::Statements();
    KQ_ERR_T ret = _KQCtrl_BuildDynamicConfItem(Conf, item.get());
    if (ret < 0)
        return ret;
    // Printed as json-c prints an object inside an array of the document.
    const char *printed = json_object_to_json_string_ext(item.get(), JSON_C_TO_STRING_SPACED);
    if (printed == nullptr) {
        KQ_LOG(kq::log::Error, "json object to string failed\n");
        return -EINVAL;
    }
    const size_t printedLen = strlen(printed);
    if (!_KQCtrl_AppendText(Out, printed, printedLen)) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    if (kq::log::Statements() != statements)
        return 0;
    kq::PrintBuf entry;
    if (!entry || !_KQCtrl_AppendText(entry.get(), reinterpret_cast<const char *>(Conf), recordLen) ||
        !_KQCtrl_AppendText(entry.get(), printed, printedLen)) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    json_object *text = json_object_new_string_len(entry.get()->buf, entry.get()->bpos);
    if (text == nullptr) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    _KQCtrl_SetDynamicConfItemText(Conf, text);
    return 0;
}

// The whole document, as json-c prints it from the registry ({ "dhcps": [ item, ... ] }),
// into Out.
static KQ_ERR_T _KQCtrl_RenderDynamicConf(printbuf *Out)
{
    if (!_KQCtrl_AppendText(Out, "{ \"dhcps\": [", 12)) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    bool first = true;
    KQ_DYNAMIC_FOR_EACH_CONF(conf) {
        // An interface whose server and relay are both off has nothing to restore.
        if (conf->DynamicServerConf.NetAddrType == 0 && conf->DynamicRelayConf.NetAddrType == 0)
            continue;
        if (!_KQCtrl_AppendText(Out, first ? " " : ", ", first ? 1 : 2)) {
            KQ_LOG(kq::log::Error, "new object failed.\n");
            return -ENOMEM;
        }
        KQ_ERR_T ret = _KQCtrl_AppendDynamicConfItem(conf, Out);
        if (ret < 0)
            return ret;
        first = false;
    }
    if (!_KQCtrl_AppendText(Out, " ] }", 4)) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    _KQCtrl_ForgetDynamicConfHandedOut();
    return 0;
}

KQ_ERR_T _KQCtrl_UpdateDynamicConfFile(void)
{
    s_LastDhcpConf.Known = false;  // until this rendering succeeds
    kq::PrintBuf doc;
    if (!doc) {
        KQ_LOG(kq::log::Error, "new object failed.\n");
        return -ENOMEM;
    }
    KQ_ERR_T ret = _KQCtrl_RenderDynamicConf(doc.get());
    if (ret < 0)
        return ret;
    const char *text = doc.get()->buf;
    // The start-up load would refuse a larger file and restore nothing: the last good
    // document stays. The add path refuses long before this point.
    const size_t textLen = static_cast<size_t>(doc.get()->bpos);
    s_LastDhcpConf = {true, textLen, _KQCtrl_DynamicConfCount()};
    if (textLen > kDhcpConfMaxLen) {
        KQ_LOG(kq::log::Error, "dhcp.conf of %zu bytes is past %zu, the most the start-up load reads: not written\n",
               textLen, kDhcpConfMaxLen);
        return -EOVERFLOW;
    }

    // The backup is written whole first and then copied over the live file, so a crash
    // never leaves a torn dhcp.conf.
    const char *bakPath = KQ_AgentPathDhcpConfbak();
    ret = KQ_WriteSyncWithFilePath(bakPath, text, textLen);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Write %s failed(%d:%s)\n", bakPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    ret = KQ_FileCopy(bakPath, KQ_AgentPathDhcpConf());
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "file copy %s failed(%d:%s)\n", bakPath, KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T KQCtrl_LoadDynamicServiceConf(const char *DynamicConfPath)
{
    KQ_ERR_T ret = KQCtrl_LoadDynamicServerConf(DynamicConfPath);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "load dynamic server failed\n");
        return ret;
    }
    ret = KQCtrl_LoadDynamicRelayConf(DynamicConfPath);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "lodd dynamic relay failed\n");
        return ret;
    }
    return 0;
}
