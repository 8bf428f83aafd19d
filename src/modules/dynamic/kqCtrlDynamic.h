/*
 * Public interface of the dynamic-address module: the configuration records kept per
 * LAN interface, the mode enumerations, and every operation the host agent may call.
 * Including this header alone gives a consumer the records, the request messages and
 * the exported operations.
 */
#ifndef KQ_CTRL_DYNAMIC_H
#define KQ_CTRL_DYNAMIC_H

#include <stddef.h>
#include <stdint.h>

#include <json-c/json.h>

#include "kqDhcp.pb-c.h"
#include "kqHost.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KQ_EXPORT __attribute__((visibility("default")))
#else
#define KQ_EXPORT
#endif

#define KQ_DYNAMIC_LOG_MODULE 62
#define KQ_IFNAME_SIZE 16
#define KQ_DYNAMIC_MAX_IP_RANGE 64
#define KQ_DYNAMIC_MAX_DNS 64
#define KQ_DYNAMIC_MAX_RELAY_SERVER 4

typedef enum KQ_DHCP_MODE {
    KQ_DHCP_OFF = 1,
    KQ_DHCP_RELAY = 2,
    KQ_DHCP_SERVER = 3,
} KQ_DHCP_MODE;

typedef enum KQ_NET_ADDR_TYPE {
    KQ_NET_ADDR_IPV4 = 1,
    KQ_NET_ADDR_IPV6 = 2,
    KQ_NET_ADDR_IPV46 = 3,
} KQ_NET_ADDR_TYPE;

typedef enum KQ_IPV6_ADDR_AUTOCONF_TYPE {
    KQ_IPV6_ADDR_AUTOCONF_SLAAC = 0,
    KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP = 1,
    KQ_IPV6_ADDR_AUTOCONF_DHCP = 2,
    KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP = 3,
    KQ_IPV6_ADDR_AUTOCONF_MAX = 4,
} KQ_IPV6_ADDR_AUTOCONF_TYPE;

typedef enum KQ_DYNAMIC_MODE {
    KQ_IPV6_DHCP = 1,
    KQ_IPV6_SLAAC = 2,
    KQ_IPV6_BOTH = 3,
} KQ_DYNAMIC_MODE;

typedef struct KQ_AGENT_IPV6_RANGE {
    KQ_IN6_ADDR StartIp;
    KQ_IN6_ADDR EndIp;
} KQ_AGENT_IPV6_RANGE;

typedef struct KQ_DYNAMIC_IPV4_SERVER_CONF {
    uint32_t IpRangeNum;
    KQ_AGENT_IP_RANGE IpRange[KQ_DYNAMIC_MAX_IP_RANGE];
    uint32_t NetMask;
    uint32_t DnsNum;
    uint32_t Dns[KQ_DYNAMIC_MAX_DNS];
    uint32_t Gateway;
    uint32_t LeaseTime;
    uint32_t OfferTime;
} KQ_DYNAMIC_IPV4_SERVER_CONF;

typedef struct KQ_DHCP_IPV6_SERVER_CONF {
    uint32_t Ipv6RangeNum;
    KQ_AGENT_IPV6_RANGE Ipv6Range[KQ_DYNAMIC_MAX_IP_RANGE];
    uint32_t PrefixLength;
    uint32_t Ipv6DnsNum;
    KQ_IN6_ADDR Ipv6Dns[KQ_DYNAMIC_MAX_DNS];
    uint32_t Ipv6LeaseTime;
} KQ_DHCP_IPV6_SERVER_CONF;

typedef struct KQ_SLAAC_IPV6_SERVER_CONF {
    KQ_IN6_ADDR Prefix;
    uint32_t PrefixLength;
    uint32_t Ipv6DnsNum;
    KQ_IN6_ADDR Ipv6Dns[KQ_DYNAMIC_MAX_DNS];
} KQ_SLAAC_IPV6_SERVER_CONF;

typedef struct KQ_DYNAMIC_IPV6_SERVER_CONF {
    KQ_IPV6_ADDR_AUTOCONF_TYPE DynamicMode;
    KQ_DHCP_IPV6_SERVER_CONF DhcpConf;
    KQ_SLAAC_IPV6_SERVER_CONF SlaacConf;
} KQ_DYNAMIC_IPV6_SERVER_CONF;

typedef struct KQ_CTRL_DYNAMIC_SERVER_CONF {
    char IfName[KQ_IFNAME_SIZE];
    uint32_t SecurityZoneId;
    KQ_NET_ADDR_TYPE NetAddrType;
    KQ_DYNAMIC_IPV4_SERVER_CONF ServerIpv4Conf;
    KQ_DYNAMIC_IPV6_SERVER_CONF ServerIpv6Conf;
} KQ_CTRL_DYNAMIC_SERVER_CONF;

typedef struct KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF {
    uint32_t RelayServerNum;
    uint32_t RelayServer[KQ_DYNAMIC_MAX_RELAY_SERVER];
    uint32_t LanIp;
} KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF;

typedef struct KQ_CTRL_DYNAMIC_RELAY_CONF {
    char IfName[KQ_IFNAME_SIZE];
    uint32_t SecurityZoneId;
    KQ_NET_ADDR_TYPE NetAddrType;
    KQ_CTRL_IPV4_DYNAMIC_RELAY_CONF RelayConf;
} KQ_CTRL_DYNAMIC_RELAY_CONF;

typedef struct KQ_CTRL_DYNAMIC_SERVICE_CONF {
    char IfName[KQ_IFNAME_SIZE];
    uint32_t SecurityZoneId;
    KQ_CTRL_DYNAMIC_SERVER_CONF DynamicServerConf;
    KQ_CTRL_DYNAMIC_RELAY_CONF DynamicRelayConf;
} KQ_CTRL_DYNAMIC_SERVICE_CONF;

typedef struct KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE {
    KQ_CTRL_DYNAMIC_SERVICE_CONF DynamicConf;
    KQ_LIST_HEAD List;
} KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE;

/* ---- Files of the processes the module runs ------------------------------------ */

/* Per interface (printf formats taking the interface name). */
#define KQ_DYNAMIC_SERVER_CONF_FMT "/etc/vyr_dhcpd_%s.conf"
#define KQ_DYNAMIC_SERVER_LEASE_FMT "/etc/vyr_dhcpd_%s.leases"
#define KQ_DYNAMIC_SERVER_PID_FMT "/var/run/vyr_dhcpd_%s.pid"
/* The one relay dnsmasq shared by every relay interface. */
#define KQ_DYNAMIC_RELAY_CONF_PATH "/etc/vyr_dhcpd_relay.conf"
#define KQ_DYNAMIC_RELAY_PID_PATH "/var/run/vyr_dhcpd_relay.pid"
/* dhclient: the pid file takes the interface name and the program tag ("dhclient" or
   "dhclient6"); the lease files take the interface name. */
#define KQ_DYNAMIC_CLIENT_PID_FMT "/var/run/%s_%s.pid"
#define KQ_DYNAMIC_CLIENT4_LEASE_FMT "/var/lib/dhclient/dhclient.%s.leases"
#define KQ_DYNAMIC_CLIENT6_LEASE_FMT "/var/lib/dhclient/dhclient6.%s.leases"

/* ---- Requests ------------------------------------------------------------------ */

/* The IPv6 server mode that a request's (address mode, DNS mode) pair asks for, each a
   KQ_DYNAMIC_MODE; KQ_IPV6_ADDR_AUTOCONF_MAX for a pair no server serves. Addresses from
   both sources go with DNS by router advertisement only. */
static inline KQ_IPV6_ADDR_AUTOCONF_TYPE KQCtrl_DynamicIpv6ModeOf(uint32_t AddrMode, uint32_t DnsMode)
{
    if (AddrMode == KQ_IPV6_DHCP && DnsMode == KQ_IPV6_DHCP)
        return KQ_IPV6_ADDR_AUTOCONF_DHCP;
    if (AddrMode == KQ_IPV6_SLAAC && DnsMode == KQ_IPV6_SLAAC)
        return KQ_IPV6_ADDR_AUTOCONF_SLAAC;
    if (AddrMode == KQ_IPV6_SLAAC && DnsMode == KQ_IPV6_DHCP)
        return KQ_IPV6_ADDR_AUTOCONF_STATELESS_DHCP;
    if (AddrMode == KQ_IPV6_BOTH && DnsMode == KQ_IPV6_SLAAC)
        return KQ_IPV6_ADDR_AUTOCONF_SLAAC_AND_DHCP;
    return KQ_IPV6_ADDR_AUTOCONF_MAX;
}

/* ---- Entry points -------------------------------------------------------------- */

KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicAdd(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicDel(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicServiceConf(const char *DynamicConfPath);

/* ---- Registry ------------------------------------------------------------------ */

KQ_EXPORT KQ_LIST_HEAD *KQCtrl_GetDynamiclistHead(void);
KQ_EXPORT KQ_ERR_T KQCtrl_InsertDynamicConfListNode(const KQ_CTRL_DYNAMIC_SERVICE_CONF *DynamicConf);
KQ_EXPORT KQ_CTRL_DYNAMIC_SERVICE_CONF *_KQCtrl_GetDynamicConfByName(const char *IfName);

/* The record of a registry link; NULL for the list head. */
static inline KQ_CTRL_DYNAMIC_SERVICE_CONF *KQCtrl_DynamicConfOfLink(KQ_LIST_HEAD *Link)
{
    return Link == KQCtrl_GetDynamiclistHead()
               ? NULL
               : &((KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *)((char *)Link -
                                                         offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, List)))
                      ->DynamicConf;
}

/* Every record of the registry in order: KQ_DYNAMIC_FOR_EACH_CONF(conf) { ... }. The
   record in hand must stay in the registry until the next step. */
#define KQ_DYNAMIC_FOR_EACH_CONF(Conf)                                                              \
    for (KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf = KQCtrl_DynamicConfOfLink(KQCtrl_GetDynamiclistHead()->next); \
         Conf != NULL;                                                                              \
         Conf = KQCtrl_DynamicConfOfLink(                                                           \
             ((KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE *)((char *)Conf -                                   \
                                                    offsetof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE, DynamicConf))) \
                 ->List.next))

/* ---- Server -------------------------------------------------------------------- */

KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicServerAdd(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicServerDel(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicServerConf(const char *DynamicConfPath);
KQ_EXPORT KQ_ERR_T KQCtrl_PbToConfDynamicServer(const DhcpItemV2 *DhcpPb,
                                                KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
KQ_EXPORT KQ_ERR_T KQCtrl_JsonToConfDynamicServer(const struct json_object *DynamicJsonObj,
                                                  KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
KQ_EXPORT KQ_ERR_T KQCtrl_ConfToJsonDynamicServer(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf,
                                                  struct json_object *DynamicJson);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerStart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerStop(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerRestart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* ---- Relay --------------------------------------------------------------------- */

KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicRelayAdd(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicRelayDel(const DhcpItemV2 *DhcpPb);
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicRelayConf(const char *DynamicConfPath);
KQ_EXPORT KQ_ERR_T KQCtrl_PbToConfDynamicRelay(const DhcpItemV2 *DhcpPb,
                                               KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);
KQ_EXPORT KQ_ERR_T KQCtrl_JsonToConfDynamicRelay(const struct json_object *DynamicJsonObj,
                                                 KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);
KQ_EXPORT KQ_ERR_T KQCtrl_ConfToJsonDynamicRelay(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf,
                                                 struct json_object *DynamicRelayJson);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayConfAppend(KQ_FLEXIBLE_MSG *Content,
                                                 KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayStop(void);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayRestart(const char *Content);

/* ---- Client -------------------------------------------------------------------- */

KQ_EXPORT KQ_ERR_T KQCtrl_SendOneRsPkt(const char *IfName);
KQ_EXPORT void KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_TYPE Ipv6AutoConfType);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientEnableIpv4(const char *IfName, uint32_t SecurityZoneId);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId);
KQ_EXPORT KQ_ERR_T KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientDisableIpv4(const char *IfName, uint32_t SecurityZoneId);
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientDisableIpv6(const char *IfName, uint32_t SecurityZoneId);

#ifdef __cplusplus
}
#endif

#endif /* KQ_CTRL_DYNAMIC_H */
