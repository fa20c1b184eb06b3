// Wakes the relay loop out of its select when something changed that no relayed descriptor shows.
#pragma once

// The descriptor to watch for reading, or -1 when the system gave none. It lives as long as the
// process.
int RelayWakeupFd();

// Makes RelayWakeupFd() readable. Any thread; call it after the change is published.
void WakeRelay();

// Takes all wake-ups so far. Relay thread; call it before reading what may have changed.
void ClearRelayWakeup();
