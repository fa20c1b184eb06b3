// The system's two log tags. DAEMON_LOG* is for the daemon's frame (start-up, property watcher,
// signal handler, connection cycle, TCP listener, opening the modem port), LIB_LOG* for all else.
#pragma once

#include <android/log.h>

inline constexpr char kDaemonTag[] = "quillod";
inline constexpr char kLibTag[] = "libquillod";

#define DAEMON_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, kDaemonTag, __VA_ARGS__)
#define DAEMON_LOGI(...) __android_log_print(ANDROID_LOG_INFO, kDaemonTag, __VA_ARGS__)
#define DAEMON_LOGW(...) __android_log_print(ANDROID_LOG_WARN, kDaemonTag, __VA_ARGS__)
#define DAEMON_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kDaemonTag, __VA_ARGS__)

#define LIB_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, kLibTag, __VA_ARGS__)
#define LIB_LOGI(...) __android_log_print(ANDROID_LOG_INFO, kLibTag, __VA_ARGS__)
#define LIB_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kLibTag, __VA_ARGS__)
