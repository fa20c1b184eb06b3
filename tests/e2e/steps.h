// What tools, modems and links do to a daemon. The tests play each step once; the soak plays them
// in random order, with capture off and on.
#pragma once

#include <string>
#include <vector>

#include "tests/e2e/handset.h"

namespace e2e {

struct Step {
    const char* name;
    void (*play)(Handset& world);  // with a daemon that listens
    bool captures;                 // in the test
};

extern const std::vector<Step> kSteps;

// Frames of a modem, of which it knows where each must end up. The last is an answer, so the tool
// has it when all is handled.
struct Mix {
    Mix(std::minstd_rand& random, size_t size, bool isCaptured, bool hasWantedLogs = true);

    std::string all;
    std::string own;      // on flash
    std::string forTool;  // all of it with capture off
};

}  // namespace e2e
