// The connection cycle: one tool at a time over TCP, one modem port for it, one relay.
// Everything here runs on the main thread.
#pragma once

// Serves tools for ever: listens, accepts one, opens the modem port, relays, pauses one second.
[[noreturn]] void start_ipc_connection();

// Waits for a tool, following the USB link through netlink_fd (or -1): stops listening when the
// link goes, listens again when it comes back. Returns the accepted socket, owned by the caller,
// non-blocking and with TCP_NODELAY, or -1 when neither kind of socket can be used.
int listen_tcpip_connection(int netlink_fd);

// Returns a socket listening on port 11008 of the USB-LAN interface, owned by the caller, or -1.
// An interface that cannot be bound to leaves it listening on all of them.
int create_tcpip_listen_socket();
