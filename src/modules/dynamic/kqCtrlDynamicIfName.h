/*
 * The interface-name rule of the dynamic module, for the module itself and for any host
 * agent that wants to refuse the same names before it calls the module.
 *
 * A name goes into file names, a dnsmasq configuration and dhclient command lines, so
 * besides the names no Linux interface can have (empty, ".", "..", '/', ':', white space
 * or a control character) it refuses what those read as something else: a leading '-'
 * (an option to dhclient) and any of * ? [ ] , " ' # = \ (dnsmasq reads "interface=e*"
 * as a wildcard; ',' and '"' break its lines). The length limit (15 characters) is
 * checked apart, where the name is copied, so that it keeps its own result.
 */
#ifndef KQ_CTRL_DYNAMIC_IFNAME_H
#define KQ_CTRL_DYNAMIC_IFNAME_H

#include <string.h>

#include "kqHost.h"

static inline BOOL KQCtrl_DynamicIfNameUsable(const char *IfName)
{
    const char *c;
    if (IfName == NULL || IfName[0] == '\0' || IfName[0] == '-')
        return FALSE;
    if (strcmp(IfName, ".") == 0 || strcmp(IfName, "..") == 0)
        return FALSE;
    for (c = IfName; *c != '\0'; ++c) {
        unsigned char ch = (unsigned char)*c;
        if (ch <= ' ' || ch == 0x7F || strchr("/:*?[],\"'#=\\", ch) != NULL)
            return FALSE;
    }
    return TRUE;
}

#endif /* KQ_CTRL_DYNAMIC_IFNAME_H */
