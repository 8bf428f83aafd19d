#include "kqCtrlDynamicUtil.h"

namespace kq {

bool IsUsableIfName(const char *IfName)
{
    if (IfName == nullptr || IfName[0] == '\0')
        return false;
    if (strcmp(IfName, ".") == 0 || strcmp(IfName, "..") == 0)
        return false;
    for (const char *c = IfName; *c != '\0'; ++c) {
        unsigned char ch = static_cast<unsigned char>(*c);
        if (ch == '/' || ch == ':' || ch <= ' ' || ch == 0x7F)
            return false;
    }
    return true;
}

}  // namespace kq
