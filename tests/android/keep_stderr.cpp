// On a PC liblog writes to the C library's stderr, whose descriptor the daemon closes.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

__attribute__((constructor)) static void KeepStderr() {
    stderr = fdopen(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w");
    setvbuf(stderr, nullptr, _IOLBF, 0);
}
