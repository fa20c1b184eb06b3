// The modem port's own output at the end of a connection.
#pragma once

#include "base/waiting.h"

// Waits until the driver of the port fd has sent what it holds, or the deadline; discards what is
// left then, with a line that tells how much. Without it the close of a serial port waits, for half
// a minute or more. A port that tells nothing of its output, like a pty, holds none. Returns
// whether all was sent.
bool DrainPort(int fd, const Deadline& deadline);
