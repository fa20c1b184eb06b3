// Datagrams of routing netlink, whoever sends them: recvmsg, for the whole program, gives out the
// one that is put here. Include it once.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

struct Datagram {
    std::string bytes;
    unsigned groups = RTMGRP_LINK;
    unsigned port = 0;
    unsigned user = 0;
    size_t credentials = sizeof(ucred);  // bytes of them
};

inline Datagram gDatagram;

extern "C" ssize_t recvmsg(int /*fd*/, msghdr* header, int /*flags*/) {
    sockaddr_nl sender = {AF_NETLINK, 0, gDatagram.port, gDatagram.groups};
    memcpy(header->msg_name, &sender, sizeof(sender));
    cmsghdr* const control = CMSG_FIRSTHDR(header);
    *control = {CMSG_LEN(gDatagram.credentials), SOL_SOCKET, SCM_CREDENTIALS};
    const ucred credentials = {1, gDatagram.user, 0};
    memcpy(CMSG_DATA(control), &credentials, sizeof(credentials));
    if (gDatagram.credentials == 0) header->msg_controllen = 0;
    const size_t count = std::min(gDatagram.bytes.size(), header->msg_iov->iov_len);
    memcpy(header->msg_iov->iov_base, gDatagram.bytes.data(), count);
    return static_cast<ssize_t>(count);
}
