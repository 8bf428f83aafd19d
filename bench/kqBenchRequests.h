// Requests and settings for the benchmarks: interface i of a mixed appliance (dual-stack
// servers with stateful DHCPv6 or SLAAC and DHCPv6, and relay interfaces), built as a
// DhcpItemV2 that owns everything it points to.
#pragma once

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kqCtrlDynamic.h"
#include "kqCtrlDynamicInternal.h"

namespace kqbench {

inline void RequireIsolation(const char *Program)
{
    const char *isolated = getenv("KQ_ISOLATED");
    if (isolated == nullptr || isolated[0] != '1') {
        fprintf(stderr, "%s writes /etc and /run: run it through scripts/isolate (scripts/bench does)\n", Program);
        exit(2);
    }
}

// Empties the module's registry without touching any process or file.
inline void EmptyRegistry()
{
    while (KQ_CTRL_DYNAMIC_SERVICE_CONF *first = KQCtrl_DynamicConfOfLink(KQCtrl_GetDynamiclistHead()->next))
        _KQCtrl_DeleteDynamicConfListNode(first->IfName);
}

inline uint32_t Ip4(const char *Text)
{
    in_addr a{};
    if (inet_pton(AF_INET, Text, &a) != 1)
        abort();
    return ntohl(a.s_addr);
}

// Writes the reference host's settings and points KQ_HOST_CONFIG at them. Only errors are
// logged: the figures are the module's work, not the writing of log lines.
inline void WriteHostSettings(const std::string &Dir, const std::string &Lans)
{
    std::string path = Dir + "/host.json";
    std::string text = "{ \"dhcpConf\": \"" + Dir + "/dhcp.conf\", \"dhcpConfBak\": \"" + Dir +
                       "/dhcp.conf.bak\", \"logLevel\": 4, \"lans\": [" + Lans + "] }\n";
    std::string mkdir = "mkdir -p " + Dir;
    FILE *f = system(mkdir.c_str()) == 0 ? fopen(path.c_str(), "w") : nullptr;
    if (f == nullptr || fputs(text.c_str(), f) < 0 || fclose(f) != 0) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        exit(2);
    }
    setenv("KQ_HOST_CONFIG", path.c_str(), 1);
}

class Request {
public:
    enum Kind { DualStateful, DualSlaacAndDhcp, Relay, Ipv4Only };

    Request(unsigned Index, Kind K) : m_kind(K)
    {
        snprintf(m_ifName, sizeof(m_ifName), "lan%u", Index);
        Wire(Index);
    }
    Request(const char *IfName, Kind K) : m_kind(K)
    {
        snprintf(m_ifName, sizeof(m_ifName), "%s", IfName);
        Wire(0);
    }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    static Kind KindOf(unsigned Index) { return static_cast<Kind>(Index % 3); }

    // A different lease time: the next add of this request is a change.
    void Change() { m_v4.leasetime ^= 1; }

    const DhcpItemV2 *get() const { return &m_msg; }
    const char *IfName() const { return m_ifName; }

private:
    void Wire(unsigned Index)
    {
        m_msg.ifname = m_ifName;
        if (m_kind == Relay) {
            m_v4Item.mode = KQ_DHCP_RELAY;
            m_relayServers[0] = Ip4("203.0.113.10");
            m_relayServers[1] = Ip4("203.0.113.11");
            m_relay.n_relayserver = 2;
            m_relay.relayserver = m_relayServers;
            m_relay.lanip = Ip4("198.51.100.1");
            m_v4Item.dhcprelay = &m_relay;
            m_msg.ipv4dhcpitem = &m_v4Item;
            return;
        }
        m_v4Item.mode = KQ_DHCP_SERVER;
        m_pool.begin = Ip4("192.0.2.100");
        m_pool.has_len = 1;
        m_pool.len = 100;
        m_poolPtr = &m_pool;
        m_v4.n_dhcpiprange = 1;
        m_v4.dhcpiprange = &m_poolPtr;
        m_v4.netmask = Ip4("255.255.255.0");
        m_v4.has_gateway = 1;
        m_v4.gateway = Ip4("192.0.2.1");
        m_dns[0] = Ip4("192.0.2.53");
        m_dns[1] = Ip4("198.51.100.53");
        m_v4.n_dns = 2;
        m_v4.dns = m_dns;
        m_v4.leasetime = 86400;
        m_v4Item.dhcpserver = &m_v4;
        m_msg.ipv4dhcpitem = &m_v4Item;
        if (m_kind == Ipv4Only)
            return;

        // 2001:db8:<index>::/64 per interface.
        for (auto &a : m_addr) {
            memset(a, 0, sizeof(a));
            a[0] = 0x20, a[1] = 0x01, a[2] = 0x0d, a[3] = 0xb8;
            a[4] = static_cast<uint8_t>(Index >> 8), a[5] = static_cast<uint8_t>(Index);
        }
        m_addr[0][14] = 0x01, m_addr[0][15] = 0x00;  // range start ::100
        m_addr[1][14] = 0x01, m_addr[1][15] = 0xff;  // range end ::1ff
        memset(m_addr[3] + 4, 0, 12);                 // DNS 2001:db8::53
        m_addr[3][15] = 0x53;
        m_v6Pool.ipv6begin = {16, m_addr[0]};
        m_v6Pool.ipv6end = {16, m_addr[1]};
        m_v6PoolPtr = &m_v6Pool;
        m_v6.n_dhcpiprange = 1;
        m_v6.dhcpiprange = &m_v6PoolPtr;
        m_v6.has_prefixlength = 1;
        m_v6.prefixlength = 64;
        m_v6Dns = {16, m_addr[3]};
        m_v6.n_dns = 1;
        m_v6.dns = &m_v6Dns;
        m_v6.has_leasetime = 1;
        m_v6.leasetime = 7200;
        m_v6.has_prefix = 1;
        m_v6.prefix = {16, m_addr[2]};  // 2001:db8:<index>::
        m_v6.has_ipv6dynamicmode = 1;
        m_v6.has_dnsdynamicmode = 1;
        if (m_kind == DualStateful) {
            m_v6.ipv6dynamicmode = KQ_IPV6_DHCP;
            m_v6.dnsdynamicmode = KQ_IPV6_DHCP;
        } else {
            m_v6.ipv6dynamicmode = KQ_IPV6_BOTH;
            m_v6.dnsdynamicmode = KQ_IPV6_SLAAC;
        }
        m_v6Item.mode = KQ_DHCP_SERVER;
        m_v6Item.dhcpserver = &m_v6;
        m_msg.ipv6dhcpitem = &m_v6Item;
    }

    Kind m_kind;
    char m_ifName[KQ_IFNAME_SIZE] = {0};
    DhcpItemV2 m_msg = DHCP_ITEM_V2__INIT;
    Ipv4DhcpItem m_v4Item = IPV4_DHCP_ITEM__INIT;
    Ipv4DhcpServer m_v4 = IPV4_DHCP_SERVER__INIT;
    Range m_pool = RANGE__INIT;
    Range *m_poolPtr = nullptr;
    uint32_t m_dns[2] = {0, 0};
    Ipv4DhcpRelay m_relay = IPV4_DHCP_RELAY__INIT;
    uint32_t m_relayServers[2] = {0, 0};
    Ipv6DhcpItem m_v6Item = IPV6_DHCP_ITEM__INIT;
    Ipv6DhcpServer m_v6 = IPV6_DHCP_SERVER__INIT;
    Ipv6Range m_v6Pool = IPV6_RANGE__INIT;
    Ipv6Range *m_v6PoolPtr = nullptr;
    ProtobufCBinaryData m_v6Dns = {0, nullptr};
    uint8_t m_addr[4][16];
};

}  // namespace kqbench
