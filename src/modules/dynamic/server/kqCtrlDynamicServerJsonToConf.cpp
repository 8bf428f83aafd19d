// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_JsonToConfDynamicServer(const struct json_object *, KQ_CTRL_DYNAMIC_SERVER_CONF *) { return 0; }
KQ_ERR_T KQCtrl_ConfToJsonDynamicServer(const KQ_CTRL_DYNAMIC_SERVER_CONF *, struct json_object *) { return 0; }
