// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_DynamicRelayConfAppend(KQ_FLEXIBLE_MSG *, KQ_CTRL_DYNAMIC_RELAY_CONF *) { return 0; }
KQ_ERR_T KQCtrl_DynamicRelayStop(void) { return 0; }
KQ_ERR_T KQCtrl_DynamicRelayRestart(const char *) { return 0; }
