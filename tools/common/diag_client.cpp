#include "tools/common/diag_client.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "tools/common/tool_error.h"

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList Resolve(const std::string& host, uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* first = nullptr;
    const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first);
    if (error != 0) throw ToolError("cannot resolve {}: {}", host, gai_strerror(error));
    return {first, freeaddrinfo};
}

// Waits for events on fd; false when the moment passed first, or endFd, unless -1, is readable.
bool PollUntil(int fd, short events, DiagClient::Clock::time_point until, int endFd = -1) {
    using std::chrono::milliseconds;
    constexpr milliseconds kLongest = std::chrono::hours(1);
    while (true) {
        const auto left = std::chrono::ceil<milliseconds>(until - DiagClient::Clock::now());
        pollfd watched[] = {{fd, events, 0}, {endFd, POLLIN, 0}};
        const int ready =
            poll(watched, std::size(watched),
                 static_cast<int>(std::clamp(left, milliseconds(0), kLongest).count()));
        if (ready > 0) return watched[1].revents == 0;
        if (ready == 0 && left.count() <= 0) return false;
        if (ready < 0 && errno != EINTR) {
            throw SystemError("poll");
        }
    }
}

// Returns a connected socket, or none with *error set.
UniqueFd Connect(const addrinfo& address, DiagClient::Clock::time_point until, int* error) {
    UniqueFd fd(socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    *error = fd.get() == -1 ? errno : 0;
    if (*error == 0 && connect(fd.get(), address.ai_addr, address.ai_addrlen) != 0) {
        *error = errno;
    }
    if (*error == EINPROGRESS) {
        socklen_t length = sizeof *error;
        if (!PollUntil(fd.get(), POLLOUT, until)) {
            *error = ETIMEDOUT;
        } else if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, error, &length) != 0) {
            *error = errno;
        }
    }
    return *error == 0 ? std::move(fd) : UniqueFd();
}

// The same for the first address that takes the connection.
UniqueFd ConnectAny(const addrinfo* address, DiagClient::Clock::time_point until, int* error) {
    UniqueFd fd;
    for (; address != nullptr && fd.get() == -1; address = address->ai_next)
        fd = Connect(*address, until, error);
    return fd;
}

// The daemon listens again a second after it has let a tool go.
constexpr std::chrono::seconds kRefusedLimit(3);
constexpr std::chrono::milliseconds kRefusedPause(100);
constexpr char kRefusedHint[] =
    "; the daemon serves one tool at a time: is there another, or no daemon?";

}  // namespace

DiagClient::DiagClient(const std::string& host, uint16_t port, Clock::duration timeout)
    : mTimeout(timeout) {
    const AddressList addresses = Resolve(host, port);
    const auto start = Clock::now();
    const auto lastTry = start + std::min<Clock::duration>(timeout, kRefusedLimit);
    int error = 0;
    mSocket = ConnectAny(addresses.get(), start + timeout, &error);
    while (error == ECONNREFUSED && Clock::now() < lastTry) {
        std::this_thread::sleep_for(kRefusedPause);
        mSocket = ConnectAny(addresses.get(), start + timeout, &error);
        if (error == ETIMEDOUT) error = ECONNREFUSED;  // the last try's time alone was short
    }
    if (mSocket.get() == -1) {
        throw ToolError("cannot connect to {} port {}: {}{}", host, port, strerror(error),
                        error == ECONNREFUSED ? kRefusedHint : "");
    }
    const int on = 1;
    setsockopt(mSocket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void DiagClient::Send(std::string_view packet) {
    std::string frame;
    AppendFrame(frame, packet);
    const auto until = Clock::now() + mTimeout;
    for (size_t sent = 0; sent < frame.size();) {
        const ssize_t count = write(mSocket.get(), frame.data() + sent, frame.size() - sent);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            if (!PollUntil(mSocket.get(), POLLOUT, until)) {
                throw ToolError("the request was not taken in time");
            }
        } else if (errno != EINTR) {
            throw SystemError("cannot send");
        }
    }
}

bool DiagClient::NextFrame(Clock::time_point until, ReceivedFrame* frame) {
    while (true) {
        while (mBegin < mEnd) {
            mBegin += mReader.Take(&mBuffer[mBegin], mEnd - mBegin, &frame->state);
            frame->packet = mReader.packet();
            if (frame->state != FrameState::kIncomplete) return true;
        }
        // A stream that never pauses must not outlast the moment.
        if (Clock::now() >= until || !PollUntil(mSocket.get(), POLLIN, until, mEndFd)) return false;
        const ssize_t count = read(mSocket.get(), mBuffer.data(), mBuffer.size());
        if (count == 0) throw ToolError("the connection was closed by the other side");
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            throw SystemError("the connection failed");
        }
        if (mTrace && count > 0) mTrace({mBuffer.data(), static_cast<size_t>(count)});
        mBegin = 0;
        mEnd = count > 0 ? static_cast<size_t>(count) : 0;
    }
}

std::string DiagClient::TakeUnread() {
    std::string unread(&mBuffer[mBegin], mEnd - mBegin);
    mBegin = mEnd;
    return unread;
}
