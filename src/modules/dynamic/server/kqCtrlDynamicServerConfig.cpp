// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_ConfigDynamicServerAdd(const DhcpItemV2 *) { return 0; }
KQ_ERR_T KQCtrl_ConfigDynamicServerDel(const DhcpItemV2 *) { return 0; }
KQ_ERR_T KQCtrl_LoadDynamicServerConf(const char *) { return 0; }
void _KQCtrl_SetDefaultDynamicIpv4ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *) {}
void _KQCtrl_SetDefaultDynamicIpv6ServerDns(KQ_CTRL_DYNAMIC_SERVER_CONF *) {}
