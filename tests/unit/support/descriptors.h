// Real descriptors for tests, and threads that wait.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <string>
#include <thread>

// A connected pair of stream sockets that hold little; the near end does not block.
struct SocketPair {
    SocketPair() {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) ADD_FAILURE() << errno;
        near = fds[0];
        far = fds[1];
        fcntl(near, F_SETFL, O_NONBLOCK);
        const int least = 1;
        setsockopt(near, SOL_SOCKET, SO_SNDBUF, &least, sizeof(least));
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    ~SocketPair() {
        if (near != -1) close(near);
        CloseFar();
    }
    void CloseFar() {
        if (far != -1) close(far);
        far = -1;
    }

    int near = -1;
    int far = -1;
};

inline void WriteAll(int fd, const std::string& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
}

// All that can be read without waiting.
inline std::string ReadAvailable(int fd) {
    std::string all;
    char chunk[65536];
    for (ssize_t n = 1; n > 0;) {
        n = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (n > 0) all.append(chunk, static_cast<size_t>(n));
    }
    return all;
}

// Exactly count bytes, or what came in 20 seconds or before the end of the stream.
inline std::string ReadExactly(int fd, size_t count) {
    std::string all;
    while (all.size() < count) {
        pollfd entry = {fd, POLLIN, 0};
        if (poll(&entry, 1, 20000) <= 0) break;
        std::string piece(count - all.size(), '\0');
        const ssize_t n = read(fd, piece.data(), piece.size());
        if (n <= 0) break;
        all.append(piece, 0, static_cast<size_t>(n));
    }
    EXPECT_EQ(count, all.size());
    return all;
}

// Writes to a non-blocking descriptor until it takes nothing more; returns the bytes written.
inline size_t FillUntilFull(int fd) {
    size_t total = 0;
    while (write(fd, "x", 1) == 1)
        ++total;
    return total;
}

// Has a thread do this, and goes on once it waits for something.
template <typename Action>
auto Waiting(Action action) {
    std::atomic<pid_t> id{0};
    auto result = std::async(std::launch::async, [&id, action] {
        id = gettid();
        return action();
    });
    for (char state = '?'; state != 'S';) {
        std::this_thread::yield();
        std::ifstream status("/proc/self/task/" + std::to_string(id) + "/stat");
        std::string text;
        if (id != 0 && !std::getline(status, text)) break;  // it has ended
        if (!text.empty()) state = text[text.rfind(')') + 2];
    }
    return result;
}
