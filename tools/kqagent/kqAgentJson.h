// Lookups in the JSON documents kqagent reads and shows, tolerant of what is missing, and
// the one rule json-c does not keep for them: no key given twice.
#pragma once

#include <json-c/json.h>

#include <string>

namespace kqagent {

// A member of a JSON object; null when the object or the member is missing.
inline json_object *Member(json_object *object, const char *key)
{
    json_object *value = nullptr;
    return object != nullptr && json_object_object_get_ex(object, key, &value) ? value : nullptr;
}

// The member's text; "" when it is missing.
inline std::string Field(json_object *object, const char *key)
{
    json_object *value = Member(object, key);
    return value != nullptr ? json_object_get_string(value) : "";
}

// The first key that appears twice in one object of a JSON text, as "path: duplicate key
// (...)", or "" when there is none. Keys are compared as the parser reads them ("\u0061" is
// "a"). The text must already be valid JSON: json-c keeps the last of two equal keys, so a
// document that says two things would silently mean the second.
std::string FindDuplicateKey(const std::string &text);

}  // namespace kqagent
