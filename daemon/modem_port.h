// The modem's diagnostic port.
#pragma once

// Opens "/dev/ttydiag0", trying ten times one second apart, and puts the line into raw 8-bit mode
// at 115200 baud with hardware flow control. Input received before is discarded. Returns the
// descriptor, non-blocking and owned by the caller, or -1 after the tenth failure. Main thread.
int open_bp_ipc();
