#include "base/link_monitor.h"

#include <cutils/properties.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/tagged_log.h"

namespace {

// Of one interface message for the configured interface.
int ClassifyLink(const ifinfomsg& info) {
    const bool changed = (info.ifi_change & (IFF_UP | IFF_RUNNING)) != 0;
    if (!changed) return NETLINK_UTIL_SOCKET_UPDATE_NONE;
    if (info.ifi_flags & IFF_UP) {
        LIB_LOGI("USBLAN Available");
        return NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE;
    }
    if (!(info.ifi_flags & IFF_RUNNING)) {
        LIB_LOGI("USBLAN Removed");
        return NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED;
    }
    return NETLINK_UTIL_SOCKET_UPDATE_NONE;
}

// True when data[0, len) is a NUL-terminated name equal to wanted.
bool IsName(const char* data, size_t len, const char* wanted) {
    const size_t wantedLen = strlen(wanted);
    return len > wantedLen && memcmp(data, wanted, wantedLen + 1) == 0;
}

// The kernel's own datagrams come from port 0, to the link group, with root's credentials.
bool IsFromKernel(const sockaddr_nl& sender, const msghdr& header) {
    if (sender.nl_groups != RTMGRP_LINK || sender.nl_pid != 0) {
        LIB_LOGE("Invalid socket message, groups = %d, pid = %d", sender.nl_groups, sender.nl_pid);
        return false;
    }
    const cmsghdr* control = CMSG_FIRSTHDR(&header);
    if (control == nullptr || control->cmsg_type != SCM_CREDENTIALS ||
        control->cmsg_len < CMSG_LEN(sizeof(ucred))) {
        LIB_LOGE("Missing or invalid control message");
        return false;
    }
    ucred credentials = {};
    memcpy(&credentials, CMSG_DATA(control), sizeof(credentials));
    if (credentials.uid != 0) {
        LIB_LOGE("Invalid UID of %d", credentials.uid);
        return false;
    }
    return true;
}

}  // namespace

int create_netlink_socket() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
    if (fd < 0) {
        LIB_LOGE("Error creating netlink socket: %s", strerror(errno));
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) < 0) {
        LIB_LOGE("Failed to enable SO_PASSCRED: %s", strerror(errno));
        close(fd);
        return -1;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 0;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
        LIB_LOGE("Failed to bind to netlink socket: %s", strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

int handle_netlink_socket_event(int netlink_fd) {
    alignas(nlmsghdr) char data[8192];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    sockaddr_nl sender = {};
    iovec vector = {data, sizeof(data)};
    msghdr header = {};
    header.msg_name = &sender;
    header.msg_namelen = sizeof(sender);
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);

    const ssize_t received = recvmsg(netlink_fd, &header, MSG_DONTWAIT);
    if (received < 1 || !IsFromKernel(sender, header)) return NETLINK_UTIL_SOCKET_UPDATE_NONE;

    int result = NETLINK_UTIL_SOCKET_UPDATE_NONE;
    const char* at = data;
    ssize_t remaining = received;
    while (remaining >= static_cast<ssize_t>(sizeof(nlmsghdr))) {
        const auto* message = reinterpret_cast<const nlmsghdr*>(at);
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > remaining) break;
        if (message->nlmsg_type == NLMSG_DONE) break;
        if (message->nlmsg_type == RTM_NEWLINK) {
            result =
                parse_rtm_msg(message, static_cast<int>(message->nlmsg_len - sizeof(nlmsghdr)));
        }
        const ssize_t step = NLMSG_ALIGN(message->nlmsg_len);
        at += step;
        remaining -= step;
    }
    return result;
}

int parse_rtm_msg(const nlmsghdr* message, int payloadLen) {
    char interface[PROPERTY_VALUE_MAX] = {};
    property_get("ro.blan.interface", interface, "usb0");

    if (payloadLen < static_cast<int>(sizeof(ifinfomsg))) return NETLINK_UTIL_SOCKET_UPDATE_NONE;
    ifinfomsg info = {};
    memcpy(&info, NLMSG_DATA(message), sizeof(info));

    const char* at = reinterpret_cast<const char*>(message) + NLMSG_HDRLEN + sizeof(ifinfomsg);
    int remaining = payloadLen - static_cast<int>(sizeof(ifinfomsg));
    while (remaining >= static_cast<int>(sizeof(rtattr))) {
        rtattr attribute = {};
        memcpy(&attribute, at, sizeof(attribute));
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > remaining) break;
        if (attribute.rta_type == IFLA_IFNAME &&
            IsName(at + sizeof(rtattr), attribute.rta_len - sizeof(rtattr), interface)) {
            const int event = ClassifyLink(info);
            if (event != NETLINK_UTIL_SOCKET_UPDATE_NONE) return event;
        }
        const int step = RTA_ALIGN(attribute.rta_len);
        at += step;
        remaining -= step;
    }
    return NETLINK_UTIL_SOCKET_UPDATE_NONE;
}
