/*
 * Public interface of the dynamic-address module: the configuration records kept per
 * LAN interface, the mode enumerations, and every operation the host agent may call.
 * Including this header alone gives a consumer the records, the request messages, the
 * version macros and the exported operations.
 *
 * Threading: the module takes no locks. Call it from one thread, one call at a time; every
 * call runs to completion (a child process it starts included) before it returns, and
 * nothing in the module runs between calls. The records a pointer from the registry points
 * at are valid until the next call.
 *
 * Results: every operation returning KQ_ERR_T returns 0 on success or a negative errno
 * value. The module makes -EINVAL (-22: invalid or missing input), -EOVERFLOW (-75: a name,
 * text, path or command that does not fit its fixed buffer), -ENOMEM (-12: a failed host
 * allocation or json-c object) and -ENOENT (-2: a dhcp.conf without any entry) itself;
 * other negative values come unchanged from the host operations (kqHost.h) or the system.
 * Each failure is logged once, through the host's logger, where it happened.
 *
 * Memory: callers' records and messages are read, never kept; the registry copies what it
 * stores. Heap memory comes from the host (KQ_AgentMemZeroAlloc and friends) and json-c only.
 *
 * Files and processes: the module writes /etc/vyr_dhcpd_<ifname>.conf, the shared relay's
 * /etc/vyr_dhcpd_relay.conf, pid files under /var/run, dhclient lease files under
 * /var/lib/dhclient and dhcp.conf at the host's paths (KQ_AgentPathDhcpConf and its backup);
 * it finds the dnsmasq and dhclient processes it started only through their pid files.
 */
#ifndef KQ_CTRL_DYNAMIC_H
#define KQ_CTRL_DYNAMIC_H

#include <stddef.h>
#include <stdint.h>

#include <json-c/json.h>

#include "kqDhcp.pb-c.h"
#include "kqDynamicVersion.h"
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

/* Serves the interface DhcpPb->ifname as the message says: the server half (start, restart,
 * stop or leave its dnsmasq alone when nothing changed), then the relay half (the shared
 * relay dnsmasq rebuilt), then dhcp.conf rewritten through its backup. The interface's zone
 * comes from KQ_RtcNetioLanGetByName. The first failing step ends the call with its result
 * and earlier steps are not undone. -EINVAL: a message without ifname, a bad interface name
 * or a field out of range; -EOVERFLOW: a name of 16 characters or more, a dnsmasq text or
 * command too long, or a dhcp.conf that would grow past the 16 MiB the start-up load reads
 * (refused before anything changes). */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicAdd(const DhcpItemV2 *DhcpPb);

/* Stops the interface's dnsmasq (SIGKILL; its pid and configuration files removed), takes it
 * out of the shared relay, drops its registry record and rewrites dhcp.conf. Deleting an
 * interface that is not configured is not an error. Results as KQCtrl_ConfigDynamicAdd. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicDel(const DhcpItemV2 *DhcpPb);

/* The start-up restore: reads the dhcp.conf at DynamicConfPath (normally
 * KQ_AgentPathDhcpConf()), inserts a registry record per entry, restarts each server's
 * dnsmasq and starts the shared relay once. Entries that cannot be read are skipped with a
 * log line; a failed restart is a warning. -EINVAL: no such file, not JSON, or no "dhcps"
 * array; -ENOENT: an empty "dhcps" array; -ENOMEM. The document keeps neither zones nor the
 * IPv6 server mode: what it restores runs in zone 0 (see dhcp.conf in the README). */
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicServiceConf(const char *DynamicConfPath);

/* ---- Registry ------------------------------------------------------------------ */

/* The head of the registry, one KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE per interface in the
 * order they were first added. Walk it with KQ_DYNAMIC_FOR_EACH_CONF; change it only
 * through the operations of this header. */
KQ_EXPORT KQ_LIST_HEAD *KQCtrl_GetDynamiclistHead(void);

/* Appends a copy of *DynamicConf to the registry as it is, without starting anything and
 * without looking for an existing record of the same name (a host that rebuilds the
 * registry after its own restart checks that). 0, or -ENOMEM. */
KQ_EXPORT KQ_ERR_T KQCtrl_InsertDynamicConfListNode(const KQ_CTRL_DYNAMIC_SERVICE_CONF *DynamicConf);

/* The registry record of IfName, or NULL. The record stays owned by the registry. */
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

/* The server half of KQCtrl_ConfigDynamicAdd: converts the message, stops the shared relay
 * (IPv4 server mode) or the interface's dnsmasq (IPv4 relay mode), fills a default DNS
 * server from the interface's first address when none is given, and restarts the dnsmasq
 * unless the record already holds the same settings. The registry record is inserted or
 * replaced; dhcp.conf is not written. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicServerAdd(const DhcpItemV2 *DhcpPb);

/* The server half of KQCtrl_ConfigDynamicDel: stops the interface's dnsmasq and removes its
 * pid and configuration files. The registry is not changed. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicServerDel(const DhcpItemV2 *DhcpPb);

/* The server half of KQCtrl_LoadDynamicServiceConf (same results). */
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicServerConf(const char *DynamicConfPath);

/* Fills *DynamicServerConf (zeroed by the caller) from the message: interface name, zone
 * (KQ_RtcNetioLanGetByName, 0 when the host does not know the interface), address family,
 * pools, mask, gateway, DNS, times, IPv6 mode and ranges. Starts nothing. -EINVAL: a null
 * message or name, a bad interface name, a mode or count out of range; -EOVERFLOW: a name
 * of 16 characters or more. */
KQ_EXPORT KQ_ERR_T KQCtrl_PbToConfDynamicServer(const DhcpItemV2 *DhcpPb,
                                                KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* Fills *DynamicServerConf from one entry of dhcp.conf's "dhcps" array; -EINVAL for an
 * entry missing a required key or holding a bad value, -EOVERFLOW for a text too long. */
KQ_EXPORT KQ_ERR_T KQCtrl_JsonToConfDynamicServer(const struct json_object *DynamicJsonObj,
                                                  KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* Adds the server keys of *DynamicServerConf to the JSON object DynamicJson (which owns
 * them afterwards). -ENOMEM when a json-c object cannot be made; -EOVERFLOW for an address
 * text that does not fit. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfToJsonDynamicServer(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf,
                                                  struct json_object *DynamicJson);

/* Writes /etc/vyr_dhcpd_<ifname>.conf from the record and runs dnsmasq (in the zone's
 * namespace through KQ_RtcGetNetNsExecCmdPrefix, by KQ_CmdExec). Does not stop a running
 * one first. -EINVAL: null record, or a command that failed; -EOVERFLOW: the configuration
 * text (10240 bytes), a path or the command line does not fit. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerStart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* Kills the interface's dnsmasq named by its pid file (SIGKILL; a stale pid file gets no
 * signal) and removes its pid and configuration files. 0 also when none runs. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerStop(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* KQCtrl_DynamicServerStop, then KQCtrl_DynamicServerStart; the first failure is returned.
 * The registry is not changed. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicServerRestart(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

/* ---- Relay --------------------------------------------------------------------- */

/* The relay half of KQCtrl_ConfigDynamicAdd: stores the interface's relay half (an empty one
 * for a message that is not in IPv4 relay mode) and, unless it is unchanged, rebuilds the
 * shared relay dnsmasq from every relay interface of the registry (stopped when none is
 * left). dhcp.conf is not written. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicRelayAdd(const DhcpItemV2 *DhcpPb);

/* The relay half of KQCtrl_ConfigDynamicDel: clears the interface's relay half and rebuilds
 * the shared relay. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfigDynamicRelayDel(const DhcpItemV2 *DhcpPb);

/* The relay half of KQCtrl_LoadDynamicServiceConf (same results); a relay that fails to
 * start is a warning, not a failure. */
KQ_EXPORT KQ_ERR_T KQCtrl_LoadDynamicRelayConf(const char *DynamicConfPath);

/* Fills *DynamicRelayConf (zeroed by the caller) from the message's IPv4 relay item: relay
 * servers (1 to 4) and the LAN address. A message in another mode gives an empty relay half.
 * Results as KQCtrl_PbToConfDynamicServer. */
KQ_EXPORT KQ_ERR_T KQCtrl_PbToConfDynamicRelay(const DhcpItemV2 *DhcpPb,
                                               KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);

/* Fills *DynamicRelayConf from one entry of dhcp.conf's "dhcps" array; -EINVAL for a missing
 * or bad value (more than 4 relay servers included). */
KQ_EXPORT KQ_ERR_T KQCtrl_JsonToConfDynamicRelay(const struct json_object *DynamicJsonObj,
                                                 KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);

/* Adds the relay keys of *DynamicRelayConf to the JSON object DynamicRelayJson (which owns
 * them afterwards); -ENOMEM when a json-c object cannot be made. */
KQ_EXPORT KQ_ERR_T KQCtrl_ConfToJsonDynamicRelay(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf,
                                                 struct json_object *DynamicRelayJson);

/* Appends the record's "dhcp-relay=<lan>,<server>" lines to Content (a buffer from
 * KQ_FlexMsgAlloc, still the caller's). The result of the last append, as
 * KQ_FlexMsgSetFormatData gives it. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayConfAppend(KQ_FLEXIBLE_MSG *Content,
                                                 KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);

/* Stops the shared relay dnsmasq named by its pid file (KQ_KillPid) and removes its pid and
 * configuration files. 0 also when none runs. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayStop(void);

/* Stops the shared relay, writes Content (the relay's dnsmasq lines, as built with
 * KQCtrl_DynamicRelayConfAppend) to /etc/vyr_dhcpd_relay.conf and starts it in the agent's
 * own namespace. -EINVAL for a null text or a command that failed; -EOVERFLOW for a path or
 * command that does not fit. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicRelayRestart(const char *Content);

/* ---- Client -------------------------------------------------------------------- */
/* The client operations keep no registry and do not touch dhcp.conf: a running dhclient is
 * known from its pid file. Interface names follow the rules of the server (-EINVAL for a
 * name that no interface can have, -EOVERFLOW for 16 characters or more). */

/* Sends one ICMPv6 router solicitation to all routers out of IfName, from the calling
 * thread's namespace (KQ_Socket, KQ_SendTo). -EINVAL for a null name or a failed send (an
 * unknown interface is tried with scope 0); otherwise KQ_Socket's result. */
KQ_EXPORT KQ_ERR_T KQCtrl_SendOneRsPkt(const char *IfName);

/* The IPv6 mode the next KQCtrl_DynamicClientEnableIpv6 uses: stateful DHCPv6
 * (KQ_IPV6_ADDR_AUTOCONF_DHCP, dhclient -6), stateless (dhclient -6 -S) or SLAAC (no
 * dhclient, only the policy rule). Kept until it is set again. */
KQ_EXPORT void KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_TYPE Ipv6AutoConfType);

/* Stops the interface's dhclient (its pid file confirmed with KQ_IsPIDCorrectInPIDFile) and
 * starts "dhclient -4" in the zone's namespace through KQ_RTCSystem, retried once. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientEnableIpv4(const char *IfName, uint32_t SecurityZoneId);

/* Stops the interface's dhclient -6, adds the DHCPv6 policy rule (KQ_RtcRuleConfAdd, on
 * every enable; a failure is a warning) and starts dhclient -6 in the mode last set. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId);

/* KQCtrl_SendOneRsPkt (a failed send is logged, not returned), then
 * KQCtrl_DynamicClientEnableIpv6, whose result this is. */
KQ_EXPORT KQ_ERR_T KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(const char *IfName, uint32_t SecurityZoneId);

/* Stops the interface's dhclient -4 and removes its pid file; 0 also when none runs. */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientDisableIpv4(const char *IfName, uint32_t SecurityZoneId);

/* Removes the DHCPv6 policy rule (KQ_RtcRuleConfDel) when KQCtrl_IfmInterfaceGetDhcpv6Count,
 * asked before anything stops, returns 0; then stops the interface's dhclient -6 and removes
 * its pid file (0 also when none runs). */
KQ_EXPORT KQ_ERR_T KQCtrl_DynamicClientDisableIpv6(const char *IfName, uint32_t SecurityZoneId);

#ifdef __cplusplus
}
#endif

#endif /* KQ_CTRL_DYNAMIC_H */
