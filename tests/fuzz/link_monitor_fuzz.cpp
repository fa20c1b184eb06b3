// The link monitor's datagrams. Input: flags, datagram. Flags: 1 another group, 2 another port, 4
// no credentials, 8 another user, 16 short credentials.
#include "base/link_monitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "tests/fuzz/fuzz_input.h"

namespace {

uint8_t gFlags = 0;
std::string gDatagram;

}  // namespace

// The kernel's.
extern "C" ssize_t recvmsg(int /*fd*/, msghdr* header, int /*flags*/) {
    sockaddr_nl sender = {};
    sender.nl_groups = (gFlags & 1) != 0 ? 0 : RTMGRP_LINK;
    sender.nl_pid = (gFlags & 2) != 0 ? 1000 : 0;
    memcpy(header->msg_name, &sender, sizeof(sender));
    cmsghdr* const control = CMSG_FIRSTHDR(header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_CREDENTIALS;
    control->cmsg_len = CMSG_LEN((gFlags & 16) != 0 ? 4 : sizeof(ucred));
    const ucred credentials = {1, (gFlags & 8) != 0 ? 1000U : 0U, 0};
    memcpy(CMSG_DATA(control), &credentials, sizeof(credentials));
    if ((gFlags & 4) != 0) header->msg_controllen = 0;
    const size_t count = std::min(gDatagram.size(), header->msg_iov->iov_len);
    memcpy(header->msg_iov->iov_base, gDatagram.data(), count);
    return static_cast<ssize_t>(count);
}

namespace {

constexpr int kNone = NETLINK_UTIL_SOCKET_UPDATE_NONE;
const std::string kName("usb0\0", 5);

// One message in memory of its own size, so that a byte too far is seen.
int Parse(const std::string& bytes) {
    const std::vector<char> exact(bytes.begin(), bytes.end());
    return parse_rtm_msg(reinterpret_cast<const nlmsghdr*>(exact.data()),
                         static_cast<int>(exact.size() - sizeof(nlmsghdr)));
}

void CheckEvent(int event, const std::string& bytes) {
    Check(event >= 0 && event <= kNone, "there are three events");
    Check(event == kNone || bytes.find(kName) != std::string::npos, "it tells of our link");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    gFlags = input.Byte() & 31;
    gDatagram = input.Bytes(SIZE_MAX);
    const int event = handle_netlink_socket_event(-1);
    CheckEvent(event, gDatagram);
    Check(event == kNone || gFlags == 0, "only the kernel is heard");

    if (gDatagram.size() < sizeof(nlmsghdr)) return 0;
    CheckEvent(Parse(gDatagram), gDatagram);
    return 0;
}
