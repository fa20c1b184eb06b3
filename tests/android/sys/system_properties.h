// What <cutils/properties.h> takes from the handset's C library.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
