#include "base/set_blocking.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "platform/tagged_log.h"

int set_blocking(int fd, bool blocking) {
    const char* mode = blocking ? "true" : "false";
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        LIB_LOGE("set_blocking( %d, %s ) : Error getting flags with fcntl() : %s", fd, mode,
                 strerror(errno));
        return -1;
    }
    if (fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) < 0) {
        LIB_LOGE("set_blocking( %d, %s ) : Error setting flags with fcntl() : %s", fd, mode,
                 strerror(errno));
        return -1;
    }
    LIB_LOGD("set_blocking( %d, %s ) : successful", fd, mode);
    return 0;
}
