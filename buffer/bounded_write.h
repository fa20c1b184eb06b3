// Writes to a tty that may wait in the kernel, but not for long.
#pragma once

#include <sys/types.h>

#include <cstddef>

// A tty takes a long span in small portions, as its reader makes room. A write that waits for them
// in the kernel needs fewer system calls and switches than one that is told of each room; but it
// waits as long as the reader likes. So the property watcher, which runs every 10 ms anyway, ends
// it.

// Writes len bytes to fd, a non-blocking tty that nobody else writes to, and waits for room until
// the second EndLongWrite after the start. Without a watcher it waits for nothing. Returns as write
// does; -1 with EAGAIN when nothing was taken. Relay thread only.
ssize_t WriteBounded(int fd, const char* data, size_t len);

// Ends a WriteBounded that waits since the call before. To be called again and again by one thread,
// which thereby becomes the watcher; waits for nothing.
void EndLongWrite();
