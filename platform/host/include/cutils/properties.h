#pragma once
// Host edition: a property is a file under $ORV_ROOT/dev/__properties__/.

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value (or the default) into `value`, which holds PROPERTY_VALUE_MAX bytes; returns
// its length.
int property_get(const char* key, char* value, const char* default_value);
// 0 on success, -1 when refused.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
