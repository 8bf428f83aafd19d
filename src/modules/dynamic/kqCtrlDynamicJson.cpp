#include "kqCtrlDynamicJson.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "kqCtrlDynamicLog.h"

KQ_ERR_T KQ_JsonSafeGetStr(const json_object *JObj, const char *Key, char *OutStr, size_t OutStrSize)
{
    json_object *value = nullptr;
    (void)json_object_object_get_ex(JObj, Key, &value);
    // Any JSON type is read through its printed form; only a missing value is refused.
    const char *text = json_object_get_string(value);
    if (text == nullptr)
        return -EINVAL;
    if (KQ_SafeStrCopy(OutStr, OutStrSize, text) >= OutStrSize)
        return -EOVERFLOW;
    return 0;
}

KQ_ERR_T KQ_JsonSafeGetI32(const json_object *JObj, const char *Key, int32_t *ValInt)
{
    int32_t value = 0;
    KQ_ERR_T ret = 0;
    json_object *member = nullptr;
    if (!json_object_object_get_ex(JObj, Key, &member)) {
        ret = -EINVAL;
    } else {
        errno = 0;
        value = json_object_get_int(member);
        // json-c saturates out-of-range numbers to these two values and reports text that
        // holds no number as 0 with errno EINVAL.
        if (value == INT32_MAX || value == INT32_MIN)
            ret = -EOVERFLOW;
        else if (value == 0 && errno == EINVAL)
            ret = -EINVAL;
    }
    // Stored also on failure: callers that fall back to a default rely on the 0.
    *ValInt = value;
    return ret;
}

namespace kq::json {

json_object *Member(const json_object *Obj, const char *Key)
{
    json_object *value = nullptr;
    if (!json_object_object_get_ex(Obj, Key, &value))
        return nullptr;
    return value;
}

bool AddMember(json_object *Parent, const char *Key, json_object *Value)
{
    if (Value == nullptr)
        return false;
    if (json_object_object_add(Parent, Key, Value) != 0) {
        json_object_put(Value);
        return false;
    }
    return true;
}

bool AppendElement(json_object *Array, json_object *Value)
{
    if (Value == nullptr)
        return false;
    if (json_object_array_add(Array, Value) != 0) {
        json_object_put(Value);
        return false;
    }
    return true;
}

void LogAs(const char *Fn, uint32_t Level, const char *Format, ...)
{
    char message[256];
    va_list args;
    va_start(args, Format);
    vsnprintf(message, sizeof(message), Format, args);
    va_end(args);
    KQ_LOG_AS(Fn, Level, "%s", message);
}

}  // namespace kq::json
