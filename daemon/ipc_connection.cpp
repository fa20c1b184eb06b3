#include "daemon/ipc_connection.h"

#include <arpa/inet.h>
#include <cutils/properties.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/link_monitor.h"
#include "base/set_blocking.h"
#include "daemon/modem_port.h"
#include "platform/tagged_log.h"
#include "relay/transfer_bidirectional.h"

namespace {

constexpr int kListenPort = 11008;
constexpr int kListenBacklog = 1;
constexpr unsigned long kRelayBufferSize = 16384;

// A tool that takes nothing for this long, or whose host has gone without a word, is dropped.
constexpr unsigned kToolTimeoutMs = 60000;
constexpr int kKeepAliveIdleS = 20;
constexpr int kKeepAliveIntervalS = 10;
constexpr int kKeepAliveProbes = 4;  // 20 s + 4 * 10 s

void ShutDownAndClose(int fd) {
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

void BindToInterface(int fd, const char* interface) {
    ifreq request = {};
    memcpy(request.ifr_name, interface, strnlen(interface, sizeof(request.ifr_name) - 1));
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof(request)) < 0) {
        DAEMON_LOGE("Failed on setsockopt() for SO_BINDTODEVICE on sock %d: %s", fd,
                    strerror(errno));
    }
}

// Returns whether fd now listens; otherwise the reason is logged.
bool BindAndListen(int fd) {
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        DAEMON_LOGE("Failed on setsockopt() for SO_REUSEADDR on sock %d: %s", fd, strerror(errno));
        return false;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(kListenPort);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
        DAEMON_LOGE("Failed to bind to socket %d: %s", fd, strerror(errno));
        return false;
    }
    if (listen(fd, kListenBacklog) < 0) {
        DAEMON_LOGE("Error listening on FTM socket: %s", strerror(errno));
        return false;
    }
    DAEMON_LOGI("Listening for connections on socket = %d, port = %d", fd, kListenPort);
    return true;
}

// Bounds the wait for a tool that is not there any more. Without it the daemon serves all the same.
void LimitSilence(int client) {
    const int on = 1;
    setsockopt(client, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    setsockopt(client, IPPROTO_TCP, TCP_KEEPIDLE, &kKeepAliveIdleS, sizeof(kKeepAliveIdleS));
    setsockopt(client, IPPROTO_TCP, TCP_KEEPINTVL, &kKeepAliveIntervalS,
               sizeof(kKeepAliveIntervalS));
    setsockopt(client, IPPROTO_TCP, TCP_KEEPCNT, &kKeepAliveProbes, sizeof(kKeepAliveProbes));
    setsockopt(client, IPPROTO_TCP, TCP_USER_TIMEOUT, &kToolTimeoutMs, sizeof(kToolTimeoutMs));
}

// Returns whether the accepted client is ready for the relay.
bool ConfigureClient(int client) {
    const int on = 1;
    if (setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) < 0) {
        DAEMON_LOGE("Error in setsockopt() TCP_NODELAY: %s", strerror(errno));
        return false;
    }
    LimitSilence(client);
    return set_blocking(client, false) == 0;
}

// The sockets of one wait for a tool. One object, one call of listen_tcpip_connection.
class Listener {
  public:
    explicit Listener(int netlinkFd)
        : mNetlinkFd(netlinkFd),
          mListenFd(create_tcpip_listen_socket()),
          mMaxFd(std::max(mListenFd, mNetlinkFd)) {
        FD_ZERO(&mReadSet);
    }

    // Returns the client, or -1 when there is nothing left to wait for.
    int WaitForClient() {
        while (mMaxFd >= 0) {
            if (mNetlinkFd != -1) FD_SET(mNetlinkFd, &mReadSet);
            if (mListenFd != -1) FD_SET(mListenFd, &mReadSet);
            // An interrupted select leaves every descriptor marked: the next client is then waited
            // for in accept.
            select(mMaxFd + 1, &mReadSet, nullptr, nullptr, nullptr);
            if (mListenFd != -1 && FD_ISSET(mListenFd, &mReadSet)) {
                const int client = Accept();
                if (client != -1) return client;
            }
            if (mNetlinkFd != -1 && FD_ISSET(mNetlinkFd, &mReadSet)) FollowLink();
        }
        return -1;
    }

  private:
    // Returns a client after closing the listening socket, or -1 to go on waiting.
    int Accept() {
        sockaddr_in peer = {};
        socklen_t peerLen = sizeof(peer);
        const int client = accept(mListenFd, reinterpret_cast<sockaddr*>(&peer), &peerLen);
        if (client < 0) {
            DAEMON_LOGE("Error accepting incoming FTM connection request: %s", strerror(errno));
            DAEMON_LOGE("accept quillod tcpip client socket failed, restart socket %d", mListenFd);
            FD_CLR(mListenFd, &mReadSet);
            ShutDownAndClose(mListenFd);
            mListenFd = create_tcpip_listen_socket();
            mMaxFd = std::max(mListenFd, mNetlinkFd);
            return -1;
        }
        if (!ConfigureClient(client)) {
            ShutDownAndClose(client);
            return -1;
        }
        DAEMON_LOGI("Accepted FD %d", client);
        ShutDownAndClose(mListenFd);
        return client;
    }

    void FollowLink() {
        const int event = handle_netlink_socket_event(mNetlinkFd);
        if (event == NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED) {
            if (mListenFd != -1) {
                FD_CLR(mListenFd, &mReadSet);
                ShutDownAndClose(mListenFd);
            }
            mListenFd = -1;
            mMaxFd = mNetlinkFd;
        } else if (event == NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE && mListenFd == -1) {
            mListenFd = create_tcpip_listen_socket();
            mMaxFd = std::max(mListenFd, mMaxFd);
        }
    }

    const int mNetlinkFd;
    int mListenFd;  // -1 while not listening
    int mMaxFd;
    fd_set mReadSet;  // select leaves only what is ready; never cleared otherwise
};

}  // namespace

int create_tcpip_listen_socket() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int socketError = errno;
    char interface[PROPERTY_VALUE_MAX] = {};
    property_get("ro.blan.interface", interface, "usb0");
    if (fd < 0) {
        DAEMON_LOGE("Error creating FTM socket: %s", strerror(socketError));
        return -1;
    }
    BindToInterface(fd, interface);
    if (BindAndListen(fd)) return fd;
    ShutDownAndClose(fd);
    return -1;
}

int listen_tcpip_connection(int netlink_fd) {
    return Listener(netlink_fd).WaitForClient();
}

void start_ipc_connection() {
    const int netlink_fd = create_netlink_socket();
    for (;;) {
        const int ap_fd = listen_tcpip_connection(netlink_fd);
        int bp_fd = -1;
        if (ap_fd >= 0) {
            bp_fd = open_bp_ipc();
            if (bp_fd < 0) DAEMON_LOGE("Unable to open BP IPC device");
        }
        transfer_bidirectional_and_close(ap_fd, bp_fd, netlink_fd, kRelayBufferSize, nullptr,
                                         nullptr, nullptr);
        sleep(1);
    }
}
