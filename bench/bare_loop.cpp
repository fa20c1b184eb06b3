// The least that a relay can be: "bare_loop PORT DEVICE" serves one client at a TCP port, one
// thread a direction, each a loop of blocking read and write between the client and the modem's
// port.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace {

// Returns when either side has ended.
void Copy(int from, int to) {
    char buffer[16384];
    while (true) {
        const ssize_t count = read(from, buffer, sizeof buffer);
        if (count <= 0) return;
        for (ssize_t sent = 0; sent < count;) {
            const ssize_t part = write(to, buffer + sent, static_cast<size_t>(count - sent));
            if (part <= 0) return;
            sent += part;
        }
    }
}

int AcceptOne() {
    constexpr uint16_t kPort = 11008;
    const int on = 1;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
    listen(listener, 1);
    const int client = accept(listener, nullptr, nullptr);
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return client;
}

}  // namespace

int main() {
    const int tool = AcceptOne();
    const int modem = open("/dev/ttydiag0", O_RDWR | O_NOCTTY | O_CLOEXEC);  // raw already
    if (tool == -1 || modem == -1) {
        perror("bare_loop");
        return 1;
    }
    std::thread(Copy, modem, tool).detach();
    Copy(tool, modem);
    return 0;
}
