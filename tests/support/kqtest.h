// What the unit and lab tests share: address parsing, the registry walk, and requests
// built from plain values (each request owns what its pointers reach, so keep it alive and
// unmoved while the message is in use).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <arpa/inet.h>

#include "kqCtrlDynamicInternal.h"

namespace kqtest {

// "192.0.2.1" -> host-order number; "2001:db8::1" -> KQ_IN6_ADDR. Test data only: aborts on typos.
inline uint32_t Ip4(const char *Text)
{
    in_addr a{};
    if (inet_pton(AF_INET, Text, &a) != 1)
        abort();
    return ntohl(a.s_addr);
}

inline KQ_IN6_ADDR Ip6(const char *Text)
{
    KQ_IN6_ADDR a{};
    if (inet_pton(AF_INET6, Text, a.In6.U6Addr8) != 1)
        abort();
    return a;
}
inline KQ_IN6_ADDR Ip6(const std::string &Text) { return Ip6(Text.c_str()); }

inline bool SameIp6(const KQ_IN6_ADDR &Addr, const char *Text) { return memcmp(&Addr, Ip6(Text).In6.U6Addr8, 16) == 0; }

// The registry's nodes in list order.
inline std::vector<KQ_CTRL_DYNAMIC_SERVICE_CONF *> Registry()
{
    std::vector<KQ_CTRL_DYNAMIC_SERVICE_CONF *> out;
    KQ_DYNAMIC_FOR_EACH_CONF(conf)
        out.push_back(conf);
    return out;
}

inline std::vector<std::string> RegistryNames()
{
    std::vector<std::string> names;
    for (const auto *c : Registry())
        names.push_back(c->IfName);
    return names;
}

// A server request (DhcpItemV2 with IPv4 and/or IPv6 server parts).
struct ServerMsg {
    std::optional<std::string> IfName = "eth1";

    std::optional<uint32_t> V4Mode;  // no IPv4 item when unset
    bool V4Server = true;
    std::vector<std::pair<const char *, uint32_t>> Pools;  // begin text, length
    int NullPoolAt = -1;
    uint32_t Netmask = 0, Lease = 0;
    std::vector<uint32_t> Dns;
    std::optional<uint32_t> Gateway, Offer;

    std::optional<uint32_t> V6Mode;  // no IPv6 item when unset
    bool V6Server = true;
    std::vector<std::pair<const char *, const char *>> V6Pools;
    int NullV6PoolAt = -1;
    std::vector<const char *> V6Dns;  // nullptr: a field without data
    std::optional<const char *> Prefix;
    std::optional<uint32_t> PrefixLen, V6Lease, AddrMode, DnsMode;

    // A ready IPv4 server: one pool 192.0.2.100-192.0.2.199, mask /24, lease 3600.
    static ServerMsg Ipv4()
    {
        ServerMsg m;
        m.V4Mode = 3;
        m.Pools = {{"192.0.2.100", 100}};
        m.Netmask = Ip4("255.255.255.0");
        m.Lease = 3600;
        return m;
    }

    // A ready IPv6 server in the given address and DNS modes.
    static ServerMsg Ipv6(uint32_t Addr, uint32_t Dns)
    {
        ServerMsg m;
        m.V6Mode = 3;
        m.AddrMode = Addr;
        m.DnsMode = Dns;
        m.V6Pools = {{"2001:db8:1::100", "2001:db8:1::1ff"}};
        m.Prefix = "2001:db8:1::";
        m.PrefixLen = 64;
        m.V6Lease = 7200;
        m.V6Dns = {"2001:db8::53"};
        return m;
    }

    // Both families on one interface: Ipv4() plus Ipv6() in the given modes.
    static ServerMsg DualStack(uint32_t Addr, uint32_t Dns)
    {
        ServerMsg m = Ipv6(Addr, Dns), v4 = Ipv4();
        std::tie(m.V4Mode, m.Pools, m.Netmask, m.Lease) = std::tie(v4.V4Mode, v4.Pools, v4.Netmask, v4.Lease);
        return m;
    }

    const DhcpItemV2 *Build()
    {
        Item = DHCP_ITEM_V2__INIT;
        Item.ifname = IfName ? IfName->data() : nullptr;
        Bytes.clear();
        Bytes.reserve(512);
        if (V4Mode) {
            V4Item = IPV4_DHCP_ITEM__INIT;
            V4Item.mode = *V4Mode;
            V4 = IPV4_DHCP_SERVER__INIT;
            Ranges.assign(Pools.size(), RANGE__INIT);
            RangePtrs.clear();
            for (size_t i = 0; i < Pools.size(); ++i) {
                Ranges[i].begin = Ip4(Pools[i].first);
                Ranges[i].has_len = 1;
                Ranges[i].len = Pools[i].second;
                RangePtrs.push_back(int(i) == NullPoolAt ? nullptr : &Ranges[i]);
            }
            V4.n_dhcpiprange = RangePtrs.size();
            V4.dhcpiprange = RangePtrs.empty() ? nullptr : RangePtrs.data();
            V4.netmask = Netmask;
            V4.leasetime = Lease;
            V4.n_dns = Dns.size();
            V4.dns = Dns.data();
            Optional(V4.has_gateway, V4.gateway, Gateway);
            Optional(V4.has_offertime, V4.offertime, Offer);
            V4Item.dhcpserver = V4Server ? &V4 : nullptr;
            Item.ipv4dhcpitem = &V4Item;
        }
        if (V6Mode) {
            V6Item = IPV6_DHCP_ITEM__INIT;
            V6Item.mode = *V6Mode;
            V6 = IPV6_DHCP_SERVER__INIT;
            V6Ranges.assign(V6Pools.size(), IPV6_RANGE__INIT);
            V6RangePtrs.clear();
            for (size_t i = 0; i < V6Pools.size(); ++i) {
                V6Ranges[i].ipv6begin = Addr(V6Pools[i].first);
                V6Ranges[i].ipv6end = Addr(V6Pools[i].second);
                V6RangePtrs.push_back(int(i) == NullV6PoolAt ? nullptr : &V6Ranges[i]);
            }
            V6.n_dhcpiprange = V6RangePtrs.size();
            V6.dhcpiprange = V6RangePtrs.data();
            V6DnsPb.clear();
            for (const char *d : V6Dns)
                V6DnsPb.push_back(d != nullptr ? Addr(d) : ProtobufCBinaryData{0, nullptr});
            V6.n_dns = V6DnsPb.size();
            V6.dns = V6DnsPb.data();
            V6.has_prefix = Prefix.has_value();
            if (Prefix)
                V6.prefix = Addr(*Prefix);
            Optional(V6.has_prefixlength, V6.prefixlength, PrefixLen);
            Optional(V6.has_leasetime, V6.leasetime, V6Lease);
            Optional(V6.has_ipv6dynamicmode, V6.ipv6dynamicmode, AddrMode);
            Optional(V6.has_dnsdynamicmode, V6.dnsdynamicmode, DnsMode);
            V6Item.dhcpserver = V6Server ? &V6 : nullptr;
            Item.ipv6dhcpitem = &V6Item;
        }
        return &Item;
    }

private:
    static void Optional(protobuf_c_boolean &Has, uint32_t &Field, const std::optional<uint32_t> &Value)
    {
        Has = Value.has_value();
        Field = Value.value_or(0);
    }

    // A 16-byte field; "short" gives a 4-byte one that the host refuses.
    ProtobufCBinaryData Addr(const char *Text)
    {
        Bytes.emplace_back();
        if (strcmp(Text, "short") == 0)
            return {4, Bytes.back().data()};
        KQ_IN6_ADDR a = Ip6(Text);
        memcpy(Bytes.back().data(), a.In6.U6Addr8, 16);
        return {16, Bytes.back().data()};
    }

    DhcpItemV2 Item;
    Ipv4DhcpItem V4Item;
    Ipv4DhcpServer V4;
    Ipv6DhcpItem V6Item;
    Ipv6DhcpServer V6;
    std::vector<Range> Ranges;
    std::vector<Ipv6Range> V6Ranges;
    std::vector<Range *> RangePtrs;
    std::vector<Ipv6Range *> V6RangePtrs;
    std::vector<ProtobufCBinaryData> V6DnsPb;
    std::vector<std::array<uint8_t, 16>> Bytes;
};

// The shared relay's files and the command that starts it.
inline constexpr char kRelayConfPath[] = "/etc/vyr_dhcpd_relay.conf";
inline constexpr char kRelayPidPath[] = "/var/run/vyr_dhcpd_relay.pid";
inline constexpr char kRelayStartCmd[] =
    "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_relay.conf --port=0 "
    "--pid-file=/var/run/vyr_dhcpd_relay.pid -z";

// A relay request (or, with ModeItem, an IPv4 item in another mode without a relay part).
struct RelayMsg {
    std::string IfName;
    uint32_t Mode = KQ_DHCP_RELAY;
    uint32_t LanIp = 0;
    std::vector<uint32_t> Servers;
    bool HasIpv4 = true;
    bool HasRelay = true;

    DhcpItemV2 Msg = DHCP_ITEM_V2__INIT;
    Ipv4DhcpItem Ipv4 = IPV4_DHCP_ITEM__INIT;
    Ipv4DhcpRelay Relay = IPV4_DHCP_RELAY__INIT;

    // Wires the message to the fields above; call after changing them.
    const DhcpItemV2 *get()
    {
        Msg.ifname = IfName.data();
        Msg.ipv4dhcpitem = HasIpv4 ? &Ipv4 : nullptr;
        Ipv4.mode = Mode;
        Ipv4.dhcprelay = HasRelay ? &Relay : nullptr;
        Relay.lanip = LanIp;
        Relay.n_relayserver = Servers.size();
        Relay.relayserver = Servers.data();
        return &Msg;
    }
};

inline RelayMsg RelayItem(const char *IfName, const char *LanIp, std::vector<const char *> Servers)
{
    RelayMsg item;
    item.IfName = IfName;
    item.LanIp = Ip4(LanIp);
    for (const char *s : Servers)
        item.Servers.push_back(Ip4(s));
    return item;
}

inline RelayMsg ModeItem(const char *IfName, uint32_t Mode)
{
    RelayMsg item;
    item.IfName = IfName;
    item.Mode = Mode;
    item.HasRelay = false;
    return item;
}

}  // namespace kqtest
