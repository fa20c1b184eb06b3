// One client connection from start to end.
#pragma once

#include <sys/time.h>

#include "buffer/circular_buffer_ext.h"
#include "logmask/log_mask.h"

// The one LogMask, set before main runs so that everything finds it.
extern LogMask* gLogMaskInstance;

// Relays between the tool's socket ap_fd and the modem port bp_fd (each non-blocking, or -1) until
// either side ends, an error, or netlink_fd (or -1) reports the USB link removed; then flushes both
// directions and closes both descriptors, which it owns. buffer_size: bytes per direction.
// timeout, when not null, is the longest wait in select; each time it runs out timeout_callback,
// when not null, is called with callback_arg. Returns the result of closing ap_fd, or -1 when there
// was no tool. The modem is programmed by gLogMaskInstance, whichever LogMask surroundings names.
// Main thread only.
int transfer_bidirectional_and_close(int ap_fd, int bp_fd, int netlink_fd,
                                     unsigned long buffer_size, const timeval* timeout,
                                     void (*timeout_callback)(void*), void* callback_arg,
                                     const Surroundings& surroundings = {});
