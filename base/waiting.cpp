#include "base/waiting.h"

#include <poll.h>

#include <cerrno>

bool WaitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        const auto left = deadline.Left();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        const timespec limit = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
        pollfd entry = {fd, events, 0};
        const int ready = ppoll(&entry, 1, &limit, nullptr);
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}
