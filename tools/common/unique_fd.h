#pragma once

#include <unistd.h>

#include <utility>

// Owns a descriptor, or none (-1).
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~UniqueFd() {
        if (mFd != -1) close(mFd);
    }

    int get() const { return mFd; }

  private:
    int mFd = -1;
};
