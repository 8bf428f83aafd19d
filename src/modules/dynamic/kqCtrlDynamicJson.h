/*
 * json-c helpers shared by the dhcp.conf readers and writers of the server and the relay:
 * the two safe getters, member lookup, attaching a new value to its parent, and a log
 * statement for messages that come from a table of texts.
 */
#ifndef KQ_CTRL_DYNAMIC_JSON_H
#define KQ_CTRL_DYNAMIC_JSON_H

#include <stddef.h>
#include <stdint.h>

#include <json-c/json.h>

#include "kqCtrlDynamic.h"

// Copies json-c's string form of JObj[Key] into OutStr. -EINVAL when there is no value
// (key absent or JSON null; OutStr untouched); -EOVERFLOW when the text does not fit
// (the truncated text stays in OutStr); else 0.
KQ_ERR_T KQ_JsonSafeGetStr(const json_object *JObj, const char *Key, char *OutStr, size_t OutStrSize);

// json-c's integer form of JObj[Key]. -EINVAL when the key is absent or the value is text
// that is no number; -EOVERFLOW for the saturated values 2147483647 and -2147483648. The
// value (0 when absent) is stored through ValInt in every case, also on failure.
KQ_ERR_T KQ_JsonSafeGetI32(const json_object *JObj, const char *Key, int32_t *ValInt);

namespace kq::json {

// The value of Obj[Key], or null when Obj is no object, the key is absent or its value is
// JSON null.
json_object *Member(const json_object *Obj, const char *Key);

// Attach a new value to its parent at once, so that the caller releases the whole tree
// with one json_object_put of the root. A null Value, or a parent that could not take it
// (the value is then released here), gives false.
bool AddMember(json_object *Parent, const char *Key, json_object *Value);
bool AppendElement(json_object *Array, json_object *Value);

// One log statement whose message format comes from a table row (it ends in "\n"); Fn is
// the specified function that logs it.
void LogAs(const char *Fn, uint32_t Level, const char *Format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace kq::json

#endif /* KQ_CTRL_DYNAMIC_JSON_H */
