// How long the daemon waits for a peer. A test hands in shorter ones.
#pragma once

#include <chrono>

struct Limits {
    using ms = std::chrono::milliseconds;

    // One write to a peer that takes nothing: so many tries, so far apart, 2 s in all; once the
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

    // In sum, the modem's logging at a connection's start and at its end.
    ms startBudget{2000};
    ms endBudget{1000};

    // The modem's last logs, and then its silence, at the end of a captured connection.
    ms lastLogsPause{350};
    ms drain{500};
};
