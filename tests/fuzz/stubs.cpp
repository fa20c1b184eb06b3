// The handset around a fuzz target: no log, no properties, a pool in memory and no flash. The
// linker takes these in the place of the real ones.
#include <android/log.h>
#include <cutils/properties.h>

#include <cstring>

#include "capture/pool_buffer.h"
#include "tests/fuzz/fuzz_directions.h"

std::string gCaptured;

int __android_log_is_loggable(int, const char*, int) {
    return 0;
}

int __android_log_print(int, const char*, const char*, ...) {
    return 1;
}

int property_get(const char*, char* value, const char* default_value) {
    const size_t len = strlen(default_value);
    memcpy(value, default_value, len + 1);
    return static_cast<int>(len);
}

PoolBuffer::PoolBuffer() : mBuffer() {}
PoolBuffer::~PoolBuffer() = default;

int PoolBuffer::Read(const char* data, int len) {
    Check(len > 0 && len <= kSlotSize, "a run fits a slot");
    gCaptured.append(data, static_cast<size_t>(len));
    return len;
}

bool PoolBuffer::HasSpace() {
    return true;
}

int PoolBuffer::Exit() {
    return 0;
}

void PoolBuffer::Join() {}
