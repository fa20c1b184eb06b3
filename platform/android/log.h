// The part of the handset's liblog that this system uses, declared as there.
// On the handset liblog implements it; elsewhere platform/host does.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// Logs one line under tag. Any thread, and signal handlers. Keeps errno. Returns a positive value
// when the line was written or its level is off, a negative one when it was lost.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

// Returns 1 when a line of this priority under this tag would be written, otherwise 0.
// defaultPrio is the lowest priority written when no property sets a level.
int __android_log_is_loggable(int prio, const char* tag, int defaultPrio);

#ifdef __cplusplus
}
#endif
