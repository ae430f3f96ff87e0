#pragma once
// The part of bionic's <sys/system_properties.h> that libcutils' <cutils/properties.h> needs.
// Debian packages libcutils' headers but not bionic's; only the device-flag compile uses this.
#include <sys/cdefs.h>

__BEGIN_DECLS

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

int __system_property_set(const char* name, const char* value);
int __system_property_get(const char* name, char* value);

__END_DECLS
