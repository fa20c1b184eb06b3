#include "daemon/property_watch.h"

#include <cutils/properties.h>
#include <unistd.h>

#include <cstring>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "platform/tagged_log.h"

namespace {

constexpr char kLogSwitchProperty[] = "persist.vendor.factory.diagdebug";
constexpr useconds_t kPollIntervalUs = 10000;

// Reads the property into value and says whether it switches logging on: 1 or 0.
int32_t ReadSwitch(char (&value)[PROPERTY_VALUE_MAX]) {
    memset(value, 0, sizeof(value));
    property_get(kLogSwitchProperty, value, "");
    return strcmp(value, "true") == 0 ? 1 : 0;
}

}  // namespace

pthread_t gListenerThread;

void ReadLogSwitchAtStart() {
    char value[PROPERTY_VALUE_MAX];
    if (ReadSwitch(value) != 0) gLogEnable = 1;
    DAEMON_LOGD("fac_diag_debug_prop = %s, gLogEnable:%d", value, gLogEnable.load());
}

void* ListenerThread(void* /*unused*/) {
    char value[PROPERTY_VALUE_MAX] = {};
    DAEMON_LOGE("ListenerThread start");
    for (;;) {
        usleep(kPollIntervalUs);
        const int32_t wanted = ReadSwitch(value);
        if (wanted == gLogEnable) continue;
        pthread_mutex_lock(&gLogEnableMutex);
        gLogEnablePrev = gLogEnable.load();
        gLogEnable = wanted;
        pthread_mutex_unlock(&gLogEnableMutex);
        DAEMON_LOGE("ListenerThread prop change %s =%d", value, gLogEnable.load());
        WakeRelay();
    }
}
