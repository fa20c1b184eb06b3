#include "base/log_switch.h"

std::atomic<int32_t> gLogEnable{0};
std::atomic<int32_t> gLogEnablePrev{0};
pthread_mutex_t gLogEnableMutex = PTHREAD_MUTEX_INITIALIZER;
