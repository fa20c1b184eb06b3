#include "tools/capture/capture_follow.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>

#include "diag/hdlc.h"
#include "tools/capture/capture_files.h"
#include "tools/common/output.h"
#include "tools/common/tool_error.h"

namespace {

constexpr uint32_t kGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr uint32_t kNew = IN_CREATE | IN_MOVED_TO;

// Where the last frame that ends in the file's first size bytes ends.
off_t LastFrameEnd(int fd, off_t size) {
    std::array<char, 65536> piece;
    while (size > 0) {
        const off_t begin = std::max<off_t>(0, size - static_cast<off_t>(piece.size()));
        const ssize_t count = pread(fd, piece.data(), static_cast<size_t>(size - begin), begin);
        if (count <= 0) return 0;
        const std::string_view bytes(piece.data(), static_cast<size_t>(count));
        const size_t flag = bytes.rfind(static_cast<char>(kHdlcFlag));
        if (flag != std::string_view::npos) return begin + static_cast<off_t>(flag) + 1;
        size = begin;
    }
    return 0;
}

class Follower {
  public:
    Follower(const std::string& directory, int endFd, CaptureReader& reader)
        : mDirectory(directory),
          mEndFd(endFd),
          mReader(reader),
          mNotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        if (inotify_add_watch(mNotify.get(), directory.c_str(),
                              IN_MODIFY | IN_ONLYDIR | kNew | kGone) == -1) {
            throw SystemError("cannot watch {}", directory);
        }
        for (const std::string& path : ListCaptureDirectory(directory).files) {
            struct stat status = {};
            if (stat(path.c_str(), &status) == 0) mSeen[path] = status.st_size;
        }
    }

    void Run() {
        Remark("waiting for frames in {}, until Ctrl-C", mDirectory);
        while (!MustEnd(-1) && TakeEvents()) {
        }
    }

  private:
    // Waits for a change, at most so many milliseconds; whether the end has come instead.
    bool MustEnd(int millis) {
        pollfd watched[] = {{mEndFd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {mNotify.get(), POLLIN, 0}};
        if (poll(watched, std::size(watched), millis) < 0 && errno != EINTR) {
            throw SystemError("poll");
        }
        return watched[0].revents != 0 || watched[1].revents != 0;
    }

    bool TakeEvents() {
        alignas(inotify_event) std::array<char, 16384> events;
        const ssize_t count = read(mNotify.get(), events.data(), events.size());
        for (ssize_t at = 0; at < count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(&events[at]);
            if ((event->mask & kGone) != 0) throw ToolError("{} is gone", mDirectory);
            if (event->len > 0 && !TakeChange(event->name, (event->mask & kNew) != 0)) return false;
            at += static_cast<ssize_t>(sizeof *event + event->len);
        }
        return true;
    }

    bool TakeChange(const std::string& name, bool isNew) {
        if (!IsCaptureFile(name)) return true;
        const std::string path = CapturePath(mDirectory, name);
        if (isNew || path != mPath) {
            if (!ReadOn()) return false;
            Open(path, isNew);
        }
        return ReadOn();
    }

    // Goes to the first frame of the file that has not been seen.
    void Open(const std::string& path, bool isNew) {
        if (mFile.get() != -1) mSeen[mPath] = lseek(mFile.get(), 0, SEEK_CUR);
        mFile = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        mPath = path;
        if (mFile.get() == -1) {
            if (errno == ENOENT) return;  // removed in the meantime
            throw SystemError("cannot open {}", path);
        }
        const off_t begin = isNew ? 0 : LastFrameEnd(mFile.get(), mSeen[path]);
        lseek(mFile.get(), begin, SEEK_SET);
        mReader.BeginFile(path, static_cast<uint64_t>(begin));
    }

    bool ReadOn() {
        if (mFile.get() == -1) return true;
        return ReadCaptureFile(mFile.get(), mPath, [this](std::string_view bytes) {
            return mReader.Take(bytes) && !MustEnd(0);
        });
    }

    const std::string mDirectory;
    const int mEndFd;
    CaptureReader& mReader;
    const UniqueFd mNotify;
    std::map<std::string, off_t> mSeen;  // bytes of the other files, by path
    UniqueFd mFile;                      // the one that changed last; it may be removed by now
    std::string mPath;
};

}  // namespace

void FollowCapture(const std::string& directory, int endFd, CaptureReader& reader) {
    Follower(directory, endFd, reader).Run();
}
