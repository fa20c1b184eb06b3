#include "base/scheduling.h"

#include <sched.h>

namespace {

void SetPolicy(int policy) {
    const sched_param noPriority = {};
    sched_setscheduler(0, policy, &noPriority);
}

}  // namespace

void WakeWithoutInterrupting() {
    SetPolicy(SCHED_BATCH);
}

void WakeAtOnce() {
    SetPolicy(SCHED_OTHER);
}
