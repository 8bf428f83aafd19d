// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_ConfigDynamicRelayAdd(const DhcpItemV2 *) { return 0; }
KQ_ERR_T KQCtrl_ConfigDynamicRelayDel(const DhcpItemV2 *) { return 0; }
KQ_ERR_T KQCtrl_LoadDynamicRelayConf(const char *) { return 0; }
