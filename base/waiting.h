// How the daemon waits.
//
// A wait ends with what it waits for, with its own limit, or with the deadline of the start or end
// that it is a part of, whichever comes first. So limits do not add up. All waits (the limits are
// those of base/limits.h; "relay" is the main thread while it serves a tool, which it does from
// relay/ down; an end goes through Connection::TearDown and CircularBufferExt::CloseProcess):
//
//   who                 for                                     own limit      deadline
//   listener            select, accept                          none
//   relay               select                                  none; refusal, tool for a modem
//                                                               that takes nothing
//   relay               the modem or the tool, Write            writeRetries   end
//   relay               the modem or the tool, Flush            stallAtEnd     end
//   relay               the tool, the modem, behind half a frame  frameEnd
//   relay               the modem, a request (blocking mode)    inVain         start, end
//   relay               the modem, a request (otherwise)        5 * 5 ms       inVain
//   relay               the modem's answer                      answer, inVain start, end
//   relay               a free block, an empty queue            queueWait
//   relay               the processing thread at the end        none: its waits end
//   relay               the modem's last logs and its silence   lastLogsPause, drain  end
//   relay               the port's own output                                  end
//   relay               the writer thread at the end            none: a store
//   relay               pauses: 4 ms, 20 ms, between two connections 1 s, for a port 10 * 1 s
//   processing thread   work                                    none
//   processing thread   the tool, Write                         writeRetries   end
//   processing thread   room in the pool                        none: a store
//   writer thread       chunks; the flash                       none
//   property watcher    10 ms; gLogEnableMutex, held at an end  none           end
#pragma once

#include <algorithm>
#include <chrono>

// A point of time. Any thread; can be kept in an atomic.
class Deadline {
  public:
    using Clock = std::chrono::steady_clock;

    Deadline() = default;  // never
    explicit Deadline(Clock::time_point at) : mAt(at) {}
    static Deadline In(Clock::duration time) { return Deadline(Clock::now() + time); }

    // The earlier of this one and that in so much time.
    Deadline Within(Clock::duration time) const {
        return Deadline(std::min(mAt, Clock::now() + time));
    }

    bool IsNever() const { return mAt == Clock::time_point::max(); }
    bool HasPassed() const { return Clock::now() >= mAt; }
    Clock::duration Left() const {
        const auto now = Clock::now();
        return now < mAt ? mAt - now : Clock::duration(0);
    }
    Clock::time_point At() const { return mAt; }

  private:
    Clock::time_point mAt = Clock::time_point::max();
};

// Waits for events of fd, as poll names them. Returns whether fd is ready, or has failed, in time.
bool WaitFor(int fd, short events, const Deadline& deadline);
