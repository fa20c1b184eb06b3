// Link events from datagrams of routing netlink, built here byte by byte.
#include "base/link_monitor.h"

#include <net/if.h>

#include "tests/support/bytes.h"
#include "tests/support/datagram.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr int kUpdated = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_AVAILABLE;
constexpr int kRemoved = NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED;
constexpr int kNone = NETLINK_UTIL_SOCKET_UPDATE_NONE;
constexpr uint32_t kUp = IFF_UP;
constexpr uint32_t kRunning = IFF_RUNNING;

// excess: by how much its length claims more than it has.
std::string Attribute(uint32_t type, std::string data, uint32_t excess = 0) {
    const auto size = static_cast<uint32_t>(sizeof(rtattr) + data.size());
    data.resize(RTA_ALIGN(data.size()), '\0');
    return Le32(size + excess + (type << 16)) + data;
}

std::string Name(const char* name) {
    return Attribute(IFLA_IFNAME, std::string(name, strlen(name) + 1));
}

std::string Message(uint32_t type, const std::string& payload, uint32_t excess = 0) {
    const auto size = static_cast<uint32_t>(sizeof(nlmsghdr) + payload.size());
    return Le32(size + excess) + Le32(type) + Le32(0) + Le32(0) + payload;
}

std::string Link(uint32_t flags, uint32_t change, const std::string& attributes = Name("usb0")) {
    return Message(RTM_NEWLINK, Le32(0) + Le32(0) + Le32(flags) + Le32(change) + attributes);
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
        {"down", kGoes, kRemoved},
        {"down, running changed", Link(0, kRunning), kRemoved},
        {"no change", Link(kUp | kRunning, 0), kNone},
        {"running without up", Link(kRunning, kUp | kRunning), kNone},
        {"other interface", Link(kUp, kUp, Name("eth0")), kNone},
        {"longer name", Link(kUp, kUp, Name("usb01")), kNone},
        {"name without end", Link(kUp, kUp, Attribute(IFLA_IFNAME, "usb0")), kNone},
        {"name behind others", Link(kUp, kUp, Attribute(IFLA_MTU, "x") + Name("usb0")), kUpdated},
        {"too short length", Link(kUp, kUp, Attribute(IFLA_MTU, "", -1U) + Name("usb0")), kNone},
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

TEST(LinkMonitor, HearsTheKernelAlone) {
    const std::string cut = Message(RTM_NEWLINK, kGoes.substr(16), 4);
    const std::string noLink = Message(RTM_DELLINK, kComes.substr(16));
    const struct {
        const char* name;
        Datagram datagram;
        int event;
        const char* logged;
    } kRows[] = {
        {"other group", {kGoes, 0}, kNone, "groups = 0, pid = 0"},
        {"other port", {kGoes, RTMGRP_LINK, 7}, kNone, "groups = 1, pid = 7"},
        {"other user", {kGoes, RTMGRP_LINK, 0, 1000}, kNone, "Invalid UID of 1000"},
        {"no credentials", {kGoes, RTMGRP_LINK, 0, 0, 0}, kNone, "invalid control message"},
        {"kernel", {kGoes}, kRemoved, "USBLAN Removed"},
        {"last of two", {kComes + kGoes}, kRemoved, "USBLAN Available"},
        {"other message between", {noLink + kGoes}, kRemoved, "USBLAN Removed"},
        {"none behind the end", {Message(NLMSG_DONE, "") + kGoes}, kNone, nullptr},
        {"cut", {cut}, kNone, nullptr},
    };
    for (const auto& row : kRows) {
        const LogLines log;
        gDatagram = row.datagram;
        EXPECT_EQ(row.event, handle_netlink_socket_event(-1)) << row.name;
        EXPECT_EQ(row.logged == nullptr ? 0 : 1, log.Count(row.logged ? row.logged : ""))
            << row.name;
    }
}

}  // namespace
