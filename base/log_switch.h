// The logging switch: whether capture to flash is on. Included by every room; includes none.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// 1 while the logging property reads exactly "true", otherwise 0. Any thread reads it; after
// start-up only ListenerThread writes it, under gLogEnableMutex.
extern std::atomic<int32_t> gLogEnable;

// The value gLogEnable had before the watcher's last change. The relay clears it after it forced
// the modem's logging off; otherwise only ListenerThread writes it, under gLogEnableMutex.
extern std::atomic<int32_t> gLogEnablePrev;

// Makes the watcher's update of the pair appear whole to those that take it. CloseProcess holds it
// for the whole shutdown of a connection's modem-to-tool machinery.
extern pthread_mutex_t gLogEnableMutex;
