// Lookups in the JSON documents kqagent reads and shows, tolerant of what is missing.
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

}  // namespace kqagent
