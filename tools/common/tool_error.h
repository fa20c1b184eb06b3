#pragma once

#include <stdexcept>

// Ends a subcommand: main prints the text on stderr and exits with status 1.
class ToolError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};
