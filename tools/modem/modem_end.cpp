#include "tools/modem/modem_end.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "tools/common/tool_error.h"

namespace {

void MakeRaw(int fd) {
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) throw SystemError("cannot read the line's settings");
    cfmakeraw(&settings);
    if (tcsetattr(fd, TCSANOW, &settings) != 0) throw SystemError("cannot make the line raw");
}

// Whether a read or write returned -1 only because the line has nothing or no room now.
bool IsBusy() {
    return errno == EAGAIN || errno == EINTR;
}

// At no moment is there nothing, or half of it, at path.
void PutLink(const std::string& target, const std::string& path) {
    struct stat there {};
    if (lstat(path.c_str(), &there) == 0 && !S_ISLNK(there.st_mode)) {
        throw ToolError("{} exists and is not a symbolic link", path);
    }
    const std::string fresh = fmt::format("{}.{}", path, getpid());
    unlink(fresh.c_str());
    if (symlink(target.c_str(), fresh.c_str()) != 0)
        throw SystemError("cannot make a link at {}", path);
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(fresh.c_str());
        errno = error;
        throw SystemError("cannot put the link at {}", path);
    }
}

}  // namespace

ModemEnd::ModemEnd(Kind kind, const std::string& path) : mKind(kind), mPath(path) {
    if (mKind == Kind::kPty) {
        MakePty();
        return;
    }
    mMaster = UniqueFd(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (mMaster.get() == -1) throw SystemError("cannot open {}", path);
    MakeRaw(mMaster.get());
}

void ModemEnd::MakePty() {
    mMaster = UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (mMaster.get() == -1) throw SystemError("cannot open a pseudo-terminal");
    char name[PATH_MAX];
    if (grantpt(mMaster.get()) != 0 || unlockpt(mMaster.get()) != 0 ||
        ptsname_r(mMaster.get(), name, sizeof name) != 0) {
        throw SystemError("cannot set up a pseudo-terminal");
    }
    mSlaveName = name;
    mSlave = UniqueFd(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (mSlave.get() == -1) throw SystemError("cannot open {}", mSlaveName);
    MakeRaw(mSlave.get());
    if (fcntl(mMaster.get(), F_SETFL, O_RDWR | O_NONBLOCK) != 0) {
        throw SystemError("cannot make the line non-blocking");
    }
    // Every read from now on begins with a byte that says what it brings.
    const int on = 1;
    if (ioctl(mMaster.get(), TIOCPKT, &on) != 0)
        throw SystemError("cannot watch the line for flushes");
    PutLink(mSlaveName, mPath);
}

ModemEnd::~ModemEnd() {
    if (mKind == Kind::kPort) return;
    char target[PATH_MAX];
    const ssize_t length = readlink(mPath.c_str(), target, sizeof target);
    if (length > 0 && mSlaveName == std::string(target, static_cast<size_t>(length))) {
        unlink(mPath.c_str());
    }
}

bool ModemEnd::Read(Input* input) {
    *input = {};
    const ssize_t count = read(mMaster.get(), mBuffer.data(), mBuffer.size());
    if (count < 0 && IsBusy()) return false;
    if (count <= 0) throw SystemError("cannot read the line");
    if (mKind == Kind::kPort) {
        input->data = {mBuffer.data(), static_cast<size_t>(count)};
        return true;
    }
    const char status = mBuffer[0];
    if (status == TIOCPKT_DATA) {
        input->data = {&mBuffer[1], static_cast<size_t>(count) - 1};
    } else {
        input->flushed = (status & TIOCPKT_FLUSHREAD) != 0;
    }
    return true;
}

size_t ModemEnd::Write(std::string_view data) {
    const ssize_t count = write(mMaster.get(), data.data(), data.size());
    if (count < 0 && !IsBusy()) throw SystemError("cannot write the line");
    return count < 0 ? 0 : static_cast<size_t>(count);
}
