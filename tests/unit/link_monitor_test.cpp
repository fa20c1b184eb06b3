// Classification of routing netlink messages, built here byte by byte.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/link_monitor.h"

namespace {

constexpr int kAvailable = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE;
constexpr int kRemoved = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED;
constexpr int kNone = NETLINK_UTIL_SOCKET_UPDATE_NONE;

std::string Attribute(int type, const std::string& data, int lenOverride = -1) {
    rtattr head = {};
    head.rta_len =
        static_cast<unsigned short>(lenOverride >= 0 ? lenOverride : sizeof(head) + data.size());
    head.rta_type = static_cast<unsigned short>(type);
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    bytes += data;
    bytes.resize(RTA_ALIGN(bytes.size()), '\0');
    return bytes;
}

std::string Name(const char* name) {
    return Attribute(IFLA_IFNAME, std::string(name, strlen(name) + 1));
}

std::string Link(unsigned flags, unsigned change, const std::string& attributes) {
    nlmsghdr head = {};
    ifinfomsg info = {};
    info.ifi_flags = flags;
    info.ifi_change = change;
    head.nlmsg_type = RTM_NEWLINK;
    head.nlmsg_len = static_cast<unsigned>(sizeof(head) + sizeof(info) + attributes.size());
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    bytes.append(reinterpret_cast<const char*>(&info), sizeof(info));
    return bytes + attributes;
}

// A copy that ends exactly at the message's end, so that a sanitizer sees any read past it.
int Classify(const std::string& bytes) {
    const std::vector<char> exact(bytes.begin(), bytes.end());
    return parse_rtm_msg(reinterpret_cast<const nlmsghdr*>(exact.data()),
                         static_cast<int>(exact.size() - sizeof(nlmsghdr)));
}

struct Case {
    const char* name;
    std::string message;
    int event;
};

class LinkMonitor : public ::testing::TestWithParam<Case> {
  protected:
    LinkMonitor() { setenv("QUILLOD_PROPERTY_DIR", "/nonexistent", 1); }
};

TEST_P(LinkMonitor, Classifies) {
    EXPECT_EQ(GetParam().event, Classify(GetParam().message));
}

const unsigned kUp = IFF_UP;
const unsigned kRunning = IFF_RUNNING;

INSTANTIATE_TEST_SUITE_P(
    Messages, LinkMonitor,
    ::testing::Values(
        Case{"UpAndRunning", Link(kUp | kRunning, kUp, Name("usb0")), kAvailable},
        Case{"UpNotRunning", Link(kUp, kRunning, Name("usb0")), kAvailable},
        Case{"DownNow", Link(0, kUp, Name("usb0")), kRemoved},
        Case{"DownRunningChanged", Link(0, kRunning, Name("usb0")), kRemoved},
        Case{"NoChange", Link(kUp | kRunning, 0, Name("usb0")), kNone},
        Case{"OtherChange", Link(0, IFF_PROMISC, Name("usb0")), kNone},
        Case{"RunningWithoutUp", Link(kRunning, kUp | kRunning, Name("usb0")), kNone},
        Case{"OtherInterface", Link(kUp, kUp, Name("eth0")), kNone},
        Case{"LongerName", Link(kUp, kUp, Name("usb01")), kNone},
        Case{"NameAfterOthers",
             Link(kUp, kUp, Attribute(IFLA_MTU, "abc") + Attribute(IFLA_QDISC, "x") + Name("usb0")),
             kAvailable},
        Case{"NameWithoutNul", Link(kUp, kUp, Attribute(IFLA_IFNAME, "usb0")), kNone},
        Case{"NoAttributes", Link(kUp, kUp, ""), kNone},
        Case{"ThreeBytesOfAttributes", Link(kUp, kUp, "abc"), kNone},
        Case{"ShortAttributeLength", Link(kUp, kUp, Attribute(IFLA_MTU, "abcd", 3) + Name("usb0")),
             kNone},
        Case{"AttributePastTheEnd", Link(kUp, kUp, Attribute(IFLA_IFNAME, {"usb0\0", 5}, 400)),
             kNone},
        Case{"ZeroLengthAttribute", Link(kUp, kUp, std::string(16, '\0')), kNone},
        Case{"NoRoomForInterface", std::string(16 + 15, '\0'), kNone}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(LinkMonitorSocket, NothingWaitingIsNoEvent) {
    const int fd = create_netlink_socket();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kNone, handle_netlink_socket_event(fd));
    close(fd);
    EXPECT_EQ(kNone, handle_netlink_socket_event(-1));
}

// Datagrams from another process's port are refused, whatever they say.
TEST(LinkMonitorSocket, OtherSendersAreNoEvent) {
    const int fd = create_netlink_socket();
    ASSERT_GE(fd, 0);
    sockaddr_nl address = {};
    socklen_t len = sizeof(address);
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &len));
    const int sender = socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
    address.nl_groups = 0;
    const std::string message = Link(kUp, kUp, Name("usb0"));
    const ssize_t sent = sendto(sender, message.data(), message.size(), 0,
                                reinterpret_cast<sockaddr*>(&address), sizeof(address));
    // The kernel lets only root write to another's netlink socket.
    if (sent < 0 && errno == EPERM) GTEST_SKIP() << "forging a link event needs root";
    ASSERT_EQ(static_cast<ssize_t>(message.size()), sent) << strerror(errno);
    EXPECT_EQ(kNone, handle_netlink_socket_event(fd));
    close(sender);
    close(fd);
}

}  // namespace
