// The log of a unit test: kept instead of written, for tests to count and to act on.
#pragma once

#include <functional>
#include <string>

// Lines are kept as long as there is one of these; one at a time.
class LogLines {
  public:
    LogLines();
    ~LogLines();

    // How many lines so far contain part.
    static int Count(const std::string& part);
    // Has each thread that logs a line with this part do this first.
    static void On(const std::string& part, std::function<void()> action);
};
