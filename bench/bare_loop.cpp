// The least that a relay can be: serves one client at a TCP port, one thread a direction, each a
// loop of blocking read and write between the client and the modem's port.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

int AcceptOne(uint16_t port) {
    const int on = 1;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        return -1;
    }
    const int client = accept(listener, nullptr, nullptr);
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return client;
}

int OpenRaw(const char* path) {
    const int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) return -1;
    cfmakeraw(&settings);
    return tcsetattr(fd, TCSANOW, &settings) == 0 ? fd : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fputs("usage: bare_loop PORT DEVICE\n", stderr);
        return 2;
    }
    const int tool = AcceptOne(static_cast<uint16_t>(strtoul(argv[1], nullptr, 10)));
    const int modem = OpenRaw(argv[2]);
    if (tool == -1 || modem == -1) {
        perror("bare_loop");
        return 1;
    }
    std::thread(Copy, modem, tool).detach();
    Copy(tool, modem);
    return 0;
}
