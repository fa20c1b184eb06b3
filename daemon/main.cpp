// Process entry: prepares the process, starts the property watcher and gives the main thread to the
// connection cycle for good.
#include <linux/capability.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log_switch.h"
#include "daemon/ipc_connection.h"
#include "daemon/property_watch.h"
#include "platform/tagged_log.h"

namespace {

void ignore_signal(int signal) {
    DAEMON_LOGI("Signal %d caught and ignored", signal);
}

// Keeps CAP_NET_RAW, which binding a socket to an interface needs, and gives up all else.
void ReduceCapabilities() {
    constexpr unsigned int kNetRaw = 1U << CAP_NET_RAW;
    __user_cap_header_struct header = {};
    header.version = _LINUX_CAPABILITY_VERSION_1;
    header.pid = 0;
    __user_cap_data_struct data = {};
    data.effective = kNetRaw;
    data.permitted = kNetRaw;
    data.inheritable = 0;
    syscall(SYS_capset, &header, &data);
}

// The daemon takes no arguments; someone who gives some is told so. Returns the exit status.
int AnswerArguments(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        puts("quillod " QUILLOD_VERSION);
        return 0;
    }
    fputs("quillod " QUILLOD_VERSION
          ", a relay between a PC tool and the modem's diagnostic port, takes no arguments: its "
          "settings are system properties, see quillod(8)\n",
          stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) return AnswerArguments(argc, argv);
    umask(0);
    if (chdir("/") != 0) {
        DAEMON_LOGE("chdir failed: %s", strerror(errno));
        exit(1);
    }
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    if (signal(SIGHUP, ignore_signal) == SIG_ERR) DAEMON_LOGE("Failed to setup SIGHUP handler");
    if (signal(SIGPIPE, ignore_signal) == SIG_ERR) DAEMON_LOGE("Failed to setup SIGPIPE handler");
    ReduceCapabilities();
    ReadLogSwitchAtStart();
    pthread_mutex_init(&gLogEnableMutex, nullptr);
    pthread_create(&gListenerThread, nullptr, ListenerThread, nullptr);
    start_ipc_connection();
}
