// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_DynamicServerStart(const KQ_CTRL_DYNAMIC_SERVER_CONF *) { return 0; }
KQ_ERR_T KQCtrl_DynamicServerStop(const KQ_CTRL_DYNAMIC_SERVER_CONF *) { return 0; }
KQ_ERR_T KQCtrl_DynamicServerRestart(const KQ_CTRL_DYNAMIC_SERVER_CONF *) { return 0; }
KQ_ERR_T _KQCtrl_GetDynamicServerConfPath(const char *, char *, size_t) { return 0; }
KQ_ERR_T _KQCtrl_SetDynamicServerConf(const KQ_CTRL_DYNAMIC_SERVER_CONF *, const char *) { return 0; }
