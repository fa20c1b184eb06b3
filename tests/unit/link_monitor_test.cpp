// Link events from datagrams of routing netlink, built here byte by byte.
#include "base/link_monitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/un.h>

#include <cstring>
#include <vector>

#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr int kUpdated = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE;
constexpr int kRemoved = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED;
constexpr int kNone = NETLINK_UTIL_SOCKET_UPDATE_NONE;
const unsigned kUp = IFF_UP;
const unsigned kRunning = IFF_RUNNING;

template <typename T>
std::string Bytes(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

// excess: by how much its length claims more than it has.
std::string Attribute(unsigned short type, std::string data, int excess = 0) {
    rtattr head = {};
    head.rta_len =
        static_cast<unsigned short>(static_cast<int>(sizeof(head) + data.size()) + excess);
    head.rta_type = type;
    data.resize(RTA_ALIGN(data.size()), '\0');
    return Bytes(head) + data;
}

std::string Name(const char* name) {
    return Attribute(IFLA_IFNAME, std::string(name, strlen(name) + 1));
}

std::string Message(unsigned short type, const std::string& payload, int excess = 0) {
    nlmsghdr head = {};
    head.nlmsg_type = type;
    head.nlmsg_len =
        static_cast<unsigned>(static_cast<int>(sizeof(head) + payload.size()) + excess);
    return Bytes(head) + payload;
}

std::string Link(unsigned flags, unsigned change, const std::string& attributes = Name("usb0")) {
    ifinfomsg info = {};
    info.ifi_flags = flags;
    info.ifi_change = change;
    return Message(RTM_NEWLINK, Bytes(info) + attributes);
}

const std::string kComes = Link(kUp, kUp);
const std::string kGoes = Link(0, kUp);

TEST(LinkMonitor, ClassifiesMessages) {
    const struct {
        const char* name;
        std::string message;
        int event;
    } kRows[] = {
        {"up and running", Link(kUp | kRunning, kUp), kUpdated},
        {"up, not running", Link(kUp, kRunning), kUpdated},
        {"down", kGoes, kRemoved},
        {"down, running changed", Link(0, kRunning), kRemoved},
        {"no change", Link(kUp | kRunning, 0), kNone},
        {"other change", Link(0, IFF_PROMISC), kNone},
        {"running without up", Link(kRunning, kUp | kRunning), kNone},
        {"other interface", Link(kUp, kUp, Name("eth0")), kNone},
        {"longer name", Link(kUp, kUp, Name("usb01")), kNone},
        {"name without end", Link(kUp, kUp, Attribute(IFLA_IFNAME, "usb0")), kNone},
        {"name behind others", Link(kUp, kUp, Attribute(IFLA_MTU, "x") + Name("usb0")), kUpdated},
        {"of another type", Link(kUp, kUp, Attribute(IFLA_QDISC, {"usb0\0", 5})), kNone},
        {"second name", Link(kUp, kUp, Name("eth0") + Name("usb0")), kUpdated},
        {"three bytes", Link(kUp, kUp, "abc"), kNone},
        {"too short length", Link(kUp, kUp, Attribute(IFLA_MTU, "", -1) + Name("usb0")), kNone},
        {"no length", Link(kUp, kUp, std::string(16, '\0')), kNone},
        {"past the end", Link(kUp, kUp, Attribute(IFLA_IFNAME, {"usb0\0", 5}, 4)), kNone},
        {"no room for the interface", Message(RTM_NEWLINK, std::string(15, '\0')), kNone},
    };
    const TempDir properties;
    properties.HoldProperties();
    for (const auto& row : kRows) {
        // It ends where the message does, so that a sanitizer sees any read past it.
        const std::vector<char> exact(row.message.begin(), row.message.end());
        EXPECT_EQ(row.event, parse_rtm_msg(reinterpret_cast<const nlmsghdr*>(exact.data()),
                                           static_cast<int>(exact.size() - sizeof(nlmsghdr))))
            << row.name;
    }
}

// A datagram's way in. The sender is a local socket, whose name reads like a netlink address.
TEST(LinkMonitor, HearsTheKernelAlone) {
    const struct {
        const char* name;
        unsigned port, groups;
        bool hasCredentials;
        std::string datagram;
        int event;
        const char* logged;
    } kRows[] = {
        {"other group", 0, 0, true, kGoes, kNone, "groups = 0, pid = 0"},
        {"other port", 7, RTMGRP_LINK, true, kGoes, kNone, "groups = 1, pid = 7"},
        {"no credentials", 0, RTMGRP_LINK, false, kGoes, kNone, "invalid control message"},
        {"kernel", 0, RTMGRP_LINK, true, kGoes, kRemoved, "USBLAN Removed"},
        {"last of two", 0, RTMGRP_LINK, true, kComes + kGoes, kRemoved, ""},
        {"other message between", 0, RTMGRP_LINK, true,
         Message(RTM_DELLINK, kComes.substr(16)) + kGoes, kRemoved, ""},
        {"none behind the end", 0, RTMGRP_LINK, true, Message(NLMSG_DONE, "") + kGoes, kNone, ""},
        {"cut", 0, RTMGRP_LINK, true, Message(RTM_NEWLINK, kGoes.substr(16), 4), kNone, ""},
        {"too short", 0, RTMGRP_LINK, true, Message(RTM_NEWLINK, "", -1) + kGoes, kNone, ""},
        {"empty", 0, RTMGRP_LINK, true, "", kNone, ""},
    };
#ifdef __SANITIZE_ADDRESS__
    // The senders' names are longer than what is read of them, for which it takes an overflow.
    GTEST_SKIP() << "the address sanitizer does not know cut names";
#endif
    const bool isRoot = geteuid() == 0;
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const LogLines log;
        sockaddr_un names[2] = {};
        int fds[2];
        for (int i = 0; i < 2; ++i) {
            fds[i] = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_nl address = {AF_UNIX, 0, row.port, row.groups};
            memcpy(&names[i], &address, sizeof(address));
            const int unique[] = {getpid(), i};  // behind what is looked at
            memcpy(reinterpret_cast<char*>(&names[i]) + sizeof(address), unique, sizeof(unique));
            ASSERT_EQ(0, bind(fds[i], reinterpret_cast<sockaddr*>(&names[i]),
                              sizeof(address) + sizeof(unique)));
        }
        const int on = row.hasCredentials ? 1 : 0;
        setsockopt(fds[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
        sendto(fds[1], row.datagram.data(), row.datagram.size(), 0,
               reinterpret_cast<sockaddr*>(&names[0]), sizeof(sockaddr_nl) + 8);
        const bool isOthers = !isRoot && row.port == 0 && row.groups != 0 && row.hasCredentials;
        EXPECT_EQ(isOthers ? kNone : row.event, handle_netlink_socket_event(fds[0]));
        const std::string line = isOthers && !row.datagram.empty() ? "Invalid UID of " : row.logged;
        EXPECT_TRUE(line.empty() || log.Count(line) > 0);
        for (const int fd : fds)
            close(fd);
    }
    const int kernel = create_netlink_socket();
    EXPECT_LE(0, kernel);
    EXPECT_EQ(kNone, handle_netlink_socket_event(kernel)) << "nothing there";
    close(kernel);
    if (!isRoot) GTEST_SKIP() << "only root's datagrams are heard: their events were not tested";
}

}  // namespace
