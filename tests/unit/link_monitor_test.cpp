// Link events from datagrams of routing netlink, built here byte by byte.
#include "base/link_monitor.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <vector>

#include "tests/support/datagram.h"
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
        {"down", kGoes, kRemoved},
        {"down, running changed", Link(0, kRunning), kRemoved},
        {"no change", Link(kUp | kRunning, 0), kNone},
        {"running without up", Link(kRunning, kUp | kRunning), kNone},
        {"other interface", Link(kUp, kUp, Name("eth0")), kNone},
        {"longer name", Link(kUp, kUp, Name("usb01")), kNone},
        {"name without end", Link(kUp, kUp, Attribute(IFLA_IFNAME, "usb0")), kNone},
        {"name behind others", Link(kUp, kUp, Attribute(IFLA_MTU, "x") + Name("usb0")), kUpdated},
        {"second name", Link(kUp, kUp, Name("eth0") + Name("usb0")), kUpdated},
        {"too short length", Link(kUp, kUp, Attribute(IFLA_MTU, "", -1) + Name("usb0")), kNone},
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
    const std::string tooShort = Message(RTM_NEWLINK, "", -1);
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
        {"too short", {tooShort + kGoes}, kNone, nullptr},
        {"empty", {""}, kNone, nullptr},
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
