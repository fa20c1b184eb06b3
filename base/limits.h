// How long the daemon waits for a peer. A test hands in shorter ones. base/waiting.h tells who
// waits for what.
#pragma once

#include <chrono>

struct Limits {
    using ms = std::chrono::milliseconds;

    // From the end of the relay on, all that the connection still waits for. With what else is in
    // between, 1 s of pause above all, the daemon listens again within 5 s.
    ms end{3700};
    // All that programs or disables the modem's logging at a start, or when the switch moves.
    ms start{10000};

    // One write to a peer that takes nothing: so many pauses, so long, 2 s in all; once the
    // connection ends, and for its last bytes, only as long without progress.
    int writeRetries = 1000;
    ms retryPause{2};
    ms stallAtEnd{700};
    // A socket is reported writable only when a third of its buffer is free, but takes bytes
    // before.
    ms flushTryInterval{50};

    // The relay thread, for a free block or for the queue to be worked off: the tool's requests,
    // the switch and the link are served in between.
    ms queueWait{50};

    // The relay, for a modem that takes nothing: when the tool has gone, and as long as it has not.
    ms refusal{700};
    ms tool{60000};
    // The tool, for the rest of a frame that the modem has begun to get when the switch moves.
    ms frameEnd{20};

    // The modem's answer to one request of the daemon; and, for all requests of a start or an end,
    // a modem that answers nothing or takes nothing. Answers and progress cost nothing.
    ms answer{300};
    ms inVain{2000};

    // The modem's last logs, and then its silence, at the end of a captured connection.
    ms lastLogsPause{350};
    ms drain{500};
};
