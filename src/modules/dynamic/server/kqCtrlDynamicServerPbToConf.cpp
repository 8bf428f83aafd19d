// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_PbToConfDynamicServer(const DhcpItemV2 *, KQ_CTRL_DYNAMIC_SERVER_CONF *) { return 0; }
