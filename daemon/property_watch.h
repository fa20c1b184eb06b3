// The watcher that publishes the logging switch from its system property.
#pragma once

#include <pthread.h>

// The watcher; main starts it, nobody joins it.
extern pthread_t gListenerThread;

// Sets gLogEnable from the property, once, before any other thread exists.
void ReadLogSwitchAtStart();

// Thread function: polls the property every 10 ms for ever and publishes each change in gLogEnable
// and gLogEnablePrev, then wakes the relay; bounds the relay's writes meanwhile. The argument is
// ignored.
void* ListenerThread(void* unused);
