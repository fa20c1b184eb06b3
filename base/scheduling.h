// Hints to the kernel for the daemon's threads, of a daemon that was started with the normal
// policy. Where they are refused, all works as before.
#pragma once

// The calling thread, and those that it creates from then on, do not interrupt a running thread
// when they wake. What wakes the relay is mostly the kernel's worker that moves bytes through the
// tty: let it finish, and there are more to take at once, for fewer switches.
void WakeWithoutInterrupting();

// The calling thread interrupts others again when it wakes, as threads do.
void WakeAtOnce();
