/*
 * Operations shared between the module's source files but not exported: the registry's
 * views of a node's server and relay halves, the dhcp.conf rewrite, and the helpers that
 * the server and relay sides lend each other.
 */
#ifndef KQ_CTRL_DYNAMIC_INTERNAL_H
#define KQ_CTRL_DYNAMIC_INTERNAL_H

#include "kqCtrlDynamic.h"

// Registry (kqCtrlDynamicRegistry.cpp).
void _KQCtrl_DeleteDynamicConfListNode(const char *IfName);
KQ_CTRL_DYNAMIC_SERVER_CONF *_KQCtrl_GetDynamicServerConfByName(const char *IfName);
KQ_CTRL_DYNAMIC_RELAY_CONF *_KQCtrl_GetDynamicRelayConfByName(const char *IfName);
KQ_ERR_T _KQCtrl_InsertDynamicServerConfListNode(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
KQ_ERR_T _KQCtrl_InsertDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);
void _KQCtrl_UpdateDynamicServerConfListNode(const KQ_CTRL_DYNAMIC_SERVER_CONF *NewConf,
                                             KQ_CTRL_DYNAMIC_SERVER_CONF *CurrentConf);
void _KQCtrl_UpdateDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *NewConf,
                                            KQ_CTRL_DYNAMIC_RELAY_CONF *CurrentConf);
void _KQCtrl_DeleteDynamicRelayConfListNode(const KQ_CTRL_DYNAMIC_RELAY_CONF *DynamicRelayConf);
// Whether the record may have changed since _KQCtrl_ForgetDynamicConfHandedOut: a lookup
// or an insert handed it out (or a name is in the registry twice, or memory ran out).
bool _KQCtrl_DynamicConfHandedOut(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf);
void _KQCtrl_ForgetDynamicConfHandedOut(void);
// The text the last rendering of dhcp.conf kept for the record Conf (its bytes, then its
// item text), or null. The registry owns it and drops it with the record; setting one
// takes Text over (null drops the kept one).
struct json_object *_KQCtrl_DynamicConfItemText(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf);
void _KQCtrl_SetDynamicConfItemText(const KQ_CTRL_DYNAMIC_SERVICE_CONF *Conf, struct json_object *Text);
// How many records have their relay half on (IPv4).
size_t _KQCtrl_DynamicRelayCount(void);
// How many records the registry holds.
size_t _KQCtrl_DynamicConfCount(void);

// dhcp.conf rewrite (kqCtrlDynamicConfig.cpp).
KQ_ERR_T _KQCtrl_UpdateDynamicConfFile(void);

// Default DNS servers, used by the server add and the server load
// (server/kqCtrlDynamicServerConfig.cpp).
void _KQCtrl_SetDefaultDynamicIpv4ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);
void _KQCtrl_SetDefaultDynamicIpv6ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf);

// The record as its writers (dhcp.conf, dnsmasq) may write it: Conf itself when every count
// fits its array, else a copy in *Fitted with each count cut to its array and one warning,
// under Caller's name, naming the interface and what was dropped. Only a refused dhcp.conf
// list leaves such a count, and one such item must not block the files of every other
// interface (server/kqCtrlDynamicServerConfig.cpp).
const KQ_CTRL_DYNAMIC_SERVER_CONF *_KQCtrl_FitDynamicServerConf(const char *Caller,
                                                                const KQ_CTRL_DYNAMIC_SERVER_CONF *Conf,
                                                                KQ_CTRL_DYNAMIC_SERVER_CONF *Fitted);

// The server's dnsmasq configuration (server/kqCtrlDynamicServerManager.cpp).
KQ_ERR_T _KQCtrl_GetDynamicServerConfPath(const char *IfName, char *ConfPath, size_t Size);
KQ_ERR_T _KQCtrl_SetDynamicServerConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *DynamicServerConf,
                                      const char *ConfPath);

#endif /* KQ_CTRL_DYNAMIC_INTERNAL_H */
