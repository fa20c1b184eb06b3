// System properties off the handset: one file a property, named as the property. It calls nothing
// but open, read and close and allocates nothing, so the log may use it in a signal handler.
#include <cutils/properties.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kDefaultDirectory[] = "/data/property";

bool IsFileName(const char* key) {
    return key[0] != '\0' && strcmp(key, ".") != 0 && strcmp(key, "..") != 0 &&
           strchr(key, '/') == nullptr;
}

// Puts the path of the property's file into path; false when no file can have this name.
bool MakePath(const char* key, char (&path)[PATH_MAX]) {
    const char* directory = getenv("QUILLOD_PROPERTY_DIR");
    if (directory == nullptr || directory[0] == '\0') directory = kDefaultDirectory;
    const size_t directoryLen = strlen(directory);
    const size_t keySize = strlen(key) + 1;
    if (!IsFileName(key) || directoryLen + 1 + keySize > sizeof(path)) return false;
    memcpy(path, directory, directoryLen);
    path[directoryLen] = '/';
    memcpy(path + directoryLen + 1, key, keySize);
    return true;
}

// The first PROPERTY_VALUE_MAX bytes of the property's file: their count, or -1.
ssize_t ReadFile(const char* key, char* value) {
    char path[PATH_MAX];
    if (!MakePath(key, path)) return -1;
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    ssize_t count;
    do {
        count = read(fd, value, PROPERTY_VALUE_MAX);
    } while (count < 0 && errno == EINTR);
    close(fd);
    return count;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    constexpr size_t kLongest = PROPERTY_VALUE_MAX - 1;
    size_t len;
    const ssize_t count = ReadFile(key, value);
    if (count < 0) {
        len = default_value == nullptr ? 0 : strnlen(default_value, kLongest);
        if (len > 0) memcpy(value, default_value, len);
    } else if (static_cast<size_t>(count) > kLongest) {
        len = kLongest;  // a newline in the last byte read falls to this cut, trailing or not
    } else {
        len = static_cast<size_t>(count);
        if (len > 0 && value[len - 1] == '\n') --len;
    }
    value[len] = '\0';
    return static_cast<int>(strlen(value));
}
