// The modem port's own output at the end of a connection.
#pragma once

#include "base/waiting.h"

// Waits until the driver of the port fd has sent what it holds, or the deadline; discards what is
// left then, with a line that tells how much. A port that tells nothing of its output, like a pty,
// holds none. Returns whether all was sent.
bool DrainPort(int fd, const Deadline& deadline);

// Closes the port fd, on the main thread. A close waits for what the driver still holds, for half a
// minute or more. Where the driver discards nothing, as Linux 6.1's for USB modems, a signal
// (SIGALRM) interrupts that wait, and the close drops what was held.
void ClosePort(int fd);
