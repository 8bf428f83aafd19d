// The server half of dhcp.conf: the reader that rebuilds an interface's server record from
// its "dhcps" item at start-up, and the writer that adds "dhcpIpv4Server" and
// "dhcpIpv6Server" to the item when the file is rewritten.
//
// Writer and reader are knowingly not symmetric: "dynamicMode" is written but not stored
// back, one "dnsIpv6s" key carries both IPv6 DNS lists, IPv6 range texts are read into the
// dotted-quad buffer, and a server without IPv4 DNS is written in a form it cannot read.
// Documents written by earlier agents depend on every one of these.
#include <errno.h>
#include <string.h>

#include "kqCtrlDynamicInternal.h"
#include "kqCtrlDynamicJson.h"
#include "kqCtrlDynamicLog.h"
#include "kqCtrlDynamicUtil.h"

namespace {

using kq::json::AddMember;
using kq::json::AppendElement;
using kq::json::LogAs;
using kq::json::Member;

using kq::kIpv4TextSize;
using kq::kIpv6TextSize;

constexpr size_t kIfNameSize = KQ_IFNAME_SIZE;
// Range ends of both families are read into the dotted-quad buffer; an IPv6 range
// address longer than 18 characters is refused on reading, as it always was.
constexpr size_t kRangeTextSize = kIpv4TextSize;

// ---- Reader -------------------------------------------------------------------------

bool ParseAddr(const char *Text, size_t Size, uint32_t *Out)
{
    return KQ_SafeStrGetIp4Addr(Text, Size, Out) != nullptr;
}

bool ParseAddr(const char *Text, size_t Size, KQ_IN6_ADDR *Out)
{
    return KQ_SafeStrGetIp6Addr(Text, Size, Out) != nullptr;
}

// One range object {start, end}: the IPv4 and the IPv6 range readers.
struct RangeReader {
    const char *StartKey;
    const char *EndKey;
    const char *StartTextMessage;
    const char *StartNumberMessage;
    const char *EndTextMessage;
    const char *EndNumberMessage;
};

constexpr RangeReader kIpv4Range = {
    "startIp", "endIp",
    "Get start ip string from json failed(%d:%s)\n", "Get start ip number failed\n",
    "Get end ip string from json failed(%d:%s)\n", "Get end ip number failed\n",
};

constexpr RangeReader kIpv6Range = {
    "startIpv6", "endIpv6",
    // "Get ip number failed" for the start address is the established wording.
    "Get start ipv6 string from json failed(%d:%s)\n", "Get ip number failed\n",
    "Get end ipv6 string from json failed(%d:%s)\n", "Get end ipv6 number failed\n",
};

template <typename Range>
KQ_ERR_T ReadRange(const char *Fn, const RangeReader &R, const json_object *RangeObj, Range *Out)
{
    char text[kRangeTextSize] = {0};
    KQ_ERR_T ret = KQ_JsonSafeGetStr(RangeObj, R.StartKey, text, sizeof(text));
    if (ret < 0) {
        LogAs(Fn, kq::log::Error, R.StartTextMessage, KQ_ERR_ARGS(ret));
        return ret;
    }
    if (!ParseAddr(text, sizeof(text), &Out->StartIp)) {
        LogAs(Fn, kq::log::Error, "%s", R.StartNumberMessage);
        return -EINVAL;
    }
    memset(text, 0, sizeof(text));
    ret = KQ_JsonSafeGetStr(RangeObj, R.EndKey, text, sizeof(text));
    if (ret < 0) {
        LogAs(Fn, kq::log::Error, R.EndTextMessage, KQ_ERR_ARGS(ret));
        return ret;
    }
    if (!ParseAddr(text, sizeof(text), &Out->EndIp)) {
        LogAs(Fn, kq::log::Error, "%s", R.EndNumberMessage);
        return -EINVAL;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_JsonToConfDynamicIpv4ServerIpRange(const json_object *RangeObj, KQ_AGENT_IP_RANGE *Range)
{
    return ReadRange(__func__, kIpv4Range, RangeObj, Range);
}

KQ_ERR_T _KQCtrl_JsonToConfDhcpIpv6ServerIpv6Range(const json_object *RangeObj, KQ_AGENT_IPV6_RANGE *Range)
{
    return ReadRange(__func__, kIpv6Range, RangeObj, Range);
}

// The pool list of a server object: an array under ListKey, or (older documents) one
// range held directly in the server object.
struct RangeListReader {
    const char *ListKey;
    const char *ReadMessage;
    const char *NotArrayMessage;
    const char *EmptyMessage;
    const char *OverflowMessage;
    const char *NullMessage;
};

constexpr RangeListReader kIpv4RangeList = {
    "ipRange",
    "Get ipv4 ip range string from json failed(%d:%s)\n",
    "invalid dhcp.conf, ipRange is not array\n",
    "Ip range in dhcp.conf is empty\n",
    "Ip range number in dhcp.conf is overflow\n",
    "dhcp ip range [%zu] is null\n",
};

constexpr RangeListReader kIpv6RangeList = {
    "ipv6Range",
    "Get ipv6 ip range string from json failed(%d:%s)\n",
    "invalid dhcp.conf, ipv6Range is not array\n",
    "Ipv6 range in dhcp.conf is empty\n",
    "Ipv6 range number in dhcp.conf is overflow\n",
    "dhcp ipv6 range [%zu] is null\n",
};

template <typename Range, size_t Capacity>
KQ_ERR_T ReadRangeList(const char *Fn, const RangeListReader &L,
                       KQ_ERR_T (*ReadOne)(const json_object *, Range *), const json_object *ServerObj,
                       uint32_t *Count, Range (&Ranges)[Capacity])
{
    json_object *list = Member(ServerObj, L.ListKey);
    if (list == nullptr) {
        KQ_ERR_T ret = ReadOne(ServerObj, &Ranges[0]);
        if (ret < 0) {
            LogAs(Fn, kq::log::Error, L.ReadMessage, KQ_ERR_ARGS(ret));
            return ret;
        }
        *Count = 1;
        return 0;
    }
    if (json_object_get_type(list) != json_type_array) {
        LogAs(Fn, kq::log::Error, "%s", L.NotArrayMessage);
        return -EINVAL;
    }
    size_t length = json_object_array_length(list);
    // Stored before the checks: a refused list leaves its length in the count. Only the
    // length is kept; no range beyond the capacity is ever read or stored.
    *Count = static_cast<uint32_t>(length > UINT32_MAX ? UINT32_MAX : length);
    if (length == 0) {
        LogAs(Fn, kq::log::Error, "%s", L.EmptyMessage);
        return -ENOENT;
    }
    if (length > Capacity) {
        LogAs(Fn, kq::log::Error, "%s", L.OverflowMessage);
        return -EOVERFLOW;
    }
    for (size_t i = 0; i < length; ++i) {
        json_object *rangeObj = json_object_array_get_idx(list, i);
        if (rangeObj == nullptr) {
            LogAs(Fn, kq::log::Error, L.NullMessage, i);
            return -EINVAL;
        }
        KQ_ERR_T ret = ReadOne(rangeObj, &Ranges[i]);
        if (ret < 0) {
            LogAs(Fn, kq::log::Error, L.ReadMessage, KQ_ERR_ARGS(ret));
            return ret;
        }
    }
    return 0;
}

// The DNS list of a server part: an array under ListKey, or (older documents) one address
// under SingleKey.
struct DnsReader {
    const char *ListKey;
    const char *SingleKey;
    size_t TextSize;
    const char *NullMessage;
    const char *OverflowMessage;
    const char *NumberMessage;
};

constexpr DnsReader kIpv4Dns = {
    "dnsIps", "dns", kIpv4TextSize,
    "dns ip [%zu] is null\n", "dns ip [%zu] is overflow\n", "Get dns ip number failed\n",
};

constexpr DnsReader kIpv6Dns = {
    "dnsIpv6s", "dnsIpv6", kIpv6TextSize,
    "dns ipv6 [%zu] is null\n", "dns ipv6 [%zu] is overflow\n", "Get dns ipv6 number failed\n",
};

template <typename Addr, size_t Capacity>
KQ_ERR_T ReadDns(const char *Fn, const DnsReader &D, const json_object *ServerObj, uint32_t *Count,
                 Addr (&Entries)[Capacity])
{
    char text[kIpv6TextSize] = {0};
    const size_t textSize = D.TextSize <= sizeof(text) ? D.TextSize : sizeof(text);

    json_object *list = Member(ServerObj, D.ListKey);
    if (list == nullptr) {
        KQ_ERR_T ret = KQ_JsonSafeGetStr(ServerObj, D.SingleKey, text, textSize);
        if (ret < 0) {
            // The count says one server although none was read; the caller fails the
            // whole part on this result, so nothing serves with it.
            *Count = 1;
            return ret;
        }
        if (!ParseAddr(text, textSize, &Entries[0])) {
            LogAs(Fn, kq::log::Error, "%s", D.NumberMessage);
            return -EINVAL;
        }
        *Count = 1;
        return 0;
    }

    // A list that cannot be used means no DNS server, silently: reading goes on.
    if (json_object_get_type(list) != json_type_array)
        return 0;
    size_t length = json_object_array_length(list);
    if (length == 0 || length > Capacity)
        return 0;

    *Count = static_cast<uint32_t>(length);
    for (size_t i = 0; i < length; ++i) {
        json_object *item = json_object_array_get_idx(list, i);
        const char *itemText = item != nullptr ? json_object_get_string(item) : nullptr;
        if (itemText == nullptr) {
            LogAs(Fn, kq::log::Error, D.NullMessage, i);
            return -EINVAL;
        }
        if (KQ_SafeStrCopy(text, textSize, itemText) > textSize - 1) {
            LogAs(Fn, kq::log::Error, D.OverflowMessage, i);
            return -EINVAL;
        }
        if (!ParseAddr(text, textSize, &Entries[i])) {
            LogAs(Fn, kq::log::Error, "%s", D.NumberMessage);
            return -EINVAL;
        }
    }
    return 0;
}

KQ_ERR_T _KQCtrl_JsonToConfDynamicIpv4ServerDns(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &Conf->ServerIpv4Conf;
    return ReadDns(__func__, kIpv4Dns, ServerObj, &ipv4->DnsNum, ipv4->Dns);
}

KQ_ERR_T _KQCtrl_JsonToConfDhcpIpv6ServerDns(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_DHCP_IPV6_SERVER_CONF *dhcp = &Conf->ServerIpv6Conf.DhcpConf;
    return ReadDns(__func__, kIpv6Dns, ServerObj, &dhcp->Ipv6DnsNum, dhcp->Ipv6Dns);
}

KQ_ERR_T _KQCtrl_JsonToConfSlaacServerDns(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_SLAAC_IPV6_SERVER_CONF *slaac = &Conf->ServerIpv6Conf.SlaacConf;
    return ReadDns(__func__, kIpv6Dns, ServerObj, &slaac->Ipv6DnsNum, slaac->Ipv6Dns);
}

// A uint32 field read through the signed getter; the value lands in the field also when
// the read fails, as the getter stores it.
KQ_ERR_T ReadU32(const json_object *Obj, const char *Key, uint32_t *Field)
{
    int32_t value = 0;
    KQ_ERR_T ret = KQ_JsonSafeGetI32(Obj, Key, &value);
    *Field = static_cast<uint32_t>(value);
    return ret;
}

KQ_ERR_T _KQCtrl_JsonToConfDynamicIpv4Server(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &Conf->ServerIpv4Conf;
    char text[kIpv4TextSize] = {0};

    KQ_ERR_T ret = KQ_JsonSafeGetStr(ServerObj, "netmask", text, sizeof(text));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get netmask failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    // An empty netmask is how a document says that the interface serves no IPv4.
    if (text[0] == '\0')
        return 0;
    // Assigned, not or-ed: the IPv4 part is read before the IPv6 part.
    Conf->NetAddrType = KQ_NET_ADDR_IPV4;
    if (!ParseAddr(text, sizeof(text), &ipv4->NetMask)) {
        KQ_LOG(kq::log::Error, "Get netmask ip number failed\n");
        return -EINVAL;
    }

    ret = ReadRangeList(__func__, kIpv4RangeList, _KQCtrl_JsonToConfDynamicIpv4ServerIpRange, ServerObj,
                        &ipv4->IpRangeNum, ipv4->IpRange);
    if (ret < 0)
        return ret;

    memset(text, 0, sizeof(text));
    ret = KQ_JsonSafeGetStr(ServerObj, "gateway", text, sizeof(text));
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get gateway ip string from json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    if (!ParseAddr(text, sizeof(text), &ipv4->Gateway)) {
        KQ_LOG(kq::log::Error, "Get gateway ip number failed\n");
        return -EINVAL;
    }

    ret = _KQCtrl_JsonToConfDynamicIpv4ServerDns(ServerObj, Conf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get ipv4 dns from json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    ret = ReadU32(ServerObj, "leaseTime", &ipv4->LeaseTime);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get lease time failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_JsonToConfDhcpIpv6Server(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_DHCP_IPV6_SERVER_CONF *dhcp = &Conf->ServerIpv6Conf.DhcpConf;

    KQ_ERR_T ret = ReadU32(ServerObj, "prefixlengthdhcp", &dhcp->PrefixLength);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get Prefix Length failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    if (dhcp->PrefixLength == 0)
        return 0;
    Conf->NetAddrType = static_cast<KQ_NET_ADDR_TYPE>(Conf->NetAddrType | KQ_NET_ADDR_IPV6);

    ret = ReadU32(ServerObj, "leaseTimeIpv6", &dhcp->Ipv6LeaseTime);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get lease time ipv6 failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    ret = ReadRangeList(__func__, kIpv6RangeList, _KQCtrl_JsonToConfDhcpIpv6ServerIpv6Range, ServerObj,
                        &dhcp->Ipv6RangeNum, dhcp->Ipv6Range);
    if (ret < 0)
        return ret;

    ret = _KQCtrl_JsonToConfDhcpIpv6ServerDns(ServerObj, Conf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Get ipv6 dns from json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_JsonToConfSlaacServer(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_SLAAC_IPV6_SERVER_CONF *slaac = &Conf->ServerIpv6Conf.SlaacConf;

    KQ_ERR_T ret = ReadU32(ServerObj, "prefixlengthslaac", &slaac->PrefixLength);
    if (ret < 0)
        KQ_LOG(kq::log::Warning, "Get Prefix Length failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    if (slaac->PrefixLength == 0)
        return 0;
    Conf->NetAddrType = static_cast<KQ_NET_ADDR_TYPE>(Conf->NetAddrType | KQ_NET_ADDR_IPV6);

    // A prefix that is missing or too long leaves the advertised prefix zero.
    char text[kIpv6TextSize] = {0};
    if (KQ_JsonSafeGetStr(ServerObj, "prefix", text, sizeof(text)) == 0 &&
        !ParseAddr(text, sizeof(text), &slaac->Prefix)) {
        KQ_LOG(kq::log::Error, "Get prefix ipv6 number failed\n");
        return -EINVAL;
    }

    ret = _KQCtrl_JsonToConfSlaacServerDns(ServerObj, Conf);
    if (ret < 0)
        KQ_LOG(kq::log::Error, "Get ipv6 dns from json failed(%d:%s)\n", KQ_ERR_ARGS(ret));
    return ret;
}

KQ_ERR_T _KQCtrl_JsonToConfDhcpAndSlaacServer(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    if (_KQCtrl_JsonToConfDhcpIpv6Server(ServerObj, Conf) < 0) {
        KQ_LOG(kq::log::Error, "Json to dhcp ipv6 server failed\n");
        return -EINVAL;
    }
    if (_KQCtrl_JsonToConfSlaacServer(ServerObj, Conf) < 0) {
        KQ_LOG(kq::log::Error, "Json to slaac ipv6 server failed\n");
        return -EINVAL;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_JsonToConfDynamicIpv6Server(const json_object *ServerObj, KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    // The mode only picks the reader; it is deliberately not stored, so a restored record
    // keeps the mode its caller set (zero: SLAAC).
    int32_t dynamicMode = 0;
    if (KQ_JsonSafeGetI32(ServerObj, "dynamicMode", &dynamicMode) < 0) {
        // Documents older than the mode hold a stateful DHCPv6 server.
        if (_KQCtrl_JsonToConfDhcpIpv6Server(ServerObj, Conf) < 0)
            KQ_LOG(kq::log::Warning, "Json to dhcp ipv6 server failed\n");
        return 0;
    }
    switch (dynamicMode) {
    case KQ_IPV6_ADDR_AUTOCONF_DHCP:
        if (_KQCtrl_JsonToConfDhcpIpv6Server(ServerObj, Conf) < 0) {
            KQ_LOG(kq::log::Error, "Json to stateful dhcp ipv6 server failed\n");
            return -EINVAL;
        }
        return 0;
    case KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP:
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP:
        if (_KQCtrl_JsonToConfDhcpAndSlaacServer(ServerObj, Conf) < 0) {
            KQ_LOG(kq::log::Error, "Json to stateless dhcp ipv6 server failed\n");
            return -EINVAL;
        }
        return 0;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC:
        if (_KQCtrl_JsonToConfSlaacServer(ServerObj, Conf) < 0) {
            KQ_LOG(kq::log::Error, "Json to slaac ipv6 server failed\n");
            return -EINVAL;
        }
        return 0;
    default:
        KQ_LOG(kq::log::Error, "Json to dhcp ipv6 server failed\n");
        return -EINVAL;
    }
}

// ---- Writer -------------------------------------------------------------------------

// "%u.%u.%u.%u" of a host-order address, most significant octet first. Written out by hand:
// every change rewrites dhcp.conf with several addresses per interface, and formatting
// them through printf was a sixth of that rewrite. The longest text always fits.
void FormatIpv4(char (&Text)[kIpv4TextSize], uint32_t Ip)
{
    static_assert(sizeof(Text) >= sizeof("255.255.255.255"));
    char *out = Text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned octet = (Ip >> shift) & 0xFFu;
        if (octet >= 100)
            *out++ = static_cast<char>('0' + octet / 100);
        if (octet >= 10)
            *out++ = static_cast<char>('0' + octet / 10 % 10);
        *out++ = static_cast<char>('0' + octet % 10);
        *out++ = shift != 0 ? '.' : '\0';
    }
}

bool FormatIpv6(char (&Text)[kIpv6TextSize], const KQ_IN6_ADDR *Ip)
{
    return KQ_SafeStrFormatIp6Addr(Text, sizeof(Text), Ip) <= sizeof(Text) - 1;
}

KQ_ERR_T _KQCtrl_ConfToJsonDynamicIpv4Server(json_object *DynamicJson, const KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    const KQ_DYNAMIC_IPV4_SERVER_CONF *ipv4 = &Conf->ServerIpv4Conf;
    char text[kIpv4TextSize];

    json_object *serverJson = json_object_new_object();
    if (!AddMember(DynamicJson, "dhcpIpv4Server", serverJson)) {
        KQ_LOG(kq::log::Error, "Can't new dynamicServer object\n");
        return -ENOMEM;
    }

    json_object *rangeArray = json_object_new_array();
    if (!AddMember(serverJson, "ipRange", rangeArray)) {
        KQ_LOG(kq::log::Error, "Can't new ipRange object\n");
        return -ENOMEM;
    }
    for (uint32_t i = 0; i < ipv4->IpRangeNum; ++i) {
        json_object *rangeJson = json_object_new_object();
        if (!AppendElement(rangeArray, rangeJson)) {
            KQ_LOG(kq::log::Error, "Can't new ipRangeItem object\n");
            return -ENOMEM;
        }
        FormatIpv4(text, ipv4->IpRange[i].StartIp);
        if (!AddMember(rangeJson, "startIp", json_object_new_string(text))) {
            KQ_LOG(kq::log::Error, "Can't new startIp\n");
            return -ENOMEM;
        }
        FormatIpv4(text, ipv4->IpRange[i].EndIp);
        if (!AddMember(rangeJson, "endIp", json_object_new_string(text))) {
            KQ_LOG(kq::log::Error, "Can't new endIp\n");
            return -ENOMEM;
        }
    }

    FormatIpv4(text, ipv4->NetMask);
    if (!AddMember(serverJson, "netmask", json_object_new_string(text))) {
        KQ_LOG(kq::log::Error, "Can't new netmask\n");
        return -ENOMEM;
    }
    FormatIpv4(text, ipv4->Gateway);
    if (!AddMember(serverJson, "gateway", json_object_new_string(text))) {
        KQ_LOG(kq::log::Error, "Can't new gateway\n");
        return -ENOMEM;
    }

    // No "dnsIps" at all when there is no DNS server; such a server does not read back.
    if (ipv4->DnsNum != 0) {
        json_object *dnsArray = json_object_new_array();
        if (!AddMember(serverJson, "dnsIps", dnsArray)) {
            KQ_LOG(kq::log::Error, "Can't new dnsIps object\n");
            return -ENOMEM;
        }
        for (uint32_t i = 0; i < ipv4->DnsNum; ++i) {
            FormatIpv4(text, ipv4->Dns[i]);
            if (!AppendElement(dnsArray, json_object_new_string(text))) {
                KQ_LOG(kq::log::Error, "Can't new dns\n");
                return -ENOMEM;
            }
        }
    }

    if (!AddMember(serverJson, "leaseTime", json_object_new_int(static_cast<int32_t>(ipv4->LeaseTime)))) {
        KQ_LOG(kq::log::Error, "Can't new leaseTime\n");
        return -ENOMEM;
    }
    return 0;
}

// "dnsIpv6s" of the DHCPv6 or the SLAAC part; Fn is the writer that owns the messages.
KQ_ERR_T AddIpv6DnsList(const char *Fn, json_object *Ipv6Json, uint32_t DnsNum, const KQ_IN6_ADDR *Dns)
{
    if (DnsNum == 0)
        return 0;
    json_object *dnsArray = json_object_new_array();
    // A second add replaces the first: in the combined modes the SLAAC list wins.
    if (!AddMember(Ipv6Json, "dnsIpv6s", dnsArray)) {
        KQ_LOG_AS(Fn, kq::log::Error, "Can't new dnsIpv6s object\n");
        return -ENOMEM;
    }
    char text[kIpv6TextSize];
    for (uint32_t i = 0; i < DnsNum; ++i) {
        if (!FormatIpv6(text, &Dns[i])) {
            KQ_LOG_AS(Fn, kq::log::Warning, "Ipv6 string is overflow\n");
            return -EOVERFLOW;
        }
        if (!AppendElement(dnsArray, json_object_new_string(text))) {
            KQ_LOG_AS(Fn, kq::log::Error, "Can't new dnsipv6\n");
            return -ENOMEM;
        }
    }
    return 0;
}

KQ_ERR_T _KQCtrl_ConfToJsonStatefulDhcpServer(json_object *DhcpJson, const KQ_DHCP_IPV6_SERVER_CONF *DhcpConf)
{
    // Same words as the IPv4 array, on purpose.
    json_object *rangeArray = json_object_new_array();
    if (!AddMember(DhcpJson, "ipv6Range", rangeArray)) {
        KQ_LOG(kq::log::Error, "Can't new ipRange object\n");
        return -ENOMEM;
    }
    char text[kIpv6TextSize];
    for (uint32_t i = 0; i < DhcpConf->Ipv6RangeNum; ++i) {
        json_object *rangeJson = json_object_new_object();
        if (!AppendElement(rangeArray, rangeJson)) {
            KQ_LOG(kq::log::Error, "Can't new ipv6RangeItem object\n");
            return -ENOMEM;
        }
        if (!FormatIpv6(text, &DhcpConf->Ipv6Range[i].StartIp)) {
            KQ_LOG(kq::log::Warning, "Ipv6 string is overflow\n");
            return -EOVERFLOW;
        }
        if (!AddMember(rangeJson, "startIpv6", json_object_new_string(text))) {
            KQ_LOG(kq::log::Error, "Can't new startIp\n");
            return -ENOMEM;
        }
        if (!FormatIpv6(text, &DhcpConf->Ipv6Range[i].EndIp)) {
            KQ_LOG(kq::log::Warning, "Ipv6 string is overflow\n");
            return -EOVERFLOW;
        }
        if (!AddMember(rangeJson, "endIpv6", json_object_new_string(text))) {
            KQ_LOG(kq::log::Error, "Can't new endIp\n");
            return -ENOMEM;
        }
    }

    if (!AddMember(DhcpJson, "prefixlengthdhcp", json_object_new_int(static_cast<int32_t>(DhcpConf->PrefixLength)))) {
        KQ_LOG(kq::log::Error, "Can't new prefixLength\n");
        return -ENOMEM;
    }
    KQ_ERR_T ret = AddIpv6DnsList(__func__, DhcpJson, DhcpConf->Ipv6DnsNum, DhcpConf->Ipv6Dns);
    if (ret < 0)
        return ret;
    if (!AddMember(DhcpJson, "leaseTimeIpv6", json_object_new_int(static_cast<int32_t>(DhcpConf->Ipv6LeaseTime)))) {
        KQ_LOG(kq::log::Error, "Can't new leaseTime\n");
        return -ENOMEM;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_ConfToJsonSlaacServer(json_object *SlaacJson, const KQ_SLAAC_IPV6_SERVER_CONF *SlaacConf)
{
    char text[kIpv6TextSize];
    if (!FormatIpv6(text, &SlaacConf->Prefix)) {
        KQ_LOG(kq::log::Warning, "Ipv6 string is overflow\n");
        return -EOVERFLOW;
    }
    if (!AddMember(SlaacJson, "prefix", json_object_new_string(text))) {
        KQ_LOG(kq::log::Error, "Can't new prefix\n");
        return -ENOMEM;
    }
    if (!AddMember(SlaacJson, "prefixlengthslaac", json_object_new_int(static_cast<int32_t>(SlaacConf->PrefixLength)))) {
        KQ_LOG(kq::log::Error, "Can't new prefixLength\n");
        return -ENOMEM;
    }
    return AddIpv6DnsList(__func__, SlaacJson, SlaacConf->Ipv6DnsNum, SlaacConf->Ipv6Dns);
}

KQ_ERR_T _KQCtrl_ConfToJsonDhcpAndSlaacServer(json_object *Ipv6Json, const KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    KQ_ERR_T ret = _KQCtrl_ConfToJsonStatefulDhcpServer(Ipv6Json, &Conf->ServerIpv6Conf.DhcpConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "conf to json for dhcp mode server failed\n");
        return ret;
    }
    ret = _KQCtrl_ConfToJsonSlaacServer(Ipv6Json, &Conf->ServerIpv6Conf.SlaacConf);
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "conf to json for slaac mode server failed\n");
        return ret;
    }
    return 0;
}

KQ_ERR_T _KQCtrl_ConfToJsonDynamicIpv6Server(json_object *DynamicJson, const KQ_CTRL_DYNAMIC_SERVER_CONF *Conf)
{
    const KQ_DYNAMIC_IPV6_SERVER_CONF *ipv6 = &Conf->ServerIpv6Conf;

    json_object *ipv6Json = json_object_new_object();
    if (!AddMember(DynamicJson, "dhcpIpv6Server", ipv6Json)) {
        KQ_LOG(kq::log::Error, "Can't new dynamicIpv6Server object\n");
        return -ENOMEM;
    }
    if (!AddMember(ipv6Json, "dynamicMode", json_object_new_int(static_cast<int32_t>(ipv6->DynamicMode)))) {
        KQ_LOG(kq::log::Error, "Can't new dynamicMode\n");
        return -ENOMEM;
    }

    KQ_ERR_T ret = 0;
    switch (ipv6->DynamicMode) {
    case KQ_IPV6_ADDR_AUTOCONF_DHCP:
        ret = _KQCtrl_ConfToJsonStatefulDhcpServer(ipv6Json, &ipv6->DhcpConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "conf to json for dhcp mode server failed\n");
        break;
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC:
        ret = _KQCtrl_ConfToJsonSlaacServer(ipv6Json, &ipv6->SlaacConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "conf to json for slaac server mode failed\n");
        break;
    case KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP:
    case KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP:
        ret = _KQCtrl_ConfToJsonDhcpAndSlaacServer(ipv6Json, Conf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "conf to json for stateless dhcp mode server failed\n");
        break;
    default:
        // An unknown mode is kept as its number alone.
        break;
    }
    return ret;
}

}  // namespace

KQ_ERR_T KQCtrl_JsonToConfDynamicServer(const struct json_object *DynamicJsonObj,
                                        KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf)
{
    if (DynamicServerConf == nullptr)
        return -EINVAL;

    KQ_ERR_T ret = KQ_JsonSafeGetStr(DynamicJsonObj, "ifname", DynamicServerConf->IfName, kIfNameSize);
    // A name no interface can have is as unusable as a missing one.
    if (ret == 0 && !kq::IsUsableIfName(DynamicServerConf->IfName))
        ret = -EINVAL;
    if (ret < 0) {
        KQ_LOG(kq::log::Error, "Not found vaild ifname from Json object(%d:%s)\n", KQ_ERR_ARGS(ret));
        return ret;
    }

    int32_t vpnId = 0;
    if (KQ_JsonSafeGetI32(DynamicJsonObj, "vpnId", &vpnId) < 0) {
        KQ_LOG(kq::log::Warning, "Not found vaild securityZoneId from Json object, set securityZoneId to default\n");
        vpnId = 0;
    }
    DynamicServerConf->SecurityZoneId = static_cast<uint32_t>(vpnId);

    // The mode is not needed: whichever server objects are present are read.
    int32_t mode = 0;
    if (KQ_JsonSafeGetI32(DynamicJsonObj, "mode", &mode) < 0)
        KQ_LOG(kq::log::Warning, "Not found vaild mode from Json object\n");

    json_object *ipv4Json = Member(DynamicJsonObj, "dhcpServer");
    json_object *ipv6Json = ipv4Json;
    if (ipv4Json == nullptr) {
        ipv4Json = Member(DynamicJsonObj, "dhcpIpv4Server");
        if (ipv4Json == nullptr)
            KQ_LOG(kq::log::Warning, "dynamic ipv4 Server is invaild\n");
        ipv6Json = Member(DynamicJsonObj, "dhcpIpv6Server");
        if (ipv6Json == nullptr)
            KQ_LOG(kq::log::Warning, "dynamic ipv6 Server is invaild\n");
    }

    // A part that fails is logged and left as far as it was read; the load decides.
    if (ipv4Json != nullptr && _KQCtrl_JsonToConfDynamicIpv4Server(ipv4Json, DynamicServerConf) < 0)
        KQ_LOG(kq::log::Warning, "Json to dynamic ipv4 server failed\n");
    if (ipv6Json != nullptr && _KQCtrl_JsonToConfDynamicIpv6Server(ipv6Json, DynamicServerConf) < 0)
        KQ_LOG(kq::log::Warning, "Json to dynamic ipv6 server failed\n");
    return 0;
}

KQ_ERR_T KQCtrl_ConfToJsonDynamicServer(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf,
                                        struct json_object *DynamicJson)
{
    if (DynamicServerConf == nullptr || DynamicJson == nullptr)
        return -EINVAL;
    // Counts beyond the arrays (a refused dhcp.conf list) are written as far as they fit:
    // one such item must not make every later rewrite of dhcp.conf fail.
    KQ_CTRL_DYNAMIC_SERVER_CONF fitted;
    DynamicServerConf = _KQCtrl_FitDynamicServerConf(__func__, DynamicServerConf, &fitted);

    KQ_ERR_T ret = 0;
    if ((DynamicServerConf->NetAddrType & KQ_NET_ADDR_IPV4) != 0) {
        ret = _KQCtrl_ConfToJsonDynamicIpv4Server(DynamicJson, DynamicServerConf);
        if (ret < 0) {
            KQ_LOG(kq::log::Error, "conf to json for dynamic server failed\n");
            return ret;
        }
    }
    if ((DynamicServerConf->NetAddrType & KQ_NET_ADDR_IPV6) != 0) {
        ret = _KQCtrl_ConfToJsonDynamicIpv6Server(DynamicJson, DynamicServerConf);
        if (ret < 0)
            KQ_LOG(kq::log::Error, "conf to json for dynamic server failed\n");
    }
    return ret;
}
