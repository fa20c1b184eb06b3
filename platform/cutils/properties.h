// The part of the handset's libcutils that this system uses, declared as there.
// On the handset libcutils implements it; elsewhere platform/host does.
#pragma once

// Longest property value with its terminating NUL, in bytes.
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of the property key, or default_value when the property is not set, into value
// with a terminating NUL: at most PROPERTY_VALUE_MAX bytes in all. A null default_value leaves an
// empty string. Returns the length copied, without the NUL. Any thread.
int property_get(const char* key, char* value, const char* default_value);

#ifdef __cplusplus
}
#endif
