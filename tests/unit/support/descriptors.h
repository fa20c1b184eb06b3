// Real descriptors for tests.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

// A connected pair of stream sockets; the near end does not block.
struct SocketPair {
    SocketPair() {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) ADD_FAILURE() << errno;
        near = fds[0];
        far = fds[1];
        fcntl(near, F_SETFL, fcntl(near, F_GETFL) | O_NONBLOCK);
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
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
}

// All that can be read without waiting.
inline std::string ReadAvailable(int fd) {
    std::string all;
    char chunk[65536];
    for (;;) {
        const ssize_t n = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (n <= 0) return all;
        all.append(chunk, static_cast<size_t>(n));
    }
}

// Exactly count bytes, waiting up to 20 seconds for each piece.
inline std::string ReadExactly(int fd, size_t count) {
    std::string all;
    while (all.size() < count) {
        pollfd entry = {fd, POLLIN, 0};
        if (poll(&entry, 1, 20000) <= 0) break;
        std::string piece(count - all.size(), '\0');
        const ssize_t n = read(fd, &piece[0], piece.size());
        if (n <= 0) break;
        all.append(piece, 0, static_cast<size_t>(n));
    }
    EXPECT_EQ(count, all.size());
    return all;
}

// Writes to a non-blocking descriptor until it takes nothing more; returns the bytes written.
inline size_t FillUntilFull(int fd) {
    const std::string chunk(1024, 'x');
    size_t total = 0;
    for (size_t size = chunk.size(); size > 0;) {
        const ssize_t n = write(fd, chunk.data(), size);
        if (n > 0) {
            total += static_cast<size_t>(n);
        } else {
            size /= 2;
        }
    }
    return total;
}
