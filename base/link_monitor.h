// The monitor of the USB network link, over the kernel's routing netlink. Included by the relay
// too; includes nothing above the platform. All functions: main thread only.
#pragma once

struct nlmsghdr;

enum NetlinkUtilSocketUpdate {
    NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE = 0,
    NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED = 1,
    NETLINK_UTIL_SOCKET_UPDATE_NONE = 2,
};

// Returns a socket that receives link changes, owned by the caller, or -1 with an error line.
int create_netlink_socket();

// Takes at most one datagram from netlink_fd, without waiting, and returns the link event of its
// last link message. Datagrams that do not come from the kernel get an error line and no event.
int handle_netlink_socket_event(int netlink_fd);

// The link event of one RTM_NEWLINK message; payloadLen is its nlmsg_len less the netlink header,
// and the message is that long. Only the interface named by "ro.blan.interface" counts.
int parse_rtm_msg(const nlmsghdr* message, int payloadLen);
