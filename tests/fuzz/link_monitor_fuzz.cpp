// The link monitor's datagrams. Input: flags, datagram. Flags: 1 another group, 2 another port, 4
// no credentials, 8 another user, 16 short credentials.
#include "base/link_monitor.h"

#include <vector>

#include "tests/fuzz/fuzz_input.h"
#include "tests/support/datagram.h"

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
    const unsigned flags = input.Byte() & 31U;
    gDatagram = {input.Bytes(SIZE_MAX), (flags & 1) != 0 ? 0U : RTMGRP_LINK, (flags & 2) * 500,
                 (flags & 8) * 125, sizeof(ucred)};
    if ((flags & 20) != 0) gDatagram.credentials = (flags & 16) / 4;
    const int event = handle_netlink_socket_event(-1);
    CheckEvent(event, gDatagram.bytes);
    Check(event == kNone || flags == 0, "only the kernel is heard");

    if (gDatagram.bytes.size() < sizeof(nlmsghdr)) return 0;
    CheckEvent(Parse(gDatagram.bytes), gDatagram.bytes);
    return 0;
}
