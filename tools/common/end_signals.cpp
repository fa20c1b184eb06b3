#include "tools/common/end_signals.h"

#include <sys/signalfd.h>

#include <csignal>

#include "tools/common/tool_error.h"

UniqueFd CatchEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    UniqueFd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd.get() == -1) throw SystemError("cannot catch signals");
    return fd;
}
