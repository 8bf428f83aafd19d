// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_JsonToConfDynamicRelay(const struct json_object *, KQ_CTRL_DYNAMIC_RELAY_CONF *) { return 0; }
KQ_ERR_T KQCtrl_ConfToJsonDynamicRelay(const KQ_CTRL_DYNAMIC_RELAY_CONF *, struct json_object *) { return 0; }
