// Not built yet: each operation here is a placeholder that returns 0 until its part lands.
#include "kqCtrlDynamicInternal.h"

KQ_ERR_T KQCtrl_SendOneRsPkt(const char *) { return 0; }
void KQCtrl_DynamicClientSetIpv6AutoConfType(KQ_IPV6_ADDR_AUTOCONF_TYPE) {}
KQ_ERR_T KQCtrl_DynamicClientEnableIpv4(const char *, uint32_t) { return 0; }
KQ_ERR_T KQCtrl_DynamicClientEnableIpv6(const char *, uint32_t) { return 0; }
KQ_ERR_T KQCtrl_SendOneRsPktAndDynamicClientEnableIpv6(const char *, uint32_t) { return 0; }
KQ_ERR_T KQCtrl_DynamicClientDisableIpv4(const char *, uint32_t) { return 0; }
KQ_ERR_T KQCtrl_DynamicClientDisableIpv6(const char *, uint32_t) { return 0; }
